// SPDX-License-Identifier: Apache-2.0
#include "TickSleep.h"

#include <unistd.h>

#include <chrono>
#include <mutex>
#include <utility>

#include "Waiting.h"

namespace {

struct State {
    std::function<bool()> isCancelled;  ///< if empty, usleep() sleeps for the given time
    int wakeUps = 0;                    ///< sleeps that may still end
    int count = 0;
    unsigned int microseconds = 0;
    std::thread::id sleeper;
};

std::mutex g_mutex;
State g_state;  ///< guarded by g_mutex

bool TakeWakeUp() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    if (g_state.wakeUps == 0) {
        return false;
    }
    --g_state.wakeUps;
    return true;
}

}  // namespace

int usleep(useconds_t microseconds) {
    std::function<bool()> isCancelled;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        ++g_state.count;
        g_state.microseconds = microseconds;
        g_state.sleeper = std::this_thread::get_id();
        isCancelled = g_state.isCancelled;
    }
    if (isCancelled) {
        Waiting::Until([&] { return TakeWakeUp() || isCancelled(); });
    } else {
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    }
    return 0;
}

void TickSleep::Control(std::function<bool()> isCancelled) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_state.isCancelled = std::move(isCancelled);
    g_state.wakeUps = 0;
}

void TickSleep::SleepReally() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_state.isCancelled = nullptr;
}

void TickSleep::WakeOnce() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    ++g_state.wakeUps;
}

int TickSleep::Count() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.count;
}

unsigned int TickSleep::LastMicroseconds() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.microseconds;
}

std::thread::id TickSleep::LastSleeper() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.sleeper;
}
