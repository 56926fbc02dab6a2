#include "support/draw.h"
#include "support/gltest.h"

#include <gl/bufferobject.h>
#include <gl/drawbuffers.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/vertexarrayobject.h>

#include <epoxy/gl.h>

#include <array>

namespace Brevane::Kvo {

using namespace Test;

namespace {

GLuint boundArray()
{
    GLint name = 0;
    glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &name);
    return GLuint(name);
}

template <size_t N>
QSharedPointer<BufferObject> bufferOf(const std::array<float, N> &data)
{
    auto buffer = OpenGLDeviceContext::current()->createBufferObject();
    buffer->upload(data.data(), int(N), GL_STATIC_DRAW);
    return buffer;
}

// A triangle that covers the screen.
constexpr std::array<float, 9> kTriangle{-1, -1, 0, 3, -1, 0, -1, 3, 0};

const QString kFragment =
    QStringLiteral("#version 150\nin vec4 vo_Color;\nout vec4 out_Color;\nvoid main() { out_Color = vo_Color; }\n");

std::unique_ptr<ShaderProgram> colorProgram(const char *declaration, const char *expression)
{
    return makeProgram(QStringLiteral("#version 150\nin vec3 va_Vertex;\n%1\nout vec4 vo_Color;\n"
                                      "void main() { vo_Color = vec4(%2); gl_Position = vec4(va_Vertex, 1.0); }\n")
                           .arg(QLatin1String(declaration), QLatin1String(expression)),
                       kFragment);
}

} // namespace

class VertexArrayObjectTest : public GLTest
{
protected:
    /// Draws three vertices and gives the colour of the middle.
    std::array<float, 4> draw(VertexArrayObject &vao, ShaderProgram *program)
    {
        Target target(GL_RGBA32F, 3, 3);
        const AutoBinder framebuffer(target.framebuffer());
        const AutoBinder boundProgram(program);
        const AutoBinder vertices(&vao);
        glViewport(0, 0, 3, 3);
        glDrawArrays(GL_TRIANGLES, 0, 3);
        return target.read().at(1, 1);
    }
};

TEST_F(VertexArrayObjectTest, RemembersItsBuffersByAttributeName)
{
    VertexArrayObject vao;
    const auto vertices = bufferOf(kTriangle);
    EXPECT_TRUE(vao.upload(QStringLiteral("va_Vertex"), vertices, 3, GL_FLOAT));
    EXPECT_EQ(vao.bo(QStringLiteral("va_Vertex")), vertices);
    EXPECT_TRUE(vao.bo(QStringLiteral("va_Normal")).isNull());
    const auto others = bufferOf(kTriangle);
    EXPECT_TRUE(vao.upload(QStringLiteral("va_Vertex"), others, 3, GL_FLOAT));
    EXPECT_EQ(vao.bo(QStringLiteral("va_Vertex")), others);
}

TEST_F(VertexArrayObjectTest, UploadRefusesWhatIsNoAttribute)
{
    VertexArrayObject vao;
    EXPECT_FALSE(vao.upload(QStringLiteral("va_Vertex"), nullptr, 3, GL_FLOAT));
    EXPECT_FALSE(vao.upload(QString(), bufferOf(kTriangle), 3, GL_FLOAT));
    EXPECT_FALSE(vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 0, GL_FLOAT));
    EXPECT_FALSE(vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 5, GL_FLOAT));
}

TEST_F(VertexArrayObjectTest, FeedsEveryAttributeThatHasABufferOfTheSameName)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QStringLiteral("va_Tint"), bufferOf(std::array<float, 6>{0.5f, 0.25f, 0.5f, 0.25f, 0.5f, 0.25f}), 2,
               GL_FLOAT);
    vao.upload(QStringLiteral("va_Unused"), bufferOf(kTriangle), 3, GL_FLOAT);
    const auto program = colorProgram("in vec2 va_Tint;", "va_Tint, 0.0, 1.0");
    {
        const AutoBinder guard(&vao);
        EXPECT_TRUE(vao.enableShaderProgramArrays(program.get()));
    }
    EXPECT_EQ(draw(vao, program.get()), (std::array<float, 4>{0.5f, 0.25f, 0, 1}));
}

TEST_F(VertexArrayObjectTest, IntegerAttributesArriveAsIntegers)
{
    const auto numbers = OpenGLDeviceContext::current()->createBufferObject();
    const unsigned int data[] = {4000000001u, 4000000001u, 4000000001u};
    numbers->uploadGLuintData(data, 3, GL_STATIC_DRAW);
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QStringLiteral("va_Number"), numbers, 1, GL_UNSIGNED_INT);
    const auto program = colorProgram("in uint va_Number;", "va_Number == 4000000001u ? 1.0 : 0.25");
    vao.enableShaderProgramArrays(program.get());
    EXPECT_EQ(draw(vao, program.get())[0], 1);
}

TEST_F(VertexArrayObjectTest, OffsetAndReplacedBufferReachTheShader)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QStringLiteral("va_Value"), bufferOf(std::array<float, 5>{9, 9, 0.5f, 0.5f, 0.5f}), 1, GL_FLOAT, 8);
    const auto program = colorProgram("in float va_Value;", "va_Value");
    vao.enableShaderProgramArrays(program.get());
    EXPECT_EQ(draw(vao, program.get())[0], 0.5f);
    vao.upload(QStringLiteral("va_Value"), bufferOf(std::array<float, 3>{0.25f, 0.25f, 0.25f}), 1, GL_FLOAT);
    {
        const AutoBinder guard(&vao);
        EXPECT_TRUE(vao.enableShaderProgramArrays(program.get()));
    }
    EXPECT_EQ(draw(vao, program.get())[0], 0.25f);
}

TEST_F(VertexArrayObjectTest, AnUploadEnablesNothingAndReplacesWhatIsOnFromTheNextBindOn)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    const auto program = colorProgram("in float va_Value;", "va_Value");
    const auto location = GLuint(program->attributeLocation(QStringLiteral("va_Value")));
    const auto isOn = [&] {
        const AutoBinder guard(&vao);
        GLint on = -1;
        glGetVertexAttribiv(location, GL_VERTEX_ATTRIB_ARRAY_ENABLED, &on);
        return on;
    };
    EXPECT_TRUE(vao.enableShaderProgramArrays(program.get()));
    vao.upload(QStringLiteral("va_Value"), bufferOf(std::array<float, 3>{0.5f, 0.5f, 0.5f}), 1, GL_FLOAT);
    EXPECT_EQ(isOn(), GL_FALSE) << "no program was arranged for with it";
    vao.upload(QStringLiteral("va_Value"), bufferOf(std::array<float, 3>{0.75f, 0.75f, 0.75f}), 1, GL_FLOAT);
    EXPECT_EQ(isOn(), GL_FALSE);
    EXPECT_TRUE(vao.enableShaderProgramArrays(program.get()));
    EXPECT_EQ(isOn(), GL_TRUE);
    EXPECT_EQ(draw(vao, program.get())[0], 0.75f);
    // No call but the next bind, here with nothing in the buffer's place before.
    vao.upload(QStringLiteral("va_Value"), bufferOf(std::array<float, 3>{0.25f, 0.25f, 0.25f}), 1, GL_FLOAT);
    EXPECT_EQ(isOn(), GL_TRUE);
    EXPECT_EQ(draw(vao, program.get())[0], 0.25f);
}

TEST_F(VertexArrayObjectTest, DivisorAdvancesPerInstance)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QStringLiteral("va_Value"), bufferOf(std::array<float, 2>{0.25f, 0.75f}), 1, GL_FLOAT, 0, 1);
    const auto program = colorProgram("in float va_Value;", "va_Value");
    if (!epoxy_has_gl_extension("GL_ARB_instanced_arrays") && epoxy_gl_version() < 33)
        GTEST_SKIP() << "missing extension: GL_ARB_instanced_arrays";
    vao.enableShaderProgramArrays(program.get());
    Target target(GL_RGBA32F, 2, 2);
    const AutoBinder framebuffer(target.framebuffer());
    const AutoBinder boundProgram(program.get());
    const AutoBinder vertices(&vao);
    glViewport(0, 0, 2, 2);
    glDrawArraysInstanced(GL_TRIANGLES, 0, 3, 2);
    EXPECT_EQ(target.read().at(0, 0)[0], 0.75f) << "the second instance is drawn over the first";
}

TEST_F(VertexArrayObjectTest, OneVertexArrayServesSeveralPrograms)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QStringLiteral("va_First"), bufferOf(std::array<float, 3>{0.25f, 0.25f, 0.25f}), 1, GL_FLOAT);
    vao.upload(QStringLiteral("va_Second"), bufferOf(std::array<float, 3>{0.75f, 0.75f, 0.75f}), 1, GL_FLOAT);
    const auto first = colorProgram("in float va_First;", "va_First");
    const auto second = colorProgram("in float va_Second;", "va_Second");
    const auto both = colorProgram("in float va_Second;\nin float va_First;", "va_First, va_Second, 0.0, 0.0");
    for (ShaderProgram *program : {first.get(), second.get(), both.get()})
        EXPECT_TRUE(vao.enableShaderProgramArrays(program));
    EXPECT_EQ(draw(vao, first.get())[0], 0.25f);
    EXPECT_EQ(draw(vao, second.get())[0], 0.75f);
    EXPECT_EQ(draw(vao, both.get()), (std::array<float, 4>{0.25f, 0.75f, 0, 0}));
}

TEST_F(VertexArrayObjectTest, EnablingAKnownProgramAgainCostsNoCalls)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    const auto program = colorProgram("", "1.0");
    const AutoBinder guard(&vao);
    ASSERT_TRUE(vao.enableShaderProgramArrays(program.get()));
    GlCalls calls;
    EXPECT_TRUE(vao.enableShaderProgramArrays(program.get()));
    EXPECT_EQ(calls.count("glVertexAttribPointer"), 0);
    EXPECT_FALSE(vao.enableShaderProgramArrays(nullptr));
}

TEST_F(VertexArrayObjectTest, BindingNestsAndRestoresTheHostsVertexArrayAndBuffers)
{
    GLuint host = 0;
    glGenVertexArrays(1, &host);
    glBindVertexArray(host);
    const auto hostBuffer = bufferOf(kTriangle);
    glBindBuffer(GL_ARRAY_BUFFER, hostBuffer->getBO());
    VertexArrayObject outer;
    VertexArrayObject inner;
    outer.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    const auto program = colorProgram("", "1.0");
    {
        const AutoBinder boundOuter(&outer);
        outer.enableShaderProgramArrays(program.get());
        {
            const AutoBinder boundInner(&inner);
            EXPECT_EQ(boundArray(), inner.vertexArrayID());
            const AutoBinder again(&outer);
            EXPECT_EQ(boundArray(), outer.vertexArrayID());
        }
        EXPECT_EQ(boundArray(), outer.vertexArrayID());
    }
    EXPECT_EQ(boundArray(), host);
    GLint arrayBuffer = 0;
    glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &arrayBuffer);
    EXPECT_EQ(GLuint(arrayBuffer), hostBuffer->getBO());
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glDeleteVertexArrays(1, &host);
}

TEST_F(VertexArrayObjectTest, EachContextOfAShareGroupGetsAVertexArrayOfItsOwn)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QStringLiteral("va_Tint"), bufferOf(std::array<float, 3>{0.5f, 0.5f, 0.5f}), 1, GL_FLOAT);
    const auto program = colorProgram("in float va_Tint;", "va_Tint");
    vao.enableShaderProgramArrays(program.get());
    EXPECT_EQ(draw(vao, program.get())[0], 0.5f);
    glFinish();

    GLContext::Options options;
    options.share = &context();
    GLContext second(options);
    ASSERT_TRUE(second.makeCurrent());
    ASSERT_TRUE(OpenGLDeviceContext::current());
    EXPECT_EQ(vao.vertexArrayID(), 0u);
    EXPECT_EQ(draw(vao, program.get())[0], 0.5f) << "arrays that were enabled in the other context work here";
    EXPECT_NE(vao.vertexArrayID(), 0u);
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_EQ(draw(vao, program.get())[0], 0.5f);
}

TEST_F(VertexArrayObjectTest, DestroyedWhileAnotherContextIsCurrentItIsDeletedInItsOwn)
{
    auto vao = std::make_unique<VertexArrayObject>();
    vao->bind();
    vao->unbind();
    const GLuint name = vao->vertexArrayID();
    const int before = GlCalls::live(GlKind::VertexArray);
    {
        GLContext second;
        ASSERT_TRUE(second.makeCurrent());
        ASSERT_TRUE(OpenGLDeviceContext::current());
        GlCalls calls;
        vao.reset();
        EXPECT_EQ(calls.count("glDeleteVertexArrays"), 0) << "the name means something else in this context";
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    ASSERT_TRUE(OpenGLDeviceContext::current());
    EXPECT_EQ(GlCalls::live(GlKind::VertexArray), before - 1);
    EXPECT_FALSE(glIsVertexArray(name));
}

// Programs that have their attributes in other places: linked before a vertex array shared their names, or when
// the process had given its 16 shared locations away.
class VertexArrayDisagreementTest : public VertexArrayObjectTest, public ::testing::WithParamInterface<int>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<int> &row) { return row.param ? "All" : "Some"; }

protected:
    static constexpr float kFirst = 0.25f;
    static constexpr float kSecond = 0.75f;

    void SetUp() override
    {
        VertexArrayObjectTest::SetUp();
        // Names of their own for each test: a name that was shared once stays so.
        static int tests = 0;
        ++tests;
        nameOfFirst = QByteArray("va_First") + QByteArray::number(tests) + "_" + QByteArray::number(GetParam());
        nameOfSecond = QByteArray("va_Second") + QByteArray::number(tests) + "_" + QByteArray::number(GetParam());
        VertexArrayObject others;
        const auto buffer = bufferOf(kTriangle);
        for (int i = 0; i < GetParam(); ++i)
            others.upload(QStringLiteral("va_Filler%1").arg(i), buffer, 3, GL_FLOAT);
        first = programOf({nameOfFirst});
        second = programOf({nameOfSecond});
        both = programOf({nameOfFirst, nameOfSecond});
        ASSERT_EQ(first->attributeLocation(QLatin1String(nameOfFirst)),
                  second->attributeLocation(QLatin1String(nameOfSecond)))
            << "each is the only one beside va_Vertex";
    }

    void TearDown() override
    {
        for (auto *program : {&first, &second, &both})
            program->reset();
        VertexArrayObjectTest::TearDown();
    }

    static std::unique_ptr<ShaderProgram> programOf(const QList<QByteArray> &names, const char *type = "float")
    {
        QByteArray declarations;
        for (const QByteArray &name : names)
            declarations += QByteArray("in ") + type + " " + name + ";\n";
        const QByteArray expression =
            names.size() == 2 ? names[0] + ", " + names[1] + ", 0.0, 1.0" : "float(" + names[0] + ")";
        return colorProgram(declarations.constData(), expression.constData());
    }

    void fill(VertexArrayObject &vao, unsigned int divisorOfFirst = 0)
    {
        vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
        vao.upload(QLatin1String(nameOfFirst), bufferOf(std::array<float, 3>{kFirst, kFirst, kFirst}), 1, GL_FLOAT, 0,
                   divisorOfFirst);
        vao.upload(QLatin1String(nameOfSecond), bufferOf(std::array<float, 3>{kSecond, kSecond, kSecond}), 1, GL_FLOAT);
    }

    /// Several rounds, so that each comes after each.
    template <typename Draw>
    void expectEachReadsItsOwn(Draw &&draw)
    {
        const std::array<float, 4> expected[] = {
            {kFirst, kFirst, kFirst, kFirst}, {kSecond, kSecond, kSecond, kSecond}, {kFirst, kSecond, 0, 1}};
        for (const int i : {0, 1, 2, 0, 2, 1, 0, 0, 1, 1, 2, 2}) {
            ShaderProgram *const program = std::array{first.get(), second.get(), both.get()}[std::size_t(i)];
            EXPECT_EQ(draw(program), expected[i]) << "program " << i;
        }
    }

    QByteArray nameOfFirst;
    QByteArray nameOfSecond;
    std::unique_ptr<ShaderProgram> first;
    std::unique_ptr<ShaderProgram> second;
    std::unique_ptr<ShaderProgram> both;
};

TEST_P(VertexArrayDisagreementTest, ProgramsThatTakeTurnsEachReadTheirOwnArrays)
{
    VertexArrayObject vao;
    fill(vao);
    for (ShaderProgram *program : {first.get(), second.get(), both.get()})
        EXPECT_TRUE(vao.enableShaderProgramArrays(program));
    expectEachReadsItsOwn([&](ShaderProgram *program) { return draw(vao, program); });
}

TEST_P(VertexArrayDisagreementTest, DrawBuffersDrawWithTheArraysOfTheProgramWhateverWasBoundFirst)
{
    const auto vao = QSharedPointer<VertexArrayObject>::create();
    fill(*vao);
    DrawBuffers buffers;
    buffers.setVAO(vao);
    buffers.setVertexCount(3);
    expectEachReadsItsOwn([&](ShaderProgram *program) {
        Target target(GL_RGBA32F, 3, 3);
        const AutoBinder framebuffer(target.framebuffer());
        const AutoBinder vertices(&buffers);
        const AutoBinder boundProgram(program);
        glViewport(0, 0, 3, 3);
        EXPECT_TRUE(buffers.draw());
        return target.read().at(1, 1);
    });
}

TEST_P(VertexArrayDisagreementTest, EveryContextFollows)
{
    VertexArrayObject vao;
    fill(vao);
    for (ShaderProgram *program : {first.get(), second.get(), both.get()})
        EXPECT_TRUE(vao.enableShaderProgramArrays(program));
    expectEachReadsItsOwn([&](ShaderProgram *program) { return draw(vao, program); });
    glFinish();
    {
        GLContext::Options options;
        options.share = &context();
        GLContext shared(options);
        ASSERT_TRUE(shared.makeCurrent());
        resetGLState();
        expectEachReadsItsOwn([&](ShaderProgram *program) { return draw(vao, program); });
        OpenGLDeviceContext::releaseCurrent();
    }
    ASSERT_TRUE(context().makeCurrent());
    expectEachReadsItsOwn([&](ShaderProgram *program) { return draw(vao, program); });
}

TEST_P(VertexArrayDisagreementTest, AnAttributeWithoutABufferIsNotFedFromTheArrayOfAnother)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QLatin1String(nameOfFirst), bufferOf(std::array<float, 3>{kFirst, kFirst, kFirst}), 1, GL_FLOAT);
    for (ShaderProgram *program : {first.get(), second.get()})
        EXPECT_TRUE(vao.enableShaderProgramArrays(program));
    const auto location = GLuint(second->attributeLocation(QLatin1String(nameOfSecond)));
    for (int round = 0; round < 2; ++round) {
        glVertexAttrib1f(location, 0.5f); // which a draw from an array may change
        EXPECT_EQ(draw(vao, second.get())[0], 0.5f) << round;
        EXPECT_EQ(draw(vao, first.get())[0], kFirst);
    }
    glVertexAttrib4f(location, 0, 0, 0, 1);
}

TEST_P(VertexArrayDisagreementTest, AnArrayThatIsTakenOffInOneContextIsOffInAllOthers)
{
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QLatin1String(nameOfFirst), bufferOf(std::array<float, 3>{kFirst, kFirst, kFirst}), 1, GL_FLOAT);
    EXPECT_TRUE(vao.enableShaderProgramArrays(first.get()));
    glFinish();
    GLContext::Options options;
    options.share = &context();
    GLContext shared(options);
    ASSERT_TRUE(shared.makeCurrent());
    resetGLState();
    EXPECT_EQ(draw(vao, first.get())[0], kFirst);
    ASSERT_TRUE(context().makeCurrent());
    EXPECT_TRUE(vao.enableShaderProgramArrays(second.get()));
    ASSERT_TRUE(shared.makeCurrent());
    glVertexAttrib1f(GLuint(second->attributeLocation(QLatin1String(nameOfSecond))), 0.5f);
    EXPECT_EQ(draw(vao, second.get())[0], 0.5f);
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

TEST_P(VertexArrayDisagreementTest, ADivisorGoesWithItsAttribute)
{
    if (!epoxy_has_gl_extension("GL_ARB_instanced_arrays") && epoxy_gl_version() < 33)
        GTEST_SKIP() << "missing extension: GL_ARB_instanced_arrays";
    VertexArrayObject vao;
    fill(vao, 1);
    vao.upload(QLatin1String(nameOfSecond), bufferOf(std::array<float, 3>{0, 0, 1}), 1, GL_FLOAT);
    for (ShaderProgram *program : {first.get(), second.get()})
        EXPECT_TRUE(vao.enableShaderProgramArrays(program));
    EXPECT_EQ(draw(vao, first.get())[0], kFirst);
    EXPECT_NEAR(double(draw(vao, second.get())[0]), 0.25, 1e-6) << "a quarter of the way to the last vertex";
}

INSTANTIATE_TEST_SUITE_P(LocationsTaken, VertexArrayDisagreementTest, ::testing::Values(0, 16),
                         VertexArrayDisagreementTest::nameOf);

TEST_F(VertexArrayObjectTest, AProgramThatReadsAnAttributeAsFloatTakesTurnsWithOneThatReadsIntegers)
{
    const auto numbers = OpenGLDeviceContext::current()->createBufferObject();
    const unsigned int data[] = {3, 3, 3};
    numbers->uploadGLuintData(data, 3, GL_STATIC_DRAW);
    VertexArrayObject vao;
    vao.upload(QStringLiteral("va_Vertex"), bufferOf(kTriangle), 3, GL_FLOAT);
    vao.upload(QStringLiteral("va_Number"), numbers, 1, GL_UNSIGNED_INT);
    const auto integers = colorProgram("in uint va_Number;", "va_Number == 3u ? 1.0 : 0.0");
    const auto floats = colorProgram("in float va_Number;", "va_Number == 3.0 ? 1.0 : 0.0");
    // Not all drivers can, even with a vertex array for each: zink reads 0 as integers after floats.
    for (ShaderProgram *program : {floats.get(), integers.get()}) {
        VertexArrayObject alone;
        alone.upload(QStringLiteral("va_Vertex"), vao.bo(QStringLiteral("va_Vertex")), 3, GL_FLOAT);
        alone.upload(QStringLiteral("va_Number"), numbers, 1, GL_UNSIGNED_INT);
        alone.enableShaderProgramArrays(program);
        if (draw(alone, program)[0] != 1)
            GTEST_SKIP() << "this driver does not take turns between floats and integers of one buffer";
    }
    for (ShaderProgram *program : {integers.get(), floats.get()})
        EXPECT_TRUE(vao.enableShaderProgramArrays(program));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(draw(vao, integers.get())[0], 1);
        EXPECT_EQ(draw(vao, floats.get())[0], 1);
    }
}

} // namespace Brevane::Kvo
