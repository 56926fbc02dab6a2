#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"

#include <gl/guards.h>
#include <gl/shaderprogram.h>
#include <model/instancedatacollection.h>
#include <model/instancedataplan.h>
#include <model/instancedataregistry.h>

#include <epoxy/gl.h>

#include <algorithm>

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

TEST_F(InstanceDataTest, WithoutAContextNoDataIsTaken)
{
    InstanceDataCollection collection(registry().getPlan(name("OBJMaterial")));
    GLContext::doneCurrent();
    EXPECT_FALSE(collection.setData(QVector<float>(12)));
    EXPECT_FALSE(collection.bind());
}

} // namespace Brevane::Kvo
