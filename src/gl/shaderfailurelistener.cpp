#include "gl/shaderfailurelistener.h"

#include "gl/shaderprogram.h"

#include <utility>

namespace Brevane::Kvo {

namespace {

thread_local ShaderFailureListener *innermost = nullptr;

} // namespace

ShaderFailureListener::ShaderFailureListener(std::function<void(const ShaderFailure &)> listener)
    : _listener(std::move(listener)), _outer(std::exchange(innermost, this))
{}

ShaderFailureListener::~ShaderFailureListener()
{
    innermost = _outer;
}

void ShaderFailureListener::tell(const ShaderFailure &failure)
{
    for (const ShaderFailureListener *one = innermost; one; one = one->_outer)
        one->_listener(failure);
}

} // namespace Brevane::Kvo
