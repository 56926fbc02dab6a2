#include "gl/texture.h"

#include "core/liveobjects.h"
#include "gl/boundnow.h"
#include "gl/contextstate.h"
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
    case GL_TEXTURE_BUFFER: return GL_TEXTURE_BINDING_BUFFER;
    case GL_TEXTURE_RECTANGLE: return GL_TEXTURE_BINDING_RECTANGLE;
    case GL_TEXTURE_2D_MULTISAMPLE: return GL_TEXTURE_BINDING_2D_MULTISAMPLE;
    case GL_TEXTURE_2D_MULTISAMPLE_ARRAY: return GL_TEXTURE_BINDING_2D_MULTISAMPLE_ARRAY;
    default: return GL_TEXTURE_BINDING_2D;
    }
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

bool Texture::bind()
{
    _hadUses = true;
    ContextState *state = ContextState::current();
    if (!state || !_target)
        return false;
    if (!_previousUnits.isEmpty()) {
        if (_boundIn != state->id)
            return false;
        _previousUnits.append(boundNow(GL_ACTIVE_TEXTURE));
        glActiveTexture(GL_TEXTURE0 + unsigned(_unit));
        return true;
    }
    const bool isNew = !_name->wasCreated();
    if (isNew ? !_name->create(NameKind::Texture) : !_name->isUsableIn(*state))
        return false;
    const int unit = state->takeUnit();
    if (unit < 0) {
        static bool reported = false;
        if (!std::exchange(reported, true))
            qCritical("No texture unit is left for texture '%s': %d are in use", qPrintable(label()),
                      state->unitCount());
        return false;
    }
    _unit = unit;
    _boundIn = state->id;
    _previousUnits.append(boundNow(GL_ACTIVE_TEXTURE));
    glActiveTexture(GL_TEXTURE0 + unsigned(unit));
    _previousTexture = boundNow(textureBindingOf(_target));
    glBindTexture(_target, _name->id());
    _previousSampler = state->hasSamplerObjects ? boundNow(GL_SAMPLER_BINDING) : 0;
    if (_previousSampler)
        glBindSampler(unsigned(unit), 0);
    if (isNew)
        state->labelObject(GL_TEXTURE, _name->id(), label());
    return true;
}

// Also from the destructor, and then any context may be current.
bool Texture::unbind()
{
    if (_previousUnits.isEmpty())
        return false;
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
        glActiveTexture(GL_TEXTURE0 + unsigned(unit));
        glBindTexture(_target, _previousTexture);
        if (_previousSampler)
            glBindSampler(unsigned(unit), _previousSampler);
    }
    glActiveTexture(previousUnit);
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
    return _name->id();
}

void Texture::setFilter(unsigned int filter)
{
    setFilter(filter, filter);
}

void Texture::setFilter(unsigned int minification, unsigned int magnification)
{
    glTexParameteri(_target, GL_TEXTURE_MIN_FILTER, GLint(minification));
    glTexParameteri(_target, GL_TEXTURE_MAG_FILTER, GLint(magnification));
}

void Texture::setWrap(unsigned int wrap)
{
    glTexParameteri(_target, GL_TEXTURE_WRAP_S, GLint(wrap));
    glTexParameteri(_target, GL_TEXTURE_WRAP_T, GLint(wrap));
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
    QObject *object = nullptr;
    if (value.metaType() == QMetaType::fromType<Texture *>())
        object = *static_cast<Texture *const *>(value.constData());
    else if (value.metaType() == QMetaType(QMetaType::QObjectStar))
        object = *static_cast<QObject *const *>(value.constData());
    return liveKindOf(object) == LiveKind::Texture ? static_cast<Texture *>(object) : nullptr;
}

} // namespace Brevane::Kvo
