#pragma once

#include <QString>

namespace Brevane::Kvo {

/// GLSL of directionalLight(Kd, Ks, Ns, N, L): a Blinn-Phong term with the viewer fixed at (0, 0, 1).
extern const QString kDirectionalLight;

} // namespace Brevane::Kvo
