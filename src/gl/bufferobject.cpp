#include "gl/bufferobject.h"

#include "core/hostcode.h"
#include "gl/boundnow.h"
#include "gl/contextstate.h"
#include "gl/pooltaker.h"
#include "gl/storage.h"

#include <epoxy/gl.h>

#include <optional>

namespace Brevane::Kvo {

namespace {

GLenum bindingOf(GLenum target)
{
    switch (target) {
    case GL_ELEMENT_ARRAY_BUFFER: return GL_ELEMENT_ARRAY_BUFFER_BINDING;
    case GL_PIXEL_PACK_BUFFER: return GL_PIXEL_PACK_BUFFER_BINDING;
    case GL_PIXEL_UNPACK_BUFFER: return GL_PIXEL_UNPACK_BUFFER_BINDING;
    case GL_UNIFORM_BUFFER: return GL_UNIFORM_BUFFER_BINDING;
    case GL_DRAW_INDIRECT_BUFFER: return GL_DRAW_INDIRECT_BUFFER_BINDING;
    case GL_ATOMIC_COUNTER_BUFFER: return GL_ATOMIC_COUNTER_BUFFER_BINDING;
    case GL_SHADER_STORAGE_BUFFER: return GL_SHADER_STORAGE_BUFFER_BINDING;
    case GL_TRANSFORM_FEEDBACK_BUFFER: return GL_TRANSFORM_FEEDBACK_BUFFER_BINDING;
    case GL_ARRAY_BUFFER: return GL_ARRAY_BUFFER_BINDING;
    default:
        // GL_TEXTURE_BUFFER and the copy targets: the name of the target is its own query.
        return target;
    }
}

std::optional<BindingPoint> pointOf(GLenum target)
{
    switch (target) {
    case GL_ARRAY_BUFFER: return BindingPoint::ArrayBuffer;
    case GL_UNIFORM_BUFFER: return BindingPoint::UniformBuffer;
    case GL_ATOMIC_COUNTER_BUFFER: return BindingPoint::AtomicCounterBuffer;
    case GL_DRAW_INDIRECT_BUFFER: return BindingPoint::IndirectBuffer;
    case GL_TEXTURE_BUFFER: return BindingPoint::TextureBuffer;
    case GL_PIXEL_PACK_BUFFER: return BindingPoint::PackBuffer;
    case GL_PIXEL_UNPACK_BUFFER: return BindingPoint::UnpackBuffer;
    default: return {};
    }
}

// What is really bound: with it calls to the target go where they are meant to. The one for elements is the vertex
// array's.
unsigned int settled(ContextState &state, GLenum target)
{
    const std::optional<BindingPoint> point = pointOf(target);
    if (point)
        state.bindings.settle(*point);
    else if (target == GL_ELEMENT_ARRAY_BUFFER)
        state.bindings.settle(BindingPoint::VertexArray);
    return point ? state.bindings.bound(*point) : boundNow(bindingOf(target));
}

unsigned int take(ContextState &state, GLenum target, unsigned int name)
{
    if (const std::optional<BindingPoint> point = pointOf(target))
        return state.bindings.take(*point, name);
    const unsigned int before = settled(state, target);
    glBindBuffer(target, name);
    return before;
}

// Binding to an index binds to the target as well.
unsigned int takeByIndex(ContextState &state, GLenum target, unsigned int name)
{
    const std::optional<BindingPoint> point = pointOf(target);
    return point ? state.bindings.takeUnseen(*point, name) : boundNow(bindingOf(target));
}

void giveBack(ContextState &state, GLenum target, unsigned int before)
{
    if (const std::optional<BindingPoint> point = pointOf(target)) {
        state.bindings.giveBack(*point, before);
    } else {
        settled(state, target);
        glBindBuffer(target, before);
    }
}

struct RangeQueries
{
    GLenum start;
    GLenum size;
};

RangeQueries rangeOf(GLenum target)
{
    switch (target) {
    case GL_ATOMIC_COUNTER_BUFFER: return {GL_ATOMIC_COUNTER_BUFFER_START, GL_ATOMIC_COUNTER_BUFFER_SIZE};
    case GL_SHADER_STORAGE_BUFFER: return {GL_SHADER_STORAGE_BUFFER_START, GL_SHADER_STORAGE_BUFFER_SIZE};
    case GL_TRANSFORM_FEEDBACK_BUFFER: return {GL_TRANSFORM_FEEDBACK_BUFFER_START, GL_TRANSFORM_FEEDBACK_BUFFER_SIZE};
    default: return {GL_UNIFORM_BUFFER_START, GL_UNIFORM_BUFFER_SIZE};
    }
}

// What an indexed binding point holds. A size of 0 stands for a buffer bound as a whole.
void readIndexed(GLenum target, GLuint index, GLuint *name, qint64 *offset, qint64 *size)
{
    GLint bound = 0;
    glGetIntegeri_v(bindingOf(target), index, &bound);
    *name = GLuint(bound);
    if (!bound)
        return;
    GLint64 start = 0, length = 0;
    glGetInteger64i_v(rangeOf(target).start, index, &start);
    glGetInteger64i_v(rangeOf(target).size, index, &length);
    *offset = start;
    *size = length;
}

} // namespace

BufferObject::BufferObject() : _name(std::make_unique<ObjectName>()), _target(GL_ARRAY_BUFFER) {}

BufferObject::~BufferObject()
{
    while (!_previous.isEmpty())
        BufferObject::unbind();
}

bool BufferObject::bind()
{
    ContextState *state = ContextState::current();
    if (!state || !(_name->wasCreated() ? _name->isUsableIn(*state) : _name->create(NameKind::Buffer)))
        return false;
    Binding before;
    before.target = _target;
    before.isIndexed = _indexed;
    before.index = _index;
    before.context = state->id;
    if (_indexed) {
        before.name = takeByIndex(*state, _target, _name->id());
        readIndexed(_target, _index, &before.indexedName, &before.offset, &before.size);
        if (_rangeSize > 0)
            glBindBufferRange(_target, _index, _name->id(), GLintptr(_rangeOffset), GLsizeiptr(_rangeSize));
        else
            glBindBufferBase(_target, _index, _name->id());
    } else {
        before.name = take(*state, _target, _name->id());
    }
    _previous.append(before);
    return true;
}

bool BufferObject::unbind()
{
    if (_previous.isEmpty())
        return false;
    // The target may be another one since then; and from the destructor, so may the context.
    const Binding before = _previous.takeLast();
    ContextState *state = ContextState::current();
    if (!state || state->id != before.context)
        return false;
    if (before.isIndexed && before.indexedName && before.size > 0)
        glBindBufferRange(before.target, before.index, before.indexedName, GLintptr(before.offset),
                          GLsizeiptr(before.size));
    else if (before.isIndexed)
        glBindBufferBase(before.target, before.index, before.indexedName);
    if (const std::optional<BindingPoint> point = pointOf(before.target); point && before.isIndexed)
        state->bindings.saw(*point, before.indexedName);
    giveBack(*state, before.target, before.name);
    return true;
}

bool BufferObject::isUsable() const
{
    const ContextState *state = ContextState::current();
    return state && !_fellShort && (!_name->wasCreated() || _name->isUsableIn(*state));
}

bool BufferObject::_isBound() const
{
    ContextState *state = ContextState::current();
    return state && getBO() && settled(*state, _target) == getBO();
}

void BufferObject::setTarget(unsigned int target)
{
    _target = target;
}

unsigned int BufferObject::target() const
{
    return _target;
}

unsigned int BufferObject::getBO() const
{
    return _name->id();
}

bool BufferObject::upload(const float *data, int count, unsigned int usage)
{
    return uploadBytes(data, qint64(count) * qint64(sizeof(float)), usage);
}

bool BufferObject::uploadGLuintData(const unsigned int *data, int count, unsigned int usage)
{
    return uploadBytes(data, qint64(count) * qint64(sizeof(unsigned int)), usage);
}

bool BufferObject::uploadBytes(const void *data, qint64 bytes, unsigned int usage)
{
    if (bytes < 0)
        return false;
    // Bound is not enough: another buffer may have been bound to the target since.
    const bool mustBind = _previous.isEmpty() || !_isBound();
    if (mustBind && !bind()) {
        _fellShort = ContextState::current() && !_name->wasCreated();
        return false;
    }
    glBufferData(_target, GLsizeiptr(bytes), data, usage);
    GLint64 made = 0;
    glGetBufferParameteri64v(_target, GL_BUFFER_SIZE, &made);
    _size = qint64(made);
    _fellShort = _size != bytes;
    if (_fellShort) {
        takeErrors();
        const HostCode hostCode;
        const QString taker = PoolTaker::current();
        qWarning("A buffer of %lld bytes%s is more than the driver has room for; what is drawn from it is left out",
                 qlonglong(bytes), taker.isEmpty() ? "" : qPrintable(QStringLiteral(" for '%1'").arg(taker)));
    }
    if (mustBind)
        unbind();
    return !_fellShort;
}

qint64 BufferObject::size() const
{
    return _size;
}

void *BufferObject::map(unsigned int access)
{
    return _previous.isEmpty() || !_isBound() ? nullptr : glMapBuffer(_target, access);
}

void BufferObject::unmap()
{
    if (!_previous.isEmpty() && _isBound())
        glUnmapBuffer(_target);
}

void BufferObject::setIndexedTarget(unsigned int target, unsigned int index, qint64 offset, qint64 size)
{
    _target = target;
    _indexed = true;
    _index = index;
    _rangeOffset = offset;
    _rangeSize = size;
}

UniformBufferObject::UniformBufferObject()
{
    setIndexedTarget(GL_UNIFORM_BUFFER, kDrawCommandsBinding, 0, 0);
}

UniformBufferObject::~UniformBufferObject() = default;

} // namespace Brevane::Kvo
