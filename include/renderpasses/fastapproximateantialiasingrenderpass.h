#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;

/// FXAA 3.11 (Timothy Lottes) at its PC quality path, preset 12, in one draw. Green stands for luma.
///
/// | # | Input                             | Type    | Range  | Meaning |
/// |---|-----------------------------------|---------|--------|-----|
/// | 0 | Kvo_QRect_Viewport                | QRect   | pixels | size of the image |
/// | 1 | Kvo_KvoTexture*_Frame             | texture |        | the image; none: the output is invalid |
/// | 2 | Kvo_float_SubPixelQuality         | float   | 0 to 1 | removal of sub-pixel aliasing; none: 0.75 |
/// | 3 | Kvo_float_RcpFrameQuality         | float   | 0 to 4 | scale of the horizontal texel step only; none: 1 |
/// | 4 | Kvo_float_EdgeThresholdQuality    | float   | 0 to 1 | least contrast of an edge, relative; none: 0.166 |
/// | 5 | Kvo_float_EdgeThresholdMinQuality | float   | 0 to 1 | least contrast of an edge, absolute; none: 0 |
///
/// | # | Output                | Type    | Format        | Meaning |
/// |---|-----------------------|---------|---------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | pool format 3 | the image with smooth edges; alpha is the larger of the source's and the luma |
///
/// An image of another size than the viewport is read through its linear filter, between its texels.
///
/// The image's filters are put back; the image is given back to the pool. Needs OpenGL 3.2.
///
/// Leaves changed: depth test (off), viewport (the size of the target). Of the host's state count: clear
/// colour.
class KVO_RENDERPASSES_EXPORT FastApproximateAntiAliasingRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InFrame,
        InSubPixelQuality,
        InRcpFrameQuality,
        InEdgeThresholdQuality,
        InEdgeThresholdMinQuality,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    FastApproximateAntiAliasingRenderPass();
    FastApproximateAntiAliasingRenderPass(const FastApproximateAntiAliasingRenderPass &other);
    FastApproximateAntiAliasingRenderPass &operator=(const FastApproximateAntiAliasingRenderPass &other);
    ~FastApproximateAntiAliasingRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _program;
    QSharedPointer<DrawBuffers> _quad;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
