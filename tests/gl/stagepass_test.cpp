#include "support/gltest.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <host/stagepass.h>
#include <model/gpumodel.h>
#include <shadows/shadowmaplight.h>

#include <QMatrix4x4>
#include <QVector3D>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

class Staging : public GLTest
{
protected:
    QVector3D vector(int output) const { return qvariant_cast<QVector3D>(pass.output(output)); }
    QMatrix4x4 matrix(int output) const { return qvariant_cast<QMatrix4x4>(pass.output(output)); }

    StagePass pass;
};

} // namespace

TEST_F(Staging, SlotsHaveTheirNamesAndOrder)
{
    expectSlots(pass,
                {{"Kvo_QMatrix4x4_ProjectionMatrix"}, {"Kvo_QMatrix4x4_CameraMatrix"}, {"Kvo_KvoGPUModel*_Geometry"}},
                {"Kvo_QMatrix4x4_ClipToWorld", "Kvo_QMatrix4x4_CameraToWorld", "Kvo_QMatrix4x4_UnitProjection",
                 "Kvo_QVector3D_Centre", "Kvo_float_Radius", "Kvo_float_Ground", "Kvo_QList_FromBelow",
                 "Kvo_QVector3D_SceneBoundsMin", "Kvo_QVector3D_SceneBoundsMax"});
}

TEST_F(Staging, TellsWhereTheModelIs)
{
    ModelData data;
    data.meshes << cubeMesh();
    data.materials.resize(1);
    data.items.resize(1);
    data.items[0].transform.translate(10, 20, 30);
    data.items[0].transform.scale(4, 2, 1);
    GPUModel model;
    ASSERT_TRUE(model.upload(data));
    const GPUModel::BoundingBox box = model.sceneBounds();
    ASSERT_GT(box.maximum.x(), box.minimum.x());
    pass.setInput(StagePass::InGeometry, QVariant::fromValue(&model));
    runFrame(pass);
    EXPECT_EQ(vector(StagePass::OutCentre), QVector3D(10, 20, 30));
    EXPECT_FLOAT_EQ(pass.output(StagePass::OutRadius).toFloat(), 0.5f * (box.maximum.x() - box.minimum.x()));
    EXPECT_FLOAT_EQ(pass.output(StagePass::OutGround).toFloat(), box.minimum.y());
    EXPECT_EQ(vector(StagePass::OutSceneBoundsMin), box.minimum);
    EXPECT_EQ(vector(StagePass::OutSceneBoundsMax), box.maximum);
    EXPECT_EQ(pass.output(StagePass::OutFromBelow).toList().size(), 1);
}

TEST_F(Staging, WithoutAModelTwoUnitsAroundTheOriginStandIn)
{
    runFrame(pass);
    EXPECT_EQ(vector(StagePass::OutCentre), QVector3D());
    EXPECT_EQ(pass.output(StagePass::OutRadius).toFloat(), 1.0f);
    EXPECT_EQ(pass.output(StagePass::OutGround).toFloat(), -1.0f);
    GPUModel empty;
    ASSERT_TRUE(empty.upload(ModelData()));
    pass.setInput(StagePass::InGeometry, QVariant::fromValue(&empty));
    runFrame(pass);
    EXPECT_EQ(pass.output(StagePass::OutRadius).toFloat(), 1.0f);
}

TEST_F(Staging, AModelThatIsGoneIsNone)
{
    auto model = std::make_unique<GPUModel>();
    ModelData data = cubeScene();
    data.items[0].transform.translate(10, 20, 30);
    ASSERT_TRUE(model->upload(data));
    pass.setInput(StagePass::InGeometry, QVariant::fromValue(model.get()));
    runFrame(pass);
    EXPECT_EQ(vector(StagePass::OutCentre), QVector3D(10, 20, 30));
    model.reset();
    runFrame(pass);
    EXPECT_EQ(vector(StagePass::OutCentre), QVector3D(0, 0, 0));
}

TEST_F(Staging, MatricesLeadFromPixelsToTheWorldAndFromUnitsToPixels)
{
    ModelData data;
    data.meshes << cubeMesh();
    data.materials.resize(1);
    data.items.resize(1);
    data.items[0].transform.scale(250);
    GPUModel model;
    ASSERT_TRUE(model.upload(data));
    QMatrix4x4 projection;
    projection.perspective(40, 1.5f, 10, 5000);
    QMatrix4x4 camera;
    camera.lookAt({300, 200, 900}, {0, 0, 0}, {0, 1, 0});
    pass.setInput(StagePass::InProjectionMatrix, projection);
    pass.setInput(StagePass::InCameraMatrix, camera);
    pass.setInput(StagePass::InGeometry, QVariant::fromValue(&model));
    runFrame(pass);
    const QVector3D place(40, -30, 90);
    const QVector3D clip = (projection * camera).map(place);
    EXPECT_LT((matrix(StagePass::OutClipToWorld).map(clip) - place).length(), 0.1f);
    EXPECT_LT((matrix(StagePass::OutCameraToWorld).map(QVector3D()) - QVector3D(300, 200, 900)).length(), 0.01f);
    const float radius = pass.output(StagePass::OutRadius).toFloat();
    EXPECT_FLOAT_EQ(radius, 250.0f);
    EXPECT_LT((matrix(StagePass::OutUnitProjection).map(camera.map(place) / radius) - clip).length(), 1e-5f);
}
