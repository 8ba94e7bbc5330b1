// SPDX-License-Identifier: Apache-2.0
#include "HostMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <new>

#include "FailingMemory.h"

TEST(HostMemoryTest, ThrowsWithoutMemoryForABuffer) {
    const auto isRefused = [] {
        const FailingMemory::Scope failing;
        try {
            const HostBuffer buffer(10);
        } catch (const std::bad_alloc&) {
            return true;
        }
        return false;
    };
    EXPECT_EQ(isRefused(), FailingMemory::kIsMallocReplaced);
    const HostMemory memory;
    EXPECT_EQ(isRefused(), FailingMemory::kIsMallocReplaced);
}

TEST(HostMemoryTest, ThrowsForATrackedBufferBeyond32Bits) {
    const HostMemory memory;
    // Cut to 32 bits, the first would be 10; where sizes have 32 bits, it is the largest.
    const volatile std::size_t size = std::max(std::size_t{UINT_MAX} + 11, std::size_t{UINT_MAX});
    EXPECT_THROW(HostBuffer{size}, std::bad_alloc);
}
