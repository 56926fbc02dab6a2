#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/modelreference.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/texture.h>
#include <renderpasses/deferredrenderpass.h>

#include <QGenericMatrix>
#include <QMatrix4x4>
#include <QPointer>
#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kProjection, kCamera, kNormal, kTexCoord, kDepth };

constexpr int kWidth = 31;
constexpr int kHeight = 22;

// Half a step of the 8 bits of the target; float sums and the inverse of a matrix in float on top.
constexpr double kEightBits = 0.5 / 255 + 5e-4;

using Vector4 = std::array<double, 4>;
using Matrix4 = std::array<Vector4, 4>; // rows

Matrix4 matrix(const QMatrix4x4 &m)
{
    Matrix4 result{};
    for (int row = 0; row < 4; ++row)
        for (int column = 0; column < 4; ++column)
            result[size_t(row)][size_t(column)] = double(m(row, column));
    return result;
}

Vector4 product(const Matrix4 &m, const Vector4 &v)
{
    Vector4 result{};
    for (size_t row = 0; row < 4; ++row)
        for (size_t column = 0; column < 4; ++column)
            result[row] += m[row][column] * v[column];
    return result;
}

// The formula of the pass, with M^-T for the transposed inverse.
double lambert(const QMatrix4x4 &projection, const QMatrix4x4 &camera, double u, double v, double depth,
               const Vector4 &normal)
{
    const Matrix4 unproject = matrix(projection.inverted().transposed());
    const Matrix4 normalMatrix = matrix(camera.inverted().transposed());
    const Matrix4 c = matrix(camera);
    Vector4 p = product(unproject, {2 * u - 1, 2 * v - 1, depth, 1});
    const double w = p[3];
    for (double &component : p)
        component /= w;
    const Vector4 light = product(c, {100, 100, 100, 1});
    const Vector4 eye = product(c, p);
    const Vector4 n = product(normalMatrix, normal);
    double dot = 0;
    double length = 0;
    for (size_t i = 0; i < 3; ++i) {
        dot += (light[i] - eye[i]) * n[i];
        length += (light[i] - eye[i]) * (light[i] - eye[i]);
    }
    return dot / std::sqrt(length);
}

QMatrix4x4 tiltedCamera()
{
    QMatrix4x4 camera;
    camera.translate(0.3f, -0.2f, -4);
    camera.rotate(35, 1, 2, 0.5f);
    camera.scale(1.5f, 0.75f, 1); // so that the transposed inverse is not the matrix itself
    return camera;
}

class Deferred : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        std::mt19937 generator(5);
        std::normal_distribution<float> component(0.2f, 0.6f);
        std::uniform_real_distribution<float> unit(0, 1);
        for (auto &pixel : normalImage.pixels)
            pixel = {component(generator), component(generator), component(generator), 1};
        for (auto &pixel : depthImage.pixels)
            pixel = {unit(generator), 0, 0, 0};
        normal = makeTexture(normalImage);
        depth = makeTexture(depthImage);
        texCoord = makeSolidTexture(4, 4, {0.5f, 0.5f, 0, 0});
        pass->setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        connect();
        setMatrices(perspective(float(kWidth) / kHeight), tiltedCamera());
        glViewport(0, 0, kWidth, kHeight);
    }
    void TearDown() override
    {
        pass.reset();
        normal.reset();
        texCoord.reset();
        depth.reset();
        GLTest::TearDown();
    }
    void connect()
    {
        pass->setInput(kNormal, textureToVariant(normal.get()));
        pass->setInput(kTexCoord, textureToVariant(texCoord.get()));
        pass->setInput(kDepth, textureToVariant(depth.get()));
    }
    void setMatrices(const QMatrix4x4 &newProjection, const QMatrix4x4 &newCamera)
    {
        projection = newProjection;
        camera = newCamera;
        pass->setInput(kProjection, projection);
        pass->setInput(kCamera, camera);
    }
    Image<float> frame()
    {
        runFrame(*pass);
        return readTexture<float>(outputTexture(*pass, 0));
    }
    Image<float> expected() const
    {
        Image<float> image(kWidth, kHeight);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const auto &n = normalImage.at(x, y);
                const double grey =
                    lambert(projection, camera, (x + 0.5) / kWidth, (y + 0.5) / kHeight, double(depthImage.at(x, y)[0]),
                            {double(n[0]), double(n[1]), double(n[2]), double(n[3])});
                const auto stored = float(std::clamp(grey, 0.0, 1.0));
                image.at(x, y) = {stored, stored, stored, 1};
            }
        }
        return image;
    }

    Image<float> normalImage{kWidth, kHeight};
    Image<float> depthImage{kWidth, kHeight};
    std::unique_ptr<Texture> normal;
    std::unique_ptr<Texture> texCoord;
    std::unique_ptr<Texture> depth;
    QMatrix4x4 projection;
    QMatrix4x4 camera;
    std::unique_ptr<DeferredRenderPass> pass = std::make_unique<DeferredRenderPass>();
};

const Image<float> kBlack(kWidth, kHeight, {0, 0, 0, 1});

} // namespace

TEST_F(Deferred, SlotsHaveTheirNamesAndOrder)
{
    expectSlots(DeferredRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_KvoTexture*_Normal"},
                 {"Kvo_KvoTexture*_TexCoord"},
                 {"Kvo_KvoTexture*_Depth"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(Deferred, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<DeferredRenderPass>();
}

TEST_F(Deferred, TheTargetHasEightBitsAndNearestFilters)
{
    const GlCalls calls;
    runFrame(*pass);
    EXPECT_EQ(
        calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA, kWidth, kHeight, 0, GL_BGRA, GL_UNSIGNED_BYTE, 0}), 1);
    const TextureState state = stateOf(outputTexture(*pass, 0));
    EXPECT_EQ(state.minFilter, unsigned(GL_NEAREST));
    EXPECT_EQ(state.magFilter, unsigned(GL_NEAREST));
}

TEST_F(Deferred, EveryPixelIsTheFormulaOfNormalDepthAndMatrices)
{
    EXPECT_TRUE(sameImage(frame(), expected(), within(kEightBits)));
    QMatrix4x4 flat;
    flat.ortho(-3, 2, -1, 2, 0.5f, 20);
    setMatrices(flat, cameraAt(3));
    EXPECT_TRUE(sameImage(frame(), expected(), within(kEightBits)));
    // A light close by, so that the position counts.
    QMatrix4x4 near = tiltedCamera();
    near.translate(99, 99.5f, 98);
    near.scale(0.01f);
    setMatrices(perspective(2), near);
    EXPECT_TRUE(sameImage(frame(), expected(), within(kEightBits)));
}

TEST_F(Deferred, TheInverseProjectionIsTransposedTheCameraIsNot)
{
    const GlCalls calls;
    runFrame(*pass);
    std::vector<std::vector<double>> matrices;
    for (const GlCall &call : calls.calls("glUniformMatrix4fv"))
        matrices.push_back(call.data);
    const auto columns = [](const QMatrix4x4 &m) { return std::vector<double>(m.constData(), m.constData() + 16); };
    ASSERT_EQ(matrices.size(), 3u);
    EXPECT_EQ(matrices[0], columns(camera));
    EXPECT_EQ(matrices[1], columns(camera.inverted().transposed()));
    EXPECT_EQ(matrices[2], columns(projection.inverted().transposed()));
}

TEST_F(Deferred, AnUntransposedInverseProjectionIsToldApart)
{
    QMatrix4x4 near;
    near.translate(99, 99.5f, 98);
    setMatrices(perspective(2), near);
    const Image<float> image = frame();
    projection = projection.inverted().transposed().inverted(); // whose transposed inverse is the inverse
    EXPECT_FALSE(isSameImage(image, expected(), within(kEightBits)));
}

TEST_F(Deferred, ANegativeProductIsStoredAsZero)
{
    camera = QMatrix4x4();
    setMatrices(perspective(), camera);
    normal = makeSolidTexture(1, 1, {-1, -1, -1, 1});
    connect();
    EXPECT_TRUE(sameImage(frame(), kBlack, within(0)));
}

TEST_F(Deferred, AlphaIsOneEverywhereAndTheBackgroundIsShadedToo)
{
    normal = makeSolidTexture(1, 1, {0.3f, 0.3f, 0.3f, 1});
    depth = makeSolidTexture(1, 1, {1, 0, 0, 0});
    connect();
    setMatrices(perspective(), QMatrix4x4());
    const Image<float> image = frame();
    for (const auto &pixel : image.pixels) {
        EXPECT_GT(pixel[0], 0.4f);
        EXPECT_EQ(pixel[3], 1);
    }
}

TEST_F(Deferred, TextureCoordinatesHaveNoEffect)
{
    const Image<float> image = frame();
    pass->setInput(kTexCoord, QVariant());
    EXPECT_TRUE(sameImage(frame(), image, within(0)));
    texCoord = makeSolidTexture(4, 4, {7, 7, 7, 7});
    connect();
    EXPECT_TRUE(sameImage(frame(), image, within(0)));
}

TEST_F(Deferred, WithNoTextureAtAllThePictureIsThatOfAZeroNormal)
{
    DeferredRenderPass alone;
    alone.setInput(kViewport, QRect(0, 0, kWidth, kHeight));
    glClearColor(1, 0.5f, 0.5f, 0.5f);
    const GlCalls calls;
    runFrame(alone);
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(alone, 0)), kBlack, within(0)));
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA, 1, 1, 0, GL_BGRA, GL_UNSIGNED_BYTE}), 1);
    runFrame(alone);
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA, 1, 1, 0, GL_BGRA, GL_UNSIGNED_BYTE}), 1)
        << "once per pass";
}

TEST_F(Deferred, WithoutADepthAloneTheDepthIsZero)
{
    pass->setInput(kDepth, QVariant());
    for (auto &pixel : depthImage.pixels)
        pixel[0] = 0;
    EXPECT_TRUE(sameImage(frame(), expected(), within(kEightBits)));
}

TEST_F(Deferred, ADepthWithoutANormalShowsNoLightAndMakesNoTexture)
{
    pass->setInput(kNormal, QVariant());
    frame(); // the manager makes its transparent texel here
    const GlCalls calls;
    EXPECT_TRUE(sameImage(frame(), kBlack, within(0)));
    EXPECT_EQ(calls.created(GlKind::Texture), 0);
}

TEST_F(Deferred, TexturesAreBoundInTheOrderNormalTextureCoordinateDepth)
{
    runFrame(*pass);
    const GlCalls calls;
    runFrame(*pass);
    const int normalAt = calls.indexOf("glBindTexture", {GL_TEXTURE_2D, double(normal->textureID())});
    const int texCoordAt = calls.indexOf("glBindTexture", {GL_TEXTURE_2D, double(texCoord->textureID())});
    const int depthAt = calls.indexOf("glBindTexture", {GL_TEXTURE_2D, double(depth->textureID())});
    EXPECT_GE(normalAt, 0);
    EXPECT_GT(texCoordAt, normalAt);
    EXPECT_GT(depthAt, texCoordAt);
    EXPECT_GT(calls.indexOf("glDrawArrays"), depthAt);
}

TEST_F(Deferred, TheViewportIsTheHostsAndWhatItLeavesOutShowsTheClearColour)
{
    glViewport(0, 0, kWidth / 2, kHeight);
    glClearColor(0.0f, 1.0f, 0.0f, 0.5f);
    const GlCalls calls;
    const Image<float> image = frame();
    EXPECT_EQ(calls.count("glViewport"), 0);
    EXPECT_EQ(calls.count("glClearColor"), 0);
    EXPECT_TRUE(isPixel(image, kWidth - 2, 3, {0, 1, 0, 0.5}, 0.5 / 255 + 1e-6));
    EXPECT_EQ(image.at(2, 3)[3], 1);
}

TEST_F(Deferred, ASizeChangeDeletesTheTextureOfBefore)
{
    runFrame(*pass);
    const QPointer<Texture> before(outputTexture(*pass, 0));
    pass->setInput(kViewport, QRect(0, 0, kWidth + 1, kHeight));
    runFrame(*pass);
    EXPECT_TRUE(before.isNull());
    EXPECT_EQ(stateOf(outputTexture(*pass, 0)).width, kWidth + 1);
}

TEST_F(Deferred, ChangesOnlyTheDepthTest)
{
    runFrame(*pass);
    glEnable(GL_DEPTH_TEST);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before), QStringList(QStringLiteral("depth test")));
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
}

TEST_F(Deferred, SteadyFrameCreatesNothing)
{
    expectSteadyFrameCreatesNothing(*pass);
    expectTeardownKeepsEverything(*pass);
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*pass);
}

TEST_F(Deferred, ResizingLeaksNothing)
{
    expectResizingLeaksNothing(*pass, 1);
}

TEST_F(Deferred, EmptyViewportsRaiseNoError)
{
    expectEmptyViewportsRaiseNoError(*pass);
}
