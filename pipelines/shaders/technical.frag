#version 150

// A technical drawing: flat shades on paper, ink where a surface ends or bends, dashes where a hidden part ends.

uniform sampler2D u_BaseColor;
uniform sampler2D u_Normal; // in camera space
uniform sampler2D u_Depth;
uniform sampler2D u_Marks; // of parts, see parts.frag
uniform mat4 Kvo_QMatrix4x4_UnitProjection;
uniform vec4 Kvo_QColor_Paper;
uniform vec4 Kvo_QColor_Ink;
uniform float Kvo_float_Hidden; // how strong dashes are, from 0 to 1
uniform float Kvo_float_Tint; // how much of the model's colours shows, from 0 to 1

in vec2 vo_TexCoord;

out vec4 o_Frame;

ivec2 last;

float distanceAt(ivec2 texel)
{
  mat4 m = Kvo_QMatrix4x4_UnitProjection;
  float z = 2.0 * texelFetch(u_Depth, clamp(texel, ivec2(0), last), 0).r - 1.0;
  return -(m[3][2] - z * m[3][3]) / (z * m[2][3] - m[2][2]);
}

vec3 normalAt(ivec2 texel)
{
  return texelFetch(u_Normal, clamp(texel, ivec2(0), last), 0).xyz;
}

void main()
{
  last = textureSize(u_Depth, 0) - 1;
  ivec2 texel = ivec2(gl_FragCoord.xy);
  bool isModel = texelFetch(u_Depth, texel, 0).r < 1.0;
  float here = distanceAt(texel);
  vec3 normal = normalAt(texel);
  vec2 marks = texelFetch(u_Marks, texel, 0).rg;

  // Depth bends where its second difference is not 0: no lines on surfaces that are seen from the side.
  float outline = 0.0;
  float crease = 0.0;
  float hidden = 0.0;
  for(int i = 0; i < 2; ++i)
  {
    ivec2 step = i == 0 ? ivec2(1, 0) : ivec2(0, 1);
    float bend = abs(distanceAt(texel + step) + distanceAt(texel - step) - 2.0 * here);
    outline = max(outline, smoothstep(0.012, 0.03, bend));
    float turn = 1.0 - min(dot(normal, normalAt(texel + step)), dot(normal, normalAt(texel - step)));
    crease = max(crease, isModel ? smoothstep(0.12, 0.4, turn) : 0.0);
    vec2 other = texelFetch(u_Marks, clamp(texel + step, ivec2(0), last), 0).rg;
    // Changes that the front tells of are lines already.
    hidden = max(hidden, other.r != marks.r && other.g == marks.g ? 1.0 : 0.0);
  }
  float dash = step(fract((gl_FragCoord.x + gl_FragCoord.y) / 9.0), 0.6);

  vec3 color = Kvo_QColor_Paper.rgb;
  if(isModel)
  {
    float light = 0.5 + 0.5 * dot(normal, normalize(vec3(-0.35, 0.75, 0.55)));
    float shade = light > 0.82 ? 1.0 : light > 0.6 ? 0.93 : light > 0.4 ? 0.84 : 0.74;
    vec3 base = pow(clamp(texelFetch(u_BaseColor, texel, 0).rgb, 0.0, 1.0), vec3(1.0 / 2.2));
    color = shade * mix(vec3(0.97), mix(vec3(0.97), base, 0.55), Kvo_float_Tint);
  }
  color = mix(color, mix(Kvo_QColor_Ink.rgb, Kvo_QColor_Paper.rgb, 0.35), Kvo_float_Hidden * hidden * dash * (1.0 - outline));
  color = mix(color, Kvo_QColor_Ink.rgb, max(outline, 0.6 * crease));
  o_Frame = vec4(color, 1.0);
}
