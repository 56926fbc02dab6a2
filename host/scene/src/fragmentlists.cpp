#include "host/fragmentlists.h"

#include "failure.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/texture.h"
#include "host/imageoutput.h"

#include <epoxy/gl.h>

#include <QColor>
#include <QStringList>

#include <algorithm>
#include <bit>

namespace Brevane::Kvo {

namespace {

// The node buffer is large and filled from its first row on.
QVector<quint32> readRows(Texture *nodeBuffer, int width, int rows, bool isSigned)
{
    QVector<quint32> texels(qsizetype(width) * rows * 4);
    FramebufferObject framebuffer;
    AutoBinder bound(&framebuffer);
    framebuffer.attach(nodeBuffer, GL_COLOR_ATTACHMENT0, 0);
    glReadBuffer(GL_COLOR_ATTACHMENT0);
    const DefaultPixelStore pixelStore;
    glReadPixels(0, 0, width, rows, GL_RGBA_INTEGER, isSigned ? GL_INT : GL_UNSIGNED_INT, texels.data());
    return texels;
}

} // namespace

bool FragmentLists::read(Texture *headPointers, Texture *nodeBuffer, int nodeBufferWidth, QString *error)
{
    *this = FragmentLists();
    TexturePixels heads;
    if (!nodeBuffer || nodeBufferWidth < 1)
        return fail(error, QStringLiteral("there is no node buffer"));
    if (!readTexture(headPointers, &heads, error))
        return false;
    if (heads.kind != TexturePixels::Kind::Integer || heads.channels != 1)
        return fail(error, QStringLiteral("the first texture does not hold head pointers"));
    GLint width = 0;
    GLint height = 0;
    GLint format = 0;
    {
        AutoBinder bound(nodeBuffer);
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_INTERNAL_FORMAT, &format);
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &height);
    }
    if (width != nodeBufferWidth)
        return fail(error, QStringLiteral("the node buffer is %1 texels wide, not %2").arg(width).arg(nodeBufferWidth));
    _size = QSize(heads.width, heads.height);
    _heads = heads.integers;
    _capacity = qint64(width) * height;
    // Signed where there is one node per pixel, which leaves no place for the draw.
    _hasDraws = format != GL_RGBA32I;
    // Pointers are given out in order. The last one is the head of its pixel, or near it where fragments
    // of a pixel run side by side, in the next row perhaps.
    quint32 last = *std::max_element(_heads.cbegin(), _heads.cend());
    _nodes =
        readRows(nodeBuffer, width, int(std::min((qint64(last) + width - 1) / width + 1, qint64(height))), !_hasDraws);

    for (qsizetype i = 0; i < _nodes.size(); i += 4)
        last = std::max(last, _nodes[i]);

    _lengths.resize(_heads.size());
    _cuts.resize(_heads.size());
    qint64 listed = 0;
    for (int y = 0; y < _size.height(); ++y) {
        for (int x = 0; x < _size.width(); ++x) {
            End end = End::Proper;
            const int length = int(walk(x, y, &end).size());
            const qsizetype pixel = qsizetype(y) * _size.width() + x;
            _lengths[pixel] = length;
            _cuts[pixel] = end == End::Lost;
            _cutPixels += end == End::Lost;
            listed += length;
            _coveredPixels += length > 0;
            _unsortedPixels += length > kSortedLength;
            _longest = std::max(_longest, length);
        }
    }
    // Where a pixel keeps its nearest fragment only, pointers name pixels and do not count.
    const bool isOnePerPixel = QSize(width, height) == _size && _longest <= 1;
    _fragmentCount = isOnePerPixel ? listed : qint64(last);
    return true;
}

bool FragmentLists::isInside(int x, int y) const
{
    return x >= 0 && y >= 0 && x < _size.width() && y < _size.height();
}

QVector<ListedFragment> FragmentLists::at(int x, int y) const
{
    End end = End::Proper;
    return walk(x, y, &end);
}

// As the shading walks: a list ends where it leads beyond the buffer, and nodes without an identity, which the sort
// moves there from its end, hold no fragment.
QVector<ListedFragment> FragmentLists::walk(int x, int y, End *end) const
{
    QVector<ListedFragment> list;
    if (!isInside(x, y))
        return list;
    quint32 pointer = _heads[qsizetype(y) * _size.width() + x];
    const qsizetype stored = _nodes.size() / 4;
    *end = End::Proper;
    // A damaged list could run in a circle.
    for (qsizetype i = 0; i < stored && pointer != 0 && pointer <= stored; ++i) {
        const quint32 *node = _nodes.constData() + qsizetype(pointer - 1) * 4;
        if (node[1] == 0)
            *end = End::Lost;
        else
            list.append({node[3], node[1] - 1, std::bit_cast<float>(node[2]), pointer - 1});
        pointer = node[0];
    }
    if (pointer > _capacity)
        *end = End::Lost;
    return list;
}

bool FragmentLists::isCutAt(int x, int y) const
{
    return isInside(x, y) && _cuts[qsizetype(y) * _size.width() + x];
}

int FragmentLists::lengthAt(int x, int y) const
{
    return isInside(x, y) ? _lengths[qsizetype(y) * _size.width() + x] : 0;
}

QStringList FragmentLists::summary() const
{
    const double pixels = double(_size.width()) * double(_size.height());
    QStringList lines;
    lines << QStringLiteral("%1 fragments in %2 pixels (%3 % of the picture), %4 in the longest list")
                 .arg(_fragmentCount)
                 .arg(_coveredPixels)
                 .arg(100.0 * double(_coveredPixels) / pixels, 0, 'f', 1)
                 .arg(_longest);
    lines << QStringLiteral("the node buffer holds %1 and is %2 % full")
                 .arg(_capacity)
                 .arg(100.0 * double(std::min(_fragmentCount, _capacity)) / double(_capacity), 0, 'f', 1);
    lines << QStringLiteral("%1 pixels have more than %2 fragments, which are not sorted whole")
                 .arg(_unsortedPixels)
                 .arg(kSortedLength);
    if (lostCount() > 0)
        lines << QStringLiteral("the node buffer overflowed: %1 fragments are lost, and what came before them to %2 "
                                "pixels")
                     .arg(lostCount())
                     .arg(_cutPixels);
    return lines;
}

QImage FragmentLists::lengthImage() const
{
    constexpr int kLeastScale = 8;
    constexpr double kBlue = 240.0 / 360.0;
    QImage image(_size, QImage::Format_RGB32);
    const double scale = std::max(kLeastScale, std::min(_longest, kSortedLength)) - 1;
    for (int y = 0; y < _size.height(); ++y) {
        for (int x = 0; x < _size.width(); ++x) {
            const int length = lengthAt(x, y);
            QColor color = Qt::black;
            if (length > kSortedLength)
                color = Qt::white;
            else if (length == 0 && isCutAt(x, y))
                color = Qt::magenta;
            else if (length > 0)
                color = QColor::fromHsvF(float(kBlue * (1.0 - (length - 1) / scale)), 1.0f, 1.0f);
            image.setPixelColor(x, _size.height() - 1 - y, color);
        }
    }
    return image;
}

} // namespace Brevane::Kvo
