#pragma once

#include "renderpasses/blurbaserenderpass.h"

namespace Brevane::Kvo {

class Texture;

/// Blurs an image that covers its area only in part, such as a masked layer, and adds it to a frame.
/// The alpha of the image is the mask: texels with alpha 0 are not blurred. No stencil buffer is used.
///
/// | # | Input                       | Type    | Range           | Meaning |
/// |---|-----------------------------|---------|-----------------|-----|
/// | 0 | Kvo_QRect_Viewport          | QRect   | pixels          | size of all images |
/// | 1 | Kvo_KvoTexture*_NormalFrame | texture |                 | the frame; none: transparent black |
/// | 2 | Kvo_float_BlurRadius        | float   | 0 to 511 texels | sigma in texels; 0 or less: the frame passes through |
/// | 3 | Kvo_KvoTexture*_BlurFrame   | texture |                 | the masked image; none: transparent black |
///
/// | # | Output                 | Type    | Format                             | Meaning |
/// |---|------------------------|---------|------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Output | texture | pool format 7, or the frame itself | the frame under the blurred image |
///
/// A covered texel at the edge of the mask still takes what lies outside into its sum. Alpha adds like
/// the colours, and nothing is clamped. Inputs are given back to the pool.
///
/// Out of range: a radius beyond 511, for which there are 512 taps, acts as 511 (less on a driver with few
/// uniforms: an eighth of GL_MAX_FRAGMENT_UNIFORM_COMPONENTS without 64, less 1), and what is not a number as
/// 0. This is said once, with a warning that names pass and slot.
///
/// Leaves changed: depth test (off), depth mask (closed). Of the host's state count: clear colour.
///
/// The filter of the blurred input stays linear, and its wrap clamped. Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT StencilBlurAndBlendRenderPass : public BlurBaseRenderPass
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InNormalFrame,
        InBlurRadius,
        InBlurFrame,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutOutput,
    };

    StencilBlurAndBlendRenderPass();
    StencilBlurAndBlendRenderPass(const StencilBlurAndBlendRenderPass &other);
    StencilBlurAndBlendRenderPass &operator=(const StencilBlurAndBlendRenderPass &other);
    ~StencilBlurAndBlendRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void drawWithBlurOnlyShader(const bool &rebuilt, Texture *input, Texture *output);
    void drawWithBlurAndAddShader(const bool &rebuilt, Texture *original, Texture *blurred, Texture *output);

    Held<ShaderProgram> _blurAndAddProgram;
    float _viewportWidth = 0.0f;
    float _viewportHeight = 0.0f;
};

} // namespace Brevane::Kvo
