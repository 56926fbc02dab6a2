// Contexts that the library cannot work with. No GLTest here: these contexts come out of a driver that
// is told to offer an older OpenGL, which it reads once per process.

#include "support/glcontext.h"
#include "support/messages.h"

#include <gl/glinfo.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>

#include <QColor>

#include <epoxy/gl.h>
#include <gtest/gtest.h>

namespace Brevane::Kvo {

using namespace Test;

namespace {

class OldContextTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { qputenv("MESA_GL_VERSION_OVERRIDE", "2.1"); }
};

void expectRefused(GLContext &context)
{
    MessageCapture messages;
    ASSERT_TRUE(context.makeCurrent());
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(OpenGLDeviceContext::current().isNull());
    ASSERT_EQ(messages.count(QtCriticalMsg), 1) << "reported once: " << qPrintable(messages.texts().join(u'\n'));
    const QString text = messages.texts(QtCriticalMsg).first();
    EXPECT_TRUE(text.contains(QStringLiteral("3.2"))) << qPrintable(text);
    EXPECT_TRUE(text.contains(QString::fromUtf8(reinterpret_cast<const char *>(glGetString(GL_VERSION)))))
        << qPrintable(text);

    Texture texture;
    texture.setTarget(GL_TEXTURE_2D);
    EXPECT_FALSE(texture.bind());
    EXPECT_EQ(TextureManager::Instance().tempTexture(TextureFormat::Frame, 4, 4), nullptr);
    EXPECT_EQ(TextureManager::Instance().solidTexture(Qt::red), nullptr);
    EXPECT_FALSE(hasGLExtension("GL_ARB_framebuffer_object"));
    OpenGLDeviceContext::releaseCurrent();
    EXPECT_EQ(messages.count(QtCriticalMsg), 1);
}

} // namespace

TEST_F(OldContextTest, OpenGL21IsRefusedWithOneMessageThatSaysWhatWasFound)
{
    GLContext::Options options;
    options.major = 2;
    options.minor = 1;
    GLContext context(options);
    ASSERT_TRUE(context.isValid()) << qPrintable(context.error());
    ASSERT_TRUE(context.makeCurrent());
    if (epoxy_gl_version() >= 32)
        GTEST_SKIP() << "missing: a driver that can be told to offer OpenGL 2.1";
    expectRefused(context);
}

TEST_F(OldContextTest, OpenGLESIsRefusedWithOneMessageThatSaysWhatWasFound)
{
    GLContext::Options options;
    options.es = true;
    options.major = 3;
    options.minor = 0;
    GLContext context(options);
    ASSERT_TRUE(context.isValid()) << qPrintable(context.error());
    expectRefused(context);
}

} // namespace Brevane::Kvo
