#include "gl/drawbuffers.h"

#include "core/liveobjects.h"
#include "gl/bufferobject.h"
#include "gl/contextstate.h"
#include "gl/fallenshort.h"
#include "gl/glslmacroprocessor.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/vertexarrayobject.h"

#include <QVector>

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

constexpr int kGuaranteedBlockSize = 16384; // bytes; every context has it
constexpr int kUsefulBlockSize = 262144; // bytes; some drivers allow blocks as large as memory

int maxUniformBlockSize()
{
    GLint size = 0;
    if (ContextState::current())
        glGetIntegerv(GL_MAX_UNIFORM_BLOCK_SIZE, &size);
    return std::clamp(size, kGuaranteedBlockSize, kUsefulBlockSize);
}

} // namespace

class DrawBuffersPrivate
{
public:
    QSharedPointer<VertexArrayObject> vao;
    QSharedPointer<BufferObject> indices;
    QSharedPointer<UniformBufferObject> commandBuffer;
    QVector<DrawElementsIndirectCommand> commands;
    GLenum primitiveType = GL_TRIANGLES;
    GLsizei vertexCount = 0;
    GLsizei indexCount = 0;
    GLenum indexType = GL_UNSIGNED_INT;
};

DrawBuffers::DrawBuffers(QObject *parent) : QObject(parent), d(std::make_unique<DrawBuffersPrivate>())
{
    static const int registered = qRegisterMetaType<DrawBuffers *>();
    Q_UNUSED(registered)
    enterLiveObject(static_cast<QObject *>(this), LiveKind::DrawBuffers);
}

DrawBuffers::~DrawBuffers()
{
    leaveLiveObject(static_cast<QObject *>(this));
    forgetFallenShort(this);
}

bool DrawBuffers::isUsable() const
{
    return d->vao && d->vao->isUsable() && (!d->indices || d->indices->isUsable());
}

bool DrawBuffers::bind()
{
    return d->vao && d->vao->bind();
}

bool DrawBuffers::unbind()
{
    return d->vao && d->vao->unbind();
}

void DrawBuffers::setVAO(const QSharedPointer<VertexArrayObject> &vao)
{
    d->vao = vao;
    if (vao && d->indices)
        vao->setIndexBuffer(d->indices);
}

QSharedPointer<VertexArrayObject> DrawBuffers::VAO() const
{
    return d->vao;
}

void DrawBuffers::setPrimitiveType(unsigned int type)
{
    d->primitiveType = type;
}

unsigned int DrawBuffers::primitiveType() const
{
    return d->primitiveType;
}

void DrawBuffers::setVertexCount(unsigned int count)
{
    d->vertexCount = GLsizei(count);
}

void DrawBuffers::setIndexedDraw(const QSharedPointer<BufferObject> &indices, int count, unsigned int type)
{
    d->indices = indices;
    d->indexCount = count;
    d->indexType = type;
    // The vertex array takes the buffer by name, which exists from its first bind on.
    AutoBinder makeName(indices && !indices->getBO() ? indices : nullptr);
    if (d->vao)
        d->vao->setIndexBuffer(indices);
}

QSharedPointer<BufferObject> DrawBuffers::indexBO() const
{
    return d->indices;
}

void DrawBuffers::setDrawElementsIndirectCommands(const DrawElementsIndirectCommand *commands, int count)
{
    d->commands = count > 0 ? QVector<DrawElementsIndirectCommand>(commands, commands + count)
                            : QVector<DrawElementsIndirectCommand>();
    d->commandBuffer.reset();
}

int DrawBuffers::drawElementsIndirectCommandCount() const
{
    return int(d->commands.size());
}

const DrawElementsIndirectCommand *DrawBuffers::drawElementsIndirectCommands() const
{
    return d->commands.constData();
}

QSharedPointer<UniformBufferObject> DrawBuffers::getDrawElementsIndirectCommandsUniformBufferObject()
{
    if (!d->commandBuffer && !d->commands.isEmpty()) {
        const qsizetype bytes = d->commands.size() * qsizetype(sizeof(DrawElementsIndirectCommand));
        QByteArray padded(reinterpret_cast<const char *>(d->commands.constData()), bytes);
        // The buffer behind a block must not be shorter than the block.
        padded.resize(std::max(bytes, qsizetype(maxUniformBlockSize())), '\0');
        d->commandBuffer = QSharedPointer<UniformBufferObject>::create();
        if (!d->commandBuffer->uploadBytes(padded.constData(), padded.size(), GL_STATIC_DRAW))
            d->commandBuffer.reset(); // asked again the next time
    }
    return d->commandBuffer;
}

bool DrawBuffers::draw()
{
    ContextState *const state = ContextState::current();
    if (!d->vao || !state)
        return false;
    Bindings &bindings = state->bindings;
    bindings.settle(BindingPoint::Program);
    bindings.settle(BindingPoint::VertexArray);
    if (bindings.bound(BindingPoint::Program) == 0)
        return false;
    // Callers bind either this object or its vertex array; a draw from the wrong arrays is never right.
    const unsigned int arrays = d->vao->vertexArrayID();
    const bool isBound = arrays != 0 && bindings.bound(BindingPoint::VertexArray) == arrays;
    AutoBinder self(isBound ? nullptr : this);
    if (!isBound && !self.isBound())
        return false;
    // A program that was linked after the last one that was drawn with may have its attributes elsewhere.
    if (const ShaderProgram *program = state->boundProgram)
        d->vao->enableShaderProgramArrays(program);
    if (d->indices)
        glDrawElements(d->primitiveType, d->indexCount, d->indexType, nullptr);
    else
        glDrawArrays(d->primitiveType, 0, d->vertexCount);
    return true;
}

bool DrawBuffers::draw(ShaderProgram *program)
{
    if (!program || !program->isLinked())
        return false;
    ContextState *const state = ContextState::current();
    const bool isBound = state && state->bindings.bound(BindingPoint::Program) == program->programID();
    AutoBinder bound(isBound ? nullptr : program);
    return draw();
}

void DrawBuffers::setup(GLSLMacroProcessor *processor)
{
    if (!processor)
        return;
    processor->addDefine(QStringLiteral("KVO_DRAW_COMMAND_WORDS"), QStringLiteral("5"));
    processor->addDefine(QStringLiteral("KVO_DRAW_COMMAND_VECTORS"), QString::number(maxUniformBlockSize() / 16));
}

int DrawBuffers::maxShaderReadableCommands()
{
    return maxUniformBlockSize() / int(sizeof(DrawElementsIndirectCommand));
}

} // namespace Brevane::Kvo
