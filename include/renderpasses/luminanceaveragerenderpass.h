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

/// Reduces an image to its average colour in two full-screen steps, and reads the luminance of that back
/// to the host: the number that an exposure control needs.
///
/// | # | Input                   | Type    | Range  | Meaning |
/// |---|-------------------------|---------|--------|-----|
/// | 0 | Kvo_QRect_Viewport      | QRect   | pixels | size of the image; its corner should be at 0, 0 |
/// | 1 | Kvo_KvoTexture*_Texture | texture |        | the image; none: black |
///
/// | # | Output                     | Type    | Format                                | Meaning |
/// |---|----------------------------|---------|---------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame      | texture | 1 by 1, GL_RGBA32F, owned by the pass | the average |
/// | 1 | Kvo_float_averageLuminance | float   |                                       | 0.7152 G + 0.2126 R + 0.0722 B of it, of this frame |
///
/// The first step averages blocks of the image into a texture of an eighth of the viewport's width and
/// height, the second averages that. A block is (image width / reduced width) by (image height / reduced
/// width) texels: both sides go by the width. In a wide viewport the blocks cover the lower part of the image
/// only, height / width of it; in a high one they reach over its top, where fetches give 0. A fraction of a
/// texel at the edge of a block counts as a texel in the sum, and as a fraction in what the sum is divided by.
///
/// So the average is the mean of all texels where the viewport is square and an eighth of its side, rounded
/// down, divides the width and the height of the image. For any image a viewport of 8 by 8 does; 8 times the
/// greatest common divisor of its sides is the largest that does, and shares the work among the most
/// fragments. See the page of the pass for figures. Linear values in, linear luminance out.
///
/// The reduced texture follows the viewport in steps of 8 pixels; a side under 8 pixels counts as 8. A
/// viewport that does not begin at 0, 0 shifts the first step and puts the second beside its one texel,
/// so that the last value stays; it is 0 at first.
///
/// start waits for the GPU: the number is of this frame.
///
/// Texture inputs are not given back to the pool. Needs OpenGL 3.2.
///
/// Leaves changed: depth test (off), stencil test (off), blending (off), face culling (off), colour mask
/// (open), viewport (one pixel at the corner of the input's rectangle).
class KVO_RENDERPASSES_EXPORT LuminanceAverageRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InTexture,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
        OutAverageLuminance,
    };

    LuminanceAverageRenderPass();
    LuminanceAverageRenderPass(const LuminanceAverageRenderPass &other);
    LuminanceAverageRenderPass &operator=(const LuminanceAverageRenderPass &other);
    ~LuminanceAverageRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    /// An image in blocks: as many across and up as a whole image has them.
    struct Blocks
    {
        Texture *texture;
        float across;
        float up;
    };
    Blocks summable(const Blocks &blocks, int rows);
    void reduce(const Blocks &blocks);

    Held<ShaderProgram> _shaderProgram;
    QSharedPointer<DrawBuffers> _screenQuad;
    Held<Texture> _fallbackTexture;
    Held<FramebufferObject> _reductionFbo;
    Held<FramebufferObject> _averageFbo;
    /// For images whose blocks are too large to sum at once.
    Held<FramebufferObject> _columnsFbo;
    int _reducedWidth = 0;
    int _reducedHeight = 0;
    int _averageWidth = 0;
    int _averageHeight = 0;
};

} // namespace Brevane::Kvo
