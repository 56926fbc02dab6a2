#include "gl/direction.h"
#include "model/gpumodel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

// What a model is given where its host or its file says nothing of it.

namespace Brevane::Kvo {

namespace {

/// A vector whose sums and products neither vanish nor overflow, whatever the unit of a mesh.
struct WideVector
{
    double x = 0, y = 0, z = 0;

    explicit WideVector(const QVector3D &v) : x(double(v.x())), y(double(v.y())), z(double(v.z())) {}
    WideVector() = default;
    WideVector(double x_, double y_, double z_) : x(x_), y(y_), z(z_) {}
    WideVector operator-(const WideVector &b) const { return {x - b.x, y - b.y, z - b.z}; }
    WideVector operator*(double factor) const { return {x * factor, y * factor, z * factor}; }
    void operator+=(const WideVector &b) { x += b.x, y += b.y, z += b.z; }
    double dot(const WideVector &b) const { return x * b.x + y * b.y + z * b.z; }
    double length() const { return std::hypot(x, y, z); }
    WideVector cross(const WideVector &b) const { return {y * b.z - z * b.y, z * b.x - x * b.z, x * b.y - y * b.x}; }
    /// Scaled so that its largest component is 1, which fits into floats.
    QVector3D narrowed() const
    {
        const double largest = std::max({std::abs(x), std::abs(y), std::abs(z)});
        return largest > 0.0 ? QVector3D(float(x / largest), float(y / largest), float(z / largest)) : QVector3D();
    }
};

// Of the corner at a between the edges to b and c; 0 where there is none.
double angleAt(const WideVector &a, const WideVector &b, const WideVector &c)
{
    const WideVector u = b - a;
    const WideVector v = c - a;
    return std::atan2(u.cross(v).length(), u.dot(v));
}

QVector3D somePerpendicular(const QVector3D &normal)
{
    const QVector3D axis = std::abs(normal.x()) < 0.9f ? QVector3D(1.0f, 0.0f, 0.0f) : QVector3D(0.0f, 1.0f, 0.0f);
    const QVector3D tangent = directionOf(axis - normal * QVector3D::dotProduct(axis, normal));
    return tangent.isNull() ? axis : tangent;
}

// Of sRGB.
float decoded(float value)
{
    const double v = std::clamp(double(value), 0.0, 1.0);
    return float(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
}

/// The ways that the texture coordinates grow in the triangles around a vertex.
struct TextureAxes
{
    WideVector u;
    WideVector v;
};

// Of length 1 each; null where the texture coordinates of a triangle span nothing.
TextureAxes axesOf(const std::array<WideVector, 3> &corners, const std::array<QVector2D, 3> &coords)
{
    const WideVector p = corners[1] - corners[0];
    const WideVector q = corners[2] - corners[0];
    const double pu = double(coords[1].x()) - double(coords[0].x());
    const double pv = double(coords[1].y()) - double(coords[0].y());
    const double qu = double(coords[2].x()) - double(coords[0].x());
    const double qv = double(coords[2].y()) - double(coords[0].y());
    const double area = pu * qv - qu * pv;
    const double turn = area < 0.0 ? -1.0 : 1.0;
    TextureAxes axes{(p * qv - q * pv) * turn, (q * pu - p * qu) * turn};
    for (WideVector *axis : {&axes.u, &axes.v}) {
        const double length = axis->length();
        *axis = area != 0.0 && length > 0.0 && std::isfinite(length) ? *axis * (1.0 / length) : WideVector();
    }
    return axes;
}

} // namespace

QVector<QVector3D> computedNormals(const QVector<QVector3D> &positions, const QVector<quint32> &indices)
{
    std::vector<WideVector> sums(std::size_t(positions.size()));
    for (qsizetype i = 0; i + 2 < indices.size(); i += 3) {
        const std::array<quint32, 3> corners{indices[i], indices[i + 1], indices[i + 2]};
        const WideVector a(positions[corners[0]]);
        const WideVector normal = (WideVector(positions[corners[1]]) - a).cross(WideVector(positions[corners[2]]) - a);
        for (const quint32 corner : corners)
            sums[corner] += normal;
    }
    QVector<QVector3D> normals;
    normals.reserve(positions.size());
    for (const WideVector &sum : sums) {
        const QVector3D normal = directionOf(sum.narrowed());
        normals.append(normal.isNull() ? QVector3D(0.0f, 0.0f, 1.0f) : normal);
    }
    return normals;
}

QVector<QVector4D> computedTangents(const ModelMesh &mesh)
{
    const bool hasNormals = mesh.normals.size() == mesh.positions.size();
    const QVector<QVector3D> normals = hasNormals ? mesh.normals : computedNormals(mesh.positions, mesh.indices);
    std::vector<TextureAxes> sums(std::size_t(mesh.positions.size()));
    for (qsizetype i = 0; i + 2 < mesh.indices.size() && mesh.texCoords.size() == mesh.positions.size(); i += 3) {
        const std::array<quint32, 3> at{mesh.indices[i], mesh.indices[i + 1], mesh.indices[i + 2]};
        const std::array<WideVector, 3> corners{WideVector(mesh.positions[at[0]]), WideVector(mesh.positions[at[1]]),
                                                WideVector(mesh.positions[at[2]])};
        const TextureAxes axes = axesOf(corners, {mesh.texCoords[at[0]], mesh.texCoords[at[1]], mesh.texCoords[at[2]]});
        for (std::size_t corner = 0; corner < 3; ++corner) {
            const double angle = angleAt(corners[corner], corners[(corner + 1) % 3], corners[(corner + 2) % 3]);
            sums[at[corner]].u += axes.u * angle;
            sums[at[corner]].v += axes.v * angle;
        }
    }
    QVector<QVector4D> tangents;
    tangents.reserve(mesh.positions.size());
    for (qsizetype i = 0; i < mesh.positions.size(); ++i) {
        const WideVector normal(directionOf(normals[i]));
        const TextureAxes &axes = sums[std::size_t(i)];
        QVector3D tangent = directionOf((axes.u - normal * normal.dot(axes.u)).narrowed());
        if (tangent.isNull())
            tangent = somePerpendicular(directionOf(normals[i]));
        tangents.append(QVector4D(tangent, normal.cross(WideVector(tangent)).dot(axes.v) < 0.0 ? -1.0f : 1.0f));
    }
    return tangents;
}

ModelSurface surfaceOf(const ModelMaterial &material)
{
    if (material.surface)
        return *material.surface;
    ModelSurface surface;
    surface.baseColor = QVector3D(decoded(material.Kd.x()), decoded(material.Kd.y()), decoded(material.Kd.z()));
    surface.map_baseColor = material.map_Kd;
    // Both distributions are as wide where alpha squared is 2 / (exponent + 2), and alpha is roughness squared.
    const double exponent = std::isfinite(material.Ns) ? std::max(double(material.Ns), 1.0) : 1.0;
    surface.roughness = float(std::pow(2.0 / (exponent + 2.0), 0.25));
    return surface;
}

} // namespace Brevane::Kvo
