// SPDX-License-Identifier: Apache-2.0
#include "HostMemory.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <new>

#include "FailingMemory.h"

TEST(HostMemoryTest, ThrowsWithoutMemoryForABuffer) {
    if (!FailingMemory::kIsMallocReplaced) {
        GTEST_SKIP() << "malloc() does not fail";
    }
    const auto isRefused = [] {
        const FailingMemory::Scope failing;
        try {
            const HostBuffer buffer(10);
        } catch (const std::bad_alloc&) {
            return true;
        }
        return false;
    };
    EXPECT_TRUE(isRefused());
    const HostMemory memory;
    EXPECT_TRUE(isRefused());
}

TEST(HostMemoryTest, ThrowsForATrackedBufferBeyond32Bits) {
    if (sizeof(std::size_t) == sizeof(unsigned int)) {
        GTEST_SKIP() << "no size is greater";
    }
    const HostMemory memory;
    const volatile std::size_t size = std::size_t{UINT_MAX} + 11;  // cut to 32 bits, it would be 10
    EXPECT_THROW(HostBuffer{size}, std::bad_alloc);
}
