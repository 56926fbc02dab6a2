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

/// Variance shadow maps (Donnelly and Lauritzen, 2006) of all lights, in an array texture: per layer the
/// casters are drawn from the light, every texel keeps depth and depth squared, and a filter goes over the
/// whole. All maps are drawn anew every frame, one layer at a time; ShadowMapRenderPass2 can do less.
///
/// | # | Input                                      | Type       | Default    | Range              | Meaning |
/// |---|--------------------------------------------|------------|------------|--------------------|-----|
/// | 0 | Kvo_KvoGPUModel*_Geometry                  | GPUModel*  | none       |                    | the casters |
/// | 1 | Kvo_QList_InstanceData                     | list       | none       |                    | InstanceDataCollection* as QObject*, bound while casters are drawn |
/// | 2 | Kvo_QList_KvoShadowMapManagerLight*_Lights | list       | none       |                    | ShadowMapLight, see ShadowMapManager::processLights |
/// | 3 | Kvo_QMatrix4x4_ProjectionMatrix            | QMatrix4x4 | none       |                    | viewing camera: camera to clip space |
/// | 4 | Kvo_QMatrix4x4_CameraMatrix                | QMatrix4x4 | none       |                    | viewing camera: world to camera space |
/// | 5 | Kvo_QVector3D_SceneBoundsMin               | QVector3D  | none       | units of the scene | lower corner of the scene's box in world space; none: the model's |
/// | 6 | Kvo_QVector3D_SceneBoundsMax               | QVector3D  | none       | units of the scene | upper corner of the scene's box in world space; none: the model's |
/// | 7 | Kvo_int_FilterType                         | int        | 1          |                    | 0 none, 1 gaussian, 2 edgeAwareGaussian, 3 gradient; how the moments are smoothed; others: gaussian |
/// | 8 | Kvo_QSize_MapSize                          | QSize      | [512, 512] | 1 to 16384 texels  | width and height of every layer |
///
/// | # | Output                     | Type     | Meaning |
/// |---|----------------------------|----------|-----|
/// | 0 | Kvo_QVariant_ShadowMapData | QObject* | ShadowMapManager::RenderData as QObject*; pass and texture stay the owners |
///
/// The maps are GL_RG32F. Channel R holds z over w plus 0.0005, from 0 to 1, channel G its square; a texel
/// without a caster, and all that lies outside of a map, reads 1e9 in both. Casters in the front half of
/// the clip range (z below 0) and those at its very beginning leave no trace. Items with flag bit 62 or 63
/// cast no shadow, those with bit 60 do so with both faces.
///
/// GradientFilter leaves its result in another texture than the other filters; after a change from it to
/// NoFilter the maps repeat their edge outside, until another filter runs.
///
/// Out of range: a map size that is none gives maps without texels, in which nothing is drawn; a side beyond
/// the driver's limit is cut, to 4 million texels a layer at most. Both are said once, with a warning that names
/// pass and slot. Lights whose layers would be more than array textures have cast no shadow, with
/// a message.
///
/// A missing or wrong model is reported through qCritical and clears the maps. A program that does not
/// build is logged through qDebug, in its first frame only, and then used as it is: without the program for
/// casters that frame has no output.
///
/// Leaves changed: clear colour (the mark of an empty texel); with casters: blending (off), depth clamp
/// (off), depth mask (open), viewport (the size of the maps); with casters that are culled: face culling
/// (off).
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT ShadowMapRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InGeometry,
        InInstanceData,
        InLights,
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

    /// How the maps are filtered. Other values act as GaussianFilter.
    enum FilterType : int {
        NoFilter = 0, ///< The moments as they were drawn.
        GaussianFilter = 1, ///< 7 by 7 Gaussian; texels without casters are blended in as they are.
        EdgeAwareGaussianFilter = 2, ///< The same without such texels, which are extrapolated from neighbours.
        GradientFilter = 3, ///< 3 by 3 box without such texels, which are extrapolated from neighbours.
    };

    ShadowMapRenderPass();
    /// The copy has a macro processor of its own.
    ShadowMapRenderPass(const ShadowMapRenderPass &other);
    ShadowMapRenderPass &operator=(const ShadowMapRenderPass &other);
    ~ShadowMapRenderPass() override;

    void start(RenderCallbacks *callbacks) override;
    /// Frees the framebuffer and the quad; textures and programs stay.
    void teardownContextData(RenderCallbacks *callbacks) override;

    /// The instance-data plan that places the casters, "TarnInstance" at first. The program is built once:
    /// a name set after the first start has no effect.
    virtual void setInstanceDataPlanName(const QString &name);

private:
    bool _clearMaps();
    bool _drawMaps(GPUModel *model, const QVariantList &instanceData);
    Texture *_gaussBlurShadowMapArray(const QSize &size, FilterType type, int passes);

    Held<FramebufferObject> _fbo;
    Held<Texture> _depthTexture;
    Held<Texture> _shadowMapArray;
    Held<ShaderProgram> _depthProgram;
    int _layerCount = 0;
    QSize _mapSize{0, 0};
    Held<Texture> _blurArray;
    QMap<int, Held<ShaderProgram>> _blurPrograms;
    Held<DrawBuffers> _blurQuad;
    QString _instanceDataPlanName = QStringLiteral("TarnInstance");
    ShadowMapManager::RenderData _renderData;
    GLSLMacroProcessor *_macroProcessor;
};

} // namespace Brevane::Kvo
