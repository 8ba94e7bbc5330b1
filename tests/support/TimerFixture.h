// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TIMER_FIXTURE_H
#define LUMORA_COMMON_TESTS_TIMER_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "ChildProcess.h"
#include "ContextTimer.h"
#include "TestClock.h"
#include "ThreadRequests.h"
#include "TickSleep.h"
#include "TimerMath.h"
#include "Waiting.h"

using Strings = std::vector<std::string>;

constexpr std::time_t kStart = 1500000000;
constexpr int kPriority = 10;  ///< of all requests and checks

/// Gives access to the state of both threads, to the queue and to protected fields.
class OpenTimer : public ContextTimer {
public:
    bool IsTicking() const { return ContextThread::IsRuning(); }
    bool IsServing() const { return ContextEventThread::IsRuning(); }
    std::int32_t LastCheckTime() const { return m_lastCheckTime; }

    /// @return the number of queued events; -1 while the event thread waits for one.
    int QueueLength() const { return g_async_queue_length(m_pQueue); }

    /// Removes the next message from the queue.
    /// @return the message, which the caller owns unless it is static; null when the queue is empty.
    TEventMessage* TakeMessage() { return static_cast<TEventMessage*>(g_async_queue_try_pop(m_pQueue)); }

    /// Reverts a SetTimer() of a timer that is not started.
    void DiscardAdd() {
        const std::unique_ptr<TEventMessage> message(TakeMessage());
        delete static_cast<CTimerData*>(message->pData);
        --m_nPreStartCount;
    }
};

/// Drives a timer tick by tick with a stopped clock. Seconds count from kStart.
class TimerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ChildProcess::UseNewProgram();
        CapturedLog::Clear();
        g_requests = {};
        TestClock::Set(kStart);
        TickSleep::Control([this] { return !m_timer.IsTicking(); });
    }

    void TearDown() override {
        m_isOver = true;
        Unblock();
        if (!m_timer.IsServing()) {
            m_timer.ContextEventThread::Start();
        }
        for (const TimerId id : m_ids) {
            m_timer.KillTimer(id);
        }
        if (m_timer.IsTicking()) {
            m_timer.ContextThread::Stop();
        }
        m_timer.ContextEventThread::Stop();
        TestClock::Release();
    }

    /// Starts the timer and waits until its first check was served.
    void Start() {
        const int sleeps = TickSleep::Count();
        ASSERT_TRUE(m_timer.Start());
        ASSERT_TRUE(Waiting::Until([sleeps] { return TickSleep::Count() > sleeps; }));
        Settle();
    }

    /// Lets the tick thread queue one check.
    void QueueCheck() {
        const int sleeps = TickSleep::Count();
        TickSleep::WakeOnce();
        ASSERT_TRUE(Waiting::Until([sleeps] { return TickSleep::Count() > sleeps; }));
    }

    /// Waits until every queued event was served.
    void Settle() {
        ASSERT_TRUE(Waiting::Until([this] { return m_timer.QueueLength() == -1; }));
    }

    void Tick() {
        QueueCheck();
        Settle();
    }

    void TickAt(int second) {
        TestClock::Set(kStart + second);
        Tick();
    }

    /// Ticks once in each second after the current one, up to and including `second`.
    void RunTo(int second) {
        for (int next = Now() + 1; next <= second; ++next) {
            TickAt(next);
        }
    }

    static int Now() { return TimerMath::Difference(static_cast<std::int32_t>(std::time(nullptr)), kStart); }

    /// Sets a timer whose callback records "name@second" and then calls `act`.
    TimerId Set(const std::string& name, unsigned int interval, std::function<void()> act = nullptr) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_probes.push_back({this, name, std::move(act)});
        m_ids.push_back(m_timer.SetTimer(interval, Record, &m_probes.back()));
        return m_ids.back();
    }

    /// Queues an add request for a copy of `record`.
    /// @return the copy, which the test may read while the event thread is idle.
    const CTimerData* Add(const CTimerData& record) {
        auto* added = new CTimerData(record);
        m_ids.push_back(record.timerId);
        EXPECT_TRUE(m_timer.PushEvent(TIMER_EVENT_ADD, added, kPriority));
        return added;
    }

    /// @return the texts that the callbacks have recorded so far.
    Strings Fired() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_fired;
    }

    /// Blocks the event thread until Unblock(), in the callback of a timer "block" that fires on every tick.
    void BlockInCallback() {
        Set("block", 0, [this] {
            m_isBlocked.Open();
            m_mayGoOn.Wait();
        });
        QueueCheck();
        ASSERT_TRUE(m_isBlocked.Wait());
    }

    void Unblock() { m_mayGoOn.Open(); }

    OpenTimer m_timer;

private:
    struct Probe {
        TimerTest* test;
        std::string name;
        std::function<void()> act;
    };

    static void Record(int /*timerId*/, void* userData) {
        const auto* probe = static_cast<const Probe*>(userData);
        if (probe->test->m_isOver) {
            return;
        }
        {
            const std::lock_guard<std::mutex> lock(probe->test->m_mutex);
            probe->test->m_fired.push_back(probe->name + "@" + std::to_string(Now()));
        }
        if (probe->act) {
            probe->act();
        }
    }

    std::mutex m_mutex;
    std::list<Probe> m_probes;   ///< guarded by m_mutex
    std::vector<TimerId> m_ids;  ///< of all timers that TearDown() kills
    Strings m_fired;             ///< guarded by m_mutex
    std::atomic<bool> m_isOver{false};
    Waiting::Gate m_isBlocked;
    Waiting::Gate m_mayGoOn;
};

#endif  // LUMORA_COMMON_TESTS_TIMER_FIXTURE_H
