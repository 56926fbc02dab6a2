#version 150

// The colour as it is, with nothing shining through.

uniform sampler2D u_Picture;

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  o_Frame = vec4(texture(u_Picture, vo_TexCoord).rgb, 1.0);
}
