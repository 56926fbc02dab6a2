// Takes malloc's place where it is linked or preloaded, and lets one allocation fail: for tests that say which by
// FailingMalloc, and for programs by KVO_FAILING_MALLOC.

#include "support/failingmalloc.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace {

std::atomic<bool> counts{false};
std::atomic<long> allocations{0};
std::atomic<long> failing{-1};

[[maybe_unused]] bool isLetThrough(std::size_t)
{
    if (!counts || allocations++ != failing)
        return true;
    errno = ENOMEM;
    return false;
}

__attribute__((constructor)) void beginByEnvironment()
{
    if (const char *nth = std::getenv("KVO_FAILING_MALLOC"))
        Brevane::Kvo::Test::FailingMalloc::begin(std::atol(nth));
}

} // namespace

namespace Brevane::Kvo::Test {

bool FailingMalloc::isPossible()
{
#ifdef KVO_NO_FAILING_MALLOC
    return false;
#else
    return true;
#endif
}

void FailingMalloc::begin(long nth)
{
    allocations = 0;
    failing = nth;
    counts = true;
}

long FailingMalloc::end()
{
    counts = false;
    return allocations;
}

} // namespace Brevane::Kvo::Test

#ifndef KVO_NO_FAILING_MALLOC
#include "support/ownmalloc.h"
#endif
