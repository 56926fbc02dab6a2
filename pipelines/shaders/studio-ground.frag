#version 150
#include "ShadowMap.glslc"

// A small map of the ground under the model, seen from above: how much of the key light comes through (red), from a
// light of some size.

uniform vec3 Kvo_QVector3D_Centre;
uniform float Kvo_float_Radius;
uniform float Kvo_float_Ground;
uniform float Kvo_float_Reach; // half the side of the map, in radii of the model
uniform float Kvo_float_Softness; // how wide the edges of shadows are at most, in radii

in vec2 vo_TexCoord;

out vec4 o_Light;

void main()
{
  vec2 across = (2.0 * vo_TexCoord - 1.0) * Kvo_float_Reach * Kvo_float_Radius;
  vec3 place = vec3(Kvo_QVector3D_Centre.x + across.x, Kvo_float_Ground, Kvo_QVector3D_Centre.z + across.y);
  // Taps on a spiral of golden angles, each of the same area.
  const int kTaps = 16;
  float sum = 0.0;
  for(int i = 0; i < kTaps; ++i)
  {
    float radius = sqrt((float(i) + 0.5) / float(kTaps)) * Kvo_float_Softness * Kvo_float_Radius;
    float angle = 2.39996323 * float(i);
    sum += kvo_shadowVisibility(0, place + radius * vec3(cos(angle), 0.0, sin(angle)));
  }
  o_Light = vec4(sum / float(kTaps), 0.0, 0.0, 1.0);
}
