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

constexpr int kFloatsPerTexel = 4;
constexpr int kMaterialFloats = int(sizeof(MaterialTexels) / sizeof(float));
constexpr int kMaterialTexels = kMaterialFloats / kFloatsPerTexel;
static_assert(kMaterialTexels * kFloatsPerTexel == kMaterialFloats);

/// Where a member of MaterialTexels stands among the floats of its draw.
constexpr int materialFloat(std::size_t offset)
{
    return int(offset / sizeof(float));
}

} // namespace Brevane::Kvo
