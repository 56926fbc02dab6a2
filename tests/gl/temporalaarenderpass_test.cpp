#include "support/blurreference.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"

#include <gl/texturemanager.h>
#include <renderpasses/temporalaarenderpass.h>

#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kFrame, kProjection, kCamera, kDirty, kScale, kScaleEnable };

// The mean is kept in half floats, which lose up to 2^-11 in every frame that is blended in.
constexpr double kHalfFloat = 6e-4;

class TemporalMean : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<TemporalAARenderPass>();
        owned->setInput(kViewport, QRect(0, 0, 16, 12));
        owned->setInput(kDirty, false);
        projection.perspective(45, 1, 0.1f, 10);
        owned->setInput(kProjection, projection);
        owned->setInput(kCamera, camera);
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    Image<float> shown(std::array<float, 4> color)
    {
        const auto texture = makeSolidTexture(16, 12, color);
        owned->setInput(kFrame, textureToVariant(texture.get()));
        runFrame(*owned);
        owned->setInput(kFrame, QVariant());
        return readTexture<float>(outputTexture(*owned, 0));
    }
    void expectColor(const Image<float> &image, double value, double tolerance)
    {
        const auto v = float(value);
        EXPECT_TRUE(sameImage(image, Image<float>(image.width, image.height, {v, v, v, v}), within(tolerance)));
    }

    QMatrix4x4 projection;
    QMatrix4x4 camera;
    std::unique_ptr<TemporalAARenderPass> owned;
};

} // namespace

TEST_F(TemporalMean, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(TemporalAARenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_Frame"},
                 {"Kvo_QMatrix4x4_ProjectionMatrix"},
                 {"Kvo_QMatrix4x4_CameraMatrix"},
                 {"Kvo_bool_Dirty", true},
                 {"Kvo_Float_ViewportScale", 1.0f},
                 {"Kvo_Bool_ViewportScale_Enable", true}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(TemporalMean, TheOutputIsTheMeanOfAllFramesButTheRestartFrame)
{
    expectColor(shown({1, 1, 1, 1}), 1.0, 0);
    const std::vector<double> values{0.25, 0.75, 0.5, 0.125, 1.0, 0.0, 0.625, 0.3125};
    double sum = 0;
    for (size_t i = 0; i < values.size(); ++i) {
        sum += values[i];
        const auto v = float(values[i]);
        expectColor(shown({v, v, v, v}), sum / double(i + 1), kHalfFloat * double(i + 1));
    }
}

TEST_F(TemporalMean, TheMeanOfAWholeImageIsRightPixelByPixel)
{
    Image<float> mean(16, 12);
    for (unsigned i = 0; i <= 5; ++i) {
        const Image<float> frame = noiseImage(16, 12, i);
        const auto texture = makeTexture(frame);
        owned->setInput(kFrame, textureToVariant(texture.get()));
        runFrame(*owned);
        owned->setInput(kFrame, QVariant());
        for (qsizetype p = 0; p < mean.pixels.size() && i > 0; ++p)
            for (size_t c = 0; c < 4; ++c)
                mean.pixels[p][c] += frame.pixels[p][c] / 5.0f;
    }
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(*owned, 0)), mean, within(5 * kHalfFloat)));
}

TEST_F(TemporalMean, BlendsWithTheShareOfTheFramesSoFar)
{
    shown({1, 1, 1, 1});
    for (int n = 0; n < 5; ++n) {
        GlCalls calls;
        shown({0, 0, 0, 0});
        ASSERT_EQ(calls.count("glBlendColor"), 1);
        EXPECT_FLOAT_EQ(float(calls.calls("glBlendColor")[0].args[0]), float(n) / float(n + 1));
        EXPECT_EQ(calls.count("glBlendFunc", {GL_ONE_MINUS_CONSTANT_COLOR, GL_CONSTANT_COLOR}), 1);
        EXPECT_EQ(calls.count("glBlendEquation", {GL_FUNC_ADD}), 1);
    }
}

TEST_F(TemporalMean, AnyChangeOfAMatrixElementOrTheSizeRestartsTheMean)
{
    shown({0, 0, 0, 0});
    shown({0, 0, 0, 0});
    shown({0, 0, 0, 0});
    camera(2, 3) += 1e-6f;
    owned->setInput(kCamera, camera);
    expectColor(shown({1, 1, 1, 1}), 1.0, 0);
    shown({0, 0, 0, 0});
    shown({0, 0, 0, 0});
    projection(0, 0) *= 1.000001f;
    owned->setInput(kProjection, projection);
    expectColor(shown({1, 1, 1, 1}), 1.0, 0);
    shown({0, 0, 0, 0});
    shown({0, 0, 0, 0});
    owned->setInput(kViewport, QRect(0, 0, 17, 12));
    expectColor(shown({1, 1, 1, 1}), 1.0, 0);
}

TEST_F(TemporalMean, WhileDirtyTheFramePassesThroughAndNoGLObjectIsMade)
{
    TemporalAARenderPass fresh;
    fresh.setInput(kViewport, QRect(0, 0, 16, 12));
    const auto texture = makeSolidTexture(16, 12, {1, 0, 0, 1});
    fresh.setInput(kFrame, textureToVariant(texture.get()));
    GlCalls calls;
    for (int i = 0; i < 3; ++i)
        runFrame(fresh);
    EXPECT_TRUE(calls.all().empty());
    EXPECT_EQ(outputTexture(fresh, 0), texture.get());
}

TEST_F(TemporalMean, ADirtyFrameStartsTheCountAgainButKeepsTheMatrices)
{
    shown({1, 1, 1, 1});
    shown({1, 1, 1, 1});
    shown({1, 1, 1, 1});
    owned->setInput(kDirty, true);
    shown({0.5f, 0.5f, 0.5f, 0.5f});
    owned->setInput(kDirty, false);
    GlCalls calls;
    expectColor(shown({0, 0, 0, 0}), 0.0, 0);
    EXPECT_FLOAT_EQ(float(calls.calls("glBlendColor").at(0).args[0]), 0.0f) << "no restart, but a count of 0";
}

TEST_F(TemporalMean, TheScaleDividesTheSizeOnlyWhileItIsEnabled)
{
    owned->setInput(kScale, 2.0f);
    EXPECT_EQ(shown({1, 1, 1, 1}).width, 8);
    owned->setInput(kScaleEnable, false);
    EXPECT_EQ(shown({1, 1, 1, 1}).width, 16);
    owned->setInput(kScaleEnable, true);
    owned->setInput(kScale, 3.0f);
    EXPECT_EQ(shown({1, 1, 1, 1}).width, 5) << "truncated";
}

TEST_F(TemporalMean, AScaleThatIsNoPositiveNumberCountsAsOne)
{
    for (const QVariant &scale : {QVariant(0.0f), QVariant(-2.0f), QVariant(QStringLiteral("x"))}) {
        owned->setInput(kScale, scale);
        EXPECT_EQ(shown({1, 1, 1, 1}).width, 16);
    }
}

TEST_F(TemporalMean, WithoutAFrameTheMeanIsClearedAndHandedOn)
{
    shown({1, 1, 1, 1});
    runFrame(*owned);
    expectColor(readTexture<float>(outputTexture(*owned, 0)), 0.0, 0);
}

TEST_F(TemporalMean, PoolReferencesBalanceOverFramesResizesAndTheEnd)
{
    TextureManager &pool = TextureManager::Instance();
    owned->setNumOutputUsers(0, 1);
    for (int i = 0; i < 20; ++i) {
        owned->setInput(kViewport, QRect(0, 0, 16 + i / 5, 12));
        owned->setInput(kDirty, i % 7 == 6);
        Texture *frame = pool.tempTexture(TextureFormat::Frame, 16, 12);
        owned->setInput(kFrame, textureToVariant(frame));
        runFrame(*owned);
        pool.releaseTempTextureRef(outputTexture(*owned, 0), 1);
        EXPECT_EQ(pool.tempTextureRefs(frame), 0);
        EXPECT_LE(pool.leakedReferences().size(), 1) << "the mean itself";
    }
    owned.reset();
    EXPECT_TRUE(pool.leakedReferences().isEmpty()) << qPrintable(pool.leakedReferences().join(u'\n'));
}

TEST_F(TemporalMean, TheMeanOutlivesFramesWhateverThePoolHandsOut)
{
    TextureManager &pool = TextureManager::Instance();
    shown({1, 1, 1, 1});
    Texture *mean = outputTexture(*owned, 0);
    Texture *other = pool.tempTexture(TextureFormat::Result, 16, 12);
    EXPECT_NE(other, mean);
    pool.releaseTempTextureRef(other, 1);
    shown({1, 1, 1, 1});
    EXPECT_EQ(outputTexture(*owned, 0), mean);
}

TEST_F(TemporalMean, LeavesDepthMaskOpenAndBlendingOff)
{
    shown({1, 1, 1, 1});
    glEnable(GL_DEPTH_TEST);
    glDepthMask(GL_FALSE);
    shown({1, 1, 1, 1});
    GLboolean mask = GL_FALSE;
    glGetBooleanv(GL_DEPTH_WRITEMASK, &mask);
    EXPECT_TRUE(mask);
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    EXPECT_FALSE(glIsEnabled(GL_DEPTH_TEST));
    GLint viewport[4];
    glGetIntegerv(GL_VIEWPORT, viewport);
    EXPECT_EQ(viewport[2], 16);
    glBlendFunc(GL_ONE, GL_ZERO);
}

TEST_F(TemporalMean, SteadyFrameCreatesNothing)
{
    const auto texture = makeSolidTexture(16, 12, {1, 0, 0, 1});
    owned->setInput(kFrame, textureToVariant(texture.get()));
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(TemporalMean, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    const auto texture = makeSolidTexture(16, 12, {1, 0, 0, 1});
    owned->setInput(kViewport, QRect());
    owned->setInput(kFrame, textureToVariant(texture.get()));
    GlCalls calls;
    runFrame(*owned);
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_NE(textureFromVariant(owned->output(0)), nullptr);
}
