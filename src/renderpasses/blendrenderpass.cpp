#include "renderpasses/blendrenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QRect>

#include <epoxy/gl.h>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("BlendRenderPass");

const QString kVersion = QStringLiteral("#version 150\n");

// Colours are premultiplied. Names: src over dst; Sca, Sa, Dca, Da for one channel and the alphas.
const QString kFragmentShader = QStringLiteral(R"(
uniform sampler2D u_SamplerA;
uniform sampler2D u_SamplerB;
uniform int u_BlendMode;
uniform float brightness;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

float unionAlpha(vec4 src, vec4 dst)
{
  return src.a + dst.a - src.a * dst.a;
}

// What each image shows where the other one is not.
vec3 apart(vec4 src, vec4 dst)
{
  return src.rgb * (1.0 - dst.a) + dst.rgb * (1.0 - src.a);
}

vec4 blendClear(vec4 src, vec4 dst) { return vec4(0.0); }
vec4 blendSrc(vec4 src, vec4 dst) { return src; }
vec4 blendDst(vec4 src, vec4 dst) { return dst; }
vec4 blendSrcOver(vec4 src, vec4 dst) { return vec4(src.rgb + dst.rgb * (1.0 - src.a), unionAlpha(src, dst)); }
vec4 blendDstOver(vec4 src, vec4 dst) { return vec4(dst.rgb + src.rgb * (1.0 - dst.a), unionAlpha(src, dst)); }
vec4 blendSrcIn(vec4 src, vec4 dst) { return src * dst.a; }
vec4 blendDstIn(vec4 src, vec4 dst) { return dst * src.a; }
vec4 blendSrcOut(vec4 src, vec4 dst) { return src * (1.0 - dst.a); }
vec4 blendDstOut(vec4 src, vec4 dst) { return dst * (1.0 - src.a); }
vec4 blendSrcAtop(vec4 src, vec4 dst) { return vec4(src.rgb * dst.a + dst.rgb * (1.0 - src.a), dst.a); }
vec4 blendDstAtop(vec4 src, vec4 dst) { return vec4(dst.rgb * src.a + src.rgb * (1.0 - dst.a), src.a); }
vec4 blendXor(vec4 src, vec4 dst) { return vec4(apart(src, dst), src.a + dst.a - 2.0 * src.a * dst.a); }
vec4 blendAdd(vec4 src, vec4 dst) { return src + dst; }
vec4 blendMultiply(vec4 src, vec4 dst) { return vec4(src.rgb * dst.rgb + apart(src, dst), unionAlpha(src, dst)); }
vec4 blendScreen(vec4 src, vec4 dst) { return vec4(src.rgb + dst.rgb - src.rgb * dst.rgb, unionAlpha(src, dst)); }

// The threshold is 1, not the destination's alpha.
vec4 blendOverlay(vec4 src, vec4 dst)
{
  vec3 sd2 = 2.0 * src.rgb * dst.rgb;
  vec3 low = sd2 + apart(src, dst);
  vec3 high = src.rgb * (1.0 + dst.a) + dst.rgb * (1.0 + src.a) - sd2 - dst.a * src.a;
  return vec4(2.0 * dst.r <= 1.0 ? low.r : high.r,
              2.0 * dst.g <= 1.0 ? low.g : high.g,
              2.0 * dst.b <= 1.0 ? low.b : high.b,
              unionAlpha(src, dst));
}

vec4 blendDarken(vec4 src, vec4 dst)
{
  return vec4(min(src.rgb * dst.a, dst.rgb * src.a) + apart(src, dst), unionAlpha(src, dst));
}

vec4 blendLighten(vec4 src, vec4 dst)
{
  return vec4(max(src.rgb * dst.a, dst.rgb * src.a) + apart(src, dst), unionAlpha(src, dst));
}

float apart1(float Sca, float Sa, float Dca, float Da)
{
  return Sca * (1.0 - Da) + Dca * (1.0 - Sa);
}

float blendColorDodge1(float Sca, float Sa, float Dca, float Da)
{
  if(Sca == Sa && Dca == 0.0)
    return Sca * (1.0 - Da);
  if(Sca == Sa)
    return Sa * Da + apart1(Sca, Sa, Dca, Da);
  return Sa * Da * min(1.0, Dca / Da * Sa / (Sa - Sca)) + apart1(Sca, Sa, Dca, Da);
}

float blendColorBurn1(float Sca, float Sa, float Dca, float Da)
{
  if(Sca == 0.0 && Dca == Da)
    return Sa * Da + Dca * (1.0 - Sa);
  if(Sca == 0.0)
    return Dca * (1.0 - Sa);
  return Sa * Da * (1.0 - min(1.0, (1.0 - Dca / Da) * Sa / Sca)) + apart1(Sca, Sa, Dca, Da);
}

float blendHardLight1(float Sca, float Sa, float Dca, float Da)
{
  if(2.0 * Sca <= Sa)
    return 2.0 * Sca * Dca + apart1(Sca, Sa, Dca, Da);
  return Sca * (1.0 + Da) + Dca * (1.0 + Sa) - Sa * Da - 2.0 * Sca * Dca;
}

float blendSoftLight1(float Sca, float Sa, float Dca, float Da)
{
  float m = Dca / Da;
  if(2.0 * Sca <= Sa)
    return Dca * (Sa + (2.0 * Sca - Sa) * (1.0 - m)) + apart1(Sca, Sa, Dca, Da);
  if(4.0 * Dca <= Da)
    return Da * (2.0 * Sca - Sa) * (16.0 * m * m * m - 12.0 * m * m - 3.0 * m) + Sca - Sca * Da + Dca;
  return Da * (2.0 * Sca - Sa) * (sqrt(m) - m) + Sca - Sca * Da + Dca;
}

vec4 blendColorDodge(vec4 src, vec4 dst)
{
  return vec4(blendColorDodge1(src.r, src.a, dst.r, dst.a),
              blendColorDodge1(src.g, src.a, dst.g, dst.a),
              blendColorDodge1(src.b, src.a, dst.b, dst.a),
              unionAlpha(src, dst));
}

vec4 blendColorBurn(vec4 src, vec4 dst)
{
  return vec4(blendColorBurn1(src.r, src.a, dst.r, dst.a),
              blendColorBurn1(src.g, src.a, dst.g, dst.a),
              blendColorBurn1(src.b, src.a, dst.b, dst.a),
              unionAlpha(src, dst));
}

vec4 blendHardLight(vec4 src, vec4 dst)
{
  return vec4(blendHardLight1(src.r, src.a, dst.r, dst.a),
              blendHardLight1(src.g, src.a, dst.g, dst.a),
              blendHardLight1(src.b, src.a, dst.b, dst.a),
              unionAlpha(src, dst));
}

vec4 blendSoftLight(vec4 src, vec4 dst)
{
  return vec4(blendSoftLight1(src.r, src.a, dst.r, dst.a),
              blendSoftLight1(src.g, src.a, dst.g, dst.a),
              blendSoftLight1(src.b, src.a, dst.b, dst.a),
              unionAlpha(src, dst));
}

vec4 blendExclusion(vec4 src, vec4 dst)
{
  return vec4((src.rgb * dst.a + dst.rgb * src.a - 2.0 * src.rgb * dst.rgb) + apart(src, dst), unionAlpha(src, dst));
}

vec4 blendDifference(vec4 src, vec4 dst)
{
  return vec4(src.rgb + dst.rgb - 2.0 * min(src.rgb * dst.a, dst.rgb * src.a), unionAlpha(src, dst));
}

vec4 blendInvertAndAdd(vec4 src, vec4 dst)
{
  return vec4(apart(src, dst) + (0.5 - 0.5 * (dst.rgb - src.rgb)) * src.a * dst.a, unionAlpha(src, dst));
}

vec4 blendMultiplyKeepAlpha(vec4 src, vec4 dst) { return src * dst; }

vec4 blend(vec4 src, vec4 dst)
{
  switch(u_BlendMode)
  {
  case 0: return blendClear(src, dst);
  case 1: return blendSrc(src, dst);
  case 2: return blendDst(src, dst);
  case 3: return blendSrcOver(src, dst);
  case 4: return blendDstOver(src, dst);
  case 5: return blendSrcIn(src, dst);
  case 6: return blendDstIn(src, dst);
  case 7: return blendSrcOut(src, dst);
  case 8: return blendDstOut(src, dst);
  case 9: return blendSrcAtop(src, dst);
  case 10: return blendDstAtop(src, dst);
  case 11: return blendXor(src, dst);
  case 12: return blendAdd(src, dst);
  case 13: return blendMultiply(src, dst);
  case 14: return blendScreen(src, dst);
  case 15: return blendOverlay(src, dst);
  case 16: return blendDarken(src, dst);
  case 17: return blendLighten(src, dst);
  case 18: return blendColorDodge(src, dst);
  case 19: return blendColorBurn(src, dst);
  case 20: return blendHardLight(src, dst);
  case 21: return blendSoftLight(src, dst);
  case 22: return blendExclusion(src, dst);
  case 23: return blendDifference(src, dst);
  case 24: return blendInvertAndAdd(src, dst);
  case 25: return blendMultiplyKeepAlpha(src, dst);
  }
  return vec4(0.0);
}

void main()
{
  vec4 SampleA = texture(u_SamplerA, vo_TexCoord);
  vec4 SampleB = texture(u_SamplerB, vo_TexCoord) * brightness;
  out_FragColor = blend(SampleA, SampleB);
}
)");

const QString kViewport = u"Kvo_QRect_Viewport"_s;
const QString kFrameA = u"Kvo_KvoTexture*_FrameA"_s;
const QString kFrameB = u"Kvo_KvoTexture*_FrameB"_s;
const QString kBlendMode = u"Int_BlendMode"_s;
const QString kBrightness = u"brightness"_s;
const QString kFrame = u"Kvo_KvoTexture*_Frame"_s;

const ProgramRecipe &blendProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("BlendRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kVersion + kFragmentShader}}};
    return recipe;
}

constexpr SlotChoice kBlendModes[] = {
    {BlendRenderPass::blendClear, "clear", "nothing"},
    {BlendRenderPass::blendSrc, "src", "the source"},
    {BlendRenderPass::blendDst, "dst", "the destination"},
    {BlendRenderPass::blendSrcOver, "srcOver", "source over destination"},
    {BlendRenderPass::blendDstOver, "dstOver", "destination over source"},
    {BlendRenderPass::blendSrcIn, "srcIn", "source where the destination is"},
    {BlendRenderPass::blendDstIn, "dstIn", "destination where the source is"},
    {BlendRenderPass::blendSrcOut, "srcOut", "source where the destination is not"},
    {BlendRenderPass::blendDstOut, "dstOut", "destination where the source is not"},
    {BlendRenderPass::blendSrcAtop, "srcAtop", "source over the destination, where that is"},
    {BlendRenderPass::blendDstAtop, "dstAtop", "destination over the source, where that is"},
    {BlendRenderPass::blendXor, "xor", "each where the other is not"},
    {BlendRenderPass::blendAdd, "add", "sum"},
    {BlendRenderPass::blendMultiply, "multiply", "product"},
    {BlendRenderPass::blendScreen, "screen", "inverse of the product of the inverses"},
    {BlendRenderPass::blendOverlay, "overlay", "multiply or screen, by the destination"},
    {BlendRenderPass::blendDarken, "darken", "the darker one"},
    {BlendRenderPass::blendLighten, "lighten", "the lighter one"},
    {BlendRenderPass::blendColorDodge, "colorDodge", "destination brightened by the source"},
    {BlendRenderPass::blendColorBurn, "colorBurn", "destination darkened by the source"},
    {BlendRenderPass::blendHardLight, "hardLight", "multiply or screen, by the source"},
    {BlendRenderPass::blendSoftLight, "softLight", "a gentle hardLight"},
    {BlendRenderPass::blendExclusion, "exclusion", "sum less twice the product"},
    {BlendRenderPass::blendDifference, "difference", "distance of the two"},
    {BlendRenderPass::blendInvertAndAdd, "invertAndAdd",
     "where both are, the mean of the source and the inverse of the destination"},
    {BlendRenderPass::blendMultiplyKeepAlpha, "multiplyKeepAlpha", "product of all four channels"},
};

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport",
     .meaning = "size of the target; its corner is the corner of the GL viewport",
     .kind = SlotKind::Area,
     .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_FrameA", .meaning = "source; none: transparent black", .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_FrameB", .meaning = "destination; none: transparent black", .kind = SlotKind::Texture},
    {.name = "Int_BlendMode",
     .meaning = "a BlendMode, kept for later frames; others give transparent black",
     .kind = SlotKind::Choice,
     .choices = kBlendModes},
    {.name = "brightness",
     .meaning = "scale on all four channels of frame B; none: 1",
     .kind = SlotKind::Factor,
     .range = {0, 4, 0.05}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "A composed with B",
     .kind = SlotKind::Texture,
     .format = "pool format 7"},
};

constexpr PassInfo kInfo = {"BlendRenderPass", "composes two images with one of 26 blend functions", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

BlendRenderPass::BlendRenderPass(BlendMode mode) : _blendMode(mode)
{
    for (const QString &input : {kViewport, kFrameA, kFrameB, kBlendMode, kBrightness})
        addInput(input);
    addOutput(kFrame);
    describe(kInfo);
}

BlendRenderPass::BlendRenderPass(const BlendRenderPass &other) = default;
BlendRenderPass &BlendRenderPass::operator=(const BlendRenderPass &other) = default;

BlendRenderPass::~BlendRenderPass() = default;

void BlendRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    // By name: hosts derive from this pass and add slots of their own, or give one another name. Without a size
    // or an output there is nothing to do; any other slot that is not there is one that is not connected.
    const int viewportSlot = findInput(kViewport);
    const int output = findOutput(kFrame);
    if (viewportSlot < 0 || output < 0)
        return;
    const auto textureOf = [this](const QString &name) {
        const int slot = findInput(name);
        return slot < 0 ? nullptr : anyTexture(*this, slot);
    };
    const auto valueOf = [this](const QString &name) {
        const int slot = findInput(name);
        return slot < 0 ? QVariant() : _inputs[slot].value;
    };
    const QVariant modeValue = valueOf(kBlendMode);
    const QVariant brightnessValue = valueOf(kBrightness);

    const auto viewport = qvariant_cast<QRect>(_inputs[viewportSlot].value);
    const Extent extent = extentOf(*this, viewportSlot);
    const float brightness = hasValue(brightnessValue) ? brightnessValue.toFloat() : 1.0f;
    if (hasValue(modeValue))
        _blendMode = modeValue.toInt();
    Texture *frameA = textureOf(kFrameA);
    Texture *frameB = textureOf(kFrameB);
    frameA = frameA ? frameA : transparentTexel(_fallbackTexture);
    frameB = frameB ? frameB : transparentTexel(_fallbackTexture);

    made(_fbo, "BlendRenderPass");
    const NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    Texture *target = tempTexture(TextureFormat::Frame, extent);
    _fbo->attach(target, GL_COLOR_ATTACHMENT0, 0);
    buildOnce(_program, blendProgram());
    fetchOnce(_quad, Quad::Screen, _program);

    _fbo->setDrawBuffers();
    disable({GL_DEPTH_TEST, GL_BLEND});
    glViewport(viewport.left(), viewport.top(), extent.width, extent.height);
    if (!extent.isEmpty() && frameA && frameB && _quad) {
        glClear(GL_COLOR_BUFFER_BIT);
        AutoBinder program(_program);
        AutoBinder boundA(frameA);
        AutoBinder boundB(frameB);
        _program->setUniform(QStringLiteral("u_SamplerA"), frameA->unit());
        _program->setUniform(QStringLiteral("u_SamplerB"), frameB->unit());
        _program->setUniform(QStringLiteral("u_BlendMode"), _blendMode);
        _program->setUniform(QStringLiteral("brightness"), brightness);
        AutoBinder quad(_quad);
        _quad->draw();
    }

    publish(_outputs[output], target, _numOutputUsers[output]);
    release(frameA);
    release(frameB);
    _fbo->detach(GL_COLOR_ATTACHMENT0);
    release(target);
}

} // namespace Brevane::Kvo
