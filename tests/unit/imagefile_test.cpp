// What counts as an image file: all of the image has to be there, and what else there is does not matter.

#include "gl/imagefile.h"
#include "support/imagefiles.h"
#include "support/messages.h"

#include <QImageWriter>
#include <QTransform>

#include <gtest/gtest.h>

#include <algorithm>

namespace Brevane::Kvo {

using namespace Test;

namespace {

struct FileRow
{
    const char *name;
    const char *format;
    QImage::Format pixels;
    bool isProgressive = false;
    bool mayLackItsEnd = false; ///< Some end mark, without which it is whole all the same.
};

const FileRow kFiles[] = {{"Jpeg", "jpg", QImage::Format_RGB32, false, true},
                          {"GreyJpeg", "jpg", QImage::Format_Grayscale8, false, true},
                          {"ProgressiveJpeg", "jpg", QImage::Format_RGB32, true},
                          {"Bmp1", "bmp", QImage::Format_Mono},
                          {"Bmp8", "bmp", QImage::Format_Indexed8},
                          {"Bmp24", "bmp", QImage::Format_RGB32},
                          {"Bmp32", "bmp", QImage::Format_ARGB32},
                          {"Png", "png", QImage::Format_ARGB32, false, true},
                          {"PngPalette", "png", QImage::Format_Indexed8, false, true},
                          {"Ppm", "ppm", QImage::Format_RGB32}};

} // namespace

class ImageFileTest : public ::testing::TestWithParam<FileRow>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<FileRow> &row) { return row.param.name; }

protected:
    QByteArray bytesOf(const QSize &size)
    {
        QByteArray bytes;
        QBuffer buffer(&bytes);
        QImageWriter writer(&buffer, GetParam().format);
        writer.setProgressiveScanWrite(GetParam().isProgressive);
        EXPECT_TRUE(writer.write(ImageFiles::pattern(size.width(), size.height()).convertToFormat(GetParam().pixels)));
        return bytes;
    }
    QImage read(const QByteArray &bytes)
    {
        error.clear();
        return readImageFile(files.write("file", bytes), ImageTurn::AsStored, &error);
    }

    ImageFiles files;
    QString error;
};

TEST_P(ImageFileTest, APartOfAFileIsTheWholeImageOrNone)
{
    const QByteArray bytes = bytesOf({13, 9});
    const QImage whole = read(bytes);
    ASSERT_FALSE(whole.isNull()) << qPrintable(error);
    int taken = 0;
    for (qsizetype length = 0; length < bytes.size(); ++length) {
        const MessageCapture messages; // some decoders say what is missing
        const QImage part = read(bytes.left(length));
        if (part.isNull()) {
            EXPECT_FALSE(error.isEmpty()) << length;
            continue;
        }
        ++taken;
        ASSERT_EQ(part, whole) << length << " of " << bytes.size() << " bytes";
    }
    EXPECT_EQ(taken > 0, GetParam().mayLackItsEnd) << taken;
}

TEST_P(ImageFileTest, WhatStandsBehindTheImageDoesNotMatter)
{
    const QByteArray bytes = bytesOf({13, 9});
    const QImage whole = read(bytes);
    ASSERT_FALSE(whole.isNull());
    const QByteArray behind[] = {QByteArray("\n"), QByteArray(100000, '\0'), QByteArray("\xff\xda\xff\xc0 and text"),
                                 bytes.left(bytes.size() / 2), bytes};
    for (const QByteArray &more : behind) {
        EXPECT_EQ(read(bytes + more), whole) << more.size() << " bytes more, " << qPrintable(error);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, ImageFileTest, ::testing::ValuesIn(kFiles), ImageFileTest::nameOf);

class ImageFileHeaders : public ImageFileTest
{};

TEST_P(ImageFileHeaders, ASizeOfTheFileInItsHeaderDoesNotMatter)
{
    QByteArray bytes = bytesOf({13, 9});
    const QImage whole = read(bytes);
    for (const quint32 size : {0u, 1u, 1000000u, 0xffffffffu}) {
        qToLittleEndian(size, bytes.data() + 2);
        EXPECT_EQ(read(bytes), whole) << size;
    }
}

INSTANTIATE_TEST_SUITE_P(Bmp, ImageFileHeaders, ::testing::ValuesIn(kFiles + 3, kFiles + 7), ImageFileTest::nameOf);

TEST(ImageFileTurn, FollowsTheMetadataWhereItIsAskedTo)
{
    const ImageFiles files;
    QString error;
    const QString path = files.write("turned.jpg", ImageFiles::turnedJpeg(ImageFiles::pattern(24, 8)));
    const QImage stored = readImageFile(path, ImageTurn::AsStored, &error);
    const QImage turned = readImageFile(path, ImageTurn::AsMetadataSays, &error);
    EXPECT_EQ(stored.size(), QSize(24, 8));
    EXPECT_EQ(turned, stored.transformed(QTransform().rotate(90)));
}

namespace {

/// An 8-bit BMP file of run lengths.
QByteArray runLengths(int width, int height, const QByteArray &runs)
{
    QByteArray bytes("BM");
    const auto add = [&](qint64 value, int count) {
        for (int i = 0; i < count; ++i)
            bytes.append(char(value >> (8 * i) & 0xff));
    };
    constexpr int kColors = 4, kBegin = 14 + 40 + 4 * kColors;
    add(0, 4), add(0, 4), add(kBegin, 4), add(40, 4), add(width, 4), add(height, 4), add(1, 2), add(8, 2);
    add(1, 4), add(runs.size(), 4), add(2835, 4), add(2835, 4), add(kColors, 4), add(kColors, 4);
    for (const quint32 color : {0xff0000u, 0x00ff00u, 0x0000ffu, 0xffffffu})
        add(color, 4);
    return bytes + runs;
}

} // namespace

TEST(ImageFileRuns, OfABmpFileMayLackTheirEndMarkAndNothingElse)
{
    ImageFiles files;
    // Two rows: a run of four; then three stored ones, padded, and a run of one.
    const QByteArray runs("\x04\x01\x00\x00\x00\x03\x00\x01\x02\x00\x01\x03\x00\x00\x00\x01", 16);
    QString error;
    const auto read = [&](qsizetype count) {
        return readImageFile(files.write("runs.bmp", runLengths(4, 2, runs.left(count))), ImageTurn::AsStored, &error);
    };
    const QImage whole = read(16);
    ASSERT_FALSE(whole.isNull()) << qPrintable(error);
    EXPECT_EQ(whole.pixel(0, 1), qRgb(0, 255, 0));
    EXPECT_EQ(whole.pixel(2, 0), qRgb(0, 0, 255));
    EXPECT_EQ(whole.pixel(3, 0), qRgb(255, 255, 255));
    for (int count = 0; count < 16; ++count) {
        const MessageCapture messages;
        const QImage part = read(count);
        EXPECT_EQ(part.isNull(), count < 12) << count;
        if (!part.isNull()) {
            EXPECT_EQ(part, whole) << count;
        }
    }
}

} // namespace Brevane::Kvo
