#include "gl/pagespace.h"

#include <algorithm>

namespace Brevane::Kvo {

namespace {

qint64 areaOf(const QSize &size)
{
    return qint64(size.width()) * size.height();
}

} // namespace

PageSpace::PageSpace(const QSize &size) : _size(size)
{
    _root = add(QRect(QPoint(0, 0), size), -1);
    setFree(_root);
}

PageSpace::Spot PageSpace::find(const QSize &size) const
{
    Spot best;
    const qint64 wanted = areaOf(size);
    if (areaOf(_size) - _used < wanted)
        return best;
    for (const int leaf : _free) {
        const QRect &room = _nodes[std::size_t(leaf)].rect;
        if (room.width() < size.width() || room.height() < size.height())
            continue;
        const qint64 rest = areaOf(room.size()) - wanted;
        if (best.leaf < 0 || rest < best.rest)
            best = {leaf, rest};
    }
    return best;
}

int PageSpace::take(const Spot &spot, const QSize &size)
{
    int leaf = spot.leaf;
    unsetFree(leaf);
    const QSize rest = at(leaf).rect.size() - size;
    // Along the side where more is left: the larger one of the two rectangles that remain is then larger still.
    const bool widthFirst = rest.width() > rest.height();
    if (widthFirst && rest.width() > 0)
        leaf = split(leaf, Qt::Horizontal, size.width());
    if (rest.height() > 0)
        leaf = split(leaf, Qt::Vertical, size.height());
    if (!widthFirst && rest.width() > 0)
        leaf = split(leaf, Qt::Horizontal, size.width());
    at(leaf).isTaken = true;
    _used += areaOf(size);
    return leaf;
}

void PageSpace::release(int number)
{
    at(number).isTaken = false;
    _used -= areaOf(at(number).rect.size());
    int leaf = number;
    for (int parent = at(leaf).parent; parent >= 0; parent = at(leaf).parent) {
        const int other = at(parent).first == leaf ? at(parent).second : at(parent).first;
        if (at(other).first >= 0 || at(other).isTaken)
            break;
        unsetFree(other);
        _spare.insert(_spare.end(), {leaf, other});
        at(parent).first = at(parent).second = -1;
        leaf = parent;
    }
    setFree(leaf);
}

void PageSpace::grow(const QSize &size)
{
    const auto grown = [this](const QRect &whole, const QRect &more) {
        const int old = _root;
        const int root = add(whole, -1);
        const int beside = add(more, root);
        at(root).first = old;
        at(root).second = beside;
        at(old).parent = root;
        _root = root;
        setFree(beside);
    };
    if (size.width() > _size.width())
        grown({0, 0, size.width(), _size.height()}, {_size.width(), 0, size.width() - _size.width(), _size.height()});
    if (size.height() > _size.height())
        grown({0, 0, size.width(), size.height()}, {0, _size.height(), size.width(), size.height() - _size.height()});
    _size = size;
    if (_used == 0)
        *this = PageSpace(size);
}

int PageSpace::add(const QRect &rect, int parent)
{
    int node = int(_nodes.size());
    if (_spare.empty()) {
        _nodes.emplace_back();
    } else {
        node = _spare.back();
        _spare.pop_back();
    }
    at(node) = {rect, parent};
    return node;
}

int PageSpace::split(int leaf, Qt::Orientation across, int length)
{
    QRect near = at(leaf).rect;
    QRect far = near;
    if (across == Qt::Horizontal) {
        near.setWidth(length);
        far.setLeft(near.right() + 1);
    } else {
        near.setHeight(length);
        far.setTop(near.bottom() + 1);
    }
    const int first = add(near, leaf);
    const int second = add(far, leaf);
    at(leaf).first = first;
    at(leaf).second = second;
    setFree(second);
    return first;
}

void PageSpace::setFree(int leaf)
{
    _free.push_back(leaf);
}

void PageSpace::unsetFree(int leaf)
{
    // The order of the list decides between equals only.
    const auto found = std::find(_free.begin(), _free.end(), leaf);
    *found = _free.back();
    _free.pop_back();
}

} // namespace Brevane::Kvo
