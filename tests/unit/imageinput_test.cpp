#include <host/imageinput.h>
#include <host/imageoutput.h>
#include <host/sceneimport.h>

#include <QBuffer>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

using namespace Brevane::Kvo;

namespace {

using Rgbe = std::array<quint8, 4>;

// Colours in steps and runs, with black and what is far beyond white.
std::vector<Rgbe> pixels(int width, int height)
{
    std::vector<Rgbe> all;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            all.push_back(x < width / 2 ? Rgbe{200, 100, quint8(y), quint8(128 + y)}
                                        : Rgbe{quint8(x * 7), quint8(y * 11), 3, quint8(x % 5 ? 120 + x : 0)});
    return all;
}

QByteArray header(const QByteArray &size)
{
    return "#?RADIANCE\n# a comment\nEXPOSURE=1\nFORMAT=32-bit_rle_rgbe\n\n" + size + "\n";
}

QByteArray flat(const std::vector<Rgbe> &all)
{
    return QByteArray(reinterpret_cast<const char *>(all.data()), qsizetype(all.size() * 4));
}

// Runs where three values or more are alike.
QByteArray runLengths(const std::vector<Rgbe> &all, int width)
{
    QByteArray bytes;
    for (std::size_t line = 0; line < all.size(); line += std::size_t(width)) {
        bytes += QByteArray("\2\2", 2) + char(width >> 8) + char(width & 255);
        for (std::size_t channel = 0; channel < 4; ++channel) {
            const auto at = [&](int i) { return all[line + std::size_t(i)][channel]; };
            for (int i = 0; i < width;) {
                int run = 1;
                while (i + run < width && run < 127 && at(i + run) == at(i))
                    ++run;
                if (run > 2) {
                    bytes += char(128 + run);
                    bytes += char(at(i));
                } else {
                    run = 1;
                    bytes += char(1);
                    bytes += char(at(i));
                }
                i += run;
            }
        }
    }
    return bytes;
}

QImage decoded(const QByteArray &bytes, QString *error = nullptr)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    return readImage(&buffer, error);
}

const float *pixelOf(const QImage &image, int x, int y)
{
    return reinterpret_cast<const float *>(image.constScanLine(y)) + qsizetype(x) * 4;
}

// The mantissas count 256ths of the power of two that the exponent says, 128 for 1.
void expectPixel(const QImage &image, int x, int y, const Rgbe &wanted)
{
    for (std::size_t channel = 0; channel < 3; ++channel) {
        const double value = wanted[3] ? double(wanted[channel]) / 256.0 * std::pow(2.0, wanted[3] - 128) : 0.0;
        ASSERT_EQ(double(pixelOf(image, x, y)[channel]), value) << x << ' ' << y << ' ' << channel;
    }
    ASSERT_EQ(pixelOf(image, x, y)[3], 1.0f);
}

TexturePixels exrPixels(int channels)
{
    TexturePixels pixels;
    pixels.width = 6;
    pixels.height = 5;
    pixels.channels = channels;
    for (int i = 0; i < 6 * 5 * channels; ++i)
        pixels.values << float(i) * 37.125f - 20.0f;
    return pixels;
}

class ImageInput : public ::testing::Test
{
protected:
    QString write(const char *name, const QByteArray &bytes)
    {
        QFile file(folder.filePath(QLatin1StringView(name)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return file.fileName();
    }
    QByteArray exr(const TexturePixels &pixels)
    {
        const QString path = folder.filePath(QStringLiteral("image.exr"));
        EXPECT_TRUE(writeExr(pixels, path));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }
    QTemporaryDir folder;
};

} // namespace

TEST_F(ImageInput, RadianceComesAsItIsInEitherEncoding)
{
    constexpr int kWidth = 40, kHeight = 7;
    const std::vector<Rgbe> all = pixels(kWidth, kHeight);
    for (const QByteArray &content : {flat(all), runLengths(all, kWidth)}) {
        QString error;
        const QImage image = decoded(header("-Y 7 +X 40") + content, &error);
        ASSERT_EQ(image.size(), QSize(kWidth, kHeight)) << qPrintable(error);
        EXPECT_EQ(image.format(), QImage::Format_RGBX32FPx4);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                expectPixel(image, x, y, all[std::size_t(y * kWidth + x)]);
    }
}

TEST_F(ImageInput, RadianceMayBeginAtAnyCorner)
{
    const std::vector<Rgbe> all = pixels(3, 2);
    const auto at = [&](int i) { return all[std::size_t(i)]; };
    const QImage up = decoded(header("+Y 2 -X 3") + flat(all));
    ASSERT_EQ(up.size(), QSize(3, 2));
    expectPixel(up, 2, 1, at(0));
    expectPixel(up, 0, 0, at(5));
    const QImage columns = decoded(header("+X 3 -Y 2") + flat(all));
    ASSERT_EQ(columns.size(), QSize(3, 2));
    expectPixel(columns, 0, 0, at(0));
    expectPixel(columns, 0, 1, at(1));
    expectPixel(columns, 1, 0, at(2));
}

TEST_F(ImageInput, RadianceOfOldRepeatsPixels)
{
    const std::vector<Rgbe> line{{9, 8, 7, 130}, {1, 1, 1, 2}, {1, 1, 1, 1}, {5, 5, 5, 128}};
    const QImage image = decoded(header("-Y 1 +X 260") + flat(line));
    ASSERT_EQ(image.size(), QSize(260, 1));
    for (int x = 0; x < 259; ++x)
        expectPixel(image, x, 0, line[0]);
    expectPixel(image, 259, 0, line[3]);
}

TEST_F(ImageInput, ExrComesAsItIs)
{
    for (const int channels : {1, 3, 4}) {
        const TexturePixels pixels = exrPixels(channels);
        QString error;
        const QImage image = decoded(exr(pixels), &error);
        ASSERT_EQ(image.size(), QSize(6, 5)) << qPrintable(error);
        EXPECT_EQ(image.format(), channels == 4 ? QImage::Format_RGBA32FPx4_Premultiplied : QImage::Format_RGBX32FPx4);
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 6; ++x)
                for (int c = 0; c < 4; ++c) {
                    const qsizetype first = ((4 - y) * 6 + x) * channels; // bottom row first
                    const float wanted = channels == 1 ? (c < 3 ? pixels.values[first] : 1.0f)
                                                       : (c < channels ? pixels.values[first + c] : 1.0f);
                    ASSERT_EQ(pixelOf(image, x, y)[c], wanted) << channels << ' ' << x << ' ' << y << ' ' << c;
                }
    }
}

TEST_F(ImageInput, WhatIsCutOffOrDamagedIsRefusedAndNothingElseHappens)
{
    const QByteArray files[] = {header("-Y 7 +X 40") + flat(pixels(40, 7)),
                                header("-Y 7 +X 40") + runLengths(pixels(40, 7), 40), exr(exrPixels(4))};
    std::mt19937 random(5);
    for (const QByteArray &bytes : files) {
        ASSERT_FALSE(decoded(bytes).isNull());
        for (qsizetype length = 12; length < bytes.size(); length += 1 + length / 50) {
            QString error;
            ASSERT_TRUE(decoded(bytes.left(length), &error).isNull()) << length;
            ASSERT_FALSE(error.isEmpty());
        }
        for (int round = 0; round < 2000; ++round) {
            QByteArray damaged = bytes;
            for (int changes = 1 + int(random() % 4); changes > 0; --changes)
                damaged[qsizetype(random() % quint32(bytes.size()))] = char(random());
            QString error;
            EXPECT_TRUE(!decoded(damaged, &error).isNull() || !error.isEmpty());
        }
    }
}

TEST_F(ImageInput, SizesThatNobodyHasMemoryForAreRefused)
{
    for (const char *size : {"-Y 60000 +X 60000", "-Y 0 +X 5", "-Y -3 +X 5", "-Y 99999999999 +X 1", "-Y 5", ""}) {
        QString error;
        EXPECT_TRUE(decoded(header(size) + QByteArray(64, '\1'), &error).isNull()) << size;
        EXPECT_FALSE(error.isEmpty());
    }
}

TEST_F(ImageInput, NamesFileAndReason)
{
    QString error;
    EXPECT_TRUE(readImage(QStringLiteral("/nowhere/sky.hdr"), &error).isNull());
    EXPECT_TRUE(error.startsWith(QStringLiteral("cannot read image '/nowhere/sky.hdr': "))) << qPrintable(error);
    const QString path = write("cut.hdr", header("-Y 7 +X 40"));
    EXPECT_TRUE(readImage(path, &error).isNull());
    EXPECT_EQ(error, QStringLiteral("cannot read image '%1': line 1 of 7 is damaged or cut off").arg(path));
    EXPECT_TRUE(readImage(write("text.png", "no image"), &error).isNull());
    EXPECT_TRUE(error.contains(QStringLiteral("text.png"))) << qPrintable(error);
}

TEST_F(ImageInput, OtherFormatsAreReadByQtWhateverTheirName)
{
    QImage image(4, 3, QImage::Format_RGBA8888);
    image.fill(QColor(10, 20, 30, 40));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    ASSERT_TRUE(image.save(&buffer, "png"));
    EXPECT_EQ(readImage(write("image.hdr", bytes)).convertToFormat(QImage::Format_RGBA8888), image);
}

TEST_F(ImageInput, DisplayImagesAreEncodedAndEndAtWhite)
{
    QImage image(4, 1, QImage::Format_RGBX32FPx4);
    const float values[4][4] = {
        {0.0f, 0.002f, 0.5f, 1}, {1, 7, -3, 1}, {0.2140411f, 0, 0, 1}, {std::nanf(""), 0, 0, 1}};
    std::memcpy(image.bits(), values, sizeof values);
    const QImage shown = displayImage(image);
    // By the formula of the encoding: 0.5 gives 188, 0.2140 the middle grey of 127.5.
    EXPECT_EQ(shown.pixelColor(0, 0), QColor(0, 7, 188));
    EXPECT_EQ(shown.pixelColor(1, 0), QColor(255, 255, 0));
    EXPECT_NEAR(shown.pixelColor(2, 0).red(), 127.5, 0.6);
    EXPECT_EQ(shown.pixelColor(3, 0), QColor(0, 0, 0));
}

TEST_F(ImageInput, MapsOfModelsMayBeRadianceAndExr)
{
    write("map.hdr", header("-Y 1 +X 1") + flat({{128, 64, 0, 128}}));
    write("m.mtl", "newmtl a\nmap_Kd map.hdr\n");
    const QString path = write("m.obj", "mtllib m.mtl\nusemtl a\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    ImportReport report;
    const ModelData data = importScene(path, ImportOptions(), &report);
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    EXPECT_EQ(report.images, 1) << qPrintable(report.warnings.join(u'\n'));
    QImage map;
    for (const ModelMaterial &material : data.materials)
        map = material.map_Kd.isNull() ? map : material.map_Kd;
    ASSERT_EQ(map.size(), QSize(1, 1));
    EXPECT_EQ(map.pixelColor(0, 0), QColor(188, 137, 0));
}
