// Contexts made through Qt, on GLX and on EGL, under a virtual X server. One process can load one of
// the two, so this binary runs itself once for each.

#include "support/draw.h"
#include "support/glcalls.h"
#include "support/messages.h"

#include <gl/glinfo.h>
#include <gl/opengldevicecontext.h>
#include <gl/texturemanager.h>

#include <epoxy/gl.h>

#include <QColor>
#include <QGuiApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QProcess>
#include <QStandardPaths>
#include <QSurfaceFormat>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

namespace Brevane::Kvo {

using namespace Test;

namespace {

const QString kHalf = QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(0.5); }\n");

class QtContextTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QSurfaceFormat format;
        format.setVersion(3, 2);
        format.setProfile(QSurfaceFormat::CoreProfile);
        QSurfaceFormat::setDefaultFormat(format);
        surface.create();
        ASSERT_TRUE(surface.isValid());
    }

    std::unique_ptr<QOpenGLContext> makeContext(QOpenGLContext *share = nullptr)
    {
        auto context = std::make_unique<QOpenGLContext>();
        context->setShareContext(share);
        EXPECT_TRUE(context->create());
        EXPECT_TRUE(context->makeCurrent(&surface));
        return context;
    }

    static void draw()
    {
        const auto program = makeProgram(kHalf);
        Target target(GL_RGBA32F, 2, 2);
        drawScreen(target, program.get());
        EXPECT_TRUE(isPixel(target.read(), 1, 1, {0.5, 0.5, 0.5, 0.5}, 0));
    }

    QOffscreenSurface surface;
};

} // namespace

TEST_F(QtContextTest, LibraryWorksInAContextThatQtMade)
{
    const auto context = makeContext();
    ASSERT_FALSE(OpenGLDeviceContext::current().isNull());
    EXPECT_GE(OpenGLDeviceContext::current()->version(), 32);
    EXPECT_TRUE(hasGLExtension("GL_ARB_texture_float") || epoxy_gl_version() >= 32);
    draw();
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    OpenGLDeviceContext::releaseCurrent();
    EXPECT_EQ(GlCalls::live(), 0) << qPrintable(GlCalls::liveObjects().join(u'\n'));
}

TEST_F(QtContextTest, ContextThatQtDestroysIsReleasedByItself)
{
    auto context = makeContext();
    draw();
    auto texture = makeTexture(GL_RGBA8, 2, 2);
    TextureManager::Instance().solidTexture(Qt::red);
    EXPECT_GT(GlCalls::live(), 0);
    context->doneCurrent();
    context.reset();
    EXPECT_EQ(GlCalls::live(), 0) << "all objects went with the context";
    EXPECT_EQ(texture->textureID(), 0u);
}

TEST_F(QtContextTest, DestroyingOneContextKeepsTheOtherOfItsGroup)
{
    auto first = makeContext();
    const quint64 group = OpenGLDeviceContext::current()->shareGroup();
    const auto texture = makeSolidTexture(2, 2, {0.25f, 0.5f, 0.75f, 1});
    glFinish();
    auto second = makeContext(first.get());
    EXPECT_EQ(OpenGLDeviceContext::current()->shareGroup(), group);
    EXPECT_TRUE(isPixel(readTexture<float>(texture.get()), 1, 1, {0.25, 0.5, 0.75, 1}, 0));
    first.reset();
    ASSERT_EQ(QOpenGLContext::currentContext(), second.get()) << "the one that was current stays so";
    EXPECT_TRUE(isPixel(readTexture<float>(texture.get()), 1, 1, {0.25, 0.5, 0.75, 1}, 0));
    draw();
    second.reset();
    EXPECT_EQ(GlCalls::live(), 0);
    EXPECT_EQ(texture->textureID(), 0u);
}

TEST_F(QtContextTest, UnsharedContextsAreKeptApart)
{
    auto first = makeContext();
    Texture *one = TextureManager::Instance().tempTexture(TextureFormat::Frame, 4, 4);
    TextureManager::Instance().releaseTempTextureRef(one, 1);
    auto second = makeContext();
    EXPECT_EQ(TextureManager::Instance().statistics().textures, 0);
    draw();
    second.reset();
    ASSERT_TRUE(first->makeCurrent(&surface));
    EXPECT_EQ(TextureManager::Instance().statistics().textures, 1);
    first.reset();
    EXPECT_EQ(GlCalls::live(), 0);
}

TEST_F(QtContextTest, DestroyingAContextLeavesAStrangerCurrent)
{
    auto first = makeContext();
    const auto texture = makeTexture(GL_RGBA8, 2, 2);
    draw();
    auto second = makeContext();
    draw();
    first.reset();
    ASSERT_EQ(QOpenGLContext::currentContext(), second.get());
    EXPECT_EQ(QOpenGLContext::currentContext()->surface(), &surface);
    EXPECT_EQ(texture->textureID(), 0u);
    draw();
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    second.reset();
    EXPECT_EQ(GlCalls::live(), 0) << qPrintable(GlCalls::liveObjects().join(u'\n'));
}

TEST_F(QtContextTest, DestroyingAContextWithNoneCurrentLeavesNone)
{
    auto context = makeContext();
    draw();
    context->doneCurrent();
    context.reset();
    EXPECT_EQ(QOpenGLContext::currentContext(), nullptr);
    EXPECT_EQ(GlCalls::live(), 0);
}

TEST_F(QtContextTest, TwentyContextsOpenedAndClosedLeakNothing)
{
    for (int i = 0; i < 20; ++i) {
        const auto context = makeContext();
        draw();
    }
    EXPECT_EQ(GlCalls::live(), 0);
}

} // namespace Brevane::Kvo

#ifdef __SANITIZE_ADDRESS__
// Qt's platform plugins and the drivers under them are unloaded at exit with memory that only their
// variables pointed to (240 bytes here). Kept loaded, that memory stays reachable, and a leak of ours
// keeps its stack.
extern "C" Q_DECL_EXPORT int dlclose(void *)
{
    return 0;
}
#endif

namespace {

int runTests(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    const QGuiApplication application(argc, argv);
    Brevane::Kvo::Test::MessageCapture::install();
    Brevane::Kvo::Test::GlCalls::install();
    return RUN_ALL_TESTS();
}

int runUnderEach(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QString server = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
    if (server.isEmpty()) {
        std::puts("[  SKIPPED ] missing: Xvfb, a virtual X server");
        return 77;
    }
    QProcess display;
    display.setStandardErrorFile(QProcess::nullDevice());
    display.start(server, {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                           QStringLiteral("0"), QStringLiteral("64x64x24")});
    if (!display.waitForReadyRead(20000)) {
        std::puts("[  SKIPPED ] missing: an X server that starts");
        return 77;
    }
    const QString number = QString::fromLatin1(display.readAllStandardOutput()).trimmed();
    QStringList arguments = QCoreApplication::arguments().mid(1);
    arguments.append(QStringLiteral("--under-x"));
    int result = 0;
    for (const char *integration : {"xcb_glx", "xcb_egl"}) {
        std::printf("[ contexts ] %s\n", integration);
        std::fflush(stdout);
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DISPLAY"), u':' + number);
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        environment.insert(QStringLiteral("QT_XCB_GL_INTEGRATION"), QLatin1String(integration));
        child.setProcessEnvironment(environment);
        child.setProcessChannelMode(QProcess::ForwardedChannels);
        child.start(QCoreApplication::applicationFilePath(), arguments);
        child.waitForFinished(300000);
        result = std::max(result, child.exitStatus() == QProcess::NormalExit ? child.exitCode() : 1);
    }
    display.terminate();
    display.waitForFinished();
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && qstrcmp(argv[argc - 1], "--under-x") == 0)
        return runTests(argc - 1, argv);
    return runUnderEach(argc, argv);
}
