#include <host/lights.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/sceneimport.h>

#include <gtest/gtest.h>

#include <cmath>

using namespace Brevane::Kvo;

namespace {

ShadowMapLight parsed(const char *text)
{
    ShadowMapLight light;
    QString error;
    EXPECT_TRUE(parseLight(QString::fromLatin1(text), &light, &error)) << text << ": " << qPrintable(error);
    return light;
}

QString errorOf(const char *text)
{
    ShadowMapLight light;
    light.intensity = 42;
    QString error;
    EXPECT_FALSE(parseLight(QString::fromLatin1(text), &light, &error)) << text;
    EXPECT_EQ(light.intensity, 42) << "a text that fails changes nothing";
    return error;
}

QVector<ShadowMapLight> lightsOf(const Pipeline &pipeline)
{
    QVector<ShadowMapLight> lights;
    for (const QVariant &value : pipeline.hostValue(QStringLiteral("lights")).toList())
        lights << value.value<ShadowMapLight>();
    return lights;
}

QStringList load(const QByteArray &lights, Pipeline *pipeline)
{
    QStringList errors;
    loadPipelineText("{\n\"lights\": " + lights
                         + ",\n\"passes\": [ { \"name\": \"A\", \"class\": \"GradientRenderPass\" } ] }",
                     QStringLiteral("file"), pipeline, &errors);
    return errors;
}

} // namespace

TEST(Lights, TextsGiveLightsOfThreeTypes)
{
    const ShadowMapLight sun = parsed("directional:0.5,-1,0.25");
    EXPECT_EQ(sun.type, ShadowMapLight::Type::Directional);
    EXPECT_EQ(sun.direction, QVector3D(0.5f, -1, 0.25f));
    EXPECT_EQ(sun.cascades, 1);
    EXPECT_EQ(parsed("directional:0,-1,0,3").cascades, 3);
    const ShadowMapLight spot = parsed("spot:1,2,3,0,-1,0,40,9");
    EXPECT_EQ(spot.type, ShadowMapLight::Type::Spot);
    EXPECT_EQ(spot.position, QVector3D(1, 2, 3));
    EXPECT_EQ(spot.direction, QVector3D(0, -1, 0));
    EXPECT_EQ(spot.angle, 40);
    EXPECT_EQ(spot.range, 9);
    EXPECT_EQ(parsed("spot:1,2,3,0,-1,0").angle, ShadowMapLight().angle);
    const ShadowMapLight point = parsed("point:1,2,3,7");
    EXPECT_EQ(point.type, ShadowMapLight::Type::Point);
    EXPECT_EQ(point.range, 7);
}

TEST(Lights, SettingsFollowByTheNamesOfMembers)
{
    const ShadowMapLight light =
        parsed("directional:0,-1,0,2:color=#ff8000:intensity=0.5:distance=40:splitBalance=0.9:enabled=false");
    EXPECT_NEAR(light.color.x(), 1, 1e-3);
    EXPECT_NEAR(light.color.y(), 128 / 255.0, 1e-3);
    EXPECT_EQ(light.color.z(), 0);
    EXPECT_EQ(light.intensity, 0.5f);
    EXPECT_EQ(light.distance, 40);
    EXPECT_EQ(light.splitBalance, 0.9f);
    EXPECT_FALSE(light.enabled);
    EXPECT_EQ(parsed("point:0,0,0:nearPlane=2:position=[4, 5, 6]").position, QVector3D(4, 5, 6));
}

TEST(Lights, MistakesAreNamed)
{
    EXPECT_TRUE(errorOf("directonal:0,-1,0").contains(QStringLiteral("did you mean 'directional'?")));
    EXPECT_TRUE(errorOf("").contains(QStringLiteral("there is no light ''")));
    EXPECT_TRUE(errorOf("directional").contains(QStringLiteral("numbers")));
    EXPECT_TRUE(errorOf("directional:0,-1").contains(QStringLiteral("dx,dy,dz[,cascades]")));
    EXPECT_TRUE(errorOf("spot:0,1,2,3,4").contains(QStringLiteral("x,y,z,dx,dy,dz[,angle[,range]]")));
    EXPECT_TRUE(errorOf("point:0,1,up").contains(QStringLiteral("'up' is no number")));
    EXPECT_TRUE(errorOf("directional:0,-1,0,nan").contains(QStringLiteral("'nan' is no number")));
    EXPECT_TRUE(errorOf("point:0,1,2:colour=red").contains(QStringLiteral("did you mean 'color'?")));
    EXPECT_TRUE(errorOf("point:0,1,2:color=rouge-ish").contains(QStringLiteral("color")));
    EXPECT_TRUE(errorOf("point:0,1,2:range").contains(QStringLiteral("NAME=VALUE")));
}

TEST(Lights, APipelineFileGivesThemToTheHostValue)
{
    Pipeline pipeline;
    EXPECT_EQ(
        load("[ { \"type\": \"directional\", \"direction\": [1, -1, 0], \"cascades\": 4, \"color\": [1, 0.5, 0] },"
             " { \"type\": \"spot\", \"position\": [0, 5, 0], \"angle\": 30, \"range\": 12 } ]",
             &pipeline),
        QStringList());
    const QVector<ShadowMapLight> lights = lightsOf(pipeline);
    ASSERT_EQ(lights.size(), 2);
    EXPECT_EQ(lights[0].cascades, 4);
    EXPECT_EQ(lights[0].direction, QVector3D(1, -1, 0));
    EXPECT_NEAR(lights[0].color.y(), 0.5, 1e-3);
    EXPECT_EQ(lights[1].type, ShadowMapLight::Type::Spot);
    EXPECT_EQ(lights[1].range, 12);
}

TEST(Lights, MistakesInAPipelineFileHaveTheirLine)
{
    {
        Pipeline pipeline;
        EXPECT_TRUE(load("7", &pipeline).value(0).startsWith(QStringLiteral("file:2: \"lights\" is a list of lights")));
    }
    {
        Pipeline pipeline;
        EXPECT_TRUE(load("[ { \"direction\": [0, -1, 0] } ]", &pipeline)
                        .value(0)
                        .contains(QStringLiteral("file:2: a light is")));
    }
    Pipeline pipeline;
    const QStringList errors = load("[ {\n \"type\": \"point\",\n \"reach\": 5 }, { \"type\": \"sun\" },\n"
                                    " { \"type\": \"spot\", \"angle\": \"wide\" } ]",
                                    &pipeline);
    ASSERT_EQ(errors.size(), 3) << qPrintable(errors.join(u'\n'));
    EXPECT_TRUE(errors[0].startsWith(QStringLiteral("file:4: a light has no \"reach\""))) << qPrintable(errors[0]);
    EXPECT_TRUE(errors[1].startsWith(QStringLiteral("file:4: there is no light 'sun'"))) << qPrintable(errors[1]);
    EXPECT_TRUE(errors[2].startsWith(QStringLiteral("file:5: \"angle\" of a light is a float")))
        << qPrintable(errors[2]);
}

TEST(Lights, AFloorLiesUnderTheModelAndReachesBeyondIt)
{
    ModelData data;
    ModelMesh mesh;
    mesh.positions = {{0, 0, 0}, {1, 0, 0}, {0, 2, 1}};
    mesh.indices = {0, 1, 2};
    ModelItem item;
    item.transform.translate(10, 3, 0);
    data.meshes << mesh;
    data.materials << ModelMaterial();
    data.items << item;
    const GPUModel::BoundingBox before = boxOf(data);
    EXPECT_EQ(before.minimum, QVector3D(10, 3, 0));
    EXPECT_EQ(before.maximum, QVector3D(11, 5, 1));
    addFloor(&data);
    ASSERT_EQ(data.items.size(), 2);
    const ModelMesh &floor = data.meshes[data.items[1].mesh];
    EXPECT_EQ(data.materials[data.items[1].material].name, QStringLiteral("floor"));
    for (const QVector3D &p : floor.positions)
        EXPECT_EQ(p.y(), 3);
    // seen from above, its front is up
    const QVector3D up =
        QVector3D::crossProduct(floor.positions[1] - floor.positions[0], floor.positions[2] - floor.positions[0]);
    EXPECT_GT(up.y(), 0);
    const GPUModel::BoundingBox after = boxOf(data);
    EXPECT_LT(after.minimum.x(), 9.5f);
    EXPECT_GT(after.maximum.z(), 1.5f);
    ModelData empty;
    addFloor(&empty);
    for (const QVector3D &p : empty.meshes[0].positions)
        EXPECT_TRUE(std::isfinite(p.x()));
}
