#include "renderpasses/gaussianblurrenderpass.h"

#include "gl/contextscope.h"
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

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("GaussianBlurRenderPass");

enum Input { kViewport, kInput, kBlurRadius, kResolutionDivider, kStencil, kStencilMaterial };
enum Output { kOutput };

} // namespace

GaussianBlurRenderPass::GaussianBlurRenderPass(float stencilMask) : BlurBaseRenderPass(stencilMask)
{
    setTextureForm(TextureForm::Typed);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_KvoTexture*_Input"), QVariant(), kInput);
    addInput(QStringLiteral("Kvo_float_BlurRadius"), QVariant(), kBlurRadius);
    addInput(QStringLiteral("Kvo_float_ResolutionDivider"), 1.0f, kResolutionDivider);
    addInput(QStringLiteral("Kvo_KvoTexture*_Stencil"), QVariant(), kStencil);
    addInput(QStringLiteral("Kvo_int_StencilMaterial"), -1, kStencilMaterial);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Output"), kOutput);
}

GaussianBlurRenderPass::GaussianBlurRenderPass(const GaussianBlurRenderPass &other) = default;
GaussianBlurRenderPass &GaussianBlurRenderPass::operator=(const GaussianBlurRenderPass &other) = default;
GaussianBlurRenderPass::~GaussianBlurRenderPass() = default;

void GaussianBlurRenderPass::start(RenderCallbacks *)
{
    const ContextScope scope;
    if (!scope)
        return;
    const float radius = blurRadiusOf(*this, kBlurRadius);
    auto divider = qvariant_cast<float>(_inputs[kResolutionDivider].value);
    if (double(divider) < 0.01)
        divider = 0.01f;

    if (radius != _blurRadius || !_blurProgram) {
        _blurRadius = radius;
        calculateBlurWeights();
        _blurProgram.giveUp();
        _blurProgram = makeShaderProgram(getBaseFragmentShaderSource());
    }
    Texture *input = typedTexture(_inputs[kInput].value);
    Texture *stencil = typedTexture(_inputs[kStencil].value);
    if (_blurRadius <= 1.0f) {
        publish(_outputs[kOutput], input, _numOutputUsers[kOutput]);
        release(input);
        release(stencil);
        return;
    }

    const Extent viewport = extentOf(*this, kViewport);
    const Extent extent = dividedExtent(*this, kResolutionDivider, viewport, divider);
    const int material = stencilMaterialOf(*this, kStencilMaterial);
    if (stencil && material >= 0 && depthAttachmentOf(*this, kStencil, stencil) != GL_DEPTH_STENCIL_ATTACHMENT)
        release(std::exchange(stencil, nullptr));
    const bool restricted = stencil && material >= 0;
    // The framebuffer always has a depth-stencil attachment. A stencil that is wired but not used keeps
    // its reference: the variable no longer names it.
    if (!restricted)
        stencil = tempTexture(TextureFormat::DepthStencil, extent);
    if (!input)
        input = blackTempTexture(GL_RGB);
    setLinearClamped(input);

    made(_fbo, "GaussianBlurRenderPass");
    fetchOnce(_quad, Quad::Screen);
    NeutralState neutral(kState);
    if (restricted) {
        neutral.leave({StatePiece::StencilTest});
        glEnable(GL_STENCIL_TEST);
        glStencilFunc(GL_EQUAL, material + 1, 0xff);
        glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
        glStencilMask(0);
    }

    const bool canDraw = !extent.isEmpty() && _quad;
    Texture *intermediate = tempTexture(TextureFormat::Frame, extent);
    {
        AutoBinder fbo(_fbo);
        TargetViewport targetViewport(extent);
        _fbo->attach(intermediate, GL_COLOR_ATTACHMENT0, 0);
        _fbo->attach(stencil, GL_DEPTH_STENCIL_ATTACHMENT, 0);
        _fbo->setDrawBuffers();
        glDisable(GL_DEPTH_TEST);
        glDepthMask(GL_FALSE);
        if (canDraw) {
            glClear(GL_COLOR_BUFFER_BIT);
            AutoBinder program(_blurProgram);
            AutoBinder boundInput(input);
            enableArrays(*_quad, _blurProgram);
            _blurProgram->setUniform(QStringLiteral("stepVec"), QVector2D(1.0f / float(extent.width), 0.0f));
            _blurProgram->setUniform(QStringLiteral("u_Input"), input->unit());
            _blurProgram->setUniform(QStringLiteral("u_ResolutionDivider"), divider);
            _blurProgram->setUniform(QStringLiteral("weight"), _weights);
            _blurProgram->setUniform(QStringLiteral("offset"), _offsets);
            AutoBinder quad(_quad);
            _quad->draw();
        }
        _fbo->detach(GL_COLOR_ATTACHMENT0);
    }

    Texture *result = tempTexture(TextureFormat::Frame, extent);
    {
        AutoBinder fbo(_fbo);
        TargetViewport targetViewport(extent);
        setLinearClamped(intermediate);
        _fbo->attach(result, GL_COLOR_ATTACHMENT0, 0);
        _fbo->setDrawBuffers();
        glDisable(GL_DEPTH_TEST);
        glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
        if (canDraw) {
            glClear(GL_COLOR_BUFFER_BIT);
            AutoBinder program(_blurProgram);
            AutoBinder boundIntermediate(intermediate);
            enableArrays(*_quad, _blurProgram);
            _blurProgram->setUniform(QStringLiteral("stepVec"), QVector2D(0.0f, 1.0f / float(extent.height)));
            _blurProgram->setUniform(QStringLiteral("u_ResolutionDivider"), divider);
            _blurProgram->setUniform(QStringLiteral("u_Input"), intermediate->unit());
            _blurProgram->setUniform(QStringLiteral("weight"), _weights);
            _blurProgram->setUniform(QStringLiteral("offset"), _offsets);
            AutoBinder quad(_quad);
            _quad->draw();
        }
        _fbo->detach(GL_COLOR_ATTACHMENT0);
        _fbo->detach(GL_DEPTH_STENCIL_ATTACHMENT);
    }
    if (restricted) {
        glDisable(GL_STENCIL_TEST);
        glStencilMask(0);
    }

    publish(_outputs[kOutput], result, _numOutputUsers[kOutput]);
    release(stencil);
    release(result);
    release(input);
    release(intermediate);
}

} // namespace Brevane::Kvo
