#version 150

// What glows: light beyond white. A quarter of the picture's size; each texel is the mean of its 4 by 4 pixels, with
// the brightest holding back, so that single sparks do not flicker.

uniform sampler2D u_Picture;
uniform sampler2D u_Luminance; // of the meter, one texel
uniform float Kvo_float_Exposure;
uniform float Kvo_float_Adaptation;
uniform float Kvo_float_Threshold; // in terms of white

in vec2 vo_TexCoord;

out vec4 o_Frame;

float exposure()
{
  vec2 metered = texelFetch(u_Luminance, ivec2(0), 0).rg;
  float mean = metered.g > 0.0 ? metered.r / metered.g : log2(0.25);
  return Kvo_float_Exposure * exp2(clamp(Kvo_float_Adaptation * (log2(0.25) - mean), -2.0, 2.0));
}

void main()
{
  float scale = exposure();
  vec2 texel = 1.0 / vec2(textureSize(u_Picture, 0));
  vec3 sum = vec3(0.0);
  float weights = 0.0;
  for(int i = 0; i < 4; ++i)
  {
    vec4 color = textureLod(u_Picture, vo_TexCoord + (2.0 * vec2(i & 1, i >> 1) - 1.0) * texel, 0.0);
    vec3 light = color.a > 0.0 ? color.rgb * scale : vec3(0.0);
    float most = max(light.r, max(light.g, light.b));
    light *= max(most - Kvo_float_Threshold, 0.0) / max(most, 1e-4);
    float weight = 1.0 / (1.0 + most);
    sum += weight * min(light, 50.0);
    weights += weight;
  }
  o_Frame = vec4(sum / weights, 1.0);
}
