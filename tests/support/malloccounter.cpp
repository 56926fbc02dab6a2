// Takes malloc's place in the binaries that link it, and counts. operator new ends in malloc too.

#include "support/allocations.h"

#include <execinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

using Brevane::Kvo::Test::allocationState;

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
}

namespace {

void note(size_t size)
{
    auto &state = allocationState;
    if (state.counting == 0 || state.paused > 0)
        return;
    ++state.count;
    state.bytes += qint64(size);
    if (state.tracesWanted > 0) {
        --state.tracesWanted;
        ++state.paused;
        void *frames[24];
        const int depth = backtrace(frames, 24);
        backtrace_symbols_fd(frames, depth, STDERR_FILENO);
        if (write(STDERR_FILENO, "--\n", 3) < 0)
            state.tracesWanted = 0;
        --state.paused;
    }
}

const bool registered = (Brevane::Kvo::Test::setAllocationsAreCounted(), true);

} // namespace

extern "C" {

Q_DECL_EXPORT void *malloc(size_t size)
{
    note(size);
    return __libc_malloc(size);
}

Q_DECL_EXPORT void *calloc(size_t count, size_t size)
{
    note(count * size);
    return __libc_calloc(count, size);
}

Q_DECL_EXPORT void *realloc(void *memory, size_t size)
{
    note(size);
    return __libc_realloc(memory, size);
}

Q_DECL_EXPORT void *memalign(size_t alignment, size_t size)
{
    note(size);
    return __libc_memalign(alignment, size);
}

Q_DECL_EXPORT void *aligned_alloc(size_t alignment, size_t size)
{
    note(size);
    return __libc_memalign(alignment, size);
}

Q_DECL_EXPORT int posix_memalign(void **memory, size_t alignment, size_t size)
{
    note(size);
    *memory = __libc_memalign(alignment, size);
    return *memory ? 0 : ENOMEM;
}

} // extern "C"
