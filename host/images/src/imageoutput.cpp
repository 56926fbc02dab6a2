#include "host/imageoutput.h"

#include "exrchannels.h"
#include "failure.h"
#include "host/partfile.h"
#include "shadows/shadowmaprenderdata.h"
#include "wholepixels.h"

#include <QBuffer>
#include <QDir>
#include <QFileInfo>
#include <QImageWriter>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfOutputFile.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <vector>

namespace Brevane::Kvo {

namespace {

constexpr QRgb kNotANumber = qRgb(255, 0, 255);
constexpr QLatin1StringView kExr("exr");

int byteOf(float value)
{
    return int(std::lround(std::clamp(value, 0.0f, 1.0f) * 255.0f));
}

// Greys that neighbours do not share, away from black; 0 is black.
QRgb greyOfId(quint32 id)
{
    if (id == 0)
        return qRgb(0, 0, 0);
    const quint32 mixed = id * 2654435761u;
    const int grey = 64 + int(mixed >> 24) * 191 / 255;
    return qRgb(grey, grey, grey);
}

// What a set of values looks like, which decides how it is shown.
struct Survey
{
    float minimum = std::numeric_limits<float>::max();
    float maximum = std::numeric_limits<float>::lowest();
    bool whole = true;

    void add(float value)
    {
        if (!std::isfinite(value))
            return;
        minimum = std::min(minimum, value);
        maximum = std::max(maximum, value);
        whole = whole && value == std::floor(value);
    }
    bool isWithin(float low, float high) const { return minimum >= low && maximum <= high; }
    float stretched(float value) const { return maximum > minimum ? (value - minimum) / (maximum - minimum) : 1.0f; }
};

QRgb grey(float value)
{
    const int byte = byteOf(value);
    return qRgb(byte, byte, byte);
}

template <typename Show>
QImage paint(const TexturePixels &pixels, const Show &show)
{
    QImage image(pixels.width, pixels.height, QImage::Format_ARGB32);
    if (image.isNull())
        return image;
    for (int y = 0; y < pixels.height; ++y) {
        auto *line = reinterpret_cast<QRgb *>(image.scanLine(pixels.height - 1 - y));
        for (int x = 0; x < pixels.width; ++x)
            line[x] = show((qsizetype(y) * pixels.width + x) * pixels.channels);
    }
    return image;
}

QImage depthImage(const TexturePixels &pixels)
{
    Survey survey;
    for (const float value : pixels.values)
        if (value < 1.0f)
            survey.add(value);
    constexpr float kDarkest = 0.2f;
    return paint(pixels, [&](qsizetype i) {
        const float depth = pixels.values[i];
        if (std::isnan(depth))
            return kNotANumber;
        const float nearness = survey.maximum > survey.minimum ? 1.0f - survey.stretched(depth) : 1.0f;
        return grey(depth >= 1.0f ? 0.0f : kDarkest + (1.0f - kDarkest) * nearness);
    });
}

QImage singleChannelImage(const TexturePixels &pixels)
{
    Survey survey;
    for (const float value : pixels.values)
        survey.add(value);
    const bool ids = survey.whole && survey.minimum >= 0.0f && survey.maximum > 1.0f;
    const bool plain = survey.isWithin(0.0f, 1.0f);
    return paint(pixels, [&](qsizetype i) {
        const float value = pixels.values[i];
        if (std::isnan(value))
            return kNotANumber;
        if (ids)
            return greyOfId(std::isfinite(value) ? quint32(std::min(value, 4294967040.0f)) : 0);
        return grey(plain ? value : survey.stretched(value));
    });
}

QImage colorImage(const TexturePixels &pixels)
{
    const int colors = std::min(pixels.channels, 3);
    Survey color, alpha;
    if (!pixels.normalized) {
        for (qsizetype i = 0; i < pixels.values.size(); i += pixels.channels) {
            for (int c = 0; c < colors; ++c)
                color.add(pixels.values[i + c]);
            if (pixels.channels == 4)
                alpha.add(pixels.values[i + 3]);
        }
    }
    const bool hasAlpha = pixels.channels == 4 && (pixels.normalized || alpha.isWithin(0.0f, 1.0f));
    // Rounding may carry a unit vector a little further.
    const bool directions = !pixels.normalized && color.minimum < -0.001f && color.isWithin(-1.01f, 1.01f);
    return paint(pixels, [&](qsizetype i) {
        float rgba[4] = {0.0f, 0.0f, 0.0f, 1.0f};
        for (int c = 0; c < colors; ++c) {
            const float value = pixels.values[i + c];
            if (std::isnan(value))
                return kNotANumber;
            rgba[c] = directions ? value * 0.5f + 0.5f : value;
        }
        if (hasAlpha)
            rgba[3] = pixels.values[i + 3];
        return qRgba(byteOf(rgba[0]), byteOf(rgba[1]), byteOf(rgba[2]), byteOf(rgba[3]));
    });
}

constexpr QRgb kNoCaster = qRgb(24, 32, 72);
constexpr QRgb kMixedWithNothing = qRgb(96, 48, 136);

QImage momentsImage(const TexturePixels &pixels)
{
    // What an empty texel holds, whatever a filter has taken off it.
    constexpr float kEmpty = 0.9e9f;
    constexpr float kDarkest = 0.15f;
    const qsizetype layerSize = qsizetype(pixels.width) * (pixels.height / pixels.layers) * pixels.channels;
    std::vector<Survey> surveys(size_t(pixels.layers));
    for (qsizetype i = 0; i < pixels.values.size(); i += pixels.channels)
        if (pixels.values[i] < 1.0f)
            surveys[size_t(i / layerSize)].add(pixels.values[i]);
    return paint(pixels, [&](qsizetype i) {
        const float depth = pixels.values[i];
        if (std::isnan(depth))
            return kNotANumber;
        if (depth > 1.0f)
            return depth > kEmpty ? kNoCaster : kMixedWithNothing;
        return grey(kDarkest + (1.0f - kDarkest) * (1.0f - surveys[size_t(i / layerSize)].stretched(depth)));
    });
}

// The layers of a picture, which stand on one another from the bottom up, in rows from the upper left on.
QImage contactSheet(const QImage &tower, int layers)
{
    constexpr int kGap = 2;
    const int height = tower.height() / layers;
    const auto columns = int(std::ceil(std::sqrt(double(layers))));
    const int rows = (layers + columns - 1) / columns;
    QImage sheet(columns * (tower.width() + kGap) - kGap, rows * (height + kGap) - kGap, tower.format());
    if (sheet.isNull())
        return sheet;
    sheet.fill(Qt::transparent);
    for (int layer = 0; layer < layers; ++layer) {
        const int left = layer % columns * (tower.width() + kGap);
        const int top = layer / columns * (height + kGap);
        for (int y = 0; y < height; ++y) {
            const uchar *from = tower.constScanLine(tower.height() - (layer + 1) * height + y);
            std::copy_n(reinterpret_cast<const QRgb *>(from), tower.width(),
                        reinterpret_cast<QRgb *>(sheet.scanLine(top + y)) + left);
        }
    }
    return sheet;
}

QImage integerImage(const TexturePixels &pixels)
{
    return paint(pixels, [&](qsizetype i) { return greyOfId(pixels.integers[i]); });
}

// OpenEXR writes through this, so that the file appears only when it is whole.
class ExrBuffer : public Imf::OStream
{
public:
    ExrBuffer() : Imf::OStream("memory") { _buffer.open(QIODevice::WriteOnly); }
    void write(const char data[], int count) override { _buffer.write(data, count); }
    uint64_t tellp() override { return uint64_t(_buffer.pos()); }
    void seekp(uint64_t position) override { _buffer.seek(qint64(position)); }
    QByteArray data() const { return _buffer.data(); }

private:
    QBuffer _buffer;
};

// OpenEXR throws; nothing of it leaves this function.
bool encodeExr(const TexturePixels &pixels, QByteArray *data, QString *error)
{
    if (!areWhole(pixels, error))
        return false;
    try {
        const bool integers = pixels.kind == TexturePixels::Kind::Integer;
        const Imf::PixelType type = integers ? Imf::UINT : Imf::FLOAT;
        const char *base = integers ? reinterpret_cast<const char *>(pixels.integers.constData())
                                    : reinterpret_cast<const char *>(pixels.values.constData());
        const qint64 texel = qint64(pixels.channels) * 4;
        const qint64 row = texel * pixels.width;
        Imf::Header header(pixels.width, pixels.height);
        header.compression() = Imf::ZIP_COMPRESSION;
        Imf::FrameBuffer frame;
        const QList<QByteArray> names = exrChannels(pixels);
        for (int c = 0; c < names.size(); ++c) {
            const QByteArray &name = names[c];
            header.channels().insert(name.constData(), Imf::Channel(type));
            // A negative stride turns the rows upright: the first of the file is the last of the texture.
            char *top = const_cast<char *>(base) + row * (pixels.height - 1) + c * 4;
            frame.insert(name.constData(), Imf::Slice(type, top, size_t(texel), size_t(-row)));
        }
        ExrBuffer buffer;
        {
            Imf::OutputFile file(buffer, header);
            file.setFrameBuffer(frame);
            file.writePixels(pixels.height);
        }
        *data = buffer.data();
        return true;
    } catch (const std::exception &exception) {
        return fail(error, QString::fromLocal8Bit(exception.what()));
    }
}

bool writeFile(const QByteArray &data, const QString &path, QString *error)
{
    // A device or pipe is written to; a part file would put a plain file in its place.
    if (const QFileInfo info(path); info.exists() && !info.isFile()) {
        QFile device(path);
        const bool written =
            device.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && device.write(data) == data.size();
        return written || fail(error, QStringLiteral("cannot write '%1': %2").arg(path, device.errorString()));
    }
    PartFile file(path);
    QString reason;
    return (file.open(&reason) && file.write(data.constData(), data.size(), &reason) && file.commit(&reason))
           || fail(error, QStringLiteral("cannot write '%1': %2").arg(path, reason));
}

QString suffixOf(const QString &path)
{
    return QFileInfo(path).suffix().toLower();
}

} // namespace

QImage visibleImage(const TexturePixels &pixels)
{
    if (!areWhole(pixels))
        return QImage();
    QImage image;
    switch (pixels.kind) {
    case TexturePixels::Kind::Depth: image = depthImage(pixels); break;
    case TexturePixels::Kind::Integer: image = integerImage(pixels); break;
    case TexturePixels::Kind::Moments: image = momentsImage(pixels); break;
    case TexturePixels::Kind::Color:
        image = pixels.channels == 1 ? singleChannelImage(pixels) : colorImage(pixels);
        break;
    }
    return pixels.layers > 1 && !image.isNull() ? contactSheet(image, pixels.layers) : image;
}

QImage textureImage(Texture *texture, QString *error)
{
    TexturePixels pixels;
    if (!readTexture(texture, &pixels, error))
        return QImage();
    QImage image = visibleImage(pixels);
    if (image.isNull() && error)
        *error = QStringLiteral("out of memory for a picture of %1x%2").arg(pixels.width).arg(pixels.height);
    return image;
}

bool hasImageEnding(const QString &path, bool isTexture, QString *error)
{
    const QString suffix = suffixOf(path);
    const QList<QByteArray> formats = QImageWriter::supportedImageFormats();
    if ((isTexture && suffix == kExr) || formats.contains(suffix.toLatin1()))
        return true;
    // Of those that the system's plugins write, the ones that someone may have meant.
    QStringList endings;
    for (const char *format : {"png", "jpg", "bmp", "ppm", "tif", "webp"})
        if (formats.contains(format))
            endings << QStringLiteral(".%1").arg(QLatin1StringView(format));
    if (isTexture)
        endings << QStringLiteral(".%1").arg(kExr);
    const QString last = endings.isEmpty() ? QString() : endings.takeLast();
    return fail(
        error,
        QStringLiteral("cannot write '%1': its name has to end in %2")
            .arg(path, endings.isEmpty() ? last : endings.join(QStringLiteral(", ")) + QStringLiteral(" or ") + last));
}

bool canWriteImage(const QString &path, bool isTexture, QString *error)
{
    if (!hasImageEnding(path, isTexture, error))
        return false;
    const QFileInfo folder(QFileInfo(path).absolutePath());
    if (!folder.isDir())
        return fail(error, QStringLiteral("cannot write '%1': there is no folder '%2'").arg(path, folder.filePath()));
    if (QFileInfo(path).isDir())
        return fail(error, QStringLiteral("cannot write '%1': it is a folder").arg(path));
    if (!folder.isWritable())
        return fail(error, QStringLiteral("cannot write '%1': the folder is not writable").arg(path));
    return true;
}

bool writeImage(const QImage &image, const QString &path, QString *error)
{
    if (!canWriteImage(path, false, error))
        return false;
    if (image.isNull())
        return fail(error, QStringLiteral("cannot write '%1': there is no picture").arg(path));
    QByteArray data;
    QBuffer buffer(&data);
    QImageWriter writer(&buffer, suffixOf(path).toLatin1());
    if (!writer.write(image))
        return fail(error, QStringLiteral("cannot write '%1': %2").arg(path, writer.errorString()));
    return writeFile(data, path, error);
}

bool writeExr(const TexturePixels &pixels, const QString &path, QString *error)
{
    QByteArray data;
    QString reason;
    if (!encodeExr(pixels, &data, &reason))
        return fail(error, QStringLiteral("cannot write '%1': %2").arg(path, reason));
    return writeFile(data, path, error);
}

namespace {

template <typename Read>
bool writePixels(const Read &read, const QString &path, QString *error)
{
    if (!canWriteImage(path, true, error))
        return false;
    TexturePixels pixels;
    QString reason;
    if (!read(&pixels, &reason))
        return fail(error, QStringLiteral("cannot write '%1': %2").arg(path, reason));
    return suffixOf(path) == kExr ? writeExr(pixels, path, error) : writeImage(visibleImage(pixels), path, error);
}

} // namespace

bool writeTexture(Texture *texture, const QString &path, QString *error)
{
    return writePixels([texture](TexturePixels *p, QString *e) { return readTexture(texture, p, e); }, path, error);
}

bool readShadowMaps(const ShadowMapRenderData *record, TexturePixels *pixels, QString *error)
{
    if (!record || record->layerCount == 0)
        return fail(error, QStringLiteral("there are no shadow maps"));
    if (!readTexture(record->projectionTexture(), pixels, error))
        return false;
    pixels->kind = TexturePixels::Kind::Moments;
    return true;
}

bool writeShadowMaps(const ShadowMapRenderData *record, const QString &path, QString *error)
{
    return writePixels([record](TexturePixels *p, QString *e) { return readShadowMaps(record, p, e); }, path, error);
}

} // namespace Brevane::Kvo
