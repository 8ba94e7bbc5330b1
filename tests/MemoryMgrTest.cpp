// SPDX-License-Identifier: Apache-2.0
#include "MemoryMgr.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "CapturedLog.h"
#include "ContextAutoLock.h"
#include "Waiting.h"

namespace {

constexpr int kSlots = 1000;

/// The pauses of the checker: a program that supplies g_usleep() decides how long they last.
class Pauses {
public:
    void Enter(gulong microseconds) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_entered.push_back(microseconds);
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_allowed >= m_entered.size(); });
    }

    /// Lets the checker's pause end, or its next one; it stays in the one after that.
    void EndOne() { Allow(1); }

    /// Lets no pause last any longer.
    void EndAll() { Allow(std::numeric_limits<std::size_t>::max() / 2); }

    void Reset() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_entered.clear();
        m_allowed = 0;
    }

    bool WaitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, Waiting::kBound, [&] { return m_entered.size() >= count; });
    }

    std::vector<gulong> Entered() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_entered;
    }

private:
    void Allow(std::size_t count) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_allowed += count;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<gulong> m_entered;
    std::size_t m_allowed = 0;
} g_pauses;

}  // namespace

extern "C" void g_usleep(gulong microseconds) {
    g_pauses.Enter(microseconds);
}

// A sanitizer would stop the program where the C library gives null.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

class SeenManager : public CMemoryManager {
public:
    using CMemoryManager::m_bStarted;
    using CMemoryManager::m_mutex;
    using CMemoryManager::m_nCount;
    using CMemoryManager::m_nMaxSize;
    using CMemoryManager::m_nTotalSize;
    using CMemoryManager::m_pInstance;
    using CMemoryManager::m_table;
};

TMemHeader* HeaderOf(void* block) {
    return reinterpret_cast<TMemHeader*>(static_cast<char*>(block) - 64);
}

std::uint64_t AddressOf(const void* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

std::uint64_t BlockPointerOf(const TMemHeader& header) {
    return (std::uint64_t{header.nBlockHigh} << 32) | header.nBlockLow;
}

bool IsFree(const TMemHeader& slot) {
    const TMemHeader zero{};
    return std::memcmp(&slot, &zero, sizeof(slot)) == 0;
}

/// One of the log lines that show a header.
std::string HeaderLine(const char* start, void* block, const TMemHeader* header, const std::string& file, int line) {
    char text[256];
    std::snprintf(text, sizeof(text), "%s Memory..0x%p, Header (0x%p , %s, %d)", start, block,
                  static_cast<const void*>(header), file.c_str(), line);
    return text;
}

const char* const kErrorLine = "*********  Memory ERROR *********!!!!!!!!";

class MemoryMgrTest : public ::testing::Test {
protected:
    void SetUp() override {
        CMemoryManager::SetInstance(&m_manager);
        CapturedLog::Clear();
        g_pauses.Reset();
    }

    void TearDown() override { CMemoryManager::SetInstance(nullptr); }

    static void* Allocate(unsigned int size = 10, const char* file = "file.cpp", int line = 5) {
        return CMemoryManager::Allocate(size, file, line);
    }

    static void Check(CMemoryManager& manager) {
        const ContextAutoLock lock(&SeenManager::m_mutex);
        manager.__CheckMemory();
    }

    void ExpectCounters(int count, int total, int peak) const {
        EXPECT_EQ(m_manager.m_nCount, count);
        EXPECT_EQ(m_manager.m_nTotalSize, total);
        EXPECT_EQ(m_manager.m_nMaxSize, peak);
    }

    SeenManager m_manager;
};

using MemoryMgrDeathTest = MemoryMgrTest;

// The manager and its instance.

TEST_F(MemoryMgrTest, IsAThreadThatStartsEmptyAndIsNotTheInstance) {
    CMemoryManager::SetInstance(nullptr);
    EXPECT_TRUE((std::is_base_of_v<ContextThread, CMemoryManager>));
    alignas(SeenManager) std::array<unsigned char, sizeof(SeenManager)> storage;
    storage.fill(0xff);
    auto* manager = new (storage.data()) SeenManager;
    EXPECT_EQ(CMemoryManager::GetInstance(), nullptr);
    EXPECT_FALSE(manager->IsRuning());
    EXPECT_EQ(manager->m_nCount, 0);
    EXPECT_EQ(manager->m_nMaxSize, 0);
    EXPECT_EQ(manager->m_nTotalSize, 0);
    for (const TMemHeader& slot : manager->m_table) {
        ASSERT_TRUE(IsFree(slot));
    }
    manager->~SeenManager();
}

TEST_F(MemoryMgrTest, IsTheInstanceThatTheHostSets) {
    SeenManager other;
    EXPECT_EQ(CMemoryManager::GetInstance(), &m_manager);
    CMemoryManager::SetInstance(&other);
    EXPECT_EQ(CMemoryManager::GetInstance(), &other);
    EXPECT_EQ(SeenManager::m_pInstance.load(), &other);
    CMemoryManager::Release(Allocate());
    EXPECT_EQ(other.m_nMaxSize, 10);
    EXPECT_EQ(m_manager.m_nMaxSize, 0);
}

TEST_F(MemoryMgrTest, ClearsTheInstanceWhenAnyManagerIsDestroyed) {
    { const SeenManager other; }
    EXPECT_EQ(CMemoryManager::GetInstance(), nullptr);
}

TEST_F(MemoryMgrTest, KeepsItsFieldsInTheirOrder) {
    const auto* base = static_cast<const ContextThread*>(&m_manager);
    EXPECT_EQ(static_cast<const void*>(base), static_cast<const void*>(&m_manager));
    EXPECT_EQ(&m_manager.m_nCount + 1, &m_manager.m_nMaxSize);
    EXPECT_EQ(&m_manager.m_nMaxSize + 1, &m_manager.m_nTotalSize);
    EXPECT_EQ(static_cast<void*>(&m_manager.m_nTotalSize + 1), static_cast<void*>(m_manager.m_table));
    EXPECT_EQ(sizeof(m_manager.m_table), kSlots * std::size_t{64});
    EXPECT_EQ(sizeof(SeenManager::m_pInstance), sizeof(void*));
}

TEST_F(MemoryMgrTest, GivesNullWithoutAnInstance) {
    CMemoryManager::SetInstance(nullptr);
    EXPECT_EQ(Allocate(), nullptr);
}

TEST_F(MemoryMgrTest, FreesPlainBlocksWithoutAnInstance) {
    CMemoryManager::SetInstance(nullptr);
    CMemoryManager::Release(std::malloc(10));  // the leak checker sees whether it did
    CMemoryManager::Release(nullptr);
}

TEST_F(MemoryMgrDeathTest, GivesNullWhenNoMemoryIsLeft) {
    const auto allocateUnderALimit = [this] {
        rlimit limit{};
        getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = 1;  // nothing further is mapped
        setrlimit(RLIMIT_AS, &limit);
        void* block = Allocate(sizeof(std::size_t) == 4 ? 0xe0000000U : 1U << 30);  // an emulator keeps to no limit
        const bool isUntouched = m_manager.m_nCount == 0 && m_manager.m_nTotalSize == 0 && m_manager.m_nMaxSize == 0;
        std::_Exit(block == nullptr && isUntouched ? 0 : 1);
    };
    EXPECT_EXIT(allocateUnderALimit(), ::testing::ExitedWithCode(0), "");
}

TEST_F(MemoryMgrTest, GivesNullForASizeThatTheHeaderWouldWrapAround) {
    if constexpr (sizeof(std::size_t) == 4) {
        EXPECT_EQ(Allocate(std::numeric_limits<unsigned int>::max()), nullptr);
        EXPECT_EQ(Allocate(std::numeric_limits<unsigned int>::max() - 63), nullptr);
    } else {
        void* block = Allocate(std::numeric_limits<unsigned int>::max() - 63);
        if (block != nullptr) {  // a machine with that much memory
            static_cast<char*>(block)[std::numeric_limits<unsigned int>::max() - 64] = 'x';
            EXPECT_EQ(HeaderOf(block)->nSize, std::numeric_limits<unsigned int>::max() - 63);
        }
        CMemoryManager::Release(block);
    }
    EXPECT_EQ(m_manager.m_nCount, 0);
}

// Blocks and headers.

TEST_F(MemoryMgrTest, PutsAHeaderOf64BytesInFrontOfABlockAndCountsIt) {
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

TEST_F(MemoryMgrTest, HandsOutAlignedBlocksOfTheWholeSize) {
    for (const unsigned int size : {0U, 1U, 63U, 4096U}) {
        void* block = Allocate(size);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(AddressOf(block) % alignof(std::max_align_t), 0U);
        std::memset(block, 0xff, size);
        CMemoryManager::Release(block);
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(MemoryMgrTest, KeepsFiftyCharactersOfAFileName) {
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

TEST_F(MemoryMgrTest, TakesANullFileNameForAnEmptyOne) {
    void* block = Allocate(1, nullptr);
    EXPECT_STREQ(HeaderOf(block)->szFileName, "");
    CMemoryManager::Release(block);
}

TEST_F(MemoryMgrTest, KeepsThePeakOfTheBytesInUse) {
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

TEST_F(MemoryMgrTest, WrapsSizesAroundIn32Bits) {
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

TEST_F(MemoryMgrTest, FreesBlocksThatItNeverHandedOut) {
    void* tracked = Allocate();
    CMemoryManager::Release(std::malloc(10));  // the leak checker sees whether it did
    CMemoryManager::Release(strdup("text"));
    CMemoryManager::Release(nullptr);
    ExpectCounters(1, 10, 10);
    EXPECT_EQ(BlockPointerOf(m_manager.m_table[0]), AddressOf(tracked));
    CMemoryManager::Release(tracked);
    CMemoryManager::Release(nullptr);
}

TEST_F(MemoryMgrTest, LooksForABlockOnlyWhereAnyIsCounted) {
    void* plain = std::calloc(1, 10);
    m_manager.m_table[7].nBlockLow = static_cast<std::uint32_t>(AddressOf(plain));
    m_manager.m_table[7].nBlockHigh = static_cast<std::uint16_t>(AddressOf(plain) >> 32);
    CMemoryManager::Release(plain);
    EXPECT_FALSE(IsFree(m_manager.m_table[7]));
    EXPECT_EQ(m_manager.m_nCount, 0);
}

// The table.

TEST_F(MemoryMgrTest, StoresABlockInTheLowestFreeSlot) {
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

TEST_F(MemoryMgrTest, HandsOutPlainBlocksOnceAThousandAreTracked) {
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
    std::free(second);  // a plain block, without a header in front
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

TEST_F(MemoryMgrTest, RefusesAHeaderOnceAThousandBlocksAreCounted) {
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

TEST_F(MemoryMgrTest, CountsAheadOfTheTableWhereNoSlotIsFree) {
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

TEST_F(MemoryMgrTest, RemovesOnlyWhatItHolds) {
    void* block = Allocate();
    EXPECT_FALSE(m_manager.__RemoveMemory(static_cast<char*>(block) + 1));
    EXPECT_FALSE(m_manager.__RemoveMemory(nullptr));
    if constexpr (sizeof(void*) == sizeof(std::uint64_t)) {  // nor what agrees in 48 bits
        const std::uint64_t address = AddressOf(block) | (std::uint64_t{1} << 48);
        void* other = nullptr;
        std::memcpy(&other, &address, sizeof(other));
        EXPECT_FALSE(m_manager.__RemoveMemory(other));
    }
    ExpectCounters(1, 10, 10);
    EXPECT_TRUE(m_manager.__RemoveMemory(block));
    ExpectCounters(0, 0, 10);
}

// Damage.

struct Damage {
    const char* name;
    std::function<void(TMemHeader&)> make;
};

const Damage kReported[] = {
    {"line", [](TMemHeader& header) { ++header.nLine; }},
    {"size", [](TMemHeader& header) { header.nSize = 9999; }},
    {"start of the name", [](TMemHeader& header) { header.szFileName[0] = 'x'; }},
    {"end of the name", [](TMemHeader& header) { header.szFileName[49] = 'x'; }},
};

const Damage kNotCompared[] = {
    {"block pointer", [](TMemHeader& header) { header.nBlockLow ^= 1; }},
    {"upper block pointer", [](TMemHeader& header) { header.nBlockHigh ^= 1; }},
};

const std::string kLongName(60, 'n');  ///< kept without a terminator

TEST_F(MemoryMgrTest, ReportsADamagedHeaderAtEveryCheckAndLeavesItAsItIs) {
    for (const Damage& damage : kReported) {
        void* block = Allocate(10, kLongName.c_str(), 7);
        TMemHeader* live = HeaderOf(block);
        damage.make(*live);
        const TMemHeader damaged = *live;
        const TMemHeader saved = m_manager.m_table[0];
        const std::string liveName(live->szFileName, 49);
        for (int round = 0; round < 2; ++round) {
            CapturedLog::Clear();
            Check(m_manager);
            EXPECT_EQ(CapturedLog::Messages(),
                      (std::vector<std::string>{
                          std::string("I ") + kErrorLine,
                          "I " + HeaderLine("Test", block, live, liveName, live->nLine),
                          "I " + HeaderLine("List", block, &m_manager.m_table[0], kLongName.substr(0, 49), 7),
                      }))
                << damage.name;
        }
        EXPECT_EQ(std::memcmp(live, &damaged, sizeof(damaged)), 0) << damage.name;
        EXPECT_EQ(std::memcmp(&m_manager.m_table[0], &saved, sizeof(saved)), 0) << damage.name;
        CMemoryManager::Release(block);
    }
}

TEST_F(MemoryMgrTest, ReportsADamagedHeaderAtItsReleaseAndFreesTheBlock) {
    for (const Damage& damage : kReported) {
        void* block = Allocate(10, kLongName.c_str(), 7);
        TMemHeader* live = HeaderOf(block);
        damage.make(*live);
        const std::string liveName(live->szFileName, 49);
        const int liveLine = live->nLine;
        CapturedLog::Clear();
        CMemoryManager::Release(block);
        EXPECT_EQ(CapturedLog::Messages(),
                  (std::vector<std::string>{
                      "I " + HeaderLine("Delete", block, live, liveName, liveLine),
                      "I " + HeaderLine("List  ", block, &m_manager.m_table[0], kLongName.substr(0, 49), 7),
                  }))
            << damage.name;
        ExpectCounters(0, 0, 10);  // by the size that was saved, not by the damaged one
        EXPECT_TRUE(IsFree(m_manager.m_table[0]));
    }
}

TEST_F(MemoryMgrTest, ComparesNeitherTheBlockPointerNorWhatFollowsTheFileName) {
    for (const std::string& file : {std::string("short.cpp"), kLongName}) {
        for (const Damage& damage : kNotCompared) {
            void* block = Allocate(10, file.c_str());
            damage.make(*HeaderOf(block));
            if (file.size() < 50) {
                HeaderOf(block)->szFileName[file.size() + 1] = 'x';
            }
            Check(m_manager);
            CMemoryManager::Release(block);
            EXPECT_TRUE(CapturedLog::Lines().empty()) << damage.name << " of " << file;
        }
    }
    ExpectCounters(0, 0, 10);
}

TEST_F(MemoryMgrTest, ReportsEveryDamagedBlockInTheOrderOfTheTable) {
    void* blocks[] = {Allocate(1, "a", 1), Allocate(1, "b", 2), Allocate(1, "c", 3)};
    ++HeaderOf(blocks[2])->nLine;
    ++HeaderOf(blocks[0])->nLine;
    Check(m_manager);
    const std::vector<std::string> messages = CapturedLog::Messages();
    ASSERT_EQ(messages.size(), 6U);
    EXPECT_EQ(messages[1], "I " + HeaderLine("Test", blocks[0], HeaderOf(blocks[0]), "a", 2));
    EXPECT_EQ(messages[5], "I " + HeaderLine("List", blocks[2], &m_manager.m_table[2], "c", 3));
    for (void* block : blocks) {
        CMemoryManager::Release(block);
    }
}

TEST_F(MemoryMgrTest, ChecksNothingWhereNoBlockIsCounted) {
    void* block = Allocate();
    ++HeaderOf(block)->nLine;
    m_manager.m_nCount = 0;
    Check(m_manager);
    EXPECT_TRUE(CapturedLog::Lines().empty());
    m_manager.m_nCount = 1;
    CMemoryManager::Release(block);
}

TEST_F(MemoryMgrTest, LogsFromTheMethodThatCompares) {
    void* block = Allocate();
    ++HeaderOf(block)->nLine;
    Check(m_manager);
    CMemoryManager::Release(block);
    const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
    const struct {
        const char* function;
        const char* format;
    } rows[] = {
        {"__CheckMemory", "*********  Memory ERROR *********!!!!!!!!"},
        {"__CheckMemory", "Test Memory..0x%p, Header (0x%p , %s, %d)"},
        {"__CheckMemory", "List Memory..0x%p, Header (0x%p , %s, %d)"},
        {"__RemoveMemory", "Delete Memory..0x%p, Header (0x%p , %s, %d)"},
        {"__RemoveMemory", "List   Memory..0x%p, Header (0x%p , %s, %d)"},
    };
    ASSERT_EQ(lines.size(), std::size(rows));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].priority, 4);
        EXPECT_EQ(lines[i].tag, "LMR_COMMON");
        EXPECT_EQ(lines[i].file, "MemoryMgr.cpp");
        EXPECT_EQ(lines[i].function, rows[i].function);
        EXPECT_EQ(lines[i].format, rows[i].format);
    }
}

// The checker.

TEST_F(MemoryMgrTest, ChecksAtTheStartAndThenEveryTwoSeconds) {
    void* block = Allocate();
    ++HeaderOf(block)->nLine;
    ASSERT_TRUE(m_manager.Start());
    ASSERT_TRUE(g_pauses.WaitFor(1));
    EXPECT_EQ(CapturedLog::Count(kErrorLine), 1);
    g_pauses.EndOne();
    ASSERT_TRUE(g_pauses.WaitFor(2));
    EXPECT_EQ(CapturedLog::Count(kErrorLine), 2);
    EXPECT_EQ(g_pauses.Entered(), (std::vector<gulong>{2000000, 2000000}));
    g_pauses.EndAll();
    EXPECT_TRUE(m_manager.Stop());
    CMemoryManager::Release(block);
    EXPECT_FALSE(SeenManager::m_bStarted);
}

TEST_F(MemoryMgrTest, DoesNotCheckWhileThereIsNoInstance) {
    void* block = Allocate();
    ++HeaderOf(block)->nLine;
    CMemoryManager::SetInstance(nullptr);
    ASSERT_TRUE(m_manager.Start());
    ASSERT_TRUE(g_pauses.WaitFor(1));
    EXPECT_TRUE(CapturedLog::Lines().empty());
    CMemoryManager::SetInstance(&m_manager);
    g_pauses.EndOne();
    ASSERT_TRUE(g_pauses.WaitFor(2));
    EXPECT_EQ(CapturedLog::Count(kErrorLine), 1);
    g_pauses.EndAll();
    EXPECT_TRUE(m_manager.Stop());
    CMemoryManager::Release(block);
}

TEST_F(MemoryMgrTest, ChecksItsOwnTableWhicheverTheInstanceIs) {
    SeenManager other;
    CMemoryManager::SetInstance(&other);
    void* ofOther = Allocate(1, "other.cpp");
    ++HeaderOf(ofOther)->nLine;
    CMemoryManager::SetInstance(&m_manager);
    void* own = Allocate(1, "own.cpp");
    ++HeaderOf(own)->nLine;
    CMemoryManager::SetInstance(&other);
    ASSERT_TRUE(m_manager.Start());
    ASSERT_TRUE(g_pauses.WaitFor(1));
    ASSERT_EQ(CapturedLog::Lines().size(), 3U);
    EXPECT_NE(CapturedLog::Lines()[1].message.find("own.cpp"), std::string::npos);
    g_pauses.EndAll();
    EXPECT_TRUE(m_manager.Stop());
    CMemoryManager::Release(ofOther);
    CMemoryManager::SetInstance(&m_manager);
    CMemoryManager::Release(own);
}

TEST_F(MemoryMgrTest, ServesManyThreadsWhileTheCheckerRuns) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    ASSERT_TRUE(m_manager.Start());
    g_pauses.EndAll();
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            std::vector<void*> blocks;
            for (int round = 0; round < kRounds; ++round) {
                blocks.push_back(Allocate(20, "thread.cpp", thread));
                std::memset(blocks.back(), round & 0xff, 20);
                if (round % 3 == 2) {
                    CMemoryManager::Release(blocks[blocks.size() / 2]);
                    blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(blocks.size() / 2));
                }
            }
            for (void* block : blocks) {
                CMemoryManager::Release(block);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(m_manager.Stop());
    EXPECT_EQ(m_manager.m_nCount, 0);
    EXPECT_EQ(m_manager.m_nTotalSize, 0);
    EXPECT_GT(m_manager.m_nMaxSize, 0);
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

}  // namespace
