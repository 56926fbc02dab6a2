#version 150

// Surfaces of a physical description from those of OBJ materials: the diffuse colour is the base colour, and the
// exponent of the highlight says how rough it is. Nothing is a metal.

uniform sampler2D u_Diffuse; // as displays show it, opacity in alpha
uniform sampler2D u_Specular; // exponent in alpha
uniform sampler2D u_Normal;

in vec2 vo_TexCoord;

out vec4 o_BaseColor;
out vec4 o_Surface;
out vec4 o_Emission;
out vec4 o_Normal;

vec3 decoded(vec3 c)
{
  return mix(c / 12.92, pow((c + 0.055) / 1.055, vec3(2.4)), step(0.04045, c));
}

void main()
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  vec4 diffuse = texelFetch(u_Diffuse, texel, 0);
  vec4 specular = texelFetch(u_Specular, texel, 0);
  // Of Blinn and Phong's highlight to GGX's of about the same width.
  float roughness = pow(2.0 / (max(specular.a, 1.0) + 2.0), 0.25);
  bool isMatt = max(specular.r, max(specular.g, specular.b)) == 0.0;
  o_BaseColor = vec4(decoded(clamp(diffuse.rgb, 0.0, 1.0)), diffuse.a);
  o_Surface = vec4(isMatt ? 0.6 : max(roughness, 0.15), 0.0, 1.0, 1.0);
  o_Emission = vec4(0.0);
  o_Normal = texelFetch(u_Normal, texel, 0);
}
