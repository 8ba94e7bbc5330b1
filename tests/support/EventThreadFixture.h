// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_EVENT_THREAD_FIXTURE_H
#define LUMORA_COMMON_TESTS_EVENT_THREAD_FIXTURE_H

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CapturedLog.h"
#include "ContextEventThread.h"
#include "ThreadRequests.h"
#include "Waiting.h"

using Strings = std::vector<std::string>;
using Ids = std::vector<int>;

/// The event that blocks the worker; its data is a Block.
constexpr int kBlockEvent = 1000000;

struct Block {
    Waiting::Gate hasBegun;  ///< opened by the worker when it serves the event
    Waiting::Gate mayEnd;    ///< the worker waits for it
};

/// An event thread that records the ids of the events that it served.
class Recorder : public ContextEventThread {
public:
    void OnEvent(int eventId, void* data) override {
        if (eventId == kBlockEvent) {
            auto* block = static_cast<Block*>(data);
            block->hasBegun.Open();
            block->mayEnd.Wait();
            return;
        }
        m_handler(eventId, data);
        const std::lock_guard<std::mutex> lock(m_servedMutex);
        m_served.push_back(eventId);
    }

    /// @return the ids in the order in which the events were served; without kBlockEvent.
    Ids Served() const {
        const std::lock_guard<std::mutex> lock(m_servedMutex);
        return m_served;
    }

    bool WaitForServed(std::size_t count) const {
        return Waiting::Until([&] { return Served().size() >= count; });
    }

    /// Pushes an event without data.
    bool Push(int eventId, int priority) { return PushEvent(eventId, nullptr, priority); }

    /// @return the message of a queue that holds exactly one. It stays queued.
    TEventMessage* OnlyMessage() {
        auto* message = static_cast<TEventMessage*>(g_async_queue_try_pop(m_pQueue));
        g_async_queue_push(m_pQueue, message);
        return message;
    }

    /// Removes all queued messages and frees those that are not static.
    void Drain() {
        while (auto* message = static_cast<TEventMessage*>(g_async_queue_try_pop(m_pQueue))) {
            if (!message->bStatic) {
                delete message;
            }
        }
    }

    /// @return the number of queued messages; -1 while the worker waits for one.
    int QueueLength() const { return g_async_queue_length(m_pQueue); }

    GThread* Handle() const { return m_pThread; }
    GMutex* Mutex() { return &m_mutex; }
    auto& PreStartCount() { return m_nPreStartCount; }

    void JoinWorker() {
        g_thread_join(m_pThread);
        m_pThread = nullptr;
    }

    /// Called for each event on the worker, before the event counts as served.
    std::function<void(int, void*)> m_handler = [](int, void*) {};

private:
    mutable std::mutex m_servedMutex;
    Ids m_served;  ///< guarded by m_servedMutex
};

/// Gives each test a recorder that is not started, an empty log and no recorded thread requests.
class EventThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        CapturedLog::Clear();
        g_requests = {};
    }

    void TearDown() override {
        Unblock();
        if (m_recorder.IsRuning()) {
            m_recorder.Stop();
        }
        m_recorder.Drain();
    }

    /// Starts the worker and blocks it until Unblock().
    void StartBlocked() {
        ASSERT_TRUE(m_recorder.Start());
        ASSERT_TRUE(m_recorder.PushEvent(kBlockEvent, &m_block, INT_MIN));
        ASSERT_TRUE(m_block.hasBegun.Wait());
    }

    void Unblock() { m_block.mayEnd.Open(); }

    /// Calls Stop() on another thread and waits until the stop message is queued after `waiting` other messages.
    /// @return the other thread.
    std::thread StopAfter(int waiting) {
        std::thread stopper([this] { EXPECT_TRUE(m_recorder.Stop()); });
        EXPECT_TRUE(Waiting::Until([&] { return m_recorder.QueueLength() == waiting + 1; }));
        return stopper;
    }

    Recorder m_recorder;
    Block m_block;
};

#endif  // LUMORA_COMMON_TESTS_EVENT_THREAD_FIXTURE_H
