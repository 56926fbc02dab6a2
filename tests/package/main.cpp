// The smallest host: opens a context without a window, runs one pass and reads its picture.

#include "gl/opengldevicecontext.h"
#include "gl/texture.h"
#include "host/pipelinefile.h"
#include "renderpasses/gradientrenderpass.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <QFileInfo>
#include <QRect>
#include <QVariant>

#include <cmath>
#include <cstdio>
#include <vector>

using Brevane::Kvo::findPipeline;
using Brevane::Kvo::GradientRenderPass;
using Brevane::Kvo::OpenGLDeviceContext;
using Brevane::Kvo::Texture;
using Brevane::Kvo::textureFromVariant;

namespace {

constexpr int kWidth = 8;
constexpr int kHeight = 64;

bool openContext(EGLDisplay &display, EGLContext &context)
{
    display = eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (!eglInitialize(display, nullptr, nullptr) || !eglBindAPI(EGL_OPENGL_API))
        return false;
    const EGLint attributes[] = {
        EGL_CONTEXT_MAJOR_VERSION,           3,        EGL_CONTEXT_MINOR_VERSION, 2, EGL_CONTEXT_OPENGL_PROFILE_MASK,
        EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT, EGL_NONE,
    };
    context = eglCreateContext(display, EGL_NO_CONFIG_KHR, EGL_NO_CONTEXT, attributes);
    return context != EGL_NO_CONTEXT && eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, context);
}

std::vector<float> drawGradient()
{
    GradientRenderPass pass;
    pass.setInput(pass.findInput(QStringLiteral("Kvo_QRect_Viewport")), QRect(0, 0, kWidth, kHeight));
    pass.setup(nullptr);
    pass.beginFrame(nullptr);
    pass.start(nullptr);
    pass.endFrame(nullptr);

    std::vector<float> pixels(kWidth * kHeight * 4, -1.0f);
    Texture *frame = textureFromVariant(pass.output(0));
    if (frame && frame->bind()) {
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, pixels.data());
        frame->unbind();
    }
    pass.teardown(nullptr);
    pass.teardownContextData(nullptr);
    return pixels;
}

// This program is not part of the installation, and yet the pipelines are those of the library that it uses.
bool findsPipelines()
{
    const QString wanted = QFileInfo(QStringLiteral(KVO_PIPELINES "/gradient.json")).canonicalFilePath();
    const QString found = QFileInfo(findPipeline(QStringLiteral("gradient"))).canonicalFilePath();
    if (found == wanted)
        return true;
    std::fprintf(stderr, "the pipeline 'gradient' is '%s' and not '%s'\n", qPrintable(found), qPrintable(wanted));
    return false;
}

} // namespace

int main()
{
    if (!findsPipelines())
        return 1;
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLContext context = EGL_NO_CONTEXT;
    if (!openContext(display, context)) {
        std::fprintf(stderr, "no OpenGL 3.2 core context without a surface\n");
        return 2;
    }
    const std::vector<float> pixels = drawGradient();
    OpenGLDeviceContext::releaseCurrent();
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(display, context);
    eglTerminate(display);

    // The defaults of the pass: grey 153 below, grey 64 above. Half a step of 8 bits is far more than
    // interpolation in float loses.
    int wrong = 0;
    for (int row = 0; row < kHeight; ++row) {
        const double expected = (153.0 + (64.0 - 153.0) * (row + 0.5) / kHeight) / 255.0;
        const float actual = pixels[row * kWidth * 4];
        if (std::fabs(actual - expected) > 0.5 / 255.0) {
            std::fprintf(stderr, "row %d: expected %f, found %f\n", row, expected, double(actual));
            ++wrong;
        }
    }
    if (wrong == 0)
        std::printf("the gradient of the installed library is right in all %d rows\n", kHeight);
    return wrong == 0 ? 0 : 1;
}
