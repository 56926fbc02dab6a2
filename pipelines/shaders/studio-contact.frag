#version 150
#include "ShadowMap.glslc"

// The same map of the ground: how much of an even sky comes past the model (red). A shadow map that looks at the
// model from below tells how high it stands above each place; each piece of its underside hides the part of the
// sky that it fills, weighted with the cosine.

uniform vec3 Kvo_QVector3D_Centre;
uniform float Kvo_float_Radius;
uniform float Kvo_float_Ground;
uniform float Kvo_float_Reach;

in vec2 vo_TexCoord;

out vec4 o_Light;

void main()
{
  vec2 across = (2.0 * vo_TexCoord - 1.0) * Kvo_float_Reach;
  vec3 middle = vec3(Kvo_QVector3D_Centre.x, Kvo_float_Ground, Kvo_QVector3D_Centre.z);
  vec4 origin = kvo_ShadowTransforms[0] * vec4(middle, 1.0);
  vec4 up = kvo_ShadowTransforms[0] * vec4(0.0, Kvo_float_Radius, 0.0, 0.0);
  vec4 right = kvo_ShadowTransforms[0] * vec4(Kvo_float_Radius, 0.0, 0.0, 0.0);
  vec4 ahead = kvo_ShadowTransforms[0] * vec4(0.0, 0.0, Kvo_float_Radius, 0.0);

  // Rings around the place, whose taps are wider apart the farther away they are.
  const int kRings = 7;
  const int kTaps = 12;
  float hidden = 0.0;
  for(int ring = 0; ring < kRings; ++ring)
  {
    float inner = ring == 0 ? 0.0 : 0.02 * exp2(float(ring - 1));
    float outer = 0.02 * exp2(float(ring));
    float distance = sqrt(0.5 * (inner * inner + outer * outer));
    for(int tap = 0; tap < kTaps; ++tap)
    {
      float angle = (float(tap) + 0.618 * float(ring)) * 6.2831853 / float(kTaps);
      vec2 offset = across + distance * vec2(cos(angle), sin(angle));
      vec4 clip = origin + offset.x * right + offset.y * ahead;
      vec2 coordinate = clip.xy / clip.w * 0.5 + 0.5;
      if(any(lessThan(coordinate, vec2(0.0))) || any(greaterThan(coordinate, vec2(1.0))))
        continue;
      float depth = textureLod(kvo_ShadowMaps, vec3(coordinate, 0.0), 0.0).x;
      if(depth >= 0.999)
        continue;
      float height = max((depth - clip.z / clip.w) / (up.z / clip.w), 0.0);
      // What a ring at that height fills of the sky: the difference of two discs.
      float square = height * height + 1e-5;
      float share = square / (square + inner * inner) - square / (square + outer * outer);
      hidden += share / float(kTaps);
    }
  }
  o_Light = vec4(1.0 - hidden, 0.0, 0.0, 1.0);
}
