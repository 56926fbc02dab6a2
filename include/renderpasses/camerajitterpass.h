#pragma once

#include "core/renderpasshelper.h"
#include "renderpasses/export.h"

#include <QMatrix4x4>
#include <QVariant>
#include <QVector2D>
#include <QVector>

namespace Brevane::Kvo {

/// Shifts a projection by a part of a pixel from frame to frame, so that temporal antialiasing gathers
/// several samples per pixel. Draws nothing and needs no GL.
///
/// | # | Input                           | Type       | Default | Range  | Meaning |
/// |---|---------------------------------|------------|---------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | none    | pixels | its size turns pixels into clip space |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 | none    |        | the true projection |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 | none    |        | only to notice motion |
/// | 3 | Kvo_bool_Dirty                  | bool       | true    |        | the image has changed for another reason |
/// | 4 | Kvo_int_JitterMode              | int        | 2       |        | 0 none, 1 randomAfterChange, 2 alternating, 3 random; where the samples of a pixel lie; others: random |
///
/// | # | Output                          | Type       | Meaning |
/// |---|---------------------------------|------------|-----|
/// | 0 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 | the jittered projection |
/// | 1 | Kvo_int_JitterIndex             | int        | 0 or 1 in mode 2, else -1; SMAARenderPass reads it |
///
/// The positions of mode 2 are (0.25, -0.25) and (-0.25, 0.25) pixels. Random offsets lie within half a
/// pixel and come from rand(): a host that seeds it gets the same frames again. The viewport must not be
/// empty.
///
/// Leaves no state of GL changed.
class KVO_RENDERPASSES_EXPORT CameraJitterPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InDirty,
        InJitterMode,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutProjectionMatrix,
        OutJitterIndex,
    };

    CameraJitterPass();
    CameraJitterPass(const CameraJitterPass &other);
    CameraJitterPass &operator=(const CameraJitterPass &other);
    ~CameraJitterPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    QMatrix4x4 _lastProjection;
    QMatrix4x4 _lastCamera;
    int _lastWidth = 0;
    int _lastHeight = 0;
    int _framesLeft = 30;
    int _jitterIndex = -1;
    QVector<QVector2D> _jitterTable;
    /// What the first output held before: consumers let go of it while they take what it holds now.
    QVariant _earlierProjection;
};

} // namespace Brevane::Kvo
