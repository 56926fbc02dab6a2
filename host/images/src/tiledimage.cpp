#include "host/tiledimage.h"

#include "exrchannels.h"
#include "failure.h"
#include "host/partfile.h"
#include "wholepixels.h"

#include <QSet>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfTileDescriptionAttribute.h>
#include <OpenEXR/ImfTiledOutputFile.h>

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <vector>

namespace Brevane::Kvo {

namespace {

constexpr int kCompression = 6; // zlib's own default
constexpr size_t kChunk = 1 << 18;
constexpr char kSignature[] = "\x89PNG\r\n\x1a\n";

bool failedToWrite(QString *error, const QString &path, const QString &reason)
{
    return fail(error, QStringLiteral("cannot write '%1': %2").arg(path, reason));
}

QString notOpen()
{
    return QStringLiteral("no file is open for tiles");
}

void putNumber(char *bytes, quint32 number)
{
    for (int i = 0; i < 4; ++i)
        bytes[i] = char(number >> (24 - 8 * i));
}

// A row as differences to its left or upper neighbours, whichever are smaller: byte 0 says which.
class RowFilter
{
public:
    RowFilter(size_t bytes, size_t pixel)
        : _pixel(pixel), _above(bytes, 0), _filtered{std::vector<uchar>(bytes + 1), std::vector<uchar>(bytes + 1)}
    {}

    const std::vector<uchar> &operator()(const uchar *row)
    {
        const size_t size = _above.size();
        std::array<quint64, 2> sums{};
        for (size_t way = 0; way < 2; ++way) {
            std::vector<uchar> &out = _filtered[way];
            out[0] = uchar(way + 1); // Sub and Up of the PNG standard
            for (size_t i = 0; i < size; ++i) {
                const uchar left = i < _pixel ? uchar(0) : row[i - _pixel];
                const auto difference = uchar(row[i] - (way == 0 ? left : _above[i]));
                out[i + 1] = difference;
                sums[way] += quint64(std::abs(int(qint8(difference))));
            }
        }
        std::copy_n(row, size, _above.begin());
        return _filtered[sums[1] < sums[0] ? 1 : 0];
    }

private:
    size_t _pixel;
    std::vector<uchar> _above;
    std::array<std::vector<uchar>, 2> _filtered;
};

} // namespace

class PngTileWriter::Private
{
public:
    Private(const QString &filePath, const QSize &pictureSize, bool alpha)
        : path(filePath), file(filePath), size(pictureSize), bytesPerPixel(alpha ? 4 : 3),
          filter(size_t(pictureSize.width()) * size_t(bytesPerPixel), size_t(bytesPerPixel)), compressed(kChunk)
    {}
    ~Private() { deflateEnd(&stream); }

    bool chunk(const char *type, const char *data, size_t length, QString *error)
    {
        char head[8], tail[4];
        putNumber(head, quint32(length));
        std::memcpy(head + 4, type, 4);
        uLong sum = crc32(0, reinterpret_cast<const Bytef *>(type), 4);
        if (length > 0)
            sum = crc32(sum, reinterpret_cast<const Bytef *>(data), uInt(length));
        putNumber(tail, quint32(sum));
        QString reason;
        return (file.write(head, sizeof head, &reason) && file.write(data, qint64(length), &reason)
                && file.write(tail, sizeof tail, &reason))
               || failedToWrite(error, path, reason);
    }

    bool compress(const uchar *data, size_t length, int flush, QString *error)
    {
        stream.next_in = const_cast<Bytef *>(data);
        stream.avail_in = uInt(length);
        int result = Z_OK;
        do {
            stream.next_out = reinterpret_cast<Bytef *>(compressed.data());
            stream.avail_out = uInt(compressed.size());
            result = deflate(&stream, flush);
            const size_t made = compressed.size() - stream.avail_out;
            if (made > 0 && !chunk("IDAT", compressed.data(), made, error))
                return false;
        } while (stream.avail_out == 0 || (flush == Z_FINISH && result != Z_STREAM_END));
        return true;
    }

    bool writeBand(QString *error)
    {
        const QImage rows = bytesPerPixel == 4 ? band : band.convertToFormat(QImage::Format_RGB888);
        for (int y = 0; y < rows.height(); ++y) {
            const std::vector<uchar> &row = filter(rows.constScanLine(y));
            if (!compress(row.data(), row.size(), Z_NO_FLUSH, error))
                return false;
        }
        done += band.height();
        filled = 0;
        band = QImage();
        return true;
    }

    QString path;
    PartFile file;
    QSize size;
    int bytesPerPixel;
    RowFilter filter;
    std::vector<char> compressed;
    z_stream stream = {};
    QImage band;
    int filled = 0; ///< Columns of the band that have come.
    int done = 0; ///< Rows that are written.
};

PngTileWriter::PngTileWriter() = default;

PngTileWriter::~PngTileWriter() = default;

bool PngTileWriter::open(const QString &path, const QSize &size, bool hasAlpha, QString *error)
{
    d.reset();
    if (size.isEmpty())
        return failedToWrite(error, path, QStringLiteral("the picture has no pixels"));
    auto opened = std::make_unique<Private>(path, size, hasAlpha);
    QString reason;
    if (!opened->file.open(&reason) || !opened->file.write(kSignature, 8, &reason))
        return failedToWrite(error, path, reason);
    if (deflateInit(&opened->stream, kCompression) != Z_OK)
        return failedToWrite(error, path, QStringLiteral("out of memory"));
    char head[13] = {};
    putNumber(head, quint32(size.width()));
    putNumber(head + 4, quint32(size.height()));
    head[8] = 8; // bits
    head[9] = hasAlpha ? 6 : 2; // colours with or without alpha
    if (!opened->chunk("IHDR", head, sizeof head, error))
        return false;
    d = std::move(opened);
    return true;
}

bool PngTileWriter::write(const QPoint &place, const QImage &tile, QString *error)
{
    if (!d)
        return fail(error, notOpen());
    const bool isFirst = d->filled == 0;
    if (place != QPoint(d->filled, d->done) || tile.isNull() || tile.width() > d->size.width() - d->filled
        || tile.height() > d->size.height() - d->done || (!isFirst && tile.height() != d->band.height()))
        return failedToWrite(error, d->path, QStringLiteral("the tiles do not come in rows"));
    const QImage pixels = tile.convertToFormat(QImage::Format_RGBA8888);
    if (isFirst)
        d->band = QImage(d->size.width(), tile.height(), QImage::Format_RGBA8888);
    if (pixels.isNull() || d->band.isNull())
        return failedToWrite(error, d->path, QStringLiteral("out of memory for a row of tiles"));
    for (int y = 0; y < pixels.height(); ++y)
        std::memcpy(d->band.scanLine(y) + qsizetype(place.x()) * 4, pixels.constScanLine(y),
                    size_t(pixels.width()) * 4);
    d->filled += tile.width();
    return d->filled < d->size.width() || d->writeBand(error);
}

bool PngTileWriter::commit(QString *error)
{
    if (!d)
        return fail(error, notOpen());
    if (d->done != d->size.height())
        return failedToWrite(error, d->path, QStringLiteral("rows are missing"));
    const std::unique_ptr<Private> last = std::move(d); // whatever comes of it, nothing can follow
    QString reason;
    if (!last->compress(nullptr, 0, Z_FINISH, error) || !last->chunk("IEND", nullptr, 0, error))
        return false;
    return last->file.commit(&reason) || failedToWrite(error, last->path, reason);
}

namespace {

// OpenEXR writes through this. It throws where there is no room, as OpenEXR expects.
class ExrFile : public Imf::OStream
{
public:
    ExrFile(const QString &path, PartFile *file) : Imf::OStream(path.toLocal8Bit().constData()), _file(file) {}

    void write(const char data[], int count) override { check(_file->write(data, count, &_reason)); }
    uint64_t tellp() override { return uint64_t(_file->position()); }
    void seekp(uint64_t position) override { check(_file->seek(qint64(position), &_reason)); }

private:
    void check(bool ok) const
    {
        if (!ok)
            throw std::runtime_error(_reason.toStdString());
    }

    PartFile *_file;
    QString _reason;
};

} // namespace

class ExrTileWriter::Private
{
public:
    Private(const QString &filePath, const QSize &pictureSize, int tileSide)
        : path(filePath), file(filePath), stream(filePath, &file), size(pictureSize), side(tileSide)
    {}

    // Of the picture that tile lies there, upper left.
    QRect tileAt(const QPoint &place) const { return QRect(place, QSize(side, side)) & QRect(QPoint(), size); }
    bool isPlace(const QPoint &place) const
    {
        return QRect(QPoint(), size).contains(place) && place.x() % side == 0 && place.y() % side == 0;
    }
    qint64 tiles() const
    {
        const auto along = [this](int length) { return (qint64(length) + side - 1) / side; };
        return along(size.width()) * along(size.height());
    }

    QString path;
    PartFile file;
    ExrFile stream;
    QSize size;
    int side;
    QSet<QPoint> written;
    QList<QByteArray> channels;
    Imf::PixelType type = Imf::FLOAT;
    std::unique_ptr<Imf::TiledOutputFile> image;
};

ExrTileWriter::ExrTileWriter() = default;

ExrTileWriter::~ExrTileWriter()
{
    try {
        if (d)
            d->image.reset();
    } catch (const std::exception &) {
        // It was not committed, so nothing is left of it.
    }
}

bool ExrTileWriter::open(const QString &path, const QSize &size, int tile, const TexturePixels &like, QString *error)
{
    d.reset();
    if (size.isEmpty() || tile < 1)
        return failedToWrite(error, path, QStringLiteral("the picture or its tiles have no pixels"));
    auto opened = std::make_unique<Private>(path, size, tile);
    QString reason;
    if (!opened->file.open(&reason))
        return failedToWrite(error, path, reason);
    opened->channels = exrChannels(like);
    opened->type = like.kind == TexturePixels::Kind::Integer ? Imf::UINT : Imf::FLOAT;
    try {
        Imf::Header header(size.width(), size.height());
        header.compression() = Imf::ZIP_COMPRESSION;
        header.lineOrder() = Imf::RANDOM_Y;
        header.setTileDescription(Imf::TileDescription(unsigned(tile), unsigned(tile), Imf::ONE_LEVEL));
        for (const QByteArray &name : std::as_const(opened->channels))
            header.channels().insert(name.constData(), Imf::Channel(opened->type));
        opened->image = std::make_unique<Imf::TiledOutputFile>(opened->stream, header, 0);
        d = std::move(opened);
        return true;
    } catch (const std::exception &exception) {
        return failedToWrite(error, path, QString::fromLocal8Bit(exception.what()));
    }
}

bool ExrTileWriter::write(const QPoint &place, const TexturePixels &pixels, const QRect &part, QString *error)
{
    if (!d)
        return fail(error, notOpen());
    const bool integers = pixels.kind == TexturePixels::Kind::Integer;
    QString reason;
    if (!areWhole(pixels, &reason))
        return failedToWrite(error, d->path, reason);
    if (exrChannels(pixels) != d->channels || integers != (d->type == Imf::UINT))
        return failedToWrite(error, d->path, QStringLiteral("a tile has other channels than the file"));
    if (!d->isPlace(place) || part.size() != d->tileAt(place).size()
        || !QRect(0, 0, pixels.width, pixels.height).contains(part))
        return failedToWrite(error, d->path, QStringLiteral("a tile is not one of the file's"));
    const char *base = integers ? reinterpret_cast<const char *>(pixels.integers.constData())
                                : reinterpret_cast<const char *>(pixels.values.constData());
    const qint64 texel = qint64(pixels.channels) * 4;
    const qint64 row = texel * pixels.width;
    try {
        Imf::FrameBuffer frame;
        for (qsizetype c = 0; c < d->channels.size(); ++c) {
            // The address of the picture's upper left pixel, were it there; rows go down in memory.
            const qint64 first = row * (pixels.height - 1 - part.top()) + texel * part.left() + c * 4;
            char *origin = const_cast<char *>(base) + first + row * place.y() - texel * place.x();
            frame.insert(d->channels[c].constData(), Imf::Slice(d->type, origin, size_t(texel), size_t(-row)));
        }
        d->image->setFrameBuffer(frame);
        d->image->writeTile(place.x() / d->side, place.y() / d->side);
        d->written.insert(place);
        return true;
    } catch (const std::exception &exception) {
        return failedToWrite(error, d->path, QString::fromLocal8Bit(exception.what()));
    }
}

bool ExrTileWriter::commit(QString *error)
{
    if (!d)
        return fail(error, notOpen());
    if (d->written.size() != d->tiles())
        return failedToWrite(error, d->path, QStringLiteral("tiles are missing"));
    const std::unique_ptr<Private> last = std::move(d);
    QString reason;
    try {
        last->image.reset(); // writes the table of tiles
        if (last->file.commit(&reason))
            return true;
    } catch (const std::exception &exception) {
        reason = QString::fromLocal8Bit(exception.what());
    }
    return failedToWrite(error, last->path, reason);
}

} // namespace Brevane::Kvo
