// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_FAILING_MEMORY_H
#define LUMORA_COMMON_TESTS_FAILING_MEMORY_H

#include <gtest/gtest.h>

#include <climits>
#include <string>

/// Makes allocations fail, and counts the blocks that are not freed. A program that is linked with FailingMemory.cpp
/// replaces `malloc`, `calloc`, `realloc`, `free` and `new`, for all libraries too. Under AddressSanitizer it replaces
/// only `new`: other allocations succeed, and LeakSanitizer finds the blocks that are not freed.
namespace FailingMemory {

#ifdef __SANITIZE_ADDRESS__
constexpr bool kIsMallocReplaced = false;
#else
constexpr bool kIsMallocReplaced = true;
#endif

/// Makes allocations of the thread that created it fail, while it lives: the first `allowed` succeed, the next
/// `failures` fail, later ones succeed again.
class Scope {
public:
    explicit Scope(int allowed = 0, int failures = INT_MAX);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    /// @return true if an allocation of this thread has failed in the last Scope.
    static bool HasFailed();
};

/// Lets the allocations of its thread succeed, while it lives.
class Pause {
public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

private:
    int m_failures;
};

/// @return the number of this thread's allocations that have failed in all scopes.
int Failures();

/// @return the number of blocks that this thread has allocated less those that it has freed; 0 under AddressSanitizer.
int BlocksInUse();

/// Calls `test(allowed, failures)` again and again: first without a failure, then with the first allocation failing,
/// then the second and so on, once and for good, until no allocation fails. `test` creates a Scope with its arguments
/// around each call that it tests. Expects at least one failure, except under AddressSanitizer, and that the calls of
/// `test` free all blocks. Returns early when an expectation has failed.
/// @return the number of allocations that failed one by one.
template <class Test>
int ForEveryAllocation(Test test) {
    test(INT_MAX, 0);  // fills the caches of the libraries
    int count = 0;
    for (const int failures : {1, INT_MAX}) {
        bool hasFailed = true;
        for (count = 0; hasFailed && count < 20000; ++count) {
            SCOPED_TRACE("allocation " + std::to_string(count + 1) +
                         (failures == 1 ? " fails" : " and later ones fail"));
            const int failuresBefore = Failures();
            const int blocksBefore = BlocksInUse();
            test(count, failures);
            hasFailed = Failures() != failuresBefore;
            EXPECT_EQ(BlocksInUse(), blocksBefore) << "blocks not freed";
            if (::testing::Test::HasFailure()) {
                return count;
            }
        }
        EXPECT_FALSE(hasFailed) << "allocations without end";
        --count;
        EXPECT_TRUE(count > 0 || !kIsMallocReplaced) << "no allocation failed";
    }
    return count;
}

}  // namespace FailingMemory

#endif  // LUMORA_COMMON_TESTS_FAILING_MEMORY_H
