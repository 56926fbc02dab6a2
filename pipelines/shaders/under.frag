#version 150

// Puts a backdrop under shaded fragment lists, whose alpha is the light that still comes through.

uniform sampler2D u_Layers;
uniform sampler2D u_Backdrop;

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  vec4 layers = texture(u_Layers, vo_TexCoord);
  o_Frame = vec4(layers.rgb + layers.a * texture(u_Backdrop, vo_TexCoord).rgb, 1.0);
}
