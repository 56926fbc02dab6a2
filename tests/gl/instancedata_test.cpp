#include "support/draw.h"
#include "support/glfaults.h"
#include "support/gltest.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/guards.h>
#include <gl/shaderprogram.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>
#include <model/instancedataplan.h>
#include <model/instancedataregistry.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <memory>
#include <tuple>

namespace Brevane::Kvo {

using namespace Test;

namespace {

InstanceDataRegistry &registry()
{
    return InstanceDataRegistry::Instance();
}

QString name(const char *text)
{
    return QLatin1String(text);
}

} // namespace

class InstanceDataTest : public GLTest
{
protected:
    /// What an expression over the getters of a plan gives in a full-screen fragment stage, for a draw
    /// that the shader selects.
    std::array<float, 4> evaluate(const char *planName, const char *expression, InstanceDataCollection &data, int draw)
    {
        const InstanceDataPlan *plan = registry().getPlan(name(planName));
        ShaderProgram program;
        program.setFragDataLocations({name("out_Color")});
        program.addShader(GL_VERTEX_SHADER, screenVertexText());
        program.addShader(GL_FRAGMENT_SHADER,
                          QStringLiteral("#version 150\n#include \"InstanceData.glslh\"\n#instancedata \"%1\"\n"
                                         "uniform int u_Draw;\nout vec4 out_Color;\n"
                                         "void select(int draw);\n"
                                         "void main() { select(u_Draw); out_Color = vec4(%2); }\n")
                              .arg(name(planName), name(expression)));
        // the index is a global of the source that has the getters, so the selector stands there
        program.addShader(GL_FRAGMENT_SHADER,
                          plan->glslc() + name("\nvoid select(int draw) { kvo_DrawIndex = uint(draw); }\n"));
        if (!program.compile() || !program.link()) {
            ADD_FAILURE() << qPrintable(program.log());
            return {};
        }
        Target target(GL_RGBA32F, 1, 1);
        drawScreen(target, &program, [&](ShaderProgram *p) {
            p->setUniform(name("u_Draw"), draw);
            EXPECT_TRUE(data.bind(p, nullptr));
        });
        EXPECT_TRUE(data.unbind(&program, nullptr));
        return target.read().at(0, 0);
    }
};

TEST_F(InstanceDataTest, RegistryStartsWithThePlansThatPassesName)
{
    for (const char *plan : {"InstanceInfo", "OBJMaterial", "TarnInstance"}) {
        EXPECT_TRUE(registry().hasPlan(name(plan))) << plan;
        ASSERT_NE(registry().getPlan(name(plan)), nullptr) << plan;
        EXPECT_EQ(registry().getPlan(name(plan))->name(), name(plan));
        EXPECT_TRUE(registry().planNames().contains(name(plan)));
    }
}

TEST_F(InstanceDataTest, UnknownPlanIsNullWithAMessageThatNamesIt)
{
    MessageCapture messages;
    EXPECT_FALSE(registry().hasPlan(name("NoSuchPlan")));
    EXPECT_TRUE(messages.all().isEmpty());
    EXPECT_EQ(registry().getPlan(name("NoSuchPlan")), nullptr);
    EXPECT_EQ(messages.count(QtCriticalMsg), 1);
    EXPECT_EQ(messages.containing(name("NoSuchPlan")), 1);
}

TEST_F(InstanceDataTest, PlanOfTheHostIsAddedOnce)
{
    auto *plan =
        new InstanceDataPlan(name("HostPlan"), name("u_HostData"), 1, name("vec4 getHost();\n"),
                             name("#version 150\n#include \"InstanceData.glslh\"\nuniform samplerBuffer u_HostData;\n"
                                  "vec4 getHost() { return texelFetch(u_HostData, KVO_CURRENT_DRAW); }\n"));
    ASSERT_TRUE(registry().addPlan(plan));
    EXPECT_EQ(registry().getPlan(name("HostPlan")), plan);
    InstanceDataPlan twin(name("HostPlan"), name("u_Other"), 1, QString(), QString());
    EXPECT_FALSE(registry().addPlan(&twin));
    EXPECT_FALSE(registry().addPlan(nullptr));
    EXPECT_EQ(registry().getPlan(name("HostPlan")), plan);

    InstanceDataCollection data(plan);
    ASSERT_TRUE(data.setData({1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(evaluate("HostPlan", "getHost()", data, 1), (std::array<float, 4>{5, 6, 7, 8}));
}

TEST_F(InstanceDataTest, MaterialGettersAnswerForTheCurrentDraw)
{
    const InstanceDataPlan *plan = registry().getPlan(name("OBJMaterial"));
    QVector<float> data(plan->texelsPerDraw() * 4 * 3);
    std::generate(data.begin(), data.end(), [next = 0.0f]() mutable { return next += 1.0f; });
    InstanceDataCollection collection(plan);
    ASSERT_TRUE(collection.setData(data));
    EXPECT_EQ(collection.plan(), plan);
    EXPECT_EQ(collection.drawCount(), 3);
    for (int draw = 0; draw < 3; ++draw) {
        const float base = float(draw * 12);
        EXPECT_EQ(evaluate("OBJMaterial", "getKd(), getNs()", collection, draw),
                  (std::array<float, 4>{base + 1, base + 2, base + 3, base + 4}));
        EXPECT_EQ(evaluate("OBJMaterial", "getKs(), getD()", collection, draw),
                  (std::array<float, 4>{base + 5, base + 6, base + 7, base + 8}));
        EXPECT_EQ(evaluate("OBJMaterial", "float(getMap_Kd()), float(getMap_Ks()), 0.0, 0.0", collection, draw),
                  (std::array<float, 4>{base + 9, base + 10, 0, 0}));
    }
}

TEST_F(InstanceDataTest, MatrixGettersAnswerForTheCurrentDraw)
{
    for (const char *planName : {"InstanceInfo", "TarnInstance"}) {
        const InstanceDataPlan *plan = registry().getPlan(name(planName));
        QVector<float> data(plan->texelsPerDraw() * 4 * 2);
        std::generate(data.begin(), data.end(), [next = 0.0f]() mutable { return next += 1.0f; });
        InstanceDataCollection collection(plan);
        ASSERT_TRUE(collection.setData(data));
        EXPECT_EQ(evaluate(planName, "getModelMatrix()[3]", collection, 0), (std::array<float, 4>{13, 14, 15, 16}));
        EXPECT_EQ(evaluate(planName, "getModelMatrix()[0]", collection, 1), (std::array<float, 4>{33, 34, 35, 36}));
        EXPECT_EQ(evaluate(planName, "getModelNormalMatrix()[1]", collection, 1),
                  (std::array<float, 4>{53, 54, 55, 56}));
    }
}

TEST_F(InstanceDataTest, DataCanBeReplaced)
{
    const InstanceDataPlan *plan = registry().getPlan(name("OBJMaterial"));
    InstanceDataCollection collection(plan);
    EXPECT_EQ(collection.drawCount(), 0);
    ASSERT_TRUE(collection.setData(QVector<float>(24, 1.0f)));
    EXPECT_EQ(collection.drawCount(), 2);
    ASSERT_TRUE(collection.setData(QVector<float>(12, 0.25f)));
    EXPECT_EQ(collection.drawCount(), 1);
    EXPECT_EQ(evaluate("OBJMaterial", "getKd(), getNs()", collection, 0),
              (std::array<float, 4>{0.25f, 0.25f, 0.25f, 0.25f}));
}

TEST_F(InstanceDataTest, BindingSetsTheSamplerAndRestoresTheUnit)
{
    const InstanceDataPlan *plan = registry().getPlan(name("OBJMaterial"));
    InstanceDataCollection collection(plan);
    ASSERT_TRUE(collection.setData(QVector<float>(12, 0.25f)));
    ShaderProgram program;
    program.setFragDataLocations({name("out_Color")});
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER, name("#version 150\n#instancedata \"OBJMaterial\"\nout vec4 out_Color;\n"
                                               "void main() { out_Color = vec4(getKd(), 1.0); }\n"));
    program.addShader(GL_FRAGMENT_SHADER, plan->glslc());
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
    EXPECT_TRUE(program.hasUniform(plan->samplerName()));
    const AutoBinder bound(&program);
    GLint before = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &before);
    {
        const AutoBinder data(&collection);
        EXPECT_TRUE(data.isBound());
        GLint unit = -1;
        glGetUniformiv(program.programID(), program.getUniformLocation(plan->samplerName()), &unit);
        GLint active = 0;
        glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
        EXPECT_EQ(unit, active - GL_TEXTURE0);
        GLint texture = 0;
        glGetIntegerv(GL_TEXTURE_BINDING_BUFFER, &texture);
        EXPECT_NE(texture, 0);
    }
    GLint after = 0;
    glGetIntegerv(GL_ACTIVE_TEXTURE, &after);
    EXPECT_EQ(after, before);
    EXPECT_FALSE(collection.bind(nullptr, nullptr));
}

TEST_F(InstanceDataTest, EachMissingGetterIsNamedByTheLinker)
{
    const std::pair<const char *, const char *> getters[] = {
        {"InstanceInfo", "getModelMatrix"}, {"InstanceInfo", "getModelNormalMatrix"},
        {"OBJMaterial", "getKd"},           {"OBJMaterial", "getKs"},
        {"OBJMaterial", "getNs"},           {"OBJMaterial", "getD"},
        {"OBJMaterial", "getMap_Kd"},       {"OBJMaterial", "getMap_Ks"}};
    for (const auto &[plan, getter] : getters) {
        const bool isMatrix = name(getter).contains(name("Matrix"));
        const bool isVector = name(getter) == name("getKd") || name(getter) == name("getKs");
        ShaderProgram program;
        program.addShader(GL_VERTEX_SHADER, screenVertexText());
        program.addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\n#instancedata \"%1\"\nout vec4 out_Color;\n"
                                                             "void main() { out_Color = vec4(%2()%3); }\n")
                                                  .arg(name(plan), name(getter),
                                                       isMatrix   ? name("[0]")
                                                       : isVector ? name(".xyzz")
                                                                  : QString()));
        EXPECT_TRUE(program.compile()) << qPrintable(program.log());
        EXPECT_FALSE(program.link());
        EXPECT_TRUE(program.log().contains(name(getter))) << qPrintable(program.log());
    }
}

TEST_F(InstanceDataTest, ProgramThatDoesNotReadAPlanIsLogged)
{
    const InstanceDataPlan *plan = registry().getPlan(name("OBJMaterial"));
    const auto program =
        makeProgram(name("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(1.0); }\n"));
    program->setLabel(name("a screen program"));
    MessageCapture messages;
    plan->assertShaderProgram(program.get());
    plan->assertShaderProgram(nullptr);
    EXPECT_EQ(messages.all().size(), 2);
    EXPECT_EQ(messages.containing(name("a screen program")), 1);
    EXPECT_EQ(messages.containing(name("OBJMaterial")), 2);
}

TEST_F(InstanceDataTest, MoreDrawsThanTheDriverHoldsAreRefusedWithAMessage)
{
    const InstanceDataPlan *plan = registry().getPlan(name("OBJMaterial"));
    InstanceDataCollection collection(plan);
    ASSERT_TRUE(collection.setData(QVector<float>(12, 0.25f)));
    const GlCalls::ForcedInteger limit(GL_MAX_TEXTURE_BUFFER_SIZE, 9);
    MessageCapture messages;
    EXPECT_TRUE(collection.setData(QVector<float>(9 * 4)));
    EXPECT_TRUE(messages.all().isEmpty());
    EXPECT_FALSE(collection.setData(QVector<float>(12 * 4)));
    EXPECT_EQ(messages.count(QtCriticalMsg), 1);
    EXPECT_EQ(messages.containing(name("OBJMaterial")), 1);
    EXPECT_EQ(collection.drawCount(), 3) << "what was there stays";
}

TEST_F(InstanceDataTest, WhatTheDriverHadNoRoomForIsTriedAgainByBinding)
{
    InstanceDataCollection collection(registry().getPlan(name("OBJMaterial")));
    ASSERT_TRUE(collection.setData(QVector<float>(24, 1.0f)));
    const int revision = collection.revision();
    const MessageCapture messages;
    {
        const GlFaults fault(0, GlFault::Memory);
        EXPECT_FALSE(collection.setData(QVector<float>(12, 0.25f)));
        ASSERT_STREQ(fault.failed(), "glBufferData");
    }
    EXPECT_EQ(messages.count(QtWarningMsg) + messages.count(QtCriticalMsg), 1)
        << qPrintable(messages.texts().join(u'|'));
    EXPECT_EQ(collection.drawCount(), 1);
    EXPECT_GT(collection.revision(), revision) << "the data is what was set";
    EXPECT_EQ(evaluate("OBJMaterial", "getKd(), getNs()", collection, 0),
              (std::array<float, 4>{0.25f, 0.25f, 0.25f, 0.25f}));
    const GlCalls calls;
    EXPECT_EQ(evaluate("OBJMaterial", "getKd(), getNs()", collection, 0),
              (std::array<float, 4>{0.25f, 0.25f, 0.25f, 0.25f}));
    EXPECT_EQ(calls.count("glTexBuffer"), 0) << "once it is there";
}

TEST_F(InstanceDataTest, WithoutAContextNoDataIsTaken)
{
    InstanceDataCollection collection(registry().getPlan(name("OBJMaterial")));
    GLContext::doneCurrent();
    EXPECT_FALSE(collection.setData(QVector<float>(12)));
    EXPECT_FALSE(collection.bind());
}

namespace {

/// Which stages of a program read instance data, and how.
struct StagesRow
{
    const char *name;
    const char *vertexPlan; ///< Added to the vertex stage with its definitions; null for none.
    const char *vertexBody; ///< Sets gl_Position, and vo_Color where the fragment stage reads nothing itself.
    const char *fragmentColor;
    bool hasGeometryStage = false;
};

constexpr const char *kInPlace = "gl_Position = vec4(va_Vertex, 1.0);";
constexpr const char *kPlaced = "gl_Position = getModelMatrix() * vec4(va_Vertex, 1.0);";
// True of no vertex, which no compiler knows.
constexpr const char *kPlacedInABranch = "gl_Position = vec4(va_Vertex, 1.0);\n"
                                         "if (va_Vertex.x > 100.0)\n"
                                         "  gl_Position = getModelMatrix() * vec4(va_Vertex, 1.0);";
constexpr const char *kPlacedWithAReturn = "gl_Position = vec4(va_Vertex, 1.0);\n"
                                           "if (va_Vertex.x < 100.0)\n"
                                           "  return;\n"
                                           "gl_Position = getModelMatrix() * vec4(va_Vertex, 1.0);";
constexpr const char *kColored = "vo_Color = getKd();\ngl_Position = vec4(va_Vertex, 1.0);";

const StagesRow kStages[] = {{"FragmentOnly", nullptr, kInPlace, "getKd()"},
                             {"VertexCallsNoGetter", "InstanceInfo", kInPlace, "getKd()"},
                             {"VertexCallsInABranch", "InstanceInfo", kPlacedInABranch, "getKd()"},
                             {"VertexReturnsBeforeTheCall", "InstanceInfo", kPlacedWithAReturn, "getKd()"},
                             {"Both", "InstanceInfo", kPlaced, "getKd()"},
                             {"BothReadMaterials", "OBJMaterial", kColored, "getKd()"},
                             {"VertexOnly", "OBJMaterial", kColored, "vo_Color"},
                             {"FragmentBehindGeometry", nullptr, kInPlace, "getKd()", true},
                             {"VertexCallsNoGetterBeforeGeometry", "InstanceInfo", kInPlace, "getKd()", true},
                             {"BothAroundGeometry", "InstanceInfo", kPlaced, "getKd()", true}};

} // namespace

class InstanceDataModelTest : public InstanceDataTest
{
protected:
    static constexpr int kColumns = 3;
    static constexpr int kRows = 2;
    static constexpr int kSide = 12;

    void SetUp() override
    {
        InstanceDataTest::SetUp();
        // In place already, so that programs show the items apart that read no matrix.
        ModelData scene = quadGridScene(kColumns, kRows);
        const ModelMesh quad = scene.meshes.takeFirst();
        for (ModelItem &item : scene.items) {
            ModelMesh mesh = quad;
            for (QVector3D &position : mesh.positions)
                position = item.transform.map(position);
            item.mesh = int(scene.meshes.size());
            item.transform.setToIdentity();
            scene.meshes << mesh;
        }
        ASSERT_TRUE(model->upload(scene));
        for (const ModelItem &item : scene.items)
            colors << scene.materials[item.material].Kd;
    }
    void TearDown() override
    {
        model.reset();
        InstanceDataTest::TearDown();
    }

    void addPlan(ShaderProgram &program, int stage, const char *plan)
    {
        program.addShader(stage, registry().getPlan(name(plan))->glslc());
    }

    /// The picture of the model drawn with a program, whose uniforms need no setting.
    Image<float> draw(ShaderProgram &program)
    {
        Target target(GL_RGBA32F, kSide, kSide);
        const AutoBinder framebuffer(target.framebuffer());
        glViewport(0, 0, kSide, kSide);
        glClear(GL_COLOR_BUFFER_BIT);
        const AutoBinder bound(&program);
        EXPECT_TRUE(model->draw(&program, 0, 0, CounterClockwiseWinding, false));
        return target.read();
    }

    void expectEachItemInItsColor(const Image<float> &picture)
    {
        for (int i = 0; i < colors.size(); ++i) {
            const int x = (2 * (i % kColumns) + 1) * kSide / (2 * kColumns);
            const int y = (2 * (i / kColumns) + 1) * kSide / (2 * kRows);
            const QVector3D &c = colors[i];
            EXPECT_TRUE(isPixel(picture, x, y, {double(c.x()), double(c.y()), double(c.z()), 1}, 0)) << "item " << i;
        }
    }

    std::unique_ptr<GPUModel> model = std::make_unique<GPUModel>();
    QVector<QVector3D> colors;
};

class InstanceDataStagesTest : public InstanceDataModelTest,
                               public ::testing::WithParamInterface<std::tuple<StagesRow, GPUModel::DrawRoad>>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<ParamType> &row)
    {
        const bool isLoop = std::get<1>(row.param) == GPUModel::DrawRoad::Loop;
        return std::string(std::get<0>(row.param).name) + (isLoop ? "_Loop" : "_Indirect");
    }
};

TEST_P(InstanceDataStagesTest, EveryStageAnswersForTheItemThatIsDrawn)
{
    const auto &[row, road] = GetParam();
    model->setDrawRoad(road);
    ShaderProgram program;
    program.setFragDataLocations({name("out_Color")});
    const bool handsColorOn = QLatin1StringView(row.fragmentColor) == "vo_Color";
    const QString vertexPlan =
        row.vertexPlan ? QStringLiteral("#instancedata \"%1\"\n").arg(name(row.vertexPlan)) : QString();
    program.addShader(GL_VERTEX_SHADER,
                      name("#version 150\n") + vertexPlan
                          + name("in vec3 va_Vertex;\nflat out vec3 vo_Color;\nvoid main()\n{\nvo_Color = vec3(0.0);\n")
                          + name(row.vertexBody) + name("\n}\n"));
    if (row.vertexPlan)
        addPlan(program, GL_VERTEX_SHADER, row.vertexPlan);
    if (row.hasGeometryStage)
        program.addShader(GL_GEOMETRY_SHADER,
                          name("#version 150\nlayout(triangles) in;\nlayout(triangle_strip, max_vertices = 3) out;\n"
                               "void main()\n{\n  for (int i = 0; i < 3; ++i) {\n"
                               "    gl_Position = gl_in[i].gl_Position;\n    EmitVertex();\n  }\n}\n"));
    program.addShader(GL_FRAGMENT_SHADER,
                      name("#version 150\n")
                          + (handsColorOn ? name("flat in vec3 vo_Color;\n") : name("#instancedata \"OBJMaterial\"\n"))
                          + name("out vec4 out_Color;\nvoid main() { out_Color = vec4(") + name(row.fragmentColor)
                          + name(", 1.0); }\n"));
    if (!handsColorOn)
        addPlan(program, GL_FRAGMENT_SHADER, "OBJMaterial");
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
    expectEachItemInItsColor(draw(program));
}

INSTANTIATE_TEST_SUITE_P(Stages, InstanceDataStagesTest,
                         ::testing::Combine(::testing::ValuesIn(kStages),
                                            ::testing::Values(GPUModel::DrawRoad::Loop, GPUModel::DrawRoad::Indirect)),
                         InstanceDataStagesTest::nameOf);

TEST_F(InstanceDataModelTest, AFragmentStageThatSelectsADrawLeavesTheVertexStageItsOwn)
{
    ShaderProgram program;
    program.setFragDataLocations({name("out_Color")});
    program.addShader(GL_VERTEX_SHADER, name("#version 150\n#instancedata \"OBJMaterial\"\nin vec3 va_Vertex;\n"
                                             "flat out vec3 vo_Own;\nvoid main() { vo_Own = getKd(); "
                                             "gl_Position = vec4(va_Vertex, 1.0); }\n"));
    addPlan(program, GL_VERTEX_SHADER, "OBJMaterial");
    program.addShader(GL_FRAGMENT_SHADER,
                      name("#version 150\n#instancedata \"OBJMaterial\"\nflat in vec3 vo_Own;\n"
                           "out vec4 out_Color;\nvoid select();\n"
                           "void main() { select(); out_Color = vec4(vo_Own.xy, getKd().x, 1.0); }\n"));
    program.addShader(GL_FRAGMENT_SHADER, registry().getPlan(name("OBJMaterial"))->glslc()
                                              + name("\nvoid select() { kvo_DrawIndex = 2u; }\n"));
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
    for (QVector3D &color : colors)
        color.setZ(colors[2].x());
    expectEachItemInItsColor(draw(program));
}

TEST_F(InstanceDataModelTest, ACommentThatNamesTheIndexSelectsNothing)
{
    ShaderProgram program;
    program.setFragDataLocations({name("out_Color")});
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER,
                      name("#version 150\n#instancedata \"OBJMaterial\"\n// no kvo_DrawIndex here,\n"
                           "/* nor kvo_DrawIndex\n here */\nout vec4 out_Color;\n"
                           "void main() { out_Color = vec4(getKd(), 1.0); }\n"));
    addPlan(program, GL_FRAGMENT_SHADER, "OBJMaterial");
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
    expectEachItemInItsColor(draw(program));
}

} // namespace Brevane::Kvo
