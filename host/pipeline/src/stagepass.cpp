#include "host/stagepass.h"

#include "core/liveobjects.h"
#include "host/lights.h"
#include "model/gpumodel.h"

#include <QMatrix4x4>
#include <QVector3D>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry",
     .meaning = "the model; none: one of 2 units around the origin",
     .kind = SlotKind::Model},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_QMatrix4x4_ClipToWorld", .meaning = "where a pixel with its depth is", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraToWorld", .meaning = "the viewer's place and axes", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_UnitProjection",
     .meaning = "the projection for a camera space in which the longest side of the model is 2",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QVector3D_Centre", .meaning = "the middle of the model's box", .kind = SlotKind::Position},
    {.name = "Kvo_float_Radius",
     .meaning = "half its longest side",
     .kind = SlotKind::Radius,
     .unit = "units of the scene"},
    {.name = "Kvo_float_Ground",
     .meaning = "y of its lowest point",
     .kind = SlotKind::Distance,
     .unit = "units of the scene"},
    {.name = "Kvo_QList_FromBelow",
     .meaning = "a light straight upwards, whose shadow map tells how far the model is above the ground",
     .kind = SlotKind::List},
    {.name = "Kvo_QVector3D_SceneBoundsMin", .meaning = "lower corner of the model's box", .kind = SlotKind::Position},
    {.name = "Kvo_QVector3D_SceneBoundsMax", .meaning = "upper corner", .kind = SlotKind::Position},
};

constexpr PassInfo kInfo = {"StagePass", "numbers of the scene and of the view", Reach::texels(0), kInputInfo,
                            kOutputInfo};

} // namespace

StagePass::StagePass()
{
    addInput(u"Kvo_QMatrix4x4_ProjectionMatrix"_s, QVariant(), InProjectionMatrix);
    addInput(u"Kvo_QMatrix4x4_CameraMatrix"_s, QVariant(), InCameraMatrix);
    addInput(u"Kvo_KvoGPUModel*_Geometry"_s, QVariant(), InGeometry);
    addOutput(u"Kvo_QMatrix4x4_ClipToWorld"_s, OutClipToWorld);
    addOutput(u"Kvo_QMatrix4x4_CameraToWorld"_s, OutCameraToWorld);
    addOutput(u"Kvo_QMatrix4x4_UnitProjection"_s, OutUnitProjection);
    addOutput(u"Kvo_QVector3D_Centre"_s, OutCentre);
    addOutput(u"Kvo_float_Radius"_s, OutRadius);
    addOutput(u"Kvo_float_Ground"_s, OutGround);
    addOutput(u"Kvo_QList_FromBelow"_s, OutFromBelow);
    addOutput(u"Kvo_QVector3D_SceneBoundsMin"_s, OutSceneBoundsMin);
    addOutput(u"Kvo_QVector3D_SceneBoundsMax"_s, OutSceneBoundsMax);
    describe(kInfo);
}

void StagePass::start(RenderCallbacks *)
{
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[InProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[InCameraMatrix].value);
    const auto *model = qvariant_cast<GPUModel *>(_inputs[InGeometry].value);
    GPUModel::BoundingBox box{{-1, -1, -1}, {1, 1, 1}};
    // One that is gone reads as none.
    if (liveKindOf(model) == LiveKind::Model && model->sceneBounds().minimum != model->sceneBounds().maximum)
        box = model->sceneBounds();
    const QVector3D sides = box.maximum - box.minimum;
    const float radius = 0.5f * std::max({sides.x(), sides.y(), sides.z()});
    QMatrix4x4 fromUnit;
    fromUnit.scale(radius);

    _outputs[OutClipToWorld].value = (projection * camera).inverted();
    _outputs[OutCameraToWorld].value = camera.inverted();
    _outputs[OutUnitProjection].value = projection * fromUnit;
    _outputs[OutCentre].value = 0.5f * box.minimum + 0.5f * box.maximum;
    _outputs[OutRadius].value = radius;
    _outputs[OutGround].value = box.minimum.y();
    _outputs[OutSceneBoundsMin].value = box.minimum;
    _outputs[OutSceneBoundsMax].value = box.maximum;
    if (!_outputs[OutFromBelow].value.isValid())
        _outputs[OutFromBelow].value = lightsToVariant({ShadowMapLight::directional({0, 1, 0})});
}

} // namespace Brevane::Kvo
