// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>

#include "CapturedLog.h"
#include "ContextString.h"
#include "OutOfRange.h"

namespace {

using namespace std::string_literals;

/// Expects after every test that nothing was logged: the tested methods never log.
class ContextStringSqlTimeTest : public ::testing::Test {
protected:
    void SetUp() override { CapturedLog::Clear(); }
    void TearDown() override { EXPECT_TRUE(CapturedLog::Lines().empty()); }
};

TEST_F(ContextStringSqlTimeTest, ConvertsTheCompactFormToTheSqlForm) {
    const struct {
        const char* compact;
        const char* sql;
    } rows[] = {
        {"", ""},
        {"20240305140709", "2024-03-05 14:07:09"},
        {"2024030514070999", "2024-03-05 14:07:09"},
        {"202403051407", "2024-03-05 14:07:"},
        {"2024030514070", "2024-03-05 14:07:0"},
        {"2024ab05140709", "2024-ab-05 14:07:09"},
        {"99999999999999", "9999-99-99 99:99:99"},
        {"2024-03-05 14:07:09", "2024--0-3- 05: 1:4:"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContextString::time_to_sqltime(row.compact), row.sql) << row.compact;
    }
    EXPECT_EQ(ContextString::time_to_sqltime("\0\0\0\0"s + "0305140709"), "\0\0\0\0"s + "-03-05 14:07:09");
}

TEST_F(ContextStringSqlTimeTest, ThrowsWhenACompactTextIsTooShort) {
    const std::string text = "202403051407";
    for (std::size_t length = 1; length < text.size(); ++length) {
        ExpectOutOfRange([&] { ContextString::time_to_sqltime(text.substr(0, length)); }, std::to_string(length));
    }
    EXPECT_NO_THROW(ContextString::time_to_sqltime(text));
}

TEST_F(ContextStringSqlTimeTest, ReturnsTextsOfOtherLengthsThan14Unchanged) {
    for (const std::string text :
         {"", "2", "2024030514070", "202403051407090", "2024-03-05 14:07:09", "2024-03-05 14:07:09.5"}) {
        EXPECT_EQ(ContextString::sqltime_cal(text), text);
    }
}

TEST_F(ContextStringSqlTimeTest, ThrowsForAnyTextOf14Characters) {
    for (const std::string text : {"20240305140709", "2024-03-05 14:", "abcdefghijklmn"}) {
        ExpectOutOfRange([&] { ContextString::sqltime_cal(text); }, text);
    }
    ExpectOutOfRange([] { ContextString::sqltime_cal(std::string(14, '\0')); }, "zero bytes");
}

}  // namespace
