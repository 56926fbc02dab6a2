#include "renderpasses/visibilitybufferrenderpass.h"

#include "core/log.h"
#include "gl/bindings.h"
#include "gl/bufferobject.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/glinfo.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "model/gpumodel.h"
#include "passkit/fragmentlists.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <optional>
#include <utility>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("VisibilityBufferRenderPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kGeometry };
enum Output { kHeadPointers, kNodeBuffer, kNodeBufferWidth, kDepth };

constexpr int kNodeBufferSide = 4096; // texels each way in GL4 mode
constexpr int kHeadPointerUnit = 0;
constexpr int kNodeBufferUnit = 1;
constexpr TargetFormat kDepthTarget{GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, GL_NEAREST};

TargetFormat integerTarget(unsigned int internalFormat)
{
    return {internalFormat, formatFromInternalFormat(internalFormat), typeFromInternalFormat(internalFormat),
            GL_NEAREST};
}

const QString kVertexShader = QStringLiteral(R"(#version 150
#instancedata "InstanceInfo"

uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
uniform uint u_DrawID;

in vec3 va_Vertex;

void main()
{
  gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
}
)");

// The discard never comes about. A driver that bins by tiles (llvmpipe) takes a triangle that covers a
// tile, with a shader that neither blends nor discards, to hide all that was drawn there before, and
// drops it, although it would have stored fragments.
//
// KVO_GL_3_2 lets the pass turn the lists off where the compiler would offer them. The include comes behind the
// extensions, since it may define functions.
const QString kFragmentShader = QStringLiteral(R"(#version 150
#define KVO_GL_3_2 %1

#if defined(GL_ARB_shader_atomic_counters) && defined(GL_ARB_shader_image_load_store) && defined(GL_ARB_shading_language_420pack) && KVO_GL_3_2 == 0
#define KVO_GL_4_2 1
#extension GL_ARB_shader_atomic_counters : enable
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
#else
#define KVO_GL_4_2 0
#endif

#include "ShaderBitEncoding.glslh"
#include "VisibilityNodes.glslh"

uniform int u_NodeBufferImageWidth;
uniform uint u_DrawID;

#if KVO_GL_4_2

layout(binding = 0, offset = 0) uniform atomic_uint u_HeadCounter;
layout(r32ui) uniform uimage2D u_HeadPointerImage;
layout(rgba32ui) uniform uimage2D u_NodeBufferImage;

void main()
{
  uint Count = atomicCounterIncrement(u_HeadCounter);
  uint PreviousHead = imageAtomicExchange(u_HeadPointerImage,ivec2(gl_FragCoord.xy),Count+1u);
  imageStore(u_NodeBufferImage,
             kvo_nodeTexel(Count+1u,u_NodeBufferImageWidth),
             uvec4(PreviousHead,gl_PrimitiveID+1,floatBitsToUint(gl_FragCoord.z),u_DrawID));
  if(u_NodeBufferImageWidth < 1)
    discard;
}

#else

out uvec4 out_HeadPointer;
out uvec4 out_NodeBuffer;

void main()
{
  ivec2 FragCoord = ivec2(gl_FragCoord.xy);
  out_HeadPointer = uvec4(FragCoord.x+FragCoord.y*u_NodeBufferImageWidth+1,0,0,0);
  out_NodeBuffer = uvec4(0,gl_PrimitiveID+1,floatBitsToUint(gl_FragCoord.z),0);
}

#endif
)");

ProgramRecipe recordingProgram(const QList<QPair<QString, unsigned int>> &outputFormats, bool gl4Mode)
{
    QStringList outputs;
    for (const auto &[name, format] : outputFormats)
        outputs << name;
    return {QStringLiteral("VisibilityBufferRenderPass"),
            outputs,
            {{GL_VERTEX_SHADER, ShaderSource::Text, kVertexShader},
             {GL_VERTEX_SHADER, ShaderSource::Plan, QStringLiteral("InstanceInfo")},
             {GL_VERTEX_SHADER, ShaderSource::File, QStringLiteral("KvoUtilities.glslc")},
             {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader.arg(gl4Mode ? 0 : 1)}}};
}

// Zeros over the rows of the node buffer that the last frame stored in. The count stays in GL: it is read here, and
// never by the host.
const QString kClearingVertexShader = QStringLiteral(R"(#version 150

layout(std140) uniform KvoLastCount
{
  uvec4 kvo_lastCount;
};

uniform int u_NodeBufferImageWidth;
uniform int u_NodeBufferImageHeight;

in vec3 va_Vertex;

void main()
{
  uint rows = kvo_lastCount.x / uint(u_NodeBufferImageWidth) + 1u; // of an overflow: more than there are
  float top = 2.0 * float(rows) / float(u_NodeBufferImageHeight) - 1.0;
  gl_Position = vec4(va_Vertex.x, va_Vertex.y > 0.0 ? top : -1.0, 0.0, 1.0);
}
)");

const QString kClearingFragmentShader = QStringLiteral(R"(#version 150

out uvec4 out_Node;

void main()
{
  out_Node = uvec4(0u);
}
)");

const ProgramRecipe &clearingProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("VisibilityBufferRenderPass clear"),
                                      {QStringLiteral("out_Node")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kClearingVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kClearingFragmentShader}},
                                      true,
                                      true};
    return recipe;
}

// What glClear does to integer targets is undefined in GL, so they are cleared by the typed calls.
void clearToZero(const QPair<int, unsigned int> &target)
{
    constexpr GLuint kUnsigned[4] = {};
    constexpr GLint kSigned[4] = {};
    if (target.second == GL_RGBA32I)
        glClearBufferiv(GL_COLOR, target.first, kSigned);
    else
        glClearBufferuiv(GL_COLOR, target.first, kUnsigned);
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the lists' image", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry",
     .meaning = "what to draw; none: all lists are empty",
     .kind = SlotKind::Model},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_HeadPointers",
     .meaning = "where the list of a pixel begins",
     .kind = SlotKind::Texture,
     .format = "GL_R32UI"},
    {.name = "Kvo_KvoTexture*_NodeBuffer",
     .meaning = "the nodes",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA32UI or GL_RGBA32I"},
    {.name = "Kvo_int_NodeBufferWidth", .meaning = "texels in a row of the node buffer", .kind = SlotKind::Count},
    {.name = "Kvo_KvoTexture*_Depth",
     .meaning = "never written",
     .kind = SlotKind::Texture,
     .format = "none",
     .hasEffect = false},
};

constexpr PassInfo kInfo = {"VisibilityBufferRenderPass",
                            "records every fragment of a model: the first step of exact transparency", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

VisibilityBufferRenderPass::VisibilityBufferRenderPass(unsigned long long drawFlagsValue,
                                                       unsigned long long drawFlagsMask)
    : _drawFlagsMask(drawFlagsMask), _drawFlagsValue(drawFlagsValue)
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addOutput(QStringLiteral("Kvo_KvoTexture*_HeadPointers"), kHeadPointers);
    addOutput(QStringLiteral("Kvo_KvoTexture*_NodeBuffer"), kNodeBuffer);
    addOutput(QStringLiteral("Kvo_int_NodeBufferWidth"), kNodeBufferWidth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Depth"), kDepth);
    describe(kInfo);
}

VisibilityBufferRenderPass::VisibilityBufferRenderPass(const VisibilityBufferRenderPass &other) = default;
VisibilityBufferRenderPass &VisibilityBufferRenderPass::operator=(const VisibilityBufferRenderPass &other) = default;

VisibilityBufferRenderPass::~VisibilityBufferRenderPass() = default;

void VisibilityBufferRenderPass::chooseMode()
{
    if (_modeChosen)
        return;
    _modeChosen = true;
    _gl4Mode = canBuildFragmentLists();
    if (_gl4Mode) {
        KVO_LOG("Using GL4 mode");
    } else {
        KVO_LOG("Using non-GL4 mode");
        _outputFormats.append({QStringLiteral("out_HeadPointer"), GL_R32UI});
        _outputFormats.append({QStringLiteral("out_NodeBuffer"), GL_RGBA32I});
    }
}

void VisibilityBufferRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    chooseMode();
    const Extent extent = extentOf(*this, kViewport);
    GPUModel *model = modelOf(_inputs[kGeometry].value);
    if (_gl4Mode)
        recordLists(extent, model);
    else
        recordNearest(extent, model);
}

// All fragments, in lists.
void VisibilityBufferRenderPass::recordLists(const Extent &extent, GPUModel *model)
{
    // The framebuffer whose target follows the viewport says whether it is still right.
    const bool replaces =
        needsTargets(_headPointerFbo, "VisibilityBufferRenderPass head pointers", extent, _width, _height);
    const bool needsNodes = made(_nodeBufferFbo, "VisibilityBufferRenderPass nodes");
    made(_fbo, "VisibilityBufferRenderPass");

    // Nothing is written to this target: it gives the framebuffer its size. Without a depth target no
    // fragment is rejected.
    {
        AutoBinder fbo(_fbo);
        _fbo->attach(tempTexture(TextureFormat::Frame, extent), GL_COLOR_ATTACHMENT0, 0);
    }
    if (replaces) {
        AutoBinder fbo(_headPointerFbo);
        replaceTarget(_headPointerFbo, GL_COLOR_ATTACHMENT0, integerTarget(GL_R32UI), extent);
        _headPointerTexture = _headPointerFbo->attachment(GL_COLOR_ATTACHMENT0);
    }
    if (needsNodes) {
        AutoBinder fbo(_nodeBufferFbo);
        replaceTarget(_nodeBufferFbo, GL_COLOR_ATTACHMENT0, integerTarget(GL_RGBA32UI),
                      {kNodeBufferSide, kNodeBufferSide});
        _nodeBufferTexture = _nodeBufferFbo->attachment(GL_COLOR_ATTACHMENT0);
        OwnUse::begin(_nodeBufferTexture);
        _countsAll = false;
    }
    makeProgramAndCounter();

    AutoBinder fbo(_fbo);
    const bool canDraw = !extent.isEmpty();
    {
        NeutralState neutral(kState);
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        if (canDraw)
            clearLists();
        if (model && _shaderProgram->isLinked() && _headCounter->isUsable()) {
            glEnable(GL_DEPTH_TEST);
            neutral.leave({StatePiece::DepthTest});
            if (canDraw)
                drawIntoLists(*model);
        }
    }
    _outputs[kHeadPointers].value = objectForm(_headPointerTexture);
    _outputs[kNodeBuffer].value = objectForm(_nodeBufferTexture);
    _outputs[kNodeBufferWidth].value = kNodeBufferSide;
    release(_fbo->detach(GL_COLOR_ATTACHMENT0));
}

// Leaves the framebuffer of the recording bound and ready to draw.
void VisibilityBufferRenderPass::clearLists()
{
    clearNodes();
    if (_headCounter->isUsable()) {
        AutoBinder counter(_headCounter);
        constexpr GLuint kZero = 0;
        glBufferSubData(GL_ATOMIC_COUNTER_BUFFER, 0, sizeof kZero, &kZero);
    }
    {
        AutoBinder target(_headPointerFbo);
        _headPointerFbo->setDrawBuffers();
        clearToZero({0, GL_R32UI});
    }
    _fbo->setDrawBuffers();
}

// The node buffer is 256 MiB, and a frame fills a few rows of it. Only those are cleared, unless others may have
// stored in it as well: a host that knows the texture, or a sorting program of a host.
void VisibilityBufferRenderPass::clearNodes()
{
    // All that is needed is made in the first frame, so that none is slower than that.
    const bool canClearRows = makeRowClearing();
    const OwnUse nodes(_nodeBufferTexture);
    AutoBinder target(_nodeBufferFbo);
    _nodeBufferFbo->setDrawBuffers();
    if (!std::exchange(_countsAll, true) || nodes.hadOthers() || !canClearRows) {
        clearToZero({0, GL_RGBA32UI});
        return;
    }
    {
        AutoBinder from(_headCounter);
        AutoBinder to(_lastCount);
        glCopyBufferSubData(GL_ATOMIC_COUNTER_BUFFER, GL_UNIFORM_BUFFER, 0, 0, sizeof(GLuint));
    }
    AutoDisabler faceCulling(GL_CULL_FACE);
    AutoBinder program(_clearingProgram);
    AutoBinder count(_lastCount);
    AutoBinder quad(_screenQuad);
    const TargetViewport viewport({kNodeBufferSide, kNodeBufferSide});
    _clearingProgram->setUniform(QStringLiteral("u_NodeBufferImageWidth"), kNodeBufferSide);
    _clearingProgram->setUniform(QStringLiteral("u_NodeBufferImageHeight"), kNodeBufferSide);
    _screenQuad->draw();
}

bool VisibilityBufferRenderPass::makeRowClearing()
{
    buildOnce(_clearingProgram, clearingProgram());
    if (!_clearingProgram->isLinked() || !fetchOnce(_screenQuad, Quad::Screen, _clearingProgram))
        return false;
    if (!_lastCount || !_lastCount->isUsable()) {
        constexpr GLuint kNone[4] = {};
        _lastCount = QSharedPointer<BufferObject>::create();
        _lastCount->setIndexedTarget(GL_UNIFORM_BUFFER, 0, 0, sizeof kNone);
        AutoBinder bound(_lastCount);
        _lastCount->uploadBytes(kNone, sizeof kNone, GL_DYNAMIC_COPY);
    }
    return _lastCount->isUsable() && _headCounter->isUsable();
}

void VisibilityBufferRenderPass::drawIntoLists(GPUModel &model)
{
    const OwnUse ownUse(_nodeBufferTexture);
    AutoBinder program(_shaderProgram);
    AutoBinder counter(_headCounter);
    std::optional<ImageBinding> heads(std::in_place, kHeadPointerUnit, _headPointerTexture->textureID(), GL_WRITE_ONLY,
                                      GL_R32UI);
    std::optional<ImageBinding> nodes(std::in_place, kNodeBufferUnit, _nodeBufferTexture->textureID(), GL_READ_WRITE,
                                      GL_RGBA32UI);
    _shaderProgram->setUniform(QStringLiteral("u_HeadPointerImage"), kHeadPointerUnit);
    _shaderProgram->setUniform(QStringLiteral("u_NodeBufferImage"), kNodeBufferUnit);
    draw(model, kNodeBufferSide);
    heads.reset();
    nodes.reset();
    glMemoryBarrier(kListBarrier);
}

// The nearest fragment of each pixel, as lists of one node.
void VisibilityBufferRenderPass::recordNearest(const Extent &extent, GPUModel *model)
{
    if (needsTargets(_fbo, "VisibilityBufferRenderPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        for (int i = 0; i < _outputFormats.size(); ++i)
            replaceTarget(_fbo, GL_COLOR_ATTACHMENT0 + unsigned(i), integerTarget(_outputFormats[i].second), extent);
        replaceTarget(_fbo, GL_DEPTH_ATTACHMENT, kDepthTarget, extent);
    }
    makeProgramAndCounter();

    AutoBinder fbo(_fbo);
    const bool canDraw = !extent.isEmpty();
    {
        NeutralState neutral(kState);
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        if (canDraw) {
            _fbo->setDrawBuffers();
            for (int i = 0; i < _outputFormats.size(); ++i)
                clearToZero({i, _outputFormats[i].second});
            glClear(GL_DEPTH_BUFFER_BIT);
        }
        if (model && _shaderProgram->isLinked()) {
            glEnable(GL_DEPTH_TEST);
            neutral.leave({StatePiece::DepthTest});
            if (canDraw) {
                AutoBinder program(_shaderProgram);
                draw(*model, extent.width);
            }
        }
    }
    _outputs[kHeadPointers].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
    _outputs[kNodeBuffer].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT1));
    _outputs[kNodeBufferWidth].value = extent.width;
}

// The counter is made in either mode.
void VisibilityBufferRenderPass::makeProgramAndCounter()
{
    if (!_shaderProgram)
        _shaderProgram = buildProgram(recordingProgram(_outputFormats, _gl4Mode));
    if (!_headCounter || !_headCounter->isUsable()) {
        _headCounter = QSharedPointer<BufferObject>::create();
        _countsAll = false;
        // The binding point does not exist in every context of the other mode.
        if (hasGLExtension("ARB_shader_atomic_counters"))
            _headCounter->setIndexedTarget(GL_ATOMIC_COUNTER_BUFFER, 0, 0, sizeof(GLuint));
        AutoBinder counter(_headCounter);
        _headCounter->uploadBytes(nullptr, sizeof(GLuint), GL_DYNAMIC_DRAW);
    }
}

// With the program bound.
void VisibilityBufferRenderPass::draw(GPUModel &model, int nodeBufferWidth)
{
    _shaderProgram->setUniform(QStringLiteral("u_ProjectionMatrix"),
                               qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value));
    _shaderProgram->setUniform(QStringLiteral("u_CameraMatrix"),
                               qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value));
    if (_shaderProgram->hasUniform(QStringLiteral("u_NodeBufferImageWidth")))
        _shaderProgram->setUniform(QStringLiteral("u_NodeBufferImageWidth"), nodeBufferWidth);
    model.draw(_shaderProgram, _drawFlagsValue, _drawFlagsMask, CounterClockwiseWinding, false);
}

} // namespace Brevane::Kvo
