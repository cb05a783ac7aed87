#include "qzsse/core/SafeAlloc.h"

#include <cstdint>
#include <new>

#include <gtest/gtest.h>

namespace {

TEST(SafeAlloc, AlignedBlocksAreAlignedAndUsable)
{
    for (unsigned long long alignment : {16ull, 32ull, 64ull, 4096ull}) {
        for (unsigned long long size : {0ull, 1ull, 16ull, 1000ull}) {
            void* p = SafeAlignedAlloc(size, alignment);
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignment, 0u);
            if (size > 0)
                static_cast<unsigned char*>(p)[size - 1] = 0xAB;
            SafeAlignedFree(p);
        }
    }
}

TEST(SafeAlloc, CallocZeroesAndZeroSizesStillReturnMemory)
{
    auto* p = static_cast<unsigned char*>(SafeCalloc(100, 3));
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(p[i], 0);
    SafeFree(p);

    // A zero-size request follows the runtime; what comes back must be freeable, and so
    // must null.
    SafeFree(SafeMalloc(0));
    SafeFree(nullptr);
    SafeAlignedFree(nullptr);
}

// The test environment lets the sanitizer's allocator return null as the plain one does.
TEST(SafeAlloc, ExhaustedMemoryRaisesBadAlloc)
{
    const unsigned long long huge = 1ull << 62;
    EXPECT_THROW(SafeMalloc(huge), std::bad_alloc);
    EXPECT_THROW(SafeCalloc(huge, 4), std::bad_alloc);
    EXPECT_THROW(SafeAlignedAlloc(huge, 16), std::bad_alloc);
}

} // namespace
