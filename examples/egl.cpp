// A host without a toolkit: an EGL context with no window, three passes wired by hand, one picture.
//
//   example_egl OUT.ppm

#include <core/renderpass.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <renderpasses/deferredrenderpass.h>
#include <renderpasses/gbufferrenderpass.h>
#include <renderpasses/primitivebuilderrenderpass.h>

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <QMatrix4x4>
#include <QRect>

#include <cstdio>
#include <vector>

using namespace Brevane::Kvo;

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 180;

// Any context of OpenGL 3.2 or later will do. This one needs neither a display nor a GPU.
bool makeContext()
{
    const auto getPlatformDisplay =
        reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (!getPlatformDisplay)
        return false;
    const EGLDisplay display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, nullptr, nullptr);
    const EGLint attributes[] = {
        EGL_CONTEXT_MAJOR_VERSION,           3,       EGL_CONTEXT_MINOR_VERSION, 2, EGL_CONTEXT_OPENGL_PROFILE_MASK,
        EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT, EGL_NONE};
    if (!eglInitialize(display, nullptr, nullptr) || !eglBindAPI(EGL_OPENGL_API))
        return false;
    const EGLContext context = eglCreateContext(display, EGL_NO_CONFIG_KHR, EGL_NO_CONTEXT, attributes);
    return context != EGL_NO_CONTEXT && eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, context);
}

bool writePicture(Texture *picture, const char *path)
{
    std::vector<unsigned char> pixels(size_t(kWidth) * kHeight * 3);
    picture->bind();
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glGetTexImage(GL_TEXTURE_2D, 0, GL_RGB, GL_UNSIGNED_BYTE, pixels.data());
    picture->unbind();
    std::FILE *file = std::fopen(path, "wb");
    if (!file)
        return false;
    std::fprintf(file, "P6 %d %d 255\n", kWidth, kHeight);
    for (int y = kHeight - 1; y >= 0; --y) // GL's first row is the lowest
        std::fwrite(&pixels[size_t(y) * kWidth * 3], 3, kWidth, file);
    return std::fclose(file) == 0;
}

void drawFrame(const char *path, bool *ok)
{
    // Passes live as long as they are used, and go while their context is current.
    PrimitiveBuilderRenderPass shapes;
    shapes.addCube(1.5f, QVector3D(-1.2f, 0, 0));
    shapes.addCube(1.0f, QVector3D(1.2f, 0.3f, 0.5f));
    GBufferRenderPass geometry;
    DeferredRenderPass lighting;

    QMatrix4x4 projection;
    projection.perspective(45.0f, float(kWidth) / float(kHeight), 0.1f, 100.0f);
    QMatrix4x4 camera;
    camera.lookAt({-2.5f, 2.2f, 4.5f}, {0, 0, 0}, {0, 1, 0});
    const QRect viewport(0, 0, kWidth, kHeight);

    // One frame. Each class has names for its inputs and outputs.
    using Geometry = GBufferRenderPass;
    using Lighting = DeferredRenderPass;
    glViewport(0, 0, kWidth, kHeight);
    shapes.start(nullptr);
    geometry.setInput(Geometry::InViewport, viewport);
    geometry.setInput(Geometry::InProjectionMatrix, projection);
    geometry.setInput(Geometry::InCameraMatrix, camera);
    geometry.setInput(Geometry::InGeometry, shapes.output(PrimitiveBuilderRenderPass::OutGeometry));
    geometry.start(nullptr);
    lighting.setInput(Lighting::InViewport, viewport);
    lighting.setInput(Lighting::InCameraMatrix, camera);
    lighting.setInput(Lighting::InNormal, geometry.output(Geometry::OutNormal));
    lighting.setInput(Lighting::InDepth, geometry.output(Geometry::OutDepth));
    lighting.start(nullptr);

    *ok = writePicture(textureFromVariant(lighting.output(Lighting::OutFrame)), path);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: example_egl OUT.ppm\n");
        return 2;
    }
    if (!makeContext()) {
        std::fprintf(stderr, "example_egl: there is no surfaceless OpenGL 3.2 here\n");
        return 1;
    }
    bool ok = false;
    drawFrame(argv[1], &ok);
    // The library frees what it keeps for this context.
    OpenGLDeviceContext::releaseCurrent();
    if (!ok)
        std::fprintf(stderr, "example_egl: cannot write %s\n", argv[1]);
    return ok ? 0 : 1;
}
