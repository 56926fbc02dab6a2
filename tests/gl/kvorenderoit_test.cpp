#include "support/kvorender.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QRegularExpression>

// What kvorender tells of transparent frames: fragment lists, their lengths, and how two ways compare.

using namespace Brevane::Kvo::Test;

namespace {

const QString kBox = QStringLiteral("/usr/share/assimp/models/glTF2/BoxTextured-glTF-Binary/BoxTextured.glb");

class KvoRenderOit : public KvoRenderTest
{
protected:
    QStringList on(const char *pipeline) const
    {
        return {kBox,
                QStringLiteral("-p"),
                QString::fromLatin1(pipeline),
                QStringLiteral("-s"),
                QStringLiteral("160x90"),
                QStringLiteral("-q"),
                QStringLiteral("--gl-debug"),
                QStringLiteral("--pipelines"),
                QStringLiteral(KVO_SOURCE_DIR "/pipelines")};
    }
    static bool hasLists()
    {
        return !qEnvironmentVariable("MESA_EXTENSION_OVERRIDE").contains(QLatin1String("image_load_store"));
    }
};

} // namespace

TEST_F(KvoRenderOit, PrintsTheFragmentListOfAPixelNearestFirst)
{
    const Outcome outcome =
        run(on("oit") << QStringLiteral("--opacity") << QStringLiteral("0.25") << QStringLiteral("--inspect-oit")
                      << QStringLiteral("80,45") << QStringLiteral("--inspect-oit") << QStringLiteral("0,0"));
    ASSERT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
    EXPECT_TRUE(outcome.out.contains(QStringLiteral("pixel 0,0: 0 fragments"))) << qPrintable(outcome.out);
    EXPECT_TRUE(outcome.out.contains(QStringLiteral("0 pixels have more than 50 fragments")))
        << qPrintable(outcome.out);
    // A box has a front and a back.
    const QString count = hasLists() ? QStringLiteral("2") : QStringLiteral("1");
    EXPECT_TRUE(outcome.out.contains(QStringLiteral("pixel 80,45: %1 fragments").arg(count)))
        << qPrintable(outcome.out);
    static const QRegularExpression kRow(QStringLiteral("^ +(\\d+)  (\\d\\.\\d{8}) +0 +(\\d+)    0\\.250  (\\S+)$"),
                                         QRegularExpression::MultilineOption);
    QVector<double> depths;
    for (auto rows = kRow.globalMatch(outcome.out); rows.hasNext();) {
        const QRegularExpressionMatch row = rows.next();
        EXPECT_EQ(row.captured(1).toInt(), int(depths.size()));
        EXPECT_LT(row.captured(3).toInt(), 12) << "triangles of a box";
        depths << row.captured(2).toDouble();
    }
    ASSERT_EQ(depths.size(), count.toInt()) << qPrintable(outcome.out);
    EXPECT_TRUE(std::is_sorted(depths.cbegin(), depths.cend()));
}

TEST_F(KvoRenderOit, NamesTheMaterialOnlyWhereDrawsAreRecorded)
{
    QStringList arguments = on("oit");
    arguments[0] = QStringLiteral("/usr/share/assimp/models/OBJ/spider.obj");
    const Outcome outcome = run(arguments << QStringLiteral("--inspect-oit") << QStringLiteral("80,41"));
    ASSERT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
    static const QRegularExpression kKnown(QStringLiteral("^ +0  \\d\\.\\d{8} +\\d+ +\\d+    1\\.000  \\w+$"),
                                           QRegularExpression::MultilineOption);
    static const QRegularExpression kUnknown(QStringLiteral("^ +0  \\d\\.\\d{8} +- +\\d+ +-  not recorded"),
                                             QRegularExpression::MultilineOption);
    EXPECT_EQ(outcome.out.contains(kKnown), hasLists()) << qPrintable(outcome.out);
    EXPECT_EQ(outcome.out.contains(kUnknown), !hasLists()) << qPrintable(outcome.out);
}

TEST_F(KvoRenderOit, SaysWhichPixelsLostTheirFragments)
{
    if (!hasLists())
        GTEST_SKIP() << "missing: image stores, for a node buffer that may overflow";
    // 18 quads over 1024 by 1024 pixels are two more than the nodes are enough for.
    QFile model(folder.filePath(QStringLiteral("stack.obj")));
    ASSERT_TRUE(model.open(QIODevice::WriteOnly));
    constexpr int kQuads = 18;
    for (int i = 0; i < kQuads; ++i)
        for (const char *corner : {"-1 -1", "1 -1", "1 1", "-1 1"})
            model.write(QByteArray("v ") + corner + ' ' + QByteArray::number(-0.02 * i) + '\n');
    for (int i = 0; i < kQuads; ++i)
        model.write("f " + QByteArray::number(4 * i + 1) + ' ' + QByteArray::number(4 * i + 2) + ' '
                    + QByteArray::number(4 * i + 3) + ' ' + QByteArray::number(4 * i + 4) + '\n');
    model.close();
    QStringList arguments = on("oit");
    arguments[0] = model.fileName();
    arguments[arguments.indexOf(QStringLiteral("-s")) + 1] = QStringLiteral("1024x1024");
    const QString lengths = folder.filePath(QStringLiteral("lengths.png"));
    arguments << QStringLiteral("-c") << QStringLiteral("eye=0,0,1:target=0,0,0:fov=60")
              << QStringLiteral("--oit-lengths") << lengths;
    // Which pixels come last is the driver's choice, and another one in every run: a grid of them is looked at in the
    // run that makes the picture.
    const auto name = [](const QPoint &p) { return QStringLiteral("%1,%2").arg(p.x()).arg(p.y()); };
    QVector<QPoint> grid;
    for (int y = 32; y < 1024; y += 64)
        for (int x = 32; x < 1024; x += 64)
            grid << QPoint(x, y);
    for (const QPoint &pixel : grid)
        arguments << QStringLiteral("--inspect-oit") << name(pixel);
    const Outcome outcome = run(arguments);
    ASSERT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
    EXPECT_TRUE(outcome.out.contains(QStringLiteral("the node buffer overflowed")))
        << qPrintable(outcome.out.left(2000));
    const QImage image(lengths);
    int lost = 0;
    for (const QPoint &pixel : grid) {
        const bool isLost = image.pixelColor(pixel) == QColor(Qt::magenta);
        const QString told = isLost ? QStringLiteral("pixel %1: 0 fragments, all are lost: the node buffer was full\n")
                                    : QStringLiteral("pixel %1: 18 fragments\n");
        EXPECT_TRUE(outcome.out.contains(told.arg(name(pixel))))
            << qPrintable(name(pixel)) << (isLost ? " is lost" : " is whole");
        lost += isLost;
    }
    EXPECT_GT(lost, 0);
    EXPECT_LT(lost, int(grid.size()));
}

TEST_F(KvoRenderOit, PicturesTheLengthsOfTheLists)
{
    const QString file = folder.filePath(QStringLiteral("lengths.png"));
    const Outcome outcome = run(on("oit") << QStringLiteral("--oit-lengths") << file);
    ASSERT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
    const QImage image(file);
    ASSERT_EQ(image.size(), QSize(160, 90));
    EXPECT_EQ(image.pixelColor(0, 0), QColor(Qt::black));
    const QColor middle = image.pixelColor(80, 45);
    EXPECT_EQ(middle.blue(), 255) << "one or two fragments";
    EXPECT_EQ(middle.red(), 0);
    EXPECT_EQ(middle.green() > 0, hasLists());
}

TEST_F(KvoRenderOit, ComparesTwoOutputsInNumbersAndAsAPicture)
{
    const QString file = folder.filePath(QStringLiteral("difference.png"));
    const Outcome outcome =
        run(on("oit-compare") << QStringLiteral("--opacity") << QStringLiteral("0.5") << QStringLiteral("--compare")
                              << QStringLiteral("Compose.Frame,Opaque.Frame=") + file << QStringLiteral("--compare")
                              << QStringLiteral("Opaque.Frame,Opaque.Frame"));
    ASSERT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
    const QStringList lines = outcome.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << qPrintable(outcome.out);
    // Each line comes when its outputs are there: the comparison with itself as the pass ends.
    const QString different = lines.filter(QStringLiteral("Compose.Frame and Opaque.Frame")).value(0);
    const QString same = lines.filter(QStringLiteral("Opaque.Frame and Opaque.Frame")).value(0);
    EXPECT_TRUE(same.contains(QStringLiteral("mean error 0, RMS 0, worst 0"))) << qPrintable(outcome.out);
    static const QRegularExpression kMean(QStringLiteral("mean error ([0-9.e-]+), RMS ([0-9.e-]+), worst ([0-9.e-]+)"));
    const QRegularExpressionMatch numbers = kMean.match(different);
    ASSERT_TRUE(numbers.hasMatch()) << qPrintable(outcome.out);
    EXPECT_GT(numbers.captured(1).toDouble(), 0);
    EXPECT_GT(numbers.captured(2).toDouble(), numbers.captured(1).toDouble());
    EXPECT_GT(numbers.captured(3).toDouble(), numbers.captured(2).toDouble());
    const QImage image(file);
    ASSERT_EQ(image.size(), QSize(160, 90));
    EXPECT_EQ(image.pixelColor(0, 0), QColor(Qt::black)) << "the backdrop is the same";
    EXPECT_NE(image.pixelColor(80, 45), QColor(Qt::black));
}

TEST_F(KvoRenderOit, OpacityGoesToAllMaterialsOrToOneByName)
{
    const auto alpha = [&](const QStringList &opacity) {
        const QString file = folder.filePath(QStringLiteral("frame.png"));
        QStringList arguments = on("forward");
        for (const QString &value : opacity)
            arguments << QStringLiteral("--opacity") << value;
        const Outcome outcome = run(arguments << QStringLiteral("-o") << file);
        EXPECT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
        return QImage(file).pixelColor(80, 45).alpha();
    };
    EXPECT_EQ(alpha({}), 255);
    EXPECT_NEAR(alpha({QStringLiteral("0.5")}), 128, 1);
    EXPECT_NEAR(alpha({QStringLiteral("0.5"), QStringLiteral("Texture=0.25")}), 64, 1);
}

TEST_F(KvoRenderOit, NamesMistakes)
{
    const struct
    {
        const char *pipeline;
        QStringList arguments;
        int exitCode;
        const char *message;
    } kCases[] = {
        {"forward", {QStringLiteral("--inspect-oit"), QStringLiteral("1,1")}, 2, "makes no fragment lists"},
        {"oit", {QStringLiteral("--inspect-oit"), QStringLiteral("160,1")}, 2, "inside the picture of 160x90"},
        {"oit", {QStringLiteral("--inspect-oit"), QStringLiteral("a")}, 2, "--inspect-oit takes X,Y"},
        {"oit", {QStringLiteral("--opacity"), QStringLiteral("1.5"), QStringLiteral("--timings")}, 2, "from 0 to 1"},
        {"oit",
         {QStringLiteral("--opacity"), QStringLiteral("Textur=0.5"), QStringLiteral("--timings")},
         2,
         "no material 'Textur'"},
        {"oit", {QStringLiteral("--compare"), QStringLiteral("Shade.Frame")}, 2, "--compare takes"},
        {"oit", {QStringLiteral("--compare"), QStringLiteral("Shade.Frame,Shad.Frame")}, 2, "Shad"},
        {"oit",
         {QStringLiteral("--compare"), QStringLiteral("Shade.Frame,Record.NodeBufferWidth")},
         2,
         "not a texture"},
        {"oit", {QStringLiteral("--compare"), QStringLiteral("Shade.Frame,Record.HeadPointers")}, 1, "same channels"},
        {"oit", {QStringLiteral("--oit-lengths"), QStringLiteral("/nowhere/x.png")}, 1, "/nowhere"},
    };
    for (const auto &c : kCases) {
        const Outcome outcome = run(on(c.pipeline) + c.arguments);
        EXPECT_EQ(outcome.exitCode, c.exitCode) << qPrintable(outcome.err);
        EXPECT_TRUE(outcome.err.contains(QString::fromLatin1(c.message))) << c.message << "\n"
                                                                          << qPrintable(outcome.err);
    }
}
