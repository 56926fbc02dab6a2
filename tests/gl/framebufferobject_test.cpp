#include "support/draw.h"
#include "support/gltest.h"

#include <gl/framebufferobject.h>
#include <gl/glinfo.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

using namespace Test;

namespace {

GLuint bound(GLenum query)
{
    GLint name = 0;
    glGetIntegerv(query, &name);
    return GLuint(name);
}

bool isComplete()
{
    return glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
}

void clearColor(float r, float g, float b)
{
    glClearColor(r, g, b, 1);
    glClear(GL_COLOR_BUFFER_BIT);
}

std::unique_ptr<Texture> makeArray(GLenum target, GLenum internalFormat, int size, int layers)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(target);
    const AutoBinder guard(texture.get());
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    const GLenum format = formatFromInternalFormat(internalFormat);
    const GLenum type = typeFromInternalFormat(internalFormat);
    if (target == GL_TEXTURE_CUBE_MAP) {
        for (GLenum face = 0; face < 6; ++face)
            glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GLint(internalFormat), size, size, 0, format, type,
                         nullptr);
    } else {
        glTexImage3D(target, 0, GLint(internalFormat), size, size, layers, 0, format, type, nullptr);
    }
    return texture;
}

/// A framebuffer with a texture that the host made with plain GL.
struct HostFramebuffer
{
    HostFramebuffer()
    {
        glGenTextures(1, &texture);
        glBindTexture(GL_TEXTURE_2D, texture);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
        glGenFramebuffers(1, &name);
        glBindFramebuffer(GL_FRAMEBUFFER, name);
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    }
    ~HostFramebuffer()
    {
        glDeleteFramebuffers(1, &name);
        glDeleteTextures(1, &texture);
    }
    GLuint name = 0;
    GLuint texture = 0;
};

} // namespace

class FramebufferObjectTest : public GLTest
{};

TEST_F(FramebufferObjectTest, ReadingComesFromTheFirstColourAttachmentThatIsPresent)
{
    FramebufferObject fbo;
    const auto first = makeSolidTexture(2, 2, {1, 0, 0, 1});
    const auto second = makeSolidTexture(2, 2, {0, 1, 0, 1});
    const AutoBinder guard(&fbo);
    const auto readPixel = [] {
        std::array<float, 4> pixel{};
        glReadPixels(0, 0, 1, 1, GL_RGBA, GL_FLOAT, pixel.data());
        return pixel;
    };
    // Attached in the other order, with a gap.
    ASSERT_TRUE(fbo.attach(second.get(), GL_COLOR_ATTACHMENT3, 0));
    ASSERT_TRUE(fbo.attach(first.get(), GL_COLOR_ATTACHMENT1, 0));
    fbo.setDrawBuffers();
    EXPECT_EQ(bound(GL_READ_BUFFER), GLuint(GL_COLOR_ATTACHMENT1));
    EXPECT_EQ(readPixel(), (std::array<float, 4>{1, 0, 0, 1}));
    fbo.detach(GL_COLOR_ATTACHMENT1);
    fbo.setDrawBuffers();
    EXPECT_EQ(bound(GL_READ_BUFFER), GLuint(GL_COLOR_ATTACHMENT3));
    EXPECT_EQ(readPixel(), (std::array<float, 4>{0, 1, 0, 1}));
    fbo.detachAll();
    fbo.setDrawBuffers();
    EXPECT_EQ(bound(GL_READ_BUFFER), GLuint(GL_NONE));
}

TEST_F(FramebufferObjectTest, NewFramebufferHasNoAttachments)
{
    FramebufferObject fbo;
    EXPECT_EQ(fbo.getFBO(), 0u);
    EXPECT_FALSE(fbo.hasAttachment(GL_COLOR_ATTACHMENT0));
    EXPECT_EQ(fbo.attachment(GL_COLOR_ATTACHMENT0), nullptr);
    EXPECT_EQ(fbo.detach(GL_COLOR_ATTACHMENT0), nullptr);
    ASSERT_TRUE(fbo.bind());
    EXPECT_NE(fbo.getFBO(), 0u);
    EXPECT_EQ(bound(GL_FRAMEBUFFER_BINDING), fbo.getFBO());
    EXPECT_TRUE(fbo.unbind());
    EXPECT_FALSE(fbo.unbind());
}

TEST_F(FramebufferObjectTest, AttachingNullOrATextureWithoutAGLObjectFails)
{
    FramebufferObject fbo;
    Texture empty;
    const AutoBinder guard(&fbo);
    for (Texture *texture : {static_cast<Texture *>(nullptr), &empty}) {
        EXPECT_FALSE(fbo.attach(texture, GL_COLOR_ATTACHMENT0, 0));
        EXPECT_FALSE(fbo.attach3D(texture, GL_COLOR_ATTACHMENT0, 0, 0));
        EXPECT_FALSE(fbo.attachLayers(texture, GL_COLOR_ATTACHMENT0, 0));
    }
    EXPECT_FALSE(fbo.hasAttachment(GL_COLOR_ATTACHMENT0));
}

TEST_F(FramebufferObjectTest, AViewOfABufferIsNotAttached)
{
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
    FramebufferObject framebuffer;
    EXPECT_FALSE(framebuffer.attach(&view, GL_COLOR_ATTACHMENT0, 0));
    EXPECT_FALSE(framebuffer.attach3D(&view, GL_COLOR_ATTACHMENT0, 0, 0));
    EXPECT_FALSE(framebuffer.attachLayers(&view, GL_COLOR_ATTACHMENT0, 0));
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT0));
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    glDeleteBuffers(1, &buffer);
}

TEST_F(FramebufferObjectTest, FailedAttachLeavesWhatWasAttached)
{
    FramebufferObject fbo;
    const auto texture = makeTexture(GL_RGBA8, 2, 2);
    const AutoBinder guard(&fbo);
    ASSERT_TRUE(fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0));
    EXPECT_FALSE(fbo.attach(nullptr, GL_COLOR_ATTACHMENT0, 0));
    EXPECT_EQ(fbo.attachment(GL_COLOR_ATTACHMENT0), texture.get());
    EXPECT_TRUE(isComplete());
}

TEST_F(FramebufferObjectTest, DrawsIntoTheAttachedLevel)
{
    const auto texture = makeTexture(GL_RGBA8, 4, 4);
    {
        const AutoBinder guard(texture.get());
        glGenerateMipmap(GL_TEXTURE_2D);
    }
    FramebufferObject fbo;
    const AutoBinder guard(&fbo);
    ASSERT_TRUE(fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0));
    clearColor(1, 0, 0);
    ASSERT_TRUE(fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 1));
    ASSERT_TRUE(isComplete());
    clearColor(0, 1, 0);
    EXPECT_TRUE(isPixel(readTexture<quint8>(texture.get(), 0), 3, 3, {255, 0, 0, 255}, 0));
    const auto level1 = readTexture<quint8>(texture.get(), 1);
    ASSERT_EQ(level1.width, 2);
    EXPECT_TRUE(isPixel(level1, 1, 1, {0, 255, 0, 255}, 0));
}

TEST_F(FramebufferObjectTest, Attach3DTakesLayerThenLevel)
{
    const auto array = makeArray(GL_TEXTURE_2D_ARRAY, GL_RGBA8, 4, 3);
    FramebufferObject fbo;
    const AutoBinder guard(&fbo);
    for (int layer = 0; layer < 3; ++layer) {
        ASSERT_TRUE(fbo.attach3D(array.get(), GL_COLOR_ATTACHMENT0, layer, 0));
        ASSERT_TRUE(isComplete());
        clearColor(float(layer) / 2, 0, 0);
    }
    for (int layer = 0; layer < 3; ++layer)
        EXPECT_TRUE(isPixel(readTexture<quint8>(array.get(), 0, layer), 2, 2,
                            {layer == 1 ? 127.5 : layer * 127.5, 0, 0, 255}, 0.5));
}

TEST_F(FramebufferObjectTest, AttachLayersDrawsIntoAllLayers)
{
    for (const GLenum target : {GL_TEXTURE_2D_ARRAY, GL_TEXTURE_CUBE_MAP}) {
        const auto array = makeArray(target, GL_RGBA8, 4, 6);
        FramebufferObject fbo;
        const AutoBinder guard(&fbo);
        ASSERT_TRUE(fbo.attachLayers(array.get(), GL_COLOR_ATTACHMENT0, 0));
        GLint layered = GL_FALSE;
        glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_FRAMEBUFFER_ATTACHMENT_LAYERED,
                                              &layered);
        EXPECT_EQ(layered, GL_TRUE);
        ASSERT_TRUE(isComplete());
        clearColor(0, 1, 1);
        for (int layer = 0; layer < 6; ++layer)
            EXPECT_TRUE(isPixel(readTexture<quint8>(array.get(), 0, layer), 1, 3, {0, 255, 255, 255}, 0)) << layer;
    }
}

TEST_F(FramebufferObjectTest, DetachReturnsTheTextureAlive)
{
    FramebufferObject fbo;
    const auto texture = makeTexture(GL_RGBA8, 2, 2);
    const AutoBinder guard(&fbo);
    fbo.attach(texture.get(), GL_COLOR_ATTACHMENT1, 0);
    GlCalls calls;
    EXPECT_EQ(fbo.detach(GL_COLOR_ATTACHMENT0), nullptr);
    EXPECT_EQ(fbo.detach(GL_COLOR_ATTACHMENT1), texture.get());
    EXPECT_EQ(calls.count("glDeleteTextures"), 0);
    EXPECT_FALSE(fbo.hasAttachment(GL_COLOR_ATTACHMENT1));
    EXPECT_TRUE(glIsTexture(texture->textureID()));
    GLint type = GL_TEXTURE;
    glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT1, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE,
                                          &type);
    EXPECT_EQ(type, GL_NONE);
}

TEST_F(FramebufferObjectTest, DetachAllRemovesEveryAttachment)
{
    FramebufferObject fbo;
    const auto a = makeTexture(GL_RGBA8, 2, 2);
    const auto b = makeTexture(GL_RGBA8, 2, 2);
    const auto depth = makeTexture(GL_DEPTH24_STENCIL8, 2, 2);
    const AutoBinder guard(&fbo);
    fbo.attach(a.get(), GL_COLOR_ATTACHMENT0, 0);
    fbo.attach(b.get(), GL_COLOR_ATTACHMENT3, 0);
    fbo.attach(depth.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    fbo.detachAll();
    for (const GLenum point :
         {GL_COLOR_ATTACHMENT0, GL_COLOR_ATTACHMENT3, GL_DEPTH_ATTACHMENT, GL_STENCIL_ATTACHMENT}) {
        GLint type = GL_TEXTURE;
        glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, point, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE, &type);
        EXPECT_EQ(type, GL_NONE) << point;
        EXPECT_FALSE(fbo.hasAttachment(point));
    }
    EXPECT_FALSE(fbo.hasAttachment(GL_DEPTH_STENCIL_ATTACHMENT));
}

TEST_F(FramebufferObjectTest, DepthStencilAttachmentServesBoth)
{
    FramebufferObject fbo;
    const auto color = makeTexture(GL_RGBA8, 2, 2);
    const auto depth = makeTexture(GL_DEPTH24_STENCIL8, 2, 2);
    const AutoBinder guard(&fbo);
    fbo.attach(color.get(), GL_COLOR_ATTACHMENT0, 0);
    ASSERT_TRUE(fbo.attach(depth.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0));
    ASSERT_TRUE(isComplete());
    glClearBufferfi(GL_DEPTH_STENCIL, 0, 0.25f, 77);
    EXPECT_TRUE(isPixel(readDepth(depth.get()), 1, 1, {0.25, 0, 0, 1}, 1e-6));
    EXPECT_EQ(readStencil(depth.get()).at(0, 1)[0], 77);
    EXPECT_EQ(fbo.attachment(GL_DEPTH_STENCIL_ATTACHMENT), depth.get());
    EXPECT_FALSE(fbo.hasAttachment(GL_DEPTH_ATTACHMENT)) << "three different places";
}

TEST_F(FramebufferObjectTest, DrawBuffersAreThePresentColourAttachmentsInTheirOrder)
{
    FramebufferObject fbo;
    const auto a = makeTexture(GL_RGBA8, 2, 2);
    const auto b = makeTexture(GL_RGBA8, 2, 2);
    const auto depth = makeTexture(GL_DEPTH_COMPONENT24, 2, 2);
    const AutoBinder guard(&fbo);
    fbo.attach(depth.get(), GL_DEPTH_ATTACHMENT, 0);
    fbo.attach(b.get(), GL_COLOR_ATTACHMENT2, 0);
    fbo.attach(a.get(), GL_COLOR_ATTACHMENT0, 0);
    GlCalls calls;
    fbo.setDrawBuffers();
    const auto found = calls.calls("glDrawBuffers");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].data, (std::vector<double>{GL_COLOR_ATTACHMENT0, GL_COLOR_ATTACHMENT2}));
}

TEST_F(FramebufferObjectTest, FramebufferWithDepthAloneIsComplete)
{
    FramebufferObject fbo;
    const auto depth = makeTexture(GL_DEPTH_COMPONENT24, 2, 2);
    const AutoBinder guard(&fbo);
    fbo.attach(depth.get(), GL_DEPTH_ATTACHMENT, 0);
    fbo.setDrawBuffers();
    EXPECT_TRUE(isComplete());
    EXPECT_EQ(bound(GL_DRAW_BUFFER), GLuint(GL_NONE));
    glClearDepth(0.5);
    glClear(GL_DEPTH_BUFFER_BIT);
    EXPECT_TRUE(isPixel(readDepth(depth.get()), 0, 0, {0.5, 0, 0, 1}, 1e-6));
}

TEST_F(FramebufferObjectTest, BindingNestsAndRestoresTheHostsDrawAndReadFramebuffers)
{
    const HostFramebuffer drawHost;
    const HostFramebuffer readHost;
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, drawHost.name);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, readHost.name);
    FramebufferObject outer;
    FramebufferObject inner;
    {
        const AutoBinder boundOuter(&outer);
        EXPECT_EQ(bound(GL_DRAW_FRAMEBUFFER_BINDING), outer.getFBO());
        EXPECT_EQ(bound(GL_READ_FRAMEBUFFER_BINDING), outer.getFBO());
        {
            const AutoBinder boundInner(&inner);
            const AutoBinder boundOuterAgain(&outer);
            EXPECT_EQ(bound(GL_DRAW_FRAMEBUFFER_BINDING), outer.getFBO());
        }
        EXPECT_EQ(bound(GL_DRAW_FRAMEBUFFER_BINDING), outer.getFBO());
    }
    EXPECT_EQ(bound(GL_DRAW_FRAMEBUFFER_BINDING), drawHost.name);
    EXPECT_EQ(bound(GL_READ_FRAMEBUFFER_BINDING), readHost.name);
}

TEST_F(FramebufferObjectTest, AttachAndDetachWorkWithoutABindAndKeepTheHostsFramebuffer)
{
    const HostFramebuffer host;
    FramebufferObject fbo;
    const auto texture = makeTexture(GL_RGBA8, 2, 2);
    EXPECT_TRUE(fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0));
    EXPECT_EQ(bound(GL_FRAMEBUFFER_BINDING), host.name);
    EXPECT_EQ(fbo.detach(GL_COLOR_ATTACHMENT0), texture.get());
    EXPECT_EQ(bound(GL_FRAMEBUFFER_BINDING), host.name);
    GLint name = 0;
    glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME,
                                          &name);
    EXPECT_EQ(GLuint(name), host.texture);
}

TEST_F(FramebufferObjectTest, WrapsAFramebufferOfTheHostAndLeavesItToTheHost)
{
    const HostFramebuffer host;
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    const auto texture = makeTexture(GL_RGBA8, 4, 4);
    GlCalls calls;
    {
        const std::unique_ptr<FramebufferObject> wrapper(FramebufferObject::wrap(host.name));
        EXPECT_EQ(wrapper->getFBO(), host.name);
        const AutoBinder guard(wrapper.get());
        EXPECT_EQ(bound(GL_FRAMEBUFFER_BINDING), host.name);
        EXPECT_FALSE(wrapper->attach(texture.get(), GL_COLOR_ATTACHMENT0, 0));
        EXPECT_FALSE(wrapper->hasAttachment(GL_COLOR_ATTACHMENT0));
        wrapper->setDrawBuffers();
        clearColor(0, 0, 1);
    }
    EXPECT_EQ(calls.created(GlKind::Framebuffer), 0);
    EXPECT_EQ(calls.count("glDeleteFramebuffers"), 0);
    EXPECT_EQ(calls.count("glDrawBuffers"), 0) << "the host's draw buffers stay";
    EXPECT_EQ(calls.count("glDrawBuffer"), 0);
    EXPECT_EQ(bound(GL_FRAMEBUFFER_BINDING), 0u);
    EXPECT_TRUE(isPixel(readTexture<quint8>(host.texture, GL_TEXTURE_2D), 2, 2, {0, 0, 255, 255}, 0));
}

TEST_F(FramebufferObjectTest, WrapsTheDefaultFramebuffer)
{
    const HostFramebuffer host;
    const std::unique_ptr<FramebufferObject> wrapper(FramebufferObject::wrap(0));
    EXPECT_EQ(wrapper->getFBO(), 0u);
    {
        const AutoBinder guard(wrapper.get());
        EXPECT_TRUE(guard.isBound());
        EXPECT_EQ(bound(GL_FRAMEBUFFER_BINDING), 0u);
    }
    EXPECT_EQ(bound(GL_FRAMEBUFFER_BINDING), host.name);
}

TEST_F(FramebufferObjectTest, DestroyingABoundFramebufferRestoresTheHosts)
{
    const HostFramebuffer host;
    {
        FramebufferObject fbo;
        fbo.bind();
        fbo.bind();
    }
    EXPECT_EQ(bound(GL_FRAMEBUFFER_BINDING), host.name);
}

TEST_F(FramebufferObjectTest, DoesNotOwnWhatIsAttached)
{
    auto texture = makeTexture(GL_RGBA8, 2, 2);
    {
        FramebufferObject fbo;
        fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
    }
    EXPECT_TRUE(glIsTexture(texture->textureID()));

    FramebufferObject fbo;
    fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
    texture.reset();
    EXPECT_EQ(fbo.attachment(GL_COLOR_ATTACHMENT0), nullptr) << "a deleted texture is no attachment";
    EXPECT_FALSE(fbo.hasAttachment(GL_COLOR_ATTACHMENT0));
    EXPECT_EQ(fbo.detach(GL_COLOR_ATTACHMENT0), nullptr);
}

TEST_F(FramebufferObjectTest, TexturesOfSizeZeroRaiseNoError)
{
    FramebufferObject fbo;
    const auto texture = makeTexture(GL_RGBA8, 0, 0);
    const AutoBinder guard(&fbo);
    fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
    fbo.setDrawBuffers();
    EXPECT_EQ(fbo.attachment(GL_COLOR_ATTACHMENT0), texture.get());
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}

TEST_F(FramebufferObjectTest, IsMadeAgainInAnotherContextThatSharesTheTextures)
{
    FramebufferObject fbo;
    const auto texture = makeTexture(GL_RGBA8, 4, 4);
    fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
    GLContext::Options options;
    options.share = &context();
    GLContext second(options);
    ASSERT_TRUE(second.makeCurrent()) << qPrintable(second.error());
    {
        const AutoBinder guard(&fbo);
        fbo.setDrawBuffers();
        ASSERT_TRUE(isComplete());
        clearColor(1, 1, 0);
        EXPECT_TRUE(isPixel(readTexture<quint8>(texture.get()), 1, 1, {255, 255, 0, 255}, 0));
    }
    glFinish();
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
    const AutoBinder guard(&fbo);
    EXPECT_TRUE(isComplete());
}

TEST_F(FramebufferObjectTest, VariantIsInObjectForm)
{
    FramebufferObject fbo;
    const QVariant value = framebufferToVariant(&fbo);
    EXPECT_EQ(value.metaType(), QMetaType(QMetaType::QObjectStar));
    EXPECT_EQ(qobject_cast<FramebufferObject *>(qvariant_cast<QObject *>(value)), &fbo);
}

TEST_F(FramebufferObjectTest, SteadyBindingMakesNoCallsButTheBindsAndTheirQueries)
{
    FramebufferObject fbo;
    const auto texture = makeTexture(GL_RGBA8, 2, 2);
    fbo.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
    GlCalls calls;
    {
        const AutoBinder guard(&fbo);
    }
    EXPECT_EQ(calls.count("glBindFramebuffer"), 2);
    EXPECT_EQ(calls.count("glFramebufferTexture2D") + calls.count("glFramebufferTexture"), 0);
    EXPECT_EQ(calls.created(), 0);
}

} // namespace Brevane::Kvo
