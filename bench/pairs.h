#pragma once

#include "cost.h"

#include <benchmark/benchmark.h>

#include <epoxy/gl.h>

#include <ctime>
#include <vector>

namespace Brevane::Kvo::Bench {

/// Pairs that are measured after a few that only warm up.
constexpr int kPairs = 120;
constexpr int kWarmUp = 10;
/// Rounds where a frame takes microseconds.
constexpr int kRounds = 200;

/// Seconds until GL has done what a function asks for.
template <typename Function>
double secondsOf(Function &&function)
{
    return costOf(function).wall / 1e3;
}

/// CPU time of all threads, those of a software renderer too, until GL has done what a function asks for: what
/// other processes do meanwhile counts less in it.
template <typename Function>
double processSecondsOf(Function &&function)
{
    return costOf(function).cpu / 1e3;
}

/// Which time pairs are compared in.
enum class PairTime { Wall, Process };

/// Short frames in a row whose time is taken together.
constexpr int kBurst = 16;

/// CPU time of this thread.
template <typename Function>
double microseconds(Function &&function)
{
    const auto now = [] {
        timespec t{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return double(t.tv_sec) * 1e6 + double(t.tv_nsec) * 1e-3;
    };
    const double start = now();
    function();
    return now() - start;
}

/// CPU time of this thread until it has told GL what to do, the mean of so many runs in a row.
template <typename Function>
double issuingMicroseconds(int times, Function &&function)
{
    glFinish();
    const double time = microseconds([&] {
        for (int i = 0; i < times; ++i)
            function();
    });
    glFinish();
    return time / times;
}

/// Runs two ways of doing one thing in turn, each first every other time, so that whatever else the
/// machine does meets both. The counters: the median of the ratios, their quartiles, the medians of both times. The
/// benchmark's own time is that of the first way.
template <typename Ours, typename Bare>
void comparePairs(benchmark::State &state, Ours &&ours, Bare &&bare, PairTime time = PairTime::Wall)
{
    const auto timeOf = [time](auto &function) {
        return time == PairTime::Process ? processSecondsOf(function) : secondsOf(function);
    };
    for (int i = 0; i < kWarmUp; ++i) {
        ours();
        bare();
    }
    std::vector<double> ratios;
    std::vector<double> ourTimes;
    std::vector<double> bareTimes;
    for (auto iteration : state) {
        (void)iteration;
        double bareTime = 0;
        double ourTime = 0;
        if (ratios.size() % 2 == 0) {
            ourTime = timeOf(ours);
            bareTime = timeOf(bare);
        } else {
            bareTime = timeOf(bare);
            ourTime = timeOf(ours);
        }
        ratios.push_back(ourTime / bareTime);
        ourTimes.push_back(ourTime);
        bareTimes.push_back(bareTime);
        state.SetIterationTime(ourTime);
    }
    state.counters["pairs"] = double(ratios.size());
    state.counters["ratio"] = median(ratios);
    state.counters["lower"] = quantile(ratios, 0.25);
    state.counters["upper"] = quantile(ratios, 0.75);
    state.counters["kvo_us"] = median(ourTimes) * 1e6;
    state.counters["bare_us"] = median(bareTimes) * 1e6;
}

} // namespace Brevane::Kvo::Bench
