#include "renderpasses/shadowmaprenderpass2.h"

#include "core/log.h"
#include "core/slottypes.h"
#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/glinfo.h"
#include "gl/glslmacroprocessor.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/vertexarrayobject.h"
#include "model/gpumodel.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/shadowcasters.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QByteArray>

#include <epoxy/gl.h>

#include <algorithm>
#include <array>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("ShadowMapRenderPass2");

enum Input {
    kGeometry,
    kInstanceData,
    kLights,
    kDirty,
    kProjectionMatrix,
    kCameraMatrix,
    kSceneBoundsMin,
    kSceneBoundsMax,
    kFilterType,
    kMapSize
};

constexpr int kLayersPerBatch = 8;

// Goes between the version line of a text and the rest. Layers that came after the program have no matrix in
// it: their casters are clipped away.
const QString kCasterDefines = QStringLiteral(R"(
#instancedata "%1"
#define LAYER_COUNT_MAX %2
#define PROJECTION_MATRIX_COUNT %3
#define NOWHERE vec4(2.0, 2.0, 2.0, 1.0)
)");

const QString kViewportLayerHead = QStringLiteral(R"(#version 410
#extension GL_ARB_shader_viewport_layer_array : enable
#define WRITE_LAYER)");

const QString kHead = QStringLiteral("#version 150");

const QString kVertexShader = QStringLiteral(R"(
in vec3 va_Vertex;

uniform mat4 modelViewProjectionMatrix[PROJECTION_MATRIX_COUNT];
uniform int u_layerBase;

void main()
{
  gl_Position = NOWHERE;
  if(u_layerBase < PROJECTION_MATRIX_COUNT)
    gl_Position = modelViewProjectionMatrix[u_layerBase] * (getModelMatrix() * vec4(va_Vertex, 1.0));
#ifdef WRITE_LAYER
  gl_Layer = u_layerBase;
#endif
}
)");

const QString kProjectingVertexShader = QStringLiteral(R"(
in vec3 va_Vertex;

uniform mat4 modelViewProjectionMatrix[PROJECTION_MATRIX_COUNT];
uniform int u_layerBase;

out VarVert
{
  vec4 fragPos;
} Out;

void main()
{
  Out.fragPos = NOWHERE;
  if(u_layerBase < PROJECTION_MATRIX_COUNT)
    Out.fragPos = modelViewProjectionMatrix[u_layerBase] * (getModelMatrix() * vec4(va_Vertex, 1.0));
}
)");

const QString kLayerGeometryShader = QStringLiteral(R"(
layout (triangles) in;
layout (triangle_strip, max_vertices = %4) out;

uniform int u_layerBase;

in VarVert
{
  vec4 fragPos;
} In[3];

void main()
{
  for(int i = 0; i < 3; ++i)
  {
    gl_Layer = u_layerBase;
    gl_Position = In[i].fragPos;
    EmitVertex();
  }
  EndPrimitive();
}
)");

const QString kWorldVertexShader = QStringLiteral(R"(
in vec3 va_Vertex;

out VarVert
{
  vec4 fragPos;
} Out;

void main()
{
  Out.fragPos = getModelMatrix() * vec4(va_Vertex, 1.0);
}
)");

const QString kBatchGeometryShader = QStringLiteral(R"(
layout (triangles) in;
layout (triangle_strip, max_vertices = %4) out;

uniform mat4 modelViewProjectionMatrix[PROJECTION_MATRIX_COUNT];
uniform int u_layerBase;
uniform int u_layerCount;

in VarVert
{
  vec4 fragPos;
} In[3];

void main()
{
  for(int layerOffset = 0; layerOffset < LAYER_COUNT_MAX && layerOffset < u_layerCount; ++layerOffset)
  {
    int layer = u_layerBase + layerOffset;
    if(layer >= PROJECTION_MATRIX_COUNT)
      break;
    for(int i = 0; i < 3; ++i)
    {
      gl_Layer = layer;
      gl_Position = modelViewProjectionMatrix[layer] * In[i].fragPos;
      EmitVertex();
    }
    EndPrimitive();
  }
}
)");

// Colour writes are masked off: this only gives the linker a fragment stage.
const QString kCasterFragmentShader = QStringLiteral(R"(#version 150

out vec4 out_fragDepth;

void main()
{
  out_fragDepth = vec4(1,1,0,0);
}
)");

const QString kFilterVertexShader = QStringLiteral(R"(#version 150

out VarVert
{
  flat int layer;
} Out;

void main()
{
  Out.layer = gl_VertexID;
}
)");

const QString kFilterGeometryShader = QStringLiteral(R"(#version 150

layout (points) in;
layout (triangle_strip, max_vertices = 4) out;

in VarVert
{
  flat int layer;
} In[1];

out VarGeom
{
  flat int layer;
} Out;

void emit(vec2 position)
{
  gl_Layer = In[0].layer;
  Out.layer = In[0].layer;
  gl_Position = vec4(position, 0.0, 1.0);
  EmitVertex();
}

void main()
{
  emit(vec2(-1.0, -1.0));
  emit(vec2(-1.0, 1.0));
  emit(vec2(1.0, -1.0));
  emit(vec2(1.0, 1.0));
  EndPrimitive();
}
)");

// A compiler that adds up the constants first would lose the caster at exactly 0.
const QString kConversionHead = QStringLiteral(R"(#version 150
#extension GL_ARB_gpu_shader5 : enable
#ifdef GL_ARB_gpu_shader5
#define AS_WRITTEN precise
#else
#define AS_WRITTEN
#endif

uniform sampler2DArray u_DepthFrameSampler;

in VarGeom
{
  flat int layer;
} In;

out vec4 out_FragColor;

// The array's filter is the nearest texel, in whose centre the coordinates lie. That costs less than a fetch, which
// has to be kept within the array.
float depthAt(vec2 offset)
{
  vec2 texel = gl_FragCoord.xy + offset;
  vec2 scale = 1.0 / vec2(textureSize(u_DepthFrameSampler, 0).xy);
  AS_WRITTEN float d = textureLod(u_DepthFrameSampler, vec3(texel * scale, float(In.layer)), 0.0).r;
  d = 1.0 - (2.0 * (1.0 - d));
  d += 0.0005;
  return d;
}

#define IS_THERE(d) ((d) == clamp((d), 0.0005, 1.0))
)");

const QString kConversionMain = QStringLiteral(R"(
void main()
{
  float d = depthAt(vec2(0.0));
  out_FragColor = vec4(IS_THERE(d) ? vec2(d, d * d) : vec2(1e9), 0.0, 0.0);
}
)");

// Goes ahead of kGradientFilter.
const QString kFilterDefines = QStringLiteral(R"(
#define FILTER_SOURCE u_DepthFrameSampler
#define FILLERS(depths) (depths)
)");

const QString &conversionText(ShadowMapRenderPass2::FilterType type)
{
    static const QString plain = kConversionHead + kConversionMain;
    static const QString filtered = kConversionHead + kFilterDefines + kGradientFilter;
    return type == ShadowMapRenderPass2::NoFilter ? plain : filtered;
}

// Frees a framebuffer that holds textures which live on.
void drop(Held<FramebufferObject> &framebuffer)
{
    if (framebuffer && !framebuffer.isShared()) {
        AutoBinder bound(framebuffer);
        framebuffer->detachAll();
    }
    framebuffer = nullptr;
}

constexpr SlotChoice kFilters[] = {
    {ShadowMapRenderPass2::NoFilter, "none", "the moments as they were drawn"},
    {ShadowMapRenderPass2::GradientFilter, "gradient",
     "3 by 3 box that leaves empty texels out and extrapolates into them"},
};

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_KvoGPUModel*_Geometry", .meaning = "the casters", .kind = SlotKind::Model},
    {.name = "Kvo_QList_InstanceData",
     .meaning = "InstanceDataCollection* as QObject*, bound while casters are drawn",
     .kind = SlotKind::List},
    {.name = "Kvo_QList_KvoShadowMapManagerLight*_Lights",
     .meaning = "ShadowMapLight, see ShadowMapManager::processLights",
     .kind = SlotKind::List},
    {.name = "Kvo_bool_Dirty",
     .meaning = "lights, casters or camera have changed; none: true",
     .kind = SlotKind::Switch},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix",
     .meaning = "viewing camera: camera to clip space",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix",
     .meaning = "viewing camera: world to camera space",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QVector3D_SceneBoundsMin",
     .meaning = "lower corner of the scene's box in world space; none: the model's",
     .kind = SlotKind::Position,
     .unit = "units of the scene"},
    {.name = "Kvo_QVector3D_SceneBoundsMax",
     .meaning = "upper corner of the scene's box in world space; none: the model's",
     .kind = SlotKind::Position,
     .unit = "units of the scene"},
    {.name = "Kvo_int_FilterType",
     .meaning = "how the moments are smoothed; others: gradient",
     .kind = SlotKind::Choice,
     .choices = kFilters},
    {.name = "Kvo_QSize_MapSize",
     .meaning = "width and height of every layer",
     .kind = SlotKind::Size,
     .unit = "texels",
     .range = {1, 16384}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_QVariant_ShadowMapData",
     .meaning = "ShadowMapManager::RenderData as QObject*; pass and texture stay the owners",
     .kind = SlotKind::Record},
};

constexpr PassInfo kInfo = {"ShadowMapRenderPass2",
                            "draws shadow maps of all lights in frames that call for it, several layers at a time",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

ShadowMapRenderPass2::ShadowMapRenderPass2() : _macroProcessor(new GLSLMacroProcessor)
{
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addInput(QStringLiteral("Kvo_QList_InstanceData"), QVariant(), kInstanceData);
    addInput(QStringLiteral("Kvo_QList_KvoShadowMapManagerLight*_Lights"), QVariant(), kLights);
    addInput(QStringLiteral("Kvo_bool_Dirty"), QVariant(), kDirty);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_QVector3D_SceneBoundsMin"), QVariant(), kSceneBoundsMin);
    addInput(QStringLiteral("Kvo_QVector3D_SceneBoundsMax"), QVariant(), kSceneBoundsMax);
    addInput(QStringLiteral("Kvo_int_FilterType"), int(GradientFilter), kFilterType);
    addInput(QStringLiteral("Kvo_QSize_MapSize"), QSize(512, 512), kMapSize);
    addOutput(QStringLiteral("Kvo_QVariant_ShadowMapData"), 0);
    describe(kInfo);
    _macroProcessor->addIncludePath(QStringLiteral(":/Media/Shaders"));
    DrawBuffers::setup(_macroProcessor);

    if (!OpenGLDeviceContext::current()) {
        qWarning("ShadowMapRenderPass2 is made without a usable OpenGL context: it takes the path that every "
                 "context can, which is the slowest");
        return;
    }
    const QByteArray vendor = QByteArray(reinterpret_cast<const char *>(glGetString(GL_VENDOR))).toLower();
    if (vendor.contains("amd") || vendor.contains("ati")) {
        _batchSize = kLayersPerBatch;
        _layeredTargets = true;
        KVO_LOG("SMRP2: Using bath %d layered rendering", _batchSize);
    } else if (hasGLExtension("GL_ARB_shader_viewport_layer_array")) {
        _useViewportLayer = true;
        _layeredTargets = true;
        KVO_LOG("SMRP2: Using GL_ARB_shader_viewport_layer_array layered rendering");
    } else {
        KVO_LOG("SMRP2: Using non-Layered rendering");
    }
}

ShadowMapRenderPass2::ShadowMapRenderPass2(const ShadowMapRenderPass2 &other)
    : RenderPassHelper(other), _fbo(other._fbo), _filterFbo(other._filterFbo), _depthArray(other._depthArray),
      _shadowMapArray(other._shadowMapArray), _depthProgram(other._depthProgram), _batchSize(other._batchSize),
      _useViewportLayer(other._useViewportLayer), _layeredTargets(other._layeredTargets),
      _layerCount(other._layerCount), _mapSize(other._mapSize), _blurPrograms(other._blurPrograms),
      _pointQuad(other._pointQuad), _instanceDataPlanName(other._instanceDataPlanName), _renderData(other._renderData),
      _macroProcessor(new GLSLMacroProcessor(*other._macroProcessor)), _placedByModel(other._placedByModel)
{}

ShadowMapRenderPass2 &ShadowMapRenderPass2::operator=(const ShadowMapRenderPass2 &other)
{
    if (this == &other)
        return *this;
    RenderPassHelper::operator=(other);
    _fbo = other._fbo;
    _filterFbo = other._filterFbo;
    _depthArray = other._depthArray;
    _shadowMapArray = other._shadowMapArray;
    _depthProgram = other._depthProgram;
    _batchSize = other._batchSize;
    _useViewportLayer = other._useViewportLayer;
    _layeredTargets = other._layeredTargets;
    _layerCount = other._layerCount;
    _mapSize = other._mapSize;
    _blurPrograms = other._blurPrograms;
    _pointQuad = other._pointQuad;
    _instanceDataPlanName = other._instanceDataPlanName;
    _renderData = other._renderData;
    *_macroProcessor = *other._macroProcessor;
    _placedByModel = other._placedByModel;
    return *this;
}

ShadowMapRenderPass2::~ShadowMapRenderPass2()
{
    ShadowMapRenderPass2::teardownContextData(nullptr);
    delete _macroProcessor;
}

void ShadowMapRenderPass2::setInstanceDataPlanName(const QString &name)
{
    _instanceDataPlanName = name;
}

void ShadowMapRenderPass2::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    GPUModel *model = castersIn(_inputs[kGeometry].value, __FILE__, __LINE__);
    const QSize mapSize = mapSizeOf(*this, kMapSize);
    const QVariantList instanceData = listIn(_inputs[kInstanceData].value);
    const QVariant &dirtyValue = _inputs[kDirty].value;
    const bool dirty = !hasValue(dirtyValue) || qvariant_cast<bool>(dirtyValue);
    const std::optional<QMatrix4x4> camera = matrixIn(_inputs[kCameraMatrix].value);
    const std::optional<QMatrix4x4> projection = matrixIn(_inputs[kProjectionMatrix].value);
    if (model)
        model->resetCulling();
    const auto bounds = sceneBoxOf(_inputs[kSceneBoundsMin].value, _inputs[kSceneBoundsMax].value, model);

    bool render = false;
    if (dirty) {
        // The program has the matrices of all layers at once.
        _renderData.mostLayers = largestMatrixArray();
        // Casters may have moved while no light did, so the maps are drawn whatever this says.
        ShadowMapManager::processLights(_inputs[kLights].value, _renderData, pointerTo(projection), pointerTo(camera),
                                        pointerTo(bounds));
        render = true;
    }
    const bool changed = _renderData.layerCount != _layerCount || mapSize != _mapSize;
    for (Held<FramebufferObject> *framebuffer : {&_fbo, &_filterFbo}) {
        if (changed && framebuffer->isShared())
            *framebuffer = nullptr;
    }
    render = made(_fbo, "ShadowMapRenderPass2 casters") || render;
    render = made(_filterFbo, "ShadowMapRenderPass2 filter") || render;
    if (changed) {
        for (FramebufferObject *framebuffer : {_fbo.get(), _filterFbo.get()}) {
            AutoBinder bound(framebuffer);
            framebuffer->detachAll();
        }
        _shadowMapArray = nullptr;
        _depthArray = nullptr;
        render = true;
    }
    _layerCount = _renderData.layerCount;
    _mapSize = mapSize;
    if (!_depthArray) {
        _depthArray = makeDepthArray("ShadowMapRenderPass2 depth", _mapSize, _layerCount);
        AutoBinder fbo(_fbo);
        if (_layeredTargets)
            _fbo->attachLayers(_depthArray, GL_DEPTH_ATTACHMENT, 0);
        else
            _fbo->attach3D(_depthArray, GL_DEPTH_ATTACHMENT, 0, 0);
        render = true;
    }
    if (!_shadowMapArray) {
        _shadowMapArray = makeMomentsArray("ShadowMapRenderPass2 moments", _mapSize, _layerCount);
        {
            AutoBinder bound(_shadowMapArray);
            wrapToNoDepth();
        }
        {
            AutoBinder fbo(_fbo);
            if (_layeredTargets)
                _fbo->attachLayers(_shadowMapArray, GL_COLOR_ATTACHMENT0, 0);
            else
                _fbo->attach3D(_shadowMapArray, GL_COLOR_ATTACHMENT0, 0, 0);
        }
        AutoBinder filterFbo(_filterFbo);
        _filterFbo->attachLayers(_shadowMapArray, GL_COLOR_ATTACHMENT0, 0);
        render = true;
    }
    if (!_depthProgram) {
        _depthProgram = _buildDepthProgram();
        if (!_depthProgram->isLinked()) {
            KVO_LOG("%s", qPrintable(_depthProgram->log()));
            return;
        }
        checkPlan(_instanceDataPlanName, _depthProgram);
        _placedByModel = placesByModel(_instanceDataPlanName);
        render = true;
    }

    if (changed)
        _sayWhatCameTooLate();
    if (render && _layerCount != 0 && !_mapSize.isEmpty()) {
        NeutralState neutral(kState);
        TargetViewport targetViewport({_mapSize.width(), _mapSize.height()});
        bool drawn = false;
        {
            AutoBinder fbo(_fbo);
            clearToNoDepth();
            if (hasNoCasters(model))
                _clearMaps();
            else
                drawn = _drawCasters(model, instanceData);
        }
        if (drawn) {
            neutral.leave({StatePiece::Blending, StatePiece::DepthClamp, StatePiece::DepthMask, StatePiece::ColorMask});
            if (casterGroupsOf(*model).culled)
                neutral.leave({StatePiece::FaceCulling});
            _blurShadowMapArray(_mapSize, FilterType(qvariant_cast<int>(_inputs[kFilterType].value)));
        }
    }
    _renderData.setProjectionTexture(_shadowMapArray);
    _outputs[0].value = QVariant::fromValue(static_cast<QObject *>(&_renderData));
}

void ShadowMapRenderPass2::_sayWhatCameTooLate()
{
    const auto hasMatrix = [this](int layer) {
        return _depthProgram->isLinked()
               && _depthProgram->getUniformLocation(QStringLiteral("modelViewProjectionMatrix[%1]").arg(layer)) >= 0;
    };
    QStringList late;
    for (qsizetype i = 0; i < _renderData.projectors.size(); ++i) {
        const ShadowMapManager::ProjectorInfo &info = _renderData.projectors.at(i);
        if (info.layerCount > 0 && !hasMatrix(info.firstLayer + info.layerCount - 1))
            late << QString::number(i);
    }
    if (late.isEmpty())
        acceptInput(kLights);
    else
        reportInput(kLights, QStringLiteral("has lights that came after the first frame, to whose layers the program "
                                            "keeps; these cast no shadow: number %1 (give all lights in the first "
                                            "frame, those for later with ShadowMapLight::enabled off)")
                                 .arg(late.join(QStringLiteral(", "))));
}

// The arrays keep the number of matrices that there are now, also when lights come and go.
ShaderProgram *ShadowMapRenderPass2::_buildDepthProgram() const
{
    const QString *vertexHead = &kHead;
    const QString *vertex = &kVertexShader;
    const QString *geometry = nullptr;
    if (_useViewportLayer) {
        vertexHead = &kViewportLayerHead;
    } else if (!_layeredTargets) {
        vertex = &kVertexShader;
    } else if (_batchSize == 1) {
        vertex = &kProjectingVertexShader;
        geometry = &kLayerGeometryShader;
    } else {
        vertex = &kWorldVertexShader;
        geometry = &kBatchGeometryShader;
    }
    const QString defines = kCasterDefines.arg(_instanceDataPlanName, QString::number(_batchSize),
                                               QString::number(_renderData.transforms.size()));
    const QString utilities = QStringLiteral("KvoUtilities.glslc");
    ProgramRecipe recipe{QStringLiteral("ShadowMapRenderPass2"),
                         {QStringLiteral("out_fragDepth")},
                         {{GL_VERTEX_SHADER, ShaderSource::Text, *vertexHead + defines + *vertex},
                          {GL_VERTEX_SHADER, ShaderSource::Plan, _instanceDataPlanName},
                          {GL_VERTEX_SHADER, ShaderSource::File, utilities},
                          {GL_VERTEX_SHADER, ShaderSource::File, QStringLiteral("KvoUtilities.vert")}}};
    if (geometry) {
        QString text = *geometry;
        text.replace(QStringLiteral("%4"), QString::number(_batchSize * 3));
        recipe.sources.push_back({GL_GEOMETRY_SHADER, ShaderSource::Text, kHead + defines + text});
        recipe.sources.push_back({GL_GEOMETRY_SHADER, ShaderSource::Plan, _instanceDataPlanName});
        recipe.sources.push_back({GL_GEOMETRY_SHADER, ShaderSource::File, utilities});
    }
    recipe.sources.push_back({GL_FRAGMENT_SHADER, ShaderSource::Text, kCasterFragmentShader});
    return buildProgram(recipe, _macroProcessor);
}

void ShadowMapRenderPass2::_clearMaps()
{
    if (_layeredTargets) {
        _fbo->setDrawBuffers();
        if (_fbo->hasAttachment(GL_COLOR_ATTACHMENT0))
            glClear(GL_COLOR_BUFFER_BIT);
        return;
    }
    for (const int layer : LayersOfLights(_renderData)) {
        _fbo->detach(GL_COLOR_ATTACHMENT0);
        _fbo->attach3D(_shadowMapArray, GL_COLOR_ATTACHMENT0, layer, 0);
        _fbo->setDrawBuffers();
        glClear(GL_COLOR_BUFFER_BIT);
    }
}

// Whether any layer was drawn.
bool ShadowMapRenderPass2::_drawCasters(GPUModel *model, const QVariantList &instanceData)
{
    // After teardownContextData there is nothing to draw into until the arrays are made again.
    if (_layeredTargets && !_fbo->hasAttachment(GL_DEPTH_ATTACHMENT))
        return false;
    if (_layeredTargets) {
        _fbo->setDrawBuffers();
        glClear(GL_DEPTH_BUFFER_BIT);
    }
    int maxLayer = 0;
    for (const ShadowMapManager::ProjectorInfo &light : std::as_const(_renderData.projectors))
        maxLayer = std::max(maxLayer, light.firstLayer + light.layerCount);
    if (maxLayer == 0)
        return false;
    const CasterGroups groups = casterGroupsOf(*model);

    AutoBinder program(_depthProgram);
    AutoEnabler depthTest(GL_DEPTH_TEST);
    glDisable(GL_BLEND);
    // Casters with both faces and the strips of the conversion must not be lost to the culling of a host.
    glDisable(GL_CULL_FACE);
    glDepthMask(GL_TRUE);
    glDisable(GL_DEPTH_CLAMP);
    glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE);
    const int matrices = _depthProgram->getUniformLocation(QStringLiteral("modelViewProjectionMatrix[0]"));
    bindInstanceData(instanceData, _depthProgram);
    if (matrices >= 0)
        glUniformMatrix4fv(matrices, GLsizei(_renderData.transforms.size()), GL_FALSE,
                           _renderData.transforms.constData()->m);

    for (int base = 0; base < maxLayer;) {
        const int n = std::min(_batchSize, maxLayer - base);
        if (!_layeredTargets) {
            _fbo->detach(GL_COLOR_ATTACHMENT0);
            _fbo->attach3D(_shadowMapArray, GL_COLOR_ATTACHMENT0, base, 0);
            _fbo->detach(GL_DEPTH_ATTACHMENT);
            _fbo->attach3D(_depthArray, GL_DEPTH_ATTACHMENT, base, 0);
            _fbo->setDrawBuffers();
            glClear(GL_DEPTH_BUFFER_BIT);
        }
        _depthProgram->setUniform(QStringLiteral("u_layerBase"), base);
        _depthProgram->setUniform(QStringLiteral("u_layerCount"), n);
        if (_placedByModel)
            cullToLayers(*model, _renderData, base, n);
        drawCasterGroups(*model, _depthProgram, groups);
        base += n;
    }
    model->resetCulling();
    unbindInstanceData(instanceData, _depthProgram);
    glDisable(GL_DEPTH_CLAMP);
    openColorMask();
    return true;
}

// The size is that of the arrays, whose strips cover all of their texels anyway.
void ShadowMapRenderPass2::_blurShadowMapArray(const QSize &, FilterType type)
{
    Held<ShaderProgram> program = _blurPrograms.value(type);
    if (!program) {
        program = buildProgram({QStringLiteral("ShadowMapRenderPass2 filter %1").arg(int(type)),
                                {QStringLiteral("out_FragColor")},
                                {{GL_VERTEX_SHADER, ShaderSource::Text, kFilterVertexShader},
                                 {GL_GEOMETRY_SHADER, ShaderSource::Text, kFilterGeometryShader},
                                 {GL_FRAGMENT_SHADER, ShaderSource::Text, conversionText(type)}}},
                               _macroProcessor);
        _blurPrograms.insert(type, program);
        if (!program->isLinked()) {
            KVO_LOG("%s", qPrintable(program->log()));
            return;
        }
    }
    if (!_pointQuad) {
        const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
        if (!context)
            return;
        _pointQuad = new DrawBuffers(nullptr);
        _pointQuad->setVAO(context->createVertexArrayObject());
        _pointQuad->setVertexCount(1);
        _pointQuad->setPrimitiveType(GL_POINTS);
        enableArrays(*_pointQuad, program);
    }

    AutoBinder depth(_depthArray);
    wrapToEdge();
    AutoBinder boundProgram(program);
    AutoBinder points(_pointQuad);
    AutoBinder fbo(_filterFbo);
    // As for the casters, after teardownContextData.
    if (!_filterFbo->hasAttachment(GL_COLOR_ATTACHMENT0))
        return;
    _filterFbo->setDrawBuffers();
    program->setUniform(QStringLiteral("u_DepthFrameSampler"), _depthArray->unit());
    glClear(GL_COLOR_BUFFER_BIT);
    if (boundProgram.isBound())
        glDrawArrays(GL_POINTS, 0, _layerCount);
}

void ShadowMapRenderPass2::teardownContextData(RenderCallbacks *)
{
    drop(_fbo);
    drop(_filterFbo);
    _pointQuad = nullptr;
}

} // namespace Brevane::Kvo
