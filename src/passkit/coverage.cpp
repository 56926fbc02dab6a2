#include "passkit/coverage.h"

#include "gl/hoststate.h"

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace Brevane::Kvo {

namespace {

// What a GPU's rounding may make of a product of matrices with a point, as a share of the sum of the sizes of what is
// added: 16 steps of a float.
constexpr double kRounding = 1.0 / (1 << 20);

/// A number, and how far off it may be.
struct Rounded
{
    double value = 0;
    double error = 0;
};

using Clip = std::array<Rounded, 4>;

Clip clipOf(const QVector3D &point, const QMatrix4x4 &projection, const QMatrix4x4 &camera)
{
    std::array<double, 4> eye{}, sizes{};
    for (int row = 0; row < 4; ++row) {
        eye[std::size_t(row)] = camera(row, 3);
        sizes[std::size_t(row)] = std::abs(camera(row, 3));
        for (int i = 0; i < 3; ++i) {
            eye[std::size_t(row)] += double(camera(row, i)) * point[i];
            sizes[std::size_t(row)] += std::abs(double(camera(row, i)) * point[i]);
        }
    }
    Clip clip;
    for (int row = 0; row < 4; ++row) {
        for (int i = 0; i < 4; ++i) {
            clip[std::size_t(row)].value += projection(row, i) * eye[std::size_t(i)];
            clip[std::size_t(row)].error += kRounding * std::abs(projection(row, i)) * sizes[std::size_t(i)];
        }
    }
    return clip;
}

} // namespace

QRect coveredPixels(const GPUModel::BoundingBox &box, const QMatrix4x4 &projection, const QMatrix4x4 &camera)
{
    std::array<GLint, 4> viewport{};
    glGetIntegerv(GL_VIEWPORT, viewport.data());
    const QRect whole(viewport[0], viewport[1], viewport[2], viewport[3]);
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    std::array<double, 2> low{kInfinity, kInfinity}, high{-kInfinity, -kInfinity};
    for (int corner = 0; corner < 8; ++corner) {
        const Clip clip =
            clipOf({corner & 1 ? box.maximum.x() : box.minimum.x(), corner & 2 ? box.maximum.y() : box.minimum.y(),
                    corner & 4 ? box.maximum.z() : box.minimum.z()},
                   projection, camera);
        const Rounded &w = clip[3];
        // Not so for what is no number either.
        if (!(w.value > 2 * w.error))
            return whole;
        for (std::size_t i = 0; i < 2; ++i) {
            for (const double x : {clip[i].value - clip[i].error, clip[i].value + clip[i].error}) {
                for (const double least : {w.value - w.error, w.value + w.error}) {
                    const double place = x / least;
                    if (!std::isfinite(place))
                        return whole;
                    low[i] = std::min(low[i], place);
                    high[i] = std::max(high[i], place);
                }
            }
        }
    }
    // Within the viewport the numbers fit into an int.
    const auto pixel = [&](double place, std::size_t axis, double margin) {
        const double share = std::clamp(place, -1.0, 1.0) * 0.5 + 0.5;
        return int(std::clamp(std::floor(share * viewport[2 + axis]) + margin, 0.0, double(viewport[2 + axis])));
    };
    const int left = pixel(low[0], 0, -1), right = pixel(high[0], 0, 2);
    const int bottom = pixel(low[1], 1, -1), top = pixel(high[1], 1, 2);
    return {viewport[0] + left, viewport[1] + bottom, right - left, top - bottom};
}

ScissorScope::ScissorScope(const QRect &pixels)
{
    glGetIntegerv(GL_SCISSOR_BOX, _before);
    setFirstScissorBox({pixels.x(), pixels.y(), pixels.width(), pixels.height()});
    setFirstScissorTest(true);
}

ScissorScope::~ScissorScope()
{
    setFirstScissorTest(false);
    setFirstScissorBox(_before);
}

} // namespace Brevane::Kvo
