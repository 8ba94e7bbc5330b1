// SPDX-License-Identifier: Apache-2.0
#include "TestClock.h"

#include <atomic>

namespace {

std::atomic<bool> g_isStopped{false};
std::atomic<time_t> g_now{0};

}  // namespace

extern "C" time_t time(time_t* out) noexcept {
    time_t now = g_now;
    if (!g_isStopped) {
        timespec real{};
        clock_gettime(CLOCK_REALTIME, &real);
        now = real.tv_sec;
    }
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

void TestClock::Set(time_t now) {
    g_now = now;
    g_isStopped = true;
}

void TestClock::Advance(int seconds) {
    g_now += seconds;
}

void TestClock::Release() {
    g_isStopped = false;
}
