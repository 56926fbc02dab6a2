#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/shadowmaps.h"

#include <gl/glslmacroprocessor.h>
#include <gl/guards.h>
#include <gl/shaderprogram.h>
#include <model/gpumodel.h>
#include <renderpasses/shadowmaprenderpass.h>

#include <algorithm>
#include <cmath>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

// Positions come from a texture, one per pixel.
const QString kHead = QStringLiteral(R"(#version 150
#include "ShadowMap.glslh"
uniform sampler2D u_Positions;
uniform int u_Light;
out vec4 out_Color;
void main()
{
  vec3 position = texelFetch(u_Positions, ivec2(gl_FragCoord.xy), 0).xyz;
  vec3 coordinate;
  vec3 toLight;
  %1
}
)");

struct Expected
{
    int layer = -1;
    double x = 0;
    double y = 0;
    double z = 0;
};

/// The shader's rules in double precision.
class Reference
{
public:
    explicit Reference(const ShadowRecord &record) : _record(record)
    {
        for (int layer = 0; layer < record.layerCount; ++layer)
            _maps.push_back(readLayer(record, layer));
    }

    Expected layerOf(int light, const QVector3D &p) const
    {
        const double borderX = 1.0 - 8.0 / _maps[0].width;
        const double borderY = 1.0 - 8.0 / _maps[0].height;
        const auto &info = _record.projectors[light];
        Expected found;
        double nearest = 1.0;
        for (int i = 0; i < info.layerCount; ++i) {
            const float *m = _record.transforms[info.firstLayer + i].m;
            double clip[4];
            for (int row = 0; row < 4; ++row)
                clip[row] = double(m[row]) * double(p.x()) + double(m[4 + row]) * double(p.y())
                            + double(m[8 + row]) * double(p.z()) + double(m[12 + row]);
            const double x = clip[0] / clip[3];
            const double y = clip[1] / clip[3];
            const double z = clip[2] / clip[3];
            const double outwards = std::max(std::abs(x), std::abs(y));
            if (clip[3] <= 0 || outwards > nearest || z < 0 || z > 1)
                continue;
            found = {info.firstLayer + i, x * 0.5 + 0.5, y * 0.5 + 0.5, z};
            nearest = outwards;
            if (std::abs(x) <= borderX && std::abs(y) <= borderY)
                break;
        }
        return found;
    }

    double visibility(int light, const QVector3D &p, double minimumVariance, double bleeding) const
    {
        const Expected at = layerOf(light, p);
        if (at.layer < 0)
            return 1;
        double moments[2];
        for (size_t c = 0; c < 2; ++c)
            moments[c] = bilinear(_maps[size_t(at.layer)], at.x, at.y, c);
        if (at.z <= moments[0] || moments[0] >= 1)
            return 1;
        const double variance = std::max(moments[1] - moments[0] * moments[0], minimumVariance);
        const double share = variance / (variance + (at.z - moments[0]) * (at.z - moments[0]));
        return std::clamp((share - bleeding) / (1 - bleeding), 0.0, 1.0);
    }

private:
    static double bilinear(const Image<float> &map, double x, double y, size_t channel)
    {
        const double u = x * map.width - 0.5;
        const double v = y * map.height - 0.5;
        const int x0 = int(std::floor(u));
        const int y0 = int(std::floor(v));
        double sum = 0;
        for (int dy = 0; dy < 2; ++dy) {
            for (int dx = 0; dx < 2; ++dx) {
                const int tx = x0 + dx;
                const int ty = y0 + dy;
                const bool inside = tx >= 0 && ty >= 0 && tx < map.width && ty < map.height;
                const double value = inside ? double(map.at(tx, ty)[channel]) : 1e9;
                sum += value * (dx ? u - x0 : 1 - u + x0) * (dy ? v - y0 : 1 - v + y0);
            }
        }
        return sum;
    }

    const ShadowRecord &_record;
    std::vector<Image<float>> _maps;
};

class ShadowShader : public GLTest
{
protected:
    static constexpr int kSide = 48;

    void SetUp() override
    {
        GLTest::SetUp();
        ownedModel = std::make_unique<GPUModel>();
        ASSERT_TRUE(ownedModel->upload(shadowScene()));
        ownedPass = std::make_unique<ShadowMapRenderPass>();
        ownedPass->setInput(0, QVariant::fromValue(ownedModel.get()));
        ownedPass->setInput(8, QSize(64, 64));
        ownedPass->setInput(7, 2);
        // positions over the floor, up to above the highest caster, and beyond the scene
        positions = Image<float>(kSide, kSide);
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x)
                positions.at(x, y) = {7.3f * float(x) / kSide - 3.6f, float((x * 7 + y * 3) % 12) * 0.2f,
                                      7.1f * float(y) / kSide - 3.5f, 1};
    }
    void TearDown() override
    {
        program.reset();
        ownedPass.reset();
        ownedModel.reset();
        GLTest::TearDown();
    }

    const ShadowRecord &drawMaps(std::initializer_list<ShadowMapLight> lights)
    {
        ownedPass->setInput(2, lightList(lights));
        runFrame(*ownedPass);
        return *recordOf(*ownedPass);
    }

    void build(const QString &statement, GLSLMacroProcessor *processor = nullptr)
    {
        program = std::make_unique<ShaderProgram>();
        if (processor)
            program->setMacroProcessor(processor);
        program->setFragDataLocations({QStringLiteral("out_Color")});
        program->addShader(GL_VERTEX_SHADER, screenVertexText());
        program->addShader(GL_FRAGMENT_SHADER, kHead.arg(statement));
        program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ShadowMap.glslc"));
        ASSERT_TRUE(program->compile() && program->link()) << qPrintable(program->log());
    }

    /// What the statement gives for every position.
    Image<float> evaluate(int light, const ShadowRecord *record,
                          const ShadowMapManager::Sampling &sampling = ShadowMapManager::Sampling())
    {
        const Target target(GL_RGBA32F, kSide, kSide);
        const auto texture = makeTexture(positions);
        const AutoBinder bound(texture.get());
        drawScreen(target, program.get(), [&](ShaderProgram *p) {
            p->setUniform(QStringLiteral("u_Positions"), texture->unit());
            p->setUniform(QStringLiteral("u_Light"), light);
            wasBound = ShadowMapManager::bindRecord(p, record, sampling);
        });
        if (wasBound)
            ShadowMapManager::unbindRecord(record);
        return target.read();
    }

    QVector3D positionAt(int x, int y) const
    {
        const auto &p = positions.at(x, y);
        return {p[0], p[1], p[2]};
    }

    void expectVisibility(const ShadowRecord &record, int light, const ShadowMapManager::Sampling &sampling,
                          int shadowed)
    {
        const Reference reference(record);
        const Image<float> actual = evaluate(light, &record, sampling);
        EXPECT_TRUE(wasBound);
        int dark = 0;
        int soft = 0;
        int beyond = 0;
        for (int y = 0; y < kSide; ++y) {
            for (int x = 0; x < kSide; ++x) {
                const double expected = reference.visibility(light, positionAt(x, y), double(sampling.minimumVariance),
                                                             double(sampling.lightBleeding));
                // Moments are differences of floats near 1, and their variance comes down to 1e-6: a step of
                // a float there moves the visibility by a few hundredths. Coordinates on the border of texels
                // that are marked empty, or of a layer, may fall to either side.
                beyond += std::abs(double(actual.at(x, y)[0]) - expected) > 0.05;
                dark += expected < 0.5;
                soft += expected > 0.1 && expected < 0.9;
            }
        }
        EXPECT_LE(beyond, kSide * kSide / 100) << "light " << light;
        EXPECT_GE(dark, shadowed) << "light " << light;
        EXPECT_GT(soft, 5) << "light " << light;
    }

    std::unique_ptr<GPUModel> ownedModel;
    std::unique_ptr<ShadowMapRenderPass> ownedPass;
    std::unique_ptr<ShaderProgram> program;
    Image<float> positions;
    bool wasBound = false;
};

const auto kSun = ShadowMapLight::directional({0.25f, -1, 0.1f});
const auto kSpot = ShadowMapLight::spot({2, 7, 1}, {-0.3f, -1, -0.15f}, 50);

const QString kVisibility = QStringLiteral("out_Color = vec4(kvo_shadowVisibility(u_Light, position));");

} // namespace

TEST_F(ShadowShader, VisibilityIsChebyshevsBoundOverTheMapOfTheLight)
{
    const ShadowRecord &record = drawMaps({kSun, kSpot, ShadowMapLight::point({0.3f, 3.5f, 0.2f})});
    build(kVisibility);
    for (int light = 0; light < 3; ++light) {
        expectVisibility(record, light, {}, 25);
        expectVisibility(record, light, {1e-4f, 0.0f}, 10);
        expectVisibility(record, light, {1e-5f, 0.5f}, 25);
    }
}

TEST_F(ShadowShader, TheBoundOverMomentsChangesAtEqualDepthAndAtTheMarkOfAnEmptyTexel)
{
    const ShadowRecord &record = drawMaps({kSun});
    build(QStringLiteral("out_Color = vec4(kvo_shadowChebyshev(position.xy, position.z));"));
    const float justBelowOne = std::nextafter(1.0f, 0.0f);
    struct Case
    {
        float mean;
        float square;
        float depth;
        double minimumVariance;
        double bleeding;
        double visible;
    };
    const auto bound = [](double variance, double distance, double bleeding) {
        return std::max(0.0, (variance / (variance + distance * distance) - bleeding) / (1 - bleeding));
    };
    const Case cases[] = {
        // Nothing is in front of what lies at the mean, not even without any variance.
        {0.5f, 0.25f, 0.5f, 0, 0, 1},
        {0.5f, 0.25f, 0.5f, 0, 0.2, 1},
        {0.5f, 0.25f, std::nextafter(0.5f, 1.0f), 0, 0.2, 0},
        {0.5f, 0.25f, 0.5f + 1.0f / 512, 1.0 / 262144, 0.2, bound(1.0 / 262144, 1.0 / 512, 0.2)},
        {0.5f, 0.25f, 0.49f, 0, 0, 1},
        // 1 and more is no caster.
        {1.0f, 1.0f, 1.25f, 1e-6, 0.2, 1},
        {justBelowOne, 1.0f, 1.25f, 1e-6, 0.2, 0},
        {1e9f, 1e9f, 0.5f, 1e-6, 0.2, 1},
    };
    for (const Case &c : cases) {
        std::fill(positions.pixels.begin(), positions.pixels.end(), std::array<float, 4>{c.mean, c.square, c.depth, 1});
        const Image<float> actual = evaluate(0, &record, {float(c.minimumVariance), float(c.bleeding)});
        EXPECT_NEAR(double(actual.at(3, 3)[0]), c.visible, 1e-3) << c.mean << " at " << c.depth;
    }
}

struct MapShape
{
    const char *name;
    QSize size;
};

class ShadowShaderOfShape : public ShadowShader, public ::testing::WithParamInterface<MapShape>
{};

INSTANTIATE_TEST_SUITE_P(Maps, ShadowShaderOfShape,
                         ::testing::Values(MapShape{"Square", {64, 64}}, MapShape{"Wide", {96, 16}},
                                           MapShape{"High", {16, 96}}),
                         [](const auto &shape) { return std::string(shape.param.name); });

TEST_P(ShadowShaderOfShape, CascadesAreChosenFromTheFinest)
{
    ownedPass->setInput(8, GetParam().size);
    QMatrix4x4 projection;
    projection.perspective(40, 1, 1, 40);
    QMatrix4x4 camera;
    camera.lookAt({0, 3, 5}, {0, 0, 0}, {0, 1, 0});
    ownedPass->setInput(3, projection);
    ownedPass->setInput(4, camera);
    ownedPass->setInput(5, QVector3D(-60, -1, -60));
    ownedPass->setInput(6, QVector3D(60, 9, 60));
    const ShadowRecord &record = drawMaps({ShadowMapLight::directional({0.25f, -1, 0.1f}, 4)});
    ASSERT_EQ(record.layerCount, 4);
    build(QStringLiteral("int layer = kvo_shadowLayer(u_Light, position, coordinate);"
                         "out_Color = vec4(coordinate, float(layer));"));
    for (int y = 0; y < kSide; ++y)
        for (int x = 0; x < kSide; ++x)
            positions.at(x, y) = {(float(x) - kSide * 0.5f) * 0.8f, 0.1f, 6 - float(y) * 1.1f, 1};
    const Reference reference(record);
    const Image<float> actual = evaluate(0, &record);
    int perLayer[5] = {};
    int differing = 0;
    for (int y = 0; y < kSide; ++y) {
        for (int x = 0; x < kSide; ++x) {
            const Expected expected = reference.layerOf(0, positionAt(x, y));
            const auto &a = actual.at(x, y);
            ++perLayer[expected.layer + 1];
            if (int(a[3]) != expected.layer) {
                ++differing; // on the border of a frame
                continue;
            }
            ASSERT_NEAR(a[0], expected.x, 1e-4);
            ASSERT_NEAR(a[1], expected.y, 1e-4);
            ASSERT_NEAR(a[2], expected.z, 1e-4);
        }
    }
    EXPECT_LE(differing, 3);
    for (int layer = 0; layer < 4; ++layer)
        EXPECT_GT(perLayer[layer + 1], 10) << layer;
}

TEST_F(ShadowShader, FacesOfAPointLightMeetWithoutGaps)
{
    const ShadowRecord &record = drawMaps({ShadowMapLight::point({0, 1.5f, 0}, 20)});
    build(QStringLiteral("out_Color = vec4(float(kvo_shadowLayer(u_Light, position, coordinate)));"));
    for (int y = 0; y < kSide; ++y) {
        for (int x = 0; x < kSide; ++x) {
            const float theta = 3.14159f * (float(y) + 0.5f) / kSide;
            const float phi = 6.28318f * float(x) / kSide;
            positions.at(x, y) = {5 * std::sin(theta) * std::cos(phi), 1.5f + 5 * std::cos(theta),
                                  5 * std::sin(theta) * std::sin(phi), 1};
        }
    }
    const Image<float> layers = evaluate(0, &record);
    int seen[6] = {};
    for (int y = 0; y < kSide; ++y) {
        for (int x = 0; x < kSide; ++x) {
            const int layer = int(layers.at(x, y)[0]);
            ASSERT_GE(layer, 0) << x << ", " << y;
            ++seen[layer];
        }
    }
    for (const int count : seen)
        EXPECT_GT(count, 100);
}

TEST_F(ShadowShader, NoShadowOutsideOfMapsForLightsThatAreOffAndForNumbersOfNoLight)
{
    ShadowMapLight off = kSpot;
    off.enabled = false;
    const ShadowRecord &record = drawMaps({kSun, off});
    build(kVisibility);
    const Image<float> lit(kSide, kSide, {1, 1, 1, 1});
    EXPECT_FALSE(sameImage(evaluate(0, &record), lit, within(0.5)));
    for (const int light : {1, 2, -1, 100})
        EXPECT_TRUE(sameImage(evaluate(light, &record), lit, within(0))) << light;
    for (auto &p : positions.pixels)
        p = {p[0] + 50, p[1], p[2], 1};
    EXPECT_TRUE(sameImage(evaluate(0, &record), lit, within(0)));
}

TEST_F(ShadowShader, WithoutARecordEverythingIsLitAndNothingStaysBound)
{
    build(QStringLiteral("out_Color = vec4(kvo_shadowVisibility(u_Light, position), float(kvo_shadowLightCount()), "
                         "0.0, 1.0);"));
    const ShadowRecord empty;
    for (const ShadowRecord *record : {static_cast<const ShadowRecord *>(nullptr), &empty}) {
        EXPECT_TRUE(sameImage(evaluate(0, record), Image<float>(kSide, kSide, {1, 0, 0, 1}), within(0)));
        EXPECT_FALSE(wasBound);
    }
    EXPECT_FALSE(ShadowMapManager::bindRecord(nullptr, &empty));
}

TEST_F(ShadowShader, BindingAndUnbindingLeavesTheTextureUnitsAsTheyWere)
{
    const ShadowRecord &record = drawMaps({kSun});
    build(kVisibility);
    const GLStateSnapshot before;
    evaluate(0, &record);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")), QStringLiteral("viewport"));
}

TEST_F(ShadowShader, LightColourComesFromTheLightAndFadesAtTheBorderOfTheCone)
{
    ShadowMapLight sun = kSun;
    sun.color = {1, 0.5f, 0.25f};
    sun.intensity = 2;
    ShadowMapLight spot = ShadowMapLight::spot({0, 4, 0}, {0, -2, 0}, 60, 10);
    spot.softAngle = 20;
    ShadowMapLight point = ShadowMapLight::point({1, 4, 2}, 10);
    point.color = {0, 1, 0};
    const ShadowRecord &record = drawMaps({sun, spot, point});
    build(QStringLiteral("vec3 color = kvo_shadowLightColor(u_Light, position, toLight);"
                         "out_Color = vec4(color, dot(toLight, vec3(0.0, 1.0, 0.0)));"));
    const Image<float> fromSun = evaluate(0, &record);
    const double up = 1 / std::sqrt(0.25 * 0.25 + 1 + 0.01);
    EXPECT_TRUE(isPixel(fromSun, 5, 9, {2, 1, 0.5, up}, 1e-5));
    EXPECT_TRUE(isPixel(evaluate(7, &record), 5, 9, {0, 0, 0, 0}, 0));
    const Image<float> fromSpot = evaluate(1, &record);
    const Image<float> fromPoint = evaluate(2, &record);
    int bright = 0;
    int fading = 0;
    for (int y = 0; y < kSide; ++y) {
        for (int x = 0; x < kSide; ++x) {
            const QVector3D p = positionAt(x, y);
            const QVector3D toSpot = (QVector3D(0, 4, 0) - p).normalized();
            const double t = std::clamp(
                (double(toSpot.y()) - std::cos(M_PI / 6)) / (std::cos(M_PI / 9) - std::cos(M_PI / 6)), 0.0, 1.0);
            const double cone = t * t * (3 - 2 * t);
            ASSERT_TRUE(isPixel(fromSpot, x, y, {cone, cone, cone, double(toSpot.y())}, 1e-4));
            bright += cone == 1;
            fading += cone > 0 && cone < 1;
            ASSERT_TRUE(isPixel(fromPoint, x, y, {0, 1, 0, double((QVector3D(1, 4, 2) - p).normalized().y())}, 1e-4));
        }
    }
    EXPECT_GT(bright, 20);
    EXPECT_GT(fading, 50);
}

TEST_F(ShadowShader, MoreLayersThanTheProgramHasRoomForAreReportedOnceAndCastNoShadow)
{
    GLSLMacroProcessor processor;
    ShadowMapManager::setup(&processor, 2, 8);
    const ShadowRecord &record = drawMaps({kSun, kSpot, kSun});
    build(kVisibility, &processor);
    MessageCapture messages;
    const Image<float> first = evaluate(0, &record);
    const Image<float> last = evaluate(2, &record);
    evaluate(2, &record);
    EXPECT_EQ(messages.count(QtWarningMsg), 1) << qPrintable(messages.texts().join(u'\n'));
    EXPECT_EQ(messages.containing(QStringLiteral("has no room for 3 layers")), 1);
    const Image<float> lit(kSide, kSide, {1, 1, 1, 1});
    EXPECT_FALSE(sameImage(first, lit, within(0.5)));
    EXPECT_TRUE(sameImage(last, lit, within(0)));
}

TEST_F(ShadowShader, ProgramsCanBeBuiltForMoreLayersAndLights)
{
    GLSLMacroProcessor processor;
    ShadowMapManager::setup(&processor, 30, 30);
    ShadowMapManager::setup(nullptr, 1, 1);
    ownedPass->setInput(2, [] {
        QVariantList lights;
        for (int i = 0; i < 30; ++i)
            lights << QVariant::fromValue(ShadowMapLight::directional({0.02f * float(i), -1, 0.1f}));
        return lights;
    }());
    runFrame(*ownedPass);
    const ShadowRecord &record = *recordOf(*ownedPass);
    build(kVisibility, &processor);
    expectVisibility(record, 29, {}, 30);
}
