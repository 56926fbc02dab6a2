#version 150

// Flat steps of light, and ink where normal or depth jump between neighbours.

uniform sampler2D u_Diffuse;
uniform sampler2D u_Normal; // in camera space
uniform sampler2D u_Depth;
uniform vec3 Kvo_QVector3D_Light; // towards the light, in camera space
uniform vec4 Kvo_QColor_Ink;
uniform vec4 Kvo_QColor_Paper;
uniform float Kvo_float_Near;
uniform float Kvo_float_Far;

in vec2 vo_TexCoord;

out vec4 o_Frame;

float distanceAt(ivec2 texel)
{
  float depth = texelFetch(u_Depth, texel, 0).r;
  return Kvo_float_Near * Kvo_float_Far / (Kvo_float_Far - depth * (Kvo_float_Far - Kvo_float_Near));
}

void main()
{
  ivec2 last = textureSize(u_Depth, 0) - 1;
  ivec2 texel = min(ivec2(vo_TexCoord * vec2(last + 1)), last);
  float here = distanceAt(texel);
  vec3 normal = texelFetch(u_Normal, texel, 0).xyz;
  bool isModel = texelFetch(u_Depth, texel, 0).r < 1.0;

  float edge = 0.0;
  ivec2 steps[4] = ivec2[4](ivec2(1, 0), ivec2(-1, 0), ivec2(0, 1), ivec2(0, -1));
  for(int i = 0; i < 4; ++i)
  {
    ivec2 neighbour = clamp(texel + steps[i], ivec2(0), last);
    float turn = 1.0 - dot(normal, texelFetch(u_Normal, neighbour, 0).xyz);
    edge = max(edge, isModel ? smoothstep(0.15, 0.5, turn) : 0.0);
    edge = max(edge, smoothstep(0.01, 0.03, abs(distanceAt(neighbour) - here) / here));
  }

  vec4 color = Kvo_QColor_Paper;
  if(isModel)
  {
    float light = 0.5 + 0.5 * dot(normal, normalize(Kvo_QVector3D_Light));
    float step = light > 0.8 ? 1.0 : light > 0.5 ? 0.75 : 0.5;
    color = vec4(step * (0.12 + 0.88 * texelFetch(u_Diffuse, texel, 0).rgb), 1.0);
  }
  o_Frame = mix(color, Kvo_QColor_Ink, edge);
}
