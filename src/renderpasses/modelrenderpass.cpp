#include "renderpasses/modelrenderpass.h"

#include "gl/bindings.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "model/gpumodel.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QMatrix4x4>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("ModelRenderPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kGeometry };
enum Output { kDiffuse, kSpecular, kNormal, kDepth, kId };

const std::vector<OutputTarget> kTargets{{QStringLiteral("out_Kd"), GL_RGBA32F},
                                         {QStringLiteral("out_Ks"), GL_RGBA32F},
                                         {QStringLiteral("out_Normal"), GL_RGB32F},
                                         {QStringLiteral("out_Id"), GL_R32F}};

const QString kVertexShader = QStringLiteral(R"(#version 150
#instancedata "InstanceInfo"

uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
uniform mat4 u_NormalMatrix;

in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;

out vec3 vo_Normal;
out vec2 vo_TexCoord;

void main()
{
  gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
  mat4 NormalMatrix = u_NormalMatrix * getModelNormalMatrix();
  // Both factors are inverse transposes, whose last column is (0, 0, 0, 1): w does not reach xyz.
  vo_Normal = (NormalMatrix * vec4(va_Normal, 1.0)).xyz;
  vo_TexCoord = va_TexCoord;
}
)");

const QString kFragmentShader = QStringLiteral(R"(#version 150
#instancedata "OBJMaterial"
#include "TextureManager.glslh"

in vec3 vo_Vertex;
in vec3 vo_Normal;
in vec2 vo_TexCoord;

out vec4 out_Kd;
out vec4 out_Ks;
out vec3 out_Normal;
out vec2 out_TexCoord;
out vec4 out_Id;

void main()
{
  //DODA if(managedTexture(getMap_Kd(), vo_TexCoord).a <= 0.01) { discard; }
  out_Kd = vec4(getKd() * managedTexture(getMap_Kd(),vo_TexCoord).rgb, getD());
  out_Ks = vec4(getKs() * managedTexture(getMap_Ks(),vo_TexCoord).rgb, getNs());
  out_Normal = normalize(vo_Normal);
  out_TexCoord = vo_TexCoord;
  out_Id = vec4(gl_PrimitiveID+1.0);
}
)");

const QString kDiscardMarker = QStringLiteral("//DODA ");

const ProgramRecipe &modelProgram(bool discardsOnDiffuseAlpha)
{
    const auto recipe = [](const QString &fragmentShader) {
        return ProgramRecipe{QStringLiteral("ModelRenderPass"), outputsOf(kTargets),
                             modelProgramSources(kVertexShader, fragmentShader)};
    };
    static const ProgramRecipe plain = recipe(kFragmentShader);
    static const ProgramRecipe discarding = recipe(QString(kFragmentShader).remove(kDiscardMarker));
    return discardsOnDiffuseAlpha ? discarding : plain;
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
    {.name = "Kvo_KvoTexture*_Diffuse",
     .meaning = "Kd times map, opacity in alpha",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA32F, colour attachment 0"},
    {.name = "Kvo_KvoTexture*_Specular",
     .meaning = "Ks times map, exponent in alpha",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA32F, colour attachment 1"},
    {.name = "Kvo_KvoTexture*_Normal",
     .meaning = "unit normal in camera space",
     .kind = SlotKind::Texture,
     .format = "GL_RGB32F, colour attachment 2"},
    {.name = "Kvo_KvoTexture*_Depth",
     .meaning = "window depth",
     .kind = SlotKind::Texture,
     .format = "GL_DEPTH_COMPONENT32F, depth attachment"},
    {.name = "Kvo_KvoTexture*_Id",
     .meaning = "number of the triangle in its draw plus 1; 0 is background",
     .kind = SlotKind::Texture,
     .format = "GL_R32F, colour attachment 3"},
};

constexpr PassInfo kInfo = {"ModelRenderPass", "draws a model into the targets that deferred shading reads",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

ModelRenderPass::ModelRenderPass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Diffuse"), kDiffuse);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Specular"), kSpecular);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Normal"), kNormal);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Depth"), kDepth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Id"), kId);
    describe(kInfo);
}

ModelRenderPass::ModelRenderPass(const ModelRenderPass &other) = default;
ModelRenderPass &ModelRenderPass::operator=(const ModelRenderPass &other) = default;

// The targets are not deleted with the pass: whoever still reads them finds them alive.
ModelRenderPass::~ModelRenderPass()
{
    giveUpTargets(_fbo);
}

void ModelRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    GPUModel *model = modelOf(_inputs[kGeometry].value);

    if (needsTargets(_fbo, "ModelRenderPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        replaceGeometryTargets(_fbo, kTargets, extent);
    }
    buildOnce(_shaderProgram, modelProgram(_discardOnDiffuseAlpha));

    const bool canDraw = !extent.isEmpty();
    {
        NeutralState neutral(kState);
        AutoBinder fbo(_fbo);
        _fbo->setDrawBuffers();
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        if (canDraw)
            glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        if (model) {
            glEnable(GL_DEPTH_TEST);
            neutral.leave({StatePiece::DepthTest});
            AutoBinder program(_shaderProgram);
            _shaderProgram->setUniform(QStringLiteral("u_ProjectionMatrix"), projection);
            _shaderProgram->setUniform(QStringLiteral("u_CameraMatrix"), camera);
            _shaderProgram->setUniform(QStringLiteral("u_NormalMatrix"), camera.inverted().transposed());
            if (canDraw)
                model->draw(_shaderProgram, 0, 0, CounterClockwiseWinding, false);
        }
    }
    _outputs[kDiffuse].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
    _outputs[kSpecular].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT1));
    _outputs[kNormal].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT2));
    _outputs[kDepth].value = objectForm(_fbo->attachment(GL_DEPTH_ATTACHMENT));
    _outputs[kId].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT3));
}

void ModelRenderPass::setShaderProgram(ShaderProgram *program)
{
    _shaderProgram.adopt(program);
}

void ModelRenderPass::setDiscardOnDiffuseAlpha(bool discard)
{
    _discardOnDiffuseAlpha = discard;
}

} // namespace Brevane::Kvo
