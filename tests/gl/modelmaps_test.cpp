// Maps that come to a scene after a pass has built its program, in every pass that samples maps. A program
// is built for the pages of managed textures that are in use then, so each row has a share group of its own.

#include "support/gltest.h"
#include "support/image.h"
#include "support/modelreference.h"
#include "support/passes.h"
#include "support/scenes.h"

#include <gl/opengldevicecontext.h>
#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <host/surfacepass.h>
#include <model/gpumodel.h>
#include <model/instancedatacollection.h>
#include <renderpasses/forwardrenderpass.h>
#include <renderpasses/modelrenderpass.h>
#include <renderpasses/transparencyrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>

#include <QColor>
#include <QDirIterator>
#include <QFile>
#include <QImage>
#include <QRect>

#include <epoxy/gl.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>

namespace Brevane::Kvo {

using namespace Test;

namespace {

constexpr int kSide = 16;
constexpr QVector3D kKd{0.5f, 0.25f, 1.0f};

/// What draws a model and samples its maps, with whatever must run before it.
class Subject
{
public:
    virtual ~Subject() = default;
    virtual Image<float> run(GPUModel &model) = 0;
    /// The pixel of a surface of that diffuse colour whose normal is +z.
    virtual std::array<double, 4> expected(const Vector3 &Kd) const = 0;
    /// Half a step of the target, and the rounding of single precision.
    virtual double tolerance() const { return 1e-5; }

protected:
    static void setUp(RenderPass &pass)
    {
        pass.setInput(0, QRect(0, 0, kSide, kSide));
        pass.setInput(1, flatProjection());
        pass.setInput(2, QMatrix4x4());
    }
    static Vector3 lit(const Vector3 &Kd) { return blinnPhong(Kd, {0, 0, 0}, 1, {0, 0, 1}); }
};

template <typename Pass>
class OnePass : public Subject
{
public:
    OnePass() { setUp(_pass); }
    Image<float> run(GPUModel &model) override
    {
        _pass.setInput(3, QVariant::fromValue(&model));
        runFrame(_pass);
        return readTexture<float>(outputTexture(_pass, 0));
    }

private:
    Pass _pass;
};

class ModelSubject : public OnePass<ModelRenderPass>
{
    std::array<double, 4> expected(const Vector3 &Kd) const override { return {Kd[0], Kd[1], Kd[2], 1}; }
};

class ForwardSubject : public OnePass<ForwardRenderPass>
{
    std::array<double, 4> expected(const Vector3 &Kd) const override
    {
        const Vector3 color = lit(Kd);
        return {color[0], color[1], color[2], 1};
    }
    double tolerance() const override { return 0.5 / 255 + 1e-5; }
};

/// Colours and maps of colours are decoded, each for itself.
class SurfaceSubject : public OnePass<SurfacePass>
{
    std::array<double, 4> expected(const Vector3 &Kd) const override
    {
        const auto decoded = [](double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
        std::array<double, 4> color{0, 0, 0, 1};
        for (std::size_t i = 0; i < 3; ++i) {
            const auto factor = double(kKd[int(i)]);
            color[i] = decoded(factor) * decoded(Kd[i] / factor);
        }
        return color;
    }
    /// Rasterisers on the CPU decode by a polynomial.
    double tolerance() const override { return 0.002; }
};

class TransparencySubject : public OnePass<TransparencyRenderPass>
{
    std::array<double, 4> expected(const Vector3 &Kd) const override
    {
        const Vector3 color = lit(Kd);
        return {color[0], color[1], color[2], 1};
    }
};

/// The shading at the end of the chain counts the first fragment twice and gives what light is left.
class VisibilitySubject : public Subject
{
public:
    VisibilitySubject()
    {
        setUp(_record);
        setUp(_shade);
        _sort.setInput(0, QRect(0, 0, kSide, kSide));
    }
    Image<float> run(GPUModel &model) override
    {
        _record.setInput(3, QVariant::fromValue(&model));
        _shade.setInput(6, QVariant::fromValue(&model));
        runFrame(_record);
        for (int i = 0; i < 3; ++i)
            _sort.setInput(1 + i, _record.output(i));
        runFrame(_sort);
        for (int i = 0; i < 3; ++i)
            _shade.setInput(3 + i, _sort.output(i));
        glDepthMask(GL_TRUE);
        runFrame(_shade);
        return readTexture<float>(outputTexture(_shade, 0));
    }
    std::array<double, 4> expected(const Vector3 &Kd) const override
    {
        // The shader's normal gets a w of 1, which reaches no other component of a camera that does not move.
        const Vector3 color = lit(Kd);
        return {std::min(1.0, 2 * color[0]), std::min(1.0, 2 * color[1]), std::min(1.0, 2 * color[2]), 0};
    }
    double tolerance() const override { return 0.5 / 255 + 1e-5; }

private:
    VisibilityBufferRenderPass _record;
    VisibilitySortRenderPass _sort;
    VisibilityDeferredRenderPass _shade;
};

struct SubjectRow
{
    const char *source; ///< The file of the pass, by which it is found to have a row here.
    std::function<std::unique_ptr<Subject>()> make;
};

const std::vector<SubjectRow> &subjects()
{
    static const std::vector<SubjectRow> rows{
        {"modelrenderpass.cpp", [] { return std::make_unique<ModelSubject>(); }},
        {"surfaceprogram.cpp", [] { return std::make_unique<SurfaceSubject>(); }},
        {"forwardrenderpass.cpp", [] { return std::make_unique<ForwardSubject>(); }},
        {"transparencyrenderpass.cpp", [] { return std::make_unique<TransparencySubject>(); }},
        {"visibilitydeferredrenderpass.cpp", [] { return std::make_unique<VisibilitySubject>(); }}};
    return rows;
}

/// How a map comes to the scene.
enum class Way { AnotherModel, UploadedAgain, MaterialData };
constexpr const char *kWayNames[] = {"AnotherModel", "UploadedAgain", "MaterialData"};

/// A map of one colour: a page holds 1038 texels in a row, a longer map is cut.
QImage mapOf(int length, int height, const QColor &color)
{
    QImage image(length, height, QImage::Format_RGBA8888);
    image.fill(color);
    return image;
}

struct Step
{
    int mapLength; ///< 0: no map.
    QColor color;
    int mapHeight = 4;
};

// White twice: what was white by chance is not.
const Step kSteps[] = {
    {0, Qt::white}, {4, QColor(51, 102, 153)}, {0, Qt::white}, {2400, QColor(204, 51, 102)}, {8, QColor(153, 255, 51)}};

ModelData sceneOf(const Step &step)
{
    ModelData scene = quadScene(kKd);
    if (step.mapLength > 0)
        scene.materials[0].map_Kd = mapOf(step.mapLength, step.mapHeight, step.color);
    return scene;
}

Vector3 diffuseOf(const Step &step)
{
    return {kKd.x() * step.color.red() / 255.0, kKd.y() * step.color.green() / 255.0,
            kKd.z() * step.color.blue() / 255.0};
}

/// Gives the model that is current in the pass, or another one, the map of a step.
class Scene
{
public:
    explicit Scene(Way way) : _way(way) {}
    ~Scene()
    {
        for (const int handle : std::as_const(_handles))
            TextureManager::Instance().removeManagedTexture(handle);
    }
    GPUModel &of(const Step &step)
    {
        if (_models.empty() || _way == Way::AnotherModel)
            _models.push_back(std::make_unique<GPUModel>());
        GPUModel &model = *_models.back();
        if (_way != Way::MaterialData || model.itemCount() == 0) {
            EXPECT_TRUE(model.upload(sceneOf(step)));
            return model;
        }
        int handle = 0;
        if (step.mapLength > 0)
            _handles << (handle = TextureManager::Instance().addManagedTexture(
                             mapOf(step.mapLength, step.mapHeight, step.color)));
        QVector<float> data = model.materialData(0)->data();
        data[8] = float(handle); // the first of the two maps of a material
        EXPECT_TRUE(model.materialData(0)->setData(data));
        return model;
    }

private:
    Way _way;
    std::vector<std::unique_ptr<GPUModel>> _models; // all stay: a pass may go on reading the first one's buffers
    QVector<int> _handles;
};

} // namespace

class ModelMapsTest : public GLTest, public ::testing::WithParamInterface<std::tuple<std::size_t, Way>>
{
public:
    static std::string nameOf(const ::testing::TestParamInfo<ParamType> &row)
    {
        const std::string source = subjects()[std::get<0>(row.param)].source;
        return source.substr(0, source.find('.')) + "_" + kWayNames[int(std::get<1>(row.param))];
    }
};

TEST_P(ModelMapsTest, AreSampledWheneverTheyComeAndHoweverLargeTheyAre)
{
    const auto &[row, way] = GetParam();
    GLContext alone;
    ASSERT_TRUE(alone.makeCurrent());
    resetGLState();
    {
        Scene scene(way);
        const std::unique_ptr<Subject> subject = subjects()[row].make();
        glViewport(0, 0, kSide, kSide);
        int classes = 0;
        for (const Step &step : kSteps) {
            GPUModel &model = scene.of(step);
            const std::array<double, 4> expected = subject->expected(diffuseOf(step));
            const Image<float> picture = subject->run(model);
            for (const auto &[x, y] : {std::pair(1, 1), std::pair(kSide / 2, kSide / 2), std::pair(kSide - 2, 3)})
                EXPECT_TRUE(isPixel(picture, x, y, expected, subject->tolerance())) << "map of " << step.mapLength;
            classes = TextureManager::Instance().managedPageClasses();
            EXPECT_EQ(classes > 0, &step != kSteps) << "the first frame is one without maps";
        }
        EXPECT_EQ(classes, 2) << "one of the maps is cut";
    }
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

TEST_P(ModelMapsTest, AreSampledInWhicheverArrayOfPagesTheyLie)
{
    const auto &[row, way] = GetParam();
    GLContext alone;
    ASSERT_TRUE(alone.makeCurrent());
    resetGLState();
    {
        // An array of one page is full at once.
        const GlCalls::ForcedInteger layers(GL_MAX_ARRAY_TEXTURE_LAYERS, 1);
        const Step steps[] = {
            {1000, QColor(204, 51, 102), 1000}, {1001, QColor(153, 255, 51), 1000}, {1000, QColor(255, 0, 204), 600}};
        Scene scene(way == Way::UploadedAgain ? Way::MaterialData : way);
        const std::unique_ptr<Subject> subject = subjects()[row].make();
        glViewport(0, 0, kSide, kSide);
        QVector<int> classes;
        for (const Step &step : steps) {
            GPUModel &model = scene.of(step);
            const Image<float> picture = subject->run(model);
            EXPECT_TRUE(
                isPixel(picture, kSide / 2, kSide / 2, subject->expected(diffuseOf(step)), subject->tolerance()))
                << "map of " << step.mapLength;
            classes << TextureManager::Instance().managedPageClasses();
        }
        EXPECT_EQ(classes, (QVector<int>{3, 4, 5})) << "beside the largest levels one page holds the others";
    }
    OpenGLDeviceContext::releaseCurrent();
    ASSERT_TRUE(context().makeCurrent());
}

namespace {

std::vector<std::tuple<std::size_t, Way>> rows()
{
    std::vector<std::tuple<std::size_t, Way>> all;
    for (std::size_t row = 0; row < subjects().size(); ++row) {
        for (const Way way : {Way::AnotherModel, Way::UploadedAgain, Way::MaterialData}) {
            // The shading of fragment lists stays with the buffers that it saw first.
            const QLatin1StringView source(subjects()[row].source);
            const bool followsBuffers = source != QLatin1StringView("visibilitydeferredrenderpass.cpp");
            // It has data of its own.
            const bool readsMaterialData = source != QLatin1StringView("surfaceprogram.cpp");
            if ((way != Way::UploadedAgain || followsBuffers) && (way == Way::AnotherModel || readsMaterialData))
                all.emplace_back(row, way);
        }
    }
    return all;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Passes, ModelMapsTest, ::testing::ValuesIn(rows()), ModelMapsTest::nameOf);

TEST(ModelMapsRows, NameEveryPassThatSamplesMaps)
{
    QStringList named;
    for (const SubjectRow &row : subjects())
        named << QLatin1String(row.source);
    named.sort();
    QStringList sampling;
    for (const char *folder : {"/src/renderpasses", "/src/passkit", "/host"}) {
        const QString path = QStringLiteral(KVO_SOURCE_DIR) + QLatin1String(folder);
        for (QDirIterator files(path, {QStringLiteral("*.cpp")}, QDir::Files, QDirIterator::Subdirectories);
             files.hasNext();) {
            QFile file(files.next());
            ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(file.fileName());
            if (file.readAll().contains("managedTexture("))
                sampling << files.fileName();
        }
    }
    sampling.sort();
    EXPECT_EQ(sampling, named);
}

} // namespace Brevane::Kvo
