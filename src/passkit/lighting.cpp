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

} // namespace Brevane::Kvo
