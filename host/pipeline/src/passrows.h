#pragma once

namespace Brevane::Kvo {

class RenderPass;
struct StateRow;

/// What a pass does with GL's state, by its exact class; null for classes that are not the library's, also
/// for those that derive from one of it.
const StateRow *stateRowOf(const RenderPass &pass);

} // namespace Brevane::Kvo
