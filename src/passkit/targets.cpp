#include "passkit/targets.h"

#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/texture.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

bool made(FramebufferObject *&framebuffer, const char *label)
{
    if (framebuffer)
        return false;
    framebuffer = new FramebufferObject(nullptr);
    framebuffer->setLabel(QLatin1String(label));
    return true;
}

void replaceTarget(FramebufferObject *framebuffer, unsigned int attachment, const TargetFormat &format,
                   const Extent &extent)
{
    if (framebuffer->hasAttachment(attachment))
        delete framebuffer->detach(attachment);
    auto *texture = new Texture(nullptr);
    texture->setTarget(GL_TEXTURE_2D);
    {
        AutoBinder bound(texture);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, format.filter);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, format.filter);
        // With a pixel buffer of the host bound, null would mean its beginning.
        GLint pixels = 0;
        glGetIntegerv(GL_PIXEL_UNPACK_BUFFER_BINDING, &pixels);
        if (pixels)
            glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
        glTexImage2D(GL_TEXTURE_2D, 0, GLint(format.internalFormat), extent.width, extent.height, 0, format.format,
                     format.type, nullptr);
        if (pixels)
            glBindBuffer(GL_PIXEL_UNPACK_BUFFER, GLuint(pixels));
    }
    if (!framebuffer->attach(texture, attachment, 0))
        delete texture;
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
