#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;

/// Fills a target with a vertical gradient of two colours, or with one colour: the usual first step of
/// a frame.
///
/// | # | Input                  | Type   | Default | Range  | Meaning |
/// |---|------------------------|--------|---------|--------|-----|
/// | 0 | Kvo_QRect_Viewport     | QRect  | none    | pixels | size of the target |
/// | 1 | Kvo_QColor_ColorTop    | QColor | #404040 |        | colour at the top, or the solid colour; none: nothing is drawn |
/// | 2 | Kvo_QColor_ColorBottom | QColor | #999999 |        | colour at the bottom; none: a solid fill |
///
/// | # | Output                | Type    | Format                                 | Meaning |
/// |---|-----------------------|---------|----------------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | GL_RGBA32F, nearest, owned by the pass | the gradient |
///
/// The solid fill is opaque whatever alpha its colour has, since it stands for a background; the
/// gradient keeps the alphas of its colours. A size change replaces the texture. Error code -1 records
/// a failed draw.
///
/// Leaves changed: depth test (off), stencil test (off), blending (off), face culling (off), colour mask
/// (open), viewport (the size of the target); with a solid colour: scissor test (off), clear colour (the
/// solid colour). Of the host's state count: with a gradient: scissor test, scissor box.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT GradientRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InColorTop,
        InColorBottom,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    GradientRenderPass();
    GradientRenderPass(const GradientRenderPass &other);
    GradientRenderPass &operator=(const GradientRenderPass &other);
    ~GradientRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    QSharedPointer<DrawBuffers> _quad;
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
