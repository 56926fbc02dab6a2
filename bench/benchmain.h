#pragma once

#include "context.h"

#include <benchmark/benchmark.h>

namespace Brevane::Kvo::Bench {

/// main of a benchmark program: opens a context without debugging, runs \a body in it, which registers
/// and runs benchmarks, and frees what the library holds.
template <typename Body>
int runInContext(int argc, char **argv, Body &&body)
{
    return inContext([&] {
        benchmark::Initialize(&argc, argv);
        benchmark::AddCustomContext("gl", qPrintable(OpenGLDeviceContext::current()->description()));
        body();
    })
               ? 0
               : 1;
}

} // namespace Brevane::Kvo::Bench
