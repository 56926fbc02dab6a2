#include "support/exrfile.h"

#include <host/tiledimage.h>

#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

// Writers of tiles that somebody else than kvorender drives: what does not fit is refused before it is touched.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

constexpr QSize kSize(8, 6);
constexpr int kTile = 4;

class TileWriters : public ::testing::Test
{
protected:
    QString path(const char *name) const { return folder.filePath(QLatin1String(name)); }

    static QImage tile(const QPoint &place, const QSize &size)
    {
        QImage image(size, QImage::Format_RGBA8888);
        for (int y = 0; y < size.height(); ++y)
            for (int x = 0; x < size.width(); ++x)
                image.setPixelColor(x, y, colorAt(place + QPoint(x, y)));
        return image;
    }
    static QColor colorAt(const QPoint &place) { return QColor(place.x() * 30, place.y() * 40, 7); }

    // A texture of one channel, of which each value is the number of its place in the picture, upright.
    static TexturePixels valuesAt(const QPoint &place, const QSize &size)
    {
        TexturePixels pixels;
        pixels.channels = 1;
        pixels.width = size.width();
        pixels.height = size.height();
        for (int y = size.height() - 1; y >= 0; --y)
            for (int x = 0; x < size.width(); ++x)
                pixels.values << float((place.y() + y) * kSize.width() + place.x() + x);
        return pixels;
    }
    static QRect whole(const TexturePixels &pixels) { return QRect(0, 0, pixels.width, pixels.height); }

    void expectRefused(bool taken, const char *why)
    {
        EXPECT_FALSE(taken);
        EXPECT_TRUE(error.contains(QLatin1String(why))) << qPrintable(error);
        error.clear();
    }

    QTemporaryDir folder;
    QString error;
};

} // namespace

TEST_F(TileWriters, OfPngTakeRowsAndNothingElse)
{
    PngTileWriter writer;
    ASSERT_TRUE(writer.open(path("a.png"), kSize, false, &error)) << qPrintable(error);
    const auto refuse = [&](const QPoint &place, const QSize &size) {
        expectRefused(writer.write(place, tile(place, size), &error), "the tiles do not come in rows");
    };
    const auto take = [&](const QPoint &place, const QSize &size) {
        EXPECT_TRUE(writer.write(place, tile(place, size), &error)) << qPrintable(error);
    };
    refuse({4, 0}, {4, 4});
    refuse({-4096, 0}, {4, 4});
    refuse({0, -1}, {4, 4});
    refuse({0, 0}, {9, 4});
    refuse({0, 0}, {4, 7});
    refuse({0, 0}, {0, 0});
    take({0, 0}, {4, 4});
    refuse({0, 0}, {4, 4}); // once more
    refuse({4, 0}, {4, 3});
    refuse({6, 0}, {2, 4});
    expectRefused(writer.commit(&error), "rows are missing");
    take({4, 0}, {4, 4});
    refuse({0, 0}, {4, 4});
    refuse({0, 4}, {4, 4});
    take({0, 4}, {4, 2});
    expectRefused(writer.commit(&error), "rows are missing");
    take({4, 4}, {4, 2});
    ASSERT_TRUE(writer.commit(&error)) << qPrintable(error);
    expectRefused(writer.write({0, 0}, tile({}, {4, 4}), &error), "no file is open");
    expectRefused(writer.commit(&error), "no file is open");
    const QImage picture(path("a.png"));
    ASSERT_EQ(picture.size(), kSize);
    for (int y = 0; y < kSize.height(); ++y)
        for (int x = 0; x < kSize.width(); ++x)
            EXPECT_EQ(picture.pixelColor(x, y), colorAt({x, y})) << x << ", " << y;
}

TEST_F(TileWriters, OfExrTakeEachTileOfTheFile)
{
    ExrTileWriter writer;
    const TexturePixels like = valuesAt({}, {4, 4});
    ASSERT_TRUE(writer.open(path("a.exr"), kSize, kTile, like, &error)) << qPrintable(error);
    const auto write = [&](const QPoint &place, const TexturePixels &pixels) {
        return writer.write(place, pixels, whole(pixels), &error);
    };
    for (const QPoint &place : {QPoint(2, 0), QPoint(-4, 0), QPoint(8, 0), QPoint(0, 8)})
        expectRefused(write(place, valuesAt(place, {4, 4})), "a tile is not one of the file's");
    expectRefused(write({0, 4}, valuesAt({0, 4}, {4, 4})), "a tile is not one of the file's"); // 4 by 2 there
    expectRefused(writer.write({}, like, QRect(1, 0, 4, 4), &error), "a tile is not one of the file's");
    TexturePixels other = like;
    other.channels = 2;
    other.values.resize(32);
    expectRefused(write({}, other), "other channels");
    other = like;
    other.kind = TexturePixels::Kind::Integer;
    other.integers.resize(16);
    expectRefused(write({}, other), "other channels");
    other = like;
    other.values.resize(15);
    expectRefused(write({}, other), "take 16 numbers, and there are 15");
    EXPECT_TRUE(write({4, 4}, valuesAt({4, 4}, {4, 2})));
    EXPECT_TRUE(write({0, 0}, like));
    EXPECT_TRUE(write({0, 4}, valuesAt({0, 4}, {4, 2})));
    expectRefused(writer.commit(&error), "tiles are missing");
    EXPECT_TRUE(write({4, 0}, valuesAt({4, 0}, {4, 4})));
    ASSERT_TRUE(writer.commit(&error)) << qPrintable(error);
    expectRefused(write({}, like), "no file is open");
    expectRefused(writer.commit(&error), "no file is open");
    const QVector<float> values = exrChannel(path("a.exr"), "Y");
    ASSERT_EQ(values.size(), kSize.width() * kSize.height());
    for (int i = 0; i < values.size(); ++i)
        EXPECT_EQ(values[i], float(i));
}

TEST_F(TileWriters, WithoutAnOpenFileRefuse)
{
    for (const bool isTried : {false, true}) {
        PngTileWriter png;
        ExrTileWriter exr;
        const TexturePixels pixels = valuesAt({}, {4, 4});
        if (isTried) {
            expectRefused(png.open(path("none/a.png"), kSize, false, &error), "cannot write");
            expectRefused(exr.open(path("none/a.exr"), kSize, kTile, pixels, &error), "cannot write");
            expectRefused(png.open(path("a.png"), QSize(-1, 4), false, &error), "no pixels");
            expectRefused(exr.open(path("a.exr"), kSize, 0, pixels, &error), "no pixels");
        }
        expectRefused(png.write({}, tile({}, {4, 4}), &error), "no file is open");
        expectRefused(png.commit(&error), "no file is open");
        expectRefused(exr.write({}, pixels, whole(pixels), &error), "no file is open");
        expectRefused(exr.commit(&error), "no file is open");
    }
    EXPECT_FALSE(QFileInfo::exists(path("a.png")));
}
