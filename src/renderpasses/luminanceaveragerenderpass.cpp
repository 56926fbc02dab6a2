#include "renderpasses/luminanceaveragerenderpass.h"

#include "gl/contextscope.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/pixelstore.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "passkit/glstate.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QRect>
#include <QVector2D>

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("LuminanceAverageRenderPass");

constexpr TargetFormat kTarget{GL_RGBA32F, GL_BGRA, GL_FLOAT, GL_NEAREST};
constexpr int kReduction = 8;

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

const QString &viewportName()
{
    static const QString name = QStringLiteral("Kvo_QRect_Viewport");
    return name;
}

const QString &textureName()
{
    static const QString name = QStringLiteral("Kvo_KvoTexture*_Texture");
    return name;
}

const QString &frameName()
{
    static const QString name = QStringLiteral("Kvo_KvoTexture*_Frame");
    return name;
}

const QString &luminanceName()
{
    static const QString name = QStringLiteral("Kvo_float_averageLuminance");
    return name;
}

float readLuminance()
{
    const DefaultPixelStore pixelStore;
    float pixel[4] = {};
    glReadPixels(0, 0, 1, 1, GL_RGBA, GL_FLOAT, pixel);
    return float(0.7152 * double(pixel[1]) + 0.2126 * double(pixel[0]) + 0.0722 * double(pixel[2]));
}

} // namespace

LuminanceAverageRenderPass::LuminanceAverageRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(viewportName());
    addInput(textureName());
    addOutput(frameName());
    addOutput(luminanceName());
}

LuminanceAverageRenderPass::LuminanceAverageRenderPass(const LuminanceAverageRenderPass &other) = default;
LuminanceAverageRenderPass &LuminanceAverageRenderPass::operator=(const LuminanceAverageRenderPass &other) = default;

LuminanceAverageRenderPass::~LuminanceAverageRenderPass() = default;

void LuminanceAverageRenderPass::start(RenderCallbacks *)
{
    const ContextScope scope;
    if (!scope)
        return;
    const int viewportSlot = findInput(viewportName());
    const int textureSlot = findInput(textureName());
    const int frameSlot = findOutput(frameName());
    const int luminanceSlot = findOutput(luminanceName());
    if (viewportSlot < 0 || textureSlot < 0 || frameSlot < 0 || luminanceSlot < 0)
        return;
    const QRect viewport = qvariant_cast<QRect>(_inputs[viewportSlot].value);
    const Extent extent = extentOf(*this, viewportSlot);
    Texture *texture = objectTexture(_inputs[textureSlot].value);
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
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST_MIPMAP_NEAREST);
        glGenerateMipmap(GL_TEXTURE_2D);
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
        AutoBinder fbo(_reductionFbo);
        _reductionFbo->setDrawBuffers();
        // The size of the whole image; the target cuts it.
        glViewport(viewport.left(), viewport.top(), extent.width, extent.height);
        disable({GL_DEPTH_TEST, GL_BLEND, GL_CULL_FACE, GL_STENCIL_TEST});
        openColorMask();
        // Twice the width: blocks have as many texels per pixel of height as the width says.
        reduce(texture, float(_reducedWidth), float(_reducedWidth));
    }
    {
        AutoBinder bound(reduced);
        glGenerateMipmap(GL_TEXTURE_2D);
    }
    AutoBinder fbo(_averageFbo);
    _averageFbo->setDrawBuffers();
    glViewport(viewport.left(), viewport.top(), 1, 1);
    disable({GL_DEPTH_TEST, GL_BLEND, GL_CULL_FACE, GL_STENCIL_TEST});
    openColorMask();
    reduce(reduced, float(_averageWidth), float(_averageHeight));
    _outputs[luminanceSlot].value = readLuminance();
    _outputs[frameSlot].value = objectForm(_averageFbo->attachment(GL_COLOR_ATTACHMENT0));
}

// Draws the averages of blocks, as many as the target has pixels in a viewport of that size.
void LuminanceAverageRenderPass::reduce(Texture *texture, float width, float height)
{
    AutoBinder program(_shaderProgram);
    AutoBinder bound(texture);
    _shaderProgram->setUniform(QStringLiteral("u_SamplerTexture"), texture->unit());
    _shaderProgram->setUniform(QStringLiteral("u_RenderSize"), QVector2D(width, height));
    AutoBinder quad(_screenQuad);
    _screenQuad->draw();
}

} // namespace Brevane::Kvo
