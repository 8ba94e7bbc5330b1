// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_THREAD_REQUESTS_H
#define LUMORA_COMMON_TESTS_THREAD_REQUESTS_H

#include <glib.h>

#include <functional>
#include <string>

/// What was asked of g_thread_new(), and how that is to answer. A program that uses it supplies that call, for the
/// library too.
struct ThreadRequests {
    int count = 0;
    std::string name;
    GThreadFunc entry = nullptr;
    void* argument = nullptr;
    bool areRefused = false;
    std::function<void()> beforeReturn = [] {};
};

extern ThreadRequests g_requests;

#endif  // LUMORA_COMMON_TESTS_THREAD_REQUESTS_H
