#include "support/allocations.h"
#include "support/messages.h"

#include <shadows/shadowmapmanager.h>

#include <QMatrix4x4>
#include <QVector3D>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <numbers>
#include <optional>
#include <utility>
#include <vector>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

using Light = ShadowMapManager::Light;
using RenderData = ShadowMapManager::RenderData;
using Bounds = QPair<QVector3D, QVector3D>;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
// Matrices are floats, with terms of up to 100 in these scenes.
constexpr double kFloat = 1e-4;
constexpr double kBias = 0.0005;

struct Projected
{
    double x;
    double y;
    double z;
    double w;
    bool isInside(double border = 1.0) const
    {
        return w > 0 && std::abs(x) <= border && std::abs(y) <= border && z >= 0 && z <= 1;
    }
};

Projected project(const RenderData &data, int layer, const QVector3D &p)
{
    const float *m = data.transforms.at(layer).m;
    double clip[4];
    for (int row = 0; row < 4; ++row)
        clip[row] = double(m[row]) * double(p.x()) + double(m[4 + row]) * double(p.y())
                    + double(m[8 + row]) * double(p.z()) + double(m[12 + row]);
    return {clip[0] / clip[3], clip[1] / clip[3], clip[2] / clip[3], clip[3]};
}

bool isSame(const ShadowMapManager::Transform &a, const ShadowMapManager::Transform &b)
{
    return std::equal(std::begin(a.m), std::end(a.m), b.m);
}

bool allFinite(const RenderData &data)
{
    for (const ShadowMapManager::Transform &t : data.transforms)
        for (const float f : t.m)
            if (!std::isfinite(f))
                return false;
    return true;
}

QVariantList listOf(std::initializer_list<Light> lights)
{
    QVariantList list;
    for (const Light &light : lights)
        list.append(QVariant::fromValue(light));
    return list;
}

std::vector<QVector3D> cornersOf(const Bounds &bounds)
{
    std::vector<QVector3D> corners;
    corners.reserve(8);
    for (int i = 0; i < 8; ++i)
        corners.emplace_back(i & 1 ? bounds.second.x() : bounds.first.x(), i & 2 ? bounds.second.y() : bounds.first.y(),
                             i & 4 ? bounds.second.z() : bounds.first.z());
    return corners;
}

class ShadowMapManagerTest : public ::testing::Test
{
protected:
    ShadowMapManagerTest()
    {
        projection.perspective(50, 1.5f, 1, 100);
        camera.lookAt({0, 5, 20}, {0, 0, 0}, {0, 1, 0});
    }
    bool process(const QVariant &lights)
    {
        return ShadowMapManager::processLights(lights, data, nullptr, nullptr, &bounds);
    }
    bool processWithCamera(const QVariant &lights)
    {
        return ShadowMapManager::processLights(lights, data, &projection, &camera, &bounds);
    }
    bool processBare(const QVariant &lights)
    {
        return ShadowMapManager::processLights(lights, data, nullptr, nullptr, nullptr);
    }

    /// Expects one message that names the light and has a text in it, and no layer.
    void expectFault(const Light &light, const char *text)
    {
        RenderData record;
        MessageCapture messages;
        const auto list = listOf({Light::directional({0, -1, 0}), light, Light::spot({0, 9, 0}, {0, -1, 0}, 40)});
        ShadowMapManager::processLights(list, record, &projection, &camera, &bounds);
        ShadowMapManager::processLights(list, record, &projection, &camera, &bounds);
        EXPECT_EQ(messages.count(QtCriticalMsg), 1) << text << ": " << qPrintable(messages.texts().join(u'\n'));
        EXPECT_EQ(messages.containing(QStringLiteral("light 1 (")), 1) << text;
        EXPECT_EQ(messages.containing(QStringLiteral("is left out")), 1) << text;
        EXPECT_FALSE(record.lights.value(1).enabled) << text;
        EXPECT_EQ(messages.containing(QLatin1String(text)), 1) << qPrintable(messages.texts().join(u'\n'));
        EXPECT_EQ(record.layerCount, 2) << text;
        ASSERT_EQ(record.projectors.size(), 3) << text;
        EXPECT_EQ(record.projectors[1].layerCount, 0) << text;
        EXPECT_EQ(record.projectors[2].firstLayer, 1) << text;
        EXPECT_EQ(record.projectors[2].layerCount, 1) << text;
        EXPECT_TRUE(allFinite(record)) << text;
    }

    RenderData data;
    Bounds bounds{{-4, -1, -3}, {4, 5, 3}};
    QMatrix4x4 projection;
    QMatrix4x4 camera;
};

} // namespace

TEST_F(ShadowMapManagerTest, ARecordStartsEmptyAndIsFoundInASlotValue)
{
    EXPECT_EQ(data.layerCount, 0);
    EXPECT_TRUE(data.transforms.isEmpty());
    EXPECT_TRUE(data.projectors.isEmpty());
    EXPECT_EQ(data.projectionTexture(), nullptr);
    EXPECT_EQ(RenderData::fromVariant(QVariant::fromValue(static_cast<QObject *>(&data))), &data);
    EXPECT_EQ(RenderData::fromVariant(QVariant()), nullptr);
    QObject other;
    EXPECT_EQ(RenderData::fromVariant(QVariant::fromValue(&other)), nullptr);
    // By either type of pointer that passes and hosts hand on, and by no other.
    EXPECT_EQ(RenderData::fromVariant(QVariant::fromValue(&data)), &data);
    EXPECT_EQ(RenderData::fromVariant(QVariant::fromValue(static_cast<void *>(&data))), nullptr);
    EXPECT_EQ(RenderData::fromVariant(quintptr(&data)), nullptr);
}

TEST_F(ShadowMapManagerTest, TransformsAndProjectorsAreLaidOutAsGLAndReadersTakeThem)
{
    EXPECT_EQ(sizeof(ShadowMapManager::Transform), 16 * sizeof(float));
    EXPECT_EQ(sizeof(ShadowMapManager::ProjectorInfo), 8u);
    EXPECT_EQ(offsetof(ShadowMapManager::ProjectorInfo, layerCount), 0u);
    EXPECT_EQ(offsetof(ShadowMapManager::ProjectorInfo, firstLayer), 4u);
}

TEST_F(ShadowMapManagerTest, LightsOwnRunsOfLayersInTheirOrder)
{
    EXPECT_TRUE(processWithCamera(listOf({Light::directional({1, -2, 0.5f}, 3), Light::point({0, 8, 0}),
                                          Light::spot({5, 8, 0}, {-1, -1, 0}, 50), Light::directional({0, -1, 0})})));
    EXPECT_EQ(data.layerCount, 11);
    EXPECT_EQ(data.transforms.size(), 11);
    ASSERT_EQ(data.projectors.size(), 4);
    const int counts[] = {3, 6, 1, 1};
    const int firsts[] = {0, 3, 9, 10};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(data.projectors[i].layerCount, counts[i]) << i;
        EXPECT_EQ(data.projectors[i].firstLayer, firsts[i]) << i;
    }
}

TEST_F(ShadowMapManagerTest, WithoutACameraEveryCascadeFramesTheSceneWithRoomForTheBias)
{
    process(listOf({Light::directional({1, -2, 0.5f}, 4)}));
    ASSERT_EQ(data.layerCount, 4);
    for (int layer = 0; layer < 4; ++layer) {
        double widest = 0;
        for (const QVector3D &corner : cornersOf(bounds)) {
            const Projected p = project(data, layer, corner);
            EXPECT_TRUE(p.isInside()) << layer;
            EXPECT_GT(p.z, kBias);
            EXPECT_LT(p.z + kBias, 1.0);
            widest = std::max({widest, std::abs(p.x), std::abs(p.y)});
        }
        EXPECT_GT(widest, 0.9) << "the frame is much larger than the scene";
    }
}

TEST_F(ShadowMapManagerTest, DepthOfADirectionalLightGrowsEvenlyAlongItsDirection)
{
    const QVector3D direction = QVector3D(1, -2, 0.5f).normalized();
    process(listOf({Light::directional(direction * 7)}));
    const Projected a = project(data, 0, {0, 0, 0});
    const Projected b = project(data, 0, direction);
    const Projected c = project(data, 0, 2 * direction);
    EXPECT_GT(b.z, a.z);
    EXPECT_NEAR(c.z - b.z, b.z - a.z, kFloat);
    EXPECT_NEAR(b.x, a.x, kFloat);
    EXPECT_NEAR(b.y, a.y, kFloat);
}

TEST_F(ShadowMapManagerTest, FramesDoNotMirrorTheScene)
{
    // A triangle whose front faces the light is counter-clockwise in its frame.
    process(listOf({Light::directional({0, -1, 0}), Light::directional({1, 0, 0}), Light::point({0, 0, 0}, 9),
                    Light::spot({0, 9, 0}, {0.1f, -1, 0}, 60)}));
    for (int layer = 0; layer < data.layerCount; ++layer) {
        const float *m = data.transforms[layer].m;
        const QVector3D x(m[0], m[4], m[8]);
        const QVector3D y(m[1], m[5], m[9]);
        const QVector3D z(m[2], m[6], m[10]);
        EXPECT_LT(QVector3D::dotProduct(QVector3D::crossProduct(x, y), z), 0.0f) << layer;
    }
}

TEST_F(ShadowMapManagerTest, ASpotLightSeesItsConeFromNearPlaneToRange)
{
    Light light = Light::spot({1, 6, 2}, {0, -1, 0}, 60, 10);
    light.nearPlane = 2;
    process(listOf({light}));
    ASSERT_EQ(data.layerCount, 1);
    const Projected axis = project(data, 0, {1, 1, 2});
    EXPECT_NEAR(axis.x, 0, kFloat);
    EXPECT_NEAR(axis.y, 0, kFloat);
    EXPECT_NEAR(project(data, 0, {1, 4, 2}).z, 0, kFloat) << "depth begins at the near plane";
    const double end = project(data, 0, {1, -4, 2}).z;
    EXPECT_LT(end, 1 - kBias) << "the end of the range has room for the bias";
    EXPECT_GT(end, 0.97);
    // the border of the cone, 30 degrees off the axis
    const auto tangent = float(std::tan(std::numbers::pi / 6));
    for (const QVector3D &offset : {QVector3D(tangent, 0, 0), QVector3D(0, 0, -tangent)}) {
        const Projected p = project(data, 0, QVector3D(1, 1, 2) + 5 * offset);
        EXPECT_TRUE(p.isInside());
        EXPECT_GT(std::max(std::abs(p.x), std::abs(p.y)), 0.9);
    }
    EXPECT_LT(project(data, 0, {1, 8, 2}).w, 0) << "behind the light";
}

TEST_F(ShadowMapManagerTest, ASpotLightWithoutRangeBeginsAndEndsWithTheScene)
{
    process(listOf({Light::spot({0, 15, 0}, {0, -1, 0}, 60)}));
    for (const QVector3D &corner : cornersOf(bounds)) {
        const Projected p = project(data, 0, corner);
        EXPECT_GT(p.z, kBias);
        EXPECT_LT(p.z, 1 - kBias);
    }
    EXPECT_LT(project(data, 0, {0, 5.5f, 0}).z, 0.1) << "the near plane is at the top of the scene";
}

TEST_F(ShadowMapManagerTest, ASceneBehindASpotLightIsNoFault)
{
    process(listOf({Light::spot({0, 15, 0}, {0, 1, 0}, 60)}));
    EXPECT_EQ(data.layerCount, 1);
    EXPECT_TRUE(allFinite(data));
}

TEST_F(ShadowMapManagerTest, APointLightSeesAlongTheAxesInOrderAndEveryDirection)
{
    const QVector3D position(1, 2, 3);
    process(listOf({Light::point(position, 10)}));
    ASSERT_EQ(data.layerCount, 6);
    const QVector3D axes[] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (int i = 0; i < 6; ++i) {
        const Projected p = project(data, i, position + 4 * axes[i]);
        EXPECT_NEAR(p.x, 0, kFloat) << i;
        EXPECT_NEAR(p.y, 0, kFloat) << i;
        EXPECT_TRUE(p.isInside()) << i;
    }
    int directions = 0;
    for (int a = 0; a < 60; ++a) {
        for (int b = 0; b <= 30; ++b) {
            const double theta = b * std::numbers::pi / 30;
            const double phi = a * std::numbers::pi / 30;
            const QVector3D direction(float(std::sin(theta) * std::cos(phi)), float(std::cos(theta)),
                                      float(std::sin(theta) * std::sin(phi)));
            int seen = 0;
            for (int layer = 0; layer < 6; ++layer)
                seen += project(data, layer, position + 5 * direction).isInside();
            EXPECT_GE(seen, 1) << "theta " << theta << ", phi " << phi;
            directions += seen == 1;
        }
    }
    EXPECT_GT(directions, 1500) << "faces overlap by more than a margin";
}

TEST_F(ShadowMapManagerTest, ACornerOfTheSceneInTheCornerOfAFaceIsInTheMap)
{
    // Along (1, 1, 1) a face measures depth along its axis: shorter than the distance by the root of 3.
    for (const float x : {-1.0f, 1.0f}) {
        for (const float y : {-1.0f, 1.0f}) {
            for (const float z : {-1.0f, 1.0f}) {
                const QVector3D near = QVector3D(x, y, z) * 5;
                const QVector3D far = QVector3D(x, y, z) * 6;
                bounds = {{std::min(near.x(), far.x()), std::min(near.y(), far.y()), std::min(near.z(), far.z())},
                          {std::max(near.x(), far.x()), std::max(near.y(), far.y()), std::max(near.z(), far.z())}};
                process(listOf({Light::point({0, 0, 0})}));
                ASSERT_EQ(data.layerCount, 6);
                int seen = 0;
                for (int layer = 0; layer < 6; ++layer) {
                    const Projected p = project(data, layer, near);
                    seen += p.isInside();
                    if (p.w > 0) {
                        EXPECT_GT(p.z, kBias) << layer;
                        EXPECT_LT(p.z, 0.1) << "depth begins with the scene, layer " << layer;
                        EXPECT_NEAR(p.w, 5, kFloat);
                    }
                }
                EXPECT_EQ(seen, 3) << "three faces meet in the corner, each a little wider";
            }
        }
    }
}

TEST_F(ShadowMapManagerTest, CascadesCoverTheViewInPartsByThePracticalScheme)
{
    bounds = {{-500, -500, -500}, {500, 500, 500}};
    Light light = Light::directional({0.3f, -1, 0.2f}, 4);
    light.splitBalance = 0.75f;
    processWithCamera(listOf({light}));
    ASSERT_EQ(data.layerCount, 4);
    const QMatrix4x4 toWorld = (projection * camera).inverted();
    double before = 1;
    for (int i = 0; i < 4; ++i) {
        const double share = (i + 1) / 4.0;
        const double end = 0.75 * std::pow(100.0, share) + 0.25 * (1 + 99 * share);
        // corners of the part lie in its frame, and close to its border: the frame is no larger than needed
        double widest = 0;
        for (const double depth : {before, end}) {
            const double z = (100 + 1 - 2 * 100 / depth) / 99; // of the projection with planes at 1 and 100
            for (const double x : {-1.0, 1.0}) {
                for (const double y : {-1.0, 1.0}) {
                    const QVector3D p = toWorld.map(QVector3D(float(x), float(y), float(z)));
                    const Projected inside = project(data, i, p);
                    EXPECT_TRUE(inside.isInside()) << "cascade " << i << ", depth " << depth;
                    widest = std::max({widest, std::abs(inside.x), std::abs(inside.y)});
                }
            }
        }
        EXPECT_GT(widest, 0.6) << i;
        before = end;
    }
}

TEST_F(ShadowMapManagerTest, DistanceEndsTheLastCascadeBeforeTheFarPlane)
{
    bounds = {{-500, -500, -500}, {500, 500, 500}};
    Light light = Light::directional({0, -1, 0}, 2);
    light.distance = 30;
    processWithCamera(listOf({light}));
    const auto atDepth = [&](float depth) { return camera.inverted().map(QVector3D(0, 0, -depth)); };
    EXPECT_TRUE(project(data, 1, atDepth(29)).isInside());
    EXPECT_FALSE(project(data, 1, atDepth(60)).isInside());
}

TEST_F(ShadowMapManagerTest, CascadesTakeInCastersBetweenTheViewAndTheLight)
{
    bounds = {{-500, -5, -500}, {500, 200, 500}};
    processWithCamera(listOf({Light::directional({0, -1, 0}, 3)}));
    const Projected receiver = project(data, 0, {0, 4, 18});
    const Projected caster = project(data, 0, {0, 199, 18});
    EXPECT_TRUE(receiver.isInside());
    EXPECT_TRUE(caster.isInside());
    EXPECT_LT(caster.z, receiver.z);
}

// Where the line through a place in a frame, along the light, enters and leaves a box: in depths of the layer.
std::optional<std::pair<double, double>> depthsThrough(const RenderData &data, int layer, double x, double y,
                                                       const Bounds &box)
{
    const QMatrix4x4 toWorld = QMatrix4x4(data.transforms.at(layer).m).transposed().inverted();
    const QVector3D from = toWorld.map(QVector3D(float(x), float(y), 0));
    const QVector3D along = toWorld.map(QVector3D(float(x), float(y), 1)) - from;
    double enter = -1e9;
    double leave = 1e9;
    for (int axis = 0; axis < 3; ++axis) {
        const double a = double(box.first[axis] - from[axis]) / double(along[axis]);
        const double b = double(box.second[axis] - from[axis]) / double(along[axis]);
        enter = std::max(enter, std::min(a, b));
        leave = std::min(leave, std::max(a, b));
    }
    return enter < leave ? std::optional(std::pair(enter, leave)) : std::nullopt;
}

TEST_F(ShadowMapManagerTest, CascadesAreAsDeepAsTheSceneIsInTheirColumn)
{
    const QVector3D directions[] = {{0.3f, -1, 0.2f}, {-0.9f, -0.3f, 0.4f}, {0.05f, -0.2f, -1}};
    const Bounds scenes[] = {{{-500, -5, -500}, {500, 60, 500}}, {{-30, -400, -30}, {30, 400, 30}}};
    for (const Bounds &scene : scenes) {
        bounds = scene;
        // The box that is framed has air around it, a 50th of its diagonal.
        const float air = 0.02f * (scene.second - scene.first).length();
        const Bounds aired{scene.first - QVector3D(air, air, air), scene.second + QVector3D(air, air, air)};
        for (const QVector3D &direction : directions) {
            processWithCamera(listOf({Light::directional(direction, 3)}));
            ASSERT_EQ(data.layerCount, 3);
            for (int layer = 0; layer < 3; ++layer) {
                double nearest = 1e9;
                double farthest = -1e9;
                constexpr int kLines = 64;
                for (int y = 0; y <= kLines; ++y) {
                    for (int x = 0; x <= kLines; ++x) {
                        const auto depths =
                            depthsThrough(data, layer, 2.0 * x / kLines - 1, 2.0 * y / kLines - 1, aired);
                        if (!depths)
                            continue;
                        nearest = std::min(nearest, depths->first);
                        farthest = std::max(farthest, depths->second);
                    }
                }
                // All of the scene in the column is there, with no more around it than lies between two lines.
                EXPECT_NEAR(nearest, 0.0, 0.03) << layer;
                EXPECT_NEAR(farthest, 1.0, 0.03) << layer;
                EXPECT_GT(nearest, -1e-3) << layer;
                EXPECT_LT(farthest, 1 + 1e-3) << layer;
            }
        }
    }
}

TEST_F(ShadowMapManagerTest, ACascadeOfALargeSceneHasStepsOfDepthThatFitIt)
{
    // A city of 1000 by 1000 and 50 high, and a camera in its streets: the first of four cascades is a few units
    // wide. Depth has a bias of 0.0005 of the layer's depth, which must not swallow what is lower than a kerb.
    bounds = {{-500, 0, -500}, {500, 50, 500}};
    projection.setToIdentity();
    projection.perspective(50, 1.5f, 0.5f, 300);
    camera.setToIdentity();
    camera.lookAt({0, 2, 0}, {0, 1, -10}, {0, 1, 0});
    processWithCamera(listOf({Light::directional({0.55f, -1, 0.45f}, 4)}));
    const Projected a = project(data, 0, {0, 0, -3});
    const Projected b = project(data, 0, QVector3D(0, 0, -3) + QVector3D(0.55f, -1, 0.45f).normalized());
    const double unitsDeep = 1 / (b.z - a.z);
    // The whole box is 1000 * (0.55 + 0.45) / 1.22 + 50 / 1.22 = 860 deep, and more with its air.
    EXPECT_LT(unitsDeep, 250);
    RecordProperty("unitsDeep", QString::number(unitsDeep).toStdString());
}

TEST_F(ShadowMapManagerTest, AColumnBesideTheSceneHasFiniteDepths)
{
    bounds = {{1000, 1000, 1000}, {1500, 1500, 1500}};
    processWithCamera(listOf({Light::directional({0.3f, -1, 0.2f}, 4)}));
    EXPECT_EQ(data.layerCount, 4);
    EXPECT_TRUE(allFinite(data));
}

TEST_F(ShadowMapManagerTest, WithoutBoundsCascadesReachTwiceTheWidestFrameTowardsTheLight)
{
    ShadowMapManager::processLights(listOf({Light::directional({0, -1, 0}, 2)}), data, &projection, &camera, nullptr);
    ASSERT_EQ(data.layerCount, 2);
    EXPECT_TRUE(project(data, 0, {0, 100, 15}).isInside());
    EXPECT_TRUE(project(data, 0, {0, 4, 15}).isInside());
}

// Far from where the coordinates begin, a place along the light that is off by a factor is off by much.
TEST_F(ShadowMapManagerTest, WithoutBoundsCascadesCoverTheViewWhereverItIs)
{
    for (const QVector3D &place : {QVector3D(0, 0, 0), QVector3D(300, 700, -500), QVector3D(-900, -400, 200)}) {
        camera = QMatrix4x4();
        camera.lookAt(place + QVector3D(0, 5, 20), place, {0, 1, 0});
        Light light = Light::directional({0.3f, -1, 0.2f}, 3);
        light.splitBalance = 0.0f;
        ShadowMapManager::processLights(listOf({light}), data, &projection, &camera, nullptr);
        ASSERT_EQ(data.layerCount, 3);
        const QMatrix4x4 toWorld = (projection * camera).inverted();
        for (int i = 0; i < 3; ++i) {
            for (const double depth : {1 + i * 33.0, 1 + (i + 1) * 33.0}) {
                const double z = (100 + 1 - 2 * 100 / depth) / 99; // of the projection with planes at 1 and 100
                for (const float x : {-1.0f, 1.0f})
                    for (const float y : {-1.0f, 1.0f})
                        EXPECT_TRUE(project(data, i, toWorld.map(QVector3D(x, y, float(z)))).isInside())
                            << "cascade " << i << ", depth " << depth << ", at " << place.x();
            }
        }
    }
}

TEST_F(ShadowMapManagerTest, AFrameWiderThanTheSceneIsTheSceneItself)
{
    RenderData alone;
    ShadowMapManager::processLights(listOf({Light::directional({0.2f, -1, 0.1f})}), alone, nullptr, nullptr, &bounds);
    processWithCamera(listOf({Light::directional({0.2f, -1, 0.1f})}));
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(data.transforms[0].m[i], alone.transforms[0].m[i]) << i;
}

// Along and across, on either side of where the coordinates begin.
TEST_F(ShadowMapManagerTest, AFrameThatTheSceneIsLongerThanInOneDirectionIsThatOfTheView)
{
    const QVariantList lights = listOf({Light::directional({0, -1, 0})});
    constexpr float kFar = 1000;
    for (const auto &[least, most] :
         {std::pair{QVector3D(0, 0, 0), QVector3D(kFar, 1, 1)}, std::pair{QVector3D(-kFar, 0, 0), QVector3D(0, 1, 1)},
          std::pair{QVector3D(0, 0, 0), QVector3D(1, 1, kFar)},
          std::pair{QVector3D(0, 0, -kFar), QVector3D(1, 1, 0)}}) {
        bounds = {least, most};
        RenderData alone;
        ShadowMapManager::processLights(lights, alone, nullptr, nullptr, &bounds);
        processWithCamera(lights);
        EXPECT_FALSE(std::equal(std::begin(data.transforms[0].m), std::end(data.transforms[0].m),
                                std::begin(alone.transforms[0].m)))
            << least.x() << ' ' << least.z();
    }
}

TEST_F(ShadowMapManagerTest, FramesMoveInWholeStepsWhileTheCameraMovesAndTurns)
{
    bounds = {{-500, -500, -500}, {500, 500, 500}};
    const QVector3D fixed(3, 1, 2);
    constexpr double kSteps = 64; // per frame, whole texels for maps of 64, 128 … 1024
    std::vector<Projected> first;
    std::vector<float> firstScale;
    int moved = 0;
    for (int frame = 0; frame < 200; ++frame) {
        QMatrix4x4 turned;
        turned.rotate(0.37f * float(frame), 0.1f, 1, 0.05f);
        turned.translate(-0.113f * float(frame), 0.017f * float(frame), -0.071f * float(frame));
        camera = turned;
        processWithCamera(listOf({Light::directional({0.3f, -1, 0.2f}, 3)}));
        ASSERT_EQ(data.layerCount, 3);
        for (int layer = 0; layer < 3; ++layer) {
            const Projected p = project(data, layer, fixed);
            const float scale = data.transforms[layer].m[0];
            if (frame == 0) {
                first.push_back(p);
                firstScale.push_back(scale);
                continue;
            }
            ASSERT_EQ(scale, firstScale[size_t(layer)]) << "the size of a frame changed, frame " << frame;
            for (const double shift : {p.x - first[size_t(layer)].x, p.y - first[size_t(layer)].y}) {
                const double steps = shift / 2 * kSteps;
                // floats of a few units in the matrix, in steps of a 64th
                ASSERT_NEAR(steps, std::round(steps), 2e-3) << "frame " << frame << ", layer " << layer;
                moved += std::abs(steps) > 0.5;
            }
        }
    }
    EXPECT_GT(moved, 200) << "the camera should have moved the frames";
}

TEST_F(ShadowMapManagerTest, ParallelCamerasThatBeginBehindTheEyeSplitEvenly)
{
    projection.setToIdentity();
    projection.ortho(-5, 5, -5, 5, -20, 20);
    bounds = {{-500, -500, -500}, {500, 500, 500}};
    processWithCamera(listOf({Light::directional({0, -1, 0}, 4)}));
    ASSERT_EQ(data.layerCount, 4);
    for (int i = 0; i < 4; ++i) {
        const QVector3D middle = camera.inverted().map(QVector3D(0, 0, 20 - 5 - 10 * float(i)));
        const Projected p = project(data, i, middle);
        EXPECT_TRUE(p.isInside(0.05)) << i << ": " << p.x << " " << p.y;
    }
}

TEST_F(ShadowMapManagerTest, SaysWhetherMatricesOrLayersChanged)
{
    Light light = Light::directional({0.2f, -1, 0});
    EXPECT_TRUE(process(listOf({light})));
    EXPECT_FALSE(process(listOf({light})));
    light.color = {1, 0, 0};
    EXPECT_FALSE(process(listOf({light}))) << "a colour does not show in the maps";
    EXPECT_EQ(data.lights[0].color, QVector3D(1, 0, 0));
    light.direction = {0.3f, -1, 0};
    EXPECT_TRUE(process(listOf({light})));
    EXPECT_FALSE(process(listOf({light})));
    EXPECT_TRUE(process(listOf({light, light})));
    EXPECT_EQ(data.layerCount, 2);
    EXPECT_TRUE(process(listOf({light})));
    EXPECT_EQ(data.layerCount, 1);
    EXPECT_EQ(data.transforms.size(), 1);
    EXPECT_EQ(data.projectors.size(), 1);
    bounds.second.setY(9);
    EXPECT_TRUE(process(listOf({light})));
    EXPECT_TRUE(process(QVariant()));
    EXPECT_EQ(data.layerCount, 0);
    EXPECT_FALSE(process(QVariant()));
}

TEST_F(ShadowMapManagerTest, ACameraThatMovesChangesCascadesButNoSpotLight)
{
    bounds = {{-500, -500, -500}, {500, 500, 500}};
    const auto spot = listOf({Light::spot({0, 9, 0}, {0, -1, 0}, 40)});
    const auto sun = listOf({Light::directional({0, -1, 0}, 2)});
    processWithCamera(spot);
    QMatrix4x4 before = camera;
    camera.translate(30, 0, 0);
    EXPECT_FALSE(processWithCamera(spot));
    camera = before;
    processWithCamera(sun);
    camera.translate(30, 0, 0);
    EXPECT_TRUE(processWithCamera(sun));
}

TEST_F(ShadowMapManagerTest, ALightThatIsOffKeepsItsLayersAndHasNone)
{
    Light off = Light::point({0, 8, 0});
    const auto lit = listOf({Light::directional({0, -1, 0}, 2), off, Light::spot({0, 9, 0}, {0, -1, 0}, 40)});
    off.enabled = false;
    const auto dark = listOf({Light::directional({0, -1, 0}, 2), off, Light::spot({0, 9, 0}, {0, -1, 0}, 40)});
    process(lit);
    const QVector<ShadowMapManager::Transform> before = data.transforms;
    EXPECT_TRUE(process(dark));
    EXPECT_EQ(data.layerCount, 9);
    EXPECT_EQ(data.projectors[1].layerCount, 0);
    EXPECT_EQ(data.projectors[1].firstLayer, 2);
    EXPECT_EQ(data.projectors[2].firstLayer, 8);
    for (int layer = 0; layer < 9; ++layer)
        for (int i = 0; i < 16; ++i)
            EXPECT_EQ(data.transforms[layer].m[i], before[layer].m[i]);
}

TEST_F(ShadowMapManagerTest, LightsComeByValueByPointerAloneAndInListsOfTheirType)
{
    Light light = Light::directional({0, -1, 0}, 2);
    process(QVariantList{QVariant::fromValue(&light), QVariant::fromValue(light)});
    EXPECT_EQ(data.layerCount, 4);
    process(QVariant::fromValue(light));
    EXPECT_EQ(data.layerCount, 2);
    process(QVariant::fromValue(QList<Light>{light, light, light}));
    EXPECT_EQ(data.layerCount, 6);
    MessageCapture messages;
    process(QVariant(7));
    process(QVariant(7));
    EXPECT_EQ(data.layerCount, 0);
    EXPECT_EQ(
        messages.texts(QtWarningMsg),
        QStringList(QStringLiteral("Shadows: the lights are no list of ShadowMapLight, their type is 'int'; there "
                                   "are none")));
    process(QVariant());
    process(QVariantList());
    EXPECT_EQ(messages.all().size(), 1) << "no lights are none";
}

TEST_F(ShadowMapManagerTest, WhatCannotBeUsedAndWhatIsNoLightIsOffInTheRecord)
{
    const MessageCapture messages;
    const Light good = Light::directional({0, -1, 0});
    Light bad = Light::spot({0, 9, 0}, {0, -1, 0}, 40);
    bad.range = kNaN;
    process(QVariantList{QVariant::fromValue(bad), QVariant(3), QVariant::fromValue(good),
                         QVariant::fromValue(static_cast<Light *>(nullptr))});
    ASSERT_EQ(data.lights.size(), 4);
    EXPECT_FALSE(data.lights[0].enabled);
    EXPECT_EQ(data.lights[0].type, Light::Type::Spot) << "the rest of it stays";
    EXPECT_FALSE(data.lights[1].enabled);
    EXPECT_TRUE(data.lights[2].enabled);
    EXPECT_FALSE(data.lights[3].enabled);
}

TEST_F(ShadowMapManagerTest, ALightThatFindsNoRoomStaysOn)
{
    const MessageCapture messages;
    data.mostLayers = 5;
    process(listOf({Light::point({0, 8, 0})}));
    EXPECT_EQ(data.layerCount, 0);
    ASSERT_EQ(data.lights.size(), 1);
    EXPECT_TRUE(data.lights[0].enabled);
}

TEST_F(ShadowMapManagerTest, AnElementThatIsNoLightIsReportedOnceWithItsTypeAndKeepsItsNumber)
{
    MessageCapture messages;
    const QVariantList list{QVariant(QStringLiteral("sun")), QVariant::fromValue(static_cast<Light *>(nullptr)),
                            QVariant::fromValue(Light::directional({0, -1, 0}))};
    process(list);
    process(list);
    EXPECT_EQ(messages.count(QtCriticalMsg), 2);
    EXPECT_EQ(messages.containing(QStringLiteral("light 0 is not a ShadowMapLight, its type is 'QString'")), 1);
    ASSERT_EQ(data.projectors.size(), 3);
    EXPECT_EQ(data.projectors[0].layerCount, 0);
    EXPECT_EQ(data.projectors[1].layerCount, 0);
    EXPECT_EQ(data.projectors[2].layerCount, 1);
    EXPECT_EQ(data.layerCount, 1);
}

TEST_F(ShadowMapManagerTest, OfManyFaultsTheFirstTwoHundredAreSaidAndHowManyMoreThereAre)
{
    MessageCapture messages;
    const QVariantList list(300, QVariant(1));
    process(list);
    process(list);
    EXPECT_EQ(messages.count(QtCriticalMsg), 201) << messages.texts().join(u'\n').toStdString();
    EXPECT_EQ(messages.containing(QStringLiteral("light 199 is not a ShadowMapLight")), 1);
    EXPECT_EQ(messages.containing(QStringLiteral("100 more lights have such faults")), 1);
    EXPECT_EQ(data.projectors.size(), 300);
}

// To Qt it is a list of its characters.
TEST_F(ShadowMapManagerTest, ATextIsNoListOfLights)
{
    MessageCapture messages;
    process(QStringLiteral("sun"));
    EXPECT_EQ(messages.containing(QStringLiteral("no list of ShadowMapLight, their type is 'QString'")), 1);
    EXPECT_EQ(data.projectors.size(), 0);
}

TEST_F(ShadowMapManagerTest, WithNeitherCameraNorBoundsABoxStandsInAndItIsSaidOnce)
{
    MessageCapture messages;
    const auto list = listOf({Light::directional({0, -1, 0}, 2), Light::spot({0, 20, 0}, {0, -1, 0}, 90)});
    EXPECT_TRUE(processBare(list));
    EXPECT_FALSE(processBare(list));
    process(list);
    processBare(list);
    EXPECT_EQ(messages.count(QtWarningMsg), 1) << qPrintable(messages.texts().join(u'\n'));
    EXPECT_EQ(messages.count(QtCriticalMsg), 0);
    EXPECT_EQ(data.layerCount, 3);
    for (const QVector3D &corner : cornersOf({{-10, -10, -10}, {10, 10, 10}}))
        EXPECT_NEAR(std::clamp(project(data, 0, corner).x, -1.0, 1.0), project(data, 0, corner).x, kFloat);
}

TEST_F(ShadowMapManagerTest, OnlyOneOfCameraAndProjectionIsNoCamera)
{
    RenderData alone;
    const auto list = listOf({Light::directional({0.2f, -1, 0.1f}, 2)});
    bounds = {{-500, -500, -500}, {500, 500, 500}};
    ShadowMapManager::processLights(list, alone, nullptr, nullptr, &bounds);
    for (const bool withCamera : {true, false}) {
        ShadowMapManager::processLights(list, data, withCamera ? nullptr : &projection, withCamera ? &camera : nullptr,
                                        &bounds);
        EXPECT_TRUE(isSame(data.transforms[0], alone.transforms[0]));
    }
}

TEST_F(ShadowMapManagerTest, LightsThatCannotBeUsedAreReportedOnceAndTakeNoLayers)
{
    expectFault(Light::directional({kNaN, -1, 0}), "not finite");
    expectFault(Light::directional({0, kInfinity, 0}), "not finite");
    expectFault(Light::directional({0, 0, 0}), "direction has no length");
    expectFault(Light::directional({0, -1, 0}, 0), "cascades");
    expectFault(Light::directional({0, -1, 0}, 5), "cascades");
    expectFault(Light::spot({0, 9, 0}, {0, 0, 0}, 40), "direction has no length");
    expectFault(Light::spot({0, kNaN, 0}, {0, -1, 0}, 40), "not finite");
    expectFault(Light::spot({0, 9, 0}, {0, -1, 0}, kNaN), "not finite");
    expectFault(Light::spot({0, 9, 0}, {0, -1, 0}, 0), "angle");
    expectFault(Light::spot({0, 9, 0}, {0, -1, 0}, 170), "angle");
    expectFault(Light::spot({0, 9, 0}, {0, -1, 0}, 40, -1), "range is negative");
    expectFault(Light::spot({0, 9, 0}, {0, -1, 0}, 40, kNaN), "not finite");
    expectFault(Light::point({0, kInfinity, 0}), "not finite");
    expectFault(Light::point({3e38f, 3e38f, 3e38f}), "too large");
    Light light = Light::point({0, 9, 0}, 5);
    light.nearPlane = 5;
    expectFault(light, "near plane is not in front of its range");
    light.nearPlane = 6;
    expectFault(light, "near plane is not in front of its range");
    light.nearPlane = -1;
    expectFault(light, "near plane is negative");
    light = Light::spot({0, 9, 0}, {0, -1, 0}, 40);
    light.nearPlane = 100;
    expectFault(light, "near plane is not in front of the end of the scene");
    light = Light::directional({0, -1, 0});
    light.splitBalance = kNaN;
    expectFault(light, "not finite");
    light = Light::directional({0, -1, 0});
    light.distance = -1;
    expectFault(light, "distance is negative");
    light = Light::directional({0, -1, 0});
    light.intensity = kInfinity;
    expectFault(light, "not finite");
    light.intensity = 1e30f;
    light.color = {0, 1e30f, 0};
    expectFault(light, "its colour times its intensity is not finite");
    light = Light::directional({0, -1, 0});
    light.type = Light::Type(7);
    expectFault(light, "its type is none");
}

TEST_F(ShadowMapManagerTest, AFaultThatComesBackIsReportedAgain)
{
    MessageCapture messages;
    const auto bad = listOf({Light::directional({0, 0, 0})});
    const auto good = listOf({Light::directional({0, -1, 0})});
    process(bad);
    process(good);
    process(bad);
    EXPECT_EQ(messages.count(QtCriticalMsg), 2);
}

TEST_F(ShadowMapManagerTest, TinyAndHugeDirectionsAreDirections)
{
    for (const float length : {1e-30f, 1e-12f, 1.0f, 1e18f, 1e30f}) {
        process(listOf({Light::directional(QVector3D(0.6f, -0.8f, 0) * length)}));
        ASSERT_EQ(data.layerCount, 1) << length;
        EXPECT_TRUE(allFinite(data)) << length;
    }
}

TEST_F(ShadowMapManagerTest, CamerasAndBoundsThatCannotBeUsedAreReportedAndLeftOut)
{
    RenderData alone;
    const auto list = listOf({Light::directional({0.2f, -1, 0.1f}, 2)});
    ShadowMapManager::processLights(list, alone, nullptr, nullptr, &bounds);
    QMatrix4x4 singular;
    singular.fill(0);
    QMatrix4x4 bad = projection;
    bad(0, 0) = kNaN;
    QMatrix4x4 endless; // a projection whose far plane is at infinity
    endless(2, 2) = -1;
    endless(2, 3) = -2;
    endless(3, 2) = -1;
    endless(3, 3) = 0;
    for (const QMatrix4x4 &matrix : {singular, bad, endless}) {
        RenderData record;
        MessageCapture messages;
        ShadowMapManager::processLights(list, record, &matrix, &camera, &bounds);
        EXPECT_EQ(messages.containing(QStringLiteral("no finite part of the world")), 1);
        EXPECT_TRUE(isSame(record.transforms[0], alone.transforms[0]));
    }
    for (const Bounds &wrong : {Bounds{{kNaN, 0, 0}, {1, 1, 1}}, Bounds{{1, 1, 1}, {0, 0, 0}}}) {
        RenderData record;
        MessageCapture messages;
        ShadowMapManager::processLights(list, record, &projection, &camera, &wrong);
        EXPECT_EQ(messages.containing(QStringLiteral("bounds")), 1) << qPrintable(messages.texts().join(u'\n'));
        EXPECT_EQ(record.layerCount, 2);
        EXPECT_TRUE(allFinite(record));
    }
}

TEST_F(ShadowMapManagerTest, FlatAndPointLikeScenesAreFramed)
{
    for (const Bounds &flat : {Bounds{{-1, 0, -1}, {1, 0, 1}}, Bounds{{2, 2, 2}, {2, 2, 2}}}) {
        bounds = flat;
        process(listOf({Light::directional({0, -1, 0}), Light::directional({1, 0, 0}), Light::point({2, 2, 2})}));
        ASSERT_EQ(data.layerCount, 8);
        EXPECT_TRUE(allFinite(data));
        for (const QVector3D &corner : cornersOf(bounds)) {
            EXPECT_TRUE(project(data, 0, corner).isInside());
            EXPECT_TRUE(project(data, 1, corner).isInside());
        }
    }
}

TEST_F(ShadowMapManagerTest, WithoutAContextTextureLayersEndAt256)
{
    MessageCapture messages;
    QVariantList list;
    for (int i = 0; i < 43; ++i)
        list.append(QVariant::fromValue(Light::point({0, 8, 0})));
    list.append(QVariant::fromValue(Light::directional({0, -1, 0}, 4)));
    list.append(QVariant::fromValue(Light::directional({0, -1, 0}, 1)));
    process(list);
    EXPECT_EQ(data.layerCount, 256);
    EXPECT_EQ(data.projectors[42].layerCount, 0);
    EXPECT_EQ(data.projectors[43].layerCount, 4);
    EXPECT_EQ(data.projectors[44].layerCount, 0);
    EXPECT_EQ(messages.count(QtCriticalMsg), 2);
    EXPECT_EQ(messages.containing(QStringLiteral("light 42 (point) casts no shadow: with its 6 layers there would be "
                                                 "258, and this context's textures have 256 at most")),
              1);
}

TEST_F(ShadowMapManagerTest, CopiesOfARecordAreIndependent)
{
    process(listOf({Light::directional({0, -1, 0}, 2)}));
    RenderData copy(data);
    EXPECT_EQ(copy.layerCount, 2);
    EXPECT_EQ(copy.transforms.size(), 2);
    process(listOf({Light::directional({0, -1, 0}, 1)}));
    EXPECT_EQ(copy.layerCount, 2);
    EXPECT_EQ(copy.transforms.size(), 2);
}

TEST_F(ShadowMapManagerTest, ProcessingTheSameNumberOfLightsTakesNothingFromTheHeap)
{
    if (!allocationsAreCounted())
        GTEST_SKIP() << "allocations are not counted in this build";
    bounds = {{-500, -500, -500}, {500, 500, 500}};
    const QVariant list = listOf(
        {Light::directional({0.3f, -1, 0.2f}, 4), Light::point({0, 8, 0}), Light::spot({5, 8, 0}, {-1, -1, 0}, 50)});
    processWithCamera(list);
    camera.translate(30, 0, 0);
    const AllocationCounter allocations;
    EXPECT_TRUE(processWithCamera(list));
    EXPECT_EQ(allocations.count(), 0);
}
