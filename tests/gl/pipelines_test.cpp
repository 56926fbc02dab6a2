#include "support/gltest.h"
#include "support/messages.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/camera.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/sceneimport.h>
#include <host/screentarget.h>
#include <model/gpumodel.h>

#include <QFileInfo>
#include <QMatrix4x4>
#include <QRect>
#include <QSet>

#include <cmath>
#include <cstdlib>
#include <memory>

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

// Cubes of three colours behind one another.
ModelData cubesScene()
{
    ModelData data = cubeScene({0.9f, 0.8f, 0.7f});
    data.materials.append(material({0.9f, 0.3f, 0.1f}, {1, 1, 1}, 20));
    data.materials.append(material({0.2f, 0.5f, 0.9f}));
    for (int i = 0; i < 2; ++i) {
        ModelItem item = data.items.first();
        item.material = i + 1;
        item.transform.translate(i == 0 ? -2.5f : 2.5f, 0, i == 0 ? 2.0f : -4.0f);
        item.transform.rotate(30, 1, 1, 0);
        data.items.append(item);
    }
    return data;
}

// A pipeline with all that a host gives it.
class Stage
{
public:
    explicit Stage(const QString &name, const ModelData &data = cubesScene(), const QSize &size = kSize)
    {
        QStringList errors;
        EXPECT_TRUE(loadPipeline(s(KVO_SOURCE_DIR "/pipelines/") + name + s(".json"), &pipeline, &errors))
            << qPrintable(errors.join(QLatin1Char('\n')));
        EXPECT_TRUE(screen.resize(size));
        EXPECT_TRUE(model.upload(data));
        const float aspect = float(size.width()) / float(size.height());
        Camera camera;
        camera.fit(model.sceneBounds(), -30, 20, aspect);
        pipeline.setViewport(QRect(QPoint(0, 0), size));
        pipeline.setCamera(camera.cameraMatrix(), camera.projectionMatrix(aspect), camera.nearPlane, camera.farPlane);
        pipeline.setModel(&model);
        pipeline.setScreen(screen.framebuffer());
    }
    void render()
    {
        QString error;
        screen.clear();
        EXPECT_TRUE(pipeline.render(nullptr, &error)) << qPrintable(error);
    }
    QImage picture(int frames)
    {
        for (int i = 0; i < frames; ++i)
            render();
        return screen.image();
    }

    // In this order, so that what refers to the others goes first.
    ScreenTarget screen;
    GPUModel model;
    Pipeline pipeline;
};

class PipelineOfTheTree : public GLTest, public ::testing::WithParamInterface<QString>
{};

class PipelinePictures : public GLTest
{};

QStringList pipelineNames()
{
    QStringList names;
    for (const PipelineFileInfo &info : listPipelines({s(KVO_SOURCE_DIR "/pipelines")}))
        names << info.name;
    return names;
}

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
    Stage stage(GetParam());
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
    Stage stage(GetParam());
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
    Stage stage(GetParam());
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
    Stage stage(GetParam());
    stage.render();
    ASSERT_TRUE(stage.screen.resize(QSize(40, 56)));
    stage.pipeline.setViewport(QRect(0, 0, 40, 56));
    const QImage resized = stage.picture(2);
    EXPECT_EQ(resized.size(), QSize(40, 56));
    EXPECT_EQ(stage.pipeline.faults(), QStringList());
    EXPECT_GE(colorsOf(resized), kFewestColors);
}

INSTANTIATE_TEST_SUITE_P(Files, PipelineOfTheTree, ::testing::ValuesIn(pipelineNames()), [](const auto &file) {
    return file.param.split(QLatin1Char('-')).join(QLatin1Char('_')).toStdString();
});

TEST_F(PipelinePictures, TheAntialiasingSheetShowsFourWaysOfOneFrame)
{
    Stage stage(s("antialiasing"));
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

TEST_F(PipelinePictures, TheSheetOfBlendModesShowsTheTwoImagesAndAllModes)
{
    Stage stage(s("blend-modes"), cubesScene(), QSize(280, 200));
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
        Stage stage(s("taa"), engine, size * kFactor);
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
    Stage stage(s("taa"), engine, size);
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
