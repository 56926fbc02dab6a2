#version 150

// Puts material ids beside the normals, as BackgroundImageRenderPass reads them: 0 where nothing was
// drawn, 2 (material 1) on surfaces that face upwards in the world, 1 (material 0) on all others.

uniform sampler2D u_Normal; // in camera space
uniform sampler2D u_Id; // 0 where there is no model
uniform mat4 Kvo_QMatrix4x4_CameraMatrix;

in vec2 vo_TexCoord;

out vec4 o_Normal;

void main()
{
  vec3 normal = texture(u_Normal, vo_TexCoord).xyz;
  vec3 up = mat3(Kvo_QMatrix4x4_CameraMatrix) * vec3(0.0, 1.0, 0.0);
  float material = dot(normal, up) > 0.85 ? 1.0 : 0.0;
  o_Normal = vec4(normal, texture(u_Id, vo_TexCoord).r >= 1.0 ? material + 1.0 : 0.0);
}
