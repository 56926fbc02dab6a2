#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>
#include <QString>
#include <QVector2D>
#include <QVector>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;
class Texture;
struct Extent;

/// What the separable blur passes have in common: kernel, shaders, and the objects of a blur. It
/// declares no slots and draws nothing itself.
///
/// The kernel is a Gaussian whose sigma is the radius, in texels, cut at about two sigmas and
/// normalised, so that the tail's weight goes to the taps that remain. Two neighbouring taps are folded
/// into one bilinear fetch between them.
///
/// A derived pass sets _blurRadius, calls calculateBlurWeights, then makeShaderProgram: the size of the
/// arrays in the program is that of the kernel at that moment. A program that a pass replaces is given
/// up (see OpenGLDeviceContext::giveUp), not deleted.
///
/// Leaves no state of GL changed.
class KVO_RENDERPASSES_EXPORT BlurBaseRenderPass : public RenderPassHelper
{
public:
    /// A \a stencilMask other than 0 builds programs that leave fully transparent texels unblurred.
    explicit BlurBaseRenderPass(float stencilMask = 0.0f);
    BlurBaseRenderPass(const BlurBaseRenderPass &other);
    BlurBaseRenderPass &operator=(const BlurBaseRenderPass &other);
    ~BlurBaseRenderPass() override;

protected:
    /// Rebuilds _weights and _offsets from _blurRadius. That is set to 511 when it is beyond, or to what the
    /// context has uniforms for, and to 0 when it is not a number, with a warning. Afterwards the two have the same length,
    /// _offsets[0] is 0, and _weights[0] plus twice the sum of the others is 1.
    void calculateBlurWeights();
    /// Sets _blurRadius and calculates. True where programs of before no longer fit, since the kernel has another
    /// length; a radius with as many taps is a matter of uniforms.
    bool takeBlurRadius(float radius);
    /// GLSL of one blur stage: `u_Input` blurred along `stepVec` with `weight` and `offset`.
    QString getBaseFragmentShaderSource();
    /// GLSL of the vertex stage that goes with it.
    QString getBaseVertexShaderSource();
    /// A program of the base vertex shader and this fragment text. The caller owns it.
    ShaderProgram *makeShaderProgram(const QString &fragmentShader) const;

    /// Starts a stage in the bound framebuffer: attaches and clears its target, without depth. False, with nothing
    /// cleared, for a target without pixels; it is attached all the same.
    bool beginStage(Texture *output, const Extent &extent);
    /// Sets, with the program bound, what a blur stage takes beside its image: the step from texel to texel, and
    /// the kernel.
    void setKernel(ShaderProgram *program, const QVector2D &step) const;
    /// Draws the quad with the program and its textures bound.
    void drawQuad() const;

    Held<FramebufferObject> _fbo; ///< The stages draw to it.
    Held<ShaderProgram> _blurProgram; ///< Of one stage.
    QSharedPointer<DrawBuffers> _quad; ///< Fills the screen.
    float _blurRadius = 0.0f; ///< Sigma, in texels.
    float _stencilMask; ///< See the constructor.
    QVector<float> _weights; ///< The uniform array `weight`.
    QVector<float> _offsets; ///< The uniform array `offset`, in texels.
    QString _samplesCountName; ///< The macro that sizes both arrays.
};

} // namespace Brevane::Kvo
