#pragma once

#include "gl/bindable.h"
#include "gl/export.h"

#include <QSharedPointer>
#include <QString>

#include <memory>

namespace Brevane::Kvo {

class BufferObject;
class ShaderProgram;
class VertexArrayPrivate;

/// Buffers under attribute names, and the GL vertex array that feeds them to programs. GL contexts do
/// not share vertex arrays: this object makes one per context in which it is bound.
class KVO_GL_EXPORT VertexArrayObject : public Bindable
{
public:
    VertexArrayObject();
    ~VertexArrayObject() override;

    /// False, too, when a buffer belongs to another share group than the current one.
    bool bind() override;
    bool unbind() override;
    /// Whether its buffers can be used in the current context, or have nothing in them yet.
    bool isUsable() const;

    /// Registers a buffer under an attribute name: \a components values of \a type per vertex
    /// (GL_FLOAT, or GL_UNSIGNED_INT for an integer attribute), tightly packed, from \a offset bytes on.
    /// With a \a divisor the attribute advances per instance. Nothing is enabled by it: a name that no program
    /// was arranged for stays off until one is, and a name that was given a buffer before reads the new one from
    /// the next bind on, if it was on.
    bool upload(const QString &attribute, const QSharedPointer<BufferObject> &buffer, int components, unsigned int type,
                qint64 offset = 0, unsigned int divisor = 0);
    /// The buffer of an attribute or null.
    QSharedPointer<BufferObject> bo(const QString &attribute) const;
    /// The buffer that indexed draws read; DrawBuffers sets it.
    void setIndexBuffer(const QSharedPointer<BufferObject> &buffer);

    /// Enables and points the arrays of every attribute of the program that has a buffer of the same name.
    /// Once per pair of program and vertex array is enough: where programs disagree on the location of an
    /// attribute, the arrays are those of the program that is bound when this object is bound after it, or
    /// when DrawBuffers draws. Such programs cost a few GL calls each time they take turns.
    bool enableShaderProgramArrays(const ShaderProgram *program);

    /// The GL name in the current context; 0 before the first bind.
    unsigned int vertexArrayID() const;

private:
    Q_DISABLE_COPY(VertexArrayObject)

    std::unique_ptr<VertexArrayPrivate> d;
};

} // namespace Brevane::Kvo
