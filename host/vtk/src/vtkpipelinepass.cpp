#include "host/vtkpipelinepass.h"

#include "vtkpipelineframe.h"

#include <vtkCamera.h>
#include <vtkMatrix4x4.h>
#include <vtkObjectFactory.h>
#include <vtkOpenGLFramebufferObject.h>
#include <vtkOpenGLRenderWindow.h>
#include <vtkOpenGLState.h>
#include <vtkRenderState.h>
#include <vtkRenderStepsPass.h>
#include <vtkRenderer.h>
#include <vtkTextureObject.h>

#include <algorithm>
#include <array>

namespace Brevane::Kvo {

namespace {

// Points that fill a pixel evenly, from -0.5 to 0.5.
double radicalInverse(int index, int base)
{
    double result = 0.0;
    double digit = 1.0 / base;
    for (; index > 0; index /= base, digit /= base)
        result += digit * (index % base);
    return result - 0.5;
}

std::array<float, 16> rowsOf(vtkMatrix4x4 *matrix)
{
    std::array<float, 16> rows{};
    for (int i = 0; i < 16; ++i)
        rows[std::size_t(i)] = float(matrix->GetElement(i / 4, i % 4));
    return rows;
}

} // namespace

class VtkPipelinePassPrivate
{
public:
    VtkPipelineFrame frame;
    vtkSmartPointer<vtkOpenGLFramebufferObject> framebuffer;
    vtkSmartPointer<vtkTextureObject> color;
    vtkSmartPointer<vtkTextureObject> depth;
    bool hasResources = false;
    int jitterFrames = 0;
    int jitter = 0;
};

vtkStandardNewMacro(VtkPipelinePass)

    VtkPipelinePass::VtkPipelinePass()
    : d(std::make_unique<VtkPipelinePassPrivate>())
{
    vtkNew<vtkRenderStepsPass> steps;
    SetDelegatePass(steps);
}

VtkPipelinePass::~VtkPipelinePass() = default;

void VtkPipelinePass::PrintSelf(ostream &os, vtkIndent indent)
{
    Superclass::PrintSelf(os, indent);
    os << indent << "JitterFrames: " << d->jitterFrames << "\n" << indent << "Errors: " << GetErrors() << "\n";
}

bool VtkPipelinePass::SetPipelineFile(const std::string &nameOrPath)
{
    Modified();
    return d->frame.setFile(nameOrPath);
}

bool VtkPipelinePass::SetPipelineText(const std::string &text)
{
    Modified();
    return d->frame.setText(text);
}

bool VtkPipelinePass::SetSlotValue(const std::string &slot, const std::string &value)
{
    Modified();
    return d->frame.setSlot(slot, value);
}

Pipeline *VtkPipelinePass::GetPipeline() const
{
    return d->frame.pipeline();
}

std::string VtkPipelinePass::GetErrors() const
{
    return d->frame.errors();
}

void VtkPipelinePass::SetJitterFrames(int frames)
{
    d->jitterFrames = std::max(frames, 0);
    Modified();
}

int VtkPipelinePass::GetJitterFrames() const
{
    return d->jitterFrames;
}

void VtkPipelinePass::Render(const vtkRenderState *state)
{
    NumberOfRenderedProps = 0;
    vtkRenderer *renderer = state->GetRenderer();
    auto *window = vtkOpenGLRenderWindow::SafeDownCast(renderer->GetRenderWindow());
    if (!window || !DelegatePass) {
        vtkWarningMacro(<< "there is no OpenGL window, or no delegate");
        return;
    }
    int width = 0, height = 0, x = 0, y = 0;
    renderer->GetTiledSizeAndOrigin(&width, &height, &x, &y);
    if (width < 1 || height < 1)
        return;
    if (!d->hasResources) {
        d->framebuffer = vtkSmartPointer<vtkOpenGLFramebufferObject>::New();
        d->framebuffer->SetContext(window);
        d->color = vtkSmartPointer<vtkTextureObject>::New();
        d->color->SetContext(window);
        d->depth = vtkSmartPointer<vtkTextureObject>::New();
        d->depth->SetContext(window);
        d->hasResources = true;
        VtkPipelineFrame::enter(window);
    }
    if (int(d->color->GetWidth()) != width || int(d->color->GetHeight()) != height || !d->color->GetHandle()) {
        d->color->Create2D(unsigned(width), unsigned(height), 4, VTK_UNSIGNED_CHAR, false);
        d->depth->AllocateDepth(unsigned(width), unsigned(height), vtkTextureObject::Float32);
    }

    vtkCamera *camera = renderer->GetActiveCamera();
    double center[2];
    camera->GetWindowCenter(center);
    const double aspect = renderer->GetTiledAspectRatio();
    const VtkView view{rowsOf(camera->GetViewTransformMatrix()),
                       rowsOf(camera->GetProjectionTransformMatrix(aspect, -1, 1)),
                       float(camera->GetClippingRange()[0]),
                       float(camera->GetClippingRange()[1]),
                       width,
                       height,
                       x,
                       y};
    if (d->jitterFrames > 0) {
        d->jitter = d->jitter % d->jitterFrames + 1;
        camera->SetWindowCenter(center[0] + 2.0 * radicalInverse(d->jitter, 2) / width,
                                center[1] + 2.0 * radicalInverse(d->jitter, 3) / height);
    }
    // The framebuffer, the viewport and the scissor of the caller are put back behind the delegate's.
    vtkOpenGLState *glState = window->GetState();
    {
        const vtkOpenGLState::ScopedglViewport viewport(glState);
        const vtkOpenGLState::ScopedglScissor scissor(glState);
        glState->PushFramebufferBindings();
        RenderDelegate(state, width, height, width, height, d->framebuffer, d->color, d->depth);
        glState->PopFramebufferBindings();
    }
    if (d->jitterFrames > 0)
        camera->SetWindowCenter(center[0], center[1]);
    d->frame.run(view, d->color->GetHandle(), d->depth->GetHandle());
    if (!d->frame.errors().empty())
        vtkErrorMacro(<< d->frame.errors());
}

void VtkPipelinePass::ReleaseGraphicsResources(vtkWindow *window)
{
    Superclass::ReleaseGraphicsResources(window);
    if (!d->hasResources)
        return;
    d->hasResources = false;
    d->frame.release();
    VtkPipelineFrame::leave(window);
    d->framebuffer->ReleaseGraphicsResources(window);
    d->color->ReleaseGraphicsResources(window);
    d->depth->ReleaseGraphicsResources(window);
    d->framebuffer = nullptr;
    d->color = nullptr;
    d->depth = nullptr;
}

} // namespace Brevane::Kvo
