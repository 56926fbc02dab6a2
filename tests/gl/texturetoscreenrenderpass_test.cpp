#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/framebufferobject.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/texturetoscreenrenderpass.h>

#include <QRect>
#include <QVariantList>

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <memory>
#include <random>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input {
    kViewport,
    kTexture,
    kEnableSuperSampling,
    kViewportOut,
    kTextureOut,
    kLinearFilter,
    kRects,
    kFramebufferOut
};

constexpr int kWidth = 24;
constexpr int kHeight = 16;
constexpr std::array<float, 4> kUntouched = {0.5f, 0.25f, 0.125f, 0.75f};

// A mean of a few floats, summed in float.
constexpr double kMean = 1e-5;

Image<float> randomImage(int width, int height, unsigned seed = 7)
{
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> value(0, 1);
    Image<float> image(width, height);
    for (auto &pixel : image.pixels)
        pixel = {value(generator), value(generator), value(generator), value(generator)};
    return image;
}

/// The pixels of a rectangle of one image at the corner of a rectangle of the same size in another.
void copy(const Image<float> &from, const QRect &source, Image<float> &to, const QPoint &corner)
{
    for (int y = 0; y < source.height(); ++y)
        for (int x = 0; x < source.width(); ++x)
            to.at(corner.x() + x, corner.y() + y) = from.at(source.x() + x, source.y() + y);
}

/// Every pixel of a rectangle is the mean of a block of texels, counted from the target's corner.
/// Texels beyond the image read 0.
void average(const Image<float> &from, Image<float> &to, const QRect &rectangle)
{
    const int stepX = std::max(1, int(std::lround(double(from.width) / rectangle.width())));
    const int stepY = std::max(1, int(std::lround(double(from.height) / rectangle.height())));
    for (int y = rectangle.y(); y < rectangle.y() + rectangle.height(); ++y) {
        for (int x = rectangle.x(); x < rectangle.x() + rectangle.width(); ++x) {
            std::array<double, 4> sum{};
            for (int j = 0; j < stepY; ++j)
                for (int i = 0; i < stepX; ++i)
                    for (size_t c = 0; c < 4; ++c)
                        if (x * stepX + i < from.width && y * stepY + j < from.height)
                            sum[c] += double(from.at(x * stepX + i, y * stepY + j)[c]);
            for (size_t c = 0; c < 4; ++c)
                to.at(x, y)[c] = float(sum[c] / (stepX * stepY));
        }
    }
}

Image<float> untouched(int width = kWidth, int height = kHeight)
{
    return Image<float>(width, height, kUntouched);
}

class ScreenPass : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<Objects>();
        owned->target.clear(kUntouched);
        sourceImage = randomImage(kWidth, kHeight);
        setSource(sourceImage);
        pass().setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        pass().setInput(kFramebufferOut, framebufferToVariant(target().framebuffer()));
    }

    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }

    void setSource(const Image<float> &image)
    {
        owned->source = makeTexture(image);
        pass().setInput(kTexture, textureToVariant(source()));
    }

    TextureToScreenRenderPass &pass() { return owned->pass; }
    Target &target() { return owned->target; }
    Texture *source() { return owned->source.get(); }

    struct Objects
    {
        Target target{GL_RGBA32F, kWidth, kHeight};
        std::unique_ptr<Texture> source;
        TextureToScreenRenderPass pass;
    };
    std::unique_ptr<Objects> owned;
    Image<float> sourceImage;
};

/// A context with a default framebuffer.
class WindowContext
{
public:
    WindowContext(int width, int height)
    {
        const auto getDisplay =
            reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
        _display = getDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
        eglInitialize(_display, nullptr, nullptr);
        const EGLint wanted[] = {
            EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_RED_SIZE, 8, EGL_ALPHA_SIZE, 8,
            EGL_NONE};
        EGLConfig config = nullptr;
        EGLint count = 0;
        if (!eglChooseConfig(_display, wanted, &config, 1, &count) || count == 0)
            return;
        const EGLint size[] = {EGL_WIDTH, width, EGL_HEIGHT, height, EGL_NONE};
        _surface = eglCreatePbufferSurface(_display, config, size);
        const EGLint version[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 2, EGL_NONE};
        _context = eglCreateContext(_display, config, EGL_NO_CONTEXT, version);
        _valid = _surface && _context && eglMakeCurrent(_display, _surface, _surface, _context);
    }
    ~WindowContext()
    {
        if (_valid)
            OpenGLDeviceContext::releaseCurrent();
        eglMakeCurrent(_display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        if (_context)
            eglDestroyContext(_display, _context);
        if (_surface)
            eglDestroySurface(_display, _surface);
    }
    WindowContext(const WindowContext &) = delete;
    WindowContext &operator=(const WindowContext &) = delete;

    bool isValid() const { return _valid; }

private:
    EGLDisplay _display = EGL_NO_DISPLAY;
    EGLSurface _surface = EGL_NO_SURFACE;
    EGLContext _context = EGL_NO_CONTEXT;
    bool _valid = false;
};

} // namespace

TEST_F(ScreenPass, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(TextureToScreenRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_KvoTexture*_Texture"},
                 {"Kvo_Bool_EnableSuperSampling"},
                 {"Kvo_QRect_ViewportOut"},
                 {"Kvo_KvoTexture*_TextureOut"},
                 {"Kvo_Bool_LinearFilter"},
                 {"Kvo_QVariant_Rects"},
                 {"Kvo_KvoFramebuffer*_FramebufferOut"}},
                {});
}

TEST_F(ScreenPass, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<TextureToScreenRenderPass>();
}

TEST_F(ScreenPass, WithNoRectanglesTheWholeViewportIsCopied)
{
    const GlCalls calls;
    runFrame(pass());
    EXPECT_TRUE(sameImage(target().read(), sourceImage, within(0)));
    EXPECT_EQ(calls.count("glBlitFramebuffer",
                          {0, 0, kWidth, kHeight, 0, 0, kWidth, kHeight, GL_COLOR_BUFFER_BIT, GL_NEAREST}),
              1);
    EXPECT_EQ(calls.count("glBlitFramebuffer"), 1);
}

TEST_F(ScreenPass, AViewportAwayFromTheCornerIsBothSourceAndDestination)
{
    const QRect viewport(3, 2, 10, 7);
    pass().setInput(kViewport, viewport);
    runFrame(pass());
    Image<float> expected = untouched();
    copy(sourceImage, viewport, expected, viewport.topLeft());
    EXPECT_TRUE(sameImage(target().read(), expected, within(0)));
}

TEST_F(ScreenPass, OneRectangleEachCopiesThatPart)
{
    pass().setInput(kRects, QRect(4, 5, 6, 3));
    pass().setInput(kViewportOut, QRect(11, 9, 6, 3));
    runFrame(pass());
    Image<float> expected = untouched();
    copy(sourceImage, QRect(4, 5, 6, 3), expected, {11, 9});
    EXPECT_TRUE(sameImage(target().read(), expected, within(0)));
}

TEST_F(ScreenPass, ThreeSourcesAndTwoDestinationsMakeTwoCopies)
{
    pass().setInput(kRects, QVariantList{QRect(0, 0, 3, 3), QRect(5, 5, 4, 2), QRect(10, 10, 2, 2)});
    pass().setInput(kViewportOut, QVariantList{QRect(20, 1, 3, 3), QRect(2, 12, 4, 2)});
    const GlCalls calls;
    runFrame(pass());
    EXPECT_EQ(calls.count("glBlitFramebuffer"), 2);
    Image<float> expected = untouched();
    copy(sourceImage, QRect(0, 0, 3, 3), expected, {20, 1});
    copy(sourceImage, QRect(5, 5, 4, 2), expected, {2, 12});
    EXPECT_TRUE(sameImage(target().read(), expected, within(0)));
}

TEST_F(ScreenPass, TwoSourcesAndThreeDestinationsMakeTwoCopies)
{
    pass().setInput(kRects, QVariantList{QRect(0, 0, 3, 3), QRect(5, 5, 4, 2)});
    pass().setInput(kViewportOut, QVariantList{QRect(20, 1, 3, 3), QRect(2, 12, 4, 2), QRect(0, 0, 2, 2)});
    const GlCalls calls;
    runFrame(pass());
    EXPECT_EQ(calls.count("glBlitFramebuffer"), 2);
}

TEST_F(ScreenPass, AnEmptyListOfRectanglesMeansTheViewport)
{
    pass().setInput(kRects, QVariantList());
    pass().setInput(kViewportOut, QVariantList());
    runFrame(pass());
    EXPECT_TRUE(sameImage(target().read(), sourceImage, within(0)));
}

TEST_F(ScreenPass, AValueThatIsNoRectangleMeansTheViewport)
{
    pass().setInput(kRects, 12);
    pass().setInput(kViewportOut, QSize(3, 4));
    runFrame(pass());
    EXPECT_TRUE(sameImage(target().read(), sourceImage, within(0)));
}

TEST_F(ScreenPass, ABlitThatScalesRepeatsTexelsWithoutTheLinearFlag)
{
    pass().setInput(kRects, QRect(0, 0, kWidth / 2, kHeight / 2));
    pass().setInput(kViewportOut, QRect(0, 0, kWidth, kHeight));
    runFrame(pass());
    Image<float> expected(kWidth, kHeight);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            expected.at(x, y) = sourceImage.at(x / 2, y / 2);
    EXPECT_TRUE(sameImage(target().read(), expected, within(0)));
}

TEST_F(ScreenPass, ABlitThatScalesInterpolatesTexelsWithTheLinearFlag)
{
    // Twice as large: the centre of a pixel lies a quarter of a texel from the nearest texel's centre.
    Image<float> square = randomImage(8, 8, 11);
    setSource(square);
    pass().setInput(kLinearFilter, true);
    pass().setInput(kRects, QRect(0, 0, 8, 8));
    pass().setInput(kViewportOut, QRect(0, 0, 16, 16));
    runFrame(pass());
    Image<float> expected = untouched();
    const auto texel = [&](int i) { return std::clamp(i, 0, 7); };
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 16; ++x) {
            const double u = (x + 0.5) / 2 - 0.5;
            const double v = (y + 0.5) / 2 - 0.5;
            const int i = int(std::floor(u));
            const int j = int(std::floor(v));
            for (size_t c = 0; c < 4; ++c) {
                const auto at = [&](int dx, int dy) { return double(square.at(texel(i + dx), texel(j + dy))[c]); };
                const double low = at(0, 0) + (at(1, 0) - at(0, 0)) * (u - i);
                const double high = at(0, 1) + (at(1, 1) - at(0, 1)) * (u - i);
                expected.at(x, y)[c] = float(low + (high - low) * (v - j));
            }
        }
    }
    // GL asks for 8 bits of weight at least; a step of 1/256 between texels that differ by 1 at most, twice.
    EXPECT_TRUE(sameImage(target().read(), expected, within(2.0 / 256)));
}

TEST_F(ScreenPass, FilterIsLinearWhenWidthDiffersOrHeightDiffersFromTheSourcesWidth)
{
    struct Case
    {
        QRect source;
        QRect destination;
        bool linear;
        GLenum filter;
    };
    const Case cases[] = {
        {{0, 0, 100, 50}, {0, 0, 100, 50}, true, GL_LINEAR}, // height 50 differs from width 100
        {{0, 0, 100, 100}, {0, 0, 100, 100}, true, GL_NEAREST},
        {{0, 0, 100, 100}, {0, 0, 100, 100}, false, GL_NEAREST},
        {{0, 0, 100, 50}, {0, 0, 100, 50}, false, GL_NEAREST},
        {{0, 0, 100, 50}, {0, 0, 100, 100}, true, GL_NEAREST}, // scales, and both are as wide as the source
        {{0, 0, 100, 100}, {0, 0, 50, 100}, true, GL_LINEAR},
        {{0, 0, 100, 100}, {0, 0, 100, 50}, true, GL_LINEAR},
        {{0, 0, 100, 100}, {0, 0, 50, 50}, false, GL_NEAREST},
    };
    setSource(randomImage(100, 100));
    for (const Case &c : cases) {
        pass().setInput(kRects, c.source);
        pass().setInput(kViewportOut, c.destination);
        pass().setInput(kLinearFilter, c.linear);
        const GlCalls calls;
        runFrame(pass());
        ASSERT_EQ(calls.count("glBlitFramebuffer"), 1);
        EXPECT_EQ(calls.calls("glBlitFramebuffer")[0].args[9], c.filter)
            << c.source.width() << "x" << c.source.height() << " to " << c.destination.width() << "x"
            << c.destination.height() << (c.linear ? " linear" : "");
    }
}

TEST_F(ScreenPass, EveryPairChoosesItsFilterByItself)
{
    pass().setInput(kLinearFilter, true);
    pass().setInput(kRects, QVariantList{QRect(0, 0, 4, 4), QRect(0, 0, 4, 4)});
    pass().setInput(kViewportOut, QVariantList{QRect(0, 0, 4, 4), QRect(8, 8, 8, 8)});
    const GlCalls calls;
    runFrame(pass());
    const auto blits = calls.calls("glBlitFramebuffer");
    ASSERT_EQ(blits.size(), 2u);
    EXPECT_EQ(blits[0].args[9], GL_NEAREST);
    EXPECT_EQ(blits[1].args[9], GL_LINEAR);
}

TEST_F(ScreenPass, TheTargetTextureWinsOverTheTargetFramebuffer)
{
    const auto out = makeSolidTexture(kWidth, kHeight, {0, 0, 0, 0});
    pass().setInput(kTextureOut, textureToVariant(out.get()));
    runFrame(pass());
    EXPECT_TRUE(sameImage(readTexture<float>(out.get()), sourceImage, within(0)));
    EXPECT_TRUE(sameImage(target().read(), untouched(), within(0)));
}

TEST_F(ScreenPass, TheTargetTextureIsDetachedAfterwards)
{
    const auto out = makeSolidTexture(kWidth, kHeight, {0, 0, 0, 0});
    pass().setInput(kTextureOut, textureToVariant(out.get()));
    const GlCalls calls;
    runFrame(pass());
    const auto attached = calls.calls("glFramebufferTexture");
    std::vector<double> drawTextures;
    for (const GlCall &call : attached)
        if (call.args[0] == GL_DRAW_FRAMEBUFFER)
            drawTextures.push_back(call.args[2]);
    EXPECT_EQ(drawTextures, (std::vector<double>{double(out->textureID()), 0}));
    std::vector<double> readTextures;
    for (const GlCall &call : attached)
        if (call.args[0] == GL_READ_FRAMEBUFFER)
            readTextures.push_back(call.args[2]);
    EXPECT_EQ(readTextures, (std::vector<double>{double(source()->textureID()), 0}));
}

TEST_F(ScreenPass, TexturesInTypedFormWorkToo)
{
    const auto out = makeSolidTexture(kWidth, kHeight, {0, 0, 0, 0});
    pass().setInput(kTexture, QVariant::fromValue(source()));
    pass().setInput(kTextureOut, QVariant::fromValue(out.get()));
    runFrame(pass());
    EXPECT_TRUE(sameImage(readTexture<float>(out.get()), sourceImage, within(0)));
}

TEST_F(ScreenPass, WithoutATextureTheTargetIsClearedWithTheCurrentClearColour)
{
    pass().setInput(kTexture, QVariant());
    glClearColor(0.2f, 0.4f, 0.6f, 0.8f);
    const GlCalls calls;
    runFrame(pass());
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT}), 1);
    EXPECT_EQ(calls.count("glBlitFramebuffer"), 0);
    EXPECT_EQ(calls.count("glClearColor"), 0);
    EXPECT_TRUE(sameImage(target().read(), Image<float>(kWidth, kHeight, {0.2f, 0.4f, 0.6f, 0.8f}), within(0)));
}

TEST_F(ScreenPass, ABlitLeavesBothFramebufferBindingsZeroAndChangesNothingElse)
{
    runFrame(pass());
    const HostileGLState hostile;
    const GLStateSnapshot before;
    // the tests of fragments do not touch a blit, but the scissor box does
    glDisable(GL_SCISSOR_TEST);
    runFrame(pass());
    glEnable(GL_SCISSOR_TEST);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("draw framebuffer, read framebuffer"));
    GLint bound = -1;
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &bound);
    EXPECT_EQ(bound, 0);
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &bound);
    EXPECT_EQ(bound, 0);
    EXPECT_TRUE(sameImage(target().read(), sourceImage, within(0)));
}

TEST_F(ScreenPass, ABlitBindsTheTargetThenTheSourceThenCopiesThenUnbindsBoth)
{
    const auto out = makeSolidTexture(kWidth, kHeight, {0, 0, 0, 0});
    pass().setInput(kTextureOut, textureToVariant(out.get()));
    runFrame(pass());
    const GlCalls calls;
    runFrame(pass());
    EXPECT_EQ(calls
                  .sequence({"glBindFramebuffer", "glFramebufferTexture", "glDrawBuffer", "glReadBuffer",
                             "glBlitFramebuffer"})
                  .join(u' '),
              QStringLiteral("glBindFramebuffer glFramebufferTexture glDrawBuffer glBindFramebuffer "
                             "glFramebufferTexture glReadBuffer glBlitFramebuffer glFramebufferTexture "
                             "glBindFramebuffer glFramebufferTexture glBindFramebuffer"));
    EXPECT_EQ(calls.count("glDrawBuffer", {GL_COLOR_ATTACHMENT0}), 1);
    EXPECT_EQ(calls.count("glReadBuffer", {GL_COLOR_ATTACHMENT0}), 1);
    EXPECT_EQ(calls.count("glBindFramebuffer", {GL_READ_FRAMEBUFFER, 0}), 1);
    EXPECT_EQ(calls.count("glBindFramebuffer", {GL_DRAW_FRAMEBUFFER, 0}), 1);
}

TEST_F(ScreenPass, WithNoTargetTheDefaultFramebufferIsDrawnTo)
{
    constexpr int kSize = 20;
    const Image<float> image = randomImage(kSize, kSize, 5);
    {
        const WindowContext window(kSize, kSize);
        ASSERT_TRUE(window.isValid());
        GLint bits = 0;
        glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_BACK_LEFT, GL_FRAMEBUFFER_ATTACHMENT_ALPHA_SIZE,
                                              &bits);
        const auto texture = makeTexture(image);
        for (bool superSampling : {false, true}) {
            // None; the host's; and one that was never bound, which has no name either.
            for (const int target : {0, 1, 2}) {
                glClearColor(0, 0, 0, 0);
                glClear(GL_COLOR_BUFFER_BIT);
                const std::unique_ptr<FramebufferObject> zero(FramebufferObject::wrap(0));
                FramebufferObject unbound;
                TextureToScreenRenderPass own;
                own.setInput(kViewport, QRect(0, 0, kSize, kSize));
                own.setInput(kTexture, textureToVariant(texture.get()));
                own.setInput(kEnableSuperSampling, superSampling);
                if (target > 0)
                    own.setInput(kFramebufferOut, framebufferToVariant(target == 1 ? zero.get() : &unbound));
                runFrame(own);
                glReadBuffer(GL_BACK);
                const Image<float> screen = readFramebuffer(0, 0, kSize, kSize);
                // 8 bits, and alpha where the surface has it
                Image<float> expected = image;
                if (bits == 0)
                    for (auto &pixel : expected.pixels)
                        pixel[3] = 1;
                EXPECT_TRUE(sameImage(screen, expected, within(0.51 / 255)))
                    << (superSampling ? "averaged " : "blit ") << target;
                EXPECT_EQ(unbound.getFBO(), 0u);
            }
        }
    }
    ASSERT_TRUE(context().makeCurrent());
}

TEST_F(ScreenPass, AWrappedFramebufferOfTheHostIsATarget)
{
    // the name only, as a widget toolkit gives it
    const std::unique_ptr<FramebufferObject> wrapped(FramebufferObject::wrap(target().framebuffer()->getFBO()));
    // by either type of pointer
    for (const QVariant &value : {framebufferToVariant(wrapped.get()), QVariant::fromValue(wrapped.get())}) {
        target().clear(kUntouched);
        pass().setInput(kFramebufferOut, value);
        runFrame(pass());
        EXPECT_TRUE(sameImage(target().read(), sourceImage, within(0))) << value.typeName();
    }
}

// Which has no name in this context before it is bound.
TEST_F(ScreenPass, AFramebufferThatAnotherContextHasFilledIsATarget)
{
    GLContext::Options options;
    options.share = &context();
    GLContext other(options);
    {
        FramebufferObject filled;
        ASSERT_TRUE(other.makeCurrent() && OpenGLDeviceContext::current());
        {
            const AutoBinder bound(&filled);
            filled.attach(target().color(), GL_COLOR_ATTACHMENT0, 0);
        }
        ASSERT_TRUE(context().makeCurrent());
        target().clear(kUntouched);
        EXPECT_EQ(filled.getFBO(), 0u);
        pass().setInput(kFramebufferOut, framebufferToVariant(&filled));
        runFrame(pass());
        EXPECT_TRUE(sameImage(target().read(), sourceImage, within(0)));
        pass().setInput(kFramebufferOut, QVariant());
    }
    ASSERT_TRUE(other.makeCurrent());
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

// What GL refuses to copy is said, and GL is not asked; what it can is copied.
namespace {

std::unique_ptr<Texture> blankTexture(GLenum target, GLenum format, int samples = 0)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(target);
    EXPECT_TRUE(texture->bind());
    const bool isDepth = format == GL_DEPTH_COMPONENT24;
    const bool isWhole = format == GL_RGBA32I || format == GL_RGBA32UI;
    const GLenum external = isDepth ? GL_DEPTH_COMPONENT : isWhole ? GL_RGBA_INTEGER : GL_RGBA;
    const std::vector<GLuint> content(kWidth * kHeight * 4, isWhole ? 7 : 0);
    if (target == GL_TEXTURE_2D_MULTISAMPLE)
        glTexImage2DMultisample(target, samples, format, kWidth, kHeight, GL_TRUE);
    else if (target == GL_TEXTURE_2D_MULTISAMPLE_ARRAY)
        glTexImage3DMultisample(target, samples, format, kWidth, kHeight, 2, GL_TRUE);
    else
        glTexImage2D(target, 0, GLint(format), kWidth, kHeight, 0, external,
                     isDepth                ? GL_FLOAT
                     : format == GL_RGBA32I ? GL_INT
                     : isWhole              ? GL_UNSIGNED_INT
                                            : GL_FLOAT,
                     content.data());
    texture->unbind();
    return texture;
}

std::vector<GLuint> wholeNumbersOf(Texture &texture)
{
    std::vector<GLuint> numbers(kWidth * kHeight * 4);
    const AutoBinder bound(&texture);
    glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA_INTEGER, GL_UNSIGNED_INT, numbers.data());
    return numbers;
}

} // namespace

TEST_F(ScreenPass, NumbersOfOneKindAreCopiedAndOfTwoKindsRefused)
{
    const GLenum formats[]{GL_RGBA32I, GL_RGBA32UI, GL_RGBA32F};
    for (const GLenum from : formats)
        for (const GLenum to : formats)
            for (const bool linear : {false, true})
                for (const QRect &out : {QRect(0, 0, kWidth, kHeight), QRect(0, 0, kWidth / 2, kHeight)}) {
                    SCOPED_TRACE(::testing::Message() << std::hex << from << " to " << to << ", linear " << linear);
                    const MessageCapture messages;
                    TextureToScreenRenderPass one;
                    const auto input = blankTexture(GL_TEXTURE_2D, from), output = blankTexture(GL_TEXTURE_2D, to);
                    {
                        const AutoBinder bound(output.get());
                        const std::vector<GLuint> nothing(kWidth * kHeight * 4);
                        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kWidth, kHeight,
                                        to == GL_RGBA32F ? GL_RGBA : GL_RGBA_INTEGER,
                                        to == GL_RGBA32F   ? GL_FLOAT
                                        : to == GL_RGBA32I ? GL_INT
                                                           : GL_UNSIGNED_INT,
                                        nothing.data());
                    }
                    one.setInput(kViewport, QRect(0, 0, kWidth, kHeight));
                    one.setInput(kTexture, textureToVariant(input.get()));
                    one.setInput(kTextureOut, textureToVariant(output.get()));
                    one.setInput(kViewportOut, out);
                    one.setInput(kLinearFilter, linear);
                    runFrame(one);
                    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
                    EXPECT_EQ(messages.texts(QtWarningMsg).size(), from == to ? 0 : 1);
                    if (to != GL_RGBA32F) {
                        EXPECT_EQ(wholeNumbersOf(*output)[0], from == to ? 7u : 0u);
                    }
                }
}

TEST_F(ScreenPass, ATargetWithoutAColourIsSaid)
{
    const auto depth = blankTexture(GL_TEXTURE_2D, GL_DEPTH_COMPONENT24);
    FramebufferObject depthOnly;
    {
        const AutoBinder bound(&depthOnly);
        depthOnly.attach(depth.get(), GL_DEPTH_ATTACHMENT, 0);
    }
    GLuint second = 0;
    glGenFramebuffers(1, &second);
    glBindFramebuffer(GL_FRAMEBUFFER, second);
    glFramebufferTexture(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT1, target().color()->textureID(), 0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    target().clear(kUntouched);
    const std::unique_ptr<FramebufferObject> wrapped(FramebufferObject::wrap(second));
    for (FramebufferObject *framebuffer : {&depthOnly, wrapped.get()}) {
        const MessageCapture messages;
        TextureToScreenRenderPass one;
        one.setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        one.setInput(kTexture, textureToVariant(source()));
        one.setInput(kFramebufferOut, framebufferToVariant(framebuffer));
        runFrame(one);
        runFrame(one);
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
        // Before OpenGL 4.1 such a framebuffer is not complete.
        EXPECT_LE(messages.texts(QtWarningMsg).size(), 1);
        if (epoxy_gl_version() >= 41) {
            EXPECT_EQ(messages.containing(QStringLiteral("has no colour attachment 0")), 1);
        }
    }
    EXPECT_TRUE(sameImage(target().read(), untouched(), within(0)));
    glDeleteFramebuffers(1, &second);
}

TEST_F(ScreenPass, SamplesAreResolvedMirroredToo)
{
    const auto samples = blankTexture(GL_TEXTURE_2D_MULTISAMPLE, GL_RGBA32F, 4);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, samples->textureID(), 0);
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glDeleteFramebuffers(1, &framebuffer);
        GTEST_SKIP() << "this driver draws to no samples of floats";
    }
    // Columns of their own colours.
    glEnable(GL_SCISSOR_TEST);
    for (int x = 0; x < kWidth; ++x) {
        glScissor(x, 0, 1, kHeight);
        glClearColor(float(x) / kWidth, 0, 0, 1);
        glClear(GL_COLOR_BUFFER_BIT);
    }
    glDisable(GL_SCISSOR_TEST);
    glClearColor(0, 0, 0, 0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    const MessageCapture messages;
    pass().setInput(kTexture, textureToVariant(samples.get()));
    pass().setInput(kRects, QRect(0, 0, kWidth, kHeight));
    pass().setInput(kViewportOut, QRect(kWidth, 0, -kWidth, kHeight));
    runFrame(pass());
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    EXPECT_EQ(messages.texts(QtWarningMsg), QStringList());
    const Image<float> shown = target().read();
    for (int x = 0; x < kWidth; ++x)
        EXPECT_EQ(shown.at(x, 0)[0], float(kWidth - 1 - x) / kWidth) << x;
    glDeleteFramebuffers(1, &framebuffer);
}

TEST_F(ScreenPass, SamplesInLayersAndViewsOfBuffersRaiseNoErrorOfGL)
{
    const auto layers = blankTexture(GL_TEXTURE_2D_MULTISAMPLE_ARRAY, GL_RGBA32F, 4);
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_TEXTURE_BUFFER, buffer);
    glBufferData(GL_TEXTURE_BUFFER, 256, nullptr, GL_STATIC_DRAW);
    Texture view;
    view.setTarget(GL_TEXTURE_BUFFER);
    ASSERT_TRUE(view.bind());
    glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32F, buffer);
    view.unbind();
    glBindBuffer(GL_TEXTURE_BUFFER, 0);
    for (const bool scales : {false, true})
        for (const bool isOut : {false, true})
            for (Texture *texture : {layers.get(), &view}) {
                SCOPED_TRACE(::testing::Message()
                             << "scales " << scales << ", out " << isOut << ", view " << (texture == &view));
                target().clear(kUntouched);
                const MessageCapture messages;
                TextureToScreenRenderPass one;
                one.setInput(kViewport, QRect(0, 0, kWidth, kHeight));
                one.setInput(kTexture, textureToVariant(isOut ? source() : texture));
                if (isOut)
                    one.setInput(kTextureOut, textureToVariant(texture));
                else
                    one.setInput(kFramebufferOut, framebufferToVariant(target().framebuffer()));
                one.setInput(kViewportOut, QRect(0, 0, scales ? kWidth / 2 : kWidth, kHeight));
                runFrame(one);
                EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
                if (texture == &view) {
                    EXPECT_EQ(messages.containing(QStringLiteral("is a view of a buffer")), 1);
                    EXPECT_TRUE(sameImage(target().read(), untouched(), within(0)));
                    // Said again when it comes again after one that is right.
                    const int slot = isOut ? kTextureOut : kTexture;
                    const QVariant wrong = one.inputValue(slot);
                    runFrame(one);
                    one.setInput(slot, textureToVariant(isOut ? target().color() : source()));
                    runFrame(one);
                    one.setInput(slot, wrong);
                    runFrame(one);
                    EXPECT_EQ(messages.containing(QStringLiteral("is a view of a buffer")), 2);
                    EXPECT_EQ(messages.texts(QtWarningMsg).size(), 2);
                }
            }
    glDeleteBuffers(1, &buffer);
}

// The averaging path.

TEST_F(ScreenPass, SuperSamplingAveragesBlocksOfTexels)
{
    const Image<float> large = randomImage(2 * kWidth, 3 * kHeight, 3);
    setSource(large);
    pass().setInput(kEnableSuperSampling, true);
    runFrame(pass());
    Image<float> expected(kWidth, kHeight);
    average(large, expected, QRect(0, 0, kWidth, kHeight));
    EXPECT_TRUE(sameImage(target().read(), expected, within(kMean)));
}

TEST_F(ScreenPass, BlockSizesAreRoundedToWholeTexelsAndAtLeastOne)
{
    pass().setInput(kEnableSuperSampling, true);
    // 1.6 and 2.4 times the target round to 2, 1.4 times to 1; a smaller source gives blocks of one texel
    for (const QSize &size : {QSize(kWidth * 8 / 5, kHeight * 8 / 5), QSize(kWidth * 12 / 5, kHeight * 12 / 5),
                              QSize(kWidth * 7 / 5, kHeight * 7 / 5), QSize(kWidth / 2, kHeight / 2)}) {
        const Image<float> image = randomImage(size.width(), size.height(), 9);
        setSource(image);
        target().clear(kUntouched);
        runFrame(pass());
        Image<float> expected(kWidth, kHeight);
        average(image, expected, QRect(0, 0, kWidth, kHeight));
        // what lies beyond the image is not defined; look where blocks are inside it
        const int stepX = std::max(1, int(std::lround(double(image.width) / kWidth)));
        const int stepY = std::max(1, int(std::lround(double(image.height) / kHeight)));
        const Image<float> actual = target().read();
        int checked = 0;
        for (int y = 0; (y + 1) * stepY <= image.height && y < kHeight; ++y)
            for (int x = 0; (x + 1) * stepX <= image.width && x < kWidth; ++x, ++checked)
                for (size_t c = 0; c < 4; ++c)
                    ASSERT_NEAR(actual.at(x, y)[c], expected.at(x, y)[c], kMean) << x << ", " << y;
        EXPECT_GT(checked, 50);
    }
}

TEST_F(ScreenPass, SuperSamplingCountsBlocksFromTheTargetsCornerAndIgnoresTheSourceRectangles)
{
    const Image<float> large = randomImage(2 * kWidth, 2 * kHeight, 4);
    setSource(large);
    const QRect rectangle(kWidth / 2, kHeight / 2, kWidth / 2, kHeight / 2);
    pass().setInput(kEnableSuperSampling, true);
    pass().setInput(kViewportOut, rectangle);
    pass().setInput(kRects, QRect(1, 1, 2, 2));
    runFrame(pass());
    // four times as large as the rectangle: from (48, 32) on it is empty, half a target further than
    // the image goes; so take a source that reaches
    Image<float> expected = untouched();
    average(large, expected, rectangle);
    EXPECT_TRUE(sameImage(target().read(), expected, within(kMean)));

    target().clear(kUntouched);
    pass().setInput(kViewportOut, QRect(2, 3, kWidth - 2, kHeight - 3));
    runFrame(pass());
    expected = untouched();
    average(large, expected, QRect(2, 3, kWidth - 2, kHeight - 3));
    EXPECT_TRUE(sameImage(target().read(), expected, within(kMean)));
}

TEST_F(ScreenPass, SuperSamplingDrawsOncePerPair)
{
    pass().setInput(kEnableSuperSampling, true);
    pass().setInput(kRects, QVariantList{QRect(), QRect(), QRect()});
    pass().setInput(kViewportOut, QVariantList{QRect(0, 0, 12, 8), QRect(12, 8, 12, 8)});
    const GlCalls calls;
    runFrame(pass());
    EXPECT_EQ(calls.draws(), 2);
    EXPECT_EQ(calls.count("glBlitFramebuffer"), 0);
    EXPECT_EQ(calls.count("glViewport", {0, 0, 12, 8}), 1);
    EXPECT_EQ(calls.count("glScissor", {12, 8, 12, 8}), 1);
    Image<float> expected = untouched();
    average(sourceImage, expected, QRect(0, 0, 12, 8));
    average(sourceImage, expected, QRect(12, 8, 12, 8));
    EXPECT_TRUE(sameImage(target().read(), expected, within(kMean)));
}

TEST_F(ScreenPass, SuperSamplingIntoATargetTexture)
{
    const Image<float> large = randomImage(2 * kWidth, 2 * kHeight, 8);
    setSource(large);
    const auto out = makeSolidTexture(kWidth, kHeight, {0, 0, 0, 0});
    pass().setInput(kTextureOut, textureToVariant(out.get()));
    pass().setInput(kEnableSuperSampling, true);
    runFrame(pass());
    Image<float> expected(kWidth, kHeight);
    average(large, expected, QRect(0, 0, kWidth, kHeight));
    EXPECT_TRUE(sameImage(readTexture<float>(out.get()), expected, within(kMean)));
    EXPECT_TRUE(sameImage(target().read(), untouched(), within(0)));
}

TEST_F(ScreenPass, SuperSamplingWithoutATextureDrawsTransparentBlack)
{
    pass().setInput(kTexture, QVariant());
    pass().setInput(kEnableSuperSampling, true);
    const GlCalls calls;
    runFrame(pass());
    EXPECT_EQ(calls.draws(), 1);
    EXPECT_EQ(calls.count("glClear"), 0);
    // the solid texture has one texel: what is read beside it is 0 by robust access or that texel
    EXPECT_TRUE(sameImage(target().read(), Image<float>(kWidth, kHeight), within(0)));
}

TEST_F(ScreenPass, SuperSamplingIsRightInAnyStateAndChangesOnlyWhatItSays)
{
    const Image<float> large = randomImage(2 * kWidth, 2 * kHeight, 12);
    setSource(large);
    pass().setInput(kEnableSuperSampling, true);
    runFrame(pass());
    target().clear(kUntouched);
    const HostileGLState hostile;
    glDisable(GL_CULL_FACE);
    const GLStateSnapshot before;
    runFrame(pass());
    EXPECT_EQ(
        GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
        QStringLiteral("viewport, scissor box, depth test, stencil test, scissor test, blending, colour mask, draw "
                       "framebuffer"));
    for (GLenum capability : {GL_DEPTH_TEST, GL_BLEND, GL_STENCIL_TEST, GL_SCISSOR_TEST})
        EXPECT_FALSE(glIsEnabled(capability));
    Image<float> expected(kWidth, kHeight);
    average(large, expected, QRect(0, 0, kWidth, kHeight));
    EXPECT_TRUE(sameImage(target().read(), expected, within(kMean)));
}

TEST_F(ScreenPass, SuperSamplingSetsItsStateBeforeItDraws)
{
    pass().setInput(kEnableSuperSampling, true);
    runFrame(pass());
    const GlCalls calls;
    runFrame(pass());
    EXPECT_EQ(calls
                  .sequence({"glDisable", "glColorMask", "glEnable", "glViewport", "glScissor", "glUniform1i",
                             "glUniform2fv", "glDrawArrays"})
                  .join(u' '),
              QStringLiteral("glDisable glDisable glDisable glColorMask glEnable glViewport glScissor glUniform1i "
                             "glUniform2fv glDrawArrays glDisable"));
    EXPECT_EQ(calls.calls("glEnable")[0].args[0], GL_SCISSOR_TEST);
    EXPECT_EQ(calls.calls("glDisable").back().args[0], GL_SCISSOR_TEST);
    EXPECT_EQ(calls.calls("glUniform2fv")[0].data, (std::vector<double>{kWidth, kHeight}));
}

TEST_F(ScreenPass, TurningSuperSamplingRebuildsTheProgramAndKeepsQuadAndFramebuffers)
{
    pass().setInput(kEnableSuperSampling, false);
    runFrame(pass());
    const auto programsMade = [&](const QVariant &enable) {
        pass().setInput(kEnableSuperSampling, enable);
        const GlCalls calls;
        runFrame(pass());
        EXPECT_EQ(calls.created(GlKind::Framebuffer), 0);
        return calls.created(GlKind::Program);
    };
    const int programs = GlCalls::live(GlKind::Program);
    EXPECT_EQ(programsMade(true), 1);
    EXPECT_EQ(programsMade(true), 0);
    EXPECT_EQ(programsMade(QVariant()), 0) << "a null value keeps the state";
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs + 1);
    EXPECT_EQ(programsMade(false), 0);
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs) << "the program is deleted when the path is turned off";
    {
        pass().setInput(kEnableSuperSampling, true);
        const GlCalls calls;
        runFrame(pass());
        EXPECT_EQ(calls.created(GlKind::Program), 1);
        EXPECT_EQ(calls.created(GlKind::VertexArray) + calls.created(GlKind::Buffer), 0) << "the quad stays";
    }
    Image<float> expected(kWidth, kHeight);
    average(sourceImage, expected, QRect(0, 0, kWidth, kHeight));
    EXPECT_TRUE(sameImage(target().read(), expected, within(kMean))) << "and the new program draws with it";
}

TEST_F(ScreenPass, GivesItsTextureBackToThePool)
{
    TextureManager &manager = TextureManager::Instance();
    for (bool superSampling : {false, true}) {
        Texture *pooled = manager.tempTexture(TextureFormat::Position, kWidth, kHeight);
        manager.addTempTextureRef(pooled, 1);
        pass().setInput(kTexture, textureToVariant(pooled));
        pass().setInput(kEnableSuperSampling, superSampling);
        runFrame(pass());
        EXPECT_EQ(manager.tempTextureRefs(pooled), 1);
        manager.releaseTempTextureRef(pooled, 1);
    }
}

TEST_F(ScreenPass, ATargetTextureOfThePoolIsNotGivenBack)
{
    TextureManager &manager = TextureManager::Instance();
    Texture *pooled = manager.tempTexture(TextureFormat::Position, kWidth, kHeight);
    pass().setInput(kTextureOut, textureToVariant(pooled));
    runFrame(pass());
    EXPECT_EQ(manager.tempTextureRefs(pooled), 1);
    EXPECT_TRUE(sameImage(readTexture<float>(pooled), sourceImage, within(0)));
    manager.releaseTempTextureRef(pooled, 1);
}

TEST_F(ScreenPass, TeardownContextDataFreesFramebuffersAndQuadAndTheNextStartRemakesThemWithTheOldProgram)
{
    const auto out = makeSolidTexture(kWidth, kHeight, {0, 0, 0, 0});
    pass().setInput(kTextureOut, textureToVariant(out.get()));
    runFrame(pass()); // both framebuffers
    pass().setInput(kEnableSuperSampling, true);
    runFrame(pass()); // program and quad
    const int framebuffers = GlCalls::live(GlKind::Framebuffer);
    const int programs = GlCalls::live(GlKind::Program);
    pass().teardownContextData(nullptr);
    EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers - 2);
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs);
    {
        const GlCalls calls;
        runFrame(pass());
        EXPECT_EQ(calls.created(GlKind::Framebuffer), 1);
        EXPECT_EQ(calls.created(GlKind::Program), 0);
        EXPECT_EQ(calls.draws(), 1);
    }
    Image<float> expected(kWidth, kHeight);
    average(sourceImage, expected, QRect(0, 0, kWidth, kHeight));
    EXPECT_TRUE(sameImage(readTexture<float>(out.get()), expected, within(kMean)));
}

TEST_F(ScreenPass, ObjectsAreMadeOnlyWhenAPathNeedsThem)
{
    // a blit into a framebuffer of the host needs the read framebuffer only
    const GlCalls calls;
    runFrame(pass());
    EXPECT_EQ(calls.created(GlKind::Framebuffer), 1);
    EXPECT_EQ(calls.created(GlKind::Program), 0);
    EXPECT_EQ(calls.created(GlKind::Texture), 0);
}

TEST_F(ScreenPass, SteadyFrameCreatesNothingOnEitherPath)
{
    expectSteadyFrameCreatesNothing(pass());
    pass().setInput(kEnableSuperSampling, true);
    expectSteadyFrameCreatesNothing(pass());
    pass().setInput(kTexture, QVariant());
    expectSteadyFrameCreatesNothing(pass());
}

TEST_F(ScreenPass, AViewportThatChangesEveryFrameMakesNothing)
{
    runFrame(pass());
    const int live = GlCalls::live();
    for (int i = 1; i < 6; ++i) {
        pass().setInput(kViewport, QRect(0, 0, kWidth - i, kHeight - i));
        const GlCalls calls;
        runFrame(pass());
        EXPECT_EQ(calls.created(), 0);
        EXPECT_EQ(GlCalls::live(), live);
    }
}

TEST_F(ScreenPass, SteadyFrameTakesNothingFromTheHeap)
{
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass());
    pass().setInput(kEnableSuperSampling, true);
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass());
}

TEST_F(ScreenPass, WithNothingConnectedThereIsNoErrorOnEitherPath)
{
    for (const QVariant &superSampling : {QVariant(), QVariant(true)}) {
        TextureToScreenRenderPass unconnected;
        unconnected.setInput(kEnableSuperSampling, superSampling);
        runFrame(unconnected);
        EXPECT_EQ(unconnected.errorCode(), 0u);
    }
}

TEST_F(ScreenPass, AnEmptyViewportRaisesNoGLErrorAndCopiesNothing)
{
    for (bool superSampling : {false, true}) {
        for (const QRect &viewport : {QRect(), QRect(0, 0, 0, 5), QRect(0, 0, 5, 0)}) {
            pass().setInput(kViewport, viewport);
            pass().setInput(kEnableSuperSampling, superSampling);
            runFrame(pass());
            EXPECT_TRUE(sameImage(target().read(), untouched(), within(0)));
        }
    }
}

TEST_F(ScreenPass, ATextureWithoutPixelsRaisesNoGLError)
{
    const auto empty = makeTexture(GL_RGBA32F, 0, 0);
    pass().setInput(kTexture, textureToVariant(empty.get()));
    runFrame(pass());
    EXPECT_TRUE(sameImage(target().read(), untouched(), within(0)));
    pass().setInput(kTexture, textureToVariant(source()));
    pass().setInput(kTextureOut, textureToVariant(empty.get()));
    for (bool superSampling : {false, true}) {
        pass().setInput(kEnableSuperSampling, superSampling);
        runFrame(pass());
    }
    EXPECT_TRUE(sameImage(target().read(), untouched(), within(0)));
}

TEST_F(ScreenPass, ACopyOfAnUnstartedPassIsIndependent)
{
    TextureToScreenRenderPass copied(pass());
    TextureToScreenRenderPass assigned;
    assigned = pass();
    Target other(GL_RGBA32F, kWidth, kHeight);
    copied.setInput(kFramebufferOut, framebufferToVariant(other.framebuffer()));
    assigned.setInput(kFramebufferOut, framebufferToVariant(other.framebuffer()));
    assigned.setInput(kViewport, QRect(0, 0, 1, 1));
    runFrame(assigned);
    runFrame(copied);
    runFrame(pass());
    EXPECT_TRUE(sameImage(target().read(), sourceImage, within(0)));
    EXPECT_TRUE(sameImage(other.read(), sourceImage, within(0)));
}

TEST_F(ScreenPass, DestructionFreesProgramAndFramebuffersAndKeepsTheSolidTexture)
{
    Texture *const solid = TextureManager::Instance().solidTexture(QColor(Qt::transparent));
    const int programs = GlCalls::live(GlKind::Program);
    const int framebuffers = GlCalls::live(GlKind::Framebuffer);
    const int textures = GlCalls::live(GlKind::Texture);
    {
        const auto out = makeSolidTexture(kWidth, kHeight, {0, 0, 0, 0});
        TextureToScreenRenderPass own;
        own.setInput(kViewport, QRect(0, 0, kWidth, kHeight));
        own.setInput(kTexture, textureToVariant(source()));
        own.setInput(kTextureOut, textureToVariant(out.get()));
        runFrame(own);
        own.setInput(kTexture, QVariant());
        own.setInput(kEnableSuperSampling, true);
        runFrame(own);
        EXPECT_EQ(GlCalls::live(GlKind::Program), programs + 1);
        EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers + 2);
    }
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs);
    EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers);
    EXPECT_EQ(GlCalls::live(GlKind::Texture), textures);
    EXPECT_EQ(TextureManager::Instance().solidTexture(QColor(Qt::transparent)), solid);
    EXPECT_NE(solid->textureID(), 0u);
}
