#pragma once

namespace Brevane::Kvo::Test {

/// Allocations of this process from begin to end, of which one may fail: malloc and what is like it gives null, and
/// operator new throws. In binaries that include this; sanitizers bring a malloc of their own, of which nothing fails.
class FailingMalloc
{
public:
    static bool isPossible();
    /// The nth allocation from now on fails, from 0; none with -1.
    static void begin(long nth);
    /// How many allocations there were.
    static long end();
};

} // namespace Brevane::Kvo::Test
