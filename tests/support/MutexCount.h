// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_MUTEX_COUNT_H
#define LUMORA_COMMON_TESTS_MUTEX_COUNT_H

#include <cstddef>

/// Counts g_mutex_init() and g_mutex_clear() per mutex address, so that a test can tell whether an object clears its
/// mutex. A program that uses it replaces both functions, for the library too, and forwards each call.
///
/// Usage: construct the object in memory that outlives it, and count the calls within that memory.
///
///     alignas(Object) unsigned char memory[sizeof(Object)];
///     MutexCount::Reset();
///     auto* object = new (memory) Object;
///     EXPECT_EQ(MutexCount::Initialised(memory, sizeof(memory)), 1);
///     object->~Object();
///     EXPECT_EQ(MutexCount::Cleared(memory, sizeof(memory)), 1);
///
/// All functions may be called from any thread.
namespace MutexCount {

/// Discards all counted calls.
void Reset();

/// @return the number of g_mutex_init() calls for mutexes within `size` bytes from `memory`.
int Initialised(const void* memory, std::size_t size);

/// @return the number of g_mutex_clear() calls for mutexes within `size` bytes from `memory`.
int Cleared(const void* memory, std::size_t size);

}  // namespace MutexCount

#endif  // LUMORA_COMMON_TESTS_MUTEX_COUNT_H
