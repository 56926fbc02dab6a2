#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;

/// Fills the part of a frame that no geometry covers with an environment: a background image, a cube map
/// or a latitude-longitude map. It draws into the frame that comes in, or into a fresh one.
///
/// | # | Input                           | Type       | Range  | Meaning |
/// |---|---------------------------------|------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of what the pass makes itself |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | camera to clip space; none: identity |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | world to camera space; none: identity |
/// | 3 | Kvo_KvoTexture*_Cubemap         | texture    |        | second choice: a cube map |
/// | 4 | Kvo_KvoTexture*_LatLongMap      | texture    |        | third choice: see directionToLatLong_Tarn |
/// | 5 | Kvo_KvoTexture*_Background      | texture    |        | first choice: an image that fills the frame, top row first |
/// | 6 | Kvo_KvoTexture*_Frame           | texture    |        | colour target; none: a pool texture of format 7, opaque black |
/// | 7 | Kvo_KvoTexture*_Depth           | texture    |        | tells what is covered; none: nothing is |
///
/// | # | Output                | Type    | Format                                                | Meaning |
/// |---|-----------------------|---------|-------------------------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | the frame that came in, or a pool texture of format 7 | the frame with what was painted |
///
/// A depth input with a stencil covers pixels whose stencil is not 0. One without a stencil, as the model
/// passes make it, covers pixels whose depth is less than 1.
///
/// The background is flipped, as an image stored top row first needs it, and its colours are raised to
/// the power 2.2; the two environments are looked up by direction and taken as they are. A frame of the
/// pass's own is cleared to opaque black; without any source it is not, and holds whatever the pool gave.
/// A matrix that cannot be inverted counts as the identity.
///
/// All programs are built anew whenever the viewport's size changes. Texture inputs are given back to the
/// pool. Environments keep the sampling that a draw sets: the background a linear minification filter,
/// the latitude-longitude map also its wrap (repeat across, clamped at the poles).
///
/// Leaves changed: stencil test (off), stencil function (equal to 0), stencil operation (keep), stencil mask
/// (closed); with a source: depth test (off). Of the host's state count: viewport.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT SkyboxRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InCubemap,
        InLatLongMap,
        InBackground,
        InFrame,
        InDepth,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    SkyboxRenderPass();
    /// Holds the same GL objects as its source; the last one that lets go of them deletes them.
    SkyboxRenderPass(const SkyboxRenderPass &other);
    SkyboxRenderPass &operator=(const SkyboxRenderPass &other);
    ~SkyboxRenderPass() override;

    void setup(RenderCallbacks *callbacks) override;
    void start(RenderCallbacks *callbacks) override;
    void teardown(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _cubeProgram;
    Held<ShaderProgram> _latLongProgram;
    Held<ShaderProgram> _backgroundProgram;
    QSharedPointer<DrawBuffers> _quad;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
