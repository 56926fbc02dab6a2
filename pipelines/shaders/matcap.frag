#version 150

// The normal of a surface picks its colour from the picture of a sphere.

uniform sampler2D u_Sphere;
uniform sampler2D u_Normal; // in camera space
uniform sampler2D u_Id; // 0 where there is no model

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  vec3 normal = normalize(texture(u_Normal, vo_TexCoord).xyz);
  vec2 place = 0.5 + 0.49 * normal.xy;
  bool isModel = texture(u_Id, vo_TexCoord).r >= 1.0;
  o_Frame = isModel ? vec4(texture(u_Sphere, place).rgb, 1.0) : vec4(0.0);
}
