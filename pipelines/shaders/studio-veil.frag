#version 150

// Puts transparent surfaces over the picture, or over what the lens makes of it, see veil.frag.

uniform sampler2D u_Layers; // opaque and transparent surfaces
uniform sampler2D u_Opaque; // opaque surfaces alone, lit the same way
uniform sampler2D u_Picture;
uniform sampler2D u_Lens; // by half; of one texel while it is off

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  vec4 layers = texelFetch(u_Layers, texel, 0);
  vec3 opaque = texelFetch(u_Opaque, texel, 0).rgb;
  bool hasLens = textureSize(u_Lens, 0) == textureSize(u_Picture, 0);
  vec3 picture = hasLens ? 2.0 * texelFetch(u_Lens, texel, 0).rgb : texelFetch(u_Picture, texel, 0).rgb;
  // Over an alpha of 1 the average leaves 2 r - r * r, with r the share of light that comes through.
  float through = 1.0 - sqrt(clamp(1.0 - layers.a, 0.0, 1.0));
  o_Frame = vec4(max(layers.rgb - through * opaque, 0.0) + through * picture, 1.0);
}
