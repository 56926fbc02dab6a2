#include "host/camera.h"

#include "gl/direction.h"
#include "host/slotname.h"

#include <QHash>
#include <QQuaternion>
#include <QRegularExpression>
#include <QStringList>
#include <QtMath>

#include <algorithm>
#include <cmath>
#include <optional>

namespace Brevane::Kvo {

namespace {

// The fixed light of the lit passes comes from the upper right of the camera: seen from the left, the front
// of a model lies in it.
constexpr float kDefaultYaw = -30.0f;
constexpr float kDefaultPitch = 20.0f;
constexpr float kMargin = 1.05f; // Air around a model that fits.
// With a smaller ratio of near to far a 24-bit depth buffer shows it.
constexpr float kNearestOfFar = 1.0f / 10000.0f;

QVector3D centerOf(const GPUModel::BoundingBox &bounds)
{
    return (bounds.minimum + bounds.maximum) / 2.0f;
}

// A single point is given some size, so that it can be looked at.
float radiusOf(const GPUModel::BoundingBox &bounds)
{
    const float radius = (bounds.maximum - bounds.minimum).length() / 2.0f;
    return radius > 0.0f && std::isfinite(radius) ? radius : 1.0f;
}

std::optional<QVector3D> vectorFrom(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char(','));
    if (parts.size() != 3)
        return {};
    QVector3D vector;
    for (int i = 0; i < 3; ++i) {
        bool ok = false;
        vector[i] = parts[i].trimmed().toFloat(&ok);
        if (!ok || !std::isfinite(vector[i]))
            return {};
    }
    return vector;
}

struct Settings
{
    QHash<QString, float> numbers;
    QHash<QString, QVector3D> vectors;
};

bool readSettings(const QString &text, Settings *settings, QString *error)
{
    static const QStringList kNumbers{QStringLiteral("yaw"),  QStringLiteral("pitch"), QStringLiteral("distance"),
                                      QStringLiteral("zoom"), QStringLiteral("fov"),   QStringLiteral("near"),
                                      QStringLiteral("far")};
    static const QStringList kVectors{QStringLiteral("eye"), QStringLiteral("target"), QStringLiteral("up")};
    static const QRegularExpression kSeparator(QStringLiteral("[:;]"));
    if (text.trimmed().isEmpty() || text.trimmed() == QLatin1StringView("fit"))
        return true;
    for (const QString &part : text.split(kSeparator, Qt::SkipEmptyParts)) {
        const QString key = part.section(QLatin1Char('='), 0, 0).trimmed();
        const QString value = part.section(QLatin1Char('='), 1).trimmed();
        if (kNumbers.contains(key)) {
            bool ok = false;
            settings->numbers[key] = value.toFloat(&ok);
            if (ok && std::isfinite(settings->numbers[key]))
                continue;
            *error = QStringLiteral("camera: '%1' takes a number, not '%2'").arg(key, value);
        } else if (kVectors.contains(key)) {
            const auto vector = vectorFrom(value);
            if (vector) {
                settings->vectors[key] = *vector;
                continue;
            }
            *error = QStringLiteral("camera: '%1' takes x,y,z, not '%2'").arg(key, value);
        } else {
            *error = QStringLiteral("camera: there is no setting '%1'%2")
                         .arg(key, nearestNameHint(key, kNumbers + kVectors));
        }
        return false;
    }
    return true;
}

bool checkRanges(const Settings &settings, QString *error)
{
    struct Range
    {
        const char *name;
        float minimum;
        float maximum;
    };
    constexpr float kLarge = 1e18f;
    for (const Range &range :
         {Range{"pitch", -90, 90}, Range{"distance", 1e-18f, kLarge}, Range{"zoom", 1e-6f, 1e6f},
          Range{"fov", 0.1f, 179.0f}, Range{"near", 1e-18f, kLarge}, Range{"far", 1e-18f, kLarge}}) {
        const auto found = settings.numbers.constFind(QLatin1StringView(range.name));
        if (found == settings.numbers.constEnd() || (*found >= range.minimum && *found <= range.maximum))
            continue;
        *error = range.maximum == kLarge ? QStringLiteral("camera: '%1' has to be above 0, not %2")
                                               .arg(QLatin1StringView(range.name))
                                               .arg(*found)
                                         : QStringLiteral("camera: '%1' runs from %2 to %3, not %4")
                                               .arg(QLatin1StringView(range.name))
                                               .arg(range.minimum)
                                               .arg(range.maximum)
                                               .arg(*found);
        return false;
    }
    return true;
}

} // namespace

void Camera::lookAt(const QVector3D &newEye, const QVector3D &newTarget, const QVector3D &newUp)
{
    eye = newEye;
    target = newTarget;
    up = newUp;
}

namespace {

// Nearer to straight above, "up" would have no direction on the picture.
constexpr float kSteepest = 89.0f;

// Where the eye stands, seen from what it looks at, and what is up on the picture.
struct Sight
{
    QVector3D towardsEye;
    QVector3D upwards;
};

Sight sightOf(const QVector3D &up, float yaw, float pitch)
{
    const float lift = qDegreesToRadians(pitch);
    const float turn = qDegreesToRadians(yaw);
    const QQuaternion upright = QQuaternion::rotationTo(QVector3D(0.0f, 1.0f, 0.0f), directionOf(up));
    return {
        upright.rotatedVector({std::cos(lift) * std::sin(turn), std::sin(lift), std::cos(lift) * std::cos(turn)}),
        upright.rotatedVector({-std::sin(lift) * std::sin(turn), std::cos(lift), -std::sin(lift) * std::cos(turn)})};
}

// Every corner of the box asks for a distance at which it lies on the edge of the picture.
float fittingDistance(const GPUModel::BoundingBox &bounds, const Sight &sight, float fieldOfView, float aspect)
{
    const float halfHeight = std::tan(qDegreesToRadians(fieldOfView) / 2.0f);
    const float halfWidth = halfHeight * aspect;
    const QVector3D center = centerOf(bounds);
    const QVector3D right = QVector3D::crossProduct(sight.upwards, sight.towardsEye);
    float distance = 0.0f;
    for (int corner = 0; corner < 8; ++corner) {
        const QVector3D p = QVector3D(corner & 1 ? bounds.maximum.x() : bounds.minimum.x(),
                                      corner & 2 ? bounds.maximum.y() : bounds.minimum.y(),
                                      corner & 4 ? bounds.maximum.z() : bounds.minimum.z())
                            - center;
        const float aside = std::max(std::abs(QVector3D::dotProduct(p, right)) / halfWidth,
                                     std::abs(QVector3D::dotProduct(p, sight.upwards)) / halfHeight);
        distance = std::max(distance, QVector3D::dotProduct(p, sight.towardsEye) + aside);
    }
    if (!(distance > 0.0f) || !std::isfinite(distance))
        distance = 2.0f * radiusOf(bounds) / halfHeight;
    return distance * kMargin;
}

} // namespace

void Camera::orbit(const QVector3D &center, float yaw, float pitch, float distance)
{
    const QVector3D towardsEye = sightOf(up, yaw, std::clamp(pitch, -kSteepest, kSteepest)).towardsEye;
    lookAt(center + towardsEye * distance, center, up);
}

void Camera::fit(const GPUModel::BoundingBox &bounds, float yaw, float pitch, float aspect, float zoom)
{
    const Sight sight = sightOf(up, yaw, std::clamp(pitch, -kSteepest, kSteepest));
    orbit(centerOf(bounds), yaw, pitch, fittingDistance(bounds, sight, fieldOfView, aspect) / zoom);
    setDepthRange(bounds);
}

void Camera::setDepthRange(const GPUModel::BoundingBox &bounds)
{
    const float radius = radiusOf(bounds);
    const float distance = QVector3D::dotProduct(centerOf(bounds) - eye, directionOf(target - eye));
    // A little more than the sphere, so that rounding cuts nothing off.
    farPlane = std::max(distance + radius * 1.01f, radius * 0.01f);
    nearPlane = std::max(distance - radius * 1.01f, farPlane * kNearestOfFar);
}

QMatrix4x4 Camera::cameraMatrix() const
{
    QMatrix4x4 matrix;
    // By directions: lookAt does nothing where the two places are less than 1e-5 apart.
    matrix.lookAt(QVector3D(), directionOf(target - eye), directionOf(up));
    matrix.translate(-eye);
    return matrix;
}

QMatrix4x4 Camera::projectionMatrix(float aspect) const
{
    QMatrix4x4 matrix;
    matrix.perspective(fieldOfView, aspect, nearPlane, farPlane);
    return matrix;
}

bool Camera::parse(const QString &text, const GPUModel::BoundingBox &bounds, float aspect, Camera *camera,
                   QString *error)
{
    Settings settings;
    if (!readSettings(text, &settings, error) || !checkRanges(settings, error))
        return false;
    Camera result;
    const auto &numbers = settings.numbers;
    const QVector3D center = settings.vectors.value(QStringLiteral("target"), centerOf(bounds));
    const float yaw = numbers.value(QStringLiteral("yaw"), kDefaultYaw);
    const float pitch = numbers.value(QStringLiteral("pitch"), kDefaultPitch);
    result.up = settings.vectors.value(QStringLiteral("up"), result.up);
    if (result.up.isNull()) {
        *error = QStringLiteral("camera: 'up' has no direction");
        return false;
    }
    result.fieldOfView = numbers.value(QStringLiteral("fov"), result.fieldOfView);
    const auto eye = settings.vectors.constFind(QStringLiteral("eye"));
    if (eye != settings.vectors.constEnd()) {
        result.lookAt(*eye, center, result.up);
    } else {
        const Sight sight = sightOf(result.up, yaw, pitch);
        if (std::abs(pitch) > kSteepest)
            result.up = sight.upwards;
        const float zoom = numbers.value(QStringLiteral("zoom"), 1.0f);
        const float fitting = fittingDistance(bounds, sight, result.fieldOfView, aspect) / zoom;
        const float distance = numbers.value(QStringLiteral("distance"), fitting);
        result.lookAt(center + sight.towardsEye * distance, center, result.up);
    }
    const QVector3D view = result.target - result.eye;
    if (view.isNull()) {
        *error = QStringLiteral("camera: 'eye' and 'target' are the same place");
        return false;
    }
    if (QVector3D::crossProduct(directionOf(view), directionOf(result.up)).length() < 1e-4f) {
        *error = QStringLiteral("camera: 'up' points along the view");
        return false;
    }
    result.setDepthRange(bounds);
    result.nearPlane = numbers.value(QStringLiteral("near"), result.nearPlane);
    result.farPlane = numbers.value(QStringLiteral("far"), result.farPlane);
    if (result.nearPlane >= result.farPlane) {
        *error =
            QStringLiteral("camera: 'near' (%1) has to be below 'far' (%2)").arg(result.nearPlane).arg(result.farPlane);
        return false;
    }
    *camera = result;
    return true;
}

} // namespace Brevane::Kvo
