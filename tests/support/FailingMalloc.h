// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_FAILING_MALLOC_H
#define LUMORA_COMMON_TESTS_FAILING_MALLOC_H

#include <climits>

/// Makes memory run out on the thread that created it, while it lives: the first `allowed` allocations succeed, the
/// next `failures` allocations fail, later ones succeed again.
///
/// A program that links it replaces `operator new` and, without AddressSanitizer, `malloc` and its family, for all
/// libraries too.
class FailingMalloc {
public:
#ifdef __SANITIZE_ADDRESS__
    static constexpr bool kReplacesMalloc = false;
#else
    static constexpr bool kReplacesMalloc = true;
#endif

    explicit FailingMalloc(int allowed, int failures = INT_MAX);
    ~FailingMalloc();
    FailingMalloc(const FailingMalloc&) = delete;
    FailingMalloc& operator=(const FailingMalloc&) = delete;

    /// @return the number of allocations of this thread that were made to fail.
    static int Failed();

    /// @return the number of blocks that this thread has allocated and not freed.
    static long Live();
};

#endif  // LUMORA_COMMON_TESTS_FAILING_MALLOC_H
