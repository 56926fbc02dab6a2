#pragma once

#include "host/export.h"
#include "renderpasses/shaderrenderpass.h"

namespace Brevane::Kvo {

class ShadowMapRenderData;

/// A ShaderRenderPass whose shaders may ask for shadows: they include "ShadowMap.glslc", and an input
/// Kvo_QVariant_ShadowMapData, which the host adds, brings what a shadow pass made.
///
/// Inputs of these names, where the host adds them, are no plain uniforms:
///
/// | Input                       | Type   | Meaning                                                             |
/// |-----------------------------|--------|---------------------------------------------------------------------|
/// | Kvo_QVariant_ShadowMapData  | record | of a shadow pass; none: kvo_shadowLightCount is 0                   |
/// | Kvo_float_LightBleeding     | float  | see ShadowMapManager::Sampling; bounded by 0 and 0.99               |
/// | Kvo_float_MinimumVariance   | float  | see ShadowMapManager::Sampling; bounded by 0 and 1                  |
///
/// A number out of its bounds is told once; what is not a number counts as the default.
/// All else is as ShaderRenderPass has it.
class KVO_PIPELINE_EXPORT ShadowShaderPass : public ShaderRenderPass
{
public:
    ShadowShaderPass();

    void start(RenderCallbacks *callbacks) override;
    void setUniforms() override;

protected:
    /// Unbinds what setUniforms bound, once the program has drawn.
    void releaseRecord();

private:
    const ShadowMapRenderData *_record() const;
    float _bounded(const QString &slot, float otherwise, float least, float most);

    const ShadowMapRenderData *_bound = nullptr; // while it draws
};

} // namespace Brevane::Kvo
