#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QMatrix4x4>
#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;

/// The running mean of the jittered frames of a still view, which converges to a supersampled image.
/// Any change of camera, projection or size starts it again; there is no reprojection.
///
/// | # | Input                           | Type       | Default | Range      | Meaning |
/// |---|---------------------------------|------------|---------|------------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | none    | pixels     | size of the image |
/// | 1 | Kvo_KvoTexture*_Frame           | texture    | none    |            | this frame; none: the mean is cleared |
/// | 2 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 | none    |            | to notice changes: the one without jitter |
/// | 3 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 | none    |            | to notice changes |
/// | 4 | Kvo_bool_Dirty                  | bool       | true    |            | pass this frame through |
/// | 5 | Kvo_Float_ViewportScale         | float      | 1       | 0.01 to 64 | the mean's size is the viewport's divided by this; 0 or less: 1 |
/// | 6 | Kvo_Bool_ViewportScale_Enable   | bool       | true    |            | false: a scale of 1 |
///
/// | # | Output                | Type    | Format                                                                          | Meaning |
/// |---|-----------------------|---------|---------------------------------------------------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | pool format 3, kept by the pass and overwritten next frame; or the frame itself | the mean of the frames |
///
/// The frame after a restart replaces the restart frame, which is often the least settled, and the mean
/// begins there. The mean is made by blending with a constant. The frame is given back to the pool.
///
/// Out of range: a scale of 0 or less acts as 1. One that is not a number does so too, and one whose mean would
/// have a side beyond the driver's limit gives the largest there is, of 4 million texels at most; both are said
/// once, with a warning that names pass and slot.
///
/// Leaves changed: viewport (the size of the target); with a frame: depth test (off), depth mask (open),
/// blending (off); after a change: clear colour (transparent black); in a still view: blend function (source
/// by 1 - constant, target by constant), blend equation (add), blend colour (the weight of the frames so
/// far).
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT TemporalAARenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InFrame,
        InProjectionMatrix,
        InCameraMatrix,
        InDirty,
        InViewportScale,
        InViewportScaleEnable,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    TemporalAARenderPass();
    TemporalAARenderPass(const TemporalAARenderPass &other);
    TemporalAARenderPass &operator=(const TemporalAARenderPass &other);
    ~TemporalAARenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void releaseAccumulation();

    Held<FramebufferObject> _fbo;
    QSharedPointer<DrawBuffers> _quad;
    Held<ShaderProgram> _program;
    QMatrix4x4 _lastProjection;
    QMatrix4x4 _lastCamera;
    int _lastWidth = 0;
    int _lastHeight = 0;
    int _frameCount = 0;
};

} // namespace Brevane::Kvo
