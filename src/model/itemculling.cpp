#include "model/itemculling.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace Brevane::Kvo {

namespace {

constexpr qsizetype kFloatsPerItem = 32;
constexpr qsizetype kFloatsOfTransform = 16;

// What rounding may make of a sum of products, as a share of the sum of their sizes: 16 steps of a float, where
// vertices take some 8 on their way to the clip space.
constexpr float kRounding = 1.0f / (1 << 20);

/// A side of what a view shows: points whose product with it is negative lie beyond.
struct Plane
{
    std::array<float, 4> factors;
    std::array<float, 4> sizes; ///< For the rounding, of what the factors were made of.
};

using Planes = std::array<Plane, 6>;

Planes planesOf(const QMatrix4x4 &m)
{
    Planes planes{};
    for (int side = 0; side < 6; ++side) {
        Plane &plane = planes[std::size_t(side)];
        const int axis = side / 2;
        const float sign = side % 2 ? -1.0f : 1.0f;
        for (int column = 0; column < 4; ++column) {
            plane.factors[std::size_t(column)] = m(3, column) + sign * m(axis, column);
            plane.sizes[std::size_t(column)] = std::abs(m(3, column)) + std::abs(m(axis, column));
        }
    }
    return planes;
}

// Whether all of a box lies beyond a plane. What is infinite, or no number, does not.
bool isBeyond(const float *center, const float *extent, const Plane &plane)
{
    float farthest = plane.factors[3];
    float size = plane.sizes[3];
    for (std::size_t i = 0; i < 3; ++i) {
        farthest += plane.factors[i] * center[i] + std::abs(plane.factors[i]) * extent[i];
        size += plane.sizes[i] * (std::abs(center[i]) + extent[i]);
    }
    return farthest < -kRounding * size;
}

} // namespace

void ItemCulling::add(const QVector3D &meshMinimum, const QVector3D &meshMaximum, const QVector3D &minimum,
                      const QVector3D &maximum, const QMatrix4x4 &transform)
{
    Box mesh{};
    Box world{};
    for (int i = 0; i < 3; ++i) {
        mesh.center[i] = meshMinimum[i] / 2 + meshMaximum[i] / 2;
        mesh.extent[i] = meshMaximum[i] / 2 - meshMinimum[i] / 2;
        world.center[i] = minimum[i] / 2 + maximum[i] / 2;
    }
    // The box touches the vertices, which may be better than what the mesh's box gives. Its rounding is the same.
    const Box loose = placedBox(mesh, transform.constData());
    for (int i = 0; i < 3; ++i) {
        float size = std::abs(transform(i, 3));
        for (int column = 0; column < 3; ++column)
            size += std::abs(transform(i, column)) * (std::abs(mesh.center[column]) + mesh.extent[column]);
        const float half = maximum[i] / 2 - minimum[i] / 2;
        world.extent[i] = std::isfinite(loose.extent[i]) ? half + kRounding * size : loose.extent[i];
    }
    _meshes.push_back(mesh);
    _boxes.push_back(world);
}

ItemCulling::Box ItemCulling::placedBox(const Box &mesh, const float *transform)
{
    Box box{};
    // Behind a projection a box is none.
    const bool isAffine =
        transform[3] == 0.0f && transform[7] == 0.0f && transform[11] == 0.0f && transform[15] == 1.0f;
    for (std::size_t row = 0; row < 3; ++row) {
        box.center[row] = transform[12 + row];
        float size = std::abs(transform[12 + row]);
        for (std::size_t column = 0; column < 3; ++column) {
            const float factor = transform[4 * column + row];
            box.center[row] += factor * mesh.center[column];
            box.extent[row] += std::abs(factor) * mesh.extent[column];
            size += std::abs(factor) * (std::abs(mesh.center[column]) + mesh.extent[column]);
        }
        box.extent[row] += kRounding * size;
        if (!isAffine || !std::isfinite(box.center[row]) || !std::isfinite(box.extent[row]))
            return {{},
                    {std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
                     std::numeric_limits<float>::infinity()}};
    }
    return box;
}

void ItemCulling::setPlaces(const QVector<float> &places)
{
    for (std::size_t i = 0; i < _boxes.size(); ++i) {
        const qsizetype first = qsizetype(i) * kFloatsPerItem;
        const bool isThere = places.size() >= first + kFloatsPerItem;
        const bool wasThere = _places.size() >= first + kFloatsPerItem;
        // Items that stay where they are keep their boxes.
        if (isThere && wasThere
            && std::equal(places.constData() + first, places.constData() + first + kFloatsOfTransform,
                          _places.constData() + first))
            continue;
        constexpr std::array<float, kFloatsOfTransform> kUnknown{};
        _boxes[i] = placedBox(_meshes[i], isThere ? places.constData() + first : kUnknown.data());
    }
    _places = places;
}

void ItemCulling::bound(const std::vector<int> &items, QVector3D &minimum, QVector3D &maximum) const
{
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    minimum = {kInfinity, kInfinity, kInfinity};
    maximum = -minimum;
    for (const int item : items) {
        const Box &box = _boxes[std::size_t(item)];
        for (int i = 0; i < 3; ++i) {
            minimum[i] = std::min(minimum[i], box.center[i] - box.extent[i]);
            maximum[i] = std::max(maximum[i], box.center[i] + box.extent[i]);
        }
    }
}

bool ItemCulling::findOutside(const QMatrix4x4 *viewProjections, int count, Bits &outside) const
{
    outside.assign((_boxes.size() + 63) / 64, count > 0 ? ~quint64(0) : 0);
    for (int view = 0; view < count; ++view) {
        const Planes planes = planesOf(viewProjections[view]);
        for (std::size_t i = 0; i < _boxes.size(); ++i) {
            const quint64 bit = quint64(1) << (i % 64);
            if (!(outside[i / 64] & bit))
                continue;
            const Box &box = _boxes[i];
            if (std::none_of(planes.cbegin(), planes.cend(),
                             [&](const Plane &plane) { return isBeyond(box.center, box.extent, plane); }))
                outside[i / 64] &= ~bit;
        }
    }
    if (_boxes.size() % 64 != 0)
        outside.back() &= (quint64(1) << (_boxes.size() % 64)) - 1;
    return std::any_of(outside.cbegin(), outside.cend(), [](quint64 bits) { return bits != 0; });
}

} // namespace Brevane::Kvo
