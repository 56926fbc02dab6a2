// Takes malloc's place wherever the source that includes this is linked or preloaded. operator new ends here too. That
// source says before it what becomes of an allocation of so many bytes:
//
//     bool isLetThrough(std::size_t size);

#pragma once

#include <cerrno>
#include <cstddef>

extern "C" {

void *__libc_malloc(std::size_t);
void *__libc_calloc(std::size_t, std::size_t);
void *__libc_realloc(void *, std::size_t);
void *__libc_memalign(std::size_t, std::size_t);

#define KVO_TAKES_ITS_PLACE __attribute__((visibility("default")))

KVO_TAKES_ITS_PLACE void *malloc(std::size_t size)
{
    return isLetThrough(size) ? __libc_malloc(size) : nullptr;
}

KVO_TAKES_ITS_PLACE void *calloc(std::size_t count, std::size_t size)
{
    return isLetThrough(count * size) ? __libc_calloc(count, size) : nullptr;
}

KVO_TAKES_ITS_PLACE void *realloc(void *memory, std::size_t size)
{
    return isLetThrough(size) ? __libc_realloc(memory, size) : nullptr;
}

KVO_TAKES_ITS_PLACE void *memalign(std::size_t alignment, std::size_t size)
{
    return isLetThrough(size) ? __libc_memalign(alignment, size) : nullptr;
}

KVO_TAKES_ITS_PLACE void *aligned_alloc(std::size_t alignment, std::size_t size)
{
    return memalign(alignment, size);
}

KVO_TAKES_ITS_PLACE int posix_memalign(void **memory, std::size_t alignment, std::size_t size)
{
    *memory = memalign(alignment, size);
    return *memory ? 0 : ENOMEM;
}

#undef KVO_TAKES_ITS_PLACE

} // extern "C"
