#include "shadows/lightframes.h"

#include <QMatrix4x4>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace Brevane::Kvo {

namespace {

// Stands in for the scene's box.
constexpr double kDefaultHalfSide = 10.0;
// Frames move in this many steps per side; whole texels for maps whose size is a multiple of it.
constexpr double kStepsPerFrame = 64.0;
// Air around the scene, as a share of its size: depth carries a bias of 0.0005, and filters want texels
// beyond the last caster.
constexpr double kAir = 0.02;
// Spot and point frames are wider than what they light by this factor.
constexpr double kFrameMargin = 1.03;
// Depth of a perspective frame gets coarse quickly when it begins near the light.
constexpr double kLeastNearShare = 0.05;
constexpr double kFarMargin = 1.05;

bool isFinite(const QVector3D &v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

bool isFinite(const DVector &v)
{
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

double dot(const DVector &a, const DVector &b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

DVector cross(const DVector &a, const DVector &b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

double length(const DVector &v)
{
    return std::sqrt(dot(v, v));
}

DVector normalized(const DVector &v)
{
    return v * (1.0 / length(v));
}

DVector mixed(const DVector &a, const DVector &b, double t)
{
    return a * (1.0 - t) + b * t;
}

// A length rounded up to 1 of 32 steps per power of two, so that rounding errors of a moving camera do not
// show in it.
double steadied(double value)
{
    const double step = std::exp2(std::floor(std::log2(value))) / 32.0;
    return std::ceil(value * (1.0 + 1e-4) / step) * step;
}

bool invert(const QMatrix4x4 &matrix, QMatrix4x4 *inverse)
{
    bool invertible = false;
    *inverse = matrix.inverted(&invertible);
    return invertible
           && std::all_of(inverse->constData(), inverse->constData() + 16, [](float f) { return std::isfinite(f); });
}

// A point in clip space divided by w; not finite for points at infinity.
DVector unprojected(const QMatrix4x4 &inverse, double x, double y, double z)
{
    std::array<double, 4> p{};
    for (int row = 0; row < 4; ++row)
        p[std::size_t(row)] = double(inverse(row, 0)) * x + double(inverse(row, 1)) * y + double(inverse(row, 2)) * z
                              + double(inverse(row, 3));
    return DVector(p[0], p[1], p[2]) * (1.0 / p[3]);
}

constexpr const char *kNotFinite = "one of its numbers is not finite";
constexpr const char *kTooBright = "its colour times its intensity is not finite";
constexpr const char *kNoDirection = "its direction has no length";
constexpr const char *kTooLarge = "its place or the scene is too large to be framed";

} // namespace

DVector LightFrames::Box::corner(int i) const
{
    return {i & 1 ? maximum.x : minimum.x, i & 2 ? maximum.y : minimum.y, i & 4 ? maximum.z : minimum.z};
}

double LightFrames::Box::diagonal() const
{
    return length(maximum - minimum);
}

LightFrames::Basis::Basis(const DVector &direction) : forward(normalized(direction))
{
    const DVector away = std::abs(forward.y) < 0.99 ? DVector(0, 1, 0) : DVector(1, 0, 0);
    right = normalized(cross(forward, away));
    up = cross(right, forward);
}

LightFrames::Basis::Basis(const DVector &right_, const DVector &up_, const DVector &forward_)
    : right(right_), up(up_), forward(forward_)
{}

DVector LightFrames::Basis::of(const DVector &world) const
{
    return {dot(right, world), dot(up, world), dot(forward, world)};
}

LightFrames::Box LightFrames::Basis::of(const Box &world) const
{
    Box box{of(world.corner(0)), of(world.corner(0))};
    for (int i = 1; i < 8; ++i) {
        const DVector p = of(world.corner(i));
        box.minimum = {std::min(box.minimum.x, p.x), std::min(box.minimum.y, p.y), std::min(box.minimum.z, p.z)};
        box.maximum = {std::max(box.maximum.x, p.x), std::max(box.maximum.y, p.y), std::max(box.maximum.z, p.z)};
    }
    return box;
}

bool LightFrames::setBounds(const QVector3D &minimum, const QVector3D &maximum)
{
    if (!isFinite(minimum) || !isFinite(maximum) || minimum.x() > maximum.x() || minimum.y() > maximum.y()
        || minimum.z() > maximum.z())
        return false;
    Box box{DVector(minimum), DVector(maximum)};
    // A flat scene still takes room, and a point some.
    const double diagonal = box.diagonal();
    const double air = diagonal > 0.0 ? diagonal * kAir : 1.0;
    box.minimum = box.minimum - DVector(air, air, air);
    box.maximum = box.maximum + DVector(air, air, air);
    _bounds = box;
    return true;
}

bool LightFrames::setCamera(const QMatrix4x4 &projection, const QMatrix4x4 &camera)
{
    QMatrix4x4 toWorld;
    QMatrix4x4 toCamera;
    if (!invert(projection * camera, &toWorld) || !invert(projection, &toCamera))
        return false;
    View view;
    double nearDepth = 0.0;
    double farDepth = 0.0;
    for (int i = 0; i < 4; ++i) {
        const double x = i & 1 ? 1.0 : -1.0;
        const double y = i & 2 ? 1.0 : -1.0;
        DVector &nearCorner = view.nearCorners[std::size_t(i)];
        DVector &farCorner = view.farCorners[std::size_t(i)];
        nearCorner = unprojected(toWorld, x, y, -1.0);
        farCorner = unprojected(toWorld, x, y, 1.0);
        if (!isFinite(nearCorner) || !isFinite(farCorner))
            return false;
        nearDepth -= unprojected(toCamera, x, y, -1.0).z / 4.0;
        farDepth -= unprojected(toCamera, x, y, 1.0).z / 4.0;
    }
    if (!(farDepth > nearDepth))
        return false;
    view.nearDepth = nearDepth;
    view.farDepth = farDepth;
    _view = view;
    return true;
}

const LightFrames::Box &LightFrames::scene()
{
    static const Box standIn{{-kDefaultHalfSide, -kDefaultHalfSide, -kDefaultHalfSide},
                             {kDefaultHalfSide, kDefaultHalfSide, kDefaultHalfSide}};
    if (_bounds)
        return *_bounds;
    _usedDefaultBox = true;
    return standIn;
}

const char *LightFrames::process(const ShadowMapLight &light)
{
    _layerCount = 0;
    const bool isPoint = light.type == ShadowMapLight::Type::Point;
    const bool isDirectional = light.type == ShadowMapLight::Type::Directional;
    if (!isPoint && !isDirectional && light.type != ShadowMapLight::Type::Spot)
        return "its type is none";
    if (!isFinite(light.color) || !std::isfinite(light.intensity))
        return kNotFinite;
    if (!isFinite(light.color * light.intensity))
        return kTooBright;
    if (!isPoint) {
        if (!isFinite(light.direction))
            return kNotFinite;
        if (!(length(DVector(light.direction)) > 0.0))
            return kNoDirection;
    }
    if (isDirectional)
        return processDirectional(light);
    if (!isFinite(light.position) || !std::isfinite(light.range) || !std::isfinite(light.nearPlane))
        return kNotFinite;
    return isPoint ? processPoint(light) : processSpot(light);
}

const char *LightFrames::processDirectional(const ShadowMapLight &light)
{
    if (!std::isfinite(light.splitBalance) || !std::isfinite(light.distance))
        return kNotFinite;
    if (light.cascades < 1 || light.cascades > kMostCascades)
        return "its number of cascades is not from 1 to 4";
    if (light.distance < 0.0f)
        return "its distance is negative";
    const Basis basis{DVector(light.direction)};
    if (!_view) {
        const Box frame = basis.of(scene());
        for (int i = 0; i < light.cascades; ++i)
            if (!addOrthographic(basis, frame))
                return kTooLarge;
        return nullptr;
    }

    const std::array<double, kMostCascades + 1> cuts = splits(light);
    std::array<Sphere, kMostCascades> spheres;
    double widest = 0.0;
    for (int i = 0; i < light.cascades; ++i) {
        Sphere &sphere = spheres[std::size_t(i)];
        sphere = sphereOf(cuts[std::size_t(i)], cuts[std::size_t(i) + 1]);
        widest = std::max(widest, sphere.radius);
    }
    const std::optional<Box> whole = _bounds ? std::optional<Box>(basis.of(*_bounds)) : std::nullopt;
    for (int i = 0; i < light.cascades; ++i) {
        const Sphere &sphere = spheres[std::size_t(i)];
        // One step of the frame is left over for rounding its place to steps.
        const double side = 2.0 * sphere.radius * kStepsPerFrame / (kStepsPerFrame - 1.0);
        if (whole && whole->maximum.x - whole->minimum.x <= side && whole->maximum.y - whole->minimum.y <= side) {
            if (!addOrthographic(basis, *whole))
                return kTooLarge;
            continue;
        }
        const double step = side / kStepsPerFrame;
        DVector center = basis.of(sphere.center);
        center = {std::round(center.x / step) * step, std::round(center.y / step) * step,
                  std::round(center.z / step) * step};
        const DVector half(side / 2.0, side / 2.0, 0.0);
        Box frame{center - half, center + half};
        frame.minimum.z = center.z - 4.0 * widest;
        frame.maximum.z = center.z + side / 2.0;
        if (_bounds)
            takeDepthsOf(*_bounds, basis, &frame);
        if (!addOrthographic(basis, frame))
            return kTooLarge;
    }
    return nullptr;
}

// Depths between which the cascades lie: a mean of equal steps and equal factors.
std::array<double, LightFrames::kMostCascades + 1> LightFrames::splits(const ShadowMapLight &light) const
{
    std::array<double, kMostCascades + 1> cuts{};
    const double from = _view->nearDepth;
    double to = _view->farDepth;
    if (light.distance > 0.0f && double(light.distance) > from)
        to = std::min(to, double(light.distance));
    // A parallel projection may begin behind the eye, where there are no factors.
    const double balance = from > 0.0 ? std::clamp(double(light.splitBalance), 0.0, 1.0) : 0.0;
    for (int i = 0; i <= light.cascades; ++i) {
        const double share = double(i) / light.cascades;
        const double even = from + (to - from) * share;
        const double growing = balance > 0.0 ? from * std::pow(to / from, share) : 0.0;
        cuts[std::size_t(i)] = balance * growing + (1.0 - balance) * even;
    }
    return cuts;
}

// The smallest sphere around a part of the view whose centre is on its axis.
LightFrames::Sphere LightFrames::sphereOf(double from, double to) const
{
    std::array<DVector, 8> corners;
    DVector nearCenter;
    DVector farCenter;
    for (std::size_t i = 0; i < 4; ++i) {
        const double depth = _view->farDepth - _view->nearDepth;
        corners[i] = mixed(_view->nearCorners[i], _view->farCorners[i], (from - _view->nearDepth) / depth);
        corners[i + 4] = mixed(_view->nearCorners[i], _view->farCorners[i], (to - _view->nearDepth) / depth);
        nearCenter = nearCenter + corners[i] * 0.25;
        farCenter = farCenter + corners[i + 4] * 0.25;
    }
    double nearRadius = 0.0;
    double farRadius = 0.0;
    for (std::size_t i = 0; i < 4; ++i) {
        nearRadius = std::max(nearRadius, length(corners[i] - nearCenter));
        farRadius = std::max(farRadius, length(corners[i + 4] - farCenter));
    }
    const double axis = length(farCenter - nearCenter);
    double along = axis > 0.0 ? (axis * axis + farRadius * farRadius - nearRadius * nearRadius) / (2.0 * axis) : 0.0;
    along = std::clamp(along, 0.0, axis);
    Sphere sphere;
    sphere.center = axis > 0.0 ? mixed(nearCenter, farCenter, along / axis) : nearCenter;
    for (const DVector &corner : corners)
        sphere.radius = std::max(sphere.radius, length(corner - sphere.center));
    sphere.radius = steadied(sphere.radius);
    return sphere;
}

// Only what is in the frame's column can cast a shadow into it or catch one there: the depths of the whole
// scene, which may be much larger than the frame, would leave few steps to the frame. A frame beside the scene
// keeps its depths.
void LightFrames::takeDepthsOf(const Box &world, const Basis &basis, Box *frame)
{
    double nearest = std::numeric_limits<double>::infinity();
    double farthest = -nearest;
    for (int side = 0; side < 6; ++side) {
        Polygon polygon(basis, world, side / 2, side % 2 != 0);
        polygon.cut(&DVector::x, 1.0, frame->maximum.x);
        polygon.cut(&DVector::x, -1.0, -frame->minimum.x);
        polygon.cut(&DVector::y, 1.0, frame->maximum.y);
        polygon.cut(&DVector::y, -1.0, -frame->minimum.y);
        for (int i = 0; i < polygon.count; ++i) {
            nearest = std::min(nearest, polygon.corners[std::size_t(i)].z);
            farthest = std::max(farthest, polygon.corners[std::size_t(i)].z);
        }
    }
    if (farthest > nearest) {
        frame->minimum.z = nearest;
        frame->maximum.z = farthest;
    }
}

// A side of a box, in the coordinates of a basis.
LightFrames::Polygon::Polygon(const Basis &basis, const Box &world, int axis, bool isUpper) : count(4)
{
    const std::array<int, 3> bits{1, 2, 4};
    const int across = bits[std::size_t((axis + 1) % 3)];
    const int along = bits[std::size_t((axis + 2) % 3)];
    const int fixed = isUpper ? bits[std::size_t(axis)] : 0;
    corners[0] = basis.of(world.corner(fixed));
    corners[1] = basis.of(world.corner(fixed | across));
    corners[2] = basis.of(world.corner(fixed | across | along));
    corners[3] = basis.of(world.corner(fixed | along));
}

// Keeps what has a coordinate, times a sign, up to a limit.
void LightFrames::Polygon::cut(double DVector::*coordinate, double sign, double limit)
{
    std::array<DVector, kMostCorners> kept;
    int keptCount = 0;
    for (int i = 0; i < count; ++i) {
        const DVector &a = corners[std::size_t(i)];
        const DVector &b = corners[std::size_t((i + 1) % count)];
        const double beyondA = sign * a.*coordinate - limit;
        const double beyondB = sign * b.*coordinate - limit;
        if (beyondA <= 0.0)
            kept[std::size_t(keptCount++)] = a;
        if ((beyondA <= 0.0) != (beyondB <= 0.0))
            kept[std::size_t(keptCount++)] = mixed(a, b, beyondA / (beyondA - beyondB));
    }
    corners = kept;
    count = keptCount;
}

const char *LightFrames::depthRange(const ShadowMapLight &light, double sceneNear, double sceneFar, double *nearDepth,
                                    double *farDepth) const
{
    if (light.range < 0.0f)
        return "its range is negative";
    if (light.nearPlane < 0.0f)
        return "its near plane is negative";
    if (light.range > 0.0f && light.nearPlane >= light.range)
        return "its near plane is not in front of its range";
    // With the scene behind the light nothing casts a shadow; any depth will do.
    const double end = light.range > 0.0f ? double(light.range) : (sceneFar > 0.0 ? sceneFar : 1.0);
    *farDepth = end * kFarMargin;
    if (light.nearPlane > 0.0f) {
        *nearDepth = double(light.nearPlane);
        if (*nearDepth >= *farDepth)
            return "its near plane is not in front of the end of the scene";
        return nullptr;
    }
    // Where a range ends before the scene begins nothing casts a shadow; any order of planes will do.
    const double least = *farDepth * kLeastNearShare;
    *nearDepth = std::clamp(sceneNear, least, *farDepth * 0.9);
    return nullptr;
}

const char *LightFrames::processSpot(const ShadowMapLight &light)
{
    if (!std::isfinite(light.angle) || !std::isfinite(light.softAngle))
        return kNotFinite;
    if (!(light.angle > 0.0f && light.angle < 170.0f))
        return "its angle is not between 0 and 170 degrees";
    const Basis basis{DVector(light.direction)};
    const DVector position(light.position);
    double sceneNear = 0.0;
    double sceneFar = 0.0;
    // With a range, a scene only helps to begin later.
    if (_bounds || !(light.range > 0.0f)) {
        const Box box = basis.of(scene());
        const double at = basis.of(position).z;
        sceneNear = box.minimum.z - at;
        sceneFar = box.maximum.z - at;
    }
    double nearDepth = 0.0;
    double farDepth = 0.0;
    if (const char *fault = depthRange(light, sceneNear, sceneFar, &nearDepth, &farDepth))
        return fault;
    const double halfTangent = std::tan(double(light.angle) * std::numbers::pi / 360.0) * kFrameMargin;
    return addPerspective(basis, position, halfTangent, nearDepth, farDepth) ? nullptr : kTooLarge;
}

const char *LightFrames::processPoint(const ShadowMapLight &light)
{
    const DVector position(light.position);
    double sceneNear = 0.0;
    double sceneFar = 0.0;
    if (_bounds || !(light.range > 0.0f)) {
        const Box &box = scene();
        const auto outside = [](double low, double at, double high) { return std::max({low - at, 0.0, at - high}); };
        const DVector gap(outside(box.minimum.x, position.x, box.maximum.x),
                          outside(box.minimum.y, position.y, box.maximum.y),
                          outside(box.minimum.z, position.z, box.maximum.z));
        // A face sees what is that far away no nearer than in its corner.
        sceneNear = length(gap) / std::sqrt(3.0);
        for (int i = 0; i < 8; ++i)
            sceneFar = std::max(sceneFar, length(box.corner(i) - position));
    }
    double nearDepth = 0.0;
    double farDepth = 0.0;
    if (const char *fault = depthRange(light, sceneNear, sceneFar, &nearDepth, &farDepth))
        return fault;
    const DVector x(1, 0, 0);
    const DVector y(0, 1, 0);
    const DVector z(0, 0, 1);
    const DVector minusX(-1, 0, 0);
    const DVector minusY(0, -1, 0);
    const DVector minusZ(0, 0, -1);
    const std::array<Basis, 6> faces{Basis(z, y, x),           Basis(minusZ, y, minusX), Basis(x, z, y),
                                     Basis(x, minusZ, minusY), Basis(minusX, y, z),      Basis(x, y, minusZ)};
    for (const Basis &face : faces)
        if (!addPerspective(face, position, kFrameMargin, nearDepth, farDepth))
            return kTooLarge;
    return nullptr;
}

bool LightFrames::addOrthographic(const Basis &basis, const Box &frame)
{
    const DVector size = frame.maximum - frame.minimum;
    const DVector sum = frame.maximum + frame.minimum;
    const std::array<DVector, 3> rows{basis.right * (2.0 / size.x), basis.up * (2.0 / size.y),
                                      basis.forward * (1.0 / size.z)};
    const std::array<double, 3> offsets{-sum.x / size.x, -sum.y / size.y, -frame.minimum.z / size.z};
    return add({rows[0].x, rows[1].x, rows[2].x, 0.0, rows[0].y, rows[1].y, rows[2].y, 0.0, rows[0].z, rows[1].z,
                rows[2].z, 0.0, offsets[0], offsets[1], offsets[2], 1.0});
}

bool LightFrames::addPerspective(const Basis &basis, const DVector &position, double halfTangent, double nearDepth,
                                 double farDepth)
{
    const DVector at = basis.of(position);
    const DVector right = basis.right * (1.0 / halfTangent);
    const DVector up = basis.up * (1.0 / halfTangent);
    // z over w: 0 at the near plane, 1 at the far one.
    const double scale = farDepth / (farDepth - nearDepth);
    const DVector depth = basis.forward * scale;
    const DVector &w = basis.forward;
    return add({right.x, up.x, depth.x, w.x, right.y, up.y, depth.y, w.y, right.z, up.z, depth.z, w.z,
                -at.x / halfTangent, -at.y / halfTangent, -(at.z + nearDepth) * scale, -at.z});
}

bool LightFrames::add(const std::array<double, 16> &columns)
{
    ShadowMapRenderData::Transform &transform = _transforms[std::size_t(_layerCount)];
    for (std::size_t i = 0; i < 16; ++i) {
        transform.m[i] = float(columns[i]);
        if (!std::isfinite(transform.m[i])) {
            _layerCount = 0;
            return false;
        }
    }
    ++_layerCount;
    return true;
}

} // namespace Brevane::Kvo
