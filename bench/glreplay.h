#pragma once

#include "support/glcalls.h"

#include <vector>

namespace Brevane::Kvo::Bench {

/// The GL calls of a recorded frame, reduced to what the picture needs and ready to run again: the floor
/// that a pass is measured against.
///
/// Left out are queries, bindings that are overwritten or undone before anything uses them, and bindings
/// of what is bound already.
class GLReplay
{
public:
    explicit GLReplay(const Test::GlCalls &recorded);

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
    std::vector<Call> _calls;
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
