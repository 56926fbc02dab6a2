#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"

#include <gl/drawbuffers.h>
#include <gl/glslmacroprocessor.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/shaderprogram.h>
#include <gl/vertexarrayobject.h>

#include <QColor>
#include <QFile>
#include <QMatrix4x4>
#include <QRect>
#include <QSize>
#include <QTemporaryDir>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

#include <cmath>

using namespace Test;

namespace {

const QString kPlainFragment = QStringLiteral("#version 150\n"
                                              "in vec2 vo_TexCoord;\n"
                                              "out vec4 out_Color;\n"
                                              "void main() { out_Color = vec4(vo_TexCoord, 0.0, 1.0); }\n");

GLuint currentProgram()
{
    GLint name = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &name);
    return GLuint(name);
}

/// What a fragment expression over the declared uniforms gives.
class Expression
{
public:
    Expression(const char *declarations, const char *expression)
        : program(makeProgram(QStringLiteral("#version 150\n%1\nout vec4 out_Color;\n"
                                             "void main() { out_Color = vec4(%2); }\n")
                                  .arg(QLatin1String(declarations), QLatin1String(expression)))),
          target(GL_RGBA32F, 1, 1)
    {}

    template <typename Set>
    std::array<float, 4> operator()(Set &&set)
    {
        drawScreen(target, program.get(), set);
        return target.read().at(0, 0);
    }

    std::unique_ptr<ShaderProgram> program;
    Target target;
};

using Color = std::array<float, 4>;

class FailureLog
{
public:
    FailureLog()
    {
        ShaderProgram::setFailureHandler([this](const ShaderFailure &failure) { failures.append(failure); });
    }
    ~FailureLog() { ShaderProgram::setFailureHandler({}); }
    QVector<ShaderFailure> failures;
};

} // namespace

class ShaderProgramTest : public GLTest
{};

struct UniformCase
{
    const char *name;
    const char *type;
    const char *expression;
    QVariant value;
    Color expected;
};

void PrintTo(const UniformCase &c, std::ostream *out)
{
    *out << c.name;
}

class ShaderProgramUniformTest : public GLTest, public ::testing::WithParamInterface<UniformCase>
{};

TEST_P(ShaderProgramUniformTest, ReachesTheShader)
{
    const UniformCase &c = GetParam();
    Expression expression(qPrintable(QStringLiteral("uniform %1 u_Value;").arg(QLatin1String(c.type))), c.expression);
    const Color color =
        expression([&](ShaderProgram *p) { EXPECT_TRUE(p->setUniform(QStringLiteral("u_Value"), c.value)); });
    EXPECT_EQ(color, c.expected);
}

TEST_P(ShaderProgramUniformTest, ANumberReachesItWithoutAVariantToo)
{
    const UniformCase &c = GetParam();
    Expression expression(qPrintable(QStringLiteral("uniform %1 u_Value;").arg(QLatin1String(c.type))), c.expression);
    const QString name = QStringLiteral("u_Value");
    const Color color = expression([&](ShaderProgram *p) {
        switch (c.value.metaType().id()) {
        case QMetaType::Bool: EXPECT_TRUE(p->setUniform(name, c.value.toBool())); break;
        case QMetaType::Int: EXPECT_TRUE(p->setUniform(name, c.value.toInt())); break;
        case QMetaType::UInt: EXPECT_TRUE(p->setUniform(name, c.value.toUInt())); break;
        case QMetaType::Float: EXPECT_TRUE(p->setUniform(name, c.value.toFloat())); break;
        case QMetaType::Double: EXPECT_TRUE(p->setUniform(name, c.value.toDouble())); break;
        default: EXPECT_TRUE(p->setUniform(name, c.value)); break;
        }
    });
    EXPECT_EQ(color, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    EveryVariantType, ShaderProgramUniformTest,
    ::testing::Values(
        UniformCase{"Int", "int", "float(u_Value)", -7, {-7, -7, -7, -7}},
        UniformCase{"IntForFloat", "float", "u_Value", 3, {3, 3, 3, 3}},
        UniformCase{"IntForBool", "bool", "u_Value ? 1.0 : 0.0", 2, {1, 1, 1, 1}},
        UniformCase{"IntForUint", "uint", "float(u_Value)", 5, {5, 5, 5, 5}},
        UniformCase{"Uint", "uint", "u_Value == 4000000000u ? 1.0 : 0.0", 4000000000u, {1, 1, 1, 1}},
        UniformCase{"Float", "float", "u_Value", 0.125f, {0.125f, 0.125f, 0.125f, 0.125f}},
        UniformCase{"Double", "float", "u_Value", 0.625, {0.625f, 0.625f, 0.625f, 0.625f}},
        UniformCase{"DoubleForInt", "int", "float(u_Value)", 4.0, {4, 4, 4, 4}},
        UniformCase{"NanForInt", "int", "float(u_Value)", std::nan(""), {0, 0, 0, 0}},
        UniformCase{"MoreThanAnInt", "int", "u_Value == 2147483647 ? 1.0 : 0.0", 1e30, {1, 1, 1, 1}},
        UniformCase{"LessThanAnInt", "int", "u_Value == -2147483647 - 1 ? 1.0 : 0.0", -1e30, {1, 1, 1, 1}},
        UniformCase{"NegativeForUint", "uint", "u_Value == 4294967295u ? 1.0 : 0.0", -1, {1, 1, 1, 1}},
        UniformCase{
            "NanForIvec2", "ivec2", "u_Value, 0.0, 0.0", QVector2D(std::nanf(""), 1e20f), {0, 2147483648.0f, 0, 0}},
        UniformCase{"BoolTrue", "bool", "u_Value ? 1.0 : 0.0", true, {1, 1, 1, 1}},
        UniformCase{"BoolFalse", "bool", "u_Value ? 1.0 : 0.0", false, {0, 0, 0, 0}},
        UniformCase{"BoolForInt", "int", "float(u_Value)", true, {1, 1, 1, 1}},
        UniformCase{"Rect", "vec4", "u_Value", QRect(1, 2, 30, 40), {1, 2, 30, 40}},
        UniformCase{"RectForIvec4", "ivec4", "vec4(u_Value)", QRect(1, 2, 30, 40), {1, 2, 30, 40}},
        UniformCase{"Size", "vec2", "u_Value, 0.0, 0.0", QSize(320, 200), {320, 200, 0, 0}},
        UniformCase{"SizeForIvec2", "ivec2", "u_Value, 0.0, 0.0", QSize(320, 200), {320, 200, 0, 0}},
        UniformCase{"Vector2D", "vec2", "u_Value, 0.0, 0.0", QVector2D(0.5f, -2), {0.5f, -2, 0, 0}},
        UniformCase{"Vector3D", "vec3", "u_Value, 0.0", QVector3D(1, 2, 3), {1, 2, 3, 0}},
        UniformCase{"Vector4D", "vec4", "u_Value", QVector4D(1, 2, 3, 4), {1, 2, 3, 4}},
        UniformCase{"Color", "vec4", "u_Value", QColor(255, 0, 51, 102), {1, 0, 0.2f, 0.4f}},
        UniformCase{"Matrix",
                    "mat4",
                    "u_Value * vec4(1.0, 10.0, 100.0, 1000.0)",
                    QMatrix4x4(1, 0, 0, 2, 0, 1, 0, 3, 0, 0, 1, 4, 0, 0, 0, 1),
                    {2001, 3010, 4100, 1000}},
        UniformCase{"MatrixForMat3",
                    "mat3",
                    "u_Value * vec3(1.0, 10.0, 100.0), 0.0",
                    QMatrix4x4(1, 0, 0, 9, 0, 2, 0, 9, 0, 0, 3, 9, 9, 9, 9, 9),
                    {1, 20, 300, 0}}),
    [](const auto &test) { return std::string(test.param.name); });

TEST_F(ShaderProgramTest, ColourIsTakenAsItIsWhateverItsModel)
{
    Expression expression("uniform vec4 u_Value;", "u_Value");
    const Color color =
        expression([&](ShaderProgram *p) { p->setUniform(QStringLiteral("u_Value"), QColor::fromHsvF(0, 1, 1, 0.5)); });
    EXPECT_NEAR(color[0], 1, 1e-4);
    EXPECT_NEAR(color[1], 0, 1e-4);
    EXPECT_NEAR(color[3], 0.5, 1e-4);
}

TEST_F(ShaderProgramTest, AStageThatGLDoesNotKnowIsSaidWithoutAskingGL)
{
    for (const int stage : {0, 5, -1, int(GL_TEXTURE_2D)}) {
        ShaderProgram program;
        program.addShader(stage, QStringLiteral("#version 150\nvoid main() {}\n"), QStringLiteral("odd"));
        EXPECT_FALSE(program.compile());
        EXPECT_TRUE(program.log().contains(QStringLiteral("the context has no such stage"))) << stage;
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR)) << stage;
    }
}

TEST_F(ShaderProgramTest, UniformThatTheProgramLacksIsIgnored)
{
    const auto program = makeProgram(kPlainFragment);
    const AutoBinder guard(program.get());
    GlCalls calls;
    EXPECT_FALSE(program->setUniform(QStringLiteral("u_Nothing"), 1.0f));
    EXPECT_FALSE(program->setUniform(QStringLiteral("u_Nothing"), QVector<float>{1, 2}));
    EXPECT_FALSE(program->setUniform(QStringLiteral("u_Nothing"), QMatrix4x4()));
    EXPECT_FALSE(program->setUniform(QStringLiteral("u_Nothing[2]"), 1.0f));
    EXPECT_FALSE(program->hasUniform(QStringLiteral("u_Nothing")));
    EXPECT_EQ(program->getUniformLocation(QStringLiteral("u_Nothing")), -1);
    EXPECT_EQ(calls.all().size(), 0u) << qPrintable(calls.toString());
}

TEST_F(ShaderProgramTest, ValueThatDoesNotFitTheUniformSetsNothing)
{
    Expression expression("uniform vec4 u_Value;\nuniform mat4 u_Matrix;", "u_Value + u_Matrix[3]");
    const Color color = expression([&](ShaderProgram *p) {
        EXPECT_FALSE(p->setUniform(QStringLiteral("u_Value"), QVector3D(1, 2, 3)));
        EXPECT_FALSE(p->setUniform(QStringLiteral("u_Value"), QStringLiteral("text")));
        EXPECT_FALSE(p->setUniform(QStringLiteral("u_Value"), QVariant()));
        EXPECT_FALSE(p->setUniform(QStringLiteral("u_Value"), QMatrix4x4()));
        EXPECT_FALSE(p->setUniform(QStringLiteral("u_Matrix"), QVector4D(1, 1, 1, 1)));
    });
    EXPECT_EQ(color, (Color{0, 0, 0, 0}));
}

TEST_F(ShaderProgramTest, UniformOfAProgramThatIsNotBoundIsNotSet)
{
    Expression first("uniform float u_Value;", "u_Value");
    Expression second("uniform float u_Value;", "u_Value");
    EXPECT_FALSE(first.program->setUniform(QStringLiteral("u_Value"), 1.0f));
    const AutoBinder guard(second.program.get());
    EXPECT_FALSE(first.program->setUniform(QStringLiteral("u_Value"), 1.0f));
    EXPECT_TRUE(second.program->setUniform(QStringLiteral("u_Value"), 2.0f));
    EXPECT_EQ(second([](ShaderProgram *) {})[0], 2);
    EXPECT_EQ(first([](ShaderProgram *) {})[0], 0);
}

TEST_F(ShaderProgramTest, ProgramThatTheHostMadeCurrentTakesUniforms)
{
    Expression expression("uniform float u_Value;", "u_Value");
    glUseProgram(expression.program->programID());
    EXPECT_TRUE(expression.program->setUniform(QStringLiteral("u_Value"), 2.0f));
    glUseProgram(0);
    EXPECT_EQ(expression([](ShaderProgram *) {})[0], 2);
}

TEST_F(ShaderProgramTest, ArraysAreSetFromTheirFirstElementOn)
{
    Expression expression("uniform float u_Weights[4];", "u_Weights[0], u_Weights[1], u_Weights[2], u_Weights[3]");
    const QString name = QStringLiteral("u_Weights");
    EXPECT_EQ(expression([&](ShaderProgram *p) {
                  EXPECT_TRUE(p->setUniform(name, QVector<float>{1, 2, 3, 4}));
              }),
              (Color{1, 2, 3, 4}));
    EXPECT_EQ(expression([&](ShaderProgram *p) {
                  EXPECT_TRUE(p->setUniform(name, QVector<float>{5, 6}));
              }),
              (Color{5, 6, 3, 4}));
    EXPECT_EQ(expression([&](ShaderProgram *p) {
                  EXPECT_TRUE(p->setUniform(name, QVector<float>{9, 8, 7, 6, 5, 4})) << "more than the array holds";
              }),
              (Color{9, 8, 7, 6}));
    EXPECT_EQ(expression([&](ShaderProgram *p) { EXPECT_FALSE(p->setUniform(name, QVector<float>())); }),
              (Color{9, 8, 7, 6}));
    EXPECT_EQ(expression([&](ShaderProgram *p) { EXPECT_TRUE(p->setUniform(QStringLiteral("u_Weights[2]"), 1.5f)); }),
              (Color{9, 8, 1.5f, 6}));
}

TEST_F(ShaderProgramTest, LocationOfAnArrayElementServesDirectCalls)
{
    Expression expression("uniform mat4 u_Matrices[3];", "u_Matrices[2][3]");
    const QString name = QStringLiteral("u_Matrices[2]");
    ASSERT_GE(expression.program->getUniformLocation(name), 0);
    EXPECT_EQ(expression.program->getUniformLocation(QStringLiteral("u_Matrices")),
              expression.program->getUniformLocation(QStringLiteral("u_Matrices[0]")));
    EXPECT_EQ(expression.program->getUniformLocation(QStringLiteral("u_Matrices[9]")), -1);
    QMatrix4x4 matrix;
    matrix.translate(3, 4, 5);
    EXPECT_EQ(expression([&](ShaderProgram *p) {
                  glUniformMatrix4fv(p->getUniformLocation(name), 1, GL_FALSE, matrix.constData());
              }),
              (Color{3, 4, 5, 1}));
}

TEST_F(ShaderProgramTest, HasUniformTellsActiveOnes)
{
    const auto program = makeProgram(QStringLiteral("#version 150\n"
                                                    "uniform float u_Used;\n"
                                                    "uniform float u_Unused;\n"
                                                    "uniform float u_Array[2];\n"
                                                    "out vec4 out_Color;\n"
                                                    "void main() { out_Color = vec4(u_Used + u_Array[1]); }\n"));
    EXPECT_TRUE(program->hasUniform(QStringLiteral("u_Used")));
    EXPECT_TRUE(program->hasUniform(QStringLiteral("u_Array")));
    EXPECT_FALSE(program->hasUniform(QStringLiteral("u_Unused")));
    EXPECT_FALSE(program->hasUniform(QStringLiteral("U_USED")));
    EXPECT_GE(program->attributeLocation(QStringLiteral("va_Vertex")), 0);
    EXPECT_EQ(program->attributeLocation(QStringLiteral("va_Nothing")), -1);
}

TEST_F(ShaderProgramTest, ManyUniformsWithNamesAlikeAreToldApart)
{
    // Of one length, and alike at the ends and in the middle.
    constexpr int kCount = 60;
    const auto name = [](int i) { return QStringLiteral("u_%1Value%2u").arg(i % 8).arg(i / 8); };
    QString declarations;
    QString sum = QStringLiteral("0.0");
    for (int i = 0; i < kCount; ++i) {
        declarations += QStringLiteral("uniform float %1;\n").arg(name(i));
        sum += QStringLiteral(" + %1").arg(name(i));
    }
    Expression expression(qPrintable(declarations), qPrintable(sum));
    const AutoBinder guard(expression.program.get());
    for (int i = 0; i < kCount; ++i)
        EXPECT_TRUE(expression.program->setUniform(name(i), float(i)));
    for (int i = 0; i < kCount; ++i) {
        float value = -1;
        glGetUniformfv(expression.program->programID(),
                       glGetUniformLocation(expression.program->programID(), qPrintable(name(i))), &value);
        EXPECT_EQ(value, float(i)) << i;
    }
    EXPECT_FALSE(expression.program->hasUniform(name(kCount + 4)));
    EXPECT_FALSE(expression.program->hasUniform(QString()));
    EXPECT_FALSE(expression.program->hasUniform(QStringLiteral("u_0Value0")));
}

TEST_F(ShaderProgramTest, LocationsAreLookedUpOncePerProgramNotPerCall)
{
    Expression expression("uniform float u_Value;\nuniform vec4 u_Array[4];", "u_Value + u_Array[3]");
    const AutoBinder guard(expression.program.get());
    expression.program->setUniform(QStringLiteral("u_Array[3]"), QVector4D());
    GlCalls calls;
    for (int i = 0; i < 5; ++i) {
        expression.program->setUniform(QStringLiteral("u_Value"), float(i));
        expression.program->setUniform(QStringLiteral("u_Array[3]"), QVector4D(0, 0, 0, 1));
        expression.program->setUniform(QStringLiteral("u_Missing"), 1);
    }
    EXPECT_EQ(calls.count("glGetUniformLocation"), 0);
    EXPECT_EQ(calls.count("glUniform1f"), 5);
}

TEST_F(ShaderProgramTest, SteadyBindingAndSettingAllocatesNothing)
{
    if (!allocationsAreCounted())
        GTEST_SKIP() << "missing: a malloc of our own (sanitizers bring theirs)";
    Expression expression("uniform float u_Value;\nuniform vec4 u_Color;\nuniform mat4 u_Matrix;",
                          "u_Value + u_Color + u_Matrix[0]");
    const auto run = [&] {
        const AutoBinder guard(expression.program.get());
        expression.program->setUniform(QStringLiteral("u_Value"), 1.0f);
        expression.program->setUniform(QStringLiteral("u_Color"), QVariant(QColor(Qt::red)));
        expression.program->setUniform(QStringLiteral("u_Matrix"), QMatrix4x4());
        expression.program->setUniform(QStringLiteral("u_Missing"), 1.0f);
    };
    run();
    const AllocationCounter allocations;
    run();
    EXPECT_EQ(allocations.count(), 0);
}

TEST_F(ShaderProgramTest, BindingNestsAndRestoresTheHostsProgram)
{
    const auto host = makeProgram(kPlainFragment);
    const auto outer = makeProgram(kPlainFragment);
    const auto inner = makeProgram(kPlainFragment);
    glUseProgram(host->programID());
    {
        const AutoBinder boundOuter(outer.get());
        EXPECT_EQ(currentProgram(), outer->programID());
        {
            const AutoBinder boundInner(inner.get());
            const AutoBinder boundAgain(outer.get());
            EXPECT_EQ(currentProgram(), outer->programID());
        }
        EXPECT_EQ(currentProgram(), outer->programID());
    }
    EXPECT_EQ(currentProgram(), host->programID());
    EXPECT_FALSE(outer->unbind());
    glUseProgram(0);
}

TEST_F(ShaderProgramTest, DestroyingABoundProgramRestoresTheHosts)
{
    const auto host = makeProgram(kPlainFragment);
    glUseProgram(host->programID());
    auto program = makeProgram(kPlainFragment);
    program->bind();
    program.reset();
    EXPECT_EQ(currentProgram(), host->programID());
    glUseProgram(0);
}

TEST_F(ShaderProgramTest, BrokenProgramIsHarmless)
{
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER,
                      QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { nonsense }\n"));
    EXPECT_FALSE(program.compile());
    EXPECT_FALSE(program.link());
    EXPECT_FALSE(program.isLinked());
    const auto other = makeProgram(kPlainFragment);
    const auto quad = OpenGLDeviceContext::current()->screenQuad();
    Target target(GL_RGBA32F, 2, 2);
    const AutoBinder framebuffer(target.framebuffer());
    const AutoBinder boundOther(other.get());
    {
        const AutoBinder guard(&program);
        EXPECT_FALSE(guard.isBound());
        EXPECT_EQ(currentProgram(), 0u) << "the program of before would draw in its place";
        EXPECT_FALSE(program.setUniform(QStringLiteral("u_Value"), 1));
        EXPECT_FALSE(quad->VAO()->enableShaderProgramArrays(&program));
        const AutoBinder geometry(quad);
        GlCalls calls;
        EXPECT_FALSE(quad->draw());
        EXPECT_FALSE(quad->draw(&program));
        EXPECT_EQ(calls.draws(), 0);
    }
    EXPECT_EQ(currentProgram(), other->programID());
    EXPECT_TRUE(isPixel(target.read(), 0, 0, {0, 0, 0, 0}, 0));
}

TEST_F(ShaderProgramTest, EmptyProgramDoesNotCompile)
{
    ShaderProgram program;
    EXPECT_FALSE(program.compile());
    EXPECT_FALSE(program.link());
    EXPECT_FALSE(program.log().isEmpty());
    EXPECT_FALSE(program.bind());
    program.unbind();
}

TEST_F(ShaderProgramTest, GoodProgramHasAnEmptyLog)
{
    const auto program = makeProgram(kPlainFragment);
    EXPECT_TRUE(program->log().isEmpty()) << qPrintable(program->log());
}

TEST_F(ShaderProgramTest, CompileLogNamesStageSourceAndLineAndShowsNumberedSource)
{
    ShaderProgram program;
    program.setLabel(QStringLiteral("my program"));
    program.addShader(GL_VERTEX_SHADER, screenVertexText(), QStringLiteral("vertex.glsl"));
    program.addShader(GL_FRAGMENT_SHADER,
                      QStringLiteral("#version 150\n"
                                     "out vec4 out_Color;\n"
                                     "void main()\n"
                                     "{\n"
                                     "    out_Color = vec4(undeclared);\n"
                                     "}\n"),
                      QStringLiteral("broken.glsl"));
    EXPECT_FALSE(program.compile());
    const QString log = program.log();
    EXPECT_TRUE(log.contains(QStringLiteral("fragment"))) << qPrintable(log);
    EXPECT_TRUE(log.contains(QStringLiteral("broken.glsl"))) << qPrintable(log);
    EXPECT_TRUE(log.contains(QStringLiteral("my program"))) << qPrintable(log);
    EXPECT_TRUE(log.contains(QStringLiteral("undeclared"))) << qPrintable(log);
    EXPECT_FALSE(log.contains(QStringLiteral("vertex.glsl"))) << "the good stage has no part in it";
    EXPECT_TRUE(log.contains(QStringLiteral("\nbroken.glsl:5(")) || log.contains(QStringLiteral("\nbroken.glsl(5)")))
        << qPrintable(log);
    EXPECT_TRUE(log.contains(QStringLiteral(">   5 |     out_Color = vec4(undeclared);"))) << qPrintable(log);
    EXPECT_TRUE(log.contains(QStringLiteral("    1 | #version 150"))) << qPrintable(log);
}

TEST_F(ShaderProgramTest, CompilerMessagesPointIntoIncludesAndBehindThem)
{
    QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("inc.glslh")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("float fine() { return 1.0; }\nfloat broken() { return missingInInclude; }\n");
    file.close();
    QStringList versions{QStringLiteral("150")};
    if (epoxy_gl_version() >= 33)
        versions.append(QStringLiteral("330"));
    for (const QString &version : versions) {
        GLSLMacroProcessor processor;
        processor.addIncludePath(directory.path());
        processor.addDefine(QStringLiteral("SOMETHING"), QStringLiteral("1"));
        ShaderProgram program;
        program.setMacroProcessor(&processor);
        program.addShader(GL_FRAGMENT_SHADER,
                          QStringLiteral("#version %1\n"
                                         "out vec4 out_Color;\n"
                                         "#include \"inc.glslh\"\n"
                                         "\n"
                                         "void main()\n"
                                         "{\n"
                                         "    out_Color = vec4(missingBehind);\n"
                                         "}\n")
                              .arg(version),
                          QStringLiteral("outer.glsl"));
        EXPECT_FALSE(program.compile());
        const QString log = program.log();
        EXPECT_TRUE(log.contains(QStringLiteral(">   2 | float broken() { return missingInInclude; }")))
            << qPrintable(log);
        EXPECT_TRUE(log.contains(QStringLiteral("inc.glslh"))) << qPrintable(log);
        EXPECT_TRUE(log.contains(QStringLiteral("\ninc.glslh:2("))) << qPrintable(log);
        EXPECT_TRUE(log.contains(QStringLiteral("\nouter.glsl:7("))) << qPrintable(log);
        EXPECT_TRUE(log.contains(QStringLiteral(">   7 |     out_Color = vec4(missingBehind);"))) << qPrintable(log);
    }
}

namespace {

void write(const QTemporaryDir &directory, const char *name, const QByteArray &text)
{
    QFile file(directory.filePath(QLatin1String(name)));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << name;
    file.write(text);
}

/// A line of an include that does not compile.
struct BrokenLine
{
    const char *name;
    const char *line;
};

const BrokenLine kBrokenLines[] = {{"Undeclared", "float f() { return missing; }"},
                                   {"Syntax", "float f() { return 1.0 + ; }"},
                                   {"Type", "int f() { return vec4(1.0); }"},
                                   {"NoFunction", "float f() { return nowhere(1.0); }"},
                                   {"Redefinition", "float fine() { return 2.0; }"},
                                   {"ErrorDirective", "#error on purpose"},
                                   {"UnknownDirective", "#nonsense"},
                                   {"BadCondition", "#if 1 +\n#endif"}};

} // namespace

class ShaderProgramPlaceTest : public ShaderProgramTest, public ::testing::WithParamInterface<BrokenLine>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<BrokenLine> &row) { return row.param.name; }
};

TEST_P(ShaderProgramPlaceTest, MessagesNameTheIncludeAndTheLineInIt)
{
    QTemporaryDir directory;
    write(directory, "inner.glslh", QByteArray("float fine() { return 1.0; }\n// so far\n") + GetParam().line + "\n");
    write(directory, "middle.glslh", "// one\n#include \"inner.glslh\"\n");
    GLSLMacroProcessor processor;
    processor.addIncludePath(directory.path());
    for (const char *top : {"#include \"middle.glslh\"\n", "#if 1\n#include \"inner.glslh\"\n#endif\n"}) {
        ShaderProgram program;
        program.setMayFail(true);
        program.setMacroProcessor(&processor);
        program.addShader(GL_FRAGMENT_SHADER,
                          QStringLiteral("#version 150\nout vec4 out_Color;\n") + QLatin1String(top)
                              + QStringLiteral("void main() { out_Color = vec4(1.0); }\n"),
                          QStringLiteral("outer.glsl"));
        EXPECT_FALSE(program.compile());
        const QString log = program.log();
        EXPECT_TRUE(log.contains(QStringLiteral("inner.glslh:3("))) << qPrintable(log);
        EXPECT_FALSE(log.contains(QStringLiteral("outer.glsl:3("))) << qPrintable(log);
        EXPECT_TRUE(
            log.contains(QStringLiteral(">   3 | %1").arg(QString::fromLatin1(GetParam().line).section(u'\n', 0, 0))))
            << qPrintable(log);
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, ShaderProgramPlaceTest, ::testing::ValuesIn(kBrokenLines),
                         ShaderProgramPlaceTest::nameOf);

namespace {

/// Values of a define, and which of two includes compiles.
struct BranchRow
{
    const char *name;
    const char *branches;
    float expected;
};

// "half.glslh" gives half() as 0.5, "guarded.glslh" the same behind a guard of its own, "both.glslh" includes both.
const BranchRow kBranches[] = {
    {"First", "#if 1\n#include \"half.glslh\"\n#else\n#include \"half.glslh\"\n#endif\n", 0.5f},
    {"Second", "#if 0\n#include \"half.glslh\"\n#else\n#include \"half.glslh\"\n#endif\n", 0.5f},
    {"BehindASkippedOne", "#ifdef NOTHING\n#include \"half.glslh\"\n#endif\n#include \"half.glslh\"\n", 0.5f},
    {"BehindATakenOne", "#ifndef NOTHING\n#include \"half.glslh\"\n#endif\n#include \"half.glslh\"\n", 0.5f},
    {"Twice", "#include \"half.glslh\"\n#include \"half.glslh\"\n", 0.5f},
    {"OnceForAll", "#include \"half.glslh\"\n#if 1\n#include \"half.glslh\"\n#endif\n", 0.5f},
    {"Nested", "#if 0\n#include \"both.glslh\"\n#elif 1\n#include \"both.glslh\"\n#endif\n", 0.5f},
    {"NestedAndAgain", "#if 1\n#include \"both.glslh\"\n#endif\n#include \"half.glslh\"\n", 0.5f},
    {"MissingInASkippedBranch", "#if 0\n#include \"Nowhere.glslh\"\n#endif\n#include \"half.glslh\"\n", 0.5f},
    {"NoPlanInASkippedBranch", "#if 0\n#instancedata \"NoSuchPlan\"\n#endif\n#include \"half.glslh\"\n", 0.5f},
    {"NoNameInASkippedBranch", "#if 0\n#include\n#endif\n#include \"half.glslh\"\n", 0.5f},
    {"MissingInATakenBranch", "#if 1\n#include \"Nowhere.glslh\"\n#endif\n#include \"half.glslh\"\n", -1},
    {"MissingInAGuardedFile", "#include \"guardedmissing.glslh\"\n#include \"half.glslh\"\n", -1},
    {"EndOfACommentIsNoCondition", "/*\n#if 0\n*/\n#include \"half.glslh\"\n", 0.5f},
    {"EachOther", "#if 1\n#include \"one.glslh\"\n#else\n#include \"other.glslh\"\n#endif\n", 0.5f}};

} // namespace

class ShaderProgramBranchTest : public ShaderProgramTest, public ::testing::WithParamInterface<BranchRow>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<BranchRow> &row) { return row.param.name; }
};

TEST_P(ShaderProgramBranchTest, AFileIsIncludedTheFirstTimeThatTheCompilerComesToIt)
{
    QTemporaryDir directory;
    const std::pair<const char *, const char *> files[] = {
        {"half.glslh", "float half_() { return 0.5; }\n"},
        {"guarded.glslh", "#ifndef GUARD\n#define GUARD\n#include \"half.glslh\"\n#endif\n"},
        {"guardedmissing.glslh", "#ifndef GUARD\n#define GUARD\n#include \"Nowhere.glslh\"\n#endif\n"},
        {"both.glslh", "#include \"half.glslh\"\n#include \"guarded.glslh\"\n"},
        {"one.glslh", "#include \"other.glslh\"\n#include \"half.glslh\"\n"},
        {"other.glslh", "#include \"one.glslh\"\n#include \"half.glslh\"\n"}};
    for (const auto &[name, text] : files)
        write(directory, name, text);
    GLSLMacroProcessor processor;
    processor.addIncludePath(directory.path());
    ShaderProgram program;
    program.setMayFail(true);
    program.setMacroProcessor(&processor);
    program.setFragDataLocations({QStringLiteral("out_Color")});
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\nout vec4 out_Color;\n")
                                              + QLatin1String(GetParam().branches)
                                              + QStringLiteral("void main() { out_Color = vec4(half_()); }\n"));
    const bool compiles = program.compile();
    ASSERT_EQ(compiles, GetParam().expected > 0) << qPrintable(program.log());
    if (!compiles) {
        EXPECT_TRUE(program.log().contains(QStringLiteral("Nowhere.glslh"))) << qPrintable(program.log());
        return;
    }
    ASSERT_TRUE(program.link()) << qPrintable(program.log());
    Target target(GL_RGBA32F, 1, 1);
    drawScreen(target, &program);
    EXPECT_EQ(target.read().at(0, 0)[0], GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Branches, ShaderProgramBranchTest, ::testing::ValuesIn(kBranches),
                         ShaderProgramBranchTest::nameOf);

TEST_F(ShaderProgramTest, CompileLogNamesAMissingInclude)
{
    ShaderProgram program;
    program.addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\n#include \"Nowhere.glslh\"\nvoid main() {}\n"));
    EXPECT_FALSE(program.compile());
    EXPECT_TRUE(program.log().contains(QStringLiteral("Nowhere.glslh"))) << qPrintable(program.log());
}

TEST_F(ShaderProgramTest, CompileLogNamesAMissingLibraryFile)
{
    ShaderProgram program;
    program.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("Nowhere.glslc"));
    EXPECT_FALSE(program.compile());
    EXPECT_TRUE(program.log().contains(QStringLiteral("Nowhere.glslc"))) << qPrintable(program.log());
}

TEST_F(ShaderProgramTest, InstanceDataWithoutItsDefinitionsFailsToLinkAndNamesTheGetter)
{
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER,
                      QStringLiteral("#version 150\n"
                                     "#instancedata \"InstanceInfo\"\n"
                                     "in vec3 va_Vertex;\n"
                                     "void main() { gl_Position = getModelMatrix() * vec4(va_Vertex, 1.0); }\n"));
    program.addShader(GL_FRAGMENT_SHADER,
                      QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(1.0); }\n"));
    EXPECT_TRUE(program.compile()) << qPrintable(program.log());
    FailureLog handler;
    EXPECT_FALSE(program.link());
    EXPECT_TRUE(program.log().contains(QStringLiteral("getModelMatrix"))) << qPrintable(program.log());
    ASSERT_EQ(handler.failures.size(), 1);
    EXPECT_TRUE(handler.failures[0].whileLinking);
}

TEST_F(ShaderProgramTest, FailureHandlerReceivesEveryFailedCompileAndLinkOnce)
{
    FailureLog handler;
    ShaderProgram broken;
    broken.setLabel(QStringLiteral("broken one"));
    broken.addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\nnonsense\n"));
    EXPECT_FALSE(broken.compile());
    EXPECT_FALSE(broken.link());
    ASSERT_EQ(handler.failures.size(), 1);
    EXPECT_EQ(handler.failures[0].label, QStringLiteral("broken one"));
    EXPECT_EQ(handler.failures[0].log, broken.log());
    EXPECT_FALSE(handler.failures[0].whileLinking);

    const auto good = makeProgram(kPlainFragment);
    EXPECT_EQ(handler.failures.size(), 1);

    ShaderProgram unlinkable;
    unlinkable.addShader(
        GL_VERTEX_SHADER,
        QStringLiteral("#version 150\nvec4 elsewhere();\nvoid main() { gl_Position = elsewhere(); }\n"));
    unlinkable.addShader(GL_FRAGMENT_SHADER, kPlainFragment);
    EXPECT_TRUE(unlinkable.compile());
    EXPECT_FALSE(unlinkable.link());
    ASSERT_EQ(handler.failures.size(), 2);
    EXPECT_TRUE(handler.failures[1].whileLinking);
    EXPECT_TRUE(handler.failures[1].log.contains(QStringLiteral("elsewhere"))) << qPrintable(handler.failures[1].log);

    ShaderProgram::setFailureHandler({});
    EXPECT_FALSE(broken.compile());
    EXPECT_EQ(handler.failures.size(), 2);
}

TEST_F(ShaderProgramTest, AProgramThatMayFailKeepsTheHandlerOutOfIt)
{
    FailureLog handler;
    ShaderProgram broken;
    broken.setMayFail(true);
    broken.addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\nnonsense\n"));
    EXPECT_FALSE(broken.compile());
    EXPECT_TRUE(handler.failures.isEmpty());
    EXPECT_FALSE(broken.log().isEmpty()) << "the owner can still look";
    broken.setMayFail(false);
    EXPECT_FALSE(broken.compile());
    EXPECT_EQ(handler.failures.size(), 1);
}

TEST_F(ShaderProgramTest, SourcesOfAStageAreJoined)
{
    ShaderProgram program;
    program.setFragDataLocations({QStringLiteral("out_Color")});
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER,
                      QStringLiteral("#version 150\nvec4 color();\nout vec4 out_Color;\nvoid main() { "
                                     "out_Color = color(); }\n"));
    program.addShader(GL_FRAGMENT_SHADER,
                      QStringLiteral("#version 150\nfloat half1();\nvec4 color() { return vec4(half1()); }\n"));
    program.addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\nfloat half1() { return 0.5; }\n"));
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
    Target target(GL_RGBA32F, 2, 2);
    drawScreen(target, &program);
    EXPECT_TRUE(isPixel(target.read(), 1, 1, {0.5, 0.5, 0.5, 0.5}, 0));
}

// Each needs what stands in the one before it, and a text without a version goes on with that of the first.
TEST_F(ShaderProgramTest, SourcesThatDoNotCompileByThemselvesAreOneText)
{
    const QString first = QStringLiteral("#version 150\n#define SHARE 0.25\nout vec4 out_Color;\n"
                                         "vec4 color() { return vec4(SHARE); }\n");
    const QString second = QStringLiteral("uniform float u_Factor;\n"
                                          "void main() { out_Color = u_Factor * color() + SHARE; }\n");
    for (const char *version : {"", "#version 150\n", "#version 140\n"}) {
        SCOPED_TRACE(version);
        ShaderProgram program;
        program.setFragDataLocations({QStringLiteral("out_Color")});
        program.addShader(GL_FRAGMENT_SHADER, first, QStringLiteral("first"));
        program.addShader(GL_VERTEX_SHADER, screenVertexText());
        program.addShader(GL_FRAGMENT_SHADER, QLatin1String(version) + second, QStringLiteral("second"));
        const MessageCapture messages;
        ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
        EXPECT_EQ(messages.texts(), QStringList());
        EXPECT_FALSE(program.log().contains(QLatin1String("failed"))) << qPrintable(program.log());
        ASSERT_TRUE(program.bind());
        EXPECT_TRUE(program.setUniform(QStringLiteral("u_Factor"), 2.0f));
        program.unbind();
        Target target(GL_RGBA32F, 2, 2);
        drawScreen(target, &program);
        EXPECT_TRUE(isPixel(target.read(), 1, 1, {0.75, 0.75, 0.75, 0.75}, 0));
    }
}

// What is said is of the sources, by their names.
TEST_F(ShaderProgramTest, SourcesThatDoNotCompileJoinedEitherAreToldOneByOne)
{
    ShaderProgram program;
    program.setLabel(QStringLiteral("broken"));
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\nout vec4 o;\nvec4 f() { return vec4(1.0); }\n"),
                      QStringLiteral("first"));
    program.addShader(GL_FRAGMENT_SHADER, QStringLiteral("void main() { o = g(); }\n"), QStringLiteral("second"));
    const MessageCapture messages;
    EXPECT_FALSE(program.compile());
    EXPECT_TRUE(program.log().contains(QLatin1String("fragment shader 'second' of program 'broken' failed to compile")))
        << qPrintable(program.log());
    EXPECT_FALSE(program.log().contains(QLatin1String("first and second"))) << qPrintable(program.log());
    EXPECT_FALSE(program.link());
}

TEST_F(ShaderProgramTest, FragmentOutputsTakeTheColourNumberOfTheirPlaceInTheList)
{
    const QString fragment = QStringLiteral("#version 150\nout vec4 out_Zeta;\nout vec4 out_Alpha;\n"
                                            "void main() { out_Zeta = vec4(0.25); out_Alpha = vec4(0.75); }\n");
    for (const bool locationsFirst : {true, false}) {
        ShaderProgram program;
        if (locationsFirst)
            program.setFragDataLocations({QStringLiteral("out_Alpha"), QStringLiteral("out_Zeta")});
        program.addShader(GL_VERTEX_SHADER, screenVertexText());
        program.addShader(GL_FRAGMENT_SHADER, fragment);
        if (!locationsFirst)
            program.setFragDataLocations({QStringLiteral("out_Alpha"), QStringLiteral("out_Zeta")});
        ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());

        Target target(GL_RGBA32F, 2, 2);
        const auto second = makeTexture(GL_RGBA32F, 2, 2);
        const AutoBinder guard(target.framebuffer());
        target.framebuffer()->attach(second.get(), GL_COLOR_ATTACHMENT1, 0);
        target.framebuffer()->setDrawBuffers();
        drawScreen(target, &program);
        EXPECT_TRUE(isPixel(target.read(), 0, 0, {0.75, 0.75, 0.75, 0.75}, 0));
        EXPECT_TRUE(isPixel(readTexture<float>(second.get()), 0, 0, {0.25, 0.25, 0.25, 0.25}, 0));
    }
}

TEST_F(ShaderProgramTest, MacroProcessorFiltersEveryStage)
{
    GLSLMacroProcessor processor;
    processor.addDefine(QStringLiteral("VALUE"), QStringLiteral("0.5"));
    ShaderProgram program;
    program.setMacroProcessor(&processor);
    program.setFragDataLocations({QStringLiteral("out_Color")});
    program.addShader(GL_VERTEX_SHADER,
                      QStringLiteral("#version 150\nin vec3 va_Vertex;\nout float vo_Value;\n"
                                     "void main() { vo_Value = VALUE; gl_Position = vec4(va_Vertex, 1.0); }\n"));
    program.addShader(GL_FRAGMENT_SHADER,
                      QStringLiteral("#version 150\nin float vo_Value;\nout vec4 out_Color;\n"
                                     "void main() { out_Color = vec4(vo_Value, VALUE, 0.0, 1.0); }\n"));
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
    Target target(GL_RGBA32F, 1, 1);
    drawScreen(target, &program);
    EXPECT_TRUE(isPixel(target.read(), 0, 0, {0.5, 0.5, 0, 1}, 0));
}

TEST_F(ShaderProgramTest, ProgramWithoutAProcessorIncludesFromTheShaderLibrary)
{
    ShaderProgram program;
    program.setFragDataLocations({QStringLiteral("out_Color")});
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER,
                      QStringLiteral("#version 150\n#include \"KvoUtilities.glslh\"\nout vec4 out_Color;\n"
                                     "//gammaCorrect(Output, u_ScreenGamma)\n"
                                     "void main() { out_Color = vec4(directionToLatLong_Tarn(vec3(0.0, 0.0, -1.0)), "
                                     "directionToLatLong_Tarn(vec3(0.0, 1.0, 0.0)).y, "
                                     "directionToLatLong_Tarn(vec3(1.0, 0.0, 0.0)).x); }\n"));
    program.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("KvoUtilities.glslc"));
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
    Target target(GL_RGBA32F, 1, 1);
    drawScreen(target, &program);
    // ahead is the centre of the map, up is its upper edge, +x a quarter turn to the right
    EXPECT_TRUE(isPixel(target.read(), 0, 0, {0.5, 0.5, 1, 0.75}, 1e-3));
}

TEST_F(ShaderProgramTest, ProgramsAgreeOnTheLocationsOfAttributesWithTheSameName)
{
    const QString fragment = QStringLiteral("#version 150\nin vec2 vo_TexCoord;\nout vec4 out_Color;\nvoid main() { "
                                            "out_Color = vec4(vo_TexCoord, 0.0, 1.0); }\n");
    const auto first = makeProgram(screenVertexText(), fragment);
    const auto second =
        makeProgram(QStringLiteral("#version 150\nin vec2 va_TexCoord;\nin vec3 va_Extra;\nin vec3 va_Vertex;\n"
                                   "out vec2 vo_TexCoord;\nvoid main() { vo_TexCoord = va_TexCoord + va_Extra.xy;\n"
                                   "gl_Position = vec4(va_Vertex, 1.0); }\n"),
                    fragment);
    for (const char *name : {"va_Vertex", "va_TexCoord"})
        EXPECT_EQ(first->attributeLocation(QLatin1String(name)), second->attributeLocation(QLatin1String(name)));
}

TEST_F(ShaderProgramTest, GeometryStageLinks)
{
    ShaderProgram program;
    program.setFragDataLocations({QStringLiteral("out_Color")});
    program.addShader(
        GL_VERTEX_SHADER,
        QStringLiteral("#version 150\nin vec3 va_Vertex;\nvoid main() { gl_Position = vec4(va_Vertex, 1.0); }\n"));
    program.addShader(
        GL_GEOMETRY_SHADER,
        QStringLiteral("#version 150\nlayout(triangles) in;\nlayout(triangle_strip, max_vertices = 3) out;\n"
                       "out vec4 vo_Color;\nvoid main() { for (int i = 0; i < 3; ++i) { gl_Position = "
                       "gl_in[i].gl_Position; vo_Color = vec4(0.5); EmitVertex(); } EndPrimitive(); }\n"));
    program.addShader(
        GL_FRAGMENT_SHADER,
        QStringLiteral(
            "#version 150\nin vec4 vo_Color;\nout vec4 out_Color;\nvoid main() { out_Color = vo_Color; }\n"));
    ASSERT_TRUE(program.compile() && program.link()) << qPrintable(program.log());
    Target target(GL_RGBA32F, 2, 2);
    drawScreen(target, &program);
    EXPECT_TRUE(isPixel(target.read(), 1, 0, {0.5, 0.5, 0.5, 0.5}, 0));
}

TEST_F(ShaderProgramTest, CompilingAgainReplacesTheProgramAndLeaksNothing)
{
    auto program = makeProgram(kPlainFragment);
    const int before = GlCalls::live(GlKind::Program) + GlCalls::live(GlKind::Shader);
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(program->compile() && program->link());
    EXPECT_EQ(GlCalls::live(GlKind::Program) + GlCalls::live(GlKind::Shader), before);
    EXPECT_TRUE(program->isLinked());
}

TEST_F(ShaderProgramTest, NoShaderObjectOutlivesTheLink)
{
    const int before = GlCalls::live(GlKind::Shader);
    const auto program = makeProgram(kPlainFragment);
    EXPECT_EQ(GlCalls::live(GlKind::Shader), before);
}

TEST_F(ShaderProgramTest, LinkingInStepsGivesTheSameProgram)
{
    ShaderProgram program;
    program.setFragDataLocations({QStringLiteral("out_Color")});
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER, kPlainFragment);
    EXPECT_FALSE(program.linkPre()) << "nothing is compiled yet";
    ASSERT_TRUE(program.compile());
    EXPECT_FALSE(program.isLinked());
    EXPECT_TRUE(program.linkPre());
    EXPECT_TRUE(program.linkPreWait());
    EXPECT_TRUE(program.linkPost());
    EXPECT_TRUE(program.isLinked());
    EXPECT_TRUE(program.validate());
    Target target(GL_RGBA32F, 2, 2);
    drawScreen(target, &program);
    EXPECT_TRUE(isPixel(target.read(), 1, 0, {0.75, 0.25, 0, 1}, 1e-6));
}

TEST_F(ShaderProgramTest, WithoutAContextNothingCompiles)
{
    ShaderProgram program;
    program.addShader(GL_FRAGMENT_SHADER, kPlainFragment);
    GLContext::doneCurrent();
    EXPECT_FALSE(program.compile());
    EXPECT_FALSE(program.log().isEmpty());
    EXPECT_FALSE(program.link());
    EXPECT_FALSE(program.bind());
}

TEST_F(ShaderProgramTest, LabelReachesTheDriver)
{
    KVO_REQUIRE_EXTENSION("GL_KHR_debug");
    ShaderProgram program;
    program.setLabel(QStringLiteral("labelled"));
    program.addShader(GL_VERTEX_SHADER, screenVertexText());
    program.addShader(GL_FRAGMENT_SHADER, kPlainFragment);
    ASSERT_TRUE(program.compile() && program.link());
    char text[64] = "";
    glGetObjectLabel(GL_PROGRAM, program.programID(), sizeof text, nullptr, text);
    EXPECT_STREQ(text, "labelled");
    EXPECT_EQ(program.label(), QStringLiteral("labelled"));
}

} // namespace Brevane::Kvo
