#pragma once

#include "gl/export.h"

namespace Brevane::Kvo {

/// In its scope the library takes the current GL context to stay the one it is, and asks the window system
/// for it once only: asking takes as long as several GL calls. Passes open one in start; a host that uses
/// the GL services by itself may open one around its frame. Scopes nest.
///
/// Making another context current in the scope is an error, except in the handler of shader failures.
class KVO_GL_EXPORT ContextScope
{
public:
    ContextScope();
    ~ContextScope();
    /// Whether a usable context is current.
    explicit operator bool() const;
    ContextScope(const ContextScope &) = delete;
    ContextScope &operator=(const ContextScope &) = delete;
};

} // namespace Brevane::Kvo
