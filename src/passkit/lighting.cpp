#include "passkit/lighting.h"

namespace Brevane::Kvo {

const QString kDirectionalLight = QStringLiteral(R"(
vec3 directionalLight(vec3 Kd, vec3 Ks, float Ns, vec3 N, vec3 L)
{
  vec3 V = vec3(0.0, 0.0, 1.0);
  vec3 H = normalize(L + V);
  float NdotL = max(0.0, dot(N, L));
  float NdotH = max(0.0, dot(N, H));
  return NdotL * Kd + pow(NdotH, Ns) * Ks;
}
)");

const QString kLitModelVertexShader = QStringLiteral(R"(#version 150
#instancedata "InstanceInfo"

uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;

in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;

out vec3 vo_Normal;
out vec2 vo_TexCoord;

void main()
{
  gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
  mat4 NormalMatrix = transpose(inverse(u_CameraMatrix * getModelMatrix()));
  vo_Normal = (NormalMatrix * vec4(va_Normal,1.0)).xyz;
  vo_TexCoord = va_TexCoord;
}
)");

} // namespace Brevane::Kvo
