#pragma once

#include "host/export.h"
#include "model/gpumodel.h"

#include <QString>
#include <QStringList>

namespace Brevane::Kvo {

/// What importScene does beyond reading.
struct ImportOptions
{
    bool loadImages = true; ///< Off: all maps read white.
    float creaseAngle = 66.0f; ///< Generated normals are smooth over edges up to this angle, in degrees.
};

/// What importScene found.
struct ImportReport
{
    QString error; ///< File and reason; empty on success.
    QStringList warnings; ///< What was left out or replaced, each with the place.
    int images = 0; ///< Different images that were loaded.
    qint64 vertices = 0; ///< Of the meshes, each counted once.
    qint64 triangles = 0; ///< Of the meshes, each counted once.

    /// Whether there is a model.
    bool ok() const { return error.isEmpty(); }
};

/// Reads a model file of any kind that assimp knows (glTF, OBJ, FBX, Collada, STL, PLY, 3DS …).
///
/// Every mesh of a node becomes an item; nodes that show one mesh share it. A scale that all items of a
/// mesh have in common moves from their transforms into the mesh, so that normals keep their length. Only triangles are taken:
/// polygons are cut up, points and lines left out. What is missing is made: normals (smooth up to
/// ImportOptions::creaseAngle), texture coordinates (projected along the axis that a vertex faces).
///
/// Metallic-roughness materials turn into diffuse and specular: since these passes reflect no
/// surroundings, a metal keeps half of its base colour as diffuse, and takes it as specular; roughness
/// turns into an exponent and dims the highlight. Colour factors, which are linear there, turn into
/// display values, as the images that they multiply are.
///
/// For passes that shade physically a material also gets its surface in those terms (ModelSurface), where the file
/// has it: metallic-roughness as it is; specular-glossiness turned into it, maps texel by texel; of other kinds of
/// materials normal and emission maps. Of the maps those for the first set of texture coordinates are read, and
/// tangents are computed. Back faces are left out where a glTF file says so, and nowhere else.
///
/// Images, of all kinds that readImage knows, come from the file itself or from beside it (paths are
/// relative to the file; a missing folder or another case of letters is forgiven). One that cannot be read
/// gives a warning, and white.
///
/// On some damaged files the importer ends the process, by an assertion or by taking all memory: importSceneIsolated
/// is for files of others.
///
/// Whatever the file holds, indices of the result are in range and all numbers finite: triangles that
/// offend are left out with a warning. On failure the result is empty. Without a report error and warnings go to
/// qWarning.
KVO_SCENE_EXPORT ModelData importScene(const QString &path, const ImportOptions &options = ImportOptions(),
                                       ImportReport *report = nullptr);

/// Gives materials another opacity, from 0 to 1: those of one name, or all for an empty name. False, and
/// nothing changed, with the reason for another number, and with the nearest right name when there is no such material.
KVO_SCENE_EXPORT bool setOpacity(ModelData *data, const QString &material, float opacity, QString *error = nullptr);

/// A model without the items whose material lets light through. Everything else stays, indices included.
KVO_SCENE_EXPORT ModelData opaquePartOf(const ModelData &data);

/// Makes a model larger or smaller around the origin, for passes that count in units of the scene. Its
/// meshes change, so normals keep their length. A factor that is not above 0, or not finite, changes nothing (qWarning).
KVO_SCENE_EXPORT void scaleModel(ModelData *data, float factor);
/// The box around a model, in world space; both corners 0 for an empty one.
KVO_SCENE_EXPORT GPUModel::BoundingBox boxOf(const ModelData &data);
/// The longest side of the box around a model; 0 for an empty one.
KVO_SCENE_EXPORT float longestSideOf(const ModelData &data);
/// Puts a model on a light grey floor that reaches beyond it on all sides; +y is up.
KVO_SCENE_EXPORT void addFloor(ModelData *data);

} // namespace Brevane::Kvo
