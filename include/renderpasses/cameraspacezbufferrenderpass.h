#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;

/// Turns depth into positions in camera space, for passes that work in screen space such as
/// ScalableAmbientObscuranceRenderPass: unprojects every texel by the inverse projection.
///
/// | # | Input                           | Type       | Range  | Meaning |
/// |---|---------------------------------|------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the target |
/// | 1 | Kvo_KvoTexture*_Depth           | texture    |        | window depth; none: the far plane |
/// | 2 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | camera to clip space |
///
/// | # | Output                | Type    | Format                     | Meaning |
/// |---|-----------------------|---------|----------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | pool format 6 (GL_RGBA32F) | the position in xyz, 1 in w |
///
/// A depth of 1 gives the position on the far plane: nothing tells a background apart. Positions are in
/// units of the scene, with z negative in front of the camera. The output carries the references of its
/// users; with none the pool may reuse it at once. The depth texture is given back to the pool.
///
/// Leaves changed: stencil test (off), depth mask (closed), viewport (the size of the target).
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT CameraSpaceZBufferRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InDepth,
        InProjectionMatrix,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    CameraSpaceZBufferRenderPass();
    CameraSpaceZBufferRenderPass(const CameraSpaceZBufferRenderPass &other);
    CameraSpaceZBufferRenderPass &operator=(const CameraSpaceZBufferRenderPass &other);
    ~CameraSpaceZBufferRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    QSharedPointer<DrawBuffers> _screenQuad;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
