#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"
#include "shadows/shadowmapmanager.h"

#include <QMap>
#include <QSize>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class GLSLMacroProcessor;
class GPUModel;
class ShaderProgram;
class Texture;

/// Variance shadow maps like those of ShadowMapRenderPass, drawn only in frames that call for it, several
/// layers at a time where the driver is good at that, and as depth alone: the moments and their filter
/// follow in one draw for all layers.
///
/// | # | Input                                      | Type       | Default    | Range              | Meaning |
/// |---|--------------------------------------------|------------|------------|--------------------|-----|
/// | 0 | Kvo_KvoGPUModel*_Geometry                  | GPUModel*  | none       |                    | the casters |
/// | 1 | Kvo_QList_InstanceData                     | list       | none       |                    | InstanceDataCollection* as QObject*, bound while casters are drawn |
/// | 2 | Kvo_QList_KvoShadowMapManagerLight*_Lights | list       | none       |                    | ShadowMapLight, see ShadowMapManager::processLights |
/// | 3 | Kvo_bool_Dirty                             | bool       | none       |                    | lights, casters or camera have changed; none: true |
/// | 4 | Kvo_QMatrix4x4_ProjectionMatrix            | QMatrix4x4 | none       |                    | viewing camera: camera to clip space |
/// | 5 | Kvo_QMatrix4x4_CameraMatrix                | QMatrix4x4 | none       |                    | viewing camera: world to camera space |
/// | 6 | Kvo_QVector3D_SceneBoundsMin               | QVector3D  | none       | units of the scene | lower corner of the scene's box in world space; none: the model's |
/// | 7 | Kvo_QVector3D_SceneBoundsMax               | QVector3D  | none       | units of the scene | upper corner of the scene's box in world space; none: the model's |
/// | 8 | Kvo_int_FilterType                         | int        | 3          |                    | 0 none, 3 gradient; how the moments are smoothed; others: gradient |
/// | 9 | Kvo_QSize_MapSize                          | QSize      | [512, 512] | 1 to 16384 texels  | width and height of every layer |
///
/// | # | Output                     | Type     | Meaning |
/// |---|----------------------------|----------|-----|
/// | 0 | Kvo_QVariant_ShadowMapData | QObject* | ShadowMapManager::RenderData as QObject*; pass and texture stay the owners |
///
/// The maps have the format of ShadowMapRenderPass, and agree with its maps but for three things. What lies in
/// the back part of what is in front of the range, with z over w from -1 to 0, hides the casters behind it
/// here: the texel stays empty, while there it is left out and the caster behind it is drawn. A caster at
/// exactly z 0 leaves a depth of 0.0005 here and nothing there. And depth comes from the depth buffer, rounded
/// to its steps.
///
/// While Kvo_bool_Dirty is false the maps stay as they are, and a frame makes no GL call. What forces a
/// drawing all the same: a change of map size or layer count, with the matrices of the last dirty frame.
///
/// The constructor needs the context current, in which the pass will run: it chooses the path and says so
/// through qDebug.
///
/// | Path           | Where                                                | Draws of the scene          |
/// |----------------|------------------------------------------------------|-----------------------------|
/// | batch          | GL_VENDOR has "AMD" or "ATI" in it, in any case      | one per 8 layers, geometry shader |
/// | viewport layer | else, with GL_ARB_shader_viewport_layer_array        | one per layer               |
/// | per layer      | else                                                 | one per layer, attached one by one |
///
/// The name is looked for with no regard to words: a vendor that calls itself a corporation takes the batch
/// path too.
///
/// Each draw leaves out items whose boxes lie outside of all of its layers, which draw nothing there, as
/// GPUModel::cull tells them; items are followed when they are moved. With a plan of the host's
/// (setInstanceDataPlanName) nothing is known about where casters are, and all are drawn. Afterwards the model is
/// as GPUModel::resetCulling leaves it.
///
/// The program for casters is built in the first frame and knows as many matrices as there are layers then:
/// give the pass all its lights in that frame, those that are switched on later with
/// ShadowMapLight::enabled off. Lights that come later than that cast no shadow, which is said once with their
/// numbers. Without any layer in the first frame the program does not build, and the pass draws nothing from
/// then on.
///
/// After teardownContextData the arrays are attached again only when they are made again: until the size or
/// the number of layers changes the maps keep what they hold (on the per-layer path only the depth is drawn).
///
/// Out of range: a map size that is none gives maps without texels, in which nothing is drawn; a side beyond
/// the driver's limit is cut, to 4 million texels a layer at most. Both are said once, with a warning that names
/// pass and slot. Lights whose layers would be more than array textures have, or more than the
/// uniforms of a vertex or geometry shader hold matrices (1020 with 16384 components), cast no shadow, with a
/// message.
///
/// A missing or wrong model is reported through qCritical and clears the maps. A program that does not
/// build is logged through qDebug, in its first frame only, and then used as it is: without the program for
/// casters that frame has no output.
///
/// Leaves changed: clear colour (the mark of an empty texel); with casters: blending (off), depth clamp
/// (off), depth mask (open), colour mask (open); with casters that are culled: face culling (off).
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT ShadowMapRenderPass2 : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InGeometry,
        InInstanceData,
        InLights,
        InDirty,
        InProjectionMatrix,
        InCameraMatrix,
        InSceneBoundsMin,
        InSceneBoundsMax,
        InFilterType,
        InMapSize,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutShadowMapData,
    };

    /// How the maps are filtered. Other values act as GradientFilter.
    enum FilterType : int {
        NoFilter = 0,
        GradientFilter = 3,
    };

    ShadowMapRenderPass2();
    /// The copy has a macro processor of its own.
    ShadowMapRenderPass2(const ShadowMapRenderPass2 &other);
    ShadowMapRenderPass2 &operator=(const ShadowMapRenderPass2 &other);
    ~ShadowMapRenderPass2() override;

    void start(RenderCallbacks *callbacks) override;
    /// Frees the framebuffers and the vertex array; textures and programs stay.
    void teardownContextData(RenderCallbacks *callbacks) override;

    /// The instance-data plan that places the casters, "TarnInstance" at first. The program is built once:
    /// a name set after the first start has no effect.
    virtual void setInstanceDataPlanName(const QString &name);

private:
    ShaderProgram *_buildDepthProgram() const;
    void _sayWhatCameTooLate();
    void _clearMaps();
    bool _drawCasters(GPUModel *model, const QVariantList &instanceData);
    void _blurShadowMapArray(const QSize &size, FilterType type);

    Held<FramebufferObject> _fbo;
    Held<FramebufferObject> _filterFbo;
    Held<Texture> _depthArray;
    Held<Texture> _shadowMapArray;
    Held<ShaderProgram> _depthProgram;
    int _batchSize = 1;
    bool _useViewportLayer = false;
    bool _layeredTargets = false;
    int _layerCount = 0;
    QSize _mapSize{0, 0};
    QMap<int, Held<ShaderProgram>> _blurPrograms;
    Held<DrawBuffers> _pointQuad;
    QString _instanceDataPlanName = QStringLiteral("TarnInstance");
    ShadowMapManager::RenderData _renderData;
    GLSLMacroProcessor *_macroProcessor;
    bool _placedByModel = false; // the casters of _depthProgram
};

} // namespace Brevane::Kvo
