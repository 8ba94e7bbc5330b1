// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TORTURE_ALLOCATIONS_H
#define LUMORA_COMMON_TESTS_TORTURE_ALLOCATIONS_H

#include <cstdint>

/// Makes allocations fail and counts live blocks. A program that is linked with it replaces malloc() and its family and
/// every `operator new`, for all its libraries: C++, the C library, jsoncpp and SQLite.
///
/// Two callers are exempt. GLib ends the process by itself when malloc() fails. The dynamic loader serves
/// pthread_create(), whose failure GLib answers in the same way. So does what AddressSanitizer itself allocates.
namespace Allocations {

struct Plan {
    long failAt = 0;               ///< the first allocation to fail, from 1; 0 for none
    bool isForGood = false;        ///< all later allocations fail too
    int permille = 0;              ///< how many in a thousand fail, by chance
    std::uint32_t seed = 0;        ///< of that chance
    bool isOnEveryThread = false;  ///< counts the allocations of every thread, not only those of the calling one
    bool isShown = false;          ///< prints the stack of every failure, if the program has a sanitizer
};

/// Starts to count and to fail allocations.
void Arm(const Plan& plan);

/// Ends it.
/// @return the number of allocations that failed.
long Disarm();

/// Exempts the calling thread.
void ExemptThread();

/// Returns the number of blocks that are allocated at the moment.
long Live();

}  // namespace Allocations

#endif  // LUMORA_COMMON_TESTS_TORTURE_ALLOCATIONS_H
