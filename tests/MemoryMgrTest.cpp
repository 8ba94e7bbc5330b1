// SPDX-License-Identifier: Apache-2.0
#include "MemoryMgr.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "MemoryFixture.h"

// By default, a sanitizer ends the program where the C library returns null.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

constexpr int kSlots = 1000;

std::uint64_t AddressOf(const void* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

std::uint64_t BlockPointerOf(const TMemHeader& header) {
    return (std::uint64_t{header.nBlockHigh} << 32) | header.nBlockLow;
}

using MemoryMgrTest = MemoryTest;
using MemoryMgrDeathTest = MemoryTest;

// The manager and its instance.

TEST_F(MemoryMgrTest, StartsEmptyAndIsNotInstance) {
    CMemoryManager::SetInstance(nullptr);
    alignas(OpenManager) std::array<unsigned char, sizeof(OpenManager)> storage;
    storage.fill(0xff);
    auto* manager = new (storage.data()) OpenManager;
    EXPECT_EQ(CMemoryManager::GetInstance(), nullptr);
    EXPECT_FALSE(manager->IsRuning());
    EXPECT_EQ(manager->m_nCount, 0);
    EXPECT_EQ(manager->m_nMaxSize, 0);
    EXPECT_EQ(manager->m_nTotalSize, 0);
    for (const TMemHeader& slot : manager->m_table) {
        ASSERT_TRUE(IsFree(slot));
    }
    manager->~OpenManager();
}

TEST_F(MemoryMgrTest, UsesManagerGivenToSetInstance) {
    OpenManager other;
    EXPECT_EQ(CMemoryManager::GetInstance(), &m_manager);
    CMemoryManager::SetInstance(&other);
    EXPECT_EQ(CMemoryManager::GetInstance(), &other);
    EXPECT_EQ(OpenManager::m_pInstance.load(), &other);
    CMemoryManager::Release(Allocate());
    EXPECT_EQ(other.m_nMaxSize, 10);
    EXPECT_EQ(m_manager.m_nMaxSize, 0);
}

TEST_F(MemoryMgrTest, DestructorOfAnyManagerClearsInstance) {
    { const OpenManager other; }
    EXPECT_EQ(CMemoryManager::GetInstance(), nullptr);
}

TEST_F(MemoryMgrTest, ReturnsNullWithoutInstance) {
    CMemoryManager::SetInstance(nullptr);
    EXPECT_EQ(Allocate(), nullptr);
}

TEST_F(MemoryMgrTest, ReleasesPlainBlocksWithoutInstance) {
    CMemoryManager::SetInstance(nullptr);
    CMemoryManager::Release(std::malloc(10));  // the leak checker detects a block that is not freed
    CMemoryManager::Release(nullptr);
    ExpectCounters(0, 0, 0);
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(MemoryMgrDeathTest, ReturnsNullIfMemoryIsExhausted) {
    const auto allocateUnderLimit = [this] {
        rlimit limit{};
        getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = 1;  // no more memory can be mapped
        setrlimit(RLIMIT_AS, &limit);
        void* block = Allocate(sizeof(std::size_t) == 4 ? 0xe0000000U : 1U << 30);  // an emulator ignores the limit
        const bool isUntouched = m_manager.m_nCount == 0 && m_manager.m_nTotalSize == 0 && m_manager.m_nMaxSize == 0;
        std::_Exit(block == nullptr && isUntouched ? 0 : 1);
    };
    EXPECT_EXIT(allocateUnderLimit(), ::testing::ExitedWithCode(0), "");
}

TEST_F(MemoryMgrTest, ReturnsNullIfSizePlusHeaderOverflows) {
    if constexpr (sizeof(std::size_t) == 4) {
        EXPECT_EQ(Allocate(std::numeric_limits<unsigned int>::max()), nullptr);
        EXPECT_EQ(Allocate(std::numeric_limits<unsigned int>::max() - 63), nullptr);
    } else {
        void* block = Allocate(std::numeric_limits<unsigned int>::max() - 63);
        if (block != nullptr) {  // the machine has enough memory
            static_cast<char*>(block)[std::numeric_limits<unsigned int>::max() - 64] = 'x';
            EXPECT_EQ(HeaderOf(block)->nSize, std::numeric_limits<unsigned int>::max() - 63);
        }
        CMemoryManager::Release(block);
    }
    EXPECT_EQ(m_manager.m_nCount, 0);
}

// Blocks and headers.

TEST_F(MemoryMgrTest, PutsHeaderBeforeBlockAndCountsIt) {
    void* block = Allocate(10, "a", 5);
    ASSERT_NE(block, nullptr);
    unsigned char bytes[64];
    std::memcpy(bytes, static_cast<char*>(block) - 64, sizeof(bytes));
    EXPECT_STREQ(reinterpret_cast<char*>(bytes), "a");
    const struct {
        std::size_t offset;
        std::uint32_t expected;
    } rows[] = {{52, 5}, {56, 10}, {60, static_cast<std::uint32_t>(AddressOf(block))}};
    for (const auto& row : rows) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes + row.offset, sizeof(value));
        EXPECT_EQ(value, row.expected) << row.offset;
    }
    std::uint16_t high = 0;
    std::memcpy(&high, bytes + 50, sizeof(high));
    EXPECT_EQ(high, static_cast<std::uint16_t>(AddressOf(block) >> 32));
    EXPECT_EQ(std::memcmp(bytes, &m_manager.m_table[0], sizeof(bytes)), 0);
    ExpectCounters(1, 10, 10);

    CMemoryManager::Release(block);
    ExpectCounters(0, 0, 10);
    EXPECT_TRUE(IsFree(m_manager.m_table[0]));
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(MemoryMgrTest, ReturnsAlignedBlocksOfRequestedSize) {
    for (const unsigned int size : {0U, 1U, 63U, 4096U}) {
        void* block = Allocate(size);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(AddressOf(block) % alignof(std::max_align_t), 0U);
        std::memset(block, 0xff, size);
        CMemoryManager::Release(block);
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(MemoryMgrTest, KeepsFirstFiftyCharactersOfFileName) {
    for (const std::size_t length : {0U, 1U, 48U, 49U, 50U, 51U, 60U}) {
        const std::string file =
            std::string("0123456789012345678901234567890123456789012345678901234567890").substr(0, length);
        std::string expected = file.substr(0, 50);
        expected.resize(50, '\0');
        void* block = Allocate(1, file.c_str());
        EXPECT_EQ(std::string(HeaderOf(block)->szFileName, 50), expected);
        EXPECT_EQ(std::string(m_manager.m_table[0].szFileName, 50), expected);
        CMemoryManager::Release(block);
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(MemoryMgrTest, TreatsNullFileNameAsEmpty) {
    void* block = Allocate(1, nullptr);
    EXPECT_STREQ(HeaderOf(block)->szFileName, "");
    CMemoryManager::Release(block);
}

TEST_F(MemoryMgrTest, KeepsPeakOfBytesInUse) {
    void* first = Allocate(100);
    void* second = Allocate(50);
    ExpectCounters(2, 150, 150);
    CMemoryManager::Release(first);
    ExpectCounters(1, 50, 150);
    first = Allocate(20);
    ExpectCounters(2, 70, 150);
    CMemoryManager::Release(second);
    CMemoryManager::Release(first);
    ExpectCounters(0, 0, 150);
}

TEST_F(MemoryMgrTest, WrapsTotalAt32Bits) {
    TMemHeader header{};
    header.nBlockLow = 1;
    header.nSize = 0x7fffffff;
    EXPECT_TRUE(m_manager.__AddMemory(&header));
    header.nSize = 2;
    EXPECT_TRUE(m_manager.__AddMemory(&header));
    ExpectCounters(2, std::numeric_limits<std::int32_t>::min() + 1, 0x7fffffff);

    m_manager.m_nTotalSize = 0x7fffffff;
    void* block = Allocate(10);
    ExpectCounters(3, std::numeric_limits<std::int32_t>::min() + 9, 0x7fffffff);
    CMemoryManager::Release(block);
    ExpectCounters(2, 0x7fffffff, 0x7fffffff);
}

TEST_F(MemoryMgrTest, ReleasesBlocksOfOtherOrigin) {
    void* tracked = Allocate();
    CMemoryManager::Release(std::malloc(10));  // the leak checker detects a block that is not freed
    CMemoryManager::Release(strdup("text"));
    CMemoryManager::Release(nullptr);
    ExpectCounters(1, 10, 10);
    EXPECT_EQ(BlockPointerOf(m_manager.m_table[0]), AddressOf(tracked));
    CMemoryManager::Release(tracked);
    CMemoryManager::Release(nullptr);
}

TEST_F(MemoryMgrTest, ReleaseIgnoresTableIfNoBlockIsCounted) {
    void* plain = std::calloc(1, 10);
    m_manager.m_table[7].nBlockLow = static_cast<std::uint32_t>(AddressOf(plain));
    m_manager.m_table[7].nBlockHigh = static_cast<std::uint16_t>(AddressOf(plain) >> 32);
    CMemoryManager::Release(plain);
    EXPECT_FALSE(IsFree(m_manager.m_table[7]));
    EXPECT_EQ(m_manager.m_nCount, 0);
}

// The table.

TEST_F(MemoryMgrTest, StoresBlockInLowestFreeSlot) {
    std::vector<void*> blocks;
    for (std::size_t i = 0; i < 4; ++i) {
        blocks.push_back(Allocate());
        EXPECT_EQ(BlockPointerOf(m_manager.m_table[i]), AddressOf(blocks[i]));
    }
    CMemoryManager::Release(blocks[3]);
    CMemoryManager::Release(blocks[1]);
    blocks.push_back(nullptr);
    for (const std::size_t slot : {1U, 3U, 4U}) {
        blocks[slot] = Allocate();
        EXPECT_EQ(BlockPointerOf(m_manager.m_table[slot]), AddressOf(blocks[slot]));
    }
    for (void* block : blocks) {
        CMemoryManager::Release(block);
    }
    ExpectCounters(0, 0, 50);
}

TEST_F(MemoryMgrTest, ReturnsPlainBlocksOnceTableIsFull) {
    std::vector<void*> blocks;
    blocks.reserve(kSlots);
    for (int i = 0; i < kSlots; ++i) {
        blocks.push_back(Allocate(3));
    }
    ExpectCounters(kSlots, 3 * kSlots, 3 * kSlots);
    EXPECT_EQ(BlockPointerOf(m_manager.m_table[kSlots - 1]), AddressOf(blocks.back()));

    void* first = Allocate(7);
    void* second = Allocate(8);
    std::memset(first, 0xff, 7);
    std::memset(second, 0xff, 8);
    ExpectCounters(kSlots, 3 * kSlots, 3 * kSlots);
    CMemoryManager::Release(first);
    std::free(second);  // a plain block without a header
    ExpectCounters(kSlots, 3 * kSlots, 3 * kSlots);

    CMemoryManager::Release(blocks[500]);
    ExpectCounters(kSlots - 1, 3 * kSlots - 3, 3 * kSlots);
    blocks[500] = Allocate(4);
    ExpectCounters(kSlots, 3 * kSlots + 1, 3 * kSlots + 1);
    EXPECT_EQ(BlockPointerOf(m_manager.m_table[500]), AddressOf(blocks[500]));
    for (void* block : blocks) {
        CMemoryManager::Release(block);
    }
    ExpectCounters(0, 0, 3 * kSlots + 1);
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(MemoryMgrTest, RefusesHeaderOnceThousandBlocksAreCounted) {
    TMemHeader header{};
    header.nBlockLow = 1;
    header.nSize = 5;
    m_manager.m_nCount = kSlots - 1;
    EXPECT_TRUE(m_manager.__AddMemory(&header));
    ExpectCounters(kSlots, 5, 5);
    EXPECT_FALSE(m_manager.__AddMemory(&header));
    ExpectCounters(kSlots, 5, 5);
    EXPECT_TRUE(IsFree(m_manager.m_table[1]));
}

TEST_F(MemoryMgrTest, CountsBlockEvenIfNoSlotIsFree) {
    for (TMemHeader& slot : m_manager.m_table) {
        slot.nBlockLow = 1;
    }
    const std::vector<TMemHeader> before(std::begin(m_manager.m_table), std::end(m_manager.m_table));
    m_manager.m_nCount = 5;
    TMemHeader header{};
    header.nBlockLow = 2;
    header.nSize = 10;
    EXPECT_TRUE(m_manager.__AddMemory(&header));
    ExpectCounters(6, 0, 0);

    void* block = Allocate(20);
    ExpectCounters(7, 0, 0);
    EXPECT_EQ(std::memcmp(before.data(), m_manager.m_table, sizeof(m_manager.m_table)), 0);
    std::memset(block, 0xff, 20);
    CMemoryManager::Release(block);
    ExpectCounters(7, 0, 0);
}

TEST_F(MemoryMgrTest, RemovesOnlyTrackedBlocks) {
    void* block = Allocate();
    EXPECT_FALSE(m_manager.__RemoveMemory(static_cast<char*>(block) + 1));
    EXPECT_FALSE(m_manager.__RemoveMemory(nullptr));
    if constexpr (sizeof(void*) == sizeof(std::uint64_t)) {  // an address that differs only above bit 47
        const std::uint64_t address = AddressOf(block) | (std::uint64_t{1} << 48);
        void* other = nullptr;
        std::memcpy(&other, &address, sizeof(other));
        EXPECT_FALSE(m_manager.__RemoveMemory(other));
    }
    ExpectCounters(1, 10, 10);
    EXPECT_TRUE(m_manager.__RemoveMemory(block));
    ExpectCounters(0, 0, 10);
}

}  // namespace
