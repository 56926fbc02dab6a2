#include "host/headlesscontext.h"

#include "gl/opengldevicecontext.h"

#include <QStringList>
#include <QVector>

#include <dlfcn.h>
#include <epoxy/egl.h>
#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

constexpr int kMaxDevices = 16;

struct Candidate
{
    EGLDisplay display;
    QString name;
};

QString eglErrorText()
{
    switch (const EGLint code = eglGetError()) {
    case EGL_SUCCESS: return QStringLiteral("no reason given");
    case EGL_NOT_INITIALIZED: return QStringLiteral("no driver could be started (EGL_NOT_INITIALIZED)");
    case EGL_BAD_MATCH: return QStringLiteral("the driver has no such version (EGL_BAD_MATCH)");
    default: return QStringLiteral("EGL error 0x%1").arg(code, 0, 16);
    }
}

bool hasWord(const char *list, const char *word)
{
    return list && QString::fromLatin1(list).split(QLatin1Char(' ')).contains(QLatin1StringView(word));
}

// Displays that need no window system, best first.
QVector<Candidate> candidates()
{
    QVector<Candidate> result;
    const char *extensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    const auto getDisplay =
        reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (!getDisplay)
        return result;
    if (hasWord(extensions, "EGL_MESA_platform_surfaceless"))
        if (const EGLDisplay display = getDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr))
            result << Candidate{display, QStringLiteral("surfaceless")};
    const auto queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
    if (!queryDevices || !hasWord(extensions, "EGL_EXT_platform_device"))
        return result;
    EGLDeviceEXT devices[kMaxDevices] = {};
    EGLint count = 0;
    if (queryDevices(kMaxDevices, devices, &count))
        for (int i = 0; i < count; ++i)
            if (const EGLDisplay display = getDisplay(EGL_PLATFORM_DEVICE_EXT, devices[i], nullptr))
                result << Candidate{display, QStringLiteral("device %1").arg(i)};
    return result;
}

} // namespace

HeadlessContext::HeadlessContext() = default;

std::unique_ptr<HeadlessContext> HeadlessContext::create(const Options &options, QString *error)
{
    // Asked first, because the GL loader ends the process when a library is missing.
    for (const char *library : {"libEGL.so.1", "libGL.so.1"}) {
        if (dlopen(library, RTLD_LAZY | RTLD_LOCAL))
            continue;
        if (qstrcmp(library, "libGL.so.1") == 0 && dlopen("libOpenGL.so.0", RTLD_LAZY | RTLD_LOCAL))
            continue;
        *error = QStringLiteral("there is no %1 on this system: install EGL and a driver "
                                "(on Debian libegl1 and libgl1-mesa-dri, which renders without a GPU too)")
                     .arg(QLatin1StringView(library));
        return nullptr;
    }

    QStringList reasons;
    std::unique_ptr<HeadlessContext> result(new HeadlessContext);
    for (const Candidate &candidate : candidates()) {
        EGLint major = 0, minor = 0;
        if (!eglInitialize(candidate.display, &major, &minor)) {
            reasons << QStringLiteral("%1: %2").arg(candidate.name, eglErrorText());
            continue;
        }
        eglBindAPI(EGL_OPENGL_API);
        const char *extensions = eglQueryString(candidate.display, EGL_EXTENSIONS);
        EGLConfig config = EGL_NO_CONFIG_KHR;
        const bool needsConfig = !hasWord(extensions, "EGL_KHR_no_config_context");
        const bool needsSurface = !hasWord(extensions, "EGL_KHR_surfaceless_context");
        if (needsConfig || needsSurface) {
            const EGLint wanted[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_NONE};
            EGLint count = 0;
            if (!eglChooseConfig(candidate.display, wanted, &config, 1, &count) || count == 0) {
                reasons << QStringLiteral("%1: no suitable configuration").arg(candidate.name);
                continue;
            }
        }
        const EGLint attributes[] = {
            EGL_CONTEXT_MAJOR_VERSION,
            options.major,
            EGL_CONTEXT_MINOR_VERSION,
            options.minor,
            EGL_CONTEXT_OPENGL_PROFILE_MASK,
            EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT,
            EGL_CONTEXT_FLAGS_KHR,
            options.debug ? EGL_CONTEXT_OPENGL_DEBUG_BIT_KHR : 0,
            EGL_NONE,
        };
        const EGLContext context = eglCreateContext(candidate.display, config, EGL_NO_CONTEXT, attributes);
        if (!context) {
            reasons << QStringLiteral("%1: no OpenGL %2.%3 core context: %4")
                           .arg(candidate.name)
                           .arg(options.major)
                           .arg(options.minor)
                           .arg(eglErrorText());
            continue;
        }
        if (needsSurface) {
            const EGLint size[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
            result->_surface = eglCreatePbufferSurface(candidate.display, config, size);
        }
        result->_display = candidate.display;
        result->_context = context;
        result->_platform = QStringLiteral("EGL %1.%2 %3").arg(major).arg(minor).arg(candidate.name);
        if (result->makeCurrent() && OpenGLDeviceContext::current())
            return result;
        reasons << QStringLiteral("%1: the context cannot be used: %2").arg(candidate.name, eglErrorText());
        result.reset(new HeadlessContext);
    }
    *error = QStringLiteral("no OpenGL %1.%2 context without a window: %3")
                 .arg(options.major)
                 .arg(options.minor)
                 .arg(reasons.isEmpty() ? QStringLiteral("EGL offers neither the surfaceless nor the device platform")
                                        : reasons.join(QLatin1StringView("; ")));
    return nullptr;
}

HeadlessContext::~HeadlessContext()
{
    if (!_context)
        return;
    if (makeCurrent())
        OpenGLDeviceContext::releaseCurrent();
    doneCurrent();
    if (_surface)
        eglDestroySurface(_display, _surface);
    eglDestroyContext(_display, _context);
    // The display belongs to the process: other contexts may live on it.
}

bool HeadlessContext::makeCurrent()
{
    return _context && eglMakeCurrent(_display, _surface, _surface, _context);
}

bool HeadlessContext::isCurrent() const
{
    return _context && eglGetCurrentContext() == _context;
}

void HeadlessContext::doneCurrent()
{
    if (const EGLDisplay display = eglGetCurrentDisplay())
        eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

QString HeadlessContext::platform() const
{
    return _platform;
}

} // namespace Brevane::Kvo
