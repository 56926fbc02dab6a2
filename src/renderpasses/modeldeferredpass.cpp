#include "renderpasses/modeldeferredpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/lighting.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("ModelDeferredPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kDiffuse, kSpecular, kNormal, kDepth };
enum Output { kFrame };

constexpr TargetFormat kTarget{GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE, GL_NEAREST};

const QString kFragmentShaderHead = QStringLiteral(R"(#version 150

uniform sampler2D u_SamplerDiffuse;
uniform sampler2D u_SamplerSpecular;
uniform sampler2D u_SamplerNormal;
uniform sampler2D u_SamplerDepth;

in vec2 vo_TexCoord;

out vec4 out_FragColor;
)");

const QString kFragmentShaderMain = QStringLiteral(R"(
void main()
{
  vec4 Kd = texture(u_SamplerDiffuse, vo_TexCoord);
  vec4 spec = texture(u_SamplerSpecular, vo_TexCoord);
  vec3 Ks = spec.rgb;
  float Ns = spec.a;
  vec3 N = texture(u_SamplerNormal, vo_TexCoord).xyz;
  vec3 L = normalize(vec3(100, 100, 100));
  out_FragColor = vec4(directionalLight(Kd.rgb, Ks, Ns, N, L), Kd.a);
}
)");

const ProgramRecipe &shadingProgram()
{
    static const ProgramRecipe recipe{
        QStringLiteral("ModelDeferredPass"),
        {QStringLiteral("out_FragColor")},
        {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
         {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShaderHead + kDirectionalLight + kFragmentShaderMain}}};
    return recipe;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the target", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "not used", .kind = SlotKind::Matrix, .hasEffect = false},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "not used", .kind = SlotKind::Matrix, .hasEffect = false},
    {.name = "Kvo_KvoTexture*_Diffuse", .meaning = "diffuse colour Kd, opacity in alpha", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Specular",
     .meaning = "specular colour Ks, exponent Ns in alpha",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Normal", .meaning = "unit normal N in camera space", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Depth", .meaning = "not used", .kind = SlotKind::Texture, .hasEffect = false},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the shaded image",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA, 8 bits, nearest, owned by the pass"},
};

constexpr PassInfo kInfo = {"ModelDeferredPass",
                            "shades the targets of ModelRenderPass with one light that is fixed to the camera",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

ModelDeferredPass::ModelDeferredPass()
{
    setTextureForm(TextureForm::Object);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoTexture*_Diffuse"), QVariant(), kDiffuse);
    addInput(QStringLiteral("Kvo_KvoTexture*_Specular"), QVariant(), kSpecular);
    addInput(QStringLiteral("Kvo_KvoTexture*_Normal"), QVariant(), kNormal);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    describe(kInfo);
}

ModelDeferredPass::ModelDeferredPass(const ModelDeferredPass &other) = default;
ModelDeferredPass &ModelDeferredPass::operator=(const ModelDeferredPass &other) = default;

ModelDeferredPass::~ModelDeferredPass() = default;

// The light is fixed to the camera, so the matrices of inputs 1 and 2 do not enter.
void ModelDeferredPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const auto textureOr = [this](int input) {
        Texture *texture = objectTexture(*this, input);
        return texture ? texture : _defaultTexture.get();
    };
    Texture *diffuse = textureOr(kDiffuse);
    Texture *specular = textureOr(kSpecular);
    Texture *normal = textureOr(kNormal);

    if (needsTargets(_fbo, "ModelDeferredPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        replaceTarget(_fbo, GL_COLOR_ATTACHMENT0, kTarget, extent);
    }
    buildOnce(_shaderProgram, shadingProgram());
    fetchOnce(_quad, Quad::Screen, _shaderProgram);

    const NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    _fbo->setDrawBuffers();
    glDisable(GL_DEPTH_TEST);
    if (!extent.isEmpty()) {
        glClear(GL_COLOR_BUFFER_BIT);
        if (diffuse && specular && normal && _quad) {
            AutoBinder program(_shaderProgram);
            AutoBinder boundDiffuse(diffuse);
            AutoBinder boundSpecular(specular);
            AutoBinder boundNormal(normal);
            _shaderProgram->setUniform(QStringLiteral("u_SamplerDiffuse"), diffuse->unit());
            _shaderProgram->setUniform(QStringLiteral("u_SamplerSpecular"), specular->unit());
            _shaderProgram->setUniform(QStringLiteral("u_SamplerNormal"), normal->unit());
            AutoBinder quad(_quad);
            _quad->draw();
        }
    }
    _outputs[kFrame].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
}

} // namespace Brevane::Kvo
