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

/// An attribute at a location, as one program wants it.
struct EnabledArray
{
    int location;
    qsizetype attribute;
    bool isInteger;
    bool operator==(const EnabledArray &) const = default;
};

struct KnownProgram
{
    quint64 serial;
    bool isArranged; ///< Whether the arrays are still as it wants them.
};

constexpr std::size_t kMostKnownPrograms = 64;

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
        const AutoBinder makeName(a.buffer->getBO() ? nullptr : a.buffer);
        Bindings &bindings = ContextState::current()->bindings;
        const unsigned int before = bindings.take(BindingPoint::ArrayBuffer, a.buffer->getBO());
        const auto location = GLuint(array.location);
        const auto *offset = reinterpret_cast<const void *>(quintptr(a.offset));
        if (array.isInteger)
            glVertexAttribIPointer(location, a.components, a.type, 0, offset);
        else
            glVertexAttribPointer(location, a.components, a.type, GL_FALSE, 0, offset);
        // One that was here before may have had a divisor. Contexts without divisors have none to take back.
        if (hasDivisors)
            glVertexAttribDivisor(location, a.divisor);
        glEnableVertexAttribArray(location);
        bindings.giveBack(BindingPoint::ArrayBuffer, before);
    }

    /// Of the bound vertex array, with what other contexts did to it in theirs.
    void applyAll() const
    {
        for (const int location : usedLocations) {
            const bool isLeft = std::any_of(enabled.cbegin(), enabled.cend(), [location](const EnabledArray &array) {
                return array.location == location;
            });
            if (!isLeft)
                glDisableVertexAttribArray(GLuint(location));
        }
        for (const EnabledArray &array : enabled)
            apply(array);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, indices ? indices->getBO() : 0);
    }

    KnownProgram *find(const LinkedProgram &program)
    {
        const auto found = std::find_if(programs.begin(), programs.end(),
                                        [&](const KnownProgram &known) { return known.serial == program.serial; });
        return found == programs.end() ? nullptr : &*found;
    }

    /// Of the bound vertex array. Programs agree on the locations of most attributes. Where this one does not
    /// agree with one that was here before, the arrays go over to this one, and the others are arranged for
    /// again when it is their turn.
    void arrangeIn(PerContextNames::Entry &entry, const LinkedProgram &program)
    {
        bool disagrees = false;
        for (auto active = program.attributes.cbegin(); active != program.attributes.cend(); ++active) {
            const auto buffer = std::find_if(attributes.cbegin(), attributes.cend(),
                                             [&](const Attribute &a) { return a.name == active.key(); });
            if (active->location < 0)
                continue; // gl_VertexID and its like
            for (int column = 0; column < active->locations; ++column)
                disagrees |= buffer == attributes.cend() || column > 0
                                 ? remove(active->location + column)
                                 : replace({active->location, buffer - attributes.cbegin(), active->isInteger});
        }
        if (disagrees) {
            for (KnownProgram &known : programs)
                known.isArranged = false;
        }
        entry.revision = ++revision;
        if (KnownProgram *known = find(program)) {
            known->isArranged = true;
            return;
        }
        // Programs come and go; a vertex array that has seen many starts over.
        if (programs.size() >= kMostKnownPrograms)
            programs.clear();
        programs.push_back({program.serial, true});
    }

    PerContextNames names{NameKind::VertexArray};
    std::vector<Attribute> attributes;
    std::vector<EnabledArray> enabled;
    std::vector<int> usedLocations; ///< All that were ever enabled.
    std::vector<int> bareLocations; ///< All where some program has an attribute without a buffer.
    bool hasDivisors = false;
    QSharedPointer<BufferObject> indices;
    quint64 revision = 1;
    QVarLengthArray<GLuint, 4> previous;
    std::vector<KnownProgram> programs;

private:
    std::vector<EnabledArray>::iterator at(int location)
    {
        return std::find_if(enabled.begin(), enabled.end(),
                            [location](const EnabledArray &array) { return array.location == location; });
    }

    static bool contains(const std::vector<int> &locations, int location)
    {
        return std::find(locations.cbegin(), locations.cend(), location) != locations.cend();
    }

    // Both say whether a program before may have wanted it otherwise.
    bool replace(const EnabledArray &array)
    {
        const auto old = at(array.location);
        const bool wasOther = old == enabled.end() ? contains(bareLocations, array.location) : *old != array;
        if (old != enabled.end())
            *old = array;
        else
            enabled.push_back(array);
        if (!contains(usedLocations, array.location))
            usedLocations.push_back(array.location);
        apply(array);
        return wasOther;
    }
    bool remove(int location)
    {
        if (!contains(bareLocations, location))
            bareLocations.push_back(location);
        const auto old = at(location);
        if (old == enabled.end())
            return false;
        enabled.erase(old);
        glDisableVertexAttribArray(GLuint(location));
        return true;
    }
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
    ContextState *const state = ContextState::current();
    d->previous.append(state->bindings.take(BindingPoint::VertexArray, entry->name.id()));
    if (entry->revision != d->revision) {
        d->applyAll();
        entry->revision = d->revision;
    }
    // A program that was arranged for and is bound is going to draw.
    if (const ShaderProgram *program = state->boundProgram) {
        const KnownProgram *known = program->isLinked() ? d->find(*program->d->program) : nullptr;
        if (known && !known->isArranged)
            d->arrangeIn(*entry, *program->d->program);
    }
    return true;
}

bool VertexArrayObject::unbind()
{
    if (d->previous.isEmpty())
        return false;
    const unsigned int before = d->previous.last();
    d->previous.removeLast();
    if (ContextState *state = ContextState::current())
        state->bindings.giveBack(BindingPoint::VertexArray, before);
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
    d->hasDivisors = d->hasDivisors || divisor > 0;
    d->programs.clear();
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
    const KnownProgram *known = d->find(*program->d->program);
    if (known && known->isArranged)
        return true;

    AutoBinder self(this);
    PerContextNames::Entry *entry = d->names.current();
    if (!self.isBound() || !entry)
        return false;
    d->arrangeIn(*entry, *program->d->program);
    return true;
}

unsigned int VertexArrayObject::vertexArrayID() const
{
    return d->names.currentId();
}

} // namespace Brevane::Kvo
