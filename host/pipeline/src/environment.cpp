#include "host/environment.h"

#include <QColorSpace>
#include <QPointF>

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <mutex>
#include <numbers>
#include <thread>
#include <vector>

namespace Brevane::Kvo {

namespace {

constexpr float kPi = std::numbers::pi_v<float>;
constexpr int kBuiltInWidth = 512;
// What is computed from, and what is shown, of pictures larger than that.
constexpr int kLargestSource = 1024;
constexpr int kLargestRadiance = 4096;
// Half floats end at 65504.
constexpr float kBrightest = 60000.0f;
constexpr float kKeyFrom = 40.0f;

// Four, of which compilers make one register.
struct Rgb
{
    float r = 0.0f;
    float g = 0.0f;
    float b = 0.0f;
    float unused = 0.0f;

    Rgb &operator+=(const Rgb &o)
    {
        r += o.r, g += o.g, b += o.b, unused += o.unused;
        return *this;
    }
};

Rgb operator+(Rgb a, const Rgb &b)
{
    return a += b;
}

Rgb operator*(float f, const Rgb &c)
{
    return {f * c.r, f * c.g, f * c.b, f * c.unused};
}

Rgb mix(const Rgb &a, const Rgb &b, float t)
{
    return (1.0f - t) * a + t * b;
}

float luminance(const Rgb &c)
{
    return 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b;
}

struct Direction
{
    float x;
    float y;
    float z;
};

float dot(const Direction &a, const Direction &b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

Direction cross(const Direction &a, const Direction &b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

Direction normalized(const Direction &d)
{
    const float scale = 1.0f / std::sqrt(dot(d, d));
    return {d.x * scale, d.y * scale, d.z * scale};
}

// Work on rows that do not depend on each other, on all processors.
void forRows(int rows, const std::function<void(int)> &work)
{
    const int workers = std::clamp(int(std::thread::hardware_concurrency()), 1, 8);
    std::vector<std::thread> threads;
    const auto every = [&](int first) {
        for (int row = first; row < rows; row += workers)
            work(row);
    };
    for (int i = 1; i < workers; ++i)
        threads.emplace_back(every, i);
    every(0);
    for (std::thread &thread : threads)
        thread.join();
}

// A latitude-longitude map, bottom row first.
struct Panorama
{
    Panorama(int across, int up) : width(across), height(up), texels(size_t(across) * size_t(up)) {}

    Rgb &at(int x, int y) { return texels[size_t(y) * size_t(width) + size_t(x)]; }
    const Rgb &at(int x, int y) const { return texels[size_t(y) * size_t(width) + size_t(x)]; }

    Direction direction(int x, int y) const
    {
        const float longitude = (float(x) + 0.5f) / float(width) * 2.0f * kPi - kPi;
        const float latitude = (float(y) + 0.5f) / float(height) * kPi - kPi / 2.0f;
        const float level = std::cos(latitude);
        return {std::sin(longitude) * level, std::sin(latitude), -std::cos(longitude) * level};
    }
    // Of a texel of the row, in steradians.
    double solidAngle(int y) const
    {
        const double step = std::numbers::pi / height;
        return (std::sin(step * (y + 1) - std::numbers::pi / 2) - std::sin(step * y - std::numbers::pi / 2)) * 2.0
               * std::numbers::pi / width;
    }
    Rgb sample(const Direction &d) const
    {
        const float u = (std::atan2(d.x, -d.z) / (2.0f * kPi) + 0.5f) * float(width) - 0.5f;
        const float v = (std::asin(std::clamp(d.y, -1.0f, 1.0f)) / kPi + 0.5f) * float(height) - 0.5f;
        const float left = std::floor(u);
        const float low = std::floor(v);
        const int x0 = (int(left) + width) % width;
        const int x1 = (x0 + 1) % width;
        const int y0 = std::clamp(int(low), 0, height - 1);
        const int y1 = std::clamp(int(low) + 1, 0, height - 1);
        return mix(mix(at(x0, y0), at(x1, y0), u - left), mix(at(x0, y1), at(x1, y1), u - left), v - low);
    }
    // Of half the size; sides are even.
    Panorama halved() const
    {
        Panorama result(width / 2, height / 2);
        forRows(result.height, [&](int y) {
            for (int x = 0; x < result.width; ++x)
                result.at(x, y) =
                    0.25f * (at(2 * x, 2 * y) + at(2 * x + 1, 2 * y) + at(2 * x, 2 * y + 1) + at(2 * x + 1, 2 * y + 1));
        });
        return result;
    }

    int width;
    int height;
    std::vector<Rgb> texels;
};

struct Place
{
    float u;
    float v;
};

Place octahedralPlace(const Direction &d)
{
    const float scale = 1.0f / (std::abs(d.x) + std::abs(d.y) + std::abs(d.z));
    float u = d.x * scale;
    float v = d.z * scale;
    if (d.y < 0.0f) {
        const float folded = (1.0f - std::abs(v)) * std::copysign(1.0f, u);
        v = (1.0f - std::abs(u)) * std::copysign(1.0f, v);
        u = folded;
    }
    return {0.5f * u + 0.5f, 0.5f * v + 0.5f};
}

Direction directionAt(const Place &place)
{
    const float u = 2.0f * place.u - 1.0f;
    const float v = 2.0f * place.v - 1.0f;
    const float y = 1.0f - std::abs(u) - std::abs(v);
    if (y >= 0.0f)
        return normalized({u, y, v});
    return normalized(
        {(1.0f - std::abs(v)) * std::copysign(1.0f, u), y, (1.0f - std::abs(u)) * std::copysign(1.0f, v)});
}

// The radiance in octahedral projection at all sizes down to a few texels.
class Pyramid
{
public:
    static constexpr int kSide = Environment::kSharpSide;
    static constexpr int kSmallest = 4;

    explicit Pyramid(const Panorama &panorama)
    {
        Level base(kSide);
        forRows(kSide, [&](int y) {
            for (int x = 0; x < kSide; ++x)
                base.at(x, y) = panorama.sample(directionAt({(float(x) + 0.5f) / kSide, (float(y) + 0.5f) / kSide}));
        });
        _levels.push_back(std::move(base));
        while (_levels.back().side > kSmallest) {
            const Level &fine = _levels.back();
            Level coarse(fine.side / 2);
            for (int y = 0; y < coarse.side; ++y)
                for (int x = 0; x < coarse.side; ++x)
                    coarse.at(x, y) = 0.25f
                                      * (fine.at(2 * x, 2 * y) + fine.at(2 * x + 1, 2 * y) + fine.at(2 * x, 2 * y + 1)
                                         + fine.at(2 * x + 1, 2 * y + 1));
            _levels.push_back(std::move(coarse));
        }
    }

    Rgb sample(const Direction &d, float level) const
    {
        const Place place = octahedralPlace(d);
        const float bounded = std::clamp(level, 0.0f, float(_levels.size() - 1));
        const auto fine = size_t(bounded);
        const float rest = bounded - float(fine);
        const Rgb value = _levels[fine].sample(place);
        return rest == 0.0f ? value : mix(value, _levels[fine + 1].sample(place), rest);
    }

private:
    struct Level
    {
        explicit Level(int across) : side(across), texels(size_t(across) * size_t(across)) {}

        Rgb &at(int x, int y) { return texels[size_t(y) * size_t(side) + size_t(x)]; }
        const Rgb &at(int x, int y) const { return texels[size_t(y) * size_t(side) + size_t(x)]; }
        // Beyond a border the map goes on upside down.
        const Rgb &beyond(int x, int y) const
        {
            if (x < 0 || x >= side)
                x = x < 0 ? -1 - x : 2 * side - 1 - x, y = side - 1 - y;
            if (y < 0 || y >= side)
                y = y < 0 ? -1 - y : 2 * side - 1 - y, x = side - 1 - x;
            return at(x, y);
        }
        Rgb sample(const Place &place) const
        {
            const float u = place.u * float(side) - 0.5f;
            const float v = place.v * float(side) - 0.5f;
            const float left = std::floor(u);
            const float low = std::floor(v);
            const int x = int(left);
            const int y = int(low);
            if (x >= 0 && y >= 0 && x + 1 < side && y + 1 < side)
                return mix(mix(at(x, y), at(x + 1, y), u - left), mix(at(x, y + 1), at(x + 1, y + 1), u - left),
                           v - low);
            return mix(mix(beyond(x, y), beyond(x + 1, y), u - left),
                       mix(beyond(x, y + 1), beyond(x + 1, y + 1), u - left), v - low);
        }

        int side;
        std::vector<Rgb> texels;
    };

    std::vector<Level> _levels;
};

// The second of the numbers that spread evenly over the unit square with the first, i / count.
float radicalInverse(quint32 bits)
{
    bits = (bits << 16) | (bits >> 16);
    bits = ((bits & 0x55555555u) << 1) | ((bits & 0xaaaaaaaau) >> 1);
    bits = ((bits & 0x33333333u) << 2) | ((bits & 0xccccccccu) >> 2);
    bits = ((bits & 0x0f0f0f0fu) << 4) | ((bits & 0xf0f0f0f0u) >> 4);
    bits = ((bits & 0x00ff00ffu) << 8) | ((bits & 0xff00ff00u) >> 8);
    return float(bits) * 2.3283064365386963e-10f;
}

// One direction of light around a surface that is seen from above, with its weight and the level of the pyramid
// whose texels are as large as the part of the lobe that it stands for.
struct LobeTap
{
    Direction toLight; // z along the normal
    float weight;
    float level;
};

float levelFor(float density, int count)
{
    const float texel = 4.0f * kPi / float(Pyramid::kSide * Pyramid::kSide);
    // Bilinear taps spread over as much again.
    return 0.5f * std::log2(1.0f / (float(count) * density) / texel) - 1.0f;
}

// What a matt surface sees.
std::vector<LobeTap> cosineLobe(int count)
{
    std::vector<LobeTap> taps;
    for (int i = 0; i < count; ++i) {
        const float sine = std::sqrt((float(i) + 0.5f) / float(count));
        const float angle = 2.0f * kPi * radicalInverse(quint32(i));
        const float cosine = std::sqrt(1.0f - sine * sine);
        taps.push_back({{sine * std::cos(angle), sine * std::sin(angle), cosine},
                        1.0f / float(count),
                        levelFor(cosine / kPi, count)});
    }
    return taps;
}

std::vector<LobeTap> lobe(float roughness, int count)
{
    const float alpha = roughness * roughness;
    std::vector<LobeTap> taps;
    for (int i = 0; i < count; ++i) {
        const float u = (float(i) + 0.5f) / float(count);
        const float angle = 2.0f * kPi * radicalInverse(quint32(i));
        const float cosine2 = (1.0f - u) / (1.0f + (alpha * alpha - 1.0f) * u);
        const float cosine = std::sqrt(cosine2);
        const float sine = std::sqrt(std::max(0.0f, 1.0f - cosine2));
        const Direction light{2.0f * cosine * sine * std::cos(angle), 2.0f * cosine * sine * std::sin(angle),
                              2.0f * cosine2 - 1.0f};
        if (light.z <= 0.0f)
            continue;
        const float spread = cosine2 * (alpha * alpha - 1.0f) + 1.0f;
        const float density = alpha * alpha / (kPi * spread * spread) / 4.0f;
        taps.push_back({light, light.z, levelFor(density, count)});
    }
    float sum = 0.0f;
    for (const LobeTap &tap : taps)
        sum += tap.weight;
    for (LobeTap &tap : taps)
        tap.weight /= sum;
    return taps;
}

Rgb filtered(const Pyramid &pyramid, const std::vector<LobeTap> &taps, const Direction &normal)
{
    const float sign = std::copysign(1.0f, normal.z);
    const float a = -1.0f / (sign + normal.z);
    const float b = normal.x * normal.y * a;
    const Direction tangent{1.0f + sign * normal.x * normal.x * a, sign * b, -sign * normal.x};
    const Direction bitangent{b, sign + normal.y * normal.y * a, -normal.y};
    Rgb sum;
    for (const LobeTap &tap : taps) {
        const Direction &l = tap.toLight;
        const Direction world{l.x * tangent.x + l.y * bitangent.x + l.z * normal.x,
                              l.x * tangent.y + l.y * bitangent.y + l.z * normal.y,
                              l.x * tangent.z + l.y * bitangent.z + l.z * normal.z};
        sum += tap.weight * pyramid.sample(world, tap.level);
    }
    return sum;
}

struct Tile
{
    explicit Tile(int across) : side(across), texels(size_t(across) * size_t(across)) {}

    // Centres of border texels lie on the border.
    Direction direction(int x, int y) const
    {
        return directionAt({float(x) / float(side - 1), float(y) / float(side - 1)});
    }
    Rgb sample(float u, float v) const
    {
        const float x = u * float(side - 1);
        const float y = v * float(side - 1);
        const int left = std::min(int(x), side - 2);
        const int low = std::min(int(y), side - 2);
        const Rgb *row = texels.data() + size_t(low) * size_t(side) + size_t(left);
        return mix(mix(row[0], row[1], x - float(left)), mix(row[side], row[side + 1], x - float(left)),
                   y - float(low));
    }

    int side;
    std::vector<Rgb> texels;
};

constexpr int kTiles = Environment::kLevels + 1;

// Of wide lobes a few texels tell all.
Tile tileFor(const Pyramid &pyramid, int index)
{
    constexpr int kSides[kTiles] = {Environment::kSharpSide, 128, 128, 96, 64, 64, 48, 48, 48, 48};
    constexpr int kTaps[kTiles] = {1, 24, 40, 56, 72, 96, 112, 128, 128, 128};
    Tile tile(kSides[index]);
    std::vector<LobeTap> taps{{{0.0f, 0.0f, 1.0f}, 1.0f, 0.0f}};
    if (index == Environment::kLevels)
        taps = cosineLobe(kTaps[index]);
    else if (index > 0)
        taps = lobe(float(index) / float(Environment::kLevels - 1), kTaps[index]);
    forRows(tile.side, [&](int y) {
        for (int x = 0; x < tile.side; ++x)
            tile.texels[size_t(y) * size_t(tile.side) + size_t(x)] = filtered(pyramid, taps, tile.direction(x, y));
    });
    return tile;
}

void store(qfloat16 *to, const Rgb &color)
{
    const float values[4] = {std::clamp(color.r, 0.0f, kBrightest), std::clamp(color.g, 0.0f, kBrightest),
                             std::clamp(color.b, 0.0f, kBrightest), 1.0f};
    qFloatToFloat16(to, values, 4);
}

QVector<qfloat16> specularAtlas(const Panorama &panorama)
{
    constexpr int kWidth = Environment::kAtlasWidth;
    constexpr int kSoft = Environment::kSoftSide;
    const Pyramid pyramid(panorama);
    QVector<qfloat16> atlas(4 * kWidth * Environment::kAtlasHeight);
    for (int level = 0; level < kTiles; ++level) {
        const Tile tile = tileFor(pyramid, level);
        const int side = level == 0 ? Environment::kSharpSide : kSoft;
        const int left = level == 0 ? 0 : (level - 1) % 4 * kSoft;
        const int low = level == 0 ? 0 : Environment::kSharpSide + (level - 1) / 4 * kSoft;
        qfloat16 *texels = atlas.data();
        forRows(side, [&](int y) {
            for (int x = 0; x < side; ++x)
                store(texels + 4 * ((low + y) * kWidth + left + x),
                      tile.sample(float(x) / float(side - 1), float(y) / float(side - 1)));
        });
    }
    return atlas;
}

std::array<float, 9> harmonics(const Direction &d)
{
    return {0.282095f,
            0.488603f * d.y,
            0.488603f * d.z,
            0.488603f * d.x,
            1.092548f * d.x * d.y,
            1.092548f * d.y * d.z,
            0.315392f * (3.0f * d.z * d.z - 1.0f),
            1.092548f * d.x * d.z,
            0.546274f * (d.x * d.x - d.y * d.y)};
}

// Takes contrast out until no direction has less than nothing, as behind a strong light.
void damp(std::array<QVector3D, 9> *coefficients)
{
    const std::array<QVector3D, 9> whole = *coefficients;
    for (float strength = 0.0f; strength < 100.0f; strength = strength == 0.0f ? 0.002f : 1.5f * strength) {
        for (size_t i = 0; i < 9; ++i) {
            const float order = i == 0 ? 0.0f : i < 4 ? 1.0f : 2.0f;
            (*coefficients)[i] = whole[i] / (1.0f + strength * order * order * (order + 1.0f) * (order + 1.0f));
        }
        bool isPositive = true;
        for (int y = 0; y < 16; ++y)
            for (int x = 0; x < 16; ++x) {
                const auto basis = harmonics(directionAt({(float(x) + 0.5f) / 16.0f, (float(y) + 0.5f) / 16.0f}));
                QVector3D sum;
                for (size_t i = 0; i < 9; ++i)
                    sum += basis[i] * (*coefficients)[i];
                isPositive = isPositive && std::min({sum.x(), sum.y(), sum.z()}) >= 0.0f;
            }
        if (isPositive)
            return;
    }
}

std::array<QVector3D, 9> irradianceOf(const Panorama &panorama)
{
    std::array<std::array<double, 3>, 9> sums{};
    for (int y = 0; y < panorama.height; ++y) {
        const double angle = panorama.solidAngle(y);
        for (int x = 0; x < panorama.width; ++x) {
            const auto basis = harmonics(panorama.direction(x, y));
            const Rgb &c = panorama.at(x, y);
            for (size_t i = 0; i < 9; ++i) {
                const double weight = double(basis[i]) * angle;
                sums[i][0] += weight * double(c.r);
                sums[i][1] += weight * double(c.g);
                sums[i][2] += weight * double(c.b);
            }
        }
    }
    std::array<QVector3D, 9> result;
    for (size_t i = 0; i < 9; ++i) {
        const double lobe = i == 0 ? 1.0 : i < 4 ? 2.0 / 3.0 : 0.25; // of the cosine, by pi
        result[i] = QVector3D(float(lobe * sums[i][0]), float(lobe * sums[i][1]), float(lobe * sums[i][2]));
    }
    damp(&result);
    return result;
}

Environment bake(const Panorama &shown, Panorama source, const ShadowMapLight &key)
{
    Environment result;
    result.width = shown.width;
    result.height = shown.height;
    result.radiance.resize(4 * qsizetype(shown.width) * shown.height);
    qfloat16 *texels = result.radiance.data();
    forRows(shown.height, [&](int y) {
        for (int x = 0; x < shown.width; ++x)
            store(texels + 4 * (qsizetype(y) * shown.width + x), shown.at(x, y));
    });
    result.specular = specularAtlas(source);
    while (source.width > 256 && source.width % 2 == 0 && source.height % 2 == 0)
        source = source.halved();
    result.irradiance = irradianceOf(source);
    result.key = key;
    return result;
}

// A rectangle of light around a direction, with soft edges.
class SoftBox
{
public:
    SoftBox(const Direction &towards, float halfWidth, float halfHeight, float softness, const Rgb &color)
        : _middle(normalized(towards)), _right(normalized(cross({0.0f, 1.0f, 0.001f}, _middle))),
          _up(cross(_middle, _right)), _halfWidth(halfWidth), _halfHeight(halfHeight), _softness(softness),
          _color(color)
    {}
    Rgb from(const Direction &d) const
    {
        const float ahead = dot(d, _middle);
        if (ahead <= 0.05f)
            return {};
        const float x = std::abs(dot(d, _right)) / ahead;
        const float y = std::abs(dot(d, _up)) / ahead;
        return edge(x, _halfWidth) * edge(y, _halfHeight) * _color;
    }

private:
    float edge(float at, float half) const
    {
        const float t = std::clamp((half + _softness - at) / (2.0f * _softness), 0.0f, 1.0f);
        return t * t * (3.0f - 2.0f * t);
    }

    Direction _middle;
    Direction _right;
    Direction _up;
    float _halfWidth;
    float _halfHeight;
    float _softness;
    Rgb _color;
};

float smooth(float from, float to, float at)
{
    const float t = std::clamp((at - from) / (to - from), 0.0f, 1.0f);
    return t * t * (3.0f - 2.0f * t);
}

ShadowMapLight keyLight(const Direction &towards, const Rgb &color)
{
    ShadowMapLight key = ShadowMapLight::directional({-towards.x, -towards.y, -towards.z});
    key.color = {color.r, color.g, color.b};
    return key;
}

struct BuiltIn
{
    const char *name;
    Rgb (*radiance)(const Direction &d);
    Direction key;
    Rgb keyColor;
};

// A grey room, lighter towards the ceiling, with a floor that throws light back; the key box, a broad fill at its
// other side, a bank above, and two strips behind that draw the outlines.
Rgb studio(const Direction &d)
{
    static const SoftBox kBoxes[] = {
        {{-0.62f, 0.72f, 0.42f}, 0.42f, 0.42f, 0.07f, {4.6f, 4.4f, 4.1f}},
        {{0.95f, 0.25f, 0.55f}, 0.50f, 0.70f, 0.20f, {0.75f, 0.79f, 0.86f}},
        {{0.10f, 1.0f, -0.35f}, 0.60f, 0.30f, 0.10f, {1.5f, 1.5f, 1.5f}},
        {{0.75f, 0.35f, -0.85f}, 0.12f, 0.75f, 0.05f, {4.2f, 4.3f, 4.5f}},
        {{-0.95f, 0.30f, -0.75f}, 0.10f, 0.70f, 0.05f, {2.8f, 2.8f, 2.9f}},
    };
    const Rgb wall = mix({0.20f, 0.205f, 0.215f}, {0.42f, 0.425f, 0.44f}, smooth(-0.1f, 0.9f, d.y));
    Rgb color = mix(wall, {0.33f, 0.325f, 0.32f}, smooth(0.0f, -0.5f, d.y));
    for (const SoftBox &box : kBoxes)
        color += box.from(d);
    return color;
}

// The overcast sky of the CIE, three times as bright above as at the horizon, over light ground.
Rgb overcast(const Direction &d)
{
    const Rgb sky = (1.0f + 2.0f * std::max(d.y, 0.0f)) / 3.0f * Rgb{1.35f, 1.42f, 1.5f};
    return mix(sky, {0.34f, 0.33f, 0.31f}, smooth(0.02f, -0.06f, d.y));
}

constexpr Direction kSun{-0.52f, 0.62f, 0.58f};

// A clear sky: blue above, pale at the horizon, a halo around the sun.
Rgb sunny(const Direction &d)
{
    static const Direction kTowards = normalized(kSun);
    const float high = std::max(d.y, 0.0f);
    const float toSun = std::max(0.0f, dot(d, kTowards));
    Rgb sky = mix({0.95f, 1.02f, 1.1f}, {0.16f, 0.33f, 0.72f}, std::pow(high, 0.5f));
    sky += (0.35f * std::pow(toSun, 6.0f) + 1.8f * std::pow(toSun, 90.0f)) * Rgb{1.0f, 0.86f, 0.66f};
    const Rgb ground = mix({0.5f, 0.5f, 0.48f}, {0.34f, 0.32f, 0.29f}, smooth(0.0f, -0.6f, d.y));
    return mix(sky, ground, smooth(0.01f, -0.03f, d.y));
}

// After dark: a deep sky, the glow of a town along the horizon, and two cool lamps behind that draw the outlines.
Rgb night(const Direction &d)
{
    static const SoftBox kLamps[] = {
        {{0.80f, 0.45f, -0.60f}, 0.16f, 0.70f, 0.08f, {3.0f, 4.4f, 7.2f}},
        {{-0.95f, 0.25f, -0.30f}, 0.12f, 0.60f, 0.08f, {2.2f, 3.3f, 5.5f}},
    };
    const float horizon = std::exp(-30.0f * d.y * d.y) * (0.55f - 0.45f * d.z);
    Rgb color = mix({0.035f, 0.05f, 0.085f}, {0.012f, 0.018f, 0.04f}, smooth(0.0f, 0.8f, d.y));
    color += horizon * Rgb{0.62f, 0.30f, 0.12f};
    for (const SoftBox &lamp : kLamps)
        color += lamp.from(d);
    return color;
}

constexpr BuiltIn kBuiltIn[] = {
    {"studio", studio, {-0.62f, 0.82f, 0.42f}, {1.2f, 1.16f, 1.1f}},
    {"overcast", overcast, {-0.25f, 1.0f, 0.3f}, {0.12f, 0.12f, 0.125f}},
    {"sun", sunny, kSun, {2.5f, 2.3f, 1.95f}},
    {"night", night, {-0.5f, 0.75f, -0.45f}, {0.24f, 0.33f, 0.54f}},
};

Panorama panoramaOf(const QImage &picture)
{
    // Linear floats in both cases; alpha is of no use here.
    QImage image = picture;
    const bool isFloat = image.pixelFormat().typeInterpretation() == QPixelFormat::FloatingPoint;
    if (isFloat)
        image = image.convertToFormat(QImage::Format_RGBX32FPx4);
    else if (image.depth() > 32)
        image = image.convertToFormat(QImage::Format_RGBX64);
    else
        image = image.convertToFormat(QImage::Format_RGB32);
    std::array<float, 256> decoded;
    const auto decode = [](float v) { return v <= 0.04045f ? v / 12.92f : std::pow((v + 0.055f) / 1.055f, 2.4f); };
    for (size_t i = 0; i < decoded.size(); ++i)
        decoded[i] = decode(float(i) / 255.0f);
    const auto finite = [](float v) { return std::isfinite(v) ? std::max(v, 0.0f) : v > 0.0f ? 1e9f : 0.0f; };
    Panorama panorama(image.width(), image.height());
    forRows(panorama.height, [&](int y) {
        const uchar *line = image.constScanLine(panorama.height - 1 - y);
        for (int x = 0; x < panorama.width; ++x) {
            Rgb &texel = panorama.at(x, y);
            if (isFloat) {
                const float *v = reinterpret_cast<const float *>(line) + 4 * x;
                texel = {finite(v[0]), finite(v[1]), finite(v[2])};
            } else if (image.depth() > 32) {
                const quint16 *v = reinterpret_cast<const quint16 *>(line) + 4 * x;
                texel = {decode(float(v[0]) / 65535.0f), decode(float(v[1]) / 65535.0f),
                         decode(float(v[2]) / 65535.0f)};
            } else {
                const QRgb v = reinterpret_cast<const QRgb *>(line)[x];
                texel = {decoded[size_t(qRed(v))], decoded[size_t(qGreen(v))], decoded[size_t(qBlue(v))]};
            }
        }
    });
    return panorama;
}

// Takes what is far brighter than the rest out of the picture.
ShadowMapLight takeKey(Panorama *panorama)
{
    double mean = 0.0;
    for (int y = 0; y < panorama->height; ++y) {
        double row = 0.0;
        for (int x = 0; x < panorama->width; ++x)
            row += double(luminance(panorama->at(x, y)));
        mean += row * panorama->solidAngle(y) / (4.0 * std::numbers::pi);
    }
    const auto most = float(kKeyFrom * mean);
    std::array<double, 3> energy{};
    std::array<double, 3> towards{};
    for (int y = 0; most > 0.0f && y < panorama->height; ++y) {
        const double angle = panorama->solidAngle(y);
        for (int x = 0; x < panorama->width; ++x) {
            Rgb &texel = panorama->at(x, y);
            const float bright = luminance(texel);
            if (bright <= most)
                continue;
            const Rgb kept = (most / bright) * texel;
            energy[0] += angle * double(texel.r - kept.r);
            energy[1] += angle * double(texel.g - kept.g);
            energy[2] += angle * double(texel.b - kept.b);
            const Direction d = panorama->direction(x, y);
            const double weight = angle * double(bright - most);
            towards[0] += weight * double(d.x);
            towards[1] += weight * double(d.y);
            towards[2] += weight * double(d.z);
            texel = kept;
        }
    }
    const Direction sum{float(towards[0]), float(towards[1]), float(towards[2])};
    const bool hasKey = dot(sum, sum) > 0.0f;
    // A light counts by the irradiance that it gives a surface that faces it, by pi.
    const auto color = [&](int i) { return float(energy[size_t(i)] / std::numbers::pi); };
    return hasKey ? keyLight(normalized(sum), {color(0), color(1), color(2)}) : keyLight({0.0f, 1.0f, 0.0f}, {});
}

} // namespace

QPointF octahedral(const QVector3D &direction)
{
    const Place place = octahedralPlace({direction.x(), direction.y(), direction.z()});
    return {double(place.u), double(place.v)};
}

QVector3D octahedralDirection(const QPointF &place)
{
    const Direction d = directionAt({float(place.x()), float(place.y())});
    return {d.x, d.y, d.z};
}

QStringList environmentNames()
{
    QStringList names;
    for (const BuiltIn &builtIn : kBuiltIn)
        names << QLatin1StringView(builtIn.name);
    return names;
}

namespace {

Environment made(const BuiltIn &builtIn)
{
    Panorama panorama(kBuiltInWidth, kBuiltInWidth / 2);
    forRows(panorama.height, [&](int y) {
        for (int x = 0; x < panorama.width; ++x)
            panorama.at(x, y) = builtIn.radiance(panorama.direction(x, y));
    });
    return bake(panorama, panorama, keyLight(normalized(builtIn.key), builtIn.keyColor));
}

} // namespace

// Kept once it is made, 5 MB each: it takes longer than a frame, and a batch wants it for every picture.
std::optional<Environment> environmentNamed(const QString &name)
{
    static std::mutex mutex;
    static std::optional<Environment> known[std::size(kBuiltIn)];
    for (std::size_t i = 0; i < std::size(kBuiltIn); ++i) {
        if (name != QLatin1StringView(kBuiltIn[i].name))
            continue;
        const std::lock_guard lock(mutex);
        if (!known[i])
            known[i] = made(kBuiltIn[i]);
        return known[i];
    }
    return std::nullopt;
}

Environment environmentOf(const QImage &picture)
{
    if (picture.isNull())
        return bake(Panorama(2, 1), Panorama(2, 1), keyLight({0.0f, 1.0f, 0.0f}, {}));
    Panorama panorama = panoramaOf(picture);
    const ShadowMapLight key = takeKey(&panorama);
    const auto canHalve = [](const Panorama &p) { return p.width % 2 == 0 && p.height % 2 == 0; };
    while (panorama.width > kLargestRadiance && canHalve(panorama))
        panorama = panorama.halved();
    Panorama source = panorama;
    while (source.width > kLargestSource && canHalve(source))
        source = source.halved();
    return bake(panorama, std::move(source), key);
}

namespace {

// How much of its light a lobe that is seen from above has along its axis, for steps of roughness.
std::array<float, 65> concentrations()
{
    std::array<float, 65> result{};
    for (size_t i = 0; i < result.size(); ++i) {
        float sum = 0.0f;
        for (const LobeTap &tap : lobe(std::max(float(i) / 64.0f, 0.02f), 512))
            sum += tap.weight * tap.toLight.z;
        result[i] = sum;
    }
    return result;
}

// The roughness of the lobe from above that is as wide.
float roughnessFor(const std::array<float, 65> &concentration, float wanted)
{
    size_t i = 1;
    while (i + 1 < concentration.size() && concentration[i] > wanted)
        ++i;
    const float t = (concentration[i - 1] - wanted) / (concentration[i - 1] - concentration[i]);
    return std::clamp((float(i - 1) + t) / 64.0f, 0.0f, 1.0f);
}

} // namespace

// Half vectors are drawn as the viewer sees them (Heitz, 2018), so that a sample weighs what masking leaves of it.
QVector<float> specularTable(int side)
{
    constexpr int kSamples = 256;
    QVector<float> table(4 * side * side);
    float *const texels = table.data();
    const std::array<float, 65> concentration = concentrations();
    forRows(side, [&](int row) {
        const float roughness = std::max(float(row) / float(side - 1), 0.02f);
        const float alpha = roughness * roughness;
        const float alpha2 = alpha * alpha;
        for (int column = 0; column < side; ++column) {
            const float place = float(column) / float(side - 1);
            // Straight from above there is no side to which the lobe could lean: what it does nearby goes on.
            const float facing = std::clamp(place * place, 1e-4f, 0.999f);
            const Direction view{std::sqrt(1.0f - facing * facing), 0.0f, facing};
            const Direction stretched = normalized({alpha * view.x, 0.0f, view.z});
            const Direction across{0.0f, 1.0f, 0.0f};
            const Direction along = cross(stretched, across);
            const float maskView = std::sqrt(alpha2 + (1.0f - alpha2) * facing * facing);
            double sums[2] = {};
            double mean[2] = {}; // away from the viewer, along the normal
            for (int i = 0; i < kSamples; ++i) {
                const float radius = std::sqrt((float(i) + 0.5f) / float(kSamples));
                const float angle = 2.0f * kPi * radicalInverse(quint32(i));
                const float a = radius * std::cos(angle);
                const float share = 0.5f * (1.0f + stretched.z);
                const float b = (1.0f - share) * std::sqrt(1.0f - a * a) + share * radius * std::sin(angle);
                const float c = std::sqrt(std::max(0.0f, 1.0f - a * a - b * b));
                const Direction seen{a * across.x + b * along.x + c * stretched.x,
                                     a * across.y + b * along.y + c * stretched.y,
                                     a * across.z + b * along.z + c * stretched.z};
                const Direction half = normalized({alpha * seen.x, alpha * seen.y, std::max(1e-6f, seen.z)});
                const float toHalf = dot(view, half);
                const float light = 2.0f * toHalf * half.z - view.z;
                if (light <= 0.0f)
                    continue;
                const float maskLight = std::sqrt(alpha2 + (1.0f - alpha2) * light * light);
                // Masking and shadowing together over masking alone.
                const float visible = light * (facing + maskView) / (facing * maskLight + light * maskView);
                const float fresnel = std::pow(std::max(0.0f, 1.0f - toHalf), 5.0f);
                sums[0] += double(visible * (1.0f - fresnel));
                sums[1] += double(visible * fresnel);
                mean[0] += double(visible * (view.x - 2.0f * toHalf * half.x));
                mean[1] += double(visible * light);
            }
            const double all = sums[0] + sums[1];
            const double slope = std::max(mean[0], 0.0) / mean[1];
            const auto lean = float(slope / (double(view.x) + slope * (1.0 - double(facing))));
            const auto width = float(std::sqrt(mean[0] * mean[0] + mean[1] * mean[1]) / all);
            float *texel = texels + 4 * (row * side + column);
            texel[0] = float(sums[0] / kSamples);
            texel[1] = float(sums[1] / kSamples);
            texel[2] = std::clamp(lean, 0.0f, 1.0f);
            texel[3] = roughnessFor(concentration, width);
        }
    });
    return table;
}

} // namespace Brevane::Kvo
