#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace qzsse::detail {

// Blocks of large work arrays released on this thread, kept for the next call: first touching
// fresh pages (the kernel zeroes each one and takes a fault per page) cost as much as the
// work done in them. At most kMaxBlocks blocks and kMaxBytes bytes stay per thread; they are
// returned to the system when the thread ends.
class LargeScratchCache {
public:
    static constexpr size_t kMaxBlocks = 8;
    static constexpr size_t kMaxBytes = size_t(256) << 20;

    ~LargeScratchCache()
    {
        for (size_t i = 0; i < m_count; ++i)
            std::free(m_blocks[i].p);
    }

    // A kept block of at least bytes (and at most twice that, so little memory sits idle), or
    // null.
    void* Take(size_t bytes)
    {
        size_t best = m_count;
        for (size_t i = 0; i < m_count; ++i)
            if (m_blocks[i].bytes >= bytes && m_blocks[i].bytes <= 2 * bytes &&
                (best == m_count || m_blocks[i].bytes < m_blocks[best].bytes))
                best = i;
        if (best == m_count)
            return nullptr;
        const Block block = m_blocks[best];
        m_total -= block.bytes;
        for (size_t i = best + 1; i < m_count; ++i)   // the rest stay oldest first
            m_blocks[i - 1] = m_blocks[i];
        --m_count;
        if (m_numLent < kMaxBlocks)
            m_lent[m_numLent++] = block;   // so that Give learns its real size back
        return block.p;
    }

    // Keeps the block (of at least bytes), or frees it (or older ones) to stay within the
    // limits.
    void Give(void* p, size_t bytes)
    {
        for (size_t i = 0; i < m_numLent; ++i)
            if (m_lent[i].p == p) {
                bytes = m_lent[i].bytes;
                m_lent[i] = m_lent[--m_numLent];
                break;
            }
        if (bytes > kMaxBytes) {
            std::free(p);
            return;
        }
        while (m_count > 0 && (m_count == kMaxBlocks || m_total + bytes > kMaxBytes)) {
            std::free(m_blocks[0].p);   // the oldest
            m_total -= m_blocks[0].bytes;
            for (size_t i = 1; i < m_count; ++i)
                m_blocks[i - 1] = m_blocks[i];
            --m_count;
        }
        m_blocks[m_count++] = Block{p, bytes};
        m_total += bytes;
    }

    static LargeScratchCache& ForThisThread()
    {
        static thread_local LargeScratchCache cache;
        return cache;
    }

private:
    struct Block {
        void* p;
        size_t bytes;
    };
    Block m_blocks[kMaxBlocks] = {};
    size_t m_count = 0;
    size_t m_total = 0;
    Block m_lent[kMaxBlocks] = {};   // kept blocks handed out again
    size_t m_numLent = 0;
};

// Allocator for large, short-lived work arrays: blocks of 4 MiB and more are 2 MiB aligned
// and, on Linux, marked for huge pages, so that first touching them takes one page fault
// per 2 MiB instead of one per 4 KiB; released blocks go to the thread's LargeScratchCache.
template <class T>
struct LargeScratchAllocator {
    using value_type = T;
    static constexpr size_t kHugePage = size_t(2) << 20;

    LargeScratchAllocator() = default;
    template <class U>
    LargeScratchAllocator(const LargeScratchAllocator<U>&) noexcept {}

    static size_t roundedBytes(size_t n) { return (n * sizeof(T) + kHugePage - 1) / kHugePage * kHugePage; }

    T* allocate(size_t n)
    {
        const size_t bytes = n * sizeof(T);
        if (bytes < 2 * kHugePage) {
            void* p = std::malloc(bytes > 0 ? bytes : 1);
            if (p == nullptr)
                throw std::bad_alloc();
            return static_cast<T*>(p);
        }
        const size_t rounded = roundedBytes(n);
        if (void* kept = LargeScratchCache::ForThisThread().Take(rounded))
            return static_cast<T*>(kept);
        void* p = std::aligned_alloc(kHugePage, rounded);
        if (p == nullptr)
            throw std::bad_alloc();
#if defined(__linux__) && defined(MADV_HUGEPAGE)
        madvise(p, rounded, MADV_HUGEPAGE);   // advice only: failure changes nothing
#endif
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t n) noexcept
    {
        if (n * sizeof(T) < 2 * kHugePage) {
            std::free(p);
            return;
        }
        LargeScratchCache::ForThisThread().Give(p, roundedBytes(n));
    }

    template <class U>
    bool operator==(const LargeScratchAllocator<U>&) const noexcept { return true; }
};

template <class T>
using ScratchVector = std::vector<T, LargeScratchAllocator<T>>;

} // namespace qzsse::detail
