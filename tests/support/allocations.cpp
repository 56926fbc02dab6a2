#include "support/allocations.h"

namespace Brevane::Kvo::Test {

thread_local AllocationState allocationState;

namespace {
bool counted = false;
}

bool allocationsAreCounted()
{
    return counted;
}

void setAllocationsAreCounted()
{
    counted = true;
}

AllocationCounter::AllocationCounter(int traces)
    : _startCount(allocationState.count), _startBytes(allocationState.bytes)
{
    allocationState.tracesWanted = traces;
    ++allocationState.counting;
}

AllocationCounter::~AllocationCounter()
{
    --allocationState.counting;
    allocationState.tracesWanted = 0;
}

} // namespace Brevane::Kvo::Test
