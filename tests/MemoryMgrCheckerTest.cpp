// SPDX-License-Identifier: Apache-2.0
#include "MemoryMgr.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "ChildProcess.h"
#include "ContextAutoLock.h"
#include "MemoryFixture.h"
#include "Waiting.h"

// Detection of damaged headers, at release and by the checker thread.

namespace {

/// Controls g_usleep(), in which the checker pauses between two checks.
class Pauses {
public:
    void Enter(gulong microseconds) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_entered.push_back(microseconds);
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_allowed >= m_entered.size(); });
    }

    /// Ends the current pause, or the next one if the checker is not pausing.
    void EndOne() { Allow(1); }

    /// Ends the current pause and all further ones.
    void EndAll() { Allow(std::numeric_limits<std::size_t>::max() / 2); }

    void Reset() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_entered.clear();
        m_allowed = 0;
    }

    /// Waits until `count` pauses have begun since Reset().
    bool WaitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, Waiting::kBound, [&] { return m_entered.size() >= count; });
    }

    /// @return the arguments of g_usleep() since Reset().
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
    std::vector<gulong> m_entered;  ///< guarded by m_mutex
    std::size_t m_allowed = 0;      ///< pauses that may end; guarded by m_mutex
} g_pauses;

}  // namespace

extern "C" void g_usleep(gulong microseconds) {
    g_pauses.Enter(microseconds);
}

namespace {

const char* const kErrorLine = "*********  Memory ERROR *********!!!!!!!!";
const std::string kLongName(60, 'n');  ///< stored without a terminator

/// @return a log line that shows a header.
std::string HeaderLine(const char* start, void* block, const TMemHeader* header, const std::string& file, int line) {
    char text[256];
    std::snprintf(text, sizeof(text), "%s Memory..0x%p, Header (0x%p , %s, %d)", start, block,
                  static_cast<const void*>(header), file.c_str(), line);
    return text;
}

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

const Damage kIgnored[] = {
    {"block pointer", [](TMemHeader& header) { header.nBlockLow ^= 1; }},
    {"upper block pointer", [](TMemHeader& header) { header.nBlockHigh ^= 1; }},
};

class MemoryMgrCheckerTest : public MemoryTest {
protected:
    void SetUp() override {
        MemoryTest::SetUp();
        g_pauses.Reset();
    }

    void TearDown() override {
        if (m_manager.IsRuning()) {
            g_pauses.EndAll();
            m_manager.Stop();
        }
        MemoryTest::TearDown();
    }

    static void Check(CMemoryManager& manager) {
        const ContextAutoLock lock(&OpenManager::m_mutex);
        manager.__CheckMemory();
    }
};

// Damage.

TEST_F(MemoryMgrCheckerTest, ReportsDamageAtEveryCheckWithoutRepair) {
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

TEST_F(MemoryMgrCheckerTest, ReportsDamageAtReleaseAndFreesBlock) {
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
        ExpectCounters(0, 0, 10);  // the size comes from the copy, not from the damaged header
        EXPECT_TRUE(IsFree(m_manager.m_table[0]));
    }
}

TEST_F(MemoryMgrCheckerTest, IgnoresBlockPointerAndBytesAfterFileName) {
    for (const std::string& file : {std::string("short.cpp"), kLongName}) {
        for (const Damage& damage : kIgnored) {
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

TEST_F(MemoryMgrCheckerTest, ReportsDamagedBlocksInTableOrder) {
    void* blocks[] = {Allocate(1, "a", 1), Allocate(1, "b", 2), Allocate(1, "c", 3)};
    ++HeaderOf(blocks[2])->nLine;
    ++HeaderOf(blocks[0])->nLine;
    CMemoryManager::Release(std::exchange(blocks[1], nullptr));  // a free slot does not end the check
    Check(m_manager);
    const std::vector<std::string> messages = CapturedLog::Messages();
    ASSERT_EQ(messages.size(), 6U);
    EXPECT_EQ(messages[1], "I " + HeaderLine("Test", blocks[0], HeaderOf(blocks[0]), "a", 2));
    EXPECT_EQ(messages[5], "I " + HeaderLine("List", blocks[2], &m_manager.m_table[2], "c", 3));
    for (void* block : blocks) {
        CMemoryManager::Release(block);
    }
}

TEST_F(MemoryMgrCheckerTest, SkipsCheckIfNoBlockIsCounted) {
    void* block = Allocate();
    ++HeaderOf(block)->nLine;
    m_manager.m_nCount = 0;
    Check(m_manager);
    EXPECT_TRUE(CapturedLog::Lines().empty());
    m_manager.m_nCount = 1;
    CMemoryManager::Release(block);
}

TEST_F(MemoryMgrCheckerTest, LogsFromMethodThatFindsDamage) {
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

// The checker thread.

TEST_F(MemoryMgrCheckerTest, ChecksAtStartAndEveryTwoSeconds) {
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
    EXPECT_FALSE(OpenManager::m_bStarted);
}

TEST_F(MemoryMgrCheckerTest, UnlocksMutexDuringPause) {
    ASSERT_TRUE(m_manager.Start());
    ASSERT_TRUE(g_pauses.WaitFor(1));
    ASSERT_TRUE(g_mutex_trylock(&OpenManager::m_mutex)) << "the checker holds the mutex while it pauses";
    g_mutex_unlock(&OpenManager::m_mutex);
    void* block = Allocate();
    EXPECT_NE(block, nullptr);
    CMemoryManager::Release(block);
    EXPECT_EQ(g_pauses.Entered().size(), 1U) << "the pause ended";
}

TEST_F(MemoryMgrCheckerTest, EveryUseOfTheTableWaitsForTheMutex) {
    void* before = Allocate();
    void* added = nullptr;
    Waiting::Gate allocated;
    Waiting::Gate released;
    g_mutex_lock(&OpenManager::m_mutex);
    ASSERT_TRUE(m_manager.Start());
    std::thread allocating([&] {
        added = Allocate();
        allocated.Open();
    });
    std::thread releasing([&] {
        CMemoryManager::Release(before);
        released.Open();
    });
    EXPECT_FALSE(allocated.Wait(std::chrono::milliseconds(20)));
    EXPECT_FALSE(released.Wait(std::chrono::milliseconds(20)));
    EXPECT_TRUE(g_pauses.Entered().empty()) << "the checker did not wait";
    g_mutex_unlock(&OpenManager::m_mutex);
    EXPECT_TRUE(allocated.Wait());
    EXPECT_TRUE(released.Wait());
    EXPECT_TRUE(g_pauses.WaitFor(1));
    allocating.join();
    releasing.join();
    CMemoryManager::Release(added);
}

TEST_F(MemoryMgrCheckerTest, DoesNotCheckWithoutInstance) {
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

TEST_F(MemoryMgrCheckerTest, ChecksOwnTableWhateverInstanceIsSet) {
    OpenManager other;
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

TEST_F(MemoryMgrCheckerTest, ServesManyThreadsDuringChecks) {
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

TEST_F(MemoryMgrCheckerTest, DestructorDoesNotStopChecker) {
    ChildProcess::UseNewProgram();
    const auto destroyDuringPause = [] {
        auto* manager = new OpenManager;
        manager->Start();
        g_pauses.WaitFor(1);
        delete manager;
        std::_Exit(0);  // while the checker pauses
    };
    EXPECT_EXIT(ChildProcess::RunWithBound(destroyDuringPause), ::testing::ExitedWithCode(0), "");
}

}  // namespace
