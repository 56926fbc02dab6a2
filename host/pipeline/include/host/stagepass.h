#pragma once

#include "core/renderpasshelper.h"
#include "host/export.h"

namespace Brevane::Kvo {

/// Numbers of the scene and of the view, for pipelines that work at any size of the model and for shaders that would
/// otherwise compute them for each pixel. It draws nothing and uses no GL.
///
/// | # | Input                           | Type       | Meaning                                     |
/// |---|---------------------------------|------------|---------------------------------------------|
/// | 0 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 | camera to clip space                        |
/// | 1 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 | world to camera space                       |
/// | 2 | Kvo_KvoGPUModel*_Geometry       | GPUModel*  | the model; none: one of 2 units around the origin |
///
/// | # | Output                          | Type       | Meaning                                                       |
/// |---|---------------------------------|------------|---------------------------------------------------------------|
/// | 0 | Kvo_QMatrix4x4_ClipToWorld      | QMatrix4x4 | where a pixel with its depth is                               |
/// | 1 | Kvo_QMatrix4x4_CameraToWorld    | QMatrix4x4 | the viewer's place and axes                                   |
/// | 2 | Kvo_QMatrix4x4_UnitProjection   | QMatrix4x4 | the projection for a camera space in which the longest side of the model is 2 |
/// | 3 | Kvo_QVector3D_Centre            | QVector3D  | the middle of the model's box                                 |
/// | 4 | Kvo_float_Radius                | float      | half its longest side                                         |
/// | 5 | Kvo_float_Ground                | float      | y of its lowest point                                         |
/// | 6 | Kvo_QList_FromBelow             | list       | a light straight upwards: its shadow map is how far the model is above each place of the ground |
/// | 7 | Kvo_QVector3D_SceneBoundsMin    | QVector3D  | lower corner of the model's box                               |
/// | 8 | Kvo_QVector3D_SceneBoundsMax    | QVector3D  | upper corner                                                  |
///
/// A matrix that cannot be inverted counts as the identity.
class KVO_PIPELINE_EXPORT StagePass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int { InProjectionMatrix, InCameraMatrix, InGeometry };
    /// Indices of the outputs.
    enum Output : int {
        OutClipToWorld,
        OutCameraToWorld,
        OutUnitProjection,
        OutCentre,
        OutRadius,
        OutGround,
        OutFromBelow,
        OutSceneBoundsMin,
        OutSceneBoundsMax,
    };

    StagePass();

    void start(RenderCallbacks *callbacks) override;
};

} // namespace Brevane::Kvo
