#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include <vector>

namespace Brevane::Kvo {

struct HostSource;

/// What an application tells its pipeline under fixed names, and its paths under names of their own.
class HostValues
{
public:
    enum Index { Viewport, Camera, Projection, Near, Far, Model, Opaque, Screen, Lights, Frame };

    HostValues();

    static QStringList fixedNames();
    /// -1 with an error for a name that is neither fixed nor that of a path; a path of a new name is made.
    int find(const QString &name, QString *error);
    /// Invalid for unknown names.
    QVariant valueOf(const QString &name) const;

    QVariant &operator[](int index) { return _values[size_t(index)].value; }
    const QVariant &operator[](int index) const { return _values[size_t(index)].value; }
    const QString &name(int index) const { return _values[size_t(index)].name; }
    int count() const { return int(_values.size()); }
    /// A slot name that stands for the value's type.
    const QString &slot(int index) const { return _values[size_t(index)].slot; }

    const QVariant &of(const HostSource &source) const;

private:
    struct HostValue
    {
        QString name;
        QString slot;
        QVariant value;
    };

    std::vector<HostValue> _values;
};

} // namespace Brevane::Kvo
