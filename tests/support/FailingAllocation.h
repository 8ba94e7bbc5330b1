// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H
#define LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H

#include <climits>

/// While it lives, every non-throwing `new` of the thread that made it fails; or, of those, only some: so many are let
/// through, then so many fail. A program that uses it replaces the non-throwing `operator new`, for the library too.
class FailingAllocation {
public:
    explicit FailingAllocation(int allowed = 0, int failures = INT_MAX);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

#endif  // LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H
