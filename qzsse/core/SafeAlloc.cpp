#include "qzsse/core/SafeAlloc.h"

#include <cstdlib>
#include <new>

#if defined(_WIN32)
#include <malloc.h>
#endif

void* SafeMalloc(unsigned long long size)
{
    void* p = std::malloc(static_cast<size_t>(size));
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void* SafeCalloc(unsigned long long count, unsigned long long size)
{
    void* p = std::calloc(static_cast<size_t>(count), static_cast<size_t>(size));
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void* SafeAlignedAlloc(unsigned long long size, unsigned long long alignment)
{
#if defined(_WIN32)
    void* p = _aligned_malloc(static_cast<size_t>(size), static_cast<size_t>(alignment));
#else
    // posix_memalign wants a power-of-two multiple of sizeof(void*); smaller alignments are
    // met by that one anyway.
    size_t align = static_cast<size_t>(alignment);
    if (align < sizeof(void*))
        align = sizeof(void*);
    // A zero size may legally come back as null; ask for one aligned unit instead so that
    // only exhausted memory ever raises.
    const size_t bytes = size == 0 ? align : static_cast<size_t>(size);
    void* p = nullptr;
    if (posix_memalign(&p, align, bytes) != 0)
        p = nullptr;
#endif
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void SafeFree(void* p)
{
    if (p != nullptr)
        std::free(p);
}

void SafeAlignedFree(void* p)
{
#if defined(_WIN32)
    _aligned_free(p);
#else
    std::free(p);
#endif
}
