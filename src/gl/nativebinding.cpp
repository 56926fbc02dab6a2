#include "gl/nativebinding.h"

#include "gl/loadedlibrary.h"

namespace Brevane::Kvo {

namespace {

constexpr int kEglDraw = 0x3059;
constexpr int kEglRead = 0x305A;

template <typename Function>
Function egl(const char *name)
{
    return loadedFunction<Function>({"libEGL.so.1"}, name);
}

template <typename Function>
Function glx(const char *name)
{
    return loadedFunction<Function>({"libGLX.so.0", "libGL.so.1"}, name);
}

} // namespace

NativeBinding::NativeBinding()
{
    using Get = void *(*)();
    if (const auto current = egl<Get>("eglGetCurrentContext"); current && current()) {
        _kind = Kind::Egl;
        _context = current();
        _display = egl<Get>("eglGetCurrentDisplay")();
        const auto surface = egl<void *(*)(int)>("eglGetCurrentSurface");
        _drawSurface = surface(kEglDraw);
        _readSurface = surface(kEglRead);
    } else if (const auto currentGlx = glx<Get>("glXGetCurrentContext"); currentGlx && currentGlx()) {
        using GetDrawable = unsigned long (*)();
        _kind = Kind::Glx;
        _context = currentGlx();
        _display = glx<Get>("glXGetCurrentDisplay")();
        _drawable = glx<GetDrawable>("glXGetCurrentDrawable")();
        _readDrawable = glx<GetDrawable>("glXGetCurrentReadDrawable")();
    }
}

void NativeBinding::restore() const
{
    switch (_kind) {
    case Kind::None: break;
    case Kind::Egl:
        egl<unsigned int (*)(void *, void *, void *, void *)>("eglMakeCurrent")(_display, _drawSurface, _readSurface,
                                                                                _context);
        break;
    case Kind::Glx:
        glx<int (*)(void *, unsigned long, unsigned long, void *)>("glXMakeContextCurrent")(_display, _drawable,
                                                                                            _readDrawable, _context);
        break;
    }
}

} // namespace Brevane::Kvo
