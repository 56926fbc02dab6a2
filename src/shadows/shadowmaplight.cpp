#include "shadows/shadowmaplight.h"

namespace Brevane::Kvo {

ShadowMapLight ShadowMapLight::directional(const QVector3D &direction, int cascades)
{
    ShadowMapLight light;
    light.direction = direction;
    light.cascades = cascades;
    return light;
}

ShadowMapLight ShadowMapLight::spot(const QVector3D &position, const QVector3D &direction, float angle, float range)
{
    ShadowMapLight light;
    light.type = Type::Spot;
    light.position = position;
    light.direction = direction;
    light.angle = angle;
    light.range = range;
    return light;
}

ShadowMapLight ShadowMapLight::point(const QVector3D &position, float range)
{
    ShadowMapLight light;
    light.type = Type::Point;
    light.position = position;
    light.range = range;
    return light;
}

} // namespace Brevane::Kvo
