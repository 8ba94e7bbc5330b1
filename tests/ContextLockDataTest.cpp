// SPDX-License-Identifier: Apache-2.0
#include "ContextLockData.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "MutexCount.h"
#include "Waiting.h"

namespace {

/// Runs inside every strdup() of its thread; false makes the copy fail for want of memory.
thread_local std::function<bool()> t_onCopy;

}  // namespace

// In the place of the C library's, for the library too.
extern "C" char* strdup(const char* text) noexcept {
    if (t_onCopy && !t_onCopy()) {
        return nullptr;
    }
    const std::size_t size = std::strlen(text) + 1;
    void* copy = std::malloc(size);
    return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text, size));
}

namespace {

using ::testing::Test;

static_assert(sizeof(ContextLockData) == sizeof(char*) + sizeof(GMutex), "a pointer and the mutex itself");
static_assert(!std::is_copy_constructible_v<ContextLockData> && !std::is_copy_assignable_v<ContextLockData>,
              "a mutex cannot be copied");

/// Sets what happens in strdup() on this thread, for one scope.
class OnCopy {
public:
    explicit OnCopy(std::function<bool()> action) { t_onCopy = std::move(action); }
    ~OnCopy() { t_onCopy = nullptr; }
    OnCopy(const OnCopy&) = delete;
    OnCopy& operator=(const OnCopy&) = delete;
};

/// @return the bytes handed out by malloc; always 0 under a sanitizer, whose own leak checker sees the same.
std::size_t HeapInUse() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

class ContextLockDataTest : public Test {
protected:
    void SetUp() override { CapturedLog::Clear(); }

    /// What GetData() hands out, as a string; "(null)" for null.
    static std::string Take(ContextLockData& data) {
        const std::unique_ptr<char, decltype(&std::free)> copy(data.GetData(), std::free);
        return copy ? copy.get() : "(null)";
    }

    ContextLockData m_data;
};

TEST_F(ContextLockDataTest, HoldsNothingAtFirst) {
    EXPECT_TRUE(m_data.IsEmpty());
    EXPECT_EQ(Take(m_data), "(null)");
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextLockDataTest, HoldsACopyOfWhatWasSet) {
    char text[] = "abc";
    m_data.SetData(text);
    text[0] = 'x';
    EXPECT_FALSE(m_data.IsEmpty());
    EXPECT_EQ(Take(m_data), "abc");
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextLockDataTest, ReplacesWhatItHolds) {
    m_data.SetData("abc");
    m_data.SetData("de");
    EXPECT_EQ(Take(m_data), "de");
}

TEST_F(ContextLockDataTest, HandsOutDistinctCopiesThatTheCallerFrees) {
    m_data.SetData("abc");
    char* first = m_data.GetData();
    char* second = m_data.GetData();
    EXPECT_NE(first, second);
    EXPECT_STREQ(first, second);
    std::free(first);
    EXPECT_STREQ(second, "abc");
    EXPECT_EQ(Take(m_data), "abc");
    std::free(second);
}

TEST_F(ContextLockDataTest, LogsAnEmptyArgumentAndLosesWhatItHeld) {
    for (const char* rejected : {static_cast<const char*>(nullptr), ""}) {
        CapturedLog::Clear();
        m_data.SetData("abc");
        m_data.SetData(rejected);
        EXPECT_TRUE(m_data.IsEmpty());
        EXPECT_EQ(Take(m_data), "(null)");
        const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].buffer, 0);
        EXPECT_EQ(lines[0].priority, 6);
        EXPECT_EQ(lines[0].tag, "LMR_COMMON");
        EXPECT_EQ(lines[0].file, "ContextLockData.cpp");
        EXPECT_EQ(lines[0].function, "SetData");
        EXPECT_GT(lines[0].line, 0);
        EXPECT_EQ(lines[0].format, "ContextLockData --> SetData Error");
        EXPECT_EQ(lines[0].message, "ContextLockData --> SetData Error");
    }
}

TEST_F(ContextLockDataTest, CanBeSetAgainAfterARejectedArgument) {
    m_data.SetData("");
    m_data.SetData("again");
    EXPECT_EQ(Take(m_data), "again");
}

TEST_F(ContextLockDataTest, ResetsSilently) {
    m_data.ResetData();
    EXPECT_TRUE(m_data.IsEmpty());
    m_data.SetData("abc");
    m_data.ResetData();
    EXPECT_TRUE(m_data.IsEmpty());
    EXPECT_EQ(Take(m_data), "(null)");
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextLockDataTest, WritesNothingToTheConsole) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    m_data.SetData(nullptr);
    m_data.SetData("abc");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(CapturedLog::Lines().size(), 1U);
}

TEST_F(ContextLockDataTest, IsEmptyAndSilentWhenTheCopyToHoldFails) {
    m_data.SetData("abc");
    {
        const OnCopy outOfMemory([] { return false; });
        m_data.SetData("de");
    }
    EXPECT_TRUE(m_data.IsEmpty());
    EXPECT_EQ(Take(m_data), "(null)");
    EXPECT_TRUE(CapturedLog::Lines().empty());
    m_data.SetData("again");
    EXPECT_EQ(Take(m_data), "again");
}

TEST_F(ContextLockDataTest, HandsOutNullAndKeepsWhatItHoldsWhenTheCopyToHandOutFails) {
    m_data.SetData("abc");
    {
        const OnCopy outOfMemory([] { return false; });
        EXPECT_EQ(m_data.GetData(), nullptr);
    }
    EXPECT_FALSE(m_data.IsEmpty());
    EXPECT_EQ(Take(m_data), "abc");
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextLockDataTest, ReleasesWhatItHeldHoweverItIsLost) {
    const struct {
        const char* name;
        void (*lose)(std::unique_ptr<ContextLockData>&);
    } rows[] = {
        {"destroyed", [](std::unique_ptr<ContextLockData>& data) { data.reset(); }},
        {"reset", [](std::unique_ptr<ContextLockData>& data) { data->ResetData(); }},
        {"replaced", [](std::unique_ptr<ContextLockData>& data) { data->SetData("abc"); }},
        {"rejected", [](std::unique_ptr<ContextLockData>& data) { data->SetData(""); }},
    };
    const std::string text(1 << 20, 'x');
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto data = std::make_unique<ContextLockData>();
        const std::size_t before = HeapInUse();
        data->SetData(text.c_str());
        EXPECT_TRUE(before == 0 || HeapInUse() >= before + text.size());
        row.lose(data);
        EXPECT_LT(HeapInUse(), before + text.size());
    }
}

TEST_F(ContextLockDataTest, InitialisesEveryFieldWhateverTheMemoryHeld) {
    alignas(ContextLockData) static unsigned char memory[sizeof(ContextLockData)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xa5));
    static Waiting::Gate done;  // outlives the thread, which a wrong mutex would block for ever
    static std::string taken;
    std::thread([] {
        auto* data = new (memory) ContextLockData;
        taken = Take(*data);
        data->SetData("abc");
        taken += Take(*data);
        data->~ContextLockData();
        done.Open();
    }).detach();
    ASSERT_TRUE(done.Wait());
    EXPECT_EQ(taken, "(null)abc");
}

TEST_F(ContextLockDataTest, ClearsItsMutexWhenDestroyed) {
    alignas(ContextLockData) unsigned char memory[sizeof(ContextLockData)];
    MutexCount::Reset();
    auto* data = new (memory) ContextLockData;
    data->SetData("abc");
    EXPECT_EQ(MutexCount::Initialised(memory, sizeof(memory)), 1);
    EXPECT_EQ(MutexCount::Cleared(memory, sizeof(memory)), 0);
    data->~ContextLockData();
    EXPECT_EQ(MutexCount::Initialised(memory, sizeof(memory)), 1);
    EXPECT_EQ(MutexCount::Cleared(memory, sizeof(memory)), 1);
}

TEST_F(ContextLockDataTest, HoldsItsMutexWhileACopyIsMade) {
    using Operation = std::function<void(ContextLockData&)>;
    const struct {
        const char* name;
        Operation run;
    } copying[] = {
        {"SetData", [](ContextLockData& data) { data.SetData("set"); }},
        {"GetData", [](ContextLockData& data) { Take(data); }},
    };
    const struct {
        const char* name;
        Operation run;
    } waiting[] = {
        {"SetData", [](ContextLockData& data) { data.SetData(""); }},
        {"GetData", [](ContextLockData& data) { Take(data); }},
        {"ResetData", [](ContextLockData& data) { data.ResetData(); }},
        {"IsEmpty", [](ContextLockData& data) { data.IsEmpty(); }},
    };
    for (const auto& first : copying) {
        for (const auto& second : waiting) {
            SCOPED_TRACE(std::string(second.name) + " while " + first.name + " copies");
            ContextLockData data;
            data.SetData("held");
            Waiting::Gate begun;
            Waiting::Gate ended;
            std::thread other;
            {
                const OnCopy meanwhile([&] {
                    other = std::thread([&] {
                        begun.Open();
                        second.run(data);
                        ended.Open();
                    });
                    EXPECT_TRUE(begun.Wait());
                    EXPECT_FALSE(ended.Wait(std::chrono::milliseconds(20)));
                    return true;
                });
                first.run(data);
            }
            EXPECT_TRUE(ended.Wait());
            ASSERT_TRUE(other.joinable());
            other.join();
        }
    }
}

TEST_F(ContextLockDataTest, ServesManyThreadsAtOnce) {
    constexpr int kRounds = 2000;
    std::atomic<int> torn{0};
    const auto write = [&](const char* text) {
        for (int round = 0; round < kRounds; ++round) {
            m_data.SetData(text);
            if (round % 16 == 0) {
                m_data.ResetData();
            }
        }
    };
    const auto read = [&] {
        for (int round = 0; round < kRounds; ++round) {
            const std::string text = Take(m_data);
            torn += text != "(null)" && text != "first" && text != "the second";
            m_data.IsEmpty();
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(write, "first");
    threads.emplace_back(write, "the second");
    threads.emplace_back(read);
    threads.emplace_back(read);
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn, 0);
}

}  // namespace
