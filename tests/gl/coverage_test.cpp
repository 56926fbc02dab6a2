// Which pixels a box of the world may cover: none may be missing, and few too many.

#include "support/gltest.h"

#include "passkit/coverage.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr QRect kViewport(-7, 11, 203, 97);

struct Point
{
    double x;
    double y;
    double w;
};

/// Where a point comes to lie in the window, and its distance from the eye.
Point windowOf(const std::array<double, 3> &at, const QMatrix4x4 &projection, const QMatrix4x4 &camera)
{
    const auto times = [](const QMatrix4x4 &m, const std::array<double, 4> &v) {
        std::array<double, 4> out{};
        for (int row = 0; row < 4; ++row)
            for (int i = 0; i < 4; ++i)
                out[std::size_t(row)] += double(m(row, i)) * v[std::size_t(i)];
        return out;
    };
    const auto clip = times(projection, times(camera, {at[0], at[1], at[2], 1}));
    return {kViewport.x() + (clip[0] / clip[3] + 1) / 2 * kViewport.width(),
            kViewport.y() + (clip[1] / clip[3] + 1) / 2 * kViewport.height(), clip[3]};
}

class Coverage : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        glViewport(kViewport.x(), kViewport.y(), kViewport.width(), kViewport.height());
    }
    void TearDown() override
    {
        glViewport(0, 0, 16, 16);
        GLTest::TearDown();
    }

    std::minstd_rand random{3};
    float number(float least, float most) { return std::uniform_real_distribution<float>(least, most)(random); }
    QVector3D point(float reach) { return {number(-reach, reach), number(-reach, reach), number(-reach, reach)}; }
};

} // namespace

TEST_F(Coverage, HoldsEveryPointOfABoxWithAPixelToSpareAndNoMoreThanTwo)
{
    int partial = 0, whole = 0, none = 0;
    for (int round = 0; round < 3000; ++round) {
        SCOPED_TRACE(round);
        // Scenes of any unit, and far from the origin of the world.
        const float unit = std::pow(10.0f, number(-2, 3));
        const QVector3D origin = round % 3 ? QVector3D() : point(100 * unit);
        QMatrix4x4 projection, camera;
        if (round % 2)
            projection.perspective(number(20, 90), 2, 0.1f * unit, 100 * unit);
        else
            projection.ortho(-7 * unit, 8 * unit, -6 * unit, 5 * unit, -50 * unit, 50 * unit);
        camera.lookAt(origin + point(round % 3 == 1 ? 7 * unit : 20 * unit), origin + point(5 * unit), {0, 1, 0.1f});
        const QVector3D center = origin + point(8 * unit), half = point(3 * unit);
        GPUModel::BoundingBox box;
        for (int i = 0; i < 3; ++i) {
            box.minimum[i] = center[i] - std::abs(half[i]);
            box.maximum[i] = center[i] + std::abs(half[i]);
        }
        const QRect pixels = coveredPixels(box, projection, camera);
        ASSERT_TRUE(kViewport.contains(pixels) || pixels.isEmpty());
        std::array<double, 2> low{1e300, 1e300}, high{-1e300, -1e300};
        double nearest = 1e300;
        const auto add = [&](const std::array<double, 3> &at, bool isCorner) {
            const Point p = windowOf(at, projection, camera);
            nearest = std::min(nearest, p.w);
            if (p.w > 0 && isCorner) {
                low = {std::min(low[0], p.x), std::min(low[1], p.y)};
                high = {std::max(high[0], p.x), std::max(high[1], p.y)};
            }
            if (p.w <= 0 || p.x < kViewport.x() || p.y < kViewport.y() || p.x >= kViewport.x() + kViewport.width()
                || p.y >= kViewport.y() + kViewport.height())
                return; // not to be seen
            const int x = int(std::floor(p.x)), y = int(std::floor(p.y));
            EXPECT_TRUE(pixels.contains(x, y)) << x << ", " << y;
            // A pixel to spare, but for what the viewport ends.
            const QRect around = QRect(x - 1, y - 1, 3, 3) & kViewport;
            EXPECT_TRUE(pixels.contains(around)) << x << ", " << y;
        };
        for (int corner = 0; corner < 8; ++corner)
            add({corner & 1 ? box.maximum.x() : box.minimum.x(), corner & 2 ? box.maximum.y() : box.minimum.y(),
                 corner & 4 ? box.maximum.z() : box.minimum.z()},
                true);
        for (int i = 0; i < 20; ++i)
            add({double(number(box.minimum.x(), box.maximum.x())), double(number(box.minimum.y(), box.maximum.y())),
                 double(number(box.minimum.z(), box.maximum.z()))},
                false);
        if (HasFailure())
            return;
        if (nearest <= 0) {
            EXPECT_EQ(pixels, kViewport) << "a corner is behind the eye";
            ++whole;
        } else if (nearest > 0.1 * double(unit)) {
            // Two to spare at most: one of the rasteriser, and one that a corner's place may begin another pixel.
            const auto cut = [](double from, double to, int first, int size) {
                return std::max(0.0, std::min(to, double(first + size)) - std::max(from, double(first)));
            };
            EXPECT_LE(pixels.width(), cut(low[0], high[0], kViewport.x(), kViewport.width()) + 4);
            EXPECT_LE(pixels.height(), cut(low[1], high[1], kViewport.y(), kViewport.height()) + 4);
            (pixels.isEmpty() ? none : partial) += pixels != kViewport;
        }
    }
    EXPECT_GT(partial, 500);
    EXPECT_GT(whole, 100);
    EXPECT_GT(none + partial, 700);
}

TEST_F(Coverage, WhatIsNotFiniteIsEverywhere)
{
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
    const GPUModel::BoundingBox box{{-0.1f, -0.1f, -0.1f}, {0.1f, 0.1f, 0.1f}};
    QMatrix4x4 projection;
    projection.ortho(-1, 1, -1, 1, -1, 1);
    ASSERT_LT(coveredPixels(box, projection, QMatrix4x4()).width(), 30);
    for (const float odd : {kInfinity, -kInfinity, kNan}) {
        EXPECT_EQ(coveredPixels({box.minimum, {odd, 1, 1}}, projection, QMatrix4x4()), kViewport);
        for (int place = 0; place < 16; ++place) {
            QMatrix4x4 matrix = projection, camera;
            matrix.data()[place] = odd;
            camera.data()[place] = odd;
            // The depth does not matter to where something is seen.
            if (place % 4 != 2) {
                EXPECT_EQ(coveredPixels(box, matrix, QMatrix4x4()), kViewport) << place;
            }
            EXPECT_EQ(coveredPixels(box, projection, camera), kViewport) << place;
        }
    }
    EXPECT_EQ(coveredPixels({{-kInfinity, -1, -1}, {kInfinity, 1, 1}}, projection, QMatrix4x4()), kViewport);
    QMatrix4x4 nothing;
    nothing.fill(0);
    EXPECT_EQ(coveredPixels(box, nothing, QMatrix4x4()), kViewport);
}

// A GPU adds up in single precision: far from the origin of the world vertices come to lie pixels away.
TEST_F(Coverage, HoldsWhereSinglePrecisionPutsAPoint)
{
    double farthest = 0;
    for (int round = 0; round < 1000; ++round) {
        const QVector3D at = QVector3D(6e5f, -1e6f, 4e5f) + point(5);
        QMatrix4x4 projection, camera;
        projection.perspective(10, 2, 1, 100);
        camera.lookAt(QVector3D(6e5f, -1e6f, 4e5f) + point(1) + QVector3D(0, 0, 30), at, {0, 1, 0});
        const QRect pixels = coveredPixels({at, at}, projection, camera);
        const QVector4D clip = projection * (camera * QVector4D(at, 1));
        const double x = kViewport.x() + (double(clip.x()) / double(clip.w()) + 1) / 2 * kViewport.width();
        const double y = kViewport.y() + (double(clip.y()) / double(clip.w()) + 1) / 2 * kViewport.height();
        const Point exact = windowOf({at.x(), at.y(), at.z()}, projection, camera);
        farthest = std::max({farthest, std::abs(x - exact.x), std::abs(y - exact.y)});
        ASSERT_TRUE(pixels.contains(int(std::floor(x)), int(std::floor(y)))) << round;
    }
    EXPECT_GT(farthest, 2) << "or the spare pixel does it";
    // What may be behind the eye by rounding is.
    QMatrix4x4 projection, camera;
    projection.perspective(90, 1, 0.1f, 10);
    camera.translate(0, 0, 1);
    EXPECT_EQ(coveredPixels({{0, 0, -3}, {1e-9f, 1e-9f, -1 - 1e-6f}}, projection, camera), kViewport);
    EXPECT_NE(coveredPixels({{0, 0, -3}, {1e-9f, 1e-9f, -1 - 1e-2f}}, projection, camera), kViewport);
}

TEST_F(Coverage, AScopeSetsTheScissorAndLeavesItOffWithTheBoxOfBefore)
{
    const auto box = [] {
        GLint numbers[4];
        glGetIntegerv(GL_SCISSOR_BOX, numbers);
        return QRect(numbers[0], numbers[1], numbers[2], numbers[3]);
    };
    const QRect before = box();
    glScissor(1, 2, 30, 40);
    {
        const ScissorScope scope(QRect(3, 4, 5, 6));
        EXPECT_EQ(box(), QRect(3, 4, 5, 6));
        EXPECT_TRUE(glIsEnabled(GL_SCISSOR_TEST));
    }
    EXPECT_FALSE(glIsEnabled(GL_SCISSOR_TEST));
    EXPECT_EQ(box(), QRect(1, 2, 30, 40));
    glScissor(before.x(), before.y(), before.width(), before.height());
}
