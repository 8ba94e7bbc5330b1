// SPDX-License-Identifier: Apache-2.0
#include "CapturedLog.h"

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "SystemLog.h"

namespace {

constexpr const char* kPrefix = "%s: %s(%d) > ";

std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<CapturedLog::Line> g_lines;  ///< guarded by g_mutex
thread_local std::function<void()> t_onLog;
thread_local bool t_isCapturing = false;

/// Marks the calling thread as inside the log call for one scope.
class Capturing {
public:
    Capturing() : m_before(std::exchange(t_isCapturing, true)) {}
    ~Capturing() { t_isCapturing = m_before; }
    Capturing(const Capturing&) = delete;
    Capturing& operator=(const Capturing&) = delete;

private:
    bool m_before;
};

int CountLocked(const std::string& message) {
    return static_cast<int>(std::count_if(g_lines.begin(), g_lines.end(),
                                          [&](const CapturedLog::Line& line) { return line.message == message; }));
}

/// Splits "file: function(line) > message". Aborts the program when the text does not have this form.
CapturedLog::Line Split(int buffer, int priority, const char* tag, const std::string& format, const std::string& text) {
    const auto colon = text.find(": ");
    const auto open = text.find('(', colon);
    const auto close = text.find(") > ", open);
    if (format.compare(0, std::string(kPrefix).size(), kPrefix) != 0 || colon == std::string::npos ||
        open == std::string::npos || close == std::string::npos) {
        std::fprintf(stderr, "log line without the prefix: %s\n", text.c_str());
        std::abort();
    }
    return {buffer,
            priority,
            tag,
            format.substr(std::string(kPrefix).size()),
            text.substr(0, colon),
            text.substr(colon + 2, open - colon - 2),
            std::atoi(text.substr(open + 1, close - open - 1).c_str()),
            text.substr(close + 4)};
}

}  // namespace

int lumora_log_print(int buffer, int priority, const char* tag, const char* format, ...) {
    const Capturing capturing;
    va_list arguments;
    va_start(arguments, format);
    char* formatted = nullptr;
    const int length = vasprintf(&formatted, format, arguments);
    va_end(arguments);
    if (length < 0) {
        std::abort();
    }
    const std::string text(formatted);
    std::free(formatted);
    if (const std::function<void()> action = std::exchange(t_onLog, nullptr)) {
        action();
        t_onLog = action;
    }
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back(Split(buffer, priority, tag, format, text));
    g_changed.notify_all();
    return length;
}

bool CapturedLog::IsCapturing() noexcept {
    return t_isCapturing;
}

void CapturedLog::Clear() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

std::vector<CapturedLog::Line> CapturedLog::Lines() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<std::string> CapturedLog::Messages() {
    std::vector<std::string> messages;
    for (const Line& line : Lines()) {
        const char* letters = "???DIWE";
        messages.push_back(std::string(1, letters[std::clamp(line.priority, 0, 6)]) + " " + line.message);
    }
    return messages;
}

std::vector<std::string> CapturedLog::Origins() {
    std::vector<std::string> origins;
    for (const Line& line : Lines()) {
        origins.push_back(std::to_string(line.priority) + " " + line.file + ": " + line.function + " > " + line.format);
    }
    return origins;
}

int CapturedLog::Count(const std::string& message) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return CountLocked(message);
}

CapturedLog::OnLog::OnLog(std::function<void()> action) {
    t_onLog = std::move(action);
}

CapturedLog::OnLog::~OnLog() {
    t_onLog = nullptr;
}

bool CapturedLog::WaitFor(const std::string& message, int count, std::chrono::milliseconds bound) {
    std::unique_lock<std::mutex> lock(g_mutex);
    return g_changed.wait_for(lock, bound, [&] { return CountLocked(message) >= count; });
}
