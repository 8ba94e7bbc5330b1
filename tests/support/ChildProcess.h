// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_CHILD_PROCESS_H
#define LUMORA_COMMON_TESTS_CHILD_PROCESS_H

#include <gtest/gtest.h>
#include <unistd.h>

/// For the statements of EXPECT_EXIT(), which run in a child process.
namespace ChildProcess {

/// Makes EXPECT_EXIT() run the test program again, so that the child has no state or threads of earlier tests. An
/// emulated program cannot execute itself and forks instead.
inline void UseNewProgram() {
    GTEST_FLAG_SET(death_test_style, LUMORA_TEST_IS_EMULATED ? "fast" : "threadsafe");
}

/// Calls `statement`, which must end the process. SIGALRM kills the process if it has not ended after 10 s.
template <class Statement>
void RunWithBound(Statement statement) {
    constexpr unsigned int kSeconds = 10;
    alarm(kSeconds);
    statement();
}

}  // namespace ChildProcess

#endif  // LUMORA_COMMON_TESTS_CHILD_PROCESS_H
