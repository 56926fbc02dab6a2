#pragma once

#include "core/renderpasshelper.h"
#include "gl/storage.h"

#include <QRect>
#include <QSize>
#include <QString>

#include <algorithm>
#include <limits>

namespace Brevane::Kvo {

/// The size of the rectangle in a slot. Its corners may be as far apart as two integers are: beyond the largest one
/// that is the size.
inline QSize sizeInSlot(const RenderPassHelper &pass, int slot)
{
    const QRect rect = pass.inputValue(slot).toRect();
    const auto side = [](int first, int last) {
        return int(std::clamp<qint64>(qint64(last) - first + 1, 0, std::numeric_limits<int>::max()));
    };
    return {side(rect.left(), rect.right()), side(rect.top(), rect.bottom())};
}

/// Whether the driver can have targets of that size, which a slot asks for. Where it cannot, that is said once with
/// pass and slot.
inline bool hasRoomFor(RenderPassHelper &pass, int slot, const QSize &size)
{
    const GLLimits limits = currentLimits();
    if (size.width() <= limits.targetWidth && size.height() <= limits.targetHeight) {
        pass.acceptInput(slot);
        return true;
    }
    pass.reportInput(slot, QStringLiteral("asks for %1x%2 pixels, more than the driver has room for, which is %3x%4; "
                                          "nothing is drawn")
                               .arg(size.width())
                               .arg(size.height())
                               .arg(limits.targetWidth)
                               .arg(limits.targetHeight));
    return false;
}

} // namespace Brevane::Kvo
