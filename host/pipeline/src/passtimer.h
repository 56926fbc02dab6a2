#pragma once

#include "host/pipeline.h"

#include <array>
#include <chrono>
#include <vector>

namespace Brevane::Kvo {

/// The last so many measurements, in milliseconds. Allocates only in resize.
class TimeSamples
{
public:
    void resize(int capacity);
    void add(double milliseconds);
    int count() const { return _count; }
    double last() const { return _last; }
    double minimum() const;
    double median() const;

private:
    std::vector<double> _values = std::vector<double>(120);
    int _next = 0;
    int _count = 0;
    double _last = 0.0;
};

/// Measures one pass: CPU time by the clock, GPU time by a pair of timestamps per frame. Three pairs
/// take turns, so that a result is asked for when it has long arrived; one that has not is given up
/// rather than waited for.
class PassTimer
{
public:
    void begin(bool onGpu);
    void end();
    /// Takes in what the GPU has finished; all of it when told to wait.
    void collect(bool wait);
    void setHistory(int frames);
    /// Deletes the queries, whose context is current.
    void release();
    /// Lets go of queries whose context is not current or gone.
    void forget();
    PassTiming result(const QString &pass) const;

private:
    struct Pair
    {
        unsigned int queries[2] = {0, 0};
        bool pending = false;
    };

    bool take(Pair &pair, bool wait);

    std::array<Pair, 3> _pairs;
    int _current = 0;
    bool _running = false;
    std::chrono::steady_clock::time_point _begin;
    TimeSamples _cpu;
    TimeSamples _gpu;
};

} // namespace Brevane::Kvo
