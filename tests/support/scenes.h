#pragma once

#include <model/gpumodel.h>

#include <QMatrix4x4>

namespace Brevane::Kvo::Test {

/// A mesh of one triangle in z = 0 with corners (-1, -1), (1, -1), (0, 1), facing +z.
ModelMesh triangleMesh();
/// A quad in z = 0 from (-1, -1) to (1, 1), facing +z, texture coordinates from 0 to 1.
ModelMesh quadMesh();
/// A cube from (-1, -1, -1) to (1, 1, 1), four vertices per side, texture coordinates 0 to 1 on each.
ModelMesh cubeMesh();

ModelMaterial material(const QVector3D &Kd, const QVector3D &Ks = {}, float Ns = 1.0f, float D = 1.0f);

/// One item each.
ModelData triangleScene(const QVector3D &Kd = {1, 1, 1}, quint64 flags = 0);
ModelData quadScene(const QVector3D &Kd = {1, 1, 1}, quint64 flags = 0);
ModelData cubeScene(const QVector3D &Kd = {1, 1, 1}, quint64 flags = 0);
/// columns x rows quads side by side that fill x and y from -1 to 1, each an item of its own with a
/// material of its own: Kd is ((i + 1) / n, column / columns, row / rows) for item i of n. Item i
/// has the flag bit i % 8.
ModelData quadGridScene(int columns, int rows);

/// Looks at the origin from a distance along +z, up is +y.
QMatrix4x4 cameraAt(float distance);
/// Maps x and y from -1 to 1 to the whole screen, z from -10 to 10 in front of an identity camera.
QMatrix4x4 flatProjection();
QMatrix4x4 perspective(float aspect = 1.0f);

} // namespace Brevane::Kvo::Test
