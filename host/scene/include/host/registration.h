#pragma once

#include "host/export.h"

namespace Brevane::Kvo {

/// Makes known to pipelines and their files what this library adds: the class ShadowLightingPass, and "lights".
/// Happens by itself when the library is loaded. Call it, any number of times, where a linker leaves out libraries
/// that a program does not refer to.
KVO_SCENE_EXPORT void registerScene();

} // namespace Brevane::Kvo
