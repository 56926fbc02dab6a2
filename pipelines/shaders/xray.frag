#version 150
#include "ShaderBitEncoding.glslh"
#include "VisibilityNodes.glslh"

// What a radiograph shows: how much material a ray goes through. All surfaces of a pixel are there in the order of
// their depth; between the first and the second lies material, between the second and the third none, and so on.
// A ray is weakened by a part of what is left of it with each length of material, and by a bit at each surface, so
// that sheets without a volume show too.

uniform usampler2D u_HeadPointers;
uniform usampler2D u_NodeBuffer;
uniform int Kvo_int_NodeBufferWidth;
uniform mat4 Kvo_QMatrix4x4_UnitProjection; // of a camera space in which the model is 2 units long
uniform float Kvo_float_Density; // of a unit
uniform float Kvo_float_Skin; // of a surface
uniform vec4 Kvo_QColor_Film; // where all rays come through
uniform vec4 Kvo_QColor_Bone; // where none does

in vec2 vo_TexCoord;

out vec4 o_Frame;

float distanceOf(float depth)
{
  mat4 m = Kvo_QMatrix4x4_UnitProjection;
  float z = 2.0 * depth - 1.0;
  return -(m[3][2] - z * m[3][3]) / (z * m[2][3] - m[2][2]);
}

void main()
{
  // To the length of the ray, which leaves the picture's middle askew.
  vec2 side = (2.0 * vo_TexCoord - 1.0) / vec2(Kvo_QMatrix4x4_UnitProjection[0][0], Kvo_QMatrix4x4_UnitProjection[1][1]);
  float slant = Kvo_QMatrix4x4_UnitProjection[2][3] != 0.0 ? sqrt(1.0 + dot(side, side)) : 1.0;
  uint pointer = texelFetch(u_HeadPointers, ivec2(gl_FragCoord.xy), 0).r;
  float weakened = 0.0;
  float before = 0.0;
  for(int i = 0; i < 256 && pointer != 0u; ++i)
  {
    uvec4 node = texelFetch(u_NodeBuffer, kvo_nodeTexel(pointer, Kvo_int_NodeBufferWidth), 0);
    float here = distanceOf(uintBitsToFloat(node.b)) * slant;
    weakened += Kvo_float_Skin + (i % 2 == 1 ? Kvo_float_Density * max(here - before, 0.0) : 0.0);
    before = here;
    pointer = node.r;
  }
  float through = exp(-weakened);
  // The screen behind the film is brightest in the middle.
  float lamp = 1.0 - 0.25 * dot(vo_TexCoord - 0.5, vo_TexCoord - 0.5) * 4.0;
  o_Frame = vec4(mix(Kvo_QColor_Bone.rgb, Kvo_QColor_Film.rgb * lamp, pow(through, 0.8)), 1.0);
}
