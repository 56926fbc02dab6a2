#pragma once

#include "gl/export.h"

#include <functional>

namespace Brevane::Kvo {

struct ShaderFailure;

/// Hears of every failed compile and link on its thread while it lives, beside the process-wide handler of
/// ShaderProgram::setFailureHandler: for parts of a host, such as a widget, that report the failures of their own
/// frames. Listeners nest; each hears of what happens in its scope.
class KVO_GL_EXPORT ShaderFailureListener
{
public:
    /// Is told of failures from now on, until it is destroyed.
    explicit ShaderFailureListener(std::function<void(const ShaderFailure &)> listener);
    ~ShaderFailureListener();
    ShaderFailureListener(const ShaderFailureListener &) = delete;
    ShaderFailureListener &operator=(const ShaderFailureListener &) = delete;

    /// Tells all listeners of the thread.
    static void tell(const ShaderFailure &failure);

private:
    std::function<void(const ShaderFailure &)> _listener;
    ShaderFailureListener *_outer;
};

} // namespace Brevane::Kvo
