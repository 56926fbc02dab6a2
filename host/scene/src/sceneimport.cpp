#include "host/sceneimport.h"

#include "gl/direction.h"
#include "host/slotname.h"

#include "importcheck.h"
#include "importimages.h"
#include "importmaterial.h"
#include "importrepair.h"
#include "unaskedreport.h"

#include <QFile>
#include <QFileInfo>

#include <assimp/Importer.hpp>
#include <assimp/config.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <new>
#include <vector>

namespace Brevane::Kvo {

namespace {

// A tree that is deeper or shows more than this is broken or built to do harm.
constexpr qint64 kMaxNodes = 10'000'000;

constexpr unsigned kSteps = aiProcess_RemoveComponent | aiProcess_Triangulate | aiProcess_JoinIdenticalVertices
                            | aiProcess_GenSmoothNormals | aiProcess_GenUVCoords | aiProcess_TransformUVCoords
                            | aiProcess_SortByPType | aiProcess_ImproveCacheLocality;

QString text(const aiString &string)
{
    return QString::fromUtf8(string.C_Str());
}

bool isFinite(const aiVector3D &v)
{
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

QMatrix4x4 matrix(const aiMatrix4x4 &m)
{
    // Both are written row by row.
    return QMatrix4x4(m.a1, m.a2, m.a3, m.a4, m.b1, m.b2, m.b3, m.b4, m.c1, m.c2, m.c3, m.c4, m.d1, m.d2, m.d3, m.d4);
}

bool isFinite(const QVector3D &v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

bool isFinite(const QMatrix4x4 &m)
{
    return std::all_of(m.constData(), m.constData() + 16, [](float f) { return std::isfinite(f); });
}

// Texture coordinates for a mesh that has none: a flat projection along the axis that the vertex faces,
// at one scale for the whole mesh, so that a pattern is not stretched.
QVector<QVector2D> projectedTexCoords(const ModelMesh &mesh)
{
    QVector3D low = mesh.positions.value(0), high = low;
    for (const QVector3D &p : mesh.positions) {
        for (int i = 0; i < 3; ++i) {
            low[i] = std::min(low[i], p[i]);
            high[i] = std::max(high[i], p[i]);
        }
    }
    const QVector3D extent = high - low;
    const float largest = std::max({extent.x(), extent.y(), extent.z()});
    const float scale = largest > 0.0f ? 1.0f / largest : 0.0f;
    // Two numbers of a file may be further apart than a float goes, or as near as not to be divided by.
    const bool inDouble = !isFinite(extent) || !std::isfinite(scale);
    double width = 0.0;
    for (int i = 0; i < 3; ++i)
        width = std::max(width, double(high[i]) - double(low[i]));
    const auto place = [&](const QVector3D &p, int i) {
        return inDouble ? float((double(p[i]) - double(low[i])) / width) : (p[i] - low[i]) * scale;
    };
    QVector<QVector2D> result;
    result.reserve(mesh.positions.size());
    for (qsizetype i = 0; i < mesh.positions.size(); ++i) {
        const QVector3D &position = mesh.positions[i];
        const QVector3D p(place(position, 0), place(position, 1), place(position, 2));
        const QVector3D n = mesh.normals.isEmpty() ? QVector3D(0, 0, 1) : mesh.normals[i];
        const float x = std::abs(n.x()), y = std::abs(n.y()), z = std::abs(n.z());
        if (x >= y && x >= z)
            result << QVector2D(p.z(), p.y());
        else if (y >= z)
            result << QVector2D(p.x(), p.z());
        else
            result << QVector2D(p.x(), p.y());
    }
    return result;
}

class SceneReader
{
public:
    SceneReader(const aiScene &scene, const QString &path, const ImportOptions &options, ImportReport *report)
        : _scene(scene), _report(report), _images(scene, path, &report->warnings), _loadImages(options.loadImages)
    {}

    ModelData read()
    {
        for (unsigned i = 0; i < _scene.mNumMaterials; ++i)
            _data.materials << (_scene.mMaterials[i]
                                    ? importMaterial(*_scene.mMaterials[i], _loadImages ? &_images : nullptr)
                                    : ModelMaterial());
        for (unsigned i = 0; i < _scene.mNumMeshes; ++i)
            addMesh(*_scene.mMeshes[i]);
        addItems();
        moveScalesIntoMeshes();
        _report->images = _images.count();
        return std::move(_data);
    }

private:
    void warn(const QString &message) { _report->warnings << message; }

    void addMesh(const aiMesh &source)
    {
        ModelMesh mesh;
        mesh.name = text(source.mName);
        // Unlike the constructor with a size, it throws where there is no memory.
        QVector<bool> usable;
        usable.resize(source.mNumVertices);
        mesh.positions.resize(source.mNumVertices);
        for (unsigned i = 0; i < source.mNumVertices; ++i) {
            const aiVector3D &p = source.mVertices[i];
            usable[i] = isFinite(p);
            if (usable[i])
                mesh.positions[i] = QVector3D(p.x, p.y, p.z);
        }
        addTriangles(source, usable, &mesh);
        addNormals(source, &mesh);
        addTexCoords(source, &mesh);
        _meshIndex.push_back(mesh.indices.isEmpty() ? -1 : int(_data.meshes.size()));
        if (mesh.indices.isEmpty())
            return;
        _report->vertices += mesh.positions.size();
        _report->triangles += mesh.indices.size() / 3;
        _data.meshes << mesh;
    }

    void addTriangles(const aiMesh &source, const QVector<bool> &usable, ModelMesh *mesh)
    {
        mesh->indices.reserve(qsizetype(source.mNumFaces) * 3);
        for (unsigned f = 0; f < source.mNumFaces; ++f) {
            const aiFace &face = source.mFaces[f];
            const unsigned *begin = face.mIndices, *end = begin + face.mNumIndices;
            const bool usableFace = face.mNumIndices == 3 && std::all_of(begin, end, [&](unsigned i) {
                                        return i < source.mNumVertices && usable[i];
                                    });
            if (usableFace)
                for (const unsigned *i = begin; i != end; ++i)
                    mesh->indices << *i;
        }
    }

    void addNormals(const aiMesh &source, ModelMesh *mesh)
    {
        if (!source.HasNormals())
            return; // The model computes them.
        mesh->normals.resize(source.mNumVertices);
        qint64 replaced = 0;
        for (unsigned i = 0; i < source.mNumVertices; ++i) {
            const aiVector3D &n = source.mNormals[i];
            mesh->normals[i] = directionOf(QVector3D(n.x, n.y, n.z));
            replaced += mesh->normals[i].isNull();
        }
        if (replaced)
            recomputeMissing(mesh);
    }

    // Normals that are null become the mean of the triangles around them.
    static void recomputeMissing(ModelMesh *mesh)
    {
        const QVector<QVector3D> computed = computedNormals(mesh->positions, mesh->indices);
        for (qsizetype i = 0; i < mesh->normals.size(); ++i) {
            if (mesh->normals[i].isNull())
                mesh->normals[i] = computed[i];
        }
    }

    void addTexCoords(const aiMesh &source, ModelMesh *mesh)
    {
        if (!source.HasTextureCoords(0)) {
            mesh->texCoords = projectedTexCoords(*mesh);
            return;
        }
        mesh->texCoords.resize(source.mNumVertices);
        for (unsigned i = 0; i < source.mNumVertices; ++i) {
            const aiVector3D &t = source.mTextureCoords[0][i];
            if (std::isfinite(t.x) && std::isfinite(t.y))
                mesh->texCoords[i] = QVector2D(t.x, t.y);
        }
    }

    // With a list of its own rather than by recursion: files decide how deep the tree is.
    void addItems()
    {
        struct Place
        {
            const aiNode *node;
            QMatrix4x4 parent;
        };
        std::vector<Place> places{{_scene.mRootNode, QMatrix4x4()}};
        for (qint64 nodes = 0; !places.empty(); ++nodes) {
            if (nodes == kMaxNodes) {
                warn(QStringLiteral("more than %1 nodes: the rest is left out").arg(kMaxNodes));
                return;
            }
            const Place place = places.back();
            places.pop_back();
            const QMatrix4x4 transform = place.parent * matrix(place.node->mTransformation);
            if (!isFinite(transform)) {
                warn(QStringLiteral("node '%1': its transform is not finite, so it is left out")
                         .arg(text(place.node->mName)));
                continue;
            }
            for (unsigned i = 0; i < place.node->mNumMeshes; ++i)
                addItem(place.node->mMeshes[i], transform);
            for (unsigned i = place.node->mNumChildren; i-- > 0;)
                places.push_back({place.node->mChildren[i], transform});
        }
    }

    void addItem(unsigned mesh, const QMatrix4x4 &transform)
    {
        if (mesh >= _meshIndex.size() || _meshIndex[mesh] < 0)
            return;
        const unsigned material = _scene.mMeshes[mesh]->mMaterialIndex;
        ModelItem item;
        item.mesh = _meshIndex[mesh];
        item.material = material < _scene.mNumMaterials ? int(material) : defaultMaterial();
        item.transform = transform;
        _data.items << item;
    }

    // A mesh that is shown at one scale only takes it over. Normals are transformed by the inverse, and the
    // forward pass uses them at the length that they then have: a file in centimetres would come out dark.
    void moveScalesIntoMeshes()
    {
        std::vector<float> scales(size_t(_data.meshes.size()), 0.0f);
        for (const ModelItem &item : std::as_const(_data.items)) {
            const float scale = scaleOf(item.transform);
            float &known = scales[size_t(item.mesh)];
            if (known == 0.0f)
                known = scale;
            else if (!isAbout(scale, known))
                known = -1.0f;
        }
        for (const ModelItem &item : std::as_const(_data.items)) {
            QMatrix4x4 rest = item.transform;
            rest.scale(1.0f / scales[size_t(item.mesh)]);
            if (!isFinite(rest))
                scales[size_t(item.mesh)] = -1.0f;
        }
        for (qsizetype i = 0; i < _data.meshes.size(); ++i) {
            float &scale = scales[size_t(i)];
            if (!(scale > 0.0f) || !std::isfinite(scale) || !std::isfinite(1.0f / scale) || isAbout(scale, 1.0f)) {
                scale = 1.0f;
                continue;
            }
            QVector<QVector3D> &positions = _data.meshes[i].positions;
            const auto staysFinite = [scale](const QVector3D &p) { return isFinite(p * scale); };
            if (!std::all_of(positions.cbegin(), positions.cend(), staysFinite)) {
                scale = 1.0f;
                continue;
            }
            for (QVector3D &position : positions)
                position *= scale;
        }
        for (ModelItem &item : _data.items)
            if (const float scale = scales[size_t(item.mesh)]; scale != 1.0f)
                item.transform.scale(1.0f / scale);
    }

    static float scaleOf(const QMatrix4x4 &m)
    {
        const double determinant = double(m(0, 0)) * (double(m(1, 1)) * m(2, 2) - double(m(1, 2)) * m(2, 1))
                                   - double(m(0, 1)) * (double(m(1, 0)) * m(2, 2) - double(m(1, 2)) * m(2, 0))
                                   + double(m(0, 2)) * (double(m(1, 0)) * m(2, 1) - double(m(1, 1)) * m(2, 0));
        return float(std::cbrt(std::abs(determinant)));
    }

    static bool isAbout(float a, float b) { return std::abs(a - b) <= 1e-4f * std::max(std::abs(a), std::abs(b)); }

    int defaultMaterial()
    {
        if (_defaultMaterial < 0) {
            _defaultMaterial = int(_data.materials.size());
            _data.materials << ModelMaterial();
        }
        return _defaultMaterial;
    }

    const aiScene &_scene;
    ImportReport *_report;
    ImportImages _images;
    bool _loadImages;
    ModelData _data;
    std::vector<int> _meshIndex; // Of the file's meshes; -1 for those without triangles.
    int _defaultMaterial = -1;
};

bool checkFile(const QString &path, QString *error)
{
    const QFileInfo info(path);
    if (!info.exists())
        *error = QStringLiteral("there is no such file");
    else if (info.isDir())
        *error = QStringLiteral("it is a folder");
    else if (info.size() == 0 && info.isReadable())
        *error = QStringLiteral("the file is empty");
    else
        *error = damageOf(path);
    return error->isEmpty();
}

ModelData readScene(const QString &path, const ImportOptions &options, ImportReport *report)
{
    Assimp::Importer importer;
    importer.SetPropertyFloat(AI_CONFIG_PP_GSN_MAX_SMOOTHING_ANGLE, std::clamp(options.creaseAngle, 0.0f, 175.0f));
    importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, aiPrimitiveType_POINT | aiPrimitiveType_LINE);
    importer.SetPropertyInteger(AI_CONFIG_PP_RVC_FLAGS, aiComponent_ANIMATIONS | aiComponent_BONEWEIGHTS
                                                            | aiComponent_CAMERAS | aiComponent_COLORS
                                                            | aiComponent_LIGHTS | aiComponent_TANGENTS_AND_BITANGENTS);
    // In two steps, because the second does not survive all that the first lets through.
    const std::string file = QFile::encodeName(path).toStdString();
    if (const aiScene *scene = importer.ReadFile(file, 0); scene && scene->mRootNode) {
        repairScene(const_cast<aiScene *>(scene), &report->warnings);
        if (scene->mNumMeshes > 0)
            importer.ApplyPostProcessing(kSteps);
    }
    const aiScene *scene = importer.GetScene();
    if (!scene || !scene->mRootNode) {
        report->error = QString::fromUtf8(importer.GetErrorString()).trimmed();
        if (report->error.isEmpty())
            report->error = QStringLiteral("it holds no scene");
        return ModelData();
    }
    ModelData data = SceneReader(*scene, path, options, report).read();
    if (data.items.isEmpty())
        report->error = QStringLiteral("it holds no triangles");
    return data;
}

} // namespace

ModelData importScene(const QString &path, const ImportOptions &options, ImportReport *report)
{
    const UnaskedReport unasked(&report);
    *report = ImportReport();
    ModelData data;
    // The importer and what it calls may throw, and so does Qt without memory; nothing of that leaves this function.
    try {
        if (checkFile(path, &report->error))
            data = readScene(path, options, report);
    } catch (const std::bad_alloc &) {
        report->error = QStringLiteral("there is not enough memory for it");
    } catch (const std::exception &exception) {
        report->error = QString::fromLocal8Bit(exception.what());
    } catch (...) {
        report->error = QStringLiteral("the importer gave up");
    }
    if (report->error.isEmpty())
        return data;
    report->error = QStringLiteral("cannot read model '%1': %2").arg(path, report->error);
    return ModelData();
}

bool setOpacity(ModelData *data, const QString &material, float opacity, QString *error)
{
    if (!(opacity >= 0.0f && opacity <= 1.0f)) {
        if (error)
            *error = QStringLiteral("an opacity runs from 0 to 1, not %1").arg(double(opacity));
        return false;
    }
    QStringList names;
    bool found = false;
    for (ModelMaterial &candidate : data->materials) {
        names << candidate.name;
        if (!material.isEmpty() && candidate.name != material)
            continue;
        candidate.D = opacity;
        found = true;
    }
    if (!found && error)
        *error = QStringLiteral("the model has no material '%1'%2").arg(material, nearestNameHint(material, names));
    return found;
}

ModelData opaquePartOf(const ModelData &data)
{
    ModelData part = data;
    part.items.removeIf([&](const ModelItem &item) {
        return item.material >= 0 && item.material < data.materials.size() && data.materials[item.material].D < 1.0f;
    });
    return part;
}

void scaleModel(ModelData *data, float factor)
{
    if (!(factor > 0.0f) || !std::isfinite(factor)) {
        qWarning("scaleModel: a factor has to be above 0, not %g: the model stays as it is", double(factor));
        return;
    }
    for (ModelMesh &mesh : data->meshes)
        for (QVector3D &position : mesh.positions)
            position *= factor;
    for (ModelItem &item : data->items) {
        const QVector4D place = item.transform.column(3);
        item.transform.setColumn(3, QVector4D(place.toVector3D() * factor, place.w()));
    }
}

GPUModel::BoundingBox boxOf(const ModelData &data)
{
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    QVector3D least(kInfinity, kInfinity, kInfinity);
    QVector3D most = -least;
    for (const ModelItem &item : data.items) {
        if (item.mesh < 0 || item.mesh >= data.meshes.size())
            continue;
        for (const QVector3D &position : data.meshes[item.mesh].positions) {
            const QVector3D placed = item.transform.map(position);
            for (int axis = 0; axis < 3; ++axis) {
                least[axis] = std::min(least[axis], placed[axis]);
                most[axis] = std::max(most[axis], placed[axis]);
            }
        }
    }
    return least.x() <= most.x() ? GPUModel::BoundingBox{least, most} : GPUModel::BoundingBox();
}

float longestSideOf(const ModelData &data)
{
    const GPUModel::BoundingBox box = boxOf(data);
    const QVector3D sides = box.maximum - box.minimum;
    return std::max({sides.x(), sides.y(), sides.z()});
}

void addFloor(ModelData *data)
{
    constexpr float kMargin = 0.6f; // on each side, as a share of the longest side
    const GPUModel::BoundingBox box = boxOf(*data);
    const float margin = kMargin * longestSideOf(*data);
    const float height = box.minimum.y();
    const float left = box.minimum.x() - margin;
    const float right = box.maximum.x() + margin;
    const float back = box.minimum.z() - margin;
    const float front = box.maximum.z() + margin;
    ModelMesh floor;
    floor.name = QStringLiteral("floor");
    floor.positions = {{left, height, front}, {right, height, front}, {right, height, back}, {left, height, back}};
    floor.normals = QVector<QVector3D>(4, {0.0f, 1.0f, 0.0f});
    floor.texCoords = {{0.0f, 0.0f}, {1.0f, 0.0f}, {1.0f, 1.0f}, {0.0f, 1.0f}};
    floor.indices = {0, 1, 2, 0, 2, 3};
    ModelMaterial material;
    material.name = QStringLiteral("floor");
    material.Kd = {0.75f, 0.74f, 0.72f};
    ModelItem item;
    item.mesh = int(data->meshes.size());
    item.material = int(data->materials.size());
    data->meshes << floor;
    data->materials << material;
    data->items << item;
}

} // namespace Brevane::Kvo
