#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

namespace Brevane::Kvo {

class FramebufferObject;
class ShaderProgram;

/// Draws a model into the targets that deferred shading reads: diffuse, specular, normal, id, depth.
///
/// | # | Input                           | Type       | Range  | Meaning |
/// |---|---------------------------------|------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the targets |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | camera to clip space |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | world to camera space |
/// | 3 | Kvo_KvoGPUModel*_Geometry       | GPUModel*  |        | what to draw; none: the targets are cleared |
///
/// | # | Output                   | Type    | Format                                  | Meaning |
/// |---|--------------------------|---------|-----------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Diffuse  | texture | GL_RGBA32F, colour attachment 0         | Kd times map, opacity in alpha |
/// | 1 | Kvo_KvoTexture*_Specular | texture | GL_RGBA32F, colour attachment 1         | Ks times map, exponent in alpha |
/// | 2 | Kvo_KvoTexture*_Normal   | texture | GL_RGB32F, colour attachment 2          | unit normal in camera space |
/// | 3 | Kvo_KvoTexture*_Depth    | texture | GL_DEPTH_COMPONENT32F, depth attachment | window depth |
/// | 4 | Kvo_KvoTexture*_Id       | texture | GL_R32F, colour attachment 3            | number of the triangle in its draw plus 1; 0 is background |
///
/// The pass does not set the GL viewport: the host does, to the size of input 0. The targets belong to
/// the pass until it is destroyed; then they are given up, see OpenGLDeviceContext::giveUp.
///
/// Leaves changed: clear colour (transparent black); with a model: depth test (on). Of the host's state
/// count: viewport.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT ModelRenderPass : public RenderPassHelper
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
        OutDiffuse,
        OutSpecular,
        OutNormal,
        OutDepth,
        OutId,
    };

    ModelRenderPass();
    ModelRenderPass(const ModelRenderPass &other);
    ModelRenderPass &operator=(const ModelRenderPass &other);
    ~ModelRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

    /// Draws with this program from now on; the pass deletes the one that is set at its end; one
    /// that is replaced stays the host's, one that the pass made is given up. Set before the first start, it keeps the pass from making its own.
    void setShaderProgram(ShaderProgram *program);
    /// Drops fragments whose diffuse map is transparent (alpha 0.01 and below). Takes effect when the
    /// program is made: set it before the first start.
    void setDiscardOnDiffuseAlpha(bool discard);

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    int _width = 0;
    int _height = 0;
    bool _discardOnDiffuseAlpha = false;
};

} // namespace Brevane::Kvo
