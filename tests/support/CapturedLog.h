// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_CAPTURED_LOG_H
#define LUMORA_COMMON_TESTS_CAPTURED_LOG_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// Captures the lines that the library logs. A program that uses it replaces the platform's log call. All functions may
/// be called from any thread.
namespace CapturedLog {

struct Line {
    int buffer;
    int priority;
    std::string tag;
    std::string format;    ///< after the prefix
    std::string file;      ///< from the prefix
    std::string function;  ///< from the prefix
    int line;              ///< from the prefix
    std::string message;   ///< after the prefix
};

/// Discards all captured lines.
void Clear();

/// @return the lines captured since the last Clear(), in order.
std::vector<Line> Lines();

/// @return the messages in order, each prefixed with the letter of its priority: "E ", "W ", "I " or "D ".
std::vector<std::string> Messages();

/// @return the origin of each line, in order, as "priority file: function > format".
std::vector<std::string> Origins();

/// @return the number of lines with this message (without the letter) since the last Clear().
int Count(const std::string& message);

/// Waits until `count` lines with this message (without the letter) have been captured.
/// @return false when the bound passes first.
bool WaitFor(const std::string& message, int count = 1, std::chrono::milliseconds bound = std::chrono::seconds(20));

/// @return true while the calling thread is inside the log call.
bool IsCapturing() noexcept;

/// Runs an action inside every log call of the thread that created it, while it lives. The action may log; it does not
/// run again inside its own log calls.
class OnLog {
public:
    explicit OnLog(std::function<void()> action);
    ~OnLog();
    OnLog(const OnLog&) = delete;
    OnLog& operator=(const OnLog&) = delete;
};

}  // namespace CapturedLog

#endif  // LUMORA_COMMON_TESTS_CAPTURED_LOG_H
