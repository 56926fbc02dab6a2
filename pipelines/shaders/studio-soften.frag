#version 150

// Smooths obscurance, whose taps are scattered over 4 by 4 pixels, where the surface goes on; beside it the distance
// from the viewer, by which a larger picture finds the texels that belong to its own surfaces.

uniform sampler2D u_Obscurance;
uniform sampler2D u_Position; // in camera space, of the whole picture's size

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  ivec2 last = textureSize(u_Obscurance, 0) - 1;
  ivec2 texel = ivec2(gl_FragCoord.xy);
  float scale = float(textureSize(u_Position, 0).x) / float(last.x + 1);
  float here = -texelFetch(u_Position, ivec2((vec2(texel) + 0.25) * scale), 0).z;
  float sum = 0.0;
  float weights = 0.0;
  for(int y = -2; y < 2; ++y)
    for(int x = -2; x < 2; ++x)
    {
      ivec2 tap = clamp(texel + ivec2(x, y), ivec2(0), last);
      float there = -texelFetch(u_Position, ivec2((vec2(tap) + 0.25) * scale), 0).z;
      float weight = max(0.0, 1.0 - abs(there - here) / (0.03 * here)) + 1e-4;
      sum += weight * texelFetch(u_Obscurance, tap, 0).r;
      weights += weight;
    }
  o_Frame = vec4(sum / weights, min(here, 60000.0), 0.0, 1.0);
}
