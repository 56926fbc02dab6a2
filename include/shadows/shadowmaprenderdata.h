#pragma once

#include "gl/export.h"
#include "shadows/shadowmaplight.h"

#include <QHash>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QStringList>
#include <QVector>

namespace Brevane::Kvo {

class Texture;

/// What shadow passes hand to whoever shades a scene: matrices, which layers belong to which light, and
/// the texture with the maps. See ShadowMapManager; its name there is ShadowMapManager::RenderData.
///
/// A pass owns its record and lends it through the output "Kvo_QVariant_ShadowMapData", as a QObject*
/// (qobject_cast gives the record). The texture is borrowed too, and stays with the pass.
class KVO_GL_EXPORT ShadowMapRenderData : public QObject
{
    Q_OBJECT

public:
    /// World to clip space of a layer: 16 floats, column by column, as glUniformMatrix4fv takes them.
    /// z over w runs from 0 where the map begins to 1 where it ends; nothing is drawn below 0.
    struct Transform
    {
        float m[16]; ///< Column by column.
    };

    /// The layers of a light: firstLayer to firstLayer + layerCount - 1.
    struct ProjectorInfo
    {
        qint32 layerCount; ///< How many it has.
        qint32 firstLayer; ///< The number of the first one.
    };

    /// Empty: no light, no layer.
    explicit ShadowMapRenderData(QObject *parent = nullptr);
    /// Copies all but the QObject.
    ShadowMapRenderData(const ShadowMapRenderData &other);
    ShadowMapRenderData &operator=(const ShadowMapRenderData &other);
    ~ShadowMapRenderData() override;

    int layerCount = 0; ///< Slices of the array that the lights need.
    /// Most slices that processLights gives out, where the owner has room for less than array textures have;
    /// 0: as many as those.
    int mostLayers = 0;
    QVector<Transform> transforms; ///< One per layer.
    /// One per light of the list. No layers: the light is off, cannot be used, or found no room.
    QVector<ProjectorInfo> projectors;
    /// As they were processed, one per projector. What cannot be used, and what is no light, is off here.
    QVector<ShadowMapLight> lights;

    /// The texture that holds the final moments: GL_TEXTURE_2D_ARRAY, GL_RG32F, R depth from 0 to 1 plus a
    /// bias of 0.0005, G its square, 1e9 in both where no caster is. Stored, not owned.
    void setProjectionTexture(Texture *texture);
    /// Null before the first frame, and after the pass has deleted the texture.
    Texture *projectionTexture() const;

    /// The record in a slot value; null for anything else.
    static ShadowMapRenderData *fromVariant(const QVariant &value);

private:
    friend class ShadowMapManager;

    QPointer<QObject> _projectionTexture;
    QStringList _complaints; // of the last processing, so that each is printed once
    mutable QHash<unsigned int, QPair<int, int>>
        _roomKnownFor; // by program: layers and lights that bindRecord compared
};

} // namespace Brevane::Kvo
