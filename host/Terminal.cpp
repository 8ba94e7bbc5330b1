// SPDX-License-Identifier: Apache-2.0
#include "Terminal.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <limits>

#include "Decimal.h"

namespace {

constexpr std::size_t kDefaultWidth = 80;  // of a terminal that does not report its width

/// @return the value; empty if it is not set.
std::string Environment(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr ? value : "";
}

std::size_t ColumnsOf(gunichar character) {
    return g_unichar_iszerowidth(character) ? 0 : (g_unichar_iswide(character) ? 2 : 1);
}

constexpr gunichar kReplacement = 0xFFFD;

/// One character of a text.
struct Character {
    gunichar code;     ///< kReplacement for a byte that is zero or not UTF-8
    std::size_t size;  ///< bytes
    bool isValid;
};

/// @param at  less than the size of the text.
Character CharacterAt(const std::string& text, std::size_t at) {
    const gunichar code = g_utf8_get_char_validated(text.data() + at, static_cast<gssize>(text.size() - at));
    if (code == static_cast<gunichar>(-1) || code == static_cast<gunichar>(-2)) {
        return {kReplacement, 1, false};
    }
    return {code, static_cast<std::size_t>(g_unichar_to_utf8(code, nullptr)), true};
}

bool Disturbs(gunichar character) {
    const bool separates = character == 0x2028 || character == 0x2029;
    const bool directs = (character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069);
    return g_unichar_iscntrl(character) || separates || directs;
}

}  // namespace

std::size_t Terminal::WidthOf(int file) {
    if (isatty(file) == 0) {
        return std::numeric_limits<std::size_t>::max();
    }
    const int wanted = DecimalIn(Environment("COLUMNS")).value_or(0);
    if (wanted > 0) {
        return static_cast<std::size_t>(wanted);
    }
    winsize size{};
    ioctl(file, TIOCGWINSZ, &size);
    return size.ws_col > 0 ? size.ws_col : kDefaultWidth;
}

bool Terminal::IsSmart(int file) {
    const std::string terminal = Environment("TERM");
    return isatty(file) != 0 && !terminal.empty() && terminal != "dumb";
}

std::string Terminal::Heading(const std::string& text) {
    return IsSmart(STDOUT_FILENO) && Environment("NO_COLOR").empty() ? "\033[1m" + text + "\033[0m" : text;
}

std::size_t Terminal::Columns(const std::string& text) {
    std::size_t width = 0;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = CharacterAt(text, at);
        width += ColumnsOf(character.code);
        at += character.size;
    }
    return width;
}

std::string Terminal::Printable(const std::string& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = CharacterAt(text, at);
        if (!character.isValid || Disturbs(character.code)) {
            result += "\uFFFD";
        } else {
            result.append(text, at, character.size);
        }
        at += character.size;
    }
    return result;
}

std::string Terminal::Escaped(const std::string& text, std::size_t limit) {
    std::string result;
    std::size_t count = 0;
    for (std::size_t at = 0; at < text.size(); ++count) {
        if (count == limit) {
            return result + "...";
        }
        const Character character = CharacterAt(text, at);
        const std::string piece = text.substr(at, character.size);
        if (character.isValid && !Disturbs(character.code)) {
            result += piece;
        } else {
            for (const char byte : piece) {
                char escape[8];
                std::snprintf(escape, sizeof(escape), "\\x%02X", static_cast<unsigned char>(byte));
                result += escape;
            }
        }
        at += character.size;
    }
    return result;
}

std::string Terminal::Fit(const std::string& text, std::size_t width) {
    const std::size_t columns = Columns(text);
    if (columns <= width) {
        return text + std::string(width - columns, ' ');
    }
    std::size_t used = 0;
    std::size_t at = 0;
    // The text is wider than `width`, so this ends before the text does.
    for (Character next = CharacterAt(text, at); used + ColumnsOf(next.code) < width; next = CharacterAt(text, at)) {
        used += ColumnsOf(next.code);
        at += next.size;
    }
    return text.substr(0, at) + "…" + std::string(width - used - 1, ' ');
}

void Terminal::GuardStandardFiles() {
    for (const int file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(file, F_GETFD) < 0) {
            open("/dev/null", O_RDONLY);  // takes the lowest free descriptor, which is this one
        }
    }
}

std::string Terminal::FinishOutput() {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return "";
    }
    pollfd reader{STDOUT_FILENO, POLLOUT, 0};
    const bool isGone = poll(&reader, 1, /*timeout=*/0) == 1 && (reader.revents & POLLERR) != 0;
    return isGone ? "" : "cannot write to standard output: free some space or redirect it elsewhere";
}
