#pragma once

#include <host/orbitcamera.h>
#include <model/gpumodel.h>

#include <QPointF>
#include <QSizeF>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>

namespace Brevane::Kvo::Test {

/// What a ray through a place of a picture meets first.
struct RayHit
{
    int item = -1;
    int triangle = -1;
    QVector3D position;
    bool isNearEdge = false; ///< Of any triangle: a pixel there may fall to either side.
};

/// The reference for picking: triangles of a model one by one, in double precision, from the definition of the camera
/// with +y or +z up.
inline RayHit castRay(const ModelData &data, const OrbitCamera &camera, const QPointF &at, const QSizeF &picture)
{
    using V = std::array<double, 3>;
    const auto dot = [](const V &a, const V &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
    const auto cross = [](const V &a, const V &b) {
        return V{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
    };
    const auto less = [](const V &a, const V &b) { return V{a[0] - b[0], a[1] - b[1], a[2] - b[2]}; };
    const auto along = [](const V &a, const V &b, double t) {
        return V{a[0] + b[0] * t, a[1] + b[1] * t, a[2] + b[2] * t};
    };
    const double yaw = double(camera.yaw()) * std::numbers::pi / 180;
    const double pitch = double(camera.pitch()) * std::numbers::pi / 180;
    const bool zUp = camera.up().z() > 0.5f;
    const auto placed = [zUp](double x, double y, double z) { return zUp ? V{x, -z, y} : V{x, y, z}; };
    const V back = placed(std::cos(pitch) * std::sin(yaw), std::sin(pitch), std::cos(pitch) * std::cos(yaw));
    const V right = placed(std::cos(yaw), 0, -std::sin(yaw));
    const V upward = placed(-std::sin(pitch) * std::sin(yaw), std::cos(pitch), -std::sin(pitch) * std::cos(yaw));
    const double half = double(camera.distance()) * std::tan(double(camera.fieldOfView()) * std::numbers::pi / 360);
    const V pivot{double(camera.pivot().x()), double(camera.pivot().y()), double(camera.pivot().z())};
    const double x = (2 * at.x() / picture.width() - 1) * half * picture.width() / picture.height();
    const double y = (1 - 2 * at.y() / picture.height()) * half;
    const V seen = along(along(pivot, right, x), upward, y);
    const V eye = along(camera.isOrthographic() ? seen : pivot, back, double(camera.distance()));
    const V direction = less(seen, eye);

    // Half a pixel in the plane of the pivot, and what rounds in floats.
    const double pixel = 2 * half / picture.height() * 0.05;
    RayHit hit;
    double nearest = std::numeric_limits<double>::infinity();
    for (int item = 0; item < data.items.size(); ++item) {
        const ModelMesh &mesh = data.meshes[data.items[item].mesh];
        const auto corner = [&](qsizetype index) {
            const QVector3D &p = mesh.positions[mesh.indices[index]];
            V result{};
            for (int row = 0; row < 3; ++row)
                result[std::size_t(row)] = double(data.items[item].transform(row, 0)) * double(p.x())
                                           + double(data.items[item].transform(row, 1)) * double(p.y())
                                           + double(data.items[item].transform(row, 2)) * double(p.z())
                                           + double(data.items[item].transform(row, 3));
            return result;
        };
        for (qsizetype i = 0; i + 2 < mesh.indices.size(); i += 3) {
            const V a = corner(i), b = corner(i + 1), c = corner(i + 2);
            const V ab = less(b, a), ac = less(c, a);
            const V p = cross(direction, ac);
            const double determinant = dot(ab, p);
            if (determinant == 0)
                continue;
            const V from = less(eye, a);
            const V q = cross(from, ab);
            const double u = dot(from, p) / determinant;
            const double v = dot(direction, q) / determinant;
            const double t = dot(ac, q) / determinant;
            if (t <= 0)
                continue;
            // How far inside of its edges, in units of the world across the ray.
            const double length = std::sqrt(dot(direction, direction));
            const double size = std::abs(determinant) / length;
            const auto edge = [&](const V &e) {
                const V n = cross(e, direction);
                return size / std::max(1e-12, std::sqrt(dot(n, n)) / length);
            };
            const double inside = std::min({u * edge(ac), v * edge(ab), (1 - u - v) * edge(less(c, b))});
            if (std::abs(inside) < pixel * std::max(1.0, t))
                hit.isNearEdge = true;
            if (inside < 0 || t >= nearest)
                continue;
            nearest = t;
            hit.item = item;
            hit.triangle = int(i / 3);
            const V place = along(eye, direction, t);
            hit.position = QVector3D(float(place[0]), float(place[1]), float(place[2]));
        }
    }
    return hit;
}

} // namespace Brevane::Kvo::Test
