#pragma once

#include <QString>

namespace Brevane::Kvo {

/// GLSL of directionalLight(Kd, Ks, Ns, N, L): a Blinn-Phong term with the viewer fixed at (0, 0, 1).
extern const QString kDirectionalLight;

/// The vertex text of passes that draw and light a model in one step: camera-space normal, not of unit
/// length, in `vo_Normal`, texture coordinate in `vo_TexCoord`.
extern const QString kLitModelVertexShader;

} // namespace Brevane::Kvo
