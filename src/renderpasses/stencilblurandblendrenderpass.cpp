#include "renderpasses/stencilblurandblendrenderpass.h"

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

#include <QVector2D>

#include <epoxy/gl.h>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("StencilBlurAndBlendRenderPass");

enum Input { kViewport, kNormalFrame, kBlurRadius, kBlurFrame };
enum Output { kOutput };

const QString kBlurAndAddHead = QStringLiteral(R"(#version 150

uniform sampler2D u_Blurred;
uniform sampler2D u_Original;
uniform vec2 stepVec;
uniform float weight[SAMPLES_COUNT];
uniform float offset[SAMPLES_COUNT];

in vec2 vo_TexCoord;

out vec4 o_Output;
)");

const QString kBlurAndAddMain = QStringLiteral(R"(
vec4 fast_gaussian_blur(vec4 fragCol, sampler2D s, vec2 texCoord, vec2 step)
{
  vec4 sum = fragCol * weight[0];
  for(int i = 1; i < SAMPLES_COUNT; i++)
  {
    sum += texture(s, texCoord + offset[i] * step) * weight[i];
    sum += texture(s, texCoord - offset[i] * step) * weight[i];
  }
  return sum;
}

void main()
{
  vec2 step = stepVec;
  vec4 fragCol = exactTexture(u_Blurred, vo_TexCoord);
  if(fragCol.a > 0.0)
    o_Output = texture(u_Original, vo_TexCoord) + fast_gaussian_blur(fragCol, u_Blurred, vo_TexCoord, step);
  else
    o_Output = texture(u_Original, vo_TexCoord) + fragCol;
}
)");

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of all images", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_NormalFrame", .meaning = "the frame; none: transparent black", .kind = SlotKind::Texture},
    {.name = "Kvo_float_BlurRadius",
     .meaning = "sigma in texels; 0 or less: the frame passes through",
     .kind = SlotKind::Radius,
     .unit = "texels",
     .range = {0, 511, 0.5}},
    {.name = "Kvo_KvoTexture*_BlurFrame",
     .meaning = "the masked image; none: transparent black",
     .kind = SlotKind::Texture},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Output",
     .meaning = "the frame under the blurred image",
     .kind = SlotKind::Texture,
     .format = "pool format 7, or the frame itself"},
};

constexpr PassInfo kInfo = {"StencilBlurAndBlendRenderPass",
                            "blurs a masked image without its surroundings bleeding in, and lays it over a frame",
                            Reach::of("Kvo_float_BlurRadius", 2, 2), kInputInfo, kOutputInfo};

} // namespace

StencilBlurAndBlendRenderPass::StencilBlurAndBlendRenderPass() : BlurBaseRenderPass(1.0f)
{
    setTextureForm(TextureForm::Typed);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_NormalFrame"), QVariant(), kNormalFrame);
    addInput(QStringLiteral("Kvo_float_BlurRadius"), QVariant(), kBlurRadius);
    addInput(QStringLiteral("Kvo_KvoTexture*_BlurFrame"), QVariant(), kBlurFrame);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Output"), kOutput);
    describe(kInfo);
}

StencilBlurAndBlendRenderPass::StencilBlurAndBlendRenderPass(const StencilBlurAndBlendRenderPass &other) = default;
StencilBlurAndBlendRenderPass &StencilBlurAndBlendRenderPass::operator=(const StencilBlurAndBlendRenderPass &other) =
    default;

StencilBlurAndBlendRenderPass::~StencilBlurAndBlendRenderPass() = default;

void StencilBlurAndBlendRenderPass::start(RenderCallbacks *callbacks)
{
    const BindingScope scope;
    if (!scope)
        return;
    const float radius = blurRadiusOf(*this, kBlurRadius);
    RenderPassHelper::start(callbacks);

    Texture *normalFrame = typedTexture(_inputs[kNormalFrame].value);
    Texture *blurFrame = typedTexture(*this, kBlurFrame);
    if (radius <= 0.0f) {
        publish(_outputs[kOutput], normalFrame, _numOutputUsers[kOutput]);
        release(normalFrame);
        release(blurFrame);
        return;
    }
    normalFrame = ofKind(*this, kNormalFrame, normalFrame);
    const bool rebuilt = _blurRadius != radius;
    const bool hasOtherTaps = (rebuilt || _weights.isEmpty()) && takeBlurRadius(radius);
    if (!_blurProgram || !_blurAndAddProgram || hasOtherTaps) {
        _blurProgram.giveUp();
        _blurAndAddProgram.giveUp();
        _blurProgram = makeShaderProgram(getBaseFragmentShaderSource());
        _blurAndAddProgram = makeShaderProgram(kBlurAndAddHead + kExactTexture + kBlurAndAddMain);
    }
    const Extent extent = extentOf(*this, kViewport);
    _viewportWidth = float(extent.width);
    _viewportHeight = float(extent.height);

    if (!normalFrame)
        normalFrame = blackTempTexture(GL_RGBA);
    if (!blurFrame)
        blurFrame = blackTempTexture(GL_RGBA);
    made(_fbo, "StencilBlurAndBlendRenderPass");
    fetchOnce(_quad, Quad::Screen);

    const NeutralState neutral(kState);
    const Stage stage(_fbo, extent);
    Texture *intermediate = tempTexture(TextureFormat::Frame, extent);
    drawWithBlurOnlyShader(rebuilt, blurFrame, intermediate);
    release(blurFrame);
    Texture *result = tempTexture(TextureFormat::Frame, extent);
    drawWithBlurAndAddShader(rebuilt, normalFrame, intermediate, result);

    publish(_outputs[kOutput], result, _numOutputUsers[kOutput]);
    release(result);
    release(normalFrame);
    release(intermediate);
}

void StencilBlurAndBlendRenderPass::drawWithBlurOnlyShader(const bool &, Texture *input, Texture *output)
{
    if (beginStage(output, {int(_viewportWidth), int(_viewportHeight)})) {
        AutoBinder program(_blurProgram);
        AutoBinder boundInput(input);
        setLinearClamped(input);
        enableArrays(*_quad, _blurProgram);
        setKernel(_blurProgram, {1.0f / _viewportWidth, 0.0f});
        _blurProgram->setUniform(u"u_Input"_s, input->unit());
        drawQuad();
    }
    _fbo->detach(GL_COLOR_ATTACHMENT0);
}

void StencilBlurAndBlendRenderPass::drawWithBlurAndAddShader(const bool &, Texture *original, Texture *blurred,
                                                             Texture *output)
{
    if (beginStage(output, {int(_viewportWidth), int(_viewportHeight)})) {
        AutoBinder program(_blurAndAddProgram);
        AutoBinder boundBlurred(blurred);
        AutoBinder boundOriginal(original);
        setLinearClamped(blurred);
        enableArrays(*_quad, _blurAndAddProgram);
        setKernel(_blurAndAddProgram, {0.0f, 1.0f / _viewportHeight});
        _blurAndAddProgram->setUniform(u"u_Blurred"_s, blurred->unit());
        _blurAndAddProgram->setUniform(u"u_Original"_s, original->unit());
        drawQuad();
    }
    _fbo->detach(GL_COLOR_ATTACHMENT0);
}

} // namespace Brevane::Kvo
