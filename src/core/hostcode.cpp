#include "core/hostcode.h"

namespace Brevane::Kvo {

namespace {

HostCode::Hooks &hooksInUse()
{
    static HostCode::Hooks hooks;
    return hooks;
}

} // namespace

HostCode::HostCode()
{
    if (const auto begin = hooksInUse().begin)
        _token = begin();
}

HostCode::~HostCode()
{
    if (const auto end = hooksInUse().end)
        end(_token);
}

void HostCode::setHooks(const Hooks &hooks)
{
    hooksInUse() = hooks;
}

} // namespace Brevane::Kvo
