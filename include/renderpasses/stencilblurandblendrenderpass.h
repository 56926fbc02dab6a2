#pragma once

#include "renderpasses/blurbaserenderpass.h"

namespace Brevane::Kvo {

class Texture;

/// Blurs an image that covers its area only in part, such as a masked layer, and adds it to a frame.
/// The alpha of the image is the mask: texels with alpha 0 are not blurred. No stencil buffer is used.
///
/// | # | Input                           | Type    | Meaning                                              |
/// |---|---------------------------------|---------|------------------------------------------------------|
/// | 0 | Kvo_QRect_Viewport              | QRect   | size of all images                                   |
/// | 1 | Kvo_KvoTexture*_NormalFrame     | texture | the frame; none: transparent black                   |
/// | 2 | Kvo_float_BlurRadius            | float   | sigma in texels; 0 or less: the frame passes through |
/// | 3 | Kvo_KvoTexture*_BlurFrame       | texture | the masked image; none: transparent black            |
///
/// | # | Output                   | Format                             |
/// |---|--------------------------|------------------------------------|
/// | 0 | Kvo_KvoTexture*_Output   | pool format 7, or the frame itself |
///
/// A covered texel at the edge of the mask still takes what lies outside into its sum. Alpha adds like
/// the colours, and nothing is clamped. Inputs are given back to the pool.
///
/// Leaves changed: depth test (off), depth mask (closed). Of the host's state count: clear colour.
///
/// The filter of the blurred input stays linear, and its wrap clamped. Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT StencilBlurAndBlendRenderPass : public BlurBaseRenderPass
{
public:
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
