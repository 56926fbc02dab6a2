#include "gl/vertexarrayobject.h"

#include "gl/attributelocations.h"
#include "gl/bufferobject.h"
#include "gl/contextstate.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/shaderprogram_p.h"

#include <QVarLengthArray>

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

// What every OpenGL 3.2 driver has.
constexpr int kAttributeLocations = 16;

QStringList &attributeNames()
{
    static QStringList names{QStringLiteral("va_Vertex"), QStringLiteral("va_Normal"), QStringLiteral("va_TexCoord"),
                             QString::fromUtf16(kDrawIndexAttribute)};
    return names;
}

struct Attribute
{
    QString name;
    QSharedPointer<BufferObject> buffer;
    int components;
    GLenum type;
    qint64 offset;
    GLuint divisor;
};

struct EnabledArray
{
    int location;
    qsizetype attribute;
    bool isInteger;
};

} // namespace

const QStringList &sharedAttributeNames()
{
    return attributeNames();
}

void shareAttributeName(const QString &name)
{
    QStringList &names = attributeNames();
    if (names.size() < kAttributeLocations && !names.contains(name))
        names.append(name);
}

class VertexArrayPrivate
{
public:
    void apply(const EnabledArray &array) const
    {
        const Attribute &a = attributes[std::size_t(array.attribute)];
        GLint before = 0;
        glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &before);
        glBindBuffer(GL_ARRAY_BUFFER, a.buffer->getBO());
        const auto location = GLuint(array.location);
        const auto *offset = reinterpret_cast<const void *>(quintptr(a.offset));
        if (array.isInteger)
            glVertexAttribIPointer(location, a.components, a.type, 0, offset);
        else
            glVertexAttribPointer(location, a.components, a.type, GL_FALSE, 0, offset);
        if (a.divisor)
            glVertexAttribDivisor(location, a.divisor);
        glEnableVertexAttribArray(location);
        glBindBuffer(GL_ARRAY_BUFFER, GLuint(before));
    }

    PerContextNames names{NameKind::VertexArray};
    std::vector<Attribute> attributes;
    std::vector<EnabledArray> enabled;
    QSharedPointer<BufferObject> indices;
    quint64 revision = 1;
    QVarLengthArray<GLuint, 4> previous;
    std::vector<quint64> knownPrograms;
};

VertexArrayObject::VertexArrayObject() : d(std::make_unique<VertexArrayPrivate>()) {}

VertexArrayObject::~VertexArrayObject()
{
    while (!d->previous.isEmpty())
        VertexArrayObject::unbind();
}

bool VertexArrayObject::isUsable() const
{
    return std::all_of(d->attributes.cbegin(), d->attributes.cend(),
                       [](const Attribute &a) { return a.buffer->isUsable(); });
}

bool VertexArrayObject::bind()
{
    PerContextNames::Entry *entry = isUsable() ? d->names.current() : nullptr;
    if (!entry)
        return false;
    GLint before = 0;
    glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &before);
    d->previous.append(GLuint(before));
    glBindVertexArray(entry->name.id());
    if (entry->revision != d->revision) {
        for (const EnabledArray &array : d->enabled)
            d->apply(array);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, d->indices ? d->indices->getBO() : 0);
        entry->revision = d->revision;
    }
    return true;
}

bool VertexArrayObject::unbind()
{
    if (d->previous.isEmpty())
        return false;
    glBindVertexArray(d->previous.last());
    d->previous.removeLast();
    return true;
}

bool VertexArrayObject::upload(const QString &attribute, const QSharedPointer<BufferObject> &buffer, int components,
                               unsigned int type, qint64 offset, unsigned int divisor)
{
    if (attribute.isEmpty() || !buffer || components < 1 || components > 4)
        return false;
    shareAttributeName(attribute);
    const Attribute added{attribute, buffer, components, type, offset, divisor};
    const auto found = std::find_if(d->attributes.begin(), d->attributes.end(),
                                    [&](const Attribute &a) { return a.name == attribute; });
    if (found != d->attributes.end())
        *found = added;
    else
        d->attributes.push_back(added);
    d->knownPrograms.clear();
    ++d->revision;
    return true;
}

QSharedPointer<BufferObject> VertexArrayObject::bo(const QString &attribute) const
{
    for (const Attribute &a : d->attributes) {
        if (a.name == attribute)
            return a.buffer;
    }
    return nullptr;
}

void VertexArrayObject::setIndexBuffer(const QSharedPointer<BufferObject> &buffer)
{
    if (d->indices == buffer)
        return;
    d->indices = buffer;
    ++d->revision;
}

bool VertexArrayObject::enableShaderProgramArrays(const ShaderProgram *program)
{
    if (!program || !program->isLinked())
        return false;
    const quint64 serial = program->d->program->serial;
    if (std::find(d->knownPrograms.cbegin(), d->knownPrograms.cend(), serial) != d->knownPrograms.cend())
        return true;

    AutoBinder self(this);
    PerContextNames::Entry *entry = d->names.current();
    if (!self.isBound() || !entry)
        return false;
    for (qsizetype i = 0; i < qsizetype(d->attributes.size()); ++i) {
        const Attribute &a = d->attributes[std::size_t(i)];
        const auto active = program->d->program->attributes.constFind(a.name);
        if (active == program->d->program->attributes.cend() || active->location < 0)
            continue;
        if (!a.buffer->getBO())
            AutoBinder makeName(a.buffer);
        const EnabledArray array{active->location, i, active->isInteger};
        const auto sameLocation = [&](const EnabledArray &e) { return e.location == array.location; };
        const auto old = std::find_if(d->enabled.begin(), d->enabled.end(), sameLocation);
        if (old != d->enabled.end())
            *old = array;
        else
            d->enabled.push_back(array);
        d->apply(array);
    }
    entry->revision = ++d->revision;
    // Programs come and go; a vertex array that has seen many starts over.
    if (d->knownPrograms.size() >= 64)
        d->knownPrograms.clear();
    d->knownPrograms.push_back(serial);
    return true;
}

unsigned int VertexArrayObject::vertexArrayID() const
{
    return d->names.currentId();
}

} // namespace Brevane::Kvo
