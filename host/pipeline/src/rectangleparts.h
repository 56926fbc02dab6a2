#pragma once

#include <QRect>
#include <QRectF>
#include <QString>
#include <QVariant>

#include <vector>

namespace Brevane::Kvo {

/// Parts of a rectangle that is known later, as fractions of its size: "[x, y, width, height]" or a list
/// of these.
class RectangleParts
{
public:
    /// False, with the reason, for a text that is neither.
    bool parse(const QString &text, QString *error);
    /// No parts: the rectangle itself is meant.
    bool isEmpty() const { return _parts.empty(); }
    QString text() const { return _text; }
    /// A QRect, or a list of them, as the text was. Worked out only when the rectangle is another one,
    /// so that asking every frame costs nothing.
    const QVariant &of(const QRect &rectangle) const;

private:
    std::vector<QRectF> _parts;
    bool _isList = false;
    QString _text;
    mutable QRect _rectangle;
    mutable QVariant _value;
};

} // namespace Brevane::Kvo
