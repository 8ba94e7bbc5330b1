// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_THREAD_REQUESTS_H
#define LUMORA_COMMON_TESTS_THREAD_REQUESTS_H

#include <glib.h>

#include <climits>
#include <functional>
#include <string>

/// Records the calls of g_thread_new() and decides how many of them succeed. A program that uses it replaces that
/// function, for the library too. Not thread-safe: start all threads from the test's own thread.
struct ThreadRequests {
    int count = 0;                               ///< calls so far
    int allowed = INT_MAX;                       ///< calls that may still succeed; all further ones return null
    std::string name;                            ///< of the last call; "(null)" for null
    GThreadFunc entry = nullptr;                 ///< of the last call
    void* argument = nullptr;                    ///< of the last call
    std::function<void()> beforeReturn = [] {};  ///< called after a thread was created, before g_thread_new() returns
};

extern ThreadRequests g_requests;

#endif  // LUMORA_COMMON_TESTS_THREAD_REQUESTS_H
