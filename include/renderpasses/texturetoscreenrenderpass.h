#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QRect>
#include <QSharedPointer>

#include <span>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class NeutralState;
class ShaderProgram;
class Texture;

/// The last step of a frame: copies a texture to the default framebuffer, a framebuffer or a texture of
/// the host, over one or more pairs of rectangles. Either a plain blit, or a shader that averages blocks
/// of source texels, for a source larger than the target.
///
/// | # | Input                              | Type               | Range  | Meaning |
/// |---|------------------------------------|--------------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport                 | QRect              | pixels | stands in for an empty list of rectangles |
/// | 1 | Kvo_KvoTexture*_Texture            | texture            |        | the image |
/// | 2 | Kvo_Bool_EnableSuperSampling       | bool               |        | when given, chooses the averaging path |
/// | 3 | Kvo_QRect_ViewportOut              | QRect              | pixels | destination rectangles |
/// | 4 | Kvo_KvoTexture*_TextureOut         | texture            |        | target, wins over input 7 |
/// | 5 | Kvo_Bool_LinearFilter              | bool               |        | lets a blit that scales filter linearly |
/// | 6 | Kvo_QVariant_Rects                 | QRect              | pixels | source rectangles |
/// | 7 | Kvo_KvoFramebuffer*_FramebufferOut | FramebufferObject* |        | target; one without a name: the default framebuffer |
///
/// No outputs. Surplus rectangles of the longer list are left out. A blit is linear when the flag is on
/// and the destination's width or its height differs from the source's width, so a source that is not
/// square filters linearly even at its own size. The averaging path ignores the source rectangles and
/// reads blocks from the position in the target, not in the rectangle. With no texture the blit path
/// clears the target, and the averaging path draws transparent black.
///
/// Out of range: corners of rectangles beyond 8388608 either way are moved there, which is said once, with a
/// warning that names pass and slot.
///
/// The texture is given back to the pool. Needs OpenGL 3.2.
///
/// Leaves changed: draw framebuffer (0); when averaging: depth test (off), blending (off), stencil test
/// (off), scissor test (off), colour mask (open), scissor box (the last rectangle), viewport (the last
/// rectangle); when copying: read framebuffer (0). Of the host's state count: without a texture: clear
/// colour.
class KVO_RENDERPASSES_EXPORT TextureToScreenRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InTexture,
        InEnableSuperSampling,
        InViewportOut,
        InTextureOut,
        InLinearFilter,
        InRects,
        InFramebufferOut,
    };

    TextureToScreenRenderPass();
    TextureToScreenRenderPass(const TextureToScreenRenderPass &other);
    TextureToScreenRenderPass &operator=(const TextureToScreenRenderPass &other);
    ~TextureToScreenRenderPass() override;

    void start(RenderCallbacks *callbacks) override;
    /// Frees the two framebuffers and lets go of the quad; program and default texture stay.
    void teardownContextData(RenderCallbacks *callbacks) override;

private:
    void copy(Texture *texture, std::span<const QRect> sources, std::span<const QRect> destinations);
    void average(Texture *texture, std::span<const QRect> destinations, NeutralState &neutral);

    Held<ShaderProgram> _shaderProgram;
    QSharedPointer<DrawBuffers> _quad;
    Held<Texture> _defaultTexture;
    Held<FramebufferObject> _readFbo;
    Held<FramebufferObject> _drawFbo;
    bool _superSampling = false;
};

} // namespace Brevane::Kvo
