// Whole pictures of a scanned model against a slow renderer on the CPU: triangles smaller than pixels, thin ears before
// a body, surfaces seen from the side. The formulas are those of the passes, in double precision.

#include "support/gltest.h"
#include "support/image.h"
#include "support/modelreference.h"
#include "support/obscurance.h"
#include "support/passes.h"
#include "support/scenes.h"
#include "support/shadowmaps.h"

#include <gl/glinfo.h>
#include <host/sceneimport.h>
#include <model/gpumodel.h>
#include <renderpasses/cameraspacezbufferrenderpass.h>
#include <renderpasses/forwardrenderpass.h>
#include <renderpasses/modelrenderpass.h>
#include <renderpasses/scalableambientobscurancerenderpass.h>
#include <renderpasses/shadowmaprenderpass.h>
#include <renderpasses/transparencyrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>
#include <renderpasses/visibilitydeferredrenderpass.h>
#include <renderpasses/visibilitysortrenderpass.h>

#include <QFileInfo>
#include <QRect>
#include <QSize>
#include <QVector3D>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 90;
constexpr QRect kViewport{0, 0, kWidth, kHeight};
const QString kBunny = u"/usr/share/glmark2/models/bunny.obj"_s;

using Color = std::array<double, 4>;

// What a right picture keeps to. Away from edges it is off by the target's rounding, half a step of 8 bits, and by what
// single precision makes of interpolated normals, less than 2e-4 under these exponents. On an edge, of which rasterisers
// move the ends onto their grid, it shows one triangle or its neighbour: nearly the same on a smooth surface, all
// or nothing at the outline, of which 1 in 500 pixels may be.
constexpr double kByte = 0.5 / 255 + 2e-4;
struct Truth
{
    double worst; ///< Of a channel, in pixels that are not near an edge of anything.
    double mean; ///< Of a channel, over the whole picture.
};

void expectTrue(const Image<float> &picture, const ModelReference &reference, const QVector<Color> &truth,
                const Truth &limit, const char *name)
{
    double worst = 0, sum = 0;
    int certain = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const Color &want = truth[qsizetype(y) * kWidth + x];
            double error = 0;
            for (size_t c = 0; c < 4; ++c)
                error = std::max(error, std::abs(double(picture.at(x, y)[c]) - want[c]));
            sum += error;
            if (reference.at(x, y).ambiguous)
                continue;
            ++certain;
            worst = std::max(worst, error);
        }
    }
    const double mean = sum / (kWidth * kHeight);
    std::printf("[ truth    ] %s: worst %.5f of %d pixels, mean %.6f\n", name, worst, certain, mean);
    EXPECT_GT(certain, kWidth * kHeight * 3 / 4);
    EXPECT_GT(reference.coveredCount(), kWidth * kHeight / 6);
    EXPECT_LE(worst, limit.worst) << name;
    EXPECT_LE(mean, limit.mean) << name;
    if (worst <= limit.worst && mean <= limit.mean && !qEnvironmentVariableIsSet("KVO_SAVE_TRUTH"))
        return;
    Image<float> wanted(kWidth, kHeight);
    for (qsizetype i = 0; i < truth.size(); ++i)
        for (size_t c = 0; c < 4; ++c)
            wanted.pixels[i][c] = float(truth[i][c]);
    saveImages(u"truth-"_s + QLatin1StringView(name), toQImage(picture), toQImage(wanted),
               toQImage(differenceImage(picture, wanted)));
}

Vector3 litColor(const ModelMaterial &m, const Vector3 &normal)
{
    return blinnPhong({double(m.Kd.x()), double(m.Kd.y()), double(m.Kd.z())},
                      {double(m.Ks.x()), double(m.Ks.y()), double(m.Ks.z())}, double(m.Ns), normal);
}

class TruthOnABunny : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        if (!QFileInfo::exists(kBunny))
            GTEST_SKIP() << "missing: the bunny of glmark2-data";
        ImportReport report;
        scene = importScene(kBunny, {}, &report);
        ASSERT_TRUE(report.ok()) << qPrintable(report.error);
        ASSERT_EQ(scene.items.size(), 1);
        // In the middle, two units large, turned so that an ear stands before the back.
        const GPUModel::BoundingBox box = boxOf(scene);
        bunny = scene.items[0];
        bunny.transform.setToIdentity();
        bunny.transform.rotate(25, 0, 1, 0);
        bunny.transform.scale(2.0f / longestSideOf(scene));
        bunny.transform.translate(-(box.minimum + box.maximum) / 2.0f);
        scene.items.clear();
        scene.materials.clear();
        projection = perspective(float(kWidth) / float(kHeight));
        camera = cameraAt(2.2f);
        camera.rotate(15, 1, 0, 0);
        glViewport(0, 0, kWidth, kHeight);
        glClearColor(0, 0, 0, 0);
        model = std::make_unique<GPUModel>();
    }

    void TearDown() override
    {
        model.reset();
        GLTest::TearDown();
    }

    /// One more bunny of a material of its own.
    void add(float x, float z, const ModelMaterial &material)
    {
        ModelItem item = bunny;
        QMatrix4x4 place;
        place.translate(x, 0, z);
        item.transform = place * bunny.transform;
        item.material = int(scene.materials.size());
        scene.materials << material;
        scene.items << item;
    }

    const ModelMaterial &materialOf(const ModelFragment &fragment) const
    {
        return scene.materials[scene.items[fragment.item].material];
    }

    void connect(RenderPass &pass, int geometry)
    {
        pass.setInput(0, kViewport);
        pass.setInput(1, projection);
        pass.setInput(2, camera);
        pass.setInput(geometry, QVariant::fromValue(model.get()));
    }

    ModelData scene;
    ModelItem bunny;
    std::unique_ptr<GPUModel> model;
    QMatrix4x4 projection;
    QMatrix4x4 camera;
};

// Colours of one pixel, from all of its fragments.
template <typename Shade>
QVector<Color> rendered(const ModelReference &reference, const Shade &shade)
{
    QVector<Color> picture;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            picture << shade(reference.layersAt(x, y));
    return picture;
}

// What the pass reads of a model, and which of its texels may be another surface's: those on an edge with a jump of depth
// beside it. On an edge within a smooth surface both triangles have nearly the same depth and normal.
ObscuranceScene obscuranceSceneOf(const ModelReference &reference, const QMatrix4x4 &projection,
                                  const QMatrix4x4 &camera)
{
    constexpr double kJump = 0.08; // two pixels on a surface that is seen from 50 degrees to the side
    ObscuranceScene scene;
    scene.width = kWidth;
    scene.height = kHeight;
    scene.near = 0.1;
    scene.far = 100;
    scene.projection = projection;
    scene.camera = camera;
    scene.depth = Image<float>(kWidth, kHeight);
    scene.normals = ObscuranceNormals::CameraSpace;
    scene.normalImage = Image<float>(kWidth, kHeight);
    const auto distance = [&](int x, int y) {
        return scene.far * scene.near / (scene.far - reference.at(x, y).depth * (scene.far - scene.near));
    };
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const ModelFragment &fragment = reference.at(x, y);
            scene.depth.at(x, y)[0] = float(fragment.depth);
            for (size_t c = 0; c < 3; ++c)
                scene.normalImage.at(x, y)[c] = float(fragment.normal[c]);
            double nearest = distance(x, y), farthest = nearest;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const double there =
                        distance(std::clamp(x + dx, 0, kWidth - 1), std::clamp(y + dy, 0, kHeight - 1));
                    nearest = std::min(nearest, there);
                    farthest = std::max(farthest, there);
                }
            scene.doubtful << (fragment.ambiguous && farthest - nearest > kJump);
        }
    return scene;
}

struct ObscuranceTruth
{
    const char *name;
    bool positions; ///< By CameraSpaceZBufferRenderPass, instead of from the depth.
};

class ObscuranceOnABunny : public TruthOnABunny, public ::testing::WithParamInterface<ObscuranceTruth>
{};

} // namespace

// Obscurance reads pixels all around, at angles that grow with the place: by single precision's account of an angle a tap
// near the border of a texel reads the one or the other, so a pixel has a range, in the mean a hundredth wide.
TEST_P(ObscuranceOnABunny, EachPixelIsHiddenByWhatItsTapsSee)
{
    add(-0.5f, -0.7f, material({1, 1, 1}));
    add(0.3f, 0, material({1, 1, 1}));
    ASSERT_TRUE(model->upload(scene));
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    ObscuranceScene seen = obscuranceSceneOf(reference, projection, camera);
    seen.radius = 0.2f;
    seen.bias = 0.01f;
    seen.intensity = 3;

    ModelRenderPass draw;
    connect(draw, 3);
    runFrame(draw);
    CameraSpaceZBufferRenderPass positions;
    ScalableAmbientObscuranceRenderPass pass;
    pass.setNormalProcessing(ScalableAmbientObscuranceRenderPass::NormalScreenSpace);
    pass.setInput(0, kViewport);
    pass.setInput(1, projection);
    pass.setInput(2, camera);
    pass.setInput(3, float(seen.near));
    pass.setInput(4, float(seen.far));
    pass.setInput(5, draw.output(3));
    pass.setInput(6, seen.radius);
    pass.setInput(7, seen.bias);
    pass.setInput(8, seen.intensity);
    pass.setInput(10, draw.output(2));
    if (GetParam().positions) {
        addPositions(seen);
        seen.linearPositions = true; // as the pool has them
        positions.setInput(0, kViewport);
        positions.setInput(1, draw.output(3));
        positions.setInput(2, projection);
        positions.setNumOutputUsers(0, 1);
        runFrame(positions);
        pass.setInput(9, positions.output(0));
    }
    runFrame(pass);
    const auto picture = readTexture<float>(outputTexture(pass, 0));

    const QVector<ObscuranceRange> ranges = obscuranceRanges(seen);
    double worst = 0, sum = 0, width = 0;
    int covered = 0, obscured = 0, elsewhere = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const ObscuranceRange &range = ranges[qsizetype(y) * kWidth + x];
            const auto &shown = picture.at(x, y);
            ASSERT_TRUE(shown[0] == shown[1] && shown[0] == shown[2] && shown[3] == 1) << x << " " << y;
            const auto value = double(shown[0]);
            double error = std::max({range.low - value, value - range.high, 0.0});
            if (range.mayBeWhite && value == 1)
                error = 0;
            sum += error;
            covered += reference.at(x, y).covered;
            obscured += range.high < 0.9;
            width += range.high - range.low;
            // A rasteriser may have put the other surface into one of the texels.
            if (range.doubtful && error > kObscuranceTolerance)
                ++elsewhere;
            else
                worst = std::max(worst, error);
        }
    const double mean = sum / (kWidth * kHeight);
    std::printf(
        "[ truth    ] obscurance, %s: worst %.5f but for %d pixels, %d on the model, %d dark; mean %.6f; ranges "
        "%.4f wide\n",
        GetParam().name, worst, elsewhere, covered, obscured, mean, width / covered);
    EXPECT_GT(covered, kWidth * kHeight / 6);
    EXPECT_GT(obscured, covered / 6);
    EXPECT_LE(width / covered, 0.02);
    EXPECT_LE(worst, kObscuranceTolerance);
    EXPECT_LE(elsewhere, kWidth * kHeight / 1000);
    EXPECT_LE(mean, 0.0002);
}

INSTANTIATE_TEST_SUITE_P(Inputs, ObscuranceOnABunny,
                         ::testing::Values(ObscuranceTruth{"FromDepth", false}, ObscuranceTruth{"FromPositions", true}),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(TruthOnABunny, ForwardLightingIsThatOfTheNearestSurface)
{
    add(0, 0, material({0.55f, 0.45f, 0.4f}, {0.3f, 0.3f, 0.3f}, 12.0f, 1.0f));
    ASSERT_TRUE(model->upload(scene));
    ForwardRenderPass pass;
    connect(pass, 3);
    runFrame(pass);
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    const QVector<Color> truth = rendered(reference, [&](const QVector<ModelFragment> &layers) -> Color {
        const auto nearest = std::min_element(layers.begin(), layers.end(),
                                              [](const auto &a, const auto &b) { return a.depth < b.depth; });
        if (nearest == layers.end())
            return {};
        const Vector3 lit = litColor(materialOf(*nearest), nearest->normal);
        return {std::min(1.0, lit[0]), std::min(1.0, lit[1]), std::min(1.0, lit[2]), 1.0};
    });
    expectTrue(readTexture<float>(outputTexture(pass, 0)), reference, truth, {kByte, 0.002}, "forward");
}

TEST_F(TruthOnABunny, WeightedTransparencyIsTheWeightedMeanOverTheOpaque)
{
    add(-0.5f, -1.2f, material({0.2f, 0.5f, 0.3f}, {0.2f, 0.2f, 0.2f}, 8.0f, 1.0f));
    add(0.3f, 0, material({0.7f, 0.3f, 0.3f}, {0.25f, 0.25f, 0.25f}, 8.0f, 0.4f));
    ASSERT_TRUE(model->upload(scene));
    TransparencyRenderPass pass;
    connect(pass, 3);
    runFrame(pass);
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    const QVector<Color> truth = rendered(reference, [&](const QVector<ModelFragment> &layers) -> Color {
        double opaqueDepth = 1;
        Color opaque{};
        for (const ModelFragment &f : layers) {
            if (materialOf(f).D < 1.0f || f.depth >= opaqueDepth)
                continue;
            const Vector3 lit = litColor(materialOf(f), f.normal);
            opaqueDepth = f.depth;
            opaque = {lit[0], lit[1], lit[2], 1};
        }
        Color sum{};
        double alphaSum = 0, through = 1;
        for (const ModelFragment &f : layers) {
            const auto alpha = double(materialOf(f).D);
            if (alpha >= 1 || f.depth >= opaqueDepth)
                continue;
            const double weight = std::pow(f.depth, -5.0);
            const Vector3 lit = litColor(materialOf(f), f.normal);
            for (size_t c = 0; c < 3; ++c)
                sum[c] += lit[c] * weight;
            alphaSum += alpha * weight;
            through *= 1 - alpha;
        }
        Color out{};
        for (size_t c = 0; c < 3; ++c)
            out[c] = (1 - through) * sum[c] / std::clamp(alphaSum, 1e-4, 5e4) + through * opaque[c];
        out[3] = (1 - through) * through + through * opaque[3];
        return out;
    });
    expectTrue(readTexture<float>(outputTexture(pass, 0)), reference, truth, {2e-4, 0.002}, "transparency");
}

TEST_F(TruthOnABunny, FragmentListsAreBlendedFrontToBack)
{
    if (!hasGLExtension("ARB_shader_atomic_counters") || !hasGLExtension("ARB_shader_image_load_store")
        || !hasGLExtension("ARB_shading_language_420pack"))
        GTEST_SKIP() << "missing: image stores, for lists of more than one fragment";
    add(-0.3f, -0.6f, material({0.2f, 0.5f, 0.3f}, {0.2f, 0.2f, 0.2f}, 8.0f, 0.7f));
    add(0.3f, 0, material({0.4f, 0.2f, 0.2f}, {0.1f, 0.1f, 0.1f}, 8.0f, 0.35f));
    ASSERT_TRUE(model->upload(scene));
    VisibilityBufferRenderPass record;
    VisibilitySortRenderPass sort;
    VisibilityDeferredRenderPass shade;
    connect(record, 3);
    connect(shade, 6);
    runFrame(record);
    sort.setInput(0, kViewport);
    for (int i = 0; i < 3; ++i)
        sort.setInput(1 + i, record.output(i));
    runFrame(sort);
    for (int i = 0; i < 3; ++i)
        shade.setInput(3 + i, sort.output(i));
    glDepthMask(GL_TRUE);
    runFrame(shade);
    const ModelReference reference(scene, projection, camera, kWidth, kHeight);
    const QVector<Color> truth = rendered(reference, [&](QVector<ModelFragment> layers) -> Color {
        if (layers.isEmpty())
            return {};
        std::sort(layers.begin(), layers.end(), [](const auto &a, const auto &b) { return a.depth < b.depth; });
        Color out{0, 0, 0, 1};
        for (const ModelFragment &f : layers) {
            const auto alpha = double(materialOf(f).D);
            const Vector3 lit = litColor(materialOf(f), f.normal);
            for (size_t c = 0; c < 3; ++c)
                out[c] = out[c] * (1 - alpha) + lit[c] * alpha;
            out[3] = std::clamp(alpha + (1 - alpha) * out[3], 0.0, 1.0);
            for (size_t c = 0; c < 3; ++c)
                out[c] = out[3] * alpha * lit[c] + out[c];
            out[3] = (1 - alpha) * out[3];
            if (alpha >= 1)
                break;
        }
        for (double &c : out)
            c = std::clamp(c, 0.0, 1.0);
        return out;
    });
    expectTrue(readTexture<float>(outputTexture(shade, 0)), reference, truth, {kByte, 0.002}, "lists");
}

TEST_F(TruthOnABunny, ShadowMapsHoldTheMomentsOfTheSurfaceNearestToTheLight)
{
    add(0, 0, material({1, 1, 1}));
    // Faces that look away from the light count too: the scan has holes.
    scene.items[0].flags = 0x1000000000000000;
    ASSERT_TRUE(model->upload(scene));
    ShadowMapRenderPass pass;
    pass.setInput(0, QVariant::fromValue(model.get()));
    pass.setInput(2, lightList({ShadowMapLight::directional({0.3f, -1, -0.4f}),
                                ShadowMapLight::spot({1, 3, 2}, {-1, -3, -2}, 50, 8)}));
    pass.setInput(5, QVector3D(-1.2f, -1.2f, -1.2f));
    pass.setInput(6, QVector3D(1.2f, 1.2f, 1.2f));
    pass.setInput(7, 0);
    pass.setInput(8, QSize(kWidth, kHeight));
    runFrame(pass);
    const ShadowRecord &record = *recordOf(pass);
    ASSERT_EQ(record.layerCount, 2);
    for (int layer = 0; layer < 2; ++layer) {
        const MapComparison c = compareWithModel(readLayer(record, layer), scene, record.transforms[layer]);
        std::printf("[ truth    ] shadow map %d: worst %.7f of %d texels, %d empty, %d near an edge, %d wrong\n", layer,
                    c.worst, c.covered, c.empty, c.ambiguous, c.wrong);
        EXPECT_GT(c.covered, 500);
        EXPECT_LT(c.ambiguous, kWidth * kHeight / 4);
        EXPECT_EQ(c.wrong, 0);
        // Single precision of a depth that a projection from the light gives.
        EXPECT_LT(c.worst, 1e-5);
    }
}
