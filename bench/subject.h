#pragma once

#include "glreplay.h"
#include "pairs.h"

#include "support/allocations.h"

#include <core/renderpass.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace Brevane::Kvo::Bench {

/// A pass with its inputs, and what recording one of its steady frames showed.
struct Subject
{
    std::string name;
    RenderPass *pass;
    int width;
    int height;
    std::unique_ptr<GLReplay> bare = nullptr;
    int calls = 0;
    int objects = 0;
    int textureAllocations = 0;
    qint64 heapAllocations = 0;
    double ratio = 0;
    double ours = 0;
    double floor = 0;
};

inline void frame(RenderPass &pass)
{
    pass.beginFrame(nullptr);
    pass.start(nullptr);
    pass.endFrame(nullptr);
}

inline void record(Subject &subject)
{
    const RecorderScope recorder;
    glViewport(0, 0, subject.width, subject.height);
    for (int i = 0; i < 3; ++i)
        frame(*subject.pass);
    {
        // apart from the recorder's own bookkeeping
        const Test::AllocationCounter counter;
        frame(*subject.pass);
        subject.heapAllocations = counter.count();
    }
    const Test::GlCalls calls;
    frame(*subject.pass);
    subject.calls = int(calls.all().size());
    subject.objects = calls.created();
    subject.textureAllocations = calls.textureAllocations();
    subject.bare = std::make_unique<GLReplay>(calls);
}

inline void compare(benchmark::State &state, Subject &subject)
{
    glViewport(0, 0, subject.width, subject.height);
    comparePairs(
        state, [&] { frame(*subject.pass); }, [&] { subject.bare->run(); });
    subject.ratio = state.counters["ratio"];
    subject.ours = state.counters["kvo_us"];
    subject.floor = state.counters["bare_us"];
    state.counters["gl_calls"] = subject.calls;
    state.counters["bare_calls"] = subject.bare->callCount();
    state.counters["gl_objects"] = subject.objects;
    state.counters["texture_allocations"] = subject.textureAllocations;
    state.counters["heap_allocations"] = double(subject.heapAllocations);
}

/// Records every subject and registers its benchmark; the vector must not grow any more.
inline void registerAll(std::vector<Subject> &subjects)
{
    for (Subject &subject : subjects) {
        record(subject);
        benchmark::RegisterBenchmark(subject.name.c_str(), [&subject](benchmark::State &s) { compare(s, subject); })
            ->UseManualTime()
            ->Iterations(kPairs)
            ->Unit(benchmark::kMicrosecond);
    }
}

inline void printTable(const std::vector<Subject> &subjects)
{
    std::printf("medians of %d pairs\n", kPairs);
    std::printf("%-46s %10s %10s %7s %9s %10s %8s %9s %6s\n", "pass", "kvo us", "bare us", "ratio", "gl calls",
                "bare calls", "objects", "tex alloc", "heap");
    for (const Subject &s : subjects)
        std::printf("%-46s %10.1f %10.1f %7.3f %9d %10d %8d %9d %6lld\n", s.name.c_str(), s.ours, s.floor, s.ratio,
                    s.calls, s.bare->callCount(), s.objects, s.textureAllocations, s.heapAllocations);
}

} // namespace Brevane::Kvo::Bench
