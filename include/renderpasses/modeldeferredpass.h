#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;
class Texture;

/// Shades the targets of ModelRenderPass with one directional light that is fixed to the camera, at
/// normalize(100, 100, 100): Blinn-Phong with the viewer at (0, 0, 1).
///
/// | # | Input                           | Type       | Range  | Meaning |
/// |---|---------------------------------|------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the target |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | not used |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | not used |
/// | 3 | Kvo_KvoTexture*_Diffuse         | texture    |        | diffuse colour Kd, opacity in alpha |
/// | 4 | Kvo_KvoTexture*_Specular        | texture    |        | specular colour Ks, exponent Ns in alpha |
/// | 5 | Kvo_KvoTexture*_Normal          | texture    |        | unit normal N in camera space |
/// | 6 | Kvo_KvoTexture*_Depth           | texture    |        | not used |
///
/// | # | Output                | Type    | Format                                      | Meaning |
/// |---|-----------------------|---------|---------------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | GL_RGBA, 8 bits, nearest, owned by the pass | the shaded image |
///
/// All three textures should be connected; with one missing the frame is cleared and left so. Texture
/// inputs are not given back to the pool. The pass does not set the GL viewport or the clear colour.
///
/// Leaves changed: depth test (off). Of the host's state count: viewport, clear colour.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT ModelDeferredPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InDiffuse,
        InSpecular,
        InNormal,
        InDepth,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    ModelDeferredPass();
    ModelDeferredPass(const ModelDeferredPass &other);
    ModelDeferredPass &operator=(const ModelDeferredPass &other);
    ~ModelDeferredPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    QSharedPointer<DrawBuffers> _quad;
    Held<Texture> _defaultTexture;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
