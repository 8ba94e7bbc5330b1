// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_RAND_STATE_H
#define LUMORA_COMMON_TESTS_RAND_STATE_H

#include <cstddef>
#include <vector>

/// Access to the random state of the library.
///
/// Replaces `rand_r` in the test program with a function that forwards to the C library. An epsilon-greedy agent calls
/// `rand_r` with the state, which shows its address. The variates may compute their bits without calling `rand_r`.
namespace RandState {

/// @return the state before the first draw of the process. Call before anything draws.
unsigned int First();

void Set(unsigned int seed);
unsigned int Get();

/// @return the number of `rand_r` calls that lead from the state last set to the current state.
int Draws();

/// Makes the next calls of `rand_r` with the library's state return these integers without changing the state.
void Feed(const std::vector<int>& integers);

/// @return the number of fed integers that were not returned yet.
std::size_t Left();

}  // namespace RandState

#endif  // LUMORA_COMMON_TESTS_RAND_STATE_H
