#include "renderpasses/gaussianblurrenderpass.h"

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

const StateRow &kState = stateRow("GaussianBlurRenderPass");

enum Input { kViewport, kInput, kBlurRadius, kResolutionDivider, kStencil, kStencilMaterial };
enum Output { kOutput };

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the image", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_KvoTexture*_Input", .meaning = "image to blur; none: black", .kind = SlotKind::Texture},
    {.name = "Kvo_float_BlurRadius",
     .meaning = "sigma in texels of the target; up to 1 the input passes through",
     .kind = SlotKind::Radius,
     .unit = "texels",
     .range = {0, 511, 0.5}},
    {.name = "Kvo_float_ResolutionDivider",
     .meaning = "the target is the viewport divided by this, at least 0.01",
     .kind = SlotKind::Divider,
     .range = {0.01, 64, 0.5}},
    {.name = "Kvo_KvoTexture*_Stencil", .meaning = "depth and stencil; restricts the blur", .kind = SlotKind::Texture},
    {.name = "Kvo_int_StencilMaterial",
     .meaning = "material to blur; the stencil holds it plus 1; negative: everything",
     .kind = SlotKind::Index,
     .range = {-1, 254, 1}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Output",
     .meaning = "the blurred image",
     .kind = SlotKind::Texture,
     .format = "pool format 7, or the input itself"},
};

constexpr PassInfo kInfo = {
    "GaussianBlurRenderPass",
    "blurs an image, at a lower resolution or only where a stencil holds one material if wanted",
    Reach::of("Kvo_float_BlurRadius", 2, 2, "Kvo_float_ResolutionDivider"), kInputInfo, kOutputInfo};

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
    describe(kInfo);
}

GaussianBlurRenderPass::GaussianBlurRenderPass(const GaussianBlurRenderPass &other) = default;
GaussianBlurRenderPass &GaussianBlurRenderPass::operator=(const GaussianBlurRenderPass &other) = default;
GaussianBlurRenderPass::~GaussianBlurRenderPass() = default;

void GaussianBlurRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const float radius = blurRadiusOf(*this, kBlurRadius);
    auto divider = qvariant_cast<float>(_inputs[kResolutionDivider].value);
    if (double(divider) < 0.01)
        divider = 0.01f;

    const bool hasOtherTaps = (radius != _blurRadius || _weights.isEmpty()) && takeBlurRadius(radius);
    if (hasOtherTaps || !_blurProgram) {
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

    input = ofKind(*this, kInput, input);
    const Extent viewport = extentOf(*this, kViewport);
    const Extent extent = dividedExtent(*this, kResolutionDivider, viewport, divider);
    const int material = stencilMaterialOf(*this, kStencilMaterial);
    if (stencil && material >= 0
        && depthAttachmentOf(*this, kStencil, stencil, GL_TEXTURE_2D) != GL_DEPTH_STENCIL_ATTACHMENT)
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

    Texture *intermediate = tempTexture(TextureFormat::Frame, extent);
    {
        const Stage stage(_fbo, extent);
        attachTarget(_fbo, intermediate, stencil);
        glDisable(GL_DEPTH_TEST);
        glDepthMask(GL_FALSE);
        blur(input, {1.0f, 0.0f}, extent, divider); // clears to the colour that the host has set
        _fbo->detach(GL_COLOR_ATTACHMENT0);
    }
    Texture *result = tempTexture(TextureFormat::Frame, extent);
    {
        const Stage stage(_fbo, extent);
        setLinearClamped(intermediate);
        attachTarget(_fbo, result);
        glDisable(GL_DEPTH_TEST);
        glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
        blur(intermediate, {0.0f, 1.0f}, extent, divider);
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

// Clears the target and draws the image, blurred in one direction.
void GaussianBlurRenderPass::blur(Texture *image, const QVector2D &direction, const Extent &extent, float divider)
{
    if (extent.isEmpty() || !_quad)
        return;
    glClear(GL_COLOR_BUFFER_BIT);
    AutoBinder program(_blurProgram);
    AutoBinder boundImage(image);
    enableArrays(*_quad, _blurProgram);
    setKernel(_blurProgram, direction / QVector2D(float(extent.width), float(extent.height)));
    _blurProgram->setUniform(u"u_Input"_s, image->unit());
    _blurProgram->setUniform(u"u_ResolutionDivider"_s, divider);
    drawQuad();
}

} // namespace Brevane::Kvo
