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
    std::unique_ptr<GLReplay> bare = nullptr; ///< What the picture needs.
    std::unique_ptr<GLReplay> same = nullptr; ///< The same calls.
    int calls = 0;
    int draws = 0;
    int objects = 0;
    int textureAllocations = 0;
    qint64 heapAllocations = 0;
    double ratio = 0;
    double ours = 0;
    double floor = 0;
    double issuing = 0;
    double overSame = 0;
    double overNeeded = 0;
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
    subject.draws = calls.draws();
    subject.bare = std::make_unique<GLReplay>(calls, GLReplay::Calls::Needed);
    subject.same = std::make_unique<GLReplay>(calls, GLReplay::Calls::All);
}

/// Where next to nothing is drawn, what counts is the time of the thread that issues the calls: of the
/// pass, of the same calls in bare GL, and of those that the picture needs. A replay's own work is taken
/// off its time.
inline void compareIssuing(benchmark::State &state, Subject &subject)
{
    constexpr size_t kWays = 3;
    const auto run = [&](size_t way) {
        switch (way) {
        case 0: frame(*subject.pass); break;
        case 1: subject.same->run(); break;
        default: subject.bare->run(); break;
        }
    };
    std::vector<double> own;
    std::vector<double> over[kWays];
    std::vector<double> replayWork[kWays];
    std::vector<double> clock;
    for (auto iteration : state) {
        (void)iteration;
        double times[kWays];
        for (size_t i = 0; i < kWays; ++i) {
            const size_t way = (own.size() + i) % kWays;
            times[way] = issuingMicroseconds([&] { run(way); });
        }
        clock.push_back(issuingMicroseconds([] {}));
        own.push_back(times[0]);
        for (size_t way = 1; way < kWays; ++way) {
            over[way].push_back(times[0] - times[way]);
            const NoGLScope noGL;
            replayWork[way].push_back(issuingMicroseconds([&] { run(way); }));
        }
        state.SetIterationTime(times[0] * 1e-6);
    }
    const double clockTime = median(clock);
    subject.issuing = median(own) - clockTime;
    subject.overSame = median(over[1]) + median(replayWork[1]) - clockTime;
    subject.overNeeded = median(over[2]) + median(replayWork[2]) - clockTime;
    state.counters["cpu_us"] = subject.issuing;
    state.counters["over_same_us"] = subject.overSame;
    state.counters["over_needed_us"] = subject.overNeeded;
}

inline void compareTimes(benchmark::State &state, Subject &subject)
{
    comparePairs(
        state, [&] { frame(*subject.pass); }, [&] { subject.bare->run(); });
    subject.ratio = state.counters["ratio"];
    subject.ours = state.counters["kvo_us"];
    subject.floor = state.counters["bare_us"];
}

inline void compare(benchmark::State &state, Subject &subject)
{
    glViewport(0, 0, subject.width, subject.height);
    if (isSmall(subject))
        compareIssuing(state, subject);
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
    std::printf("\n%-46s %10s %14s %16s %6s\n", "microseconds of the issuing thread", "kvo", "over the same",
                "over the needed", "draws");
    for (const Subject &s : subjects) {
        if (isSmall(s))
            std::printf("%-46s %10.1f %14.2f %16.2f %6d\n", s.name.c_str(), s.issuing, s.overSame, s.overNeeded,
                        s.draws);
    }
}

} // namespace Brevane::Kvo::Bench
