#include "hostvalues.h"

#include "failure.h"
#include "host/slotname.h"
#include "passgraph.h"

#include <QRect>

namespace Brevane::Kvo {

namespace {

struct FixedValue
{
    const char *name;
    const char *slot;
};

// In the order of HostValues::Index.
constexpr FixedValue kFixed[] = {
    {"viewport", "Kvo_QRect_Viewport"},
    {"camera", "Kvo_QMatrix4x4_Camera"},
    {"projection", "Kvo_QMatrix4x4_Projection"},
    {"near", "Kvo_float_Near"},
    {"far", "Kvo_float_Far"},
    {"model", "Kvo_KvoGPUModel*_Model"},
    {"opaque", "Kvo_KvoGPUModel*_Opaque"},
    {"screen", "Kvo_KvoFramebuffer*_Screen"},
    {"lights", "Kvo_QList_Lights"},
    {"frame", "Kvo_int_Frame"},
};
constexpr QLatin1StringView kPathPrefix("paths.");
constexpr QLatin1StringView kPathSlot("Kvo_QString_Path");

} // namespace

HostValues::HostValues()
{
    for (const FixedValue &fixed : kFixed)
        _values.push_back({QLatin1StringView(fixed.name), QLatin1StringView(fixed.slot), QVariant()});
    (*this)[Frame] = 0;
}

QStringList HostValues::fixedNames()
{
    QStringList names;
    for (const FixedValue &fixed : kFixed)
        names << QLatin1StringView(fixed.name);
    return names;
}

int HostValues::find(const QString &name, QString *error)
{
    for (int i = 0; i < count(); ++i)
        if (this->name(i) == name)
            return i;
    if (name.startsWith(kPathPrefix) && isPlainName(name.mid(kPathPrefix.size()))) {
        _values.push_back({name, kPathSlot, QVariant(QString())});
        return count() - 1;
    }
    fail(error, QStringLiteral("there is no host value '%1'%2")
                    .arg(name, nearestNameHint(name, fixedNames() << QStringLiteral("paths.NAME"))));
    return -1;
}

QVariant HostValues::valueOf(const QString &name) const
{
    for (const HostValue &value : _values)
        if (value.name == name)
            return value.value;
    return QVariant();
}

const QVariant &HostValues::of(const HostSource &source) const
{
    const QVariant &value = (*this)[source.host];
    return source.parts.isEmpty() ? value : source.parts.of(value.toRect());
}

} // namespace Brevane::Kvo
