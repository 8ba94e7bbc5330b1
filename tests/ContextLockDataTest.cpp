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
#include "LogExpectation.h"
#include "MutexCount.h"
#include "Waiting.h"

namespace {

/// Called inside every strdup() of this thread; when it returns false, strdup() returns null.
thread_local std::function<bool()> t_onCopy;

}  // namespace

// Replaces the C library's strdup(), for the library too.
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

static_assert(!std::is_copy_constructible_v<ContextLockData> && !std::is_copy_assignable_v<ContextLockData>,
              "a mutex cannot be copied");

/// Sets the action in strdup() of this thread for one scope.
class OnCopy {
public:
    explicit OnCopy(std::function<bool()> action) { t_onCopy = std::move(action); }
    ~OnCopy() { t_onCopy = nullptr; }
    OnCopy(const OnCopy&) = delete;
    OnCopy& operator=(const OnCopy&) = delete;
};

/// @return the number of bytes that malloc has allocated. It is always 0 under a sanitizer, where LeakSanitizer
/// finds the same errors.
std::size_t HeapInUse() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

class ContextLockDataTest : public Test {
protected:
    void SetUp() override { CapturedLog::Clear(); }

    /// @return the text that GetData() returns, or "(null)" when it returns null.
    static std::string Take(ContextLockData& data) {
        const std::unique_ptr<char, decltype(&std::free)> copy(data.GetData(), std::free);
        return copy ? copy.get() : "(null)";
    }

    ContextLockData m_data;
};

TEST_F(ContextLockDataTest, IsEmptyAtFirst) {
    EXPECT_TRUE(m_data.IsEmpty());
    EXPECT_EQ(Take(m_data), "(null)");
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextLockDataTest, HoldsACopyOfTheArgument) {
    char text[] = "abc";
    m_data.SetData(text);
    text[0] = 'x';
    EXPECT_FALSE(m_data.IsEmpty());
    EXPECT_EQ(Take(m_data), "abc");
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextLockDataTest, ReplacesTheHeldString) {
    m_data.SetData("abc");
    m_data.SetData("de");
    EXPECT_EQ(Take(m_data), "de");
}

TEST_F(ContextLockDataTest, ReturnsDistinctCopiesThatTheCallerFrees) {
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

TEST_F(ContextLockDataTest, LogsAnEmptyArgumentAndDropsTheHeldString) {
    for (const char* rejected : {static_cast<const char*>(nullptr), ""}) {
        CapturedLog::Clear();
        m_data.SetData("abc");
        m_data.SetData(rejected);
        EXPECT_TRUE(m_data.IsEmpty());
        EXPECT_EQ(Take(m_data), "(null)");
        ExpectOneLogLine(/*priority=*/6, "ContextLockData.cpp", "SetData", "ContextLockData --> SetData Error");
    }
}

TEST_F(ContextLockDataTest, AcceptsAStringAfterARejectedArgument) {
    m_data.SetData("");
    m_data.SetData("again");
    EXPECT_EQ(Take(m_data), "again");
}

TEST_F(ContextLockDataTest, ResetsWithoutLogging) {
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

TEST_F(ContextLockDataTest, IsEmptyWithoutLoggingWhenSetDataCannotCopy) {
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

TEST_F(ContextLockDataTest, KeepsTheHeldStringWhenGetDataCannotCopy) {
    m_data.SetData("abc");
    {
        const OnCopy outOfMemory([] { return false; });
        EXPECT_EQ(m_data.GetData(), nullptr);
    }
    EXPECT_FALSE(m_data.IsEmpty());
    EXPECT_EQ(Take(m_data), "abc");
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextLockDataTest, FreesTheHeldStringInEveryCase) {
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

TEST_F(ContextLockDataTest, InitialisesEveryFieldInDirtyMemory) {
    alignas(ContextLockData) static unsigned char memory[sizeof(ContextLockData)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xa5));
    static Waiting::Gate done;  // outlives the thread, which an uninitialised mutex would block for ever
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

using Operation = void (*)(ContextLockData&);

struct NamedOperation {
    const char* name;
    Operation run;
};

constexpr NamedOperation kOperations[] = {
    {"SetData", [](ContextLockData& data) { data.SetData(""); }},
    {"GetData", [](ContextLockData& data) { std::free(data.GetData()); }},
    {"ResetData", [](ContextLockData& data) { data.ResetData(); }},
    {"IsEmpty", [](ContextLockData& data) { data.IsEmpty(); }},
};

/// Runs one operation on another thread, while this thread is inside an operation on the same object.
class Contender {
public:
    Contender(Operation operation, ContextLockData& data) : m_operation(operation), m_data(data) {}

    void ExpectBlocked() {
        m_thread = std::thread([this] {
            m_begun.Open();
            m_operation(m_data);
            m_ended.Open();
        });
        EXPECT_TRUE(m_begun.Wait());
        EXPECT_FALSE(m_ended.Wait(std::chrono::milliseconds(20)));
    }

    void ExpectFinished() {
        EXPECT_TRUE(m_ended.Wait());
        ASSERT_TRUE(m_thread.joinable()) << "the operation was never started";
        m_thread.join();
    }

private:
    Operation m_operation;
    ContextLockData& m_data;
    Waiting::Gate m_begun;
    Waiting::Gate m_ended;
    std::thread m_thread;
};

TEST_F(ContextLockDataTest, HoldsItsMutexWhileItCopies) {
    const NamedOperation copying[] = {
        {"SetData", [](ContextLockData& data) { data.SetData("set"); }},
        {"GetData", [](ContextLockData& data) { std::free(data.GetData()); }},
    };
    for (const auto& first : copying) {
        for (const auto& second : kOperations) {
            SCOPED_TRACE(std::string(second.name) + " while " + first.name + " copies");
            ContextLockData data;
            data.SetData("held");
            Contender contender(second.run, data);
            {
                const OnCopy meanwhile([&] {
                    contender.ExpectBlocked();
                    return true;
                });
                first.run(data);
            }
            contender.ExpectFinished();
        }
    }
}

TEST_F(ContextLockDataTest, HoldsItsMutexWhileItLogs) {
    for (const auto& second : kOperations) {
        SCOPED_TRACE(std::string(second.name) + " while SetData logs");
        ContextLockData data;
        data.SetData("held");
        Contender contender(second.run, data);
        {
            const CapturedLog::OnLog meanwhile([&] { contender.ExpectBlocked(); });
            data.SetData("");
        }
        contender.ExpectFinished();
    }
}

TEST_F(ContextLockDataTest, AllowsCallsFromManyThreads) {
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
