#pragma once

#include "host/export.h"
#include "model/gpumodel.h"

#include <QMatrix4x4>
#include <QString>
#include <QVector3D>

namespace Brevane::Kvo {

/// A perspective camera in world space. Angles are in degrees.
class KVO_SCENE_EXPORT Camera
{
public:
    QVector3D eye{0.0f, 0.0f, 5.0f}; ///< Where it stands.
    QVector3D target{0.0f, 0.0f, 0.0f}; ///< What it looks at.
    QVector3D up{0.0f, 1.0f, 0.0f}; ///< What is up on the picture.
    float fieldOfView = 45.0f; ///< Vertical opening angle.
    float nearPlane = 0.1f; ///< Distance of the near clip plane.
    float farPlane = 100.0f; ///< Distance of the far clip plane.

    /// Looks from \a eye to \a target.
    void lookAt(const QVector3D &eye, const QVector3D &target, const QVector3D &up = QVector3D(0, 1, 0));
    /// Looks at \a center from a distance, with \ref up as it is. With +y up, at yaw 0 and pitch 0 the eye
    /// lies on the +z side; yaw turns it towards +x, pitch lifts it (-89 to 89). With +z up it starts on
    /// the -y side.
    void orbit(const QVector3D &center, float yaw, float pitch, float distance);
    /// Looks at a box from a direction, as near as its corners allow to stay in the picture with a little
    /// air, and sets the clip planes to it. A zoom of 2 comes twice as near.
    void fit(const GPUModel::BoundingBox &bounds, float yaw, float pitch, float aspect, float zoom = 1.0f);
    /// Sets the clip planes as tight around a box as the depth range should be used. The near plane
    /// stays in front of the eye when the eye is in the box.
    void setDepthRange(const GPUModel::BoundingBox &bounds);

    /// World to camera space.
    QMatrix4x4 cameraMatrix() const;
    /// Camera to clip space; \a aspect is width by height.
    QMatrix4x4 projectionMatrix(float aspect) const;

    /// Reads a camera from a text of settings, separated by ':' or ';': "yaw=45:pitch=10", with
    /// - yaw, pitch: direction to look from, -30 and 20 when not given; pitch runs from -90 to 90, and straight from
    ///   above or below the yaw tells what is up on the picture, and \ref up becomes that;
    /// - distance, or zoom (a factor on the distance that fits); target=x,y,z instead of the centre;
    /// - eye=x,y,z: a place to look from, instead of direction and distance; up=x,y,z;
    /// - fov: vertical opening angle; near, far: clip planes.
    /// "fit" or an empty text is all defaults. Of a setting that is given twice the last counts; eye goes before direction
    /// and distance. False, with the reason, for anything else.
    static bool parse(const QString &text, const GPUModel::BoundingBox &bounds, float aspect, Camera *camera,
                      QString *error);
};

} // namespace Brevane::Kvo
