#version 150

// What turns places of the picture into places of the world, once for the whole picture.

uniform mat4 Kvo_QMatrix4x4_ProjectionMatrix;
uniform mat4 Kvo_QMatrix4x4_CameraMatrix;

in vec3 va_Vertex;

flat out mat4 vo_ToWorld; // from clip space
flat out mat4 vo_CameraToWorld;

void main()
{
  gl_Position = vec4(va_Vertex, 1.0);
  vo_CameraToWorld = inverse(Kvo_QMatrix4x4_CameraMatrix);
  vo_ToWorld = inverse(Kvo_QMatrix4x4_ProjectionMatrix * Kvo_QMatrix4x4_CameraMatrix);
}
