#pragma once

#include "model/gpumodel.h"

#include <QString>

struct aiMaterial;

namespace Brevane::Kvo {

class ImportImages;

/// The surface of a material in physical terms; none where the file says nothing in such terms, and ModelMaterial,
/// which has been filled, says it all. \a images may be null.
std::optional<ModelSurface> importSurface(const aiMaterial &source, const ModelMaterial &material,
                                          ImportImages *images);

/// Metalness and base colour that reflect as these two colours do, in linear light: diffuse and specular.
struct MetalColor
{
    QVector3D baseColor;
    float metalness;
};
MetalColor metalColorOf(const QVector3D &diffuse, const QVector3D &specular);

} // namespace Brevane::Kvo
