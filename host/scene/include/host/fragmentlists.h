#pragma once

#include "host/export.h"

#include <QImage>
#include <QSize>
#include <QString>
#include <QVector>

namespace Brevane::Kvo {

class Texture;

/// A fragment of a list.
struct ListedFragment
{
    quint32 draw = 0; ///< Index of the item in its model; 0 for all where draws are not recorded.
    quint32 primitive = 0; ///< Triangle within the draw, from 0.
    float depth = 0.0f; ///< Window depth, 0 to 1.
    quint32 node = 0; ///< Index in the node buffer.
};

/// The fragment lists of VisibilityBufferRenderPass and VisibilitySortRenderPass, read back from the
/// GPU: for looking into a frame, not for every frame.
class KVO_SCENE_EXPORT FragmentLists
{
public:
    /// Longest list that VisibilitySortRenderPass sorts whole.
    static constexpr int kSortedLength = 50;

    /// Reads the outputs of either pass; waits for the GPU. False with the reason.
    bool read(Texture *headPointers, Texture *nodeBuffer, int nodeBufferWidth, QString *error = nullptr);

    /// Of the picture, in pixels.
    QSize size() const { return _size; }
    /// The list of a pixel from its head on; (0, 0) is the lower left pixel, as in GL. Beyond the picture, and before
    /// anything was read, no pixel has a list.
    QVector<ListedFragment> at(int x, int y) const;
    /// Fragments in the list of a pixel.
    int lengthAt(int x, int y) const;
    /// Whether the list of a pixel leads to a node that found no room: that fragment is lost, and all that came
    /// to the pixel before it.
    bool isCutAt(int x, int y) const;
    /// Whether fragments know their draw. They do not where only the nearest one of a pixel is kept.
    bool hasDraws() const { return _hasDraws; }

    /// Fragments that were counted, the lost ones included.
    qint64 fragmentCount() const { return _fragmentCount; }
    /// Fragments that the node buffer holds.
    qint64 capacity() const { return _capacity; }
    /// Fragments beyond the capacity.
    qint64 lostCount() const { return qMax(qint64(0), _fragmentCount - _capacity); }
    /// Fragments in the longest list.
    int longest() const { return _longest; }
    /// Pixels with at least one fragment.
    qint64 coveredPixels() const { return _coveredPixels; }
    /// Pixels with more fragments than are sorted.
    qint64 unsortedPixels() const { return _unsortedPixels; }
    /// Pixels whose list is cut.
    qint64 cutPixels() const { return _cutPixels; }
    /// Fragments, whole lists, the longest, the fill of the buffer and what was lost, a line each.
    QStringList summary() const;

    /// A picture of the lengths, upright: black for none, from blue (1) over green to red (the longest,
    /// at least 8), white for what is not sorted whole, magenta where all fragments are lost.
    QImage lengthImage() const;

private:
    enum class End { Proper, Lost };
    bool isInside(int x, int y) const;
    QVector<ListedFragment> walk(int x, int y, End *end) const;

    QSize _size;
    QVector<quint32> _heads;
    QVector<quint32> _nodes; // four words each
    QVector<int> _lengths;
    QVector<bool> _cuts;
    qint64 _fragmentCount = 0;
    qint64 _capacity = 0;
    qint64 _coveredPixels = 0;
    qint64 _unsortedPixels = 0;
    qint64 _cutPixels = 0;
    bool _hasDraws = true;
    int _longest = 0;
};

} // namespace Brevane::Kvo
