#pragma once

#include "model/gpumodel.h"

struct aiMaterial;

namespace Brevane::Kvo {

class ImportImages;

/// A material of a file in the terms of this library; \a images may be null.
ModelMaterial importMaterial(const aiMaterial &source, ImportImages *images);

} // namespace Brevane::Kvo
