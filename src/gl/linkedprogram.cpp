#include "gl/linkedprogram.h"

#include "gl/bufferobject.h"

#include <epoxy/gl.h>

#include <array>
#include <cstring>

namespace Brevane::Kvo {

namespace {

bool isIntegerAttribute(GLenum type)
{
    switch (type) {
    case GL_INT:
    case GL_INT_VEC2:
    case GL_INT_VEC3:
    case GL_INT_VEC4:
    case GL_UNSIGNED_INT:
    case GL_UNSIGNED_INT_VEC2:
    case GL_UNSIGNED_INT_VEC3:
    case GL_UNSIGNED_INT_VEC4: return true;
    default: return false;
    }
}

int columnsOf(GLenum attributeType)
{
    switch (attributeType) {
    case GL_FLOAT_MAT2:
    case GL_FLOAT_MAT2x3:
    case GL_FLOAT_MAT2x4: return 2;
    case GL_FLOAT_MAT3:
    case GL_FLOAT_MAT3x2:
    case GL_FLOAT_MAT3x4: return 3;
    case GL_FLOAT_MAT4:
    case GL_FLOAT_MAT4x2:
    case GL_FLOAT_MAT4x3: return 4;
    default: return 1;
    }
}

bool isSameText(const QString &a, const QString &b)
{
    return a.size() == b.size()
           && std::memcmp(a.constData(), b.constData(), std::size_t(a.size()) * sizeof(QChar)) == 0;
}

} // namespace

void UniformTable::insert(const QString &name, const Uniform &uniform)
{
    _entries.push_back({name, uniform});
    _rebuild();
}

const UniformTable::Uniform *UniformTable::find(const QString &name) const
{
    if (_slots.empty() || name.isEmpty())
        return nullptr;
    for (std::size_t slot = _firstSlot(name); _slots[slot] >= 0; slot = (slot + 1) & (_slots.size() - 1)) {
        const Entry &entry = _entries[std::size_t(_slots[slot])];
        if (isSameText(entry.name, name))
            return &entry.uniform;
    }
    return nullptr;
}

std::size_t UniformTable::_firstSlot(const QString &name) const
{
    const QChar *text = name.constData();
    const auto size = std::size_t(name.size());
    const std::size_t sum =
        size + 7u * text[size - 1].unicode() + 31u * text[size / 2].unicode() + 101u * text[size / 3].unicode();
    return sum & (_slots.size() - 1);
}

void UniformTable::_rebuild()
{
    std::size_t size = 16;
    while (size < 2 * _entries.size())
        size *= 2;
    _slots.assign(size, -1);
    for (std::size_t i = 0; i < _entries.size(); ++i) {
        std::size_t slot = _firstSlot(_entries[i].name);
        while (_slots[slot] >= 0)
            slot = (slot + 1) & (size - 1);
        _slots[slot] = int(i);
    }
}

void LinkedProgram::readInterface()
{
    const GLuint program = name.id();
    std::array<char, 512> buffer{};
    GLint count = 0;
    glGetProgramiv(program, GL_ACTIVE_UNIFORMS, &count);
    for (GLint i = 0; i < count; ++i) {
        GLint size = 0;
        GLenum type = 0;
        buffer[0] = '\0';
        glGetActiveUniform(program, GLuint(i), GLsizei(buffer.size()), nullptr, &size, &type, buffer.data());
        if (!buffer[0])
            return; // the context is lost
        const GLint location = glGetUniformLocation(program, buffer.data());
        if (location < 0)
            continue; // a member of a uniform block
        QString uniformName = QString::fromLatin1(buffer.data());
        if (uniformName.endsWith(QLatin1String("[0]")))
            uniformName.chop(3);
        uniforms.insert(uniformName, {location, type, size});
    }
    glGetProgramiv(program, GL_ACTIVE_ATTRIBUTES, &count);
    for (GLint i = 0; i < count; ++i) {
        GLint size = 0;
        GLenum type = 0;
        buffer[0] = '\0';
        glGetActiveAttrib(program, GLuint(i), GLsizei(buffer.size()), nullptr, &size, &type, buffer.data());
        if (!buffer[0])
            return;
        attributes.insert(QString::fromLatin1(buffer.data()), {glGetAttribLocation(program, buffer.data()),
                                                               size * columnsOf(type), isIntegerAttribute(type)});
    }
    const GLuint block = glGetUniformBlockIndex(program, "KvoDrawCommands");
    if (block != GL_INVALID_INDEX)
        glUniformBlockBinding(program, block, UniformBufferObject::kDrawCommandsBinding);
}

} // namespace Brevane::Kvo
