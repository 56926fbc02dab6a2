#version 150

// The same surfaces in one material.

uniform sampler2D u_Given; // base colour of the model, opacity in alpha
uniform vec4 Kvo_QColor_Color; // as displays show it
uniform float Kvo_float_Roughness;

out vec4 o_BaseColor;
out vec4 o_Surface;

void main()
{
  vec3 c = Kvo_QColor_Color.rgb;
  vec3 linear = mix(c / 12.92, pow((c + 0.055) / 1.055, vec3(2.4)), step(0.04045, c));
  o_BaseColor = vec4(linear, texelFetch(u_Given, ivec2(gl_FragCoord.xy), 0).a);
  o_Surface = vec4(Kvo_float_Roughness, 0.0, 1.0, 1.0);
}
