// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "ContextString.h"
#include "OutOfRange.h"
#include "Surroundings.h"
#include "TestClock.h"

namespace {

using namespace std::string_literals;
using Surroundings::TimeZone;
using TestClock::Frozen;
using Row = std::vector<std::string>;
using Texts = std::vector<std::string>;

constexpr bool kIsTimeShort = sizeof(std::time_t) == 4;
constexpr bool kIsLongShort = sizeof(long) == 4;

constexpr const char* kParis = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr std::time_t kWinter = 1705312800;  // 15 January 2024
constexpr std::time_t kSummer = 1721037600;  // 15 July 2024

/// @return the rows of a table in tests/data/vectors, without its heading. tests/data/vectors/times.py explains the
/// columns.
std::vector<Row> ReadVectors(const std::string& name) {
    std::istringstream table(Surroundings::ReadFile(std::string(LUMORA_TEST_DATA) + "/vectors/" + name));
    std::vector<Row> rows;
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream columns(line);
        Row& row = rows.emplace_back();
        for (std::string column; std::getline(columns, column, '\t');) {
            row.push_back(column);
        }
    }
    return rows;
}

/// @return `seconds` as a time_t, or -1 when a time_t cannot represent them.
std::time_t TimeOrMinusOne(std::int64_t seconds) {
    const bool fits =
        seconds >= std::numeric_limits<std::time_t>::min() && seconds <= std::numeric_limits<std::time_t>::max();
    return fits ? static_cast<std::time_t>(seconds) : -1;
}

/// @return `number` as a long, clamped to its range.
long Saturated(std::int64_t number) {
    return static_cast<long>(std::clamp<std::int64_t>(number, LONG_MIN, LONG_MAX));
}

/// A method that cuts a text at fixed positions.
struct Cutter {
    const char* name;
    std::function<std::int64_t(const std::string&)> cut;
};

std::vector<Cutter> Cutters() {
    return {{"stringToUTCTime", [](const std::string& text) { return ContextString::stringToUTCTime(text); }},
            {"time_cal", [](const std::string& text) { return ContextString::time_cal(text); }},
            {"StringToUTC", [](const std::string& text) { return ContextString::StringToUTC(text); }}};
}

std::tm BrokenDown(int year, int month, int day, int hour, int minute, int second) {
    std::tm time{};
    time.tm_year = year;
    time.tm_mon = month;
    time.tm_mday = day;
    time.tm_hour = hour;
    time.tm_min = minute;
    time.tm_sec = second;
    return time;
}

class ContextStringTimeTest : public ::testing::Test {
protected:
    void SetUp() override { CapturedLog::Clear(); }
    void TearDown() override { TestClock::Release(); }
};

TEST_F(ContextStringTimeTest, TimeIsAsWideAsLong) {
    EXPECT_EQ(sizeof(std::time_t), sizeof(long));  // on the device, both have 32 bits
}

// Writing

TEST_F(ContextStringTimeTest, FormatsTimesInManyZones) {
    const std::vector<Row> rows = ReadVectors("time-texts.tsv");
    ASSERT_GT(rows.size(), 300U);
    const Frozen clock(kSummer);
    for (const Row& row : rows) {
        ASSERT_EQ(row.size(), 4U);
        const std::int64_t seconds = std::stoll(row[1]);
        if (seconds > LONG_MAX) {
            continue;  // too large for the parameter
        }
        const TimeZone zone(row[0]);
        EXPECT_EQ(ContextString::ConvertTimeFormat(static_cast<long>(seconds)), row[2]) << row[0] << " " << seconds;
        if (seconds != 0) {
            EXPECT_EQ(ContextString::ConvertUTCToLocaltime(static_cast<long>(seconds)), row[3])
                << row[0] << " " << seconds;
        }
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringTimeTest, CompactFormTreatsZeroAsTheEpoch) {
    const TimeZone zone("UTC0");
    const Frozen clock(kSummer);
    EXPECT_EQ(ContextString::ConvertTimeFormat(0), "19700101000000");
}

TEST_F(ContextStringTimeTest, DisplayFormTreatsZeroAsTheCurrentTime) {
    const TimeZone zone("JST-9");
    const Frozen clock(1709615229);
    EXPECT_EQ(ContextString::ConvertUTCToLocaltime(0), "2024-03-05 14:07:09+0900");
    TestClock::Advance(1);
    EXPECT_EQ(ContextString::ConvertUTCToLocaltime(0), "2024-03-05 14:07:10+0900");
    EXPECT_EQ(ContextString::ConvertUTCToLocaltime(1), "1970-01-01 09:00:01+0900");
    EXPECT_EQ(ContextString::ConvertUTCToLocaltime(-1), "1970-01-01 08:59:59+0900");
}

TEST_F(ContextStringTimeTest, FormatsTheLimitsOfA32BitTime) {
    const struct {
        const char* zone;
        long seconds;
        const char* compact;
        const char* display;
    } rows[] = {
        {"UTC0", INT_MAX, "20380119031407", "2038-01-19 03:14:07+0000"},
        {"JST-9", INT_MAX, "20380119121407", "2038-01-19 12:14:07+0900"},
        {"UTC0", INT_MIN, "19011213204552", "1901-12-13 20:45:52+0000"},
        {"EST5", INT_MIN, "19011213154552", "1901-12-13 15:45:52-0500"},
    };
    for (const auto& row : rows) {
        const TimeZone zone(row.zone);
        EXPECT_EQ(ContextString::ConvertTimeFormat(row.seconds), row.compact) << row.zone;
        EXPECT_EQ(ContextString::ConvertUTCToLocaltime(row.seconds), row.display) << row.zone;
    }
}

#if LONG_MAX > INT_MAX  // these times do not fit in a long of 32 bits

TEST_F(ContextStringTimeTest, TruncatesYearsOfFiveDigits) {
    const TimeZone zone("UTC0");
    constexpr long kYear10000 = 253402300800;
    EXPECT_EQ(ContextString::ConvertTimeFormat(kYear10000 - 1), "99991231235959");
    const std::string compact = ContextString::ConvertTimeFormat(kYear10000);
    EXPECT_LT(compact.size(), 15U);
    EXPECT_EQ(std::string("100000101000000").find(compact), 0U) << compact;
    const std::string display = ContextString::ConvertUTCToLocaltime(kYear10000);
    EXPECT_LT(display.size(), 25U);
    EXPECT_EQ(std::string("10000-01-01 00:00:00+0000").find(display), 0U) << display;
}

TEST_F(ContextStringTimeTest, FormatsTimesWhoseYearOverflows) {
    const TimeZone zone("UTC0");
    for (const long seconds : {LONG_MAX, LONG_MIN}) {
        EXPECT_EQ(ContextString::ConvertTimeFormat(seconds), "19000100000000");
        EXPECT_EQ(ContextString::ConvertUTCToLocaltime(seconds).substr(0, 19), "1900-01-00 00:00:00");
    }
}

#endif

TEST_F(ContextStringTimeTest, FormatsBrokenDownTimesFieldByField) {
    const struct {
        const char* name;
        std::tm time;
        const char* text;
    } rows[] = {
        {"padded", BrokenDown(124, 2, 5, 9, 7, 3), "20240305090703"},
        {"two digits", BrokenDown(124, 11, 31, 23, 59, 59), "20241231235959"},
        {"zeros", BrokenDown(0, 0, 0, 0, 0, 0), "19000100000000"},
        {"longer fields are not cut", BrokenDown(124, 99, 100, 101, 102, 103), "2024100100101102103"},
        {"negative fields are not padded", BrokenDown(124, -6, -5, -1, -10, -59), "2024-5-5-1-10-59"},
        {"month before January", BrokenDown(124, -1, 1, 0, 0, 0), "20240001000000"},
        {"years are never padded", BrokenDown(5 - 1900, 2, 5, 14, 7, 9), "50305140709"},
        {"years below zero", BrokenDown(-1907, 2, 5, 14, 7, 9), "-70305140709"},
        {"years of five digits", BrokenDown(8100, 0, 1, 0, 0, 0), "100000101000000"},
        {"the last year and month", BrokenDown(INT_MAX, INT_MAX, 1, 0, 0, 0), "2147485547214748364801000000"},
    };
    for (const auto& row : rows) {
        std::tm time = row.time;
        time.tm_isdst = 1;
        EXPECT_EQ(ContextString::time_cal(&time), row.text) << row.name;
        EXPECT_EQ(time.tm_mon, row.time.tm_mon) << row.name;
        EXPECT_EQ(time.tm_isdst, 1) << row.name;
    }
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringTimeTest, LeavesTheBufferOfLocaltimeUnchanged) {
    const struct {
        const char* name;
        std::function<void()> convert;
    } rows[] = {
        {"ConvertTimeFormat", [] { ContextString::ConvertTimeFormat(kWinter); }},
        {"ConvertUTCToLocaltime", [] { ContextString::ConvertUTCToLocaltime(kWinter); }},
        {"ConvertUTCToLocaltime of now", [] { ContextString::ConvertUTCToLocaltime(0); }},
        {"ConvertTimeStringToUTC", [] { ContextString::ConvertTimeStringToUTC("20240305140709"); }},
        {"stringToUTCTime", [] { ContextString::stringToUTCTime("20240305140709"); }},
        {"time_cal", [] { ContextString::time_cal("01240205140709"); }},
        {"StringToUTC", [] { ContextString::StringToUTC("20240305140709"); }},
    };
    std::tm* const shared = std::localtime(&kSummer);
    ASSERT_NE(shared, nullptr);
    for (const auto& row : rows) {
        *shared = BrokenDown(1, 2, 3, 4, 5, 6);
        row.convert();
        EXPECT_EQ(ContextString::time_cal(shared), "19010303040506") << row.name;
    }
}

// Reading

TEST_F(ContextStringTimeTest, ReadsTextsInManyZonesAtManyCurrentTimes) {
    const std::vector<Row> rows = ReadVectors("time-parses.tsv");
    ASSERT_GT(rows.size(), 1000U);
    for (const Row& row : rows) {
        ASSERT_EQ(row.size(), 7U);
        const std::string& text = row[2];
        const std::string place = row[0] + " at " + row[1] + ": " + text;
        const TimeZone zone(row[0]);
        const Frozen clock(static_cast<std::time_t>(std::stoll(row[1])));
        if (row[3] != "-") {
            const auto bar = row[3].find('|');
            const std::time_t first = TimeOrMinusOne(std::stoll(row[3]));
            const std::time_t second =
                bar == std::string::npos ? first : TimeOrMinusOne(std::stoll(row[3].substr(bar + 1)));
            const std::time_t read = ContextString::ConvertTimeStringToUTC(text);
            EXPECT_TRUE(read == first || read == second) << place << " gives " << read << " for " << row[3];
            EXPECT_EQ(ContextString::ConvertTimeStringToUTC(text.c_str()), read) << place;
        }
        EXPECT_EQ(ContextString::stringToUTCTime(text), TimeOrMinusOne(std::stoll(row[4]))) << place;
        if (row[5] != "-") {
            EXPECT_EQ(ContextString::time_cal(text), TimeOrMinusOne(std::stoll(row[5]))) << place;
        }
        EXPECT_EQ(ContextString::StringToUTC(text), Saturated(std::stoll(row[6]))) << place;
    }
}

TEST_F(ContextStringTimeTest, AppliesDaylightSavingOfTheDate) {
    const TimeZone zone(kParis);
    for (const std::time_t now : {kWinter, kSummer}) {
        const Frozen clock(now);
        EXPECT_EQ(ContextString::ConvertTimeStringToUTC("20240115120000"), 1705320000 - 3600);
        EXPECT_EQ(ContextString::ConvertTimeStringToUTC("20240715120000"), 1721044800 - 7200);
    }
}

TEST_F(ContextStringTimeTest, AppliesDaylightSavingOfTheCurrentTime) {
    const TimeZone zone(kParis);
    {
        const Frozen clock(kWinter);
        EXPECT_EQ(ContextString::stringToUTCTime("20240115120000"), 1705320000 - 3600);
        EXPECT_EQ(ContextString::stringToUTCTime("20240715120000"), 1721044800 - 3600);
        EXPECT_EQ(ContextString::StringToUTC("20240715120000"), Saturated(20240715130000));
    }
    {
        const Frozen clock(kSummer);
        EXPECT_EQ(ContextString::stringToUTCTime("20240115120000"), 1705320000 - 7200);
        EXPECT_EQ(ContextString::stringToUTCTime("20240715120000"), 1721044800 - 7200);
        EXPECT_EQ(ContextString::StringToUTC("20240115120000"), Saturated(20240115110000));
    }
}

TEST_F(ContextStringTimeTest, AppliesDaylightSavingFromTheSecondItBegins) {
    const TimeZone zone(kParis);
    constexpr std::time_t kSpringForward = 1711846800;  // 31 March 2024, 01:00 UTC
    const Frozen clock(kSpringForward - 1);
    EXPECT_EQ(ContextString::stringToUTCTime("20240305140709"), 1709647629 - 3600);
    TestClock::Advance(1);
    EXPECT_EQ(ContextString::stringToUTCTime("20240305140709"), 1709647629 - 7200);
}

TEST_F(ContextStringTimeTest, ReadsTheEpoch) {
    const TimeZone zone("UTC0");
    EXPECT_EQ(ContextString::ConvertTimeStringToUTC("19700101000000"), 0);
    EXPECT_EQ(ContextString::ConvertTimeStringToUTC(std::string("19700101000000")), 0);
    EXPECT_EQ(ContextString::stringToUTCTime("19700101000000"), 0);
}

TEST_F(ContextStringTimeTest, CarriesOverflowIntoTheNextField) {
    const TimeZone zone("UTC0");
    const struct {
        const char* text;
        std::time_t seconds;
    } rows[] = {
        {"20241301000000", 1735689600},  // 1 January 2025
        {"20240231000000", 1709337600},  // 2 March
        {"20240000000000", 1701302400},  // month 0, day 0: 30 November
        {"20240305992060", 1709954460},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContextString::stringToUTCTime(row.text), row.seconds) << row.text;
    }
}

TEST_F(ContextStringTimeTest, ReadsPiecesAsStrtolDoes) {
    const TimeZone zone("UTC0");
    const struct {
        const char* name;
        std::string text;
        const char* same;
    } rows[] = {
        {"12 characters: seconds are 0", "202403051407", "20240305140700"},
        {"13 characters: seconds have one digit", "2024030514079", "20240305140709"},
        {"characters after the 14th", "20240305140709999", "20240305140709"},
        {"leading blanks", "2024 3 514 7 9", "20240305140709"},
        {"signs", "2024+3+514-1+9", "20240305135909"},
        {"junk after a digit", "20243x5y147z9!", "20240305140709"},
        {"a piece without a digit is 0", "2024ab05140709", "20240005140709"},
        {"not hexadecimal", "20240305140x0x", "20240305140000"},
        {"not octal", "20240809080908", "2024 8 9 8 9 8"},
        {"a zero byte ends a piece", "20243\0"s + "05140709", "20240305140709"},
    };
    for (const auto& row : rows) {
        for (const Cutter& cutter : Cutters()) {
            EXPECT_EQ(cutter.cut(row.text), cutter.cut(row.same)) << cutter.name << ": " << row.name;
        }
    }
    EXPECT_EQ(ContextString::stringToUTCTime("20240305140709"), 1709647629);
}

TEST_F(ContextStringTimeTest, ThrowsWhenATextIsTooShortToCut) {
    const std::string text = "202403051407";
    for (const Cutter& cutter : Cutters()) {
        for (std::size_t length = 0; length < text.size(); ++length) {
            ExpectOutOfRange([&] { cutter.cut(text.substr(0, length)); },
                             std::string(cutter.name) + " of " + std::to_string(length));
        }
        CapturedLog::Clear();
        ExpectOutOfRange([&] { cutter.cut("20240305"); }, cutter.name);
        EXPECT_TRUE(CapturedLog::Lines().empty()) << cutter.name;
        EXPECT_NO_THROW(cutter.cut(text)) << cutter.name;
    }
}

TEST_F(ContextStringTimeTest, TimeCalReadsYearAndMonthUnadjusted) {
    const TimeZone zone("UTC0");
    const Frozen clock(kWinter);
    EXPECT_EQ(ContextString::time_cal("20240305140709"), TimeOrMinusOne(61670470029));  // 5 April 3924
    EXPECT_EQ(ContextString::time_cal("00700001000000"), 0);                            // year 70, month 0
    EXPECT_EQ(ContextString::time_cal("01240205140709"), 1709647629);
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringTimeTest, ReturnsMinusOneWhenTheTimeOverflows) {
    const TimeZone zone("UTC0");
    const std::time_t expected = kIsTimeShort ? -1 : static_cast<std::time_t>(2208988800LL);
    EXPECT_EQ(ContextString::ConvertTimeStringToUTC("20400101000000"), expected);
    EXPECT_EQ(ContextString::stringToUTCTime("20400101000000"), expected);
    EXPECT_EQ(ContextString::time_cal("01400001000000"), expected);
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringTimeTest, ReadsTheLimitsOfA32BitTime) {
    const struct {
        const char* zone;
        const char* text;
        const char* unadjusted;  ///< for time_cal(): years since 1900, months since January
        std::int64_t seconds;
    } rows[] = {
        {"UTC0", "20380119031407", "01380019031407", 2147483647},
        {"UTC0", "20380119031408", "01380019031408", 2147483648},
        {"JST-9", "20380119121407", "01380019121407", 2147483647},
        {"JST-9", "20380119121408", "01380019121408", 2147483648},
        {"UTC0", "19011213204552", "00011113204552", -2147483648},
        {"UTC0", "19011213204551", "00011113204551", -2147483649},
        {"EST5", "19011213154552", "00011113154552", -2147483648},
        {"EST5", "19011213154551", "00011113154551", -2147483649},
    };
    for (const auto& row : rows) {
        const TimeZone zone(row.zone);
        const Frozen clock(kWinter);
        EXPECT_EQ(ContextString::ConvertTimeStringToUTC(row.text), TimeOrMinusOne(row.seconds))
            << row.zone << " " << row.text;
        EXPECT_EQ(ContextString::stringToUTCTime(row.text), TimeOrMinusOne(row.seconds)) << row.zone << " " << row.text;
        EXPECT_EQ(ContextString::time_cal(row.unadjusted), TimeOrMinusOne(row.seconds))
            << row.zone << " " << row.unadjusted;
    }
}

TEST_F(ContextStringTimeTest, ResolvesAbolishedDaylightSavingAsMktimeDoes) {
    const TimeZone zone("America/Sao_Paulo");
    const Frozen clock(1421323200);  // 15 January 2015, in daylight saving time; the zone abolished it in 2019
    std::tm time = BrokenDown(2035 - 1900, 2, 5, 14, 7, 9);
    time.tm_isdst = 1;
    EXPECT_EQ(ContextString::stringToUTCTime("20350305140709"), std::mktime(&time));
}

TEST_F(ContextStringTimeTest, ConvertsTheParsedPartOfAnInvalidText) {
    const TimeZone zone("UTC0");
    const struct {
        const char* text;
        std::int64_t seconds;
    } rows[] = {
        {"", -2209075200},         // 31 December 1899: day 0 of the year 1900
        {"noon", -2209075200},     // the same
        {"2024", 1703980800},      // 31 December 2023
        {"20240305", 1709596800},  // midnight
        {"202403051407", 1709647620},
        {"20240305140709 and more", 1709647629},
        {"202403", 1709164800},  // 29 February: day 0 of March
        {"202403xx140709", 1709164800},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContextString::ConvertTimeStringToUTC(row.text), TimeOrMinusOne(row.seconds)) << row.text;
        EXPECT_EQ(ContextString::ConvertTimeStringToUTC(std::string(row.text)), TimeOrMinusOne(row.seconds))
            << row.text;
    }
    EXPECT_EQ(ContextString::ConvertTimeStringToUTC(static_cast<const char*>(nullptr)), TimeOrMinusOne(-2209075200));
    EXPECT_EQ(ContextString::ConvertTimeStringToUTC("20240305\0"s + "140709"), 1709596800);
    EXPECT_TRUE(CapturedLog::Lines().empty());
}

TEST_F(ContextStringTimeTest, LogsTheNormalisedFieldsAndTheNumber) {
    const TimeZone zone("UTC0");
    const Frozen clock(kWinter);
    // 29 February, 24 hours, 60 minutes and 61 seconds: 1 March, 01:01:01.
    EXPECT_EQ(ContextString::StringToUTC("20240229246061"), Saturated(20240301010101));
    const Texts formats = {
        "ContextString::strTime  %s (%d) tm->tm_year [%s]", "ContextString::strTime  %s (%d) tm->tm_mon [%s]",
        "ContextString::strTime  %s (%d) tm->tm_mday [%s]", "ContextString::strTime  %s (%d) tm->tm_hour [%s]",
        "ContextString::strTime  %s (%d) tm->tm_min [%s]",  "ContextString::strTime  %s (%d) tm->tm_sec  [%s]",
        "ContextString::strTime  %s (%d) result  [%s]",
    };
    const std::string number = kIsLongShort ? "2147483647" : "-1879855947";  // the low 32 bits
    const Texts messages = {
        "I ContextString::strTime  20240229246061 (124) tm->tm_year []",
        "I ContextString::strTime  20240229246061 (2) tm->tm_mon []",
        "I ContextString::strTime  20240229246061 (1) tm->tm_mday []",
        "I ContextString::strTime  20240229246061 (1) tm->tm_hour []",
        "I ContextString::strTime  20240229246061 (1) tm->tm_min []",
        "I ContextString::strTime  20240229246061 (1) tm->tm_sec  []",
        "I ContextString::strTime  20240229246061 (" + number + ") result  []",
    };
    EXPECT_EQ(CapturedLog::Messages(), messages);
    const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
    ASSERT_EQ(lines.size(), formats.size());
    for (std::size_t line = 0; line < lines.size(); ++line) {
        EXPECT_EQ(lines[line].format, formats[line]);
        EXPECT_EQ(lines[line].buffer, 0);
        EXPECT_EQ(lines[line].priority, 4);
        EXPECT_EQ(lines[line].tag, "LMR_COMMON");
        EXPECT_EQ(lines[line].file, "ContextString.cpp");
        EXPECT_EQ(lines[line].function, "StringToUTC");
        EXPECT_GT(lines[line].line, line == 0 ? 0 : lines[line - 1].line);
    }
}

TEST_F(ContextStringTimeTest, ReturnsTheDigitsOfADateAsANumber) {
    const TimeZone zone("UTC0");
    EXPECT_EQ(ContextString::StringToUTC("20240305140709"), kIsLongShort ? LONG_MAX : Saturated(20240305140709));
    EXPECT_EQ(CapturedLog::Lines().size(), 7U);
    EXPECT_EQ(ContextString::StringToUTC("20241301000000"), Saturated(20250101000000));
    EXPECT_EQ(ContextString::StringToUTC("20400101000000"), Saturated(20400101000000));
    EXPECT_EQ(ContextString::StringToUTC("-0010305140709"), kIsLongShort ? LONG_MIN : Saturated(-10305140709));
    EXPECT_EQ(ContextString::StringToUTC("00000305140709"), 305140709);  // the year 0 is written as one digit
}

TEST_F(ContextStringTimeTest, NormalisesOnlyDatesWithinTheRangeOfTime) {
    const TimeZone zone("UTC0");
    const Frozen clock(kWinter);
    ContextString::StringToUTC("20400230000000");
    const Texts messages = CapturedLog::Messages();
    ASSERT_EQ(messages.size(), 7U);
    const std::string start = "I ContextString::strTime  20400230000000 ";
    EXPECT_EQ(messages[1], start + (kIsTimeShort ? "(1)" : "(2)") + " tm->tm_mon []");
    EXPECT_EQ(messages[2], start + (kIsTimeShort ? "(30)" : "(1)") + " tm->tm_mday []");
}

}  // namespace
