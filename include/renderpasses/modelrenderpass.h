#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

namespace Brevane::Kvo {

class FramebufferObject;
class ShaderProgram;

/// Draws a model into the targets that deferred shading reads: diffuse, specular, normal, id, depth.
///
/// | # | Input                               | Type       | Meaning                                   |
/// |---|-------------------------------------|------------|-------------------------------------------|
/// | 0 | Kvo_QRect_Viewport                  | QRect      | size of the targets, pixels               |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix     | QMatrix4x4 | camera to clip space                      |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix         | QMatrix4x4 | world to camera space                     |
/// | 3 | Kvo_KvoGPUModel*_Geometry           | GPUModel*  | what to draw; none: the targets are cleared |
///
/// | # | Output                     | Format                | Content                                        |
/// |---|----------------------------|-----------------------|------------------------------------------------|
/// | 0 | Kvo_KvoTexture*_Diffuse    | GL_RGBA32F            | Kd times map, opacity in alpha                 |
/// | 1 | Kvo_KvoTexture*_Specular   | GL_RGBA32F            | Ks times map, exponent in alpha                |
/// | 2 | Kvo_KvoTexture*_Normal     | GL_RGB32F             | unit normal in camera space                    |
/// | 3 | Kvo_KvoTexture*_Depth      | GL_DEPTH_COMPONENT32F | window depth                                   |
/// | 4 | Kvo_KvoTexture*_Id         | GL_R32F               | number of the triangle in its draw plus 1; 0 is background |
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
