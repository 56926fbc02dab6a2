#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/passes.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/luminanceaveragerenderpass.h>

#include <QByteArray>
#include <QPointer>
#include <QRect>
#include <QSize>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kTexture };
enum Output { kFrame, kLuminance };

using Vector4 = std::array<double, 4>;

// Two sums in float of a few thousand values between 0 and 4.
constexpr double kFloatSums = 2e-5;

// Brighter above and to the right, so that it shows which part of the image counts.
Image<float> gradedNoise(int width, int height)
{
    std::mt19937 generator(11);
    std::uniform_real_distribution<float> unit(0, 1);
    Image<float> image(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float slope = float(y) / float(height) + float(x) / float(2 * width);
            image.at(x, y) = {unit(generator) + slope, 2 * unit(generator) * slope, unit(generator), unit(generator)};
        }
    return image;
}

/// One step: averages of blocks of an image of a size, texel by texel from \a at, for a target of a size; the shader
/// knows renderWidth and renderHeight.
template <typename At>
Image<double> reduced(const QSize &image, const At &at, const QSize &target, double renderWidth, double renderHeight)
{
    const double stepX = image.width() / renderWidth;
    const double stepY = image.height() / renderHeight;
    Image<double> out(target.width(), target.height());
    for (int y = 0; y < out.height; ++y) {
        for (int x = 0; x < out.width; ++x) {
            const int baseX = int(x * stepX);
            const int baseY = int(y * stepY);
            Vector4 sum{};
            for (int j = 0; j < stepY; ++j)
                for (int i = 0; i < stepX; ++i)
                    if (baseX + i < image.width() && baseY + j < image.height()) { // out of bounds fetches give 0
                        const Vector4 texel = at(baseX + i, baseY + j);
                        for (size_t c = 0; c < 4; ++c)
                            sum[c] += texel[c];
                    }
            for (size_t c = 0; c < 4; ++c)
                out.at(x, y)[c] = sum[c] / (stepX * stepY);
        }
    }
    return out;
}

template <typename At>
Vector4 average(const QSize &image, const At &at, const QSize &viewport)
{
    const QSize eighth(std::max(1, viewport.width() / 8), std::max(1, viewport.height() / 8));
    const Image<double> blocks = reduced(image, at, eighth, eighth.width(), eighth.width());
    const auto block = [&](int x, int y) { return blocks.at(x, y); };
    return reduced(eighth, block, QSize(1, 1), 1, 1).at(0, 0);
}

Vector4 average(const Image<float> &image, const QSize &viewport)
{
    const auto at = [&](int x, int y) {
        const auto &pixel = image.at(x, y);
        return Vector4{double(pixel[0]), double(pixel[1]), double(pixel[2]), double(pixel[3])};
    };
    return average(QSize(image.width, image.height), at, viewport);
}

double luminanceOf(const Vector4 &color)
{
    return 0.7152 * color[1] + 0.2126 * color[0] + 0.0722 * color[2];
}

Vector4 meanOf(const Image<float> &image)
{
    Vector4 sum{};
    for (const auto &pixel : image.pixels)
        for (size_t c = 0; c < 4; ++c)
            sum[c] += double(pixel[c]) / double(image.pixels.size());
    return sum;
}

class LuminanceAverage : public GLTest
{
protected:
    void TearDown() override
    {
        pass.reset();
        texture.reset();
        GLTest::TearDown();
    }
    void show(const Image<float> &image, const QRect &viewport)
    {
        texture = makeTexture(image);
        pass->setInput(kViewport, viewport);
        pass->setInput(kTexture, textureToVariant(texture.get()));
        runFrame(*pass);
    }
    void show(const Image<float> &image) { show(image, QRect(0, 0, image.width, image.height)); }
    float luminance() const
    {
        EXPECT_EQ(pass->output(kLuminance).metaType(), QMetaType::fromType<float>());
        return pass->output(kLuminance).toFloat();
    }
    Image<float>::Pixel color() { return readTexture<float>(outputTexture(*pass, kFrame)).at(0, 0); }
    void expectAverage(const Vector4 &expected)
    {
        const auto actual = color();
        for (size_t c = 0; c < 4; ++c)
            EXPECT_NEAR(double(actual[c]), expected[c], kFloatSums) << "channel " << c;
        EXPECT_NEAR(double(luminance()), luminanceOf(expected), kFloatSums);
    }

    std::unique_ptr<Texture> texture;
    std::unique_ptr<LuminanceAverageRenderPass> pass = std::make_unique<LuminanceAverageRenderPass>();
};

class LuminanceOfSizes : public LuminanceAverage, public ::testing::WithParamInterface<QSize>
{};

} // namespace

TEST_F(LuminanceAverage, SlotsHaveTheirNamesAndOrder)
{
    expectSlots(LuminanceAverageRenderPass(), {{"Kvo_QRect_Viewport"}, {"Kvo_KvoTexture*_Texture"}},
                {"Kvo_KvoTexture*_Frame", "Kvo_float_averageLuminance"});
}

TEST_F(LuminanceAverage, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<LuminanceAverageRenderPass>();
}

TEST_P(LuminanceOfSizes, TheAverageIsThatOfTheTwoReductions)
{
    const QSize size = GetParam();
    const Image<float> image = gradedNoise(size.width(), size.height());
    show(image);
    expectAverage(average(image, size));
}

INSTANTIATE_TEST_SUITE_P(Square, LuminanceOfSizes,
                         ::testing::Values(QSize(8, 8), QSize(15, 15), QSize(64, 64), QSize(129, 129)));
INSTANTIATE_TEST_SUITE_P(Landscape, LuminanceOfSizes,
                         ::testing::Values(QSize(64, 40), QSize(96, 54), QSize(200, 9), QSize(101, 75)));
INSTANTIATE_TEST_SUITE_P(Portrait, LuminanceOfSizes,
                         ::testing::Values(QSize(40, 64), QSize(54, 96), QSize(9, 200), QSize(75, 101)));

namespace {

// Beyond what one loop of a software renderer sums: 65535 rounds.
struct LargeImage
{
    const char *name;
    QSize image;
    QSize viewport;
    int draws; // one for each step, and one for columns where a step has blocks that are too large
};

class LuminanceOfLargeImages : public LuminanceAverage, public ::testing::WithParamInterface<LargeImage>
{};

} // namespace

TEST_P(LuminanceOfLargeImages, TheAverageIsThatOfTheTwoReductions)
{
    const LargeImage row = GetParam();
    const auto texel = [](int x, int y) {
        const auto u = unsigned(x), v = unsigned(y);
        return std::array<quint8, 4>{quint8(u * 7 + v * 13), quint8(v >> 4), quint8((u * v) >> 8), quint8(255)};
    };
    QVector<quint8> bytes;
    bytes.reserve(qsizetype(row.image.width()) * row.image.height() * 4);
    for (int y = 0; y < row.image.height(); ++y)
        for (int x = 0; x < row.image.width(); ++x)
            for (const quint8 byte : texel(x, y))
                bytes.append(byte);
    texture = makeTexture(GL_RGBA8, row.image.width(), row.image.height(), bytes.constData());
    pass->setInput(kViewport, QRect(QPoint(0, 0), row.viewport));
    pass->setInput(kTexture, textureToVariant(texture.get()));
    runFrame(*pass);
    const auto at = [&](int x, int y) {
        const auto value = texel(x, y);
        return Vector4{value[0] / 255.0, value[1] / 255.0, value[2] / 255.0, value[3] / 255.0};
    };
    const Vector4 expected = average(row.image, at, row.viewport);
    expectAverage(expected);
    const GlCalls calls;
    runFrame(*pass);
    expectAverage(expected);
    EXPECT_EQ(calls.draws(), row.draws);
    EXPECT_EQ(calls.created(), 0) << "a steady frame";
    EXPECT_EQ(calls.textureAllocations(), 0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, LuminanceOfLargeImages,
                         ::testing::Values(LargeImage{"AsManyAsOneLoopSums", {1920, 1080}, {1920, 1080}, 2},
                                           LargeImage{"Square", {2048, 2048}, {2048, 2048}, 3},
                                           LargeImage{"UltraHighDefinition", {3840, 2160}, {3840, 2160}, 3},
                                           LargeImage{"Portrait", {1500, 2900}, {1500, 2900}, 3},
                                           LargeImage{"OneBlock", {1279, 717}, {8, 8}, 3},
                                           LargeImage{"FewBlocks", {1279, 717}, {24, 16}, 3}),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(LuminanceAverage, AWhiteImageOfUltraHighDefinitionIsATenthTooBrightAsItsRowsAre)
{
    // Blocks of 8 by 4.5 texels sum five rows.
    texture = makeTexture(GL_RGBA8, 3840, 2160, QByteArray(4 * 3840 * 2160, char(-1)).constData());
    pass->setInput(kViewport, QRect(0, 0, 3840, 2160));
    pass->setInput(kTexture, textureToVariant(texture.get()));
    runFrame(*pass);
    EXPECT_NEAR(luminance(), 5 / 4.5, kFloatSums);
}

TEST_F(LuminanceAverage, ASquareImageHasItsMeanWhereBlocksAreWholeTexels)
{
    const Image<float> image = gradedNoise(64, 64);
    show(image);
    expectAverage(meanOf(image));
    // Blocks of 8.0625 texels sum 9 a side.
    show(Image<float>(129, 129, {1, 1, 1, 1}));
    EXPECT_NEAR(luminance(), std::pow(9 / 8.0625, 2), kFloatSums);
}

TEST_F(LuminanceAverage, AViewportOf8By8GivesTheMeanOfAnyImage)
{
    for (const QSize &size : {QSize(101, 75), QSize(75, 101), QSize(129, 129), QSize(640, 360)}) {
        const Image<float> image = gradedNoise(size.width(), size.height());
        show(image, QRect(0, 0, 8, 8));
        expectAverage(meanOf(image));
    }
}

TEST_F(LuminanceAverage, ASquareViewportOf8TimesACommonDivisorOfItsSidesGivesTheMeanOfAnImage)
{
    const Image<float> image = gradedNoise(96, 54);
    for (const int divisor : {1, 2, 3, 6}) {
        show(image, QRect(0, 0, 8 * divisor, 8 * divisor));
        expectAverage(meanOf(image));
    }
}

TEST_F(LuminanceAverage, AnImageTwiceAsWideAsHighCountsItsLowerRowsAlone)
{
    // Blocks of 8 by 4 texels in 8 rows: the upper half of the image is never read.
    Image<float> image(128, 64, {1, 1, 1, 1});
    for (int y = 32; y < 64; ++y)
        for (int x = 0; x < 128; ++x)
            image.at(x, y) = {50, 50, 50, 50};
    show(image);
    // The second step reads 16 by 8 texels and divides by them.
    EXPECT_NEAR(luminance(), 1, kFloatSums);
}

TEST_F(LuminanceAverage, AnImageLargerThanTheViewportIsReadAsAWhole)
{
    const Image<float> image = gradedNoise(128, 128);
    show(image, QRect(0, 0, 32, 32));
    expectAverage(meanOf(image));
}

TEST_F(LuminanceAverage, TheWeightsAreThoseOfTheThreeColours)
{
    for (const auto &[color, weight] :
         {std::pair(Image<float>::Pixel{1, 0, 0, 0}, 0.2126f), std::pair(Image<float>::Pixel{0, 1, 0, 0}, 0.7152f),
          std::pair(Image<float>::Pixel{0, 0, 1, 0}, 0.0722f), std::pair(Image<float>::Pixel{0, 0, 0, 1}, 0.0f)}) {
        show(Image<float>(16, 16, color));
        EXPECT_FLOAT_EQ(luminance(), weight);
    }
}

TEST_F(LuminanceAverage, TheNumberIsOfThisFrame)
{
    for (const float value : {1.0f, 0.25f, 3.0f}) {
        show(Image<float>(32, 32, {value, value, value, 1}));
        EXPECT_NEAR(luminance(), value, kFloatSums);
    }
}

TEST_F(LuminanceAverage, AMissingTextureIsBlack)
{
    show(Image<float>(32, 32, {1, 1, 1, 1}));
    pass->setInput(kTexture, QVariant());
    const GlCalls calls;
    runFrame(*pass);
    EXPECT_EQ(luminance(), 0);
    EXPECT_EQ(color()[3], 0);
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA, 1, 1, 0, GL_BGRA, GL_UNSIGNED_BYTE}), 1);
    runFrame(*pass);
    EXPECT_EQ(calls.textureAllocations(), 1) << "made once";
}

TEST_F(LuminanceAverage, UnderEightPixelsTheNumberIsThatOfOneBlock)
{
    for (const QSize &size : {QSize(1, 1), QSize(3, 3), QSize(5, 5), QSize(7, 7)}) {
        const Image<float> image = gradedNoise(size.width(), size.height());
        show(image);
        expectAverage(meanOf(image));
    }
    for (const QSize &size : {QSize(7, 20), QSize(20, 7), QSize(1, 300), QSize(300, 1)}) {
        const Image<float> image = gradedNoise(size.width(), size.height());
        show(image);
        EXPECT_TRUE(std::isfinite(luminance()));
        expectAverage(average(image, size));
    }
}

TEST_F(LuminanceAverage, EmptyViewportsRaiseNoErrorAndPublishANumber)
{
    for (const QRect &viewport : {QRect(), QRect(0, 0, 0, 5), QRect(0, 0, 5, 0), QRect(0, 0, -2, 3)}) {
        show(Image<float>(8, 8, {1, 1, 1, 1}), viewport);
        EXPECT_TRUE(std::isfinite(luminance()));
    }
}

TEST_F(LuminanceAverage, TheFirstValueIsClearedWhateverTheHostCutsOff)
{
    glEnable(GL_SCISSOR_TEST);
    glScissor(5, 6, 2, 2);
    glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE);
    // New memory is black with most drivers, cleared or not: what it is cleared under tells.
    static int clears, whole;
    static PFNGLCLEARBUFFERFVPROC real;
    clears = whole = 0;
    real = epoxy_glClearBufferfv;
    epoxy_glClearBufferfv = [](GLenum buffer, GLint drawBuffer, const GLfloat *value) {
        GLboolean mask[4] = {};
        glGetBooleanv(GL_COLOR_WRITEMASK, mask);
        ++clears;
        whole += !glIsEnabled(GL_SCISSOR_TEST) && mask[0] && mask[1] && mask[2] && mask[3];
        real(buffer, drawBuffer, value);
    };
    show(Image<float>(32, 32, {0.5f, 0.5f, 0.5f, 1}), QRect(4, 0, 32, 32));
    epoxy_glClearBufferfv = real;
    EXPECT_EQ(luminance(), 0) << "nothing was drawn yet";
    EXPECT_EQ(clears, 1);
    EXPECT_EQ(whole, 1);
    EXPECT_TRUE(glIsEnabled(GL_SCISSOR_TEST)) << "put back";
    resetGLState();
}

TEST_F(LuminanceAverage, AViewportBesideTheOriginKeepsTheValueOfBefore)
{
    show(Image<float>(32, 32, {0.5f, 0.5f, 0.5f, 1}), QRect(4, 0, 32, 32));
    EXPECT_EQ(luminance(), 0) << "nothing was drawn yet";
    show(Image<float>(32, 32, {0.5f, 0.5f, 0.5f, 1}));
    EXPECT_NEAR(luminance(), 0.5, kFloatSums);
    for (const QPoint &corner : {QPoint(1, 0), QPoint(0, 1), QPoint(9, 7)}) {
        const GlCalls calls;
        show(Image<float>(32, 32, {3, 3, 3, 1}), QRect(corner, QSize(32, 32)));
        EXPECT_NEAR(luminance(), 0.5, kFloatSums);
        EXPECT_EQ(calls.count("glViewport", {double(corner.x()), double(corner.y()), 32, 32}), 1);
        EXPECT_EQ(calls.count("glViewport", {double(corner.x()), double(corner.y()), 1, 1}), 1);
    }
}

TEST_F(LuminanceAverage, TargetsAreFloatsTheReducedOneWithMipLevels)
{
    const GlCalls calls;
    show(gradedNoise(70, 50));
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA32F, 8, 6, 0, GL_BGRA, GL_FLOAT, 0}), 1);
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA32F, 1, 1, 0, GL_BGRA, GL_FLOAT, 0}), 1);
    EXPECT_EQ(calls.count("glGenerateMipmap", {GL_TEXTURE_2D}), 2);
    EXPECT_EQ(calls.count("glTexParameteri", {GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST_MIPMAP_NEAREST}), 1);
    EXPECT_TRUE(isTarget(outputTexture(*pass, kFrame), GL_RGBA32F, 1, 1));
}

TEST_F(LuminanceAverage, AResizeWithinEightPixelsKeepsTheReducedTexture)
{
    show(gradedNoise(64, 48));
    const GlCalls calls;
    pass->setInput(kViewport, QRect(0, 0, 71, 55));
    runFrame(*pass);
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(calls.textureAllocations(), 0);
    pass->setInput(kViewport, QRect(0, 0, 72, 55));
    const int live = GlCalls::live();
    runFrame(*pass);
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA32F, 9, 6}), 1);
    EXPECT_EQ(calls.created(), 1);
    EXPECT_EQ(GlCalls::live(), live) << "the old one goes";
}

TEST_F(LuminanceAverage, TheShaderIsToldTheWidthTwiceAndThenOneByOne)
{
    show(gradedNoise(64, 40));
    const GlCalls calls;
    runFrame(*pass);
    const auto sizes = calls.calls("glUniform2fv");
    ASSERT_EQ(sizes.size(), 2u);
    EXPECT_EQ(sizes[0].data, (std::vector<double>{8, 8}));
    EXPECT_EQ(sizes[1].data, (std::vector<double>{1, 1}));
}

TEST_F(LuminanceAverage, TheReadBackIgnoresAPackBufferOfTheHost)
{
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, buffer);
    glBufferData(GL_PIXEL_PACK_BUFFER, 64, nullptr, GL_STREAM_READ);
    show(Image<float>(16, 16, {2, 2, 2, 1}));
    EXPECT_NEAR(luminance(), 2, kFloatSums);
    GLint bound = 0;
    glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &bound);
    EXPECT_EQ(GLuint(bound), buffer);
    glDeleteBuffers(1, &buffer);
}

TEST_F(LuminanceAverage, ATextureOfThePoolIsNotGivenBack)
{
    TextureManager &pool = TextureManager::Instance();
    Texture *input = pool.tempTexture(TextureFormat::Frame, 16, 16);
    pass->setInput(kViewport, QRect(0, 0, 16, 16));
    pass->setInput(kTexture, textureToVariant(input));
    runFrame(*pass);
    EXPECT_EQ(pool.tempTextureRefs(input), 1);
    pool.releaseTempTextureRef(input, 1);
}

TEST_F(LuminanceAverage, ChangesOnlyTheStateThatItSays)
{
    show(gradedNoise(16, 16));
    for (const GLenum capability : {GL_DEPTH_TEST, GL_STENCIL_TEST, GL_BLEND, GL_CULL_FACE})
        glEnable(capability);
    glColorMask(GL_FALSE, GL_TRUE, GL_FALSE, GL_TRUE);
    glViewport(1, 2, 3, 4);
    const GLStateSnapshot before;
    show(Image<float>(16, 16, {1, 1, 1, 1}));
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, depth test, stencil test, blending, face culling, colour mask"));
    for (const GLenum capability : {GL_DEPTH_TEST, GL_STENCIL_TEST, GL_BLEND, GL_CULL_FACE})
        EXPECT_FALSE(glIsEnabled(capability));
    EXPECT_NEAR(luminance(), 1, kFloatSums) << "none of it disturbed the average";
}

TEST_F(LuminanceAverage, SteadyFrameCreatesNothing)
{
    show(gradedNoise(64, 48));
    {
        const GlCalls calls;
        runFrame(*pass);
        EXPECT_EQ(calls.created(), 0);
        EXPECT_EQ(calls.textureAllocations(), 0);
        EXPECT_EQ(calls.count("glReadPixels", {0, 0, 1, 1, GL_RGBA, GL_FLOAT}), 1);
    }
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*pass);
}

TEST_F(LuminanceAverage, ThePassTakesItsTexturesWithIt)
{
    show(gradedNoise(16, 16));
    const QPointer<Texture> frame(outputTexture(*pass, kFrame));
    pass.reset();
    EXPECT_TRUE(frame.isNull());
}
