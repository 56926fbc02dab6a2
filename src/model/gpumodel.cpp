#include "model/gpumodel.h"

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

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

namespace Brevane::Kvo {

namespace {

// Enough for the selections of all passes; culling and odd masks evict the oldest.
constexpr std::size_t kMaxSelections = 16;

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
    Box box;
    bool culled = false;
};

/// The items of one value, mask and opacity, ready to draw.
struct Selection
{
    quint64 value;
    quint64 mask;
    GPUModel::Opacity opacity;
    std::vector<int> items;
    QSharedPointer<BufferObject> commands; // made on first indirect draw
};

// Area-weighted vertex normals, for meshes that come without.
QVector<QVector3D> computedNormals(const ModelMesh &mesh, const QVector<quint32> &indices)
{
    QVector<QVector3D> normals(mesh.positions.size());
    for (qsizetype i = 0; i + 2 < indices.size(); i += 3) {
        const std::array<qsizetype, 3> corner{indices[i], indices[i + 1], indices[i + 2]};
        const QVector3D &a = mesh.positions[corner[0]];
        const QVector3D normal = QVector3D::crossProduct(mesh.positions[corner[1]] - a, mesh.positions[corner[2]] - a);
        for (qsizetype c : corner)
            normals[c] += normal;
    }
    for (QVector3D &normal : normals) {
        normal.normalize();
        if (normal.isNull())
            normal = {0.0f, 0.0f, 1.0f};
    }
    return normals;
}

/// The geometry of all meshes in the arrays that become the buffers.
class GeometryArrays
{
public:
    PlacedMesh add(const ModelMesh &mesh, QStringList *warnings)
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
        const QVector<QVector3D> normals_ = hasNormals ? mesh.normals : computedNormals(mesh, good);
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
    std::vector<quint32> indices;

private:
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
        if (dropped > 0 && warnings)
            warnings->append(
                QStringLiteral("mesh '%1': %2 triangles dropped, their indices are out of range or their vertices "
                               "not finite")
                    .arg(mesh.name)
                    .arg(dropped));
        return good;
    }
};

Box transformed(const Box &box, const QMatrix4x4 &transform)
{
    Box out;
    if (!box.isEmpty()) {
        for (int i = 0; i < 8; ++i)
            out.add(transform.map(box.corner(i)));
    }
    return out;
}

void appendMatrix(QVector<float> &data, const QMatrix4x4 &matrix)
{
    for (int i = 0; i < 16; ++i)
        data.append(matrix.constData()[i]);
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
    ~GPUModelPrivate() { removeMaps(); }

    void removeMaps() { TextureManager::Instance().removeManagedTextures(shareGroup, std::exchange(maps, {})); }

    // Of the three texels of a material the second ends with its opacity.
    bool hasOpacity(std::size_t item, GPUModel::Opacity opacity) const
    {
        constexpr qsizetype kFloats = 12;
        constexpr qsizetype kOpacity = 7;
        if (opacity == GPUModel::Opacity::Any)
            return true;
        const bool isTransparent = materialData->data().value(qsizetype(item) * kFloats + kOpacity) < 1.0f;
        return isTransparent == (opacity == GPUModel::Opacity::Transparent);
    }

    Selection &selection(quint64 value, quint64 mask, GPUModel::Opacity opacity = GPUModel::Opacity::Any)
    {
        if (opacity != GPUModel::Opacity::Any && materialRevision != materialData->revision()) {
            materialRevision = materialData->revision();
            std::erase_if(selections, [](const Selection &s) { return s.opacity != GPUModel::Opacity::Any; });
        }
        for (Selection &known : selections) {
            if (known.value == value && known.mask == mask && known.opacity == opacity)
                return known;
        }
        if (selections.size() >= kMaxSelections)
            selections.erase(selections.begin());
        Selection made{value, mask, opacity, {}, nullptr};
        for (std::size_t i = 0; i < items.size(); ++i) {
            const Item &item = items[i];
            if ((item.flags & mask) == value && !item.culled && commands[i].count > 0 && hasOpacity(i, opacity))
                made.items.push_back(int(i));
        }
        selections.push_back(std::move(made));
        return selections.back();
    }

    bool canDrawIndirect() const
    {
        const ContextState *state = ContextState::current();
        const auto has = [state](int version, const char *extension) {
            return state->version >= version || state->hasExtension(extension);
        };
        return state && has(43, "ARB_multi_draw_indirect") && has(42, "ARB_base_instance");
    }

    bool draw(ShaderProgram *program, TextureManager *manager, Selection &chosen, WindingType winding);
    void drawIndirect(Selection &chosen);
    void drawOneByOne(ShaderProgram *program, const Selection &chosen) const;

    std::vector<Item> items;
    std::vector<DrawElementsIndirectCommand> commands;
    std::vector<Selection> selections;
    QVector<int> maps;
    quint64 shareGroup = 0; ///< Where all of this lives.
    Box bounds;
    qint64 triangles = 0;
    int materialRevision = 0;
    GPUModel::DrawRoad road = GPUModel::DrawRoad::Automatic;

    std::unique_ptr<DrawBuffers> geometry;
    QSharedPointer<VertexArrayObject> indirectArrays;
    std::unique_ptr<InstanceDataCollection> objectData;
    std::unique_ptr<InstanceDataCollection> materialData;
};

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
        if (indirect)
            drawIndirect(chosen);
        else
            drawOneByOne(program, chosen);
    }

    if (winding == ClockwiseWinding)
        glFrontFace(GLenum(frontFace));
    materialData->unbind(program, nullptr);
    objectData->unbind(program, manager);
    return true;
}

void GPUModelPrivate::drawIndirect(Selection &chosen)
{
    if (!chosen.commands) {
        std::vector<DrawElementsIndirectCommand> selected;
        selected.reserve(chosen.items.size());
        for (int item : chosen.items)
            selected.push_back(commands[std::size_t(item)]);
        chosen.commands = QSharedPointer<BufferObject>::create();
        chosen.commands->setTarget(GL_DRAW_INDIRECT_BUFFER);
        chosen.commands->uploadBytes(selected.data(), qint64(selected.size()) * qint64(sizeof selected[0]),
                                     GL_STATIC_DRAW);
    }
    GLint before = 0;
    glGetIntegerv(GL_DRAW_INDIRECT_BUFFER_BINDING, &before);
    glBindBuffer(GL_DRAW_INDIRECT_BUFFER, chosen.commands->getBO());
    glMultiDrawElementsIndirect(GL_TRIANGLES, GL_UNSIGNED_INT, nullptr, GLsizei(chosen.items.size()), 0);
    glBindBuffer(GL_DRAW_INDIRECT_BUFFER, GLuint(before));
}

void GPUModelPrivate::drawOneByOne(ShaderProgram *program, const Selection &chosen) const
{
    static const QString drawID = QStringLiteral("u_DrawID");
    const int indexLocation = program->attributeLocation(drawIndexAttribute());
    const int idLocation = program->getUniformLocation(drawID);
    // The value of an attribute without an array is the context's, not the vertex array's.
    GLuint indexBefore[4] = {};
    if (indexLocation >= 0)
        glGetVertexAttribIuiv(GLuint(indexLocation), GL_CURRENT_VERTEX_ATTRIB, indexBefore);
    for (int item : chosen.items) {
        const DrawElementsIndirectCommand &command = commands[std::size_t(item)];
        if (indexLocation >= 0)
            glVertexAttribI1ui(GLuint(indexLocation), GLuint(item));
        if (idLocation >= 0)
            glUniform1ui(idLocation, GLuint(item));
        glDrawElements(GL_TRIANGLES, GLsizei(command.count), GL_UNSIGNED_INT,
                       reinterpret_cast<const void *>(quintptr(command.firstIndex) * sizeof(GLuint)));
    }
    if (indexLocation >= 0)
        glVertexAttribI4uiv(GLuint(indexLocation), indexBefore);
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
    const auto warn = [warnings](const QString &text) {
        if (warnings)
            warnings->append(text);
    };
    if (!ContextState::current()) {
        warn(QStringLiteral("no usable OpenGL context is current"));
        return false;
    }
    const DrawRoad road = d->road;
    d = std::make_unique<GPUModelPrivate>();
    d->road = road;
    d->shareGroup = ContextState::current()->group->id();

    GeometryArrays arrays;
    std::vector<PlacedMesh> meshes;
    for (const ModelMesh &mesh : data.meshes) {
        meshes.push_back(arrays.add(mesh, warnings));
        if (arrays.isTooLarge()) {
            warn(QStringLiteral("the model has more vertices or indices than a buffer can hold"));
            return false;
        }
    }

    struct Handles
    {
        int kd;
        int ks;
    };
    std::vector<Handles> handles;
    QHash<qint64, int> byImage; // materials often share a map
    const auto handleOf = [&](const QImage &image, const QString &name) {
        if (image.isNull())
            return 0;
        const auto known = byImage.constFind(image.cacheKey());
        if (known != byImage.cend())
            return *known;
        const int handle = TextureManager::Instance().addManagedTexture(image, name);
        if (handle > 0)
            d->maps.append(handle);
        byImage.insert(image.cacheKey(), handle);
        return handle;
    };
    for (const ModelMaterial &m : data.materials)
        handles.push_back({handleOf(m.map_Kd, m.name), handleOf(m.map_Ks, m.name)});

    QVector<float> objects;
    QVector<float> materials;
    for (const ModelItem &item : data.items) {
        if (item.mesh < 0 || std::size_t(item.mesh) >= meshes.size() || item.material < 0
            || item.material >= data.materials.size() || !isFinite(item.transform)) {
            warn(QStringLiteral("item %1 dropped: mesh %2, material %3 or its transform is not usable")
                     .arg(&item - data.items.constData())
                     .arg(item.mesh)
                     .arg(item.material));
            continue;
        }
        const PlacedMesh &mesh = meshes[std::size_t(item.mesh)];
        const ModelMaterial &m = data.materials[item.material];
        const Handles &maps = handles[std::size_t(item.material)];
        const auto index = unsigned(d->items.size());
        d->items.push_back({item.flags, transformed(mesh.box, item.transform), false});
        d->commands.push_back({mesh.indexCount, 1, mesh.firstIndex, 0, index});
        d->triangles += mesh.indexCount / 3;
        const Box &box = d->items.back().box;
        if (!box.isEmpty()) {
            d->bounds.add(box.minimum);
            d->bounds.add(box.maximum);
        }
        appendMatrix(objects, item.transform);
        appendMatrix(objects, item.transform.inverted().transposed());
        materials << m.Kd.x() << m.Kd.y() << m.Kd.z() << m.Ns;
        materials << m.Ks.x() << m.Ks.y() << m.Ks.z() << m.D;
        materials << float(maps.kd) << float(maps.ks) << 0.0f << 0.0f;
    }
    if (!d->objectData->setData(objects) || !d->materialData->setData(materials)) {
        warn(QStringLiteral("the model has more items than this driver can index"));
        d->items.clear();
        d->commands.clear();
        return false;
    }

    const auto vertexBuffer = floatBuffer(arrays.positions);
    const auto normalBuffer = floatBuffer(arrays.normals);
    const auto texCoordBuffer = floatBuffer(arrays.texCoords);
    const auto indexBuffer = QSharedPointer<BufferObject>::create();
    indexBuffer->setTarget(GL_ELEMENT_ARRAY_BUFFER);
    const auto makeArrays = [&] {
        const auto vao = QSharedPointer<VertexArrayObject>::create();
        vao->upload(QStringLiteral("va_Vertex"), vertexBuffer, 3, GL_FLOAT);
        vao->upload(QStringLiteral("va_TexCoord"), texCoordBuffer, 2, GL_FLOAT);
        vao->upload(QStringLiteral("va_Normal"), normalBuffer, 3, GL_FLOAT);
        return vao;
    };
    // Where draws are issued one by one, the index of the draw is a constant attribute, so the arrays
    // for that road have no buffer for it.
    const auto arraysForLoop = makeArrays();
    {
        // The target is part of the vertex array that is bound, which must not be a host's.
        AutoBinder bound(arraysForLoop);
        indexBuffer->uploadGLuintData(arrays.indices.data(), int(arrays.indices.size()), GL_STATIC_DRAW);
    }
    d->geometry = std::make_unique<DrawBuffers>();
    d->geometry->setVAO(arraysForLoop);
    d->geometry->setPrimitiveType(GL_TRIANGLES);
    d->geometry->setIndexedDraw(indexBuffer, int(arrays.indices.size()), GL_UNSIGNED_INT);
    d->geometry->setDrawElementsIndirectCommands(d->commands.data(), int(d->commands.size()));

    if (d->canDrawIndirect()) {
        std::vector<unsigned int> drawIndices(d->items.size());
        std::iota(drawIndices.begin(), drawIndices.end(), 0u);
        const auto drawIndexBuffer = QSharedPointer<BufferObject>::create();
        drawIndexBuffer->uploadGLuintData(drawIndices.data(), int(drawIndices.size()), GL_STATIC_DRAW);
        d->indirectArrays = makeArrays();
        d->indirectArrays->upload(drawIndexAttribute(), drawIndexBuffer, 1, GL_UNSIGNED_INT, 0, 1);
        d->indirectArrays->setIndexBuffer(indexBuffer);
    }
    return true;
}

bool GPUModel::draw(ShaderProgram *program, const unsigned long long &value, const unsigned long long &mask,
                    const WindingType &winding, bool mirrored, Opacity opacity)
{
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

bool GPUModel::isDrawEmpty(unsigned long long value, unsigned long long mask)
{
    return d->selection(value, mask).items.empty();
}

bool GPUModel::hasFeatureFlags(unsigned long long flags) const
{
    const unsigned long long features = d->bounds.isEmpty() ? 0 : kSceneBoundsFeature;
    return (features & flags) == flags;
}

void GPUModel::cull(const QMatrix4x4 &viewProjection)
{
    for (Item &item : d->items) {
        // Outside when all corners lie beyond one of the six planes.
        std::array<int, 6> beyond{};
        for (int i = 0; i < 8 && !item.box.isEmpty(); ++i) {
            const QVector4D p = viewProjection * QVector4D(item.box.corner(i), 1.0f);
            for (int axis = 0; axis < 3; ++axis) {
                beyond[std::size_t(axis)] += p[axis] < -p.w();
                beyond[std::size_t(axis) + 3] += p[axis] > p.w();
            }
        }
        item.culled = std::any_of(beyond.cbegin(), beyond.cend(), [](int corners) { return corners == 8; });
    }
    d->selections.clear();
}

void GPUModel::resetCulling()
{
    bool changed = false;
    for (Item &item : d->items)
        changed = std::exchange(item.culled, false) || changed;
    if (changed)
        d->selections.clear();
}

GPUModel::BoundingBox GPUModel::sceneBounds() const
{
    if (d->bounds.isEmpty())
        return {};
    return {d->bounds.minimum, d->bounds.maximum};
}

DrawBuffers *GPUModel::drawBuffers(int index)
{
    return index == 0 ? d->geometry.get() : nullptr;
}

InstanceDataCollection *GPUModel::objectData(int index)
{
    return index == 0 ? d->objectData.get() : nullptr;
}

InstanceDataCollection *GPUModel::materialData(int index)
{
    return index == 0 ? d->materialData.get() : nullptr;
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
