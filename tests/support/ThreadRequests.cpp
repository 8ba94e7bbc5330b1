// SPDX-License-Identifier: Apache-2.0
#include "ThreadRequests.h"

ThreadRequests g_requests;

GThread* g_thread_new(const gchar* name, GThreadFunc entry, gpointer argument) {
    ++g_requests.count;
    g_requests.name = name == nullptr ? "(null)" : name;
    g_requests.entry = entry;
    g_requests.argument = argument;
    if (g_requests.allowed == 0) {
        return nullptr;
    }
    --g_requests.allowed;
    GThread* thread = g_thread_try_new(name, entry, argument, nullptr);
    g_requests.beforeReturn();
    return thread;
}
