#pragma once

#include <model/gpumodel.h>

#include <QMatrix4x4>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace Brevane::Kvo::Test {

/// What a view shows of an item's box, in double precision. Unsure: within what floats may make of it.
enum class Seen { No, Unsure, Yes };

/// The box in the world is that around the vertices.
inline Seen seenIn(const QMatrix4x4 &view, const ModelMesh &mesh, const QMatrix4x4 &transform)
{
    constexpr double kFloats = 1e-5; // of what is added up
    std::array<double, 3> minimum;
    std::array<double, 3> maximum;
    minimum.fill(std::numeric_limits<double>::infinity());
    maximum.fill(-std::numeric_limits<double>::infinity());
    for (const QVector3D &v : mesh.positions) {
        for (int row = 0; row < 3; ++row) {
            double p = double(transform(row, 3));
            for (int column = 0; column < 3; ++column)
                p += double(transform(row, column)) * double(v[column]);
            minimum[std::size_t(row)] = std::min(minimum[std::size_t(row)], p);
            maximum[std::size_t(row)] = std::max(maximum[std::size_t(row)], p);
        }
    }
    Seen seen = Seen::Yes;
    for (int side = 0; side < 6; ++side) {
        double farthest = -std::numeric_limits<double>::infinity();
        double size = 0;
        for (int corner = 0; corner < 8; ++corner) {
            const double p[4] = {corner & 1 ? maximum[0] : minimum[0], corner & 2 ? maximum[1] : minimum[1],
                                 corner & 4 ? maximum[2] : minimum[2], 1};
            double inside = 0;
            double sizes = 0;
            for (int column = 0; column < 4; ++column) {
                const double w = double(view(3, column));
                const double along = double(view(side / 2, column)) * (side % 2 ? -1 : 1);
                inside += (w + along) * p[column];
                sizes += (std::abs(w) + std::abs(along)) * std::abs(p[column]);
            }
            farthest = std::max(farthest, inside);
            size = std::max(size, sizes);
        }
        if (farthest < -kFloats * size)
            return Seen::No;
        if (farthest < kFloats * size)
            seen = Seen::Unsure;
    }
    return seen;
}

/// What an InstanceDataCollection takes to place the items of a scene.
inline QVector<float> placesOf(const ModelData &data)
{
    QVector<float> floats;
    for (const ModelItem &item : data.items)
        for (const QMatrix4x4 &m : {item.transform, item.transform.inverted().transposed()})
            std::copy(m.constData(), m.constData() + 16, std::back_inserter(floats));
    return floats;
}

} // namespace Brevane::Kvo::Test
