// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TEST_CLOCK_H
#define LUMORA_COMMON_TESTS_TEST_CLOCK_H

#include <ctime>

/// The wall clock of a test. A program that uses it replaces `time()`, for the library too. All functions may be called
/// from any thread.
namespace TestClock {

/// Stops the clock at `now`, in seconds since the epoch.
void Set(time_t now);

/// Moves the stopped clock forward; a negative value moves it back.
void Advance(int seconds);

/// Returns to the real time.
void Release();

/// Stops the clock for one scope.
class Frozen {
public:
    explicit Frozen(time_t now) { Set(now); }
    ~Frozen() { Release(); }
    Frozen(const Frozen&) = delete;
    Frozen& operator=(const Frozen&) = delete;
};

}  // namespace TestClock

#endif  // LUMORA_COMMON_TESTS_TEST_CLOCK_H
