#pragma once

#include "support/glcontext.h"

#include <gl/opengldevicecontext.h>

#include <benchmark/benchmark.h>

#include <cstdio>

namespace Brevane::Kvo::Bench {

/// main of a benchmark program: opens a context without debugging, runs \a body in it, which registers
/// and runs benchmarks, and frees what the library holds.
template <typename Body>
int runInContext(int argc, char **argv, Body &&body)
{
    Test::GLContext::Options options;
    options.major = 4;
    options.minor = 5;
    options.debug = false;
    Test::GLContext context(options);
    if (!context.makeCurrent()) {
        std::fprintf(stderr, "no context: %s\n", qPrintable(context.error()));
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("gl", qPrintable(OpenGLDeviceContext::current()->description()));
    body();
    OpenGLDeviceContext::releaseCurrent();
    return 0;
}

} // namespace Brevane::Kvo::Bench
