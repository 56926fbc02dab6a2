#version 150

// From light to what a display shows: exposure, glow, film, the backdrop behind it, the code of sRGB, and noise of less
// than a step of 8 bits, so that gradients do not band.

uniform sampler2D u_Picture; // surfaces, or with an alpha of 0 what the ground shows in place of 1
uniform sampler2D u_Glass; // surfaces that let light through, multiplied with their opacity; of one texel: none
uniform sampler2D u_Luminance; // of the meter, one texel
uniform sampler2D u_GlowNear;
uniform sampler2D u_GlowFar;
uniform sampler2D u_Environment; // latitude-longitude
uniform float Kvo_float_Exposure;
uniform float Kvo_float_Adaptation; // how far the exposure follows the meter, from 0 to 1
uniform float Kvo_float_Glow;
uniform float Kvo_float_Backdrop; // 0: the two colours; 1: the environment
uniform vec4 Kvo_QColor_Middle;
uniform vec4 Kvo_QColor_Corner;
uniform float Kvo_float_Intensity;
uniform mat4 Kvo_QMatrix4x4_Rotation;
uniform mat4 Kvo_QMatrix4x4_ClipToWorld;

in vec2 vo_TexCoord;

out vec4 o_Frame;
out vec4 o_Dim; // for the lens, which makes what is bright brighter still: a half, which is not

const float kPi = 3.14159265358979;

float exposure()
{
  vec2 metered = texelFetch(u_Luminance, ivec2(0), 0).rg;
  float mean = metered.g > 0.0 ? metered.r / metered.g : log2(0.25);
  return Kvo_float_Exposure * exp2(clamp(Kvo_float_Adaptation * (log2(0.25) - mean), -2.0, 2.0));
}

// Light is shown as it is up to a shoulder; beyond, the largest channel approaches white along a hyperbola that
// continues the line, and the colour fades towards white as film's does.
vec3 film(vec3 light)
{
  const float kShoulder = 0.7;
  float most = max(light.r, max(light.g, light.b));
  if(most <= kShoulder)
    return light;
  const float kRoom = 1.0 - kShoulder;
  float shown = 1.0 - kRoom * kRoom / (most - kShoulder + kRoom);
  float fade = 1.0 - 1.0 / (1.0 + 0.15 * (most - shown));
  return mix(light * (shown / most), vec3(shown), fade);
}

vec3 decoded(vec3 c)
{
  return mix(c / 12.92, pow((c + 0.055) / 1.055, vec3(2.4)), step(0.04045, c));
}

vec3 encoded(vec3 c)
{
  return mix(12.92 * c, 1.055 * pow(c, vec3(1.0 / 2.4)) - 0.055, step(0.0031308, c));
}

// Evenly spread numbers whose neighbours differ, without a pattern that the eye finds (Jimenez, 2014).
float noise(vec2 pixel)
{
  return fract(52.9829189 * fract(dot(pixel, vec2(0.06711056, 0.00583715))));
}

vec3 backdrop(float scale)
{
  if(Kvo_float_Backdrop < 0.5)
  {
    vec2 place = (vo_TexCoord - vec2(0.5, 0.48)) * vec2(1.0, 0.85);
    float outwards = smoothstep(0.0, 0.8, length(place));
    return decoded(mix(Kvo_QColor_Middle.rgb, Kvo_QColor_Corner.rgb, outwards));
  }
  vec4 near = Kvo_QMatrix4x4_ClipToWorld * vec4(2.0 * vo_TexCoord - 1.0, -1.0, 1.0);
  vec4 far = Kvo_QMatrix4x4_ClipToWorld * vec4(2.0 * vo_TexCoord - 1.0, 1.0, 1.0);
  vec3 d = normalize(mat3(Kvo_QMatrix4x4_Rotation) * (far.xyz / far.w - near.xyz / near.w));
  vec2 place = vec2(atan(d.x, -d.z) / (2.0 * kPi), asin(clamp(d.y, -1.0, 1.0)) / kPi) + 0.5;
  return film(textureLod(u_Environment, place, 0.0).rgb * Kvo_float_Intensity * scale);
}

void main()
{
  vec4 picture = texelFetch(u_Picture, ivec2(gl_FragCoord.xy), 0);
  float scale = exposure();
  vec3 behind = picture.a < 1.0 ? backdrop(scale) : vec3(0.0);
  if(picture.a == 0.0)
    behind *= picture.rgb;
  vec4 glass = textureSize(u_Glass, 0) == textureSize(u_Picture, 0) ? texelFetch(u_Glass, ivec2(gl_FragCoord.xy), 0)
                                                                    : vec4(0.0);
  float solid = (1.0 - glass.a) * picture.a;
  float opacity = glass.a + solid;
  vec3 light = glass.a > 0.0 ? (glass.rgb + solid * picture.rgb) / opacity : picture.rgb;
  vec3 color = opacity > 0.0 ? mix(behind, film(light * scale), opacity) : behind;
  vec3 glow = textureLod(u_GlowNear, vo_TexCoord, 0.0).rgb + textureLod(u_GlowFar, vo_TexCoord, 0.0).rgb;
  color = 1.0 - (1.0 - min(color, 1.0)) * exp(-Kvo_float_Glow * glow);
  vec3 shown = encoded(clamp(color, 0.0, 1.0));
  // Not more than keeps black black and white white.
  vec3 room = min(vec3(1.0), 255.0 * min(shown, 1.0 - shown));
  o_Frame = vec4(shown + room * (noise(gl_FragCoord.xy) - 0.5) / 255.0, 1.0);
  o_Dim = 0.5 * o_Frame;
}
