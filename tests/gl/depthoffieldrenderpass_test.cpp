#include "support/blurreference.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"
#include "support/shaderedit.h"

#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>
#include <renderpasses/depthoffieldrenderpass.h>

#include <QPointer>
#include <QRect>
#include <QVector2D>

#include <epoxy/gl.h>

#include <cmath>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kFrame, kDepth, kFocalDepth, kFocalLength, kFStop, kAutoFocus, kFocus };

constexpr double kNear = 0.1;
constexpr double kFar = 100.0;

// Sums of 19 taps in float, at coordinates that are rounded to about 1e-6 of a texel; llvmpipe's sine
// and cosine are good to a few times 1e-6.
constexpr double kFloatSums = 2e-4;

struct Lens
{
    double focalDepth = 5;
    double focalLength = 50;
    double fstop = 2.8;
    bool autofocus = false;
    double focusX = 0.5;
    double focusY = 0.5;

    bool manualdof = false;
    bool vignetting = false;
    bool depthblur = false;
    bool pentagon = false;
    bool showFocus = false;
    bool patternNoise = false;
    double namount = 0;
};

using Rgb = std::array<double, 3>;

double linearized(double depth)
{
    return -kFar * kNear / (depth * (kFar - kNear) - kFar);
}

double depthFor(double distance)
{
    return (kFar - kFar * kNear / distance) / (kFar - kNear);
}

double clamp01(double x)
{
    return std::min(1.0, std::max(0.0, x));
}

double smoothstep(double a, double b, double x)
{
    const double t = clamp01((x - a) / (b - a));
    return t * t * (3 - 2 * t);
}

double mix(double a, double b, double t)
{
    return a + (b - a) * t;
}

/// Bilinear with clamped wrap, as the frame is read; nearest for depth.
class Sampled
{
public:
    Sampled(const Image<float> &image, bool linear) : _image(image), _linear(linear) {}
    Rgb at(double u, double v) const
    {
        Rgb out{};
        if (!_linear) {
            const auto texel =
                clampedTexel(_image, int(std::floor(u * _image.width)), int(std::floor(v * _image.height)));
            return {double(texel[0]), double(texel[1]), double(texel[2])};
        }
        const double x = u * _image.width - 0.5;
        const double y = v * _image.height - 0.5;
        const int x0 = int(std::floor(x));
        const int y0 = int(std::floor(y));
        for (int j = 0; j < 2; ++j) {
            for (int i = 0; i < 2; ++i) {
                const double weight = (i ? x - x0 : 1 - (x - x0)) * (j ? y - y0 : 1 - (y - y0));
                const auto texel = clampedTexel(_image, x0 + i, y0 + j);
                for (size_t c = 0; c < 3; ++c)
                    out[c] += weight * double(texel[c]);
            }
        }
        return out;
    }

private:
    const Image<float> &_image;
    bool _linear;
};

double penta(double x, double y)
{
    const double scale = 3 - 1.3;
    const double feather = 0.4;
    const double sides[5][2] = {{1.0, 0.0},
                                {0.309016994, 0.951056516},
                                {-0.809016994, 0.587785252},
                                {-0.809016994, -0.587785252},
                                {0.309016994, -0.951056516}};
    double inside = -4;
    for (const auto &side : sides)
        inside += smoothstep(-feather, feather, x * side[0] + y * side[1] + scale);
    return clamp01(inside);
}

double blurFactor(const Lens &lens, double depth, double focus)
{
    if (lens.manualdof) {
        const double a = depth - focus;
        return clamp01(a > 0 ? (a - 1.0) / 3.0 : (-a - 1.0) / 2.0);
    }
    const double f = lens.focalLength;
    const double d = focus * 1000;
    const double o = depth * 1000;
    const double a = o * f / (o - f);
    const double b = d * f / (d - f);
    const double c = (d - f) / (d * lens.fstop * 0.03);
    return clamp01(std::abs(a - b) * c);
}

Image<float> refocused(const Image<float> &frame, const Image<float> &depths, const Lens &lens)
{
    const Sampled color(frame, true);
    const Sampled depthMap(depths, false);
    const double width = frame.width;
    const double height = frame.height;
    const double pi = 3.14159265;
    Image<float> out(frame.width, frame.height);
    for (int py = 0; py < frame.height; ++py) {
        for (int px = 0; px < frame.width; ++px) {
            const double u = (px + 0.5) / width;
            const double v = (py + 0.5) / height;
            double raw = depthMap.at(u, v)[0];
            if (lens.depthblur) {
                const double w = 1.25 / width;
                const double h = 1.25 / height;
                // The third offset is one number in both directions.
                const double taps[9][3] = {{-w, -h, 1}, {0, -h, 2}, {w - h, w - h, 1}, {-w, 0, 2}, {0, 0, 4},
                                           {w, 0, 2},   {-w, h, 1}, {0, h, 2},         {w, h, 1}};
                raw = 0;
                for (const auto &tap : taps)
                    raw += depthMap.at(u + tap[0], v + tap[1])[0] * tap[2] / 16;
            }
            const double depth = linearized(raw);
            const double focus =
                lens.autofocus ? linearized(depthMap.at(lens.focusX, lens.focusY)[0]) : lens.focalDepth;
            const double blur = blurFactor(lens, depth, focus);
            const auto fractOf = [](double x) { return x - std::floor(x); };
            const double na = fractOf(1 - u * (width / 2));
            const double nb = fractOf(v * (height / 2));
            const double noiseX = lens.patternNoise ? (na * 0.25 + nb * 0.75) * 2 - 1 : 0;
            const double noiseY = lens.patternNoise ? (na * 0.75 + nb * 0.25) * 2 - 1 : 0;
            const double w = blur / width + noiseX * lens.namount * blur;
            const double h = blur / height + noiseY * lens.namount * blur;
            Rgb col = color.at(u, v);
            if (blur >= 0.05) {
                double s = 1;
                for (int i = 1; i <= 3; ++i) {
                    for (int j = 0; j < 3 * i; ++j) {
                        const double step = pi * 2 / (3 * i);
                        const double pw = std::cos(j * step) * i;
                        const double ph = std::sin(j * step) * i;
                        const double weight = mix(1, i / 3.0, 0.5) * (lens.pentagon ? penta(pw, ph) : 1);
                        const double x = u + pw * w;
                        const double y = v + ph * h;
                        const double fx = 0.7 * blur / width;
                        const double fy = 0.7 * blur / height;
                        const Rgb tap{color.at(x, y + fy)[0], color.at(x - 0.866 * fx, y - 0.5 * fy)[1],
                                      color.at(x + 0.866 * fx, y - 0.5 * fy)[2]};
                        const double lum = 0.299 * tap[0] + 0.587 * tap[1] + 0.114 * tap[2];
                        const double gain = std::max((lum - 0.5) * 2, 0.0) * blur;
                        for (size_t c = 0; c < 3; ++c)
                            col[c] += (tap[c] + tap[c] * gain) * weight;
                        s += weight;
                    }
                }
                for (double &c : col)
                    c /= s;
            }
            if (lens.showFocus) {
                const double edge = 0.002 * depth;
                const double m = clamp01(smoothstep(0, edge, blur));
                const double e = clamp01(smoothstep(1 - edge, 1, blur));
                const Rgb near{1, 0.5, 0};
                const Rgb far{0, 0.5, 1};
                for (size_t c = 0; c < 3; ++c) {
                    col[c] = mix(col[c], near[c], (1 - m) * 0.6);
                    col[c] = mix(col[c], far[c], ((1 - e) - (1 - m)) * 0.2);
                }
            }
            if (lens.vignetting) {
                const double dist = std::hypot(u - 0.5, v - 0.5);
                const double fade = lens.fstop / 22;
                for (double &c : col)
                    c *= clamp01(smoothstep(1.3 + fade, 0.0 + fade, dist));
            }
            out.at(px, py) = {float(col[0]), float(col[1]), float(col[2]), 0};
        }
    }
    return out;
}

// Distances from 1 to 12 metres from left to right.
Image<float> depthRamp(int width, int height)
{
    Image<float> image(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.at(x, y)[0] = float(depthFor(1.0 + 11.0 * (x + 0.25 * y) / (width + 0.25 * height)));
    return image;
}

const QPair<QByteArray, QByteArray> kNoNoise{"float namount = 0.0001;", "float namount = 0.0;"};

class DepthOfField : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<DepthOfFieldRenderPass>();
        frame = makeTexture(frameImage);
        depth = makeTexture(depthImage);
    }
    void TearDown() override
    {
        owned.reset();
        frame.reset();
        depth.reset();
        GLTest::TearDown();
    }
    Image<float> rendered(const Lens &lens)
    {
        owned->setInput(kViewport, QRect(0, 0, frameImage.width, frameImage.height));
        owned->setInput(kFrame, textureToVariant(frame.get()));
        owned->setInput(kDepth, textureToVariant(depth.get()));
        owned->setInput(kFocalDepth, float(lens.focalDepth));
        owned->setInput(kFocalLength, float(lens.focalLength));
        owned->setInput(kFStop, float(lens.fstop));
        owned->setInput(kAutoFocus, lens.autofocus);
        owned->setInput(kFocus, QVector2D(float(lens.focusX), float(lens.focusY)));
        runFrame(*owned);
        return result();
    }
    // Alpha is not written.
    Image<float> result()
    {
        Image<float> image = readTexture<float>(outputTexture(*owned, 0));
        for (auto &pixel : image.pixels)
            pixel[3] = 0;
        return image;
    }

    const Image<float> frameImage = noiseImage(48, 32);
    const Image<float> depthImage = depthRamp(48, 32);
    std::unique_ptr<Texture> frame;
    std::unique_ptr<Texture> depth;
    std::unique_ptr<DepthOfFieldRenderPass> owned;
};

} // namespace

TEST_F(DepthOfField, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(DepthOfFieldRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_Frame"},
                 {"Kvo_KvoTexture*_Depth"},
                 {"Kvo_float_FocalDepth"},
                 {"Kvo_float_FocalLength"},
                 {"Kvo_float_FStop"},
                 {"Kvo_bool_AutoFocus"},
                 {"Kvo_QVector2D_Focus"}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(DepthOfField, TheGatherFollowsTheLensOverTheWholeImage)
{
    const ShaderEdit edit({kNoNoise});
    for (const Lens &lens : {Lens{}, Lens{.focalDepth = 2, .focalLength = 85, .fstop = 8},
                             Lens{.focalDepth = 11, .focalLength = 35, .fstop = 1.4}}) {
        EXPECT_TRUE(sameImage(rendered(lens), refocused(frameImage, depthImage, lens), within(kFloatSums)));
    }
}

TEST_F(DepthOfField, AnotherLensIsToldApart)
{
    const ShaderEdit edit({kNoNoise});
    EXPECT_FALSE(
        isSameImage(rendered(Lens{}), refocused(frameImage, depthImage, Lens{.fstop = 3.2}), within(kFloatSums)));
}

TEST_F(DepthOfField, TheDitherMovesTapsByLittle)
{
    // A tap moves by at most 3 * 0.0001 of the image, 0.015 texels, and texels differ by at most 1; a
    // bright tap counts up to twice.
    EXPECT_TRUE(sameImage(rendered(Lens{}), refocused(frameImage, depthImage, Lens{}), within(0.03)));
}

TEST_F(DepthOfField, AtTheFocalPlaneTheImageIsSharp)
{
    const auto plane = makeSolidTexture(48, 32, {float(depthFor(5.0)), 0, 0, 0});
    std::swap(depth, const_cast<std::unique_ptr<Texture> &>(plane));
    Image<float> expected = frameImage;
    for (auto &pixel : expected.pixels)
        pixel[3] = 0;
    // Linear filtering at texel centres, whose coordinates are rounded.
    EXPECT_TRUE(sameImage(rendered(Lens{.focalDepth = 5}), expected, within(2e-5)));
}

TEST_F(DepthOfField, AutofocusTakesTheDistanceAtThePointAndIgnoresTheInput)
{
    const ShaderEdit edit({kNoNoise});
    for (const auto &[x, y] : {std::pair{0.1, 0.2}, std::pair{0.9, 0.8}}) {
        const Lens lens{.focalDepth = 77, .autofocus = true, .focusX = x, .focusY = y};
        EXPECT_TRUE(sameImage(rendered(lens), refocused(frameImage, depthImage, lens), within(kFloatSums)));
    }
}

TEST_F(DepthOfField, CloserThanTheFocalLengthTheBlurIsClampedAtOne)
{
    // Nothing is nearer than the near plane at 100 mm, so the focal length has to be longer.
    const ShaderEdit edit({kNoNoise});
    const auto near = makeSolidTexture(48, 32, {float(depthFor(0.2)), 0, 0, 0});
    std::swap(depth, const_cast<std::unique_ptr<Texture> &>(near));
    const Lens lens{.focalDepth = 5, .focalLength = 300, .fstop = 2.8};
    ASSERT_EQ(blurFactor(lens, 0.2, 5), 1.0);
    EXPECT_TRUE(sameImage(rendered(lens),
                          refocused(frameImage, Image<float>(48, 32, {float(depthFor(0.2)), 0, 0, 0}), lens),
                          within(kFloatSums)));
}

TEST_F(DepthOfField, AnFStopOfZeroIsDecidedByTheClamp)
{
    const ShaderEdit edit({kNoNoise});
    const auto far = makeSolidTexture(48, 32, {float(depthFor(9.0)), 0, 0, 0});
    std::swap(depth, const_cast<std::unique_ptr<Texture> &>(far));
    Lens widest{.focalDepth = 5, .fstop = 1e-9};
    EXPECT_TRUE(sameImage(rendered(Lens{.focalDepth = 5, .fstop = 0}),
                          refocused(frameImage, Image<float>(48, 32, {float(depthFor(9.0)), 0, 0, 0}), widest),
                          within(kFloatSums)))
        << "an infinite blur is a blur of 1";
}

TEST_F(DepthOfField, EveryBranchThatIsSwitchedOffWorksWhenTurnedOn)
{
    struct Row
    {
        const char *from;
        const char *to;
        void (*set)(Lens &);
        double tolerance = kFloatSums;
    };
    // The blur is a difference of image distances of about 50 mm, good to 3e-6, times about 12; the
    // overlay fades over 0.002 of it per metre.
    constexpr double kOverlay = 3e-6 * 12 / 0.01 * 0.6;
    const std::vector<Row> rows{
        {"bool manualdof = false;", "bool manualdof = true;", [](Lens &l) { l.manualdof = true; }},
        {"bool vignetting = false;", "bool vignetting = true;", [](Lens &l) { l.vignetting = true; }},
        {"bool depthblur = false;", "bool depthblur = true;", [](Lens &l) { l.depthblur = true; }},
        {"bool pentagon = false;", "bool pentagon = true;", [](Lens &l) { l.pentagon = true; }},
        {"uniform bool showFocus = false;", "uniform bool showFocus = true;", [](Lens &l) { l.showFocus = true; },
         kOverlay},
    };
    for (const Row &row : rows) {
        owned = std::make_unique<DepthOfFieldRenderPass>();
        const ShaderEdit edit({kNoNoise, {row.from, row.to}});
        Lens lens;
        row.set(lens);
        const Image<float> image = rendered(lens);
        EXPECT_TRUE(sameImage(image, refocused(frameImage, depthImage, lens), within(row.tolerance))) << row.to;
        EXPECT_FALSE(isSameImage(image, refocused(frameImage, depthImage, Lens{}), within(row.tolerance))) << row.to;
    }
}

TEST_F(DepthOfField, ThePatternDithersWhereTheNoiseIsSwitchedOff)
{
    const ShaderEdit edit(
        {{"bool noise = true;", "bool noise = false;"}, {"float namount = 0.0001;", "float namount = 0.01;"}});
    const Lens lens{.patternNoise = true, .namount = 0.01};
    EXPECT_TRUE(sameImage(rendered(lens), refocused(frameImage, depthImage, lens), within(2e-3)))
        << "fract of coordinates near whole numbers is coarse";
}

TEST_F(DepthOfField, WithoutAFrameTheOutputIsInvalid)
{
    rendered(Lens{});
    owned->setInput(kFrame, QVariant());
    GlCalls calls;
    runFrame(*owned);
    EXPECT_FALSE(owned->output(0).isValid());
    EXPECT_TRUE(calls.all().empty());
}

TEST_F(DepthOfField, WithoutDepthEverythingLiesAtTheFarPlane)
{
    const ShaderEdit edit({kNoNoise});
    rendered(Lens{});
    owned->setInput(kDepth, QVariant());
    runFrame(*owned);
    EXPECT_TRUE(
        sameImage(result(), refocused(frameImage, Image<float>(48, 32, {1, 0, 0, 0}), Lens{}), within(kFloatSums)));
}

TEST_F(DepthOfField, FiltersOfTheFrameArePutBack)
{
    rendered(Lens{});
    EXPECT_EQ(stateOf(frame.get()).minFilter, unsigned(GL_NEAREST));
    EXPECT_EQ(stateOf(frame.get()).magFilter, unsigned(GL_NEAREST));
}

TEST_F(DepthOfField, ThePoolIsNotUsed)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *pooled = pool.tempTexture(TextureFormat::Frame, 48, 32);
    rendered(Lens{});
    const auto before = pool.statistics();
    owned->setInput(kFrame, textureToVariant(pooled));
    runFrame(*owned);
    EXPECT_EQ(pool.tempTextureRefs(pooled), 1) << "no reference of an input is given back";
    EXPECT_EQ(pool.tempTextureRefs(outputTexture(*owned, 0)), -1);
    EXPECT_EQ(pool.statistics().hits, before.hits);
    pool.releaseTempTextureRef(pooled, 1);
}

TEST_F(DepthOfField, TheTargetIsRgba32fWithNearestFiltersAndKeptBetweenFrames)
{
    rendered(Lens{});
    const QPointer<Texture> target = outputTexture(*owned, 0);
    EXPECT_TRUE(isTarget(target, GL_RGBA32F, 48, 32));
    rendered(Lens{.fstop = 4});
    EXPECT_EQ(outputTexture(*owned, 0), target);
    owned->setInput(kViewport, QRect(0, 0, 16, 16));
    runFrame(*owned);
    EXPECT_TRUE(target.isNull());
}

TEST_F(DepthOfField, ChangesOnlyTheStateThatItSays)
{
    rendered(Lens{});
    glEnable(GL_DEPTH_TEST);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    runFrame(*owned);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, depth test"));
}

TEST_F(DepthOfField, SteadyFrameCreatesNothing)
{
    rendered(Lens{});
    expectSteadyFrameCreatesNothing(*owned);
}

TEST_F(DepthOfField, AViewportThatChangesEveryFrameLeaksNothing)
{
    rendered(Lens{});
    expectResizingLeaksNothing(*owned, 1);
}

TEST_F(DepthOfField, AnEmptyViewportDrawsNothingAndWritesTheOutput)
{
    owned->setInput(kFrame, textureToVariant(frame.get()));
    owned->setInput(kDepth, textureToVariant(depth.get()));
    GlCalls calls;
    runFrame(*owned);
    EXPECT_EQ(calls.draws(), 0);
    EXPECT_NE(outputTexture(*owned, 0), nullptr);
}
