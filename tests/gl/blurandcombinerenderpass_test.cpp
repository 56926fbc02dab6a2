#include "support/blurreference.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"

#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>
#include <renderpasses/blurandcombinerenderpass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kNormalFrame, kBlurRadius, kGlowThreshold, kGlowAmount, kBlurFrame };

// Up to three half floats in a row, of values up to 2; llvmpipe cuts what does not fit.
constexpr double kHalfFloats = 3e-3;

Image<float> bright(Image<float> image, double threshold)
{
    for (auto &p : image.pixels) {
        const double luma = 0.2125 * double(p[0]) + 0.7154 * double(p[1]) + 0.0721 * double(p[2]);
        if (luma < threshold)
            p = {};
    }
    return image;
}

Image<float> glow(const Image<float> &frame, const Image<float> &source, double radius, double amount)
{
    const Image<float> blurred = directBlur(source, radius);
    Image<float> out = frame;
    for (qsizetype i = 0; i < out.pixels.size(); ++i)
        for (size_t c = 0; c < 4; ++c)
            out.pixels[i][c] = float(double(frame.pixels[i][c]) + amount * amount * double(blurred.pixels[i][c]));
    return out;
}

class Glow : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<BlurAndCombineRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    void connect(Texture *frame, Texture *blurFrame, float radius, float threshold, float amount)
    {
        owned->setInput(kViewport, QRect(0, 0, 31, 19));
        owned->setInput(kNormalFrame, textureToVariant(frame));
        owned->setInput(kBlurFrame, textureToVariant(blurFrame));
        owned->setInput(kBlurRadius, radius);
        owned->setInput(kGlowThreshold, threshold);
        owned->setInput(kGlowAmount, amount);
        glViewport(0, 0, 31, 19);
    }
    Image<float> result() { return readTexture<float>(outputTexture(*owned, 0)); }

    const Image<float> frameImage = noiseImage(31, 19, 1);
    const Image<float> glowImage = noiseImage(31, 19, 2);
    std::unique_ptr<BlurAndCombineRenderPass> owned;
};

} // namespace

TEST_F(Glow, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(BlurAndCombineRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_NormalFrame"},
                 {"Kvo_float_BlurRadius"},
                 {"Kvo_float_GlowThreshold"},
                 {"Kvo_float_GlowAmount"},
                 {"Kvo_KvoTexture*_BlurFrame"}},
                {"Kvo_KvoTexture*_Output"});
}

TEST_F(Glow, WithoutBrightPassTheWholeFrameGlows)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    for (const float threshold : {0.0f, -1.0f}) {
        connect(frame.get(), source.get(), 3.0f, threshold, 1.0f);
        runFrame(*owned);
        EXPECT_TRUE(sameImage(result(), glow(frameImage, glowImage, 3.0, 1.0), within(kHalfFloats)));
    }
}

TEST_F(Glow, TheBrightPassKeepsWholeColoursAtOrAboveTheThreshold)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    connect(frame.get(), source.get(), 2.5f, 0.6f, 1.0f);
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), glow(frameImage, bright(glowImage, 0.6), 2.5, 1.0), within(kHalfFloats)));
    EXPECT_FALSE(isSameImage(result(), glow(frameImage, glowImage, 2.5, 1.0), within(kHalfFloats)));
}

TEST_F(Glow, ATinyThresholdDropsOnlyBlack)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    connect(frame.get(), source.get(), 2.0f, 1e-6f, 1.0f);
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 3) << "the bright pass runs";
    EXPECT_TRUE(sameImage(result(), glow(frameImage, bright(glowImage, 1e-6), 2.0, 1.0), within(kHalfFloats)));
}

TEST_F(Glow, TheGlowScalesWithTheSquareOfItsAmount)
{
    const auto frame = makeSolidTexture(31, 19, {0, 0, 0, 0});
    const auto source = makeSolidTexture(31, 19, {1.0f, 0.5f, 0.25f, 1.0f});
    connect(frame.get(), source.get(), 2.0f, 0.0f, 0.5f);
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), Image<float>(31, 19, {0.25f, 0.125f, 0.0625f, 0.25f}), within(1e-3)));
}

TEST_F(Glow, AnyPositiveRadiusRunsTheChain)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    for (const float radius : {0.1f, 0.5f, 1.0f}) {
        connect(frame.get(), source.get(), radius, 0.0f, 1.0f);
        runFrame(*owned);
        EXPECT_TRUE(sameImage(result(), glow(frameImage, glowImage, double(radius), 1.0), within(kHalfFloats)));
    }
}

TEST_F(Glow, NoRadiusOrNoAmountReturnsTheFrameUntouched)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    for (const auto &[radius, amount] : {std::pair{0.0f, 5.0f}, std::pair{4.0f, 0.0f}, std::pair{-1.0f, 1.0f}}) {
        connect(frame.get(), source.get(), radius, 0.5f, amount);
        GlCalls calls;
        runFrame(*owned);
        EXPECT_EQ(textureFromVariant(owned->output(0)), frame.get());
        EXPECT_TRUE(calls.all().empty());
    }
    connect(nullptr, source.get(), 0.0f, 0.5f, 1.0f);
    runFrame(*owned);
    EXPECT_EQ(textureFromVariant(owned->output(0)), nullptr) << "also a frame that is null";
}

TEST_F(Glow, MissingTexturesAreTransparentBlack)
{
    const auto frame = makeTexture(frameImage);
    connect(frame.get(), nullptr, 2.0f, 0.0f, 1.0f);
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), frameImage, within(1e-3)));
    const auto source = makeSolidTexture(5, 5, {1.0f, 0.5f, 0.25f, 1.0f});
    connect(nullptr, source.get(), 2.0f, 0.0f, 1.0f);
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), Image<float>(31, 19, {1.0f, 0.5f, 0.25f, 1.0f}), within(1e-3)))
        << "whatever the size of the source";
}

TEST_F(Glow, PoolReferencesBalanceOnEveryPath)
{
    TextureManager &pool = TextureManager::Instance();
    for (const float radius : {0.0f, 2.0f}) {
        for (const float threshold : {0.0f, 0.5f}) {
            for (const bool connected : {false, true}) {
                Texture *frame = connected ? pool.tempTexture(TextureFormat::Frame, 31, 19) : nullptr;
                Texture *source = connected ? pool.tempTexture(TextureFormat::Frame, 31, 19) : nullptr;
                connect(frame, source, radius, threshold, 1.0f);
                owned->setNumOutputUsers(0, 2);
                runFrame(*owned);
                if (Texture *output = textureFromVariant(owned->output(0))) {
                    EXPECT_EQ(pool.tempTextureRefs(output), 2);
                    pool.releaseTempTextureRef(output, 2);
                }
                EXPECT_TRUE(pool.leakedReferences().isEmpty()) << qPrintable(pool.leakedReferences().join(u'\n'));
            }
        }
    }
}

TEST_F(Glow, StagesRunInTheirOrderWithTheirUniforms)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    connect(frame.get(), source.get(), 2.0f, 0.5f, 1.0f);
    runFrame(*owned);
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 3);
    const auto steps = calls.calls("glUniform2fv");
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_FLOAT_EQ(float(steps[0].data[0]), 1.0f / 31.0f);
    EXPECT_EQ(steps[0].data[1], 0.0);
    EXPECT_EQ(steps[1].data[0], 0.0);
    EXPECT_FLOAT_EQ(float(steps[1].data[1]), 1.0f / 19.0f);
}

TEST_F(Glow, ChangesOnlyTheStateThatItSays)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    connect(frame.get(), source.get(), 2.0f, 0.5f, 1.0f);
    runFrame(*owned);
    glEnable(GL_DEPTH_TEST);
    glDepthMask(GL_TRUE);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("depth test, depth mask"));
    EXPECT_EQ(stateOf(frame.get()).minFilter, unsigned(GL_LINEAR));
    EXPECT_EQ(stateOf(source.get()).magFilter, unsigned(GL_LINEAR));
}

TEST_F(Glow, ProgramsOfEarlierRadiiAreGivenUpAndTheThresholdProgramStays)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    const auto device = OpenGLDeviceContext::current();
    connect(frame.get(), source.get(), 2.0f, 0.5f, 1.0f);
    runFrame(*owned);
    const int before = device->givenUpCount();
    owned->setInput(kBlurRadius, 7.0f);
    runFrame(*owned);
    EXPECT_EQ(device->givenUpCount(), before + 2);
}

TEST_F(Glow, SteadyFrameCreatesNothing)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    connect(frame.get(), source.get(), 2.0f, 0.5f, 1.0f);
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(Glow, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    const auto frame = makeTexture(frameImage);
    const auto source = makeTexture(glowImage);
    connect(frame.get(), source.get(), 2.0f, 0.5f, 1.0f);
    owned->setInput(kViewport, QRect());
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_NE(textureFromVariant(owned->output(0)), nullptr);
}
