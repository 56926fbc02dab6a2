#pragma once

#include <epoxy/gl.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <utility>
#include <vector>

namespace Brevane::Kvo::Bench {

struct Cost
{
    double wall;
    double cpu; // of all threads: what other programs on the machine disturb less

    Cost operator-(const Cost &other) const { return {wall - other.wall, cpu - other.cpu}; }
};

inline double processMilliseconds()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return double(time.tv_sec) * 1e3 + double(time.tv_nsec) * 1e-6;
}

template <typename Function>
Cost costOf(Function &&function)
{
    glFinish();
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = processMilliseconds();
    function();
    glFinish();
    return {std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count(),
            processMilliseconds() - cpuStart};
}

/// The value below which a share of values lies.
inline double quantile(std::vector<double> values, double share)
{
    const auto place = values.begin() + std::ptrdiff_t(share * double(values.size()));
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

inline double median(std::vector<double> values)
{
    return quantile(std::move(values), 0.5);
}

} // namespace Brevane::Kvo::Bench
