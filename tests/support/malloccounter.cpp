// Counts allocations in the binaries that link it.

#include "support/allocations.h"

#include <execinfo.h>
#include <unistd.h>

#include <cstddef>

using Brevane::Kvo::Test::allocationState;

namespace {

bool isLetThrough(std::size_t size)
{
    auto &state = allocationState;
    if (state.counting == 0 || state.paused > 0)
        return true;
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
    return true;
}

const bool registered = (Brevane::Kvo::Test::setAllocationsAreCounted(), true);

} // namespace

#include "support/ownmalloc.h"
