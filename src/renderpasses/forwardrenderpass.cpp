#include "renderpasses/forwardrenderpass.h"

#include "gl/bindings.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "model/gpumodel.h"
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

const StateRow &kState = stateRow("ForwardRenderPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kGeometry };
enum Output { kFrame, kId };

const std::vector<OutputTarget> kTargets{{QStringLiteral("out_FragColor"), GL_RGBA},
                                         {QStringLiteral("out_Id"), GL_RGBA}};

const QString kFragmentShaderHead = QStringLiteral(R"(#version 150
#instancedata "OBJMaterial"
#include "TextureManager.glslh"

in vec3 vo_Normal;
in vec2 vo_TexCoord;

out vec4 out_FragColor;
out vec4 out_Id;
)");

const QString kFragmentShaderMain = QStringLiteral(R"(
void main()
{
  vec3 Kd = getKd() * managedTexture(getMap_Kd(),vo_TexCoord).rgb;
  vec3 Ks = getKs() * managedTexture(getMap_Ks(),vo_TexCoord).rgb;
  vec3 L = normalize(vec3(100, 100, 100));
  out_FragColor = vec4(directionalLight(Kd, Ks, getNs(), vo_Normal, L), getD());
  out_Id = vec4(gl_PrimitiveID+1.0);
}
)");

const ProgramRecipe &forwardProgram()
{
    static const ProgramRecipe recipe{
        QStringLiteral("ForwardRenderPass"), outputsOf(kTargets),
        modelProgramSources(kLitModelVertexShader, kFragmentShaderHead + kDirectionalLight + kFragmentShaderMain)};
    return recipe;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the targets", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry",
     .meaning = "what to draw; none: the targets are cleared",
     .kind = SlotKind::Model},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "lit colour, opacity in alpha",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA, 8 bits, nearest"},
    {.name = "Kvo_KvoTexture*_Id",
     .meaning = "number of the triangle plus 1, clamped by the format",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA, 8 bits, nearest"},
};

constexpr PassInfo kInfo = {"ForwardRenderPass",
                            "draws a model in one step, lit by a light that is fixed to the camera", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

ForwardRenderPass::ForwardRenderPass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Id"), kId);
    describe(kInfo);
}

ForwardRenderPass::ForwardRenderPass(const ForwardRenderPass &other) = default;
ForwardRenderPass &ForwardRenderPass::operator=(const ForwardRenderPass &other) = default;

// Nothing is deleted with the pass: whoever still reads the targets finds them alive.
ForwardRenderPass::~ForwardRenderPass()
{
    giveUpTargets(_fbo);
    _fbo.giveUp();
    _shaderProgram.giveUp();
}

void ForwardRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    GPUModel *model = modelOf(_inputs[kGeometry].value);

    if (needsTargets(_fbo, "ForwardRenderPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        replaceGeometryTargets(_fbo, kTargets, extent);
    }
    buildOnce(_shaderProgram, forwardProgram());

    const bool canDraw = !extent.isEmpty();
    {
        const NeutralState neutral(kState);
        AutoBinder fbo(_fbo);
        _fbo->setDrawBuffers();
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        if (canDraw)
            glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        if (model) {
            AutoEnabler depthTest(GL_DEPTH_TEST);
            AutoBinder program(_shaderProgram);
            _shaderProgram->setUniform(QStringLiteral("u_ProjectionMatrix"), projection);
            _shaderProgram->setUniform(QStringLiteral("u_CameraMatrix"), camera);
            if (canDraw)
                model->draw(_shaderProgram, 0, 0, CounterClockwiseWinding, false);
        }
    }
    _outputs[kFrame].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
    _outputs[kId].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT1));
}

void ForwardRenderPass::setShaderProgram(ShaderProgram *program)
{
    _shaderProgram.borrow(program);
}

} // namespace Brevane::Kvo
