#version 150

// What an exposure meter sees: the mean logarithm of the luminance of surfaces (red) and their share of the picture
// (green), each texel from its part of the picture.

uniform sampler2D u_Picture;

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  const int kTaps = 5; // along each side
  vec2 texel = 1.0 / vec2(64.0);
  float sum = 0.0;
  float covered = 0.0;
  for(int y = 0; y < kTaps; ++y)
    for(int x = 0; x < kTaps; ++x)
    {
      vec2 place = vo_TexCoord + ((vec2(x, y) + 0.5) / float(kTaps) - 0.5) * texel;
      vec4 color = textureLod(u_Picture, place, 0.0);
      float share = step(0.001, color.a);
      sum += share * log2(max(dot(color.rgb, vec3(0.2126, 0.7152, 0.0722)), 1e-4));
      covered += share;
    }
  o_Frame = vec4(sum, covered, 0.0, 1.0) / float(kTaps * kTaps);
}
