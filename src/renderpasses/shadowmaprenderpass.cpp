#include "renderpasses/shadowmaprenderpass.h"

#include "core/log.h"
#include "core/slottypes.h"
#include "gl/bindings.h"
#include "gl/bufferobject.h"
#include "gl/drawbuffers.h"
#include "gl/fallenshort.h"
#include "gl/framebufferobject.h"
#include "gl/glslmacroprocessor.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/vertexarrayobject.h"
#include "model/gpumodel.h"
#include "passkit/extent.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/shadowcasters.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <epoxy/gl.h>

#include <array>
#include <cmath>
#include <numbers>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("ShadowMapRenderPass");

enum Input {
    kGeometry,
    kInstanceData,
    kLights,
    kProjectionMatrix,
    kCameraMatrix,
    kSceneBoundsMin,
    kSceneBoundsMax,
    kFilterType,
    kMapSize
};

[[maybe_unused]] const QString kPlanar = QStringLiteral("[PLANAR]");

constexpr TargetFormat kDepthTarget{GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, GL_NEAREST};
constexpr float kSigma = 4.5f;

const QString kVertexShader = QStringLiteral(R"(#version 150
#instancedata "%1"

in vec3 va_Vertex;

uniform mat4 modelViewProjectionMatrix;

out vec2 vo_fragPos;

void main()
{
  vec4 position = modelViewProjectionMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
  vo_fragPos = position.zw;
  gl_Position = position;
}
)");

// The first test also drops what lies in front of the light's range, which depth clamp lets through.
const QString kFragmentShader = QStringLiteral(R"(#version 150

in vec2 vo_fragPos;

out vec4 out_fragDepth;

void main()
{
  float depth = vo_fragPos.x / vo_fragPos.y + %1;
  if(depth <= %1)
    discard;
  if(depth > 1.0)
    discard;
  out_fragDepth = vec4(depth, depth * depth, 0.0, 0.0);
}
)");

const QString kTap = QStringLiteral(
    R"(// Every tap lies at the centre of a texel. A linear filter would let a trace of the neighbours in there,
// from the rounding of coordinates, and a trace of 1e9 is much. Beyond the map its edge goes on.
vec2 tap(vec3 coordinate)
{
  ivec2 size = textureSize(u_FrameSampler, 0).xy;
  ivec2 texel = clamp(ivec2(floor(coordinate.xy * vec2(size))), ivec2(0), size - 1);
  return texelFetch(u_FrameSampler, ivec3(texel, int(coordinate.z)), 0).rg;
}
)");

// The incremental Gaussian: each further pair of taps weighs the product of all ratios before it.
const QString kGaussianText = QStringLiteral(R"(#version 150
// SimpleGaussianBlur

uniform sampler2DArray u_FrameSampler;
uniform int u_Index;
uniform vec3 u_Step;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

%5

void main()
{
  vec3 coordinate = vec3(vo_TexCoord, float(u_Index));
  vec3 g = vec3(%2, %3, %4);
  vec2 result = tap(coordinate) * g.x;
  float sum = g.x;
  for(int i = 1; i < %1; ++i)
  {
    g.xy *= g.yz;
    result += tap(coordinate - float(i) * u_Step) * g.x;
    result += tap(coordinate + float(i) * u_Step) * g.x;
    sum += 2.0 * g.x;
  }
  out_FragColor = vec4(result / sum, 0.0, 0.0);
}
)");

// Filling an empty texel looks two texels ahead first, and only then back. The way back is not the way
// ahead mirrored, on purpose: with a hit one texel back the line runs from there to whatever was found
// ahead, placed where nothing was looked for (-%1 - 1), so that the fill stays near the caster's depth.
const QString kEdgeAwareText = QStringLiteral(R"(#version 150

uniform sampler2DArray u_FrameSampler;
uniform int u_Index;
uniform vec3 u_Step;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

%5

void main()
{
  vec3 coordinate = vec3(vo_TexCoord, float(u_Index));
  vec2 tO = tap(coordinate);
  if(tO.r >= 1.0)
  {
    vec2 tA = vec2(0.0);
    vec2 tB = vec2(0.0);
    int iA = (-%1)-1;
    int iB = (-%1)-1;
    vec2 t = tap(coordinate + u_Step);
    if(t.r < 1.0)
    {
      tA = t;
      iA = 1;
    }
    if(iA >= -%1)
    {
      t = tap(coordinate + 2.0 * u_Step);
      if(t.r < 1.0)
      {
        tB = t;
        iB = 2;
      }
    }
    if(iB < -%1)
    {
      iA = (-%1)-1;
      iB = (-%1)-1;
      t = tap(coordinate - u_Step);
      if(t.r < 1.0)
      {
        tB = t;
        iB = -1;
      }
      if(iB < -%1)
      {
        t = tap(coordinate - 2.0 * u_Step);
        if(t.r < 1.0)
        {
          tA = t;
          iA = -2;
        }
      }
    }
    if(iB <= iA)
    {
      out_FragColor = vec4(tO, 0.0, 0.0);
      return;
    }
    vec2 m = (tB - tA) / float(iB - iA);
    vec2 c = tA - m * float(iA);
    out_FragColor = vec4(c, 0.0, 0.0);
    return;
  }

  vec3 g = vec3(%2, %3, %4);
  vec2 result = tO * g.x;
  float sum = g.x;
  for(int i = 1; i < %1; ++i)
  {
    g.xy *= g.yz;
    vec2 t = tap(coordinate - float(i) * u_Step);
    if(t.r <= 1.0)
    {
      result += t * g.x;
      sum += g.x;
    }
    t = tap(coordinate + float(i) * u_Step);
    if(t.r <= 1.0)
    {
      result += t * g.x;
      sum += g.x;
    }
  }
  out_FragColor = vec4(result / sum, 0.0, 0.0);
}
)");

// Goes ahead of kGradientFilter. A depth of exactly 1 counts for means, but fills nothing. The filter of the array
// is off meanwhile, and the coordinates lie in the centres of texels.
const QString kGradientHead = QStringLiteral(R"(#version 150
#define FILTER_SOURCE u_FrameSampler
#define IS_THERE(depth) ((depth) <= 1.0)
#define FILLERS(depths) mix((depths), vec4(0.0), equal((depths), vec4(1.0)))

uniform sampler2DArray u_FrameSampler;
uniform int u_Index;

out vec4 out_FragColor;

float depthAt(vec2 offset)
{
  vec2 scale = 1.0 / vec2(textureSize(u_FrameSampler, 0).xy);
  return textureLod(u_FrameSampler, vec3((gl_FragCoord.xy + offset) * scale, float(u_Index)), 0.0).r;
}
)");

// Fills in the number of taps and the start of the incremental Gaussian.
QString withGaussian(const QString &text)
{
    const float scale = 1.0f / (std::sqrt(2.0f * std::numbers::pi_v<float>) * kSigma);
    const float ratio = std::exp(-1.0f / (2.0f * kSigma * kSigma));
    return text.arg(4).arg(double(scale)).arg(double(ratio)).arg(double(ratio * ratio)).arg(kTap);
}

const QString &filterText(ShadowMapRenderPass::FilterType type)
{
    static const QString gaussian = withGaussian(kGaussianText);
    static const QString edgeAware = withGaussian(kEdgeAwareText);
    static const QString gradient = kGradientHead + kGradientFilter;
    switch (type) {
    case ShadowMapRenderPass::EdgeAwareGaussianFilter: return edgeAware;
    case ShadowMapRenderPass::GradientFilter: return gradient;
    default: return gaussian;
    }
}

DrawBuffers *makeQuad()
{
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    if (!context)
        return nullptr;
    constexpr std::array kPositions{-1.f, -1.f, -1.f, -1.f, 1.f,  -1.f, 1.f, -1.f, -1.f,
                                    -1.f, 1.f,  -1.f, 1.f,  -1.f, -1.f, 1.f, 1.f,  -1.f};
    constexpr std::array kTexCoords{0.f, 0.f, 0.f, 1.f, 1.f, 0.f, 0.f, 1.f, 1.f, 0.f, 1.f, 1.f};
    const QSharedPointer<VertexArrayObject> arrays = context->createVertexArrayObject();
    const QSharedPointer<BufferObject> positions = context->createBufferObject();
    positions->upload(kPositions.data(), int(kPositions.size()), GL_STATIC_DRAW);
    arrays->upload(QStringLiteral("va_Vertex"), positions, 3, GL_FLOAT);
    const QSharedPointer<BufferObject> texCoords = context->createBufferObject();
    texCoords->upload(kTexCoords.data(), int(kTexCoords.size()), GL_STATIC_DRAW);
    arrays->upload(QStringLiteral("va_TexCoord"), texCoords, 2, GL_FLOAT);
    auto *quad = new DrawBuffers(nullptr);
    quad->setVAO(arrays);
    quad->setPrimitiveType(GL_TRIANGLES);
    quad->setVertexCount(6);
    if (!quad->isUsable())
        noteFallenShort(quad);
    return quad;
}

constexpr SlotChoice kFilters[] = {
    {ShadowMapRenderPass::NoFilter, "none", "the moments as they were drawn"},
    {ShadowMapRenderPass::GaussianFilter, "gaussian",
     "7 by 7 Gaussian; texels without casters are blended in as they are"},
    {ShadowMapRenderPass::EdgeAwareGaussianFilter, "edgeAwareGaussian",
     "the same without such texels, which are extrapolated from neighbours"},
    {ShadowMapRenderPass::GradientFilter, "gradient",
     "3 by 3 box without such texels, which are extrapolated from neighbours"},
};

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_KvoGPUModel*_Geometry", .meaning = "the casters", .kind = SlotKind::Model},
    {.name = "Kvo_QList_InstanceData",
     .meaning = "InstanceDataCollection* as QObject*, bound while casters are drawn",
     .kind = SlotKind::List},
    {.name = "Kvo_QList_KvoShadowMapManagerLight*_Lights",
     .meaning = "ShadowMapLight, see ShadowMapManager::processLights",
     .kind = SlotKind::List},
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
     .meaning = "how the moments are smoothed; others: gaussian",
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

constexpr PassInfo kInfo = {"ShadowMapRenderPass", "draws shadow maps of all lights, in every frame", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

ShadowMapRenderPass::ShadowMapRenderPass() : _macroProcessor(new GLSLMacroProcessor)
{
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addInput(QStringLiteral("Kvo_QList_InstanceData"), QVariant(), kInstanceData);
    addInput(QStringLiteral("Kvo_QList_KvoShadowMapManagerLight*_Lights"), QVariant(), kLights);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_QVector3D_SceneBoundsMin"), QVariant(), kSceneBoundsMin);
    addInput(QStringLiteral("Kvo_QVector3D_SceneBoundsMax"), QVariant(), kSceneBoundsMax);
    addInput(QStringLiteral("Kvo_int_FilterType"), int(GaussianFilter), kFilterType);
    addInput(QStringLiteral("Kvo_QSize_MapSize"), QSize(512, 512), kMapSize);
    addOutput(QStringLiteral("Kvo_QVariant_ShadowMapData"), 0);
    _macroProcessor->addIncludePath(QStringLiteral(":/Media/Shaders"));
    describe(kInfo);
}

ShadowMapRenderPass::ShadowMapRenderPass(const ShadowMapRenderPass &other)
    : RenderPassHelper(other), _fbo(other._fbo), _depthTexture(other._depthTexture),
      _shadowMapArray(other._shadowMapArray), _depthProgram(other._depthProgram), _layerCount(other._layerCount),
      _mapSize(other._mapSize), _blurArray(other._blurArray), _blurPrograms(other._blurPrograms),
      _blurQuad(other._blurQuad), _instanceDataPlanName(other._instanceDataPlanName), _renderData(other._renderData),
      _macroProcessor(new GLSLMacroProcessor(*other._macroProcessor))
{}

ShadowMapRenderPass &ShadowMapRenderPass::operator=(const ShadowMapRenderPass &other)
{
    if (this == &other)
        return *this;
    RenderPassHelper::operator=(other);
    _fbo = other._fbo;
    _depthTexture = other._depthTexture;
    _shadowMapArray = other._shadowMapArray;
    _depthProgram = other._depthProgram;
    _layerCount = other._layerCount;
    _mapSize = other._mapSize;
    _blurArray = other._blurArray;
    _blurPrograms = other._blurPrograms;
    _blurQuad = other._blurQuad;
    _instanceDataPlanName = other._instanceDataPlanName;
    _renderData = other._renderData;
    *_macroProcessor = *other._macroProcessor;
    return *this;
}

ShadowMapRenderPass::~ShadowMapRenderPass()
{
    delete _macroProcessor;
}

void ShadowMapRenderPass::setInstanceDataPlanName(const QString &name)
{
    _instanceDataPlanName = name;
}

void ShadowMapRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    GPUModel *model = castersIn(_inputs[kGeometry].value, __FILE__, __LINE__);
    const QSize mapSize = mapSizeOf(*this, kMapSize);
    const QVariantList instanceData = listIn(_inputs[kInstanceData].value);
    const std::optional<QMatrix4x4> camera = matrixIn(_inputs[kCameraMatrix].value);
    const std::optional<QMatrix4x4> projection = matrixIn(_inputs[kProjectionMatrix].value);
    if (model)
        model->resetCulling();
    const auto bounds = sceneBoxOf(_inputs[kSceneBoundsMin].value, _inputs[kSceneBoundsMax].value, model);
    // Casters may have moved while no light did, so the maps are drawn whatever this says.
    ShadowMapManager::processLights(_inputs[kLights].value, _renderData, pointerTo(projection), pointerTo(camera),
                                    pointerTo(bounds));

    const bool sizeChanged = mapSize != _mapSize;
    if (_shadowMapArray && (sizeChanged || _renderData.layerCount != _layerCount)) {
        _shadowMapArray = nullptr;
        _blurArray = nullptr;
    }
    if (sizeChanged) {
        _depthTexture = nullptr;
    }
    _layerCount = _renderData.layerCount;
    _mapSize = mapSize;

    made(_fbo, "ShadowMapRenderPass");
    if (!_depthTexture)
        _depthTexture = makeTexture(kDepthTarget, {_mapSize.width(), _mapSize.height()});
    if (!_shadowMapArray) {
        _shadowMapArray = makeMomentsArray("ShadowMapRenderPass moments", _mapSize, _layerCount);
        AutoBinder bound(_shadowMapArray);
        wrapToNoDepth();
    }
    if (!_depthProgram) {
        DrawBuffers::setup(_macroProcessor); // asks the context
        _depthProgram = buildProgram({QStringLiteral("ShadowMapRenderPass"),
                                      {QStringLiteral("out_fragDepth")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kVertexShader.arg(_instanceDataPlanName)},
                                       {GL_VERTEX_SHADER, ShaderSource::Plan, _instanceDataPlanName},
                                       {GL_VERTEX_SHADER, ShaderSource::File, QStringLiteral("KvoUtilities.glslc")},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader.arg(kDepthBias)}}},
                                     _macroProcessor);
        if (!_depthProgram->isLinked()) {
            KVO_LOG("%s", qPrintable(_depthProgram->log()));
            return;
        }
        checkPlan(_instanceDataPlanName, _depthProgram);
    }

    NeutralState neutral(kState);
    const bool drawn = !_mapSize.isEmpty() && (hasNoCasters(model) ? _clearMaps() : _drawMaps(model, instanceData));
    Texture *result = _shadowMapArray;
    if (!hasNoCasters(model))
        neutral.leave({StatePiece::Blending, StatePiece::DepthClamp, StatePiece::DepthMask});
    if (drawn && casterGroupsOf(*model).culled)
        neutral.leave({StatePiece::FaceCulling});
    if (drawn)
        result = _gaussBlurShadowMapArray(_mapSize, FilterType(qvariant_cast<int>(_inputs[kFilterType].value)), 1);
    _renderData.setProjectionTexture(result);
    _outputs[0].value = QVariant::fromValue(static_cast<QObject *>(&_renderData));
}

// False: nothing is drawn.
bool ShadowMapRenderPass::_clearMaps()
{
    clearToNoDepth();
    AutoBinder fbo(_fbo);
    for (const int layer : LayersOfLights(_renderData)) {
        _fbo->attach3D(_shadowMapArray, GL_COLOR_ATTACHMENT0, layer, 0);
        _fbo->setDrawBuffers();
        glClear(GL_COLOR_BUFFER_BIT);
        _fbo->detach(GL_COLOR_ATTACHMENT0);
    }
    return false;
}

// Whether any layer was drawn.
bool ShadowMapRenderPass::_drawMaps(GPUModel *model, const QVariantList &instanceData)
{
    bool drawn = false;
    glViewport(0, 0, _mapSize.width(), _mapSize.height());
    AutoBinder program(_depthProgram);
    AutoEnabler depthTest(GL_DEPTH_TEST);
    clearToNoDepth();
    glDisable(GL_BLEND);
    // Casters with both faces and the quad of the filters must not lose one to the culling of a host.
    glDisable(GL_CULL_FACE);
    glDepthMask(GL_TRUE);
    glEnable(GL_DEPTH_CLAMP);
    bindInstanceData(instanceData, _depthProgram);

    AutoBinder fbo(_fbo);
    _fbo->attach(_depthTexture, GL_DEPTH_ATTACHMENT, 0);
    const int matrix = _depthProgram->getUniformLocation(QStringLiteral("modelViewProjectionMatrix"));
    const CasterGroups groups = casterGroupsOf(*model);
    for (const int layer : LayersOfLights(_renderData)) {
        _fbo->attach3D(_shadowMapArray, GL_COLOR_ATTACHMENT0, layer, 0);
        _fbo->setDrawBuffers();
        AutoBinder moments(_shadowMapArray);
        AutoBinder depth(_depthTexture);
        if (matrix >= 0)
            glUniformMatrix4fv(matrix, 1, GL_FALSE, _renderData.transforms.at(layer).m);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        drawCasterGroups(*model, _depthProgram, groups);
        _fbo->detach(GL_COLOR_ATTACHMENT0);
        drawn = true;
    }
    unbindInstanceData(instanceData, _depthProgram);
    _fbo->detach(GL_DEPTH_ATTACHMENT);
    glDisable(GL_DEPTH_CLAMP);
    return drawn;
}

Texture *ShadowMapRenderPass::_gaussBlurShadowMapArray(const QSize &size, FilterType type, int passes)
{
    if (passes < 1 || type == NoFilter)
        return _shadowMapArray;
    if (!_blurArray) {
        _blurArray = makeMomentsArray("ShadowMapRenderPass filter", size, _layerCount);
        AutoBinder bound(_blurArray);
        wrapToEdge();
    }
    Held<ShaderProgram> program = _blurPrograms.value(type);
    if (!program) {
        program = buildProgram({QStringLiteral("ShadowMapRenderPass filter %1").arg(int(type)),
                                {QStringLiteral("out_FragColor")},
                                {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                 {GL_FRAGMENT_SHADER, ShaderSource::Text, filterText(type)}}},
                               _macroProcessor);
        _blurPrograms.insert(type, program);
        if (!program->isLinked()) {
            KVO_LOG("%s", qPrintable(program->log()));
            return _shadowMapArray;
        }
    }
    if (!_blurQuad)
        _blurQuad = makeQuad();
    if (!_blurQuad)
        return _shadowMapArray;
    // Each filter has its own program, and not every one reads the texture coordinates.
    enableArrays(*_blurQuad, program);

    AutoBinder source(_shadowMapArray);
    wrapToEdge();
    AutoBinder boundProgram(program);
    AutoBinder quad(_blurQuad);
    AutoBinder fbo(_fbo);
    const auto drawLayers = [&](Texture *target) {
        for (int i = 0; i < _layerCount; ++i) {
            program->setUniform(QStringLiteral("u_Index"), i);
            _fbo->attach3D(target, GL_COLOR_ATTACHMENT0, i, 0);
            _fbo->setDrawBuffers();
            glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
            _blurQuad->draw();
            _fbo->detach(GL_COLOR_ATTACHMENT0);
        }
    };
    Texture *result = _shadowMapArray;
    if (type == GradientFilter) {
        program->setUniform(QStringLiteral("u_FrameSampler"), _shadowMapArray->unit());
        _shadowMapArray->setFilter(GL_NEAREST);
        drawLayers(_blurArray);
        _shadowMapArray->setFilter(GL_LINEAR);
        result = _blurArray;
    } else {
        AutoBinder between(_blurArray);
        _fbo->attach(_depthTexture, GL_DEPTH_ATTACHMENT, 0);
        program->setUniform(QStringLiteral("u_Sigma"), kSigma);
        const std::array<QVector3D, 2> steps{QVector3D(1.0f / float(size.width()), 0.0f, 0.0f),
                                             QVector3D(0.0f, 1.0f / float(size.height()), 0.0f)};
        const std::array<Texture *, 2> arrays{_shadowMapArray, _blurArray};
        for (int k = 0; k < 2 * passes; ++k) {
            const auto a = std::size_t(k % 2);
            program->setUniform(QStringLiteral("u_Step"), steps[a]);
            program->setUniform(QStringLiteral("u_FrameSampler"), arrays[a]->unit());
            drawLayers(arrays[1 - a]);
        }
        _fbo->detach(GL_DEPTH_ATTACHMENT);
    }
    AutoBinder bound(result);
    wrapToNoDepth();
    return result;
}

void ShadowMapRenderPass::teardownContextData(RenderCallbacks *)
{
    _fbo = nullptr;
    _blurQuad = nullptr;
}

} // namespace Brevane::Kvo
