#pragma once

namespace Brevane::Kvo {

/// Whether the current context can build lists of fragments in images: atomic counters, image stores,
/// and the binding of both in the shader text.
bool canBuildFragmentLists();

/// The barrier that stands behind every draw that stores in lists, and ahead of all that follows: the sort loads
/// nodes as an image and fetches heads, the shading fetches both, hosts read textures back, and the next frame
/// clears them through framebuffers and sets the counter.
extern const unsigned int kListBarrier;

} // namespace Brevane::Kvo
