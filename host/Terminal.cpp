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
    const int wanted = std::atoi(Environment("COLUMNS").c_str());
    if (wanted > 0) {
        return static_cast<std::size_t>(wanted);
    }
    winsize size{};
    return ioctl(file, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kDefaultWidth;
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
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        width += ColumnsOf(g_utf8_get_char(at));
    }
    return width;
}

std::string Terminal::Printable(const std::string& text) {
    std::string result;
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        if (Disturbs(g_utf8_get_char(at))) {
            result += "\uFFFD";
        } else {
            result.append(at, static_cast<const char*>(g_utf8_next_char(at)));
        }
    }
    return result;
}

std::string Terminal::Fit(const std::string& text, std::size_t width) {
    const std::size_t columns = Columns(text);
    if (columns <= width) {
        return text + std::string(width - columns, ' ');
    }
    std::string result;
    std::size_t used = 0;
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const std::size_t next = ColumnsOf(g_utf8_get_char(at));
        if (used + next + 1 > width) {
            break;
        }
        result.append(at, static_cast<const char*>(g_utf8_next_char(at)));
        used += next;
    }
    return result + "…" + std::string(width - used - 1, ' ');
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
