// SPDX-License-Identifier: Apache-2.0
#include "MutexCount.h"

#include <glib.h>

#include <algorithm>
#include <mutex>
#include <vector>

#include "GLibOnPthreads.h"
#include "NextFunction.h"

namespace {

struct Calls {
    std::mutex mutex;
    std::vector<const void*> initialised;  ///< guarded by `mutex`
    std::vector<const void*> cleared;      ///< guarded by `mutex`
};

/// @return an object that is never destroyed: GLib may clear a mutex while the program exits.
Calls& AllCalls() {
    static auto& calls = *new Calls;
    return calls;
}

void Record(std::vector<const void*> Calls::*list, const GMutex* mutex) {
    Calls& calls = AllCalls();
    const std::lock_guard<std::mutex> lock(calls.mutex);
    (calls.*list).push_back(mutex);
}

int CountWithin(std::vector<const void*> Calls::*list, const void* memory, std::size_t size) {
    const auto* begin = static_cast<const unsigned char*>(memory);
    const auto isWithin = [&](const void* mutex) { return mutex >= begin && mutex < begin + size; };
    Calls& calls = AllCalls();
    const std::lock_guard<std::mutex> lock(calls.mutex);
    return static_cast<int>(std::count_if((calls.*list).begin(), (calls.*list).end(), isWithin));
}

/// Calls the replacement if this program has it, else the original function.
void Forward(void (*replacement)(GMutex*), const char* name, GMutex* mutex) {
    if (replacement == nullptr) {
        replacement = NextFunction<void(GMutex*)>(name);
    }
    replacement(mutex);
}

}  // namespace

void g_mutex_init(GMutex* mutex) {
    Forward(GLibOnPthreads_mutex_init, "g_mutex_init", mutex);
    Record(&Calls::initialised, mutex);
}

void g_mutex_clear(GMutex* mutex) {
    Record(&Calls::cleared, mutex);
    Forward(GLibOnPthreads_mutex_clear, "g_mutex_clear", mutex);
}

void MutexCount::Reset() {
    Calls& calls = AllCalls();
    const std::lock_guard<std::mutex> lock(calls.mutex);
    calls.initialised.clear();
    calls.cleared.clear();
}

int MutexCount::Initialised(const void* memory, std::size_t size) {
    return CountWithin(&Calls::initialised, memory, size);
}

int MutexCount::Cleared(const void* memory, std::size_t size) {
    return CountWithin(&Calls::cleared, memory, size);
}
