#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "host/export.h"

namespace Brevane::Kvo {

class FramebufferObject;
class GPUModel;
class ShaderProgram;

/// Draws the surfaces of a model in physical terms (see ModelSurface) into the targets that physically based shading
/// reads: what ModelRenderPass is for diffuse and specular colours.
///
/// | # | Input                           | Type       | Range  | Meaning                 |
/// |---|---------------------------------|------------|--------|-------------------------|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the targets     |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | camera to clip space    |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | world to camera space   |
/// | 3 | Kvo_KvoGPUModel*_Geometry       | GPUModel*  |        | what to draw; none: the targets are cleared |
/// | 4 | Kvo_bool_SolidOnly              | bool       |        | true: nothing that lets light through    |
///
/// | # | Output                    | Format                                | Meaning |
/// |---|---------------------------|---------------------------------------|---------|
/// | 0 | Kvo_KvoTexture*_BaseColor | pool format 7 (GL_RGBA16F)            | base colour in linear light, opacity in alpha |
/// | 1 | Kvo_KvoTexture*_Surface   | pool format 2 (GL_RGBA8)              | roughness, metalness, occlusion; alpha 1 where light counts, 0 where the base colour is what one sees |
/// | 2 | Kvo_KvoTexture*_Emission  | pool format 13 (GL_R11F_G11F_B10F)    | radiance that is sent out |
/// | 3 | Kvo_KvoTexture*_Normal    | pool format 7 (GL_RGBA16F)            | unit normal in camera space, normal map applied, of the side that is seen; alpha 1 |
/// | 4 | Kvo_KvoTexture*_Depth     | pool format 20 (GL_DEPTH_COMPONENT32F) | window depth; 1 is background |
/// | 5 | Kvo_KvoTexture*_Id        | pool format 1 (GL_R32F)               | number of the triangle in its draw plus 1; 0 is background |
///
/// All are 0 where nothing was drawn, but depth. A material with AlphaMode::Mask draws nothing where opacity times
/// alpha is below its cutoff. The targets have one layer, so one with AlphaMode::Blend draws nothing where the alpha
/// of its map is below a half, and opacity times alpha is in the base colour for passes that mix. With SolidOnly
/// nothing is drawn of materials with an opacity below 1, and of those that blend nothing where that alpha is below
/// 254.5 / 255: DepthPeelingPass draws that. Back faces of
/// materials with one side are left out; mirroring transforms are accounted for.
///
/// Without a context, or where the driver has no room for the size, the outputs are empty.
///
/// Leaves no state of GL changed, and takes no notice of the host's. Needs OpenGL 3.2.
class KVO_PIPELINE_EXPORT SurfacePass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InGeometry,
        InSolidOnly,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutBaseColor,
        OutSurface,
        OutEmission,
        OutNormal,
        OutDepth,
        OutId,
    };

    SurfacePass();
    SurfacePass(const SurfacePass &other);
    SurfacePass &operator=(const SurfacePass &other);
    ~SurfacePass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void draw(GPUModel &model);

    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _program;
};

} // namespace Brevane::Kvo
