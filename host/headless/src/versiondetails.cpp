#include "host/versiondetails.h"

#include "host/headlesscontext.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <QtGlobal>

#include <dlfcn.h>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

// Puts back what was current, where the loader has a library to ask at all: it ends the process otherwise.
class KeepCurrent
{
public:
    KeepCurrent() : _hasEgl(dlopen("libEGL.so.1", RTLD_LAZY | RTLD_LOCAL) != nullptr)
    {
        if (!_hasEgl)
            return;
        _display = eglGetCurrentDisplay();
        _context = eglGetCurrentContext();
        _draw = eglGetCurrentSurface(EGL_DRAW);
        _read = eglGetCurrentSurface(EGL_READ);
    }
    ~KeepCurrent()
    {
        if (_hasEgl && _context != EGL_NO_CONTEXT)
            eglMakeCurrent(_display, _draw, _read, _context);
    }
    KeepCurrent(const KeepCurrent &) = delete;
    KeepCurrent &operator=(const KeepCurrent &) = delete;

private:
    bool _hasEgl;
    EGLDisplay _display = EGL_NO_DISPLAY;
    EGLContext _context = EGL_NO_CONTEXT;
    EGLSurface _draw = EGL_NO_SURFACE;
    EGLSurface _read = EGL_NO_SURFACE;
};

QString driverText(unsigned int name)
{
    return QString::fromUtf8(reinterpret_cast<const char *>(glGetString(name)));
}

} // namespace

QString VersionDetails::text() const
{
    const QString gl = glMissing.isEmpty() ? u"OpenGL %1\nvendor %2\nrenderer %3"_s.arg(glVersion, glVendor, glRenderer)
                                           : u"OpenGL: none here: %1"_s.arg(glMissing);
    return u"%1\nQt %2, built with %3\n%4\n"_s.arg(library, qtRunning, qtBuilt, gl);
}

QString libraryVersion()
{
    return QStringLiteral(KVO_VERSION);
}

VersionDetails versionDetails()
{
    VersionDetails details{.library = libraryVersion(),
                           .qtBuilt = QStringLiteral(QT_VERSION_STR),
                           .qtRunning = QString::fromLatin1(qVersion())};
    const KeepCurrent keep;
    const std::unique_ptr<HeadlessContext> context = HeadlessContext::create(&details.glMissing);
    if (!context)
        return details;
    details.glMissing.clear();
    details.glVendor = driverText(GL_VENDOR);
    details.glRenderer = driverText(GL_RENDERER);
    details.glVersion = driverText(GL_VERSION);
    return details;
}

} // namespace Brevane::Kvo
