#include "support/gltest.h"

#include <gl/drawbuffers.h>
#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/texturemanager.h>

#include <QSharedPointer>

#include <epoxy/gl.h>

#include <memory>

namespace Brevane::Kvo::Test {

namespace {

std::unique_ptr<GLContext> mainContext;

class GLEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        mainContext = std::make_unique<GLContext>();
        ASSERT_TRUE(mainContext->isValid()) << qPrintable(mainContext->error());
        ASSERT_TRUE(mainContext->makeCurrent());
        GlCalls::install();
        std::printf("[ context  ] %s, OpenGL %s\n", reinterpret_cast<const char *>(glGetString(GL_RENDERER)),
                    reinterpret_cast<const char *>(glGetString(GL_VERSION)));
    }

    void TearDown() override
    {
        if (!mainContext->makeCurrent())
            return;
        OpenGLDeviceContext::releaseCurrent();
        EXPECT_EQ(GlCalls::live(), 0) << "not deleted:\n" << qPrintable(GlCalls::liveObjects().join(u'\n'));
        EXPECT_EQ(GlCalls::unknownDeletions(), 0) << "names were deleted that nobody had generated";
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
        mainContext.reset();
    }
};

[[maybe_unused]] const ::testing::Environment *const registered =
    ::testing::AddGlobalTestEnvironment(new GLEnvironment);

} // namespace

GLContext &GLTest::context()
{
    return *mainContext;
}

GLTest::GLTest()
    : _shaderFailures([](const ShaderFailure &failure) {
          std::printf("[ shader   ] '%s' failed to %s:\n%s\n", qPrintable(failure.label),
                      failure.whileLinking ? "link" : "compile", qPrintable(failure.log));
      })
{}

void GLTest::SetUp()
{
    ASSERT_TRUE(mainContext && mainContext->makeCurrent());
    resetGLState();
    const auto device = OpenGLDeviceContext::current();
    ASSERT_TRUE(device);
    // these are made on demand and stay, so they are no test's leak
    device->screenQuad()->bind();
    device->screenQuad()->unbind();
    device->freeGivenUp();
    _before = liveObjects();
}

void GLTest::TearDown()
{
    if (!mainContext || !mainContext->makeCurrent())
        return;
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    TextureManager &manager = TextureManager::Instance();
    const QStringList references = _leakedReferencesExpected ? QStringList() : manager.leakedReferences();
    EXPECT_TRUE(references.isEmpty()) << "pool references left:\n" << qPrintable(references.join(u'\n'));

    const Objects now = liveObjects();
    const int givenUp = now.givenUp - _before.givenUp;
    const auto text = [] { return GlCalls::liveObjects().join(u'\n').toStdString(); };
    EXPECT_LE(now.programs - _before.programs, givenUp) << "left behind:\n" << text();
    EXPECT_LE(now.framebuffers - _before.framebuffers, givenUp) << "left behind:\n" << text();
    EXPECT_LE(now.textures - _before.textures, givenUp) << "left behind:\n" << text();
    if (givenUp == 0) {
        // a piece of geometry that was given up holds any number of these
        EXPECT_EQ(now.buffers, _before.buffers) << "left behind:\n" << text();
        EXPECT_EQ(now.vertexArrays, _before.vertexArrays) << "left behind:\n" << text();
    }
    EXPECT_EQ(now.others, _before.others) << "left behind:\n" << text();
    EXPECT_EQ(now.unknownDeletions, _before.unknownDeletions) << "names were deleted that nobody had generated";
}

GLTest::Objects GLTest::liveObjects()
{
    TextureManager::Instance().trim(-1);
    const auto managedTable = QStringLiteral("managed texture table");
    const auto isCached = [](const QString &label) {
        return label.startsWith(QStringLiteral("solid ")) || label.startsWith(QStringLiteral("managed texture"))
               || label.startsWith(QStringLiteral("no managed texture")) || label.startsWith(QStringLiteral("pool "))
               || label.contains(u'/');
    };
    Objects objects;
    objects.programs = GlCalls::live(GlKind::Program) + GlCalls::live(GlKind::Shader);
    objects.framebuffers = GlCalls::live(GlKind::Framebuffer);
    objects.textures = GlCalls::live(GlKind::Texture, [&](const QString &label) { return !isCached(label); });
    // the managed textures' table is a buffer and a texture
    objects.buffers = GlCalls::live(GlKind::Buffer)
                      - GlCalls::live(GlKind::Texture, [&](const QString &label) { return label == managedTable; });
    objects.vertexArrays = GlCalls::live(GlKind::VertexArray);
    for (const GlKind kind : {GlKind::Query, GlKind::Sync, GlKind::Sampler, GlKind::Renderbuffer})
        objects.others += GlCalls::live(kind);
    objects.givenUp = OpenGLDeviceContext::current()->givenUpCount();
    objects.unknownDeletions = GlCalls::unknownDeletions();
    return objects;
}

void resetGLState()
{
    const GlCalls::Pause pause;
    while (glGetError() != GL_NO_ERROR) {
    }
    glUseProgram(0);
    glBindVertexArray(0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glActiveTexture(GL_TEXTURE0);
    for (GLenum capability : {GL_DEPTH_TEST, GL_STENCIL_TEST, GL_BLEND, GL_CULL_FACE, GL_SCISSOR_TEST,
                              GL_POLYGON_OFFSET_FILL, GL_FRAMEBUFFER_SRGB, GL_PRIMITIVE_RESTART})
        glDisable(capability);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
    glDepthMask(GL_TRUE);
    glStencilMask(~0u);
    glStencilFunc(GL_ALWAYS, 0, ~0u);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    glDepthFunc(GL_LESS);
    glCullFace(GL_BACK);
    glFrontFace(GL_CCW);
    glBlendFunc(GL_ONE, GL_ZERO);
    glBlendEquation(GL_FUNC_ADD);
    glBlendColor(0, 0, 0, 0);
    glClearColor(0, 0, 0, 0);
    glClearDepth(1);
    glClearStencil(0);
    glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
    glPointSize(1);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    for (GLenum target : {GL_ARRAY_BUFFER, GL_PIXEL_UNPACK_BUFFER, GL_PIXEL_PACK_BUFFER})
        glBindBuffer(target, 0);
}

} // namespace Brevane::Kvo::Test
