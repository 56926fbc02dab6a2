#pragma once

#include "gl/export.h"

#include <array>

namespace Brevane::Kvo {

/// Puts pixel unpacking into GL's default state for the scope, and restores the host's.
class KVO_GL_EXPORT DefaultUnpackState
{
public:
    DefaultUnpackState();
    ~DefaultUnpackState();
    DefaultUnpackState(const DefaultUnpackState &) = delete;
    DefaultUnpackState &operator=(const DefaultUnpackState &) = delete;

private:
    std::array<int, 5> _values{};
    int _buffer = 0;
};

} // namespace Brevane::Kvo
