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

/// Composes two images of premultiplied colour with one of 26 blend functions in one draw.
///
/// | # | Input                  | Type    | Range  | Meaning |
/// |---|------------------------|---------|--------|-----|
/// | 0 | Kvo_QRect_Viewport     | QRect   | pixels | size of the target; its corner is the corner of the GL viewport |
/// | 1 | Kvo_KvoTexture*_FrameA | texture |        | source; none: transparent black |
/// | 2 | Kvo_KvoTexture*_FrameB | texture |        | destination; none: transparent black |
/// | 3 | Int_BlendMode          | int     |        | a BlendMode, kept for later frames; others give transparent black |
/// | 4 | brightness             | float   | 0 to 4 | scale on all four channels of frame B; none: 1 |
///
/// | # | Output                | Type    | Format        | Meaning |
/// |---|-----------------------|---------|---------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | pool format 7 | A composed with B |
///
/// The Porter-Duff operators, the separable modes of SVG compositing in their premultiplied forms, and
/// two of our own (InvertAndAdd, MultiplyKeepAlpha). Overlay compares the destination's colour with 1,
/// not with its alpha. SoftLight, ColorDodge and ColorBurn divide by the destination's alpha: pixels
/// that frame B does not cover are undefined there. Inputs are given back to the pool.
///
/// Leaves changed: depth test (off), blending (off), viewport (the rectangle of the input). Of the host's
/// state count: clear colour.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT BlendRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InFrameA,
        InFrameB,
        InBlendMode,
        InBrightness,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    /// How the upper picture goes over the lower one.
    enum BlendMode : int {
        blendClear,
        blendSrc,
        blendDst,
        blendSrcOver,
        blendDstOver,
        blendSrcIn,
        blendDstIn,
        blendSrcOut,
        blendDstOut,
        blendSrcAtop,
        blendDstAtop,
        blendXor,
        blendAdd,
        blendMultiply,
        blendScreen,
        blendOverlay,
        blendDarken,
        blendLighten,
        blendColorDodge,
        blendColorBurn,
        blendHardLight,
        blendSoftLight,
        blendExclusion,
        blendDifference,
        blendInvertAndAdd,
        blendMultiplyKeepAlpha,
    };

    /// The mode counts where its slot holds none.
    explicit BlendRenderPass(BlendMode mode = blendDstOver);
    BlendRenderPass(const BlendRenderPass &other);
    BlendRenderPass &operator=(const BlendRenderPass &other);
    ~BlendRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _program;
    QSharedPointer<DrawBuffers> _quad;
    Held<Texture> _fallbackTexture;
    int _blendMode;
};

} // namespace Brevane::Kvo
