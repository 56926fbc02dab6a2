#pragma once

#include "support/glcontext.h"

#include <gl/opengldevicecontext.h>

#include <cstdio>

namespace Brevane::Kvo::Bench {

/// Runs a body in a context of its own, without debugging and in a share group of its own, and frees what the library
/// holds there. False, with a message, where there is no context.
template <typename Body>
bool inContext(Body &&body)
{
    Test::GLContext::Options options;
    options.major = 4;
    options.minor = 5;
    options.debug = false;
    Test::GLContext context(options);
    if (!context.makeCurrent()) {
        std::fprintf(stderr, "no context: %s\n", qPrintable(context.error()));
        return false;
    }
    body();
    OpenGLDeviceContext::releaseCurrent();
    return true;
}

} // namespace Brevane::Kvo::Bench
