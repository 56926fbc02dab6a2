#include "support/exrfile.h"
#include "support/kvorender.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QStringList>
#include <QVector>

// Pictures in tiles against the same in one piece: what is put together is what would have been drawn at once.

using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

const QString kEngine = u"/usr/share/assimp/models/glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb"_s;

struct Difference
{
    int differing = 0; ///< Pixels.
    int beyondOne = 0; ///< Those that differ by more than a step of 8 bits.
    int worst = 0;
};

Difference compare(const QImage &a, const QImage &b)
{
    Difference result;
    EXPECT_EQ(a.size(), b.size());
    EXPECT_FALSE(a.isNull());
    for (int y = 0; y < std::min(a.height(), b.height()); ++y) {
        for (int x = 0; x < std::min(a.width(), b.width()); ++x) {
            const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
            const int worst = std::max({std::abs(qRed(p) - qRed(q)), std::abs(qGreen(p) - qGreen(q)),
                                        std::abs(qBlue(p) - qBlue(q)), std::abs(qAlpha(p) - qAlpha(q))});
            result.differing += worst > 0;
            result.beyondOne += worst > 1;
            result.worst = std::max(result.worst, worst);
        }
    }
    return result;
}

/// What a pipeline of the system does in tiles.
struct Expectation
{
    enum class Kind {
        Exact, ///< Not a pixel differs.
        Step, ///< No pixel differs by more than one step.
        Rounding, ///< So do all but a few pixels, where rounding decides between neighbours.
        Refused, ///< By name, with a reason.
    };
    const char *pipeline;
    Kind kind;
    const char *what = ""; ///< The reason for a refusal.
    const char *options = "";
};

void PrintTo(const Expectation &expectation, std::ostream *stream)
{
    *stream << expectation.pipeline;
}

using enum Expectation::Kind;

constexpr Expectation kExpectations[] = {
    {"ambient-obscurance", Step, "", "--scale fit"},
    {"antialiasing", Refused, "pass 'ShowOff' (TextureToScreenRenderPass) draws to a part of the picture"},
    {"background-image", Refused, "pass 'Background' (BackgroundImageRenderPass) spreads an image over the picture"},
    {"blend-modes", Refused, "pass 'Sky' (GradientRenderPass) draws to a part of the picture"},
    {"blueprint", Refused, "its paper and its strokes are spread over the picture"},
    {"clay", Refused, "its backdrop and its exposure are those of the whole picture"},
    {"cubemap", Step},
    {"cubes", Exact},
    {"deferred", Refused, "pass 'ShowNormals' (TextureToScreenRenderPass) draws to a part of the picture"},
    {"deferred-model", Exact},
    {"depth-of-field", Step},
    {"forward", Exact},
    // Two frames of different jitter are put together by where each pixel was.
    {"frame", Rounding, "", "-n 2"},
    {"fxaa", Step},
    {"glow", Step},
    {"gradient", Exact},
    {"luminance", Exact},
    {"masked-blur", Step},
    {"matcap", Step},
    // Triangles that are seen edge-on: where on them a pixel lies is up to rounding.
    {"night", Refused, "its backdrop and its exposure are those of the whole picture"},
    {"oit", Rounding, "", "--opacity 0.4"},
    {"oit-compare", Refused, "pass 'Left' (TextureToScreenRenderPass) draws to a part of the picture"},
    {"oit-weighted", Step, "", "--opacity 0.4"},
    {"shadows", Step, "", "--floor -n 2"},
    {"shadows-layered", Step, "", "--floor -n 2"},
    {"skybox", Step},
    {"smaa", Step},
    {"smaa-t2x", Rounding, "", "-n 2"},
    {"studio", Refused, "its backdrop and its exposure are those of the whole picture"},
    {"taa", Step, "", "-n 3"},
    {"technical", Refused, "its dashes go on across the picture"},
    {"toon", Step},
    {"viewport", Step, "", "--scale fit --floor -n 2"},
    {"wireframe", Step},
    {"xray", Refused, "its film is darker towards the edges of the picture"},
};

class KvoRenderTiles : public KvoRenderTest, public ::testing::WithParamInterface<Expectation>
{};

class KvoRenderTiledFiles : public KvoRenderTest
{};

QStringList drawing(const Expectation &expectation, const char *size)
{
    QStringList arguments = words("-q -p")
                            << QString::fromUtf8(expectation.pipeline) << u"-s"_s << QString::fromUtf8(size);
    arguments << words(expectation.options);
    if (qstrcmp(expectation.pipeline, "gradient") != 0 && qstrcmp(expectation.pipeline, "cubes") != 0)
        arguments << kEngine;
    return arguments;
}

} // namespace

// Where passes read around them, at a size by which all coordinates divide without a rest. At others a texture coordinate may be rounded to this or that
// side of a texel's middle, and antialiasing turns that into more.
TEST_P(KvoRenderTiles, ArePutTogetherToThePictureThatOnePieceIs)
{
    const bool isExact = GetParam().kind == Exact;
    const QStringList arguments = drawing(GetParam(), isExact ? "400x300" : "512x256");
    const Outcome tiled =
        run(QStringList(arguments) << words(isExact ? "--tile 96 -o tiled.png" : "--tile 128 -o tiled.png"));
    if (GetParam().kind == Refused) {
        EXPECT_EQ(tiled.exitCode, 1);
        EXPECT_TRUE(tiled.err.contains(u"a picture of 512x256 cannot be put together from tiles: "_s)
                    && tiled.err.contains(QString::fromUtf8(GetParam().what)))
            << qPrintable(tiled.err);
        EXPECT_FALSE(QFile::exists(path("tiled.png")));
        return;
    }
    ASSERT_EQ(tiled.exitCode, 0) << qPrintable(tiled.err);
    ASSERT_EQ(run(QStringList(arguments) << words("-o whole.png")).exitCode, 0);
    const Difference difference = compare(QImage(path("whole.png")), QImage(path("tiled.png")));
    RecordProperty("differing", difference.differing);
    RecordProperty("worst", difference.worst);
    std::printf("%s: %d pixels differ, %d by more than a step, at most %d\n", GetParam().pipeline, difference.differing,
                difference.beyondOne, difference.worst);
    if (GetParam().kind == Exact) {
        EXPECT_EQ(difference.differing, 0);
    } else if (GetParam().kind == Step) {
        EXPECT_EQ(difference.beyondOne, 0);
    } else {
        EXPECT_LT(difference.beyondOne, 512 * 256 / 200);
    }
}

INSTANTIATE_TEST_SUITE_P(Pipelines, KvoRenderTiles, ::testing::ValuesIn(kExpectations), [](const auto &one) {
    return QString::fromUtf8(one.param.pipeline).replace(u'-', u'_').toStdString();
});

TEST(KvoRenderTileTable, HasEveryPipelineOfTheSystem)
{
    QStringList shipped, expected;
    for (const QString &file : QDir(QStringLiteral(KVO_SOURCE_DIR "/pipelines")).entryList({u"*.json"_s}))
        shipped << file.chopped(5);
    for (const Expectation &expectation : kExpectations)
        expected << QString::fromUtf8(expectation.pipeline);
    expected.sort();
    shipped.sort();
    EXPECT_EQ(expected.join(u' ').toStdString(), shipped.join(u' ').toStdString());
}

// No side is a multiple of the tile, nor of anything else.
TEST_F(KvoRenderTiledFiles, FitPicturesOfAnySize)
{
    for (const char *size : {"301x203", "97x31", "33x400", "16x16"}) {
        for (const char *tile : {"16", "37", "96"}) {
            const QStringList arguments = QStringList{kEngine} << words("-q -p deferred-model -s")
                                                               << QString::fromUtf8(size);
            ASSERT_EQ(run(QStringList(arguments) << words("-o whole.png")).exitCode, 0);
            ASSERT_EQ(run(QStringList(arguments) << words("-o tiled.png --tile") << QString::fromUtf8(tile)).exitCode,
                      0);
            const Difference difference = compare(QImage(path("whole.png")), QImage(path("tiled.png")));
            // A corner of a triangle may be rounded to another of the 256 places within a pixel.
            EXPECT_LE(difference.differing, 3) << size << " of " << tile;
        }
    }
}

TEST_F(KvoRenderTiledFiles, TakeABackgroundAndNoAlpha)
{
    const QStringList arguments = QStringList{kEngine} << words("-q -p forward -s 200x120 --background #204060");
    ASSERT_EQ(run(QStringList(arguments) << words("-o whole.png")).exitCode, 0);
    ASSERT_EQ(run(QStringList(arguments) << words("-o tiled.png --tile 64")).exitCode, 0);
    const QImage tiled(path("tiled.png"));
    EXPECT_FALSE(tiled.hasAlphaChannel());
    const Difference difference = compare(QImage(path("whole.png")), tiled);
    EXPECT_LE(difference.differing, 1) << "a corner of a triangle that was rounded elsewhere";
}

TEST_F(KvoRenderTiledFiles, PrintTheValueOfTheWholeFrame)
{
    const QStringList arguments = QStringList{kEngine}
                                  << words("-q -p luminance -s 256x256 -n 2 --print Luminance.averageLuminance");
    const Outcome whole = run(arguments);
    const Outcome tiled = run(QStringList(arguments) << words("--tile 64 -o tiled.png"));
    ASSERT_EQ(tiled.exitCode, 0) << qPrintable(tiled.err);
    EXPECT_FALSE(whole.out.isEmpty());
    EXPECT_EQ(tiled.out, whole.out);
}

TEST_F(KvoRenderTiledFiles, WriteExactValuesAsTiledExr)
{
    const QStringList arguments = QStringList{kEngine} << words("-q -p deferred-model -s 300x200");
    ASSERT_EQ(
        run(QStringList(arguments) << words("--dump Model.Depth=whole.exr --dump Model.Normal=n-whole.exr")).exitCode,
        0);
    const Outcome tiled = run(QStringList(arguments) << words(
                                  "--tile 64 --dump Model.Depth=tiled.exr --dump Model.Normal=n-tiled.exr -o t.png"));
    ASSERT_EQ(tiled.exitCode, 0) << qPrintable(tiled.err);
    EXPECT_EQ(exrTileSize(path("tiled.exr")), 64u);
    const QVector<float> whole = exrChannel(path("whole.exr"), "Z"), parts = exrChannel(path("tiled.exr"), "Z");
    ASSERT_EQ(whole.size(), parts.size());
    int differing = 0, covered = 0;
    for (qsizetype i = 0; i < whole.size(); ++i) {
        differing += std::abs(whole[i] - parts[i]) > 1e-5f;
        covered += whole[i] < 1.0f;
    }
    EXPECT_LE(differing, 3);
    EXPECT_GT(covered, 5000);
    const QVector<float> red = exrChannel(path("n-whole.exr"), "R"), parted = exrChannel(path("n-tiled.exr"), "R");
    ASSERT_EQ(red.size(), parted.size());
    differing = 0;
    for (qsizetype i = 0; i < red.size(); ++i)
        differing += std::abs(red[i] - parted[i]) > 1e-4f;
    EXPECT_LE(differing, 3);
}

// Beyond what the driver takes in one piece, without being asked. What cannot be is told before anything is drawn.
TEST_F(KvoRenderTiledFiles, MakePicturesThatNoTextureHolds)
{
    const Outcome outcome = run(words("-p gradient -s 65536x64 -o long.png --set Gradient.ColorTop=#ff0000 "
                                      "--set Gradient.ColorBottom=#0000ff"));
    ASSERT_EQ(outcome.exitCode, 0) << qPrintable(outcome.err);
    QImage image(path("long.png"));
    ASSERT_EQ(image.size(), QSize(65536, 64));
    for (int x = 0; x < 65536; x += 511) {
        EXPECT_EQ(image.pixel(x, 0), image.pixel(0, 0)) << x;
        EXPECT_EQ(image.pixel(x, 63), image.pixel(0, 63)) << x;
    }
    EXPECT_NEAR(qRed(image.pixel(0, 0)), 253, 1);
    EXPECT_NEAR(qRed(image.pixel(0, 63)), 2, 1);
    expectFailure(QStringList{kEngine} << words("-p skybox -s 65536x64 -o out.png"), 1,
                  "pass 'Environment' (SkyboxRenderPass) needs a viewport of the whole picture");
    expectFailure(QStringList{kEngine} << words("-p antialiasing -s 30000x20000 -o out.png"), 1,
                  "cannot be put together from tiles");
    expectFailure(QStringList{kEngine} << words("-p forward --tile 64 -o out.png --timings"), 2,
                  "are for pictures in one piece");
    expectFailure(QStringList{kEngine} << words("-p forward --tile 64 -o out.jpg"), 2,
                  "a picture in tiles has to end in .png");
    expectFailure(QStringList{kEngine} << words("--tile 64 -p deferred-model -o out.png --dump Model.Depth=d.png"), 2,
                  "can be written as .exr only");
    expectFailure(
        QStringList{kEngine} << words("--tile 16 -p glow --set Glow.BlurRadius=4000 -s 20000x20000 -o out.png"), 1,
        "its passes read ");
}
