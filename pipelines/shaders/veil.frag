#version 150

// Puts transparent surfaces over a picture. The weighted average of all layers comes drawn over the opaque
// part of the model, on black; the same without any layer is taken out again, and the picture put in.

uniform sampler2D u_Layers; // opaque and transparent surfaces
uniform sampler2D u_Opaque; // opaque surfaces alone, lit the same way
uniform sampler2D u_Picture;

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  vec4 layers = texelFetch(u_Layers, texel, 0);
  vec3 opaque = texelFetch(u_Opaque, texel, 0).rgb;
  vec3 picture = texelFetch(u_Picture, texel, 0).rgb;
  // Over an alpha of 1 the average leaves 2 r - r * r, with r the share of light that comes through.
  float through = 1.0 - sqrt(clamp(1.0 - layers.a, 0.0, 1.0));
  o_Frame = vec4(max(layers.rgb - through * opaque, 0.0) + through * picture, 1.0);
}
