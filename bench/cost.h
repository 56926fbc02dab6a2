#pragma once

#include <epoxy/gl.h>

#include <algorithm>
#include <chrono>
#include <ctime>
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

inline double median(std::vector<double> values)
{
    const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace Brevane::Kvo::Bench
