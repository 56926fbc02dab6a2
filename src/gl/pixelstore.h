#pragma once

#include "gl/export.h"

#include <array>

namespace Brevane::Kvo {

/// Moves pixels between memory and GL as GL's default state has it, whatever a host has set: every
/// parameter of the pixel store at its default in both directions, no pixel buffer bound, values read
/// back as they are. What it changed is as before at the end of the scope. All uploads of pixels, all
/// allocations of textures and all read-backs stand under one.
class KVO_GL_EXPORT DefaultPixelStore
{
public:
    /// \a alignment is that of rows, in both directions; GL's default is 4.
    explicit DefaultPixelStore(int alignment = 4);
    ~DefaultPixelStore();
    /// Sets all of it, when code of the host's within the scope may have changed anything; see HostCode.
    void resume() const;
    DefaultPixelStore(const DefaultPixelStore &) = delete;
    DefaultPixelStore &operator=(const DefaultPixelStore &) = delete;

private:
    std::array<int, 16> _parameters{};
    std::array<unsigned int, 2> _buffers{};
    int _alignment;
    int _clampRead = 0;
};

} // namespace Brevane::Kvo
