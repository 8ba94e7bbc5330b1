// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TICK_SLEEP_H
#define LUMORA_COMMON_TESTS_TICK_SLEEP_H

#include <functional>
#include <thread>

/// Controls usleep(), in which the tick thread waits between two ticks. A program that uses it replaces that function,
/// for the library too. All functions may be called from any thread.
namespace TickSleep {

/// Makes usleep() return only for WakeOnce() or once `isCancelled` returns true; it is called on the sleeping thread.
/// Discards earlier calls of WakeOnce().
void Control(std::function<bool()> isCancelled);

/// Makes usleep() sleep for the given time.
void SleepReally();

/// Lets the current sleep end, or the next one if no thread sleeps.
void WakeOnce();

/// @return the number of usleep() calls in this process.
int Count();

/// @return the argument of the last call.
unsigned int LastMicroseconds();

/// @return the thread that made the last call.
std::thread::id LastSleeper();

}  // namespace TickSleep

#endif  // LUMORA_COMMON_TESTS_TICK_SLEEP_H
