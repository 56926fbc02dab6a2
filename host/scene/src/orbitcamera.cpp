#include "host/orbitcamera.h"

#include "gl/direction.h"

#include <QQuaternion>
#include <QtMath>

#include <algorithm>
#include <cmath>

namespace Brevane::Kvo {

namespace {

constexpr float kLeastDistance = 1e-12f;
constexpr float kLargestDistance = 1e18f;
// With a smaller ratio of near to far a 24-bit depth buffer shows it.
constexpr float kNearestOfFar = 1.0f / 10000.0f;
// Beyond the sphere, so that rounding cuts nothing off; and air around what fits.
constexpr float kSlack = 1.01f;
constexpr float kMargin = 1.02f;
// A corner of a cube, seen along its diagonal.
constexpr float kIsometricYaw = 45.0f;
constexpr float kIsometricPitch = 35.264390f;

bool isFinite(const QVector3D &vector)
{
    return std::isfinite(vector.x()) && std::isfinite(vector.y()) && std::isfinite(vector.z());
}

QVector3D centerOf(const GPUModel::BoundingBox &bounds)
{
    return bounds.minimum + (bounds.maximum - bounds.minimum) / 2.0f;
}

// A single point is given some size, so that it can be looked at.
float radiusOf(const GPUModel::BoundingBox &bounds)
{
    const float radius = (bounds.maximum - bounds.minimum).length() / 2.0f;
    return radius > 0.0f && std::isfinite(radius) ? radius : 1.0f;
}

float aspectOf(const QSizeF &picture)
{
    return picture.width() > 0.0 && picture.height() > 0.0 ? float(picture.width() / picture.height()) : 1.0f;
}

// -1 to 1, upwards.
QPointF normalized(const QPointF &at, const QSizeF &picture)
{
    if (picture.width() <= 0.0 || picture.height() <= 0.0)
        return QPointF();
    return {2.0 * at.x() / picture.width() - 1.0, 1.0 - 2.0 * at.y() / picture.height()};
}

// Out of the frame of +y up.
QVector3D turned(const QVector3D &direction, const QVector3D &up)
{
    return QQuaternion::rotationTo(QVector3D(0.0f, 1.0f, 0.0f), up).rotatedVector(direction);
}

} // namespace

void OrbitCamera::setPivot(const QVector3D &pivot)
{
    if (isFinite(pivot))
        _pivot = pivot;
}

void OrbitCamera::setAngles(float yaw, float pitch)
{
    if (!std::isfinite(yaw) || !std::isfinite(pitch))
        return;
    _yaw = std::remainder(yaw, 360.0f);
    _pitch = std::clamp(pitch, -90.0f, 90.0f);
}

void OrbitCamera::setDistance(float distance)
{
    if (!std::isnan(distance))
        _distance = std::clamp(distance, kLeastDistance, kLargestDistance);
}

void OrbitCamera::setFieldOfView(float degrees)
{
    if (!std::isnan(degrees))
        _fieldOfView = std::clamp(degrees, 1.0f, 170.0f);
}

void OrbitCamera::setUp(const QVector3D &up)
{
    if (isFinite(up) && !up.isNull())
        _up = directionOf(up);
}

void OrbitCamera::setScene(const GPUModel::BoundingBox &bounds)
{
    if (isFinite(bounds.minimum) && isFinite(bounds.maximum))
        _scene = bounds;
}

void OrbitCamera::orbit(float yawBy, float pitchBy)
{
    setAngles(_yaw + yawBy, _pitch + pitchBy);
}

void OrbitCamera::pan(const QPointF &from, const QPointF &to, const QSizeF &picture,
                      const std::optional<QVector3D> &point)
{
    const QPointF moved = normalized(to, picture) - normalized(from, picture);
    // Half the height of the picture where the point is: all of the plane at its depth moves alike.
    float half = halfHeight();
    if (point && !_orthographic) {
        const float depth = QVector3D::dotProduct(*point - eye(), forward());
        if (depth > 0.0f)
            half *= depth / _distance;
    }
    setPivot(_pivot - right() * float(moved.x()) * half * aspectOf(picture) - upward() * float(moved.y()) * half);
}

void OrbitCamera::zoom(float factor, const QPointF &at, const QSizeF &picture, const std::optional<QVector3D> &point)
{
    if (!(factor > 0.0f) || !std::isfinite(factor))
        return;
    // Shrinking all distances to a point leaves the direction in which it is seen.
    const QVector3D still = point.value_or(pointAt(at, picture));
    const float before = _distance;
    setDistance(_distance / factor);
    setPivot(still + (_pivot - still) * (_distance / before));
}

void OrbitCamera::fit(float aspect)
{
    fit(_scene, aspect);
}

void OrbitCamera::fit(const GPUModel::BoundingBox &bounds, float aspect)
{
    if (!isFinite(bounds.minimum) || !isFinite(bounds.maximum) || !(aspect > 0.0f))
        return;
    // The narrower side of the picture decides. Without perspective the sphere then has more room than it needs.
    const float tangent = std::tan(qDegreesToRadians(_fieldOfView) / 2.0f) * std::min(1.0f, aspect);
    setPivot(centerOf(bounds));
    setDistance(radiusOf(bounds) * kMargin * std::sqrt(1.0f + tangent * tangent) / tangent);
}

void OrbitCamera::look(View view)
{
    switch (view) {
    case View::Front: setAngles(0.0f, 0.0f); break;
    case View::Back: setAngles(180.0f, 0.0f); break;
    case View::Left: setAngles(-90.0f, 0.0f); break;
    case View::Right: setAngles(90.0f, 0.0f); break;
    case View::Top: setAngles(0.0f, 90.0f); break;
    case View::Bottom: setAngles(0.0f, -90.0f); break;
    case View::Isometric: setAngles(kIsometricYaw, kIsometricPitch); break;
    }
}

QVector3D OrbitCamera::eye() const
{
    return _pivot - forward() * _distance;
}

QVector3D OrbitCamera::forward() const
{
    const float lift = qDegreesToRadians(_pitch);
    const float turn = qDegreesToRadians(_yaw);
    return turned({-std::cos(lift) * std::sin(turn), -std::sin(lift), -std::cos(lift) * std::cos(turn)}, _up);
}

// By the angles and not by a cross product with up, which has no direction straight above and below.
QVector3D OrbitCamera::right() const
{
    const float turn = qDegreesToRadians(_yaw);
    return turned({std::cos(turn), 0.0f, -std::sin(turn)}, _up);
}

QVector3D OrbitCamera::upward() const
{
    return QVector3D::crossProduct(right(), forward());
}

float OrbitCamera::halfHeight() const
{
    return _distance * std::tan(qDegreesToRadians(_fieldOfView) / 2.0f);
}

OrbitCamera::ClipPlanes OrbitCamera::clipPlanes() const
{
    const float radius = radiusOf(_scene) * kSlack;
    const float distance = QVector3D::dotProduct(centerOf(_scene) - eye(), forward());
    if (_orthographic) {
        const float back = std::max(0.0f, radius - distance) + radius * 0.01f;
        const float nearest = std::max(distance + back - radius, radius * 0.01f);
        return {back, nearest, std::max(distance + back + radius, nearest * 2.0f)};
    }
    const float farthest = std::max(distance + radius, radius * 0.01f);
    return {0.0f, std::max(distance - radius, farthest * kNearestOfFar), farthest};
}

QMatrix4x4 OrbitCamera::cameraMatrix() const
{
    const QVector3D x = right();
    const QVector3D y = upward();
    const QVector3D z = -forward();
    QMatrix4x4 matrix(x.x(), x.y(), x.z(), 0.0f, y.x(), y.y(), y.z(), 0.0f, z.x(), z.y(), z.z(), 0.0f, 0.0f, 0.0f, 0.0f,
                      1.0f);
    matrix.translate(-(eye() + z * clipPlanes().back));
    return matrix;
}

QMatrix4x4 OrbitCamera::projectionMatrix(float aspect) const
{
    const ClipPlanes planes = clipPlanes();
    QMatrix4x4 matrix;
    if (_orthographic) {
        const float half = halfHeight();
        matrix.ortho(-half * aspect, half * aspect, -half, half, planes.nearPlane, planes.farPlane);
    } else {
        matrix.perspective(_fieldOfView, aspect, planes.nearPlane, planes.farPlane);
    }
    return matrix;
}

std::optional<QPointF> OrbitCamera::project(const QVector3D &point, const QSizeF &picture) const
{
    const QVector3D seen = point - eye();
    const float depth = QVector3D::dotProduct(seen, forward());
    if (!_orthographic && depth <= 0.0f)
        return std::nullopt;
    const float half = _orthographic ? halfHeight() : halfHeight() * depth / _distance;
    const double x = double(QVector3D::dotProduct(seen, right()) / (half * aspectOf(picture)));
    const double y = double(QVector3D::dotProduct(seen, upward()) / half);
    return QPointF((x + 1.0) / 2.0 * picture.width(), (1.0 - y) / 2.0 * picture.height());
}

QVector3D OrbitCamera::pointAt(const QPointF &at, const QSizeF &picture) const
{
    const QPointF place = normalized(at, picture);
    const float half = halfHeight();
    return _pivot + right() * float(place.x()) * half * aspectOf(picture) + upward() * float(place.y()) * half;
}

QString OrbitCamera::settings() const
{
    const auto number = [](float value) { return QString::number(double(value), 'g', 9); };
    const auto triple = [&](const QVector3D &v) {
        return QStringLiteral("%1,%2,%3").arg(number(v.x()), number(v.y()), number(v.z()));
    };
    // The axis, which whoever reads it can turn around again, but where it has no direction on the picture.
    const QVector3D up = std::abs(_pitch) > 89.0f ? upward() : _up;
    return QStringLiteral("eye=%1:target=%2:up=%3:fov=%4:near=%5:far=%6")
        .arg(triple(eye()), triple(_pivot), triple(up), number(_fieldOfView), number(nearPlane()), number(farPlane()));
}

bool OrbitCamera::operator==(const OrbitCamera &other) const
{
    return _pivot == other._pivot && _yaw == other._yaw && _pitch == other._pitch && _distance == other._distance
           && _fieldOfView == other._fieldOfView && _orthographic == other._orthographic && _up == other._up
           && _scene.minimum == other._scene.minimum && _scene.maximum == other._scene.maximum;
}

} // namespace Brevane::Kvo
