#include <host/environment.h>

#include <QPointF>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <future>
#include <numbers>

// Environments against integrals in double precision over the directions themselves.

using namespace Brevane::Kvo;

namespace {

constexpr double kPi = std::numbers::pi;

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

Vector directionOf(double u, double v)
{
    const double longitude = (u - 0.5) * 2 * kPi;
    const double latitude = (v - 0.5) * kPi;
    return {std::sin(longitude) * std::cos(latitude), std::sin(latitude), -std::cos(longitude) * std::cos(latitude)};
}

Vector vectorOf(const QVector3D &v)
{
    return {double(v.x()), double(v.y()), double(v.z())};
}

using Radiance = std::function<double(const Vector &)>;

// A picture of floats, top row first.
QImage pictureOf(const Radiance &radiance, int width)
{
    QImage image(width, width / 2, QImage::Format_RGBX32FPx4);
    for (int y = 0; y < image.height(); ++y) {
        float *line = reinterpret_cast<float *>(image.scanLine(y));
        for (int x = 0; x < width; ++x) {
            const auto value = float(radiance(directionOf((x + 0.5) / width, 1.0 - (y + 0.5) / image.height())));
            line[4 * x] = value;
            line[4 * x + 1] = 0.5f * value;
            line[4 * x + 2] = 2.0f * value;
            line[4 * x + 3] = 1.0f;
        }
    }
    return image;
}

// The integral over all directions.
double integral(const Radiance &function, int rows = 180)
{
    double sum = 0;
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < 2 * rows; ++x) {
            const double v = (y + 0.5) / rows;
            sum += function(directionOf((x + 0.5) / (2 * rows), v)) * std::cos((v - 0.5) * kPi);
        }
    return sum * kPi / rows * kPi / rows;
}

double irradianceOf(const Environment &environment, const Vector &n, int channel)
{
    const std::array<double, 9> basis{0.5 * std::sqrt(1 / kPi),
                                      std::sqrt(3 / (4 * kPi)) * n.y,
                                      std::sqrt(3 / (4 * kPi)) * n.z,
                                      std::sqrt(3 / (4 * kPi)) * n.x,
                                      0.5 * std::sqrt(15 / kPi) * n.x * n.y,
                                      0.5 * std::sqrt(15 / kPi) * n.y * n.z,
                                      0.25 * std::sqrt(5 / kPi) * (3 * n.z * n.z - 1),
                                      0.5 * std::sqrt(15 / kPi) * n.x * n.z,
                                      0.25 * std::sqrt(15 / kPi) * (n.x * n.x - n.y * n.y)};
    double sum = 0;
    for (size_t i = 0; i < 9; ++i)
        sum += basis[i] * double(environment.irradiance[i][channel]);
    return sum;
}

// A texel of a tile, with its direction.
struct Texel
{
    Vector direction;
    double red;
};

Texel texelOf(const Environment &environment, int level, int x, int y)
{
    const int side = level == 0 ? Environment::kSharpSide : Environment::kSoftSide;
    const int left = level == 0 ? 0 : (level - 1) % 4 * side;
    const int low = level == 0 ? 0 : Environment::kSharpSide + (level - 1) / 4 * side;
    const QVector3D d = octahedralDirection({double(x) / (side - 1), double(y) / (side - 1)});
    return {vectorOf(d), double(float(environment.specular[4 * ((low + y) * Environment::kAtlasWidth + left + x)]))};
}

double ggx(double cosine, double roughness)
{
    const double alpha2 = std::pow(roughness, 4);
    const double d = cosine * cosine * (alpha2 - 1) + 1;
    return alpha2 / (kPi * d * d);
}

// What a surface seen from above mirrors.
double mirrored(const Radiance &radiance, const Vector &normal, double roughness)
{
    const auto weight = [&](const Vector &light) {
        const double cosine = dot(normal, light);
        return cosine > 0 ? cosine * ggx(std::sqrt((1 + cosine) / 2), roughness) : 0;
    };
    return integral([&](const Vector &l) { return weight(l) * radiance(l); }) / integral(weight);
}

const Radiance kEven = [](const Vector &) { return 0.75; };
// Of order 2, which is all that the harmonics hold.
const Radiance kGentle = [](const Vector &d) { return 1 + 0.4 * d.y - 0.3 * d.x + 0.5 * d.x * d.z + 0.2 * d.y * d.y; };
// With lights in it whose outlines are a few degrees wide.
const Radiance kLamps = [](const Vector &d) {
    const double sharp = 1 / (1 + std::exp(-20 * (dot(d, {0.6, 0.8, 0}) - 0.8)));
    const double broad = 1 / (1 + std::exp(-12 * (dot(d, {-0.48, 0.36, 0.8}) - 0.6)));
    return 0.4 + 0.2 * d.y + 6 * sharp + 2 * broad;
};

} // namespace

TEST(Environment, OctahedralPlacesAndDirectionsAreEachOthersInverse)
{
    for (int i = 0; i < 500; ++i) {
        const Vector d = directionOf((i + 0.5) / 500, std::fmod(i * 0.618033988, 1.0));
        const QVector3D back = octahedralDirection(octahedral({float(d.x), float(d.y), float(d.z)}));
        EXPECT_NEAR(dot(vectorOf(back), d), 1.0, 1e-6) << i;
    }
    EXPECT_EQ(octahedral({0, 1, 0}), QPointF(0.5, 0.5));
}

TEST(Environment, EvenLightIsTheSameInEveryDirectionAtEveryRoughness)
{
    const Environment environment = environmentOf(pictureOf(kEven, 64));
    constexpr float kTexel[] = {0.75f, 0.375f, 1.5f, 1.0f};
    const int last = Environment::kAtlasHeight - Environment::kSoftSide; // the row with a single tile
    for (int y = 0; y < Environment::kAtlasHeight; ++y)
        for (int x = 0; x < (y < last ? Environment::kAtlasWidth : Environment::kSoftSide); ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(float(environment.specular[4 * (y * Environment::kAtlasWidth + x) + c]), kTexel[c])
                    << x << " " << y;
    for (int i = 0; i < 50; ++i)
        EXPECT_NEAR(irradianceOf(environment, directionOf(i / 50.0, std::fmod(i * 0.618, 1.0)), 0), 0.75, 1e-3);
    EXPECT_EQ(environment.key.color, QVector3D());
}

TEST(Environment, IrradianceIsTheIntegralOverTheCosine)
{
    const Environment environment = environmentOf(pictureOf(kGentle, 256));
    for (int i = 0; i < 20; ++i) {
        const Vector n = directionOf(i / 20.0, std::fmod(i * 0.618, 1.0));
        const double expected = integral([&](const Vector &l) { return std::max(0.0, dot(n, l)) * kGentle(l); }) / kPi;
        // Constants of six digits, and the steps of both sums.
        EXPECT_NEAR(irradianceOf(environment, n, 0), expected, 1e-3) << i;
        EXPECT_NEAR(irradianceOf(environment, n, 1), 0.5 * expected, 1e-3) << i;
        EXPECT_NEAR(irradianceOf(environment, n, 2), 2 * expected, 2e-3) << i;
    }
}

TEST(Environment, IrradianceIsNowhereNegativeHoweverStrongALight)
{
    const Radiance spot = [](const Vector &d) { return d.y > 0.97 ? 35.0 : 0.0; };
    const Environment environment = environmentOf(pictureOf(spot, 128));
    double least = 1e9;
    for (int i = 0; i < 400; ++i)
        least = std::min(least, irradianceOf(environment, directionOf(i / 20.0, (i / 20) / 20.0), 0));
    EXPECT_GE(least, -0.01);
    EXPECT_GT(irradianceOf(environment, {0, 1, 0}, 0), 0.5);
}

class EnvironmentAtRoughness : public testing::TestWithParam<int>
{};
INSTANTIATE_TEST_SUITE_P(Levels, EnvironmentAtRoughness, testing::Range(0, Environment::kLevels));

TEST_P(EnvironmentAtRoughness, MirrorsTheMeanOverTheLobe)
{
    static const Environment environment = environmentOf(pictureOf(kLamps, 512));
    const int level = GetParam();
    const int side = level == 0 ? Environment::kSharpSide : Environment::kSoftSide;
    double error = 0;
    double sum = 0;
    for (int i = 0; i < 60; ++i) {
        const Texel texel = texelOf(environment, level, int(std::fmod(i * 0.754877, 1.0) * side),
                                    int(std::fmod(i * 0.569840, 1.0) * side));
        const double roughness = double(level) / (Environment::kLevels - 1);
        // The narrow lobes fall between the steps of the integral; there the place itself is the reference.
        const double expected = level < 2 ? kLamps(texel.direction) : mirrored(kLamps, texel.direction, roughness);
        error += std::abs(texel.red - expected);
        sum += expected;
    }
    EXPECT_LE(error / sum, 0.015) << "roughness " << level / 8.0;
}

TEST(Environment, TheLastTileIsTheIrradiance)
{
    const Environment environment = environmentOf(pictureOf(kLamps, 512));
    double error = 0;
    double sum = 0;
    for (int i = 0; i < 60; ++i) {
        const Texel texel = texelOf(environment, Environment::kLevels, int(std::fmod(i * 0.754877, 1.0) * 128),
                                    int(std::fmod(i * 0.569840, 1.0) * 128));
        const Vector &n = texel.direction;
        const double expected = integral([&](const Vector &l) { return std::max(0.0, dot(n, l)) * kLamps(l); }) / kPi;
        error += std::abs(texel.red - expected);
        sum += expected;
    }
    EXPECT_LE(error / sum, 0.01);
}

TEST(Environment, ALightFarBrighterThanTheRestBecomesTheKeyWithItsEnergy)
{
    const Vector towards{0.6, 0.64, 0.48};
    const Radiance sky = [](const Vector &) { return 0.5; };
    const Radiance sunny = [&](const Vector &d) { return dot(d, towards) > 0.999 ? 8000.0 : 0.5; };
    const Environment environment = environmentOf(pictureOf(sunny, 512));
    EXPECT_GT(dot(vectorOf(-environment.key.direction), towards), 0.9995);
    const auto red = [](const QVector3D &v) { return double(v.x()); };
    // In all directions together the light is what the picture holds: the key's is pi times its colour.
    const double picture = integral(sunny, 512) - integral(sky, 512);
    const double rest = double(environment.irradiance[0].x()) / 0.282095 - 4 * kPi * 0.5;
    // The edge of the disc crosses texels differently in the two sums.
    EXPECT_NEAR(red(environment.key.color) * kPi + rest, picture, 0.03 * picture);
    EXPECT_GT(red(environment.key.color) * kPi, 0.8 * picture);
    float most = 0;
    for (const qfloat16 value : environment.radiance)
        most = std::max(most, float(value));
    EXPECT_LT(most, 8000.0f / 4);
}

TEST(Environment, PicturesOf8BitsAreDecoded)
{
    QImage image(8, 4, QImage::Format_RGB32);
    image.fill(qRgb(188, 188, 188));
    const Environment environment = environmentOf(image);
    // 188 is the code of 0.5029; half floats have 11 bits.
    EXPECT_NEAR(float(environment.radiance[0]), 0.5029f, 0.0005f);
}

TEST(Environment, RowsOfThePictureComeUpsideDown)
{
    QImage image(4, 2, QImage::Format_RGB32);
    image.fill(Qt::black);
    for (int x = 0; x < 4; ++x)
        image.setPixel(x, 0, qRgb(255, 255, 255));
    const Environment environment = environmentOf(image);
    EXPECT_EQ(float(environment.radiance[0]), 0.0f);
    EXPECT_EQ(float(environment.radiance[4 * 4]), 1.0f);
    EXPECT_GT(irradianceOf(environment, {0, 1, 0}, 0), irradianceOf(environment, {0, -1, 0}, 0));
}

TEST(Environment, WithoutAPictureThereIsNoLight)
{
    const Environment environment = environmentOf(QImage());
    EXPECT_EQ(float(environment.specular[0]), 0.0f);
    EXPECT_EQ(environment.irradiance[0], QVector3D());
}

TEST(Environment, SomeAreKnownByName)
{
    EXPECT_EQ(environmentNames(), QStringList({"studio", "overcast", "sun", "night"}));
    EXPECT_FALSE(environmentNamed("Studio"));
    EXPECT_FALSE(environmentNamed(""));
    for (const QString &name : environmentNames()) {
        const auto environment = environmentNamed(name);
        ASSERT_TRUE(environment) << name.toStdString();
        // Light comes from above, and none is missing below.
        EXPECT_GT(irradianceOf(*environment, {0, 1, 0}, 1), irradianceOf(*environment, {0, -1, 0}, 1));
        EXPECT_GT(irradianceOf(*environment, {0, -1, 0}, 1), name == "night" ? 0.02 : 0.2);
        EXPECT_LT(environment->key.direction.y(), -0.3f);
    }
}

TEST(Environment, OneThatIsKnownByNameIsMadeOnceForAllThreads)
{
    for (const QString &name : environmentNames()) {
        std::vector<std::future<const qfloat16 *>> asked;
        for (int thread = 0; thread < 4; ++thread)
            asked.push_back(
                std::async(std::launch::async, [&] { return environmentNamed(name)->specular.constData(); }));
        const Environment kept = *environmentNamed(name);
        for (std::future<const qfloat16 *> &texels : asked)
            EXPECT_EQ(texels.get(), kept.specular.constData()) << qPrintable(name);
        // Who changes one changes his own.
        Environment changed = kept;
        const float before = float(kept.specular[0]);
        changed.specular[0] = qfloat16(before + 1.0f);
        EXPECT_EQ(float(environmentNamed(name)->specular[0]), before);
    }
}

// F0 = 0 and F0 = 1 by a sum over the hemisphere of light, of the two parts of the distribution that a shader adds up.
TEST(Environment, TheTableIsTheIntegralOfTheReflectedLight)
{
    constexpr int kSide = 16;
    const QVector<float> table = specularTable(kSide);
    for (int row = 4; row < kSide; row += 3) {
        for (int column = 3; column < kSide; column += 4) {
            const double roughness = double(row) / (kSide - 1);
            const double alpha2 = std::pow(roughness, 4);
            const double facing = std::pow(double(column) / (kSide - 1), 2);
            const Vector view{std::sqrt(1 - facing * facing), 0, facing};
            const auto mask = [&](double c) { return std::sqrt(alpha2 + (1 - alpha2) * c * c); };
            double sums[2] = {};
            double mean[2] = {};
            constexpr int kSteps = 700;
            for (int i = 0; i < kSteps; ++i)
                for (int j = 0; j < kSteps; ++j) {
                    const double light = (i + 0.5) / kSteps;
                    const double sine = std::sqrt(1 - light * light);
                    const double angle = kPi * (j + 0.5) / kSteps; // of the half where y is positive
                    const Vector l{sine * std::cos(angle), sine * std::sin(angle), light};
                    const Vector sum{l.x + view.x, l.y + view.y, l.z + view.z};
                    const double length = std::sqrt(dot(sum, sum));
                    const double toHalf = dot(view, sum) / length;
                    // D G / (4 n.l n.v) n.l, with both sides of the plane of view and normal.
                    const double value = 2 * ggx(sum.z / length, roughness) * light
                                         / (2 * (light * mask(facing) + facing * mask(light))) * kPi
                                         / (double(kSteps) * kSteps);
                    const double fresnel = std::pow(1 - toHalf, 5);
                    sums[0] += value * (1 - fresnel);
                    sums[1] += value * fresnel;
                    mean[0] -= value * l.x;
                    mean[1] += value * l.z;
                }
            const float *texel = table.constData() + 4 * (row * kSide + column);
            // 256 samples against half a million.
            EXPECT_NEAR(double(texel[0]), sums[0], 0.006) << row << " " << column;
            EXPECT_NEAR(double(texel[1]), sums[1], 0.006) << row << " " << column;
            // The mixture of normal and mirrored view has the slope of the mean.
            const double lean = double(texel[2]);
            EXPECT_NEAR(std::atan2(lean * view.x, 1 - lean + lean * view.z), std::atan2(mean[0], mean[1]), 0.02)
                << row << " " << column;
            // A lobe that leans is stretched, or cut off by the horizon.
            EXPECT_GT(double(texel[3]), 0.5 * roughness);
            EXPECT_LT(double(texel[3]), 1.6 * roughness);
        }
    }
}
