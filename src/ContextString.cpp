// SPDX-License-Identifier: Apache-2.0
#include "ContextString.h"

#include <endian.h>
#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <sstream>
#include <utility>

#include "Log.h"
#include "TimeText.h"

namespace {

constexpr const char* kWhiteSpace = " \v\f\n\r\t";

constexpr std::size_t kUtf8BytesPerUnit = 4;  ///< at most three for a unit and four for a pair; leaves a terminator

/// Formats a field of the compact form except the year, which is not padded.
std::string PadToTwo(long long field) {
    std::string text = std::to_string(field);
    if (text.size() == 1) {
        text.insert(text.begin(), '0');
    }
    return text;
}

/// Reads a number as an input stream does.
/// @return false when the stream fails; `number` is then what the stream leaves.
template <class Number>
bool Extract(const std::string& text, Number& number) {
    std::istringstream stream(text);
    stream.exceptions(std::ios::badbit);  // by default a stream swallows std::bad_alloc
    stream >> number;
    return !stream.fail();
}

bool IsLineBreak(unsigned short unit) {
    return unit == htobe16(0x000A) || unit == htobe16(0x000D);
}

/// Examines every unit instead of stopping at the first line break: most texts have none. The result is as wide as a
/// unit, so that the compiler can vectorise the loop.
bool HasLineBreak(const std::basic_string<unsigned short>& text) {
    unsigned short hasLineBreak = 0;
    for (const unsigned short unit : text) {
        hasLineBreak = static_cast<unsigned short>(hasLineBreak | static_cast<unsigned short>(IsLineBreak(unit)));
    }
    return hasLineBreak != 0;
}

/// Removes the line breaks of a text that ends with a zero unit. Needs no memory. The units between the new end and the
/// old one become zero, so that no half of a surrogate pair is left there.
void RemoveLineBreaks(unsigned short* text) {
    unsigned short* const end = text + std::char_traits<unsigned short>::length(text);
    std::fill(std::remove_if(text, end, IsLineBreak), end, static_cast<unsigned short>(0));
}

/// A converter from UTF-16BE to UTF-8, closed at the end of its scope.
class Converter {
public:
    Converter() : m_descriptor(iconv_open("UTF-8", "UTF-16BE")) {}
    ~Converter() {
        if (IsOpen()) {
            iconv_close(m_descriptor);
        }
    }

    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    // iconv_open() reports failure as (iconv_t)-1.
    bool IsOpen() const { return reinterpret_cast<std::intptr_t>(m_descriptor) != -1; }

    /// @return false with the reason in `errno`.
    bool Convert(char* destination, std::size_t destinationSize, char* source, std::size_t sourceSize) {
        return iconv(m_descriptor, &source, &sourceSize, &destination, &destinationSize) !=
               static_cast<std::size_t>(-1);
    }

private:
    iconv_t m_descriptor;
};

}  // namespace

unsigned long long ContextString::string2ull(const std::string& text) {
    return text.empty() ? 0 : std::stoull(text, nullptr, /*base=*/0);
}

int ContextString::string2int(const std::string& text) {
    int number = 0;
    Extract(text, number);
    return number;
}

double ContextString::string2double(const std::string& text) {
    double number = 0.0;
    return Extract(text, number) ? number : 0.0;
}

void ContextString::Trim(std::string& text) {
    text.erase(0, text.find_first_not_of(kWhiteSpace));
    text.erase(text.find_last_not_of(kWhiteSpace) + 1);
}

std::string ContextString::remove_chars(const std::string& text, const std::string& characters) {
    std::string result;
    result.reserve(text.size());
    std::string::size_type from = 0;
    for (auto hit = text.find_first_of(characters); hit != std::string::npos;
         hit = text.find_first_of(characters, from + 1)) {
        result.append(text, from, hit - from);
        from = hit + 1;  // the character at `from` is kept without being examined
    }
    if (from < text.size()) {
        result.append(text, from, std::string::npos);
    }
    return result;
}

std::vector<std::string> ContextString::to_word_vector(const std::string& text, const std::string& delimiter) {
    std::vector<std::string> words;
    std::string::size_type from = 0;
    if (!delimiter.empty()) {
        for (auto hit = text.find(delimiter); hit != std::string::npos; hit = text.find(delimiter, from)) {
            words.emplace_back(text, from, hit - from);
            from = hit + delimiter.size();
        }
    }
    words.emplace_back(text, from);
    return words;
}

int ContextString::SplitStringToken(const std::string& text, char delimiter, std::vector<std::string>& tokens) {
    std::vector<std::string> added;  // so that `tokens` changes only when the whole text is split
    std::string::size_type from = 0;
    while (from < text.size()) {
        const auto hit = std::min(text.find(delimiter, from), text.size());
        added.emplace_back(text, from, hit - from);
        from = hit + 1;
    }
    tokens.insert(tokens.end(), std::make_move_iterator(added.begin()), std::make_move_iterator(added.end()));
    return static_cast<int>(tokens.size());
}

std::string ContextString::UrlEncode(std::string text) {
    std::string result;
    result.reserve(text.size());
    for (const char character : text) {
        if (character == '&') {
            result += "%26";
        } else if (character == '^') {
            result += "%5E";
        } else {
            result += character;
        }
    }
    return result;
}

std::string ContextString::ConvertTimeFormat(long seconds) {
    return TimeText::Format<TimeText::kCompactSize>(TimeText::kCompactForm, TimeText::Local(seconds));
}

std::string ContextString::ConvertUTCToLocaltime(long seconds) {
    const std::time_t time = seconds == 0 ? std::time(nullptr) : seconds;
    return TimeText::Format<TimeText::kDisplaySize>(TimeText::kDisplayForm, TimeText::Local(time));
}

std::time_t ContextString::ConvertTimeStringToUTC(const char* text) {
    std::tm time{};
    time.tm_isdst = -1;
    if (text != nullptr) {
        strptime(text, TimeText::kCompactForm, &time);
    }
    return std::mktime(&time);
}

std::time_t ContextString::ConvertTimeStringToUTC(std::string text) {
    return ConvertTimeStringToUTC(text.c_str());
}

std::time_t ContextString::stringToUTCTime(std::string text) {
    std::tm time = TimeText::CutTime(text);
    return std::mktime(&time);
}

std::time_t ContextString::time_cal(std::string text) {
    std::tm time = TimeText::CutUnadjusted(text);
    return std::mktime(&time);
}

std::string ContextString::time_cal(std::tm* time) {
    return std::to_string(time->tm_year + 1900LL) + PadToTwo(time->tm_mon + 1LL) + PadToTwo(time->tm_mday) +
           PadToTwo(time->tm_hour) + PadToTwo(time->tm_min) + PadToTwo(time->tm_sec);
}

long ContextString::StringToUTC(std::string text) {
    std::tm time = TimeText::CutTime(text);
    std::mktime(&time);
    const char* input = text.c_str();
    LMR_LOG_INFO("ContextString::strTime  %s (%d) tm->tm_year [%s]", input, time.tm_year, "");
    LMR_LOG_INFO("ContextString::strTime  %s (%d) tm->tm_mon [%s]", input, time.tm_mon, "");
    LMR_LOG_INFO("ContextString::strTime  %s (%d) tm->tm_mday [%s]", input, time.tm_mday, "");
    LMR_LOG_INFO("ContextString::strTime  %s (%d) tm->tm_hour [%s]", input, time.tm_hour, "");
    LMR_LOG_INFO("ContextString::strTime  %s (%d) tm->tm_min [%s]", input, time.tm_min, "");
    LMR_LOG_INFO("ContextString::strTime  %s (%d) tm->tm_sec  [%s]", input, time.tm_sec, "");
    const long number = std::strtol(time_cal(&time).c_str(), nullptr, /*base=*/10);
    LMR_LOG_INFO("ContextString::strTime  %s (%d) result  [%s]", input, static_cast<int>(number), "");
    return number;
}

std::string ContextString::time_to_sqltime(std::string text) {
    if (text.empty()) {
        return text;
    }
    constexpr const char* kSeparators[] = {"", "-", "-", " ", ":", ":"};
    std::string result;
    result.reserve(sizeof("YYYY-MM-DD hh:mm:ss"));
    for (std::size_t piece = 0; piece < TimeText::kCompactStarts.size(); ++piece) {
        result += kSeparators[piece];
        result += text.substr(TimeText::kCompactStarts[piece], piece == 0 ? 4 : 2);
    }
    return result;
}

std::string ContextString::sqltime_cal(std::string text) {
    if (text.size() != 14) {
        return text;
    }
    // Always throws: the seconds of the SQL form start at position 17, past the end of 14 characters.
    const auto [year, month, day, hour, minute, second] = TimeText::Cut(text, TimeText::kSqlStarts);
    return year + month + day + hour + minute + second;
}

bool ContextString::Unicode2Utf8(char* destination, unsigned int destinationSize, char* source,
                                 unsigned int sourceSize) {
    Converter converter;
    if (!converter.IsOpen()) {
        LMR_LOG_ERROR("Iconv open failed");
        return false;
    }
    if (!converter.Convert(destination, destinationSize, source, sourceSize)) {
        LMR_LOG_ERROR("iconv failed: %d", errno);
        return false;
    }
    return true;
}

void ContextString::TransStrExceptLF(unsigned short* text) {
    if (text == nullptr) {
        LMR_LOG_WARNING("srv Is NUll");
        return;
    }
    const std::size_t length = std::char_traits<unsigned short>::length(text);
    // A promise: without memory for the scratch array the text stays unchanged, and a warning is logged. Zeroed, so
    // that no half of a surrogate pair is left between the new end of the text and the old one.
    const std::unique_ptr<unsigned short[]> kept(new (std::nothrow) unsigned short[length + 1]());
    if (kept == nullptr) {
        LMR_LOG_WARNING("new uint16_t[nLen] failed!");
        return;
    }
    std::remove_copy_if(text, text + length, kept.get(), IsLineBreak);
    std::copy_n(kept.get(), length + 1, text);
}

std::string ContextString::Twstring2String(std::basic_string<unsigned short> text) {
    if (text.empty()) {
        return {};
    }
    const std::size_t length = text.size();
    const std::unique_ptr<unsigned short[]> units(new (std::nothrow) unsigned short[length + 1]);
    if (units == nullptr) {
        return {};
    }
    const std::size_t utf8Size = length * kUtf8BytesPerUnit;
    const std::unique_ptr<char[]> utf8(new (std::nothrow) char[utf8Size]());
    if (utf8 == nullptr) {
        return {};
    }
    std::copy_n(text.c_str(), length + 1, units.get());
    if (HasLineBreak(text)) {
        RemoveLineBreaks(units.get());
    }
    // The size still counts the removed units, so the zeroed units after the new end are converted too.
    if (!Unicode2Utf8(utf8.get(), static_cast<unsigned int>(utf8Size), reinterpret_cast<char*>(units.get()),
                      static_cast<unsigned int>((length + 1) * sizeof(unsigned short)))) {
        LMR_LOG_ERROR("convert name failed");
        return {};
    }
    return utf8.get();
}
