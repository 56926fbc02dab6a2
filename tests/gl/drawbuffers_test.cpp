#include "support/draw.h"
#include "support/gltest.h"

#include <gl/bufferobject.h>
#include <gl/drawbuffers.h>
#include <gl/glslmacroprocessor.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/vertexarrayobject.h>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

using namespace Test;

namespace {

const QString kFragment = QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(0.5); }\n");

QSharedPointer<VertexArrayObject> triangleArray()
{
    const float data[] = {-1, -1, 0, 3, -1, 0, -1, 3, 0};
    const auto buffer = OpenGLDeviceContext::current()->createBufferObject();
    buffer->upload(data, 9, GL_STATIC_DRAW);
    auto vao = OpenGLDeviceContext::current()->createVertexArrayObject();
    vao->upload(QStringLiteral("va_Vertex"), buffer, 3, GL_FLOAT);
    return vao;
}

QSharedPointer<BufferObject> indexBuffer(const QVector<unsigned int> &indices)
{
    auto buffer = OpenGLDeviceContext::current()->createBufferObject();
    buffer->setTarget(GL_ELEMENT_ARRAY_BUFFER);
    buffer->uploadGLuintData(indices.constData(), int(indices.size()), GL_STATIC_DRAW);
    return buffer;
}

} // namespace

class DrawBuffersTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        program = makeProgram(
            QStringLiteral("#version 150\nin vec3 va_Vertex;\nvoid main() { gl_Position = vec4(va_Vertex, 1.0); }\n"),
            kFragment);
        target = std::make_unique<Target>(GL_RGBA32F, 3, 3);
    }
    void TearDown() override
    {
        target.reset();
        program.reset();
        GLTest::TearDown();
    }
    std::unique_ptr<ShaderProgram> program;
    std::unique_ptr<Target> target;
};

TEST_F(DrawBuffersTest, EmptyPieceDrawsNothingAndSaysSo)
{
    DrawBuffers empty;
    EXPECT_TRUE(empty.VAO().isNull());
    EXPECT_TRUE(empty.indexBO().isNull());
    EXPECT_FALSE(empty.bind());
    EXPECT_FALSE(empty.unbind());
    const AutoBinder bound(program.get());
    GlCalls calls;
    EXPECT_FALSE(empty.draw());
    EXPECT_FALSE(empty.draw(program.get()));
    EXPECT_EQ(calls.draws(), 0);
}

TEST_F(DrawBuffersTest, DrawsItsVertexCount)
{
    DrawBuffers piece;
    const auto vao = triangleArray();
    piece.setVAO(vao);
    EXPECT_EQ(piece.VAO(), vao);
    piece.setPrimitiveType(GL_TRIANGLES);
    piece.setVertexCount(3);
    EXPECT_EQ(piece.primitiveType(), GLenum(GL_TRIANGLES));
    vao->enableShaderProgramArrays(program.get());
    const AutoBinder framebuffer(target->framebuffer());
    const AutoBinder boundProgram(program.get());
    const AutoBinder bound(&piece);
    glViewport(0, 0, 3, 3);
    GlCalls calls;
    EXPECT_TRUE(piece.draw());
    EXPECT_EQ(calls.count("glDrawArrays", {GL_TRIANGLES, 0, 3}), 1);
    EXPECT_EQ(calls.draws(), 1);
    EXPECT_TRUE(isPixel(target->read(), 2, 2, {0.5, 0.5, 0.5, 0.5}, 0));
}

TEST_F(DrawBuffersTest, DrawsPoints)
{
    DrawBuffers piece;
    piece.setVAO(triangleArray());
    piece.setPrimitiveType(GL_POINTS);
    piece.setVertexCount(3);
    const AutoBinder boundProgram(program.get());
    const AutoBinder framebuffer(target->framebuffer());
    const AutoBinder bound(&piece);
    GlCalls calls;
    EXPECT_TRUE(piece.draw());
    EXPECT_EQ(calls.count("glDrawArrays", {GL_POINTS, 0, 3}), 1);
}

TEST_F(DrawBuffersTest, DrawsWithIndicesWhicheverIsSetFirst)
{
    for (const bool indicesFirst : {false, true}) {
        DrawBuffers piece;
        const auto vao = triangleArray();
        const auto indices = indexBuffer({2, 0, 1});
        if (indicesFirst)
            piece.setIndexedDraw(indices, 3, GL_UNSIGNED_INT);
        piece.setVAO(vao);
        if (!indicesFirst)
            piece.setIndexedDraw(indices, 3, GL_UNSIGNED_INT);
        EXPECT_EQ(piece.indexBO(), indices);
        vao->enableShaderProgramArrays(program.get());
        target->clear({0, 0, 0, 0});
        const AutoBinder framebuffer(target->framebuffer());
        const AutoBinder boundProgram(program.get());
        const AutoBinder bound(&piece);
        glViewport(0, 0, 3, 3);
        GlCalls calls;
        EXPECT_TRUE(piece.draw());
        EXPECT_EQ(calls.count("glDrawElements", {GL_TRIANGLES, 3, GL_UNSIGNED_INT, 0}), 1);
        EXPECT_EQ(calls.draws(), 1);
        EXPECT_TRUE(isPixel(target->read(), 1, 1, {0.5, 0.5, 0.5, 0.5}, 0));
    }
}

TEST_F(DrawBuffersTest, WithoutAProgramNothingIsDrawn)
{
    DrawBuffers piece;
    piece.setVAO(triangleArray());
    piece.setVertexCount(3);
    const AutoBinder bound(&piece);
    glUseProgram(0);
    GlCalls calls;
    EXPECT_FALSE(piece.draw());
    EXPECT_FALSE(piece.draw(nullptr));
    EXPECT_EQ(calls.draws(), 0);
}

TEST_F(DrawBuffersTest, DrawsWithANamedProgramAndPutsTheOtherBack)
{
    const auto other = makeProgram(
        QStringLiteral("#version 150\nin vec3 va_Vertex;\nvoid main() { gl_Position = vec4(va_Vertex, 1.0); }\n"),
        QStringLiteral("#version 150\nout vec4 out_Color;\nvoid main() { out_Color = vec4(1.0); }\n"));
    DrawBuffers piece;
    const auto vao = triangleArray();
    piece.setVAO(vao);
    piece.setVertexCount(3);
    vao->enableShaderProgramArrays(program.get());
    const AutoBinder framebuffer(target->framebuffer());
    const AutoBinder boundOther(other.get());
    const AutoBinder bound(&piece);
    glViewport(0, 0, 3, 3);
    EXPECT_TRUE(piece.draw(program.get()));
    EXPECT_TRUE(isPixel(target->read(), 1, 1, {0.5, 0.5, 0.5, 0.5}, 0));
    GLint current = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    EXPECT_EQ(GLuint(current), other->programID());
}

TEST_F(DrawBuffersTest, BindingRestoresTheHostsVertexArray)
{
    GLuint host = 0;
    glGenVertexArrays(1, &host);
    glBindVertexArray(host);
    DrawBuffers piece;
    piece.setVAO(triangleArray());
    {
        const AutoBinder bound(&piece);
        EXPECT_TRUE(bound.isBound());
    }
    GLint name = 0;
    glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &name);
    EXPECT_EQ(GLuint(name), host);
    glDeleteVertexArrays(1, &host);
}

TEST_F(DrawBuffersTest, ReplacedIndexBufferOfTheSamePieceIsTheOneThatIsDrawn)
{
    DrawBuffers piece;
    const auto vao = triangleArray();
    piece.setVAO(vao);
    piece.setIndexedDraw(indexBuffer({0, 0, 0}), 3, GL_UNSIGNED_INT);
    vao->enableShaderProgramArrays(program.get());
    const AutoBinder framebuffer(target->framebuffer());
    const AutoBinder boundProgram(program.get());
    glViewport(0, 0, 3, 3);
    {
        const AutoBinder bound(&piece);
        EXPECT_TRUE(piece.draw());
    }
    EXPECT_TRUE(isPixel(target->read(), 1, 1, {0, 0, 0, 0}, 0)) << "a triangle without an area";
    piece.setIndexedDraw(indexBuffer({0, 1, 2}), 3, GL_UNSIGNED_INT);
    const AutoBinder bound(&piece);
    EXPECT_TRUE(piece.draw());
    EXPECT_TRUE(isPixel(target->read(), 1, 1, {0.5, 0.5, 0.5, 0.5}, 0));
}

TEST_F(DrawBuffersTest, IndirectCommandsAreCopiedAndComeAsAUniformBuffer)
{
    DrawBuffers piece;
    EXPECT_EQ(piece.drawElementsIndirectCommandCount(), 0);
    EXPECT_TRUE(piece.getDrawElementsIndirectCommandsUniformBufferObject().isNull());
    {
        const DrawElementsIndirectCommand commands[] = {{3, 1, 0, 0, 7}, {6, 2, 3, 4, 5}};
        piece.setDrawElementsIndirectCommands(commands, 2);
    }
    ASSERT_EQ(piece.drawElementsIndirectCommandCount(), 2);
    EXPECT_EQ(piece.drawElementsIndirectCommands()[1].firstIndex, 3u);

    const auto uniforms = piece.getDrawElementsIndirectCommandsUniformBufferObject();
    ASSERT_FALSE(uniforms.isNull());
    EXPECT_EQ(piece.getDrawElementsIndirectCommandsUniformBufferObject(), uniforms) << "made once";
    unsigned int words[10] = {};
    {
        const AutoBinder guard(uniforms);
        GLint name = 0;
        glGetIntegeri_v(GL_UNIFORM_BUFFER_BINDING, UniformBufferObject::kDrawCommandsBinding, &name);
        EXPECT_EQ(GLuint(name), uniforms->getBO());
        glGetBufferSubData(GL_UNIFORM_BUFFER, 0, sizeof words, words);
    }
    const unsigned int expected[] = {3, 1, 0, 0, 7, 6, 2, 3, 4, 5};
    EXPECT_TRUE(std::equal(std::begin(words), std::end(words), std::begin(expected)));

    piece.setDrawElementsIndirectCommands(nullptr, 0);
    EXPECT_TRUE(piece.getDrawElementsIndirectCommandsUniformBufferObject().isNull());
}

TEST_F(DrawBuffersTest, SetupAddsDefinesAndTakesNull)
{
    GLSLMacroProcessor processor;
    const QString before = processor.process(QStringLiteral("#version 150\n"), QString()).text;
    DrawBuffers::setup(&processor);
    DrawBuffers::setup(nullptr);
    const QString after = processor.process(QStringLiteral("#version 150\n"), QString()).text;
    EXPECT_GT(after.count(QStringLiteral("#define")), before.count(QStringLiteral("#define")));
}

TEST_F(DrawBuffersTest, SteadyDrawMakesNothing)
{
    DrawBuffers piece;
    const auto vao = triangleArray();
    piece.setVAO(vao);
    piece.setIndexedDraw(indexBuffer({0, 1, 2}), 3, GL_UNSIGNED_INT);
    vao->enableShaderProgramArrays(program.get());
    const AutoBinder framebuffer(target->framebuffer());
    const AutoBinder boundProgram(program.get());
    const auto frame = [&] {
        const AutoBinder bound(&piece);
        piece.draw();
    };
    frame();
    GlCalls calls;
    frame();
    EXPECT_EQ(calls.created(), 0);
    EXPECT_EQ(calls.transfers(), 0);
    EXPECT_EQ(calls.count("glVertexAttribPointer"), 0);
    EXPECT_EQ(calls.draws(), 1);
}

TEST_F(DrawBuffersTest, QuadsFillTheScreenWithTextureCoordinatesFromTheLowerLeft)
{
    const auto fragment =
        makeProgram(QStringLiteral("#version 150\nin vec2 vo_TexCoord;\nout vec4 out_Color;\n"
                                   "void main() { out_Color = vec4(vo_TexCoord, gl_FragCoord.z, 1.0); }\n"));
    const auto device = OpenGLDeviceContext::current();
    for (const auto &quad : {device->screenQuad(), device->gradientQuad()}) {
        Target screen(GL_RGBA32F, 4, 2);
        const AutoBinder framebuffer(screen.framebuffer());
        const AutoBinder boundProgram(fragment.get());
        {
            const AutoBinder vertices(quad->VAO());
            EXPECT_TRUE(quad->VAO()->enableShaderProgramArrays(fragment.get()));
        }
        glViewport(0, 0, 4, 2);
        const AutoBinder bound(quad);
        EXPECT_TRUE(quad->draw());
        const auto image = screen.read();
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 4; ++x)
                EXPECT_TRUE(isPixel(image, x, y, {(x + 0.5) / 4, (y + 0.5) / 2, 0.5, 1}, 1e-6));
    }
}

} // namespace Brevane::Kvo
