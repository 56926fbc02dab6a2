#include "passkit/targets.h"

#include "gl/framebufferobject.h"
#include "gl/glinfo.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/storage.h"
#include "gl/texture.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

NoUnpackBuffer::NoUnpackBuffer()
{
    glGetIntegerv(GL_PIXEL_UNPACK_BUFFER_BINDING, &_before);
    if (_before)
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
}

NoUnpackBuffer::~NoUnpackBuffer()
{
    if (_before)
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, GLuint(_before));
}

bool made(FramebufferObject *&framebuffer, const char *label)
{
    if (framebuffer)
        return false;
    framebuffer = new FramebufferObject(nullptr);
    framebuffer->setLabel(QLatin1String(label));
    return true;
}

Texture *makeTexture(const TargetFormat &format, const Extent &extent, const void *pixels)
{
    auto *texture = new Texture(nullptr);
    texture->setTarget(GL_TEXTURE_2D);
    AutoBinder bound(texture);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, format.filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, format.filter);
    const NoUnpackBuffer noBuffer;
    allocateImage(format.internalFormat, {extent.width, extent.height}, format.format, format.type, pixels);
    return texture;
}

void replaceTarget(FramebufferObject *framebuffer, unsigned int attachment, const TargetFormat &format,
                   const Extent &extent)
{
    if (framebuffer->hasAttachment(attachment))
        delete framebuffer->detach(attachment);
    Texture *texture = makeTexture(format, extent);
    if (!framebuffer->attach(texture, attachment, 0))
        delete texture;
}

Texture *makeBlackTexture()
{
    constexpr unsigned int kZero = 0;
    return makeTexture({GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE, GL_NEAREST}, {1, 1}, &kZero);
}

unsigned int depthAttachmentOf(Texture *depth)
{
    AutoBinder bound(depth);
    if (!bound.isBound() || depth->target() != GL_TEXTURE_2D)
        return GL_DEPTH_STENCIL_ATTACHMENT;
    GLint format = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_INTERNAL_FORMAT, &format);
    return formatFromInternalFormat(GLenum(format)) == GL_DEPTH_COMPONENT ? GL_DEPTH_ATTACHMENT
                                                                          : GL_DEPTH_STENCIL_ATTACHMENT;
}

void dropTarget(FramebufferObject *framebuffer, unsigned int attachment)
{
    if (framebuffer && framebuffer->hasAttachment(attachment))
        delete framebuffer->attachment(attachment);
}

void giveUp(QObject *object)
{
    if (!object)
        return;
    if (const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current())
        context->giveUp(object);
}

} // namespace Brevane::Kvo
