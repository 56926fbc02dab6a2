#include "renderpasses/fastapproximateantialiasingrenderpass.h"

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

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("FastApproximateAntiAliasingRenderPass");

enum Input { kViewport, kFrame, kSubPixelQuality, kRcpFrameQuality, kEdgeThresholdQuality, kEdgeThresholdMinQuality };
enum Output { kFrameOut };

// RcpFrameQuality scales the horizontal step only; the vertical one is always a texel. The source is
// fetched as the library function fetches it, so that compilers fetch it once: exactly from a frame of the
// target's size, else through the filter.
const QString kFragmentShader = QStringLiteral(R"(#version 150
#include "FXAA.glslh"

uniform sampler2D u_FrameSampler;
uniform int u_Width;
uniform int u_Height;
uniform float u_SubPixelQuality;
uniform float u_RcpFrameQuality;
uniform float u_EdgeThresholdQuality;
uniform float u_EdgeThresholdMinQuality;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

void main()
{
  float fWidth = float(u_Width);
  float fHeight = float(u_Height);
  vec4 zero = vec4(0.0);
  vec4 smooth_ = FxaaPixelShader(vo_TexCoord.xy, zero, u_FrameSampler, u_FrameSampler, u_FrameSampler,
                                 vec2(u_RcpFrameQuality/fWidth,1.0/fHeight), zero, zero, zero, u_SubPixelQuality,
                                 u_EdgeThresholdQuality, u_EdgeThresholdMinQuality, 8.0, 0.125, 0.05, zero);
  ivec2 size = textureSize(u_FrameSampler, 0);
  vec4 source = texelFetch(u_FrameSampler, ivec2(vo_TexCoord * vec2(size)), 0);
  for(int rounds = size == ivec2(u_Width, u_Height) ? 0 : 1; rounds > 0; --rounds)
    source = textureLod(u_FrameSampler, vo_TexCoord, 0.0);
  out_FragColor = vec4(smooth_.rgb, max(smooth_.a, source.a));
}
)");

const ProgramRecipe &fxaaProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("FastApproximateAntiAliasingRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::File, QStringLiteral("FXAA.glslc")}}};
    return recipe;
}

// Only an invalid value falls back: a 0 is meant.
float validOr(const QVariant &value, float fallback)
{
    return value.isValid() ? qvariant_cast<float>(value) : fallback;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the image", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Frame", .meaning = "the image; none: the output is invalid", .kind = SlotKind::Texture},
    {.name = "Kvo_float_SubPixelQuality",
     .meaning = "removal of sub-pixel aliasing; none: 0.75",
     .kind = SlotKind::Factor,
     .range = {0, 1, 0.05}},
    {.name = "Kvo_float_RcpFrameQuality",
     .meaning = "scale of the horizontal texel step only; none: 1",
     .kind = SlotKind::Factor,
     .range = {0, 4, 0.05}},
    {.name = "Kvo_float_EdgeThresholdQuality",
     .meaning = "least contrast of an edge, relative; none: 0.166",
     .kind = SlotKind::Threshold,
     .range = {0, 1, 0.01}},
    {.name = "Kvo_float_EdgeThresholdMinQuality",
     .meaning = "least contrast of an edge, absolute; none: 0",
     .kind = SlotKind::Threshold,
     .range = {0, 1, 0.01}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the image with smooth edges; alpha is the larger of the source's and the luma",
     .kind = SlotKind::Texture,
     .format = "pool format 3"},
};

constexpr PassInfo kInfo = {"FastApproximateAntiAliasingRenderPass", "FXAA 3.11: smooths the edges of one frame",
                            Reach::of("Kvo_float_RcpFrameQuality", 21, 23), kInputInfo, kOutputInfo};

} // namespace

FastApproximateAntiAliasingRenderPass::FastApproximateAntiAliasingRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_Frame"), QVariant(), kFrame);
    addInput(QStringLiteral("Kvo_float_SubPixelQuality"), QVariant(), kSubPixelQuality);
    addInput(QStringLiteral("Kvo_float_RcpFrameQuality"), QVariant(), kRcpFrameQuality);
    addInput(QStringLiteral("Kvo_float_EdgeThresholdQuality"), QVariant(), kEdgeThresholdQuality);
    addInput(QStringLiteral("Kvo_float_EdgeThresholdMinQuality"), QVariant(), kEdgeThresholdMinQuality);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrameOut);
    describe(kInfo);
}

FastApproximateAntiAliasingRenderPass::FastApproximateAntiAliasingRenderPass(
    const FastApproximateAntiAliasingRenderPass &other) = default;
FastApproximateAntiAliasingRenderPass &FastApproximateAntiAliasingRenderPass::operator=(
    const FastApproximateAntiAliasingRenderPass &other) = default;

FastApproximateAntiAliasingRenderPass::~FastApproximateAntiAliasingRenderPass() = default;

void FastApproximateAntiAliasingRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const float subPixel = validOr(_inputs[kSubPixelQuality].value, 0.75f);
    const float rcpFrame = validOr(_inputs[kRcpFrameQuality].value, 1.0f);
    const float threshold = validOr(_inputs[kEdgeThresholdQuality].value, 0.166f);
    const float thresholdMin = validOr(_inputs[kEdgeThresholdMinQuality].value, 0.0f);
    Texture *frame = objectTexture(*this, kFrame);
    if (!frame) {
        _outputs[kFrameOut].value = QVariant();
        return;
    }
    made(_fbo, "FastApproximateAntiAliasingRenderPass");
    _width = extent.width;
    _height = extent.height;
    buildOnce(_program, fxaaProgram());
    fetchOnce(_quad, Quad::Screen, _program);

    const NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    Texture *target = tempTexture(TextureFormat::Result, extent);
    _fbo->attach(target, GL_COLOR_ATTACHMENT0, 0);
    _fbo->setDrawBuffers();
    glDisable(GL_DEPTH_TEST);
    glViewport(0, 0, extent.width, extent.height);
    if (!extent.isEmpty() && _quad) {
        glClear(GL_COLOR_BUFFER_BIT);
        AutoBinder program(_program);
        AutoBinder boundFrame(frame);
        const LinearFilterScope linear(frame);
        _program->setUniform(QStringLiteral("u_FrameSampler"), frame->unit());
        _program->setUniform(QStringLiteral("u_Width"), _width);
        _program->setUniform(QStringLiteral("u_Height"), _height);
        _program->setUniform(QStringLiteral("u_SubPixelQuality"), subPixel);
        _program->setUniform(QStringLiteral("u_RcpFrameQuality"), rcpFrame);
        _program->setUniform(QStringLiteral("u_EdgeThresholdQuality"), threshold);
        _program->setUniform(QStringLiteral("u_EdgeThresholdMinQuality"), thresholdMin);
        AutoBinder quad(_quad);
        _quad->draw();
    }
    publish(_outputs[kFrameOut], target, _numOutputUsers[kFrameOut]);
    _fbo->detach(GL_COLOR_ATTACHMENT0);
    release(target);
    release(frame);
}

} // namespace Brevane::Kvo
