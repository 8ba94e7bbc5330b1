// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_LOG_EXPECTATION_H
#define LUMORA_COMMON_TESTS_LOG_EXPECTATION_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CapturedLog.h"

/// Expects exactly one captured line, in the main buffer and with the library's tag. Does not clear the log.
inline void ExpectOneLogLine(int priority, const std::string& file, const std::string& function,
                             const std::string& format, const std::string& message) {
    const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
    ASSERT_EQ(lines.size(), 1U) << file << ": " << function;
    EXPECT_EQ(lines[0].buffer, 0);
    EXPECT_EQ(lines[0].priority, priority);
    EXPECT_EQ(lines[0].tag, "LMR_COMMON");
    EXPECT_EQ(lines[0].file, file);
    EXPECT_EQ(lines[0].function, function);
    EXPECT_GT(lines[0].line, 0);
    EXPECT_EQ(lines[0].format, format);
    EXPECT_EQ(lines[0].message, message);
}

/// The same for a message without arguments.
inline void ExpectOneLogLine(int priority, const std::string& file, const std::string& function,
                             const std::string& message) {
    ExpectOneLogLine(priority, file, function, message, message);
}

#endif  // LUMORA_COMMON_TESTS_LOG_EXPECTATION_H
