#include "support/allocations.h"
#include "support/draw.h"
#include "support/gltest.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/bufferobject.h>
#include <gl/drawbuffers.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/vertexarrayobject.h>
#include <renderpasses/primitivebuilderrenderpass.h>

#include <QPointer>
#include <QVector3D>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

// Position, texture coordinate and normal of a vertex, all exact in float.
using Vertex = std::array<float, 8>;

// Written out by hand: a side per block, -z, +z, -x, +x, -y, +y.
constexpr Vertex kCube[36] = {
    {-0.5f, -0.5f, -0.5f, 1, 1, 0, 0, -1}, {-0.5f, 0.5f, -0.5f, 1, 0, 0, 0, -1}, {0.5f, -0.5f, -0.5f, 0, 1, 0, 0, -1},
    {-0.5f, 0.5f, -0.5f, 1, 0, 0, 0, -1},  {0.5f, -0.5f, -0.5f, 0, 1, 0, 0, -1}, {0.5f, 0.5f, -0.5f, 0, 0, 0, 0, -1},

    {-0.5f, -0.5f, 0.5f, 2, 2, 0, 0, 1},   {-0.5f, 0.5f, 0.5f, 2, 1, 0, 0, 1},   {0.5f, -0.5f, 0.5f, 1, 2, 0, 0, 1},
    {-0.5f, 0.5f, 0.5f, 2, 1, 0, 0, 1},    {0.5f, -0.5f, 0.5f, 1, 2, 0, 0, 1},   {0.5f, 0.5f, 0.5f, 1, 1, 0, 0, 1},

    {-0.5f, -0.5f, -0.5f, 3, 3, -1, 0, 0}, {-0.5f, 0.5f, -0.5f, 3, 2, -1, 0, 0}, {-0.5f, -0.5f, 0.5f, 2, 3, -1, 0, 0},
    {-0.5f, 0.5f, -0.5f, 3, 2, -1, 0, 0},  {-0.5f, -0.5f, 0.5f, 2, 3, -1, 0, 0}, {-0.5f, 0.5f, 0.5f, 2, 2, -1, 0, 0},

    {0.5f, -0.5f, -0.5f, 4, 4, 1, 0, 0},   {0.5f, 0.5f, -0.5f, 4, 3, 1, 0, 0},   {0.5f, -0.5f, 0.5f, 3, 4, 1, 0, 0},
    {0.5f, 0.5f, -0.5f, 4, 3, 1, 0, 0},    {0.5f, -0.5f, 0.5f, 3, 4, 1, 0, 0},   {0.5f, 0.5f, 0.5f, 3, 3, 1, 0, 0},

    {-0.5f, -0.5f, -0.5f, 5, 5, 0, -1, 0}, {0.5f, -0.5f, -0.5f, 5, 4, 0, -1, 0}, {-0.5f, -0.5f, 0.5f, 4, 5, 0, -1, 0},
    {0.5f, -0.5f, -0.5f, 5, 4, 0, -1, 0},  {-0.5f, -0.5f, 0.5f, 4, 5, 0, -1, 0}, {0.5f, -0.5f, 0.5f, 4, 4, 0, -1, 0},

    {-0.5f, 0.5f, -0.5f, 6, 6, 0, 1, 0},   {0.5f, 0.5f, -0.5f, 6, 5, 0, 1, 0},   {-0.5f, 0.5f, 0.5f, 5, 6, 0, 1, 0},
    {0.5f, 0.5f, -0.5f, 6, 5, 0, 1, 0},    {-0.5f, 0.5f, 0.5f, 5, 6, 0, 1, 0},   {0.5f, 0.5f, 0.5f, 5, 5, 0, 1, 0},
};

constexpr Vertex kQuad[4] = {
    {-1, -1, 0, 0, 0, 0, 0, -1},
    {-1, 1, 0, 0, 1, 0, 0, -1},
    {1, -1, 0, 1, 0, 0, 0, -1},
    {1, 1, 0, 1, 1, 0, 0, -1},
};

template <typename T>
QVector<T> contentOf(const QSharedPointer<BufferObject> &buffer)
{
    const AutoBinder bound(buffer);
    const auto *data = static_cast<const T *>(buffer->map(GL_READ_ONLY));
    EXPECT_NE(data, nullptr);
    const QVector<T> content(data, data + buffer->size() / qint64(sizeof(T)));
    buffer->unmap();
    return content;
}

QVector<float> attributeOf(DrawBuffers *buffers, const char *name)
{
    return contentOf<float>(buffers->VAO()->bo(QString::fromLatin1(name)));
}

// One primitive after another, as the buffers shall hold them.
struct Expected
{
    QVector<float> vertices;
    QVector<float> texCoords;
    QVector<float> normals;
    QVector<unsigned int> indices;

    void cube(float size, const QVector3D &position)
    {
        const auto first = unsigned(vertices.size() / 3);
        for (unsigned int i = 0; i < 36; ++i) {
            add(kCube[i], size, position);
            indices.append(first + i);
        }
    }
    void quad(float size, const QVector3D &position)
    {
        const auto first = unsigned(vertices.size() / 3);
        for (const Vertex &vertex : kQuad)
            add(vertex, size, position);
        for (const unsigned int i : {0u, 1u, 2u, 1u, 2u, 3u})
            indices.append(first + i);
    }
    void add(const Vertex &v, float size, const QVector3D &position)
    {
        for (int axis = 0; axis < 3; ++axis)
            vertices.append(size * v[size_t(axis)] + position[axis]);
        texCoords << v[3] << v[4];
        normals << v[5] << v[6] << v[7];
    }
};

class PrimitiveBuilder : public GLTest
{
protected:
    void TearDown() override
    {
        pass.reset();
        GLTest::TearDown();
    }
    DrawBuffers *built()
    {
        runFrame(*pass);
        const QVariant value = pass->output(0);
        EXPECT_EQ(value.metaType(), QMetaType(QMetaType::QObjectStar));
        return qobject_cast<DrawBuffers *>(qvariant_cast<QObject *>(value));
    }
    void expectBuilt(const Expected &expected)
    {
        DrawBuffers *buffers = built();
        ASSERT_NE(buffers, nullptr);
        EXPECT_EQ(attributeOf(buffers, "va_Vertex"), expected.vertices);
        EXPECT_EQ(attributeOf(buffers, "va_TexCoord"), expected.texCoords);
        EXPECT_EQ(attributeOf(buffers, "va_Normal"), expected.normals);
        EXPECT_EQ(contentOf<unsigned int>(buffers->indexBO()), expected.indices);
        EXPECT_EQ(buffers->primitiveType(), unsigned(GL_TRIANGLES));
    }
    // Least and largest coordinate on an axis.
    std::pair<float, float> extentOn(int axis)
    {
        const QVector<float> vertices = attributeOf(built(), "va_Vertex");
        std::pair<float, float> extent(vertices[axis], vertices[axis]);
        for (qsizetype i = axis; i < vertices.size(); i += 3)
            extent = {std::min(extent.first, vertices[i]), std::max(extent.second, vertices[i])};
        return extent;
    }

    std::unique_ptr<PrimitiveBuilderRenderPass> pass = std::make_unique<PrimitiveBuilderRenderPass>();
};

// Texture coordinates as a colour, from clip space positions.
std::unique_ptr<ShaderProgram> colouringProgram()
{
    return makeProgram(QStringLiteral("#version 150\n"
                                      "in vec3 va_Vertex;\n"
                                      "in vec3 va_Normal;\n"
                                      "in vec2 va_TexCoord;\n"
                                      "out vec4 color;\n"
                                      "void main()\n"
                                      "{\n"
                                      "    color = vec4(va_TexCoord / 6.0, va_Normal.xy * 0.4 + 0.5);\n"
                                      "    gl_Position = vec4(va_Vertex, 1.0);\n"
                                      "}\n"),
                       QStringLiteral("#version 150\n"
                                      "in vec4 color;\n"
                                      "out vec4 out_Color;\n"
                                      "void main() { out_Color = color; }\n"));
}

Image<float> drawn(DrawBuffers *buffers)
{
    const auto program = colouringProgram();
    const Target target(GL_RGBA32F, 64, 64, true);
    const AutoBinder framebuffer(target.framebuffer());
    glViewport(0, 0, 64, 64);
    glEnable(GL_DEPTH_TEST);
    const AutoBinder bound(program.get());
    {
        const AutoBinder vertices(buffers->VAO());
        buffers->VAO()->enableShaderProgramArrays(program.get());
    }
    const AutoBinder geometry(buffers);
    EXPECT_TRUE(buffers->draw());
    glDisable(GL_DEPTH_TEST);
    return target.read();
}

// The same triangles with every vertex looked up through the absolute indices, without an index buffer.
Image<float> drawnFlat(const Expected &expected)
{
    const auto context = OpenGLDeviceContext::current();
    DrawBuffers flat;
    flat.setVAO(context->createVertexArrayObject());
    const auto attribute = [&](const char *name, const QVector<float> &values, int components) {
        QVector<float> data;
        for (const unsigned int index : expected.indices)
            data += values.mid(qsizetype(index) * components, components);
        const auto buffer = context->createBufferObject();
        flat.VAO()->upload(QString::fromLatin1(name), buffer, components, GL_FLOAT);
        const AutoBinder bound(buffer);
        buffer->upload(data.constData(), int(data.size()), GL_STATIC_DRAW);
    };
    attribute("va_Vertex", expected.vertices, 3);
    attribute("va_TexCoord", expected.texCoords, 2);
    attribute("va_Normal", expected.normals, 3);
    flat.setPrimitiveType(GL_TRIANGLES);
    flat.setVertexCount(unsigned(expected.indices.size()));
    return drawn(&flat);
}

} // namespace

TEST_F(PrimitiveBuilder, HasNoInputAndOneOutput)
{
    expectSlots(PrimitiveBuilderRenderPass(), {}, {"Kvo_KvoDrawBuffers*_Geometry"});
}

TEST_F(PrimitiveBuilder, ConstructingCopyingAndDestroyingMakesNoGLCall)
{
    expectNoGLCallBeforeStart<PrimitiveBuilderRenderPass>();
}

TEST_F(PrimitiveBuilder, WithNothingAddedTheOutputIsANullPointerAndNothingIsBuilt)
{
    const GlCalls calls;
    EXPECT_EQ(built(), nullptr);
    EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
}

TEST_F(PrimitiveBuilder, WithNothingAddedAChangeOfTheFlagBuildsNothingEither)
{
    pass->setUseIndirectDrawCommands(false);
    EXPECT_EQ(built(), nullptr);
}

TEST_F(PrimitiveBuilder, ACubeIsTheTableOfItsSixSides)
{
    Expected expected;
    expected.cube(1, {});
    pass->addCube(1, {});
    expectBuilt(expected);
}

TEST_F(PrimitiveBuilder, AQuadIsTheTableOfItsCorners)
{
    Expected expected;
    expected.quad(1, {});
    pass->addQuad(1, {});
    expectBuilt(expected);
}

TEST_F(PrimitiveBuilder, ACubesSizeIsItsEdge)
{
    pass->addCube(2, {1, 2, 3});
    EXPECT_EQ(extentOn(0), std::pair(0.0f, 2.0f));
    EXPECT_EQ(extentOn(1), std::pair(1.0f, 3.0f));
    EXPECT_EQ(extentOn(2), std::pair(2.0f, 4.0f));
}

TEST_F(PrimitiveBuilder, AQuadsSizeIsHalfItsEdge)
{
    pass->addQuad(2, {1, 2, 3});
    EXPECT_EQ(extentOn(0), std::pair(-1.0f, 3.0f));
    EXPECT_EQ(extentOn(1), std::pair(0.0f, 4.0f));
    EXPECT_EQ(extentOn(2), std::pair(3.0f, 3.0f));
}

TEST_F(PrimitiveBuilder, PrimitivesFollowOneAnotherWithAbsoluteIndices)
{
    Expected expected;
    expected.quad(0.5f, {1, 0, 0});
    expected.cube(2, {0, 4, 0});
    expected.quad(3, {0, 0, -2});
    expected.cube(0.25f, {-1, -2, -3});
    pass->addQuad(0.5f, {1, 0, 0});
    pass->addCube(2, {0, 4, 0});
    pass->addQuad(3, {0, 0, -2});
    pass->addCube(0.25f, {-1, -2, -3});
    expectBuilt(expected);
}

TEST_F(PrimitiveBuilder, EveryPrimitiveHasACommandThatCarriesItsFirstVertexOnceMore)
{
    pass->addQuad(1, {});
    pass->addCube(1, {});
    pass->addQuad(1, {});
    const DrawBuffers *buffers = built();
    ASSERT_EQ(buffers->drawElementsIndirectCommandCount(), 3);
    constexpr unsigned int kExpected[3][5] = {{6, 1, 0, 0, 0}, {36, 1, 6, 4, 0}, {6, 1, 42, 40, 0}};
    for (int i = 0; i < 3; ++i) {
        const DrawElementsIndirectCommand &command = buffers->drawElementsIndirectCommands()[i];
        EXPECT_EQ(command.count, kExpected[i][0]) << i;
        EXPECT_EQ(command.instanceCount, kExpected[i][1]) << i;
        EXPECT_EQ(command.firstIndex, kExpected[i][2]) << i;
        EXPECT_EQ(command.baseVertex, kExpected[i][3]) << i;
        EXPECT_EQ(command.baseInstance, kExpected[i][4]) << i;
    }
}

TEST_F(PrimitiveBuilder, WithoutIndirectDrawingThereAreNoCommands)
{
    pass->setUseIndirectDrawCommands(false);
    pass->addQuad(1, {});
    EXPECT_EQ(built()->drawElementsIndirectCommandCount(), 0);
}

TEST_F(PrimitiveBuilder, WhatIsDrawnFollowsTheIndicesWithAndWithoutCommands)
{
    // Overlapping, in front of and behind one another, all inside the clip space.
    Expected expected;
    for (const auto &[size, position] :
         {std::pair(0.5f, QVector3D(-0.4f, -0.3f, 0.2f)), std::pair(0.25f, QVector3D(0.3f, 0.3f, -0.4f)),
          std::pair(0.4f, QVector3D(0.4f, -0.2f, 0.7f))}) {
        expected.cube(size, position);
        expected.quad(size, position + QVector3D(0.1f, 0.35f, 0.05f));
        pass->addCube(size, position);
        pass->addQuad(size, position + QVector3D(0.1f, 0.35f, 0.05f));
    }
    const Image<float> reference = drawnFlat(expected);
    const Image<float> withCommands = drawn(built());
    pass->setUseIndirectDrawCommands(false);
    const Image<float> withoutCommands = drawn(built());
    EXPECT_TRUE(sameImage(withCommands, reference, within(0)));
    EXPECT_TRUE(sameImage(withoutCommands, reference, within(0)));

    // The picture shows all of them: without the last one it is another.
    Expected fewer;
    fewer.vertices = expected.vertices;
    fewer.texCoords = expected.texCoords;
    fewer.normals = expected.normals;
    fewer.indices = expected.indices.mid(0, expected.indices.size() - 6);
    EXPECT_FALSE(isSameImage(drawnFlat(fewer), reference, within(0)));
}

TEST_F(PrimitiveBuilder, AStartWithoutAChangeKeepsTheGeometryAndMakesNoGLCall)
{
    pass->addCube(1, {});
    const DrawBuffers *before = built();
    const GlCalls calls;
    EXPECT_EQ(built(), before);
    EXPECT_TRUE(calls.all().empty()) << qPrintable(calls.toString());
}

TEST_F(PrimitiveBuilder, ASteadyFrameTakesNothingFromTheHeap)
{
    pass->addCube(1, {});
    KVO_EXPECT_STEADY_FRAME_TAKES_NOTHING_FROM_THE_HEAP(*pass);
}

TEST_F(PrimitiveBuilder, AddingAPrimitiveRebuildsAtTheNextStartAndDeletesTheOldGeometry)
{
    pass->addCube(1, {});
    const QPointer<DrawBuffers> before(built());
    pass->addQuad(1, {0, 0, 1});
    EXPECT_FALSE(before.isNull()) << "not before the next start";
    Expected expected;
    expected.cube(1, {});
    expected.quad(1, {0, 0, 1});
    expectBuilt(expected);
    EXPECT_TRUE(before.isNull());
}

TEST_F(PrimitiveBuilder, TurningCommandsOffAndOnAgainRebuildsEachTime)
{
    pass->addCube(1, {});
    QPointer<DrawBuffers> before(built());
    for (const bool use : {false, true}) {
        pass->setUseIndirectDrawCommands(use);
        DrawBuffers *now = built();
        EXPECT_TRUE(before.isNull());
        EXPECT_EQ(now->drawElementsIndirectCommandCount(), use ? 1 : 0);
        before = now;
    }
    pass->setUseIndirectDrawCommands(true);
    built();
    EXPECT_TRUE(before.isNull()) << "also when the flag stays what it was";
}

TEST_F(PrimitiveBuilder, UploadsIndicesThenPositionsTextureCoordinatesAndNormals)
{
    pass->addCube(1, {});
    const GlCalls calls;
    runFrame(*pass);
    const std::vector<GlCall> uploads = calls.calls("glBufferData");
    ASSERT_EQ(uploads.size(), 4u);
    const double targets[] = {GL_ELEMENT_ARRAY_BUFFER, GL_ARRAY_BUFFER, GL_ARRAY_BUFFER, GL_ARRAY_BUFFER};
    const double bytes[] = {36 * 4, 36 * 3 * 4, 36 * 2 * 4, 36 * 3 * 4};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(uploads[i].args[0], targets[i]) << i;
        EXPECT_EQ(uploads[i].args[1], bytes[i]) << i;
        EXPECT_EQ(uploads[i].args[3], double(GL_STATIC_DRAW)) << i;
    }
    EXPECT_EQ(calls.created(GlKind::Buffer), 4);
}

TEST_F(PrimitiveBuilder, ChangesNoState)
{
    pass->addCube(1, {});
    const GLStateSnapshot before;
    runFrame(*pass);
    EXPECT_EQ(GLStateSnapshot().changedSince(before), QStringList());
}

TEST_F(PrimitiveBuilder, ACopyBuildsGeometryOfItsOwn)
{
    pass->addCube(1, {});
    PrimitiveBuilderRenderPass copy(*pass);
    copy.addQuad(1, {});
    runFrame(copy);
    auto *theirs = qobject_cast<DrawBuffers *>(qvariant_cast<QObject *>(copy.output(0)));
    ASSERT_NE(theirs, nullptr);
    EXPECT_EQ(contentOf<unsigned int>(theirs->indexBO()).size(), 42);
    EXPECT_NE(built(), theirs);
    EXPECT_EQ(contentOf<unsigned int>(built()->indexBO()).size(), 36);
}

TEST_F(PrimitiveBuilder, TheGeometryGoesWithThePass)
{
    pass->addCube(1, {});
    const QPointer<DrawBuffers> buffers(built());
    const int live = GlCalls::live(GlKind::Buffer);
    pass.reset();
    EXPECT_TRUE(buffers.isNull());
    EXPECT_EQ(GlCalls::live(GlKind::Buffer), live - 4);
}
