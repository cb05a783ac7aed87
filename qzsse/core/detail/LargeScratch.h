#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace qzsse::detail {

// Allocator for large, short-lived work arrays: blocks of 4 MiB and more are 2 MiB aligned
// and, on Linux, marked for huge pages, so that first touching them takes one page fault
// per 2 MiB instead of one per 4 KiB (the faults, not the zeroing, dominated).
template <class T>
struct LargeScratchAllocator {
    using value_type = T;
    static constexpr size_t kHugePage = size_t(2) << 20;

    LargeScratchAllocator() = default;
    template <class U>
    LargeScratchAllocator(const LargeScratchAllocator<U>&) noexcept {}

    T* allocate(size_t n)
    {
        const size_t bytes = n * sizeof(T);
        if (bytes < 2 * kHugePage) {
            void* p = std::malloc(bytes > 0 ? bytes : 1);
            if (p == nullptr)
                throw std::bad_alloc();
            return static_cast<T*>(p);
        }
        const size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
        void* p = std::aligned_alloc(kHugePage, rounded);
        if (p == nullptr)
            throw std::bad_alloc();
#if defined(__linux__) && defined(MADV_HUGEPAGE)
        madvise(p, rounded, MADV_HUGEPAGE);   // advice only: failure changes nothing
#endif
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t) noexcept { std::free(p); }

    template <class U>
    bool operator==(const LargeScratchAllocator<U>&) const noexcept { return true; }
};

template <class T>
using ScratchVector = std::vector<T, LargeScratchAllocator<T>>;

} // namespace qzsse::detail
