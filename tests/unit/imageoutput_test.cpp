#include <host/imagecomparison.h>
#include <host/imageoutput.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace Brevane::Kvo;

namespace {

using Kind = TexturePixels::Kind;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr QRgb kMagenta = qRgb(255, 0, 255);

TexturePixels row(Kind kind, int channels, const QVector<float> &values)
{
    TexturePixels pixels;
    pixels.kind = kind;
    pixels.channels = channels;
    pixels.width = int(values.size()) / channels;
    pixels.height = 1;
    pixels.values = values;
    return pixels;
}

// Greys of a row of pixels; fails the test where one is not grey.
QVector<int> greys(const QImage &image)
{
    QVector<int> result;
    for (int x = 0; x < image.width(); ++x) {
        const QRgb pixel = image.pixel(x, 0);
        EXPECT_TRUE(qRed(pixel) == qGreen(pixel) && qGreen(pixel) == qBlue(pixel) && qAlpha(pixel) == 255) << x;
        result << qRed(pixel);
    }
    return result;
}

} // namespace

TEST(VisibleImage, TurnsTheBottomRowFirstIntoUpright)
{
    TexturePixels pixels = row(Kind::Color, 3, {1, 0, 0, 0, 0, 1});
    pixels.width = 1;
    pixels.height = 2;
    const QImage image = visibleImage(pixels);
    EXPECT_EQ(image.pixel(0, 0), qRgb(0, 0, 255));
    EXPECT_EQ(image.pixel(0, 1), qRgb(255, 0, 0));
}

TEST(VisibleImage, ShowsMomentsInGreysOfTheirLayerAndMarksEmptyTexels)
{
    // two layers of three texels: near, far and empty; then one depth, a mixed texel and no number
    TexturePixels pixels =
        row(Kind::Moments, 2, {0.2f, 0.04f, 0.6f, 0.36f, 1e9f, 1e9f, 0.9f, 0.81f, 3e7f, 3e7f, kNan, 0});
    pixels.width = 3;
    pixels.height = 2;
    pixels.layers = 2;
    const QImage image = visibleImage(pixels);
    ASSERT_EQ(image.size(), QSize(3 + 2 + 3, 1)) << "side by side, with a gap";
    EXPECT_EQ(image.pixel(0, 0), qRgb(255, 255, 255));
    EXPECT_EQ(qRed(image.pixel(1, 0)), 38) << "the furthest is dark, but not black";
    EXPECT_EQ(image.pixel(2, 0), qRgb(24, 32, 72));
    EXPECT_EQ(qAlpha(image.pixel(3, 0)), 0);
    EXPECT_EQ(qRed(image.pixel(5, 0)), qBlue(image.pixel(5, 0)));
    EXPECT_EQ(image.pixel(6, 0), qRgb(96, 48, 136));
    EXPECT_EQ(image.pixel(7, 0), kMagenta);
}

TEST(VisibleImage, LaysLayersOutInRowsFromTheUpperLeft)
{
    // five layers of one colour each, 2 x 1 texels
    QVector<float> values;
    for (int layer = 0; layer < 5; ++layer)
        for (int texel = 0; texel < 2; ++texel)
            values << float(layer) / 5.0f << float(texel) << 0.0f;
    TexturePixels pixels = row(Kind::Color, 3, values);
    pixels.width = 2;
    pixels.height = 5;
    pixels.layers = 5;
    const QImage image = visibleImage(pixels);
    ASSERT_EQ(image.size(), QSize(3 * 2 + 2 * 2, 2 * 1 + 2));
    for (int layer = 0; layer < 5; ++layer) {
        const int x = layer % 3 * 4;
        const int y = layer / 3 * 3;
        EXPECT_EQ(image.pixel(x, y), qRgb(51 * layer, 0, 0)) << layer;
        EXPECT_EQ(image.pixel(x + 1, y), qRgb(51 * layer, 255, 0)) << layer;
    }
    EXPECT_EQ(qAlpha(image.pixel(8, 3)), 0) << "no sixth layer";
}

TEST(VisibleImage, ClampsBrightColorsAndShowsNanInMagenta)
{
    const QImage image = visibleImage(row(Kind::Color, 3, {2, 0.5, 0, kNan, 0, 0}));
    EXPECT_EQ(image.pixel(0, 0), qRgb(255, 128, 0));
    EXPECT_EQ(image.pixel(1, 0), kMagenta);
}

TEST(VisibleImage, KeepsAlphaWithinZeroAndOneOnly)
{
    EXPECT_EQ(visibleImage(row(Kind::Color, 4, {1, 1, 1, 0.5})).pixel(0, 0), qRgba(255, 255, 255, 128));
    EXPECT_EQ(visibleImage(row(Kind::Color, 4, {1, 1, 1, 0, 1, 1, 1, 32})).pixel(0, 0), qRgba(255, 255, 255, 255))
        << "an exponent in alpha is no opacity";
}

TEST(VisibleImage, ShowsDirectionsAroundMiddleGrey)
{
    const QImage image = visibleImage(row(Kind::Color, 3, {-1, 0, 1, 0, 0, 0}));
    EXPECT_EQ(image.pixel(0, 0), qRgb(0, 128, 255));
    EXPECT_EQ(image.pixel(1, 0), qRgb(128, 128, 128));
}

TEST(VisibleImage, ShowsDepthNearBrightFarDarkAndNothingBlack)
{
    const QVector<int> grey = greys(visibleImage(row(Kind::Depth, 1, {0.9f, 0.95f, 0.99f, 1.0f})));
    EXPECT_EQ(grey[0], 255);
    EXPECT_LT(grey[1], grey[0]);
    EXPECT_LT(grey[2], grey[1]);
    EXPECT_GT(grey[2], 0) << "the farthest surface differs from nothing";
    EXPECT_EQ(grey[3], 0);
    EXPECT_EQ(greys(visibleImage(row(Kind::Depth, 1, {0.5f, 0.5f}))), (QVector<int>{255, 255}));
    EXPECT_EQ(greys(visibleImage(row(Kind::Depth, 1, {1.0f, 1.0f}))), (QVector<int>{0, 0}));
}

TEST(VisibleImage, GivesEveryIdAGreyAndNoneBlack)
{
    const QVector<int> grey = greys(visibleImage(row(Kind::Color, 1, {0, 1, 2, 3, 2})));
    EXPECT_EQ(grey[0], 0);
    for (int i = 1; i < 5; ++i)
        EXPECT_GE(grey[i], 64);
    EXPECT_NE(grey[1], grey[2]);
    EXPECT_NE(grey[2], grey[3]);
    EXPECT_EQ(grey[2], grey[4]);

    TexturePixels integers = row(Kind::Integer, 1, {0, 0, 0});
    integers.integers = {0, 7, 4000000000u};
    const QVector<int> unsignedGrey = greys(visibleImage(integers));
    EXPECT_EQ(unsignedGrey[0], 0);
    EXPECT_NE(unsignedGrey[1], unsignedGrey[2]);
}

TEST(VisibleImage, ShowsOneChannelPlainlyOrStretched)
{
    EXPECT_EQ(greys(visibleImage(row(Kind::Color, 1, {0.0f, 0.5f, 1.0f}))), (QVector<int>{0, 128, 255}));
    EXPECT_EQ(greys(visibleImage(row(Kind::Color, 1, {-10.5f, 0.0f, 10.5f}))), (QVector<int>{0, 128, 255}));
}

TEST(VisibleImage, ShowsTwoChannelsAsRedAndGreen)
{
    EXPECT_EQ(visibleImage(row(Kind::Color, 2, {1, 0.5})).pixel(0, 0), qRgb(255, 128, 0));
}

TEST(WriteImage, WritesWhatItIsGiven)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("a.png"));
    QImage image(2, 1, QImage::Format_ARGB32);
    image.setPixel(0, 0, qRgba(10, 20, 30, 40));
    image.setPixel(1, 0, qRgba(255, 0, 0, 255));
    QString error;
    ASSERT_TRUE(writeImage(image, path, &error)) << qPrintable(error);
    const QImage read(path);
    EXPECT_EQ(read.pixel(0, 0), qRgba(10, 20, 30, 40));
    EXPECT_EQ(read.pixel(1, 0), qRgba(255, 0, 0, 255));
}

TEST(WriteImage, NamesWhatCannotBeWritten)
{
    const QTemporaryDir folder;
    const QImage image(2, 2, QImage::Format_RGB32);
    QString error;
    EXPECT_FALSE(writeImage(image, QStringLiteral("/no/such/folder/a.png"), &error));
    EXPECT_EQ(error, QStringLiteral("cannot write '/no/such/folder/a.png': there is no folder '/no/such/folder'"));
    const QString strange = folder.filePath(QStringLiteral("a.xyz"));
    EXPECT_FALSE(writeImage(image, strange, &error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("cannot write '%1': its name has to end in .png, ").arg(strange)))
        << qPrintable(error);
    EXPECT_TRUE(error.contains(QStringLiteral(" or .")) && !error.contains(QStringLiteral(".exr")))
        << qPrintable(error);
    // Whatever it names can be written.
    for (const QString &word : error.section(QStringLiteral("end in "), 1).split(QChar(u' ')))
        if (word.startsWith(QChar(u'.'))) {
            const QString file = folder.filePath(u'a' + QString(word).remove(QChar(u',')));
            EXPECT_TRUE(writeImage(image, file, &error)) << qPrintable(error);
            EXPECT_TRUE(QFile::remove(file));
        }
    EXPECT_FALSE(writeImage(QImage(), folder.filePath(QStringLiteral("a.png")), &error));
    EXPECT_TRUE(error.endsWith(QStringLiteral("there is no picture")));
    EXPECT_FALSE(canWriteImage(folder.filePath(QStringLiteral("a.exr")), false));
    EXPECT_TRUE(canWriteImage(folder.filePath(QStringLiteral("a.exr")), true));
    EXPECT_TRUE(QDir(folder.path()).isEmpty(QDir::Files)) << "nothing half done is left";
}

TEST(WriteExr, RefusesAFullDisk)
{
    if (!QFile::exists(QStringLiteral("/dev/full")))
        GTEST_SKIP() << "missing: /dev/full";
    QString error;
    EXPECT_FALSE(writeExr(row(Kind::Color, 3, {1, 2, 3}), QStringLiteral("/dev/full"), &error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("cannot write '/dev/full': "))) << qPrintable(error);
}

TEST(WriteExr, BeginsAsTheFormatDemands)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("a.exr"));
    QString error;
    ASSERT_TRUE(writeExr(row(Kind::Color, 3, {1.5f, -2.0f, 3e10f}), path, &error)) << qPrintable(error);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray data = file.readAll();
    EXPECT_EQ(data.left(4), QByteArray("\x76\x2f\x31\x01", 4));
    EXPECT_TRUE(data.contains("channels"));
}

// Of a host that fills them itself.
TEST(ImageOutput, PixelsWithTooFewNumbersAreRefused)
{
    const QTemporaryDir folder;
    TexturePixels whole = row(Kind::Color, 3, {0, 0.5f, 1, 1, 0.5f, 0});
    TexturePixels ofIds = whole;
    ofIds.kind = Kind::Integer; // whose numbers are others
    TexturePixels cut = whole;
    cut.values.removeLast();
    TexturePixels empty;
    for (const TexturePixels &pixels : {cut, ofIds, empty}) {
        EXPECT_TRUE(visibleImage(pixels).isNull());
        QString error;
        EXPECT_FALSE(writeExr(pixels, folder.filePath(QStringLiteral("a.exr")), &error));
        EXPECT_TRUE(error.contains(QStringLiteral("numbers, and there are"))
                    || error.contains(QStringLiteral("there are no pixels")))
            << qPrintable(error);
        ImageComparison comparison;
        EXPECT_FALSE(comparePixels(pixels, pixels, &comparison, &error));
        EXPECT_FALSE(comparePixels(whole, pixels, &comparison, &error));
    }
    EXPECT_FALSE(visibleImage(whole).isNull());
}
