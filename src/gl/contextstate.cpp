#include "gl/contextstate.h"

#include "core/hostcode.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <bit>
#include <map>

namespace Brevane::Kvo {

namespace {

using Registry = std::map<void *, QSharedPointer<ContextState>>;

// Never destroyed: a host may exit without releasing its contexts, and the driver may be gone by then.
Registry &registry()
{
    static auto *contexts = new Registry;
    return *contexts;
}

quint64 nextContextId()
{
    static quint64 counter = 0;
    return ++counter;
}

} // namespace

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

    group = ShareGroup::ofNewContext();
}

ContextState::~ContextState() = default;

ContextState *ContextState::current()
{
    ThreadContext &thread = threadContext();
    if (thread.openScopes > 0 && thread.last.holds)
        return thread.last.state;
    const NativeContext native = NativeContext::current();
    const quint64 epoch = lookUpEpoch();
    if (native == thread.last.native && epoch == thread.last.epoch) {
        thread.last.holds = true;
        return thread.last.state;
    }
    // What is called on the way finds no context.
    thread.last = {native, nullptr, true, epoch};
    ContextState *state = native.handle ? lookUp(native) : nullptr;
    thread.last = {native, state, true, epoch};
    if (state)
        state->deletePending();
    return state;
}

ContextState *ContextState::lookUp(NativeContext native)
{
    const auto known = registry().find(native.handle);
    if (known == registry().end())
        return make(native);
    if (known->second->group->isVisible())
        return known->second.data();
    // The host destroyed that context without telling, and another one got its handle.
    known->second->release(false);
    threadContext().last = {native, nullptr, true, lookUpEpoch()};
    return make(native);
}

ContextState *ContextState::make(NativeContext native)
{
    if (!epoxy_is_desktop_gl() || epoxy_gl_version() < 32) {
        const auto text = [](GLenum name) { return reinterpret_cast<const char *>(glGetString(name)); };
        const HostCode hostCode;
        qCritical("OpenGL 3.2 or later is needed, but this context offers %s (%s, %s)", text(GL_VERSION),
                  text(GL_VENDOR), text(GL_RENDERER));
        return nullptr;
    }
    const QSharedPointer<ContextState> made(new ContextState(native));
    made->device.reset(new OpenGLDeviceContext(made.data()));
    registry().emplace(native.handle, made);
    made->watchQtContext();
    return made.data();
}

// Names whose owners died while other contexts were current.
void ContextState::deletePending()
{
    names.flush();
    group->names.flush();
}

ContextState *ContextState::currentIfKnown()
{
    const auto found = registry().find(NativeContext::current().handle);
    return found == registry().end() ? nullptr : found->second.data();
}

ContextState *ContextState::find(quint64 id)
{
    // Nearly always the one that is current.
    if (ContextState *last = threadContext().last.state; last && last->id == id)
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
    // In the middle of a frame a context may be lost, but it is no other one; and a lost one answers nothing.
    if (state && threadContext().openScopes == 0 && !state->group->isVisible()) {
        // As in current, which does not look when the handle is the one of its last call.
        threadContext().last = {};
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
    threadContext().last = {};
    outdateLookUps();
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

} // namespace Brevane::Kvo
