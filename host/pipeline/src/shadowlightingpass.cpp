#include "host/shadowlightingpass.h"

#include "gl/shaderprogram.h"
#include "shadows/shadowmapmanager.h"

#include <QColor>
#include <QMatrix4x4>

namespace Brevane::Kvo {

namespace {

enum Input {
    kViewport,
    kDiffuse,
    kSpecular,
    kNormal,
    kDepth,
    kProjectionMatrix,
    kCameraMatrix,
    kShadowMapData,
    kAmbient,
    kLightBleeding,
    kMinimumVariance
};

const QString kFragmentShader = QStringLiteral(R"(#version 150
#define KVO_SHADOW_LAYERS 32
#define KVO_SHADOW_LIGHTS 16
#include "ShadowMap.glslc"

uniform sampler2D u_Diffuse;
uniform sampler2D u_Specular;
uniform sampler2D u_Normal;
uniform sampler2D u_Depth;
uniform mat4 u_ToWorld; // from clip space
uniform mat4 u_CameraToWorld;
uniform vec4 Kvo_QColor_Ambient;

out vec4 o_Frame;

void main()
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  float depth = texelFetch(u_Depth, texel, 0).r;
  if(depth >= 1.0)
  {
    o_Frame = vec4(0.0);
    return;
  }
  vec2 size = vec2(textureSize(u_Depth, 0));
  vec4 world = u_ToWorld * vec4(vec3(gl_FragCoord.xy / size, depth) * 2.0 - 1.0, 1.0);
  vec3 position = world.xyz / world.w;
  vec3 normal = normalize(mat3(u_CameraToWorld) * texelFetch(u_Normal, texel, 0).xyz);
  vec3 toViewer = normalize(u_CameraToWorld[3].xyz - position);
  vec3 diffuse = texelFetch(u_Diffuse, texel, 0).rgb;
  vec4 specular = texelFetch(u_Specular, texel, 0);

  vec3 color = diffuse * Kvo_QColor_Ambient.rgb * (0.75 + 0.25 * normal.y);
  for(int light = 0; light < kvo_shadowLightCount(); ++light)
  {
    vec3 toLight;
    vec3 incoming = kvo_shadowLightColor(light, position, toLight);
    float facing = dot(normal, toLight);
    if(facing <= 0.0)
      continue;
    // Where a surface turns away from the light its own depth spreads within a texel of the map.
    float visible = kvo_shadowVisibility(light, position) * smoothstep(0.0, 0.15, facing);
    float highlight = pow(max(dot(normal, normalize(toLight + toViewer)), 0.0), max(specular.a, 1.0));
    color += incoming * visible * (diffuse * facing + specular.rgb * highlight);
  }
  o_Frame = vec4(color, 1.0);
}
)");

// The viewport is described above this class.
constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_KvoTexture*_Diffuse", .meaning = "diffuse colour", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Specular", .meaning = "specular colour, exponent in alpha", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Normal", .meaning = "unit normal in camera space", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Depth", .meaning = "window depth; 1 is background", .kind = SlotKind::Texture},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix",
     .meaning = "camera to clip space, as the model was drawn with",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space, likewise", .kind = SlotKind::Matrix},
    {.name = "Kvo_QVariant_ShadowMapData",
     .meaning = "of a shadow pass; none: only the ambient light",
     .kind = SlotKind::Record},
    {.name = "Kvo_QColor_Ambient",
     .meaning = "light from everywhere, less where normals look down",
     .kind = SlotKind::Color},
    {.name = "Kvo_float_LightBleeding",
     .meaning = "see ShadowMapManager::Sampling",
     .kind = SlotKind::Factor,
     .range = {0, 0.99, 0.01}},
    {.name = "Kvo_float_MinimumVariance",
     .meaning = "see ShadowMapManager::Sampling",
     .kind = SlotKind::Threshold,
     .range = {0, 1, 1e-6}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the lit image; alpha 0 where nothing was drawn",
     .kind = SlotKind::Texture,
     .format = "pool format 3"},
};

constexpr PassInfo kInfo = {"ShadowLightingPass", "lights what ModelRenderPass drew with the lights of a shadow pass",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

ShadowLightingPass::ShadowLightingPass()
{
    addInput(QStringLiteral("Kvo_KvoTexture*_Diffuse"), QVariant(), kDiffuse);
    addInput(QStringLiteral("Kvo_KvoTexture*_Specular"), QVariant(), kSpecular);
    addInput(QStringLiteral("Kvo_KvoTexture*_Normal"), QVariant(), kNormal);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_QVariant_ShadowMapData"), QVariant(), kShadowMapData);
    addInput(QStringLiteral("Kvo_QColor_Ambient"), QColor(0x40, 0x48, 0x58), kAmbient);
    addInput(QStringLiteral("Kvo_float_LightBleeding"), ShadowMapManager::Sampling().lightBleeding, kLightBleeding);
    addInput(QStringLiteral("Kvo_float_MinimumVariance"), ShadowMapManager::Sampling().minimumVariance,
             kMinimumVariance);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), 0);
    describe(kInfo);
    setFragmentShaderSource(kFragmentShader);
    setName(QStringLiteral("ShadowLightingPass"));
}

void ShadowLightingPass::setUniforms()
{
    ShadowShaderPass::setUniforms();
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    _program->setUniform(QStringLiteral("u_ToWorld"), (projection * camera).inverted());
    _program->setUniform(QStringLiteral("u_CameraToWorld"), camera.inverted());
}

} // namespace Brevane::Kvo
