#version 150
#include "ShadowMap.glslc"

// Lights surfaces with an environment and its key light. Where no surface is: what the ground keeps of the light
// that would fall on it without the model, with an opacity of 0. All colours are linear.

uniform sampler2D u_BaseColor; // opacity in alpha
uniform sampler2D u_Surface; // roughness, metalness, occlusion; alpha 0: shows its base colour whatever the light
uniform sampler2D u_Emission;
uniform sampler2D u_Normal; // in camera space
uniform sampler2D u_Depth;
uniform sampler2D u_Obscurance; // of any size: open share, distance
uniform sampler2D u_Position; // in camera space, for the distance; of another size: nothing is obscured
uniform sampler2D u_GroundKey; // of the ground from above: key light, sky
uniform sampler2D u_GroundSky;
uniform sampler2D u_Specular; // of EnvironmentPass
uniform sampler2D u_Table;
uniform mat4 Kvo_QMatrix4x4_Rotation;
uniform float Kvo_float_Intensity;
uniform mat4 Kvo_QMatrix4x4_ClipToWorld;
uniform mat4 Kvo_QMatrix4x4_CameraToWorld;
uniform vec3 Kvo_QVector3D_Centre;
uniform float Kvo_float_Radius;
uniform float Kvo_float_Ground;
uniform float Kvo_float_Reach;
uniform float Kvo_float_Key; // factor on the key light
uniform float Kvo_float_Catcher; // how much of the shadows the ground catches; 0: there is no ground

in vec2 vo_TexCoord;

out vec4 o_Frame;

// Place in a tile of the map, which is an octahedral projection.
vec2 placeOf(vec3 direction)
{
  vec3 d = mat3(Kvo_QMatrix4x4_Rotation) * direction;
  d /= abs(d.x) + abs(d.y) + abs(d.z);
  vec2 place = d.y >= 0.0 ? d.xz : (1.0 - abs(d.zx)) * vec2(d.x < 0.0 ? -1.0 : 1.0, d.z < 0.0 ? -1.0 : 1.0);
  return 0.5 * place + 0.5;
}

// From texels of the map. The centres of border texels lie on the border of a tile, so bilinear taps stay in it.
vec3 tap(vec2 texel)
{
  return textureLod(u_Specular, texel / vec2(512.0, 896.0), 0.0).rgb;
}

// By pi: what a white matt surface shows.
vec3 irradiance(vec3 normal)
{
  return Kvo_float_Intensity * tap(placeOf(normal) * 127.0 + vec2(0.5, 768.5));
}

// There is a tile of 512 texels for a mirror and eight of 128 above it.
vec3 mirrored(vec3 direction, float roughness)
{
  vec2 place = placeOf(direction);
  float level = clamp(roughness, 0.0, 1.0) * 8.0;
  float below = min(floor(level), 7.0);
  vec2 soft = place * 127.0 + vec2(0.5, 512.5);
  vec2 upper = soft + 128.0 * vec2(mod(below, 4.0), floor(below / 4.0));
  vec2 lower = below < 1.0 ? place * 511.0 + 0.5 : soft + 128.0 * vec2(mod(below - 1.0, 4.0), floor((below - 1.0) / 4.0));
  return Kvo_float_Intensity * mix(tap(lower), tap(upper), level - below);
}

// Of the four texels around, those of this surface.
float openShare(float here)
{
  vec2 size = vec2(textureSize(u_Obscurance, 0));
  vec2 place = vo_TexCoord * size - 0.5;
  ivec2 first = ivec2(floor(place));
  vec2 rest = place - vec2(first);
  float sum = 0.0;
  float weights = 0.0;
  for(int i = 0; i < 4; ++i)
  {
    ivec2 step = ivec2(i & 1, i >> 1);
    vec2 tap = texelFetch(u_Obscurance, clamp(first + step, ivec2(0), ivec2(size) - 1), 0).rg;
    vec2 near = mix(1.0 - rest, rest, vec2(step));
    float weight = near.x * near.y * (max(0.0, 1.0 - abs(tap.g - here) / (0.02 * here)) + 1e-3) + 1e-6;
    sum += weight * tap.r;
    weights += weight;
  }
  return sum / weights;
}

float groundLight(sampler2D map, vec3 place)
{
  vec2 across = (place.xz - Kvo_QVector3D_Centre.xz) / (Kvo_float_Reach * Kvo_float_Radius);
  float inside = 1.0 - smoothstep(0.6, 1.0, length(across));
  return mix(1.0, textureLod(map, 0.5 * across + 0.5, 0.0).r, inside);
}

vec3 keyLight(vec3 position, out vec3 toLight)
{
  toLight = vec3(0.0, 1.0, 0.0);
  return kvo_shadowLightCount() > 0 ? Kvo_float_Key * kvo_shadowLightColor(0, position, toLight) : vec3(0.0);
}

// What the ground shows in place of 1.
vec3 ground(vec3 eye, vec3 ray)
{
  float height = eye.y - Kvo_float_Ground;
  if(ray.y >= -1e-4 || height <= 0.0 || Kvo_float_Catcher <= 0.0)
    return vec3(1.0);
  vec3 place = eye + ray * (height / -ray.y);
  vec3 toLight;
  vec3 key = keyLight(place, toLight) * max(toLight.y, 0.0);
  vec3 sky = irradiance(vec3(0.0, 1.0, 0.0));
  vec3 light = key * groundLight(u_GroundKey, place) + sky * groundLight(u_GroundSky, place);
  return mix(vec3(1.0), light / max(key + sky, 1e-4), Kvo_float_Catcher);
}

void main()
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  float depth = texelFetch(u_Depth, texel, 0).r;
  vec4 far = Kvo_QMatrix4x4_ClipToWorld * vec4(2.0 * vo_TexCoord - 1.0, 2.0 * depth - 1.0, 1.0);
  vec3 position = far.xyz / far.w;
  vec4 near = Kvo_QMatrix4x4_ClipToWorld * vec4(2.0 * vo_TexCoord - 1.0, -1.0, 1.0);
  vec3 eye = near.xyz / near.w;
  vec3 view = normalize(eye - position);
  if(depth >= 1.0)
  {
    o_Frame = vec4(ground(eye, -view), 0.0);
    return;
  }

  vec4 base = texelFetch(u_BaseColor, texel, 0);
  vec4 surface = texelFetch(u_Surface, texel, 0);
  vec3 emission = texelFetch(u_Emission, texel, 0).rgb;
  float opacity = max(base.a, 1.0 / 255.0);
  if(surface.a < 0.5)
  {
    o_Frame = vec4(base.rgb + emission, opacity);
    return;
  }

  vec3 normal = normalize(mat3(Kvo_QMatrix4x4_CameraToWorld) * texelFetch(u_Normal, texel, 0).xyz);
  float roughness = surface.r;
  float facing = clamp(dot(normal, view), 1e-3, 1.0);
  vec3 diffuse = base.rgb * (1.0 - surface.g);
  vec3 f0 = mix(vec3(0.04), base.rgb, surface.g);

  // Where the ground is near, a surface that looks down sees it in the model's shadow.
  float above = max(position.y - Kvo_float_Ground, 0.0) / Kvo_float_Radius;
  float grounded = Kvo_float_Catcher * 0.75 * max(-normal.y, 0.0) / (1.0 + 12.0 * above);
  float open = surface.b * (1.0 - grounded);
  if(textureSize(u_Position, 0) == textureSize(u_Depth, 0))
    open *= openShare(-texelFetch(u_Position, texel, 0).z);
  // Light that surfaces in a corner throw at each other keeps their colour (Jimenez et al., 2016).
  vec3 openDiffuse = max(vec3(open), ((open * (2.0404 * diffuse - 0.3324) - (4.7951 * diffuse - 0.6417)) * open
                                      + (2.7552 * diffuse + 0.6903)) * open);
  float openSpecular = clamp(pow(facing + open, exp2(-16.0 * roughness - 1.0)) - 1.0 + open, 0.0, 1.0);

  // Light that leaves the surface after one bounce between its facets, and after several (Fdez-Aguera, 2019): of the
  // part that is a metal, and of the other.
  vec4 table = textureLod(u_Table, (31.0 * vec2(sqrt(facing), roughness) + 0.5) / 32.0, 0.0);
  float missing = 1.0 - table.x - table.y;
  vec3 onceMetal = base.rgb * table.x + table.y;
  float once = 0.04 * table.x + table.y;
  vec3 meanMetal = base.rgb + (1.0 - base.rgb) / 21.0;
  const float kMean = 0.04 + 0.96 / 21.0;
  vec3 oftenMetal = onceMetal * meanMetal * missing / (1.0 - meanMetal * missing);
  float often = once * kMean * missing / (1.0 - kMean * missing);
  vec3 matt = diffuse * (1.0 - once - often);
  // The wider a lobe, the more of it is its middle; a narrow one is the mirrored view with a long tail.
  vec3 mean = normalize(mix(normal, reflect(-view, normal), mix(1.0, table.z, roughness)));
  vec3 color = mix(vec3(once), onceMetal, surface.g) * mirrored(mean, mix(roughness, table.w, roughness)) * openSpecular
               + (mix(vec3(often), oftenMetal, surface.g) + matt) * irradiance(normal) * openDiffuse;

  vec3 toLight;
  vec3 key = keyLight(position, toLight);
  float lit = dot(normal, toLight);
  if(lit > 0.0 && key.r + key.g + key.b > 0.0)
  {
    // Where a surface turns away from the light its own depth spreads within a texel of the map.
    key *= kvo_shadowVisibility(0, position) * smoothstep(0.0, 0.2, lit) * lit * mix(1.0, open, 0.5);
    vec3 middle = normalize(toLight + view);
    float alpha = max(roughness * roughness, 0.01); // a light of some size
    float square = alpha * alpha;
    float toMiddle = max(dot(normal, middle), 0.0);
    float spread = toMiddle * toMiddle * (square - 1.0) + 1.0;
    float masked = lit * sqrt(square + (1.0 - square) * facing * facing)
                   + facing * sqrt(square + (1.0 - square) * lit * lit);
    vec3 fresnel = f0 + (1.0 - f0) * pow(1.0 - max(dot(view, middle), 0.0), 5.0);
    vec3 highlight = fresnel * (0.5 * square / (spread * spread * masked)) * (1.0 + f0 * missing / (1.0 - missing));
    color += key * (matt + highlight);
  }
  o_Frame = vec4(min(color + emission, 60000.0), opacity);
}
