#include "gl/texture.h"

#include "core/hostcode.h"
#include "core/liveobjects.h"
#include "gl/contextstate.h"
#include "gl/fallenshort.h"
#include "gl/sampling.h"
#include "gl/storage.h"

#include <QVariant>

#include <epoxy/gl.h>

#include <array>
#include <new>
#include <utility>

namespace Brevane::Kvo {

unsigned int textureBindingOf(unsigned int target)
{
    switch (target) {
    case GL_TEXTURE_1D: return GL_TEXTURE_BINDING_1D;
    case GL_TEXTURE_3D: return GL_TEXTURE_BINDING_3D;
    case GL_TEXTURE_1D_ARRAY: return GL_TEXTURE_BINDING_1D_ARRAY;
    case GL_TEXTURE_2D_ARRAY: return GL_TEXTURE_BINDING_2D_ARRAY;
    case GL_TEXTURE_CUBE_MAP: return GL_TEXTURE_BINDING_CUBE_MAP;
    case GL_TEXTURE_CUBE_MAP_ARRAY: return GL_TEXTURE_BINDING_CUBE_MAP_ARRAY;
    case GL_TEXTURE_BUFFER: return GL_TEXTURE_BINDING_BUFFER;
    case GL_TEXTURE_RECTANGLE: return GL_TEXTURE_BINDING_RECTANGLE;
    case GL_TEXTURE_2D_MULTISAMPLE: return GL_TEXTURE_BINDING_2D_MULTISAMPLE;
    case GL_TEXTURE_2D_MULTISAMPLE_ARRAY: return GL_TEXTURE_BINDING_2D_MULTISAMPLE_ARRAY;
    default: return GL_TEXTURE_BINDING_2D;
    }
}

/// What the library knows of a texture without asking GL.
class TextureKnowledge
{
public:
    explicit TextureKnowledge(const Texture &texture) : _texture(texture), _known(texture._known) {}

    /// Host code that ran while the texture was bound could reach it.
    void noticeHostCode() const
    {
        if (_texture._boundEpoch != threadContext().bindingEpoch)
            _known.isShown = true;
    }
    unsigned int name() const
    {
        _texture._hadUses = true;
        return _texture._name->id();
    }
    void show() const { _known.isShown = true; }
    void keepNothing() const { _known.isNeverKept = true; }
    void forgetLevel() const { _known.width = _known.height = 0, _known.internalFormat = 0; }

    bool has(GLenum minification, GLenum magnification, GLenum wrapS, GLenum wrapT) const
    {
        refresh();
        const auto fits = [](GLenum wanted, GLenum known) { return wanted == 0 || wanted == known; };
        return fits(minification, _known.minification) && fits(magnification, _known.magnification)
               && fits(wrapS, _known.wrap[0]) && fits(wrapT, _known.wrap[1]);
    }

    /// Of the bound texture.
    void setBound(GLenum minification, GLenum magnification, GLenum wrapS, GLenum wrapT) const
    {
        if (!_texture._previousUnits.isEmpty())
            noticeHostCode();
        refresh();
        settleActiveUnit();
        set(GL_TEXTURE_MIN_FILTER, minification, _known.minification);
        set(GL_TEXTURE_MAG_FILTER, magnification, _known.magnification);
        set(GL_TEXTURE_WRAP_S, wrapS, _known.wrap[0]);
        set(GL_TEXTURE_WRAP_T, wrapT, _known.wrap[1]);
    }

    Filters filters() const
    {
        refresh();
        if (!_known.minification || !_known.magnification) {
            if (const StorageBinder bound(const_cast<Texture *>(&_texture), StorageBinder::Keeps); bound.isBound()) {
                settleActiveUnit();
                GLint minification = 0;
                GLint magnification = 0;
                glGetTexParameteriv(_texture._target, GL_TEXTURE_MIN_FILTER, &minification);
                glGetTexParameteriv(_texture._target, GL_TEXTURE_MAG_FILTER, &magnification);
                _known.minification = GLenum(minification);
                _known.magnification = GLenum(magnification);
            }
        }
        return {_known.minification, _known.magnification};
    }

    LevelInfo level() const
    {
        refresh();
        return {_known.width, _known.height, _known.internalFormat};
    }
    void setLevel(const LevelInfo &info) const
    {
        _known.width = info.width;
        _known.height = info.height;
        _known.internalFormat = info.internalFormat;
    }

private:
    // What a host has had in its hands is known until code of the host's runs again.
    void refresh() const
    {
        const ThreadContext &thread = threadContext();
        const bool holds = thread.bindingScopes > 0 && _known.epoch == thread.bindingEpoch;
        if ((_known.isShown && !holds) || _known.isNeverKept) {
            const Texture::Known before = _known;
            _known = {};
            _known.isShown = before.isShown;
            _known.isNeverKept = before.isNeverKept;
        }
        _known.epoch = thread.bindingScopes > 0 ? thread.bindingEpoch : 0;
    }
    void set(GLenum parameter, GLenum wanted, GLenum &known) const
    {
        if (wanted == 0 || wanted == known)
            return;
        glTexParameteri(_texture._target, parameter, GLint(wanted));
        known = wanted;
    }

    const Texture &_texture;
    Texture::Known &_known;
};

void setSampling(Texture *texture, unsigned int minification, unsigned int magnification, unsigned int wrapS,
                 unsigned int wrapT)
{
    if (!texture || TextureKnowledge(*texture).has(minification, magnification, wrapS, wrapT))
        return;
    if (const StorageBinder bound(texture, StorageBinder::Keeps); bound.isBound())
        TextureKnowledge(*texture).setBound(minification, magnification, wrapS, wrapT);
}

Filters filtersOf(Texture *texture)
{
    return texture ? TextureKnowledge(*texture).filters() : Filters();
}

LevelInfo levelInfo(Texture *texture, unsigned int target)
{
    if (!texture || texture->target() != target)
        return {};
    const TextureKnowledge knowledge(*texture);
    LevelInfo info = knowledge.level();
    if (info.width > 0)
        return info;
    ContextState *const state = ContextState::current();
    GLint internalFormat = 0;
    int unit = -1;
    {
        const StorageBinder bound(texture, StorageBinder::Keeps);
        if (!bound.isBound())
            return {};
        unit = texture->unit();
        settleActiveUnit();
        glGetTexLevelParameteriv(target, 0, GL_TEXTURE_WIDTH, &info.width);
        glGetTexLevelParameteriv(target, 0, GL_TEXTURE_HEIGHT, &info.height);
        glGetTexLevelParameteriv(target, 0, GL_TEXTURE_INTERNAL_FORMAT, &internalFormat);
    }
    // A question leaves no trace: whoever binds the texture next does so where it says that it does.
    if (unit >= 0)
        state->bindings.settleTexture(unit, target);
    info.internalFormat = GLenum(internalFormat);
    knowledge.setLevel(info);
    return info;
}

unsigned int nameOf(const Texture &texture)
{
    return TextureKnowledge(texture).name();
}

void keepNoSampling(const Texture &texture)
{
    TextureKnowledge(texture).keepNothing();
}

void show(const Texture &texture)
{
    TextureKnowledge(texture).show();
}

void forgetLevel(const Texture &texture)
{
    TextureKnowledge(texture).forgetLevel();
}

Texture::Texture(QObject *parent) : QObject(parent), _name(std::make_unique<ObjectName>())
{
    // RenderPassHelper knows the metatype by name only.
    static const int registered = qRegisterMetaType<Texture *>();
    Q_UNUSED(registered)
    enterLiveObject(static_cast<QObject *>(this), LiveKind::Texture);
}

Texture::~Texture()
{
    leaveLiveObject(static_cast<QObject *>(this));
    forgetFallenShort(this);
    while (!_previousUnits.isEmpty())
        Texture::unbind();
}

void Texture::setTarget(unsigned int target)
{
    _target = target;
}

unsigned int Texture::target() const
{
    return _target;
}

// Whoever binds outside of the library's code may set what it likes.
bool Texture::bind()
{
    if (threadContext().bindingScopes == 0)
        _known.isShown = true;
    return _bind();
}

bool Texture::_bind()
{
    _hadUses = true;
    ContextState *state = ContextState::current();
    if (!state || !_target)
        return false;
    if (!_previousUnits.isEmpty()) {
        if (_boundIn != state->id)
            return false;
        _previousUnits.append(state->bindings.activate(_unit));
        TextureKnowledge(*this).noticeHostCode();
        return true;
    }
    const bool isNew = !_name->wasCreated();
    if (isNew ? !_name->create(NameKind::Texture) : !_name->isUsableIn(*state))
        return false;
    const int unit = state->takeUnit();
    if (unit < 0) {
        static bool reported = false;
        if (!std::exchange(reported, true)) {
            const HostCode hostCode;
            qCritical("No texture unit is left for texture '%s': %d are in use", qPrintable(label()),
                      state->unitCount());
        }
        return false;
    }
    _unit = unit;
    _boundIn = state->id;
    _boundEpoch = threadContext().bindingEpoch;
    _previousUnits.append(state->bindings.activate(unit));
    _previousTexture = state->bindings.takeTexture(unit, _target, _name->id());
    _previousSampler = state->hasSamplerObjects ? state->bindings.takeSampler(unit) : 0;
    if (isNew)
        state->labelObject(GL_TEXTURE, _name->id(), label());
    return true;
}

// Also from the destructor, and then any context may be current.
bool Texture::unbind()
{
    if (_previousUnits.isEmpty())
        return false;
    TextureKnowledge(*this).noticeHostCode();
    const unsigned int previousUnit = _previousUnits.last();
    _previousUnits.removeLast();
    const bool isLast = _previousUnits.isEmpty();
    const int unit = isLast ? std::exchange(_unit, -1) : _unit;
    ContextState *const current = ContextState::current();
    ContextState *const state = ContextState::find(_boundIn);
    if (isLast && state)
        state->giveBackUnit(unit);
    if (!state || state != current)
        return false;
    if (isLast) {
        state->bindings.giveBackTexture(unit, _target, _previousTexture);
        if (_previousSampler)
            state->bindings.giveBackSampler(unit, _previousSampler);
    }
    state->bindings.giveBackUnit(previousUnit);
    return true;
}

OwnUse::OwnUse(Texture *texture) : _texture(texture), _hadOthers(texture && texture->_hadUses) {}

void OwnUse::begin(Texture *texture)
{
    texture->_hadUses = false;
}

OwnUse::~OwnUse()
{
    if (_texture)
        _texture->_hadUses = _hadOthers;
}

bool Texture::isUsable() const
{
    const ContextState *state = ContextState::current();
    return state && (!_name->wasCreated() || _name->isUsableIn(*state));
}

// The wrapper is as good as new afterwards, and reads as gone from slots until it is used again.
void Texture::freeStorage()
{
    *_name = ObjectName();
    _known = {};
    leaveLiveObject(static_cast<QObject *>(this));
}

void Texture::reuse()
{
    enterLiveObject(static_cast<QObject *>(this), LiveKind::Texture);
}

// Slots that still name a texture which is gone know its address only, and must not take the next texture
// for it. So an address rests until many others have been used.
void *Texture::operator new(std::size_t size)
{
    return ::operator new(size);
}

void Texture::operator delete(void *memory)
{
#if defined(__SANITIZE_ADDRESS__)
    ::operator delete(memory); // the sanitizer lets addresses rest too, and knows who uses them meanwhile
#else
    constexpr std::size_t kResting = 256;
    static std::array<void *, kResting> resting{};
    static std::size_t next = 0;
    ::operator delete(std::exchange(resting[next], memory));
    next = (next + 1) % kResting;
#endif
}

int Texture::unit() const
{
    return _unit;
}

unsigned int Texture::textureID() const
{
    _hadUses = true;
    if (threadContext().bindingScopes == 0)
        _known.isShown = true;
    return _name->id();
}

void Texture::setFilter(unsigned int filter)
{
    setFilter(filter, filter);
}

void Texture::setFilter(unsigned int minification, unsigned int magnification)
{
    TextureKnowledge(*this).setBound(minification, magnification, 0, 0);
}

void Texture::setWrap(unsigned int wrap)
{
    TextureKnowledge(*this).setBound(0, 0, wrap, wrap);
    if (_target == GL_TEXTURE_CUBE_MAP || _target == GL_TEXTURE_3D)
        glTexParameteri(_target, GL_TEXTURE_WRAP_R, GLint(wrap));
}

void Texture::setReadOnly()
{
    _readOnly = true;
}

bool Texture::isReadOnly() const
{
    return _readOnly;
}

void Texture::setLabel(const QString &label)
{
    setObjectName(label);
    // GL takes a label only once the object exists, which is at its first bind.
    if (const ContextState *state = ContextState::current(); state && _name->isUsableIn(*state))
        state->labelObject(GL_TEXTURE, _name->id(), label);
}

QString Texture::label() const
{
    return objectName();
}

QVariant textureToVariant(Texture *texture)
{
    return QVariant::fromValue(static_cast<QObject *>(texture));
}

Texture *textureFromVariant(const QVariant &value)
{
    return liveObjectIn<Texture>(value, LiveKind::Texture);
}

} // namespace Brevane::Kvo
