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
/// | # | Input                                | Type    | When invalid | Meaning                                  |
/// |---|--------------------------------------|---------|--------------|------------------------------------------|
/// | 0 | Kvo_QRect_Viewport                   | QRect   |              | size of the image                        |
/// | 1 | Kvo_KvoTexture*_Frame                | texture |              | the image; none: the output is invalid   |
/// | 2 | Kvo_float_SubPixelQuality            | float   | 0.75         | removal of sub-pixel aliasing, 0 to 1    |
/// | 3 | Kvo_float_RcpFrameQuality            | float   | 1            | scale of the horizontal texel step only  |
/// | 4 | Kvo_float_EdgeThresholdQuality       | float   | 0.166        | least contrast of an edge, relative      |
/// | 5 | Kvo_float_EdgeThresholdMinQuality    | float   | 0            | least contrast of an edge, absolute      |
///
/// | # | Output                   | Format                                                       |
/// |---|--------------------------|--------------------------------------------------------------|
/// | 0 | Kvo_KvoTexture*_Frame    | pool format 3; alpha is the larger of the source's and the luma |
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
