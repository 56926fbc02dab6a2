#version 150

// What the lens makes of the picture, or the picture as it is while there is none.

uniform sampler2D u_Picture;
uniform sampler2D u_Lens; // by half; of one texel while it is off

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  bool hasLens = textureSize(u_Lens, 0) == textureSize(u_Picture, 0);
  o_Frame = vec4(hasLens ? 2.0 * texelFetch(u_Lens, texel, 0).rgb : texelFetch(u_Picture, texel, 0).rgb, 1.0);
}
