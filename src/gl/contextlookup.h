#pragma once

namespace Brevane::Kvo {

class ContextState;

/// A native context of whichever window system interface made it.
struct NativeContext
{
    void *handle = nullptr;
    bool operator==(const NativeContext &) const = default;
    static NativeContext current();
};

/// The last look-up of a thread, so that asking for the current context costs one call into the window system
/// interface. Handles of contexts that were refused stay here with a null state.
struct LastLookUp
{
    NativeContext native;
    ContextState *state = nullptr;
    bool holds = false; ///< For the rest of the outermost ContextScope.
};

/// What a thread knows of its current context; one variable, since finding a thread's costs more than reading it.
struct ThreadContext
{
    LastLookUp last;
    int openScopes = 0;
    int bindingScopes = 0;
    /// What a context's bindings are known to be holds for one epoch; another begins with each outermost
    /// BindingScope and behind all code of the host's. Never 0 in a scope.
    unsigned int bindingEpoch = 0;
    /// A number of the outermost ContextScope that is open or was last.
    unsigned int outermostScope = 0;
};

ThreadContext &threadContext();

} // namespace Brevane::Kvo
