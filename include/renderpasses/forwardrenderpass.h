#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

namespace Brevane::Kvo {

class FramebufferObject;
class ShaderProgram;

/// Draws a model in one step, lit by the directional light of ModelDeferredPass.
///
/// | # | Input                           | Type       | Range  | Meaning |
/// |---|---------------------------------|------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the targets |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | camera to clip space |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | world to camera space |
/// | 3 | Kvo_KvoGPUModel*_Geometry       | GPUModel*  |        | what to draw; none: the targets are cleared |
///
/// | # | Output                | Type    | Format                   | Meaning |
/// |---|-----------------------|---------|--------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | GL_RGBA, 8 bits, nearest | lit colour, opacity in alpha |
/// | 1 | Kvo_KvoTexture*_Id    | texture | GL_RGBA, 8 bits, nearest | number of the triangle plus 1, clamped by the format |
///
/// Normals are interpolated and not made unit length again. The pass does not set the GL viewport. Its
/// GL objects are not deleted with the pass (others may read them) but given up, see
/// OpenGLDeviceContext::giveUp.
///
/// Leaves changed: clear colour (transparent black). Of the host's state count: viewport.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT ForwardRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InGeometry,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
        OutId,
    };

    ForwardRenderPass();
    ForwardRenderPass(const ForwardRenderPass &other);
    ForwardRenderPass &operator=(const ForwardRenderPass &other);
    ~ForwardRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

    /// Draws with this program from now on. Set before the first start, it keeps the pass from making
    /// its own; one that it made before is given up. The program stays the host's.
    void setShaderProgram(ShaderProgram *program);

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
