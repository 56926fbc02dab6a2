// What SurfacePass writes for a surface, against the formulas in double precision.

#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/shaderfailurelistener.h>
#include <gl/shaderprogram.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/passfactory.h>
#include <host/surfacepass.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>

#include <QColor>
#include <QRandomGenerator>

#include <epoxy/gl.h>

#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <string>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

constexpr int kSide = 32;

double decoded(double v)
{
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

// Half floats have 11 bits, the three of GL_R11F_G11F_B10F 6 and 5.
constexpr double kHalf = 1.0 / 2048;
constexpr double kPacked = 1.0 / 32;
// Drivers decode sRGB to half of an 8-bit step; rasterisers on the CPU by a polynomial.
constexpr double kDecoding = 0.002;
constexpr double kByte = 0.5 / 255 + 1e-5;

QImage plain(QRgb color)
{
    QImage image(4, 4, QImage::Format_ARGB32);
    image.fill(color);
    return image;
}

/// Texels of black and white in turn.
QImage checker(int side)
{
    QImage image(side, side, QImage::Format_RGB32);
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x)
            image.setPixel(x, y, (x + y) % 2 ? qRgb(255, 255, 255) : qRgb(0, 0, 0));
    return image;
}

class SurfacePassTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        pass.setInput(SurfacePass::InViewport, QRect(0, 0, kSide, kSide));
        pass.setInput(SurfacePass::InProjectionMatrix, flatProjection());
        pass.setInput(SurfacePass::InCameraMatrix, QMatrix4x4());
        pass.setInput(SurfacePass::InGeometry, QVariant::fromValue(&model));
    }

    // Before the count of what is left.
    void TearDown() override
    {
        things.reset();
        GLTest::TearDown();
    }

    /// Draws a quad over the whole picture.
    void draw(const ModelSurface &surface, float opacity = 1.0f, const QMatrix4x4 &transform = QMatrix4x4())
    {
        ModelData data = quadScene();
        data.materials[0].surface = surface;
        data.materials[0].D = opacity;
        data.items[0].transform = transform;
        ASSERT_TRUE(model.upload(data));
        runFrame(pass);
    }

    std::array<double, 4> texel(int output, int x = kSide / 2, int y = kSide / 2)
    {
        Texture *texture = outputTexture(pass, output);
        const auto pixel =
            (output == SurfacePass::OutDepth ? readDepth(texture) : readTexture<float>(texture)).at(x, y);
        return {double(pixel[0]), double(pixel[1]), double(pixel[2]), double(pixel[3])};
    }
    bool isDrawn(int x = kSide / 2, int y = kSide / 2) { return texel(SurfacePass::OutDepth, x, y)[0] < 1.0; }

    void expectTexel(int output, const std::vector<double> &expected, double relative, double absolute = 1e-6)
    {
        const auto found = texel(output);
        for (std::size_t c = 0; c < expected.size(); ++c)
            EXPECT_NEAR(found[c], expected[c], std::abs(expected[c]) * relative + absolute)
                << "output " << output << " channel " << c;
    }

    struct Things
    {
        GPUModel model;
        SurfacePass pass;
    };
    ShaderFailureListener failures{[](const ShaderFailure &failure) { ADD_FAILURE() << qPrintable(failure.log); }};
    std::unique_ptr<Things> things = std::make_unique<Things>();
    GPUModel &model = things->model;
    SurfacePass &pass = things->pass;
};

} // namespace

TEST_F(SurfacePassTest, HasTheSlotsOfItsHeader)
{
    expectSlots(pass,
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoGPUModel*_Geometry"},
                 {"Kvo_bool_SolidOnly", false}},
                {"Kvo_KvoTexture*_BaseColor", "Kvo_KvoTexture*_Surface", "Kvo_KvoTexture*_Emission",
                 "Kvo_KvoTexture*_Normal", "Kvo_KvoTexture*_Depth", "Kvo_KvoTexture*_Id"});
    EXPECT_TRUE(passFactory().knows(QStringLiteral("SurfacePass")));
}

TEST_F(SurfacePassTest, WritesEveryNumberOfASurface)
{
    QRandomGenerator random(7);
    const auto any = [&random] { return float(random.generateDouble()); };
    for (int round = 0; round < 12; ++round) {
        ModelSurface s;
        s.baseColor = {any(), any(), any()};
        s.metalness = any();
        s.roughness = any();
        s.emission = QVector3D(any(), any(), any()) * 20.0f;
        s.isUnlit = round % 2;
        const QColor base = QColor::fromRgb(random.bounded(256), random.bounded(256), random.bounded(256), 255);
        const QColor metal = QColor::fromRgb(random.bounded(256), random.bounded(256), random.bounded(256));
        const QColor glow = QColor::fromRgb(random.bounded(256), random.bounded(256), random.bounded(256));
        const int shade = random.bounded(256);
        const bool hasMaps = round >= 4;
        s.occlusionStrength = any();
        if (hasMaps) {
            s.map_baseColor = plain(base.rgb());
            s.map_metalRoughness = plain(metal.rgb());
            s.map_emission = plain(glow.rgb());
            s.map_occlusion = plain(qRgb(shade, 3, 200));
        }
        const float opacity = any();
        draw(s, opacity);
        const auto color = [hasMaps](float factor, int byte) {
            return double(factor) * (hasMaps ? decoded(byte / 255.0) : 1.0);
        };
        expectTexel(SurfacePass::OutBaseColor,
                    {color(s.baseColor.x(), base.red()), color(s.baseColor.y(), base.green()),
                     color(s.baseColor.z(), base.blue()), double(opacity)},
                    kHalf, kDecoding);
        expectTexel(SurfacePass::OutSurface,
                    {double(s.roughness) * (hasMaps ? metal.greenF() : 1.0f),
                     double(s.metalness) * (hasMaps ? metal.blueF() : 1.0f),
                     hasMaps ? 1.0 + double(s.occlusionStrength) * (shade / 255.0 - 1.0) : 1.0, s.isUnlit ? 0.0 : 1.0},
                    0.0, kByte);
        expectTexel(SurfacePass::OutEmission,
                    {color(s.emission.x(), glow.red()), color(s.emission.y(), glow.green()),
                     color(s.emission.z(), glow.blue())},
                    kPacked, 20 * kDecoding);
        expectTexel(SurfacePass::OutNormal, {0, 0, 1, 1}, kHalf);
        // The quad's triangles meet in the diagonal from the lower left.
        EXPECT_EQ(texel(SurfacePass::OutId, kSide - 2, 1)[0], 1.0);
        EXPECT_EQ(texel(SurfacePass::OutId, 1, kSide - 2)[0], 2.0);
    }
}

// Half of black and white is half the light, both where a map is enlarged and where its mip levels are read: of the
// values as they are encoded it would be 0.21.
TEST_F(SurfacePassTest, ColoursAreDecodedBeforeTheyAreFiltered)
{
    ModelSurface s;
    s.map_baseColor = checker(256);
    s.map_emission = s.map_baseColor;
    s.emission = {1, 1, 1};
    s.map_metalRoughness = s.map_baseColor;
    s.metalness = 1.0f;
    draw(s);
    expectTexel(SurfacePass::OutBaseColor, {0.5, 0.5, 0.5}, 0.01);
    expectTexel(SurfacePass::OutEmission, {0.5, 0.5, 0.5}, kPacked + 0.01);
    expectTexel(SurfacePass::OutSurface, {0.5, 0.5}, 0.0, 2.0 / 255);

    QImage two(2, 1, QImage::Format_RGB32);
    two.setPixel(0, 0, qRgb(0, 0, 0));
    two.setPixel(1, 0, qRgb(255, 255, 255));
    ModelSurface enlarged;
    enlarged.map_baseColor = two;
    enlarged.metalness = 1.0f;
    enlarged.map_metalRoughness = two;
    draw(enlarged);
    for (int x = kSide / 4 + 1; x < 3 * kSide / 4 - 1; ++x) {
        // The centres of the two texels lie at a quarter and at three quarters; the filter has 8 bits.
        const double share = ((x + 0.5) / kSide - 0.25) / 0.5;
        EXPECT_NEAR(texel(SurfacePass::OutBaseColor, x)[0], share, 1.0 / 256 + 0.002) << x;
        EXPECT_NEAR(texel(SurfacePass::OutSurface, x)[1], share, 1.0 / 256 + kByte) << x;
    }
}

TEST_F(SurfacePassTest, NormalMapsBendNormalsUnderEveryTransform)
{
    const int bytes[3] = {200, 90, 230};
    ModelSurface s;
    s.map_normal = plain(qRgb(bytes[0], bytes[1], bytes[2]));
    for (const float scale : {1.0f, 0.5f, -1.0f}) {
        for (const bool isMirrored : {false, true}) {
            for (const float angle : {0.0f, 40.0f, 200.0f}) {
                s.normalScale = scale;
                QMatrix4x4 turn;
                turn.rotate(angle, 0, 0, 1);
                turn.rotate(25, 1, 0, 0);
                if (isMirrored)
                    turn.scale(-1, 1, 1);
                draw(s, 1.0f, turn);
                ASSERT_TRUE(isDrawn());
                QVector3D bent;
                for (int i = 0; i < 3; ++i)
                    bent[i] = float(bytes[i] / 255.0 * 2.0 - 1.0) * (i < 2 ? scale : 1.0f);
                // Of the quad texture coordinates grow along x and y, so these are the axes of the map.
                const QVector3D expected = turn.mapVector(bent).normalized();
                expectTexel(SurfacePass::OutNormal,
                            {double(expected.x()), double(expected.y()), double(expected.z()), 1.0}, 0.0, 1.5 / 1024);
            }
        }
    }
}

// A mesh whose texture is turned and one whose is mirrored: what the map says is up stays up in the texture.
TEST_F(SurfacePassTest, TangentsFollowTheTextureCoordinates)
{
    ModelSurface s;
    s.map_normal = plain(qRgb(255, 128, 128)); // along the first coordinate
    struct Case
    {
        QVector2D u;
        QVector2D v;
    };
    for (const Case &c : {Case{{1, 0}, {0, 1}}, Case{{0, 1}, {-1, 0}}, Case{{-1, 0}, {0, 1}}, Case{{2, 0}, {0, -3}},
                          Case{{0.6f, 0.8f}, {0.8f, -0.6f}}}) {
        for (const bool isTaken : {false, true}) {
            ModelData data = quadScene();
            data.materials[0].surface = s;
            ModelMesh &mesh = data.meshes[0];
            // The first coordinate grows along c.u in the plane of the quad.
            for (qsizetype i = 0; i < mesh.positions.size(); ++i) {
                const QVector2D p(mesh.positions[i]);
                mesh.texCoords[i] = {QVector2D::dotProduct(p, c.u), QVector2D::dotProduct(p, c.v)};
            }
            if (isTaken)
                mesh.tangents = computedTangents(mesh);
            ASSERT_TRUE(model.upload(data));
            runFrame(pass);
            const QVector2D along = c.u.normalized();
            const double z = 2 * 128 / 255.0 - 1;
            // y of the map is not quite 0: 128 is a little above the middle.
            QVector2D up(-along.y(), along.x());
            if (c.u.x() * c.v.y() - c.u.y() * c.v.x() < 0)
                up = -up;
            const double length = std::sqrt(1 + 2 * z * z);
            expectTexel(SurfacePass::OutNormal,
                        {(double(along.x()) + z * double(up.x())) / length,
                         (double(along.y()) + z * double(up.y())) / length, z / length},
                        0.0, 1.5 / 1024);
        }
    }
}

TEST_F(SurfacePassTest, BackFacesAreTurnedOrLeftOut)
{
    for (const bool isMirrored : {false, true}) {
        for (const bool isTurned : {false, true}) {
            QMatrix4x4 place;
            if (isTurned)
                place.rotate(180, 0, 1, 0);
            if (isMirrored)
                place.scale(-1, 1, 1);
            for (const bool isTwoSided : {false, true}) {
                ModelSurface s;
                s.isTwoSided = isTwoSided;
                draw(s, 1.0f, place);
                EXPECT_EQ(isDrawn(), isTwoSided || !isTurned) << isMirrored << isTurned << isTwoSided;
                if (isDrawn())
                    expectTexel(SurfacePass::OutNormal, {0, 0, 1, 1}, kHalf);
            }
        }
    }
}

TEST_F(SurfacePassTest, AlphaCountsAsItsModeSays)
{
    struct Case
    {
        AlphaMode mode;
        int alpha;
        float opacity;
        float cutoff;
        bool isDrawn;
        double opacityOut;
    };
    for (const Case &c :
         {Case{AlphaMode::Opaque, 0, 1.0f, 0.5f, true, 1.0}, Case{AlphaMode::Opaque, 10, 0.4f, 0.5f, true, 0.4},
          Case{AlphaMode::Mask, 127, 1.0f, 0.5f, false, 0}, Case{AlphaMode::Mask, 129, 1.0f, 0.5f, true, 1.0},
          Case{AlphaMode::Mask, 255, 0.6f, 0.7f, false, 0}, Case{AlphaMode::Mask, 20, 1.0f, 0.05f, true, 1.0},
          Case{AlphaMode::Blend, 100, 1.0f, 0.1f, false, 0}, Case{AlphaMode::Blend, 204, 0.5f, 0.9f, true, 0.4}}) {
        ModelSurface s;
        s.alphaMode = c.mode;
        s.alphaCutoff = c.cutoff;
        s.map_baseColor = plain(qRgba(255, 255, 255, c.alpha));
        draw(s, c.opacity);
        EXPECT_EQ(isDrawn(), c.isDrawn) << int(c.mode) << " " << c.alpha;
        EXPECT_NEAR(texel(SurfacePass::OutBaseColor)[3], c.opacityOut, 0.001) << int(c.mode) << " " << c.alpha;
    }
}

TEST_F(SurfacePassTest, MaterialsWithoutASurfaceGetOne)
{
    ModelData data = quadScene({0.5f, 0.25f, 1.0f});
    for (const float exponent : {1.0f, 30.0f, 500.0f}) {
        data.materials[0].Ns = exponent;
        ASSERT_TRUE(model.upload(data));
        runFrame(pass);
        expectTexel(SurfacePass::OutBaseColor, {decoded(0.5), decoded(0.25), 1.0, 1.0}, kHalf);
        expectTexel(SurfacePass::OutSurface, {std::pow(2.0 / (double(exponent) + 2.0), 0.25), 0.0, 1.0, 1.0}, 0.0,
                    kByte);
    }
    data.materials[0].Ns = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(surfaceOf(data.materials[0]).roughness, float(std::pow(2.0 / 3.0, 0.25)));
}

// Items, each with a material of its own, drawn in one call and one by one.
TEST_F(SurfacePassTest, EveryItemHasItsSurface)
{
    ModelData data = quadGridScene(4, 2);
    for (qsizetype i = 0; i < data.materials.size(); ++i) {
        ModelSurface s;
        s.roughness = float(i) / 8.0f;
        s.metalness = 1.0f - s.roughness;
        if (i % 3 == 1)
            s.map_metalRoughness = plain(qRgb(0, 128, 64));
        data.materials[i].surface = s;
    }
    ASSERT_TRUE(model.upload(data));
    for (const auto road : {GPUModel::DrawRoad::Automatic, GPUModel::DrawRoad::Loop}) {
        model.setDrawRoad(road);
        runFrame(pass);
        for (int i = 0; i < 8; ++i) {
            const auto found = texel(SurfacePass::OutSurface, i % 4 * 8 + 4, i / 4 * 16 + 8);
            const bool hasMap = i % 3 == 1;
            EXPECT_NEAR(found[0], i / 8.0 * (hasMap ? 128 / 255.0 : 1.0), kByte) << i;
            EXPECT_NEAR(found[1], (1.0 - i / 8.0) * (hasMap ? 64 / 255.0 : 1.0), kByte) << i;
        }
    }
}

// What a model costs that nobody shades physically is what it cost before; a pass that does reads maps of models that
// come after its first frame.
TEST_F(SurfacePassTest, MapsComeWhenTheyAreAskedForAndGoWithTheModel)
{
    const auto count = [] { return TextureManager::Instance().managedTextureCount(); };
    runFrame(pass); // No model data yet.
    ModelData data = quadScene();
    ModelSurface s;
    s.map_baseColor = plain(qRgb(255, 0, 0));
    s.map_normal = plain(qRgb(128, 128, 255));
    s.map_occlusion = plain(qRgb(10, 20, 30));
    s.map_metalRoughness = s.map_occlusion;
    s.map_emission = s.map_baseColor;
    data.materials[0].surface = s;
    ASSERT_TRUE(model.upload(data));
    EXPECT_EQ(count(), 0);
    runFrame(pass);
    EXPECT_EQ(count(), 3) << "an image for two purposes is one";
    expectTexel(SurfacePass::OutBaseColor, {1, 0, 0}, kHalf);
    ASSERT_NE(model.surfaceData(0), nullptr);
    EXPECT_EQ(model.surfaceData(1), nullptr);
    EXPECT_EQ(model.surfaceData(0)->drawCount(), 1);
    {
        GPUModel other;
        s.map_baseColor = checker(2000);
        data.materials[0].surface = s;
        ASSERT_TRUE(other.upload(data));
        pass.setInput(SurfacePass::InGeometry, QVariant::fromValue(&other));
        runFrame(pass);
        expectTexel(SurfacePass::OutBaseColor, {0.5, 0.5, 0.5}, 0.01);
        EXPECT_EQ(count(), 3 + 4);
    }
    EXPECT_EQ(count(), 3);
    pass.setInput(SurfacePass::InGeometry, QVariant::fromValue(&model));
    ASSERT_TRUE(model.upload(quadScene()));
    EXPECT_EQ(count(), 0);
}

TEST_F(SurfacePassTest, WithoutAModelOrASizeThereIsNothing)
{
    {
        GPUModel gone;
        pass.setInput(SurfacePass::InGeometry, QVariant::fromValue(&gone));
    }
    for (const QVariant &nothing : {pass.inputValue(SurfacePass::InGeometry), QVariant(), QVariant(3)}) {
        pass.setInput(SurfacePass::InGeometry, nothing);
        runFrame(pass);
        EXPECT_FALSE(isDrawn());
        expectTexel(SurfacePass::OutBaseColor, {0, 0, 0, 0}, 0.0, 0.0);
        expectTexel(SurfacePass::OutNormal, {0, 0, 0, 0}, 0.0, 0.0);
    }
    for (const QVariant &size :
         {QVariant(), QVariant(QRect(0, 0, 0, 8)), QVariant(QRect(0, 0, -5, 8)), QVariant("x")}) {
        pass.setInput(SurfacePass::InViewport, size);
        runFrame(pass);
        for (int i = 0; i < pass.numOutputs(); ++i)
            EXPECT_FALSE(pass.output(i).isValid());
    }
    const MessageCapture said;
    pass.setInput(SurfacePass::InViewport, QRect(0, 0, std::numeric_limits<int>::max() / 2, 8));
    runFrame(pass);
    EXPECT_FALSE(pass.output(0).isValid());
    EXPECT_FALSE(said.texts().isEmpty());
}

TEST_F(SurfacePassTest, ReferencesAreThoseOfTheUsers)
{
    draw(ModelSurface());
    for (const int users : {0, 1, 3}) {
        for (int i = 0; i < pass.numOutputs(); ++i)
            pass.setNumOutputUsers(i, users);
        const int before = TextureManager::Instance().statistics().inUse;
        runFrame(pass);
        for (int i = 0; i < pass.numOutputs(); ++i) {
            Texture *texture = outputTexture(pass, i);
            EXPECT_EQ(TextureManager::Instance().tempTextureRefs(texture), users) << i;
            TextureManager::Instance().releaseTempTextureRef(texture, users);
        }
        EXPECT_EQ(TextureManager::Instance().statistics().inUse, before);
    }
    pass.resetNumOutputUsers();
    SurfacePass copy(pass);
    copy.setInput(SurfacePass::InViewport, QRect(0, 0, 7, 5));
    runFrame(copy);
    runFrame(pass);
    EXPECT_EQ(stateOf(outputTexture(copy, 0)).width, 7);
    EXPECT_EQ(stateOf(outputTexture(pass, 0)).width, kSide);
}

TEST_F(SurfacePassTest, ThePictureIsTheSameInAnyStateAndTheStateStays)
{
    ModelSurface s;
    s.baseColor = {0.2f, 0.4f, 0.8f};
    draw(s);
    const Image<float> expected = readTexture<float>(outputTexture(pass, SurfacePass::OutBaseColor));
    const HostileGLState hostile;
    const GLStateSnapshot before;
    runFrame(pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before), QStringList());
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(pass, SurfacePass::OutBaseColor)), expected, within(0)));
}

TEST(ComputedTangents, ArePerpendicularAndFiniteWhateverTheCoordinates)
{
    QRandomGenerator random(3);
    for (int round = 0; round < 200; ++round) {
        ModelMesh mesh = cubeMesh();
        for (QVector2D &t : mesh.texCoords) {
            const double kind = random.generateDouble();
            t = kind < 0.2 ? QVector2D()
                           : QVector2D(float(random.generateDouble() * (kind < 0.3 ? 1e30 : 1.0)),
                                       float(random.generateDouble()));
        }
        if (round % 5 == 0)
            mesh.texCoords.clear();
        if (round % 7 == 0)
            mesh.normals.clear();
        const float unit = round % 3 ? 1.0f : 1e-12f;
        for (QVector3D &p : mesh.positions)
            p *= unit;
        const QVector<QVector4D> tangents = computedTangents(mesh);
        ASSERT_EQ(tangents.size(), mesh.positions.size());
        const QVector<QVector3D> normals =
            mesh.normals.isEmpty() ? computedNormals(mesh.positions, mesh.indices) : mesh.normals;
        for (qsizetype i = 0; i < tangents.size(); ++i) {
            EXPECT_NEAR(tangents[i].toVector3D().length(), 1.0f, 1e-5f);
            EXPECT_NEAR(QVector3D::dotProduct(tangents[i].toVector3D(), normals[i]), 0.0f, 1e-5f);
            EXPECT_EQ(std::abs(tangents[i].w()), 1.0f);
        }
    }
}

// Fans of triangles of any shape, each with directions of its own: what is expected is the sum of the derivatives of
// position by coordinate, of length 1 each, by the angles at the vertex as the law of cosines has them.
TEST(ComputedTangents, AreTheDirectionsAroundEachVertexByTheirAngles)
{
    using Vector = std::array<double, 3>;
    const auto dot = [](const Vector &a, const Vector &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
    const auto wide = [](const QVector3D &v) { return Vector{double(v.x()), double(v.y()), double(v.z())}; };
    const auto unit = [&](Vector v) {
        const double length = std::sqrt(dot(v, v));
        for (double &component : v)
            component /= length;
        return v;
    };
    QRandomGenerator random(11);
    const auto number = [&random] { return float(random.generateDouble() * 2 - 1); };
    int compared = 0;
    for (int round = 0; round < 50; ++round) {
        const ::testing::ScopedTrace trace(__FILE__, __LINE__, "round " + std::to_string(round));
        ModelMesh mesh;
        constexpr quint32 kRim = 6;
        for (quint32 i = 0; i <= kRim; ++i) {
            const double at = double(i) * 2 * std::numbers::pi / kRim;
            mesh.positions << (i == kRim ? QVector3D(0, 0, 1)
                                         : QVector3D(float(std::cos(at)), float(std::sin(at)), 0.4f * number()));
            mesh.texCoords << QVector2D(number(), number());
            mesh.normals << QVector3D(0.3f * number(), 0.3f * number(), 1).normalized();
            if (i < kRim)
                mesh.indices << kRim << i << (i + 1) % kRim;
        }
        std::array<Vector, kRim + 1> along{};
        std::array<Vector, kRim + 1> across{};
        for (qsizetype i = 0; i < mesh.indices.size(); i += 3) {
            const auto at = [&](int corner) { return mesh.indices[i + corner % 3]; };
            const auto edge = [&](int from, int to) { return wide(mesh.positions[at(to)] - mesh.positions[at(from)]); };
            const QVector2D a = mesh.texCoords[at(1)] - mesh.texCoords[at(0)];
            const QVector2D b = mesh.texCoords[at(2)] - mesh.texCoords[at(0)];
            const double determinant = double(a.x()) * double(b.y()) - double(b.x()) * double(a.y());
            Vector u, v;
            for (std::size_t k = 0; k < 3; ++k) {
                u[k] = (edge(0, 1)[k] * double(b.y()) - edge(0, 2)[k] * double(a.y())) / determinant;
                v[k] = (edge(0, 2)[k] * double(a.x()) - edge(0, 1)[k] * double(b.x())) / determinant;
            }
            for (int corner = 0; corner < 3; ++corner) {
                const double angle = std::acos(dot(unit(edge(corner, corner + 1)), unit(edge(corner, corner + 2))));
                for (std::size_t k = 0; k < 3; ++k) {
                    along[at(corner)][k] += unit(u)[k] * angle;
                    across[at(corner)][k] += unit(v)[k] * angle;
                }
            }
        }
        const QVector<QVector4D> tangents = computedTangents(mesh);
        ASSERT_EQ(tangents.size(), mesh.positions.size());
        for (std::size_t i = 0; i <= kRim; ++i) {
            const Vector normal = wide(mesh.normals[qsizetype(i)]);
            Vector expected = along[i];
            for (std::size_t k = 0; k < 3; ++k)
                expected[k] -= normal[k] * dot(normal, along[i]);
            // What has nearly cancelled out has no direction in floats.
            if (std::sqrt(dot(expected, expected)) < 0.05)
                continue;
            expected = unit(expected);
            const QVector4D tangent = tangents[qsizetype(i)];
            for (int k = 0; k < 3; ++k)
                EXPECT_NEAR(double(tangent[k]), expected[std::size_t(k)], 1e-4) << "vertex " << i;
            const Vector third{normal[1] * expected[2] - normal[2] * expected[1],
                               normal[2] * expected[0] - normal[0] * expected[2],
                               normal[0] * expected[1] - normal[1] * expected[0]};
            const double side = dot(third, across[i]);
            if (std::abs(side) > 0.01) {
                EXPECT_EQ(tangent.w(), side < 0 ? -1.0f : 1.0f) << "vertex " << i;
            }
            ++compared;
        }
    }
    EXPECT_GT(compared, 300) << "of 350";
}
