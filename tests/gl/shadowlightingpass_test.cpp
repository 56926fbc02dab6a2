#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"
#include "support/scenes.h"
#include "support/shadowmaps.h"

#include <gl/texturemanager.h>
#include <host/shadowlightingpass.h>
#include <model/gpumodel.h>
#include <renderpasses/modelrenderpass.h>
#include <renderpasses/shadowmaprenderpass.h>

#include <QColor>
#include <QRect>

#include <cmath>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kWidth = 96;
constexpr int kHeight = 64;
// The image has eight bits, and what goes in comes from float targets.
constexpr double kColor = 1.5 / 255;

enum Input { kViewport, kDiffuse, kSpecular, kNormal, kDepth, kProjection, kCamera, kShadows, kAmbient };

// A floor of grey 0.5 with a plate above its middle, seen from above.
class ShadowLighting : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        ModelData data;
        data.meshes << quadMesh();
        data.materials << material({0.5f, 0.5f, 0.5f});
        ModelItem floor;
        floor.transform.rotate(-90, 1, 0, 0);
        floor.transform.scale(4);
        ModelItem plate;
        plate.transform.translate(0, 1, 0);
        plate.transform.rotate(-90, 1, 0, 0);
        plate.transform.scale(0.5f);
        data.items << floor << plate;
        model = std::make_unique<GPUModel>();
        ASSERT_TRUE(model->upload(data));
        geometry = std::make_unique<ModelRenderPass>();
        maps = std::make_unique<ShadowMapRenderPass>();
        lighting = std::make_unique<ShadowLightingPass>();
        projection.ortho(-3, 3, -2, 2, 1, 20);
        camera.lookAt({0, 10, 0}, {0, 0, 0}, {0, 0, -1});
        geometry->setInput(0, QRect(0, 0, kWidth, kHeight));
        geometry->setInput(1, projection);
        geometry->setInput(2, camera);
        geometry->setInput(3, QVariant::fromValue(model.get()));
        maps->setInput(0, QVariant::fromValue(model.get()));
        maps->setInput(7, 0);
        lighting->setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        lighting->setInput(kProjection, projection);
        lighting->setInput(kCamera, camera);
        lighting->setInput(kAmbient, QColor::fromRgbF(0.2f, 0.4f, 0.6f));
        lighting->setNumOutputUsers(0, 1);
    }
    void TearDown() override
    {
        lighting.reset();
        maps.reset();
        geometry.reset();
        model.reset();
        GLTest::TearDown();
    }
    Image<float> picture(std::initializer_list<ShadowMapLight> lights, bool withRecord = true)
    {
        maps->setInput(2, lightList(lights));
        runFrame(*maps);
        glViewport(0, 0, kWidth, kHeight);
        runFrame(*geometry);
        for (int i = 0; i < 4; ++i)
            lighting->setInput(kDiffuse + i, geometry->output(i));
        lighting->setInput(kShadows, withRecord ? maps->output(0) : QVariant());
        runFrame(*lighting);
        Texture *frame = textureFromVariant(lighting->output(0));
        const Image<float> image = readTexture<float>(frame);
        TextureManager::Instance().releaseTempTextureRef(frame, 1);
        return image;
    }
    /// The pixel that shows a place on the floor.
    static std::array<int, 2> pixelOf(double x, double z)
    {
        return {int((x + 3) / 6 * kWidth), int((2 - z) / 4 * kHeight)};
    }

    std::unique_ptr<GPUModel> model;
    std::unique_ptr<ModelRenderPass> geometry;
    std::unique_ptr<ShadowMapRenderPass> maps;
    std::unique_ptr<ShadowLightingPass> lighting;
    QMatrix4x4 projection;
    QMatrix4x4 camera;
};

} // namespace

TEST_F(ShadowLighting, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(ShadowLightingPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_Diffuse"},
                 {"Kvo_KvoTexture*_Specular"},
                 {"Kvo_KvoTexture*_Normal"},
                 {"Kvo_KvoTexture*_Depth"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_QVariant_ShadowMapData"},
                 {"Kvo_QColor_Ambient", QColor(0x40, 0x48, 0x58)},
                 {"Kvo_float_LightBleeding", 0.2f},
                 {"Kvo_float_MinimumVariance", 1e-6f}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(ShadowLighting, WithoutARecordOnlyTheAmbientLightIsThere)
{
    const Image<float> image = picture({}, false);
    const auto [x, y] = pixelOf(1.5, 1);
    EXPECT_TRUE(isPixel(image, x, y, {0.5 * 0.2, 0.5 * 0.4, 0.5 * 0.6, 1}, kColor));
}

TEST_F(ShadowLighting, AFloorIsLitAndShadowedWhereThePlateIsInTheWayOfTheLight)
{
    // The light comes from +x at 45 degrees: the shadow of the plate lies one unit to -x of it.
    ShadowMapLight sun = ShadowMapLight::directional({-1, -1, 0});
    sun.color = {0.8f, 0.4f, 0.2f};
    const Image<float> image = picture({sun});
    const double facing = std::sqrt(0.5);
    const auto lit = [&](double ambient, double light) { return 0.5 * (ambient + facing * light); };
    const std::array<double, 4> bright{lit(0.2, 0.8), lit(0.4, 0.4), lit(0.6, 0.2), 1};
    const std::array<double, 4> dark{0.1, 0.2, 0.3, 1};
    for (const double x : {-2.0, 1.0, 2.0}) {
        const auto at = pixelOf(x, 1);
        EXPECT_TRUE(isPixel(image, at[0], at[1], bright, kColor)) << x;
    }
    for (const double x : {-1.3, -1.0, -0.7}) {
        const auto at = pixelOf(x, 0.2);
        EXPECT_TRUE(isPixel(image, at[0], at[1], dark, kColor)) << x;
    }
    const auto plate = pixelOf(0, 0);
    EXPECT_TRUE(isPixel(image, plate[0], plate[1], bright, kColor)) << "a caster does not shadow itself";
}

TEST_F(ShadowLighting, LightsAddUpAndThoseBelowDoNotReachTheFloor)
{
    ShadowMapLight a = ShadowMapLight::directional({-1, -1, 0});
    a.color = {0.5f, 0, 0};
    ShadowMapLight b = ShadowMapLight::directional({0, -1, 0});
    b.color = {0, 0.5f, 0};
    ShadowMapLight below = ShadowMapLight::directional({0, 1, 0});
    const Image<float> image = picture({a, b, below});
    const auto at = pixelOf(1.5, 1);
    EXPECT_TRUE(
        isPixel(image, at[0], at[1], {0.5 * (0.2 + 0.5 * std::sqrt(0.5)), 0.5 * (0.4 + 0.5), 0.5 * 0.6, 1}, kColor));
}

TEST_F(ShadowLighting, TheBackgroundIsTransparent)
{
    projection.setToIdentity();
    projection.ortho(-12, 12, -8, 8, 1, 20);
    geometry->setInput(1, projection);
    lighting->setInput(kProjection, projection);
    const Image<float> image = picture({ShadowMapLight::directional({0, -1, 0})});
    EXPECT_TRUE(isPixel(image, 1, 1, {0, 0, 0, 0}, 0));
    EXPECT_GT(image.at(kWidth / 2, kHeight / 2)[3], 0.99f);
}

TEST_F(ShadowLighting, TheMapsDoNotStayBound)
{
    picture({ShadowMapLight::directional({0, -1, 0})});
    EXPECT_EQ(recordOf(*maps)->projectionTexture()->unit(), -1);
    const GlCalls calls;
    picture({ShadowMapLight::directional({0, -1, 0})});
    EXPECT_EQ(calls.created(), 0) << qPrintable(calls.toString());
}
