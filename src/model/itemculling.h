#pragma once

#include <QMatrix4x4>
#include <QVector3D>
#include <QVector>

#include <vector>

namespace Brevane::Kvo {

/// Which items of a model lie outside of views. Follows items that are moved.
class ItemCulling
{
public:
    /// A bit per item.
    using Bits = std::vector<quint64>;
    static bool has(const Bits &bits, std::size_t item) { return bits[item / 64] >> (item % 64) & 1; }

    /// The box of the next item's mesh, and its own in the world. One that has its minimum above its maximum has
    /// nothing to be drawn.
    void add(const QVector3D &meshMinimum, const QVector3D &meshMaximum, const QVector3D &minimum,
             const QVector3D &maximum, const QMatrix4x4 &transform);
    /// The floats that belong to what was added.
    void setFirstPlaces(const QVector<float> &places) { _places = places; }
    /// The items stand where these floats say from now on: 32 for each, the transform first, column by column.
    void setPlaces(const QVector<float> &places);

    /// Sets the bits of the items that lie outside of all of some views, world to clip space each; whether there
    /// are any. An item that a GPU, with its own rounding, might draw a pixel of is never among them.
    bool findOutside(const QMatrix4x4 *viewProjections, int count, Bits &outside) const;
    /// The box around some items; their minimum is above their maximum where none of them has anything to be drawn.
    void bound(const std::vector<int> &items, QVector3D &minimum, QVector3D &maximum) const;

private:
    struct Box
    {
        float center[3];
        float extent[3]; ///< Half of the size; infinite for what cannot be told.
    };
    static Box placedBox(const Box &mesh, const float *transform);

    std::vector<Box> _meshes; ///< By item.
    std::vector<Box> _boxes; ///< In the world.
    QVector<float> _places; ///< That the boxes are for.
};

} // namespace Brevane::Kvo
