#pragma once

#include "core/export.h"

namespace Brevane::Kvo {

/// An opaque token that a host may hand to the lifecycle operations of a pass.
///
/// No pass of this library reads it; a pass only forwards the pointer to its own `setup` and
/// `teardown`. Null is always accepted. A host that writes passes of its own derives from this class
/// to carry whatever those passes need.
class KVO_CORE_EXPORT RenderCallbacks
{
public:
    RenderCallbacks();
    /// A copy.
    RenderCallbacks(const RenderCallbacks &) = default;
    RenderCallbacks &operator=(const RenderCallbacks &) = default;
    virtual ~RenderCallbacks();
};

} // namespace Brevane::Kvo
