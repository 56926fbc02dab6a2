#include "gl/bindings.h"

#include "core/hostcode.h"
#include "gl/boundnow.h"
#include "gl/contextstate.h"
#include "gl/storage.h"

#include <epoxy/gl.h>

#include <bit>
#include <initializer_list>
#include <utility>

namespace Brevane::Kvo {

namespace {

using enum BindingPoint;

struct PointInfo
{
    GLenum target; // 0: no buffer
    GLenum query;
};

constexpr std::array<PointInfo, std::size_t(BindingPoint::Count)> kPoints{{
    {0, GL_DRAW_FRAMEBUFFER_BINDING},
    {0, GL_READ_FRAMEBUFFER_BINDING},
    {0, GL_CURRENT_PROGRAM},
    {0, GL_VERTEX_ARRAY_BINDING},
    {GL_ARRAY_BUFFER, GL_ARRAY_BUFFER_BINDING},
    {GL_UNIFORM_BUFFER, GL_UNIFORM_BUFFER_BINDING},
    {GL_ATOMIC_COUNTER_BUFFER, GL_ATOMIC_COUNTER_BUFFER_BINDING},
    {GL_DRAW_INDIRECT_BUFFER, GL_DRAW_INDIRECT_BUFFER_BINDING},
    {GL_TEXTURE_BUFFER, GL_TEXTURE_BUFFER},
    {GL_PIXEL_PACK_BUFFER, GL_PIXEL_PACK_BUFFER_BINDING},
    {GL_PIXEL_UNPACK_BUFFER, GL_PIXEL_UNPACK_BUFFER_BINDING},
}};

constexpr std::array<GLenum, 4> kTextureTargets{GL_TEXTURE_2D, GL_TEXTURE_2D_ARRAY, GL_TEXTURE_CUBE_MAP,
                                                GL_TEXTURE_BUFFER};

void callBind(BindingPoint point, GLuint name)
{
    switch (point) {
    case DrawFramebuffer: glBindFramebuffer(GL_DRAW_FRAMEBUFFER, name); break;
    case ReadFramebuffer: glBindFramebuffer(GL_READ_FRAMEBUFFER, name); break;
    case Program: glUseProgram(name); break;
    case VertexArray: glBindVertexArray(name); break;
    default: glBindBuffer(kPoints[std::size_t(point)].target, name); break;
    }
}

bool isTracking()
{
    return threadContext().bindingScopes > 0;
}

unsigned int epoch()
{
    return threadContext().bindingEpoch;
}

/// The state that owes something, if any does: what made it current is known, or looks it up without making it.
ContextState *stateThatOwes()
{
    const LastLookUp &last = threadContext().last;
    return last.holds ? last.state : ContextState::currentIfKnown();
}

long long beginHostCode()
{
    ThreadContext &thread = threadContext();
    if (thread.bindingScopes > 0) {
        if (ContextState *state = stateThatOwes())
            state->bindings.settleAll();
    }
    const long long scopes = (static_cast<long long>(thread.bindingScopes) << 32) | thread.openScopes;
    thread.bindingScopes = 0;
    thread.openScopes = 0;
    ++thread.bindingEpoch;
    return scopes;
}

void endHostCode(long long scopes)
{
    ThreadContext &thread = threadContext();
    thread.bindingScopes = int(scopes >> 32);
    thread.openScopes = int(scopes & 0xffffffff);
    thread.last.holds = false;
    ++thread.bindingEpoch;
}

[[maybe_unused]] const bool hooksAreSet = (HostCode::setHooks({beginHostCode, endHostCode}), true);

} // namespace

unsigned int Bindings::bound(BindingPoint point)
{
    Slot &s = slot(point);
    if (s.owes)
        return s.owed;
    const GLenum query = kPoints[std::size_t(point)].query;
    if (!isTracking())
        return boundNow(query);
    if (s.epoch != epoch()) {
        s.now = boundNow(query);
        s.epoch = epoch();
    }
    return s.now;
}

void Bindings::reallyBind(BindingPoint point, unsigned int name)
{
    Slot &s = slot(point);
    s.owes = false;
    const bool tracking = isTracking();
    if (tracking && s.epoch == epoch() && s.now == name)
        return;
    callBind(point, name);
    s.now = name;
    s.epoch = tracking ? epoch() : 0;
}

void Bindings::owe(Slot &s, unsigned int name)
{
    s.owed = name;
    s.owes = s.epoch != epoch() || s.now != name;
}

unsigned int Bindings::take(BindingPoint point, unsigned int name)
{
    const unsigned int before = bound(point);
    ++slot(point).taken;
    reallyBind(point, name);
    return before;
}

unsigned int Bindings::takeUnseen(BindingPoint point, unsigned int name)
{
    const unsigned int before = bound(point);
    ++slot(point).taken;
    saw(point, name);
    return before;
}

void Bindings::saw(BindingPoint point, unsigned int name)
{
    Slot &s = slot(point);
    s.owes = false;
    s.now = name;
    s.epoch = isTracking() ? epoch() : 0;
}

void Bindings::giveBack(BindingPoint point, unsigned int before)
{
    Slot &s = slot(point);
    if (s.taken > 0)
        --s.taken;
    if (isTracking() && s.taken == 0)
        owe(s, before);
    else
        reallyBind(point, before);
}

void Bindings::settle(BindingPoint point)
{
    if (const Slot &s = slot(point); s.owes)
        reallyBind(point, s.owed);
}

FramebufferPair Bindings::takeFramebuffer(unsigned int name)
{
    const FramebufferPair before{bound(DrawFramebuffer), bound(ReadFramebuffer)};
    ++slot(DrawFramebuffer).taken;
    ++slot(ReadFramebuffer).taken;
    bindBothFramebuffers(name);
    return before;
}

void Bindings::bindBothFramebuffers(unsigned int name)
{
    Slot &draw = slot(DrawFramebuffer);
    Slot &read = slot(ReadFramebuffer);
    const bool tracking = isTracking();
    const auto isThere = [&](const Slot &s) { return tracking && s.epoch == epoch() && s.now == name; };
    if (!isThere(draw) || !isThere(read))
        glBindFramebuffer(GL_FRAMEBUFFER, name);
    for (Slot *s : {&draw, &read}) {
        s->owes = false;
        s->now = name;
        s->epoch = tracking ? epoch() : 0;
    }
}

void Bindings::giveBackFramebuffer(const FramebufferPair &before)
{
    Slot &draw = slot(DrawFramebuffer);
    Slot &read = slot(ReadFramebuffer);
    for (Slot *s : {&draw, &read})
        s->taken = quint16(s->taken - (s->taken > 0));
    if (isTracking() && draw.taken == 0) {
        owe(draw, before.draw);
        owe(read, before.read);
    } else if (before.draw == before.read) {
        bindBothFramebuffers(before.draw);
    } else {
        reallyBind(DrawFramebuffer, before.draw);
        reallyBind(ReadFramebuffer, before.read);
    }
}

unsigned int Bindings::activeUnit()
{
    if (_active.owes)
        return _active.owed;
    if (!isTracking())
        return boundNow(GL_ACTIVE_TEXTURE);
    if (_active.epoch != epoch()) {
        _active.now = boundNow(GL_ACTIVE_TEXTURE);
        _active.epoch = epoch();
    }
    return _active.now;
}

void Bindings::reallyActivate(unsigned int unit)
{
    const bool tracking = isTracking();
    if (tracking && _active.epoch == epoch() && _active.now == unit)
        return;
    glActiveTexture(unit);
    _active.now = unit;
    _active.epoch = tracking ? epoch() : 0;
}

unsigned int Bindings::activate(int unit)
{
    const unsigned int before = activeUnit();
    if (isTracking())
        owe(_active, GL_TEXTURE0 + unsigned(unit));
    else
        glActiveTexture(GL_TEXTURE0 + unsigned(unit));
    return before;
}

void Bindings::giveBackUnit(unsigned int before)
{
    if (isTracking())
        owe(_active, before);
    else
        glActiveTexture(before);
}

void Bindings::settleUnit()
{
    if (std::exchange(_active.owes, false))
        reallyActivate(_active.owed);
}

Bindings::Slot *Bindings::textureSlot(int unit, unsigned int target)
{
    for (std::size_t i = 0; unit < kUnits && i < kTextureTargets.size(); ++i) {
        if (kTextureTargets[i] == target) {
            _usedUnits |= quint64(1) << unit;
            return &_units[std::size_t(unit)].textures[i];
        }
    }
    return nullptr;
}

unsigned int Bindings::takeTexture(int unit, unsigned int target, unsigned int name)
{
    Slot *s = isTracking() ? textureSlot(unit, target) : nullptr;
    if (!s) {
        settleUnit();
        const unsigned int before = boundNow(textureBindingOf(target));
        glBindTexture(target, name);
        return before;
    }
    if (!s->owes && s->epoch != epoch()) {
        settleUnit();
        s->now = boundNow(textureBindingOf(target));
        s->epoch = epoch();
    }
    const unsigned int before = s->owes ? s->owed : s->now;
    s->owes = false;
    if (s->epoch != epoch() || s->now != name) {
        settleUnit();
        glBindTexture(target, name);
    }
    s->now = name;
    s->epoch = epoch();
    return before;
}

void Bindings::giveBackTexture(int unit, unsigned int target, unsigned int before)
{
    if (Slot *s = isTracking() ? textureSlot(unit, target) : nullptr)
        owe(*s, before);
    else
        bindTexture(unit, target, before);
}

void Bindings::bindTexture(int unit, unsigned int target, unsigned int name)
{
    activateForNow(unit);
    glBindTexture(target, name);
    if (Slot *s = isTracking() ? textureSlot(unit, target) : nullptr) {
        s->owes = false;
        s->now = name;
        s->epoch = epoch();
    }
}

void Bindings::settleTexture(int unit, unsigned int target)
{
    if (const Slot *s = textureSlot(unit, target); s && s->owes)
        bindTexture(unit, target, s->owed);
}

// The unit that is to be active stays the same.
void Bindings::activateForNow(int unit)
{
    if (!isTracking()) {
        glActiveTexture(GL_TEXTURE0 + unsigned(unit));
        return;
    }
    const unsigned int wanted = activeUnit();
    reallyActivate(GL_TEXTURE0 + unsigned(unit));
    owe(_active, wanted);
}

unsigned int Bindings::takeSampler(int unit)
{
    if (!isTracking() || unit >= kUnits) {
        settleUnit();
        const unsigned int before = boundNow(GL_SAMPLER_BINDING);
        if (before)
            glBindSampler(GLuint(unit), 0);
        return before;
    }
    Slot &s = _units[std::size_t(unit)].sampler;
    if (s.epoch != epoch()) {
        settleUnit();
        s.now = boundNow(GL_SAMPLER_BINDING);
        s.epoch = epoch();
        s.owes = false;
    }
    const unsigned int before = s.owes ? s.owed : s.now;
    s.owes = false;
    if (s.now)
        glBindSampler(GLuint(unit), 0);
    s.now = 0;
    return before;
}

void Bindings::giveBackSampler(int unit, unsigned int before)
{
    if (isTracking() && unit < kUnits) {
        _usedUnits |= quint64(1) << unit;
        owe(_units[std::size_t(unit)].sampler, before);
    } else {
        glBindSampler(GLuint(unit), before);
    }
}

void Bindings::settleUnits()
{
    for (quint64 left = _usedUnits; left; left &= left - 1) {
        const int unit = std::countr_zero(left);
        Unit &u = _units[std::size_t(unit)];
        for (std::size_t i = 0; i < kTargets; ++i) {
            settleTexture(unit, kTextureTargets[i]);
        }
        if (std::exchange(u.sampler.owes, false)) {
            glBindSampler(GLuint(unit), u.sampler.owed);
            u.sampler.now = u.sampler.owed;
        }
    }
    settleUnit();
}

void Bindings::settleAll()
{
    const Slot &draw = slot(DrawFramebuffer);
    const Slot &read = slot(ReadFramebuffer);
    if (draw.owes && read.owes && draw.owed == read.owed)
        bindBothFramebuffers(draw.owed);
    for (std::size_t i = 0; i < _slots.size(); ++i)
        settle(BindingPoint(i));
    settleUnits();
}

void Bindings::aboutToDelete(NameKind kind, unsigned int name)
{
    if (!isTracking())
        return;
    // GL takes what it deletes off where it is bound, but for programs, which live on there. What is owed comes back
    // first, and of a name that is owed itself nothing is left to bring back.
    const auto leave = [name](Slot &s) {
        s.owed = s.owes && s.owed == name ? 0 : s.owed;
        return s.epoch == epoch() && s.now == name;
    };
    const auto leavePoints = [&](std::initializer_list<BindingPoint> points) {
        for (BindingPoint point : points) {
            if (leave(slot(point))) {
                settle(point);
                slot(point).epoch = slot(point).now == name ? 0 : epoch();
            }
        }
    };
    switch (kind) {
    case NameKind::Texture:
        for (quint64 left = _usedUnits; left; left &= left - 1) {
            const int unit = std::countr_zero(left);
            for (std::size_t i = 0; i < kTargets; ++i) {
                Slot &s = _units[std::size_t(unit)].textures[i];
                if (!leave(s))
                    continue;
                if (s.owes)
                    bindTexture(unit, kTextureTargets[i], s.owed);
                else
                    s.epoch = 0;
            }
        }
        break;
    case NameKind::Buffer:
        leavePoints(
            {ArrayBuffer, UniformBuffer, AtomicCounterBuffer, IndirectBuffer, TextureBuffer, PackBuffer, UnpackBuffer});
        break;
    case NameKind::Program: leavePoints({Program}); break;
    case NameKind::Shader: break;
    case NameKind::Framebuffer: leavePoints({DrawFramebuffer, ReadFramebuffer}); break;
    case NameKind::VertexArray: leavePoints({VertexArray}); break;
    }
}

bool Bindings::isPixelStoreKnown() const
{
    return isTracking() && _pixelStoreEpoch == epoch();
}

void Bindings::knowPixelStore(bool known)
{
    _pixelStoreEpoch = known && isTracking() ? epoch() : 0;
}

BindingScope::BindingScope() : _before(threadContext().bindingScopes)
{
    ThreadContext &thread = threadContext();
    if (thread.bindingScopes++ == 0)
        ++thread.bindingEpoch;
}

BindingScope::~BindingScope()
{
    ThreadContext &thread = threadContext();
    if (thread.bindingScopes == 0) // tracking was stopped
        ++thread.bindingEpoch;
    else if (_before == 0) {
        if (ContextState *state = stateThatOwes())
            state->bindings.settleAll();
    }
    thread.bindingScopes = _before;
}

void BindingScope::stopTracking()
{
    ThreadContext &thread = threadContext();
    if (thread.bindingScopes == 0)
        return;
    if (ContextState *state = stateThatOwes())
        state->bindings.settleAll();
    thread.bindingScopes = 0;
    ++thread.bindingEpoch;
}

void bindFramebufferNow(unsigned int target, unsigned int name)
{
    glBindFramebuffer(target, name);
    ContextState *const state = ContextState::current();
    if (!state)
        return;
    state->bindings.saw(target == GL_READ_FRAMEBUFFER ? ReadFramebuffer : DrawFramebuffer, name);
    // Copies from one to the other, and objects that were bound in between for a moment may be owed there.
    state->bindings.settle(target == GL_READ_FRAMEBUFFER ? DrawFramebuffer : ReadFramebuffer);
}

unsigned int boundFramebuffer(unsigned int target)
{
    ContextState *const state = ContextState::current();
    return state ? state->bindings.bound(target == GL_READ_FRAMEBUFFER ? ReadFramebuffer : DrawFramebuffer) : 0;
}

void settleActiveUnit()
{
    if (ContextState *state = ContextState::current())
        state->bindings.settleUnit();
}

} // namespace Brevane::Kvo
