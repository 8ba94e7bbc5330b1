// SPDX-License-Identifier: Apache-2.0
#include "ContextString.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <functional>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "CapturedLog.h"

namespace {

using Words = std::vector<std::string>;

// The suffix s keeps null characters: "a\0b"s has three characters.
using namespace std::string_literals;

/// Calls `check` with every text of at most `longest` characters from an alphabet, the empty text included.
void ForEveryText(const std::string& alphabet, std::size_t longest,
                  const std::function<void(const std::string&)>& check, const std::string& text = "") {
    check(text);
    if (text.size() < longest) {
        for (const char character : alphabet) {
            ForEveryText(alphabet, longest, check, text + character);
        }
    }
}

std::string AllBytes() {
    std::string bytes;
    for (int byte = 0; byte <= UCHAR_MAX; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

/// Expects after every test that nothing was logged: the tested methods never log.
class ContextStringTest : public ::testing::Test {
protected:
    void SetUp() override { CapturedLog::Clear(); }
    void TearDown() override { EXPECT_TRUE(CapturedLog::Lines().empty()); }
};

TEST_F(ContextStringTest, SelectsTheBaseOfUnsignedNumbersByPrefix) {
    const struct {
        const char* name;
        std::string text;
        unsigned long long number;
    } rows[] = {
        {"empty", "", 0},
        {"zero", "0", 0},
        {"decimal", "1234567890123", 1234567890123ULL},
        {"largest", "18446744073709551615", ULLONG_MAX},
        {"hexadecimal", "0x1F", 31},
        {"hexadecimal in capitals", "0X1f", 31},
        {"largest hexadecimal", "0xffffffffffffffff", ULLONG_MAX},
        {"hexadecimal prefix alone", "0x", 0},
        {"hexadecimal prefix before another letter", "0xg", 0},
        {"octal", "077", 63},
        {"octal ten", "010", 8},
        {"largest octal", "01777777777777777777777", ULLONG_MAX},
        {"no octal digit", "08", 0},
        {"octal up to the wrong digit", "0178", 15},
        {"leading white space", " \t\n\v\f\r42", 42},
        {"plus", "+42", 42},
        {"minus wraps around", "-1", ULLONG_MAX},
        {"minus of the largest", "-18446744073709551615", 1},
        {"minus in hexadecimal", " -0x10", ULLONG_MAX - 15},
        {"letters after the number", "12abc", 12},
        {"white space within", "12 34", 12},
        {"fraction", "3.9", 3},
        {"null character after the number", "12\0003"s, 12},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContextString::string2ull(row.text), row.number) << row.name;
    }
}

TEST_F(ContextStringTest, ThrowsWhenNoUnsignedNumberStartsTheText) {
    for (const std::string& text : {"abc"s, "x12"s, " "s, "+"s, "-"s, "+-1"s, "- 1"s, ".5"s, "\0001"s,
                                    "\xc2\xa0"s
                                    "1"}) {
        try {
            ContextString::string2ull(text);
            ADD_FAILURE() << '"' << text << "\" was read as a number";
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "stoull") << text;
        }
    }
}

TEST_F(ContextStringTest, ThrowsWhenAnUnsignedNumberOverflows) {
    for (const char* text : {"99999999999999999999", "18446744073709551616", "-18446744073709551616",
                             "0x10000000000000000", "02000000000000000000000", "99999999999999999999kg"}) {
        try {
            ContextString::string2ull(text);
            ADD_FAILURE() << text << " did not overflow";
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "stoull") << text;
        }
    }
}

TEST_F(ContextStringTest, PreservesTheErrorNumberWhenReadingSucceeds) {
    for (const int before : {0, EDOM, ERANGE}) {
        for (const char* text : {"", "42", "18446744073709551615"}) {
            errno = before;
            EXPECT_NO_THROW(ContextString::string2ull(text)) << text << " with the error number " << before;
            EXPECT_EQ(errno, before) << text;
        }
    }
}

TEST_F(ContextStringTest, SetsTheErrorNumberOnOverflow) {
    errno = EDOM;
    EXPECT_THROW(ContextString::string2ull("99999999999999999999"), std::out_of_range);
    EXPECT_EQ(errno, ERANGE);
}

TEST_F(ContextStringTest, ReadsDecimalNumbersAsAStreamDoes) {
    const struct {
        const char* name;
        std::string text;
        int number;
    } rows[] = {
        {"white space around", " 42 ", 42},
        {"leading white space of every kind", " \t\n\v\f\r42", 42},
        {"letters after the number", "12abc", 12},
        {"negative", "-7", -7},
        {"plus", "+7", 7},
        {"largest", "2147483647", INT_MAX},
        {"smallest", "-2147483648", INT_MIN},
        {"too large", "2147483648", INT_MAX},
        {"too small", "-2147483649", INT_MIN},
        {"far too large", "99999999999999999999", INT_MAX},
        {"far too small", "-99999999999999999999", INT_MIN},
        {"leading zero is not octal", "010", 10},
        {"hexadecimal is not read", "0x1F", 0},
        {"fraction", "3.9", 3},
        {"two signs", "--5", 0},
        {"sign alone", "-", 0},
        {"space after the sign", "- 5", 0},
        {"letters only", "x", 0},
        {"letters before the number", "x12", 0},
        {"empty", "", 0},
        {"blank", "   ", 0},
        {"null character after the number", "12\0003"s, 12},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContextString::string2int(row.text), row.number) << row.name;
    }
}

TEST_F(ContextStringTest, ReadsFloatingPointNumbersAsAStreamDoes) {
    const struct {
        const char* name;
        std::string text;
        double number;
    } rows[] = {
        {"unit after the number", "3.5kg", 3.5},
        {"exponent", "1e3", 1000.0},
        {"negative exponent", "25E-2", 0.25},
        {"white space around", " \t\n\v\f\r2.5 ", 2.5},
        {"whole number", "42", 42.0},
        {"negative", "-0.125", -0.125},
        {"plus", "+4.5", 4.5},
        {"no digit before the point", ".5", 0.5},
        {"no digit after the point", "5.", 5.0},
        {"second point", "1.5.5", 1.5},
        {"nearest to a third", "0.3333333333333333", 1.0 / 3.0},
        {"largest", "1.7976931348623157e308", std::numeric_limits<double>::max()},
        {"too large", "1e400", 0.0},
        {"too small", "-1e400", 0.0},
        {"exponent without digits", "3.5e", 0.0},
        {"unit that begins like an exponent", "3.5eggs", 0.0},
        {"letters only", "abc", 0.0},
        {"letters before the number", "x1.5", 0.0},
        {"point alone", ".", 0.0},
        {"sign alone", "-", 0.0},
        {"empty", "", 0.0},
        {"blank", "   ", 0.0},
        {"infinity", "inf", 0.0},
        {"not a number", "nan", 0.0},
        {"hexadecimal is not read", "0x10", 0.0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContextString::string2double(row.text), row.number) << row.name;
    }
    EXPECT_TRUE(std::signbit(ContextString::string2double("-0.0")));
    EXPECT_FALSE(std::signbit(ContextString::string2double("-")));
}

std::string Trimmed(std::string text) {
    ContextString::Trim(text);
    return text;
}

TEST_F(ContextStringTest, TrimsWhiteSpaceAtBothEnds) {
    EXPECT_EQ(Trimmed("\t a b\r\n"), "a b");
    EXPECT_EQ(Trimmed("a"), "a");
    EXPECT_EQ(Trimmed(""), "");
    EXPECT_EQ(Trimmed(" \v\f\n\r\t"), "");
    EXPECT_EQ(Trimmed(" \v\f\n\r\ta \v\f\n\r\tb \v\f\n\r\t"), "a \v\f\n\r\tb");
}

TEST_F(ContextStringTest, TrimsOnlyTheSixWhiteSpaceCharacters) {
    for (const char byte : AllBytes()) {
        const std::string edge(1, byte);
        const bool isWhiteSpace = std::string(" \v\f\n\r\t").find(byte) != std::string::npos;
        const std::string text = std::string(edge).append("a").append(edge);
        EXPECT_EQ(Trimmed(text), isWhiteSpace ? "a" : text) << static_cast<int>(byte);
        EXPECT_EQ(Trimmed(edge), isWhiteSpace ? "" : edge) << static_cast<int>(byte);
    }
}

TEST_F(ContextStringTest, TrimsEveryShortTextOfBlanksAndLetters) {
    ForEveryText(" \tab", 6, [](const std::string& text) {
        const auto isBlank = [](char character) { return character == ' ' || character == '\t'; };
        std::size_t first = 0;
        std::size_t end = text.size();
        while (first < end && isBlank(text[first])) {
            ++first;
        }
        while (end > first && isBlank(text[end - 1])) {
            --end;
        }
        EXPECT_EQ(Trimmed(text), text.substr(first, end - first)) << '"' << text << '"';
    });
}

TEST_F(ContextStringTest, SkipsTheCharacterAfterEachRemovedOne) {
    const struct {
        const char* name;
        std::string text;
        std::string characters;
        std::string rest;
    } rows[] = {
        {"one character", "a-b", "-", "ab"},
        {"adjacent and apart", "a--b-c", "-", "a-bc"},
        {"two adjacent", "a,,b", ",", "a,b"},
        {"three adjacent", "a,,,b", ",", "a,b"},
        {"an even run only", "xxxx", "x", "xx"},
        {"an odd run only", "xxxxx", "x", "xx"},
        {"adjacent and different", "a,;b", ",;", "a;b"},
        {"the set in reverse order", "a,;b", ";,", "a;b"},
        {"the set with a repetition", "a,b", ",,", "ab"},
        {"first and last", ",a,", ",", "a"},
        {"the only character", ",", ",", ""},
        {"null character", "a\0b"s, "\0"s, "ab"},
        {"high bytes", "a\xc3\xa9z", "\xa9", "a\xc3z"},
        {"no match", "abc", ",", "abc"},
        {"empty set", "abc", "", "abc"},
        {"empty text", "", ",", ""},
        {"both empty", "", "", ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContextString::remove_chars(row.text, row.characters), row.rest) << row.name;
    }
}

TEST_F(ContextStringTest, RemovesCharactersFromACopyOnly) {
    const std::string text = "a,b";
    EXPECT_EQ(ContextString::remove_chars(text, text), ",");
    EXPECT_EQ(text, "a,b");
}

/// The documented algorithm: erase one character, then continue the search one past its position.
std::string RemoveInSteps(std::string text, const std::string& characters) {
    auto position = text.find_first_of(characters, 0);
    while (position != std::string::npos) {
        text.erase(position, 1);
        position = text.find_first_of(characters, position + 1);
    }
    return text;
}

TEST_F(ContextStringTest, RemovesCharactersFromEveryShortText) {
    for (const char* characters : {"", ",", ";,", "a,;", "x"}) {
        ForEveryText("a,;", 8, [&](const std::string& text) {
            EXPECT_EQ(ContextString::remove_chars(text, characters), RemoveInSteps(text, characters))
                << '"' << text << "\" without \"" << characters << '"';
        });
    }
}

TEST_F(ContextStringTest, SplitsIntoWordsAtEveryDelimiter) {
    const struct {
        const char* name;
        std::string text;
        std::string delimiter;
        Words words;
    } rows[] = {
        {"longer delimiter", "k1::k2", "::", {"k1", "k2"}},
        {"delimiter at the end", "a,b,", ",", {"a", "b", ""}},
        {"delimiter at the start", ",a", ",", {"", "a"}},
        {"adjacent delimiters", "a,,b", ",", {"a", "", "b"}},
        {"delimiter alone", "::", "::", {"", ""}},
        {"three colons, delimiter of two", "a:::b", "::", {"a", ":b"}},
        {"half a delimiter at the end", "a::b:", "::", {"a", "b:"}},
        {"no delimiter", "abc", ",", {"abc"}},
        {"delimiter longer than the text", "a", "abc", {"a"}},
        {"every word empty", ",,,", ",", {"", "", "", ""}},
        {"null character", "a\0b"s, "\0"s, {"a", "b"}},
        {"white space kept", " a , b ", ",", {" a ", " b "}},
        {"empty text", "", ",", {""}},
        {"the delimiter is a string, not a set", "a,b;c,;d", ",;", {"a,b;c", "d"}},
        {"empty delimiter", "abc", "", {"abc"}},
        {"both empty", "", "", {""}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContextString::to_word_vector(row.text, row.delimiter), row.words) << row.name;
    }
}

/// The documented algorithm. The delimiter must not be empty.
Words SplitInSteps(const std::string& text, const std::string& delimiter) {
    Words words;
    std::size_t from = 0;
    for (auto at = text.find(delimiter); at != std::string::npos; at = text.find(delimiter, from)) {
        words.push_back(text.substr(from, at - from));
        from = at + delimiter.size();
    }
    words.push_back(text.substr(from));
    return words;
}

TEST_F(ContextStringTest, SplitsEveryShortTextIntoWords) {
    for (const char* delimiter : {",", ",,", ",;", ",;,", "a,", ",,a,"}) {
        ForEveryText("a,;", 8, [&](const std::string& text) {
            EXPECT_EQ(ContextString::to_word_vector(text, delimiter), SplitInSteps(text, delimiter))
                << '"' << text << "\" at \"" << delimiter << '"';
        });
    }
}

TEST_F(ContextStringTest, SplitsIntoTokensWithoutATrailingEmptyOne) {
    const struct {
        const char* name;
        std::string text;
        char delimiter;
        Words tokens;
    } rows[] = {
        {"delimiter at the end", "a,b,", ',', {"a", "b"}},
        {"two delimiters at the end", "a,,", ',', {"a", ""}},
        {"delimiter at the start", ",a", ',', {"", "a"}},
        {"adjacent delimiters", "a,,b", ',', {"a", "", "b"}},
        {"delimiter alone", ",", ',', {""}},
        {"no delimiter", "abc", ',', {"abc"}},
        {"empty text", "", ',', {}},
        {"lines", "a\nb\r\n", '\n', {"a", "b\r"}},
        {"line feeds stay at another delimiter", "a\nb,c\n", ',', {"a\nb", "c\n"}},
        {"null character", "a\0b"s, '\0', {"a", "b"}},
        {"null character in a token", "a\0b,c"s, ',', {"a\0b"s, "c"}},
        {"high byte",
         "a\xff"s
         "b",
         '\xff',
         {"a", "b"}},
    };
    for (const auto& row : rows) {
        Words tokens;
        EXPECT_EQ(ContextString::SplitStringToken(row.text, row.delimiter, tokens), static_cast<int>(row.tokens.size()))
            << row.name;
        EXPECT_EQ(tokens, row.tokens) << row.name;
    }
}

TEST_F(ContextStringTest, AppendsTokensToTheElementsOfTheVector) {
    Words tokens = {"first", "second"};
    EXPECT_EQ(ContextString::SplitStringToken("x;y", ';', tokens), 4);
    EXPECT_EQ(tokens, (Words{"first", "second", "x", "y"}));
    EXPECT_EQ(ContextString::SplitStringToken("", ';', tokens), 4);
    EXPECT_EQ(tokens, (Words{"first", "second", "x", "y"}));
}

TEST_F(ContextStringTest, SplitsATextThatIsAnElementOfTheVector) {
    Words tokens = {"a,b,c,d,e,f,g,h"};
    tokens.shrink_to_fit();
    EXPECT_EQ(ContextString::SplitStringToken(tokens[0], ',', tokens), 9);
    EXPECT_EQ(tokens, (Words{"a,b,c,d,e,f,g,h", "a", "b", "c", "d", "e", "f", "g", "h"}));
}

TEST_F(ContextStringTest, SplitsEveryShortTextIntoTokensAsAStreamDoes) {
    ForEveryText("a,\n", 8, [](const std::string& text) {
        Words expected;
        std::istringstream stream(text);
        for (std::string token; std::getline(stream, token, ',');) {
            expected.push_back(token);
        }
        Words tokens;
        EXPECT_EQ(ContextString::SplitStringToken(text, ',', tokens), static_cast<int>(expected.size())) << text;
        EXPECT_EQ(tokens, expected) << text;
    });
}

TEST_F(ContextStringTest, EscapesAmpersandAndCaret) {
    EXPECT_EQ(ContextString::UrlEncode("a&b c^"), "a%26b c%5E");
    EXPECT_EQ(ContextString::UrlEncode("&&^^"), "%26%26%5E%5E");
    EXPECT_EQ(ContextString::UrlEncode("%26"), "%26");
    EXPECT_EQ(ContextString::UrlEncode(""), "");
}

TEST_F(ContextStringTest, EscapesNoOtherByte) {
    for (const char byte : AllBytes()) {
        const std::string text = "x" + std::string(1, byte) + "y";
        const std::string expected = byte == '&' ? "x%26y" : byte == '^' ? "x%5Ey" : text;
        EXPECT_EQ(ContextString::UrlEncode(text), expected) << static_cast<int>(byte);
    }
}

TEST_F(ContextStringTest, EscapesACopyOnly) {
    const std::string text = "a&b";
    EXPECT_EQ(ContextString::UrlEncode(text), "a%26b");
    EXPECT_EQ(text, "a&b");
}

}  // namespace
