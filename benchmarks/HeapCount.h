// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_BENCHMARKS_HEAP_COUNT_H
#define LUMORA_COMMON_BENCHMARKS_HEAP_COUNT_H

#include <cstddef>

/// Counts what operator new hands out to the program and to the libraries below it. A program that uses it supplies
/// the operators.
namespace HeapCount {

/// Counts from nothing.
void Start();

/// Ends the counting.
/// @return the most bytes, as malloc rounds them, that were in use at once since Start().
std::size_t StopAtPeak();

}  // namespace HeapCount

#endif  // LUMORA_COMMON_BENCHMARKS_HEAP_COUNT_H
