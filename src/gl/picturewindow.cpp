#include "gl/picturewindow.h"

#include "gl/opengldevicecontext.h"

#include <epoxy/gl.h>

#include <utility>

namespace Brevane::Kvo {

namespace {

thread_local PictureWindow window;

} // namespace

const PictureWindow &PictureWindow::current()
{
    return window;
}

bool PictureWindow::fitsViewport() const
{
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    return context && width <= context->limits().targetWidth && height <= context->limits().targetHeight;
}

void PictureWindow::setViewport(int targetWidth, int targetHeight) const
{
    if (isPart() && fitsViewport())
        glViewport(-x, -y, width, height);
    else
        glViewport(0, 0, targetWidth, targetHeight);
}

PictureWindowScope::PictureWindowScope(const PictureWindow &part) : _before(std::exchange(window, part)) {}

PictureWindowScope::~PictureWindowScope()
{
    window = _before;
}

} // namespace Brevane::Kvo
