#include "support/glcontext.h"

#include "support/glcalls.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>
#include <gtest/gtest.h>

#include <vector>

namespace Brevane::Kvo::Test {

namespace {

int expectingErrors = 0;
int expectedErrors = 0;

EGLDisplay display()
{
    static const EGLDisplay opened = [] {
        const auto getDisplay =
            reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
        const EGLDisplay d =
            getDisplay ? getDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr) : EGL_NO_DISPLAY;
        return d != EGL_NO_DISPLAY && eglInitialize(d, nullptr, nullptr) ? d : EGL_NO_DISPLAY;
    }();
    return opened;
}

// Only errors of GL calls: what a compiler says about a shader is the shader's log.
void GLAPIENTRY onDebugMessage(GLenum source, GLenum type, GLuint, GLenum, GLsizei, const GLchar *text, const void *)
{
    if (source != GL_DEBUG_SOURCE_API || type != GL_DEBUG_TYPE_ERROR)
        return;
    if (expectingErrors > 0)
        ++expectedErrors;
    else
        ADD_FAILURE() << "GL error: " << text;
}

} // namespace

GLContext::GLContext() : GLContext(Options()) {}

GLContext::GLContext(const Options &options)
{
    if (display() == EGL_NO_DISPLAY) {
        _error = QStringLiteral("no surfaceless EGL display");
        return;
    }
    eglBindAPI(options.es ? EGL_OPENGL_ES_API : EGL_OPENGL_API);
    std::vector<EGLint> attributes{EGL_CONTEXT_MAJOR_VERSION, options.major, EGL_CONTEXT_MINOR_VERSION, options.minor};
    if (!options.es && (options.major > 3 || (options.major == 3 && options.minor >= 2)))
        attributes.insert(attributes.end(), {EGL_CONTEXT_OPENGL_PROFILE_MASK,
                                             options.core ? EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT
                                                          : EGL_CONTEXT_OPENGL_COMPATIBILITY_PROFILE_BIT});
    if (options.debug)
        attributes.insert(attributes.end(), {EGL_CONTEXT_FLAGS_KHR, EGL_CONTEXT_OPENGL_DEBUG_BIT_KHR});
    attributes.push_back(EGL_NONE);
    _context = eglCreateContext(display(), EGL_NO_CONFIG_KHR, options.share ? options.share->_context : EGL_NO_CONTEXT,
                                attributes.data());
    if (!_context)
        _error = QStringLiteral("eglCreateContext: 0x%1").arg(eglGetError(), 0, 16);
}

GLContext::~GLContext()
{
    if (!_context)
        return;
    if (isCurrent()) {
        // llvmpipe writes the result of a query that is still open into memory that goes with the context. Not by the
        // pointer that tests replace: a lost context of theirs does nothing, and its driver goes on.
        if (const auto finish = reinterpret_cast<void (*)()>(eglGetProcAddress("glFinish")))
            finish();
        doneCurrent();
    }
    eglDestroyContext(display(), _context);
}

bool GLContext::makeCurrent()
{
    if (!_context || !eglMakeCurrent(display(), EGL_NO_SURFACE, EGL_NO_SURFACE, _context))
        return false;
    if (!_debugReady && epoxy_has_gl_extension("GL_KHR_debug")) {
        _debugReady = true;
        const GlCalls::Pause pause;
        glEnable(GL_DEBUG_OUTPUT);
        glEnable(GL_DEBUG_OUTPUT_SYNCHRONOUS);
        glDebugMessageCallback(&onDebugMessage, nullptr);
    }
    return true;
}

bool GLContext::isCurrent() const
{
    return _context && eglGetCurrentContext() == _context;
}

void GLContext::doneCurrent()
{
    if (display() != EGL_NO_DISPLAY)
        eglMakeCurrent(display(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

ExpectedGLErrors::ExpectedGLErrors()
{
    if (expectingErrors++ == 0)
        expectedErrors = 0;
}

ExpectedGLErrors::~ExpectedGLErrors()
{
    const GlCalls::Pause pause;
    --expectingErrors;
    while (eglGetCurrentContext() && glGetError() != GL_NO_ERROR) {
    }
}

int ExpectedGLErrors::count() const
{
    return expectedErrors;
}

} // namespace Brevane::Kvo::Test
