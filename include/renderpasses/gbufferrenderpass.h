#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

namespace Brevane::Kvo {

class FramebufferObject;
class ShaderProgram;

/// Draws plain geometry, with neither materials nor instance data, into normal, texture coordinate, id
/// and depth targets. PrimitiveBuilderRenderPass makes such geometry, DeferredRenderPass shades it.
///
/// | # | Input                           | Type         | Range  | Meaning |
/// |---|---------------------------------|--------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect        | pixels | size of the targets |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4   |        | camera to clip space |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4   |        | world to camera space |
/// | 3 | Kvo_KvoDrawBuffers*_Geometry    | DrawBuffers* |        | what to draw, or a QVariantList of such |
///
/// | # | Output                   | Type    | Format                                  | Meaning |
/// |---|--------------------------|---------|-----------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Normal   | texture | GL_RGB32F, colour attachment 0          | normal in object space, interpolated and not of unit length |
/// | 1 | Kvo_KvoTexture*_TexCoord | texture | GL_RG32F, colour attachment 1           | texture coordinates |
/// | 2 | Kvo_KvoTexture*_Depth    | texture | GL_DEPTH_COMPONENT32F, depth attachment | window depth |
/// | 3 | Kvo_KvoTexture*_Id       | texture | GL_R32F, colour attachment 2            | number of the triangle in its draw plus 1 |
///
/// Geometry has the attributes "va_Vertex", "va_Normal" and "va_TexCoord". The elements of a list are
/// drawn in their order into the same targets, with depth test; numbers of triangles begin anew with each.
/// A null pointer, in the list or alone, is passed over. The targets are cleared with the clear colour that
/// happens to be current, so what the id of the background is lies with the host.
///
/// The targets belong to the pass until it is destroyed; then they are given up, see
/// OpenGLDeviceContext::giveUp.
///
/// Leaves changed: viewport (the size of the target); with geometry: depth test (on). Of the host's state
/// count: clear colour.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT GBufferRenderPass : public RenderPassHelper
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
        OutNormal,
        OutTexCoord,
        OutDepth,
        OutId,
    };

    GBufferRenderPass();
    GBufferRenderPass(const GBufferRenderPass &other);
    GBufferRenderPass &operator=(const GBufferRenderPass &other);
    ~GBufferRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

    /// Draws with this program from now on; the pass deletes the one that is set at its end; one
    /// that is replaced stays the host's, one that the pass made is given up. Set before the first start, it keeps the pass from making its own. Its
    /// fragment outputs are "out_Normal", "out_TexCoord" and "out_Id" in this order.
    void setShaderProgram(ShaderProgram *program);

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
