#include "passtimer.h"

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

void TimeSamples::resize(int capacity)
{
    _values.assign(std::max(capacity, 1), 0.0);
    _next = _count = 0;
}

void TimeSamples::add(double milliseconds)
{
    _last = milliseconds;
    _values[_next] = milliseconds;
    _next = (_next + 1) % int(_values.size());
    _count = std::min(_count + 1, int(_values.size()));
}

double TimeSamples::minimum() const
{
    return _count ? *std::min_element(_values.begin(), _values.begin() + _count) : 0.0;
}

double TimeSamples::median() const
{
    if (_count == 0)
        return 0.0;
    std::vector<double> sorted(_values.begin(), _values.begin() + _count);
    std::sort(sorted.begin(), sorted.end());
    const int middle = _count / 2;
    return _count % 2 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2.0;
}

void PassTimer::begin(bool onGpu)
{
    _running = onGpu;
    if (onGpu) {
        _current = (_current + 1) % int(_pairs.size());
        Pair &pair = _pairs[_current];
        take(pair, false);
        if (!pair.queries[0])
            glGenQueries(2, pair.queries);
        glQueryCounter(pair.queries[0], GL_TIMESTAMP);
    }
    _begin = std::chrono::steady_clock::now();
}

void PassTimer::end()
{
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - _begin;
    _cpu.add(elapsed.count());
    if (!_running)
        return;
    Pair &pair = _pairs[_current];
    glQueryCounter(pair.queries[1], GL_TIMESTAMP);
    pair.pending = true;
}

bool PassTimer::take(Pair &pair, bool wait)
{
    if (!pair.pending)
        return false;
    GLint available = GL_TRUE;
    if (!wait)
        glGetQueryObjectiv(pair.queries[1], GL_QUERY_RESULT_AVAILABLE, &available);
    if (!available)
        return false;
    GLuint64 from = 0, to = 0;
    glGetQueryObjectui64v(pair.queries[0], GL_QUERY_RESULT, &from);
    glGetQueryObjectui64v(pair.queries[1], GL_QUERY_RESULT, &to);
    pair.pending = false;
    _gpu.add(to > from ? double(to - from) * 1e-6 : 0.0);
    return true;
}

void PassTimer::collect(bool wait)
{
    // Oldest first.
    for (size_t i = 1; i <= _pairs.size(); ++i)
        take(_pairs[(_current + i) % _pairs.size()], wait);
}

void PassTimer::setHistory(int frames)
{
    _cpu.resize(frames);
    _gpu.resize(frames);
    for (Pair &pair : _pairs)
        pair.pending = false;
}

void PassTimer::release()
{
    for (Pair &pair : _pairs) {
        if (pair.queries[0])
            glDeleteQueries(2, pair.queries);
    }
    forget();
}

void PassTimer::forget()
{
    _pairs.fill(Pair());
}

PassTiming PassTimer::result(const QString &pass) const
{
    PassTiming timing;
    timing.pass = pass;
    timing.cpuSamples = _cpu.count();
    timing.cpuLast = _cpu.last();
    timing.cpuMinimum = _cpu.minimum();
    timing.cpuMedian = _cpu.median();
    timing.gpuSamples = _gpu.count();
    timing.gpuLast = _gpu.last();
    timing.gpuMinimum = _gpu.minimum();
    timing.gpuMedian = _gpu.median();
    return timing;
}

} // namespace Brevane::Kvo
