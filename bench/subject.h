#pragma once

#include "glreplay.h"
#include "pairs.h"

#include "support/allocations.h"

#include <core/hostcode.h>
#include <core/renderpass.h>
#include <gl/bindings.h>
#include <gl/hoststate.h>

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
    int draws = 0;
    int objects = 0;
    int textureAllocations = 0;
    qint64 heapAllocations = 0;
    double ratio = 0;
    double ours = 0;
    double floor = 0;
    double issuing = 0;
    double own = 0;
    double overBare = 0;
};

/// One pixel, so that next to nothing is drawn.
inline bool isSmall(const Subject &subject)
{
    return subject.width * subject.height == 1;
}

inline void frame(RenderPass &pass)
{
    pass.beginFrame(nullptr);
    pass.start(nullptr);
    pass.endFrame(nullptr);
}

/// What a pass finds in the middle of a pipeline's frame: values at GL's defaults, and what is bound known.
class InPipeline
{
private:
    const DefaultState _state;
    const DefaultState::Known _known{true};
    const BindingScope _bindings;
};

inline void record(Subject &subject)
{
    const RecorderScope recorder;
    glViewport(0, 0, subject.width, subject.height);
    {
        // The floor binds what it needs itself.
        const DefaultState state;
        const DefaultState::Known known(true);
        for (int i = 0; i < 3; ++i)
            frame(*subject.pass);
        const Test::GlCalls calls;
        frame(*subject.pass);
        subject.bare = std::make_unique<GLReplay>(calls);
    }
    const InPipeline pipeline;
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
    subject.draws = calls.draws();
}

/// Where next to nothing is drawn, what counts is the CPU time of the thread that issues the calls: all of
/// it, the pass's own code without GL, and what is over the calls that the picture needs in bare GL.
inline void measureIssuing(benchmark::State &state, Subject &subject)
{
    RenderPass &pass = *subject.pass;
    // After the bare calls nothing is known any more; a pipeline's frame asks once.
    const auto findOut = [&] { frame(pass); };
    findOut();
    GLAnswers answers([&] { frame(pass); });
    // A model's vertices and some clears take their time also for one pixel.
    const int burst = secondsOf([&] { frame(pass); }) < 1e-3 ? kBurst : 1;
    std::vector<double> all;
    std::vector<double> own;
    std::vector<double> over;
    for (auto iteration : state) {
        (void)iteration;
        findOut();
        const double ours = issuingMicroseconds(burst, [&] { frame(pass); });
        const double bare = [&] {
            const HostCode hostCode;
            return issuingMicroseconds(burst, [&] { subject.bare->run(); });
        }();
        findOut();
        all.push_back(ours);
        over.push_back(ours - bare);
        own.push_back(microseconds([&] { answers.runWithoutGL(kBurst, [&] { frame(pass); }); }) / kBurst);
        const HostCode whatGLDidNotGet;
        state.SetIterationTime(ours * 1e-6);
    }
    subject.issuing = median(all);
    subject.own = median(own);
    subject.overBare = median(over);
    state.counters["cpu_us"] = subject.issuing;
    state.counters["own_us"] = subject.own;
    state.counters["over_bare_us"] = subject.overBare;
}

inline void compareTimes(benchmark::State &state, Subject &subject)
{
    comparePairs(
        state, [&] { frame(*subject.pass); },
        [&] {
            const HostCode hostCode; // behind which nothing is known of what is bound
            subject.bare->run();
        });
    subject.ratio = state.counters["ratio"];
    subject.ours = state.counters["kvo_us"];
    subject.floor = state.counters["bare_us"];
}

inline void compare(benchmark::State &state, Subject &subject)
{
    glViewport(0, 0, subject.width, subject.height);
    const InPipeline pipeline;
    if (isSmall(subject))
        measureIssuing(state, subject);
    else
        compareTimes(state, subject);
    state.counters["gl_calls"] = subject.calls;
    state.counters["bare_calls"] = subject.bare->callCount();
    state.counters["draws"] = subject.draws;
    state.counters["gl_objects"] = subject.objects;
    state.counters["texture_allocations"] = subject.textureAllocations;
    state.counters["heap_allocations"] = double(subject.heapAllocations);
}

/// Records every subject and registers its benchmark; the vector must not grow any more.
inline void registerAll(std::vector<Subject> &subjects)
{
    for (Subject &subject : subjects) {
        record(subject);
        // Without a GL call there is nothing to set a pass's picture against.
        if (subject.calls == 0 && !isSmall(subject))
            continue;
        benchmark::RegisterBenchmark(subject.name.c_str(), [&subject](benchmark::State &s) { compare(s, subject); })
            ->UseManualTime()
            ->Iterations(isSmall(subject) ? kRounds : kPairs)
            ->Unit(benchmark::kMicrosecond);
    }
}

inline void printTable(const std::vector<Subject> &subjects)
{
    std::printf("medians of %d pairs, for a single pixel of %d rounds\n", kPairs, kRounds);
    std::printf("%-46s %10s %10s %7s %9s %10s %8s %9s %6s\n", "pass", "kvo us", "bare us", "ratio", "gl calls",
                "bare calls", "objects", "tex alloc", "heap");
    for (const Subject &s : subjects) {
        if (!isSmall(s) && s.calls > 0)
            std::printf("%-46s %10.1f %10.1f %7.3f %9d %10d %8d %9d %6lld\n", s.name.c_str(), s.ours, s.floor, s.ratio,
                        s.calls, s.bare->callCount(), s.objects, s.textureAllocations, s.heapAllocations);
    }
    std::printf("\n%-46s %10s %14s %16s %6s\n", "microseconds of the issuing thread", "kvo", "own code", "over bare GL",
                "draws");
    for (const Subject &s : subjects) {
        if (isSmall(s))
            std::printf("%-46s %10.1f %14.2f %16.2f %6d\n", s.name.c_str(), s.issuing, s.own, s.overBare, s.draws);
    }
}

} // namespace Brevane::Kvo::Bench
