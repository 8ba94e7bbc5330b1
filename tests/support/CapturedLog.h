// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_CAPTURED_LOG_H
#define LUMORA_COMMON_TESTS_CAPTURED_LOG_H

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

/// Captures what the library logs: a test that uses it supplies the platform's log call.
namespace CapturedLog {

struct Line {
    int buffer;
    int priority;
    std::string tag;
    std::string format;    ///< without the prefix
    std::string file;      ///< from the prefix
    std::string function;  ///< from the prefix
    int line;              ///< from the prefix
    std::string message;   ///< what follows the prefix
};

/// Forgets everything captured so far.
void Clear();

/// @return everything captured since the last Clear().
std::vector<Line> Lines();

/// @return the messages alone, in order, each with the letter of its priority in front: "E ", "W ", "I " or "D ".
std::vector<std::string> Messages();

/// @return where each message came from, as "priority file: function > format".
std::vector<std::string> Origins();

/// @return how often a message (without the letter) was captured since the last Clear().
int Count(const std::string& message);

/// Waits until a message (without the letter) has been captured `count` times.
/// @return false when it has not within the bound.
bool WaitFor(const std::string& message, int count = 1, std::chrono::milliseconds bound = std::chrono::seconds(20));

}  // namespace CapturedLog

#endif  // LUMORA_COMMON_TESTS_CAPTURED_LOG_H
