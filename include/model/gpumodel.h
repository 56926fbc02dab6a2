#pragma once

#include "gl/export.h"

#include <QImage>
#include <QMatrix4x4>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>
#include <QVector>

#include <memory>
#include <optional>

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

/// A triangle mesh in object space. normals, texCoords and tangents are empty or as long as positions.
struct ModelMesh
{
    QString name; ///< For people, and for settings by name.
    QVector<QVector3D> positions; ///< By vertex.
    QVector<QVector3D> normals; ///< By vertex.
    QVector<QVector2D> texCoords; ///< By which maps are read.
    /// The way that the first texture coordinate grows, and in w 1 or -1: the second one grows along
    /// w * cross(normal, tangent). Only normal maps need them; empty: computed where one is, see computedTangents.
    QVector<QVector4D> tangents;
    QVector<quint32> indices; ///< Three per triangle.
};

/// What the alpha of a base colour map does.
enum class AlphaMode {
    Opaque, ///< Nothing.
    Mask, ///< Nothing is drawn where opacity times alpha is below ModelSurface::alphaCutoff.
    Blend, ///< It counts as opacity.
};

/// A surface in the terms of physically based shading: metalness and roughness. Numbers are in linear light.
///
/// Colour maps are display-ready (sRGB) images, decoded before they are filtered; the others count as they are. Maps
/// multiply the numbers beside them, and null ones read white.
struct ModelSurface
{
    QVector3D baseColor{1.0f, 1.0f, 1.0f}; ///< Diffuse colour of what is no metal, specular colour of a metal.
    float metalness = 0.0f; ///< 0 to 1.
    float roughness = 1.0f; ///< As one perceives it, 0 to 1: its square is the width of the microfacet distribution.
    QVector3D emission{0.0f, 0.0f, 0.0f}; ///< Radiance, of any size.
    float normalScale = 1.0f; ///< Of the x and y of the normal map.
    float occlusionStrength = 1.0f; ///< 0: the occlusion map does not count.
    float alphaCutoff = 0.5f; ///< For AlphaMode::Mask.
    AlphaMode alphaMode = AlphaMode::Opaque; ///< What the alpha of the base colour map does.
    bool isTwoSided = true; ///< Otherwise back faces are not drawn.
    bool isUnlit = false; ///< The base colour is what one sees.
    QImage map_baseColor; ///< A colour map; alpha as alphaMode says.
    QImage map_metalRoughness; ///< Roughness in g, metalness in b.
    QImage map_normal; ///< x, y and z from -1 to 1, as 0 to 255; y is up where texture coordinates are.
    QImage map_occlusion; ///< In r: how much of the light from around arrives.
    QImage map_emission; ///< A colour map.
};

/// A surface in the terms of OBJ material files. Shading multiplies colours and maps as they are and
/// nothing encodes the result: with display-ready maps, colours are display-ready too.
struct ModelMaterial
{
    QString name; ///< For people, and for settings by name.
    QVector3D Kd{0.8f, 0.8f, 0.8f}; ///< Diffuse colour, in the colour space of the maps.
    QVector3D Ks{0.0f, 0.0f, 0.0f}; ///< Specular colour, in the colour space of the maps.
    float Ns = 1.0f; ///< Specular exponent.
    float D = 1.0f; ///< Opacity, 0 to 1.
    QImage map_Kd; ///< Diffuse map; null reads white.
    QImage map_Ks; ///< Specular map; null reads white.
    /// The same surface in physical terms, for passes that read those. None: surfaceOf makes one of the others.
    std::optional<ModelSurface> surface;
};

/// A material in physical terms: its own surface, or one that comes near to what the other terms say. That has no
/// metal, the roughness whose highlight is as wide as that of the exponent, the colour decoded and the diffuse map.
/// Opacity is in either case ModelMaterial::D.
KVO_GL_EXPORT ModelSurface surfaceOf(const ModelMaterial &material);

/// One draw item: a mesh in a material at a place.
struct ModelItem
{
    int mesh = 0; ///< Its number in ModelData::meshes.
    int material = 0; ///< Its number in ModelData::materials.
    /// Object to world. Normals turn with its inverse, transposed, and passes that do not make them unit length again
    /// (ForwardRenderPass, TransparencyRenderPass, VisibilityDeferredRenderPass) light an item that is scaled to a
    /// fifth five times as brightly: scale the mesh instead.
    QMatrix4x4 transform;
    quint64 flags = 0; ///< See GPUModel::draw. Bit 60: shadow passes draw it unculled; bits 62, 63: casts no shadow.
};

/// What a GPUModel is built from. Plain data, no GL.
struct ModelData
{
    QVector<ModelMesh> meshes; ///< By the numbers that items name.
    QVector<ModelMaterial> materials; ///< By the numbers that items name.
    QVector<ModelItem> items; ///< In the order in which they are drawn.
};

/// Normals of length 1 for the vertices of triangles, weighted by the areas around each; +z where there is no area.
/// All indices are below the number of positions.
KVO_GL_EXPORT QVector<QVector3D> computedNormals(const QVector<QVector3D> &positions, const QVector<quint32> &indices);
/// Tangents for the vertices of a mesh that has normals and texture coordinates (see ModelMesh::tangents): the
/// directions in the triangles around each, weighted by their angles there and made perpendicular to the normal; any
/// such direction where the texture coordinates say none. All indices are below the number of positions.
KVO_GL_EXPORT QVector<QVector4D> computedTangents(const ModelMesh &mesh);

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
        QVector3D minimum; ///< The corner of the smallest coordinates.
        QVector3D maximum; ///< The corner of the largest coordinates.
    };

    /// Ways to issue the draws.
    enum class DrawRoad {
        Automatic, ///< The fastest that the context offers.
        Loop, ///< One call per item.
        Indirect, ///< One call per run of items; Loop where the context cannot.
    };

    /// Items by the opacity that their material data has now. An item that is not less than 1 is opaque. Mixed are
    /// those of which something may let light through: the opacity in their surface data (which is made then, see
    /// surfaceData) is less than 1, or their surface has AlphaMode::Blend.
    enum class Opacity { Any, Opaque, Transparent, Mixed };

    /// Feature: sceneBounds gives a box.
    static constexpr unsigned long long kSceneBoundsFeature = 8;

    GPUModel();
    ~GPUModel();

    /// Uploads a scene, replacing what was there; needs a current context. Triangles with indices out
    /// of range or vertices that are not finite are dropped, items with an unknown mesh or material
    /// too, each with a line in \a warnings; missing normals are computed, see computedNormals, missing texture
    /// coordinates are 0. False when there is no usable context or too much data, with the reason in
    /// \a warnings; the model is then what it was before. Without \a warnings they go to qWarning. Until the new
    /// scene is whole there is room for both.
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
    /// Whether the model has all of these features.
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
    /// Box of all items, where upload placed them (drawBounds knows where they are now); both corners 0 for an empty
    /// model. It touches the vertices that triangles use. Only where items that are turned or sheared have more than 5
    /// million triangles together, those after them count with the box that their mesh has before it is turned, which
    /// may leave room around them.
    BoundingBox sceneBounds() const;
    /// Box of the items that draw would draw, where they stand now: see cull. A little larger than they are, for what
    /// rounding may move, and infinite where an item's transform has a projection in it or is not finite. Both corners
    /// 0 for none.
    BoundingBox drawBounds(unsigned long long value, unsigned long long mask, Opacity opacity = Opacity::Any);

    /// The geometry of a batch. The model is one batch: index 0, null otherwise.
    DrawBuffers *drawBuffers(int index);
    /// Where an item of those that are drawn stands: object to world. The identity for one that is not there.
    QMatrix4x4 transform(int item) const;
    /// Moves items, from number \a first on, from the next frame on; the numbers are those of draws, see objectData.
    /// False, with a message, where an item is not there or a transform is not finite, and nothing moves then; or where
    /// the driver has no room, which is tried again when the model is drawn. Each call sends the places of all items to the GPU, so move many in one.
    bool setTransforms(int first, const QVector<QMatrix4x4> &transforms);

    /// Per-draw data of that batch under the plan "InstanceInfo"; null for other indices. Eight texels a draw: the
    /// columns of the transform, and those of its inverse, transposed. Draws are the items without those that upload
    /// dropped. What a host sets shows from the next frame on.
    InstanceDataCollection *objectData(int index);
    /// Per-draw data of that batch under the plan "OBJMaterial"; null for other indices. Three texels a draw: Kd and
    /// Ns, Ks and D, handles of map_Kd and map_Ks.
    InstanceDataCollection *materialData(int index);
    /// Per-draw data of that batch under the plan "SurfaceMaterial"; null for other indices. It is made, and the maps
    /// of the surfaces go to the GPU, when it is asked for first: models that are drawn otherwise do not pay for
    /// them. Until then the model keeps the images. A pass asks before it builds the program that reads them, since
    /// managed textures decide how that reads.
    InstanceDataCollection *surfaceData(int index);

    /// Items that are drawn.
    int itemCount() const;
    /// Of all items.
    qint64 triangleCount() const;
    /// How draws are issued from now on.
    void setDrawRoad(DrawRoad road);

private:
    Q_DISABLE_COPY(GPUModel)

    std::unique_ptr<GPUModelPrivate> d;
};

} // namespace Brevane::Kvo

Q_DECLARE_METATYPE(Brevane::Kvo::GPUModel *)
