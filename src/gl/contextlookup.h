#pragma once

#include <QtGlobal>

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
    quint64 epoch = 0; ///< See lookUpEpoch.
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

/// The number of times that look-ups of all threads became outdated: a deletion was put off, which the next full one
/// carries out, or a context went. Objects and contexts may go in another thread than they are used in.
quint64 lookUpEpoch();
/// Once more.
void outdateLookUps();

} // namespace Brevane::Kvo
