#include "importsurface.h"

#include "importimages.h"
#include "materialreading.h"

#include <assimp/GltfMaterial.h>

#include <array>

namespace Brevane::Kvo {

namespace {

constexpr float kMostStrength = 65504.0f; // Of what shines: the largest half float.

bool isTrue(const aiMaterial &material, const char *key)
{
    bool value = false;
    return material.Get(key, 0, 0, value) == AI_SUCCESS && value;
}

/// The maps of a material. Meshes have one set of texture coordinates, so a map for another one is left out.
class SurfaceMaps
{
public:
    SurfaceMaps(const aiMaterial &source, const QString &name, ImportImages *images)
        : _source(source), _name(name), _images(images)
    {}

    QImage load(aiTextureType type) const
    {
        aiString path;
        unsigned set = 0;
        if (!_images || _source.GetTexture(type, 0, &path, nullptr, &set) != AI_SUCCESS || path.length == 0)
            return QImage();
        const QString image = QString::fromUtf8(path.C_Str());
        int namedSet = 0;
        if (_source.Get("$tex.file.texCoord", type, 0, namedSet) == AI_SUCCESS)
            set = unsigned(std::max(namedSet, 0));
        if (set == 0)
            return _images->load(image, _name);
        _images->warn(QStringLiteral("material '%1': image '%2' is left out: it is for texture coordinates %3, and "
                                     "only set 0 is read")
                          .arg(_name, image, QString::number(set)));
        return QImage();
    }
    /// A number that stands with a map.
    float number(const char *key, aiTextureType type) const
    {
        ai_real value = 1;
        return _source.Get(key, unsigned(type), 0, value) == AI_SUCCESS && std::isfinite(value) ? float(value) : 1.0f;
    }
    void warn(const QString &message) const
    {
        if (_images)
            _images->warn(QStringLiteral("material '%1': %2").arg(_name, message));
    }

private:
    const aiMaterial &_source;
    const QString &_name;
    ImportImages *_images;
};

// Roughness and metalness of formats that have an image for each, in one.
QImage joined(const QImage &roughness, const QImage &metalness)
{
    const QSize size = roughness.size().expandedTo(metalness.size());
    if (size.isEmpty())
        return QImage();
    const auto fitted = [size](const QImage &image) {
        if (image.isNull())
            return QImage();
        return image.scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
            .convertToFormat(QImage::Format_RGB32);
    };
    const QImage rough = fitted(roughness);
    const QImage metal = fitted(metalness);
    QImage both(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        auto *line = reinterpret_cast<QRgb *>(both.scanLine(y));
        for (int x = 0; x < size.width(); ++x)
            line[x] = qRgb(255, rough.isNull() ? 255 : qRed(rough.pixel(x, y)),
                           metal.isNull() ? 255 : qRed(metal.pixel(x, y)));
    }
    return both;
}

// glTF's comes under a type of its own that has no name.
QImage metalRoughnessMap(const SurfaceMaps &maps)
{
    const QImage together = maps.load(aiTextureType_UNKNOWN);
    return together.isNull() ? joined(maps.load(aiTextureType_DIFFUSE_ROUGHNESS), maps.load(aiTextureType_METALNESS))
                             : together;
}

float decoded(int byte)
{
    static const auto table = [] {
        std::array<float, 256> values{};
        for (std::size_t i = 0; i < values.size(); ++i) {
            const double v = double(i) / 255.0;
            values[i] = float(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
        }
        return values;
    }();
    return table[std::size_t(byte)];
}

int encoded(float linear)
{
    const float c = std::clamp(linear, 0.0f, 1.0f);
    return int(std::lround(255.0f * (c <= 0.0031308f ? c * 12.92f : 1.055f * std::pow(c, 1.0f / 2.4f) - 0.055f)));
}

QVector3D decoded(QRgb color)
{
    return {decoded(qRed(color)), decoded(qGreen(color)), decoded(qBlue(color))};
}

void readMetallicRoughness(const aiMaterial &source, const SurfaceMaps &maps, ModelSurface *surface)
{
    materialColor(source, "$clr.base", &surface->baseColor);
    surface->metalness = std::clamp(materialNumber(source, "$mat.metallicFactor", 1.0f), 0.0f, 1.0f);
    surface->roughness = std::clamp(materialNumber(source, "$mat.roughnessFactor", 1.0f), 0.0f, 1.0f);
    surface->map_baseColor = maps.load(aiTextureType_BASE_COLOR);
    if (surface->map_baseColor.isNull())
        surface->map_baseColor = maps.load(aiTextureType_DIFFUSE);
    surface->map_metalRoughness = metalRoughnessMap(maps);
}

// Texel by texel, since metalness follows from both maps together.
void convertSpecularMaps(const QVector3D &diffuse, const QVector3D &specular, float glossiness, const QImage &colors,
                         const QImage &gloss, ModelSurface *surface)
{
    const QSize size = colors.size().expandedTo(gloss.size());
    const auto fitted = [size](const QImage &image) {
        if (image.isNull()) {
            QImage white(1, 1, QImage::Format_ARGB32);
            white.fill(Qt::white);
            return white.scaled(size);
        }
        return image.scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
            .convertToFormat(QImage::Format_ARGB32);
    };
    const QImage from = fitted(colors);
    const QImage reflected = fitted(gloss);
    QImage base(size, QImage::Format_ARGB32);
    QImage metalRoughness(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        const auto *fromLine = reinterpret_cast<const QRgb *>(from.constScanLine(y));
        const auto *reflectedLine = reinterpret_cast<const QRgb *>(reflected.constScanLine(y));
        auto *baseLine = reinterpret_cast<QRgb *>(base.scanLine(y));
        auto *metalLine = reinterpret_cast<QRgb *>(metalRoughness.scanLine(y));
        for (int x = 0; x < size.width(); ++x) {
            const MetalColor color = metalColorOf(decoded(fromLine[x]) * diffuse, decoded(reflectedLine[x]) * specular);
            baseLine[x] = qRgba(encoded(color.baseColor.x()), encoded(color.baseColor.y()),
                                encoded(color.baseColor.z()), qAlpha(fromLine[x]));
            const float roughness = 1.0f - glossiness * float(qAlpha(reflectedLine[x])) / 255.0f;
            metalLine[x] = qRgb(255, int(std::lround(255.0f * roughness)), int(std::lround(255.0f * color.metalness)));
        }
    }
    surface->map_baseColor = base;
    surface->map_metalRoughness = metalRoughness;
    surface->metalness = 1.0f;
    surface->roughness = 1.0f;
}

void readSpecularGlossiness(const aiMaterial &source, const SurfaceMaps &maps, ModelSurface *surface)
{
    QVector3D diffuse(1.0f, 1.0f, 1.0f);
    QVector3D specular(1.0f, 1.0f, 1.0f);
    materialColor(source, "$clr.diffuse", &diffuse);
    materialColor(source, "$clr.specular", &specular);
    const float glossiness = std::clamp(materialNumber(source, "$mat.glossinessFactor", 1.0f), 0.0f, 1.0f);
    const QImage colors = maps.load(aiTextureType_DIFFUSE);
    const QImage gloss = maps.load(aiTextureType_SPECULAR);
    if (!gloss.isNull()) {
        convertSpecularMaps(diffuse, specular, glossiness, colors, gloss, surface);
        return;
    }
    const MetalColor color = metalColorOf(diffuse, specular);
    surface->baseColor = color.baseColor;
    surface->metalness = color.metalness;
    surface->roughness = 1.0f - glossiness;
    surface->map_baseColor = colors;
}

} // namespace

// Reflected head-on: 4 % of what is no metal and the base colour b of a metal, m the metalness, so s = 0.04 (1 - m) +
// b m; scattered: d = b (1 - m). Without b that is 0.04 m^2 + (d + s - 0.08) m + 0.04 - s = 0, solved for luminances.
MetalColor metalColorOf(const QVector3D &diffuse, const QVector3D &specular)
{
    const auto luminance = [](const QVector3D &c) {
        return 0.2126 * double(c.x()) + 0.7152 * double(c.y()) + 0.0722 * double(c.z());
    };
    constexpr double kLeast = kDielectric;
    const double d = luminance(diffuse);
    const double s = luminance(specular);
    if (s <= kLeast)
        return {diffuse, 0.0f};
    const double half = (d + s - 2.0 * kLeast) / 2.0;
    const double metalness =
        std::clamp((std::sqrt(std::max(half * half - kLeast * (kLeast - s), 0.0)) - half) / kLeast, 0.0, 1.0);
    const auto m = float(metalness);
    // Either equation gives the colour; each is sure of it where it has the larger share.
    QVector3D color;
    for (int i = 0; i < 3; ++i) {
        const float scattered = m < 1.0f ? diffuse[i] / (1.0f - m) : 0.0f;
        const float reflected = m > 0.0f ? (specular[i] - kDielectric * (1.0f - m)) / m : 0.0f;
        color[i] = std::clamp(scattered + (reflected - scattered) * m * m, 0.0f, 1.0f);
    }
    return {color, m};
}

std::optional<ModelSurface> importSurface(const aiMaterial &source, const ModelMaterial &material, ImportImages *images)
{
    const SurfaceMaps maps(source, material.name, images);
    ModelSurface surface = surfaceOf(material);
    bool isPhysical = true;
    // In this order: a file with specular and glossiness states base colour and metal as well.
    if (materialHas(source, "$mat.glossinessFactor"))
        readSpecularGlossiness(source, maps, &surface);
    else if (materialHas(source, "$mat.metallicFactor") && materialHas(source, "$clr.base"))
        readMetallicRoughness(source, maps, &surface);
    else
        isPhysical = false;

    surface.map_normal = maps.load(aiTextureType_NORMALS);
    surface.normalScale = maps.number(_AI_MATKEY_GLTF_SCALE_BASE, aiTextureType_NORMALS);
    surface.map_emission = maps.load(aiTextureType_EMISSIVE);
    if (!surface.map_emission.isNull())
        surface.emission = QVector3D(1.0f, 1.0f, 1.0f);
    materialColor(source, "$clr.emissive", &surface.emission);
    surface.emission *= std::clamp(materialNumber(source, "$mat.emissiveIntensity", 1.0f), 0.0f, kMostStrength);
    if (isPhysical) {
        surface.map_occlusion = maps.load(aiTextureType_LIGHTMAP);
        surface.occlusionStrength =
            std::clamp(maps.number(_AI_MATKEY_GLTF_STRENGTH_BASE, aiTextureType_LIGHTMAP), 0.0f, 1.0f);
    }

    aiString alphaMode;
    if (source.Get(AI_MATKEY_GLTF_ALPHAMODE, alphaMode) == AI_SUCCESS) {
        const QLatin1StringView mode(alphaMode.C_Str());
        surface.alphaMode = mode == QLatin1StringView("MASK")    ? AlphaMode::Mask
                            : mode == QLatin1StringView("BLEND") ? AlphaMode::Blend
                                                                 : AlphaMode::Opaque;
        surface.alphaCutoff = materialNumber(source, "$mat.gltf.alphaCutoff", 0.5f);
        // Only files of this kind say it of all their materials.
        surface.isTwoSided = isTrue(source, "$mat.twosided");
    }
    surface.isUnlit = isTrue(source, "$mat.gltf.unlit");

    const bool saysMore = !surface.map_normal.isNull() || !surface.map_emission.isNull() || !surface.emission.isNull();
    return isPhysical || saysMore ? std::optional(surface) : std::nullopt;
}

} // namespace Brevane::Kvo
