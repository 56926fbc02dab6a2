#pragma once

#include <dlfcn.h>

#include <initializer_list>

namespace Brevane::Kvo {

/// A function of the first of these libraries that the process has loaded. The window system interfaces are
/// asked only then: linking one would force it on hosts that use the other.
template <typename Function>
Function loadedFunction(std::initializer_list<const char *> libraries, const char *function)
{
    for (const char *library : libraries) {
        void *handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
        if (!handle)
            continue;
        void *symbol = dlsym(handle, function);
        dlclose(handle);
        if (symbol)
            return reinterpret_cast<Function>(symbol);
    }
    return nullptr;
}

} // namespace Brevane::Kvo
