#pragma once

#include "gl/export.h"

#include <QImage>
#include <QMatrix4x4>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVector2D>
#include <QVector3D>
#include <QVector>

#include <memory>

namespace Brevane::Kvo {

class DrawBuffers;
class GPUModelPrivate;
class InstanceDataCollection;
class ShaderProgram;
class TextureManager;

/// Which way round the vertices of a front face run, seen on screen.
enum WindingType {
    ClockwiseWinding = 0,
    CounterClockwiseWinding = 1, ///< GL's default, and what all passes use.
};

/// A triangle mesh in object space. normals and texCoords are empty or as long as positions.
struct ModelMesh
{
    QString name;
    QVector<QVector3D> positions;
    QVector<QVector3D> normals;
    QVector<QVector2D> texCoords;
    QVector<quint32> indices; ///< Three per triangle.
};

/// A surface in the terms of OBJ material files. Shading multiplies colours and maps as they are and
/// nothing encodes the result: with display-ready maps, colours are display-ready too.
struct ModelMaterial
{
    QString name;
    QVector3D Kd{0.8f, 0.8f, 0.8f}; ///< Diffuse colour, in the colour space of the maps.
    QVector3D Ks{0.0f, 0.0f, 0.0f}; ///< Specular colour, in the colour space of the maps.
    float Ns = 1.0f; ///< Specular exponent.
    float D = 1.0f; ///< Opacity, 0 to 1.
    QImage map_Kd; ///< Diffuse map; null reads white.
    QImage map_Ks; ///< Specular map; null reads white.
};

/// One draw item: a mesh in a material at a place.
struct ModelItem
{
    int mesh = 0;
    int material = 0;
    QMatrix4x4 transform; ///< Object to world.
    quint64 flags = 0; ///< See GPUModel::draw. Bit 60: shadow passes draw it unculled; bits 62, 63: casts no shadow.
};

/// What a GPUModel is built from. Plain data, no GL.
struct ModelData
{
    QVector<ModelMesh> meshes;
    QVector<ModelMaterial> materials;
    QVector<ModelItem> items;
};

/// Normals of length 1 for the vertices of triangles, weighted by the areas around each; +z where there is no area.
/// All indices are below the number of positions.
KVO_GL_EXPORT QVector<QVector3D> computedNormals(const QVector<QVector3D> &positions, const QVector<quint32> &indices);

/// A scene as it lives on the GPU: one vertex and one index buffer, one draw command per item, and
/// object and material data in buffers that shaders read by the index of the draw.
///
/// draw issues the selected items in the order of the items. Where the context has multi-draw-indirect
/// and base instances it takes one call per run of selected items, else one call per item; the pixels
/// are the same. A program that has an active uniform `u_DrawID` gets the index of each draw in it,
/// and one call per item.
class KVO_GL_EXPORT GPUModel
{
public:
    /// World-space box.
    struct BoundingBox
    {
        QVector3D minimum;
        QVector3D maximum;
    };

    /// Ways to issue the draws.
    enum class DrawRoad {
        Automatic, ///< The fastest that the context offers.
        Loop, ///< One call per item.
        Indirect, ///< One call per run of items; Loop where the context cannot.
    };

    /// Items by the opacity that their material data has now. An item that is not less than 1 is opaque.
    enum class Opacity { Any, Opaque, Transparent };

    /// Feature: sceneBounds gives a box.
    static constexpr unsigned long long kSceneBoundsFeature = 8;

    GPUModel();
    ~GPUModel();

    /// Uploads a scene, replacing what was there; needs a current context. Triangles with indices out
    /// of range or vertices that are not finite are dropped, items with an unknown mesh or material
    /// too, each with a line in \a warnings; missing normals are computed, see computedNormals, missing texture
    /// coordinates are 0. False when there is no usable context or too much data, with the reason in
    /// \a warnings; the model is then what it was before. Until the new scene is whole there is room for both.
    bool upload(const ModelData &data, QStringList *warnings = nullptr);

    /// Draws the items whose flags, ANDed with \a mask, equal \a value, with \a program, which is bound.
    /// \a mirrored turns the winding round, for cameras that mirror the scene. Managed textures are
    /// bound for programs that read them. An empty selection draws nothing and gives true.
    /// Of the selected items only those of \a opacity are drawn.
    bool draw(ShaderProgram *program, const unsigned long long &value, const unsigned long long &mask,
              const WindingType &winding, bool mirrored, Opacity opacity = Opacity::Any);
    /// The same with counter-clockwise winding; managed textures are bound only through \a manager.
    bool draw(ShaderProgram *program, TextureManager *manager, const unsigned long long &value,
              const unsigned long long &mask);
    /// True when no item is selected.
    bool isDrawEmpty(unsigned long long value, unsigned long long mask, Opacity opacity = Opacity::Any);
    bool hasFeatureFlags(unsigned long long flags) const;

    /// Leaves out items that lie outside a view until resetCulling; \a viewProjection maps world to clip space.
    /// Items stand where objectData says now. What is left out draws no pixel in that view, whatever a GPU rounds;
    /// what draws none may be left in. Selections of views that come again are kept, which costs neither time nor
    /// memory then.
    void cull(const QMatrix4x4 &viewProjection);
    /// Leaves out items that lie outside of all of so many views.
    void cull(const QMatrix4x4 *viewProjections, int count);
    /// Takes back what cull left out.
    void resetCulling();
    /// Box of all items; both corners 0 for an empty model. It touches the vertices that triangles use. Only
    /// where items that are turned or sheared have more than 5 million triangles together, those after them
    /// count with the box that their mesh has before it is turned, which may leave room around them.
    BoundingBox sceneBounds() const;

    /// The geometry of a batch. The model is one batch: index 0, null otherwise.
    DrawBuffers *drawBuffers(int index);
    /// Per-draw data of that batch under the plan "InstanceInfo"; null for other indices.
    InstanceDataCollection *objectData(int index);
    /// Per-draw data of that batch under the plan "OBJMaterial"; null for other indices.
    InstanceDataCollection *materialData(int index);

    int itemCount() const;
    qint64 triangleCount() const;
    void setDrawRoad(DrawRoad road);

private:
    Q_DISABLE_COPY(GPUModel)

    std::unique_ptr<GPUModelPrivate> d;
};

} // namespace Brevane::Kvo

Q_DECLARE_METATYPE(Brevane::Kvo::GPUModel *)
