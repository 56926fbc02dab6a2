#pragma once

namespace Brevane::Kvo {

/// For one frame: GL's default state at its beginning, and the host's framebuffer bindings and viewport
/// again at its end.
class FrameState
{
public:
    FrameState();
    ~FrameState();
    FrameState(const FrameState &) = delete;
    FrameState &operator=(const FrameState &) = delete;

private:
    int _drawFramebuffer = 0;
    int _readFramebuffer = 0;
    int _viewport[4] = {0, 0, 0, 0};
};

/// A named group around the commands of a pass, for debuggers.
class DebugGroup
{
public:
    /// Does nothing when not \a enabled.
    DebugGroup(bool enabled, const char *name);
    ~DebugGroup();
    DebugGroup(const DebugGroup &) = delete;
    DebugGroup &operator=(const DebugGroup &) = delete;

private:
    bool _open;
};

} // namespace Brevane::Kvo
