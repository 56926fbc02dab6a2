#pragma once

#include "support/glcalls.h"

#include <vector>

namespace Brevane::Kvo::Bench {

/// The GL calls of a recorded frame, ready to run again: the floors that a pass is measured against.
class GLReplay
{
public:
    enum class Calls {
        All, ///< Every call as it was made.
        /// What the picture needs: without queries, sampling parameters, bindings that are overwritten or
        /// undone before anything uses them, and bindings of what is bound already.
        Needed
    };

    GLReplay(const Test::GlCalls &recorded, Calls which);

    void run() const;
    int callCount() const { return int(_calls.size()); }

private:
    struct Call
    {
        int function;
        std::vector<double> args;
        std::vector<float> floats;
        std::vector<unsigned> names;
    };
    static Call ready(const Test::GlCall &call, int function);
    void _reduce(const Test::GlCalls &recorded);

    std::vector<Call> _calls;
};

/// In its scope GL calls do nothing: what a replay still takes then is its own work.
class NoGLScope
{
public:
    NoGLScope();
    ~NoGLScope();
    NoGLScope(const NoGLScope &) = delete;
    NoGLScope &operator=(const NoGLScope &) = delete;
};

/// Takes the call recorder's wrappers out again, so that they cost nothing while times are measured.
class RecorderScope
{
public:
    RecorderScope();
    ~RecorderScope();
    RecorderScope(const RecorderScope &) = delete;
    RecorderScope &operator=(const RecorderScope &) = delete;
};

} // namespace Brevane::Kvo::Bench
