// SPDX-License-Identifier: Apache-2.0
#include "Log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CapturedLog.h"

namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { CapturedLog::Clear(); }
};

void LogFromFunction() {
    LMR_LOG_INFO("from a function");
}

TEST_F(LogTest, PrefixesEachMessageWithFileFunctionAndLine) {
    LogFromFunction();
    LMR_LOG_ERROR("from a test");
    const int line = __LINE__ - 1;
    const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].function, "LogFromFunction");
    EXPECT_EQ(lines[1].function, "TestBody");
    EXPECT_EQ(lines[0].file, "LogTest.cpp");
    EXPECT_EQ(lines[1].file, "LogTest.cpp");
    EXPECT_LT(lines[0].line, line);
    EXPECT_EQ(lines[1].line, line);
}

TEST_F(LogTest, RepeatsTheLineWhenACallRunsAgain) {
    for (int round = 0; round < 2; ++round) {
        LMR_LOG_INFO("first");

        LMR_LOG_INFO("second");
    }
    const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[1].line, lines[0].line + 2);
    EXPECT_EQ(lines[2].line, lines[0].line);
    EXPECT_EQ(lines[3].line, lines[1].line);
}

TEST_F(LogTest, SendsEachPriorityToTheMainBufferWithTheTag) {
    LMR_LOG_DEBUG("d");
    LMR_LOG_INFO("i");
    LMR_LOG_WARNING("w");
    LMR_LOG_ERROR("e");
    EXPECT_EQ(CapturedLog::Messages(), (std::vector<std::string>{"D d", "I i", "W w", "E e"}));
    for (const CapturedLog::Line& line : CapturedLog::Lines()) {
        EXPECT_EQ(line.buffer, 0);
        EXPECT_EQ(line.tag, "LMR_COMMON");
    }
}

TEST_F(LogTest, FormatsTheArgumentsOfAMessage) {
    LMR_LOG_INFO("%s: %d%%", "progress", 7);
    const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].format, "%s: %d%%");
    EXPECT_EQ(lines[0].message, "progress: 7%");
}

}  // namespace
