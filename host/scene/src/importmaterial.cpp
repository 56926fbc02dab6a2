#include "importmaterial.h"

#include "importimages.h"
#include "importsurface.h"
#include "materialreading.h"

#include <assimp/GltfMaterial.h>
#include <assimp/material.h>

#include <algorithm>
#include <cmath>

namespace Brevane::Kvo {

namespace {

constexpr float kMaxExponent = 1024.0f;
constexpr float kDiffuseShareOfMetal = 0.5f;

QVector3D displayed(const QVector3D &linear)
{
    QVector3D result;
    for (int i = 0; i < 3; ++i) {
        const float c = std::min(linear[i], 1.0f);
        result[i] = c <= 0.0031308f ? c * 12.92f : std::min(1.055f * std::pow(c, 1.0f / 2.4f) - 0.055f, 1.0f);
    }
    return result;
}

QVector3D mixed(const QVector3D &a, const QVector3D &b, float share)
{
    return a * (1.0f - share) + b * share;
}

// The Blinn-Phong exponent whose highlight is about as wide as a microfacet one of that roughness.
float exponentOfRoughness(float roughness)
{
    const float alpha = std::max(roughness * roughness, 0.01f);
    return std::clamp(2.0f / (alpha * alpha) - 2.0f, 1.0f, kMaxExponent);
}

QImage map(const aiMaterial &material, std::initializer_list<aiTextureType> types, ImportImages *images,
           const QString &name)
{
    if (!images)
        return QImage();
    for (const aiTextureType type : types) {
        aiString path;
        if (material.GetTexture(type, 0, &path) == AI_SUCCESS && path.length > 0)
            return images->load(QString::fromUtf8(path.C_Str()), name);
    }
    return QImage();
}

void readMetallicRoughness(const aiMaterial &source, ModelMaterial *material)
{
    QVector3D base = material->Kd;
    materialColor(source, "$clr.base", &base, &material->D);
    base = displayed(base);
    const float metallic = std::clamp(materialNumber(source, "$mat.metallicFactor", 1.0f), 0.0f, 1.0f);
    const float roughness = std::clamp(materialNumber(source, "$mat.roughnessFactor", 1.0f), 0.0f, 1.0f);
    material->Kd = base * (1.0f - metallic * (1.0f - kDiffuseShareOfMetal));
    // A wide highlight spreads the light that a narrow one gathers.
    material->Ks = mixed(QVector3D(kDielectric, kDielectric, kDielectric), base, metallic) * (1.0f - roughness);
    material->Ns = exponentOfRoughness(roughness);
}

void readSpecularGlossiness(const aiMaterial &source, ModelMaterial *material)
{
    materialColor(source, "$clr.diffuse", &material->Kd, &material->D);
    materialColor(source, "$clr.specular", &material->Ks);
    const float glossiness = std::clamp(materialNumber(source, "$mat.glossinessFactor", 1.0f), 0.0f, 1.0f);
    material->Kd = displayed(material->Kd);
    material->Ks = displayed(material->Ks) * glossiness;
    material->Ns = exponentOfRoughness(1.0f - glossiness);
}

void readClassic(const aiMaterial &source, ModelMaterial *material)
{
    materialColor(source, "$clr.diffuse", &material->Kd);
    materialColor(source, "$clr.specular", &material->Ks);
    // Some formats keep the strength of the highlight apart from its colour.
    material->Ks *= std::clamp(materialNumber(source, "$mat.shinpercent", 1.0f), 0.0f, 1.0f);
    material->Ns = std::clamp(materialNumber(source, "$mat.shininess", 0.0f), 0.0f, kMaxExponent);
    // No exponent or 0 means "no highlight" in these files, but a highlight everywhere in the formula.
    if (material->Ns < 1.0f) {
        material->Ns = 1.0f;
        material->Ks = QVector3D(0.0f, 0.0f, 0.0f);
    }
    material->D = materialNumber(source, "$mat.opacity", 1.0f);
}

} // namespace

ModelMaterial importMaterial(const aiMaterial &source, ImportImages *images)
{
    ModelMaterial material;
    material.name = QString::fromUtf8(source.GetName().C_Str());
    // In this order: a file with specular and glossiness states base colour and metal as well.
    if (materialHas(source, "$mat.glossinessFactor"))
        readSpecularGlossiness(source, &material);
    else if (materialHas(source, "$mat.metallicFactor") && materialHas(source, "$clr.base"))
        readMetallicRoughness(source, &material);
    else
        readClassic(source, &material);

    aiString alphaMode;
    if (source.Get(AI_MATKEY_GLTF_ALPHAMODE, alphaMode) == AI_SUCCESS && qstrcmp(alphaMode.C_Str(), "OPAQUE") == 0)
        material.D = 1.0f;
    material.D = std::clamp(material.D, 0.0f, 1.0f);
    material.map_Kd = map(source, {aiTextureType_BASE_COLOR, aiTextureType_DIFFUSE}, images, material.name);
    material.map_Ks = map(source, {aiTextureType_SPECULAR}, images, material.name);
    material.surface = importSurface(source, material, images);
    return material;
}

} // namespace Brevane::Kvo
