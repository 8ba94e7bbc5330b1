// SPDX-License-Identifier: Apache-2.0
#include <ContextString.h>

#include <cerrno>

#include "Fuzz.h"

namespace {

using Fuzz::Same;

/// What a conversion must give: the text up to the first fault, and the error number of the fault.
struct Converted {
    std::string text;
    int error = 0;
};

/// Converts big-endian UTF-16 as far as the room and the first fault allow.
Converted Convert(const std::string& bytes, std::size_t room) {
    const auto unit = [&](std::size_t at) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at]) << 8 |
                                          static_cast<unsigned char>(bytes[at + 1]));
    };
    Converted result;
    for (std::size_t at = 0; at < bytes.size();) {
        if (at + 2 > bytes.size()) {
            result.error = EINVAL;
            return result;
        }
        std::uint32_t character = unit(at);
        std::size_t size = 2;
        if (character >= 0xDC00 && character <= 0xDFFF) {
            result.error = EILSEQ;
            return result;
        }
        if (character >= 0xD800 && character <= 0xDBFF) {
            if (at + 4 > bytes.size()) {
                result.error = EINVAL;
                return result;
            }
            if (unit(at + 2) < 0xDC00 || unit(at + 2) > 0xDFFF) {
                result.error = EILSEQ;
                return result;
            }
            character = 0x10000 + ((character - 0xD800) << 10) + (unit(at + 2) - 0xDC00);
            size = 4;
        }
        std::string next;
        Fuzz::AppendUtf8(next, character);
        if (result.text.size() + next.size() > room) {
            result.error = E2BIG;
            return result;
        }
        result.text += next;
        at += size;
    }
    return result;
}

/// @return the bytes without line breaks up to the first zero unit, which is the end.
std::string WithoutBreaks(const std::string& bytes) {
    std::string result;
    for (std::size_t at = 0; at + 2 <= bytes.size(); at += 2) {
        const std::string unit = bytes.substr(at, 2);
        if (unit == std::string(2, '\0')) {
            break;
        }
        if (unit != std::string("\0\n", 2) && unit != std::string("\0\r", 2)) {
            result += unit;
        }
    }
    return result;
}

void CheckConversion(std::string bytes, std::size_t room) {
    constexpr char kUntouched = '\x55';
    std::vector<char> destination(room, kUntouched);
    const bool isConverted = ContextString::Unicode2Utf8(destination.data(), static_cast<unsigned int>(room),
                                                         bytes.data(), static_cast<unsigned int>(bytes.size()));
    const Converted expected = Convert(bytes, room);
    Same("Unicode2Utf8", isConverted, expected.error == 0);
    std::string all = expected.text;
    if (expected.error != E2BIG) {
        all.resize(room, kUntouched);
        Same("the destination", std::string(destination.begin(), destination.end()), all);
    } else {  // the C library may leave a part of the character that does not fit
        Same("the destination", std::string(destination.begin(), destination.end()).substr(0, all.size()), all);
    }
    Same("its log", Fuzz::LogLines(),
         expected.error == 0 ? std::vector<std::string>()
                             : std::vector<std::string>{"6 iconv failed: " + std::to_string(expected.error)});
}

void CheckCleaning(const std::string& bytes) {
    std::vector<unsigned short> units(bytes.size() / 2 + 1);
    std::memcpy(units.data(), bytes.data(), bytes.size() / 2 * 2);
    const auto end = static_cast<std::size_t>(std::find(units.begin(), units.end(), 0) - units.begin());
    std::string expected = WithoutBreaks(bytes);
    expected.resize(2 * end);
    expected.append(reinterpret_cast<const char*>(units.data() + end), 2 * (units.size() - end));
    ContextString::TransStrExceptLF(units.data());
    Same("TransStrExceptLF", std::string(reinterpret_cast<const char*>(units.data()), expected.size()), expected);
}

void CheckString(const std::string& bytes) {
    std::basic_string<unsigned short> text(bytes.size() / 2, 0);
    std::memcpy(text.data(), bytes.data(), text.size() * 2);
    const std::string whole = bytes.substr(0, text.size() * 2);
    // The cleaned part is filled with zeros to its old length; what follows its old end is converted too.
    std::string cleaned = WithoutBreaks(whole);
    std::size_t end = text.find(static_cast<unsigned short>(0));
    end = end == std::string::npos ? text.size() : end;
    cleaned.resize(2 * end);
    cleaned += whole.substr(2 * end) + std::string(2, '\0');
    const Converted converted = Convert(cleaned, std::string::npos);
    const bool isValid = text.empty() || converted.error == 0;
    Same("Twstring2String", ContextString::Twstring2String(text), isValid ? std::string(converted.text.c_str()) : "");
    Same("its messages", Fuzz::LogLines(),
         isValid
             ? std::vector<std::string>()
             : std::vector<std::string>{"6 iconv failed: " + std::to_string(converted.error), "6 convert name failed"});
}

}  // namespace

void Fuzz::Test(Input& input) {
    const bool isNarrow = input.Flag();
    const std::size_t narrow = isNarrow ? 1 + input.Take<std::uint8_t>() : 0;
    const std::string bytes = input.Rest();
    CheckConversion(bytes, isNarrow ? narrow : 2 * bytes.size() + 8);
    LogLines().clear();
    CheckCleaning(bytes);
    CheckString(bytes);
}
