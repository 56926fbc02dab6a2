// Layers of surfaces against compositing them one by one in double precision.

#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/shaderfailurelistener.h>
#include <gl/shaderprogram.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/depthpeelingpass.h>
#include <host/passfactory.h>
#include <host/surfacepass.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>

#include <QRandomGenerator>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kSide = 16;

// Colours and the sum are half floats of 11 bits; each layer rounds its colour, what it adds and what is let through.
double tolerance(std::size_t layers)
{
    return (3.0 * double(layers) + 3.0) / 2048;
}

// The layer's own colour and opacity.
const QString kAsItIs = QStringLiteral(R"(#version 150
uniform sampler2D u_BaseColor;
out vec4 o_Frame;
void main()
{
  o_Frame = texelFetch(u_BaseColor, ivec2(gl_FragCoord.xy), 0);
}
)");

using Color = std::array<double, 4>;

/// A surface in front of the camera.
struct Sheet
{
    QVector3D color;
    float opacity = 1.0f;
    float z = 0.0f; ///< Towards the camera.
};

Color under(const Color &sum, const QVector3D &color, double opacity)
{
    const double share = (1.0 - sum[3]) * opacity;
    return {sum[0] + share * double(color.x()), sum[1] + share * double(color.y()), sum[2] + share * double(color.z()),
            sum[3] + share};
}

/// The first sheets, the nearest first; of the same depth, in their order.
Color composed(std::vector<Sheet> sheets, std::size_t most = 1000)
{
    std::stable_sort(sheets.begin(), sheets.end(), [](const Sheet &a, const Sheet &b) { return a.z > b.z; });
    Color sum{};
    for (std::size_t i = 0; i < std::min(most, sheets.size()); ++i)
        sum = under(sum, sheets[i].color, double(sheets[i].opacity));
    return sum;
}

class DepthPeelingPassTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        use(pass);
    }

    // Before the count of what is left.
    void TearDown() override
    {
        things.reset();
        GLTest::TearDown();
    }

    void use(DepthPeelingPass &used)
    {
        used.setFragmentShaderSource(kAsItIs);
        used.setInput(DepthPeelingPass::InViewport, QRect(0, 0, kSide, kSide));
        used.setInput(DepthPeelingPass::InProjectionMatrix, flatProjection());
        used.setInput(DepthPeelingPass::InCameraMatrix, QMatrix4x4());
        used.setInput(DepthPeelingPass::InGeometry, QVariant::fromValue(&model));
    }

    void upload(const std::vector<Sheet> &sheets)
    {
        ModelData data = quadScene();
        data.materials.clear();
        data.items.clear();
        for (const Sheet &sheet : sheets) {
            ModelMaterial material = quadScene().materials.constFirst();
            material.surface = ModelSurface();
            material.surface->baseColor = sheet.color;
            material.D = sheet.opacity;
            ModelItem item = quadScene().items.constFirst();
            item.material = int(data.materials.size());
            item.transform.translate(0.0f, 0.0f, sheet.z);
            data.materials.append(material);
            data.items.append(item);
        }
        ASSERT_TRUE(model.upload(data));
    }

    std::vector<Sheet> randomSheets(int count)
    {
        const auto any = [this] { return float(random.generateDouble()); };
        std::vector<Sheet> sheets;
        for (int i = 0; i < count; ++i) {
            // Some lie in one plane.
            const float z = i % 3 == 1 ? sheets.back().z : 1.8f * any() - 0.9f;
            sheets.push_back({{any(), any(), any()}, 0.05f + 0.9f * any(), z});
        }
        return sheets;
    }

    Color texel(int output, int x = kSide / 2, int y = kSide / 2)
    {
        Texture *texture = outputTexture(pass, output);
        if (!texture)
            return {-1, -1, -1, -1};
        const auto pixel = readTexture<float>(texture).at(x, y);
        return {double(pixel[0]), double(pixel[1]), double(pixel[2]), double(pixel[3])};
    }

    void expectTexel(int output, const Color &expected, double within, int x = kSide / 2, int y = kSide / 2)
    {
        const Color found = texel(output, x, y);
        for (std::size_t c = 0; c < 4; ++c)
            EXPECT_NEAR(found[c], expected[c], within) << "output " << output << " channel " << c;
    }

    struct Things
    {
        GPUModel model;
        SurfacePass surfaces;
        DepthPeelingPass pass;
    };
    ShaderFailureListener failures{[](const ShaderFailure &failure) { ADD_FAILURE() << qPrintable(failure.log); }};
    QRandomGenerator random{5};
    std::unique_ptr<Things> things = std::make_unique<Things>();
    GPUModel &model = things->model;
    DepthPeelingPass &pass = things->pass;
};

} // namespace

TEST_F(DepthPeelingPassTest, HasTheSlotsOfItsHeader)
{
    expectSlots(pass,
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoGPUModel*_Geometry"},
                 {"Kvo_KvoTexture*_SolidDepth"},
                 {"Kvo_KvoTexture*_Picture"},
                 {"Kvo_int_Layers", 0}},
                {"Kvo_KvoTexture*_Frame", "Kvo_KvoTexture*_Surfaces"});
    EXPECT_TRUE(passFactory().knows(QStringLiteral("DepthPeelingPass")));
}

TEST_F(DepthPeelingPassTest, PutsAnyNumberOfSheetsInTheOrderOfTheirDepths)
{
    for (const int count : {1, 2, 3, 7, 20, 60}) {
        const std::vector<Sheet> sheets = randomSheets(count);
        upload(sheets);
        runFrame(pass);
        const Color sum = composed(sheets);
        expectTexel(DepthPeelingPass::OutSurfaces, sum, tolerance(sheets.size()), 0, kSide - 1);
        const Color plain{sum[0] / sum[3], sum[1] / sum[3], sum[2] / sum[3], sum[3]};
        expectTexel(DepthPeelingPass::OutFrame, plain, tolerance(sheets.size()) / sum[3]);
    }
}

TEST_F(DepthPeelingPassTest, SheetsOfOneDepthCountOneByOne)
{
    // Two orders, which show: the first one drawn is in front.
    for (const bool redFirst : {false, true}) {
        std::vector<Sheet> sheets{{{1, 0, 0}, 0.5f, 0.25f}, {{0, 1, 0}, 0.5f, 0.25f}, {{0, 0, 1}, 0.5f, 0.25f}};
        if (!redFirst)
            std::swap(sheets[0], sheets[1]);
        upload(sheets);
        runFrame(pass);
        expectTexel(DepthPeelingPass::OutSurfaces, {redFirst ? 0.5 : 0.25, redFirst ? 0.25 : 0.5, 0.125, 0.875},
                    tolerance(3));
    }
    // And triangles of one mesh: each of the quad's, twice.
    ModelData data = quadScene();
    data.materials[0].surface = ModelSurface();
    data.materials[0].D = 0.5f;
    data.meshes[0].indices += data.meshes[0].indices;
    ASSERT_TRUE(model.upload(data));
    runFrame(pass);
    for (const auto &[x, y] : {std::pair(2, 9), std::pair(12, 5)})
        expectTexel(DepthPeelingPass::OutSurfaces, {0.75, 0.75, 0.75, 0.75}, tolerance(2), x, y);
}

TEST_F(DepthPeelingPassTest, ShadesThePixelsOfALayerOnly)
{
    ModelData data = triangleScene();
    data.materials[0].surface = ModelSurface();
    data.materials[0].D = 0.5f;
    ASSERT_TRUE(model.upload(data));
    pass.setFragmentShaderSource(
        QStringLiteral("#version 150\nout vec4 o_Frame;\nvoid main() { o_Frame = vec4(1.0); }"));
    pass.setInput(DepthPeelingPass::InLayers, 3);
    runFrame(pass);
    // The triangle is as wide as the picture at its foot and comes to a point at its top.
    const auto surfaces = readTexture<float>(outputTexture(pass, DepthPeelingPass::OutSurfaces));
    for (int y = 0; y < kSide; ++y) {
        for (int x = 0; x < kSide; ++x) {
            const double fromMiddle = std::abs((x + 0.5) * 2 / kSide - 1);
            const double half = 1 - (y + 0.5) / kSide;
            if (std::abs(fromMiddle - half) < 0.01)
                continue; // on its edge
            EXPECT_EQ(surfaces.at(x, y)[3], fromMiddle < half ? 1.0f : 0.0f) << x << ", " << y;
        }
    }
}

TEST_F(DepthPeelingPassTest, ALimitKeepsTheNearestAndSaysOnceThatThereAreMore)
{
    const std::vector<Sheet> sheets = randomSheets(9);
    upload(sheets);
    for (const int limit : {1, 4, 8, 9, 200}) {
        DepthPeelingPass limited;
        use(limited);
        limited.setInput(DepthPeelingPass::InLayers, limit);
        const MessageCapture messages;
        runFrame(limited);
        runFrame(limited);
        const bool leavesOut = limit < 9;
        EXPECT_EQ(messages.containing(QStringLiteral("Kvo_int_Layers %1 leaves out").arg(limit)), int(leavesOut));
        EXPECT_EQ(messages.count(QtWarningMsg), int(leavesOut)) << qPrintable(messages.texts().join('\n'));
        const auto found = readTexture<float>(outputTexture(limited, DepthPeelingPass::OutSurfaces)).at(3, 3);
        const Color expected = composed(sheets, std::size_t(limit));
        for (std::size_t c = 0; c < 4; ++c)
            EXPECT_NEAR(double(found[c]), expected[c], tolerance(9)) << limit << " channel " << c;
    }
    {
        const MessageCapture messages;
        for (const int limit : {2, 2, 3, 3}) {
            pass.setInput(DepthPeelingPass::InLayers, limit);
            runFrame(pass);
        }
        EXPECT_EQ(messages.count(QtWarningMsg), 2) << "one for each limit";
    }
    for (const QVariant &wrong : {QVariant(-3), QVariant(257), QVariant(INT_MAX), QVariant(INT_MIN)}) {
        pass.setInput(DepthPeelingPass::InLayers, wrong);
        const MessageCapture messages;
        runFrame(pass);
        EXPECT_EQ(messages.containing(QStringLiteral("DepthPeelingPass: Kvo_int_Layers")), 1);
        expectTexel(DepthPeelingPass::OutSurfaces, composed(sheets), tolerance(9));
        pass.setInput(DepthPeelingPass::InLayers, 0);
        runFrame(pass);
    }
}

TEST_F(DepthPeelingPassTest, WhatIsSolidHidesWhatIsBehindIt)
{
    const std::vector<Sheet> sheets{{{1, 0, 0}, 0.5f, 0.6f}, {{0, 1, 0}, 1.0f, 0.2f}, {{0, 0, 1}, 0.5f, -0.4f}};
    upload(sheets);
    GPUModel solid;
    ModelData data = quadScene();
    data.materials[0].surface = ModelSurface();
    data.materials[0].surface->baseColor = {0, 1, 0};
    data.items[0].transform.translate(0, 0, 0.2f);
    ASSERT_TRUE(solid.upload(data));
    SurfacePass &surfaces = things->surfaces;
    surfaces.setInput(SurfacePass::InViewport, QRect(0, 0, kSide, kSide));
    surfaces.setInput(SurfacePass::InProjectionMatrix, flatProjection());
    surfaces.setInput(SurfacePass::InCameraMatrix, QMatrix4x4());
    surfaces.setInput(SurfacePass::InGeometry, QVariant::fromValue(&solid));
    // Both are read by two frames.
    surfaces.setNumOutputUsers(SurfacePass::OutDepth, 2);
    surfaces.setNumOutputUsers(SurfacePass::OutBaseColor, 2);
    runFrame(surfaces);
    pass.setInput(DepthPeelingPass::InSolidDepth, surfaces.output(SurfacePass::OutDepth));
    pass.setInput(DepthPeelingPass::InPicture, surfaces.output(SurfacePass::OutBaseColor));
    runFrame(pass);
    expectTexel(DepthPeelingPass::OutSurfaces, {0.5, 0, 0, 0.5}, tolerance(1));
    expectTexel(DepthPeelingPass::OutFrame, {0.5, 0.5, 0, 1}, tolerance(2));

    // Of another size they cannot be laid over each other.
    pass.setInput(DepthPeelingPass::InViewport, QRect(0, 0, kSide / 2, kSide));
    const MessageCapture messages;
    runFrame(pass);
    EXPECT_EQ(messages.containing(QStringLiteral("Kvo_KvoTexture*_SolidDepth is not 8 x 16 pixels")), 1);
    EXPECT_EQ(messages.containing(QStringLiteral("Kvo_KvoTexture*_Picture is not 8 x 16 pixels")), 1);
    expectTexel(DepthPeelingPass::OutSurfaces, {0.5, 0, 0.25, 0.75}, tolerance(2), 4, 4);
}

TEST_F(DepthPeelingPassTest, MaterialsThatBlendAreSolidOrNotTexelByTexel)
{
    // By the alpha of their map: nothing, a bit, nearly all, all.
    const std::array<int, 4> alphas{0, 64, 254, 255};
    for (const float opacity : {1.0f, 0.5f}) {
        for (const int alpha : alphas) {
            QImage map(4, 4, QImage::Format_ARGB32);
            map.fill(qRgba(255, 255, 255, alpha));
            ModelData data = quadScene();
            data.materials[0].D = opacity;
            data.materials[0].surface = ModelSurface();
            data.materials[0].surface->baseColor = {0, 0, 1};
            data.materials[0].surface->alphaMode = AlphaMode::Blend;
            data.materials[0].surface->map_baseColor = map;
            ASSERT_TRUE(model.upload(data));
            SurfacePass surfaces;
            surfaces.setInput(SurfacePass::InViewport, QRect(0, 0, kSide, kSide));
            surfaces.setInput(SurfacePass::InProjectionMatrix, flatProjection());
            surfaces.setInput(SurfacePass::InCameraMatrix, QMatrix4x4());
            surfaces.setInput(SurfacePass::InGeometry, QVariant::fromValue(&model));
            surfaces.setInput(SurfacePass::InSolidOnly, true);
            runFrame(surfaces);
            const bool isSolid = readDepth(outputTexture(surfaces, SurfacePass::OutDepth)).at(5, 5)[0] < 1.0f;
            runFrame(pass);
            EXPECT_EQ(isSolid, alpha == 255 && opacity == 1.0f) << alpha;
            const double expected = opacity == 1.0f && alpha == 255 ? 0.0 : double(opacity) * alpha / 255;
            expectTexel(DepthPeelingPass::OutSurfaces, {0, 0, expected, expected}, tolerance(1));
        }
    }
}

TEST_F(DepthPeelingPassTest, WithoutSuchSurfacesThePictureIsHandedThrough)
{
    upload({{{1, 0, 0}, 1.0f, 0.0f}});
    SurfacePass &surfaces = things->surfaces;
    surfaces.setInput(SurfacePass::InViewport, QRect(0, 0, kSide, kSide));
    surfaces.setInput(SurfacePass::InGeometry, QVariant::fromValue(&model));
    surfaces.setNumOutputUsers(SurfacePass::OutBaseColor, 1);
    pass.setNumOutputUsers(DepthPeelingPass::OutFrame, 2);
    runFrame(surfaces);
    Texture *const picture = outputTexture(surfaces, SurfacePass::OutBaseColor);
    pass.setInput(DepthPeelingPass::InPicture, surfaces.output(SurfacePass::OutBaseColor));
    runFrame(pass);
    EXPECT_EQ(outputTexture(pass, DepthPeelingPass::OutFrame), picture);
    EXPECT_FALSE(pass.output(DepthPeelingPass::OutSurfaces).isValid());
    // One of this pass's input was given back, two for those that read on.
    EXPECT_EQ(TextureManager::Instance().tempTextureRefs(picture), 2);
    TextureManager::Instance().releaseTempTextureRef(picture, 2);

    for (const QVariant &nothing : {QVariant(), QVariant::fromValue<GPUModel *>(nullptr), QVariant(7)}) {
        pass.setInput(DepthPeelingPass::InGeometry, nothing);
        pass.setInput(DepthPeelingPass::InPicture, QVariant());
        runFrame(pass);
        EXPECT_FALSE(pass.output(DepthPeelingPass::OutFrame).isValid());
    }
}

TEST_F(DepthPeelingPassTest, ReferencesAreThoseOfTheUsers)
{
    upload(randomSheets(5));
    pass.setNumOutputUsers(DepthPeelingPass::OutFrame, 2);
    pass.setNumOutputUsers(DepthPeelingPass::OutSurfaces, 3);
    for (int frame = 0; frame < 3; ++frame) {
        const int before = TextureManager::Instance().statistics().inUse;
        runFrame(pass);
        EXPECT_EQ(TextureManager::Instance().statistics().inUse, before + 2);
        TextureManager::Instance().releaseTempTextureRef(outputTexture(pass, DepthPeelingPass::OutFrame), 2);
        TextureManager::Instance().releaseTempTextureRef(outputTexture(pass, DepthPeelingPass::OutSurfaces), 3);
        EXPECT_EQ(TextureManager::Instance().statistics().inUse, before);
    }
    DepthPeelingPass copy(pass);
    copy.resetNumOutputUsers();
    copy.setInput(DepthPeelingPass::InViewport, QRect(0, 0, 7, 5));
    runFrame(copy);
    EXPECT_EQ(stateOf(outputTexture(copy, DepthPeelingPass::OutFrame)).width, 7);
}

TEST_F(DepthPeelingPassTest, ThePictureIsTheSameInAnyStateAndTheStateStays)
{
    const std::vector<Sheet> sheets = randomSheets(6);
    upload(sheets);
    runFrame(pass);
    const Image<float> expected = readTexture<float>(outputTexture(pass, DepthPeelingPass::OutFrame));
    const HostileGLState hostile;
    const GLStateSnapshot before;
    runFrame(pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before), QStringList());
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(pass, DepthPeelingPass::OutFrame)), expected, within(0)));
}

TEST_F(DepthPeelingPassTest, AHostThatCountsSamplesGoesOnCounting)
{
    const std::vector<Sheet> sheets = randomSheets(20);
    upload(sheets);
    const MessageCapture messages;
    GLuint query = 0;
    glGenQueries(1, &query);
    glBeginQuery(GL_SAMPLES_PASSED, query);
    runFrame(pass);
    runFrame(pass);
    EXPECT_EQ(messages.containing(QStringLiteral("while the host counts samples; 16 are drawn")), 1);
    GLint running = 0;
    glGetQueryiv(GL_SAMPLES_PASSED, GL_CURRENT_QUERY, &running);
    EXPECT_EQ(running, GLint(query));
    glEndQuery(GL_SAMPLES_PASSED);
    glDeleteQueries(1, &query);
    expectTexel(DepthPeelingPass::OutSurfaces, composed(sheets, 16), tolerance(16));
}

TEST_F(DepthPeelingPassTest, ChangesOfTheModelsDataCount)
{
    upload({{{1, 0, 0}, 0.5f, 0.5f}, {{0, 1, 0}, 1.0f, 0.0f}});
    EXPECT_FALSE(model.isDrawEmpty(0, 0, GPUModel::Opacity::Mixed));
    runFrame(pass);
    expectTexel(DepthPeelingPass::OutSurfaces, {0.5, 0, 0, 0.5}, tolerance(1));
    // Opacity is the fourth number of a surface.
    InstanceDataCollection *surfaces = model.surfaceData(0);
    QVector<float> floats = surfaces->data();
    const qsizetype perItem = floats.size() / model.itemCount();
    floats[3] = 1.0f;
    floats[perItem + 3] = 0.25f;
    surfaces->setData(floats);
    runFrame(pass);
    expectTexel(DepthPeelingPass::OutSurfaces, {0, 0.25, 0, 0.25}, tolerance(1));
    floats[perItem + 3] = 1.0f;
    surfaces->setData(floats);
    EXPECT_TRUE(model.isDrawEmpty(0, 0, GPUModel::Opacity::Mixed));
}
