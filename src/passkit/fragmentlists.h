#pragma once

#include "gl/hoststate.h"
#include "passkit/extent.h"

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;

/// Whether the current context can build lists of fragments in images: atomic counters, image stores,
/// and the binding of both in the shader text.
bool canBuildFragmentLists();

/// The barrier that stands behind every draw that stores in lists, and ahead of all that follows: the sort loads
/// nodes as an image and fetches heads, the shading fetches both, hosts read textures back, and the next frame
/// clears them through framebuffers and sets the counter.
extern const unsigned int kListBarrier;

/// Gives a framebuffer, which must be bound, a new stencil of this size, in which its pass marks the pixels that have
/// a list.
void attachListStencil(FramebufferObject *framebuffer, const Extent &extent);

/// Lets the draws of its scope reach only pixels that a cheap program marks: on a full-screen draw of a costly
/// one, the others would pay for it as well. Marked is what the program, which must be bound, does not discard.
///
/// For a framebuffer with attachListStencil, with the stencil state at its default; leaves it there, but for the
/// stencil function, which is as before afterwards.
class MarkedPixels
{
public:
    explicit MarkedPixels(DrawBuffers &quad);
    ~MarkedPixels();
    MarkedPixels(const MarkedPixels &) = delete;
    MarkedPixels &operator=(const MarkedPixels &) = delete;

private:
    KeptStencilFunction _function;
};

} // namespace Brevane::Kvo
