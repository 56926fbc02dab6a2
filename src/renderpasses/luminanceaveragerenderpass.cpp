#include "renderpasses/luminanceaveragerenderpass.h"

#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/sampling.h"
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
#include <QVector2D>

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("LuminanceAverageRenderPass");

constexpr TargetFormat kTarget{GL_RGBA32F, GL_BGRA, GL_FLOAT, GL_NEAREST};
constexpr int kReduction = 8;
// What a fragment sums in one loop. A software renderer may end a loop after 65535 rounds, with what it has by then.
constexpr float kMostTexelsOfABlock = 32768;

const QString kFragmentShader = QStringLiteral(R"(#version 150
#include "KvoUtilities.glslh"

uniform sampler2D u_SamplerTexture;
uniform vec2 u_RenderSize;
uniform float u_ScreenGamma;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

void main()
{
  vec2 TextureSize = vec2(textureSize(u_SamplerTexture,0));
  vec2 StepSize = TextureSize / u_RenderSize;
  vec4 Output = vec4( 0.0);
  ivec2 Base = ivec2( ivec2(gl_FragCoord.xy) * StepSize);
  ivec2 Pos;
  for(Pos.x = 0; Pos.x < StepSize.x; Pos.x++)
  {
    for(Pos.y = 0; Pos.y < StepSize.y; Pos.y++)
      Output += texelFetch(u_SamplerTexture, Base + Pos, 0);
  }
  Output /= float(StepSize.x) * float(StepSize.y);
  out_FragColor = Output;
}
)");

const ProgramRecipe &reductionProgram()
{
    static const ProgramRecipe recipe{QStringLiteral("LuminanceAverageRenderPass"),
                                      {QStringLiteral("out_FragColor")},
                                      {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShader},
                                       {GL_FRAGMENT_SHADER, ShaderSource::File, QStringLiteral("KvoUtilities.glslc")}}};
    return recipe;
}

const QString kViewport = u"Kvo_QRect_Viewport"_s;
const QString kTexture = u"Kvo_KvoTexture*_Texture"_s;
const QString kFrame = u"Kvo_KvoTexture*_Frame"_s;
const QString kLuminance = u"Kvo_float_averageLuminance"_s;

float readLuminance()
{
    const DefaultPixelStore pixelStore;
    float pixel[4] = {};
    glReadPixels(0, 0, 1, 1, GL_RGBA, GL_FLOAT, pixel);
    return float(0.7152 * double(pixel[1]) + 0.2126 * double(pixel[0]) + 0.0722 * double(pixel[2]));
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport",
     .meaning = "size of the image; its corner should be at 0, 0",
     .kind = SlotKind::Area,
     .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Texture", .meaning = "the image; none: black", .kind = SlotKind::Texture},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the average",
     .kind = SlotKind::Texture,
     .format = "1 by 1, GL_RGBA32F, owned by the pass"},
    {.name = "Kvo_float_averageLuminance",
     .meaning = "0.7152 G + 0.2126 R + 0.0722 B of it, of this frame",
     .kind = SlotKind::Plain},
};

constexpr PassInfo kInfo = {"LuminanceAverageRenderPass",
                            "reduces an image to its average colour and tells the host its luminance",
                            Reach::wholeFrame(), kInputInfo, kOutputInfo};

} // namespace

LuminanceAverageRenderPass::LuminanceAverageRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(kViewport);
    addInput(kTexture);
    addOutput(kFrame);
    addOutput(kLuminance);
    describe(kInfo);
}

LuminanceAverageRenderPass::LuminanceAverageRenderPass(const LuminanceAverageRenderPass &other) = default;
LuminanceAverageRenderPass &LuminanceAverageRenderPass::operator=(const LuminanceAverageRenderPass &other) = default;

LuminanceAverageRenderPass::~LuminanceAverageRenderPass() = default;

void LuminanceAverageRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const int viewportSlot = findInput(kViewport);
    const int textureSlot = findInput(kTexture);
    const int frameSlot = findOutput(kFrame);
    const int luminanceSlot = findOutput(kLuminance);
    if (viewportSlot < 0 || textureSlot < 0 || frameSlot < 0 || luminanceSlot < 0)
        return;
    const QRect viewport = qvariant_cast<QRect>(_inputs[viewportSlot].value);
    const Extent extent = extentOf(*this, viewportSlot);
    Texture *texture = objectTexture(*this, textureSlot);
    if (!texture) {
        if (!_fallbackTexture)
            _fallbackTexture = makeBlackTexture();
        texture = _fallbackTexture;
    }

    const NeutralState neutral(kState);
    // Not below one texel: the shader divides by it.
    const int reducedWidth = std::max(1, extent.width / kReduction);
    const int reducedHeight = std::max(1, extent.height / kReduction);
    if (needsTargets(_reductionFbo, "LuminanceAverageRenderPass reduction", {reducedWidth, reducedHeight},
                     _reducedWidth, _reducedHeight)) {
        AutoBinder fbo(_reductionFbo);
        replaceTarget(_reductionFbo, GL_COLOR_ATTACHMENT0, kTarget, {reducedWidth, reducedHeight});
        AutoBinder reduced(_reductionFbo->attachment(GL_COLOR_ATTACHMENT0));
        setSampling(_reductionFbo->attachment(GL_COLOR_ATTACHMENT0), GL_NEAREST_MIPMAP_NEAREST, 0);
        settleActiveUnit();
        glGenerateMipmap(GL_TEXTURE_2D);
        // With its levels the texture may have got other memory, which Mesa sees when it is attached.
        _reductionFbo->attach(_reductionFbo->attachment(GL_COLOR_ATTACHMENT0), GL_COLOR_ATTACHMENT0, 0);
    }
    if (made(_averageFbo, "LuminanceAverageRenderPass average")) {
        _averageWidth = 1;
        _averageHeight = 1;
        AutoBinder fbo(_averageFbo);
        replaceTarget(_averageFbo, GL_COLOR_ATTACHMENT0, kTarget, {_averageWidth, _averageHeight});
        // What is read before anything was drawn: the second step may miss the texel.
        _averageFbo->setDrawBuffers();
        constexpr float kNothing[4] = {};
        glClearBufferfv(GL_COLOR, 0, kNothing);
    }
    buildOnce(_shaderProgram, reductionProgram());
    fetchOnce(_screenQuad, Quad::Gradient, _shaderProgram);
    if (!_screenQuad)
        return;

    Texture *reduced = _reductionFbo->attachment(GL_COLOR_ATTACHMENT0);
    {
        // Twice the width: blocks have as many texels per pixel of height as the width says.
        const Blocks blocks = summable({texture, float(_reducedWidth), float(_reducedWidth)}, _reducedHeight);
        AutoBinder fbo(_reductionFbo);
        _reductionFbo->setDrawBuffers();
        // The size of the whole image; the target cuts it.
        glViewport(viewport.left(), viewport.top(), extent.width, extent.height);
        disable({GL_DEPTH_TEST, GL_BLEND, GL_CULL_FACE, GL_STENCIL_TEST});
        openColorMask();
        reduce(blocks);
    }
    {
        AutoBinder bound(reduced);
        settleActiveUnit();
        glGenerateMipmap(GL_TEXTURE_2D);
    }
    const Blocks blocks = summable({reduced, float(_averageWidth), float(_averageHeight)}, _averageHeight);
    AutoBinder fbo(_averageFbo);
    _averageFbo->setDrawBuffers();
    glViewport(viewport.left(), viewport.top(), 1, 1);
    disable({GL_DEPTH_TEST, GL_BLEND, GL_CULL_FACE, GL_STENCIL_TEST});
    openColorMask();
    reduce(blocks);
    _outputs[luminanceSlot].value = readLuminance();
    _outputs[frameSlot].value = objectForm(_averageFbo->attachment(GL_COLOR_ATTACHMENT0));
}

// Blocks of so few texels that a fragment can sum one, for a target of so many rows. The mean of a block is that of
// its columns' means: where it has more texels, those are drawn first.
LuminanceAverageRenderPass::Blocks LuminanceAverageRenderPass::summable(const Blocks &blocks, int rows)
{
    const Extent size = sizeOf(blocks.texture);
    if (std::ceil(float(size.width) / blocks.across) * std::ceil(float(size.height) / blocks.up) <= kMostTexelsOfABlock)
        return blocks;
    made(_columnsFbo, "LuminanceAverageRenderPass columns");
    AutoBinder fbo(_columnsFbo);
    Texture *columns = tempTexture(TextureFormat::Position, {size.width, rows});
    _columnsFbo->attach(columns, GL_COLOR_ATTACHMENT0, 0);
    _columnsFbo->setDrawBuffers();
    glViewport(0, 0, size.width, rows);
    reduce({blocks.texture, float(size.width), blocks.up});
    _columnsFbo->detach(GL_COLOR_ATTACHMENT0);
    // Nothing takes it before it is read: the next draw is that of the blocks.
    release(columns);
    return {columns, blocks.across, float(rows)};
}

// Draws the averages of blocks, as many as the target has pixels.
void LuminanceAverageRenderPass::reduce(const Blocks &blocks)
{
    AutoBinder program(_shaderProgram);
    AutoBinder bound(blocks.texture);
    _shaderProgram->setUniform(QStringLiteral("u_SamplerTexture"), blocks.texture->unit());
    _shaderProgram->setUniform(QStringLiteral("u_RenderSize"), QVector2D(blocks.across, blocks.up));
    AutoBinder quad(_screenQuad);
    _screenQuad->draw();
}

} // namespace Brevane::Kvo
