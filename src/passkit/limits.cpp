#include "passkit/limits.h"

#include "core/renderpasshelper.h"
#include "gl/storage.h"

#include <QRect>
#include <QVariant>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Brevane::Kvo {

namespace {

// What every driver of OpenGL 3.2 has, so that it need not be asked.
constexpr int kAlwaysPossible = 1024;
constexpr float kAlwaysPossibleRadius = 100.0f;
// Uniforms of a program beside its large array.
constexpr int kOtherUniforms = 64;
constexpr int kComponentsOfAVector = 4;
constexpr int kComponentsOfAMatrix = 16;
// Sums and differences of such corners are exact, in int and in float.
constexpr int kFarthestCorner = 1 << 23;
constexpr int kLargestStencilMaterial = 254;

// Of the two ends, where there is no driver to ask.
Extent largestTarget()
{
    const GLLimits limits = currentLimits();
    constexpr int kAny = std::numeric_limits<int>::max();
    return limits.targetWidth > 0 ? Extent{limits.targetWidth, limits.targetHeight} : Extent{kAny, kAny};
}

struct Cut
{
    Extent extent;
    QString complaint; // empty: nothing was cut
};

// A size in whole pixels.
Cut cut(double width, double height)
{
    const auto isPossible = [&](const Extent &largest) { return width <= largest.width && height <= largest.height; };
    if (isPossible({kAlwaysPossible, kAlwaysPossible}))
        return {{int(width), int(height)}, {}};
    const Extent largest = largestTarget();
    if (isPossible(largest))
        return {{int(width), int(height)}, {}};
    double w = std::min(width, double(largest.width));
    double h = std::min(height, double(largest.height));
    if (const double share = kMostTexelsOfACut / (w * h); share < 1.0) {
        w = std::max(1.0, w * std::sqrt(share));
        h = std::max(1.0, h * std::sqrt(share));
    }
    const Extent used{int(w), int(h)};
    return {used, QStringLiteral("asks for %1x%2 pixels, and this driver has %3x%4; %5x%6 are used")
                      .arg(width, 0, 'g', 10)
                      .arg(height, 0, 'g', 10)
                      .arg(largest.width)
                      .arg(largest.height)
                      .arg(used.width)
                      .arg(used.height)};
}

void sayOrAccept(RenderPassHelper &pass, int slot, const QString &complaint)
{
    if (complaint.isEmpty())
        pass.acceptInput(slot);
    else
        pass.reportInput(slot, complaint);
}

float floatIn(const RenderPassHelper &pass, int slot)
{
    return qvariant_cast<float>(pass.inputValue(slot));
}

// A number between two ends, and what is said about it.
double bounded(RenderPassHelper &pass, int slot, double value, double least, double most, double ifNotANumber)
{
    const double used = std::isnan(value) ? ifNotANumber : std::clamp(value, least, most);
    if (value == used)
        pass.acceptInput(slot);
    else if (std::isnan(value))
        pass.reportInput(slot, QStringLiteral("is not a number; %1 is used").arg(used));
    else
        pass.reportInput(
            slot, QStringLiteral("%1 is not from %2 to %3; %4 is used").arg(value).arg(least).arg(most).arg(used));
    return used;
}

} // namespace

Extent extentOf(RenderPassHelper &pass, int slot)
{
    const QRect rect = qvariant_cast<QRect>(pass.inputValue(slot));
    // Corners are inclusive, and may be as far apart as two ints are.
    const auto side = [](int first, int last) { return std::max(0.0, double(last) - double(first) + 1.0); };
    const Cut result = cut(side(rect.left(), rect.right()), side(rect.top(), rect.bottom()));
    sayOrAccept(pass, slot, result.complaint);
    return result.extent;
}

Extent dividedExtent(RenderPassHelper &pass, int slot, const Extent &viewport, float divider)
{
    const bool isNumber = !std::isnan(divider);
    const float by = isNumber ? divider : 1.0f;
    // 0 by 0 is not a number either.
    const auto divided = [by](int side) {
        const float result = std::trunc(float(side) / by);
        return result > 0.0f ? double(result) : 0.0;
    };
    const Cut result = cut(divided(viewport.width), divided(viewport.height));
    QString complaint;
    if (!isNumber)
        complaint = QStringLiteral("is not a number; 1 is used");
    else if (!result.complaint.isEmpty())
        complaint = QStringLiteral("%1 %2").arg(double(by)).arg(result.complaint);
    sayOrAccept(pass, slot, complaint);
    return result.extent;
}

QSize mapSizeOf(RenderPassHelper &pass, int slot)
{
    const auto size = qvariant_cast<QSize>(pass.inputValue(slot));
    if (size.isEmpty()) {
        pass.reportInput(slot, QStringLiteral("is no size of maps; there are none"));
        return {0, 0};
    }
    const Cut result = cut(size.width(), size.height());
    sayOrAccept(pass, slot, result.complaint);
    return {result.extent.width, result.extent.height};
}

float largestBlurRadius()
{
    // A driver may give each element of an array the room of a vector; there are weights and offsets.
    const int components = currentLimits().fragmentUniforms;
    const int room = (components - kOtherUniforms) / (2 * kComponentsOfAVector);
    const int taps = components > 0 ? std::clamp(room, 2, kMostBlurTaps) : kMostBlurTaps;
    return float(taps - 1);
}

float blurRadiusOf(RenderPassHelper &pass, int slot)
{
    const float radius = floatIn(pass, slot);
    const float largest = radius > kAlwaysPossibleRadius ? largestBlurRadius() : radius;
    if (std::isnan(radius)) {
        pass.reportInput(slot, QStringLiteral("is not a number; 0 is used"));
        return 0.0f;
    }
    if (radius > largest) {
        pass.reportInput(slot, QStringLiteral("%1 is beyond %2 taps; %3 is used")
                                   .arg(double(radius))
                                   .arg(int(largest) + 1)
                                   .arg(double(largest)));
        return largest;
    }
    pass.acceptInput(slot);
    return radius;
}

float numberOf(RenderPassHelper &pass, int slot, float least, float most, float ifNotANumber)
{
    return float(bounded(pass, slot, double(pass.inputValue(slot).toFloat()), double(least), double(most),
                         double(ifNotANumber)));
}

int integerOf(RenderPassHelper &pass, int slot, int least, int most, int ifNotANumber)
{
    const QVariant value = pass.inputValue(slot);
    const double number = value.toDouble();
    const double used = bounded(pass, slot, number, least, most, ifNotANumber);
    return number == used ? value.toInt() : int(used);
}

void boundCorners(RenderPassHelper &pass, int slot, std::span<QRect> rectangles)
{
    const auto bounded = [](int corner) { return std::clamp(corner, -kFarthestCorner, kFarthestCorner); };
    QString complaint;
    for (QRect &rectangle : rectangles) {
        const QRect used(QPoint(bounded(rectangle.left()), bounded(rectangle.top())),
                         QPoint(bounded(rectangle.right()), bounded(rectangle.bottom())));
        if (used != rectangle)
            complaint = QStringLiteral("has a corner beyond %1; it is moved there").arg(kFarthestCorner);
        rectangle = used;
    }
    sayOrAccept(pass, slot, complaint);
}

int stencilMaterialOf(RenderPassHelper &pass, int slot)
{
    const int material = qvariant_cast<int>(pass.inputValue(slot));
    const int used = std::min(material, kLargestStencilMaterial);
    sayOrAccept(pass, slot,
                material == used
                    ? QString()
                    : QStringLiteral("%1 is beyond what a stencil holds; %2 is used").arg(material).arg(used));
    return used;
}

int nodeBufferWidthOf(RenderPassHelper &pass, int slot)
{
    return integerOf(pass, slot, 0, kWidestNodeBuffer, 0);
}

int largestMatrixArray()
{
    const GLLimits limits = currentLimits();
    return std::max(1,
                    (std::min(limits.vertexUniforms, limits.geometryUniforms) - kOtherUniforms) / kComponentsOfAMatrix);
}

} // namespace Brevane::Kvo
