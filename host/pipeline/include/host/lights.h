#pragma once

#include "host/export.h"
#include "shadows/shadowmaplight.h"

#include <QString>
#include <QVariantList>

namespace Brevane::Kvo {

/// A light from a text:
///
/// | Text                                        | Light                                                     |
/// |---------------------------------------------|-----------------------------------------------------------|
/// | directional:dx,dy,dz[,cascades]             | parallel light along a direction, 1 to 4 cascades         |
/// | spot:x,y,z,dx,dy,dz[,angle[,range]]         | a cone from a place along a direction, angle in degrees   |
/// | point:x,y,z[,range]                         | light in all directions from a place                      |
///
/// Settings may follow, joined by ':', with the names of the members of ShadowMapLight:
/// "directional:0.3,-1,0.2,3:color=#ffe0c0:intensity=0.8:distance=40". False, with the reason, for anything
/// else. Whether the light can be used shows when shadows are drawn.
KVO_PIPELINE_EXPORT bool parseLight(const QString &text, ShadowMapLight *light, QString *error);

/// Lights as the host value "lights" and the shadow passes take them.
KVO_PIPELINE_EXPORT QVariantList lightsToVariant(const QVector<ShadowMapLight> &lights);

} // namespace Brevane::Kvo
