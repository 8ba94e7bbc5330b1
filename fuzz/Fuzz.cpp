// SPDX-License-Identifier: Apache-2.0
#include "Fuzz.h"

#include <SystemLog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::LogLines().clear();
    Fuzz::Input input(data, size);
    Fuzz::Test(input);
    return 0;
}

// Formatting the message shows arguments that the format does not fit.
extern "C" int lumora_log_print(int /*buffer*/, int priority, const char* /*tag*/, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    const char* const prefixEnd = std::strstr(text, " > ");
    Fuzz::Holds("the prefix of a message", prefixEnd != nullptr);
    Fuzz::LogLines().push_back(std::to_string(priority) + " " + (prefixEnd + 3));
    return length;
}

std::vector<std::string>& Fuzz::LogLines() {
    static std::vector<std::string> lines;
    return lines;
}

void Fuzz::Fail(const std::string& message) {
    std::fprintf(stderr, "\nDIFFERENCE: %s\n", message.c_str());
    std::abort();
}

std::string Fuzz::Show(const std::string& text) {
    std::string shown = "\"";
    for (const char character : text) {
        if (character >= ' ' && character <= '~' && character != '"' && character != '\\') {
            shown += character;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\x%02X", static_cast<unsigned char>(character));
            shown += escaped;
        }
    }
    return shown + "\"";
}

void Fuzz::SameText(const char* what, const std::string& actual, const std::string& expected) {
    if (actual == expected) {
        return;
    }
    constexpr std::size_t kBefore = 40;
    constexpr std::size_t kShown = 200;
    std::size_t first = 0;
    while (first < actual.size() && first < expected.size() && actual[first] == expected[first]) {
        ++first;
    }
    const std::size_t from = first > kBefore ? first - kBefore : 0;
    const auto part = [&](const std::string& text) { return Show(text.substr(std::min(from, text.size()), kShown)); };
    Fail(std::string(what) + " at byte " + std::to_string(first) + ", shown from byte " + std::to_string(from) +
         "\n  library:  " + part(actual) + "\n  expected: " + part(expected));
}

std::string Fuzz::Show(double number) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.17g (%a)", number, number);
    return text;
}

std::string Fuzz::Input::Text() {
    const std::string bytes = Bytes();
    const auto at = [&](std::size_t index) {
        return index < bytes.size() ? static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[index])) : 0;
    };
    std::string text;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        if (at(index) < 0x80) {
            text += bytes[index];
            continue;
        }
        const std::uint32_t character = ((at(index) & 0x1F) << 16 | at(index + 1) << 8 | at(index + 2)) % 0x110000;
        AppendUtf8(text, character >= 0xD800 && character <= 0xDFFF ? character - 0xD800 : character);
        index += 2;
    }
    return text;
}

double Fuzz::Input::Real() {
    using Limits = std::numeric_limits<double>;
    constexpr double kSpecial[] = {0.0,
                                   -0.0,
                                   1.0,
                                   -1.0,
                                   0.5,
                                   1.5,
                                   1e-7,
                                   1e-300,
                                   1e300,
                                   4503599627370497.5,
                                   Limits::min(),
                                   Limits::denorm_min(),
                                   Limits::max(),
                                   Limits::lowest(),
                                   Limits::infinity(),
                                   -Limits::infinity(),
                                   Limits::quiet_NaN(),
                                   2147483647.0,
                                   2147483648.0,
                                   -2147483648.0,
                                   4294967295.0,
                                   9223372036854775808.0};
    const std::size_t kind = Below(4);
    if (kind == 0) {
        return OneOf(kSpecial);
    }
    return kind == 1 ? static_cast<double>(Take<std::int16_t>()) / 16 : Take<double>();
}

void Fuzz::AppendUtf8(std::string& text, std::uint32_t character) {
    const auto append = [&](std::uint32_t byte) { text += static_cast<char>(static_cast<unsigned char>(byte)); };
    if (character < 0x80) {
        append(character);
        return;
    }
    int following = character < 0x800 ? 1 : (character < 0x10000 ? 2 : 3);
    append((0xFF00U >> (following + 1) & 0xFFU) | character >> (6 * following));
    while (following-- > 0) {
        append(0x80 | (character >> (6 * following) & 0x3F));
    }
}

std::optional<std::vector<std::uint32_t>> Fuzz::CharactersOf(const std::string& utf8) {
    std::vector<std::uint32_t> characters;
    for (std::size_t at = 0; at < utf8.size();) {
        const auto first = static_cast<unsigned char>(utf8[at]);
        if (first < 0x80) {
            characters.push_back(first);
            ++at;
            continue;
        }
        std::size_t size = 2;
        while (size <= 4 && (first << (size - 1) & 0x80) != 0) {
            ++size;
        }
        // `size` is now one more than the number of leading ones: 2 for a misplaced byte, else 3 to 5.
        std::uint32_t character = first & (0xFFU >> size);
        const std::size_t bytes = size - 1;
        for (std::size_t next = 1; next < bytes && at + next < utf8.size(); ++next) {
            character = character << 6 | (static_cast<unsigned char>(utf8[at + next]) & 0x3FU);
        }
        // Whatever is not the one valid form of a character differs from that form.
        std::string form;
        AppendUtf8(form, character);
        const bool isCharacter = character <= 0x10FFFF && (character < 0xD800 || character > 0xDFFF);
        if (!isCharacter || utf8.compare(at, bytes, form) != 0) {
            return std::nullopt;
        }
        characters.push_back(character);
        at += bytes;
    }
    return characters;
}

void Fuzz::SetZone(const std::string& zone) {
    static std::string current;
    if (zone != current) {
        setenv("TZ", zone.c_str(), /*overwrite=*/1);
        tzset();
        current = zone;
    }
}
