#include "support/messages.h"

#include <host/sceneimport.h>

#include <QColor>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

using namespace Brevane::Kvo;
using Brevane::Kvo::Test::MessageCapture;

namespace {

const QString kModels = QStringLiteral("/usr/share/assimp/models/");

constexpr char kTriangle[] = "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n";

class SceneImport : public ::testing::Test
{
protected:
    QString write(const char *name, const QByteArray &data)
    {
        QFile file(folder.filePath(QLatin1StringView(name)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(data);
        return file.fileName();
    }
    ModelData import(const QString &path) { return importScene(path, ImportOptions(), &report); }
    ModelData importText(const char *name, const QByteArray &data) { return import(write(name, data)); }

    QTemporaryDir folder;
    ImportReport report;
};

// What every import promises of its result.
void expectSound(const ModelData &data, const char *what)
{
    for (const ModelMesh &mesh : data.meshes) {
        ASSERT_FALSE(mesh.indices.isEmpty()) << what;
        ASSERT_EQ(mesh.indices.size() % 3, 0) << what;
        for (const quint32 index : mesh.indices)
            ASSERT_LT(index, quint32(mesh.positions.size())) << what;
        for (const QVector3D &p : mesh.positions)
            ASSERT_TRUE(std::isfinite(p.x()) && std::isfinite(p.y()) && std::isfinite(p.z())) << what;
        for (const QVector3D &n : mesh.normals)
            ASSERT_TRUE(std::isfinite(n.x()) && std::isfinite(n.y()) && std::isfinite(n.z())) << what;
        ASSERT_TRUE(mesh.normals.isEmpty() || mesh.normals.size() == mesh.positions.size()) << what;
        ASSERT_EQ(mesh.texCoords.size(), mesh.positions.size()) << what;
        for (const QVector2D &t : mesh.texCoords)
            ASSERT_TRUE(std::isfinite(t.x()) && std::isfinite(t.y())) << what;
    }
    for (const ModelMaterial &m : data.materials)
        for (const float value : {m.Kd.x(), m.Kd.y(), m.Kd.z(), m.Ks.x(), m.Ks.y(), m.Ks.z(), m.Ns, m.D})
            ASSERT_TRUE(std::isfinite(value) && value >= 0.0f) << what;
    for (const ModelItem &item : data.items) {
        ASSERT_LT(item.mesh, data.meshes.size()) << what;
        ASSERT_LT(item.material, data.materials.size()) << what;
        for (int i = 0; i < 16; ++i)
            ASSERT_TRUE(std::isfinite(item.transform.constData()[i])) << what;
    }
}

QVector3D corner(const ModelData &data, int item, int vertex)
{
    const ModelItem &i = data.items.at(item);
    return i.transform.map(data.meshes.at(i.mesh).positions.at(vertex));
}

} // namespace

TEST_F(SceneImport, NamesAMissingFile)
{
    const ModelData data = import(QStringLiteral("/no/such/model.obj"));
    EXPECT_EQ(report.error, QStringLiteral("cannot read model '/no/such/model.obj': there is no such file"));
    EXPECT_TRUE(data.items.isEmpty());
}

TEST_F(SceneImport, SaysWhatItFoundWhereNobodyTookTheReport)
{
    MessageCapture messages;
    importScene(QStringLiteral("/no/such/model.obj"));
    EXPECT_EQ(messages.texts(QtWarningMsg),
              QStringList(QStringLiteral("cannot read model '/no/such/model.obj': there is no such file")));
    write("m.mtl", "newmtl B\nmap_Kd missing.png\n");
    importScene(write("missing.obj", "mtllib m.mtl\nusemtl B\nvt 0 0\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 1/1 2/1 3/1\n"));
    EXPECT_EQ(messages.containing(QStringLiteral("material 'B': image 'missing.png' is white")), 1);
    import(QStringLiteral("/no/such/model.obj"));
    EXPECT_EQ(messages.texts().size(), 2);
}

TEST_F(SceneImport, NamesAnEmptyFileAndAFolder)
{
    const QString path = write("empty.obj", "");
    import(path);
    EXPECT_EQ(report.error, QStringLiteral("cannot read model '%1': the file is empty").arg(path));
    import(folder.path());
    EXPECT_EQ(report.error, QStringLiteral("cannot read model '%1': it is a folder").arg(folder.path()));
}

TEST_F(SceneImport, NamesABrokenFileWithTheReason)
{
    for (const char *name : {"broken.glb", "broken.fbx", "broken.dae", "broken.unknown"}) {
        const ModelData data = importText(name, "this is no model at all\n");
        EXPECT_TRUE(report.error.startsWith(
            QStringLiteral("cannot read model '%1': ").arg(folder.filePath(QLatin1StringView(name)))))
            << qPrintable(report.error);
        EXPECT_TRUE(data.items.isEmpty() && data.meshes.isEmpty());
    }
}

TEST_F(SceneImport, RefusesAModelWithoutTriangles)
{
    importText("points.obj", "v 0 0 0\nv 1 0 0\np 1 2\n");
    EXPECT_TRUE(report.error.endsWith(QStringLiteral("it holds no triangles"))) << qPrintable(report.error);
}

TEST_F(SceneImport, ReadsTheMaterialOfAnObjFile)
{
    write("m.mtl", "newmtl Red\nKd 0.8 0.1 0.2\nKs 0.5 0.6 0.7\nNs 32\nd 0.25\n");
    const ModelData data = importText("m.obj", QByteArray("mtllib m.mtl\nusemtl Red\n") + kTriangle);
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    ASSERT_EQ(data.items.size(), 1);
    const ModelMaterial &material = data.materials.at(data.items[0].material);
    EXPECT_EQ(material.name, QStringLiteral("Red"));
    EXPECT_EQ(material.Kd, QVector3D(0.8f, 0.1f, 0.2f));
    EXPECT_EQ(material.Ks, QVector3D(0.5f, 0.6f, 0.7f));
    EXPECT_EQ(material.Ns, 32.0f);
    EXPECT_EQ(material.D, 0.25f);
    EXPECT_TRUE(material.map_Kd.isNull());
}

TEST_F(SceneImport, ASurfaceWithoutExponentHasNoHighlight)
{
    write("m.mtl", "newmtl M\nKs 1 1 1\nNs 0\n");
    const ModelData data = importText("m.obj", QByteArray("mtllib m.mtl\nusemtl M\n") + kTriangle);
    ASSERT_TRUE(report.ok());
    EXPECT_EQ(data.materials.at(data.items[0].material).Ks, QVector3D());
}

TEST_F(SceneImport, MakesNormalsAndTextureCoordinates)
{
    const ModelData data = importText("t.obj", kTriangle);
    ASSERT_TRUE(report.ok());
    ASSERT_EQ(data.meshes.size(), 1);
    ASSERT_EQ(data.meshes[0].normals.size(), 3);
    for (const QVector3D &normal : data.meshes[0].normals)
        EXPECT_EQ(normal, QVector3D(0, 0, 1));
    ASSERT_EQ(data.meshes[0].texCoords.size(), 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(data.meshes[0].texCoords[i], data.meshes[0].positions[i].toVector2D());
}

TEST_F(SceneImport, KeepsNormalsAndTextureCoordinatesOfTheFile)
{
    const ModelData data =
        importText("t.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0.25 0.75\nvn 0 1 0\nf 1/1/1 2/1/1 3/1/1\n");
    ASSERT_TRUE(report.ok());
    EXPECT_EQ(data.meshes[0].normals.at(0), QVector3D(0, 1, 0));
    EXPECT_EQ(data.meshes[0].texCoords.at(0), QVector2D(0.25f, 0.75f)) << "v is 0 at the bottom, as in the file";
}

TEST_F(SceneImport, NormalsHaveUnitLengthHoweverShortTheyAreInTheFile)
{
    const ModelData data = importText("t.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 3e-7 4e-7\nf 1//1 2//1 3//1\n");
    ASSERT_TRUE(report.ok());
    for (const QVector3D &normal : data.meshes.at(0).normals)
        EXPECT_LT((normal - QVector3D(0, 0.6f, 0.8f)).length(), 1e-6f);
}

TEST_F(SceneImport, NormalsThatAreNullInTheFileComeFromTheTrianglesHoweverSmall)
{
    const ModelData data = importText("t.obj", "v 0 0 0\nv 1e-4 0 0\nv 0 0 1e-4\nvn 0 0 0\nf 1//1 2//1 3//1\n");
    ASSERT_TRUE(report.ok());
    for (const QVector3D &normal : data.meshes.at(0).normals)
        EXPECT_LT((normal - QVector3D(0, -1, 0)).length(), 1e-6f);
}

TEST_F(SceneImport, CutsPolygonsUp)
{
    const ModelData data = importText("q.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n");
    ASSERT_TRUE(report.ok());
    EXPECT_EQ(data.meshes[0].indices.size(), 6);
    EXPECT_EQ(report.triangles, 2);
}

TEST_F(SceneImport, LeavesOutFacesWithVerticesThatAreNotFinite)
{
    const ModelData data =
        importText("n.ply", "ply\nformat ascii 1.0\nelement vertex 5\nproperty float x\nproperty float y\n"
                            "property float z\nelement face 2\nproperty list uchar int vertex_index\nend_header\n"
                            "0 0 0\n1 0 0\n0 1 0\nnan 0 0\n1 1 1\n3 0 1 2\n3 1 3 4\n");
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    expectSound(data, "n.ply");
    EXPECT_EQ(report.triangles, 1);
    ASSERT_EQ(report.warnings.size(), 1);
    EXPECT_TRUE(report.warnings[0].contains(QStringLiteral("left out 1 faces with vertices that are not finite")))
        << qPrintable(report.warnings[0]);
}

TEST_F(SceneImport, LeavesOutFacesWithVerticesThatDoNotExist)
{
    const ModelData data =
        importText("r.ply", "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
                            "property float z\nelement face 2\nproperty list uchar int vertex_index\nend_header\n"
                            "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n3 0 1 7\n");
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    expectSound(data, "r.ply");
    EXPECT_EQ(report.triangles, 1);
    ASSERT_EQ(report.warnings.size(), 1);
    EXPECT_TRUE(report.warnings[0].contains(QStringLiteral("left out 1 faces with vertices that do not exist")));
}

TEST_F(SceneImport, DoesNotHangOnAPlyFileThatEndsInItsHeader)
{
    importText("h.ply", "ply\nformat ascii 1.0\nelement vertex 3\nproperty fl");
    EXPECT_TRUE(report.error.endsWith(QStringLiteral("its header has no end"))) << qPrintable(report.error);
    importText("c.ply", "ply\nformat ascii 1.0\nelement vertex 4000000000\nproperty float x\nend_header\n");
    EXPECT_TRUE(report.error.contains(QStringLiteral("announces 4000000000 elements in"))) << qPrintable(report.error);
}

TEST_F(SceneImport, DoesNotTakeMemoryForElementsThatAFileCannotHold)
{
    importText("o.off", "OFF\n# many\n353535235358 6 0\n0 0 0\n");
    EXPECT_TRUE(report.error.contains(QStringLiteral("announces 353535235358 elements in")))
        << qPrintable(report.error);
}

TEST_F(SceneImport, DoesNotHangOnWhatIsNoNumberInAColladaFile)
{
    QFile file(kModels + QStringLiteral("Collada/duck.dae"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QByteArray data = file.readAll();
    import(file.fileName());
    EXPECT_TRUE(report.ok()) << qPrintable(report.error);
    const qsizetype digit = data.indexOf("<p>") + 10;
    ASSERT_GT(digit, 10);
    for (const char wrong : {'t', 'E', '-'}) {
        data[digit] = wrong;
        importText("duck.dae", data);
        EXPECT_TRUE(report.error.contains(QStringLiteral("in the numbers of <p> before line ")))
            << qPrintable(report.error);
    }
    data[digit] = '\xfd'; // No UTF-8.
    importText("duck.dae", data);
    EXPECT_TRUE(report.error.contains(QStringLiteral("line "))) << qPrintable(report.error);
}

TEST_F(SceneImport, FindsImagesBesideTheModelInAnyCaseAndStyle)
{
    QImage image(4, 2, QImage::Format_RGB32);
    image.fill(QColor(10, 200, 30));
    ASSERT_TRUE(image.save(folder.filePath(QStringLiteral("Skin Map.PNG"))));
    for (const char *name : {"Skin Map.PNG", ".\\skin map.png", "C:\\gone\\Skin Map.PNG", "/gone/skin map.png"}) {
        write("i.mtl", QByteArray("newmtl M\nKd 1 1 1\nmap_Kd ") + name + "\n");
        const ModelData data = importText("i.obj", QByteArray("mtllib i.mtl\nusemtl M\n") + kTriangle);
        ASSERT_TRUE(report.ok());
        EXPECT_TRUE(report.warnings.isEmpty()) << name;
        EXPECT_EQ(report.images, 1) << name;
        const QImage map = data.materials.at(data.items[0].material).map_Kd;
        ASSERT_EQ(map.size(), QSize(4, 2)) << name;
        EXPECT_EQ(map.pixelColor(0, 0), QColor(10, 200, 30));
    }
}

TEST_F(SceneImport, ABrokenImageIsWhiteWithAWarning)
{
    write("broken.png", "no picture");
    write("i.mtl", "newmtl A\nmap_Kd broken.png\nnewmtl B\nmap_Kd missing.png\n");
    const ModelData data =
        importText("i.obj", "mtllib i.mtl\nv 0 0 0\nv 1 0 0\nv 0 1 0\nusemtl A\nf 1 2 3\nusemtl B\nf 1 2 3\n");
    ASSERT_TRUE(report.ok());
    EXPECT_EQ(report.warnings.size(), 2);
    EXPECT_EQ(report.images, 0);
    const QString all = report.warnings.join(QLatin1Char('\n'));
    EXPECT_TRUE(all.contains(QStringLiteral("material 'A': image 'broken.png' is white: "))) << qPrintable(all);
    EXPECT_TRUE(all.contains(QStringLiteral("material 'B': image 'missing.png' is white: there is no such file in")))
        << qPrintable(all);
    for (const ModelMaterial &material : data.materials)
        EXPECT_TRUE(material.map_Kd.isNull());
}

TEST_F(SceneImport, MaterialsShareAnImage)
{
    QImage image(2, 2, QImage::Format_RGB32);
    image.fill(Qt::red);
    ASSERT_TRUE(image.save(folder.filePath(QStringLiteral("a.png"))));
    write("i.mtl", "newmtl A\nmap_Kd a.png\nnewmtl B\nmap_Kd a.png\n");
    const ModelData data =
        importText("i.obj", "mtllib i.mtl\nv 0 0 0\nv 1 0 0\nv 0 1 0\nusemtl A\nf 1 2 3\nusemtl B\nf 1 2 3\n");
    EXPECT_EQ(report.images, 1);
    QList<qint64> keys;
    for (const ModelMaterial &material : data.materials)
        if (!material.map_Kd.isNull())
            keys << material.map_Kd.cacheKey();
    ASSERT_EQ(keys.size(), 2);
    EXPECT_EQ(keys[0], keys[1]);
}

TEST_F(SceneImport, LeavesImagesAloneWhenTold)
{
    write("i.mtl", "newmtl M\nmap_Kd missing.png\n");
    const QString path = write("i.obj", QByteArray("mtllib i.mtl\nusemtl M\n") + kTriangle);
    ImportOptions options;
    options.loadImages = false;
    importScene(path, options, &report);
    EXPECT_TRUE(report.ok());
    EXPECT_TRUE(report.warnings.isEmpty());
}

TEST_F(SceneImport, NodesOfAGltfFileShareAMeshAndStackTheirTransforms)
{
    // One triangle in a data URI, shown by a node and its child.
    const float positions[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const QByteArray buffer = QByteArray(reinterpret_cast<const char *>(positions), sizeof positions).toBase64();
    const ModelData data =
        importText("i.gltf", R"({ "asset": {"version": "2.0"}, "scene": 0, "scenes": [{"nodes": [0]}],
        "nodes": [ {"mesh": 0, "translation": [10, 0, 0], "children": [1]}, {"mesh": 0, "translation": [0, 5, 0], "scale": [2, 2, 2]} ],
        "materials": [ {"pbrMetallicRoughness": {"baseColorFactor": [1, 0.5, 0, 0.5], "metallicFactor": 0, "roughnessFactor": 0.5}, "alphaMode": "BLEND"} ],
        "meshes": [ {"primitives": [ {"attributes": {"POSITION": 0}, "material": 0} ]} ],
        "accessors": [ {"bufferView": 0, "componentType": 5126, "count": 3, "type": "VEC3", "min": [0,0,0], "max": [1,1,0]} ],
        "bufferViews": [ {"buffer": 0, "byteLength": 36} ],
        "buffers": [ {"byteLength": 36, "uri": "data:application/octet-stream;base64,)"
                                 + buffer + "\"} ] }");
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    EXPECT_EQ(data.meshes.size(), 1);
    ASSERT_EQ(data.items.size(), 2);
    EXPECT_EQ(data.items[0].mesh, data.items[1].mesh);
    EXPECT_EQ(corner(data, 0, 1), QVector3D(11, 0, 0));
    EXPECT_EQ(corner(data, 1, 1), QVector3D(12, 5, 0));
    EXPECT_EQ(corner(data, 1, 2), QVector3D(10, 7, 0));

    const ModelMaterial &material = data.materials.at(data.items[0].material);
    EXPECT_FLOAT_EQ(material.Kd.x(), 1.0f);
    EXPECT_NEAR(material.Kd.y(), 0.735f, 0.001f) << "0.5 of light is shown as 0.735";
    EXPECT_EQ(material.Kd.z(), 0.0f);
    EXPECT_EQ(material.D, 0.5f);
    EXPECT_NEAR(material.Ks.x(), 0.02f, 1e-5f) << "4 % of a surface that is no metal, half of it for roughness 0.5";
    EXPECT_NEAR(material.Ns, 30.0f, 0.01f) << "2 / 0.5^4 - 2";
}

namespace {

// A glTF file of one triangle in a material, with images by their names.
QByteArray triangleIn(const QByteArray &material, const QByteArrayList &images = {})
{
    const float positions[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const float coords[6] = {0, 0, 1, 0, 0, 1};
    QByteArray buffer(reinterpret_cast<const char *>(positions), sizeof positions);
    buffer.append(reinterpret_cast<const char *>(coords), sizeof coords);
    QByteArray textures, files;
    for (qsizetype i = 0; i < images.size(); ++i) {
        textures += (i ? ", " : "") + QByteArray("{\"source\": ") + QByteArray::number(i) + "}";
        files += (i ? ", " : "") + QByteArray("{\"uri\": \"") + images[i] + "\"}";
    }
    return R"({ "asset": {"version": "2.0"}, "scene": 0, "scenes": [{"nodes": [0]}], "nodes": [{"mesh": 0}],
        "extensionsUsed": ["KHR_materials_pbrSpecularGlossiness", "KHR_materials_unlit"],
        "materials": [)"
           + material + "], \"textures\": [" + textures + "], \"images\": [" + files + R"(],
        "meshes": [{"primitives": [{"attributes": {"POSITION": 0, "TEXCOORD_0": 1, "TEXCOORD_1": 1}, "material": 0}]}],
        "accessors": [{"bufferView": 0, "componentType": 5126, "count": 3, "type": "VEC3", "min": [0,0,0], "max": [1,1,0]},
                      {"bufferView": 1, "componentType": 5126, "count": 3, "type": "VEC2"}],
        "bufferViews": [{"buffer": 0, "byteLength": 36}, {"buffer": 0, "byteOffset": 36, "byteLength": 24}],
        "buffers": [{"byteLength": 60, "uri": "data:application/octet-stream;base64,)"
           + buffer.toBase64() + "\"}] }";
}

double decodedByte(int byte)
{
    const double v = byte / 255.0;
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

} // namespace

TEST_F(SceneImport, SurfacesOfMetallicRoughnessArriveInFull)
{
    for (const char *name : {"base.png", "metal.png", "normal.png", "light.png", "glow.png"}) {
        QImage image(2, 2, QImage::Format_ARGB32);
        image.fill(qRgba(10, 20, 30, 40));
        image.setText(QStringLiteral("Name"), QLatin1String(name));
        ASSERT_TRUE(image.save(folder.filePath(QLatin1String(name))));
    }
    const ModelData data =
        importText("full.gltf", triangleIn(R"({ "doubleSided": true, "alphaMode": "MASK", "alphaCutoff": 0.25,
        "pbrMetallicRoughness": {"baseColorFactor": [0.5, 0.25, 1, 0.75], "metallicFactor": 0.3, "roughnessFactor": 0.6,
            "baseColorTexture": {"index": 0}, "metallicRoughnessTexture": {"index": 1}},
        "normalTexture": {"index": 2, "scale": 0.7}, "occlusionTexture": {"index": 3, "strength": 0.4},
        "emissiveTexture": {"index": 4}, "emissiveFactor": [1, 0.5, 0.25] })",
                                           {"base.png", "metal.png", "normal.png", "light.png", "glow.png"}));
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    EXPECT_EQ(report.warnings, QStringList());
    EXPECT_EQ(report.images, 5);
    const ModelMaterial &material = data.materials.at(data.items.at(0).material);
    ASSERT_TRUE(material.surface);
    const ModelSurface &s = *material.surface;
    EXPECT_EQ(s.baseColor, QVector3D(0.5f, 0.25f, 1.0f));
    EXPECT_EQ(material.D, 0.75f);
    EXPECT_EQ(s.metalness, 0.3f);
    EXPECT_EQ(s.roughness, 0.6f);
    EXPECT_EQ(s.normalScale, 0.7f);
    EXPECT_EQ(s.occlusionStrength, 0.4f);
    EXPECT_EQ(s.emission, QVector3D(1.0f, 0.5f, 0.25f));
    EXPECT_EQ(int(s.alphaMode), int(AlphaMode::Mask));
    EXPECT_EQ(s.alphaCutoff, 0.25f);
    EXPECT_TRUE(s.isTwoSided);
    EXPECT_FALSE(s.isUnlit);
    const auto nameOf = [](const QImage &image) { return image.text(QStringLiteral("Name")); };
    EXPECT_EQ(nameOf(s.map_baseColor), QStringLiteral("base.png"));
    EXPECT_EQ(nameOf(s.map_metalRoughness), QStringLiteral("metal.png"));
    EXPECT_EQ(nameOf(s.map_normal), QStringLiteral("normal.png"));
    EXPECT_EQ(nameOf(s.map_occlusion), QStringLiteral("light.png"));
    EXPECT_EQ(nameOf(s.map_emission), QStringLiteral("glow.png"));
    EXPECT_EQ(s.map_baseColor.cacheKey(), material.map_Kd.cacheKey()) << "one image is one";
}

TEST_F(SceneImport, SurfacesHaveTheDefaultsOfGltf)
{
    const ModelData data = importText("plain.gltf", triangleIn(R"({ "extensions": {"KHR_materials_unlit": {}},
        "pbrMetallicRoughness": {}, "alphaMode": "BLEND" })"));
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    const auto surface = data.materials.at(data.items.at(0).material).surface;
    ASSERT_TRUE(surface);
    EXPECT_EQ(surface->baseColor, QVector3D(1, 1, 1));
    EXPECT_EQ(surface->metalness, 1.0f);
    EXPECT_EQ(surface->roughness, 1.0f);
    EXPECT_EQ(surface->emission, QVector3D());
    EXPECT_EQ(int(surface->alphaMode), int(AlphaMode::Blend));
    EXPECT_FALSE(surface->isTwoSided);
    EXPECT_TRUE(surface->isUnlit);
}

// Of the colours that a metal share gives, the share and the base colour come back.
TEST_F(SceneImport, SpecularGlossinessBecomesMetalnessAndRoughness)
{
    for (const double metalness : {0.0, 0.3, 0.8, 1.0}) {
        const double base[3] = {0.9, 0.6, 0.4};
        QByteArray diffuse, specular;
        for (const double b : base) {
            diffuse += QByteArray::number(b * (1 - metalness)) + ", ";
            specular += QByteArray::number(0.04 * (1 - metalness) + b * metalness) + ", ";
        }
        specular.chop(2);
        const ModelData data = importText(
            "sg.gltf",
            triangleIn("{ \"extensions\": {\"KHR_materials_pbrSpecularGlossiness\": {\"diffuseFactor\": [" + diffuse
                       + "1], \"specularFactor\": [" + specular + "], \"glossinessFactor\": 0.7}} }"));
        ASSERT_TRUE(report.ok()) << qPrintable(report.error);
        const auto surface = data.materials.at(data.items.at(0).material).surface;
        ASSERT_TRUE(surface);
        EXPECT_NEAR(surface->metalness, metalness, 1e-4);
        EXPECT_NEAR(surface->roughness, 0.3, 1e-6);
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR(surface->baseColor[i], base[i], 1e-3) << metalness;
    }
}

TEST_F(SceneImport, MapsOfSpecularGlossinessAreConvertedTexelByTexel)
{
    // The left texel is a metal (black, and gold reflected), the right one is none.
    QImage colors(2, 1, QImage::Format_ARGB32);
    colors.setPixel(0, 0, qRgba(0, 0, 0, 255));
    colors.setPixel(1, 0, qRgba(200, 100, 50, 128));
    QImage gloss(2, 1, QImage::Format_ARGB32);
    gloss.setPixel(0, 0, qRgba(255, 200, 80, 204));
    gloss.setPixel(1, 0, qRgba(20, 20, 20, 51));
    ASSERT_TRUE(colors.save(folder.filePath(QStringLiteral("d.png"))));
    ASSERT_TRUE(gloss.save(folder.filePath(QStringLiteral("s.png"))));
    const ModelData data =
        importText("sgm.gltf", triangleIn(R"({ "extensions": {"KHR_materials_pbrSpecularGlossiness": {
        "diffuseFactor": [1, 1, 1, 1], "diffuseTexture": {"index": 0}, "specularGlossinessTexture": {"index": 1},
        "specularFactor": [1, 1, 1], "glossinessFactor": 0.5}} })",
                                          {"d.png", "s.png"}));
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    const auto surface = data.materials.at(data.items.at(0).material).surface;
    ASSERT_TRUE(surface);
    ASSERT_EQ(surface->map_baseColor.size(), QSize(2, 1));
    const QRgb metal = surface->map_baseColor.pixel(0, 0);
    for (const auto &[found, expected] : {std::pair(qRed(metal), 255), {qGreen(metal), 200}, {qBlue(metal), 80}})
        EXPECT_NEAR(decodedByte(found), decodedByte(expected), 0.01);
    EXPECT_EQ(surface->map_baseColor.pixel(1, 0), qRgba(200, 100, 50, 128));
    const double metalness = double(surface->metalness), roughness = double(surface->roughness);
    EXPECT_NEAR(metalness * qBlue(surface->map_metalRoughness.pixel(0, 0)) / 255.0, 1.0, 0.01);
    EXPECT_NEAR(metalness * qBlue(surface->map_metalRoughness.pixel(1, 0)) / 255.0, 0.0, 0.01);
    EXPECT_NEAR(roughness * qGreen(surface->map_metalRoughness.pixel(0, 0)) / 255.0, 1 - 0.5 * 0.8, 0.003);
    EXPECT_NEAR(roughness * qGreen(surface->map_metalRoughness.pixel(1, 0)) / 255.0, 1 - 0.5 * 0.2, 0.003);
}

TEST_F(SceneImport, AMapForOtherTextureCoordinatesIsLeftOutAndNamed)
{
    QImage image(2, 2, QImage::Format_RGB32);
    image.fill(Qt::red);
    ASSERT_TRUE(image.save(folder.filePath(QStringLiteral("ao.png"))));
    const ModelData data = importText("uv.gltf", triangleIn(R"({ "name": "wall", "pbrMetallicRoughness": {},
        "occlusionTexture": {"index": 0, "texCoord": 1} })",
                                                            {"ao.png"}));
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    EXPECT_TRUE(data.materials.at(data.items.at(0).material).surface->map_occlusion.isNull());
    ASSERT_EQ(report.warnings.size(), 1);
    EXPECT_EQ(report.warnings[0], QStringLiteral("material 'wall': image 'ao.png' is left out: it is for texture "
                                                 "coordinates 1, and only set 0 is read"));
}

TEST_F(SceneImport, OtherMaterialsHaveASurfaceOnlyWhereItSaysMore)
{
    QImage image(2, 2, QImage::Format_RGB32);
    image.fill(Qt::blue);
    ASSERT_TRUE(image.save(folder.filePath(QStringLiteral("n.png"))));
    write("two.mtl", "newmtl A\nKd 0.5 0.5 0.5\nNs 30\nnewmtl B\nKd 0.5 0.5 0.5\nNs 30\nKe 2 1 0\nnorm n.png\n");
    const QString path = write("two.obj", QByteArray("mtllib two.mtl\nusemtl A\n") + kTriangle + "usemtl B\nf 3 2 1\n");
    const ModelData data = importScene(path, ImportOptions(), &report);
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    for (const ModelMaterial &material : data.materials) {
        if (material.name == QStringLiteral("A")) {
            EXPECT_FALSE(material.surface);
        }
        if (material.name == QStringLiteral("B")) {
            ASSERT_TRUE(material.surface);
            EXPECT_EQ(material.surface->emission, QVector3D(2, 1, 0));
            EXPECT_FALSE(material.surface->map_normal.isNull());
            EXPECT_TRUE(material.surface->isTwoSided);
            EXPECT_NEAR(material.surface->baseColor.x(), decodedByte(128), 0.003);
        }
    }
}

TEST_F(SceneImport, AScaleThatAllItemsShareMovesIntoTheMesh)
{
    const float positions[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const QByteArray buffer = QByteArray(reinterpret_cast<const char *>(positions), sizeof positions).toBase64();
    const ModelData data =
        importText("s.gltf", R"({ "asset": {"version": "2.0"}, "scene": 0, "scenes": [{"nodes": [0]}],
        "nodes": [ {"mesh": 0, "translation": [3, 0, 0], "scale": [100, 100, 100]} ],
        "meshes": [ {"primitives": [ {"attributes": {"POSITION": 0}} ]} ],
        "accessors": [ {"bufferView": 0, "componentType": 5126, "count": 3, "type": "VEC3", "min": [0,0,0], "max": [1,1,0]} ],
        "bufferViews": [ {"buffer": 0, "byteLength": 36} ],
        "buffers": [ {"byteLength": 36, "uri": "data:application/octet-stream;base64,)"
                                 + buffer + "\"} ] }");
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    EXPECT_NEAR(data.items[0].transform.column(0).length(), 1.0, 1e-5);
    EXPECT_LT((corner(data, 0, 1) - QVector3D(103, 0, 0)).length(), 1e-4);
}

TEST_F(SceneImport, ReadsImagesEmbeddedInAGlbFile)
{
    const ModelData data = import(kModels + QStringLiteral("glTF2/BoxTextured-glTF-Binary/BoxTextured.glb"));
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    EXPECT_EQ(report.images, 1);
    ASSERT_EQ(data.items.size(), 1);
    const ModelMaterial &material = data.materials.at(data.items[0].material);
    EXPECT_EQ(material.map_Kd.size(), QSize(211, 211));
    EXPECT_LT((material.Kd - QVector3D(1, 1, 1)).length(), 1e-6f) << "white stays white";
    EXPECT_EQ(report.triangles, 12);
}

TEST_F(SceneImport, ReadsTheModelsOfTheDemo)
{
    const ModelData engine = import(kModels + QStringLiteral("glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb"));
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    expectSound(engine, "engine");
    EXPECT_EQ(engine.items.size(), 115);
    EXPECT_EQ(engine.meshes.size(), 34) << "instances share meshes";
    EXPECT_TRUE(report.warnings.isEmpty());

    const ModelData spider = import(kModels + QStringLiteral("OBJ/spider.obj"));
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    expectSound(spider, "spider");
    EXPECT_EQ(report.images, 5);
    EXPECT_EQ(report.triangles, 1368);
    EXPECT_TRUE(report.warnings.isEmpty());
}

TEST_F(SceneImport, SurvivesFilesThatAreWrongOnPurpose)
{
    for (const char *name :
         {"glTF2/IndexOutOfRange/IndexOutOfRange.gltf", "glTF2/IndexOutOfRange/AllIndicesOutOfRange.gltf",
          "glTF2/BoxWithInfinites-glTF-Binary/BoxWithInfinites.glb",
          "glTF2/BoxBadNormals-glTF-Binary/BoxBadNormals.glb", "glTF2/RecursiveNodes/RecursiveNodes.gltf",
          "glTF2/MissingBin/BoxTextured.gltf", "PLY/points.ply", "OBJ/point_cloud.obj", "OFF/invalid.off",
          "RAW/WithColor.raw"})
        expectSound(import(kModels + QLatin1StringView(name)), name);
}

TEST_F(SceneImport, SurvivesCutAndDisturbedFiles)
{
    std::mt19937 random(20240229);
    for (const char *name : {"OBJ/spider.obj", "glTF2/BoxTextured-glTF-Binary/BoxTextured.glb", "STL/triangle.stl",
                             "PLY/cube.ply", "PLY/cube_binary.ply", "FBX/box.fbx"}) {
        QFile file(kModels + QLatin1StringView(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << name;
        const QByteArray whole = file.readAll();
        const QByteArray suffix = QByteArray(name).mid(QByteArray(name).lastIndexOf('.'));
        for (int i = 0; i < 24; ++i) {
            QByteArray data = whole;
            if (i % 2)
                data.truncate(qsizetype(random() % unsigned(data.size())));
            else
                for (int k = 0; k < 1 + i / 4; ++k)
                    data[qsizetype(random() % unsigned(data.size()))] = char(random() % 256);
            expectSound(importText(("disturbed" + suffix).constData(), data), name);
            if (!report.ok()) {
                EXPECT_TRUE(report.error.contains(QLatin1StringView("disturbed"))) << qPrintable(report.error);
            }
        }
    }
}

TEST_F(SceneImport, OpacitiesAndFactorsThatAreNoneChangeNothing)
{
    const ModelData data = importText("triangle.obj", kTriangle);
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    const float nan = std::numeric_limits<float>::quiet_NaN(), infinity = std::numeric_limits<float>::infinity();
    for (const float wrong : {nan, infinity, -infinity, -0.5f, 0.0f, 2.0f}) {
        ModelData changed = data;
        QString error;
        if (wrong != 0.0f) {
            EXPECT_FALSE(setOpacity(&changed, QString(), wrong, &error)) << wrong;
            EXPECT_TRUE(error.startsWith(QStringLiteral("an opacity runs from 0 to 1, not "))) << qPrintable(error);
            EXPECT_FALSE(setOpacity(&changed, QString(), wrong)) << "nobody asks why";
        }
        if (wrong != 2.0f) {
            MessageCapture messages;
            scaleModel(&changed, wrong);
            EXPECT_EQ(messages.containing(QStringLiteral("scaleModel: a factor has to be above 0")), 1) << wrong;
        }
        EXPECT_EQ(changed.materials[0].D, data.materials[0].D) << wrong;
        EXPECT_EQ(changed.meshes[0].positions, data.meshes[0].positions) << wrong;
        EXPECT_EQ(changed.items[0].transform, data.items[0].transform) << wrong;
    }
    ModelData changed = data;
    for (const float right : {0.0f, 0.25f, 1.0f}) {
        EXPECT_TRUE(setOpacity(&changed, QString(), right));
        EXPECT_EQ(changed.materials[0].D, right);
    }
}

TEST_F(SceneImport, ScalingMovesEveryVertexAndKeepsNormals)
{
    ModelData data = importText("triangle.obj", kTriangle);
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    data.items[0].transform.translate(2, 0, 0);
    data.items[0].transform.rotate(90, 0, 0, 1);
    ModelItem other = data.items[0];
    other.transform.translate(0, 5, 1);
    data.items.append(other);
    EXPECT_FLOAT_EQ(longestSideOf(data), 6) << "the second one lies 5 to the left";

    ModelData scaled = data;
    scaleModel(&scaled, 0.25f);
    EXPECT_FLOAT_EQ(longestSideOf(scaled), 1.5f);
    EXPECT_EQ(scaled.meshes[0].normals, data.meshes[0].normals);
    for (qsizetype i = 0; i < data.items.size(); ++i) {
        for (qsizetype v = 0; v < 3; ++v) {
            const QVector3D before = data.items[i].transform.map(data.meshes[0].positions[v]);
            const QVector3D after = scaled.items[i].transform.map(scaled.meshes[0].positions[v]);
            EXPECT_LT((after - before * 0.25f).length(), 1e-6f);
        }
        for (int column = 0; column < 3; ++column)
            EXPECT_EQ(scaled.items[i].transform.column(column), data.items[i].transform.column(column));
    }
    EXPECT_EQ(longestSideOf(ModelData()), 0);
}

TEST_F(SceneImport, TheOpaquePartLeavesOutItemsThatLetLightThrough)
{
    ModelData data = importText("triangle.obj", kTriangle);
    ASSERT_TRUE(report.ok()) << qPrintable(report.error);
    const int solid = data.items[0].material;
    data.materials[solid].D = 1;
    ModelMaterial glass = data.materials[solid];
    glass.D = 0.99f;
    data.materials.append(glass);
    ModelItem item = data.items[0];
    item.material = int(data.materials.size()) - 1;
    item.flags = 5;
    data.items.prepend(item);
    ModelItem stray = item;
    stray.material = 99; // the upload drops it, and says so
    data.items.append(stray);

    const ModelData part = opaquePartOf(data);
    ASSERT_EQ(part.items.size(), data.items.size() - 1);
    for (qsizetype i = 0; i < part.items.size(); ++i) {
        EXPECT_EQ(part.items[i].material, data.items[i + 1].material);
        EXPECT_EQ(part.items[i].flags, data.items[i + 1].flags);
    }
    EXPECT_EQ(part.meshes.size(), data.meshes.size());
    EXPECT_EQ(part.materials.size(), data.materials.size());
    EXPECT_TRUE(opaquePartOf(ModelData()).items.isEmpty());
}

// Numbers that floats hold, whose differences and products they do not.
TEST_F(SceneImport, NumbersAtTheEndOfTheRangeStayFinite)
{
    int read = 0;
    // Hardly anything, so that one cannot be divided by it; a cube's corners with bits of another file in them.
    const QByteArray head =
        "ply\nformat ascii 1.0\nelement vertex 8\nproperty float x\nproperty float y\nproperty float "
        "z\nelement face 2\nproperty list uchar int vertex_indices\nend_header\n";
    for (const char *corners :
         {"0 0 0\n0 0 1\n6e-36 4e-37 0\n7e-45 1.4e-45 3.6e-43\n1.8e-42 2e-42 9e-41\n5e-40 1.8e-40 9e-38\n2e-35 9e-35 "
          "3e-37\n2.8e-45 9.8e-45 4.2e-45\n",
          "3e38 0 0\n-3e38 3e38 0\n0 -3e38 3e38\n0 0 0\n1 1 1\n2 2 2\n3e38 3e38 3e38\n-3e38 -3e38 -3e38\n",
          "1e-44 0 0\n0 1e-44 0\n0 0 1e-44\n1e-44 1e-44 0\n0 0 0\n1e-43 0 0\n0 1e-43 0\n0 0 3e-43\n"}) {
        for (const char *faces : {"3 3 4 7\n3 3 7 0\n", "3 0 1 2\n3 5 6 7\n", "3 2 3 4\n3 4 5 6\n"}) {
            const ModelData data = importText("far.ply", head + corners + faces);
            if (report.ok()) // the importer itself leaves some out
                expectSound(data, faces);
            read += report.ok();
        }
    }
    EXPECT_GT(read, 3);
}
