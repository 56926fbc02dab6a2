#include "support/gltest.h"

#include <gl/framebufferobject.h>
#include <gl/opengldevicecontext.h>
#include <host/headlesscontext.h>
#include <host/screentarget.h>
#include <host/versiondetails.h>

#include <epoxy/gl.h>

#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

class Headless : public GLTest
{
protected:
    void TearDown() override
    {
        context().makeCurrent();
        GLTest::TearDown();
    }
};

} // namespace

TEST_F(Headless, GivesACoreContextThatIsCurrent)
{
    QString error;
    const std::unique_ptr<HeadlessContext> headless = HeadlessContext::create(&error);
    ASSERT_NE(headless, nullptr) << qPrintable(error);
    EXPECT_TRUE(headless->isCurrent());
    ASSERT_NE(OpenGLDeviceContext::current(), nullptr);
    EXPECT_GE(OpenGLDeviceContext::current()->version(), 32);
    GLint profile = 0;
    glGetIntegerv(GL_CONTEXT_PROFILE_MASK, &profile);
    EXPECT_EQ(profile, GL_CONTEXT_CORE_PROFILE_BIT);
    EXPECT_TRUE(headless->platform().startsWith(QStringLiteral("EGL 1."))) << qPrintable(headless->platform());
}

TEST_F(Headless, SaysWhichVersionIsNotToBeHad)
{
    QString error;
    HeadlessContext::Options options;
    options.major = 9;
    options.minor = 9;
    EXPECT_EQ(HeadlessContext::create(options, &error), nullptr);
    EXPECT_TRUE(error.startsWith(QStringLiteral("no OpenGL 9.9 context without a window: "))) << qPrintable(error);
}

TEST_F(Headless, SeveralLiveAtOnce)
{
    QString error;
    const std::unique_ptr<HeadlessContext> first = HeadlessContext::create(&error);
    std::unique_ptr<HeadlessContext> second = HeadlessContext::create(&error);
    ASSERT_TRUE(first && second) << qPrintable(error);
    EXPECT_TRUE(second->isCurrent());
    second.reset();
    EXPECT_EQ(OpenGLDeviceContext::current(), nullptr);
    EXPECT_TRUE(first->makeCurrent());
    EXPECT_NE(OpenGLDeviceContext::current(), nullptr);
}

TEST_F(Headless, TakesWhatLivedInItWithIt)
{
    QString error;
    const int before = GlCalls::live();
    {
        const std::unique_ptr<HeadlessContext> headless = HeadlessContext::create(&error);
        ASSERT_NE(headless, nullptr) << qPrintable(error);
        OpenGLDeviceContext::current()->screenQuad();
        ScreenTarget screen;
        ASSERT_TRUE(screen.resize(QSize(8, 8), &error)) << qPrintable(error);
        EXPECT_GT(GlCalls::live(), before);
    }
    EXPECT_EQ(GlCalls::live(), before);
}

TEST_F(Headless, AScreenIsClearedAndRead)
{
    ScreenTarget screen;
    QString error;
    ASSERT_TRUE(screen.resize(QSize(5, 3), &error)) << qPrintable(error);
    screen.clear(QColor(10, 20, 30, 40));
    const QImage image = screen.image(&error);
    EXPECT_EQ(image.size(), QSize(5, 3));
    EXPECT_EQ(image.pixel(4, 2), qRgba(10, 20, 30, 40));
    screen.clear();
    EXPECT_EQ(screen.image().pixel(0, 0), 0u);
}

TEST_F(Headless, AScreenIsUprightWhenRead)
{
    ScreenTarget screen;
    ASSERT_TRUE(screen.resize(QSize(2, 2)));
    screen.clear(Qt::black);
    ASSERT_TRUE(screen.framebuffer()->bind());
    glEnable(GL_SCISSOR_TEST);
    glScissor(0, 0, 1, 1);
    glClearColor(1, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT);
    glDisable(GL_SCISSOR_TEST);
    screen.framebuffer()->unbind();
    EXPECT_EQ(screen.image().pixel(0, 1), qRgb(255, 0, 0)) << "bottom left";
    EXPECT_EQ(screen.image().pixel(0, 0), qRgb(0, 0, 0));
}

TEST_F(Headless, AScreenOfAnImpossibleSizeIsRefused)
{
    ScreenTarget screen;
    GLint limit = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &limit);
    QString error;
    for (const QSize &size : {QSize(0, 5), QSize(5, -1), QSize(limit + 1, 1)}) {
        EXPECT_FALSE(screen.resize(size, &error));
        EXPECT_TRUE(error.contains(QStringLiteral("each side has to be from 1 to %1").arg(limit))) << qPrintable(error);
    }
}

TEST_F(Headless, VersionDetailsNameTheDriverAndLeaveTheContextCurrent)
{
    const auto text = [](GLenum name) { return QString::fromUtf8(reinterpret_cast<const char *>(glGetString(name))); };
    const VersionDetails details = versionDetails();
    EXPECT_TRUE(context().isCurrent());
    EXPECT_EQ(details.library, libraryVersion());
    EXPECT_EQ(details.library, QStringLiteral(KVO_VERSION));
    EXPECT_EQ(details.qtBuilt, QStringLiteral(QT_VERSION_STR));
    EXPECT_EQ(details.qtRunning, QString::fromLatin1(qVersion()));
    EXPECT_EQ(details.glVendor, text(GL_VENDOR));
    EXPECT_EQ(details.glRenderer, text(GL_RENDERER));
    EXPECT_EQ(details.glVersion, text(GL_VERSION));
    EXPECT_EQ(details.glMissing, QString());
    EXPECT_EQ(details.text(), QStringLiteral("%1\nQt %2, built with %3\nOpenGL %4\nvendor %5\nrenderer %6\n")
                                  .arg(details.library, details.qtRunning, details.qtBuilt, details.glVersion,
                                       details.glVendor, details.glRenderer));
}

TEST_F(Headless, VersionDetailsSayWhyThereIsNoDriver)
{
    VersionDetails details{.library = QStringLiteral("1.2.3"), .qtBuilt = QStringLiteral("6.4.2")};
    details.qtRunning = QStringLiteral("6.5.0");
    details.glMissing = QStringLiteral("no driver");
    EXPECT_EQ(details.text(), QStringLiteral("1.2.3\nQt 6.5.0, built with 6.4.2\nOpenGL: none here: no driver\n"));
}
