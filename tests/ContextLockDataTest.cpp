// SPDX-License-Identifier: Apache-2.0
#include "ContextLockData.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CapturedLog.h"

namespace {

using ::testing::Test;

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
