#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"

#include <gl/bufferobject.h>
#include <gl/contextscope.h>
#include <gl/drawbuffers.h>
#include <gl/framebufferobject.h>
#include <gl/glinfo.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/texturemanager.h>
#include <gl/vertexarrayobject.h>

#include <QColor>
#include <QImage>
#include <QPointer>

#include <epoxy/gl.h>

#include <memory>
#include <vector>

namespace Brevane::Kvo {

using namespace Test;

namespace {

const QString kHalf = QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(0.5); }\n");

QSharedPointer<OpenGLDeviceContext> device()
{
    return OpenGLDeviceContext::current();
}

GLContext::Options sharedWith(const GLContext &context)
{
    GLContext::Options options;
    options.share = &context;
    return options;
}

/// Draws something with everything that the device context hands out.
void drawSomething()
{
    const auto program = makeProgram(kHalf);
    Target target(GL_RGBA8, 2, 2);
    drawScreen(target, program.get());
    EXPECT_TRUE(isPixel(target.read(), 1, 1, {0.5, 0.5, 0.5, 0.5}, 0.6 / 255));
}

} // namespace

class OpenGLDeviceContextTest : public GLTest
{};

TEST_F(OpenGLDeviceContextTest, SameContextHasOneDeviceContext)
{
    const auto first = device();
    ASSERT_TRUE(first);
    EXPECT_EQ(device(), first);
    EXPECT_GE(first->version(), 32);
    EXPECT_EQ(first->version(), epoxy_gl_version());
    EXPECT_TRUE(
        first->description().contains(QString::fromUtf8(reinterpret_cast<const char *>(glGetString(GL_RENDERER)))));
}

TEST_F(OpenGLDeviceContextTest, WithoutAContextThereIsNone)
{
    GLContext::doneCurrent();
    MessageCapture messages;
    EXPECT_TRUE(device().isNull());
    EXPECT_TRUE(messages.all().isEmpty());
    OpenGLDeviceContext::releaseCurrent();
}

TEST_F(OpenGLDeviceContextTest, QuadsAreMadeOncePerContext)
{
    const auto quad = device()->screenQuad();
    EXPECT_EQ(device()->screenQuad(), quad);
    GLContext second(sharedWith(context()));
    ASSERT_TRUE(second.makeCurrent());
    const auto other = device()->screenQuad();
    EXPECT_NE(other, quad);
    for (const char *attribute : {"va_Vertex", "va_TexCoord"}) {
        EXPECT_FALSE(quad->VAO()->bo(QLatin1String(attribute)).isNull());
        EXPECT_FALSE(other->VAO()->bo(QLatin1String(attribute)).isNull());
    }
    OpenGLDeviceContext::releaseCurrent();
}

TEST_F(OpenGLDeviceContextTest, HandsOutNewBuffersAndVertexArrays)
{
    EXPECT_NE(device()->createBufferObject(), device()->createBufferObject());
    EXPECT_NE(device()->createVertexArrayObject(), device()->createVertexArrayObject());
}

TEST_F(OpenGLDeviceContextTest, ContextsThatShareObjectsHaveOneShareGroup)
{
    const quint64 group = device()->shareGroup();
    {
        GLContext shared(sharedWith(context()));
        GLContext alone;
        ASSERT_TRUE(shared.makeCurrent());
        EXPECT_EQ(device()->shareGroup(), group);
        ASSERT_TRUE(alone.makeCurrent());
        EXPECT_NE(device()->shareGroup(), group);
        OpenGLDeviceContext::releaseCurrent();
        ASSERT_TRUE(shared.makeCurrent());
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_EQ(device()->shareGroup(), group);
}

TEST_F(OpenGLDeviceContextTest, UnsharedContextsDoNotExchangePoolTextures)
{
    TextureManager &manager = TextureManager::Instance();
    Texture *first = manager.tempTexture(TextureFormat::Frame, 8, 8);
    manager.releaseTempTextureRef(first, 1);
    Texture *firstSolid = manager.solidTexture(Qt::red);
    {
        GLContext alone;
        ASSERT_TRUE(alone.makeCurrent());
        EXPECT_EQ(manager.statistics().textures, 0);
        Texture *second = manager.tempTexture(TextureFormat::Frame, 8, 8);
        EXPECT_NE(second, first);
        EXPECT_NE(manager.solidTexture(Qt::red), firstSolid);
        EXPECT_FALSE(first->bind()) << "a texture of another share group";
        manager.releaseTempTextureRef(second, 1);
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_EQ(manager.tempTexture(TextureFormat::Frame, 8, 8), first);
    manager.releaseTempTextureRef(first, 1);
    EXPECT_EQ(manager.solidTexture(Qt::red), firstSolid);
}

TEST_F(OpenGLDeviceContextTest, SharedContextsShareThePool)
{
    TextureManager &manager = TextureManager::Instance();
    Texture *first = manager.tempTexture(TextureFormat::Frame, 8, 8);
    manager.releaseTempTextureRef(first, 1);
    glFinish();
    GLContext shared(sharedWith(context()));
    ASSERT_TRUE(shared.makeCurrent());
    EXPECT_EQ(manager.tempTexture(TextureFormat::Frame, 8, 8), first);
    EXPECT_TRUE(first->bind());
    first->unbind();
    manager.releaseTempTextureRef(first, 1);
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_TRUE(glIsTexture(first->textureID())) << "the group lives on in this context";
}

TEST_F(OpenGLDeviceContextTest, ReleasingAContextDeletesEverythingItMade)
{
    const int before = GlCalls::live();
    GLContext other;
    ASSERT_TRUE(other.makeCurrent());
    {
        drawSomething();
        TextureManager &manager = TextureManager::Instance();
        manager.releaseTempTextureRef(manager.tempTexture(TextureFormat::Frame, 8, 8), 1);
        manager.solidTexture(Qt::green);
        QImage image(4, 4, QImage::Format_RGBA8888);
        image.fill(Qt::red);
        manager.addManagedTexture(image);
        EXPECT_GT(device()->liveObjects().total(), 0);
        EXPECT_GT(GlCalls::live(), before);
    }
    OpenGLDeviceContext::releaseCurrent();
    EXPECT_EQ(GlCalls::live(), before) << qPrintable(GlCalls::liveObjects().join(u'\n'));
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}

TEST_F(OpenGLDeviceContextTest, ObjectsThatOutliveTheirContextLoseTheirNamesAndStayHarmless)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D);
    auto framebuffer = std::make_unique<FramebufferObject>();
    std::unique_ptr<ShaderProgram> program;
    QSharedPointer<DrawBuffers> quad;
    QSharedPointer<BufferObject> buffer;
    QSharedPointer<VertexArrayObject> vao;
    QSharedPointer<OpenGLDeviceContext> gone;
    Texture *pooled = nullptr;
    {
        GLContext other;
        ASSERT_TRUE(other.makeCurrent());
        gone = device();
        texture->bind();
        texture->unbind();
        framebuffer->bind();
        framebuffer->unbind();
        program = makeProgram(kHalf);
        quad = device()->screenQuad();
        buffer = device()->createBufferObject();
        const float data[] = {1};
        buffer->upload(data, 1, GL_STATIC_DRAW);
        vao = device()->createVertexArrayObject();
        vao->bind();
        vao->unbind();
        pooled = TextureManager::Instance().tempTexture(TextureFormat::Frame, 4, 4);
        EXPECT_NE(texture->textureID(), 0u);
        OpenGLDeviceContext::releaseCurrent();
    }
    EXPECT_EQ(texture->textureID(), 0u);
    EXPECT_EQ(framebuffer->getFBO(), 0u);
    EXPECT_EQ(program->programID(), 0u);
    EXPECT_FALSE(program->isLinked());
    EXPECT_EQ(buffer->getBO(), 0u);
    EXPECT_EQ(vao->vertexArrayID(), 0u);
    EXPECT_EQ(gone->liveObjects().total(), 0);
    EXPECT_EQ(gone->givenUpCount(), 0);
    EXPECT_EQ(gone->version(), 0);
    EXPECT_TRUE(gone->description().isEmpty());
    gone->giveUp(new FramebufferObject(framebuffer.get()));

    ASSERT_TRUE(context().makeCurrent());
    // a pool texture went with its context: whoever still holds the pointer may give it back
    TextureManager::Instance().releaseTempTextureRef(pooled, 1);
    const int live = GlCalls::live();
    GlCalls calls;
    {
        const AutoBinder a(program.get());
        EXPECT_FALSE(a.isBound());
        EXPECT_FALSE(program->setUniform(QStringLiteral("u_Any"), 1));
        const AutoBinder b(quad);
        EXPECT_FALSE(quad->draw());
    }
    EXPECT_EQ(calls.draws(), 0);
    texture.reset();
    framebuffer.reset();
    program.reset();
    quad.reset();
    buffer.reset();
    vao.reset();
    gone.reset();
    EXPECT_EQ(calls.count("glDeleteTextures") + calls.count("glDeleteProgram"), 0)
        << "their names mean other objects here";
    EXPECT_LE(GlCalls::live(), live);
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}

TEST_F(OpenGLDeviceContextTest, TextureOfAContextThatIsGoneStaysEmpty)
{
    Texture texture;
    texture.setTarget(GL_TEXTURE_2D);
    {
        GLContext other;
        ASSERT_TRUE(other.makeCurrent());
        ASSERT_TRUE(device());
        ASSERT_TRUE(texture.bind());
        texture.unbind();
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    const GlCalls calls;
    EXPECT_FALSE(texture.isUsable());
    EXPECT_FALSE(texture.bind());
    EXPECT_EQ(texture.textureID(), 0u);
    EXPECT_EQ(texture.unit(), -1);
    EXPECT_EQ(calls.created(), 0) << qPrintable(calls.toString());
}

TEST_F(OpenGLDeviceContextTest, ObjectDeletedWhileAnotherContextIsCurrentIsFreedInItsOwn)
{
    auto texture = makeTexture(GL_RGBA8, 2, 2);
    auto framebuffer = std::make_unique<FramebufferObject>();
    framebuffer->attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
    auto program = makeProgram(kHalf);
    const GLuint textureName = texture->textureID();
    const GLuint framebufferName = framebuffer->getFBO();
    const GLuint programName = program->programID();
    {
        GLContext other;
        ASSERT_TRUE(other.makeCurrent());
        ASSERT_TRUE(device());
        GlCalls calls;
        framebuffer.reset();
        texture.reset();
        program.reset();
        EXPECT_EQ(
            calls.count("glDeleteTextures") + calls.count("glDeleteFramebuffers") + calls.count("glDeleteProgram"), 0);
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    ASSERT_TRUE(device());
    EXPECT_FALSE(glIsTexture(textureName));
    EXPECT_FALSE(glIsFramebuffer(framebufferName));
    EXPECT_FALSE(glIsProgram(programName));
}

TEST_F(OpenGLDeviceContextTest, ObjectDeletedInAnotherContextOfItsGroupIsFreedAtOnceIfShared)
{
    auto texture = makeTexture(GL_RGBA8, 2, 2);
    const GLuint name = texture->textureID();
    GLContext shared(sharedWith(context()));
    ASSERT_TRUE(shared.makeCurrent());
    ASSERT_TRUE(device());
    texture.reset();
    EXPECT_FALSE(glIsTexture(name));
    OpenGLDeviceContext::releaseCurrent();
}

TEST_F(OpenGLDeviceContextTest, FiftyContextsOpenedAndClosedLeakNothing)
{
    const int before = GlCalls::live();
    for (int i = 0; i < 50; ++i) {
        GLContext other(i % 2 ? sharedWith(context()) : GLContext::Options());
        ASSERT_TRUE(other.makeCurrent()) << i;
        drawSomething();
        TextureManager::Instance().releaseTempTextureRef(
            TextureManager::Instance().tempTexture(TextureFormat::Frame, 2, 2), 1);
        auto *givenUp = new FramebufferObject;
        givenUp->bind();
        givenUp->unbind();
        device()->giveUp(givenUp);
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    TextureManager::Instance().trim(0, 0);
    EXPECT_EQ(GlCalls::live(), before) << qPrintable(GlCalls::liveObjects().join(u'\n'));
}

TEST_F(OpenGLDeviceContextTest, GivenUpObjectsAreCountedAndFreedOnRelease)
{
    const int before = GlCalls::live();
    GLContext other;
    ASSERT_TRUE(other.makeCurrent());
    const auto own = device();
    EXPECT_EQ(own->givenUpCount(), 0);
    const QPointer<Texture> texture = makeTexture(GL_RGBA8, 2, 2).release();
    const QPointer<ShaderProgram> program = makeProgram(kHalf).release();
    const QPointer<FramebufferObject> framebuffer = new FramebufferObject;
    framebuffer->bind();
    framebuffer->unbind();
    const QPointer<DrawBuffers> drawBuffers = new DrawBuffers;
    for (QObject *object : std::initializer_list<QObject *>{texture, program, framebuffer, drawBuffers})
        own->giveUp(object);
    EXPECT_EQ(own->givenUpCount(), 4);
    own->giveUp(texture);
    own->giveUp(nullptr);
    EXPECT_EQ(own->givenUpCount(), 4) << "twice is once";
    EXPECT_TRUE(glIsTexture(texture->textureID())) << "somebody may still use it";
    EXPECT_GE(own->liveObjects().textures, 1);
    EXPECT_GE(own->liveObjects().programs, 1);
    EXPECT_GE(own->liveObjects().framebuffers, 1);
    OpenGLDeviceContext::releaseCurrent();
    EXPECT_TRUE(texture.isNull());
    EXPECT_TRUE(program.isNull());
    EXPECT_TRUE(framebuffer.isNull());
    EXPECT_TRUE(drawBuffers.isNull());
    EXPECT_EQ(GlCalls::live(), before) << qPrintable(GlCalls::liveObjects().join(u'\n'));
}

TEST_F(OpenGLDeviceContextTest, GivenUpObjectThatIsDeletedAfterAllIsNotDeletedTwice)
{
    GLContext other;
    ASSERT_TRUE(other.makeCurrent());
    auto *framebuffer = new FramebufferObject;
    framebuffer->bind();
    framebuffer->unbind();
    device()->giveUp(framebuffer);
    delete framebuffer;
    EXPECT_EQ(device()->givenUpCount(), 0);
    OpenGLDeviceContext::releaseCurrent();
}

TEST_F(OpenGLDeviceContextTest, LiveObjectsAgreeWithGL)
{
    GLContext other;
    ASSERT_TRUE(other.makeCurrent());
    const GLObjectCounts start = device()->liveObjects();
    const auto live = [] { return GlCalls::live(GlKind::Texture); };
    const int texturesBefore = live();
    std::vector<std::unique_ptr<Texture>> textures;
    textures.reserve(3);
    for (int i = 0; i < 3; ++i)
        textures.push_back(makeTexture(GL_RGBA8, 1, 1));
    EXPECT_EQ(device()->liveObjects().textures - start.textures, 3);
    EXPECT_EQ(live() - texturesBefore, 3);
    textures.pop_back();
    EXPECT_EQ(device()->liveObjects().textures - start.textures, 2);
    const auto vao = device()->createVertexArrayObject();
    vao->bind();
    vao->unbind();
    EXPECT_EQ(device()->liveObjects().vertexArrays - start.vertexArrays, 1);
    const auto buffer = device()->createBufferObject();
    buffer->bind();
    buffer->unbind();
    EXPECT_EQ(device()->liveObjects().buffers - start.buffers, 1);
    textures.clear();
    EXPECT_EQ(device()->liveObjects().total() - start.total(), 2);
    OpenGLDeviceContext::releaseCurrent();
}

TEST_F(OpenGLDeviceContextTest, ContextThatDiesUnreleasedDoesNotConfuseItsSuccessor)
{
    {
        // the driver may hand the same address to the next context
        const GlCalls::DyingContexts unreleased;
        for (int i = 0; i < 5; ++i) {
            GLContext other;
            ASSERT_TRUE(other.makeCurrent());
            ASSERT_TRUE(device());
            drawSomething();
            TextureManager &manager = TextureManager::Instance();
            manager.releaseTempTextureRef(manager.tempTexture(TextureFormat::Frame, 8, 8), 1);
            EXPECT_TRUE(isPixel(readTexture<quint8>(manager.solidTexture(Qt::red)), 0, 0, {255, 0, 0, 255}, 0)) << i;
            EXPECT_EQ(manager.statistics().textures, 1) << i;
        }
        ASSERT_TRUE(context().makeCurrent());
    }
    ASSERT_TRUE(device());
    drawSomething();
}

TEST_F(OpenGLDeviceContextTest, ContextWorksAgainAfterItsRelease)
{
    GLContext other;
    ASSERT_TRUE(other.makeCurrent());
    drawSomething();
    OpenGLDeviceContext::releaseCurrent();
    drawSomething();
    OpenGLDeviceContext::releaseCurrent();
}

TEST_F(OpenGLDeviceContextTest, SwitchingBackAndForthKeepsEachContextsObjects)
{
    GLContext second(sharedWith(context()));
    const auto program = makeProgram(kHalf);
    Target target(GL_RGBA8, 2, 2);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(second.makeCurrent());
        target.clear({0, 0, 0, 0});
        drawScreen(target, program.get());
        EXPECT_TRUE(isPixel(target.read(), 0, 0, {0.5, 0.5, 0.5, 0.5}, 0.6 / 255));
        glFinish();
        ASSERT_TRUE(context().makeCurrent());
        EXPECT_TRUE(isPixel(target.read(), 0, 0, {0.5, 0.5, 0.5, 0.5}, 0.6 / 255));
        target.clear({1, 0, 0, 1});
        drawScreen(target, program.get());
        EXPECT_TRUE(isPixel(target.read(), 0, 0, {0.5, 0.5, 0.5, 0.5}, 0.6 / 255));
        glFinish();
    }
    ASSERT_TRUE(second.makeCurrent());
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

TEST_F(OpenGLDeviceContextTest, AskingForTheContextLeavesTheHostsBufferBindings)
{
    GLContext other;
    ASSERT_TRUE(other.makeCurrent());
    GLuint buffers[2];
    glGenBuffers(2, buffers);
    glBindBuffer(GL_COPY_READ_BUFFER, buffers[0]);
    glBindBuffer(GL_COPY_WRITE_BUFFER, buffers[1]);
    ASSERT_TRUE(device());
    ASSERT_TRUE(device());
    GLint name = 0;
    glGetIntegerv(GL_COPY_READ_BUFFER, &name);
    EXPECT_EQ(GLuint(name), buffers[0]);
    glGetIntegerv(GL_COPY_WRITE_BUFFER, &name);
    EXPECT_EQ(GLuint(name), buffers[1]);
    glDeleteBuffers(2, buffers);
    OpenGLDeviceContext::releaseCurrent();
}

TEST_F(OpenGLDeviceContextTest, AskingForTheContextInASteadyStateAllocatesNothing)
{
    ASSERT_TRUE(device());
    GlCalls calls;
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(device()->screenQuad());
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(calls.textureAllocations() + calls.bufferAllocations(), 0) << qPrintable(calls.toString());
}

TEST_F(OpenGLDeviceContextTest, ObjectDeletedWithoutAContextIsFreedWhenItsOwnComesBack)
{
    auto texture = makeTexture(GL_RGBA8, 2, 2);
    const GLuint name = texture->textureID();
    GLContext::doneCurrent();
    texture.reset();
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_TRUE(glIsTexture(name));
    ASSERT_TRUE(device());
    EXPECT_FALSE(glIsTexture(name));
}

TEST_F(OpenGLDeviceContextTest, AFramebufferIsMadeAnewInEachOfManyContexts)
{
    FramebufferObject framebuffer;
    for (int i = 0; i < 8; ++i) {
        GLContext passing;
        ASSERT_TRUE(passing.makeCurrent());
        ASSERT_TRUE(framebuffer.bind());
        EXPECT_TRUE(glIsFramebuffer(framebuffer.getFBO())) << i;
        framebuffer.unbind();
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
}

TEST_F(OpenGLDeviceContextTest, AfterAScopeAnotherContextIsNoticed)
{
    GLContext other;
    QSharedPointer<OpenGLDeviceContext> first;
    {
        const ContextScope scope;
        {
            const ContextScope inner;
            first = device();
        }
        EXPECT_EQ(device(), first);
        drawSomething();
    }
    ASSERT_TRUE(other.makeCurrent());
    {
        const ContextScope scope;
        EXPECT_NE(device(), first);
        drawSomething();
    }
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_EQ(device(), first);
}

TEST_F(OpenGLDeviceContextTest, WithoutAContextAScopeChangesNothing)
{
    GLContext::doneCurrent();
    {
        const ContextScope scope;
        EXPECT_TRUE(device().isNull());
        EXPECT_TRUE(device().isNull());
    }
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_TRUE(device());
}

TEST_F(OpenGLDeviceContextTest, AContextThatIsReleasedInAScopeIsMadeAnewThere)
{
    GLContext other;
    ASSERT_TRUE(other.makeCurrent());
    const ContextScope scope;
    drawSomething();
    OpenGLDeviceContext::releaseCurrent();
    drawSomething();
    OpenGLDeviceContext::releaseCurrent();
}

TEST_F(OpenGLDeviceContextTest, ObjectsOfAnotherContextThatAreDeletedInAScopeAreFreedInTheirs)
{
    auto texture = makeTexture(GL_RGBA8, 2, 2);
    const GLuint name = texture->textureID();
    GLContext other;
    ASSERT_TRUE(other.makeCurrent());
    {
        const ContextScope scope;
        ASSERT_TRUE(device());
        texture.reset();
        drawSomething();
    }
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
    const ContextScope scope;
    ASSERT_TRUE(device());
    EXPECT_FALSE(glIsTexture(name));
}

TEST_F(OpenGLDeviceContextTest, TheHandlerOfShaderFailuresMayUseAnotherContextInTheMiddleOfAScope)
{
    GLContext other;
    const auto mine = device();
    bool called = false;
    std::unique_ptr<Texture> texture;
    ShaderProgram::setFailureHandler([&](const ShaderFailure &) {
        ASSERT_TRUE(other.makeCurrent());
        texture = makeTexture(GL_RGBA8, 2, 2);
        drawSomething();
        ASSERT_TRUE(context().makeCurrent());
        called = true;
    });
    {
        const ContextScope scope;
        ShaderProgram broken;
        broken.addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\nnot GLSL\n"), QString());
        EXPECT_FALSE(broken.compile());
        drawSomething();
        EXPECT_EQ(device(), mine);
    }
    ShaderProgram::setFailureHandler({});
    ASSERT_TRUE(called);
    ASSERT_TRUE(other.makeCurrent());
    EXPECT_TRUE(glIsTexture(texture->textureID()));
    OpenGLDeviceContext::releaseCurrent();
    EXPECT_EQ(texture->textureID(), 0u) << "it was the other context's";
    ASSERT_TRUE(context().makeCurrent());
}

} // namespace Brevane::Kvo
