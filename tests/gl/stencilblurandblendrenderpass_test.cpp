#include "support/blurreference.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"

#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>
#include <renderpasses/stencilblurandblendrenderpass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kNormalFrame, kBlurRadius, kBlurFrame };

// Two half floats in a row, of values up to 2; llvmpipe cuts what does not fit.
constexpr double kHalfFloats = 2.5e-3;

// A disc of noise on transparent ground that has a colour of its own.
Image<float> maskedNoise(int width, int height)
{
    Image<float> image = noiseImage(width, height, 5);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int dx = x - width / 2;
            const int dy = y - height / 2;
            if (dx * dx + dy * dy > 40)
                image.at(x, y) = {0.75f, 0.25f, 0.5f, 0.0f};
        }
    }
    return image;
}

Image<float> added(const Image<float> &frame, const Image<float> &layer, double radius)
{
    const Image<float> blurred = maskedStage(maskedStage(layer, radius, 1, 0), radius, 0, 1);
    Image<float> out = frame;
    for (qsizetype i = 0; i < out.pixels.size(); ++i)
        for (size_t c = 0; c < 4; ++c)
            out.pixels[i][c] = float(double(frame.pixels[i][c]) + double(blurred.pixels[i][c]));
    return out;
}

class MaskedBlur : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<StencilBlurAndBlendRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    void connect(Texture *frame, Texture *layer, float radius)
    {
        owned->setInput(kViewport, QRect(0, 0, 27, 21));
        owned->setInput(kNormalFrame, textureToVariant(frame));
        owned->setInput(kBlurFrame, textureToVariant(layer));
        owned->setInput(kBlurRadius, radius);
        glViewport(0, 0, 27, 21);
    }
    Image<float> result() { return readTexture<float>(outputTexture(*owned, 0)); }

    const Image<float> frameImage = noiseImage(27, 21, 1);
    const Image<float> layerImage = maskedNoise(27, 21);
    std::unique_ptr<StencilBlurAndBlendRenderPass> owned;
};

} // namespace

TEST_F(MaskedBlur, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(StencilBlurAndBlendRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_NormalFrame"},
                 {"Kvo_float_BlurRadius"},
                 {"Kvo_KvoTexture*_BlurFrame"}},
                {"Kvo_KvoTexture*_Output"});
}

TEST_F(MaskedBlur, BlursWhereTheMaskCoversAndAddsTheResult)
{
    const auto frame = makeTexture(frameImage);
    const auto layer = makeTexture(layerImage);
    for (const float radius : {0.7f, 1.0f, 2.0f, 4.0f}) {
        connect(frame.get(), layer.get(), radius);
        runFrame(*owned);
        EXPECT_TRUE(sameImage(result(), added(frameImage, layerImage, double(radius)), within(kHalfFloats))) << radius;
    }
}

TEST_F(MaskedBlur, UncoveredTexelsAreAddedUnblurred)
{
    const auto frame = makeSolidTexture(27, 21, {0.125f, 0.125f, 0.125f, 0.5f});
    const auto layer = makeTexture(layerImage);
    connect(frame.get(), layer.get(), 3.0f);
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0.875, 0.375, 0.625, 0.5}, 1e-3));
    EXPECT_TRUE(isPixel(result(), 26, 20, {0.875, 0.375, 0.625, 0.5}, 1e-3));
}

TEST_F(MaskedBlur, ACoveredTexelAtTheEdgeTakesTheColourOutsideIntoItsSum)
{
    // Black inside, uncovered white outside: the edge brightens.
    Image<float> layerPixels(27, 21, {1, 1, 1, 0});
    for (int y = 0; y < 21; ++y)
        for (int x = 10; x < 27; ++x)
            layerPixels.at(x, y) = {0, 0, 0, 1};
    const auto frame = makeSolidTexture(27, 21, {0, 0, 0, 0});
    const auto layer = makeTexture(layerPixels);
    connect(frame.get(), layer.get(), 2.0f);
    runFrame(*owned);
    const std::vector<double> taps = gaussianTaps(2.0);
    const double edge = taps[1] + taps[2] + taps[3] + taps[4];
    EXPECT_TRUE(isPixel(result(), 10, 10, {edge, edge, edge, 1 - edge}, kHalfFloats));
    EXPECT_TRUE(isPixel(result(), 9, 10, {1, 1, 1, 0}, 0)) << "uncovered texels are exempt";
}

TEST_F(MaskedBlur, RadiiUpToAHalfAreAPlainAddition)
{
    const auto frame = makeTexture(frameImage);
    const auto layer = makeTexture(layerImage);
    connect(frame.get(), layer.get(), 0.5f);
    runFrame(*owned);
    Image<float> sum = frameImage;
    for (qsizetype i = 0; i < sum.pixels.size(); ++i)
        for (size_t c = 0; c < 4; ++c)
            sum.pixels[i][c] += layerImage.pixels[i][c];
    EXPECT_TRUE(sameImage(result(), sum, within(kHalfFloats)));
}

TEST_F(MaskedBlur, NoRadiusReturnsTheFrameUntouched)
{
    const auto frame = makeTexture(frameImage);
    const auto layer = makeTexture(layerImage);
    for (const QVariant &radius : {QVariant(0.0f), QVariant(-2.0f), QVariant(), QVariant(QStringLiteral("wide"))}) {
        connect(frame.get(), layer.get(), 0.0f);
        owned->setInput(kBlurRadius, radius);
        GlCalls calls;
        runFrame(*owned);
        EXPECT_EQ(textureFromVariant(owned->output(0)), frame.get());
        EXPECT_TRUE(calls.all().empty());
    }
}

TEST_F(MaskedBlur, MissingTexturesAreTransparentBlack)
{
    const auto frame = makeTexture(frameImage);
    connect(frame.get(), nullptr, 2.0f);
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), frameImage, within(1e-3)));
    connect(nullptr, nullptr, 2.0f);
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), Image<float>(27, 21), within(0)));
}

TEST_F(MaskedBlur, PoolReferencesBalanceOnEveryPath)
{
    TextureManager &pool = TextureManager::Instance();
    for (const float radius : {0.0f, 2.0f}) {
        for (const bool connected : {false, true}) {
            Texture *frame = connected ? pool.tempTexture(TextureFormat::Frame, 27, 21) : nullptr;
            Texture *layer = connected ? pool.tempTexture(TextureFormat::Frame, 27, 21) : nullptr;
            connect(frame, layer, radius);
            owned->setNumOutputUsers(0, 1);
            runFrame(*owned);
            if (Texture *output = textureFromVariant(owned->output(0))) {
                EXPECT_EQ(pool.tempTextureRefs(output), 1);
                pool.releaseTempTextureRef(output, 1);
            }
            EXPECT_TRUE(pool.leakedReferences().isEmpty()) << qPrintable(pool.leakedReferences().join(u'\n'));
        }
    }
}

TEST_F(MaskedBlur, ChangesOnlyTheStateThatItSays)
{
    const auto frame = makeTexture(frameImage);
    const auto layer = makeTexture(layerImage);
    connect(frame.get(), layer.get(), 2.0f);
    runFrame(*owned);
    glEnable(GL_DEPTH_TEST);
    glDepthMask(GL_TRUE);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("depth test, depth mask"));
    EXPECT_EQ(stateOf(layer.get()).minFilter, unsigned(GL_LINEAR));
    EXPECT_EQ(stateOf(frame.get()).minFilter, unsigned(GL_NEAREST)) << "the frame is only fetched";
}

TEST_F(MaskedBlur, ProgramsOfEarlierRadiiAreGivenUpToTheContext)
{
    const auto frame = makeTexture(frameImage);
    const auto layer = makeTexture(layerImage);
    const auto device = OpenGLDeviceContext::current();
    connect(frame.get(), layer.get(), 2.0f);
    runFrame(*owned);
    const int before = device->givenUpCount();
    owned->setInput(kBlurRadius, 7.0f);
    runFrame(*owned);
    EXPECT_EQ(device->givenUpCount(), before + 2);
}

TEST_F(MaskedBlur, SteadyFrameCreatesNothing)
{
    const auto frame = makeTexture(frameImage);
    const auto layer = makeTexture(layerImage);
    connect(frame.get(), layer.get(), 2.0f);
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(MaskedBlur, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    const auto frame = makeTexture(frameImage);
    const auto layer = makeTexture(layerImage);
    connect(frame.get(), layer.get(), 2.0f);
    owned->setInput(kViewport, QRect());
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_NE(textureFromVariant(owned->output(0)), nullptr);
}
