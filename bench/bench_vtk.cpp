// Our depth of field, FXAA and ambient obscurance beside those of VTK, in one process and one OpenGL
// context: that of VTK's window. Needs an X display (xvfb-run) and VTK 9.1, so this target is optional.
//
// A VTK pass cannot be started alone; its cost is that of a frame with it less that of the frame without.
//
//   xvfb-run bench_vtk [REPETITIONS]

#include "cost.h"

#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <renderpasses/depthoffieldrenderpass.h>
#include <renderpasses/fastapproximateantialiasingrenderpass.h>
#include <renderpasses/scalableambientobscurancerenderpass.h>

#include <epoxy/gl.h>

#include <QMatrix4x4>
#include <QRect>
#include <QVariant>
#include <QVector2D>

#include <vtkActor.h>
#include <vtkAutoInit.h>
#include <vtkCamera.h>
#include <vtkDepthOfFieldPass.h>
#include <vtkMatrix4x4.h>
#include <vtkNew.h>
#include <vtkOpenGLFXAAPass.h>
#include <vtkOpenGLRenderer.h>
#include <vtkPolyDataMapper.h>
#include <vtkProperty.h>
#include <vtkRenderStepsPass.h>
#include <vtkRenderWindow.h>
#include <vtkSSAOPass.h>
#include <vtkSphereSource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

VTK_MODULE_INIT(vtkRenderingOpenGL2)

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

std::unique_ptr<Texture> floatTexture(unsigned int internalFormat, unsigned int format, const float *pixels)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D);
    AutoBinder bound(texture.get());
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), kWidth, kHeight, 0, format, GL_FLOAT, pixels);
    return texture;
}

QMatrix4x4 toQt(vtkMatrix4x4 *matrix)
{
    QMatrix4x4 result;
    for (int row = 0; row < 4; ++row)
        for (int column = 0; column < 4; ++column)
            result(row, column) = float(matrix->GetElement(row, column));
    return result;
}

struct Row
{
    const char *name;
    double bar;
    std::vector<double> vtk;
    std::vector<double> ours;
    std::vector<double> wallRatios;
    std::vector<double> cpuRatios;
};

} // namespace

int main(int argc, char **argv)
{
    const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 30;

    vtkNew<vtkOpenGLRenderer> renderer;
    vtkNew<vtkRenderWindow> window;
    window->SetSize(kWidth, kHeight);
    window->SetMultiSamples(0);
    window->SetOffScreenRendering(1);
    window->AddRenderer(renderer);
    vtkNew<vtkSphereSource> sphere;
    sphere->SetThetaResolution(32);
    sphere->SetPhiResolution(32);
    vtkNew<vtkPolyDataMapper> mapper;
    mapper->SetInputConnection(sphere->GetOutputPort());
    for (int i = 0; i < 100; ++i) {
        vtkNew<vtkActor> actor;
        actor->SetMapper(mapper);
        actor->SetPosition(i % 10 - 4.5, i / 10 - 4.5, -(i % 7));
        actor->GetProperty()->SetColor(0.3 + 0.07 * (i % 10), 0.3 + 0.07 * (i / 10), 0.5);
        renderer->AddActor(actor);
    }
    renderer->ResetCamera();
    window->Render();
    window->MakeCurrent();

    vtkNew<vtkRenderStepsPass> plain;
    vtkNew<vtkDepthOfFieldPass> vtkDepthOfField;
    vtkDepthOfField->SetDelegatePass(plain);
    vtkDepthOfField->AutomaticFocalDistanceOff();
    vtkNew<vtkOpenGLFXAAPass> vtkFxaa;
    vtkFxaa->SetDelegatePass(plain);
    constexpr double kRadius = 0.5;
    constexpr double kBias = 0.01;
    vtkNew<vtkSSAOPass> vtkSsao;
    vtkSsao->SetDelegatePass(plain);
    vtkSsao->SetRadius(kRadius);
    vtkSsao->SetBias(kBias);
    vtkSsao->SetKernelSize(11);
    vtkSsao->BlurOff();
    const auto vtkFrame = [&](vtkRenderPass *pass) {
        renderer->SetPass(pass);
        return costOf([&] { window->Render(); });
    };

    const auto device = OpenGLDeviceContext::current();
    if (!device) {
        std::fprintf(stderr, "bench_vtk: VTK's context cannot be used\n");
        return 1;
    }
    std::printf("%s\n%d by %d, medians of %d rounds, milliseconds\n", qPrintable(device->description()), kWidth,
                kHeight, repetitions);
    {
        // VTK's own picture and depth, so that both blur the same.
        vtkFrame(plain);
        const std::unique_ptr<float[]> colors(window->GetRGBAPixelData(0, 0, kWidth - 1, kHeight - 1, 1));
        const std::unique_ptr<float[]> depths(window->GetZbufferData(0, 0, kWidth - 1, kHeight - 1));
        window->MakeCurrent();
        const auto frame = floatTexture(GL_RGBA16F, GL_RGBA, colors.get());
        const auto depth = floatTexture(GL_R32F, GL_RED, depths.get());
        const QRect viewport(0, 0, kWidth, kHeight);
        DepthOfFieldRenderPass depthOfField;
        depthOfField.setInput(0, viewport);
        depthOfField.setInput(1, textureToVariant(frame.get()));
        depthOfField.setInput(2, textureToVariant(depth.get()));
        depthOfField.setInput(4, 50.0f);
        depthOfField.setInput(5, 1.4f);
        depthOfField.setInput(6, true);
        depthOfField.setInput(7, QVector2D(0.5f, 0.5f));
        FastApproximateAntiAliasingRenderPass fxaa;
        fxaa.setInput(0, viewport);
        fxaa.setInput(1, textureToVariant(frame.get()));

        // 11 taps, from the depth alone; VTK has its positions and normals drawn by the scene.
        const auto zBuffer = floatTexture(GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, depths.get());
        vtkCamera *const camera = renderer->GetActiveCamera();
        ScalableAmbientObscuranceRenderPass obscurance;
        obscurance.setInput(0, viewport);
        obscurance.setInput(1, toQt(camera->GetProjectionTransformMatrix(double(kWidth) / kHeight, -1, 1)));
        obscurance.setInput(2, toQt(camera->GetViewTransformMatrix()));
        obscurance.setInput(3, float(camera->GetClippingRange()[0]));
        obscurance.setInput(4, float(camera->GetClippingRange()[1]));
        obscurance.setInput(5, textureToVariant(zBuffer.get()));
        obscurance.setInput(6, float(kRadius));
        obscurance.setInput(7, float(kBias));

        Row rows[] = {{"depth of field", 0.55, {}, {}, {}, {}},
                      {"FXAA", 0.85, {}, {}, {}, {}},
                      {"obscurance", 0.5, {}, {}, {}, {}}};
        for (int i = -3; i < repetitions; ++i) {
            const Cost bare = vtkFrame(plain);
            const Cost with[] = {vtkFrame(vtkDepthOfField) - bare, vtkFrame(vtkFxaa) - bare, vtkFrame(vtkSsao) - bare};
            window->MakeCurrent();
            const Cost ours[] = {costOf([&] { depthOfField.start(nullptr); }), costOf([&] { fxaa.start(nullptr); }),
                                 costOf([&] { obscurance.start(nullptr); })};
            for (int r = 0; r < 3 && i >= 0; ++r) {
                rows[r].vtk.push_back(with[r].wall);
                rows[r].ours.push_back(ours[r].wall);
                rows[r].wallRatios.push_back(ours[r].wall / with[r].wall);
                rows[r].cpuRatios.push_back(ours[r].cpu / with[r].cpu);
            }
        }
        std::printf("%-16s %10s %10s %8s %10s %8s\n", "pass", "VTK", "ours", "ratio", "cpu ratio", "goal");
        for (const Row &row : rows)
            std::printf("%-16s %10.1f %10.1f %8.2f %10.2f %8.2f\n", row.name, median(row.vtk), median(row.ours),
                        median(row.wallRatios), median(row.cpuRatios), row.bar);
        vtkDepthOfField->ReleaseGraphicsResources(window);
        vtkFxaa->ReleaseGraphicsResources(window);
        vtkSsao->ReleaseGraphicsResources(window);
        window->MakeCurrent();
    }
    OpenGLDeviceContext::releaseCurrent();
    return 0;
}
