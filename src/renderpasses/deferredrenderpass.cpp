#include "renderpasses/deferredrenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QColor>
#include <QMatrix4x4>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("DeferredRenderPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kNormal, kTexCoord, kDepth };
enum Output { kFrame };

constexpr TargetFormat kTarget{GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE, GL_NEAREST};

const QString kFragmentShader = QStringLiteral(R"(#version 150

uniform sampler2D u_SamplerNormal;
uniform sampler2D u_SamplerTexCoord;
uniform sampler2D u_SamplerDepth;

uniform mat4 u_CameraMatrix;
uniform mat4 u_NormalMatrix;
uniform mat4 u_InvProjMatrix;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

vec4 positionFromDepth(vec2 uv)
{
  float x = uv.x * 2.0 - 1.0;
  float y = uv.y * 2.0 - 1.0;
  float z = texture(u_SamplerDepth, uv).x;
  vec4 projectedPos = vec4(x, y, z, 1.0);
  vec4 pos = u_InvProjMatrix * projectedPos;
  return pos / pos.w;
}

void main()
{
  vec4 SampleVertex = positionFromDepth(vo_TexCoord);
  vec4 SampleNormal = texture(u_SamplerNormal, vo_TexCoord);
  vec4 SampleTexCoord = texture(u_SamplerTexCoord, vo_TexCoord);
  vec4 LightSourcePos = u_CameraMatrix * vec4(100, 100, 100, 1);
  vec4 VertexInEyeSpace = u_CameraMatrix * SampleVertex;
  vec4 NormalInEyeSpace = u_NormalMatrix * SampleNormal;
  float LDotN = dot(normalize(LightSourcePos.xyz - VertexInEyeSpace.xyz), NormalInEyeSpace.xyz);
  out_FragColor = vec4( vec3(LDotN), 1.0 );
}
)");

const ProgramRecipe &lambertProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("DeferredRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the target", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "P, camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "C, world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoTexture*_Normal", .meaning = "normal in object space; none: no light", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_TexCoord",
     .meaning = "bound, without effect on the picture",
     .kind = SlotKind::Texture,
     .hasEffect = false},
    {.name = "Kvo_KvoTexture*_Depth", .meaning = "window depth; none: 0 everywhere", .kind = SlotKind::Texture},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the shaded image",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA, owned by the pass"},
};

constexpr PassInfo kInfo = {"DeferredRenderPass",
                            "shades a G-buffer with one light in the world, as a grey Lambert image", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

DeferredRenderPass::DeferredRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoTexture*_Normal"), QVariant(), kNormal);
    addInput(QStringLiteral("Kvo_KvoTexture*_TexCoord"), QVariant(), kTexCoord);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    describe(kInfo);
}

DeferredRenderPass::DeferredRenderPass(const DeferredRenderPass &other) = default;
DeferredRenderPass &DeferredRenderPass::operator=(const DeferredRenderPass &other) = default;

DeferredRenderPass::~DeferredRenderPass() = default;

void DeferredRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const QMatrix4x4 projectionInverseTransposed = projection.inverted().transposed();
    const QMatrix4x4 cameraInverseTransposed = camera.inverted().transposed();
    Texture *normal = objectTexture(*this, kNormal);
    Texture *texCoord = objectTexture(*this, kTexCoord);
    Texture *depth = objectTexture(*this, kDepth);
    if (!depth) {
        if (!_fallbackTexture)
            _fallbackTexture = makeBlackTexture();
        depth = _fallbackTexture;
    }
    if (!normal)
        normal = _fallbackTexture;
    if (!texCoord)
        texCoord = _fallbackTexture;
    // With a depth there is no texture of ours to stand in, but no normal still means no light.
    if (!normal)
        normal = TextureManager::Instance().solidTexture(QColor(Qt::transparent));

    if (needsTargets(_fbo, "DeferredRenderPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        replaceTarget(_fbo, GL_COLOR_ATTACHMENT0, kTarget, extent);
    }
    buildOnce(_shaderProgram, lambertProgram());
    fetchOnce(_screenQuad, Quad::Screen, _shaderProgram);

    const NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    _fbo->setDrawBuffers();
    glDisable(GL_DEPTH_TEST);
    if (!extent.isEmpty() && normal && _screenQuad) {
        glClear(GL_COLOR_BUFFER_BIT);
        AutoBinder program(_shaderProgram);
        AutoBinder boundNormal(normal);
        AutoBinder boundTexCoord(texCoord);
        AutoBinder boundDepth(depth);
        // u_SamplerTexCoord stays at 0: what it samples reaches no output.
        _shaderProgram->setUniform(QStringLiteral("u_SamplerNormal"), normal->unit());
        _shaderProgram->setUniform(QStringLiteral("u_SamplerDepth"), depth->unit());
        _shaderProgram->setUniform(QStringLiteral("u_CameraMatrix"), camera);
        _shaderProgram->setUniform(QStringLiteral("u_NormalMatrix"), cameraInverseTransposed);
        // Transposed too, whatever the name says: see the header.
        _shaderProgram->setUniform(QStringLiteral("u_InvProjMatrix"), projectionInverseTransposed);
        AutoBinder quad(_screenQuad);
        _screenQuad->draw();
    }
    _outputs[kFrame].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
}

} // namespace Brevane::Kvo
