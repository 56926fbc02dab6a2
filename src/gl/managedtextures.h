#pragma once

#include "gl/pagespace.h"
#include "gl/texturemanager.h"

#include <QHash>
#include <QRect>
#include <QSize>
#include <QString>
#include <QVector>

#include <array>
#include <memory>
#include <vector>

class QImage;

namespace Brevane::Kvo {

class BufferObject;
class ShaderProgram;
class Texture;

inline constexpr ManagedKind kManagedKinds[] = {ManagedKind::Data, ManagedKind::Color};

/// Any number of repeating, mip-mapped images that one shader samples through a few texture units.
///
/// The images lie in pages, which are layers of at most four array textures. A mip level has a rectangle of
/// its own, with a border of one texel that repeats the opposite edge. Images that are larger than a page, and where
/// there are many pages those that would waste much of one, are cut into tiles, whose borders hold the neighbouring
/// texels. The small levels at the end share a rectangle. The shader finds the level of detail, wraps the coordinate
/// inside the level and lets the hardware filter there, so that the result is that of a texture of its own. The
/// driver makes the levels, in a texture that holds just that image, so they too are what a texture of its own would
/// have.
///
/// Room: a first page is as small as its images let it be. From there on arrays grow by an eighth of all pages,
/// the smallest array first, since an array that grows exists twice for a moment. What is removed is free at
/// once; the next bind moves images out of pages that are hardly used and gives back pages that are empty.
///
/// A handle is the number of the image's record in a table that the shader reads, plus 1.
///
/// There is one such object for each kind. Of colours the pages and the textures that the levels are made in are
/// sRGB ones, so that the driver decodes texels before it filters them.
class ManagedTextures
{
public:
    explicit ManagedTextures(ManagedKind kind);
    ~ManagedTextures();

    /// 0 when the image is null or there is no room, which a message says. GL's error flag is empty afterwards.
    int add(const QImage &image, const QString &label);
    void remove(int handle);
    int count() const { return int(_maps.size()); }
    /// What a shader has to be able to read for all images there ever were: 0 nothing, 1 one array, 2 one array
    /// with tiles, 3 to 5 two to four arrays with tiles.
    int pageClasses() const { return _pageClasses; }

    void bind(ShaderProgram *program);
    void unbind(ShaderProgram *program);

    /// Moves images together where much was removed, and gives back the pages that are empty then.
    void tidy();

    /// Whether a program reads managed textures of a kind.
    static bool isReadBy(const ShaderProgram *program, ManagedKind kind);

private:
    static constexpr int kArrays = 4;

    /// Texels of a level, and where they lie in their piece, border included.
    struct Part
    {
        int level;
        QRect source;
        QPoint offset;
    };
    /// What lies in one rectangle of a page.
    struct PieceLayout
    {
        QSize padded;
        std::vector<Part> parts;
    };
    struct Layout
    {
        int levels = 0;
        int cutLevels = 0; ///< The first so many are cut into tiles.
        QSize grid; ///< Of tiles, in the first level.
        std::vector<PieceLayout> pieces; ///< By level, and those of a level that is cut row by row.

        int texelOf(int level, const QPoint &tile) const;
        int texels() const;
    };
    struct Piece
    {
        int array = 0;
        int page = 0;
        int number = 0; ///< Of the rectangle in the page.
    };
    struct Map
    {
        QSize size;
        int tileShift = 0; ///< Logarithm of a tile's side.
        int texels = 0; ///< Of its record.
        std::vector<Piece> pieces;
    };
    struct Array
    {
        std::unique_ptr<Texture> texture;
        std::vector<PageSpace> pages; ///< One for each layer.
    };
    struct Place
    {
        int array = -1;
        int page = -1;
        PageSpace::Spot spot;
    };

    QImage fitted(const QImage &image, const QString &label) const;
    static Layout layoutOf(const QSize &size, int tileShift);
    int tileShiftFor(const QSize &size) const;

    bool takePieces(const Layout &layout, Map &map);
    void releasePieces(const Map &map);
    bool fill(const QImage &pixels, const Layout &layout, const Map &map);
    Place findPlace(const QSize &padded, const Piece *mover = nullptr) const;
    Piece takePlace(const Place &place, const QSize &padded);
    bool addRoom(const QSize &padded);
    bool growFirstPage(const QSize &padded);
    bool addPages(int array, int pages);
    bool rebuild(Array &array, const QSize &size, int layers, const std::vector<int> &kept);

    bool emptyOnePage();
    bool movePiece(Piece &piece);
    void giveBack(int array);
    int pageCount() const;

    int takeRecord(int texels);
    void writeRecord(int record, const Map &map);
    PageSpace &pageOf(const Piece &piece);
    QRect rectOf(const Piece &piece) const;

    ManagedKind _kind;
    int _pageSide = 0;
    int _mostLayers = 0;
    std::array<Array, kArrays> _arrays;
    QHash<int, Map> _maps; // by handle
    QHash<int, QVector<int>> _freeRecords; // by number of texels
    QVector<float> _table;
    int _pageClasses = 0;
    bool _tableChanged = true;
    bool _hasNewRoom = false;
    std::unique_ptr<BufferObject> _tableBuffer;
    std::unique_ptr<Texture> _tableTexture;
    std::unique_ptr<Texture> _emptyPages;
};

} // namespace Brevane::Kvo
