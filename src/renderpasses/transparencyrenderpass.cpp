#include "renderpasses/transparencyrenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "model/gpumodel.h"
#include "passkit/coverage.h"
#include "passkit/lighting.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QMatrix4x4>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("TransparencyRenderPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kGeometry, kTexture };
enum Output { kFrame, kDepth };

constexpr TargetFormat kColorTarget{GL_RGBA32F, GL_BGRA, GL_FLOAT, GL_NEAREST};
constexpr TargetFormat kWeightTarget{GL_R32F, GL_BGRA, GL_FLOAT, GL_NEAREST};
constexpr TargetFormat kDepthTarget{GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, GL_NEAREST};
constexpr TargetFormat kWhite{GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE, GL_NEAREST};

const QString kFragmentShaderHead = QStringLiteral(R"(#version 150
#instancedata "OBJMaterial"
#include "TextureManager.glslh"

in vec3 vo_Normal;
in vec2 vo_TexCoord;
)");

const QString kSurfaceColor = QStringLiteral(R"(
vec3 surfaceColor()
{
  vec3 Kd = getKd() * managedTexture(getMap_Kd(),vo_TexCoord).rgb;
  vec3 Ks = getKs() * managedTexture(getMap_Ks(),vo_TexCoord).rgb;
  vec3 L = normalize(vec3(100, 100, 100));
  return directionalLight(Kd, Ks, getNs(), vo_Normal, L);
}
)");

const QString kOpaqueMain = QStringLiteral(R"(
out vec4 out_FragColor;
out vec4 out_Id;

void main()
{
  float alpha = getD();
  if(alpha<1.0)
    discard;
  out_FragColor = vec4(surfaceColor(), alpha);
}
)");

// The colour is not multiplied by alpha: the composition divides by the sum of alpha times weight.
const QString kAccumulationMain = QStringLiteral(R"(
out vec4 out_FragColor[2];

void main()
{
  float weight = pow(abs(gl_FragCoord.z),-5);
  float alpha = getD();
  vec3 color = surfaceColor();
  out_FragColor[0] = vec4(color * weight, alpha);
  out_FragColor[1] = vec4(alpha * weight);
}
)");

const QString kCompositeShader = QStringLiteral(R"(#version 150

uniform sampler2D u_SamplerA;
uniform sampler2D u_SamplerB;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

void main()
{
  vec4 accum = texelFetch(u_SamplerA, ivec2(gl_FragCoord.xy), 0);
  float r = accum.a;
  accum.a = texelFetch(u_SamplerB, ivec2(gl_FragCoord.xy), 0).r;
  out_FragColor = vec4(accum.rgb / clamp(accum.a, 1e-4, 5e4), r);
}
)");

const ProgramRecipe &opaqueProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("TransparencyRenderPass opaque"),
                                      {QStringLiteral("out_FragColor")},
                                      modelProgramSources(kLitModelVertexShader, kFragmentShaderHead + kDirectionalLight
                                                                                     + kSurfaceColor + kOpaqueMain)};
    return recipe;
}

const ProgramRecipe &accumulationProgram()
{
    static const ProgramRecipe recipe{
        QStringLiteral("TransparencyRenderPass accumulation"),
        {QStringLiteral("out_FragColor[0]"), QStringLiteral("out_FragColor[1]")},
        modelProgramSources(kLitModelVertexShader,
                            kFragmentShaderHead + kDirectionalLight + kSurfaceColor + kAccumulationMain)};
    return recipe;
}

const ProgramRecipe &compositeProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("TransparencyRenderPass composite"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kCompositeShader}}};
    return recipe;
}

// Opaque fragments are not kept out of the sums by a test of alpha, but by the depth that they themselves
// have left: under a strict function none of them comes through. That it is there is for the guard of the
// pass to see to, which opens the depth mask and what else could keep it from being written.
GPUModel::Opacity opacityToAccumulate()
{
    GLint function = GL_LESS;
    glGetIntegerv(GL_DEPTH_FUNC, &function);
    return function == GL_LESS ? GPUModel::Opacity::Transparent : GPUModel::Opacity::Any;
}

void setMatrices(ShaderProgram *program, const QMatrix4x4 &projection, const QMatrix4x4 &camera)
{
    if (program->hasUniform(QStringLiteral("u_ProjectionMatrix")))
        program->setUniform(QStringLiteral("u_ProjectionMatrix"), projection);
    if (program->hasUniform(QStringLiteral("u_CameraMatrix")))
        program->setUniform(QStringLiteral("u_CameraMatrix"), camera);
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the targets", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry",
     .meaning = "what to draw; none: the frame is cleared",
     .kind = SlotKind::Model},
    {.name = "Kvo_KvoTexture*_Texture", .meaning = "not read", .kind = SlotKind::Texture, .hasEffect = false},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "(1 - r) * average colour + r * opaque colour",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA32F, nearest"},
    {.name = "Kvo_KvoTexture*_Depth",
     .meaning = "window depth of the opaque fragments",
     .kind = SlotKind::Texture,
     .format = "GL_DEPTH_COMPONENT32F, nearest"},
};

constexpr PassInfo kInfo = {"TransparencyRenderPass", "weighted blended order-independent transparency of a model",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

TransparencyRenderPass::TransparencyRenderPass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addInput(QStringLiteral("Kvo_KvoTexture*_Texture"), QVariant(), kTexture);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Depth"), kDepth);
    describe(kInfo);
}

TransparencyRenderPass::TransparencyRenderPass(const TransparencyRenderPass &other) = default;
TransparencyRenderPass &TransparencyRenderPass::operator=(const TransparencyRenderPass &other) = default;

// The programs of the opaque part and of the composition are given up.
TransparencyRenderPass::~TransparencyRenderPass()
{
    _opaqueProgram.giveUp();
    _compositeProgram.giveUp();
}

void TransparencyRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    GPUModel *model = modelOf(_inputs[kGeometry].value);

    // The two have their depth in common, so they are remade together.
    if (!_accumulationFbo)
        _opaqueFbo = nullptr;
    if (needsTargets(_opaqueFbo, "TransparencyRenderPass opaque", extent, _width, _height)) {
        if (_accumulationFbo.isShared())
            _accumulationFbo = nullptr;
        made(_accumulationFbo, "TransparencyRenderPass accumulation");
        {
            AutoBinder fbo(_opaqueFbo);
            replaceTarget(_opaqueFbo, GL_COLOR_ATTACHMENT0, kColorTarget, extent);
            replaceTarget(_opaqueFbo, GL_DEPTH_ATTACHMENT, kDepthTarget, extent);
        }
        AutoBinder fbo(_accumulationFbo);
        replaceTarget(_accumulationFbo, GL_COLOR_ATTACHMENT0, kColorTarget, extent);
        replaceTarget(_accumulationFbo, GL_COLOR_ATTACHMENT1, kWeightTarget, extent);
        _accumulationFbo->detach(GL_DEPTH_ATTACHMENT);
        _accumulationFbo->attach(_opaqueFbo->attachment(GL_DEPTH_ATTACHMENT), GL_DEPTH_ATTACHMENT, 0);
    }
    if (!_whiteTexture) {
        constexpr quint32 kAllOnes = 0xFFFFFFFF;
        _whiteTexture = makeTexture(kWhite, {1, 1}, &kAllOnes);
    }
    buildOnce(_opaqueProgram, opaqueProgram());
    buildOnce(_accumulationProgram, accumulationProgram());
    buildOnce(_compositeProgram, compositeProgram());
    fetchOnce(_screenQuad, Quad::Screen, _compositeProgram);

    const bool canDraw = !extent.isEmpty();
    {
        NeutralState neutral(kState);
        {
            AutoBinder fbo(_opaqueFbo);
            _opaqueFbo->setDrawBuffers();
            if (canDraw)
                glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
            if (model) {
                AutoEnabler depthTest(GL_DEPTH_TEST);
                AutoBinder program(_opaqueProgram);
                setMatrices(_opaqueProgram, projection, camera);
                // The shader discards the others, which costs as much as drawing them.
                if (canDraw)
                    model->draw(_opaqueProgram, 0, 0, CounterClockwiseWinding, false, GPUModel::Opacity::Opaque);
            }
        }
        const GPUModel::Opacity opacity = model ? opacityToAccumulate() : GPUModel::Opacity::Any;
        const bool hasLayers = canDraw && model && !model->isDrawEmpty(0, 0, opacity);
        // Where no layer can be, nobody reads the sums.
        const QRect layers = hasLayers ? coveredPixels(model->drawBounds(0, 0, opacity), projection, camera) : QRect();
        {
            // Transparent fragments are hidden by opaque ones, whose depth is there, and not by each other.
            AutoBinder fbo(_accumulationFbo);
            _accumulationFbo->setDrawBuffers();
            glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
            if (hasLayers) {
                const ScissorScope scissor(layers);
                glClear(GL_COLOR_BUFFER_BIT);
            } else if (canDraw) {
                glClear(GL_COLOR_BUFFER_BIT);
            }
            glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
            if (model) {
                AutoEnabler depthTest(GL_DEPTH_TEST);
                AutoEnabler blend(GL_BLEND);
                glBlendFuncSeparate(GL_ONE, GL_ONE, GL_ZERO, GL_ONE_MINUS_SRC_ALPHA);
                glDepthMask(GL_FALSE);
                AutoBinder program(_accumulationProgram);
                setMatrices(_accumulationProgram, projection, camera);
                if (hasLayers)
                    model->draw(_accumulationProgram, 0, 0, CounterClockwiseWinding, false, opacity);
                glDepthMask(GL_TRUE);
                neutral.leave({StatePiece::DepthMask, StatePiece::BlendFunction});
            }
        }
        if (model && _screenQuad) {
            AutoDisabler depthTest(GL_DEPTH_TEST);
            AutoEnabler blend(GL_BLEND);
            glBlendFunc(GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA);
            AutoBinder fbo(_opaqueFbo);
            _opaqueFbo->setDrawBuffers();
            AutoBinder program(_compositeProgram);
            Texture *accumulator = _accumulationFbo->attachment(GL_COLOR_ATTACHMENT0);
            Texture *weightSum = _accumulationFbo->attachment(GL_COLOR_ATTACHMENT1);
            AutoBinder boundAccumulator(accumulator);
            AutoBinder boundWeightSum(weightSum);
            _compositeProgram->setUniform(QStringLiteral("u_SamplerA"), accumulator->unit());
            _compositeProgram->setUniform(QStringLiteral("u_SamplerB"), weightSum->unit());
            AutoBinder quad(_screenQuad);
            // Sums of nothing, drawn over the opaque part, would leave it as it is.
            if (hasLayers) {
                const ScissorScope scissor(layers);
                _screenQuad->draw();
            }
        }
    }
    _outputs[kFrame].value = objectForm(_opaqueFbo->attachment(GL_COLOR_ATTACHMENT0));
    _outputs[kDepth].value = objectForm(_opaqueFbo->attachment(GL_DEPTH_ATTACHMENT));
}

} // namespace Brevane::Kvo
