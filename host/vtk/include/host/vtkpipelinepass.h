#pragma once

#include "host/export.h"

#include <vtkDepthImageProcessingPass.h>
#include <vtkNew.h>
#include <vtkSmartPointer.h>

#include <memory>
#include <string>

class vtkOpenGLFramebufferObject;
class vtkTextureObject;

namespace Brevane::Kvo {

class Pipeline;
class VtkPipelinePassPrivate;

/// A render pass of VTK that draws the scene by its delegate, and runs a pipeline over the colour and the depth of
/// that: antialiasing, depth of field, ambient obscurance, glow, whatever a pipeline file says.
///
///     vtkNew<VtkPipelinePass> pass;
///     if (!pass->SetPipelineFile("smooth.json"))
///         std::cerr << pass->GetErrors();
///     renderer->SetPass(pass);
///
/// In the pipeline the pass class VtkFrame stands for VTK's picture: its outputs Frame and Depth are what the delegate
/// drew, and its only input is Viewport. Host values are those of VTK's camera: @camera, @projection, @near and @far;
/// @screen is where the picture goes. Without a delegate of its own the pass has VTK's usual one, vtkRenderStepsPass.
///
///     { "passes": [
///         { "name": "Scene", "class": "VtkFrame", "inputs": { "Viewport": "@viewport" } },
///         { "name": "Smooth", "class": "SMAARenderPass",
///           "inputs": { "Viewport": "@viewport", "Frame": { "from": "Scene.Frame" }, "Mode": 0, "JitterIndex": -1 } },
///         { "name": "Present", "class": "TextureToScreenRenderPass",
///           "inputs": { "Viewport": "@viewport", "Texture": { "from": "Smooth.Frame" }, "FramebufferOut": "@screen" } } ] }
///
/// VTK's GL state is as VTK left it. The scene is drawn without multisampling, as under every pass of VTK that works on
/// pictures. When the last pass of a context releases its graphics resources, the library lets go of that context.
class KVO_VTK_EXPORT VtkPipelinePass : public vtkDepthImageProcessingPass
{
public:
    /// A new one, as VTK makes its objects.
    static VtkPipelinePass *New();
    vtkTypeMacro(VtkPipelinePass, vtkDepthImageProcessingPass) void PrintSelf(ostream &os, vtkIndent indent) override;

    /// A file, or the name of one on the search path (see findPipeline). False after mistakes, see GetErrors; what was
    /// there before then stays.
    bool SetPipelineFile(const std::string &nameOrPath);
    /// The same from a text.
    bool SetPipelineText(const std::string &text);
    /// A slot by "Pass.Slot", from text as parseSlotValue reads it. False after a mistake.
    bool SetSlotValue(const std::string &slot, const std::string &value);
    /// The pipeline, for all else; null while there is none.
    Pipeline *GetPipeline() const;
    /// What was wrong with the last file, text or slot, or in the last frame; a line each. Empty: nothing.
    std::string GetErrors() const;

    /// Over how many frames the projection moves within a pixel, for pipelines with a TemporalAARenderPass that reads
    /// the true one from @projection: render as often to gather them. 0, as at first: it stays.
    void SetJitterFrames(int frames);
    /// See SetJitterFrames.
    int GetJitterFrames() const;

    /// Draws the scene below it, and the pipeline over its picture.
    void Render(const vtkRenderState *state) override;
    /// Frees what GL holds in that window.
    void ReleaseGraphicsResources(vtkWindow *window) override;

protected:
    VtkPipelinePass();
    ~VtkPipelinePass() override;

private:
    std::unique_ptr<VtkPipelinePassPrivate> d;
};

} // namespace Brevane::Kvo
