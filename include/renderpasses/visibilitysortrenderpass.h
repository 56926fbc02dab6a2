#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;
class Texture;

/// Orders the fragment lists of VisibilityBufferRenderPass by ascending depth, in place: the nearest
/// fragment of a pixel comes to the head of its list. One full-screen draw, in which every pixel sorts
/// its own list.
///
/// | # | Input                        | Type    | Range             | Meaning |
/// |---|------------------------------|---------|-------------------|-----|
/// | 0 | Kvo_QRect_Viewport           | QRect   | pixels            | size of the lists' image |
/// | 1 | Kvo_KvoTexture*_HeadPointers | texture |                   | head pointers; none: nothing is sorted |
/// | 2 | Kvo_KvoTexture*_NodeBuffer   | texture |                   | nodes, sorted in place; none: nothing is sorted |
/// | 3 | Kvo_int_NodeBufferWidth      | int     | 0 to 65536 texels | texels in a row of the node buffer; 0: no sorting |
///
/// | # | Output                       | Type    | Format    | Meaning |
/// |---|------------------------------|---------|-----------|-----|
/// | 0 | Kvo_KvoTexture*_HeadPointers | texture | the input | head pointers, as they came |
/// | 1 | Kvo_KvoTexture*_NodeBuffer   | texture | the input | nodes in order |
/// | 2 | Kvo_int_NodeBufferWidth      | int     |           | texels in a row of the node buffer, as it came |
///
/// The outputs 0 to 2 are the inputs 1 to 3, by the same names, handed on as they are.
///
/// Only the fragments change places: links and head pointers stay. Lists of up to 50 fragments are
/// sorted whole; of longer ones the first 50 (the newest) are sorted among themselves and the rest
/// follows as it was. Fragments of equal depth come in the order that the steps of the sort give.
///
/// Out of range: a width of the node buffer beyond 65536 acts as 65536, and a negative one as 0, with a warning
/// that names pass and slot. The output has it as it came.
///
/// Without ARB_shader_atomic_counters, ARB_shader_image_load_store and ARB_shading_language_420pack the
/// lists have one node: no GL call is made. Needs OpenGL 3.2.
///
/// Leaves changed: depth test (on). Of the host's state count: viewport.
class KVO_RENDERPASSES_EXPORT VisibilitySortRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InHeadPointers,
        InNodeBuffer,
        InNodeBufferWidth,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutHeadPointers,
        OutNodeBuffer,
        OutNodeBufferWidth,
    };

    VisibilitySortRenderPass();
    VisibilitySortRenderPass(const VisibilitySortRenderPass &other);
    VisibilitySortRenderPass &operator=(const VisibilitySortRenderPass &other);
    ~VisibilitySortRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

    /// Sorts with this program from now on; the pass deletes the one that is set at its end. One that
    /// is replaced stays the host's, one that the pass made is given up. Set before the first start, it keeps the pass from making its own. The
    /// program gets, as far as it declares them, `int u_NodeBufferImageWidth`, `usampler2D
    /// u_SamplerHeadPointer` and `uimage2D u_NodeBufferImage` (rgba32ui, read and written).
    void setShaderProgram(ShaderProgram *program);

private:
    void sort(Texture &headPointers, Texture &nodeBuffer, int nodeBufferWidth);

    bool _modeChosen = false;
    Held<ShaderProgram> _shaderProgram;
    bool _isOwnProgram = false;
    Held<ShaderProgram> _markingProgram;
    QSharedPointer<DrawBuffers> _screenQuad;
    Held<FramebufferObject> _fbo;
    int _width = -1;
    int _height = -1;
    bool _gl4Mode = false;
};

} // namespace Brevane::Kvo
