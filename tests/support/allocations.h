#pragma once

#include <QtGlobal>

namespace Brevane::Kvo::Test {

/// State of the allocation counter of this thread. The counter itself (malloc and all that ends in
/// it, operator new included) is in the target kvo_test_allocations; without it nothing is counted.
struct AllocationState
{
    qint64 count = 0;
    qint64 bytes = 0;
    int counting = 0;
    int paused = 0;
    int tracesWanted = 0;
};
extern thread_local AllocationState allocationState;

/// Whether this binary counts allocations. Sanitizers bring their own malloc, so it does not there.
bool allocationsAreCounted();
void setAllocationsAreCounted();

/// Counts the heap allocations of this thread from construction on, without those made inside GL
/// calls (the call recorder brackets them).
class AllocationCounter
{
public:
    /// With \a traces, prints where the first so many allocations come from to stderr.
    explicit AllocationCounter(int traces = 0);
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter &) = delete;
    AllocationCounter &operator=(const AllocationCounter &) = delete;

    qint64 count() const { return allocationState.count - _startCount; }
    qint64 bytes() const { return allocationState.bytes - _startBytes; }

private:
    qint64 _startCount;
    qint64 _startBytes;
};

/// Allocations in its scope do not count.
class UncountedAllocations
{
public:
    UncountedAllocations() { ++allocationState.paused; }
    ~UncountedAllocations() { --allocationState.paused; }
    UncountedAllocations(const UncountedAllocations &) = delete;
    UncountedAllocations &operator=(const UncountedAllocations &) = delete;
};

} // namespace Brevane::Kvo::Test
