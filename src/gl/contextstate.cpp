#include "gl/contextstate.h"

#include "gl/contextscope.h"
#include "gl/held.h"
#include "gl/loadedlibrary.h"
#include "gl/opengldevicecontext.h"
#include "gl/texturemanager.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <bit>
#include <map>

namespace Brevane::Kvo {

quint64 currentShareGroup()
{
    const ContextState *state = ContextState::current();
    return state ? state->group->id() : 0;
}

namespace {

using GetCurrentContext = void *(*)();

using Registry = std::map<void *, QSharedPointer<ContextState>>;

// Never destroyed: a host may exit without releasing its contexts, and the driver may be gone by then.
Registry &registry()
{
    static auto *contexts = new Registry;
    return *contexts;
}

std::vector<QWeakPointer<ShareGroup>> &shareGroups()
{
    static std::vector<QWeakPointer<ShareGroup>> groups;
    return groups;
}

// The last look-up, so that asking for the current context costs one call into the window system
// interface. Handles of contexts that were refused stay here with a null state.
struct LastLookUp
{
    NativeContext native;
    ContextState *state = nullptr;
    bool holds = false; ///< For the rest of the outermost scope.
};

// One variable, since finding a thread's costs more than reading it.
struct ThreadState
{
    LastLookUp lastLookUp;
    int openScopes = 0;
};

ThreadState &threadState()
{
    thread_local ThreadState state;
    return state;
}

// The next look-up has to be a full one: that is where pending deletions are carried out.
void deleteLater(NameStore &names, NameKind kind, unsigned int name)
{
    names.destroyLater(kind, name);
    threadState().lastLookUp = {};
}

/// Binds a buffer for its scope; the copy targets are their own query.
class BoundForCopy
{
public:
    BoundForCopy(GLenum target, GLuint buffer) : _target(target)
    {
        glGetIntegerv(target, &_previous);
        glBindBuffer(target, buffer);
    }
    ~BoundForCopy() { glBindBuffer(_target, GLuint(_previous)); }
    BoundForCopy(const BoundForCopy &) = delete;
    BoundForCopy &operator=(const BoundForCopy &) = delete;

private:
    GLenum _target;
    GLint _previous = 0;
};

quint64 nextContextId()
{
    static quint64 counter = 0;
    return ++counter;
}

void deleteName(NameKind kind, unsigned int name)
{
    switch (kind) {
    case NameKind::Texture: glDeleteTextures(1, &name); break;
    case NameKind::Buffer: glDeleteBuffers(1, &name); break;
    case NameKind::Program: glDeleteProgram(name); break;
    case NameKind::Framebuffer: glDeleteFramebuffers(1, &name); break;
    case NameKind::VertexArray: glDeleteVertexArrays(1, &name); break;
    }
}

} // namespace

ContextScope::ContextScope()
{
    ThreadState &thread = threadState();
    if (thread.openScopes++ == 0)
        thread.lastLookUp.holds = false;
}

ContextScope::~ContextScope()
{
    --threadState().openScopes;
}

ContextScope::operator bool() const
{
    return ContextState::current() != nullptr;
}

ContextScopePause::ContextScopePause() : _scopes(std::exchange(threadState().openScopes, 0)) {}

ContextScopePause::~ContextScopePause()
{
    threadState().openScopes = _scopes;
    threadState().lastLookUp.holds = false;
}

unsigned int NameStore::create(NameKind kind)
{
    unsigned int name = 0;
    switch (kind) {
    case NameKind::Texture: glGenTextures(1, &name); break;
    case NameKind::Buffer: glGenBuffers(1, &name); break;
    case NameKind::Program: name = glCreateProgram(); break;
    case NameKind::Framebuffer: glGenFramebuffers(1, &name); break;
    case NameKind::VertexArray: glGenVertexArrays(1, &name); break;
    }
    if (name)
        _live[std::size_t(kind)].insert(name);
    return name;
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

ShareGroup::ShareGroup()
{
    static quint64 counter = 0;
    _id = ++counter;
    glGenBuffers(1, &_sentinel);
    const BoundForCopy bound(GL_COPY_WRITE_BUFFER, _sentinel);
    const std::array<quint64, 2> content{_id, quint64(reinterpret_cast<quintptr>(this))};
    glBufferData(GL_COPY_WRITE_BUFFER, sizeof content, content.data(), GL_STATIC_DRAW);
}

bool ShareGroup::isVisible() const
{
    if (!glIsBuffer(_sentinel))
        return false;
    const BoundForCopy bound(GL_COPY_READ_BUFFER, _sentinel);
    GLint size = 0;
    glGetBufferParameteriv(GL_COPY_READ_BUFFER, GL_BUFFER_SIZE, &size);
    std::array<quint64, 2> content{};
    const bool sizeFits = size == GLint(sizeof content);
    if (sizeFits)
        glGetBufferSubData(GL_COPY_READ_BUFFER, 0, sizeof content, content.data());
    return sizeFits && content[0] == _id && content[1] == quint64(reinterpret_cast<quintptr>(this));
}

QSharedPointer<ShareGroup> ShareGroup::find(quint64 id)
{
    for (const QWeakPointer<ShareGroup> &weak : shareGroups()) {
        if (const QSharedPointer<ShareGroup> group = weak.toStrongRef(); group && group->id() == id)
            return group;
    }
    return nullptr;
}

void ShareGroup::giveUp(QObject *object)
{
    // Those that somebody deleted since only take room.
    if (_givenUp.size() >= 64 && _givenUp.size() == _givenUp.capacity())
        _givenUp.removeIf([](const QPointer<QObject> &known) { return known.isNull(); });
    if (object && !_givenUp.contains(object))
        _givenUp.append(object);
}

int ShareGroup::givenUpCount() const
{
    return int(std::count_if(_givenUp.cbegin(), _givenUp.cend(),
                             [](const QPointer<QObject> &object) { return !object.isNull(); }));
}

int ShareGroup::freeGivenUp()
{
    int freed = 0;
    for (const QPointer<QObject> &object : std::exchange(_givenUp, {})) {
        freed += object ? 1 : 0;
        delete object.data();
    }
    return freed;
}

void ShareGroup::release()
{
    TextureManager::Instance().dropShareGroup(_id);
    names.destroyAll();
    glDeleteBuffers(1, &_sentinel);
    _sentinel = 0;
}

void ShareGroup::abandon()
{
    names.abandon();
    _sentinel = 0;
}

NativeContext NativeContext::current()
{
    static GetCurrentContext egl = nullptr;
    static GetCurrentContext glx = nullptr;
    if (!egl)
        egl = loadedFunction<GetCurrentContext>({"libEGL.so.1"}, "eglGetCurrentContext");
    if (void *context = egl ? egl() : nullptr)
        return {context};
    if (!glx)
        glx = loadedFunction<GetCurrentContext>({"libGLX.so.0", "libGL.so.1"}, "glXGetCurrentContext");
    return {glx ? glx() : nullptr};
}

ContextState::ContextState(NativeContext native) : id(nextContextId()), version(epoxy_gl_version()), _native(native)
{
    GLint units = 0;
    glGetIntegerv(GL_MAX_TEXTURE_IMAGE_UNITS, &units);
    _unitCount = std::clamp(units, 0, 64);

    GLint count = 0;
    glGetIntegerv(GL_NUM_EXTENSIONS, &count);
    for (GLint i = 0; i < count; ++i) {
        QByteArray name(reinterpret_cast<const char *>(glGetStringi(GL_EXTENSIONS, GLuint(i))));
        _extensions.insert(name.startsWith("GL_") ? name.mid(3) : name);
    }
    hasSamplerObjects = version >= 33 || hasExtension("ARB_sampler_objects");

    auto &groups = shareGroups();
    std::erase_if(groups, [](const QWeakPointer<ShareGroup> &g) { return g.isNull(); });
    for (const QWeakPointer<ShareGroup> &weak : groups) {
        const QSharedPointer<ShareGroup> candidate = weak.toStrongRef();
        if (candidate && candidate->isVisible())
            group = candidate;
    }
    if (!group) {
        group = QSharedPointer<ShareGroup>::create();
        groups.push_back(group);
    }
}

ContextState::~ContextState() = default;

ContextState *ContextState::current()
{
    auto &[lastLookUp, openScopes] = threadState();
    if (openScopes > 0 && lastLookUp.holds)
        return lastLookUp.state;
    const NativeContext native = NativeContext::current();
    if (native == lastLookUp.native) {
        lastLookUp.holds = true;
        return lastLookUp.state;
    }

    lastLookUp = {native, nullptr, true};
    if (!native.handle)
        return nullptr;

    auto &contexts = registry();
    auto found = contexts.find(native.handle);
    if (found != contexts.end() && !found->second->group->isVisible()) {
        // The host destroyed that context without telling, and another one got its handle.
        found->second->release(false);
        lastLookUp = {native, nullptr, true};
        found = contexts.end();
    }
    if (found == contexts.end()) {
        const int version = epoxy_gl_version();
        if (!epoxy_is_desktop_gl() || version < 32) {
            const auto text = [](GLenum name) { return reinterpret_cast<const char *>(glGetString(name)); };
            qCritical("OpenGL 3.2 or later is needed, but this context offers %s (%s, %s)", text(GL_VERSION),
                      text(GL_VENDOR), text(GL_RENDERER));
            return nullptr;
        }
        const QSharedPointer<ContextState> made(new ContextState(native));
        made->device.reset(new OpenGLDeviceContext(made.data()));
        found = contexts.emplace(native.handle, made).first;
        made->watchQtContext();
    }
    ContextState *state = found->second.data();
    lastLookUp.state = state;
    state->names.flush();
    state->group->names.flush();
    return state;
}

ContextState *ContextState::currentIfKnown()
{
    const auto found = registry().find(NativeContext::current().handle);
    return found == registry().end() ? nullptr : found->second.data();
}

ContextState *ContextState::find(quint64 id)
{
    // Nearly always the one that is current.
    if (ContextState *last = threadState().lastLookUp.state; last && last->id == id)
        return last;
    for (const auto &[handle, state] : registry()) {
        if (state->id == id)
            return state.data();
    }
    return nullptr;
}

std::vector<ContextState *> ContextState::all()
{
    std::vector<ContextState *> states;
    for (const auto &[handle, state] : registry())
        states.push_back(state.data());
    return states;
}

QSharedPointer<ContextState> ContextState::currentShared()
{
    ContextState *state = current();
    return state ? registry().at(state->_native.handle) : nullptr;
}

QSharedPointer<ContextState> ContextState::currentVerified()
{
    QSharedPointer<ContextState> state = currentShared();
    if (state && !state->group->isVisible()) {
        // As in current, which does not look when the handle is the one of its last call.
        threadState().lastLookUp = {};
        state = currentShared();
    }
    return state;
}

void ContextState::releaseCurrent()
{
    if (const QSharedPointer<ContextState> state = currentShared())
        state->release(true);
}

void ContextState::release(bool contextIsAlive)
{
    const bool lastOfGroup = std::none_of(registry().cbegin(), registry().cend(), [this](const auto &entry) {
        return entry.second.data() != this && entry.second->group == group;
    });
    if (!contextIsAlive) {
        names.abandon();
        if (lastOfGroup)
            group->abandon();
    }
    device->_quad.reset();
    if (lastOfGroup)
        group->freeGivenUp();
    names.destroyAll();
    if (lastOfGroup)
        group->release();
    device->_state = nullptr;
    threadState().lastLookUp = {};
    // Last: this may destroy the state itself, and with it its share group.
    registry().erase(_native.handle);
}

int ContextState::takeUnit()
{
    for (int unit = 0; unit < _unitCount; ++unit) {
        const quint64 bit = quint64(1) << unit;
        if (!(_usedUnits & bit)) {
            _usedUnits |= bit;
            return unit;
        }
    }
    return -1;
}

bool ContextState::hasFreeUnit() const
{
    return std::popcount(_usedUnits) < _unitCount;
}

void ContextState::giveBackUnit(int unit)
{
    _usedUnits &= ~(quint64(1) << unit);
}

bool ContextState::hasExtension(const char *name) const
{
    if (qstrncmp(name, "GL_", 3) == 0)
        name += 3;
    return _extensions.contains(QByteArray::fromRawData(name, qsizetype(qstrlen(name))));
}

const GLLimits &ContextState::limits()
{
    if (!_limits) {
        const auto limit = [](GLenum name) {
            GLint value = 0;
            glGetIntegerv(name, &value);
            return value;
        };
        GLint viewport[2] = {};
        glGetIntegerv(GL_MAX_VIEWPORT_DIMS, viewport);
        const GLint side = limit(GL_MAX_TEXTURE_SIZE);
        _limits = GLLimits{side,
                           std::min(side, viewport[0]),
                           std::min(side, viewport[1]),
                           limit(GL_MAX_ARRAY_TEXTURE_LAYERS),
                           limit(GL_MAX_VERTEX_UNIFORM_COMPONENTS),
                           limit(GL_MAX_GEOMETRY_UNIFORM_COMPONENTS),
                           limit(GL_MAX_FRAGMENT_UNIFORM_COMPONENTS)};
    }
    return *_limits;
}

void ContextState::labelObject(unsigned int identifier, unsigned int name, const QString &label) const
{
    if (name && !label.isEmpty() && (version >= 43 || hasExtension("KHR_debug"))) {
        const QByteArray text = label.toUtf8().left(200);
        glObjectLabel(identifier, name, GLsizei(text.size()), text.constData());
    }
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
