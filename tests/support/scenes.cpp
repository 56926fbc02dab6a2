#include "support/scenes.h"

namespace Brevane::Kvo::Test {

namespace {

ModelData sceneOf(const ModelMesh &mesh, const QVector3D &Kd, quint64 flags)
{
    ModelData data;
    data.meshes.append(mesh);
    data.materials.append(material(Kd));
    ModelItem item;
    item.flags = flags;
    data.items.append(item);
    return data;
}

void appendQuad(ModelMesh &mesh, const QVector3D &center, const QVector3D &right, const QVector3D &up)
{
    const quint32 first = quint32(mesh.positions.size());
    const QVector3D normal = QVector3D::crossProduct(right, up).normalized();
    mesh.positions << center - right - up << center + right - up << center + right + up << center - right + up;
    mesh.normals << normal << normal << normal << normal;
    mesh.texCoords << QVector2D(0, 0) << QVector2D(1, 0) << QVector2D(1, 1) << QVector2D(0, 1);
    mesh.indices << first << first + 1 << first + 2 << first << first + 2 << first + 3;
}

} // namespace

ModelMesh triangleMesh()
{
    ModelMesh mesh;
    mesh.name = QStringLiteral("triangle");
    mesh.positions << QVector3D(-1, -1, 0) << QVector3D(1, -1, 0) << QVector3D(0, 1, 0);
    mesh.normals << QVector3D(0, 0, 1) << QVector3D(0, 0, 1) << QVector3D(0, 0, 1);
    mesh.texCoords << QVector2D(0, 0) << QVector2D(1, 0) << QVector2D(0.5f, 1);
    mesh.indices << 0 << 1 << 2;
    return mesh;
}

ModelMesh quadMesh()
{
    ModelMesh mesh;
    mesh.name = QStringLiteral("quad");
    appendQuad(mesh, {}, {1, 0, 0}, {0, 1, 0});
    return mesh;
}

ModelMesh cubeMesh()
{
    ModelMesh mesh;
    mesh.name = QStringLiteral("cube");
    appendQuad(mesh, {0, 0, 1}, {1, 0, 0}, {0, 1, 0});
    appendQuad(mesh, {0, 0, -1}, {-1, 0, 0}, {0, 1, 0});
    appendQuad(mesh, {1, 0, 0}, {0, 0, -1}, {0, 1, 0});
    appendQuad(mesh, {-1, 0, 0}, {0, 0, 1}, {0, 1, 0});
    appendQuad(mesh, {0, 1, 0}, {1, 0, 0}, {0, 0, -1});
    appendQuad(mesh, {0, -1, 0}, {1, 0, 0}, {0, 0, 1});
    return mesh;
}

ModelMaterial material(const QVector3D &Kd, const QVector3D &Ks, float Ns, float D)
{
    ModelMaterial m;
    m.Kd = Kd;
    m.Ks = Ks;
    m.Ns = Ns;
    m.D = D;
    return m;
}

ModelData triangleScene(const QVector3D &Kd, quint64 flags)
{
    return sceneOf(triangleMesh(), Kd, flags);
}

ModelData quadScene(const QVector3D &Kd, quint64 flags)
{
    return sceneOf(quadMesh(), Kd, flags);
}

ModelData cubeScene(const QVector3D &Kd, quint64 flags)
{
    return sceneOf(cubeMesh(), Kd, flags);
}

ModelData quadGridScene(int columns, int rows)
{
    ModelData data;
    data.meshes.append(quadMesh());
    const int count = columns * rows;
    for (int i = 0; i < count; ++i) {
        const int column = i % columns;
        const int row = i / columns;
        data.materials.append(
            material({float(i + 1) / float(count), float(column) / float(columns), float(row) / float(rows)}));
        ModelItem item;
        item.material = i;
        item.transform.translate(-1 + (2 * float(column) + 1) / float(columns),
                                 -1 + (2 * float(row) + 1) / float(rows));
        item.transform.scale(1 / float(columns), 1 / float(rows), 1);
        item.flags = quint64(1) << (i % 8);
        data.items.append(item);
    }
    return data;
}

QMatrix4x4 cameraAt(float distance)
{
    QMatrix4x4 camera;
    camera.translate(0, 0, -distance);
    return camera;
}

QMatrix4x4 flatProjection()
{
    QMatrix4x4 projection;
    projection.ortho(-1, 1, -1, 1, -10, 10);
    return projection;
}

QMatrix4x4 perspective(float aspect)
{
    QMatrix4x4 projection;
    projection.perspective(60, aspect, 0.1f, 100);
    return projection;
}

} // namespace Brevane::Kvo::Test
