#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;

/// Blurs a frame by the circle of confusion of a thin lens, with a gather over three rings of 18 taps in
/// all; bright taps weigh more, and colours fringe.
///
/// | # | Input                 | Type      | Range                 | Meaning |
/// |---|-----------------------|-----------|-----------------------|-----|
/// | 0 | Kvo_QRect_Viewport    | QRect     | pixels                | size of the target |
/// | 1 | Kvo_KvoTexture*_Frame | texture   |                       | the image; none: the output is invalid |
/// | 2 | Kvo_KvoTexture*_Depth | texture   |                       | window depth in the first channel |
/// | 3 | Kvo_float_FocalDepth  | float     | 0.1 to 100 metres     | distance in focus; used without autofocus |
/// | 4 | Kvo_float_FocalLength | float     | 1 to 1000 millimetres | focal length of the lens |
/// | 5 | Kvo_float_FStop       | float     | 0.5 to 128 f-number   | aperture |
/// | 6 | Kvo_bool_AutoFocus    | bool      |                       | focus on the depth at input 7 |
/// | 7 | Kvo_QVector2D_Focus   | QVector2D | 0 to 1 of the image   | autofocus point, (0, 0) at the lower left |
///
/// | # | Output                | Type    | Format                        | Meaning |
/// |---|-----------------------|---------|-------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | GL_RGBA32F, owned by the pass | the image with its depth of field |
///
/// Depth is made linear for clip planes at 0.1 and 100, whatever the camera's are. Alpha of the output
/// is undefined. A missing depth texture reads as the far plane. Nothing is given back to the pool, and
/// the output is overwritten in the next frame. The image's filters are put back.
///
/// Leaves changed: depth test (off), viewport (the size of the target). Of the host's state count: clear
/// colour.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT DepthOfFieldRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InFrame,
        InDepth,
        InFocalDepth,
        InFocalLength,
        InFStop,
        InAutoFocus,
        InFocus,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    DepthOfFieldRenderPass();
    DepthOfFieldRenderPass(const DepthOfFieldRenderPass &other);
    DepthOfFieldRenderPass &operator=(const DepthOfFieldRenderPass &other);
    ~DepthOfFieldRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _program;
    QSharedPointer<DrawBuffers> _quad;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
