#pragma once

#include <QRect>
#include <QVariant>

namespace Brevane::Kvo {

/// Size of a viewport or target in pixels.
struct Extent
{
    int width = 0;
    int height = 0;

    bool operator==(const Extent &) const = default;
    bool isEmpty() const { return width <= 0 || height <= 0; }
};

/// Width and height of the viewport in a slot; 0 by 0 when there is none. The only place that turns a
/// rectangle into a size: QRect's corners are inclusive.
inline Extent extentOf(const QVariant &viewport)
{
    const QRect rect = qvariant_cast<QRect>(viewport);
    return {qMax(0, rect.right() - rect.left() + 1), qMax(0, rect.bottom() - rect.top() + 1)};
}

} // namespace Brevane::Kvo
