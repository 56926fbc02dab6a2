#include "passkit/slots.h"

#include "core/liveobjects.h"
#include "core/renderpasshelper.h"
#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/texture.h"
#include "model/gpumodel.h"

#include <epoxy/gl.h>

#include <typeinfo>

namespace Brevane::Kvo {

namespace {

// Of a class that a host derived nobody knows what it binds.
template <typename T>
T *known(T *object)
{
    if (object && typeid(*object) != typeid(T))
        BindingScope::stopTracking();
    return object;
}

// An object of ours if it is still alive: a slot borrows what it names.
template <typename T>
T *ifAlive(QObject *object, LiveKind kind)
{
    return liveKindOf(object) == kind ? known(static_cast<T *>(object)) : nullptr;
}

template <typename T>
T *typedPointer(const QVariant &value)
{
    return value.metaType() == QMetaType::fromType<T *>() ? *static_cast<T *const *>(value.constData()) : nullptr;
}

} // namespace

bool hasValue(const QVariant &value)
{
    if (!value.isValid())
        return false;
    const bool isPointer = value.metaType().flags() & (QMetaType::IsPointer | QMetaType::PointerToQObject);
    return isPointer || !value.isNull();
}

Texture *typedTexture(const QVariant &value)
{
    return ifAlive<Texture>(typedPointer<Texture>(value), LiveKind::Texture);
}

Texture *objectTexture(const QVariant &value)
{
    return ifAlive<Texture>(objectIn(value), LiveKind::Texture);
}

Texture *anyTexture(const QVariant &value)
{
    return known(textureFromVariant(value));
}

Texture *ofKind(RenderPassHelper &pass, int slot, Texture *texture, TextureKind kind)
{
    const GLenum target = texture ? texture->target() : GLenum(GL_NONE);
    const bool hasSamples = target == GL_TEXTURE_2D_MULTISAMPLE;
    bool fits = false;
    switch (kind) {
    case TextureKind::Plain: fits = target == GL_TEXTURE_2D; break;
    case TextureKind::Cube: fits = target == GL_TEXTURE_CUBE_MAP; break;
    case TextureKind::Samples: fits = hasSamples; break;
    case TextureKind::PlainOrSamples: fits = hasSamples || target == GL_TEXTURE_2D; break;
    }
    if (fits || target == GL_NONE) {
        pass.acceptInput(slot);
        return fits ? texture : nullptr;
    }
    pass.reportInput(slot,
                     QStringLiteral("is a texture of GL target 0x%1, which the pass does not read; it is left out")
                         .arg(target, 4, 16, QLatin1Char('0')));
    return nullptr;
}

Texture *typedTexture(RenderPassHelper &pass, int slot, TextureKind kind)
{
    return ofKind(pass, slot, typedTexture(pass.inputValue(slot)), kind);
}

Texture *objectTexture(RenderPassHelper &pass, int slot, TextureKind kind)
{
    return ofKind(pass, slot, objectTexture(pass.inputValue(slot)), kind);
}

Texture *anyTexture(RenderPassHelper &pass, int slot, TextureKind kind)
{
    return ofKind(pass, slot, anyTexture(pass.inputValue(slot)), kind);
}

GPUModel *modelOf(const QVariant &value)
{
    GPUModel *model = typedPointer<GPUModel>(value);
    return liveKindOf(model) == LiveKind::Model ? model : nullptr;
}

DrawBuffers *anyDrawBuffers(const QVariant &value)
{
    return known(liveObjectIn<DrawBuffers>(value, LiveKind::DrawBuffers));
}

FramebufferObject *framebufferOf(const QVariant &value)
{
    return known(framebufferFromVariant(value));
}

QVariant objectForm(Texture *texture)
{
    return textureToVariant(texture);
}

QVariant typedForm(Texture *texture)
{
    return QVariant::fromValue(texture);
}

} // namespace Brevane::Kvo
