// SPDX-License-Identifier: Apache-2.0
#include <ContextString.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "Fuzz.h"
#include "TestClock.h"

namespace {

using Fuzz::Holds;
using Fuzz::Same;

constexpr const char* kZones[] = {"UTC",          "Europe/Berlin",    "America/New_York", "Australia/Lord_Howe",
                                  "Asia/Kolkata", "America/St_Johns", "<-0330>3:30",      "Pacific/Apia"};
constexpr time_t kMoments[] = {1705320000, 1720000000, 0};  // in winter and in summer

long long FloorDivide(long long number, long long by) {
    return (number < 0 ? number - by + 1 : number) / by;
}

/// @return days since the epoch in the Gregorian calendar.
/// @param month  0 for January; may be of another year.
long long DaysOf(long long year, int month, int day) {
    constexpr int kDaysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    year += FloorDivide(month, 12);
    month -= static_cast<int>(12 * FloorDivide(month, 12));
    const bool isLeap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    const long long past = year - 1;
    return 365 * past + FloorDivide(past, 4) - FloorDivide(past, 100) + FloorDivide(past, 400) - 719162 +
           kDaysBefore[month] + (isLeap && month > 1 ? 1 : 0) + day - 1;
}

std::string TwoDigits(int number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
}

std::optional<tm> LocalOf(time_t seconds) {
    tm local{};
    return localtime_r(&seconds, &local) != nullptr ? std::optional<tm>(local) : std::nullopt;
}

/// A text whose year has more than four digits is cut.
void SameCut(const char* what, const std::string& actual, const std::string& expected, std::size_t room) {
    if (expected.size() <= room) {
        Same(what, actual, expected);
    } else {
        Same(what, actual, expected.substr(0, actual.size()));
        Holds("a cut text fits", actual.size() <= room);
    }
}

void CheckFormats(long seconds, time_t now) {
    const std::optional<tm> local = LocalOf(seconds);
    const std::string compact = !local ? "19000100000000"
                                       : std::to_string(1900LL + local->tm_year) + TwoDigits(local->tm_mon + 1) +
                                             TwoDigits(local->tm_mday) + TwoDigits(local->tm_hour) +
                                             TwoDigits(local->tm_min) + TwoDigits(local->tm_sec);
    SameCut("ConvertTimeFormat", ContextString::ConvertTimeFormat(seconds), compact, 14);
    const std::optional<tm> shown = seconds == 0 ? LocalOf(now) : local;
    std::string display = "1900-01-00 00:00:00+0000";
    if (shown) {
        const long offset = std::labs(shown->tm_gmtoff) / 60;
        const bool isWest = shown->tm_gmtoff < 0;
        display = std::to_string(1900LL + shown->tm_year) + "-" + TwoDigits(shown->tm_mon + 1) + "-" +
                  TwoDigits(shown->tm_mday) + " " + TwoDigits(shown->tm_hour) + ":" + TwoDigits(shown->tm_min) + ":" +
                  TwoDigits(shown->tm_sec) + (isWest ? "-" : "+") + TwoDigits(static_cast<int>(offset / 60)) +
                  TwoDigits(static_cast<int>(offset % 60));
    }
    SameCut("ConvertUTCToLocaltime", ContextString::ConvertUTCToLocaltime(seconds), display, 24);
}

/// The fields of a text that is cut by position. All others are those of `now`.
tm FieldsOf(const std::string& text, time_t now, int firstYear, int firstMonth) {
    const auto piece = [&](std::size_t from, std::size_t size) {
        return static_cast<int>(std::strtol(text.substr(from, size).c_str(), nullptr, 10));
    };
    tm fields = *LocalOf(now);
    fields.tm_year = piece(0, 4) - firstYear;
    fields.tm_mon = piece(4, 2) - firstMonth;
    fields.tm_mday = piece(6, 2);
    fields.tm_hour = piece(8, 2);
    fields.tm_min = piece(10, 2);
    fields.tm_sec = piece(12, 2);
    return fields;
}

/// mktime() without the C library, where the zone is UTC.
time_t SecondsOf(tm fields, bool isUtc) {
    if (!isUtc) {
        return std::mktime(&fields);
    }
    const long long days = DaysOf(fields.tm_year + 1900LL, fields.tm_mon, fields.tm_mday);
    const long long seconds = days * 86400 + fields.tm_hour * 3600LL + fields.tm_min * 60LL + fields.tm_sec;
    return sizeof(time_t) == 4 && (seconds > INT_MAX || seconds < INT_MIN) ? -1 : static_cast<time_t>(seconds);
}

template <class Function>
auto Guarded(Function function) -> std::optional<decltype(function())> {
    try {
        return function();
    } catch (const std::out_of_range& error) {
        Holds("the error names substr", std::string(error.what()).find("basic_string::substr") == 0);
        return std::nullopt;
    }
}

std::string CompactOf(const tm& fields) {
    const auto padded = [](int number) {
        const std::string digits = std::to_string(number);
        return digits.size() == 1 ? "0" + digits : digits;
    };
    return std::to_string(fields.tm_year + 1900) + padded(fields.tm_mon + 1) + padded(fields.tm_mday) +
           padded(fields.tm_hour) + padded(fields.tm_min) + padded(fields.tm_sec);
}

void CheckCut(const std::string& text, time_t now, bool isUtc) {
    const bool isShort = text.size() < 12;
    const auto seconds = Guarded([&] { return ContextString::stringToUTCTime(text); });
    const auto unadjusted = Guarded([&] { return ContextString::time_cal(text); });
    Holds("nothing is logged", Fuzz::LogLines().empty());
    const auto digits = Guarded([&] { return ContextString::StringToUTC(text); });
    Same("lines of StringToUTC", Fuzz::LogLines().size(), isShort ? 0 : 7);
    const auto sql = Guarded([&] { return ContextString::time_to_sqltime(text); });
    if (isShort) {
        Holds("a short text throws", !seconds && !unadjusted && !digits && (!sql || text.empty()));
        return;
    }
    tm fields = FieldsOf(text, now, 1900, 1);
    Same("stringToUTCTime", seconds.value(), SecondsOf(fields, isUtc));
    Same("time_cal of a text", unadjusted.value(), SecondsOf(FieldsOf(text, now, 0, 0), isUtc));
    std::mktime(&fields);
    Same("time_cal of fields", ContextString::time_cal(&fields), CompactOf(fields));
    Same("StringToUTC", digits.value(), std::strtol(CompactOf(fields).c_str(), nullptr, 10));
    Same("time_to_sqltime", sql.value(),
         text.substr(0, 4) + "-" + text.substr(4, 2) + "-" + text.substr(6, 2) + " " + text.substr(8, 2) + ":" +
             text.substr(10, 2) + ":" + text.substr(12, 2));
}

/// Parsing stops at the first field that is wrong.
void CheckParsed(const std::string& text, bool isUtc) {
    tm fields{};
    strptime(text.c_str(), "%Y%m%d%H%M%S", &fields);
    fields.tm_isdst = -1;
    const time_t seconds = SecondsOf(fields, isUtc);
    Same("ConvertTimeStringToUTC", ContextString::ConvertTimeStringToUTC(text), seconds);
    Same("ConvertTimeStringToUTC of characters", ContextString::ConvertTimeStringToUTC(text.c_str()), seconds);
}

}  // namespace

void Fuzz::Test(Input& input) {
    const std::string zone = input.OneOf(kZones);
    SetZone(zone);
    const time_t now = input.OneOf(kMoments);
    TestClock::Set(now);
    const bool isUtc = zone == "UTC";
    const long seconds = input.Flag() ? input.Take<std::int32_t>() : input.Take<long>();
    CheckFormats(seconds, now);
    const std::string text = input.Rest();
    CheckParsed(text, isUtc);
    CheckCut(text, now, isUtc);
    const auto unchanged = Guarded([&] { return ContextString::sqltime_cal(text); });
    Same("sqltime_cal", unchanged, text.size() == 14 ? std::nullopt : std::optional<std::string>(text));
    // What is formatted is read back, except in the hour that occurs twice.
    const long long wide = seconds;  // a `long` of 32 bits is never above INT_MAX
    if (isUtc && wide >= 0 && wide <= INT_MAX) {
        const std::string compact = ContextString::ConvertTimeFormat(seconds);
        Same("the round trip", static_cast<long>(ContextString::ConvertTimeStringToUTC(compact)), seconds);
    }
}
