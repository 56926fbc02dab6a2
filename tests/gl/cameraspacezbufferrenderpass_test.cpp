#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/cameraspacezbufferrenderpass.h>

#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

#include <cmath>
#include <limits>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kDepth, kProjection };

constexpr int kWidth = 37;
constexpr int kHeight = 23;
constexpr double kEpsilon = std::numeric_limits<float>::epsilon();

// Depths from near to the far plane, which is the last texel.
Image<float> depths()
{
    Image<float> image(kWidth, kHeight);
    const double last = kWidth * kHeight - 1;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            image.at(x, y)[0] = float(1 - std::pow(1 - (y * kWidth + x) / last, 3));
    return image;
}

class CameraSpaceZBuffer : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        QVector<float> values;
        for (const auto &pixel : depthImage.pixels)
            values.append(pixel[0]);
        depth = makeTexture(GL_DEPTH_COMPONENT32F, kWidth, kHeight, values.constData());
        pass->setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        pass->setInput(kDepth, textureToVariant(depth.get()));
    }
    void TearDown() override
    {
        pass.reset();
        depth.reset();
        GLTest::TearDown();
    }
    Image<float> positions(const QMatrix4x4 &projection)
    {
        pass->setInput(kProjection, projection);
        runFrame(*pass);
        return readTexture<float>(outputTexture(*pass, 0));
    }

    const Image<float> depthImage = depths();
    std::unique_ptr<Texture> depth;
    std::unique_ptr<CameraSpaceZBufferRenderPass> pass = std::make_unique<CameraSpaceZBufferRenderPass>();
};

} // namespace

TEST_F(CameraSpaceZBuffer, SlotsHaveTheirNamesAndOrder)
{
    expectSlots(CameraSpaceZBufferRenderPass(),
                {{"Kvo_QRect_Viewport"}, {"Kvo_KvoTexture*_Depth"}, {"Kvo_QMatrix4x4_ProjectionMatrix"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(CameraSpaceZBuffer, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<CameraSpaceZBufferRenderPass>();
}

TEST_F(CameraSpaceZBuffer, PerspectivePositionsAreThoseOfDoublePrecision)
{
    constexpr double kNear = 0.1, kFar = 60, kAngle = 50;
    const double aspect = double(kWidth) / kHeight;
    QMatrix4x4 projection;
    projection.perspective(float(kAngle), float(aspect), float(kNear), float(kFar));
    const Image<float> image = positions(projection);
    const double tangent = std::tan(kAngle / 2 * M_PI / 180);
    double worst = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const double ndc = 2 * double(depthImage.at(x, y)[0]) - 1;
            const double distance = 2 * kFar * kNear / (kFar + kNear - ndc * (kFar - kNear));
            const double expected[] = {(2 * (x + 0.5) / kWidth - 1) * tangent * aspect * distance,
                                       (2 * (y + 0.5) / kHeight - 1) * tangent * distance, -distance};
            // 1 / distance is the difference of two numbers of the size of 1 / near, each off by a few
            // units in the last place: of the matrix, of its inverse, of the product.
            const double relative = 8 * kEpsilon * distance / kNear + 8 * kEpsilon;
            const auto &pixel = image.at(x, y);
            for (size_t axis = 0; axis < 3; ++axis) {
                const double length = axis == 2 ? distance : std::max(std::abs(expected[axis]), 1e-6);
                const double error = std::abs(double(pixel[axis]) - expected[axis]) / length;
                worst = std::max(worst, error);
                ASSERT_LE(error, relative)
                    << x << ", " << y << ", axis " << axis << ": " << pixel[axis] << " instead of " << expected[axis];
            }
            ASSERT_EQ(pixel[3], 1);
        }
    }
    RecordProperty("worst_relative_error", std::to_string(worst));
}

TEST_F(CameraSpaceZBuffer, OrthographicPositionsAreThoseOfDoublePrecision)
{
    constexpr double kLeft = -3, kRight = 5, kBottom = -1, kTop = 4, kNear = 1, kFar = 30;
    QMatrix4x4 projection;
    projection.ortho(float(kLeft), float(kRight), float(kBottom), float(kTop), float(kNear), float(kFar));
    const Image<float> image = positions(projection);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const double d = double(depthImage.at(x, y)[0]);
            // Sums of a few terms of at most the size of the box.
            const double tolerance = 8 * kEpsilon * kFar;
            ASSERT_TRUE(isPixel(image, x, y,
                                {kLeft + (kRight - kLeft) * (x + 0.5) / kWidth,
                                 kBottom + (kTop - kBottom) * (y + 0.5) / kHeight, -(kNear + (kFar - kNear) * d), 1},
                                tolerance));
        }
    }
}

TEST_F(CameraSpaceZBuffer, ADepthOfOneIsAPositionOnTheFarPlane)
{
    QMatrix4x4 projection;
    projection.perspective(90, 1, 1, 10);
    EXPECT_TRUE(isPixel(positions(projection), kWidth - 1, kHeight - 1,
                        {10 * (1 - 1.0 / kWidth), 10 * (1 - 1.0 / kHeight), -10, 1}, 1e-4));
}

TEST_F(CameraSpaceZBuffer, WithoutADepthEveryPositionIsOnTheFarPlane)
{
    QMatrix4x4 projection;
    projection.perspective(90, 1, 1, 10);
    pass->setInput(kDepth, QVariant());
    const Image<float> image = positions(projection);
    for (const auto &pixel : image.pixels)
        ASSERT_NEAR(pixel[2], -10, 1e-4);
}

TEST_F(CameraSpaceZBuffer, WithoutAProjectionPositionsAreThoseOfClipSpace)
{
    pass->setInput(kProjection, QVariant());
    runFrame(*pass);
    EXPECT_TRUE(
        isPixel(readTexture<float>(outputTexture(*pass, 0)), 0, 0, {1.0 / kWidth - 1, 1.0 / kHeight - 1, -1, 1}, 1e-6));
}

TEST_F(CameraSpaceZBuffer, TheTargetIsOfThePositionFormatAndOfTheViewportsSize)
{
    pass->setInput(kViewport, QRect(4, 6, kWidth, kHeight));
    const GlCalls calls;
    positions(QMatrix4x4());
    EXPECT_EQ(calls.count("glViewport", {0, 0, kWidth, kHeight}), 1);
    const TextureState state = stateOf(outputTexture(*pass, 0));
    EXPECT_EQ(state.internalFormat, unsigned(GL_RGBA32F));
    EXPECT_EQ(state.width, kWidth);
    EXPECT_EQ(state.height, kHeight);
}

TEST_F(CameraSpaceZBuffer, EveryTexelIsWrittenWithoutAClear)
{
    positions(QMatrix4x4());
    const GlCalls calls;
    positions(QMatrix4x4());
    EXPECT_EQ(calls.count("glClear"), 0);
    EXPECT_EQ(calls.draws(), 1);
}

TEST_F(CameraSpaceZBuffer, AnOutputWithoutUsersGoesBackToThePoolAtOnce)
{
    TextureManager &pool = TextureManager::Instance();
    positions(QMatrix4x4());
    Texture *texture = outputTexture(*pass, 0);
    EXPECT_EQ(pool.tempTextureRefs(texture), 0);
    EXPECT_EQ(pool.tempTexture(TextureFormat::Position, kWidth, kHeight), texture) << "which may give it again";
    pool.releaseTempTextureRef(texture, 1);
}

TEST_F(CameraSpaceZBuffer, EveryUserOfTheOutputHasAReferenceAndTheInputLosesOne)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *input = pool.tempTexture(TextureFormat::Scalar32, kWidth, kHeight);
    pool.addTempTextureRef(input, 1);
    pass->setInput(kDepth, textureToVariant(input));
    pass->setNumOutputUsers(0, 2);
    runFrame(*pass);
    EXPECT_EQ(pool.tempTextureRefs(input), 1);
    EXPECT_EQ(pool.tempTextureRefs(outputTexture(*pass, 0)), 2);
    pool.releaseTempTextureRef(outputTexture(*pass, 0), 2);
    pool.releaseTempTextureRef(input, 1);
}

TEST_F(CameraSpaceZBuffer, NothingStaysAttachedBetweenFrames)
{
    runFrame(*pass);
    const GlCalls calls;
    runFrame(*pass);
    EXPECT_GT(calls.indexOf("glFramebufferTexture", {GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 0, 0}),
              calls.indexOf("glDrawArrays"));
}

TEST_F(CameraSpaceZBuffer, ANewSizeTakesAnotherTextureOfThePool)
{
    positions(QMatrix4x4());
    pass->setInput(kViewport, QRect(0, 0, 11, 7));
    EXPECT_EQ(positions(QMatrix4x4()).width, 11);
    EXPECT_EQ(stateOf(outputTexture(*pass, 0)).height, 7);
}

TEST_F(CameraSpaceZBuffer, ChangesOnlyTheStateThatItSays)
{
    positions(QMatrix4x4());
    glEnable(GL_STENCIL_TEST);
    glDepthMask(GL_TRUE);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, stencil test, depth mask"));
    GLboolean mask = GL_TRUE;
    glGetBooleanv(GL_DEPTH_WRITEMASK, &mask);
    EXPECT_FALSE(mask);
    EXPECT_FALSE(glIsEnabled(GL_STENCIL_TEST));
}

TEST_F(CameraSpaceZBuffer, SteadyFrameCreatesNothing)
{
    pass->setInput(kProjection, QMatrix4x4());
    expectSteadyFrameCreatesNothing(*pass);
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*pass);
}

TEST_F(CameraSpaceZBuffer, EmptyViewportsRaiseNoError)
{
    expectEmptyViewportsRaiseNoError(*pass);
}
