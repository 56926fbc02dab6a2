#pragma once

namespace Brevane::Kvo {

/// Whether the current context can build lists of fragments in images: atomic counters, image stores,
/// and the binding of both in the shader text.
bool canBuildFragmentLists();

} // namespace Brevane::Kvo
