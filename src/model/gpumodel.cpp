#include "model/gpumodel.h"

#include "core/hostcode.h"
#include "core/liveobjects.h"
#include "gl/attributelocations.h"
#include "gl/bufferobject.h"
#include "gl/contextstate.h"
#include "gl/drawbuffers.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texturemanager.h"
#include "gl/vertexarrayobject.h"
#include "model/instancedatacollection.h"
#include "model/instancedataplan.h"
#include "model/instancedataregistry.h"
#include "model/itemculling.h"
#include "model/materialtexels.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>

namespace Brevane::Kvo {

namespace {

// Enough for the selections of all passes; odd masks evict the oldest.
constexpr std::size_t kMaxSelections = 16;
// Views that are kept while others are drawn: the layers of some shadow maps. Of large models fewer are, so that
// there are no more items in all of them together than this.
constexpr std::size_t kMostViews = 64;
constexpr std::size_t kFewestViews = 8;
constexpr std::size_t kMostItemsOfViews = std::size_t(1) << 22;

// What the exact boxes of turned items may cost at most: some tenths of a second.
constexpr std::size_t kMostBoxedVertices = std::size_t(1) << 24;

const QString &drawIndexAttribute()
{
    static const QString name = QString::fromUtf16(kDrawIndexAttribute);
    return name;
}

bool isFinite(const QVector3D &v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

bool isFinite(const QVector2D &v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y());
}

bool isFinite(const QMatrix4x4 &m)
{
    return std::all_of(m.constData(), m.constData() + 16, [](float f) { return std::isfinite(f); });
}

void warn(QStringList *warnings, const QString &text)
{
    if (warnings) {
        warnings->append(text);
        return;
    }
    const HostCode hostCode;
    qWarning("GPUModel: %s", qPrintable(text));
}

struct Box
{
    QVector3D minimum{std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
                      std::numeric_limits<float>::max()};
    QVector3D maximum = -minimum;

    bool isEmpty() const { return minimum.x() > maximum.x(); }
    void add(const QVector3D &p)
    {
        for (int i = 0; i < 3; ++i) {
            minimum[i] = std::min(minimum[i], p[i]);
            maximum[i] = std::max(maximum[i], p[i]);
        }
    }
    void add(const Box &box)
    {
        if (!box.isEmpty()) {
            add(box.minimum);
            add(box.maximum);
        }
    }
    QVector3D corner(int i) const
    {
        return {i & 1 ? maximum.x() : minimum.x(), i & 2 ? maximum.y() : minimum.y(),
                i & 4 ? maximum.z() : minimum.z()};
    }
};

/// A mesh as it goes into the shared buffers.
struct PlacedMesh
{
    unsigned int firstIndex = 0;
    unsigned int indexCount = 0;
    Box box;
};

struct Item
{
    quint64 flags = 0;
};

/// The items of one value, mask and opacity, ready to draw.
struct Selection
{
    quint64 value;
    quint64 mask;
    GPUModel::Opacity opacity;
    std::vector<int> items;
    QSharedPointer<BufferObject> commands; // made on first indirect draw
    bool isMade = false; ///< Otherwise only the memory is still there.
    bool isUploaded = false;
    bool isBounded = false; ///< At the places of boundedAt.
    int boundedAt = 0;
    GPUModel::BoundingBox bounds;
};

/// What some views leave out, and the selections of the rest.
struct View
{
    ItemCulling::Bits culled; ///< Empty: nothing.
    std::vector<Selection> selections;
    quint64 lastUse = 0;
};

/// The matrices that have led to a view.
struct KnownView
{
    std::vector<float> matrices; ///< Empty: none any more.
    std::size_t view = 0;
    quint64 lastUse = 0;
};

// Without making a surface of materials that have none.
bool hasMap(const ModelMaterial &material, QImage ModelSurface::*map)
{
    return material.surface && !(*material.surface.*map).isNull();
}

/// The geometry of all meshes in the arrays that become the buffers.
class GeometryArrays
{
public:
    PlacedMesh add(const ModelMesh &mesh, bool hasNormalMap, QStringList *warnings)
    {
        PlacedMesh placed;
        placed.firstIndex = unsigned(indices.size());
        const auto base = quint32(positions.size() / 3);
        const QVector<quint32> good = usableTriangles(mesh, warnings);
        if (good.isEmpty())
            return placed;
        const bool hasNormals =
            mesh.normals.size() == mesh.positions.size()
            && std::all_of(mesh.normals.cbegin(), mesh.normals.cend(), [](const QVector3D &n) { return isFinite(n); });
        const bool hasTexCoords = mesh.texCoords.size() == mesh.positions.size();
        const QVector<QVector3D> normals_ = hasNormals ? mesh.normals : computedNormals(mesh.positions, good);
        if (hasNormalMap)
            addTangents(mesh, normals_, good);
        for (qsizetype i = 0; i < mesh.positions.size(); ++i) {
            // Vertices that no triangle uses still take their place; what is not finite becomes 0.
            const QVector3D p = isFinite(mesh.positions[i]) ? mesh.positions[i] : QVector3D();
            const QVector3D n = normals_[i];
            const QVector2D t = hasTexCoords && isFinite(mesh.texCoords[i]) ? mesh.texCoords[i] : QVector2D();
            positions.insert(positions.end(), {p.x(), p.y(), p.z()});
            normals.insert(normals.end(), {n.x(), n.y(), n.z()});
            texCoords.insert(texCoords.end(), {t.x(), t.y()});
        }
        for (quint32 index : good) {
            indices.push_back(base + index);
            placed.box.add(mesh.positions[index]);
        }
        placed.indexCount = unsigned(good.size());
        return placed;
    }

    bool isTooLarge() const
    {
        constexpr std::size_t kMost = std::size_t(std::numeric_limits<int>::max()) / sizeof(float);
        return positions.size() > kMost || indices.size() > kMost;
    }

    std::vector<float> positions;
    std::vector<float> normals;
    std::vector<float> texCoords;
    std::vector<float> tangents; ///< Up to the last mesh that needs them; empty where none does.
    std::vector<quint32> indices;

private:
    /// Of the vertices that are added next.
    void addTangents(const ModelMesh &mesh, const QVector<QVector3D> &normals_, const QVector<quint32> &good)
    {
        const bool hasTangents = mesh.tangents.size() == mesh.positions.size()
                                 && std::all_of(mesh.tangents.cbegin(), mesh.tangents.cend(), [](const QVector4D &t) {
                                        return isFinite(t.toVector3D()) && std::isfinite(t.w());
                                    });
        ModelMesh usable = mesh;
        usable.normals = normals_;
        usable.indices = good;
        const QVector<QVector4D> added = hasTangents ? mesh.tangents : computedTangents(usable);
        tangents.resize(positions.size() / 3 * 4, 0.0f);
        for (const QVector4D &t : added)
            tangents.insert(tangents.end(), {t.x(), t.y(), t.z(), t.w()});
    }

    static QVector<quint32> usableTriangles(const ModelMesh &mesh, QStringList *warnings)
    {
        QVector<quint32> good;
        good.reserve(mesh.indices.size());
        qsizetype dropped = mesh.indices.size() % 3 ? 1 : 0;
        for (qsizetype i = 0; i + 2 < mesh.indices.size(); i += 3) {
            const auto usable = [&](qsizetype at) {
                const quint32 index = mesh.indices[at];
                return index < quint32(mesh.positions.size()) && isFinite(mesh.positions[index]);
            };
            if (usable(i) && usable(i + 1) && usable(i + 2))
                good << mesh.indices[i] << mesh.indices[i + 1] << mesh.indices[i + 2];
            else
                ++dropped;
        }
        if (dropped > 0)
            warn(warnings, QStringLiteral("mesh '%1': %2 triangles dropped, their indices are out of range or their "
                                          "vertices not finite")
                               .arg(mesh.name, QString::number(dropped)));
        return good;
    }
};

Box transformedCorners(const Box &box, const QMatrix4x4 &transform)
{
    Box out;
    for (int i = 0; i < 8 && !box.isEmpty(); ++i)
        out.add(transform.map(box.corner(i)));
    return out;
}

// Whether it moves the axes to axes, and with them boxes to boxes.
bool keepsBoxes(const QMatrix4x4 &transform)
{
    for (int row = 0; row < 4; ++row) {
        int factors = 0;
        for (int column = 0; column < 3; ++column)
            factors += transform(row, column) != 0.0f;
        if (factors > (row < 3 ? 1 : 0))
            return false;
    }
    return true;
}

/// The boxes of items in the world.
class ItemBoxes
{
public:
    ItemBoxes(const GeometryArrays &arrays) : _arrays(arrays) {}

    /// Touches the item's vertices on all sides; around boxes that are turned there would be room. Where that
    /// has cost too much, the rest of the items make do with the corners of what the mesh has as a box.
    Box of(const PlacedMesh &mesh, const QMatrix4x4 &transform)
    {
        if (keepsBoxes(transform) || _boxedVertices + mesh.indexCount > kMostBoxedVertices)
            return transformedCorners(mesh.box, transform);
        _boxedVertices += mesh.indexCount;
        Box out;
        for (unsigned int i = 0; i < mesh.indexCount; ++i) {
            const float *p = &_arrays.positions[3 * std::size_t(_arrays.indices[mesh.firstIndex + i])];
            out.add(transform.map(QVector3D(p[0], p[1], p[2])));
        }
        return out;
    }

private:
    const GeometryArrays &_arrays;
    std::size_t _boxedVertices = 0;
};

// The record of an item in the data of objects: its transform, and that of its normals.
constexpr qsizetype kPlaceFloats = 32;

void setPlace(float *record, const QMatrix4x4 &transform)
{
    std::copy_n(transform.constData(), 16, record);
    std::copy_n(transform.inverted().transposed().constData(), 16, record + 16);
}

void appendMaterial(QVector<float> &data, const ModelMaterial &m, int map_Kd, int map_Ks)
{
    const MaterialTexels texels{
        {m.Kd.x(), m.Kd.y(), m.Kd.z()}, m.Ns, {m.Ks.x(), m.Ks.y(), m.Ks.z()}, m.D, float(map_Kd), float(map_Ks), {}};
    const auto floats = std::bit_cast<std::array<float, kMaterialFloats>>(texels);
    for (const float value : floats)
        data.append(value);
}

QSharedPointer<BufferObject> floatBuffer(const std::vector<float> &data)
{
    const auto buffer = QSharedPointer<BufferObject>::create();
    buffer->upload(data.data(), int(data.size()), GL_STATIC_DRAW);
    return buffer;
}

} // namespace

class GPUModelPrivate
{
public:
    GPUModelPrivate()
    {
        InstanceDataRegistry &registry = InstanceDataRegistry::Instance();
        objectData = std::make_unique<InstanceDataCollection>(registry.getPlan(QStringLiteral("InstanceInfo")));
        materialData = std::make_unique<InstanceDataCollection>(registry.getPlan(QStringLiteral("OBJMaterial")));
    }
    ~GPUModelPrivate()
    {
        for (const ManagedKind kind : {ManagedKind::Data, ManagedKind::Color})
            TextureManager::Instance().removeManagedTextures(shareGroup, maps[std::size_t(kind)], kind);
    }

    bool hasOpacity(std::size_t item, GPUModel::Opacity opacity) const
    {
        if (opacity == GPUModel::Opacity::Any)
            return true;
        if (opacity == GPUModel::Opacity::Mixed) {
            const QVector<float> &floats = surfaceData->data();
            const auto number = [&](std::size_t offset) {
                return floats.value(qsizetype(item) * kSurfaceFloats + materialFloat(offset));
            };
            return number(offsetof(SurfaceTexels, opacity)) < 1.0f
                   || number(offsetof(SurfaceTexels, alphaMode)) == float(int(AlphaMode::Blend));
        }
        constexpr qsizetype kOpacity = materialFloat(offsetof(MaterialTexels, D));
        const bool isTransparent = materialData->data().value(qsizetype(item) * kMaterialFloats + kOpacity) < 1.0f;
        return isTransparent == (opacity == GPUModel::Opacity::Transparent);
    }

    Selection &selection(quint64 value, quint64 mask, GPUModel::Opacity opacity = GPUModel::Opacity::Any)
    {
        const int revision = materialData->revision() + (surfaceData ? surfaceData->revision() : 0);
        if (opacity != GPUModel::Opacity::Any && materialRevision != revision) {
            materialRevision = revision;
            for (View &view : views)
                for (Selection &known : view.selections)
                    known.isMade = known.isMade && known.opacity == GPUModel::Opacity::Any;
        }
        std::vector<Selection> &selections = views[currentView].selections;
        auto found = std::find_if(selections.begin(), selections.end(), [&](const Selection &s) {
            return s.value == value && s.mask == mask && s.opacity == opacity;
        });
        if (found == selections.end()) {
            if (selections.size() >= kMaxSelections)
                selections.erase(selections.begin());
            found = selections.insert(selections.end(), Selection{value, mask, opacity, {}, nullptr});
        }
        if (!found->isMade)
            select(*found, views[currentView].culled);
        return *found;
    }

    void select(Selection &made, const ItemCulling::Bits &culled) const
    {
        made.items.clear();
        for (std::size_t i = 0; i < items.size(); ++i) {
            const bool isCulled = !culled.empty() && ItemCulling::has(culled, i);
            if ((items[i].flags & made.mask) == made.value && !isCulled && commands[i].count > 0
                && hasOpacity(i, made.opacity))
                made.items.push_back(int(i));
        }
        made.isMade = true;
        made.isUploaded = false;
        made.isBounded = false;
    }

    bool canDrawIndirect() const
    {
        const ContextState *state = ContextState::current();
        const auto has = [state](int version, const char *extension) {
            return state->version >= version || state->hasExtension(extension);
        };
        return state && has(43, "ARB_multi_draw_indirect") && has(42, "ARB_base_instance");
    }

    /// Lets selections leave out what lies outside of some views.
    void cull(const QMatrix4x4 *viewProjections, int count);

    /// The box around what is selected.
    GPUModel::BoundingBox boundsOf(Selection &chosen);

    /// Fills an object that holds nothing yet. What it has taken when it fails goes with it.
    bool upload(const ModelData &data, QStringList *warnings);
    bool draw(ShaderProgram *program, TextureManager *manager, Selection &chosen, WindingType winding);
    void drawIndirect(Selection &chosen);
    void drawOneByOne(ShaderProgram *program, const Selection &chosen) const;

    std::vector<Item> items;
    std::vector<DrawElementsIndirectCommand> commands;
    std::vector<View> views = std::vector<View>(1); ///< The first is that of all items.
    std::size_t currentView = 0;
    std::array<QVector<int>, 2> maps; ///< Handles by kind, each once.
    quint64 shareGroup = 0; ///< Where all of this lives.
    Box bounds;
    qint64 triangles = 0;
    int materialRevision = 0;
    GPUModel::DrawRoad road = GPUModel::DrawRoad::Automatic;

    std::unique_ptr<DrawBuffers> geometry;
    QSharedPointer<VertexArrayObject> indirectArrays;
    std::unique_ptr<InstanceDataCollection> objectData;
    std::unique_ptr<InstanceDataCollection> materialData;
    std::unique_ptr<InstanceDataCollection> surfaceData; ///< Null until it is asked for.

    void makeSurfaceData();

private:
    /// The handles of the two maps of a material.
    struct MaterialMaps
    {
        int Kd = 0;
        int Ks = 0;
    };
    /// What the steps of an upload hand on.
    struct Upload
    {
        GeometryArrays arrays;
        std::vector<PlacedMesh> meshes;
        std::vector<MaterialMaps> maps; ///< By material.
    };
    /// The surface of an item, until there is data of it.
    struct ItemSurface
    {
        std::size_t surface; ///< In surfaces.
        float opacity;
    };
    static bool placeMeshes(const ModelData &data, Upload &made, QStringList *warnings);
    int handleOf(const QImage &image, const QString &name, ManagedKind kind);
    void keepSurfaces(const ModelData &data);
    void takeMaps(const ModelData &data, Upload &made);
    bool placeItems(const ModelData &data, const Upload &made, QStringList *warnings);
    bool uploadGeometry(const GeometryArrays &arrays);
    std::size_t viewWith(const ItemCulling::Bits &culled);
    void followPlaces();

    std::array<QHash<qint64, int>, 2> handles; ///< By kind and image: materials often share a map.
    std::vector<std::pair<QString, ModelSurface>> surfaces; ///< By material, with its name.
    std::vector<ItemSurface> itemSurfaces;
    ItemCulling culling;
    int placesRevision = 0; ///< Of the object data, that the culling knows.
    std::vector<KnownView> knownViews;
    quint64 viewUses = 0;
    // Kept for their memory.
    std::vector<float> wantedMatrices;
    ItemCulling::Bits foundOutside;
    std::vector<DrawElementsIndirectCommand> selectedCommands;
};

bool GPUModelPrivate::upload(const ModelData &data, QStringList *warnings)
{
    Upload made;
    if (!placeMeshes(data, made, warnings))
        return false;
    takeMaps(data, made);
    keepSurfaces(data);
    if (!placeItems(data, made, warnings))
        return false;
    if (!uploadGeometry(made.arrays)) {
        warn(warnings, QStringLiteral("the driver has no room for the model's geometry"));
        return false;
    }
    return true;
}

bool GPUModelPrivate::placeMeshes(const ModelData &data, Upload &made, QStringList *warnings)
{
    std::vector<bool> hasNormalMap(std::size_t(data.meshes.size()), false);
    for (const ModelItem &item : data.items) {
        const bool isUsable = item.mesh >= 0 && item.mesh < data.meshes.size() && item.material >= 0
                              && item.material < data.materials.size();
        if (isUsable && hasMap(data.materials[item.material], &ModelSurface::map_normal))
            hasNormalMap[std::size_t(item.mesh)] = true;
    }
    for (const ModelMesh &mesh : data.meshes) {
        made.meshes.push_back(made.arrays.add(mesh, hasNormalMap[made.meshes.size()], warnings));
        if (made.arrays.isTooLarge()) {
            warn(warnings, QStringLiteral("the model has more vertices or indices than a buffer can hold"));
            return false;
        }
    }
    return true;
}

int GPUModelPrivate::handleOf(const QImage &image, const QString &name, ManagedKind kind)
{
    if (image.isNull())
        return 0;
    QHash<qint64, int> &known = handles[std::size_t(kind)];
    const auto found = known.constFind(image.cacheKey());
    if (found != known.cend())
        return *found;
    const int handle = TextureManager::Instance().addManagedTexture(image, name, kind);
    if (handle > 0)
        maps[std::size_t(kind)].append(handle);
    known.insert(image.cacheKey(), handle);
    return handle;
}

void GPUModelPrivate::takeMaps(const ModelData &data, Upload &made)
{
    for (const ModelMaterial &m : data.materials)
        made.maps.push_back(
            {handleOf(m.map_Kd, m.name, ManagedKind::Data), handleOf(m.map_Ks, m.name, ManagedKind::Data)});
}

void GPUModelPrivate::keepSurfaces(const ModelData &data)
{
    for (const ModelMaterial &m : data.materials)
        surfaces.emplace_back(m.name, surfaceOf(m));
}

void GPUModelPrivate::makeSurfaceData()
{
    if (surfaceData)
        return;
    surfaceData = std::make_unique<InstanceDataCollection>(
        InstanceDataRegistry::Instance().getPlan(QStringLiteral("SurfaceMaterial")));
    QVector<float> floats;
    floats.reserve(qsizetype(itemSurfaces.size()) * kSurfaceFloats);
    for (const ItemSurface &item : itemSurfaces) {
        const auto &[name, s] = surfaces[item.surface];
        const auto color = [this, &name = name](const QImage &map) {
            return float(handleOf(map, name, ManagedKind::Color));
        };
        const auto data = [this, &name = name](const QImage &map) {
            return float(handleOf(map, name, ManagedKind::Data));
        };
        const SurfaceTexels texels{{s.baseColor.x(), s.baseColor.y(), s.baseColor.z()},
                                   item.opacity,
                                   s.metalness,
                                   s.roughness,
                                   s.normalScale,
                                   s.occlusionStrength,
                                   {s.emission.x(), s.emission.y(), s.emission.z()},
                                   s.alphaCutoff,
                                   color(s.map_baseColor),
                                   color(s.map_emission),
                                   data(s.map_metalRoughness),
                                   data(s.map_normal),
                                   data(s.map_occlusion),
                                   float(int(s.alphaMode)),
                                   float(s.isTwoSided),
                                   float(s.isUnlit)};
        for (const float value : std::bit_cast<std::array<float, kSurfaceFloats>>(texels))
            floats.append(value);
    }
    // More draws than the driver can index were refused with the model; this has five texels for the eight of places.
    surfaceData->setData(floats);
    surfaces.clear();
    itemSurfaces.clear();
}

bool GPUModelPrivate::placeItems(const ModelData &data, const Upload &made, QStringList *warnings)
{
    ItemBoxes boxes(made.arrays);
    QVector<float> objectFloats;
    QVector<float> materialFloats;
    for (const ModelItem &item : data.items) {
        if (item.mesh < 0 || item.mesh >= data.meshes.size() || item.material < 0
            || item.material >= data.materials.size() || !isFinite(item.transform)) {
            warn(warnings, QStringLiteral("item %1 dropped: mesh %2, material %3 or its transform is not usable")
                               .arg(&item - data.items.constData())
                               .arg(item.mesh)
                               .arg(item.material));
            continue;
        }
        const PlacedMesh &mesh = made.meshes[std::size_t(item.mesh)];
        const MaterialMaps &itemMaps = made.maps[std::size_t(item.material)];
        const Box box = boxes.of(mesh, item.transform);
        bounds.add(box);
        commands.push_back({mesh.indexCount, 1, mesh.firstIndex, 0, unsigned(items.size())});
        items.push_back({item.flags});
        culling.add(mesh.box.minimum, mesh.box.maximum, box.minimum, box.maximum, item.transform);
        triangles += mesh.indexCount / 3;
        objectFloats.resize(objectFloats.size() + kPlaceFloats);
        setPlace(objectFloats.data() + objectFloats.size() - kPlaceFloats, item.transform);
        appendMaterial(materialFloats, data.materials[item.material], itemMaps.Kd, itemMaps.Ks);
        itemSurfaces.push_back({std::size_t(item.material), data.materials[item.material].D});
    }
    if (!objectData->setData(objectFloats) || !materialData->setData(materialFloats)) {
        warn(warnings, QStringLiteral("the model has more items than this driver can index"));
        return false;
    }
    culling.setFirstPlaces(objectFloats);
    placesRevision = objectData->revision();
    return true;
}

bool GPUModelPrivate::uploadGeometry(const GeometryArrays &arrays)
{
    const auto vertices = floatBuffer(arrays.positions);
    const auto normals = floatBuffer(arrays.normals);
    const auto texCoords = floatBuffer(arrays.texCoords);
    QSharedPointer<BufferObject> tangents;
    if (!arrays.tangents.empty()) {
        std::vector<float> ofAll = arrays.tangents;
        ofAll.resize(arrays.positions.size() / 3 * 4, 0.0f);
        tangents = floatBuffer(ofAll);
    }
    const auto indices = QSharedPointer<BufferObject>::create();
    indices->setTarget(GL_ELEMENT_ARRAY_BUFFER);
    const auto makeArrays = [&] {
        const auto vao = QSharedPointer<VertexArrayObject>::create();
        vao->upload(QStringLiteral("va_Vertex"), vertices, 3, GL_FLOAT);
        vao->upload(QStringLiteral("va_TexCoord"), texCoords, 2, GL_FLOAT);
        vao->upload(QStringLiteral("va_Normal"), normals, 3, GL_FLOAT);
        if (tangents)
            vao->upload(QStringLiteral("va_Tangent"), tangents, 4, GL_FLOAT);
        return vao;
    };
    // Where draws are issued one by one, the index of the draw is a constant attribute, so the arrays
    // for that road have no buffer for it.
    const auto arraysForLoop = makeArrays();
    {
        // The target is part of the vertex array that is bound, which must not be a host's.
        AutoBinder bound(arraysForLoop);
        indices->uploadGLuintData(arrays.indices.data(), int(arrays.indices.size()), GL_STATIC_DRAW);
    }
    const auto holds = [](const QSharedPointer<BufferObject> &buffer, std::size_t numbers) {
        return buffer->size() == qint64(numbers * sizeof(float));
    };
    bool isWhole = holds(vertices, arrays.positions.size()) && holds(normals, arrays.normals.size())
                   && holds(texCoords, arrays.texCoords.size()) && holds(indices, arrays.indices.size())
                   && (!tangents || tangents->isUsable());
    geometry = std::make_unique<DrawBuffers>();
    geometry->setVAO(arraysForLoop);
    geometry->setPrimitiveType(GL_TRIANGLES);
    geometry->setIndexedDraw(indices, int(arrays.indices.size()), GL_UNSIGNED_INT);
    geometry->setDrawElementsIndirectCommands(commands.data(), int(commands.size()));

    if (canDrawIndirect()) {
        std::vector<unsigned int> drawIndices(items.size());
        std::iota(drawIndices.begin(), drawIndices.end(), 0u);
        const auto drawIndexBuffer = QSharedPointer<BufferObject>::create();
        drawIndexBuffer->uploadGLuintData(drawIndices.data(), int(drawIndices.size()), GL_STATIC_DRAW);
        indirectArrays = makeArrays();
        indirectArrays->upload(drawIndexAttribute(), drawIndexBuffer, 1, GL_UNSIGNED_INT, 0, 1);
        indirectArrays->setIndexBuffer(indices);
        isWhole = isWhole && holds(drawIndexBuffer, drawIndices.size());
    }
    return isWhole;
}

bool GPUModelPrivate::draw(ShaderProgram *program, TextureManager *manager, Selection &chosen, WindingType winding)
{
    static const QString drawID = QStringLiteral("u_DrawID");
    if (chosen.items.empty())
        return true;
    // Names of another share group would mean something else here.
    if (!program || !program->isLinked() || !ContextState::current()
        || ContextState::current()->group->id() != shareGroup)
        return false;
    const AutoBinder bound(ContextState::current()->boundProgram == program ? nullptr : program);
    objectData->bind(program, manager);
    materialData->bind(program, nullptr);
    const bool readsSurfaces = surfaceData && program->hasUniform(surfaceData->plan()->samplerName());
    if (readsSurfaces)
        surfaceData->bind(program, nullptr);
    GLint frontFace = GL_CCW;
    if (winding == ClockwiseWinding) {
        glGetIntegerv(GL_FRONT_FACE, &frontFace);
        glFrontFace(GL_CW);
    }

    // The index of a draw reaches a uniform only between draws.
    const bool indirect = road != GPUModel::DrawRoad::Loop && !program->hasUniform(drawID) && canDrawIndirect();
    VertexArrayObject *arrays = indirect ? indirectArrays.data() : geometry->VAO().data();
    arrays->enableShaderProgramArrays(program);
    {
        const AutoBinder boundArrays(arrays);
        if (!boundArrays.isBound()) {
            // said where it was to be made
        } else if (indirect)
            drawIndirect(chosen);
        else
            drawOneByOne(program, chosen);
    }

    if (winding == ClockwiseWinding)
        glFrontFace(GLenum(frontFace));
    if (readsSurfaces)
        surfaceData->unbind(program, nullptr);
    materialData->unbind(program, nullptr);
    objectData->unbind(program, manager);
    return true;
}

void GPUModelPrivate::drawIndirect(Selection &chosen)
{
    if (!chosen.commands) {
        chosen.commands = QSharedPointer<BufferObject>::create();
        chosen.commands->setTarget(GL_DRAW_INDIRECT_BUFFER);
    }
    if (!chosen.isUploaded) {
        selectedCommands.clear();
        for (int item : chosen.items)
            selectedCommands.push_back(commands[std::size_t(item)]);
        chosen.isUploaded = chosen.commands->uploadBytes(
            selectedCommands.data(), qint64(selectedCommands.size()) * qint64(sizeof selectedCommands[0]),
            GL_STATIC_DRAW);
    }
    const AutoBinder boundCommands(chosen.isUploaded ? chosen.commands : nullptr);
    if (!boundCommands.isBound())
        return;
    glMultiDrawElementsIndirect(GL_TRIANGLES, GL_UNSIGNED_INT, nullptr, GLsizei(chosen.items.size()), 0);
}

void GPUModelPrivate::drawOneByOne(ShaderProgram *program, const Selection &chosen) const
{
    static const QString drawID = QStringLiteral("u_DrawID");
    const int indexLocation = program->attributeLocation(drawIndexAttribute());
    const bool wantsID = program->hasUniform(drawID);
    // The value of an attribute without an array is the context's, not the vertex array's.
    GLuint indexBefore[4] = {};
    if (indexLocation >= 0)
        glGetVertexAttribIuiv(GLuint(indexLocation), GL_CURRENT_VERTEX_ATTRIB, indexBefore);
    for (int item : chosen.items) {
        const DrawElementsIndirectCommand &command = commands[std::size_t(item)];
        if (indexLocation >= 0)
            glVertexAttribI1ui(GLuint(indexLocation), GLuint(item));
        if (wantsID)
            program->setUniform(drawID, item); // int and uint in programs of hosts
        glDrawElements(GL_TRIANGLES, GLsizei(command.count), GL_UNSIGNED_INT,
                       reinterpret_cast<const void *>(quintptr(command.firstIndex) * sizeof(GLuint)));
    }
    if (indexLocation >= 0)
        glVertexAttribI4uiv(GLuint(indexLocation), indexBefore);
}

// What was found for other places holds no longer.
void GPUModelPrivate::followPlaces()
{
    if (placesRevision == objectData->revision())
        return;
    placesRevision = objectData->revision();
    culling.setPlaces(objectData->data());
    for (KnownView &known : knownViews)
        known.matrices.clear();
}

GPUModel::BoundingBox GPUModelPrivate::boundsOf(Selection &chosen)
{
    if (chosen.items.empty())
        return {};
    followPlaces();
    // Asked for in every frame, of models that mostly stand still.
    if (!chosen.isBounded || chosen.boundedAt != placesRevision) {
        GPUModel::BoundingBox box;
        culling.bound(chosen.items, box.minimum, box.maximum);
        chosen.bounds = box.minimum.x() > box.maximum.x() ? GPUModel::BoundingBox() : box;
        chosen.boundedAt = placesRevision;
        chosen.isBounded = true;
    }
    return chosen.bounds;
}

// Matrices that were here before lead to their view at once. Others are looked at anew, and may lead to a view that
// leaves out the same. Memory is taken over from the view that was not used for longest.
void GPUModelPrivate::cull(const QMatrix4x4 *viewProjections, int count)
{
    currentView = 0;
    if (count <= 0)
        return;
    followPlaces();
    wantedMatrices.clear();
    for (int i = 0; i < count; ++i)
        wantedMatrices.insert(wantedMatrices.end(), viewProjections[i].constData(),
                              viewProjections[i].constData() + 16);
    ++viewUses;
    auto known = std::find_if(knownViews.begin(), knownViews.end(),
                              [this](const KnownView &k) { return k.matrices == wantedMatrices; });
    if (known == knownViews.end()) {
        if (knownViews.size() < kMostViews)
            known = knownViews.insert(knownViews.end(), KnownView());
        else
            known = std::min_element(knownViews.begin(), knownViews.end(),
                                     [](const KnownView &a, const KnownView &b) { return a.lastUse < b.lastUse; });
        const bool isAnyOutside = culling.findOutside(viewProjections, count, foundOutside);
        known->matrices.clear();
        known->view = isAnyOutside ? viewWith(foundOutside) : 0;
        known->matrices = wantedMatrices;
    }
    known->lastUse = viewUses;
    currentView = known->view;
    views[currentView].lastUse = viewUses;
}

std::size_t GPUModelPrivate::viewWith(const ItemCulling::Bits &culled)
{
    const auto same = std::find_if(views.begin() + 1, views.end(), [&](const View &v) { return v.culled == culled; });
    if (same != views.end())
        return std::size_t(same - views.begin());
    if (views.size() < std::clamp(kMostItemsOfViews / items.size(), kFewestViews, kMostViews)) {
        views.emplace_back().culled = culled;
        return views.size() - 1;
    }
    const auto oldest = std::min_element(views.begin() + 1, views.end(),
                                         [](const View &a, const View &b) { return a.lastUse < b.lastUse; });
    const auto index = std::size_t(oldest - views.begin());
    for (KnownView &known : knownViews)
        if (known.view == index)
            known.matrices.clear();
    for (Selection &selection : oldest->selections)
        selection.isMade = false;
    oldest->culled = culled;
    return index;
}

GPUModel::GPUModel() : d(std::make_unique<GPUModelPrivate>())
{
    static const int registered = qRegisterMetaType<GPUModel *>();
    Q_UNUSED(registered)
    enterLiveObject(this, LiveKind::Model);
}

GPUModel::~GPUModel()
{
    leaveLiveObject(this);
}

bool GPUModel::upload(const ModelData &data, QStringList *warnings)
{
    const ContextState *state = ContextState::current();
    if (!state) {
        warn(warnings, QStringLiteral("no usable OpenGL context is current"));
        return false;
    }
    auto fresh = std::make_unique<GPUModelPrivate>();
    fresh->road = d->road;
    fresh->shareGroup = state->group->id();
    if (!fresh->upload(data, warnings))
        return false;
    d = std::move(fresh);
    return true;
}

bool GPUModel::draw(ShaderProgram *program, const unsigned long long &value, const unsigned long long &mask,
                    const WindingType &winding, bool mirrored, Opacity opacity)
{
    if (opacity == Opacity::Mixed && !surfaceData(0))
        return false;
    WindingType effective = winding;
    if (mirrored)
        effective = winding == ClockwiseWinding ? CounterClockwiseWinding : ClockwiseWinding;
    return d->draw(program, &TextureManager::Instance(), d->selection(value, mask, opacity), effective);
}

bool GPUModel::draw(ShaderProgram *program, TextureManager *manager, const unsigned long long &value,
                    const unsigned long long &mask)
{
    return d->draw(program, manager, d->selection(value, mask), CounterClockwiseWinding);
}

bool GPUModel::isDrawEmpty(unsigned long long value, unsigned long long mask, Opacity opacity)
{
    return (opacity == Opacity::Mixed && !surfaceData(0)) || d->selection(value, mask, opacity).items.empty();
}

bool GPUModel::hasFeatureFlags(unsigned long long flags) const
{
    const unsigned long long features = d->bounds.isEmpty() ? 0 : kSceneBoundsFeature;
    return (features & flags) == flags;
}

void GPUModel::cull(const QMatrix4x4 &viewProjection)
{
    d->cull(&viewProjection, 1);
}

void GPUModel::cull(const QMatrix4x4 *viewProjections, int count)
{
    d->cull(viewProjections, count);
}

void GPUModel::resetCulling()
{
    d->currentView = 0;
}

GPUModel::BoundingBox GPUModel::sceneBounds() const
{
    if (d->bounds.isEmpty())
        return {};
    return {d->bounds.minimum, d->bounds.maximum};
}

GPUModel::BoundingBox GPUModel::drawBounds(unsigned long long value, unsigned long long mask, Opacity opacity)
{
    if (opacity == Opacity::Mixed && !surfaceData(0))
        return {};
    return d->boundsOf(d->selection(value, mask, opacity));
}

DrawBuffers *GPUModel::drawBuffers(int index)
{
    return index == 0 ? d->geometry.get() : nullptr;
}

QMatrix4x4 GPUModel::transform(int item) const
{
    QMatrix4x4 place;
    const QVector<float> &places = d->objectData->data();
    if (item >= 0 && item < places.size() / kPlaceFloats)
        std::copy_n(places.constData() + item * kPlaceFloats, 16, place.data());
    return place;
}

bool GPUModel::setTransforms(int first, const QVector<QMatrix4x4> &transforms)
{
    const qsizetype count = transforms.size();
    if (first < 0 || first > itemCount() - count) {
        warn(nullptr,
             QStringLiteral("setTransforms: of items %1 to %2 not all are there, the model has %3; none is moved")
                 .arg(first)
                 .arg(first + count - 1)
                 .arg(itemCount()));
        return false;
    }
    const auto wrong = std::find_if_not(transforms.cbegin(), transforms.cend(),
                                        [](const QMatrix4x4 &transform) { return isFinite(transform); });
    if (wrong != transforms.cend()) {
        warn(nullptr, QStringLiteral("setTransforms: the transform of item %1 is not finite; none is moved")
                          .arg(first + (wrong - transforms.cbegin())));
        return false;
    }
    QVector<float> places = d->objectData->data();
    places.resize(itemCount() * kPlaceFloats); // a host may have given fewer
    for (qsizetype i = 0; i < count; ++i)
        setPlace(places.data() + (first + i) * kPlaceFloats, transforms.at(i));
    return d->objectData->setData(places);
}

InstanceDataCollection *GPUModel::objectData(int index)
{
    return index == 0 ? d->objectData.get() : nullptr;
}

InstanceDataCollection *GPUModel::materialData(int index)
{
    return index == 0 ? d->materialData.get() : nullptr;
}

InstanceDataCollection *GPUModel::surfaceData(int index)
{
    // In another share group its buffers would be made where nobody reads them.
    const ContextState *state = ContextState::current();
    if (index != 0)
        return nullptr;
    if (!d->surfaceData && state && state->group->id() == d->shareGroup)
        d->makeSurfaceData();
    return d->surfaceData.get();
}

int GPUModel::itemCount() const
{
    return int(d->items.size());
}

qint64 GPUModel::triangleCount() const
{
    return d->triangles;
}

void GPUModel::setDrawRoad(DrawRoad road)
{
    d->road = road;
}

} // namespace Brevane::Kvo
