#pragma once

#include "renderpasses/blurbaserenderpass.h"

namespace Brevane::Kvo {

/// Blurs an image in two stages, horizontal and vertical, at a lower resolution if wanted, and only
/// where a stencil buffer holds one material if wanted.
///
/// | # | Input                       | Type    | Default | Range           | Meaning |
/// |---|-----------------------------|---------|---------|-----------------|-----|
/// | 0 | Kvo_QRect_Viewport          | QRect   | none    | pixels          | size of the image |
/// | 1 | Kvo_KvoTexture*_Input       | texture | none    |                 | image to blur; none: black |
/// | 2 | Kvo_float_BlurRadius        | float   | none    | 0 to 511 texels | sigma in texels of the target; up to 1 the input passes through |
/// | 3 | Kvo_float_ResolutionDivider | float   | 1       | 0.01 to 64      | the target is the viewport divided by this, at least 0.01 |
/// | 4 | Kvo_KvoTexture*_Stencil     | texture | none    |                 | depth and stencil; restricts the blur |
/// | 5 | Kvo_int_StencilMaterial     | int     | -1      | -1 to 254       | material to blur; the stencil holds it plus 1; negative: everything |
///
/// | # | Output                 | Type    | Format                             | Meaning |
/// |---|------------------------|---------|------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Output | texture | pool format 7, or the input itself | the blurred image |
///
/// Where the stencil does not hold the material the result is opaque black. Inputs are given back to
/// the pool, except a stencil texture that is wired with a negative material: its reference stays.
///
/// Out of range: a radius beyond 511, for which there are 512 taps, acts as 511 (less on a driver with few
/// uniforms: an eighth of GL_MAX_FRAGMENT_UNIFORM_COMPONENTS without 64, less 1), and what is not a number as
/// 0; a divider that is not a number acts as 1, and one whose target would have a side beyond the driver's
/// limit gives the largest there is, of 4 million texels at most; a material beyond 254 acts as 254. Each is
/// said once, with a warning that names pass and slot.
///
/// Leaves changed: depth test (off), depth mask (closed), clear colour (opaque black); with a stencil:
/// stencil test (off), stencil function (equal to the material's number), stencil operation (keep), stencil
/// mask (closed). Of the host's state count: clear colour.
///
/// The input's filter stays linear, and its wrap clamped. Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT GaussianBlurRenderPass : public BlurBaseRenderPass
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InInput,
        InBlurRadius,
        InResolutionDivider,
        InStencil,
        InStencilMaterial,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutOutput,
    };

    /// \a stencilMask as in BlurBaseRenderPass; it is independent of the stencil inputs.
    explicit GaussianBlurRenderPass(float stencilMask = 0.0f);
    GaussianBlurRenderPass(const GaussianBlurRenderPass &other);
    GaussianBlurRenderPass &operator=(const GaussianBlurRenderPass &other);
    ~GaussianBlurRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void blur(Texture *image, const QVector2D &direction, const Extent &extent, float divider);
};

} // namespace Brevane::Kvo
