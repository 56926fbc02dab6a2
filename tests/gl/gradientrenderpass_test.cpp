#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/passes.h"

#include <gl/drawbuffers.h>
#include <gl/opengldevicecontext.h>
#include <gl/picturewindow.h>
#include <gl/texture.h>
#include <renderpasses/gradientrenderpass.h>

#include <QColor>
#include <QPointer>
#include <QRect>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

enum Input { kViewport, kColorTop, kColorBottom };

// Interpolating between two floats below 1 loses a few units in the last place, 1e-7 each.
constexpr double kInterpolation = 1e-5;

std::array<double, 4> channels(const QColor &color)
{
    return {color.red() / 255.0, color.green() / 255.0, color.blue() / 255.0, color.alpha() / 255.0};
}

Image<float> gradient(int width, int height, const QColor &top, const QColor &bottom)
{
    Image<float> image(width, height);
    const auto t = channels(top);
    const auto b = channels(bottom);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (size_t c = 0; c < 4; ++c)
                image.at(x, y)[c] = float(b[c] + (t[c] - b[c]) * (y + 0.5) / height);
    return image;
}

Image<float> solid(int width, int height, const QColor &color)
{
    return Image<float>(width, height,
                        {float(color.red() / 255.0), float(color.green() / 255.0), float(color.blue() / 255.0), 1.0f});
}

class GradientPass : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        pass.setInput(kViewport, QRect(0, 0, 12, 40));
    }

    void TearDown() override
    {
        ownedPass.reset();
        GLTest::TearDown();
    }
    Texture *frame() { return outputTexture(pass, 0); }

    // Destroyed before the fixture looks for what is left.
    std::unique_ptr<GradientRenderPass> ownedPass = std::make_unique<GradientRenderPass>();
    GradientRenderPass &pass = *ownedPass;
};

} // namespace

TEST_F(GradientPass, SlotsHaveTheirNamesOrderAndDefaults)
{
    expectSlots(GradientRenderPass(),
                {{"Kvo_QRect_Viewport"},
                 {"Kvo_QColor_ColorTop", QColor(64, 64, 64)},
                 {"Kvo_QColor_ColorBottom", QColor(153, 153, 153)}},
                {"Kvo_KvoTexture*_Frame"});
}

TEST_F(GradientPass, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<GradientRenderPass>();
}

TEST_F(GradientPass, DefaultsRunFromGrey153BelowToGrey64Above)
{
    runFrame(pass);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), gradient(12, 40, QColor(64, 64, 64), QColor(153, 153, 153)),
                          within(kInterpolation)));
    EXPECT_EQ(pass.errorCode(), 0u);
}

TEST_F(GradientPass, ADifferentGradientIsToldApart)
{
    runFrame(pass);
    EXPECT_FALSE(isSameImage(readTexture<float>(frame()), gradient(12, 40, QColor(66, 64, 64), QColor(153, 153, 153)),
                             within(kInterpolation)));
}

TEST_F(GradientPass, GradientKeepsAllFourChannelsOfItsColours)
{
    const QColor top(255, 10, 0, 51);
    const QColor bottom(0, 200, 128, 204);
    pass.setInput(kColorTop, top);
    pass.setInput(kColorBottom, bottom);
    runFrame(pass);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), gradient(12, 40, top, bottom), within(kInterpolation)));
}

// With a viewport of the whole picture, and with a driver that has none of that size.
TEST_F(GradientPass, APartOfALargerPictureShowsItsRowsOfIt)
{
    const QColor top(255, 10, 0, 51);
    const QColor bottom(0, 200, 128, 204);
    pass.setInput(kColorTop, top);
    pass.setInput(kColorBottom, bottom);
    for (const int rows : {200, 60000}) {
        SCOPED_TRACE(rows);
        const int firstRow = rows / 3;
        const Image<float> whole = gradient(1, rows, top, bottom);
        Image<float> expected(12, 40);
        for (int y = 0; y < 40; ++y)
            for (int x = 0; x < 12; ++x)
                expected.at(x, y) = whole.at(0, firstRow + y);
        const PictureWindowScope part({5, firstRow, 30, rows});
        ASSERT_EQ(PictureWindow::current().fitsViewport(), rows == 200);
        runFrame(pass);
        EXPECT_TRUE(sameImage(readTexture<float>(frame()), expected, within(kInterpolation)));
    }
}

TEST_F(GradientPass, TargetIsRgba32fWithNearestFilters)
{
    GlCalls calls;
    runFrame(pass);
    EXPECT_TRUE(isTarget(frame(), GL_RGBA32F, 12, 40));
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA32F, 12, 40, 0, GL_BGRA, GL_FLOAT, 0}), 1);
    EXPECT_EQ(calls.textureAllocations(), 1);
}

TEST_F(GradientPass, SizeOfTheTargetCountsBothCornersAndIgnoresTheOrigin)
{
    QRect viewport;
    viewport.setCoords(10, 20, 14, 26);
    pass.setInput(kViewport, viewport);
    runFrame(pass);
    EXPECT_TRUE(isTarget(frame(), GL_RGBA32F, 5, 7));
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), gradient(5, 7, QColor(64, 64, 64), QColor(153, 153, 153)),
                          within(kInterpolation)));
}

TEST_F(GradientPass, WithoutABottomColourTheTopColourFillsTheTarget)
{
    pass.setInput(kColorTop, QColor(10, 20, 30));
    pass.setInput(kColorBottom, QVariant());
    runFrame(pass);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(10, 20, 30)), within(1e-7)));
}

TEST_F(GradientPass, SolidFillIsOpaqueWhateverAlphaItsColourHas)
{
    pass.setInput(kColorTop, QColor(200, 100, 50, 17));
    pass.setInput(kColorBottom, QVariant());
    GlCalls calls;
    runFrame(pass);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(200, 100, 50)), within(1e-7)));
    ASSERT_EQ(calls.count("glClearColor"), 1);
    const auto clearColor = calls.calls("glClearColor").front().args;
    EXPECT_FLOAT_EQ(float(clearColor[0]), float(200 / 255.0));
    EXPECT_EQ(clearColor[3], 1.0);
    EXPECT_EQ(calls.draws(), 0) << "no shader runs on the solid path";
}

TEST_F(GradientPass, WithoutATopColourNothingIsDrawnAndTheTargetKeepsItsContent)
{
    pass.setInput(kColorTop, QColor(255, 0, 0));
    pass.setInput(kColorBottom, QVariant());
    runFrame(pass);

    for (const QVariant &bottom : {QVariant(), QVariant(QColor(0, 0, 255))}) {
        pass.setInput(kColorTop, QVariant());
        pass.setInput(kColorBottom, bottom);
        GlCalls calls;
        runFrame(pass);
        EXPECT_EQ(calls.draws(), 0);
        EXPECT_EQ(calls.count("glClear"), 0);
        EXPECT_EQ(calls.count("glViewport"), 0);
        EXPECT_EQ(calls.count("glDisable"), 0);
        EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(255, 0, 0)), within(1e-7)));
    }
}

TEST_F(GradientPass, WithoutATopColourTheOutputStillNamesTheTargetOfTheNewSize)
{
    pass.setInput(kColorTop, QVariant());
    runFrame(pass);
    EXPECT_TRUE(isTarget(frame(), GL_RGBA32F, 12, 40));
    pass.setInput(kViewport, QRect(0, 0, 3, 2));
    runFrame(pass);
    EXPECT_TRUE(isTarget(frame(), GL_RGBA32F, 3, 2));
}

TEST_F(GradientPass, AValueThatIsNoColourReadsAsBlack)
{
    pass.setInput(kColorTop, 42);
    pass.setInput(kColorBottom, QVariant());
    runFrame(pass);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(0, 0, 0)), within(0)));

    pass.setInput(kColorTop, QColor(255, 255, 255));
    pass.setInput(kColorBottom, QSize(1, 2));
    runFrame(pass);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), gradient(12, 40, Qt::white, Qt::black), within(kInterpolation)));
}

TEST_F(GradientPass, SolidFillIgnoresAScissorTestAndSwitchesItOff)
{
    pass.setInput(kColorTop, QColor(1, 2, 3));
    pass.setInput(kColorBottom, QVariant());
    glEnable(GL_SCISSOR_TEST);
    glScissor(3, 3, 2, 2);
    runFrame(pass);
    EXPECT_FALSE(glIsEnabled(GL_SCISSOR_TEST));
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(1, 2, 3)), within(1e-7)));
}

TEST_F(GradientPass, GradientRespectsAScissorTestAndLeavesItOn)
{
    pass.setInput(kColorBottom, QVariant());
    pass.setInput(kColorTop, QColor(255, 0, 0));
    runFrame(pass);

    pass.setInput(kColorTop, QColor(0, 0, 255));
    pass.setInput(kColorBottom, QColor(0, 255, 0));
    glEnable(GL_SCISSOR_TEST);
    glScissor(3, 5, 4, 6);
    runFrame(pass);
    EXPECT_TRUE(glIsEnabled(GL_SCISSOR_TEST));

    Image<float> expected = solid(12, 40, QColor(255, 0, 0));
    const Image<float> inside = gradient(12, 40, QColor(0, 0, 255), QColor(0, 255, 0));
    for (int y = 5; y < 11; ++y)
        for (int x = 3; x < 7; ++x)
            expected.at(x, y) = inside.at(x, y);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), expected, within(kInterpolation)));
}

TEST_F(GradientPass, GradientIsRightInAnyStateAndChangesOnlyWhatItSays)
{
    const HostileGLState hostile;
    glDisable(GL_SCISSOR_TEST);
    const GLStateSnapshot before;
    runFrame(pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, depth test, stencil test, blending, face culling, colour mask"));
    GLint viewport[4];
    glGetIntegerv(GL_VIEWPORT, viewport);
    EXPECT_EQ(std::vector<int>(viewport, viewport + 4), (std::vector<int>{0, 0, 12, 40}));
    GLboolean mask[4];
    glGetBooleanv(GL_COLOR_WRITEMASK, mask);
    EXPECT_TRUE(mask[0] && mask[1] && mask[2] && mask[3]);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), gradient(12, 40, QColor(64, 64, 64), QColor(153, 153, 153)),
                          within(kInterpolation)));
}

TEST_F(GradientPass, SolidFillIsRightInAnyStateAndChangesOnlyWhatItSays)
{
    pass.setInput(kColorBottom, QVariant());
    const HostileGLState hostile;
    const GLStateSnapshot before;
    runFrame(pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before).join(QStringLiteral(", ")),
              QStringLiteral("viewport, clear colour, depth test, stencil test, scissor test, blending, face culling, "
                             "colour mask"));
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(64, 64, 64)), within(1e-7)));
}

TEST_F(GradientPass, GradientSetsItsStateBeforeItDraws)
{
    runFrame(pass);
    GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.sequence({"glViewport", "glDisable", "glColorMask", "glUniform4fv", "glDrawArrays", "glClear"})
                  .join(u' '),
              QStringLiteral("glViewport glDisable glDisable glDisable glDisable glColorMask glUniform4fv glUniform4fv "
                             "glDrawArrays"));
    const auto disabled = calls.calls("glDisable");
    EXPECT_EQ(disabled[0].args[0], GL_DEPTH_TEST);
    EXPECT_EQ(disabled[1].args[0], GL_STENCIL_TEST);
    EXPECT_EQ(disabled[2].args[0], GL_BLEND);
    EXPECT_EQ(disabled[3].args[0], GL_CULL_FACE);
    EXPECT_EQ(calls.count("glViewport", {0, 0, 12, 40}), 1);
}

TEST_F(GradientPass, SolidFillSetsItsStateBeforeItClears)
{
    pass.setInput(kColorBottom, QVariant());
    runFrame(pass);
    GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(calls.sequence({"glViewport", "glDisable", "glColorMask", "glClearColor", "glClear", "glDrawArrays"})
                  .join(u' '),
              QStringLiteral("glViewport glDisable glDisable glDisable glDisable glColorMask glDisable glClearColor "
                             "glClear"));
    EXPECT_EQ(calls.calls("glDisable").back().args[0], GL_SCISSOR_TEST);
    EXPECT_EQ(calls.count("glClear", {GL_COLOR_BUFFER_BIT}), 1);
}

TEST_F(GradientPass, ChangeOfSizeReplacesTheTextureObject)
{
    runFrame(pass);
    const QPointer<Texture> before = frame();
    pass.setInput(kViewport, QRect(0, 0, 13, 40));
    runFrame(pass);
    EXPECT_TRUE(before.isNull()) << "the old texture is deleted";
    EXPECT_TRUE(isTarget(frame(), GL_RGBA32F, 13, 40));
}

TEST_F(GradientPass, AnotherOriginOfTheSameSizeKeepsTheTexture)
{
    runFrame(pass);
    Texture *const before = frame();
    pass.setInput(kViewport, QRect(5, 6, 12, 40));
    GlCalls calls;
    runFrame(pass);
    EXPECT_EQ(frame(), before);
    EXPECT_EQ(calls.textureAllocations(), 0);
}

TEST_F(GradientPass, TwoStartsAtOneSizeAllocateOnce)
{
    expectSecondStartAllocatesNothing(pass, 1);
}

TEST_F(GradientPass, AViewportThatChangesEveryFrameRebuildsTheTargetAndLeaksNothing)
{
    expectResizingLeaksNothing(pass, 1);
}

TEST_F(GradientPass, SteadyFrameCreatesNothing)
{
    expectSteadyFrameCreatesNothing(pass);
}

TEST_F(GradientPass, SteadyFrameTakesNothingFromTheHeap)
{
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(pass);
}

TEST_F(GradientPass, WithNothingConnectedTheTargetHasNoPixelsAndNoErrorOccurs)
{
    GradientRenderPass unconnected;
    GlCalls calls;
    runFrame(unconnected);
    EXPECT_EQ(calls.count("glTexImage2D", {GL_TEXTURE_2D, 0, GL_RGBA32F, 0, 0}), 1) << qPrintable(calls.toString());
    EXPECT_TRUE(isTarget(outputTexture(unconnected, 0), GL_RGBA32F, 0, 0));
    EXPECT_EQ(unconnected.errorCode(), 0u);
}

TEST_F(GradientPass, AnEmptyViewportRaisesNoGLErrorOnEitherPath)
{
    for (const QVariant &bottom : {QVariant(), QVariant(QColor(1, 2, 3))}) {
        pass.setInput(kColorBottom, bottom);
        expectEmptyViewportsRaiseNoError(pass);
    }
    pass.setInput(kViewport, QRect(0, 0, 2, 2));
    pass.setInput(kColorTop, QColor(0, 255, 0));
    pass.setInput(kColorBottom, QVariant());
    runFrame(pass);
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(2, 2, QColor(0, 255, 0)), within(0))) << "and it recovers";
}

TEST_F(GradientPass, AFailedDrawRecordsMinusOneAndKeepsTheOldContent)
{
    pass.setInput(kColorTop, QColor(255, 0, 0));
    pass.setInput(kColorBottom, QVariant());
    runFrame(pass);
    const auto quad = OpenGLDeviceContext::current()->gradientQuad();
    const auto vertices = quad->VAO();
    quad->setVAO({});
    pass.setInput(kColorBottom, QColor(0, 255, 0));
    runFrame(pass);
    quad->setVAO(vertices);
    EXPECT_EQ(pass.errorCode(), unsigned(-1));
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(255, 0, 0)), within(0)));

    pass.setErrorCode(0);
    runFrame(pass);
    EXPECT_EQ(pass.errorCode(), 0u) << "a draw that works records nothing";
}

TEST_F(GradientPass, AProgramThatDoesNotLinkDrawsNothingAndRecordsMinusOne)
{
    const auto link = epoxy_glLinkProgram;
    epoxy_glLinkProgram = [](GLuint) {};
    pass.setInput(kColorTop, QColor(255, 0, 0));
    pass.setInput(kColorBottom, QVariant());
    runFrame(pass);
    EXPECT_EQ(pass.errorCode(), 0u) << "the solid path needs no program";

    pass.setInput(kColorBottom, QColor(0, 255, 0));
    runFrame(pass);
    epoxy_glLinkProgram = link;
    EXPECT_EQ(pass.errorCode(), unsigned(-1));
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(255, 0, 0)), within(0)));

    // A driver that gave no reason is asked again.
    pass.setErrorCode(0);
    runFrame(pass);
    EXPECT_EQ(pass.errorCode(), 0u);
    EXPECT_FALSE(isSameImage(readTexture<float>(frame()), solid(12, 40, QColor(255, 0, 0)), within(0)));
}

TEST_F(GradientPass, ACopyOfAnUnstartedPassIsIndependent)
{
    pass.setInput(kColorTop, QColor(255, 0, 0));
    pass.setInput(kColorBottom, QVariant());
    GradientRenderPass copy(pass);
    GradientRenderPass assigned;
    assigned = pass;
    copy.setInput(kColorTop, QColor(0, 255, 0));
    assigned.setInput(kViewport, QRect(0, 0, 3, 3));
    runFrame(pass);
    runFrame(copy);
    runFrame(assigned);
    EXPECT_NE(frame(), outputTexture(copy, 0));
    EXPECT_TRUE(sameImage(readTexture<float>(frame()), solid(12, 40, QColor(255, 0, 0)), within(0)));
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(copy, 0)), solid(12, 40, QColor(0, 255, 0)), within(0)));
    EXPECT_TRUE(sameImage(readTexture<float>(outputTexture(assigned, 0)), solid(3, 3, QColor(255, 0, 0)), within(0)));
}

TEST_F(GradientPass, TeardownKeepsEverythingAndTheNextStartWorks)
{
    expectTeardownKeepsEverything(pass);
}

TEST_F(GradientPass, DestructionFreesFramebufferProgramAndTarget)
{
    const auto device = OpenGLDeviceContext::current();
    const int givenUp = device->givenUpCount();
    // The quad belongs to the context and stays.
    const auto quad = device->gradientQuad();
    quad->bind();
    quad->unbind();
    const int programs = GlCalls::live(GlKind::Program);
    const int framebuffers = GlCalls::live(GlKind::Framebuffer);
    const int textures = GlCalls::live(GlKind::Texture);
    QPointer<Texture> target;
    {
        GradientRenderPass other(GradientRenderPass{});
        other.setInput(kViewport, QRect(0, 0, 4, 4));
        runFrame(other);
        target = outputTexture(other, 0);
        EXPECT_EQ(GlCalls::live(GlKind::Program), programs + 1);
        EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers + 1);
        EXPECT_EQ(GlCalls::live(GlKind::Texture), textures + 1);
    }
    EXPECT_TRUE(target.isNull());
    EXPECT_EQ(GlCalls::live(GlKind::Program), programs);
    EXPECT_EQ(GlCalls::live(GlKind::Framebuffer), framebuffers);
    EXPECT_EQ(GlCalls::live(GlKind::Texture), textures);
    EXPECT_EQ(device->givenUpCount(), givenUp);
}
