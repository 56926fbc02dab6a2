#pragma once

#include <QStringList>

struct aiScene;

namespace Brevane::Kvo {

/// Makes a scene as it was read fit for assimp's later steps, some of which end the process over damaged
/// data: takes out faces with vertices that do not exist or are not finite, points and lines, and meshes
/// that have nothing left; replaces normals and texture coordinates that are not finite. Every loss gives
/// a warning with the mesh.
void repairScene(aiScene *scene, QStringList *warnings);

} // namespace Brevane::Kvo
