#include "gl/glnames.h"

#include "core/hostcode.h"
#include "gl/contextstate.h"

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

unsigned int generate(NameKind kind)
{
    unsigned int name = 0;
    switch (kind) {
    case NameKind::Texture: glGenTextures(1, &name); break;
    case NameKind::Buffer: glGenBuffers(1, &name); break;
    case NameKind::Program: name = glCreateProgram(); break;
    case NameKind::Shader: break; // see ObjectName::take
    case NameKind::Framebuffer: glGenFramebuffers(1, &name); break;
    case NameKind::VertexArray: glGenVertexArrays(1, &name); break;
    }
    return name;
}

void deleteName(NameKind kind, unsigned int name)
{
    if (threadContext().bindingScopes > 0) {
        if (ContextState *state = ContextState::currentIfKnown())
            state->bindings.aboutToDelete(kind, name);
    }
    switch (kind) {
    case NameKind::Texture: glDeleteTextures(1, &name); break;
    case NameKind::Buffer: glDeleteBuffers(1, &name); break;
    case NameKind::Program: glDeleteProgram(name); break;
    case NameKind::Shader: glDeleteShader(name); break;
    case NameKind::Framebuffer: glDeleteFramebuffers(1, &name); break;
    case NameKind::VertexArray: glDeleteVertexArrays(1, &name); break;
    }
}

// The next look-up has to be a full one: that is where pending deletions are carried out.
void deleteLater(NameStore &names, NameKind kind, unsigned int name)
{
    names.destroyLater(kind, name);
    threadContext().last = {};
    outdateLookUps();
}

} // namespace

// A driver that was short of memory may have freed some on the way to say so.
unsigned int NameStore::create(NameKind kind)
{
    unsigned int name = generate(kind);
    if (!name) {
        name = generate(kind);
        static constexpr const char *kNames[] = {"texture", "buffer",      "program",
                                                 "shader",  "framebuffer", "vertex array"};
        const HostCode hostCode;
        qWarning("The driver gave no name for a %s; %s", kNames[std::size_t(kind)],
                 name ? "asked again it did" : "what needs it is left out");
    }
    if (name)
        _live[std::size_t(kind)].insert(name);
    return name;
}

void NameStore::adopt(NameKind kind, unsigned int name)
{
    _live[std::size_t(kind)].insert(name);
}

void NameStore::destroy(NameKind kind, unsigned int name)
{
    if (_live[std::size_t(kind)].remove(name))
        deleteName(kind, name);
}

void NameStore::destroyLater(NameKind kind, unsigned int name)
{
    _pending.emplace_back(kind, name);
}

void NameStore::flush()
{
    for (const auto &[kind, name] : std::exchange(_pending, {}))
        destroy(kind, name);
}

void NameStore::destroyAll()
{
    flush();
    for (std::size_t kind = 0; kind < _live.size(); ++kind) {
        for (unsigned int name : std::exchange(_live[kind], {}))
            deleteName(NameKind(kind), name);
    }
}

void NameStore::abandon()
{
    _pending.clear();
    for (QSet<unsigned int> &names : _live)
        names.clear();
}

ObjectName::ObjectName(ObjectName &&other) noexcept
    : _kind(other._kind), _id(std::exchange(other._id, 0)), _context(std::move(other._context)),
      _group(std::move(other._group))
{}

ObjectName &ObjectName::operator=(ObjectName &&other) noexcept
{
    if (this != &other) {
        reset();
        _kind = other._kind;
        _id = std::exchange(other._id, 0);
        _context = std::move(other._context);
        _group = std::move(other._group);
    }
    return *this;
}

bool ObjectName::create(NameKind kind)
{
    reset();
    const QSharedPointer<ContextState> state = ContextState::currentShared();
    if (!state)
        return false;
    _kind = kind;
    if (isShared(kind)) {
        _group = state->group;
        _id = state->group->names.create(kind);
    } else {
        _context = state;
        _id = state->names.create(kind);
    }
    return _id != 0;
}

bool ObjectName::take(NameKind kind, unsigned int name)
{
    reset();
    const QSharedPointer<ContextState> state = ContextState::currentShared();
    if (!state || !name)
        return false;
    _kind = kind;
    if (isShared(kind))
        _group = state->group;
    else
        _context = state;
    (isShared(kind) ? state->group->names : state->names).adopt(kind, name);
    _id = name;
    return true;
}

void ObjectName::reset()
{
    const unsigned int id = std::exchange(_id, 0);
    if (!id)
        return;
    // An object may outlive its context, whose release must not be undone by looking it up again.
    const ContextState *current = ContextState::currentIfKnown();
    if (const QSharedPointer<ShareGroup> group = _group.toStrongRef()) {
        if (current && current->group == group)
            group->names.destroy(_kind, id);
        else
            deleteLater(group->names, _kind, id);
    } else if (const QSharedPointer<ContextState> context = _context.toStrongRef()) {
        if (current == context.data())
            context->names.destroy(_kind, id);
        else
            deleteLater(context->names, _kind, id);
    }
    _group.clear();
    _context.clear();
}

unsigned int ObjectName::id() const
{
    return _group.isNull() && _context.isNull() ? 0 : _id;
}

bool ObjectName::isUsableIn(const ContextState &state) const
{
    return id() && (isShared(_kind) ? _group == state.group : _context.toStrongRef().data() == &state);
}

PerContextNames::Entry *PerContextNames::current()
{
    const ContextState *state = ContextState::current();
    if (!state)
        return nullptr;
    for (Entry &entry : _entries) {
        if (entry.state == state && !entry.context.isNull())
            return &entry;
    }
    std::erase_if(_entries, [](const Entry &entry) { return entry.context.isNull(); });
    Entry entry;
    entry.context = ContextState::currentShared();
    entry.state = state;
    if (!entry.name.create(_kind))
        return nullptr;
    _entries.push_back(std::move(entry));
    return &_entries.back();
}

unsigned int PerContextNames::currentId() const
{
    const ContextState *state = ContextState::current();
    for (const Entry &entry : _entries) {
        if (state && entry.state == state && !entry.context.isNull())
            return entry.name.id();
    }
    return 0;
}

} // namespace Brevane::Kvo
