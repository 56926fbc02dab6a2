#pragma once

#include "support/image.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QtEndian>

#include <utility>
#include <vector>

namespace Brevane::Kvo::Test {

/// Image files of a test, good and bad, gone at its end. Paths are made from names.
class ImageFiles
{
public:
    QString path(const char *name) const { return _folder.filePath(QString::fromLatin1(name)); }

    QString write(const char *name, const QByteArray &bytes) const
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << name;
        EXPECT_EQ(file.write(bytes), bytes.size()) << name;
        return file.fileName();
    }
    /// The format is that of the name's ending.
    QString write(const char *name, const QImage &image) const
    {
        EXPECT_TRUE(image.save(path(name))) << name;
        return path(name);
    }

    /// Bytes of an image file.
    static QByteArray encoded(const QImage &image, const char *format)
    {
        QByteArray bytes;
        QBuffer buffer(&bytes);
        EXPECT_TRUE(buffer.open(QIODevice::WriteOnly) && image.save(&buffer, format)) << format;
        return bytes;
    }
    /// A PNG file whose header says a size that its data do not have.
    static QByteArray pngOfSize(quint32 width, quint32 height)
    {
        QByteArray bytes = encoded(pattern(1, 1), "png");
        qToBigEndian(width, bytes.data() + 16);
        qToBigEndian(height, bytes.data() + 20);
        qToBigEndian(crc32(QByteArrayView(bytes).sliced(12, 17)), bytes.data() + 29);
        return bytes;
    }
    /// A JPEG file whose metadata say that the picture is seen upright after a quarter turn to the right.
    static QByteArray turnedJpeg(const QImage &image)
    {
        // A TIFF header of big endian with one entry: orientation (0x112), one short, 6.
        constexpr char kExif[] = "\xff\xe1\x00\x22"
                                 "Exif\0\0MM\0\x2a\0\0\0\x08\0\x01\x01\x12\0\x03\0\0\0\x01\0\x06\0\0\0\0\0";
        return encoded(image, "jpg").insert(2, QByteArrayView(kExif, sizeof kExif - 1));
    }
    /// Files that are no image, by what is wrong with them.
    static std::vector<std::pair<const char *, QByteArray>> badFiles()
    {
        const QImage image = pattern(40, 40);
        const auto cut = [&](const char *format) {
            const QByteArray bytes = encoded(image, format);
            return bytes.left(bytes.size() / 2);
        };
        return {{"zero bytes.png", QByteArray()},
                {"text.png", QByteArrayLiteral("This is a text.\n")},
                {"binary.jpg", QByteArray(100000, '\x7f')},
                {"truncated.png", cut("png")},
                {"truncated.jpg", cut("jpg")},
                {"truncated.bmp", cut("bmp")},
                {"truncated.ppm", cut("ppm")},
                {"header only.png", encoded(image, "png").left(33)},
                {"very large.png", pngOfSize(100000, 100000)},
                {"over the memory limit.png", pngOfSize(16000, 16000)}};
    }
    /// Every pixel another one, all channels in use.
    static QImage pattern(int width, int height, int seed = 0)
    {
        QImage image(width, height, QImage::Format_ARGB32);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                image.setPixel(
                    x, y, qRgba(x * 37 % 256, y * 53 % 256, (x * 11 + y * 7 + seed) % 256, 255 - (x + y + seed) % 64));
        return image;
    }

private:
    static quint32 crc32(QByteArrayView bytes)
    {
        quint32 crc = ~0u;
        for (const char byte : bytes) {
            crc ^= quint8(byte);
            for (int bit = 0; bit < 8; ++bit)
                crc = crc & 1 ? crc >> 1 ^ 0xedb88320u : crc >> 1;
        }
        return ~crc;
    }

    QTemporaryDir _folder;
};

/// The colours of an image as a texture has them; the first row of the result is the top row or, flipped,
/// the bottom row of the image.
inline Image<float> texelsOf(const QImage &image, bool flipped)
{
    Image<float> texels(image.width(), image.height());
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QRgb pixel = image.pixel(x, flipped ? image.height() - 1 - y : y);
            texels.at(x, y) = {float(qRed(pixel)) / 255, float(qGreen(pixel)) / 255, float(qBlue(pixel)) / 255,
                               float(qAlpha(pixel)) / 255};
        }
    return texels;
}

/// Formats of QImage that PNG files hold, most of them not 32 bits a pixel.
inline std::vector<QImage::Format> pngFormats()
{
    return {QImage::Format_Mono,   QImage::Format_Indexed8,    QImage::Format_Grayscale8,
            QImage::Format_RGB32,  QImage::Format_ARGB32,      QImage::Format_ARGB32_Premultiplied,
            QImage::Format_RGB888, QImage::Format_RGBA8888,    QImage::Format_RGB16,
            QImage::Format_RGBA64, QImage::Format_Grayscale16, QImage::Format_RGBA64_Premultiplied};
}

} // namespace Brevane::Kvo::Test
