// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_BENCHMARKS_HEAP_COUNT_H
#define LUMORA_COMMON_BENCHMARKS_HEAP_COUNT_H

#include <cstddef>

/// Counts memory that operator new allocates, for the program and its libraries. Linking it into a program replaces the
/// global operators.
namespace HeapCount {

/// Starts counting at 0.
void Start();

/// Stops counting.
/// @return the maximum number of bytes in use since Start(), with sizes as malloc rounds them.
std::size_t StopAtPeak();

}  // namespace HeapCount

#endif  // LUMORA_COMMON_BENCHMARKS_HEAP_COUNT_H
