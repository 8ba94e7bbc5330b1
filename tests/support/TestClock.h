// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TEST_CLOCK_H
#define LUMORA_COMMON_TESTS_TEST_CLOCK_H

#include <ctime>

/// The wall clock of a test: a program that uses it supplies `time()`, for the library too.
namespace TestClock {

/// Stops the clock at a time. Callable from any thread.
void Set(time_t now);

/// Moves the stopped clock; negative steps go back.
void Advance(int seconds);

/// Goes back to the real time.
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
