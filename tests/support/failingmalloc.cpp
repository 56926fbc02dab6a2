// Takes malloc's place where it is linked or preloaded, and lets one allocation fail: for tests that say which by
// FailingMalloc, and for programs by KVO_FAILING_MALLOC.

#include "support/failingmalloc.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
}

namespace {

std::atomic<bool> counts{false};
std::atomic<long> allocations{0};
std::atomic<long> failing{-1};

bool failsNow()
{
    if (!counts || allocations++ != failing)
        return false;
    errno = ENOMEM;
    return true;
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

#define KVO_TAKES_ITS_PLACE __attribute__((visibility("default")))

extern "C" {

KVO_TAKES_ITS_PLACE void *malloc(size_t size)
{
    return failsNow() ? nullptr : __libc_malloc(size);
}

KVO_TAKES_ITS_PLACE void *calloc(size_t count, size_t size)
{
    return failsNow() ? nullptr : __libc_calloc(count, size);
}

KVO_TAKES_ITS_PLACE void *realloc(void *memory, size_t size)
{
    return failsNow() ? nullptr : __libc_realloc(memory, size);
}

KVO_TAKES_ITS_PLACE void *memalign(size_t alignment, size_t size)
{
    return failsNow() ? nullptr : __libc_memalign(alignment, size);
}

KVO_TAKES_ITS_PLACE void *aligned_alloc(size_t alignment, size_t size)
{
    return failsNow() ? nullptr : __libc_memalign(alignment, size);
}

KVO_TAKES_ITS_PLACE int posix_memalign(void **memory, size_t alignment, size_t size)
{
    *memory = failsNow() ? nullptr : __libc_memalign(alignment, size);
    return *memory ? 0 : ENOMEM;
}

} // extern "C"

#endif
