#pragma once

#include "gl/export.h"

#include <QRect>
#include <QSize>

#include <vector>

namespace Brevane::Kvo {

/// Which rectangles of a page are taken. Free room is cut in two, guillotine fashion, for each rectangle that
/// is taken; halves that are both free again are one again, so that a page from which everything is released
/// is as it was made, in whatever order.
class KVO_GL_EXPORT PageSpace
{
public:
    explicit PageSpace(const QSize &size);

    struct Spot
    {
        int leaf = -1; ///< -1: there is none.
        qint64 rest = 0; ///< Texels of the free rectangle that would be left over.
    };
    /// The free rectangle that fits a size best.
    Spot find(const QSize &size) const;
    /// Takes a size out of a free rectangle and gives its number.
    int take(const Spot &spot, const QSize &size);
    void release(int number);
    QRect rect(int number) const { return _nodes[std::size_t(number)].rect; }

    QSize size() const { return _size; }
    /// Texels that are taken.
    qint64 used() const { return _used; }
    bool isEmpty() const { return _used == 0; }
    /// Makes the page larger, to the right or below. What is taken stays where it is.
    void grow(const QSize &size);

private:
    struct Node
    {
        QRect rect;
        int parent = -1;
        int first = -1; ///< One of two halves, -1: the node is a leaf.
        int second = -1;
        bool isTaken = false;
    };

    int add(const QRect &rect, int parent);
    int split(int leaf, Qt::Orientation across, int length);
    void setFree(int leaf);
    void unsetFree(int leaf);
    Node &at(int node) { return _nodes[std::size_t(node)]; }

    QSize _size;
    qint64 _used = 0;
    int _root = 0;
    std::vector<Node> _nodes;
    std::vector<int> _free; // leaves
    std::vector<int> _spare; // nodes that are no part of the tree
};

} // namespace Brevane::Kvo
