#include "renderpasses/smaarenderpass.h"

#include "core/hostcode.h"
#include "gl/bindings.h"
#include "gl/contextscope.h"
#include "gl/drawbuffers.h"
#include "gl/fallenshort.h"
#include "gl/framebufferobject.h"
#include "gl/glslmacroprocessor.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/shaderprogram.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"
#include "smaatables/smaatables.h"

#include <QColor>

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("SMAARenderPass");

enum Input {
    kViewport,
    kFrame,
    kMode,
    kSupportTransparency,
    kPredicate,
    kDepth,
    kCameraMatrix,
    kProjectionMatrix,
    kJitterIndex
};
enum Output { kFrameOut };

constexpr int kTemporal = 1;
constexpr int kHistoryLength = 2;

const QString kVertexHead = QStringLiteral(R"(#version 150
#define SMAA_INCLUDE_VS 1
#define SMAA_INCLUDE_PS 0

uniform vec4 u_SmaaMetrics;

#include "SMAA.glslh"

in vec3 va_Vertex;
in vec2 va_TexCoord;

out vec2 vo_TexCoord;
)");

const QString kFragmentHead = QStringLiteral(R"(#version 150
#define SMAA_INCLUDE_VS 0
#define SMAA_INCLUDE_PS 1

uniform vec4 u_SmaaMetrics;

#include "SMAA.glslh"

in vec2 vo_TexCoord;
)");

const QString kEdgeVertex = QStringLiteral(R"(
out vec4 vo_offsets[3];

void main()
{
  vec4 offsets[3];
  SMAAEdgeDetectionVS(va_TexCoord, offsets);
  vo_offsets = offsets;
  vo_TexCoord = va_TexCoord;
  gl_Position = vec4(va_Vertex, 1.0);
}
)");

const QString kEdgeFragment = QStringLiteral(R"(
uniform sampler2D u_FrameSampler;
uniform sampler2D u_PredicateSampler;

in vec4 vo_offsets[3];

out vec2 out_output;

void main()
{
  vec4 offsets[3] = vo_offsets;
#if SMAA_PREDICATION
  out_output = SMAAColorEdgeDetectionPS(vo_TexCoord, offsets, u_FrameSampler, u_PredicateSampler);
#else
  out_output = SMAAColorEdgeDetectionPS(vo_TexCoord, offsets, u_FrameSampler);
#endif
}
)");

const QString kWeightVertex = QStringLiteral(R"(
out vec2 vo_PixCoord;
out vec4 vo_offsets[3];

void main()
{
  vec2 pixcoord;
  vec4 offsets[3];
  SMAABlendingWeightCalculationVS(va_TexCoord, pixcoord, offsets);
  vo_PixCoord = pixcoord;
  vo_offsets = offsets;
  vo_TexCoord = va_TexCoord;
  gl_Position = vec4(va_Vertex, 1.0);
}
)");

const QString kWeightFragment = QStringLiteral(R"(
uniform sampler2D u_EdgeTex;
uniform sampler2D u_AreaTex;
uniform sampler2D u_SearchTex;
uniform vec4 u_SubsampleIndice;

in vec2 vo_PixCoord;
in vec4 vo_offsets[3];

out vec4 out_output;

void main()
{
  vec4 offsets[3] = vo_offsets;
  out_output = SMAABlendingWeightCalculationPS(vo_TexCoord, vo_PixCoord, offsets, u_EdgeTex, u_AreaTex, u_SearchTex,
                                               u_SubsampleIndice);
}
)");

const QString kBlendVertex = QStringLiteral(R"(
out vec4 vo_offset;

void main()
{
  vec4 offset;
  SMAANeighborhoodBlendingVS(va_TexCoord, offset);
  vo_offset = offset;
  vo_TexCoord = va_TexCoord;
  gl_Position = vec4(va_Vertex, 1.0);
}
)");

const QString kBlendFragment = QStringLiteral(R"(
uniform sampler2D u_ColorTex;
uniform sampler2D u_BlendTex;
#if SMAA_REPROJECTION
uniform sampler2D u_VelocityTex;
#endif

in vec4 vo_offset;

#ifdef KVO_ES31
layout (location=0) out vec4 out_output;
#if SMAA_REPROJECTION && SMAA_TRANSPARENCY
layout (location=1) out float out_velocity;
#endif
#else
out vec4 out_output;
#if SMAA_REPROJECTION && SMAA_TRANSPARENCY
out float out_velocity;
#endif
#endif

void main()
{
#if SMAA_REPROJECTION && SMAA_TRANSPARENCY
  float packedVelocity;
  out_output = SMAANeighborhoodBlendingPS(vo_TexCoord, vo_offset, u_ColorTex, u_BlendTex, u_VelocityTex,
                                          packedVelocity);
  out_velocity = packedVelocity;
#elif SMAA_REPROJECTION
  out_output = SMAANeighborhoodBlendingPS(vo_TexCoord, vo_offset, u_ColorTex, u_BlendTex, u_VelocityTex);
#else
  out_output = SMAANeighborhoodBlendingPS(vo_TexCoord, vo_offset, u_ColorTex, u_BlendTex);
#endif
}
)");

const QString kResolveVertex = QStringLiteral(R"(
void main()
{
  vo_TexCoord = va_TexCoord;
  gl_Position = vec4(va_Vertex, 1.0);
}
)");

// Alpha carries a packed velocity unless transparency keeps the two apart.
const QString kResolveFragment = QStringLiteral(R"(
uniform sampler2D u_CurrentColorTex;
uniform sampler2D u_PreviousColorTex;
#if SMAA_REPROJECTION
uniform sampler2D u_VelocityTex;
#if SMAA_TRANSPARENCY
uniform sampler2D u_PackedVelocityTex;
uniform sampler2D u_PreviousPackedVelocityTex;
#endif
#endif

out vec4 out_output;

void main()
{
#if SMAA_REPROJECTION && SMAA_TRANSPARENCY
  out_output = SMAAResolvePS(vo_TexCoord, u_CurrentColorTex, u_PreviousColorTex, u_VelocityTex, u_PackedVelocityTex,
                             u_PreviousPackedVelocityTex);
#elif SMAA_REPROJECTION
  out_output = vec4(SMAAResolvePS(vo_TexCoord, u_CurrentColorTex, u_PreviousColorTex, u_VelocityTex).rgb, 1.0);
#else
  out_output = SMAAResolvePS(vo_TexCoord, u_CurrentColorTex, u_PreviousColorTex);
#endif
}
)");

// Camera motion since the previous frame, in lengths of the image.
const QString kVelocityFragment = QStringLiteral(R"(#version 150

uniform sampler2D u_DepthTex;
uniform mat4 u_CurrentInvViewProjMatrix;
uniform mat4 u_PreviousViewProjMatrix;

in vec2 vo_TexCoord;

out vec4 out_output;

void main()
{
  float depth = texture(u_DepthTex, vo_TexCoord).x;
  vec4 currentPos = vec4(vo_TexCoord * 2.0 - 1.0, 2.0 * depth - 1.0, 1.0);
  vec4 worldSpacePos = u_CurrentInvViewProjMatrix * currentPos;
  worldSpacePos /= worldSpacePos.w;
  vec4 previousPos = u_PreviousViewProjMatrix * worldSpacePos;
  previousPos /= previousPos.w;
  vec2 velocity = ((currentPos - previousPos) / 2.0).xy;
  out_output = vec4(velocity, 0.0, 0.0);
}
)");

ShaderProgram *stageProgram(const char *label, const QString &vertex, const QString &fragment,
                            GLSLMacroProcessor *processor, const QStringList &outputs)
{
    ShaderProgram *program = buildProgram(
        {QLatin1String(label),
         outputs,
         {{GL_VERTEX_SHADER, ShaderSource::Text, vertex}, {GL_FRAGMENT_SHADER, ShaderSource::Text, fragment}}},
        processor);
    program->setMacroProcessor(nullptr);
    return program;
}

Texture *lookUpTable(const char *label, int width, int height, GLenum internalFormat, GLenum format, int alignment,
                     const unsigned char *bytes)
{
    auto *table = new Texture(nullptr);
    table->setTarget(GL_TEXTURE_2D);
    table->setLabel(QLatin1String(label));
    setLinearClamped(table);
    StorageBinder bound(table);
    const DefaultPixelStore pixelStore(alignment);
    if (bound.isBound())
        glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), width, height, 0, format, GL_UNSIGNED_BYTE, bytes);
    if (!bound.isBound() || !hasLevel(GL_TEXTURE_2D, width, table->label()))
        noteFallenShort(table);
    return table;
}

QVector4D metricsOf(int width, int height)
{
    return {1.0f / float(width), 1.0f / float(height), float(width), float(height)};
}

QVector4D subsampleIndices(int jitterIndex)
{
    switch (jitterIndex) {
    case 0: return {1.0f, 1.0f, 1.0f, 0.0f};
    case 1: return {2.0f, 2.0f, 2.0f, 0.0f};
    default: return {};
    }
}

constexpr SlotChoice kModes[] = {
    {0, "singleFrame", "SMAA 1x"},
    {1, "temporal", "SMAA T2x"},
};

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of all images", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "display-ready image; none: the output is invalid",
     .kind = SlotKind::Texture},
    {.name = "Kvo_int_Mode", .meaning = "others: a single frame", .kind = SlotKind::Choice, .choices = kModes},
    {.name = "Kvo_bool_SupportTransparency",
     .meaning = "keep velocity beside alpha instead of in it",
     .kind = SlotKind::Switch},
    {.name = "Kvo_KvoTexture*_Predicate",
     .meaning = "edges of this raise the threshold less",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Depth", .meaning = "window depth; none: single frame", .kind = SlotKind::Texture},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_int_JitterIndex",
     .meaning = "of CameraJitterPass; -1: drawn without jitter; none reads as 0",
     .kind = SlotKind::Index,
     .range = {-1, 1, 1}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the image with smooth edges; alpha 1 in temporal mode without transparency",
     .kind = SlotKind::Texture,
     .format = "pool format 3"},
};

constexpr PassInfo kInfo = {"SMAARenderPass",
                            "SMAA: smooths the edges of a frame, in temporal mode with the help of the frame before",
                            Reach::wholeFrame(), kInputInfo, kOutputInfo};

} // namespace

SMAARenderPass::SMAARenderPass() : _smaaMetrics(metricsOf(_width, _height))
{
    setTextureForm(TextureForm::Object);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_Frame"), QVariant(), kFrame);
    addInput(QStringLiteral("Kvo_int_Mode"), kTemporal, kMode);
    addInput(QStringLiteral("Kvo_bool_SupportTransparency"), false, kSupportTransparency);
    addInput(QStringLiteral("Kvo_KvoTexture*_Predicate"), QVariant(), kPredicate);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_int_JitterIndex"), QVariant(), kJitterIndex);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrameOut);
    describe(kInfo);
}

SMAARenderPass::SMAARenderPass(const SMAARenderPass &other) = default;
SMAARenderPass &SMAARenderPass::operator=(const SMAARenderPass &other) = default;

// A host that ends a pass calls teardown before; what is left then, or without it, is given up.
SMAARenderPass::~SMAARenderPass()
{
    for (Held<FramebufferObject> *framebuffer : {&_edgeFbo, &_weightFbo, &_blendFbo, &_resolveFbo, &_velocityFbo})
        framebuffer->giveUp();
    for (Held<Texture> *table : {&_areaTexture, &_searchTexture})
        table->giveUp();
    for (Held<ShaderProgram> *program :
         {&_edgeProgram, &_weightProgram, &_blendProgram, &_resolveProgram, &_velocityProgram})
        program->giveUp();
}

void SMAARenderPass::setup(RenderCallbacks *)
{
    if (!ContextScope())
        return;
    _colorHistory.clear();
    _packedVelocityHistory.clear();
    _hasHistory = false;
    if (_mode == kTemporal) {
        for (int i = 0; i < kHistoryLength; ++i)
            _colorHistory.append(PooledTexture(takeImage(int(TextureFormat::Result))));
        for (int i = 0; i < kHistoryLength && _supportTransparency; ++i)
            _packedVelocityHistory.append(PooledTexture(takeImage(int(TextureFormat::VelocityPacked))));
    }
    // teardown leaves these four in place, and they are replaced here.
    _resolveFbo.giveUp();
    _velocityFbo.giveUp();
    _resolveProgram.giveUp();
    _velocityProgram.giveUp();

    made(_edgeFbo, "SMAA edges");
    made(_weightFbo, "SMAA weights");
    made(_blendFbo, "SMAA blending");
    made(_resolveFbo, "SMAA resolve");
    made(_velocityFbo, "SMAA velocity");
    const auto hasSize = [this](const PooledTexture &image) {
        return sizeOf(image) == Extent{std::max(_width, 0), std::max(_height, 0)};
    };
    if (!std::all_of(_colorHistory.cbegin(), _colorHistory.cend(), hasSize)
        || !std::all_of(_packedVelocityHistory.cbegin(), _packedVelocityHistory.cend(), hasSize))
        noteFallenShort(_edgeFbo);
    _areaTexture = lookUpTable("SMAA AreaTex", kSmaaAreaWidth, kSmaaAreaHeight, GL_RG8, GL_RG, 2, kSmaaAreaTable);
    _searchTexture =
        lookUpTable("SMAA SearchTex", kSmaaSearchWidth, kSmaaSearchHeight, GL_R8, GL_RED, 1, kSmaaSearchTable);

    GLSLMacroProcessor processor;
    processor.addDefine(QStringLiteral("SMAA_RT_METRICS"), QStringLiteral("u_SmaaMetrics"));
    processor.addDefine(QStringLiteral("SMAA_GLSL_3"), QStringLiteral("1"));
    processor.addDefine(QStringLiteral("SMAA_PRESET_ULTRA"), QStringLiteral("1"));
    if (_predication)
        processor.addDefine(QStringLiteral("SMAA_PREDICATION"), QStringLiteral("1"));
    if (_mode == kTemporal) {
        processor.addDefine(QStringLiteral("SMAA_REPROJECTION"), QStringLiteral("1"));
        if (_supportTransparency)
            processor.addDefine(QStringLiteral("SMAA_TRANSPARENCY"), QStringLiteral("1"));
    }
    const QStringList output{QStringLiteral("out_output")};
    const QStringList outputs{QStringLiteral("out_output"), QStringLiteral("out_velocity")};
    _edgeProgram =
        stageProgram("SMAA edges", kVertexHead + kEdgeVertex, kFragmentHead + kEdgeFragment, &processor, output);
    _weightProgram =
        stageProgram("SMAA weights", kVertexHead + kWeightVertex, kFragmentHead + kWeightFragment, &processor, output);
    _blendProgram =
        stageProgram("SMAA blending", kVertexHead + kBlendVertex, kFragmentHead + kBlendFragment, &processor, outputs);
    _resolveProgram = stageProgram("SMAA resolve", kVertexHead + kResolveVertex, kFragmentHead + kResolveFragment,
                                   &processor, output);
    _velocityProgram = stageProgram("SMAA velocity", kScreenVertexShader, kVelocityFragment, nullptr, output);

    fetchOnce(_quad, Quad::Screen);
}

void SMAARenderPass::teardown(RenderCallbacks *)
{
    _colorHistory.clear();
    _packedVelocityHistory.clear();
    for (Held<FramebufferObject> *framebuffer : {&_edgeFbo, &_weightFbo, &_blendFbo})
        *framebuffer = nullptr;
    for (Held<Texture> *table : {&_areaTexture, &_searchTexture})
        *table = nullptr;
    for (Held<ShaderProgram> *program : {&_edgeProgram, &_weightProgram, &_blendProgram})
        *program = nullptr;
}

void SMAARenderPass::start(RenderCallbacks *callbacks)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    auto mode = qvariant_cast<int>(_inputs[kMode].value);
    const bool predication = hasValue(_inputs[kPredicate].value);
    Texture *frame = objectTexture(*this, kFrame);
    Texture *predicate = objectTexture(*this, kPredicate);
    Texture *depth = objectTexture(*this, kDepth);
    if (!frame) {
        _outputs[kFrameOut].value = QVariant();
        release(predicate);
        release(depth);
        return;
    }
    if (!depth && mode == kTemporal)
        mode = 0;
    const auto supportTransparency = qvariant_cast<bool>(_inputs[kSupportTransparency].value);

    const bool isCurrent = extent == Extent{_width, _height} && predication == _predication && mode == _mode
                           && supportTransparency == _supportTransparency;
    const bool isWhole = _edgeFbo && _areaTexture && _searchTexture && _edgeProgram && _weightProgram && _blendProgram
                         && _resolveProgram && _velocityProgram;
    if (!isCurrent || !isWhole) {
        const HostCode hostCode; // either may be overridden
        teardown(callbacks);
        _width = extent.width;
        _height = extent.height;
        _predication = predication;
        _mode = mode;
        _supportTransparency = supportTransparency;
        setup(callbacks);
    }
    if (!_edgeFbo)
        return; // the context was lost on the way

    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const QMatrix4x4 viewProjection = projection * camera;
    // On every frame that starts with index 0, not only on the first: such frames see no camera motion.
    if (_historyIndex == 0)
        _previousViewProjection = viewProjection;

    const NeutralState neutral(kState);
    disable({GL_DEPTH_TEST, GL_BLEND});
    glViewport(0, 0, _width, _height);
    _smaaMetrics = metricsOf(_width, _height);

    Texture *depthStencil = takeImage(int(TextureFormat::DepthStencil));
    Texture *edges = edgeDetection(frame, depthStencil, predicate);
    release(predicate);
    const auto jitterIndex = qvariant_cast<int>(_inputs[kJitterIndex].value);
    Texture *weights = blendingWeightCalculation(edges, depthStencil, jitterIndex);
    release(depthStencil);
    release(edges);

    Texture *current = nullptr;
    Texture *packed = nullptr;
    Texture *velocity = nullptr;
    if (_mode == kTemporal) {
        _historyIndex = (_historyIndex + 1) % int(_colorHistory.size());
        current = _colorHistory[_historyIndex];
        packed = _supportTransparency ? static_cast<Texture *>(_packedVelocityHistory[_historyIndex]) : nullptr;
        velocity = velocityVectors(depth, projection, camera);
    } else {
        current = takeImage(int(TextureFormat::Result));
    }
    release(depth);
    _previousViewProjection = viewProjection;

    neighbourhoodBlending(current, packed, frame, weights, velocity);
    release(weights);
    release(frame);

    Texture *result = current;
    if (_mode == kTemporal && _hasHistory) {
        const int length = int(_colorHistory.size());
        const int p = (_historyIndex - 1 + length) % length;
        Texture *previousPacked = _supportTransparency ? static_cast<Texture *>(_packedVelocityHistory[p]) : nullptr;
        result = temporalResolve(current, _colorHistory[p], velocity, packed, previousPacked);
    } else if (_mode == kTemporal) {
        // What the pool left in an image that no frame has been drawn to is anything. The first frame after a
        // rebuild is its own past, at rest: mixed with itself it stays what it is.
        Texture *atRest = TextureManager::Instance().solidTexture(QColor(Qt::transparent));
        result = temporalResolve(current, current, atRest, packed, packed);
        _hasHistory = canDraw();
    }
    release(velocity);
    publish(_outputs[kFrameOut], result, _numOutputUsers[kFrameOut]);
    release(result);
}

Texture *SMAARenderPass::takeImage(int format) const
{
    Texture *image = tempTexture(TextureFormat(format), {_width, _height});
    setLinearClamped(image);
    return image;
}

// Without pixels the stages set what state they set, and draw nothing.
bool SMAARenderPass::canDraw() const
{
    return _width > 0 && _height > 0 && _quad;
}

void SMAARenderPass::clearAndDraw() const
{
    if (!canDraw())
        return;
    glClear(GL_COLOR_BUFFER_BIT);
    AutoBinder quad(_quad);
    _quad->draw();
}

Texture *SMAARenderPass::edgeDetection(Texture *frame, Texture *depthStencil, Texture *predicate)
{
    AutoBinder fbo(_edgeFbo);
    Texture *edges = takeImage(int(TextureFormat::Result));
    _edgeFbo->attach(edges, GL_COLOR_ATTACHMENT0, 0);
    _edgeFbo->attach(depthStencil, GL_DEPTH_STENCIL_ATTACHMENT, 0);
    _edgeFbo->setDrawBuffers();
    setLinear(frame);
    {
        if (canDraw())
            enableArrays(*_quad, _edgeProgram);
        AutoBinder program(_edgeProgram);
        AutoBinder boundFrame(frame);
        AutoBinder boundPredicate(predicate);
        _edgeProgram->setUniform(QStringLiteral("u_FrameSampler"), frame->unit());
        if (predicate)
            _edgeProgram->setUniform(QStringLiteral("u_PredicateSampler"), predicate->unit());
        _edgeProgram->setUniform(QStringLiteral("u_SmaaMetrics"), QVariant(_smaaMetrics));
        AutoBinder quad(_quad);
        glStencilFunc(GL_ALWAYS, 1, 0xff);
        glStencilOp(GL_KEEP, GL_KEEP, GL_REPLACE);
        glStencilMask(0xff);
        glEnable(GL_STENCIL_TEST);
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        glClearStencil(0);
        if (canDraw()) {
            glClear(GL_COLOR_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
            _quad->draw();
        }
    }
    _edgeFbo->detach(GL_COLOR_ATTACHMENT0);
    _edgeFbo->detach(GL_DEPTH_STENCIL_ATTACHMENT);
    return edges;
}

Texture *SMAARenderPass::blendingWeightCalculation(Texture *edges, Texture *depthStencil, const int &jitterIndex)
{
    Texture *weights = nullptr;
    {
        AutoBinder fbo(_weightFbo);
        weights = takeImage(int(TextureFormat::Result));
        _weightFbo->attach(weights, GL_COLOR_ATTACHMENT0, 0);
        _weightFbo->attach(depthStencil, GL_DEPTH_STENCIL_ATTACHMENT, 0);
        _weightFbo->setDrawBuffers();
        {
            if (canDraw())
                enableArrays(*_quad, _weightProgram);
            AutoBinder program(_weightProgram);
            AutoBinder boundSearch(_searchTexture);
            AutoBinder boundArea(_areaTexture);
            AutoBinder boundEdges(edges);
            _weightProgram->setUniform(QStringLiteral("u_EdgeTex"), edges->unit());
            _weightProgram->setUniform(QStringLiteral("u_AreaTex"), _areaTexture->unit());
            _weightProgram->setUniform(QStringLiteral("u_SearchTex"), _searchTexture->unit());
            _weightProgram->setUniform(QStringLiteral("u_SmaaMetrics"), QVariant(_smaaMetrics));
            _weightProgram->setUniform(QStringLiteral("u_SubsampleIndice"), QVariant(subsampleIndices(jitterIndex)));
            AutoBinder quad(_quad);
            // Only pixels that the edge stage marked.
            glStencilFunc(GL_EQUAL, 1, 0xff);
            glStencilMask(0);
            glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
            if (canDraw()) {
                glClear(GL_COLOR_BUFFER_BIT);
                _quad->draw();
            }
        }
        _weightFbo->detach(GL_COLOR_ATTACHMENT0);
        _weightFbo->detach(GL_DEPTH_STENCIL_ATTACHMENT);
    }
    glDisable(GL_STENCIL_TEST);
    return weights;
}

void SMAARenderPass::neighbourhoodBlending(Texture *output, Texture *packedVelocityOutput, Texture *frame,
                                           Texture *weights, Texture *velocity)
{
    AutoBinder fbo(_blendFbo);
    const bool keepsVelocity = _mode == kTemporal && _supportTransparency;
    _blendFbo->attach(output, GL_COLOR_ATTACHMENT0, 0);
    if (keepsVelocity)
        _blendFbo->attach(packedVelocityOutput, GL_COLOR_ATTACHMENT1, 0);
    _blendFbo->setDrawBuffers();
    {
        if (canDraw())
            enableArrays(*_quad, _blendProgram);
        AutoBinder program(_blendProgram);
        AutoBinder boundFrame(frame);
        AutoBinder boundWeights(weights);
        AutoBinder boundVelocity(_mode == kTemporal ? velocity : nullptr);
        _blendProgram->setUniform(QStringLiteral("u_ColorTex"), frame->unit());
        _blendProgram->setUniform(QStringLiteral("u_BlendTex"), weights->unit());
        if (_mode == kTemporal)
            _blendProgram->setUniform(QStringLiteral("u_VelocityTex"), velocity->unit());
        _blendProgram->setUniform(QStringLiteral("u_SmaaMetrics"), QVariant(_smaaMetrics));
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        clearAndDraw();
    }
    _blendFbo->detach(GL_COLOR_ATTACHMENT0);
    if (keepsVelocity)
        _blendFbo->detach(GL_COLOR_ATTACHMENT1);
}

Texture *SMAARenderPass::velocityVectors(Texture *depth, const QMatrix4x4 &projection, const QMatrix4x4 &camera)
{
    AutoBinder fbo(_velocityFbo);
    Texture *velocity = takeImage(int(TextureFormat::Velocity));
    _velocityFbo->attach(velocity, GL_COLOR_ATTACHMENT0, 0);
    _velocityFbo->setDrawBuffers();
    setLinear(depth);
    {
        if (canDraw())
            enableArrays(*_quad, _velocityProgram);
        AutoBinder program(_velocityProgram);
        AutoBinder boundDepth(depth);
        _velocityProgram->setUniform(QStringLiteral("u_DepthTex"), depth->unit());
        _velocityProgram->setUniform(QStringLiteral("u_CurrentInvViewProjMatrix"),
                                     camera.inverted() * projection.inverted());
        _velocityProgram->setUniform(QStringLiteral("u_PreviousViewProjMatrix"), _previousViewProjection);
        clearAndDraw();
    }
    _velocityFbo->detach(GL_COLOR_ATTACHMENT0);
    return velocity;
}

Texture *SMAARenderPass::temporalResolve(Texture *current, Texture *previous, Texture *velocity,
                                         Texture *packedVelocity, Texture *previousPackedVelocity)
{
    AutoBinder fbo(_resolveFbo);
    Texture *result = takeImage(int(TextureFormat::Result));
    _resolveFbo->attach(result, GL_COLOR_ATTACHMENT0, 0);
    _resolveFbo->setDrawBuffers();
    {
        if (canDraw())
            enableArrays(*_quad, _resolveProgram);
        AutoBinder program(_resolveProgram);
        AutoBinder boundCurrent(current);
        AutoBinder boundPrevious(previous);
        AutoBinder boundVelocity(velocity);
        AutoBinder boundPacked(packedVelocity);
        AutoBinder boundPreviousPacked(previousPackedVelocity);
        _resolveProgram->setUniform(QStringLiteral("u_CurrentColorTex"), current->unit());
        _resolveProgram->setUniform(QStringLiteral("u_PreviousColorTex"), previous->unit());
        _resolveProgram->setUniform(QStringLiteral("u_VelocityTex"), velocity->unit());
        if (packedVelocity && previousPackedVelocity) {
            _resolveProgram->setUniform(QStringLiteral("u_PackedVelocityTex"), packedVelocity->unit());
            _resolveProgram->setUniform(QStringLiteral("u_PreviousPackedVelocityTex"), previousPackedVelocity->unit());
        }
        _resolveProgram->setUniform(QStringLiteral("u_SmaaMetrics"), QVariant(_smaaMetrics));
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        clearAndDraw();
    }
    _resolveFbo->detach(GL_COLOR_ATTACHMENT0);
    return result;
}

} // namespace Brevane::Kvo
