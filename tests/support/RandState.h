// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_RAND_STATE_H
#define LUMORA_COMMON_TESTS_RAND_STATE_H

#include <vector>

/// The library's one random state: a program that uses it supplies `rand_r`, which hands on to the C library's and so
/// learns where the state is.
namespace RandState {

/// @return the state before the first draw of the process; draws when there was none yet.
unsigned int First();

void Set(unsigned int seed);
unsigned int Get();

/// @return how many integers were drawn since the last Set() or Feed().
int Draws();

/// Makes the next draws give these integers, which leave the state alone; then the generator goes on.
void Feed(const std::vector<int>& integers);

}  // namespace RandState

#endif  // LUMORA_COMMON_TESTS_RAND_STATE_H
