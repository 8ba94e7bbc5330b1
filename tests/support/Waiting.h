// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_WAITING_H
#define LUMORA_COMMON_TESTS_WAITING_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

/// Waits with a bound. Every function returns false when the bound passes, so that the test fails instead of hanging.
namespace Waiting {

constexpr std::chrono::seconds kBound{20};

/// Polls once per millisecond until `condition` returns true.
template <class Condition>
bool Until(Condition condition, std::chrono::milliseconds bound = kBound) {
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// A one-shot event: Wait() blocks until another thread calls Open().
class Gate {
public:
    void Open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isOpen = true;
        m_changed.notify_all();
    }

    bool Wait(std::chrono::milliseconds bound = kBound) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, bound, [this] { return m_isOpen; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isOpen = false;
};

}  // namespace Waiting

#endif  // LUMORA_COMMON_TESTS_WAITING_H
