// SPDX-License-Identifier: Apache-2.0
#include "Terminal.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Case {
    const char* name;
    std::string text;
    std::string printable;
    std::string escaped;
    std::size_t columns;  ///< of the printable text
};

// The texts are long enough for the heap, where a sanitizer sees a read beyond their end.
const std::string kLong(40, 'a');

const Case kCases[] = {
    {"plain", kLong + "é日", kLong + "é日", kLong + "é日", 43},
    {"empty", "", "", "", 0},
    {"start of four bytes", kLong + "\xF0", kLong + "\uFFFD", kLong + "\\xF0", 41},
    {"two of three bytes", kLong + "\xE2\x82", kLong + "\uFFFD\uFFFD", kLong + "\\xE2\\x82", 42},
    {"three of four bytes", kLong + "\xF0\x9F\x8E", kLong + "\uFFFD\uFFFD\uFFFD", kLong + "\\xF0\\x9F\\x8E", 43},
    {"only a continuation", kLong + "\x80z", kLong + "\uFFFDz", kLong + "\\x80z", 42},
    {"overlong slash", kLong + "\xC0\xAF", kLong + "\uFFFD\uFFFD", kLong + "\\xC0\\xAF", 42},
    {"surrogate", kLong + "\xED\xA0\x80", kLong + "\uFFFD\uFFFD\uFFFD", kLong + "\\xED\\xA0\\x80", 43},
    {"never in UTF-8", kLong + "\xFF", kLong + "\uFFFD", kLong + "\\xFF", 41},
    {"zero byte", kLong + std::string("\0z", 2), kLong + "\uFFFDz", kLong + "\\x00z", 42},
    {"control sequence", "\033[31m" + kLong, "\uFFFD[31m" + kLong, "\\x1B[31m" + kLong, 45},
    {"change of direction", kLong + "\xE2\x80" + "\xAE", kLong + "\uFFFD", kLong + "\\xE2\\x80\\xAE", 41},
    {"combining", kLong + "e\u0301", kLong + "e\u0301", kLong + "e\u0301", 41},
};

}  // namespace

TEST(TerminalTest, ReplacesWhatIsNotPrintable) {
    for (const Case& row : kCases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Terminal::Printable(row.text), row.printable);
        EXPECT_EQ(Terminal::Columns(row.printable), row.columns);
    }
}

TEST(TerminalTest, CountsEachByteThatIsNotUtf8AsOneColumn) {
    EXPECT_EQ(Terminal::Columns(kLong + "\xF0\x9F\x8E"), 43U);
    EXPECT_EQ(Terminal::Fit(kLong + "\xF0", 42), kLong + "\xF0 ");
    EXPECT_EQ(Terminal::Fit(kLong + "\xF0\x9F", 41), kLong + "…");
}

TEST(TerminalTest, EscapesWhatIsNotPrintable) {
    for (const Case& row : kCases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Terminal::Escaped(row.text), row.escaped);
    }
}

TEST(TerminalTest, CutsAnEscapedTextAfterItsLimit) {
    EXPECT_EQ(Terminal::Escaped(kLong, 40), kLong);
    EXPECT_EQ(Terminal::Escaped(kLong, 39), std::string(39, 'a') + "...");
    EXPECT_EQ(Terminal::Escaped("\x01\x02\x03", 2), "\\x01\\x02...");
    EXPECT_EQ(Terminal::Escaped("日本語", 2), "日本...");
    EXPECT_EQ(Terminal::Escaped(std::string(1000000, '7'), 60).size(), 63U);
}

TEST(TerminalTest, FitsATextIntoItsColumns) {
    EXPECT_EQ(Terminal::Fit("日本語", 6), "日本語");
    EXPECT_EQ(Terminal::Fit("日本語", 5), "日本…");
    EXPECT_EQ(Terminal::Fit("日本語", 4), "日… ");
    EXPECT_EQ(Terminal::Fit("日本語", 1), "…");
    EXPECT_EQ(Terminal::Fit("", 2), "  ");
}

TEST(TerminalTest, ReplacesWhatSeparatesLinesOrDirectsText) {
    for (const char last : {'\xA8', '\xA9', '\xAA', '\xAE'}) {  // U+2028, U+2029, U+202A, U+202E
        EXPECT_EQ(Terminal::Printable(kLong + "\xE2\x80" + last), kLong + "\uFFFD");
    }
    for (const char last : {'\xA6', '\xA9'}) {  // U+2066, U+2069
        EXPECT_EQ(Terminal::Printable(kLong + "\xE2\x81" + last), kLong + "\uFFFD");
    }
    for (const char* character : {"\u2027", "\u202F", "\u2065", "\u206A"}) {
        EXPECT_EQ(Terminal::Printable(kLong + character), kLong + character) << character;
    }
}
