#include "host/screentarget.h"

#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/opengldevicecontext.h"
#include "gl/pixelstore.h"
#include "gl/texture.h"
#include "host/imageoutput.h"

#include <epoxy/gl.h>

#include <utility>

namespace Brevane::Kvo {

namespace {

void allocate(Texture *texture, GLenum internalFormat, GLenum format, GLenum type, const QSize &size)
{
    const AutoBinder binder(texture);
    texture->setFilter(GL_NEAREST);
    const DefaultPixelStore pixelStore;
    glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), size.width(), size.height(), 0, format, type, nullptr);
}

} // namespace

ScreenTarget::ScreenTarget() = default;

ScreenTarget::~ScreenTarget()
{
    if (_framebuffer) {
        const AutoBinder binder(_framebuffer.get());
        _framebuffer->detachAll();
    }
}

bool ScreenTarget::resize(const QSize &size, QString *error)
{
    if (!OpenGLDeviceContext::current()) {
        if (error)
            *error = QStringLiteral("no OpenGL context of version 3.2 or later is current");
        return false;
    }
    GLint limit = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &limit);
    if (size.width() < 1 || size.height() < 1 || size.width() > limit || size.height() > limit) {
        if (error)
            *error = QStringLiteral("a picture of %1x%2 is not possible here: each side has to be from 1 to %3")
                         .arg(size.width())
                         .arg(size.height())
                         .arg(limit);
        return false;
    }
    if (!_framebuffer) {
        _framebuffer = std::make_unique<FramebufferObject>();
        _color = std::make_unique<Texture>();
        _depth = std::make_unique<Texture>();
        _color->setTarget(GL_TEXTURE_2D);
        _depth->setTarget(GL_TEXTURE_2D);
    }
    while (glGetError() != GL_NO_ERROR) {
    }
    allocate(_color.get(), GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, size);
    allocate(_depth.get(), GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, size);
    const AutoBinder binder(_framebuffer.get());
    _framebuffer->attach(_color.get(), GL_COLOR_ATTACHMENT0, 0);
    _framebuffer->attach(_depth.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    _framebuffer->setDrawBuffers();
    _framebuffer->setLabel(QStringLiteral("screen"));
    _size = size;
    const bool complete =
        glGetError() == GL_NO_ERROR && glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    if (!complete && error)
        *error = QStringLiteral("the driver gives no framebuffer of %1x%2: probably out of memory")
                     .arg(size.width())
                     .arg(size.height());
    return complete;
}

void ScreenTarget::clear(const QColor &color)
{
    if (!_framebuffer)
        return;
    const DefaultState state(std::initializer_list<StatePiece>{});
    const AutoBinder binder(_framebuffer.get());
    const float rgba[] = {color.redF(), color.greenF(), color.blueF(), color.alphaF()};
    glClearBufferfv(GL_COLOR, 0, rgba);
    glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0f, 0);
}

QImage ScreenTarget::image(QString *error) const
{
    if (!_color || !OpenGLDeviceContext::current())
        return textureImage(_color.get(), error); // which says what is missing
    // As bytes, which is what the texture has: no way by floats.
    QImage picture(_size, QImage::Format_ARGB32);
    const AutoBinder binder(_color.get());
    if (picture.isNull() || !binder.isBound())
        return textureImage(_color.get(), error);
    const DefaultPixelStore pixelStore;
    glGetTexImage(GL_TEXTURE_2D, 0, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, picture.bits());
    return std::move(picture).mirrored(false, true);
}

} // namespace Brevane::Kvo
