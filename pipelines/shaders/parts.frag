#version 150
#include "VisibilityNodes.glslh"

// Which parts of the model lie behind each other in a pixel, as a number: a sum of marks, one for each part. Where it
// changes, a part begins or ends, hidden ones too. Beside it the mark of the part in front.

uniform usampler2D u_HeadPointers;
uniform usampler2D u_NodeBuffer;
uniform int Kvo_int_NodeBufferWidth;

out vec4 o_Marks;

void main()
{
  uint pointer = texelFetch(u_HeadPointers, ivec2(gl_FragCoord.xy), 0).r;
  uint marks = 0u;
  uint front = 0u;
  for(int i = 0; i < 256 && pointer != 0u; ++i)
  {
    uvec4 node = texelFetch(u_NodeBuffer, kvo_nodeTexel(pointer, Kvo_int_NodeBufferWidth), 0);
    // Eleven bits are what a target of half floats tells apart.
    uint mark = 1u << ((node.a * 7u + node.a / 11u) % 11u);
    front = i == 0 ? mark : front;
    marks |= mark;
    pointer = node.r;
  }
  o_Marks = vec4(float(marks), float(front), 0.0, 1.0);
}
