#include "renderpasses/blurandcombinerenderpass.h"

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

const StateRow &kState = stateRow("BlurAndCombineRenderPass");

enum Input { kViewport, kNormalFrame, kBlurRadius, kGlowThreshold, kGlowAmount, kBlurFrame };
enum Output { kOutput };

const QString kThresholdShader = QStringLiteral(R"(#version 150

uniform sampler2D u_Input;
uniform float glow_threshold;

in vec2 vo_TexCoord;

out vec4 o_Output;

void main()
{
  vec4 color = texture(u_Input, vo_TexCoord);
  float luma = dot(color.rgb, vec3(0.2125, 0.7154, 0.0721));
  o_Output = color * step(glow_threshold, luma);
}
)");

const QString kBlur = QStringLiteral(R"(
uniform vec2 stepVec;
uniform float glow_amount;
uniform float weight[SAMPLES_COUNT];
uniform float offset[SAMPLES_COUNT];

in vec2 vo_TexCoord;

out vec4 o_Output;

vec4 fast_gaussian_blur(sampler2D s, vec2 texCoord, vec2 step)
{
  vec4 sum = texture(s, texCoord) * weight[0];
  for(int i = 1; i < SAMPLES_COUNT; i++)
  {
    sum += texture(s, texCoord + offset[i] * step) * weight[i];
    sum += texture(s, texCoord - offset[i] * step) * weight[i];
  }
  return sum;
}
)");

// Both stages apply the amount, so the glow scales with its square.
const QString kBlurOnlyHead = QStringLiteral(R"(#version 150

uniform sampler2D u_Blurred;
)");

const QString kBlurOnlyMain = QStringLiteral(R"(
void main()
{
  o_Output = glow_amount * fast_gaussian_blur(u_Blurred, vo_TexCoord, stepVec);
}
)");

const QString kBlurAndAddHead = QStringLiteral(R"(#version 150

uniform sampler2D u_Blurred;
uniform sampler2D u_Original;
)");

const QString kBlurAndAddMain = QStringLiteral(R"(
void main()
{
  vec2 step = stepVec;
  o_Output = texture(u_Original, vo_TexCoord) + glow_amount*fast_gaussian_blur(u_Blurred, vo_TexCoord, step);
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
    {.name = "Kvo_float_GlowThreshold",
     .meaning = "luminance below which nothing glows; 0 or less: all glows",
     .kind = SlotKind::Threshold,
     .unit = "luminance",
     .range = {0, 16, 0.05}},
    {.name = "Kvo_float_GlowAmount",
     .meaning = "strength; 0 or less: the frame passes through",
     .kind = SlotKind::Factor,
     .range = {0, 4, 0.05}},
    {.name = "Kvo_KvoTexture*_BlurFrame", .meaning = "what glows; none: transparent black", .kind = SlotKind::Texture},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Output",
     .meaning = "the frame with its glow",
     .kind = SlotKind::Texture,
     .format = "pool format 7, or the frame itself"},
};

constexpr PassInfo kInfo = {"BlurAndCombineRenderPass",
                            "glow: keeps the bright pixels of an image, blurs them and adds them to a frame",
                            Reach::of("Kvo_float_BlurRadius", 2, 2), kInputInfo, kOutputInfo};

} // namespace

BlurAndCombineRenderPass::BlurAndCombineRenderPass() : BlurBaseRenderPass(1.0f)
{
    setTextureForm(TextureForm::Typed);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_NormalFrame"), QVariant(), kNormalFrame);
    addInput(QStringLiteral("Kvo_float_BlurRadius"), QVariant(), kBlurRadius);
    addInput(QStringLiteral("Kvo_float_GlowThreshold"), QVariant(), kGlowThreshold);
    addInput(QStringLiteral("Kvo_float_GlowAmount"), QVariant(), kGlowAmount);
    addInput(QStringLiteral("Kvo_KvoTexture*_BlurFrame"), QVariant(), kBlurFrame);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Output"), kOutput);
    describe(kInfo);
}

BlurAndCombineRenderPass::BlurAndCombineRenderPass(const BlurAndCombineRenderPass &other) = default;
BlurAndCombineRenderPass &BlurAndCombineRenderPass::operator=(const BlurAndCombineRenderPass &other) = default;

BlurAndCombineRenderPass::~BlurAndCombineRenderPass() = default;

void BlurAndCombineRenderPass::start(RenderCallbacks *callbacks)
{
    const BindingScope scope;
    if (!scope)
        return;
    const float radius = blurRadiusOf(*this, kBlurRadius);
    _glowThreshold = qvariant_cast<float>(_inputs[kGlowThreshold].value);
    _glowAmount = qvariant_cast<float>(_inputs[kGlowAmount].value);
    RenderPassHelper::start(callbacks);

    Texture *normalFrame = typedTexture(_inputs[kNormalFrame].value);
    Texture *blurFrame = typedTexture(*this, kBlurFrame);
    if (radius <= 0.0f || _glowAmount <= 0.0f) {
        publish(_outputs[kOutput], normalFrame, _numOutputUsers[kOutput]);
        release(normalFrame);
        release(blurFrame);
        return;
    }
    normalFrame = ofKind(*this, kNormalFrame, normalFrame);
    const bool hasOtherTaps = (_blurRadius != radius || _weights.isEmpty()) && takeBlurRadius(radius);
    if (!_blurProgram || !_blurAndAddProgram || hasOtherTaps) {
        _blurProgram.giveUp();
        _blurAndAddProgram.giveUp();
        _blurProgram = makeShaderProgram(kBlurOnlyHead + kBlur + kBlurOnlyMain);
        _blurAndAddProgram = makeShaderProgram(kBlurAndAddHead + kBlur + kBlurAndAddMain);
    }
    const Extent extent = extentOf(*this, kViewport);
    _viewportWidth = float(extent.width);
    _viewportHeight = float(extent.height);

    if (!normalFrame)
        normalFrame = blackTempTexture(GL_RGBA);
    if (!blurFrame)
        blurFrame = blackTempTexture(GL_RGBA);
    setLinearClamped(normalFrame);
    setLinearClamped(blurFrame);

    made(_fbo, "BlurAndCombineRenderPass");
    if (!_thresholdProgram)
        _thresholdProgram = makeShaderProgram(kThresholdShader);
    fetchOnce(_quad, Quad::Screen);

    const NeutralState neutral(kState);
    const Stage stage(_fbo, extent);
    Texture *source = blurFrame;
    Texture *second = tempTexture(TextureFormat::Frame, extent);
    if (_glowThreshold > 0.0f) {
        Texture *first = second;
        drawWithThresholdShader(blurFrame, first);
        release(blurFrame);
        source = first;
        second = tempTexture(TextureFormat::Frame, extent);
    }
    drawWithBlurOnlyShader(source, second);
    release(source);
    Texture *result = tempTexture(TextureFormat::Frame, extent);
    drawWithBlurAndAddShader(normalFrame, second, result);

    publish(_outputs[kOutput], result, _numOutputUsers[kOutput]);
    release(result);
    release(normalFrame);
    release(second);
}

void BlurAndCombineRenderPass::drawWithThresholdShader(Texture *input, Texture *output)
{
    if (beginStage(output, {int(_viewportWidth), int(_viewportHeight)})) {
        AutoBinder program(_thresholdProgram);
        AutoBinder boundInput(input);
        enableArrays(*_quad, _thresholdProgram);
        _thresholdProgram->setUniform(u"u_Input"_s, input->unit());
        _thresholdProgram->setUniform(u"glow_threshold"_s, _glowThreshold);
        drawQuad();
    }
    _fbo->detach(GL_COLOR_ATTACHMENT0);
}

void BlurAndCombineRenderPass::drawWithBlurOnlyShader(Texture *input, Texture *output)
{
    if (beginStage(output, {int(_viewportWidth), int(_viewportHeight)})) {
        setLinearClamped(input);
        AutoBinder program(_blurProgram);
        AutoBinder boundInput(input);
        enableArrays(*_quad, _blurProgram);
        setKernel(_blurProgram, {1.0f / _viewportWidth, 0.0f});
        _blurProgram->setUniform(u"u_Blurred"_s, input->unit());
        _blurProgram->setUniform(u"glow_amount"_s, _glowAmount);
        drawQuad();
    }
    _fbo->detach(GL_COLOR_ATTACHMENT0);
}

void BlurAndCombineRenderPass::drawWithBlurAndAddShader(Texture *original, Texture *blurred, Texture *output)
{
    if (beginStage(output, {int(_viewportWidth), int(_viewportHeight)})) {
        setLinearClamped(blurred);
        AutoBinder program(_blurAndAddProgram);
        AutoBinder boundBlurred(blurred);
        AutoBinder boundOriginal(original);
        enableArrays(*_quad, _blurAndAddProgram);
        setKernel(_blurAndAddProgram, {0.0f, 1.0f / _viewportHeight});
        _blurAndAddProgram->setUniform(u"u_Blurred"_s, blurred->unit());
        _blurAndAddProgram->setUniform(u"u_Original"_s, original->unit());
        _blurAndAddProgram->setUniform(u"glow_amount"_s, _glowAmount);
        drawQuad();
    }
    _fbo->detach(GL_COLOR_ATTACHMENT0);
}

} // namespace Brevane::Kvo
