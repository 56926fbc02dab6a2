#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
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
#include <limits>
#include <string>
#include <utility>
#include <vector>

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
        return picture(lightList(lights), withRecord);
    }
    Image<float> picture(const QVariant &lights, bool withRecord = true)
    {
        maps->setInput(2, lights);
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

// Elements of a list of lights that give no light, each with a name.
std::vector<std::pair<std::string, QVariant>> elementsWithoutLight()
{
    constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    std::vector<std::pair<std::string, QVariant>> elements{
        {"invalid", QVariant()},
        {"a text", QStringLiteral("sun")},
        {"a number", 7},
        {"a null pointer to a light", QVariant::fromValue(static_cast<ShadowMapLight *>(nullptr))},
        {"a null object", QVariant::fromValue(static_cast<QObject *>(nullptr))},
    };
    {
        auto gone = std::make_unique<QObject>();
        elements.emplace_back("an object that is gone", QVariant::fromValue(gone.get()));
    }
    const auto add = [&](const char *name, ShadowMapLight light, const auto &change) {
        change(light);
        elements.emplace_back(name, QVariant::fromValue(light));
    };
    const ShadowMapLight sun = ShadowMapLight::directional({0, -1, 0});
    const ShadowMapLight spot = ShadowMapLight::spot({0, 9, 0}, {0, -1, 0}, 80);
    const ShadowMapLight point = ShadowMapLight::point({0, 9, 0});
    add("a sun that is off", sun, [](ShadowMapLight &l) { l.enabled = false; });
    add("a spot light that is off", spot, [](ShadowMapLight &l) { l.enabled = false; });
    add("a point light that is off", point, [](ShadowMapLight &l) { l.enabled = false; });
    add("a sun with a direction that is no number", sun, [](ShadowMapLight &l) { l.direction.setX(kNaN); });
    add("a sun without direction", sun, [](ShadowMapLight &l) { l.direction = {}; });
    add("a sun with a colour that is no number", sun, [](ShadowMapLight &l) { l.color.setY(kNaN); });
    add("a sun of infinite intensity", sun, [](ShadowMapLight &l) { l.intensity = kInfinity; });
    add("a sun that is too bright", sun, [](ShadowMapLight &l) { l.intensity = 3e38f, l.color = {9, 9, 9}; });
    add("a sun of five cascades", sun, [](ShadowMapLight &l) { l.cascades = 5; });
    add("a sun whose distance is no number", sun, [](ShadowMapLight &l) { l.distance = kNaN; });
    add("a spot light at no place", spot, [](ShadowMapLight &l) { l.position.setZ(kNaN); });
    add("a spot light infinitely far", spot, [](ShadowMapLight &l) { l.position.setY(kInfinity); });
    add("a spot light of an angle that is no number", spot, [](ShadowMapLight &l) { l.angle = kNaN; });
    add("a spot light with a soft angle that is no number", spot, [](ShadowMapLight &l) { l.softAngle = kNaN; });
    add("a spot light that is too wide", spot, [](ShadowMapLight &l) { l.angle = 180; });
    add("a point light at no place", point, [](ShadowMapLight &l) { l.position.setX(kNaN); });
    add("a point light with a negative range", point, [](ShadowMapLight &l) { l.range = -2; });
    add("a point light that begins behind its end", point, [](ShadowMapLight &l) { l.range = 2, l.nearPlane = 3; });
    add("a light of no kind", sun, [](ShadowMapLight &l) { l.type = ShadowMapLight::Type(9); });
    add("a faulty one that is off", sun, [](ShadowMapLight &l) { l.direction.setX(kNaN), l.enabled = false; });
    return elements;
}

ShadowMapLight colored(ShadowMapLight light, const QVector3D &color)
{
    light.color = color;
    return light;
}

TEST_F(ShadowLighting, OnlyLightsThatCanBeUsedShineWhateverTheirPlaceAndNeighbours)
{
    const MessageCapture messages;
    struct Good
    {
        QVariant light;
        std::array<double, 3> light3; // what arrives at a floor without a shadow
    };
    const double slanted = std::sqrt(0.5);
    // A direction is one at any length.
    const Good goods[] = {
        {QVariant::fromValue(colored(ShadowMapLight::directional({-1, -1, 0}), {0.4f, 0, 0})), {0.4 * slanted, 0, 0}},
        {QVariant::fromValue(colored(ShadowMapLight::directional({0, -1e-7f, 0}), {0, 0.3f, 0})), {0, 0.3, 0}},
    };
    const auto bads = elementsWithoutLight();
    const auto at = pixelOf(1.5, 1);
    const auto expectSum = [&](const QVariantList &list, std::initializer_list<int> shining, const std::string &what) {
        std::array<double, 4> expected{0.5 * 0.2, 0.5 * 0.4, 0.5 * 0.6, 1};
        for (const int good : shining)
            for (size_t c = 0; c < 3; ++c)
                expected[c] += 0.5 * goods[good].light3[c];
        EXPECT_TRUE(isPixel(picture(list), at[0], at[1], expected, kColor)) << what;
    };
    for (size_t i = 0; i < bads.size(); ++i) {
        const auto &[name, bad] = bads[i];
        const QVariant &other = bads[(i + 1) % bads.size()].second;
        expectSum({bad}, {}, name + " alone");
        expectSum({bad, other}, {}, name + " before another");
        expectSum({bad, goods[0].light}, {0}, name + " first");
        expectSum({goods[0].light, bad}, {0}, name + " last");
        expectSum({goods[0].light, bad, goods[1].light}, {0, 1}, name + " in between");
        expectSum({bad, goods[1].light, other, goods[0].light, bad}, {0, 1}, name + " around");
    }
}

TEST_F(ShadowLighting, ALightThatFindsNoRoomForItsLayersShinesWithoutAShadowAlsoAlone)
{
    const MessageCapture messages;
    picture({ShadowMapLight::directional({0, -1, 0})});
    recordOf(*maps)->mostLayers = 5;
    // The shadow of the plate would lie around the middle.
    const ShadowMapLight lamp = colored(ShadowMapLight::point({1, 3, 0}), {0.5f, 0, 0});
    const auto at = pixelOf(-0.6, 0.1);
    const QVector3D toLamp = QVector3D(1, 3, 0) - QVector3D(-0.6f, 0, 0.1f);
    const double lit = 0.5 * (0.2 + 0.5 * double(toLamp.normalized().y()));
    EXPECT_TRUE(isPixel(picture({lamp}), at[0], at[1], {lit, 0.2, 0.3, 1}, 2 * kColor)) << "alone";
    const Image<float> both = picture({lamp, colored(ShadowMapLight::directional({0, -1, 0}), {0, 0.4f, 0})});
    EXPECT_TRUE(isPixel(both, at[0], at[1], {lit, 0.5 * 0.8, 0.3, 1}, 2 * kColor)) << "beside another";
    EXPECT_EQ(messages.containing(QStringLiteral("casts no shadow: with its 6 layers")), 1);
}

TEST_F(ShadowLighting, LightsBeyondTheRoomOfTheProgramAreNamedOnceAndDoNotShine)
{
    QVariantList lights;
    for (int i = 0; i < 16; ++i)
        lights << QVariant::fromValue(colored(ShadowMapLight::directional({0, -1, 0}), {0.05f, 0, 0}));
    lights << QVariant::fromValue(colored(ShadowMapLight::directional({0, -1, 0}), {0, 0.5f, 0}))
           << QVariant::fromValue(colored(ShadowMapLight::spot({0, 9, 0}, {0, -1, 0}, 60), {0, 0, 0.5f}));
    const auto at = pixelOf(1.5, 1);
    const std::array<double, 4> expected{0.5 * (0.2 + 16 * 0.05), 0.2, 0.3, 1};
    MessageCapture messages;
    for (int frame = 0; frame < 3; ++frame)
        EXPECT_TRUE(isPixel(picture(QVariant(lights)), at[0], at[1], expected, kColor)) << frame;
    EXPECT_EQ(messages.count(QtWarningMsg), 1) << qPrintable(messages.texts().join(u'\n'));
    EXPECT_EQ(messages.containing(QStringLiteral("has room for 16 lights of 18")), 1);
    EXPECT_EQ(messages.containing(QStringLiteral("16 (directional), 17 (spot)")), 1);
    lights.resize(16);
    messages.clear();
    EXPECT_TRUE(isPixel(picture(QVariant(lights)), at[0], at[1], expected, kColor));
    EXPECT_TRUE(messages.all().isEmpty()) << qPrintable(messages.texts().join(u'\n'));
}

TEST_F(ShadowLighting, SettingsThatAreNoneAreBoundedAndSaid)
{
    constexpr int kBleeding = 9;
    constexpr int kVariance = 10;
    const ShadowMapLight sun = ShadowMapLight::directional({-1, -1, 0});
    const Image<float> usual = picture({sun});
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const int input : {kBleeding, kVariance}) {
        MessageCapture messages;
        const QVariant before = lighting->defaultValue(input);
        lighting->setInput(input, nan);
        EXPECT_TRUE(sameImage(picture({sun}), usual, within(0))) << input;
        EXPECT_EQ(messages.count(QtWarningMsg), 1);
        lighting->setInput(input, 0.5f);
        const Image<float> inRange = picture({sun});
        EXPECT_EQ(messages.count(QtWarningMsg), 1);
        for (const float beyond : {-1.0f, 7.0f}) {
            lighting->setInput(input, beyond);
            for (const auto &pixel : picture({sun}).pixels)
                for (const float channel : pixel)
                    ASSERT_TRUE(std::isfinite(channel)) << input << " at " << beyond;
        }
        EXPECT_EQ(messages.count(QtWarningMsg), 2);
        lighting->setInput(input, before);
    }
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
