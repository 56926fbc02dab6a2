#include "gl/managedtextures.h"

#include "core/hostcode.h"
#include "gl/bufferobject.h"
#include "gl/contextstate.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/shaderprogram.h"
#include "gl/storage.h"
#include "gl/texture.h"

#include <QImage>

#include <epoxy/gl.h>

#include <algorithm>
#include <numeric>
#include <optional>

namespace Brevane::Kvo {

namespace {

constexpr int kBorder = 1;
constexpr int kFloatsPerTexel = 4;
// Room for a level of 1024 by 1024 with its border, and for 2 by 2 of 512, 4 by 4 of 256, 8 by 8 of 128.
constexpr int kPageSide = 1040;
// A first page begins with a side of kPageSide / 16.
constexpr int kFirstPageShift = 4;
// Up to here, 277 MB, one array holds everything: a shader that samples one is the fastest.
constexpr int kPagesOfOneArray = 64;
// Up to here, 35 MB, images that fit a page are not cut: reading tiles costs a shader some time.
constexpr int kFewPages = 8;
// An array grows by this part of all pages.
constexpr int kGrowth = 8;
// The logarithm of a side that no level has.
constexpr int kNoTiles = 20;
// Levels of at most this side share a rectangle.
constexpr int kTailSide = 32;

/// What the shader calls the table and the pages.
struct Uniforms
{
    QString table;
    std::array<QString, 4> pages;
};

const Uniforms &uniformsOf(ManagedKind kind)
{
    static const Uniforms data{QStringLiteral("kvo_ManagedTable"),
                               {QStringLiteral("kvo_ManagedPages0"), QStringLiteral("kvo_ManagedPages1"),
                                QStringLiteral("kvo_ManagedPages2"), QStringLiteral("kvo_ManagedPages3")}};
    static const Uniforms color{QStringLiteral("kvo_ManagedColorTable"),
                                {QStringLiteral("kvo_ManagedColorPages0"), QStringLiteral("kvo_ManagedColorPages1"),
                                 QStringLiteral("kvo_ManagedColorPages2"), QStringLiteral("kvo_ManagedColorPages3")}};
    return kind == ManagedKind::Color ? color : data;
}

GLint internalFormatOf(ManagedKind kind)
{
    return kind == ManagedKind::Color ? GL_SRGB8_ALPHA8 : GL_RGBA8;
}

GLint limit(GLenum query)
{
    GLint value = 0;
    glGetIntegerv(query, &value);
    return value;
}

void specifyPages(Texture &bound, ManagedKind kind, const QSize &size, int layers)
{
    bound.setFilter(GL_LINEAR);
    bound.setWrap(GL_CLAMP_TO_EDGE);
    const DefaultPixelStore pixelStore;
    glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, internalFormatOf(kind), size.width(), size.height(), layers, 0, GL_RGBA,
                 GL_UNSIGNED_BYTE, nullptr);
}

std::unique_ptr<Texture> arrayTexture(const QString &label)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D_ARRAY);
    texture->setLabel(label);
    return texture;
}

struct Span
{
    int from;
    int to;
    int length;
};

// A stretch of a level with a texel more at both ends, where the level repeats: in one piece but for what lies
// beyond the edges.
std::vector<Span> spansWithBorder(int from, int length, int whole, int to)
{
    std::vector<Span> spans;
    const bool atStart = from == 0;
    const bool atEnd = from + length == whole;
    if (atStart)
        spans.push_back({whole - 1, to, 1});
    const int begin = atStart ? from : from - kBorder;
    const int end = from + length + (atEnd ? 0 : kBorder);
    spans.push_back({begin, to + (atStart ? kBorder : 0), end - begin});
    if (atEnd)
        spans.push_back({0, to + kBorder + length, 1});
    return spans;
}

// Copies a part of a level with its border out of the framebuffer that is bound for reading, into the array
// that is bound for writing.
void copyWithBorder(const QSize &level, const QRect &source, const QPoint &at, int layer)
{
    for (const Span &y : spansWithBorder(source.y(), source.height(), level.height(), at.y())) {
        for (const Span &x : spansWithBorder(source.x(), source.width(), level.width(), at.x()))
            glCopyTexSubImage3D(GL_TEXTURE_2D_ARRAY, 0, x.to, y.to, layer, x.from, y.from, x.length, y.length);
    }
}

QSize levelSize(const QSize &size, int level)
{
    return {std::max(1, size.width() >> level), std::max(1, size.height() >> level)};
}

int levelCount(const QSize &size)
{
    int levels = 1;
    for (int longest = std::max(size.width(), size.height()); longest > 1; longest >>= 1)
        ++levels;
    return levels;
}

QSize padded(const QSize &size)
{
    return size + QSize(2 * kBorder, 2 * kBorder);
}

QSize gridOf(const QSize &size, int tile)
{
    return {(size.width() + tile - 1) / tile, (size.height() + tile - 1) / tile};
}

} // namespace

ManagedTextures::ManagedTextures(ManagedKind kind)
    : _kind(kind), _pageSide(std::min(kPageSide, limit(GL_MAX_TEXTURE_SIZE))),
      _mostLayers(limit(GL_MAX_ARRAY_TEXTURE_LAYERS))
{}

ManagedTextures::~ManagedTextures() = default;

QImage ManagedTextures::fitted(const QImage &image, const QString &label) const
{
    const int largest = limit(GL_MAX_TEXTURE_SIZE);
    QImage fit = image;
    if (std::max(image.width(), image.height()) > largest) {
        fit = image.scaled(std::min(image.width(), largest), std::min(image.height(), largest), Qt::IgnoreAspectRatio,
                           Qt::SmoothTransformation);
        const HostCode hostCode;
        qWarning("Texture '%s' is reduced from %dx%d to %dx%d, the largest that this driver holds", qPrintable(label),
                 image.width(), image.height(), fit.width(), fit.height());
    }
    return fit.convertToFormat(QImage::Format_RGBA8888).mirrored(false, true);
}

// Where the place of a tile stands in the record.
int ManagedTextures::Layout::texelOf(int level, const QPoint &tile) const
{
    const int cut = std::min(level, cutLevels);
    return 1 + level - cut + cut * grid.width() * grid.height() + tile.y() * grid.width() + tile.x();
}

int ManagedTextures::Layout::texels() const
{
    return texelOf(levels, {});
}

// What takes more than half of a page, but leaves a strip that little fits into, would waste the strip. Of an image
// that is not cut every level fits: the half of a page, with its border, is one texel more than half a page.
int ManagedTextures::tileShiftFor(const QSize &size) const
{
    const bool isFew = pageCount() < kFewPages;
    const auto isGood = [this, isFew](int side) {
        const bool isLarge = isFew || side >= _pageSide * 7 / 8;
        return side <= _pageSide / 2 + 1 || (isLarge && side <= _pageSide);
    };
    if (isGood(padded(size).width()) && isGood(padded(size).height()))
        return kNoTiles;
    int shift = 0;
    while (padded(QSize(2, 2) * (1 << shift)).width() <= _pageSide / 2)
        ++shift;
    return shift;
}

ManagedTextures::Layout ManagedTextures::layoutOf(const QSize &size, int tileShift)
{
    Layout layout;
    layout.levels = levelCount(size);
    const int side = 1 << tileShift;
    layout.grid = gridOf(size, side);
    int tail = 0;
    for (; tail < layout.levels; ++tail) {
        const QRect whole(QPoint(0, 0), levelSize(size, tail));
        if (std::max(whole.width(), whole.height()) <= std::min(kTailSide, side))
            break;
        const QSize grid = gridOf(whole.size(), side);
        if (grid != QSize(1, 1))
            layout.cutLevels = tail + 1;
        for (int y = 0; y < grid.height(); ++y) {
            for (int x = 0; x < grid.width(); ++x) {
                const QRect source = QRect(x * side, y * side, side, side) & whole;
                layout.pieces.push_back({padded(source.size()), {{tail, source, {}}}});
            }
        }
    }

    // The first level of the tail, and the others in a row or a column beside it.
    PieceLayout last;
    const QSize first = padded(levelSize(size, tail));
    last.padded = first;
    last.parts.push_back({tail, QRect(QPoint(0, 0), levelSize(size, tail)), {}});
    const bool isWide = first.width() > first.height();
    QPoint at = isWide ? QPoint(0, first.height()) : QPoint(first.width(), 0);
    for (int level = tail + 1; level < layout.levels; ++level) {
        const QSize rest = levelSize(size, level);
        last.parts.push_back({level, QRect(QPoint(0, 0), rest), at});
        last.padded = last.padded.expandedTo(QSize(at.x(), at.y()) + padded(rest));
        at += isWide ? QPoint(padded(rest).width(), 0) : QPoint(0, padded(rest).height());
    }
    layout.pieces.push_back(std::move(last));
    return layout;
}

int ManagedTextures::add(const QImage &image, const QString &label)
{
    if (image.isNull())
        return 0;
    const QImage pixels = fitted(image, label);
    Map map;
    map.size = pixels.size();
    map.tileShift = tileShiftFor(map.size);
    const Layout layout = layoutOf(map.size, map.tileShift);
    map.texels = layout.texels();
    const int record = takeRecord(map.texels);
    const bool hasRoom = record >= 0 && takePieces(layout, map) && fill(pixels, layout, map);
    if (!hasRoom) {
        const HostCode hostCode;
        qWarning("No room is left for texture '%s' of %dx%d; it reads white", qPrintable(label), map.size.width(),
                 map.size.height());
        releasePieces(map);
        if (record >= 0)
            _freeRecords[map.texels].append(record);
        return 0;
    }
    _pageClasses = std::max(_pageClasses, layout.cutLevels > 0 ? 2 : 1);
    writeRecord(record, map);
    const int handle = record + 1;
    _maps.insert(handle, map);
    return handle;
}

bool ManagedTextures::takePieces(const Layout &layout, Map &map)
{
    for (const PieceLayout &piece : layout.pieces) {
        Place place = findPlace(piece.padded);
        while (place.array < 0 && addRoom(piece.padded))
            place = findPlace(piece.padded);
        if (place.array < 0)
            return false;
        map.pieces.push_back(takePlace(place, piece.padded));
    }
    return true;
}

void ManagedTextures::releasePieces(const Map &map)
{
    for (const Piece &piece : map.pieces)
        pageOf(piece).release(piece.number);
    _hasNewRoom = true;
}

// The driver makes the levels in a texture of its own, out of which they are copied.
bool ManagedTextures::fill(const QImage &pixels, const Layout &layout, const Map &map)
{
    Texture source;
    source.setTarget(GL_TEXTURE_2D);
    const DefaultPixelStore pixelStore;
    StorageBinder bound(&source);
    takeErrors();
    glTexImage2D(GL_TEXTURE_2D, 0, internalFormatOf(_kind), map.size.width(), map.size.height(), 0, GL_RGBA,
                 GL_UNSIGNED_BYTE, pixels.constBits());
    if (takeErrors())
        return false;
    glGenerateMipmap(GL_TEXTURE_2D);
    if (takeErrors())
        return false;
    FramebufferObject reader;
    AutoBinder boundReader(&reader);
    std::optional<StorageBinder> boundPages;
    int array = -1;
    int level = -1;
    for (std::size_t i = 0; i < map.pieces.size(); ++i) {
        const Piece &piece = map.pieces[i];
        if (std::exchange(array, piece.array) != piece.array) {
            boundPages.reset();
            boundPages.emplace(_arrays[std::size_t(array)].texture.get());
        }
        for (const Part &part : layout.pieces[i].parts) {
            if (std::exchange(level, part.level) != part.level)
                reader.attach(&source, GL_COLOR_ATTACHMENT0, level);
            copyWithBorder(levelSize(map.size, level), part.source, rectOf(piece).topLeft() + part.offset, piece.page);
        }
    }
    return true;
}

void ManagedTextures::remove(int handle)
{
    const auto found = _maps.find(handle);
    if (found == _maps.end())
        return;
    releasePieces(*found);
    _freeRecords[found->texels].append(handle - 1);
    _maps.erase(found);
    if (!_maps.isEmpty())
        return;
    for (Array &array : _arrays)
        array = {};
    _freeRecords.clear();
    _table.clear();
    _tableChanged = true;
    _hasNewRoom = false;
}

PageSpace &ManagedTextures::pageOf(const Piece &piece)
{
    return _arrays[std::size_t(piece.array)].pages[std::size_t(piece.page)];
}

QRect ManagedTextures::rectOf(const Piece &piece) const
{
    return _arrays[std::size_t(piece.array)].pages[std::size_t(piece.page)].rect(piece.number);
}

int ManagedTextures::takeRecord(int texels)
{
    QVector<int> &free = _freeRecords[texels];
    if (!free.isEmpty())
        return free.takeLast();
    const int record = int(_table.size() / kFloatsPerTexel);
    // A float tells whole numbers apart up to here.
    constexpr int kMostTexels = 1 << 24;
    if (record + texels > std::min(limit(GL_MAX_TEXTURE_BUFFER_SIZE), kMostTexels))
        return -1;
    _table.resize(_table.size() + qsizetype(texels) * kFloatsPerTexel);
    return record;
}

void ManagedTextures::writeRecord(int record, const Map &map)
{
    const Layout layout = layoutOf(map.size, map.tileShift);
    float *const first = _table.data() + qsizetype(record) * kFloatsPerTexel;
    const auto write = [first](int texel, int a, int b, int c, int d) {
        float *at = first + qsizetype(texel) * kFloatsPerTexel;
        for (const int value : {a, b, c, d})
            *at++ = float(value);
    };
    write(0, map.size.width(), map.size.height(), layout.levels + 64 * layout.cutLevels, map.tileShift);
    for (std::size_t i = 0; i < map.pieces.size(); ++i) {
        const Piece &piece = map.pieces[i];
        for (const Part &part : layout.pieces[i].parts) {
            const QPoint at = rectOf(piece).topLeft() + part.offset + QPoint(kBorder, kBorder);
            const QPoint tile(part.source.x() >> map.tileShift, part.source.y() >> map.tileShift);
            write(layout.texelOf(part.level, tile), at.x(), at.y(), piece.page, piece.array);
        }
    }
    _tableChanged = true;
}

// Where the least is left over. A piece that moves goes to another page, one that is used already.
ManagedTextures::Place ManagedTextures::findPlace(const QSize &padded, const Piece *mover) const
{
    Place best;
    for (int a = 0; a < kArrays; ++a) {
        const std::vector<PageSpace> &pages = _arrays[std::size_t(a)].pages;
        for (int p = 0; p < int(pages.size()); ++p) {
            const PageSpace &page = pages[std::size_t(p)];
            if (mover && (page.isEmpty() || (a == mover->array && p == mover->page)))
                continue;
            const PageSpace::Spot spot = page.find(padded);
            if (spot.leaf >= 0 && (best.array < 0 || spot.rest < best.spot.rest))
                best = {a, p, spot};
        }
    }
    return best;
}

ManagedTextures::Piece ManagedTextures::takePlace(const Place &place, const QSize &padded)
{
    Piece piece{place.array, place.page, 0};
    piece.number = pageOf(piece).take(place.spot, padded);
    return piece;
}

int ManagedTextures::pageCount() const
{
    return std::accumulate(_arrays.cbegin(), _arrays.cend(), 0,
                           [](int sum, const Array &array) { return sum + int(array.pages.size()); });
}

// Makes room for a piece, or at least some more than there was.
bool ManagedTextures::addRoom(const QSize &padded)
{
    if (std::max(padded.width(), padded.height()) > _pageSide)
        return false;
    const int total = pageCount();
    const QSize whole(_pageSide, _pageSide);
    if (total == 0 || (total == 1 && _arrays[0].texture && _arrays[0].pages[0].size() != whole))
        return growFirstPage(padded);

    int smallest = -1;
    int unused = -1;
    for (int a = kArrays - 1; a >= 0; --a) {
        const int pages = int(_arrays[std::size_t(a)].pages.size());
        if (pages == 0)
            unused = a;
        else if (smallest < 0 || pages < int(_arrays[std::size_t(smallest)].pages.size()))
            smallest = a;
    }
    const int more = std::max(1, total / kGrowth);
    const int used = int(_arrays[std::size_t(smallest)].pages.size());
    const bool isFull = used >= std::min(kPagesOfOneArray, _mostLayers);
    if (unused >= 0 && isFull)
        return addPages(unused, more) || addPages(unused, 1);
    // Growing takes the array twice for a moment; where there is no memory for that, a new one may still find some.
    return addPages(smallest, more) || addPages(smallest, 1) || (unused >= 0 && addPages(unused, 1));
}

// The only page is no larger than what lies in it asks for, in steps.
bool ManagedTextures::growFirstPage(const QSize &padded)
{
    Array &first = _arrays[0];
    const bool isNew = first.pages.empty();
    const int start = std::max(1, _pageSide >> kFirstPageShift);
    QSize size = isNew ? QSize(start, start) : first.pages[0].size();
    const auto twice = [this](int &side) { side = std::min(2 * side, _pageSide); };
    if (!isNew)
        twice(size.width() <= size.height() ? size.rwidth() : size.rheight());
    while (size.width() < padded.width())
        twice(size.rwidth());
    while (size.height() < padded.height())
        twice(size.rheight());
    if (!rebuild(first, size, 1, isNew ? std::vector<int>() : std::vector<int>{0}))
        return false;
    if (isNew)
        first.pages.emplace_back(size);
    else
        first.pages[0].grow(size);
    return true;
}

bool ManagedTextures::addPages(int array, int pages)
{
    Array &grown = _arrays[std::size_t(array)];
    const int old = int(grown.pages.size());
    const int layers = std::min(_mostLayers, old + pages);
    const QSize size(_pageSide, _pageSide);
    std::vector<int> kept(std::size_t(old), 0);
    std::iota(kept.begin(), kept.end(), 0);
    if (layers <= old || !rebuild(grown, size, layers, kept))
        return false;
    grown.pages.resize(std::size_t(layers), PageSpace(size));
    if (array > 0)
        _pageClasses = std::max(_pageClasses, array + 2);
    return true;
}

// Gives an array another texture, with these layers of the old one in front.
bool ManagedTextures::rebuild(Array &array, const QSize &size, int layers, const std::vector<int> &kept)
{
    auto texture = arrayTexture(QStringLiteral("managed textures, %1 pages").arg(layers));
    StorageBinder bound(texture.get());
    if (!bound.isBound())
        return false;
    takeErrors();
    specifyPages(*texture, _kind, size, layers);
    if (takeErrors())
        return false;
    FramebufferObject reader;
    AutoBinder boundReader(&reader);
    for (int layer = 0; layer < int(kept.size()); ++layer) {
        const int from = kept[std::size_t(layer)];
        const QSize copied = array.pages[std::size_t(from)].size();
        reader.attach3D(array.texture.get(), GL_COLOR_ATTACHMENT0, from, 0);
        glCopyTexSubImage3D(GL_TEXTURE_2D_ARRAY, 0, 0, 0, layer, 0, 0, copied.width(), copied.height());
    }
    array.texture = std::move(texture);
    return true;
}

void ManagedTextures::tidy()
{
    if (!std::exchange(_hasNewRoom, false))
        return;
    while (emptyOnePage()) {
    }
    for (int a = 0; a < kArrays; ++a)
        giveBack(a);
}

// Moves all that lies in the page with the least in it to others, when those are little used. False when there
// is nothing to win, or no place for something; what moved until then stays where it went.
bool ManagedTextures::emptyOnePage()
{
    Piece emptiest{-1, -1, 0};
    qint64 least = 0;
    qint64 used = 0;
    int live = 0;
    for (int a = 0; a < kArrays; ++a) {
        const std::vector<PageSpace> &pages = _arrays[std::size_t(a)].pages;
        for (int p = 0; p < int(pages.size()); ++p) {
            const qint64 here = pages[std::size_t(p)].used();
            if (here == 0)
                continue;
            ++live;
            used += here;
            if (emptiest.array < 0 || here < least) {
                emptiest = {a, p, 0};
                least = here;
            }
        }
    }
    const qint64 room = qint64(_pageSide) * _pageSide * (live - 1);
    if (live < 2 || used > room / 4 * 3)
        return false;
    FramebufferObject reader;
    AutoBinder boundReader(&reader);
    reader.attach3D(_arrays[std::size_t(emptiest.array)].texture.get(), GL_COLOR_ATTACHMENT0, emptiest.page, 0);
    for (auto map = _maps.begin(); map != _maps.end(); ++map) {
        bool hasMoved = false;
        bool hasPlace = true;
        for (std::size_t i = 0; i < map->pieces.size() && hasPlace; ++i) {
            if (map->pieces[i].array == emptiest.array && map->pieces[i].page == emptiest.page) {
                hasPlace = movePiece(map->pieces[i]);
                hasMoved = hasMoved || hasPlace;
            }
        }
        if (hasMoved)
            writeRecord(map.key() - 1, *map);
        if (!hasPlace)
            return false;
    }
    return true;
}

// Its page is bound for reading. False where there is no place for it.
bool ManagedTextures::movePiece(Piece &piece)
{
    const QRect from = rectOf(piece);
    const Place place = findPlace(from.size(), &piece);
    if (place.array < 0)
        return false;
    const Piece moved = takePlace(place, from.size());
    const QPoint to = rectOf(moved).topLeft();
    StorageBinder bound(_arrays[std::size_t(moved.array)].texture.get());
    glCopyTexSubImage3D(GL_TEXTURE_2D_ARRAY, 0, to.x(), to.y(), moved.page, from.x(), from.y(), from.width(),
                        from.height());
    pageOf(piece).release(piece.number);
    piece = moved;
    return true;
}

// Where a quarter of an array is empty it becomes a smaller one.
void ManagedTextures::giveBack(int array)
{
    Array &shrunk = _arrays[std::size_t(array)];
    std::vector<int> kept;
    std::vector<int> now(shrunk.pages.size(), -1);
    for (std::size_t p = 0; p < shrunk.pages.size(); ++p) {
        if (!shrunk.pages[p].isEmpty()) {
            now[p] = int(kept.size());
            kept.push_back(int(p));
        }
    }
    if (kept.empty()) {
        shrunk = {};
        return;
    }
    if (4 * (now.size() - kept.size()) <= now.size()
        || !rebuild(shrunk, shrunk.pages[0].size(), int(kept.size()), kept))
        return;
    std::vector<PageSpace> pages;
    pages.reserve(kept.size());
    for (const int page : kept)
        pages.push_back(std::move(shrunk.pages[std::size_t(page)]));
    shrunk.pages = std::move(pages);
    for (auto map = _maps.begin(); map != _maps.end(); ++map) {
        for (Piece &piece : map->pieces) {
            if (piece.array == array)
                piece.page = now[std::size_t(piece.page)];
        }
        writeRecord(map.key() - 1, *map);
    }
}

bool ManagedTextures::isReadBy(const ShaderProgram *program, ManagedKind kind)
{
    return program && program->hasUniform(uniformsOf(kind).table);
}

void ManagedTextures::bind(ShaderProgram *program)
{
    if (!isReadBy(program, _kind))
        return;
    tidy();
    if (!_tableBuffer) {
        _tableBuffer = std::make_unique<BufferObject>();
        _tableBuffer->setTarget(GL_TEXTURE_BUFFER);
        _tableTexture = std::make_unique<Texture>();
        _tableTexture->setTarget(GL_TEXTURE_BUFFER);
        _tableTexture->setLabel(QStringLiteral("managed texture table"));
        _emptyPages = arrayTexture(QStringLiteral("no managed textures"));
        StorageBinder bound(_emptyPages.get());
        specifyPages(*_emptyPages, _kind, QSize(1, 1), 1);
    }
    if (std::exchange(_tableChanged, false)) {
        if (_table.isEmpty())
            _table.resize(kFloatsPerTexel);
        _tableBuffer->upload(_table.constData(), int(_table.size()), GL_STATIC_DRAW);
        StorageBinder bound(_tableTexture.get());
        glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32F, _tableBuffer->getBO());
    }
    _tableTexture->bind();
    program->setUniform(uniformsOf(_kind).table, _tableTexture->unit());
    _emptyPages->bind();
    for (int i = 0; i < kArrays; ++i) {
        // A sampler that is left alone would share unit 0 with samplers of other types, which GL refuses.
        Texture *pages = _arrays[std::size_t(i)].texture.get();
        if (pages)
            pages->bind();
        program->setUniform(uniformsOf(_kind).pages[std::size_t(i)], (pages ? pages : _emptyPages.get())->unit());
    }
}

void ManagedTextures::unbind(ShaderProgram *program)
{
    if (!isReadBy(program, _kind) || !_tableTexture)
        return;
    for (int i = kArrays - 1; i >= 0; --i) {
        if (Texture *pages = _arrays[std::size_t(i)].texture.get())
            pages->unbind();
    }
    _emptyPages->unbind();
    _tableTexture->unbind();
}

} // namespace Brevane::Kvo
