#pragma once

#include "core/export.h"

namespace Brevane::Kvo {

/// Around code of the host's that runs in the middle of ours: handlers of messages and failures, observers, and
/// what a host overrides in a class that derives from one of the library. It finds GL as if the library had put
/// back at once what it puts back later, and may change whatever it likes: nothing that was known of GL before
/// holds behind it.
class KVO_CORE_EXPORT HostCode
{
public:
    HostCode();
    ~HostCode();
    HostCode(const HostCode &) = delete;
    HostCode &operator=(const HostCode &) = delete;

    /// What the library with GL does at the beginning and at the end; the end gets what the beginning gave.
    struct Hooks
    {
        long long (*begin)() = nullptr;
        void (*end)(long long) = nullptr;
    };
    static void setHooks(const Hooks &hooks);

private:
    long long _token = 0;
};

} // namespace Brevane::Kvo
