// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H
#define LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H

#include <climits>

/// Makes non-throwing `new` fail on the thread that created it, while it lives: the first `allowed` calls succeed, the
/// next `failures` calls return null, later calls succeed again. By default every call returns null. A program that
/// uses it replaces the non-throwing `operator new`, for the library too.
class FailingAllocation {
public:
    explicit FailingAllocation(int allowed = 0, int failures = INT_MAX);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

#endif  // LUMORA_COMMON_TESTS_FAILING_ALLOCATION_H
