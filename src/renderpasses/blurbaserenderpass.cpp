#include "renderpasses/blurbaserenderpass.h"

#include "core/hostcode.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/glslmacroprocessor.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"

#include <epoxy/gl.h>

#include <cmath>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

// u_ResolutionDivider is set by the passes; the taps need no more than stepVec.
const QString kFragmentShaderHead = QStringLiteral(R"(#version 150

uniform sampler2D u_Input;
uniform vec2 stepVec;
uniform float u_ResolutionDivider;
uniform float weight[SAMPLES_COUNT];
uniform float offset[SAMPLES_COUNT];

in vec2 vo_TexCoord;

out vec4 o_Output;
)");

const QString kFragmentShaderMain = QStringLiteral(R"(
vec4 fast_gaussian_blur(sampler2D s, vec4 centreColor, vec2 texCoord, vec2 step)
{
  vec4 sum = centreColor * weight[0];
  for(int i = 1; i < SAMPLES_COUNT; i++)
  {
    vec4 a = texture(s, texCoord + offset[i] * step);
    vec4 b = texture(s, texCoord - offset[i] * step);
    sum += (a + b) * weight[i];
  }
  return sum;
}

void main()
{
#ifdef STENCIL_MASK
  vec4 fragCol = exactTexture(u_Input, vo_TexCoord);
  if(fragCol.a > 0.0)
    o_Output = fast_gaussian_blur(u_Input, fragCol, vo_TexCoord, stepVec);
  else
    o_Output = fragCol;
#else
  vec4 fragCol = texture(u_Input, vo_TexCoord);
  o_Output = fast_gaussian_blur(u_Input, fragCol, vo_TexCoord, stepVec);
#endif
}
)");

constexpr PassInfo kInfo = {"BlurBaseRenderPass",
                            "what the separable blur passes have in common; it draws nothing itself",
                            Reach::texels(0),
                            {},
                            {}};

} // namespace

BlurBaseRenderPass::BlurBaseRenderPass(float stencilMask)
    : _stencilMask(stencilMask), _samplesCountName(QStringLiteral("SAMPLES_COUNT"))
{
    describe(kInfo);
}

BlurBaseRenderPass::BlurBaseRenderPass(const BlurBaseRenderPass &other) = default;
BlurBaseRenderPass &BlurBaseRenderPass::operator=(const BlurBaseRenderPass &other) = default;

BlurBaseRenderPass::~BlurBaseRenderPass() = default;

// Where the arithmetic is float and where double is part of the kernel: its digits are compared.
void BlurBaseRenderPass::calculateBlurWeights()
{
    constexpr double kTwoPi = 6.283185307179586;
    // The radii of our own slots are; a host that derives from this pass reads its own.
    if (const float largest = largestBlurRadius(); !(_blurRadius <= largest)) {
        const float used = std::isnan(_blurRadius) ? 0.0f : largest;
        const HostCode hostCode;
        qWarning("BlurBaseRenderPass: there is no kernel for a radius of %g; that for %g is used", double(_blurRadius),
                 double(used));
        _blurRadius = used;
    }
    const float sigma = _blurRadius + 0.0001f;
    const float limit = _blurRadius * 2.0f;

    _offsets.clear();
    _weights.clear();
    float x = 0.0f;
    float sum = 0.0f;
    while (x < limit || int(x) % 2 == 0) {
        const auto exponent = float(double(x) * -1.0 * double(x) / double(sigma * 2.0f * sigma));
        const auto weight = float(double(std::exp(exponent)) * (1.0 / (std::sqrt(kTwoPi) * double(sigma))));
        _weights.append(weight);
        _offsets.append(x);
        sum = x == 0.0f ? weight : float(double(weight) * 2.0 + double(sum));
        x += 1.0f;
    }
    for (float &weight : _weights)
        weight /= sum;

    // Two neighbours become one fetch between them, where bilinear filtering gives their weighted mean.
    QVector<float> weights{_weights[0]};
    QVector<float> offsets{0.0f};
    const float half = x * 0.5f;
    for (int k = 1, i = 1; half > float(k); ++k, i += 2) {
        const float a = _weights[i];
        const float b = _weights[i + 1];
        const float both = a + b;
        weights.append(both);
        offsets.append(((float(i) + 1.0f) * b + a * float(i)) / both);
    }
    _weights = weights;
    _offsets = offsets;
}

bool BlurBaseRenderPass::takeBlurRadius(float radius)
{
    const qsizetype taps = _weights.size();
    _blurRadius = radius;
    calculateBlurWeights();
    return _weights.size() != taps;
}

bool BlurBaseRenderPass::beginStage(Texture *output, const Extent &extent)
{
    const bool isAttached = attachTarget(_fbo, output);
    glDisable(GL_DEPTH_TEST);
    glDepthMask(GL_FALSE);
    if (!isAttached || extent.isEmpty() || !_quad)
        return false;
    glClear(GL_COLOR_BUFFER_BIT);
    return true;
}

void BlurBaseRenderPass::setKernel(ShaderProgram *program, const QVector2D &step) const
{
    program->setUniform(u"stepVec"_s, step);
    program->setUniform(u"weight"_s, _weights);
    program->setUniform(u"offset"_s, _offsets);
}

void BlurBaseRenderPass::drawQuad() const
{
    AutoBinder quad(_quad);
    _quad->draw();
}

QString BlurBaseRenderPass::getBaseFragmentShaderSource()
{
    return kFragmentShaderHead + kExactTexture + kFragmentShaderMain;
}

QString BlurBaseRenderPass::getBaseVertexShaderSource()
{
    return kScreenVertexShader;
}

ShaderProgram *BlurBaseRenderPass::makeShaderProgram(const QString &fragmentShader) const
{
    GLSLMacroProcessor processor;
    if (_stencilMask != 0.0f)
        processor.addDefine(QStringLiteral("STENCIL_MASK"), QStringLiteral("1"));
    processor.addDefine(_samplesCountName, QString::number(qMax<qsizetype>(_weights.size(), 1)));
    // The shaders call their only output o_Output, which takes location 0 by itself.
    const PassInfo *info = passInfo();
    ShaderProgram *program = buildProgram({QString::fromLatin1(info ? info->className : "BlurBaseRenderPass"),
                                           {QStringLiteral("out_FragColor")},
                                           {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
                                            {GL_FRAGMENT_SHADER, ShaderSource::Text, fragmentShader}}},
                                          &processor);
    program->setMacroProcessor(nullptr);
    return program;
}

} // namespace Brevane::Kvo
