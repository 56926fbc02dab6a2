#version 150

// Every side adds its light, the far ones through the near ones.

in vec3 vo_Normal;

out vec4 o_Frame;

void main()
{
  o_Frame = vec4(0.3 * (0.5 + 0.5 * vo_Normal), 0.0);
}
