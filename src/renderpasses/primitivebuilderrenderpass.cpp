#include "renderpasses/primitivebuilderrenderpass.h"

#include "gl/bindings.h"
#include "gl/bufferobject.h"
#include "gl/drawbuffers.h"
#include "gl/fallenshort.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/vertexarrayobject.h"
#include "passkit/slots.h"

#include <QVector2D>

#include <epoxy/gl.h>

#include <array>
#include <vector>

namespace Brevane::Kvo {

namespace {

enum Type { kCube, kQuad };

struct Corner
{
    QVector3D position;
    QVector2D texCoord;
    QVector3D normal;
};

struct Shape
{
    std::vector<Corner> corners;
    std::vector<unsigned int> indices;
};

// Two triangles per side. They run over the two free axes in the same way on both sides of an axis, so
// one of the two is clockwise from outside: draw cubes without culling.
Shape cube()
{
    constexpr int kX = 0, kY = 1, kZ = 2;
    constexpr struct
    {
        int axis;
        float side;
        int first, second; // the free axes
    } kFaces[] = {{kZ, -1, kX, kY}, {kZ, 1, kX, kY},  {kX, -1, kZ, kY},
                  {kX, 1, kZ, kY},  {kY, -1, kZ, kX}, {kY, 1, kZ, kX}};
    constexpr std::array<std::array<int, 2>, 6> kCorners{{{0, 0}, {0, 1}, {1, 0}, {0, 1}, {1, 0}, {1, 1}}};
    Shape shape;
    float number = 0;
    for (const auto &face : kFaces) {
        ++number;
        for (const auto &[first, second] : kCorners) {
            Corner corner;
            corner.position[face.axis] = 0.5f * face.side;
            corner.position[face.first] = first ? 0.5f : -0.5f;
            corner.position[face.second] = second ? 0.5f : -0.5f;
            corner.normal[face.axis] = face.side;
            // In the unit square that ends at the number of the face, against the axes.
            corner.texCoord = {number - float(first), number - float(second)};
            shape.indices.push_back(unsigned(shape.corners.size()));
            shape.corners.push_back(corner);
        }
    }
    return shape;
}

Shape quad()
{
    Shape shape;
    for (const float x : {-1.0f, 1.0f})
        for (const float y : {-1.0f, 1.0f})
            shape.corners.push_back({{x, y, 0}, {(x + 1) / 2, (y + 1) / 2}, {0, 0, -1}});
    shape.indices = {0, 1, 2, 1, 2, 3};
    return shape;
}

const Shape &shapeOf(int type)
{
    static const Shape shapes[] = {cube(), quad()};
    return shapes[type];
}

const QString &geometryName()
{
    static const QString name = QStringLiteral("Kvo_KvoDrawBuffers*_Geometry");
    return name;
}

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoDrawBuffers*_Geometry",
     .meaning = "all primitives, in the order of adding; null with none added",
     .kind = SlotKind::Geometry},
};

constexpr PassInfo kInfo = {
    "PrimitiveBuilderRenderPass", "builds one piece of geometry of cubes and quads", Reach::texels(0), {}, kOutputInfo};

} // namespace

PrimitiveBuilderRenderPass::PrimitiveBuilderRenderPass()
{
    addOutput(geometryName());
    describe(kInfo);
}

PrimitiveBuilderRenderPass::PrimitiveBuilderRenderPass(const PrimitiveBuilderRenderPass &other) = default;
PrimitiveBuilderRenderPass &PrimitiveBuilderRenderPass::operator=(const PrimitiveBuilderRenderPass &other) = default;

PrimitiveBuilderRenderPass::~PrimitiveBuilderRenderPass() = default;

void PrimitiveBuilderRenderPass::start(RenderCallbacks *)
{
    const int geometry = findOutput(geometryName());
    // What cannot be built without a context is built when there is one; what another share group has is
    // built anew.
    const BindingScope scope;
    if (scope && (_dirty || (!_drawBuffers && _drawBuffers.any()))) {
        _dirty = false;
        _drawBuffers = build();
    }
    if (geometry >= 0)
        _outputs[geometry].value = QVariant::fromValue<QObject *>(_drawBuffers.get());
}

DrawBuffers *PrimitiveBuilderRenderPass::build() const
{
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    if (_primitives.isEmpty() || !context)
        return nullptr;

    size_t vertexCount = 0;
    size_t indexCount = 0;
    for (const Primitive &primitive : _primitives) {
        vertexCount += shapeOf(primitive.type).corners.size();
        indexCount += shapeOf(primitive.type).indices.size();
    }
    std::vector<float> vertices;
    std::vector<float> texCoords;
    std::vector<float> normals;
    std::vector<unsigned int> indices;
    std::vector<DrawElementsIndirectCommand> commands;
    vertices.reserve(3 * vertexCount);
    texCoords.reserve(2 * vertexCount);
    normals.reserve(3 * vertexCount);
    indices.reserve(indexCount);
    if (_useIndirectDrawCommands)
        commands.reserve(size_t(_primitives.size()));

    for (const Primitive &primitive : _primitives) {
        const Shape &shape = shapeOf(primitive.type);
        const auto firstVertex = unsigned(vertices.size() / 3);
        if (_useIndirectDrawCommands)
            commands.push_back({unsigned(shape.indices.size()), 1, unsigned(indices.size()), firstVertex, 0});
        for (const Corner &corner : shape.corners) {
            const QVector3D position = primitive.size * corner.position + primitive.position;
            vertices.insert(vertices.end(), {position.x(), position.y(), position.z()});
            texCoords.insert(texCoords.end(), {corner.texCoord.x(), corner.texCoord.y()});
            normals.insert(normals.end(), {corner.normal.x(), corner.normal.y(), corner.normal.z()});
        }
        // Absolute, although the command has the offset too: see the header.
        for (const unsigned int index : shape.indices)
            indices.push_back(firstVertex + index);
    }

    auto *buffers = new DrawBuffers(nullptr);
    buffers->setVAO(context->createVertexArrayObject());

    const QSharedPointer<BufferObject> indexBuffer = context->createBufferObject();
    indexBuffer->setTarget(GL_ELEMENT_ARRAY_BUFFER);
    buffers->setIndexedDraw(indexBuffer, int(indices.size()), GL_UNSIGNED_INT);

    const auto attribute = [&](const QString &name, int components) {
        const QSharedPointer<BufferObject> buffer = context->createBufferObject();
        buffer->setTarget(GL_ARRAY_BUFFER);
        buffers->VAO()->upload(name, buffer, components, GL_FLOAT);
        return buffer;
    };
    const QSharedPointer<BufferObject> vertexBuffer = attribute(QStringLiteral("va_Vertex"), 3);
    const QSharedPointer<BufferObject> texCoordBuffer = attribute(QStringLiteral("va_TexCoord"), 2);
    const QSharedPointer<BufferObject> normalBuffer = attribute(QStringLiteral("va_Normal"), 3);

    {
        AutoBinder bound(indexBuffer);
        indexBuffer->uploadGLuintData(indices.data(), int(indices.size()), GL_STATIC_DRAW);
    }
    const auto upload = [](const QSharedPointer<BufferObject> &buffer, const std::vector<float> &data) {
        AutoBinder bound(buffer);
        buffer->upload(data.data(), int(data.size()), GL_STATIC_DRAW);
    };
    upload(vertexBuffer, vertices);
    upload(texCoordBuffer, texCoords);
    upload(normalBuffer, normals);

    buffers->setPrimitiveType(GL_TRIANGLES);
    if (_useIndirectDrawCommands)
        buffers->setDrawElementsIndirectCommands(commands.data(), int(commands.size()));
    if (!buffers->isUsable())
        noteFallenShort(buffers);
    return buffers;
}

void PrimitiveBuilderRenderPass::addCube(float size, const QVector3D &position)
{
    _primitives.append({kCube, size, position});
    _dirty = true;
}

void PrimitiveBuilderRenderPass::addQuad(float size, const QVector3D &position)
{
    _primitives.append({kQuad, size, position});
    _dirty = true;
}

void PrimitiveBuilderRenderPass::setUseIndirectDrawCommands(bool use)
{
    _useIndirectDrawCommands = use;
    _dirty = true;
}

} // namespace Brevane::Kvo
