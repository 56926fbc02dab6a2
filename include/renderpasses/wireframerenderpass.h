#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;

/// A wireframe from an id image, without drawing lines: every pixel is marked by how many of its eight
/// neighbours show something else. Another primitive counts 1, another tessellated triangle of the same
/// primitive 0.33.
///
/// | # | Input                | Type    | Range  | Meaning |
/// |---|----------------------|---------|--------|-----|
/// | 0 | Kvo_QRect_Viewport   | QRect   | pixels | size of the target and the GL viewport |
/// | 1 | Kvo_KvoTexture*_Id   | texture |        | red: primitive, blue: tessellated triangle, whole numbers; none: the output is null |
/// | 2 | Kvo_QColor_WireColor | QColor  |        | colour of a full edge; opaque black when not connected |
///
/// | # | Output                | Type    | Format        | Meaning |
/// |---|-----------------------|---------|---------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | pool format 3 | the wires; colour and alpha scaled alike |
///
/// At the border neighbours are read as the id texture's wrap says. The input is given back to the pool.
///
/// Leaves changed: depth test (off), viewport (the rectangle of the input). Of the host's state count: clear
/// colour.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT WireframeRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InId,
        InWireColor,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    WireframeRenderPass();
    WireframeRenderPass(const WireframeRenderPass &other);
    WireframeRenderPass &operator=(const WireframeRenderPass &other);
    ~WireframeRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _program;
    QSharedPointer<DrawBuffers> _quad;
};

} // namespace Brevane::Kvo
