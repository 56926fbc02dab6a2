#version 150

// A blueprint: chalk lines on blue paper with a grid, strokes where surfaces turn from the light, dashes for what is
// hidden.

uniform sampler2D u_Normal; // in camera space
uniform sampler2D u_Depth;
uniform sampler2D u_Marks; // of parts, see parts.frag
uniform mat4 Kvo_QMatrix4x4_UnitProjection;
uniform vec4 Kvo_QColor_Paper;
uniform vec4 Kvo_QColor_Chalk;
uniform float Kvo_float_Grid; // pixels from line to line

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

float grain(vec2 p)
{
  return fract(sin(dot(floor(p), vec2(12.9898, 78.233))) * 43758.5453);
}

void main()
{
  last = textureSize(u_Depth, 0) - 1;
  ivec2 texel = ivec2(gl_FragCoord.xy);
  bool isModel = texelFetch(u_Depth, texel, 0).r < 1.0;
  float here = distanceAt(texel);
  vec3 normal = normalAt(texel);
  vec2 marks = texelFetch(u_Marks, texel, 0).rg;

  float line = 0.0;
  float hidden = 0.0;
  for(int i = 0; i < 2; ++i)
  {
    ivec2 step = i == 0 ? ivec2(1, 0) : ivec2(0, 1);
    float bend = abs(distanceAt(texel + step) + distanceAt(texel - step) - 2.0 * here);
    line = max(line, smoothstep(0.012, 0.03, bend));
    float turn = 1.0 - min(dot(normal, normalAt(texel + step)), dot(normal, normalAt(texel - step)));
    line = max(line, isModel ? 0.8 * smoothstep(0.08, 0.35, turn) : 0.0);
    vec2 other = texelFetch(u_Marks, clamp(texel + step, ivec2(0), last), 0).rg;
    hidden = max(hidden, other.r != marks.r && other.g == marks.g ? 1.0 : 0.0);
  }
  float dash = step(fract((gl_FragCoord.x + gl_FragCoord.y) / 8.0), 0.55);

  vec2 middle = gl_FragCoord.xy - 0.5 * vec2(last + 1);
  vec2 fine = abs(fract(middle / Kvo_float_Grid + 0.5) - 0.5) * Kvo_float_Grid;
  vec2 coarse = abs(fract(middle / (5.0 * Kvo_float_Grid) + 0.5) - 0.5) * 5.0 * Kvo_float_Grid;
  float grid = 0.06 * step(min(fine.x, fine.y), 0.5) + 0.07 * step(min(coarse.x, coarse.y), 0.5);

  vec2 outwards = vo_TexCoord - 0.5;
  vec3 paper = Kvo_QColor_Paper.rgb * (1.08 - 0.55 * dot(outwards, outwards)) * (0.985 + 0.03 * grain(gl_FragCoord.xy / 2.0));
  float chalk = isModel ? 0.0 : grid;
  if(isModel)
  {
    float light = 0.5 + 0.5 * dot(normal, normalize(vec3(-0.4, 0.75, 0.5)));
    // Fewer and fewer strokes towards the light.
    float stroke = abs(fract((gl_FragCoord.x - gl_FragCoord.y) / 7.0) - 0.5) * 2.0;
    chalk = 0.10 + 0.16 * smoothstep(0.55, 0.25, light) * step(0.7, stroke) + 0.12 * light * light;
  }
  chalk = max(chalk, 0.34 * hidden * dash);
  chalk = max(chalk, line * (0.88 + 0.12 * grain(gl_FragCoord.xy)));
  o_Frame = vec4(mix(paper, Kvo_QColor_Chalk.rgb, clamp(chalk, 0.0, 1.0)), 1.0);
}
