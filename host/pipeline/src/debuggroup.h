#pragma once

namespace Brevane::Kvo {

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
