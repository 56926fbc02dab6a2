#include "gl/contextlookup.h"

#include "gl/contextscope.h"
#include "gl/contextstate.h"
#include "gl/loadedlibrary.h"

#include <atomic>

namespace Brevane::Kvo {

NativeContext NativeContext::current()
{
    using GetCurrentContext = void *(*)();
    static GetCurrentContext egl = nullptr;
    static GetCurrentContext glx = nullptr;
    if (!egl)
        egl = loadedFunction<GetCurrentContext>({"libEGL.so.1"}, "eglGetCurrentContext");
    if (void *context = egl ? egl() : nullptr)
        return {context};
    if (!glx)
        glx = loadedFunction<GetCurrentContext>({"libGLX.so.0", "libGL.so.1"}, "glXGetCurrentContext");
    return {glx ? glx() : nullptr};
}

ThreadContext &threadContext()
{
    thread_local ThreadContext context;
    return context;
}

namespace {

std::atomic<quint64> epoch = 0;

} // namespace

quint64 lookUpEpoch()
{
    return epoch.load(std::memory_order_acquire);
}

void outdateLookUps()
{
    epoch.fetch_add(1, std::memory_order_release);
}

ContextScope::ContextScope()
{
    ThreadContext &thread = threadContext();
    if (thread.openScopes++ > 0)
        return;
    thread.last.holds = false;
    ++thread.outermostScope;
}

ContextScope::~ContextScope()
{
    --threadContext().openScopes;
}

ContextScope::operator bool() const
{
    return ContextState::current() != nullptr;
}

} // namespace Brevane::Kvo
