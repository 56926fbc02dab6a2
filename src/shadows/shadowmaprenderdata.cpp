#include "shadows/shadowmaprenderdata.h"

#include "gl/texture.h"

#include <QVariant>

namespace Brevane::Kvo {

ShadowMapRenderData::ShadowMapRenderData(QObject *parent) : QObject(parent) {}

ShadowMapRenderData::ShadowMapRenderData(const ShadowMapRenderData &other) : QObject(nullptr)
{
    *this = other;
}

ShadowMapRenderData &ShadowMapRenderData::operator=(const ShadowMapRenderData &other)
{
    layerCount = other.layerCount;
    mostLayers = other.mostLayers;
    transforms = other.transforms;
    projectors = other.projectors;
    lights = other.lights;
    _projectionTexture = other._projectionTexture;
    _complaints = other._complaints;
    return *this;
}

ShadowMapRenderData::~ShadowMapRenderData() = default;

void ShadowMapRenderData::setProjectionTexture(Texture *texture)
{
    if (_projectionTexture != texture)
        _projectionTexture = texture;
}

Texture *ShadowMapRenderData::projectionTexture() const
{
    return static_cast<Texture *>(_projectionTexture.data());
}

ShadowMapRenderData *ShadowMapRenderData::fromVariant(const QVariant &value)
{
    return qobject_cast<ShadowMapRenderData *>(qvariant_cast<QObject *>(value));
}

} // namespace Brevane::Kvo
