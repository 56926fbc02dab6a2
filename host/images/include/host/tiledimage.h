#pragma once

#include "host/export.h"
#include "host/imageoutput.h"

#include <QImage>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <QString>

#include <memory>

namespace Brevane::Kvo {

/// Writes a picture of any size as PNG, from tiles, in the memory of one row of tiles. Tiles come in rows from the upper
/// left on and leave no gap. The file appears at commit.
class KVO_IMAGES_EXPORT PngTileWriter
{
public:
    PngTileWriter();
    ~PngTileWriter();
    PngTileWriter(const PngTileWriter &) = delete;
    PngTileWriter &operator=(const PngTileWriter &) = delete;

    // Each gives false with the file and the reason: for tiles in another order too, and without a file that is open.

    /// With or without an alpha channel.
    bool open(const QString &path, const QSize &size, bool hasAlpha, QString *error);
    /// A tile, whose upper left pixel lies there in the picture.
    bool write(const QPoint &place, const QImage &tile, QString *error);
    /// Ends the file and gives it its name. False, with the reason, where rows or tiles are missing.
    bool commit(QString *error);

private:
    class Private;
    std::unique_ptr<Private> d;
};

/// Writes values of any size as OpenEXR in tiles, which come in any order. Channels as of writeExr.
class KVO_IMAGES_EXPORT ExrTileWriter
{
public:
    ExrTileWriter();
    ~ExrTileWriter();
    ExrTileWriter(const ExrTileWriter &) = delete;
    ExrTileWriter &operator=(const ExrTileWriter &) = delete;

    // Each gives false with the file and the reason: for a tile that is none of the file's too, and without a file that
    // is open.

    /// \a tile is the side of each; those at the right and at the bottom may be smaller. \a like has the channels and
    /// the kind of numbers.
    bool open(const QString &path, const QSize &size, int tile, const TexturePixels &like, QString *error);
    /// The part of the pixels (counted from their upper left) that is the tile there in the picture.
    bool write(const QPoint &place, const TexturePixels &pixels, const QRect &part, QString *error);
    /// Ends the file and gives it its name. False, with the reason, where rows or tiles are missing.
    bool commit(QString *error);

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace Brevane::Kvo
