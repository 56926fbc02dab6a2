#include "support/antialiasingscenes.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"

#include <gl/texturemanager.h>
#include <renderpasses/blendrenderpass.h>
#include <renderpasses/fastapproximateantialiasingrenderpass.h>

#include <QRect>
#include <QSize>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kFrame, kSubPixel, kRcpFrame, kThreshold, kThresholdMin };

struct Quality
{
    float subPixel = 0.75f;
    float rcpFrame = 1.0f;
    float threshold = 0.166f;
    float thresholdMin = 0.0f;
};

// The result is a half float of values up to 1, which llvmpipe cuts.
constexpr double kHalfFloat = 1e-3;
// The search has many ties: a fetch half way between two texels against a quarter of their difference,
// and the drawn image is little but such edges. Coordinates at a size that is no power of two are rounded
// otherwise by the rasteriser than here, and tip some; at a power of two no pixel may differ.
constexpr double kTipped = 0.02;

// FXAA 3.11, quality preset 12 on green, pixel by pixel in float, of a target of any size. Around the centre of a
// texel the image is read as it is, elsewhere between its texels.
std::array<float, 4> smoothed(const Image<float> &image, const QSize &target, int px, int py, const Quality &q)
{
    const float posX = (float(px) + 0.5f) / float(target.width());
    const float posY = (float(py) + 0.5f) / float(target.height());
    const auto colorAt = [&](int i, int j) -> std::array<float, 4> {
        if (target == QSize(image.width, image.height))
            return image.at(std::clamp(px + i, 0, image.width - 1), std::clamp(py + j, 0, image.height - 1));
        return filtered<4>(image, posX + float(i) / float(image.width), posY + float(j) / float(image.height));
    };
    const auto at = [&](int i, int j) { return colorAt(i, j)[1]; };
    const std::array<float, 4> centre = colorAt(0, 0);
    const auto withMatte = [&](std::array<float, 4> rgbl) {
        rgbl[3] = std::max(rgbl[3], centre[3]);
        return rgbl;
    };
    const float M = at(0, 0), N = at(0, -1), S = at(0, 1), W = at(-1, 0), E = at(1, 0);
    const float highest = std::max({M, N, S, W, E});
    const float range = highest - std::min({M, N, S, W, E});
    if (range < std::max(q.thresholdMin, highest * q.threshold) || range == 0.0f)
        return centre;
    const float NW = at(-1, -1), NE = at(1, -1), SW = at(-1, 1), SE = at(1, 1);
    const float edgeH =
        std::abs((-2 * W) + (NW + SW)) + ((std::abs((-2 * M) + (N + S)) * 2) + std::abs((-2 * E) + (NE + SE)));
    const float edgeV =
        std::abs((-2 * S) + (SW + SE)) + ((std::abs((-2 * M) + (W + E)) * 2) + std::abs((-2 * N) + (NW + NE)));
    const bool horizontal = edgeH >= edgeV;
    const float mean = ((((N + S) + (W + E)) * 2) + ((NW + SW) + (NE + SE))) * (1.0f / 12.0f);
    const float c = std::min(1.0f, std::max(0.0f, std::abs(mean - M) * (1 / range)));
    const float f = ((-2 * c) + 3) * (c * c);
    const float sub = (f * f) * q.subPixel;

    const float rx = q.rcpFrame / float(target.width());
    const float ry = 1.0f / float(target.height());
    const float first = horizontal ? N : W;
    const float second = horizontal ? S : E;
    float len = horizontal ? ry : rx;
    const float g1 = std::abs(first - M), g2 = std::abs(second - M);
    const bool useFirst = g1 >= g2;
    if (useFirst)
        len = -len;
    const float mid = ((useFirst ? first : second) + M) * 0.5f;
    const float limit = std::max(g1, g2) * 0.25f;
    const bool below = (M - mid) < 0;

    float bx = posX, by = posY;
    (horizontal ? by : bx) += len * 0.5f;
    const float ox = horizontal ? rx : 0, oy = horizontal ? 0 : ry;
    const float steps[] = {1.0f, 1.5f, 2.0f, 4.0f, 12.0f};
    float nx = bx - ox * steps[0], ny = by - oy * steps[0];
    float pX = bx + ox * steps[0], pY = by + oy * steps[0];
    float en = 0, ep = 0;
    bool doneN = false, doneP = false;
    for (int i = 1; i < 5; ++i) {
        if (!doneN)
            en = filtered<2>(image, nx, ny)[1] - mid;
        if (!doneP)
            ep = filtered<2>(image, pX, pY)[1] - mid;
        doneN = std::abs(en) >= limit;
        doneP = std::abs(ep) >= limit;
        if (!doneN) {
            nx -= ox * steps[i];
            ny -= oy * steps[i];
        }
        if (!doneP) {
            pX += ox * steps[i];
            pY += oy * steps[i];
        }
    }
    const float dn = horizontal ? posX - nx : posY - ny;
    const float dp = horizontal ? pX - posX : pY - posY;
    const bool nearN = dn < dp;
    const bool good = nearN ? ((en < 0) != below) : ((ep < 0) != below);
    const float span = dp + dn;
    const float shift = span == 0.0f ? 0.0f : (std::min(dn, dp) * (-(1 / span))) + 0.5f;
    const float amount = std::max(good ? shift : 0.0f, sub);
    std::array<float, 4> out =
        filtered<4>(image, horizontal ? posX : posX + amount * len, horizontal ? posY + amount * len : posY);
    out[3] = M;
    return withMatte(out);
}

Image<float> smoothed(const Image<float> &image, const Quality &q, const QSize &target)
{
    Image<float> out(target.width(), target.height());
    for (int y = 0; y < out.height; ++y)
        for (int x = 0; x < out.width; ++x)
            out.at(x, y) = smoothed(image, target, x, y, q);
    return out;
}

Image<float> smoothed(const Image<float> &image, const Quality &q)
{
    return smoothed(image, q, QSize(image.width, image.height));
}

class Fxaa : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<FastApproximateAntiAliasingRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    Image<float> drawn(const Image<float> &image, const Quality &q)
    {
        return drawn(image, q, QSize(image.width, image.height));
    }
    Image<float> drawn(const Image<float> &image, const Quality &q, const QSize &target)
    {
        const auto frame = makeTexture(image);
        owned->setInput(kViewport, QRect(QPoint(0, 0), target));
        owned->setInput(kFrame, textureToVariant(frame.get()));
        owned->setInput(kSubPixel, q.subPixel);
        owned->setInput(kRcpFrame, q.rcpFrame);
        owned->setInput(kThreshold, q.threshold);
        owned->setInput(kThresholdMin, q.thresholdMin);
        runFrame(*owned);
        owned->setInput(kFrame, QVariant());
        return readTexture<float>(outputTexture(*owned, 0));
    }

    std::unique_ptr<FastApproximateAntiAliasingRenderPass> owned;
};

} // namespace

TEST_F(Fxaa, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(FastApproximateAntiAliasingRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_Frame"},
                 {"Kvo_float_SubPixelQuality"},
                 {"Kvo_float_RcpFrameQuality"},
                 {"Kvo_float_EdgeThresholdQuality"},
                 {"Kvo_float_EdgeThresholdMinQuality"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(Fxaa, FollowsTheMethodOverWholeImages)
{
    for (const auto &[width, height] : {std::pair{128, 64}, std::pair{64, 128}, std::pair{97, 61}}) {
        const Image<float> image = edgeImage(width, height);
        const bool powersOfTwo = (width & (width - 1)) == 0;
        for (const Quality &q : {Quality{}, Quality{.subPixel = 0}, Quality{.subPixel = 1, .threshold = 0.063f},
                                 Quality{.threshold = 0.333f, .thresholdMin = 0.0833f}, Quality{.rcpFrame = 1.7f}}) {
            EXPECT_TRUE(sameImage(drawn(image, q), smoothed(image, q), {1.0, kHalfFloat, powersOfTwo ? 0.0 : kTipped}))
                << width << " " << q.subPixel << " " << q.threshold << " " << q.rcpFrame;
        }
    }
}

namespace {

// A frame of the size of the target, then smaller and larger ones, in one direction or both.
struct Sizes
{
    const char *name;
    QSize frame;
    QSize target;
};

class FxaaOfSizes : public Fxaa, public ::testing::WithParamInterface<Sizes>
{};

} // namespace

TEST_P(FxaaOfSizes, ReadsTheFrameBetweenItsTexels)
{
    const auto [name, frame, target] = GetParam();
    const Image<float> image = edgeImage(frame.width(), frame.height());
    for (const Quality &q : {Quality{}, Quality{.threshold = 0.063f, .thresholdMin = 0.0833f}}) {
        const Image<float> expected = smoothed(image, q, target);
        EXPECT_TRUE(sameImage(drawn(image, q, target), expected, {1.0, kHalfFloat, kTipped}));
        // What a pixel would be that reads the texel that it lies in: of another size that is another picture.
        Image<float> nearest(target.width(), target.height());
        for (int y = 0; y < nearest.height; ++y)
            for (int x = 0; x < nearest.width; ++x)
                nearest.at(x, y) = image.at(x * frame.width() / target.width(), y * frame.height() / target.height());
        EXPECT_EQ(isSameImage(smoothed(nearest, q), expected, {1.0, kHalfFloat, 5 * kTipped}), frame == target);
    }
}

INSTANTIATE_TEST_SUITE_P(Frames, FxaaOfSizes,
                         ::testing::Values(Sizes{"Equal", {64, 64}, {64, 64}},
                                           Sizes{"HalfAsLarge", {64, 32}, {128, 64}},
                                           Sizes{"TwiceAsLarge", {128, 128}, {64, 64}},
                                           Sizes{"Wider", {128, 64}, {64, 64}}, Sizes{"Higher", {64, 128}, {64, 64}},
                                           Sizes{"ALittleSmaller", {97, 61}, {100, 64}},
                                           Sizes{"ALittleLarger", {101, 63}, {100, 60}}),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(Fxaa, TellsItsSettingsApart)
{
    const Image<float> image = edgeImage(128, 64);
    EXPECT_FALSE(isSameImage(drawn(image, {}), smoothed(image, Quality{.subPixel = 0.5f}), {1.0, kHalfFloat, 0.002}));
    EXPECT_FALSE(isSameImage(drawn(image, {}), image, {1.0, kHalfFloat, kTipped})) << "something is smoothed";
}

TEST_F(Fxaa, AnOpaqueFrameIsSmoothedSinceGreenAndNotAlphaIsLuma)
{
    Image<float> image(16, 16, {0, 0, 0, 1});
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 16; ++x)
            if (3 * x > 4 * y)
                image.at(x, y) = {1, 1, 1, 1};
    EXPECT_FALSE(isSameImage(drawn(image, {}), image, within(0.1)));
    Image<float> withoutGreen = image;
    for (auto &pixel : withoutGreen.pixels)
        pixel[1] = 0.5f;
    EXPECT_TRUE(sameImage(drawn(withoutGreen, {}), withoutGreen, within(kHalfFloat))) << "an edge green does not see";
}

TEST_F(Fxaa, UnwiredQualitiesReachTheShaderAsTheirFallbacks)
{
    const auto frame = makeTexture(edgeImage(16, 16));
    owned->setInput(kViewport, QRect(0, 0, 16, 16));
    owned->setInput(kFrame, textureToVariant(frame.get()));
    runFrame(*owned);
    GlCalls calls;
    runFrame(*owned);
    std::vector<float> floats;
    for (const GlCall &call : calls.calls("glUniform1f"))
        floats.push_back(float(call.args[1]));
    EXPECT_EQ(floats, (std::vector<float>{0.75f, 1.0f, 0.166f, 0.0f}));
}

TEST_F(Fxaa, AValidZeroIsHonouredAndCollapsesTheHorizontalStep)
{
    const Image<float> image = edgeImage(64, 64);
    EXPECT_TRUE(sameImage(drawn(image, Quality{.rcpFrame = 0}), smoothed(image, Quality{.rcpFrame = 0}),
                          {1.0, kHalfFloat, 0.0}));
    for (const auto &pixel : readTexture<float>(outputTexture(*owned, 0)).pixels)
        for (float channel : pixel)
            ASSERT_FALSE(std::isnan(channel));
}

TEST_F(Fxaa, AFlatNeighbourhoodStaysWithBothThresholdsAtZero)
{
    const Quality open{.threshold = 0, .thresholdMin = 0};
    const Image<float> flat(8, 8, {0.25f, 0.5f, 0.75f, 0.125f});
    EXPECT_TRUE(sameImage(drawn(flat, open), flat, within(0)));
    const Image<float> image = edgeImage(64, 64);
    EXPECT_TRUE(sameImage(drawn(image, open), smoothed(image, open), {1.0, kHalfFloat, 0.0}));
}

TEST_F(Fxaa, AlphaIsNeverThinned)
{
    const Image<float> image = edgeImage(64, 64);
    const Image<float> out = drawn(image, {});
    for (qsizetype i = 0; i < out.pixels.size(); ++i)
        EXPECT_GE(out.pixels[i][3], image.pixels[i][3] - float(kHalfFloat));
}

TEST_F(Fxaa, FiltersOfTheFrameArePutBack)
{
    const auto frame = makeTexture(edgeImage(16, 16));
    frame->bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    frame->unbind();
    owned->setInput(kViewport, QRect(0, 0, 16, 16));
    owned->setInput(kFrame, textureToVariant(frame.get()));
    runFrame(*owned);
    EXPECT_EQ(stateOf(frame.get()).magFilter, unsigned(GL_NEAREST));
    EXPECT_EQ(stateOf(frame.get()).minFilter, unsigned(GL_LINEAR));
}

TEST_F(Fxaa, WithoutAFrameTheOutputIsInvalid)
{
    owned->setInput(kViewport, QRect(0, 0, 16, 16));
    GlCalls calls;
    runFrame(*owned);
    EXPECT_FALSE(owned->output(0).isValid());
    EXPECT_TRUE(calls.all().empty());
}

TEST_F(Fxaa, PoolReferencesBalance)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *frame = pool.tempTexture(TextureFormat::Frame, 16, 16);
    owned->setInput(kViewport, QRect(0, 0, 16, 16));
    owned->setInput(kFrame, textureToVariant(frame));
    owned->setNumOutputUsers(0, 2);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(frame), 0);
    EXPECT_EQ(pool.tempTextureRefs(outputTexture(*owned, 0)), 2);
    pool.releaseTempTextureRef(outputTexture(*owned, 0), 2);
}

// The texture of an output without users is free at once; it is a frame of the pool, and the target here is a result.
TEST_F(Fxaa, ReadsAnOutputWithoutUsersOfAPassBefore)
{
    const auto image = makeTexture(edgeImage(16, 16));
    BlendRenderPass blend;
    blend.setInput(0, QRect(0, 0, 16, 16));
    blend.setInput(2, textureToVariant(image.get()));
    owned->setInput(kViewport, QRect(0, 0, 16, 16));
    const auto smoothedBlend = [&](int users) {
        blend.setInput(1, textureToVariant(image.get()));
        blend.setNumOutputUsers(0, users);
        runFrame(blend);
        Texture *blended = outputTexture(blend, 0);
        EXPECT_EQ(TextureManager::Instance().tempTextureRefs(blended), users);
        owned->setInput(kFrame, textureToVariant(blended));
        runFrame(*owned);
        EXPECT_NE(outputTexture(*owned, 0), blended);
        return readTexture<float>(outputTexture(*owned, 0));
    };
    const Image<float> counted = smoothedBlend(1);
    EXPECT_TRUE(sameImage(smoothedBlend(0), counted, {.worst = 0, .tolerance = 0, .share = 0}));
}

TEST_F(Fxaa, ChangesOnlyTheStateThatItSays)
{
    drawn(edgeImage(16, 16), {});
    const auto frame = makeTexture(edgeImage(16, 16));
    owned->setInput(kFrame, textureToVariant(frame.get()));
    glEnable(GL_DEPTH_TEST);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, depth test"));
}

TEST_F(Fxaa, SteadyFrameCreatesNothing)
{
    const auto frame = makeTexture(edgeImage(16, 16));
    owned->setInput(kViewport, QRect(0, 0, 16, 16));
    owned->setInput(kFrame, textureToVariant(frame.get()));
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(Fxaa, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    const auto frame = makeTexture(edgeImage(16, 16));
    owned->setInput(kFrame, textureToVariant(frame.get()));
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_NE(outputTexture(*owned, 0), nullptr);
}
