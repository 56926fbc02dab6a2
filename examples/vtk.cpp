// A VTK viewer whose picture goes through a pipeline: ambient obscurance and antialiasing over VTK's colour and depth.
//
//   example_vtk [--plain] [PICTURE.png]      --plain: without the pipeline

#include <host/vtkpipelinepass.h>

#include <vtkActor.h>
#include <vtkAutoInit.h>
#include <vtkCamera.h>
#include <vtkInteractorStyleTrackballCamera.h>
#include <vtkNew.h>
#include <vtkPNGWriter.h>
#include <vtkPolyDataMapper.h>
#include <vtkProperty.h>
#include <vtkRenderWindow.h>
#include <vtkRenderWindowInteractor.h>
#include <vtkRenderer.h>
#include <vtkSphereSource.h>
#include <vtkWindowToImageFilter.h>

#include <cstring>
#include <iostream>

VTK_MODULE_INIT(vtkRenderingOpenGL2)
VTK_MODULE_INIT(vtkInteractionStyle)

namespace {

// VtkFrame is what VTK has drawn.
constexpr char kPipeline[] = R"({ "passes": [
  { "name": "Scene", "class": "VtkFrame", "inputs": { "Viewport": "@viewport" } },
  { "name": "Obscurance", "class": "ScalableAmbientObscuranceRenderPass",
    "inputs": { "Viewport": "@viewport", "ProjectionMatrix": "@projection", "CameraMatrix": "@camera",
                "NearPlane": "@near", "FarPlane": "@far", "Depth": { "from": "Scene.Depth" },
                "SAORadius": 0.4, "SAOBias": 0.02, "SAOIntensity": 0.7 } },
  { "name": "Soft", "class": "GaussianBlurRenderPass",
    "inputs": { "Viewport": "@viewport", "Input": { "from": "Obscurance.Frame" }, "BlurRadius": 2 } },
  { "name": "Darkened", "class": "BlendRenderPass",
    "inputs": { "Viewport": "@viewport", "FrameA": { "from": "Soft.Output" }, "FrameB": { "from": "Scene.Frame" },
                "Int_BlendMode": 25 } },
  { "name": "Smooth", "class": "SMAARenderPass",
    "inputs": { "Viewport": "@viewport", "Frame": { "from": "Darkened.Frame" }, "Mode": 0, "JitterIndex": -1 } },
  { "name": "Present", "class": "TextureToScreenRenderPass",
    "inputs": { "Viewport": "@viewport", "Texture": { "from": "Smooth.Frame" }, "FramebufferOut": "@screen" } } ] })";

void fill(vtkRenderer *renderer)
{
    vtkNew<vtkSphereSource> sphere;
    sphere->SetThetaResolution(32);
    sphere->SetPhiResolution(32);
    vtkNew<vtkPolyDataMapper> mapper;
    mapper->SetInputConnection(sphere->GetOutputPort());
    for (int i = 0; i < 125; ++i) {
        vtkNew<vtkActor> actor;
        actor->SetMapper(mapper);
        actor->SetPosition(0.8 * (i % 5), 0.8 * (i / 5 % 5), 0.8 * (i / 25));
        actor->GetProperty()->SetColor(0.5 + 0.1 * (i % 5), 0.5 + 0.1 * (i / 5 % 5), 0.5 + 0.1 * (i / 25));
        renderer->AddActor(actor);
    }
    renderer->SetBackground(0.85, 0.87, 0.9);
    renderer->ResetCamera();
    renderer->GetActiveCamera()->Azimuth(30);
    renderer->GetActiveCamera()->Elevation(20);
    renderer->GetActiveCamera()->Zoom(1.4);
    renderer->ResetCameraClippingRange();
}

} // namespace

int main(int argc, char **argv)
{
    const bool isPlain = argc > 1 && std::strcmp(argv[1], "--plain") == 0;
    const char *picture = argc > 1 + isPlain ? argv[1 + isPlain] : nullptr;

    vtkNew<vtkRenderer> renderer;
    vtkNew<vtkRenderWindow> window;
    window->SetSize(640, 480);
    window->SetMultiSamples(0);
    window->AddRenderer(renderer);
    fill(renderer);

    vtkNew<Brevane::Kvo::VtkPipelinePass> pass;
    if (!pass->SetPipelineText(kPipeline)) {
        std::cerr << pass->GetErrors() << "\n";
        return 1;
    }
    if (!isPlain)
        renderer->SetPass(pass);

    if (picture) {
        window->Render();
        vtkNew<vtkWindowToImageFilter> image;
        image->SetInput(window);
        image->ReadFrontBufferOff();
        vtkNew<vtkPNGWriter> writer;
        writer->SetFileName(picture);
        writer->SetInputConnection(image->GetOutputPort());
        writer->Write();
        return pass->GetErrors().empty() ? 0 : 1;
    }
    vtkNew<vtkRenderWindowInteractor> interactor;
    vtkNew<vtkInteractorStyleTrackballCamera> style;
    interactor->SetInteractorStyle(style);
    interactor->SetRenderWindow(window);
    window->Render();
    interactor->Start();
    return 0;
}
