#pragma once

#include <QVector3D>

#include <assimp/material.h>

#include <algorithm>
#include <cmath>

namespace Brevane::Kvo {

/// Share of light that glass, plastic and the like reflect head-on.
constexpr float kDielectric = 0.04f;

/// A number of a material; the other one where there is none, or none that is finite.
inline float materialNumber(const aiMaterial &material, const char *key, float fallback)
{
    ai_real value = fallback;
    if (material.Get(key, 0, 0, value) != AI_SUCCESS || !std::isfinite(value))
        return fallback;
    return value;
}

/// A colour of a material. False, and nothing is changed, where there is none that is finite.
inline bool materialColor(const aiMaterial &material, const char *key, QVector3D *rgb, float *alpha = nullptr)
{
    aiColor4D value(0, 0, 0, 1);
    if (material.Get(key, 0, 0, value) != AI_SUCCESS)
        return false;
    for (const float component : {value.r, value.g, value.b, value.a})
        if (!std::isfinite(component))
            return false;
    *rgb = QVector3D(std::max(value.r, 0.0f), std::max(value.g, 0.0f), std::max(value.b, 0.0f));
    if (alpha)
        *alpha = value.a;
    return true;
}

inline bool materialHas(const aiMaterial &material, const char *key)
{
    const aiMaterialProperty *property = nullptr;
    return aiGetMaterialProperty(&material, key, 0, 0, &property) == AI_SUCCESS;
}

} // namespace Brevane::Kvo
