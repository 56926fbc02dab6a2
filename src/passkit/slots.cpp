#include "passkit/slots.h"

#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/texture.h"
#include "model/gpumodel.h"

namespace Brevane::Kvo {

namespace {

QObject *objectIn(const QVariant &value)
{
    return value.metaType() == QMetaType(QMetaType::QObjectStar) ? *static_cast<QObject *const *>(value.constData())
                                                                 : nullptr;
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
    return value.metaType() == QMetaType::fromType<Texture *>() ? *static_cast<Texture *const *>(value.constData())
                                                                : nullptr;
}

Texture *objectTexture(const QVariant &value)
{
    return qobject_cast<Texture *>(objectIn(value));
}

Texture *anyTexture(const QVariant &value)
{
    return textureFromVariant(value);
}

GPUModel *modelOf(const QVariant &value)
{
    return value.metaType() == QMetaType::fromType<GPUModel *>() ? *static_cast<GPUModel *const *>(value.constData())
                                                                 : nullptr;
}

DrawBuffers *anyDrawBuffers(const QVariant &value)
{
    if (value.metaType() == QMetaType::fromType<DrawBuffers *>())
        return *static_cast<DrawBuffers *const *>(value.constData());
    return qobject_cast<DrawBuffers *>(objectIn(value));
}

FramebufferObject *framebufferOf(const QVariant &value)
{
    return qobject_cast<FramebufferObject *>(objectIn(value));
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
