#pragma once

#include "host/camera.h"
#include "host/export.h"
#include "model/gpumodel.h"

#include <QMatrix4x4>
#include <QPointF>
#include <QSizeF>
#include <QString>
#include <QVector3D>

#include <optional>

namespace Brevane::Kvo {

/// The camera of a viewport: looks at a pivot from a direction and a distance, and moves as a hand on a mouse asks
/// it to. Pure mathematics, without a window and without GL.
///
/// With +y up, at yaw 0 and pitch 0 the eye lies on the +z side of the pivot; yaw turns it towards +x, pitch lifts
/// it. With +z up it starts on the -y side. Angles are in degrees.
///
/// Positions on the picture count from its upper left corner, as those of events do, in the unit of the picture's
/// size. A picture without a width or height counts as square.
class KVO_SCENE_EXPORT OrbitCamera
{
public:
    /// Where the eye of a standard view is.
    enum class View { Front, Back, Left, Right, Top, Bottom, Isometric };

    // What is looked at, and from where

    /// What it looks at.
    QVector3D pivot() const { return _pivot; }
    float yaw() const { return _yaw; } ///< -180 to 180.
    float pitch() const { return _pitch; } ///< -90 to 90.
    float distance() const { return _distance; } ///< From the eye to the pivot, above 0.
    float fieldOfView() const { return _fieldOfView; } ///< Vertical opening angle, 1 to 170.
    /// Whether the picture is without perspective.
    bool isOrthographic() const { return _orthographic; }
    /// The axis that points up.
    QVector3D up() const { return _up; }

    // Values that are not finite, and an up of no length, change nothing; others are brought into their range.
    /// Looks at another point; the eye goes along.
    void setPivot(const QVector3D &pivot);
    /// In degrees.
    void setAngles(float yaw, float pitch);
    /// From the eye to the pivot.
    void setDistance(float distance);
    /// Vertical opening angle, brought into 1 to 170.
    void setFieldOfView(float degrees);
    /// A picture without perspective, in which things at the pivot have the size that they have with it.
    void setOrthographic(bool orthographic) { _orthographic = orthographic; }
    /// The axis that points up: +y, +z or any other.
    void setUp(const QVector3D &up);
    /// The box that clip planes enclose and fit shows: that of the model.
    void setScene(const GPUModel::BoundingBox &bounds);
    /// See setScene.
    GPUModel::BoundingBox scene() const { return _scene; }

    // Movements

    /// Turns around the pivot.
    void orbit(float yawBy, float pitchBy);
    /// Moves with the hand: what lies at \a point, or in the plane of the pivot, goes from one place of the picture
    /// to the other.
    void pan(const QPointF &from, const QPointF &to, const QSizeF &picture,
             const std::optional<QVector3D> &point = std::nullopt);
    /// Comes nearer by a factor (2: half the distance). What lies at \a point, or where the plane of the pivot is
    /// seen at \a at, stays where it is on the picture.
    void zoom(float factor, const QPointF &at, const QSizeF &picture,
              const std::optional<QVector3D> &point = std::nullopt);
    /// Looks at all of the scene, as near as the sphere around it allows, from the same direction.
    void fit(float aspect);
    /// The same for a part of it.
    void fit(const GPUModel::BoundingBox &bounds, float aspect);
    /// Looks from a standard direction; pivot and distance stay.
    void look(View view);

    // What passes get

    /// Where it stands.
    QVector3D eye() const;
    /// From the eye to the pivot, of length 1.
    QVector3D forward() const;
    /// To the right on the picture, of length 1.
    QVector3D right() const;
    /// Up on the picture.
    QVector3D upward() const;
    /// Distance of the near clip plane, which follows from the scene.
    float nearPlane() const { return clipPlanes().nearPlane; }
    /// Distance of the far clip plane, which follows from the scene.
    float farPlane() const { return clipPlanes().farPlane; }
    /// World to camera space.
    QMatrix4x4 cameraMatrix() const;
    /// Camera to clip space; \a aspect is width by height.
    QMatrix4x4 projectionMatrix(float aspect) const;

    /// Where a point of the world is on the picture; nothing for one behind the eye.
    std::optional<QPointF> project(const QVector3D &point, const QSizeF &picture) const;
    /// The point in the plane of the pivot that is seen at a place of the picture.
    QVector3D pointAt(const QPointF &at, const QSizeF &picture) const;
    /// A text that Camera::parse and `kvorender --camera` read, for a picture in perspective.
    QString settings() const;

    /// Whether they show the same scene from the same place.
    bool operator==(const OrbitCamera &other) const;

private:
    struct ClipPlanes
    {
        float back; ///< How far behind its place an orthographic eye stands, so that nothing is behind it.
        float nearPlane;
        float farPlane;
    };
    ClipPlanes clipPlanes() const;
    float halfHeight() const;

    QVector3D _pivot;
    float _yaw = -30.0f;
    float _pitch = 20.0f;
    float _distance = 5.0f;
    float _fieldOfView = 45.0f;
    bool _orthographic = false;
    QVector3D _up{0.0f, 1.0f, 0.0f};
    GPUModel::BoundingBox _scene{{-1.0f, -1.0f, -1.0f}, {1.0f, 1.0f, 1.0f}};
};

} // namespace Brevane::Kvo
