#include "shadows/shadowmaprenderdata.h"

#include "core/liveobjects.h"
#include "gl/texture.h"

#include <QVariant>

namespace Brevane::Kvo {

ShadowMapRenderData::ShadowMapRenderData(QObject *parent) : QObject(parent)
{
    enterLiveObject(static_cast<QObject *>(this), LiveKind::Record);
}

ShadowMapRenderData::ShadowMapRenderData(const ShadowMapRenderData &other) : ShadowMapRenderData(nullptr)
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

ShadowMapRenderData::~ShadowMapRenderData()
{
    leaveLiveObject(static_cast<QObject *>(this));
}

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
    return liveObjectIn<ShadowMapRenderData>(value, LiveKind::Record);
}

} // namespace Brevane::Kvo
