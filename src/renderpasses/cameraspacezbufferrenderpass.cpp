#include "renderpasses/cameraspacezbufferrenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QColor>
#include <QMatrix4x4>

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("CameraSpaceZBufferRenderPass");

enum Input { kViewport, kDepth, kProjectionMatrix };
enum Output { kFrame };

const QString kFragmentShader = QStringLiteral(R"(#version 150

uniform sampler2D u_SamplerDepth;
uniform mat4 u_InvProjMatrix;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

vec4 positionFromDepth(vec2 uv, float depth)
{
  vec2 xy = uv.xy * 2.0 - vec2(1.0);
  float z = (2.0 * depth) - 1.0;
  vec4 projectedPos = vec4(xy, z, 1.0);
  vec4 pos = u_InvProjMatrix * projectedPos;
  return pos / pos.w;
}

void main()
{
  float d = texture(u_SamplerDepth,vo_TexCoord).x;
  out_FragColor = positionFromDepth(vo_TexCoord, d);
}
)");

const ProgramRecipe &unprojectionProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("CameraSpaceZBufferRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader}}};
    return recipe;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the target", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Depth", .meaning = "window depth; none: the far plane", .kind = SlotKind::Texture},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the position in xyz, 1 in w",
     .kind = SlotKind::Texture,
     .format = "pool format 6 (GL_RGBA32F)"},
};

constexpr PassInfo kInfo = {"CameraSpaceZBufferRenderPass", "turns depth into positions in camera space",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

CameraSpaceZBufferRenderPass::CameraSpaceZBufferRenderPass()
{
    setTextureForm(TextureForm::Typed);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_Depth"), QVariant(), kDepth);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    describe(kInfo);
}

CameraSpaceZBufferRenderPass::CameraSpaceZBufferRenderPass(const CameraSpaceZBufferRenderPass &other) = default;
CameraSpaceZBufferRenderPass &CameraSpaceZBufferRenderPass::operator=(const CameraSpaceZBufferRenderPass &other) =
    default;

CameraSpaceZBufferRenderPass::~CameraSpaceZBufferRenderPass() = default;

void CameraSpaceZBufferRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    Texture *depth = typedTexture(*this, kDepth);

    made(_fbo, "CameraSpaceZBufferRenderPass");
    _width = extent.width;
    _height = extent.height;
    Texture *target = tempTexture(TextureFormat::Position, extent);
    {
        AutoBinder fbo(_fbo);
        _fbo->attach(target, GL_COLOR_ATTACHMENT0, 0);
    }
    buildOnce(_shaderProgram, unprojectionProgram());
    fetchOnce(_screenQuad, Quad::Screen, _shaderProgram);

    // No depth reads as the far plane, the white texel of the manager.
    Texture *sampled = depth ? depth : TextureManager::Instance().solidTexture(QColor(Qt::white));
    if (sampled) {
        const NeutralState neutral(kState);
        AutoBinder fbo(_fbo);
        _fbo->setDrawBuffers();
        glViewport(0, 0, _width, _height);
        AutoBinder program(_shaderProgram);
        AutoBinder boundDepth(sampled);
        _shaderProgram->setUniform(QStringLiteral("u_SamplerDepth"), sampled->unit());
        _shaderProgram->setUniform(QStringLiteral("u_InvProjMatrix"), projection.inverted());
        AutoBinder quad(_screenQuad);
        glDisable(GL_STENCIL_TEST);
        glDepthMask(GL_FALSE);
        if (!extent.isEmpty() && _screenQuad)
            _screenQuad->draw();
    }

    publish(_outputs[kFrame], target, _numOutputUsers[kFrame]);
    {
        AutoBinder fbo(_fbo);
        _fbo->detach(GL_COLOR_ATTACHMENT0);
    }
    release(target);
    release(depth);
}

} // namespace Brevane::Kvo
