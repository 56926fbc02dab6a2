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
/// | # | Input                    | Type    | Meaning                                                   |
/// |---|--------------------------|---------|-----------------------------------------------------------|
/// | 0 | Kvo_QRect_Viewport       | QRect   | size of the image, pixels; its corner should be at 0, 0    |
/// | 1 | Kvo_KvoTexture*_Texture  | texture | the image; none: black                                     |
///
/// | # | Output                     | Type    | Content                                                |
/// |---|----------------------------|---------|--------------------------------------------------------|
/// | 0 | Kvo_KvoTexture*_Frame      | texture | 1 by 1, GL_RGBA32F, owned by the pass: the average      |
/// | 1 | Kvo_float_averageLuminance | float   | 0.7152 G + 0.2126 R + 0.0722 B of it, of this frame     |
///
/// The first step averages blocks of the image into a texture of an eighth of the viewport's width and
/// height, the second averages that. A block is (image width / reduced width) by (image height / reduced
/// width) texels: both sides go by the width. So the average is that of the whole image where the
/// viewport is square. In a wide image the blocks cover the lower part only, width / height of the way up
/// each step, and a fraction of a row counts as a row; in a high one they reach over its top, where
/// fetches give 0. See the page of the pass for figures. Linear values in, linear luminance out.
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
    LuminanceAverageRenderPass();
    LuminanceAverageRenderPass(const LuminanceAverageRenderPass &other);
    LuminanceAverageRenderPass &operator=(const LuminanceAverageRenderPass &other);
    ~LuminanceAverageRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void reduce(Texture *texture, float width, float height);

    Held<ShaderProgram> _shaderProgram;
    QSharedPointer<DrawBuffers> _screenQuad;
    Held<Texture> _fallbackTexture;
    Held<FramebufferObject> _reductionFbo;
    Held<FramebufferObject> _averageFbo;
    int _reducedWidth = 0;
    int _reducedHeight = 0;
    int _averageWidth = 0;
    int _averageHeight = 0;
};

} // namespace Brevane::Kvo
