#include "support/gltest.h"
#include "support/image.h"
#include "support/messages.h"
#include "support/scenes.h"
#include "support/stage.h"

#include <gl/texture.h>
#include <host/environmentpass.h>
#include <host/imageinput.h>
#include <host/imageoutput.h>
#include <host/pipeline.h>
#include <host/pipelinefile.h>
#include <host/screentarget.h>
#include <model/gpumodel.h>
#include <renderpasses/shaderrenderpass.h>

#include <QMatrix4x4>
#include <QRect>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

// The light of pipelines/studio.json on surfaces that a test draws, against integrals in double precision over all
// directions of the environment.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;
using namespace Qt::StringLiterals;

namespace {

constexpr double kPi = std::numbers::pi;
constexpr int kCell = 40; // pixels of a sphere with what is around it
constexpr int kColumns = 5; // roughness 0.2 to 1
constexpr int kRows = 3; // metalness 0, 0.5, 1

// What the model passes would have drawn, and nothing in the way of the light.
const QString kSpheres = uR"(#version 150
uniform vec3 Kvo_QVector3D_Color;
out vec4 o_BaseColor; out vec4 o_Surface; out vec4 o_Emission; out vec4 o_Normal; out vec4 o_Depth;
out vec4 o_Obscurance; out vec4 o_Position;
void main()
{
  vec2 cell = floor(gl_FragCoord.xy / 40.0);
  vec2 p = (gl_FragCoord.xy - 40.0 * cell - 20.0) / 18.0;
  float z = sqrt(max(0.0, 1.0 - dot(p, p)));
  o_BaseColor = vec4(Kvo_QVector3D_Color, 1.0);
  o_Surface = vec4(0.2 * (cell.x + 1.0), 0.5 * cell.y, 1.0, 1.0);
  o_Emission = vec4(0.0);
  o_Normal = vec4(p, z, 0.0);
  o_Depth = vec4(dot(p, p) < 1.0 ? 0.5 : 1.0);
  o_Obscurance = vec4(1.0, 5.0, 0.0, 1.0);
  o_Position = vec4(0.0, 0.0, -5.0, 1.0);
}
)"_s;

// All greys from left to right, as surfaces that shine by themselves.
const QString kRamp = uR"(#version 150
out vec4 o_BaseColor; out vec4 o_Surface; out vec4 o_Emission; out vec4 o_Normal; out vec4 o_Depth;
out vec4 o_Obscurance; out vec4 o_Position;
void main()
{
  float code = floor(gl_FragCoord.x) / 255.0;
  o_BaseColor = vec4(vec3(code <= 0.04045 ? code / 12.92 : pow((code + 0.055) / 1.055, 2.4)), 1.0);
  o_Surface = vec4(0.5, 0.0, 1.0, 0.0);
  o_Emission = vec4(0.0);
  o_Normal = vec4(0.0, 0.0, 1.0, 0.0);
  o_Depth = vec4(0.5);
  o_Obscurance = vec4(1.0, 5.0, 0.0, 1.0);
  o_Position = vec4(0.0, 0.0, -5.0, 1.0);
}
)"_s;

const QStringList kSurfaceOutputs{u"BaseColor"_s, u"Surface"_s,    u"Emission"_s, u"Normal"_s,
                                  u"Depth"_s,     u"Obscurance"_s, u"Position"_s};

class Studio : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        owned = std::make_unique<Pipeline>();
    }
    void TearDown() override
    {
        owned.reset();
        GLTest::TearDown();
    }
    // The passes of the file that are named, with surfaces of a shader's.
    void make(const QStringList &kept, const QString &surfaces, const QSize &size)
    {
        Pipeline &pipeline = *owned;
        QString error;
        const MessageCapture messages; // shadow passes tell their path
        ASSERT_TRUE(loadPipeline(u"" KVO_SOURCE_DIR "/pipelines/studio.json"_s, &pipeline, nullptr));
        for (const QString &name : pipeline.passNames())
            if (!kept.contains(name)) {
                ASSERT_TRUE(pipeline.remove(name, &error)) << error.toStdString();
            }
        auto source = std::make_unique<ShaderRenderPass>();
        source->addInput(u"Kvo_QVector3D_Color"_s);
        for (const QString &output : kSurfaceOutputs)
            source->addOutput(u"Kvo_KvoTexture*_"_s + output);
        source->setFragmentShaderSource(surfaces);
        ASSERT_TRUE(pipeline.add(u"Drawn"_s, std::move(source), &error)) << error.toStdString();
        for (const QString &output : kSurfaceOutputs)
            ASSERT_TRUE(pipeline.connect(u"Drawn."_s + output, u"Light."_s + output, &error)) << error.toStdString();
        ASSERT_TRUE(pipeline.bind(u"Drawn"_s, u"Viewport"_s, u"viewport"_s, &error)) << error.toStdString();
        set("Light.Catcher", 0.0f);
        QMatrix4x4 projection;
        projection.ortho(-1, 1, -1, 1, 1, 9);
        QMatrix4x4 camera;
        camera.translate(0, 0, -5);
        pipeline.setCamera(camera, projection, 1, 9);
        pipeline.setViewport(QRect(QPoint(), size));
    }
    void set(const char *slot, const QVariant &value)
    {
        const QStringList parts = QString::fromLatin1(slot).split(u'.');
        QString error;
        ASSERT_TRUE(owned->setValue(parts[0], parts[1], value, &error)) << error.toStdString();
    }
    Image<float> lit()
    {
        Image<float> image;
        owned->setPassObserver([&](const QString &name, RenderPass *) {
            if (name == "Light"_L1)
                image = readTexture<float>(textureFromVariant(owned->output(u"Light"_s, u"Frame"_s)));
        });
        QString error;
        EXPECT_TRUE(owned->render(nullptr, &error)) << error.toStdString();
        return image;
    }

    std::unique_ptr<Pipeline> owned;
};

constexpr QSize kSpheresSize(kColumns *kCell, kRows *kCell);

struct Vector
{
    double x;
    double y;
    double z;
};

double dot(const Vector &a, const Vector &b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

// A part of the environment.
struct Ray
{
    Vector from;
    double angle; // steradians
    std::array<double, 3> radiance;
};

std::vector<Ray> raysOf(const Environment &environment)
{
    std::vector<Ray> rays;
    for (int y = 0; y < environment.height; ++y)
        for (int x = 0; x < environment.width; ++x) {
            const double longitude = ((x + 0.5) / environment.width - 0.5) * 2 * kPi;
            const double latitude = ((y + 0.5) / environment.height - 0.5) * kPi;
            const qfloat16 *texel = environment.radiance.constData() + 4 * (y * environment.width + x);
            rays.push_back({{std::sin(longitude) * std::cos(latitude), std::sin(latitude),
                             -std::cos(longitude) * std::cos(latitude)},
                            std::cos(latitude) * kPi / environment.height * 2 * kPi / environment.width,
                            {double(float(texel[0])), double(float(texel[1])), double(float(texel[2]))}});
        }
    return rays;
}

// A surface that is seen along +z: GGX with masking and shadowing, Schlick's term, what bounces between the facets
// spread evenly, and matt below; a metal and another material, mixed.
std::array<double, 3> shaded(const std::vector<Ray> &rays, const Vector &normal, double roughness, double metalness,
                             const std::array<double, 3> &base)
{
    const double facing = normal.z;
    const double alpha2 = std::pow(roughness, 4);
    std::array<double, 3> single[2]{}; // without and with Schlick's power
    std::array<double, 3> irradiance{};
    double sums[2] = {}; // the same for even light
    const auto mask = [&](double c) { return std::sqrt(alpha2 + (1 - alpha2) * c * c); };
    for (const Ray &ray : rays) {
        const double light = dot(normal, ray.from);
        if (light <= 0)
            continue;
        const Vector sum{ray.from.x, ray.from.y, ray.from.z + 1};
        const double length = std::sqrt(dot(sum, sum));
        const double toHalf = sum.z / length;
        const double spread = std::pow(dot(normal, sum) / length, 2) * (alpha2 - 1) + 1;
        const double value =
            alpha2 / (kPi * spread * spread) * light / (2 * (light * mask(facing) + facing * mask(light))) * ray.angle;
        const double power = std::pow(1 - toHalf, 5);
        sums[0] += value * (1 - power);
        sums[1] += value * power;
        for (size_t c = 0; c < 3; ++c) {
            single[0][c] += value * (1 - power) * ray.radiance[c];
            single[1][c] += value * power * ray.radiance[c];
            irradiance[c] += light * ray.angle / kPi * ray.radiance[c];
        }
    }
    std::array<double, 3> result;
    const double missing = 1 - sums[0] - sums[1];
    for (size_t c = 0; c < 3; ++c) {
        const auto light = [&](double f0, double diffuse) {
            const double once = f0 * sums[0] + sums[1];
            const double mean = f0 + (1 - f0) / 21;
            const double often = once * mean * missing / (1 - mean * missing);
            return f0 * single[0][c] + single[1][c] + (often + diffuse * (1 - once - often)) * irradiance[c];
        };
        result[c] = (1 - metalness) * light(0.04, base[c]) + metalness * light(base[c], 0);
    }
    return result;
}

struct Pixel
{
    int x;
    int y;
    Vector normal;
};

// Places on a sphere, up to a normal that is almost square to the view.
std::vector<Pixel> pixelsOf(int column, int row, int step)
{
    std::vector<Pixel> pixels;
    for (int y = 0; y < kCell; y += step)
        for (int x = 0; x < kCell; x += step) {
            const double px = (x + 0.5 - 20) / 18;
            const double py = (y + 0.5 - 20) / 18;
            if (px * px + py * py < 0.98)
                pixels.push_back({column * kCell + x, row * kCell + y, {px, py, std::sqrt(1 - px * px - py * py)}});
        }
    return pixels;
}

} // namespace

// A white surface in even light sends back what comes: nothing is lost, and nothing gained.
TEST_F(Studio, WhiteSpheresVanishInAFurnace)
{
    EnvironmentPass::setImageReader([](const QString &, QString *) {
        QImage even(64, 32, QImage::Format_RGBX32FPx4);
        even.fill(Qt::white);
        return even;
    });
    make({u"Environment"_s, u"Stage"_s, u"Light"_s}, kSpheres, kSpheresSize);
    set("Environment.Source", u"furnace"_s);
    set("Drawn.Color", QVector3D(1, 1, 1));
    const Image<float> image = lit();
    EnvironmentPass::setImageReader(nullptr);
    ASSERT_EQ(image.width, kSpheresSize.width());
    for (int row = 0; row < kRows; ++row)
        for (int column = 0; column < kColumns; ++column)
            for (const Pixel &pixel : pixelsOf(column, row, 1))
                for (size_t c = 0; c < 3; ++c)
                    ASSERT_NEAR(image.at(pixel.x, pixel.y)[c], 1.0f, 0.01f) << pixel.x << " " << pixel.y;
}

// The map of reflections knows neither the side from which a lobe is seen nor its stretch near the horizon. That is
// the price of one tap: highest for small lamps with hard edges in the dark, in metals.
struct EnvironmentLimits
{
    const char *name;
    double mean;
    double worstSphere;
};
constexpr EnvironmentLimits kEnvironmentLimits[] = {
    {"studio", 0.026, 0.05}, {"overcast", 0.01, 0.025}, {"sun", 0.01, 0.025}, {"night", 0.10, 0.25}};
constexpr int kByDay = 3; // the first ones

TEST_F(Studio, SpheresShowWhatTheIntegralOverTheEnvironmentGives)
{
    make({u"Environment"_s, u"Stage"_s, u"Light"_s}, kSpheres, kSpheresSize);
    const std::array<double, 3> base{0.9, 0.6, 0.3};
    set("Drawn.Color", QVector3D(0.9f, 0.6f, 0.3f));
    double together = 0;
    ASSERT_EQ(environmentNames().size(), qsizetype(std::size(kEnvironmentLimits)));
    for (const EnvironmentLimits &limits : kEnvironmentLimits) {
        const QString name = QString::fromLatin1(limits.name);
        set("Environment.Source", name);
        set("Light.Key", 0.0f);
        const Image<float> image = lit();
        const std::vector<Ray> rays = raysOf(*environmentNamed(name));
        double error = 0;
        double sum = 0;
        double metal = 0; // the worst cell
        for (int row = 0; row < kRows; ++row)
            for (int column = 0; column < kColumns; ++column) {
                double cellError = 0;
                double cellSum = 0;
                for (const Pixel &pixel : pixelsOf(column, row, 6)) {
                    const auto expected = shaded(rays, pixel.normal, 0.2 * (column + 1), 0.5 * row, base);
                    for (size_t c = 0; c < 3; ++c) {
                        cellError += std::abs(double(image.at(pixel.x, pixel.y)[c]) - expected[c]);
                        cellSum += expected[c];
                    }
                }
                metal = std::max(metal, cellError / cellSum);
                error += cellError;
                sum += cellSum;
            }
        std::printf("[ measured ] %s: mean error %.2f %%, of the worst sphere %.2f %%\n", qPrintable(name),
                    100 * error / sum, 100 * metal);
        EXPECT_LE(error / sum, limits.mean) << limits.name;
        EXPECT_LE(metal, limits.worstSphere) << limits.name;
        if (&limits < kEnvironmentLimits + kByDay)
            together += error / sum / kByDay;
    }
    EXPECT_LE(together, 0.02);
}

// A black surface keeps the highlight alone: GGX with Smith's masking for both directions and Schlick's term.
TEST_F(Studio, TheKeyLightMakesAHighlightByTheFormulas)
{
    make({u"Environment"_s, u"Stage"_s, u"KeyShadow"_s, u"Light"_s}, kSpheres, kSpheresSize);
    // Something that casts shadows, far below.
    ModelData data;
    data.meshes << quadMesh();
    data.materials.resize(1);
    data.items.resize(1);
    data.items[0].transform.translate(0, -50, 0);
    GPUModel model;
    ASSERT_TRUE(model.upload(data));
    owned->setModel(&model);
    set("Drawn.Color", QVector3D(0, 0, 0));
    set("Light.Key", 0.0f);
    const Image<float> without = lit();
    set("Light.Key", 1.0f);
    const Image<float> with = lit();
    const ShadowMapLight key = environmentNamed(u"studio"_s)->key;
    const QVector3D towards = -key.direction.normalized();
    const Vector light{double(towards.x()), double(towards.y()), double(towards.z())};
    const Vector sum{light.x, light.y, light.z + 1};
    const double length = std::sqrt(dot(sum, sum));
    const double fresnel = std::pow(1 - sum.z / length, 5);
    int seen = 0;
    for (int column = 0; column < kColumns; ++column)
        for (const Pixel &pixel : pixelsOf(column, 0, 2)) {
            const double facing = pixel.normal.z;
            const double toLight = dot(pixel.normal, light);
            const double alpha2 = std::pow(0.2 * (column + 1), 4);
            const auto mask = [&](double c) { return std::sqrt(alpha2 + (1 - alpha2) * c * c); };
            double expected = 0;
            if (toLight > 0) {
                const double spread = std::pow(dot(pixel.normal, sum) / length, 2) * (alpha2 - 1) + 1;
                const double brdf = alpha2 / (kPi * spread * spread) * (0.04 + 0.96 * fresnel)
                                    / (2 * (toLight * mask(facing) + facing * mask(toLight)));
                const double t = std::min(toLight / 0.2, 1.0); // the edge of the shadow, softened
                expected = kPi * double(key.color.x()) * brdf * toLight * t * t * (3 - 2 * t);
            }
            const double shown = double(with.at(pixel.x, pixel.y)[0]) - double(without.at(pixel.x, pixel.y)[0]);
            // Half floats, and the light that bounces between facets: 4 % of what is missing, at most half.
            ASSERT_NEAR(shown, expected, 0.03 * expected + 0.003) << pixel.x << " " << pixel.y;
            seen += expected > 0.05;
        }
    EXPECT_GT(seen, 20);
    owned.reset();
}

// Light up to the shoulder of the film as it is; beyond, towards white along a hyperbola, and paler the further.
std::array<double, 3> onFilm(const std::array<double, 3> &light)
{
    const double most = std::max({light[0], light[1], light[2]});
    if (most <= 0.7)
        return light;
    const double shown = 1 - 0.09 / (most - 0.4);
    const double fade = 1 - 1 / (1 + 0.15 * (most - shown));
    std::array<double, 3> out{};
    for (size_t c = 0; c < 3; ++c)
        out[c] = light[c] * shown / most * (1 - fade) + shown * fade;
    return out;
}

double decodedSrgb(double code)
{
    return code <= 0.04045 ? code / 12.92 : std::pow((code + 0.055) / 1.055, 2.4);
}

double encodedSrgb(double light)
{
    return light <= 0.0031308 ? 12.92 * light : 1.055 * std::pow(light, 1 / 2.4) - 0.055;
}

// What a display gets of a grey that is stored as a code from 0 to 1, by the formulas of sRGB and of the film.
double shownCode(double code)
{
    const double light = decodedSrgb(code);
    return 255 * encodedSrgb(onFilm({light, light, light})[0]);
}

// Up to the shoulder of the film curve greys leave as the codes that they came with.
TEST_F(Studio, AGreyRampKeepsItsCodes)
{
    make({u"Environment"_s, u"Stage"_s, u"Light"_s, u"Meter"_s, u"Sheet"_s, u"Keep"_s, u"Luminance"_s, u"Develop"_s,
          u"Smooth"_s, u"Present"_s},
         kRamp, QSize(256, 64));
    QString error;
    ASSERT_TRUE(owned->connect(u"Develop.Frame"_s, u"Smooth.Frame"_s, &error)) << error.toStdString();
    set("Develop.Exposure", 1.0f);
    set("Develop.Adaptation", 0.0f);
    set("Develop.Glow", 0.0f);
    ScreenTarget screen;
    ASSERT_TRUE(screen.resize(QSize(256, 64), &error)) << error.toStdString();
    owned->setScreen(screen.framebuffer());
    ASSERT_TRUE(owned->render(nullptr, &error)) << error.toStdString();
    const QImage picture = screen.image(&error);
    for (int x = 0; x < 256; ++x) {
        double mean = 0;
        for (int y = 0; y < 64; ++y) {
            const QRgb pixel = picture.pixel(x, y);
            ASSERT_EQ(qRed(pixel), qGreen(pixel));
            ASSERT_EQ(qRed(pixel), qBlue(pixel));
            // The noise and the rounding: half a step each; half floats near 1 add some.
            ASSERT_NEAR(qRed(pixel), shownCode(x / 255.0), 1.15) << x << " " << y;
            mean += qRed(pixel) / 64.0;
        }
        // The noise has no bias; half floats near 1 have steps of an eighth of a code.
        EXPECT_NEAR(mean, shownCode(x / 255.0), 0.2) << x;
    }
    EXPECT_EQ(qRed(picture.pixel(0, 0)), 0);
}

// The same from an image file on a surface that is not lit, through the whole pipeline, to an image file.
TEST_F(Studio, AGreyRampGoesFromFileToFile)
{
    const QTemporaryDir folder;
    QString error;
    QImage ramp(256, 16, QImage::Format_RGB32);
    for (int y = 0; y < ramp.height(); ++y)
        for (int x = 0; x < 256; ++x)
            ramp.setPixel(x, y, qRgb(x, x, x));
    ASSERT_TRUE(writeImage(ramp, folder.filePath(u"ramp.png"_s), &error)) << error.toStdString();

    ModelData data;
    data.meshes << quadMesh();
    data.materials.resize(1);
    ModelSurface surface;
    surface.isUnlit = true;
    surface.map_baseColor = readImage(folder.filePath(u"ramp.png"_s), &error);
    ASSERT_FALSE(surface.map_baseColor.isNull()) << error.toStdString();
    data.materials[0].surface = surface;
    data.items.resize(1);
    GPUModel model;
    ASSERT_TRUE(model.upload(data));

    const MessageCapture messages; // shadow passes tell their path
    ASSERT_TRUE(loadPipeline(u"" KVO_SOURCE_DIR "/pipelines/studio.json"_s, owned.get(), nullptr));
    set("Develop.Exposure", 1.0f);
    set("Develop.Adaptation", 0.0f);
    set("Develop.Glow", 0.0f);
    QMatrix4x4 projection;
    projection.ortho(-1, 1, -1, 1, 1, 9);
    QMatrix4x4 camera;
    camera.translate(0, 0, -5);
    owned->setCamera(camera, projection, 1, 9);
    owned->setViewport(QRect(0, 0, 256, 64));
    owned->setModel(&model);
    ScreenTarget screen;
    ASSERT_TRUE(screen.resize(QSize(256, 64), &error)) << error.toStdString();
    owned->setScreen(screen.framebuffer());
    ASSERT_TRUE(owned->render(nullptr, &error)) << error.toStdString();
    ASSERT_TRUE(writeImage(screen.image(&error), folder.filePath(u"out.png"_s), &error)) << error.toStdString();

    const QImage picture(folder.filePath(u"out.png"_s));
    ASSERT_EQ(picture.size(), QSize(256, 64));
    for (int x = 0; x < 256; ++x) {
        double mean = 0;
        for (int y = 8; y < 56; ++y) {
            ASSERT_NEAR(qRed(picture.pixel(x, y)), shownCode(x / 255.0), 1.15) << x << " " << y;
            mean += qRed(picture.pixel(x, y)) / 48.0;
        }
        // Powers of software renderers are approximate, there and back.
        EXPECT_NEAR(mean, shownCode(x / 255.0), 0.6) << x;
    }
    owned.reset();
}

// One switch puts the lens in: it softens what is out of focus, and makes nothing brighter.
TEST_F(Studio, TheLensSoftensThePictureAndKeepsItsBrightness)
{
    const MessageCapture messages; // shadow passes tell their path
    ASSERT_TRUE(loadPipeline(u"" KVO_SOURCE_DIR "/pipelines/studio.json"_s, owned.get(), nullptr));
    GPUModel model;
    ASSERT_TRUE(model.upload(threeCubes()));
    QMatrix4x4 projection;
    projection.perspective(40, 1.5f, 1, 30);
    QMatrix4x4 camera;
    camera.lookAt({3, 3, 8}, {0, 0, 0}, {0, 1, 0});
    owned->setCamera(camera, projection, 1, 30);
    owned->setViewport(QRect(0, 0, 240, 160));
    owned->setModel(&model);
    ScreenTarget screen;
    QString error;
    ASSERT_TRUE(screen.resize(QSize(240, 160), &error)) << error.toStdString();
    owned->setScreen(screen.framebuffer());
    const auto picture = [&] {
        EXPECT_TRUE(owned->render(nullptr, &error)) << error.toStdString();
        return screen.image(&error);
    };
    const auto meanAndSteps = [](const QImage &image) {
        std::array<double, 2> sums{};
        for (int y = 0; y < image.height(); ++y)
            for (int x = 1; x < image.width(); ++x) {
                sums[0] += qGreen(image.pixel(x, y));
                sums[1] += std::abs(qGreen(image.pixel(x, y)) - qGreen(image.pixel(x - 1, y)));
            }
        return sums;
    };
    const auto without = meanAndSteps(picture());
    ASSERT_TRUE(owned->bind(u"Lens"_s, u"Viewport"_s, u"viewport"_s, &error)) << error.toStdString();
    set("Lens.FStop", 2.0f);
    const auto with = meanAndSteps(picture());
    EXPECT_NEAR(with[0] / without[0], 1.0, 0.01);
    EXPECT_LT(with[1], 0.9 * without[1]);
    owned.reset();
}

// Under a plate the ground loses the part of the sky that the plate fills, weighted with the cosine: the view factor of
// a rectangle that is parallel to a place under its middle.
TEST_F(Studio, TheGroundLosesTheSkyThatThePlateAboveFills)
{
    const MessageCapture messages; // shadow passes tell their path
    ASSERT_TRUE(loadPipeline(u"" KVO_SOURCE_DIR "/pipelines/studio.json"_s, owned.get(), nullptr));
    // A plate of 2 by 2 units, and a speck below that says where the ground is.
    ModelData data;
    data.meshes << quadMesh();
    data.materials.resize(1);
    data.items.resize(2);
    data.items[0].transform.translate(0, 0.5f, 0);
    data.items[0].transform.rotate(-90, 1, 0, 0);
    data.items[1].transform.translate(0.95f, 0, 0.95f);
    data.items[1].transform.rotate(-90, 1, 0, 0);
    data.items[1].transform.scale(0.001f);
    for (ModelItem &item : data.items)
        item.flags = quint64(1) << 60; // from both sides
    GPUModel model;
    ASSERT_TRUE(model.upload(data));
    QMatrix4x4 projection;
    projection.perspective(40, 1, 1, 30);
    QMatrix4x4 camera;
    camera.lookAt({3, 3, 8}, {0, 0, 0}, {0, 1, 0});
    owned->setCamera(camera, projection, 1, 30);
    owned->setViewport(QRect(0, 0, 64, 64));
    owned->setModel(&model);
    ScreenTarget screen;
    QString error;
    ASSERT_TRUE(screen.resize(QSize(64, 64), &error)) << error.toStdString();
    owned->setScreen(screen.framebuffer());
    Image<float> ground;
    owned->setPassObserver([&](const QString &name, RenderPass *) {
        if (name == "GroundSky"_L1)
            ground = readTexture<float>(textureFromVariant(owned->output(name, u"Light"_s)));
    });
    ASSERT_TRUE(owned->render(nullptr, &error)) << error.toStdString();
    ASSERT_FALSE(ground.pixels.isEmpty());

    // Of the quarter of the plate above a place, a by b at the height h (Howell, configuration factors).
    const auto quarter = [](double a, double b, double h) {
        const double x = a / h;
        const double y = b / h;
        return (x / std::sqrt(1 + x * x) * std::atan(y / std::sqrt(1 + x * x))
                + y / std::sqrt(1 + y * y) * std::atan(x / std::sqrt(1 + y * y)))
               / (2 * kPi);
    };
    constexpr double kReach = 3; // of the map, in radii of the model
    for (const double x : {0.0, 0.3, 0.6}) {
        double expected = 1;
        for (const double side : {-1.0, 1.0})
            expected -= 2 * quarter(1 + side * x, 1, 0.5);
        const int column = int((x / kReach * 0.5 + 0.5) * ground.width);
        // Rings of a few taps, out to 1.28 radii, and a shadow map of 192 texels whose edges are soft.
        EXPECT_NEAR(ground.at(column, ground.height / 2)[0], expected, 0.08) << x;
    }
    EXPECT_NEAR(ground.at(2, 2)[0], 1.0f, 0.02f);
    owned.reset();
}

// A pane before a wall, the ground and the backdrop: what shines through it is what it leaves of the wall, by the light,
// and of the rest, by the picture on the screen, whose colours no film has to pass.
TEST_F(Studio, APaneLetsThroughWhatItDoesNotCover)
{
    constexpr int kWidth = 160;
    constexpr int kHeight = 120;
    const MessageCapture messages; // shadow passes tell their path
    ASSERT_TRUE(loadPipeline(u"" KVO_SOURCE_DIR "/pipelines/studio.json"_s, owned.get(), nullptr));
    set("Develop.Glow", 0.0f);
    set("Develop.Exposure", 1.6f); // for the shoulder
    ModelData data;
    data.meshes << quadMesh();
    data.materials.resize(2);
    data.items.resize(2);
    for (int i = 0; i < 2; ++i) {
        data.materials[i].surface = ModelSurface();
        data.items[i].material = i;
    }
    data.materials[0].surface->baseColor = {0.9f, 0.85f, 0.7f};
    data.items[0].transform.translate(-0.9f, -0.2f, -0.6f);
    data.materials[1].surface->baseColor = {0.2f, 0.5f, 0.8f};
    data.materials[1].surface->roughness = 0.3f;
    data.materials[1].D = 0.35f;
    data.items[1].transform.translate(0.3f, 0.1f, 0.6f);
    GPUModel model;
    ASSERT_TRUE(model.upload(data));
    QMatrix4x4 projection;
    projection.perspective(40, float(kWidth) / float(kHeight), 1, 30);
    QMatrix4x4 camera;
    camera.lookAt({0.6f, 1.5f, 5}, {0, 0, 0}, {0, 1, 0});
    owned->setCamera(camera, projection, 1, 30);
    owned->setViewport(QRect(0, 0, kWidth, kHeight));
    owned->setModel(&model);
    ScreenTarget screen;
    QString error;
    ASSERT_TRUE(screen.resize(QSize(kWidth, kHeight), &error)) << error.toStdString();
    owned->setScreen(screen.framebuffer());
    Image<float> solid, glass, luminance, developed;
    owned->setPassObserver([&](const QString &name, RenderPass *) {
        const auto read = [&](const QString &output) {
            return readTexture<float>(textureFromVariant(owned->output(name, output)));
        };
        if (name == "Glass"_L1)
            glass = read(u"Surfaces"_s);
        else if (name == "Light"_L1)
            solid = read(u"Frame"_s);
        else if (name == "Luminance"_L1)
            luminance = read(u"Frame"_s);
        else if (name == "Develop"_L1)
            developed = read(u"Frame"_s);
    });
    ASSERT_TRUE(owned->render(nullptr, &error)) << error.toStdString();
    ASSERT_EQ(glass.width, kWidth);
    ASSERT_EQ(solid.width, kWidth);
    ASSERT_EQ(developed.width, kWidth);

    const auto &metered = luminance.at(0, 0);
    const double exposure =
        1.6 * std::exp2(std::clamp(0.4 * (std::log2(0.25) - double(metered[0]) / double(metered[1])), -2.0, 2.0));
    const double middle[] = {0xec / 255.0, 0xee / 255.0, 0xf0 / 255.0};
    const double corner[] = {0xa9 / 255.0, 0xae / 255.0, 0xb5 / 255.0};
    int overWall = 0, overGround = 0, overBackdrop = 0, wall = 0, shoulder = 0;
    double bias = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const auto &picture = solid.at(x, y);
            const auto &pane = glass.at(x, y);
            const auto paneAlpha = double(pane[3]);
            if (paneAlpha > 0) {
                ASSERT_NEAR(paneAlpha, 0.35, 2e-4) << x << " " << y;
            }
            const double left = (1 - paneAlpha) * double(picture[3]);
            const double surfaces = paneAlpha + left;
            std::array<double, 3> light{};
            for (size_t c = 0; surfaces > 0 && c < 3; ++c)
                light[c] = exposure * (double(pane[c]) + left * double(picture[c])) / surfaces;
            const std::array<double, 3> film = onFilm(light);
            const double outwards = std::hypot((x + 0.5) / kWidth - 0.5, 0.85 * ((y + 0.5) / kHeight - 0.48)) / 0.8;
            const double blend = outwards >= 1 ? 1 : outwards * outwards * (3 - 2 * outwards);
            for (size_t c = 0; c < 3; ++c) {
                double behind = decodedSrgb(middle[c] * (1 - blend) + corner[c] * blend);
                if (picture[3] == 0)
                    behind *= double(picture[c]);
                const double shown = encodedSrgb(std::clamp(surfaces * film[c] + (1 - surfaces) * behind, 0.0, 1.0));
                const double difference = double(developed.at(x, y)[c]) - shown;
                // Noise of half a step of 8 bits, a half float below 1, and approximate powers.
                ASSERT_NEAR(difference, 0, 0.5 / 255 + 7e-4) << x << " " << y << " " << c << ", of " << shown;
                bias += difference / (3 * kWidth * kHeight);
            }
            shoulder += paneAlpha > 0 && std::max({light[0], light[1], light[2]}) > 0.8;
            wall += paneAlpha == 0 && picture[3] == 1;
            overWall += paneAlpha > 0.3 && picture[3] == 1;
            overGround += paneAlpha > 0.3 && picture[3] == 0 && picture[0] < 0.97f;
            overBackdrop += paneAlpha > 0.3 && picture[3] == 0 && picture[0] >= 0.97f;
        }
    // Drivers may cut half floats off, half a step of 1/2048 in the mean; the noise has no bias.
    EXPECT_NEAR(bias, 0, 4e-4);
    for (const int seen : {overWall, overGround, overBackdrop, wall, shoulder})
        EXPECT_GT(seen, 100) << overWall << " " << overGround << " " << overBackdrop << " " << wall << " " << shoulder;
    owned.reset();
}
