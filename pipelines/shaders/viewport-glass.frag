#version 150
#define KVO_SHADOW_LAYERS 32
#define KVO_SHADOW_LIGHTS 16
#include "ShadowMap.glslc"

// Lights surfaces that let light through as ShadowLightingPass lights the others: in codes, with shadows.

uniform sampler2D u_BaseColor; // linear, opacity in alpha
uniform sampler2D u_Surface; // roughness, metalness; alpha 0: shows its base colour whatever the light
uniform sampler2D u_Emission;
uniform sampler2D u_Normal; // in camera space
uniform sampler2D u_Depth;
uniform vec4 Kvo_QColor_Ambient;

flat in mat4 vo_ToWorld;
flat in mat4 vo_CameraToWorld;

out vec4 o_Frame;

vec3 encoded(vec3 c)
{
  return mix(12.92 * c, 1.055 * pow(c, vec3(1.0 / 2.4)) - 0.055, step(0.0031308, c));
}

void main()
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  vec4 base = texelFetch(u_BaseColor, texel, 0);
  vec4 surface = texelFetch(u_Surface, texel, 0);
  vec3 emission = encoded(clamp(texelFetch(u_Emission, texel, 0).rgb, 0.0, 1.0));
  vec3 diffuse = encoded(clamp(base.rgb, 0.0, 1.0));
  if(surface.a < 0.5)
  {
    o_Frame = vec4(diffuse + emission, base.a);
    return;
  }
  vec2 place = gl_FragCoord.xy / vec2(textureSize(u_Depth, 0));
  vec4 world = vo_ToWorld * vec4(vec3(place, texelFetch(u_Depth, texel, 0).r) * 2.0 - 1.0, 1.0);
  vec3 position = world.xyz / world.w;
  vec3 normal = normalize(mat3(vo_CameraToWorld) * texelFetch(u_Normal, texel, 0).xyz);
  vec3 toViewer = normalize(vo_CameraToWorld[3].xyz - position);
  // A highlight as wide as that of the roughness, which fades as it widens.
  float exponent = clamp(2.0 / max(pow(surface.r, 4.0), 1e-4) - 2.0, 1.0, 1000.0);
  vec3 specular = (1.0 - surface.r) * (1.0 - surface.r) * mix(vec3(0.3), diffuse, surface.g);

  vec3 color = diffuse * Kvo_QColor_Ambient.rgb * (0.75 + 0.25 * normal.y);
  for(int light = 0; light < kvo_shadowLightCount(); ++light)
  {
    vec3 toLight;
    vec3 incoming = kvo_shadowLightColor(light, position, toLight);
    float facing = dot(normal, toLight);
    if(facing <= 0.0)
      continue;
    float visible = kvo_shadowVisibility(light, position) * smoothstep(0.0, 0.15, facing);
    float highlight = pow(max(dot(normal, normalize(toLight + toViewer)), 0.0), exponent);
    color += incoming * visible * (diffuse * facing + specular * highlight);
  }
  o_Frame = vec4(color + emission, base.a);
}
