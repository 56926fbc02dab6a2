#pragma once

#include "support/image.h"

#include <model/gpumodel.h>

#include <QMatrix4x4>

#include <array>

namespace Brevane::Kvo::Test {

using Vector3 = std::array<double, 3>;

/// What a model shows in one pixel, computed on the CPU in double precision.
struct ModelFragment
{
    bool covered = false;
    /// Too close to an edge of a triangle, or to another surface, for GL to be held to one answer; in
    /// layersAt, as near as another layer before it.
    bool ambiguous = false;
    double depth = 1; ///< Window depth, 0 to 1.
    int item = -1;
    int triangle = -1; ///< Number in its draw.
    Vector3 normal{}; ///< In camera space, interpolated; not of unit length.
    double u = 0;
    double v = 0;
};

/// A picture of a model: one triangle after the other, every pixel centre inside it, the nearest wins.
class ModelReference
{
public:
    ModelReference(const ModelData &model, const QMatrix4x4 &projection, const QMatrix4x4 &camera, int width,
                   int height);

    int width() const { return _width; }
    int height() const { return _height; }
    const ModelFragment &at(int x, int y) const { return _fragments.at(qsizetype(y) * _width + x); }
    /// All fragments of a pixel, the hidden ones too, in the order of items and triangles. Where at() is
    /// ambiguous, so is this.
    const QVector<ModelFragment> &layersAt(int x, int y) const { return _layers.at(qsizetype(y) * _width + x); }
    int coveredCount() const;
    int ambiguousCount() const;

private:
    int _width;
    int _height;
    QVector<ModelFragment> _fragments;
    QVector<QVector<ModelFragment>> _layers;
};

/// Diffuse term plus specular term of Blinn-Phong for the light at normalize(1, 1, 1) and the viewer
/// at (0, 0, 1).
Vector3 blinnPhong(const Vector3 &Kd, const Vector3 &Ks, double Ns, const Vector3 &N);

Vector3 normalized(const Vector3 &v);

} // namespace Brevane::Kvo::Test
