#pragma once

#include "gl/bindable.h"
#include "gl/export.h"

#include <QObject>
#include <QVector>

#include <memory>

namespace Brevane::Kvo {

class ObjectName;

/// A GL buffer. OpenGLDeviceContext::createBufferObject hands it out. unbind restores what the target
/// held before; what an indexed binding point held, with its range.
class KVO_GL_EXPORT BufferObject : public Bindable
{
public:
    BufferObject();
    ~BufferObject() override;

    bool bind() override;
    bool unbind() override;

    /// False where the GL buffer belongs to another share group than the current one, or went with its own;
    /// true before the first bind. False without a context.
    bool isUsable() const;

    /// GL_ARRAY_BUFFER (the default), GL_ELEMENT_ARRAY_BUFFER, GL_PIXEL_UNPACK_BUFFER …
    void setTarget(unsigned int target);
    /// GL_ARRAY_BUFFER and the like.
    unsigned int target() const;
    /// The GL name; 0 before the first bind.
    unsigned int getBO() const;

    /// Replaces the content with \a count floats. What else is bound stays bound.
    bool upload(const float *data, int count, unsigned int usage);
    /// Replaces the content with \a count unsigned integers.
    bool uploadGLuintData(const unsigned int *data, int count, unsigned int usage);
    /// Replaces the content with \a bytes bytes; \a data may be null.
    bool uploadBytes(const void *data, qint64 bytes, unsigned int usage);
    /// Size of the content in bytes, as uploaded through this object.
    qint64 size() const;

    /// Maps the whole buffer; \a access is GL_READ_ONLY, GL_WRITE_ONLY or GL_READ_WRITE. Null on
    /// failure. The buffer must be bound until unmap.
    void *map(unsigned int access);
    /// Ends map; the memory may not be touched any more.
    void unmap();

    /// Makes the indexed binding point \a target, \a index the place where bind and unbind work from
    /// now on, with a range of the buffer; a size of 0 means the whole buffer.
    void setIndexedTarget(unsigned int target, unsigned int index, qint64 offset, qint64 size);

private:
    Q_DISABLE_COPY(BufferObject)

    std::unique_ptr<ObjectName> _name;
    unsigned int _target;
    bool _indexed = false;
    unsigned int _index = 0;
    qint64 _rangeOffset = 0;
    qint64 _rangeSize = 0;
    qint64 _size = 0;
    bool _fellShort = false; // of what it was to hold
    struct Binding
    {
        unsigned int target = 0; ///< Where the object was bound, with what comes back there.
        bool isIndexed = false;
        unsigned int index = 0;
        quint64 context = 0;
        unsigned int name = 0;
        unsigned int indexedName = 0;
        qint64 offset = 0;
        qint64 size = 0; ///< 0: the whole buffer, whatever its size.
    };
    bool _isBound() const;
    QVector<Binding> _previous;
};

/// A buffer that a program reads as a uniform block: bind puts it at its binding point, where every
/// program finds the block "KvoDrawCommands".
class KVO_GL_EXPORT UniformBufferObject : public BufferObject
{
public:
    /// The binding point that ShaderProgram gives the block "KvoDrawCommands".
    static constexpr unsigned int kDrawCommandsBinding = 0;

    UniformBufferObject();
    ~UniformBufferObject() override;
};

} // namespace Brevane::Kvo
