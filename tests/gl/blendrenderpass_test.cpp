#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/texturemanager.h>
#include <renderpasses/blendrenderpass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kFrameA, kFrameB, kBlendMode, kBrightness };

using Color = std::array<double, 4>;

// Results are half floats, and llvmpipe cuts what does not fit: 2^-10 for values from 1 to 2, and
// 2^-9 above.
constexpr double kHalfFloat = 2.1e-3;

double dodge(double s, double sa, double d, double da)
{
    const double apart = s * (1 - da) + d * (1 - sa);
    if (s == sa)
        return d == 0 ? s * (1 - da) : sa * da + apart;
    return sa * da * std::min(1.0, d / da * sa / (sa - s)) + apart;
}

double burn(double s, double sa, double d, double da)
{
    const double apart = s * (1 - da) + d * (1 - sa);
    if (s == 0)
        return d == da ? sa * da + d * (1 - sa) : d * (1 - sa);
    return sa * da * (1 - std::min(1.0, (1 - d / da) * sa / s)) + apart;
}

double hardLight(double s, double sa, double d, double da)
{
    if (2 * s <= sa)
        return 2 * s * d + s * (1 - da) + d * (1 - sa);
    return s * (1 + da) + d * (1 + sa) - sa * da - 2 * s * d;
}

double softLight(double s, double sa, double d, double da)
{
    const double m = d / da;
    if (2 * s <= sa)
        return d * (sa + (2 * s - sa) * (1 - m)) + s * (1 - da) + d * (1 - sa);
    const double curve = 4 * d <= da ? 16 * m * m * m - 12 * m * m - 3 * m : std::sqrt(m) - m;
    return da * (2 * s - sa) * curve + s - s * da + d;
}

double channel(int mode, double s, double sa, double d, double da)
{
    const double apart = s * (1 - da) + d * (1 - sa);
    switch (mode) {
    case 1: return s;
    case 2: return d;
    case 3: return s + d * (1 - sa);
    case 4: return d + s * (1 - da);
    case 5: return s * da;
    case 6: return d * sa;
    case 7: return s * (1 - da);
    case 8: return d * (1 - sa);
    case 9: return s * da + d * (1 - sa);
    case 10: return d * sa + s * (1 - da);
    case 11: return apart;
    case 12: return s + d;
    case 13: return s * d + apart;
    case 14: return s + d - s * d;
    case 15: return 2 * d <= 1 ? 2 * s * d + apart : s * (1 + da) + d * (1 + sa) - 2 * s * d - da * sa;
    case 16: return std::min(s * da, d * sa) + apart;
    case 17: return std::max(s * da, d * sa) + apart;
    case 18: return dodge(s, sa, d, da);
    case 19: return burn(s, sa, d, da);
    case 20: return hardLight(s, sa, d, da);
    case 21: return softLight(s, sa, d, da);
    case 22: return s * da + d * sa - 2 * s * d + apart;
    case 23: return s + d - 2 * std::min(s * da, d * sa);
    case 24: return apart + (0.5 - 0.5 * (d - s)) * sa * da;
    case 25: return s * d;
    default: return 0;
    }
}

double alpha(int mode, double sa, double da)
{
    switch (mode) {
    case 0: return 0;
    case 1:
    case 10: return sa;
    case 2:
    case 9: return da;
    case 5:
    case 6:
    case 25: return sa * da;
    case 7: return sa * (1 - da);
    case 8: return da * (1 - sa);
    case 11: return sa + da - 2 * sa * da;
    case 12: return sa + da;
    default: return mode < 0 || mode > 25 ? 0 : sa + da - sa * da;
    }
}

Color blended(int mode, const Color &s, const Color &d)
{
    Color out{};
    for (size_t c = 0; c < 3; ++c)
        out[c] = channel(mode, s[c], s[3], d[c], d[3]);
    out[3] = alpha(mode, s[3], d[3]);
    return out;
}

// Every pair of alphas and of colours relative to them; all values are exact in float.
struct Grid
{
    Image<float> a;
    Image<float> b;
};

Grid premultipliedGrid()
{
    const std::vector<float> alphas{0.0f, 1.0f / 1024.0f, 0.5f, 1.0f};
    const std::vector<float> shares{0.0f, 0.125f, 0.5f, 0.75f, 1.0f};
    Grid grid{Image<float>(20, 20), Image<float>(20, 20)};
    int i = 0;
    for (float sa : alphas) {
        for (float da : alphas) {
            for (size_t s = 0; s < shares.size(); ++s) {
                for (size_t d = 0; d < shares.size(); ++d, ++i) {
                    const auto share = [&](size_t k) { return shares[k % shares.size()]; };
                    grid.a.pixels[i] = {sa * share(s), sa * share(s + 1), sa * share(s + 3), sa};
                    grid.b.pixels[i] = {da * share(d), da * share(d + 2), da * share(d + 3), da};
                }
            }
        }
    }
    return grid;
}

class Blend : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<BlendRenderPass>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    Image<float> result() { return readTexture<float>(outputTexture(*owned, 0)); }

    std::unique_ptr<BlendRenderPass> owned;
};

} // namespace

TEST_F(Blend, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(BlendRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_FrameA"},
                 {"Kvo_KvoTexture*_FrameB"},
                 {"Int_BlendMode"},
                 {"brightness"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(Blend, EachOfThe26ModesFollowsItsFormulaOverAGridOfColoursAndAlphas)
{
    const Grid grid = premultipliedGrid();
    const auto a = makeTexture(grid.a);
    const auto b = makeTexture(grid.b);
    owned->setInput(kViewport, QRect(0, 0, 20, 20));
    for (const float brightness : {1.0f, 0.5f}) {
        for (int mode = 0; mode <= 25; ++mode) {
            owned->setInput(kFrameA, textureToVariant(a.get()));
            owned->setInput(kFrameB, textureToVariant(b.get()));
            owned->setInput(kBlendMode, mode);
            owned->setInput(kBrightness, brightness);
            runFrame(*owned);
            Image<float> actual = result();
            Image<float> expected(20, 20);
            const bool dividesByDestination = mode == BlendRenderPass::blendColorDodge
                                              || mode == BlendRenderPass::blendColorBurn
                                              || mode == BlendRenderPass::blendSoftLight;
            for (qsizetype i = 0; i < expected.pixels.size(); ++i) {
                Color s{};
                Color d{};
                for (size_t c = 0; c < 4; ++c) {
                    s[c] = double(grid.a.pixels[i][c]);
                    d[c] = double(grid.b.pixels[i][c]) * double(brightness);
                }
                // Undefined: the destination does not cover the pixel, and its alpha divides.
                if (dividesByDestination && d[3] == 0) {
                    actual.pixels[i] = {};
                    continue;
                }
                const Color e = blended(mode, s, d);
                for (size_t c = 0; c < 4; ++c)
                    expected.pixels[i][c] = float(e[c]);
            }
            EXPECT_TRUE(sameImage(actual, expected, within(kHalfFloat))) << "mode " << mode << ", " << brightness;
        }
    }
}

namespace {

class RenamedBlend : public BlendRenderPass
{
public:
    explicit RenamedBlend(int input) { _inputs[input].name = QStringLiteral("Kvo_int_Other"); }
};

} // namespace

TEST_F(Blend, ASlotThatADerivedClassHasRenamedCountsAsNotConnected)
{
    const auto a = makeSolidTexture(4, 4, {0.5f, 0.25f, 0.125f, 0.5f});
    const auto b = makeSolidTexture(4, 4, {0.125f, 0.5f, 0.25f, 0.25f});
    const Image<float> onlyB(4, 4, {0.0625f, 0.25f, 0.125f, 0.125f});
    const Image<float> onlyA(4, 4, {0.5f, 0.25f, 0.125f, 0.5f});
    const Image<float> dstOver(4, 4, {0.5f, 0.46875f, 0.234375f, 0.5625f});
    const Image<float> add(4, 4, {0.625f, 0.75f, 0.375f, 0.75f});
    for (const auto &[slot, expected] :
         {std::pair<int, const Image<float> &>(kFrameA, onlyB), std::pair<int, const Image<float> &>(kFrameB, onlyA),
          std::pair<int, const Image<float> &>(kBlendMode, dstOver),
          std::pair<int, const Image<float> &>(kBrightness, add)}) {
        RenamedBlend pass(slot);
        pass.setInput(kViewport, QRect(0, 0, 4, 4));
        pass.setInput(kFrameA, textureToVariant(a.get()));
        pass.setInput(kFrameB, textureToVariant(b.get()));
        pass.setInput(kBlendMode, int(BlendRenderPass::blendAdd));
        pass.setInput(kBrightness, 0.5f);
        runFrame(pass);
        EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(pass, 0)), expected, within(kHalfFloat))) << slot;
    }
    RenamedBlend pass(kViewport);
    pass.setInput(kFrameA, textureToVariant(a.get()));
    const GlCalls calls;
    runFrame(pass);
    EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
    EXPECT_FALSE(pass.output(0).isValid());
}

TEST_F(Blend, SoftLightChangesItsCurveBeyondAQuarterOfTheCoverage)
{
    // The curves do not meet there: 0.25 itself belongs to the lower one.
    const float quarters[] = {std::nextafter(0.25f, 0.0f), 0.25f, std::nextafter(0.25f, 1.0f)};
    Image<float> a(3, 2);
    Image<float> b(3, 2);
    Image<float> expected(3, 2);
    for (int x = 0; x < 3; ++x) {
        for (int y = 0; y < 2; ++y) {
            const float coverage = y == 0 ? 1.0f : 0.5f;
            const float d = quarters[x] * coverage;
            a.at(x, y) = {0.9f, 0.9f, 0.9f, 1};
            b.at(x, y) = {d, d, d, coverage};
            const Color e = blended(21, {double(0.9f), double(0.9f), double(0.9f), 1},
                                    {double(d), double(d), double(d), double(coverage)});
            for (size_t c = 0; c < 4; ++c)
                expected.at(x, y)[c] = float(e[c]);
        }
    }
    EXPECT_LT(expected.at(1, 0)[0], 0.0f);
    EXPECT_GT(expected.at(2, 0)[0], 0.4f);
    const auto frameA = makeTexture(a);
    const auto frameB = makeTexture(b);
    owned->setInput(kViewport, QRect(0, 0, 3, 2));
    owned->setInput(kFrameA, textureToVariant(frameA.get()));
    owned->setInput(kFrameB, textureToVariant(frameB.get()));
    owned->setInput(kBlendMode, 21);
    runFrame(*owned);
    EXPECT_TRUE(sameImage(result(), expected, within(kHalfFloat)));
}

TEST_F(Blend, ModesAreToldApart)
{
    const Grid grid = premultipliedGrid();
    const auto a = makeTexture(grid.a);
    const auto b = makeTexture(grid.b);
    owned->setInput(kViewport, QRect(0, 0, 20, 20));
    QList<Image<float>> images;
    for (int mode = 0; mode <= 25; ++mode) {
        owned->setInput(kFrameA, textureToVariant(a.get()));
        owned->setInput(kFrameB, textureToVariant(b.get()));
        owned->setInput(kBlendMode, mode);
        runFrame(*owned);
        images.append(result());
    }
    for (int i = 0; i < images.size(); ++i) {
        for (int k = 0; k < i; ++k)
            EXPECT_FALSE(isSameImage(images[i], images[k], within(kHalfFloat))) << i << " and " << k;
    }
}

TEST_F(Blend, OverlayComparesTheDestinationColourWithOneAndNotWithItsAlpha)
{
    // 2 D = 0.8 is above the alpha of 0.5 and below 1: the low branch.
    const auto a = makeSolidTexture(2, 2, {0.5f, 0.5f, 0.5f, 1.0f});
    const auto b = makeSolidTexture(2, 2, {0.4f, 0.4f, 0.4f, 0.5f});
    owned->setInput(kViewport, QRect(0, 0, 2, 2));
    owned->setInput(kFrameA, textureToVariant(a.get()));
    owned->setInput(kFrameB, textureToVariant(b.get()));
    owned->setInput(kBlendMode, int(BlendRenderPass::blendOverlay));
    runFrame(*owned);
    const double low = 2 * 0.5 * 0.4 + 0.5 * (1 - 0.5) + 0.4 * (1 - 1.0);
    EXPECT_TRUE(isPixel(result(), 0, 0, {low, low, low, 1.0}, kHalfFloat));
}

TEST_F(Blend, TheDefaultIsDestinationOver)
{
    const auto a = makeSolidTexture(2, 2, {1.0f, 0.0f, 0.0f, 1.0f});
    const auto b = makeSolidTexture(2, 2, {0.0f, 0.25f, 0.0f, 0.25f});
    owned->setInput(kViewport, QRect(0, 0, 2, 2));
    owned->setInput(kFrameA, textureToVariant(a.get()));
    owned->setInput(kFrameB, textureToVariant(b.get()));
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0.75, 0.25, 0.0, 1.0}, kHalfFloat));
}

TEST_F(Blend, AModeThatWasWiredStaysAfterItIsUnwired)
{
    const auto a = makeSolidTexture(2, 2, {1.0f, 0.0f, 0.0f, 1.0f});
    const auto b = makeSolidTexture(2, 2, {0.0f, 1.0f, 0.0f, 1.0f});
    owned = std::make_unique<BlendRenderPass>(BlendRenderPass::blendSrc);
    owned->setInput(kViewport, QRect(0, 0, 2, 2));
    owned->setInput(kFrameA, textureToVariant(a.get()));
    owned->setInput(kFrameB, textureToVariant(b.get()));
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {1, 0, 0, 1}, 0)) << "the constructor's mode";
    owned->setInput(kBlendMode, int(BlendRenderPass::blendDst));
    runFrame(*owned);
    owned->setInput(kBlendMode, QVariant());
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0, 1, 0, 1}, 0));
}

TEST_F(Blend, ModesOutOfRangeGiveTransparentBlackAndNoMessage)
{
    const auto a = makeSolidTexture(2, 2, {1.0f, 0.5f, 0.25f, 1.0f});
    const MessageCapture messages;
    owned->setInput(kViewport, QRect(0, 0, 2, 2));
    for (const int mode : {26, -1, 1000}) {
        owned->setInput(kFrameA, textureToVariant(a.get()));
        owned->setInput(kFrameB, textureToVariant(a.get()));
        owned->setInput(kBlendMode, mode);
        glClearColor(1, 1, 1, 1);
        runFrame(*owned);
        EXPECT_TRUE(isPixel(result(), 1, 1, {0, 0, 0, 0}, 0));
    }
    EXPECT_TRUE(messages.all().isEmpty());
}

TEST_F(Blend, BrightnessScalesAllFourChannelsOfFrameB)
{
    const auto a = makeSolidTexture(2, 2, {0.5f, 0.0f, 0.0f, 0.5f});
    const auto b = makeSolidTexture(2, 2, {0.0f, 1.0f, 0.0f, 1.0f});
    owned->setInput(kViewport, QRect(0, 0, 2, 2));
    owned->setInput(kFrameA, textureToVariant(a.get()));
    owned->setInput(kFrameB, textureToVariant(b.get()));
    owned->setInput(kBlendMode, int(BlendRenderPass::blendSrcOver));
    owned->setInput(kBrightness, 0.0f);
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0.5, 0, 0, 0.5}, 0)) << "frame B is transparent black";
    owned->setInput(kBlendMode, int(BlendRenderPass::blendDst));
    owned->setInput(kBrightness, 0.25f);
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0, 0.25, 0, 0.25}, 0));
    owned->setInput(kBrightness, QVariant());
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0, 1, 0, 1}, 0)) << "1 when not connected";
    owned->setInput(kBrightness, QStringLiteral("bright"));
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0, 0, 0, 0}, 0)) << "0 when it is no number";
}

TEST_F(Blend, MissingFramesActAsTransparentBlack)
{
    TextureManager &pool = TextureManager::Instance();
    const auto a = makeSolidTexture(2, 2, {1.0f, 0.5f, 0.25f, 1.0f});
    owned->setInput(kViewport, QRect(0, 0, 2, 2));
    owned->setInput(kBlendMode, int(BlendRenderPass::blendAdd));
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {0, 0, 0, 0}, 0));
    owned->setInput(kFrameB, textureToVariant(a.get()));
    runFrame(*owned);
    EXPECT_TRUE(isPixel(result(), 0, 0, {1, 0.5, 0.25, 1}, 0));
    Texture *fallback = pool.solidTexture(QColor(Qt::transparent));
    EXPECT_EQ(pool.tempTextureRefs(fallback), -1) << "releasing it twice is ignored";
}

TEST_F(Blend, TheOriginOfTheViewportShiftsTheDrawing)
{
    const auto a = makeSolidTexture(2, 2, {1.0f, 1.0f, 1.0f, 1.0f});
    owned->setInput(kViewport, QRect(3, 2, 8, 6));
    owned->setInput(kFrameA, textureToVariant(a.get()));
    owned->setInput(kBlendMode, int(BlendRenderPass::blendSrc));
    glClearColor(0, 0, 0.5f, 0.5f);
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.count("glViewport", {3, 2, 8, 6}), 1);
    const Image<float> image = result();
    ASSERT_EQ(image.width, 8);
    ASSERT_EQ(image.height, 6);
    for (int y = 0; y < 6; ++y) {
        for (int x = 0; x < 8; ++x) {
            const bool inside = x >= 3 && y >= 2;
            EXPECT_TRUE(isPixel(image, x, y, inside ? Color{1, 1, 1, 1} : Color{0, 0, 0.5, 0.5}, 0));
        }
    }
}

TEST_F(Blend, PoolReferencesBalance)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *a = pool.tempTexture(TextureFormat::Frame, 4, 4);
    Texture *b = pool.tempTexture(TextureFormat::Result, 4, 4);
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    owned->setInput(kFrameA, textureToVariant(a));
    owned->setInput(kFrameB, QVariant::fromValue(b));
    owned->setNumOutputUsers(0, 2);
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(a), 0);
    EXPECT_EQ(pool.tempTextureRefs(b), 0);
    EXPECT_EQ(pool.tempTextureRefs(outputTexture(*owned, 0)), 2);
    pool.releaseTempTextureRef(outputTexture(*owned, 0), 2);
}

TEST_F(Blend, ChangesOnlyTheStateThatItSays)
{
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    runFrame(*owned);
    glEnable(GL_DEPTH_TEST);
    glEnable(GL_BLEND);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, depth test, blending"));
}

TEST_F(Blend, SteadyFrameCreatesNothing)
{
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(Blend, ChangingTheModeCostsOneUniform)
{
    owned->setInput(kViewport, QRect(0, 0, 4, 4));
    owned->setInput(kBlendMode, 3);
    runFrame(*owned);
    owned->setInput(kBlendMode, 21);
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(calls.count("glCompileShader"), 0);
}

TEST_F(Blend, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_NE(outputTexture(*owned, 0), nullptr);
}
