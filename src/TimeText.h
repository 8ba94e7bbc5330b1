// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_TIME_TEXT_H
#define LUMORA_COMMON_SRC_TIME_TEXT_H

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

/// Helpers that format time texts and cut them into pieces.
namespace TimeText {

constexpr const char* kCompactForm = "%Y%m%d%H%M%S";
constexpr const char* kDisplayForm = "%Y-%m-%d %H:%M:%S%z";

constexpr std::size_t kCompactSize = 15;  ///< includes the terminator
constexpr std::size_t kDisplaySize = 25;

/// Year, month, day, hour, minute and second.
using Pieces = std::array<std::string, 6>;
using Starts = std::array<std::size_t, 6>;

constexpr Starts kCompactStarts{0, 4, 6, 8, 10, 12};
constexpr Starts kSqlStarts{0, 5, 8, 11, 14, 17};

/// @throws std::out_of_range when a piece starts after the end of the text.
inline Pieces Cut(const std::string& text, const Starts& starts) {
    Pieces pieces;
    for (std::size_t piece = 0; piece < pieces.size(); ++piece) {
        pieces[piece] = text.substr(starts[piece], piece == 0 ? 4 : 2);
    }
    return pieces;
}

/// @return local time; all fields zero when the year does not fit into an `int`.
inline std::tm Local(std::time_t seconds) {
    std::tm time{};
    return localtime_r(&seconds, &time) != nullptr ? time : std::tm{};
}

/// @return the content of a buffer of this size after strftime(), even when the text does not fit.
template <std::size_t Size>
std::string Format(const char* form, const std::tm& time) {
    char buffer[Size] = {};
    std::strftime(buffer, Size, form, &time);
    return {buffer, strnlen(buffer, Size)};
}

/// @return the current local time, with its six fields taken from a compact text. Year and month are stored unadjusted.
inline std::tm CutUnadjusted(const std::string& text) {
    std::tm time = Local(std::time(nullptr));
    const Pieces pieces = Cut(text, kCompactStarts);
    int* const fields[] = {&time.tm_year, &time.tm_mon, &time.tm_mday, &time.tm_hour, &time.tm_min, &time.tm_sec};
    for (std::size_t piece = 0; piece < pieces.size(); ++piece) {
        *fields[piece] = static_cast<int>(std::strtol(pieces[piece].c_str(), nullptr, /*base=*/10));
    }
    return time;
}

/// Like CutUnadjusted(), but with year and month adjusted to `std::tm`.
inline std::tm CutTime(const std::string& text) {
    std::tm time = CutUnadjusted(text);
    time.tm_year -= 1900;
    time.tm_mon -= 1;
    return time;
}

}  // namespace TimeText

#endif  // LUMORA_COMMON_SRC_TIME_TEXT_H
