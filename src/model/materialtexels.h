#pragma once

#include <cstddef>

namespace Brevane::Kvo {

/// The data of a draw under the plan "OBJMaterial", as GPUModel writes it and the getters read it. What a getter
/// gives lies in one texel.
struct MaterialTexels
{
    float Kd[3];
    float Ns;
    float Ks[3];
    float D;
    float map_Kd; ///< A handle of a managed texture, 0 for none.
    float map_Ks;
    float unused[2];
};

/// The same under the plan "SurfaceMaterial".
struct SurfaceTexels
{
    float baseColor[3];
    float opacity;
    float metalness;
    float roughness;
    float normalScale;
    float occlusionStrength;
    float emission[3];
    float alphaCutoff;
    float map_baseColor; ///< Handles of managed colours, 0 for none.
    float map_emission;
    float map_metalRoughness; ///< Handles of managed data.
    float map_normal;
    float map_occlusion;
    float alphaMode;
    float isTwoSided;
    float isUnlit;
};

constexpr int kFloatsPerTexel = 4;
constexpr int kMaterialFloats = int(sizeof(MaterialTexels) / sizeof(float));
constexpr int kMaterialTexels = kMaterialFloats / kFloatsPerTexel;
static_assert(kMaterialTexels * kFloatsPerTexel == kMaterialFloats);
constexpr int kSurfaceFloats = int(sizeof(SurfaceTexels) / sizeof(float));
constexpr int kSurfaceTexels = kSurfaceFloats / kFloatsPerTexel;
static_assert(kSurfaceTexels * kFloatsPerTexel == kSurfaceFloats);

/// Where a member of MaterialTexels or SurfaceTexels stands among the floats of its draw.
constexpr int materialFloat(std::size_t offset)
{
    return int(offset / sizeof(float));
}

} // namespace Brevane::Kvo
