#pragma once

#include "host/lights.h"
#include "json.h"

namespace Brevane::Kvo {

/// A light of a pipeline file: { "type": "spot", "position": [0, 5, 0], "direction": [0, -1, 0], … } with the
/// names of the members of ShadowMapLight. On failure gives false, with line and reason.
bool lightFromJson(const Json &json, ShadowMapLight *light, int *line, QString *error);

} // namespace Brevane::Kvo
