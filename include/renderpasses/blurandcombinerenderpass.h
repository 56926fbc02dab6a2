#pragma once

#include "renderpasses/blurbaserenderpass.h"

namespace Brevane::Kvo {

class Texture;

/// Glow: keeps the bright pixels of an image, blurs them and adds them to a frame.
///
/// | # | Input                       | Type    | Range             | Meaning |
/// |---|-----------------------------|---------|-------------------|-----|
/// | 0 | Kvo_QRect_Viewport          | QRect   | pixels            | size of all images |
/// | 1 | Kvo_KvoTexture*_NormalFrame | texture |                   | the frame; none: transparent black |
/// | 2 | Kvo_float_BlurRadius        | float   | 0 to 511 texels   | sigma in texels; 0 or less: the frame passes through |
/// | 3 | Kvo_float_GlowThreshold     | float   | 0 to 16 luminance | luminance below which nothing glows; 0 or less: all glows |
/// | 4 | Kvo_float_GlowAmount        | float   | 0 to 4            | strength; 0 or less: the frame passes through |
/// | 5 | Kvo_KvoTexture*_BlurFrame   | texture |                   | what glows; none: transparent black |
///
/// | # | Output                 | Type    | Format                             | Meaning |
/// |---|------------------------|---------|------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Output | texture | pool format 7, or the frame itself | the frame with its glow |
///
/// Both blur stages apply the amount, so the glow scales with its square: 0.5 adds a quarter of the
/// blurred image. Luminance has the weights 0.2125, 0.7154, 0.0721. Inputs are given back to the pool.
///
/// Out of range: a radius beyond 511, for which there are 512 taps, acts as 511 (less on a driver with few
/// uniforms: an eighth of GL_MAX_FRAGMENT_UNIFORM_COMPONENTS without 64, less 1), and what is not a number as
/// 0. This is said once, with a warning that names pass and slot.
///
/// Leaves changed: depth test (off), depth mask (closed). Of the host's state count: clear colour.
///
/// The filters of both inputs stay linear, and their wrap clamped. Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT BlurAndCombineRenderPass : public BlurBaseRenderPass
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InNormalFrame,
        InBlurRadius,
        InGlowThreshold,
        InGlowAmount,
        InBlurFrame,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutOutput,
    };

    BlurAndCombineRenderPass();
    BlurAndCombineRenderPass(const BlurAndCombineRenderPass &other);
    BlurAndCombineRenderPass &operator=(const BlurAndCombineRenderPass &other);
    ~BlurAndCombineRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void drawWithThresholdShader(Texture *input, Texture *output);
    void drawWithBlurOnlyShader(Texture *input, Texture *output);
    void drawWithBlurAndAddShader(Texture *original, Texture *blurred, Texture *output);

    Held<ShaderProgram> _blurAndAddProgram;
    Held<ShaderProgram> _thresholdProgram;
    float _glowAmount = 0.0f;
    float _glowThreshold = 0.0f;
    float _viewportWidth = 0.0f;
    float _viewportHeight = 0.0f;
};

} // namespace Brevane::Kvo
