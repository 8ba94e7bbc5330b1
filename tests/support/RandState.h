// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_RAND_STATE_H
#define LUMORA_COMMON_TESTS_RAND_STATE_H

#include <cstddef>
#include <vector>

/// The library's one random state. A program that uses it supplies `rand_r`, which hands on to the C library's: an
/// epsilon-greedy agent calls it, and so tells where the state is. The variates do not call it on every C library.
namespace RandState {

/// @return the state before the first draw of the process. Stands before whatever else draws.
unsigned int First();

void Set(unsigned int seed);
unsigned int Get();

/// @return how many steps of the C library's `rand_r` lead from what was last set to the present state.
int Draws();

/// Makes the next calls of `rand_r` with the library's state give these integers, which leave the state alone.
void Feed(const std::vector<int>& integers);

/// @return how many of the fed integers were not yet taken.
std::size_t Left();

}  // namespace RandState

#endif  // LUMORA_COMMON_TESTS_RAND_STATE_H
