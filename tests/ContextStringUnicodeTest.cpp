// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <iconv.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "ContextString.h"
#include "FailingAllocation.h"
#include "LogExpectation.h"
#include "NextFunction.h"

// Replaces the C library's iconv_open() and iconv_close(), for the library too: counts the converters, and makes
// opening fail on demand.

namespace {

std::atomic<int> g_opened{0};
std::atomic<int> g_closed{0};
std::atomic<bool> g_isRefusing{false};
std::string g_lastOpened;

}  // namespace

extern "C" iconv_t iconv_open(const char* to, const char* from) {
    g_lastOpened = std::string(from) + " to " + to;
    if (g_isRefusing) {
        errno = EINVAL;
        return reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr): defined by POSIX
    }
    ++g_opened;
    return NextFunction<iconv_t(const char*, const char*)>("iconv_open")(to, from);
}

extern "C" int iconv_close(iconv_t converter) {
    ++g_closed;
    return NextFunction<int(iconv_t)>("iconv_close")(converter);
}

namespace {

using namespace std::string_literals;
using Messages = std::vector<std::string>;
using Units = std::basic_string<unsigned short>;

/// @return the units that have these bytes in memory.
Units FromBytes(const std::string& bytes) {
    Units units(bytes.size() / 2, 0);
    std::memcpy(units.data(), bytes.data(), units.size() * 2);
    return units;
}

std::string ToBytes(const Units& units) {
    return {reinterpret_cast<const char*>(units.data()), units.size() * 2};
}

void AppendUnit(std::string& bytes, unsigned int unit) {
    bytes += static_cast<char>(unit >> 8);
    bytes += static_cast<char>(unit & 0xFF);
}

/// Appends a character as UTF-16 in big-endian byte order.
void AppendUtf16(std::string& bytes, unsigned int character) {
    if (character < 0x10000) {
        AppendUnit(bytes, character);
    } else {
        AppendUnit(bytes, 0xD800 + ((character - 0x10000) >> 10));
        AppendUnit(bytes, 0xDC00 + ((character - 0x10000) & 0x3FF));
    }
}

void AppendUtf8(std::string& text, unsigned int character) {
    const auto append = [&](unsigned int byte) { text += static_cast<char>(byte); };
    const auto continued = [&](unsigned int shift) { append(0x80 | ((character >> shift) & 0x3F)); };
    if (character < 0x80) {
        append(character);
    } else if (character < 0x800) {
        append(0xC0 | (character >> 6));
        continued(0);
    } else if (character < 0x10000) {
        append(0xE0 | (character >> 12));
        continued(6);
        continued(0);
    } else {
        append(0xF0 | (character >> 18));
        continued(12);
        continued(6);
        continued(0);
    }
}

class ContextStringUnicodeTest : public ::testing::Test {
protected:
    void SetUp() override {
        CapturedLog::Clear();
        g_opened = 0;
        g_closed = 0;
    }

    void TearDown() override {
        EXPECT_EQ(g_opened, g_closed) << "converters left open";
        g_isRefusing = false;
    }

    /// Converts `source` into the first `size` bytes of a buffer full of '#'.
    /// @return the result and the whole buffer.
    static std::pair<bool, std::string> Convert(std::string source, unsigned int size, std::size_t bufferSize = 12) {
        const std::string before = source;
        std::string buffer(bufferSize, '#');
        const bool result =
            ContextString::Unicode2Utf8(buffer.data(), size, source.data(), static_cast<unsigned int>(source.size()));
        EXPECT_EQ(source, before);
        return {result, buffer};
    }

    /// Removes the line breaks from the text at the start of `bytes`.
    /// @return all the bytes: of the text, of its terminator and of any units after it.
    static std::string WithoutLineBreaks(const std::string& bytes) {
        Units units = FromBytes(bytes);
        ContextString::TransStrExceptLF(units.data());
        return ToBytes(units);
    }

    static std::string ToString(const std::string& bytes) { return ContextString::Twstring2String(FromBytes(bytes)); }
};

// Unicode2Utf8

TEST_F(ContextStringUnicodeTest, ConvertsUtf16InBigEndianByteOrder) {
    const struct {
        const char* name;
        std::string source;
        const char* destination;  ///< the whole buffer
    } rows[] = {
        {"one byte", "\0A\0~"s, "A~##########"},
        {"two bytes", "\0\xE4\x07\xFF"s, "\xC3\xA4\xDF\xBF########"},
        {"three bytes", "\x08\0\xD5\x5C\xFF\xFD"s, "\xE0\xA0\x80\xED\x95\x9C\xEF\xBF\xBD###"},
        {"a surrogate pair", "\xD8\x3D\xDE\0"s, "\xF0\x9F\x98\x80########"},
        {"little-endian bytes", "A\0B\0"s, "\xE4\x84\x80\xE4\x88\x80######"},
        {"a byte order mark", "\xFE\xFF\0A"s,
         "\xEF\xBB\xBF"
         "A########"},
        {"a swapped byte order mark", "\xFF\xFE\0A"s,
         "\xEF\xBF\xBE"
         "A########"},
        {"line breaks", "\0\r\0\n"s, "\r\n##########"},
        {"no source", "", "############"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Convert(row.source, 12), std::make_pair(true, std::string(row.destination))) << row.name;
        EXPECT_EQ(g_lastOpened, "UTF-16BE to UTF-8");
    }
    EXPECT_EQ(g_opened, static_cast<int>(std::size(rows)));
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringUnicodeTest, ConvertsZeroUnitsAndAddsNoTerminator) {
    EXPECT_EQ(Convert("\0A\0\0\0B"s, 12), std::make_pair(true, "A\0B#########"s));
}

TEST_F(ContextStringUnicodeTest, FillsTheDestinationToItsLastByte) {
    EXPECT_EQ(Convert("\0A\xD5\x5C"s, 4, 4), std::make_pair(true, "A\xED\x95\x9C"s));
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringUnicodeTest, LogsTheErrorAndKeepsThePartialConversion) {
    const struct {
        const char* name;
        std::string source;
        unsigned int size;
        int error;
        const char* destination;
    } rows[] = {
        {"a full destination", "\0A\xD5\x5C\0B"s, 3, E2BIG, "A###########"},
        {"no destination", "\0A"s, 0, E2BIG, "############"},
        {"a high surrogate at the end", "\0A\xD8\x3D"s, 12, EINVAL, "A###########"},
        {"an odd byte at the end", "\0A\0"s, 12, EINVAL, "A###########"},
        {"a high surrogate before another character", "\0A\xD8\x3D\0B"s, 12, EILSEQ, "A###########"},
        {"a low surrogate alone", "\0A\xDE\0\0B"s, 12, EILSEQ, "A###########"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CapturedLog::Clear();
        EXPECT_EQ(Convert(row.source, row.size), std::make_pair(false, std::string(row.destination)));
        ExpectOneLogLine(/*priority=*/6, "ContextString.cpp", "Unicode2Utf8", "iconv failed: %d",
                         "iconv failed: " + std::to_string(row.error));
    }
    EXPECT_EQ(g_opened, static_cast<int>(std::size(rows)));
}

TEST_F(ContextStringUnicodeTest, LogsAConverterThatCannotBeOpened) {
    g_isRefusing = true;
    EXPECT_EQ(Convert("\0A"s, 12), std::make_pair(false, "############"s));
    ExpectOneLogLine(/*priority=*/6, "ContextString.cpp", "Unicode2Utf8", "Iconv open failed");
    EXPECT_EQ(g_closed, 0);
}

// TransStrExceptLF

TEST_F(ContextStringUnicodeTest, RemovesLineBreaksAndFillsTheEndWithZeros) {
    const struct {
        const char* name;
        std::string before;
        std::string after;
    } rows[] = {
        {"line feed", "\0A\0\n\0B\0\0"s, "\0A\0B\0\0\0\0"s},
        {"carriage return", "\0A\0\r\0B\0\0"s, "\0A\0B\0\0\0\0"s},
        {"both, adjacent", "\0\r\0\n\0A\0\n\0\n\0\0"s, "\0A\0\0\0\0\0\0\0\0\0\0"s},
        {"line breaks only", "\0\r\0\n\0\n\0\0"s, "\0\0\0\0\0\0\0\0"s},
        {"no line break", "\0A\0B\0\0"s, "\0A\0B\0\0"s},
        {"empty", "\0\0"s, "\0\0"s},
        {"other control characters", "\0\t\0\v\0\f\0\x1F\0\x85\x20\x28\0\0"s, "\0\t\0\v\0\f\0\x1F\0\x85\x20\x28\0\0"s},
        {"little-endian line breaks", "A\0\n\0\r\0\0\0"s, "A\0\n\0\r\0\0\0"s},
        {"line break bytes in other units", "\x0A\x0A\x0D\x0D\x01\x0A\x0D\x0A\0\0"s,
         "\x0A\x0A\x0D\x0D\x01\x0A\x0D\x0A\0\0"s},
        {"the text ends at its zero unit", "\0A\0\0\0\n\0B"s, "\0A\0\0\0\n\0B"s},
        {"units after the terminator stay", "\0\n\0A\0\0\0\n\0B"s, "\0A\0\0\0\0\0\n\0B"s},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(WithoutLineBreaks(row.before), row.after) << row.name;
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringUnicodeTest, FillsTheEndWithZerosOnADirtyHeap) {
    constexpr std::size_t kLength = 100;
    std::string bytes;
    for (std::size_t unit = 0; unit < kLength; ++unit) {
        bytes += unit % 2 == 0 ? "\0\n"s : "\0A"s;
    }
    bytes += "\0\0"s;
    {
        // Frees a block that has the size of the scratch array and contains no zeros.
        const std::unique_ptr<unsigned char[]> used(new (std::nothrow) unsigned char[bytes.size()]);
        std::memset(used.get(), 0xFF, bytes.size());
    }
    std::string expected;
    for (std::size_t unit = 0; unit < kLength / 2; ++unit) {
        expected += "\0A"s;
    }
    expected.resize(bytes.size());
    EXPECT_EQ(WithoutLineBreaks(bytes), expected);
}

TEST_F(ContextStringUnicodeTest, WarnsAboutANullText) {
    ContextString::TransStrExceptLF(nullptr);
    ExpectOneLogLine(/*priority=*/5, "ContextString.cpp", "TransStrExceptLF", "srv Is NUll");
}

TEST_F(ContextStringUnicodeTest, WarnsAndKeepsLineBreaksWhenOutOfMemory) {
    const std::string bytes = "\0A\0\n\0B\0\0"s;
    {
        const FailingAllocation failing;
        EXPECT_EQ(WithoutLineBreaks(bytes), bytes);
    }
    ExpectOneLogLine(/*priority=*/5, "ContextString.cpp", "TransStrExceptLF", "new uint16_t[nLen] failed!");
}

// Twstring2String

TEST_F(ContextStringUnicodeTest, ReturnsUtf8WithoutLineBreaks) {
    const struct {
        const char* name;
        std::string bytes;
        std::string text;
    } rows[] = {
        {"line feed", "\0A\0\n\0B"s, "AB"},
        {"carriage return and line feed", "\0A\0\r\0\n\0B\0\n"s, "AB"},
        {"a tab stays", "\0A\0\t\0B"s, "A\tB"},
        {"line breaks only", "\0\n\0\r\0\n"s, ""},
        {"one character of three bytes", "\xD5\x5C"s, "\xED\x95\x9C"},
        {"a surrogate pair", "\xD8\x3D\xDE\0"s, "\xF0\x9F\x98\x80"},
        {"a surrogate pair after line breaks", "\0\n\0\n\0\n\xD8\x3D\xDE\0"s, "\xF0\x9F\x98\x80"},
        {"surrogate pairs between line breaks", "\0\n\xD8\x3D\xDE\0\0\r\xD8\x3D\xDE\x01"s,
         "\xF0\x9F\x98\x80\xF0\x9F\x98\x81"},
        {"little-endian bytes", "A\0\n\0B\0"s, "\xE4\x84\x80\xE0\xA8\x80\xE4\x88\x80"},
        {"a zero unit ends the text", "\0A\0\0\0B"s, "A"},
        {"a zero unit first", "\0\0\0A"s, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ToString(row.bytes), row.text) << row.name;
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
    EXPECT_EQ(g_opened, static_cast<int>(std::size(rows)));
}

TEST_F(ContextStringUnicodeTest, ReturnsAnEmptyTextWithoutConvertingIt) {
    EXPECT_EQ(ContextString::Twstring2String({}), "");
    EXPECT_EQ(g_opened, 0);
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringUnicodeTest, ConvertsEveryUnicodeCharacter) {
    constexpr unsigned int kEnd = 0x110000;
    for (unsigned int character = 1; character < kEnd;) {
        std::string utf16;
        std::string utf8;
        for (const unsigned int block = character / 0x800; character / 0x800 == block; ++character) {
            if (block == 0xD800 / 0x800) {
                continue;  // surrogates are not characters
            }
            AppendUtf16(utf16, character);
            if (character != '\n' && character != '\r') {
                AppendUtf8(utf8, character);
            }
        }
        ASSERT_EQ(ToString(utf16), utf8) << "before " << character;
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringUnicodeTest, HasRoomForTheLongestOutputOfEveryLength) {
    for (const auto& [unit, character] :
         {std::make_pair("\xFF\xFD"s, "\xEF\xBF\xBD"s), std::make_pair("\xDB\xFF\xDF\xFD"s, "\xF4\x8F\xBF\xBD"s)}) {
        std::string utf16;
        std::string utf8;
        for (int length = 1; length <= 300; ++length) {
            utf16 += unit;
            utf8 += character;
            ASSERT_EQ(ToString(utf16), utf8) << length;
        }
    }
}

TEST_F(ContextStringUnicodeTest, LogsTwiceWhenTheTextIsInvalid) {
    const struct {
        const char* name;
        std::string bytes;
    } rows[] = {
        {"a high surrogate at the end", "\0A\xD8\x3D"s},
        {"a high surrogate alone", "\xD8\x3D"s},
        {"a high surrogate after a line break", "\0\n\xD8\x3D"s},
        {"a high surrogate before another character", "\xD8\x3D\0A"s},
        {"a low before a high surrogate", "\xDE\0\xD8\x3D"s},
        {"a high surrogate after a zero unit", "\0A\0\0\xD8\x3D"s},
    };
    for (const auto& row : rows) {
        CapturedLog::Clear();
        EXPECT_EQ(ToString(row.bytes), "") << row.name;
        EXPECT_EQ(CapturedLog::Messages(),
                  (Messages{"E iconv failed: " + std::to_string(EILSEQ), "E convert name failed"}))
            << row.name;
        ASSERT_EQ(CapturedLog::Lines().size(), 2U);
        EXPECT_EQ(CapturedLog::Lines()[1].function, "Twstring2String");
        EXPECT_EQ(CapturedLog::Lines()[1].format, "convert name failed");
    }
    EXPECT_EQ(g_opened, static_cast<int>(std::size(rows)));
}

TEST_F(ContextStringUnicodeTest, LogsTwiceWhenTheConverterCannotBeOpened) {
    g_isRefusing = true;
    EXPECT_EQ(ToString("\0A"s), "");
    EXPECT_EQ(CapturedLog::Messages(), (Messages{"E Iconv open failed", "E convert name failed"}));
}

TEST_F(ContextStringUnicodeTest, ReturnsAnEmptyTextWhenABufferCannotBeAllocated) {
    for (const int allowed : {0, 1}) {
        const Units text = FromBytes("\0A\0\n\0B"s);
        const FailingAllocation failing(allowed, /*failures=*/1);
        EXPECT_EQ(ContextString::Twstring2String(text), "") << allowed;
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
    EXPECT_EQ(g_opened, 0);
}

TEST_F(ContextStringUnicodeTest, NeedsTwoBuffersToRemoveLineBreaks) {
    const Units text = FromBytes("\0A\0\n\0B"s);
    const FailingAllocation failing(/*allowed=*/2);
    EXPECT_EQ(ContextString::Twstring2String(text), "AB");
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringUnicodeTest, LeavesTheCallersTextUnchanged) {
    const Units text = FromBytes("\0A\0\n\0B"s);
    const Units before(text.data(), text.size());
    EXPECT_EQ(ContextString::Twstring2String(text), "AB");
    EXPECT_EQ(text, before);
}

}  // namespace
