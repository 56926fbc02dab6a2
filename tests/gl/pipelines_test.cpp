#include "support/draw.h"
#include "support/gltest.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/stage.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/pipeline.h>
#include <host/sceneimport.h>

#include <QFile>
#include <QFileInfo>
#include <QRect>
#include <QSet>

#include <cmath>
#include <cstdlib>

// The pipeline files of the tree, each as a whole.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

const QSize kSize(64, 48);
constexpr int kWarmUp = 3; // Frames until the longest history (two frames) is full.
constexpr int kFewestColors = 7; // Two visible sides of each cube, and what is around them.

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

// A small picture of the cubes, unless told otherwise.
class SmallStage : public Stage
{
public:
    explicit SmallStage(const QString &name, const ModelData &data = threeCubes(), const QSize &size = kSize)
        : Stage(name, data, size)
    {}
};

class PipelineOfTheTree : public GLTest, public ::testing::WithParamInterface<QString>
{};

class PipelinePictures : public GLTest
{};

int colorsOf(const QImage &image)
{
    QSet<QRgb> colors;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            colors.insert(image.pixel(x, y));
    return int(colors.size());
}

int worstDifference(const QImage &a, const QImage &b)
{
    int worst = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
            worst = std::max({worst, std::abs(qRed(p) - qRed(q)), std::abs(qGreen(p) - qGreen(q)),
                              std::abs(qBlue(p) - qBlue(q)), std::abs(qAlpha(p) - qAlpha(q))});
        }
    return worst;
}

// Root mean square difference of the colours.
double errorOf(const Image<float> &image, const Image<float> &expected)
{
    EXPECT_EQ(image.pixels.size(), expected.pixels.size());
    double sum = 0;
    for (qsizetype i = 0; i < std::min(image.pixels.size(), expected.pixels.size()); ++i)
        for (size_t c = 0; c < 3; ++c)
            sum += std::pow(double(image.pixels[i][c]) - double(expected.pixels[i][c]), 2);
    return std::sqrt(sum / (3.0 * double(image.pixels.size())));
}

// Every pixel the mean of a block.
Image<float> reduced(const Image<float> &image, int factor)
{
    Image<float> result(image.width / factor, image.height / factor);
    for (int y = 0; y < result.height; ++y)
        for (int x = 0; x < result.width; ++x)
            for (size_t c = 0; c < 4; ++c) {
                double sum = 0;
                for (int j = 0; j < factor; ++j)
                    for (int i = 0; i < factor; ++i)
                        sum += double(image.at(x * factor + i, y * factor + j)[c]);
                result.at(x, y)[c] = float(sum / (factor * factor));
            }
    return result;
}

} // namespace

TEST_P(PipelineOfTheTree, DrawsAPictureWithoutAFault)
{
    const MessageCapture messages;
    SmallStage stage(GetParam());
    EXPECT_EQ(stage.pipeline.warnings(), QStringList());
    for (int frame = 0; frame < kWarmUp; ++frame) {
        stage.render();
        EXPECT_EQ(stage.pipeline.faults(), QStringList()) << "frame " << frame;
    }
    EXPECT_GE(colorsOf(stage.screen.image()), kFewestColors);
    // a pass may say which path it takes
    EXPECT_EQ(messages.texts(QtWarningMsg) + messages.texts(QtCriticalMsg), QStringList());
}

TEST_P(PipelineOfTheTree, ShowsTheModel)
{
    SmallStage stage(GetParam());
    if (!stage.pipeline.uses(s("model")))
        return;
    const QImage with = stage.picture(kWarmUp);
    stage.pipeline.setModel(nullptr);
    // As long as a temporal pass remembers the model.
    const QImage without = stage.picture(40);
    int differing = 0;
    for (int y = 0; y < with.height(); ++y)
        for (int x = 0; x < with.width(); ++x)
            differing += with.pixel(x, y) != without.pixel(x, y);
    EXPECT_GT(differing, with.width() * with.height() / 20);
}

TEST_P(PipelineOfTheTree, ASteadyFrameMakesNoGLObjectAndTakesNoMoreOfThePool)
{
    SmallStage stage(GetParam());
    for (int frame = 0; frame < kWarmUp; ++frame)
        stage.render();
    const int inUse = TextureManager::Instance().statistics().inUse;
    for (int frame = 0; frame < 4; ++frame) {
        const GlCalls calls;
        stage.render();
        EXPECT_EQ(calls.created(), 0) << "frame " << frame;
        EXPECT_EQ(calls.textureAllocations(), 0) << "frame " << frame;
        EXPECT_EQ(calls.bufferAllocations(), 0) << "frame " << frame;
        EXPECT_EQ(TextureManager::Instance().statistics().inUse, inUse) << "frame " << frame;
    }
}

TEST_P(PipelineOfTheTree, FollowsANewSize)
{
    SmallStage stage(GetParam());
    stage.render();
    stage.resize(QSize(40, 56));
    const QImage resized = stage.picture(2);
    EXPECT_EQ(resized.size(), QSize(40, 56));
    EXPECT_EQ(stage.pipeline.faults(), QStringList());
    EXPECT_GE(colorsOf(resized), kFewestColors);
}

INSTANTIATE_TEST_SUITE_P(Files, PipelineOfTheTree, ::testing::ValuesIn(pipelineNames()), pipelineTestName);

TEST_F(PipelinePictures, TheAntialiasingSheetShowsFourWaysOfOneFrame)
{
    SmallStage stage(s("antialiasing"));
    const QImage sheet = stage.picture(10);
    const int column = kSize.width() / 4;
    QVector<int> colors;
    for (int i = 0; i < 4; ++i)
        colors << colorsOf(sheet.copy(i * column, 0, column, kSize.height() / 2));
    for (int i = 1; i < 4; ++i)
        EXPECT_GT(colors[i], colors[0]) << "column " << i << " has the shades between that column 0 lacks";
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < i; ++j)
            EXPECT_NE(sheet.copy(i * column, 0, column, kSize.height()),
                      sheet.copy(j * column, 0, column, kSize.height()))
                << i << " and " << j;
}

namespace {

// The pipeline files that say this.
QStringList pipelinesThatName(const char *text)
{
    QStringList names;
    for (const QString &name : pipelineNames()) {
        QFile file(s(KVO_SOURCE_DIR "/pipelines/%1.json").arg(name));
        if (file.open(QIODevice::ReadOnly) && file.readAll().contains(text))
            names << name;
    }
    return names;
}

PassInput inputOf(const Pipeline &pipeline, const QString &pass, const char *slot)
{
    for (const PassInput &input : pipeline.inputs(pass))
        if (input.slot == s(slot))
            return input;
    ADD_FAILURE() << qPrintable(pass) << " has no " << slot;
    return PassInput();
}

// The plane below a line near the middle that climbs so much per column, each pixel the mean of so many samples a
// side: 1 is what a rasteriser draws, more the share of the pixel that the plane covers.
Image<float> halfPlane(const QSize &size, double slope, int samples)
{
    Image<float> image(size.width(), size.height());
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            int covered = 0;
            for (int j = 0; j < samples; ++j)
                for (int i = 0; i < samples; ++i) {
                    const double u = x + (i + 0.5) / samples, v = y + (j + 0.5) / samples;
                    covered += v - 0.5 * image.height < slope * (u - 0.5 * image.width) + 0.3;
                }
            const float share = float(covered) / float(samples * samples);
            image.at(x, y) = {share, share, share, 1};
        }
    return image;
}

// Over all pixels but those near the border, where an edge has no end to go by.
double squaredError(const Image<float> &image, const Image<float> &expected, int margin)
{
    double sum = 0;
    for (int y = margin; y < image.height - margin; ++y)
        for (int x = margin; x < image.width - margin; ++x)
            sum += std::pow(double(image.at(x, y)[0]) - double(expected.at(x, y)[0]), 2);
    return sum;
}

class SmaaOfTheTree : public GLTest, public ::testing::WithParamInterface<QString>
{};

} // namespace

// What the method makes of a long straight edge is nearly what its pixels are covered by: it leaves less than a
// tenth of their squared errors. The areas of a jittered sample lie a quarter of a pixel aside, and leave more than
// a third of those of a frame that was drawn without jitter.
TEST_P(SmaaOfTheTree, SmoothsASlantedEdgeTowardsTheSharesThatItCovers)
{
    constexpr int kSamples = 32;
    constexpr int kMargin = 48; // the longest run of pixels of the slopes below, and as much again
    const QSize size(192, 160);
    SmallStage stage(GetParam(), threeCubes(), size);
    for (const QString &pass : stage.pipeline.passNames()) {
        if (stage.pipeline.className(pass) != s("SMAARenderPass")
            || inputOf(stage.pipeline, pass, "Kvo_int_Mode").value.toInt() == 1)
            continue;
        Image<float> smooth;
        stage.pipeline.setPassObserver([&](const QString &name, RenderPass *) {
            if (name == pass)
                smooth = readTexture<float>(textureFromVariant(stage.pipeline.output(pass, s("Frame"))));
        });
        for (const double slope : {0.047, 0.083, 0.19, 0.37, -0.123, 2.9, -5.3, 10.7}) {
            const Image<float> aliased = halfPlane(size, slope, 1);
            const Image<float> covered = halfPlane(size, slope, kSamples);
            const auto frame = makeTexture(aliased);
            ASSERT_TRUE(stage.pipeline.setValue(pass, s("Frame"), textureToVariant(frame.get())));
            stage.render();
            const double share = squaredError(smooth, covered, kMargin) / squaredError(aliased, covered, kMargin);
            EXPECT_LT(share, 0.12) << slope;
            ASSERT_TRUE(stage.pipeline.setValue(pass, s("Frame"), QVariant()));
        }
    }
}

TEST_P(SmaaOfTheTree, HasTheIndexOfTheJitterThatItsFrameIsDrawnWith)
{
    SmallStage stage(GetParam());
    for (const QString &pass : stage.pipeline.passNames()) {
        if (stage.pipeline.className(pass) != s("SMAARenderPass"))
            continue;
        const PassInput index = inputOf(stage.pipeline, pass, "Kvo_int_JitterIndex");
        if (inputOf(stage.pipeline, pass, "Kvo_int_Mode").value.toInt() == 1) {
            EXPECT_EQ(index.kind, PassInput::Kind::Link);
            EXPECT_EQ(stage.pipeline.className(index.sourcePass), s("CameraJitterPass"));
        } else {
            EXPECT_EQ(index.kind, PassInput::Kind::Value);
            EXPECT_EQ(index.value.toInt(), -1) << "none";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, SmaaOfTheTree, ::testing::ValuesIn(pipelinesThatName("SMAARenderPass")),
                         pipelineTestName);

TEST_F(PipelinePictures, TheSheetOfBlendModesShowsTheTwoImagesAndAllModes)
{
    SmallStage stage(s("blend-modes"), threeCubes(), QSize(280, 200));
    const QImage sheet = stage.picture(1);
    const auto cell = [&](int index) { return sheet.copy(index % 7 * 40 + 2, index / 7 * 50 + 6, 36, 36); };
    EXPECT_EQ(colorsOf(cell(2)), 1) << "clear";
    // The blend samples and stores half floats, which may round to the neighbour of 8 bits.
    EXPECT_LE(worstDifference(cell(3), cell(0)), 1) << "source";
    EXPECT_LE(worstDifference(cell(4), cell(1)), 1) << "destination";
    EXPECT_GT(worstDifference(cell(3), cell(4)), 50);
    QVector<QImage> others;
    for (int index = 5; index < 28; ++index) {
        EXPECT_GT(colorsOf(cell(index)), 5) << index;
        EXPECT_FALSE(others.contains(cell(index))) << index << " looks like one before";
        others << cell(index);
    }
}

// The engine of assimp's samples, at a size where its fins alias badly. The picture of 8 by 8 samples per
// pixel is the same view at eight times the size.
TEST_F(PipelinePictures, TemporalAntialiasingOfARealModelConvergesToTheSupersampledPicture)
{
    const QString path = s("/usr/share/assimp/models/glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb");
    if (!QFileInfo::exists(path))
        GTEST_SKIP() << "missing model: " << qPrintable(path);
    const ModelData engine = importScene(path);
    constexpr int kFactor = 8;
    const QSize size(160, 90);
    Image<float> expected;
    {
        SmallStage stage(s("taa"), engine, size * kFactor);
        stage.pipeline.setPassObserver([&](const QString &pass, RenderPass *) {
            if (pass == s("Scene"))
                expected =
                    reduced(readTexture<float>(textureFromVariant(stage.pipeline.output(pass, s("Frame")))), kFactor);
        });
        ASSERT_TRUE(stage.pipeline.setValue(s("Jitter"), s("JitterMode"), 0));
        stage.render();
    }
    // Mode 3 jitters on where mode 1, that of the file, ends after 30 frames.
    std::srand(1);
    SmallStage stage(s("taa"), engine, size);
    ASSERT_TRUE(stage.pipeline.setValue(s("Jitter"), s("JitterMode"), 3));
    Image<float> mean;
    stage.pipeline.setPassObserver([&](const QString &pass, RenderPass *) {
        if (pass == s("Smooth"))
            mean = readTexture<float>(textureFromVariant(stage.pipeline.output(pass, s("Frame"))));
    });
    QVector<double> errors;
    for (int frame = 1; frame <= 64; ++frame) {
        stage.render();
        errors << errorOf(mean, expected);
    }
    for (const int frame : {1, 2, 4, 8, 16, 30, 64})
        RecordProperty("error_after_" + std::to_string(frame), std::to_string(errors[frame - 1]));
    // Independent samples would halve the error from 2 to 8 and from 8 to 32; the first frame is dropped.
    EXPECT_LT(errors[7], 0.65 * errors[1]);
    EXPECT_LT(errors[29], 0.65 * errors[7]);
    EXPECT_LT(errors[63], 0.85 * errors[29]);
}

TEST_F(PipelinePictures, TheRoadOfOneFrameRunsFromJitterToScreen)
{
    SmallStage stage(s("frame"));
    QStringList road;
    stage.pipeline.setPassObserver([&](const QString &pass, RenderPass *) { road << stage.pipeline.className(pass); });
    stage.render();
    road.removeAll(s("CubemapLoaderRenderPass"));
    EXPECT_EQ(road, QStringList({s("CameraJitterPass"), s("ShadowMapRenderPass2"), s("ModelRenderPass"),
                                 s("ModelDeferredPass"), s("SkyboxRenderPass"), s("SMAARenderPass"),
                                 s("TextureToScreenRenderPass")}))
        << qPrintable(road.join(QLatin1Char(' ')));
}

namespace {

// What goes into and comes out of the pass of the viewport that puts transparent surfaces over the rest.
struct Veil
{
    explicit Veil(const ModelData &data)
    {
        SmallStage stage(s("viewport"), data);
        stage.look(0, 0);
        stage.pipeline.setPassObserver([&](const QString &pass, RenderPass *) {
            const auto image = [&](const char *output) {
                Texture *texture = textureFromVariant(stage.pipeline.output(pass, s(output)));
                return texture ? readTexture<float>(texture) : Image<float>();
            };
            if (pass == s("Environment")) {
                picture = image("Frame");
            } else if (pass == s("Glass")) {
                layers = image("Surfaces");
                veiled = image("Frame");
            }
        });
        stage.render();
    }

    Image<float> layers;
    Image<float> picture;
    Image<float> veiled;
};

// Values are below 2 and stored as half floats: 11 bits.
constexpr double kHalfFloatStep = 2.0 / 2048;

} // namespace

TEST_F(PipelinePictures, TheViewportPutsNothingOverAnOpaqueModel)
{
    const Veil veil(threeCubes());
    for (qsizetype i = 0; i < veil.veiled.pixels.size(); ++i)
        for (size_t c = 0; c < 3; ++c)
            ASSERT_NEAR(veil.veiled.pixels[i][c], veil.picture.pixels[i][c], kHalfFloatStep) << i;
}

// A pane before a wall and the sky: what comes through is the picture behind, and the pane adds its share of what it
// would look like if nothing came through.
TEST_F(PipelinePictures, TheViewportShowsTheLitSceneThroughGlass)
{
    constexpr float kOpacity = 0.4f;
    ModelData data = quadScene({0.6f, 0.5f, 0.4f});
    data.materials.append(material({0.1f, 0.2f, 0.3f}, {0, 0, 0}, 1, kOpacity));
    ModelItem pane = data.items.first();
    pane.material = 1;
    pane.transform.translate(0.8f, 0, 0.5f); // the wall ends under it
    data.items.append(pane);
    const Veil veil(data);
    data.materials[1].D = 1.0f;
    const Veil opaque(data);
    int covered = 0;
    int litAlike = 0;
    for (int y = 1; y < kSize.height() - 1; ++y) {
        for (int x = 1; x < kSize.width() - 1; ++x) {
            const auto &layers = veil.layers.at(x, y), &picture = veil.picture.at(x, y), &veiled = veil.veiled.at(x, y);
            if (layers[3] == 0.0f) {
                ASSERT_EQ(veiled, picture);
                continue;
            }
            ++covered;
            ASSERT_NEAR(layers[3], kOpacity, kHalfFloatStep);
            for (size_t c = 0; c < 3; ++c)
                EXPECT_NEAR(veiled[c], layers[c] + (1 - layers[3]) * picture[c], 2 * kHalfFloatStep) << x << " " << y;
            // Obscurance and shadows of the pane itself are not in it, and its material has nearly no highlight.
            const auto &whole = opaque.picture.at(x, y);
            litAlike += std::abs(layers[0] - kOpacity * whole[0]) < 0.01f
                        && std::abs(layers[1] - kOpacity * whole[1]) < 0.01f
                        && std::abs(layers[2] - kOpacity * whole[2]) < 0.01f;
        }
    }
    EXPECT_GT(litAlike, covered * 8 / 10);
    EXPECT_GT(covered, 100);
}

TEST_F(PipelinePictures, TheViewportShowsWiresOnDemand)
{
    SmallStage stage(s("viewport"));
    const QImage plain = stage.picture(1);
    ASSERT_TRUE(stage.pipeline.setValueText(s("Wires"), s("WireColor"), s("[1, 0, 0, 1]")));
    const QImage wired = stage.picture(1);
    int redder = 0;
    for (int y = 0; y < plain.height(); ++y)
        for (int x = 0; x < plain.width(); ++x)
            redder += qRed(wired.pixel(x, y)) > qRed(plain.pixel(x, y)) + 40;
    EXPECT_GT(redder, 50);
    ASSERT_TRUE(stage.pipeline.setValueText(s("Wires"), s("WireColor"), s("[0, 0, 0, 0]")));
    EXPECT_EQ(stage.picture(1), plain);
}

TEST_F(PipelinePictures, TheViewportsShadowsOnlyDarken)
{
    ModelData data = threeCubes();
    addFloor(&data);
    SmallStage stage(s("viewport"), data, QSize(160, 120));
    const QImage picture = stage.picture(1);
    ASSERT_TRUE(stage.pipeline.setValue(s("Shadows"), s("Geometry"), QVariant()));
    const MessageCapture messages; // of the missing casters
    const QImage withoutShadows = stage.picture(1);
    int darker = 0, brighter = 0;
    for (int y = 0; y < picture.height(); ++y)
        for (int x = 0; x < picture.width(); ++x) {
            darker += qGreen(picture.pixel(x, y)) < qGreen(withoutShadows.pixel(x, y)) - 20;
            brighter += qGreen(picture.pixel(x, y)) > qGreen(withoutShadows.pixel(x, y)) + 20;
        }
    EXPECT_GT(darker, 50);
    EXPECT_EQ(brighter, 0);
}

class ShadowsOnAFloor : public GLTest, public ::testing::WithParamInterface<QString>
{};

INSTANTIATE_TEST_SUITE_P(Files, ShadowsOnAFloor, ::testing::Values(s("shadows"), s("shadows-layered"), s("viewport")),
                         pipelineTestName);

// A floor alone shades none of itself, least of all at its rims, where a filter has texels on one side only.
TEST_P(ShadowsOnAFloor, AFloorAloneHasNoShadowAndNoRims)
{
    ModelData data = threeCubes();
    addFloor(&data);
    data.items.remove(0, data.items.size() - 1);
    for (const float yaw : {-30.0f, 60.0f, 150.0f, 240.0f}) {
        Stage stage(GetParam(), data, QSize(480, 270), yaw, 0.8f);
        const QImage picture = stage.picture(1);
        ASSERT_TRUE(stage.pipeline.setValue(s("Shadows"), s("Geometry"), QVariant()));
        const MessageCapture messages; // of the missing casters
        // A 16th at most, where the edge-aware filter fills what is empty from texels that it filled before.
        EXPECT_LE(worstDifference(stage.picture(1), picture), 16) << yaw;
    }
}
