#pragma once

#include "gl/export.h"

#include <QMetaType>
#include <QVector3D>

namespace Brevane::Kvo {

/// A light that casts shadows: plain data, in world space. Lists of lights hold it by value or by
/// pointer: `QVariantList{QVariant::fromValue(light)}`.
///
/// What is 0 by default is worked out from the scene's box. A light that cannot be used (a number that is
/// not finite, a direction of length 0, a near plane that is not in front of the far one) is reported
/// through qCritical, once for as long as the fault stays, and left out: it takes no layers and gives no light,
/// whatever other lights there are.
struct ShadowMapLight
{
    /// Where light comes from.
    enum class Type {
        Directional, ///< Parallel light, as from the sun: one layer per cascade.
        Spot, ///< A cone: one layer.
        Point, ///< All directions: six layers, +x, -x, +y, -y, +z, -z.
    };

    /// Parallel light along \a direction, with 1 to 4 cascades.
    KVO_GL_EXPORT static ShadowMapLight directional(const QVector3D &direction, int cascades = 1);
    /// A cone from \a position along \a direction, of an opening angle in degrees.
    KVO_GL_EXPORT static ShadowMapLight spot(const QVector3D &position, const QVector3D &direction, float angle,
                                             float range = 0.0f);
    /// Light in all directions.
    KVO_GL_EXPORT static ShadowMapLight point(const QVector3D &position, float range = 0.0f);

    Type type = Type::Directional; ///< Where its light comes from.
    /// Off: it gives no light and no map is drawn for it, but its layers stay reserved, so that switching it
    /// makes no textures.
    bool enabled = true;
    QVector3D position; ///< Of a spot or point light.
    QVector3D direction{0.0f, -1.0f, 0.0f}; ///< Along which light travels, of any length but 0. Not for point lights.
    QVector3D color{1.0f, 1.0f, 1.0f}; ///< Linear RGB. For shading only.
    float intensity = 1.0f; ///< Factor on color, with a finite product. For shading only.

    /// Distance from a spot or point light up to which it casts shadows; 0: to the end of the scene.
    float range = 0.0f;
    /// Distance from a spot or point light at which its maps begin, along the axis of the cone or of a side of
    /// the cube; what is nearer casts no shadow. ShadowMapRenderPass draws what lies behind it all the same; in
    /// the maps of ShadowMapRenderPass2 it leaves a hole, from half of that distance on. 0: where the scene
    /// begins, but no less than a twentieth and no more than nine tenths of where the maps end, which is 1.05
    /// times the range, or the end of the scene.
    float nearPlane = 0.0f;
    float angle = 60.0f; ///< Full opening angle of a spot light in degrees, above 0 and below 170.
    float softAngle = 5.0f; ///< Part of that angle over which the light fades out. For shading only.

    /// Parts that the view of the camera is cut into for a directional light, 1 to 4. There are always so
    /// many layers; without a camera each covers the scene.
    int cascades = 1;
    /// Where the cuts lie, from 0, parts of equal depth, to 1, depths that grow by a constant factor.
    float splitBalance = 0.6f;
    /// Distance from the camera up to which a directional light casts shadows; 0: to the far plane.
    float distance = 0.0f;
};

} // namespace Brevane::Kvo

Q_DECLARE_METATYPE(Brevane::Kvo::ShadowMapLight)
Q_DECLARE_METATYPE(Brevane::Kvo::ShadowMapLight *)
