#include "host/imageinput.h"

#include "failure.h"
#include "gl/imageend.h"

#include <QColorSpace>
#include <QFile>
#include <QImageReader>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfInputFile.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <vector>

namespace Brevane::Kvo {

namespace {

constexpr qint64 kMostSide = 1 << 16;
constexpr int kBytesPerPixel = 16; // four floats

QImage none(QString *error, const QString &reason)
{
    fail(error, reason);
    return QImage();
}

// Floats for a picture whose size comes from a file; null if nobody would want to take memory for it.
QImage floats(qint64 width, qint64 height, QImage::Format format, QString *error)
{
    const qint64 megabytes = QImageReader::allocationLimit();
    const bool isPossible = width > 0 && height > 0 && width <= kMostSide && height <= kMostSide;
    if (!isPossible || (megabytes > 0 && width * height * kBytesPerPixel > megabytes << 20))
        return none(error, QStringLiteral("%1x%2 pixels are none, or take more than the %3 megabytes that QImageReader "
                                          "allows")
                               .arg(width)
                               .arg(height)
                               .arg(megabytes));
    QImage image(int(width), int(height), format);
    if (image.isNull())
        return none(error, QStringLiteral("there is no memory for %1x%2 pixels").arg(width).arg(height));
    image.setColorSpace(QColorSpace::SRgbLinear);
    return image;
}

// Radiance

using Rgbe = std::array<quint8, 4>;

// Reads within its bytes; what is not there any more ends it.
class RadianceReader
{
public:
    explicit RadianceReader(const QByteArray &bytes) : _bytes(bytes) {}

    QImage read(QString *error)
    {
        if (!readHeader(error))
            return QImage();
        QImage image = floats(_alongX ? _inner : _outer, _alongX ? _outer : _inner, QImage::Format_RGBX32FPx4, error);
        if (image.isNull())
            return image;
        std::vector<Rgbe> line(static_cast<std::size_t>(_inner));
        for (int outer = 0; outer < _outer; ++outer) {
            if (!readLine(&line))
                return none(error, QStringLiteral("line %1 of %2 is damaged or cut off").arg(outer + 1).arg(_outer));
            for (int inner = 0; inner < _inner; ++inner)
                put(&image, outer, inner, line[std::size_t(inner)]);
        }
        return image;
    }

private:
    QByteArray textLine()
    {
        const qsizetype end = _bytes.indexOf('\n', _at);
        if (end < 0)
            return QByteArray();
        const QByteArray line = _bytes.mid(_at, std::min<qsizetype>(end - _at, 200)).trimmed();
        _at = end + 1;
        return line;
    }

    bool readHeader(QString *error)
    {
        bool isRgbe = true;
        while (_at < _bytes.size() && _bytes.indexOf('\n', _at) >= 0) {
            const QByteArray line = textLine();
            if (line.isEmpty())
                break;
            if (line.startsWith("FORMAT="))
                isRgbe = line == "FORMAT=32-bit_rle_rgbe";
        }
        if (!isRgbe)
            return fail(error, QStringLiteral("its format is not 32-bit_rle_rgbe"));
        // "-Y 240 +X 320": the lines first, from the top or from the bottom, then what is along one.
        const QList<QByteArray> words = textLine().simplified().split(' ');
        const auto axisOf = [](const QByteArray &word) {
            const bool isAxis = word.size() == 2 && (word[0] == '-' || word[0] == '+');
            return isAxis ? word[1] : '\0';
        };
        const char first = words.size() == 4 ? axisOf(words[0]) : '\0';
        const char second = words.size() == 4 ? axisOf(words[2]) : '\0';
        if (!((first == 'Y' && second == 'X') || (first == 'X' && second == 'Y')))
            return fail(error, QStringLiteral("its header has no size"));
        _alongX = second == 'X';
        _outer = words[1].toInt();
        _inner = words[3].toInt();
        // Y points up, and rows of a picture go down.
        _turnOuter = words[0][0] == (first == 'Y' ? '+' : '-');
        _turnInner = words[2][0] == (second == 'Y' ? '+' : '-');
        return (_outer > 0 && _inner > 0 && _outer <= kMostSide && _inner <= kMostSide)
               || fail(error, QStringLiteral("its header has no size that a picture can have"));
    }

    bool take(quint8 *byte)
    {
        if (_at >= _bytes.size())
            return false;
        *byte = quint8(_bytes[_at++]);
        return true;
    }

    bool readLine(std::vector<Rgbe> *line)
    {
        if (_bytes.size() - _at < 4)
            return false;
        const auto *head = reinterpret_cast<const quint8 *>(_bytes.constData() + _at);
        if (_inner < 8 || _inner > 32767 || head[0] != 2 || head[1] != 2 || head[2] > 127)
            return readPlainLine(line);
        if ((head[2] << 8 | head[3]) != _inner)
            return false;
        _at += 4;
        for (std::size_t channel = 0; channel < 4; ++channel) {
            for (std::size_t i = 0; i < line->size();) {
                quint8 count = 0, value = 0;
                if (!take(&count))
                    return false;
                const bool isRun = count > 128;
                const std::size_t length = isRun ? count - 128u : count;
                if (length == 0 || length > line->size() - i || (isRun && !take(&value)))
                    return false;
                for (const std::size_t end = i + length; i < end; ++i) {
                    if (!isRun && !take(&value))
                        return false;
                    (*line)[i][channel] = value;
                }
            }
        }
        return true;
    }

    // Pixel by pixel; one of mantissas 1 says how often the one before comes again.
    bool readPlainLine(std::vector<Rgbe> *line)
    {
        int shift = 0;
        for (std::size_t i = 0; i < line->size();) {
            Rgbe pixel;
            for (quint8 &byte : pixel)
                if (!take(&byte))
                    return false;
            if (pixel[0] != 1 || pixel[1] != 1 || pixel[2] != 1) {
                (*line)[i++] = pixel;
                shift = 0;
                continue;
            }
            if (i == 0 || shift > 24)
                return false;
            const std::size_t times = std::size_t(pixel[3]) << shift;
            if (times > line->size() - i)
                return false;
            std::fill_n(line->begin() + std::ptrdiff_t(i), times, (*line)[i - 1]);
            i += times;
            shift += 8;
        }
        return true;
    }

    void put(QImage *image, int outer, int inner, const Rgbe &pixel) const
    {
        outer = _turnOuter ? _outer - 1 - outer : outer;
        inner = _turnInner ? _inner - 1 - inner : inner;
        const int x = _alongX ? inner : outer;
        const int y = _alongX ? outer : inner;
        const float scale = pixel[3] ? std::ldexp(1.0f, int(pixel[3]) - 136) : 0.0f;
        float *to = reinterpret_cast<float *>(image->scanLine(y)) + qsizetype(x) * 4;
        for (std::size_t channel = 0; channel < 3; ++channel)
            to[channel] = float(pixel[channel]) * scale;
        to[3] = 1.0f;
    }

    const QByteArray &_bytes;
    qsizetype _at = 0;
    int _outer = 0;
    int _inner = 0;
    bool _alongX = true; // what is along a line
    bool _turnOuter = false;
    bool _turnInner = false;
};

// OpenEXR

class MemoryStream : public Imf::IStream
{
public:
    explicit MemoryStream(const QByteArray &bytes) : IStream("image"), _bytes(bytes) {}

    bool read(char to[], int count) override
    {
        if (count < 0 || quint64(count) > quint64(_bytes.size()) - _at)
            throw std::runtime_error("the file is cut off");
        std::memcpy(to, _bytes.constData() + _at, std::size_t(count));
        _at += quint64(count);
        return _at < quint64(_bytes.size());
    }
    uint64_t tellg() override { return _at; }
    void seekg(uint64_t position) override
    {
        if (position > quint64(_bytes.size()))
            throw std::runtime_error("the file is cut off");
        _at = position;
    }
    void clear() override {}

private:
    const QByteArray &_bytes;
    quint64 _at = 0;
};

QImage readExr(const QByteArray &bytes, QString *error)
{
    MemoryStream stream(bytes);
    Imf::InputFile file(stream);
    const Imf::ChannelList &channels = file.header().channels();
    const auto has = [&channels](const char *name) { return channels.findChannel(name) != nullptr; };
    const bool isGrey = !has("R") && !has("G") && !has("B");
    if (isGrey && !has("Y"))
        return none(error, QStringLiteral("it has no channel R, G, B or Y"));
    const Imath::Box2i window = file.header().dataWindow();
    QImage image = floats(qint64(window.max.x) - window.min.x + 1, qint64(window.max.y) - window.min.y + 1,
                          has("A") ? QImage::Format_RGBA32FPx4_Premultiplied : QImage::Format_RGBX32FPx4, error);
    if (image.isNull())
        return image;
    Imf::FrameBuffer target;
    const auto add = [&](const char *name, int channel, double missing) {
        target.insert(name, Imf::Slice::Make(Imf::FLOAT, image.bits() + qsizetype(channel) * 4, window, kBytesPerPixel,
                                             std::size_t(image.bytesPerLine()), 1, 1, missing));
    };
    if (isGrey) {
        add("Y", 0, 0.0);
    } else {
        add("R", 0, 0.0);
        add("G", 1, 0.0);
        add("B", 2, 0.0);
    }
    add("A", 3, 1.0);
    file.setFrameBuffer(target);
    file.readPixels(window.min.y, window.max.y);
    for (int y = 0; isGrey && y < image.height(); ++y) {
        auto *pixel = reinterpret_cast<float *>(image.scanLine(y));
        for (int x = 0; x < image.width(); ++x, pixel += 4)
            pixel[1] = pixel[2] = pixel[0];
    }
    return image;
}

QImage readByQt(QIODevice *device, QString *error)
{
    QImageReader reader(device);
    reader.setDecideFormatFromContent(true);
    QString reason;
    if (!holdsWholeImage(*device, reader.format(), &reason))
        return none(error, reason);
    QImage image = reader.read();
    return image.isNull() ? none(error, reader.errorString()) : image;
}

QImage readAny(QIODevice *device, QString *error)
{
    const QByteArray begin = device->peek(11);
    const bool isExr = begin.startsWith(QByteArrayView("\x76\x2f\x31\x01", 4));
    const bool isRadiance = begin.startsWith("#?RADIANCE") || begin.startsWith("#?RGBE");
    if (!isExr && !isRadiance)
        return readByQt(device, error);
    // Neither is longer than its pixels, but for what is little.
    const qint64 megabytes = QImageReader::allocationLimit();
    if (megabytes > 0 && device->size() > (megabytes + 64) << 20)
        return none(error, QStringLiteral("the file has %1 bytes, and QImageReader allows images of %2 megabytes")
                               .arg(device->size())
                               .arg(megabytes));
    const QByteArray bytes = device->readAll();
    if (isRadiance)
        return RadianceReader(bytes).read(error);
    return readExr(bytes, error);
}

} // namespace

QImage readImage(QIODevice *device, QString *error)
{
    // OpenEXR throws, and so does Qt where it has no memory.
    try {
        return readAny(device, error);
    } catch (const std::bad_alloc &) {
        return none(error, QStringLiteral("there is not enough memory for it"));
    } catch (const std::exception &exception) {
        return none(error, QString::fromLocal8Bit(exception.what()).simplified());
    }
}

QImage readImage(const QString &path, QString *error)
{
    QString reason;
    try {
        QFile file(path);
        const bool isOpen = file.open(QIODevice::ReadOnly);
        QImage image = isOpen ? readImage(&file, &reason) : QImage();
        if (!image.isNull())
            return image;
        if (!isOpen)
            reason = file.errorString();
    } catch (const std::bad_alloc &) {
        reason = QStringLiteral("there is not enough memory for it");
    }
    return none(error, QStringLiteral("cannot read image '%1': %2").arg(path, reason));
}

QImage displayImage(const QImage &image)
{
    switch (image.format()) {
    case QImage::Format_RGBX32FPx4:
    case QImage::Format_RGBA32FPx4:
    case QImage::Format_RGBA32FPx4_Premultiplied: break;
    default: return image;
    }
    const QImage straight = image.convertToFormat(QImage::Format_RGBA32FPx4);
    QImage shown(image.width(), image.height(), QImage::Format_RGBA8888);
    const auto byteOf = [](float value) {
        // not a number is less than nothing
        return quint8(value > 0.0f ? std::min(value, 1.0f) * 255.0f + 0.5f : 0.0f);
    };
    const auto display = [](float linear) {
        return linear <= 0.0031308f ? 12.92f * linear : 1.055f * std::pow(std::min(linear, 1.0f), 1.0f / 2.4f) - 0.055f;
    };
    for (int y = 0; y < image.height(); ++y) {
        const auto *from = reinterpret_cast<const float *>(straight.constScanLine(y));
        quint8 *to = shown.scanLine(y);
        for (int x = 0; x < image.width(); ++x, from += 4, to += 4) {
            for (int channel = 0; channel < 3; ++channel)
                to[channel] = byteOf(display(from[channel]));
            to[3] = byteOf(from[3]);
        }
    }
    return shown;
}

} // namespace Brevane::Kvo
