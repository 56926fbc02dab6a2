#version 150

in vec3 va_Vertex;
in vec3 va_Normal;

uniform mat4 Kvo_QMatrix4x4_CameraMatrix;
uniform mat4 Kvo_QMatrix4x4_ProjectionMatrix;

out vec3 vo_Normal;

void main()
{
  vo_Normal = va_Normal;
  gl_Position = Kvo_QMatrix4x4_ProjectionMatrix * Kvo_QMatrix4x4_CameraMatrix * vec4(va_Vertex, 1.0);
}
