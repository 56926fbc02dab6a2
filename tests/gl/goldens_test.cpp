#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/scenes.h"
#include "support/stage.h"

#include <host/imageoutput.h>
#include <host/pipeline.h>
#include <host/sceneimport.h>

#include <QColor>
#include <QDir>
#include <QFileInfo>
#include <QImage>

#include <epoxy/gl.h>

#include <algorithm>
#include <cstdlib>

// A picture of every pipeline file, held to the one in goldens/. scripts/goldens makes them anew.
//
// All driver set-ups share a golden where they draw the same. Where one legitimately draws something else
// (exact transparency without image stores keeps one layer), it has a golden of its own with its name in the
// file's: "oit.fallback.png".

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

const QSize kSize(96, 54);
constexpr int kFrames = 3; // Longest history (two frames) and one more.
constexpr float kZoomOnFloor = 2; // It may reach beyond the picture.
constexpr unsigned kSeed = 1; // Jitter draws lots.
constexpr float kOpacity = 0.4f;

// In steps of 8 bits. Another code generator moves a rounding here and there (by 1 at most, measured with
// vectors half as wide), and a driver without a query for the level of detail takes another level of the
// checks in single pixels (38, in 0.4 % of them). A pass that does something else moves more pixels than
// these, or moves them farther.
constexpr ImageLimits kLimits{48, 3, 0.005};

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

bool has(const Pipeline &pipeline, std::initializer_list<const char *> classNames)
{
    const QStringList names = pipeline.passNames();
    return std::any_of(names.begin(), names.end(), [&](const QString &name) {
        return std::any_of(classNames.begin(), classNames.end(),
                           [&](const char *className) { return pipeline.className(name) == s(className); });
    });
}

struct Scene
{
    ModelData data;
    float zoom = 1;
};

// Cubes, one of them with a picture on it, as the pipeline needs them to show what it is about.
Scene sceneFor(const QString &name)
{
    const MessageCapture messages; // shadow passes tell their path, and do so again when they draw
    Pipeline pipeline;
    EXPECT_TRUE(loadPipeline(s(KVO_SOURCE_DIR "/pipelines/") + name + s(".json"), &pipeline, nullptr));
    const bool drawsOpaqueFirst = pipeline.uses(s("opaque"));
    Scene scene{threeCubes(drawsOpaqueFirst ? kOpacity : 1.0f)};
    QImage checks(8, 8, QImage::Format_RGBA8888);
    for (int y = 0; y < checks.height(); ++y)
        for (int x = 0; x < checks.width(); ++x)
            checks.setPixelColor(x, y, (x / 2 + y / 2) % 2 == 0 ? Qt::white : QColor(110, 140, 90));
    scene.data.materials[0].map_Kd = checks;
    if (!drawsOpaqueFirst && has(pipeline, {"VisibilityBufferRenderPass", "TransparencyRenderPass"}))
        setOpacity(&scene.data, QString(), kOpacity);
    const bool hasGround = has(pipeline, {"StagePass"});
    if (!hasGround
        && has(pipeline, {"ShadowMapRenderPass", "ShadowMapRenderPass2", "ScalableAmbientObscuranceRenderPass"})) {
        addFloor(&scene.data);
        scene.zoom = kZoomOnFloor;
    }
    return scene;
}

Image<quint8> toImage(const QImage &picture)
{
    Image<quint8> image(picture.width(), picture.height());
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            const QColor color = picture.pixelColor(x, image.height - 1 - y);
            image.at(x, y) = {quint8(color.red()), quint8(color.green()), quint8(color.blue()), quint8(color.alpha())};
        }
    return image;
}

// What of the drivers' gifts is missing: the most specific name first, "" last.
QStringList setups()
{
    if (epoxy_gl_version() < 40)
        return {s(".baseline"), s(".fallback"), QString()};
    if (!hasGLExtension("GL_ARB_shader_image_load_store"))
        return {s(".fallback"), QString()};
    return {QString()};
}

QString pathOf(const QString &name)
{
    return s(KVO_SOURCE_DIR "/tests/goldens/") + name + s(".png");
}

// The file for this set-up; empty: there is none.
QString goldenOf(const QString &pipeline, const QStringList &among)
{
    for (const QString &setup : among)
        if (QFileInfo::exists(pathOf(pipeline + setup)))
            return pathOf(pipeline + setup);
    return QString();
}

class Golden : public GLTest, public ::testing::WithParamInterface<QString>
{
protected:
    static QImage picture(const QString &name, float yaw = Stage::kYaw)
    {
        const Scene scene = sceneFor(name);
        std::srand(kSeed);
        Stage stage(name, scene.data, kSize, yaw, scene.zoom);
        return stage.picture(kFrames);
    }
};

class GoldenWithACamera : public Golden
{};

QStringList pipelinesWithACamera()
{
    QStringList names = pipelineNames();
    names.removeAll(s("gradient"));
    return names;
}

} // namespace

TEST_P(Golden, ThePictureIsWhatItWas)
{
    const QImage actual = picture(GetParam());
    ASSERT_EQ(actual.size(), kSize);
    if (qEnvironmentVariableIsSet("KVO_WRITE_GOLDENS")) {
        // A set-up of its own kind starts from what it would share.
        const QStringList all = setups();
        const QString own = pathOf(GetParam() + all.first());
        const QString shared = goldenOf(GetParam(), all.mid(1));
        const auto matches = [&](const QString &file) {
            return !file.isEmpty() && QFileInfo::exists(file)
                   && isSameImage(toImage(actual), toImage(QImage(file)), kLimits);
        };
        if (matches(shared)) {
            QFile::remove(own);
        } else if (!matches(own)) {
            ASSERT_TRUE(QDir().mkpath(QFileInfo(own).path()));
            QString error;
            ASSERT_TRUE(writeImage(actual, own, &error)) << qPrintable(error);
            std::printf("wrote %s\n", qPrintable(own));
        }
    }
    const QString file = goldenOf(GetParam(), setups());
    ASSERT_FALSE(file.isEmpty()) << "there is no golden: run scripts/goldens, and look at the picture";
    const Image<quint8> image = toImage(actual), golden = toImage(QImage(file));
    EXPECT_TRUE(sameImage(image, golden, kLimits, GetParam())) << qPrintable(file) << ", see scripts/goldens";

    // Either limit alone tells: one pixel that is far off, and many that are a little off.
    EXPECT_FALSE(isSameImage(disturbed(image, quint8(2 * kLimits.worst + 1), 1), golden, kLimits));
    EXPECT_FALSE(isSameImage(disturbed(image, quint8(2 * kLimits.tolerance + 1), 12), golden, kLimits));
}

TEST_P(GoldenWithACamera, AStepAsideIsSeen)
{
    const QString file = goldenOf(GetParam(), setups());
    ASSERT_FALSE(file.isEmpty());
    EXPECT_FALSE(isSameImage(toImage(picture(GetParam(), Stage::kYaw + 3)), toImage(QImage(file)), kLimits));
}

INSTANTIATE_TEST_SUITE_P(Files, Golden, ::testing::ValuesIn(pipelineNames()), pipelineTestName);
INSTANTIATE_TEST_SUITE_P(Files, GoldenWithACamera, ::testing::ValuesIn(pipelinesWithACamera()), pipelineTestName);

TEST_F(GLTest, AnotherColorOfTheGradientIsSeen)
{
    Stage stage(s("gradient"), threeCubes(), kSize);
    ASSERT_TRUE(stage.pipeline.setValueText(s("Gradient"), s("ColorTop"), s("#505050")));
    EXPECT_FALSE(isSameImage(toImage(stage.picture(1)), toImage(QImage(pathOf(s("gradient")))), kLimits));
}

TEST_F(GLTest, EveryGoldenBelongsToAPipeline)
{
    const QStringList names = pipelineNames();
    const QStringList files = QDir(s(KVO_SOURCE_DIR "/tests/goldens")).entryList(QDir::Files);
    EXPECT_GE(files.size(), names.size());
    for (const QString &file : files)
        EXPECT_TRUE(names.contains(file.section(QLatin1Char('.'), 0, 0))) << qPrintable(file);
}
