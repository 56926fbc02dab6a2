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

/// Shades a G-buffer, as GBufferRenderPass draws it, with one light that stands in the world at
/// (100, 100, 100): a grey Lambert image. The smallest consumer of a G-buffer, and an example of one.
///
/// | # | Input                           | Type       | Range  | Meaning |
/// |---|---------------------------------|------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the target |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | P, camera to clip space |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | C, world to camera space |
/// | 3 | Kvo_KvoTexture*_Normal          | texture    |        | normal in object space; none: no light |
/// | 4 | Kvo_KvoTexture*_TexCoord        | texture    |        | bound, without effect on the picture |
/// | 5 | Kvo_KvoTexture*_Depth           | texture    |        | window depth; none: 0 everywhere |
///
/// | # | Output                | Type    | Format                     | Meaning |
/// |---|-----------------------|---------|----------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | GL_RGBA, owned by the pass | the shaded image |
///
/// With d the depth at texture coordinate (u, v), a pixel is
///
///     p = inverse(P)^T * (2 u - 1, 2 v - 1, d, 1)        divided by its w
///     grey = normalize(C * (100, 100, 100, 1) - C * p) . (inverse(C)^T * normal)
///
/// cut to 0 to 1, with alpha 1 everywhere: there is no background. The inverse projection is transposed
/// and depth enters unscaled, so p is no position in any space; seen from it the light, which is far,
/// stands nearly in the same direction for all pixels. The picture depends on these numbers and keeps
/// them.
///
/// Depth is read and never written: the target has none, and the depth mask of the host neither matters nor is
/// changed. A size change replaces the texture. The pass sets neither the GL viewport nor the clear colour.
/// Texture inputs are not given back to the pool.
///
/// Leaves changed: depth test (off). Of the host's state count: viewport, clear colour.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT DeferredRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InNormal,
        InTexCoord,
        InDepth,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    DeferredRenderPass();
    DeferredRenderPass(const DeferredRenderPass &other);
    DeferredRenderPass &operator=(const DeferredRenderPass &other);
    ~DeferredRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    QSharedPointer<DrawBuffers> _screenQuad;
    Held<Texture> _fallbackTexture;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
