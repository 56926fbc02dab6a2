#pragma once

#include "gl/bindable.h"
#include "gl/export.h"

#include <QMetaType>
#include <QObject>
#include <QSharedPointer>

#include <memory>

namespace Brevane::Kvo {

class BufferObject;
class DrawBuffersPrivate;
class GLSLMacroProcessor;
class ShaderProgram;
class UniformBufferObject;
class VertexArrayObject;

/// The record of one indirect draw, as GL lays it out.
struct DrawElementsIndirectCommand
{
    unsigned int count = 0; ///< Of indices.
    unsigned int instanceCount = 0; ///< How often it is drawn.
    unsigned int firstIndex = 0; ///< In the index buffer.
    unsigned int baseVertex = 0; ///< Added to each index.
    unsigned int baseInstance = 0; ///< The number of the first instance.
};

/// One drawable piece of geometry: a vertex array, a primitive type and a count, with or without
/// indices.
///
/// draw always draws the whole piece, with its indices taken as absolute vertex numbers. Indirect
/// commands are data for whoever reads them (GPUModel, shaders); draw does not use them.
class KVO_GL_EXPORT DrawBuffers : public QObject, public Bindable
{
    Q_OBJECT

public:
    /// Nothing to draw yet.
    explicit DrawBuffers(QObject *parent = nullptr);
    ~DrawBuffers() override;

    /// Whether its buffers can be used in the current context, or have nothing in them yet.
    bool isUsable() const;

    /// Binds the vertex array.
    bool bind() override;
    bool unbind() override;

    /// Where its vertices come from.
    void setVAO(const QSharedPointer<VertexArrayObject> &vao);
    /// See setVAO.
    QSharedPointer<VertexArrayObject> VAO() const;
    /// GL_POINTS, GL_TRIANGLES …
    void setPrimitiveType(unsigned int type);
    /// See setPrimitiveType.
    unsigned int primitiveType() const;
    /// How many vertices draw takes where there are no indices.
    void setVertexCount(unsigned int count);
    /// Draws with indices from now on; \a type is GL_UNSIGNED_INT (or _SHORT, _BYTE).
    void setIndexedDraw(const QSharedPointer<BufferObject> &indices, int count, unsigned int type);
    /// The indices; null without.
    QSharedPointer<BufferObject> indexBO() const;
    /// The commands are copied.
    void setDrawElementsIndirectCommands(const DrawElementsIndirectCommand *commands, int count);
    /// How many commands there are.
    int drawElementsIndirectCommandCount() const;
    /// The commands; null where there are none.
    const DrawElementsIndirectCommand *drawElementsIndirectCommands() const;
    /// The commands as a uniform buffer, tightly packed and filled up with zeros to the largest uniform
    /// block, made on first use; null when there are none.
    QSharedPointer<UniformBufferObject> getDrawElementsIndirectCommandsUniformBufferObject();

    /// Draws with the program that is bound, whose arrays it enables; this object must be bound. False, with nothing drawn,
    /// when there is no vertex array that the current context can use, or no usable program.
    bool draw();
    /// The same with a named program, bound for the draw when it is not.
    bool draw(ShaderProgram *program);

    /// Adds to a processor the defines that shader code needs to read the commands: their size in
    /// 32-bit words, and the 16-byte vectors of a block that holds as many as the current context can
    /// read (as every context can, when none is current).
    static void setup(GLSLMacroProcessor *processor);
    /// How many commands of a piece of geometry a shader can read in the current context: what goes into
    /// its largest uniform block, 819 at least and 3276 on most drivers.
    static int maxShaderReadableCommands();

private:
    Q_DISABLE_COPY(DrawBuffers)

    std::unique_ptr<DrawBuffersPrivate> d;
};

} // namespace Brevane::Kvo

Q_DECLARE_METATYPE(Brevane::Kvo::DrawBuffers *)
