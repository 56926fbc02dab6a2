#pragma once

#include "host/export.h"
#include "host/shadowshaderpass.h"

namespace Brevane::Kvo {

/// Lights what ModelRenderPass drew with the lights of a shadow pass, their shadows included: a programmable
/// pass that reads the record, as a host may write one of its own.
///
/// | # | Input                               | Type       | Meaning                                            |
/// |---|-------------------------------------|------------|----------------------------------------------------|
/// | 0 | Kvo_QRect_Viewport                  | QRect      | size of the image                                  |
/// | 1 | Kvo_KvoTexture*_Diffuse             | texture    | diffuse colour                                     |
/// | 2 | Kvo_KvoTexture*_Specular            | texture    | specular colour, exponent in alpha                 |
/// | 3 | Kvo_KvoTexture*_Normal              | texture    | unit normal in camera space                        |
/// | 4 | Kvo_KvoTexture*_Depth               | texture    | window depth; 1 is background                      |
/// | 5 | Kvo_QMatrix4x4_ProjectionMatrix     | QMatrix4x4 | camera to clip space, as the model was drawn with  |
/// | 6 | Kvo_QMatrix4x4_CameraMatrix         | QMatrix4x4 | world to camera space, likewise                    |
/// | 7 | Kvo_QVariant_ShadowMapData          | record     | of a shadow pass; none: only the ambient light     |
/// | 8 | Kvo_QColor_Ambient                  | QColor     | light from everywhere, less where normals look down; "#404858" |
/// | 9 | Kvo_float_LightBleeding             | float      | see ShadowMapManager::Sampling; 0.2                |
/// | 10 | Kvo_float_MinimumVariance          | float      | see ShadowMapManager::Sampling; 1e-6               |
///
/// | # | Output                   | Format                                                              |
/// |---|--------------------------|---------------------------------------------------------------------|
/// | 0 | Kvo_KvoTexture*_Frame    | pool format 3; alpha 0 where nothing was drawn                      |
///
/// Blinn-Phong with the viewer in his place. The program has room for 32 layers and 16 lights; lights beyond
/// do not shine, which is said once with their numbers. Light bleeding is bounded by 0 and 0.99, the variance by 0
/// and 1, and that is said too.
/// Leaves changed and needs what ShaderRenderPass does.
class KVO_PIPELINE_EXPORT ShadowLightingPass : public ShadowShaderPass
{
public:
    ShadowLightingPass();

    void setUniforms() override;
};

} // namespace Brevane::Kvo
