// A window without a toolkit: X11, a GLX context of one's own, and a pipeline built in code. Turns until Escape.
//
//   example_glx MODEL [PICTURE.ppm]

#include <gl/framebufferobject.h>
#include <gl/opengldevicecontext.h>
#include <host/camera.h>
#include <host/pipeline.h>
#include <host/sceneimport.h>

#include <QRect>

#include <epoxy/gl.h>
#include <epoxy/glx.h> // X11's macros last
#include <X11/keysym.h>

#include <cstdio>
#include <memory>
#include <vector>

using namespace Brevane::Kvo;
namespace {

constexpr int kWidth = 640, kHeight = 400;

GLXContext openWindow(Display *display, Window *window)
{
    const int wish[] = {GLX_DOUBLEBUFFER, True, GLX_RED_SIZE, 8, GLX_DEPTH_SIZE, 24, None};
    int count = 0;
    GLXFBConfig *configs = glXChooseFBConfig(display, DefaultScreen(display), wish, &count);
    if (count == 0)
        return nullptr;
    XVisualInfo *visual = glXGetVisualFromFBConfig(display, configs[0]);
    XSetWindowAttributes attributes{};
    attributes.colormap = XCreateColormap(display, DefaultRootWindow(display), visual->visual, AllocNone);
    attributes.event_mask = StructureNotifyMask | KeyPressMask;
    *window = XCreateWindow(display, DefaultRootWindow(display), 0, 0, kWidth, kHeight, 0, visual->depth, InputOutput,
                            visual->visual, CWColormap | CWEventMask, &attributes);
    XMapWindow(display, *window);
    // The passes want OpenGL 3.2 or later.
    const int version[] = {GLX_CONTEXT_MAJOR_VERSION_ARB, 3, GLX_CONTEXT_MINOR_VERSION_ARB, 2,
                           GLX_CONTEXT_PROFILE_MASK_ARB, GLX_CONTEXT_CORE_PROFILE_BIT_ARB, None};
    GLXContext context = glXCreateContextAttribsARB(display, configs[0], nullptr, True, version);
    XFree(visual), XFree(configs);
    return context && glXMakeCurrent(display, *window, context) ? context : nullptr;
}

bool writePicture(const char *path, int width, int height)
{
    std::vector<unsigned char> pixels(std::size_t(width) * height * 3);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, width, height, GL_RGB, GL_UNSIGNED_BYTE, pixels.data());
    std::FILE *file = std::fopen(path, "wb");
    if (!file)
        return false;
    std::fprintf(file, "P6 %d %d 255\n", width, height);
    for (int y = height - 1; y >= 0; --y) // GL's first row is the lowest
        std::fwrite(&pixels[std::size_t(y) * width * 3], 3, std::size_t(width), file);
    return std::fclose(file) == 0;
}

int show(Display *display, Window window, const ModelData &data, const char *picture)
{
    GPUModel model;
    model.upload(data);
    Pipeline pipeline;
    pipeline.add("Backdrop", "GradientRenderPass");
    pipeline.add("Model", "ForwardRenderPass");
    pipeline.add("Scene", "BlendRenderPass");
    pipeline.add("Present", "TextureToScreenRenderPass");
    pipeline.connect("Model.Frame", "Scene.FrameA");
    pipeline.connect("Backdrop.Frame", "Scene.FrameB");
    pipeline.setValue("Scene", "Int_BlendMode", 3); // A over B
    pipeline.connect("Scene.Frame", "Present.Texture");
    pipeline.bindStandard(); // viewport, camera and model to the passes that ask for them
    pipeline.bind("Present", "FramebufferOut", "screen");
    pipeline.setModel(&model);
    const std::unique_ptr<FramebufferObject> screen(FramebufferObject::wrap(0));
    pipeline.setScreen(screen.get());

    int width = kWidth, height = kHeight;
    for (float yaw = -30; true; yaw += 0.5f) {
        while (XPending(display)) {
            XEvent event;
            XNextEvent(display, &event);
            if (event.type == ConfigureNotify)
                width = event.xconfigure.width, height = event.xconfigure.height;
            else if (event.type == KeyPress && XLookupKeysym(&event.xkey, 0) == XK_Escape)
                return 0;
        }
        const float aspect = float(width) / float(height);
        Camera camera;
        camera.fit(model.sceneBounds(), yaw, 20, aspect);
        pipeline.setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspect), camera.nearPlane, camera.farPlane);
        pipeline.setViewport(QRect(0, 0, width, height));
        if (!pipeline.render())
            return 1;
        if (picture)
            return writePicture(picture, width, height) ? 0 : 1;
        glXSwapBuffers(display, window);
    }
}

} // namespace

int main(int argc, char **argv)
{
    ImportReport report;
    const ModelData data = importScene(QString::fromLocal8Bit(argc > 1 ? argv[1] : ""), ImportOptions(), &report);
    Display *display = XOpenDisplay(nullptr);
    Window window = 0;
    if (!report.ok() || !display || !openWindow(display, &window)) {
        std::fprintf(stderr, "example_glx: %s\n", report.ok() ? "no OpenGL 3.2 here" : qPrintable(report.error));
        return 1;
    }
    const int code = show(display, window, data, argc > 2 ? argv[2] : nullptr);
    OpenGLDeviceContext::releaseCurrent(); // before the context goes
    XCloseDisplay(display);
    return code;
}
