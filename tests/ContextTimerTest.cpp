// SPDX-License-Identifier: Apache-2.0
#include "ContextTimer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "CapturedLog.h"
#include "ChildProcess.h"
#include "FailingAllocation.h"
#include "TestClock.h"
#include "ThreadRequests.h"
#include "TickSleep.h"
#include "TimerFixture.h"
#include "Waiting.h"

namespace {

using ContextTimerTest = TimerTest;

// Callbacks.

TEST_F(ContextTimerTest, PassesIdAndUserDataToCallback) {
    struct Seen {
        int id = 0;
        int calls = 0;
    } first, second;
    const timer_cb callback = [](int timerId, void* userData) {
        static_cast<Seen*>(userData)->id = timerId;
        ++static_cast<Seen*>(userData)->calls;
    };
    Start();
    const TimerId firstId = m_timer.SetTimer(1, callback, &first);
    const TimerId secondId = m_timer.SetTimer(1, callback, &second);
    RunTo(1);
    m_timer.KillTimer(firstId);
    m_timer.KillTimer(secondId);
    Settle();
    EXPECT_EQ(first.id, firstId);
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(second.id, secondId);
    EXPECT_EQ(second.calls, 1);
}

TEST_F(ContextTimerTest, CallsBackOnEventThreadOnly) {
    std::set<std::thread::id> threads;
    Start();
    for (int timer = 0; timer < 5; ++timer) {
        Set("timer", static_cast<unsigned int>(timer % 2), [&threads] { threads.insert(std::this_thread::get_id()); });
    }
    RunTo(3);
    EXPECT_EQ(threads.size(), 1U);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
    EXPECT_EQ(threads.count(TickSleep::LastSleeper()), 0U);
}

TEST_F(ContextTimerTest, ServesEveryCheckDelayedByLongCallback) {
    Set("tick", 0);
    Start();
    BlockInCallback();
    for (int check = 0; check < 3; ++check) {
        QueueCheck();
    }
    EXPECT_EQ(Fired(), (Strings{"tick@0", "tick@0", "block@0"})) << "another callback ran meanwhile";
    Unblock();
    Settle();
    EXPECT_EQ(Fired(),
              (Strings{"tick@0", "tick@0", "block@0", "tick@0", "block@0", "tick@0", "block@0", "tick@0", "block@0"}));
}

TEST_F(ContextTimerTest, CallbackMayKillItsOwnTimer) {
    Start();
    TimerId id = 0;
    bool killed = false;
    id = Set("once", 1, [&] { killed = m_timer.KillTimer(id); });
    RunTo(3);
    EXPECT_EQ(Fired(), Strings{"once@1"});
    EXPECT_TRUE(killed);
}

TEST_F(ContextTimerTest, TimerKilledByCallbackStillFiresInSameCheck) {
    Start();
    TimerId other = 0;
    Set("killer", 1, [&] { m_timer.KillTimer(other); });
    other = Set("other", 1);
    RunTo(2);
    EXPECT_EQ(Fired(), (Strings{"killer@1", "other@1", "killer@2"}));
}

TEST_F(ContextTimerTest, CallbackMaySetTimer) {
    Start();
    Set("parent", 3, [this] { Set("child" + std::to_string(Now()), 2); });
    RunTo(7);
    EXPECT_EQ(Fired(), (Strings{"parent@3", "child3@5", "parent@6", "child3@7"}));
}

// Starting and stopping.

TEST_F(ContextTimerTest, RunsFromStartToStop) {
    EXPECT_FALSE(m_timer.IsTicking());
    EXPECT_FALSE(m_timer.IsServing());
    Start();
    EXPECT_TRUE(m_timer.IsTicking());
    EXPECT_TRUE(m_timer.IsServing());
    EXPECT_TRUE(m_timer.Stop());
    EXPECT_FALSE(m_timer.IsTicking());
    EXPECT_FALSE(m_timer.IsServing());
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerTest, KeepsTimersAndDeadlinesAcrossStop) {
    Start();
    Set("eight", 8);
    Set("two hundred", 200);
    Set("ten", 10);
    RunTo(3);
    ASSERT_TRUE(m_timer.Stop());
    TestClock::Set(kStart + 195);
    Start();
    EXPECT_EQ(Fired(), (Strings{"eight@195", "ten@195"})) << "not the timers whose deadlines had passed";
    RunTo(205);
    EXPECT_EQ(Fired(), (Strings{"eight@195", "ten@195", "two hundred@200", "eight@203", "ten@205"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{}) << "the time between Stop() and Start() counted as a jump";
}

TEST_F(ContextTimerTest, StopServesQueuedRequestsFirst) {
    Start();
    const TimerId killed = Set("killed", 1);
    BlockInCallback();
    Set("added", 1);
    EXPECT_TRUE(m_timer.KillTimer(killed));
    std::thread stopper([this] { EXPECT_TRUE(m_timer.Stop()); });
    EXPECT_TRUE(Waiting::Until([this] { return m_timer.QueueLength() == 3; }))
        << "not queued: an add, a remove, the stop";
    EXPECT_FALSE(m_timer.IsTicking());
    EXPECT_TRUE(m_timer.IsServing());
    Unblock();
    stopper.join();
    EXPECT_EQ(m_timer.QueueLength(), 0);
    TestClock::Advance(1);
    Start();
    EXPECT_EQ(Fired(), (Strings{"block@0", "block@1", "added@1"}));
}

TEST_F(ContextTimerTest, StopServesQueuedCheckFirst) {
    Start();
    BlockInCallback();
    QueueCheck();
    std::thread stopper([this] { EXPECT_TRUE(m_timer.Stop()); });
    EXPECT_TRUE(Waiting::Until([this] { return m_timer.QueueLength() == 2; })) << "not queued: the check, the stop";
    Unblock();
    stopper.join();
    EXPECT_EQ(Fired(), (Strings{"block@0", "block@0"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerTest, RefusesSecondStart) {
    Start();
    EXPECT_FALSE(m_timer.Start());
    EXPECT_EQ(CapturedLog::Origins(), (Strings{"6 ContextEventThread.cpp: Start > Already Started",
                                               "6 ContextTimer.cpp: Start > Start Error"}));
    EXPECT_TRUE(m_timer.IsTicking());
    EXPECT_TRUE(m_timer.IsServing());
}

TEST_F(ContextTimerTest, RefusedStartSetsLastCheckTime) {
    Start();
    Set("three", 3);
    Settle();
    TestClock::Advance(60);
    EXPECT_FALSE(m_timer.Start());
    CapturedLog::Clear();
    Tick();
    EXPECT_EQ(Fired(), Strings{"three@60"});
    EXPECT_EQ(CapturedLog::Origins(), Strings{}) << "the refused start did not count as the last check";
}

TEST_F(ContextTimerTest, ContinuesCheckingDuringRefusedStarts) {
    Set("tick", 0);
    Start();
    for (int start = 0; start < 10; ++start) {
        QueueCheck();
        EXPECT_FALSE(m_timer.Start());
    }
    Settle();
    EXPECT_EQ(Fired(), Strings(11, "tick@0"));
}

TEST_F(ContextTimerTest, DoesNotTickIfEventThreadAlreadyRuns) {
    ASSERT_TRUE(m_timer.ContextEventThread::Start());
    EXPECT_FALSE(m_timer.Start());
    EXPECT_EQ(CapturedLog::Origins(), (Strings{"6 ContextEventThread.cpp: Start > Already Started",
                                               "6 ContextTimer.cpp: Start > Start Error"}));
    EXPECT_FALSE(m_timer.IsTicking());
    EXPECT_TRUE(m_timer.IsServing());
}

TEST_F(ContextTimerTest, KeepsEventThreadRunningIfTickThreadStartFails) {
    Start();
    ASSERT_TRUE(m_timer.ContextEventThread::Stop());
    EXPECT_FALSE(m_timer.Start());
    EXPECT_EQ(CapturedLog::Origins(),
              (Strings{"6 ContextThread.cpp: Start > Already Started", "6 ContextTimer.cpp: Start > Start Error"}));
    EXPECT_TRUE(m_timer.IsServing());
    Set("timer", 1);
    RunTo(1);
    EXPECT_EQ(Fired(), Strings{"timer@1"});
}

TEST_F(ContextTimerTest, ReportsFailedThreadCreation) {
    const struct {
        const char* name;
        int threadsAllowed;
        bool isServing;
    } rows[] = {{"no event thread", 0, false}, {"no tick thread", 1, true}};
    for (const auto& row : rows) {
        CapturedLog::Clear();
        g_requests.allowed = row.threadsAllowed;
        EXPECT_FALSE(m_timer.Start()) << row.name;
        EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextTimer.cpp: Start > Start Error"}) << row.name;
        EXPECT_FALSE(m_timer.IsTicking()) << row.name;
        EXPECT_EQ(m_timer.IsServing(), row.isServing) << row.name;
    }
}

TEST_F(ContextTimerTest, RefusesStopWhileStopped) {
    const Strings refusal{"6 ContextThread.cpp: Stop > Already Stopped", "6 ContextTimer.cpp: Stop > Stop Error"};
    EXPECT_FALSE(m_timer.Stop());
    EXPECT_EQ(CapturedLog::Origins(), refusal);
    Start();
    ASSERT_TRUE(m_timer.Stop());
    CapturedLog::Clear();
    EXPECT_FALSE(m_timer.Stop());
    EXPECT_EQ(CapturedLog::Origins(), refusal);
}

TEST_F(ContextTimerTest, KeepsEventThreadRunningIfTickThreadStopFails) {
    Start();
    ASSERT_TRUE(m_timer.ContextThread::Stop());
    EXPECT_FALSE(m_timer.Stop());
    EXPECT_EQ(CapturedLog::Origins(),
              (Strings{"6 ContextThread.cpp: Stop > Already Stopped", "6 ContextTimer.cpp: Stop > Stop Error"}));
    EXPECT_TRUE(m_timer.IsServing());
}

TEST_F(ContextTimerTest, StopsTickThreadEvenIfEventThreadStopFails) {
    Start();
    ASSERT_TRUE(m_timer.ContextEventThread::Stop());
    QueueCheck();
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushStaticEvent > Not Started!"});
    CapturedLog::Clear();
    EXPECT_FALSE(m_timer.Stop());
    EXPECT_EQ(CapturedLog::Origins(),
              (Strings{"6 ContextEventThread.cpp: Stop > Already Stopped", "6 ContextTimer.cpp: Stop > Stop Error"}));
    EXPECT_FALSE(m_timer.IsTicking());
}

TEST_F(ContextTimerTest, ReportsFailedStopMessageAllocation) {
    Start();
    {
        const FailingAllocation failing;
        EXPECT_FALSE(m_timer.Stop());
    }
    EXPECT_EQ(CapturedLog::Origins(), (Strings{"6 ContextEventThread.cpp: Stop > Memory Allocation Fail",
                                               "6 ContextTimer.cpp: Stop > Stop Error"}));
    EXPECT_FALSE(m_timer.IsTicking());
    EXPECT_TRUE(m_timer.IsServing());
}

TEST_F(ContextTimerTest, DestructorLeavesRecordsUnfreed) {
    auto timer = std::make_unique<OpenTimer>();
    const std::unique_ptr<CTimerData> record(new CTimerData{7, 5, 0, nullptr, nullptr});
    TickSleep::Control([&] { return !timer->IsTicking(); });
    ASSERT_TRUE(timer->Start());
    ASSERT_TRUE(timer->PushEvent(TIMER_EVENT_ADD, record.get(), kPriority));
    ASSERT_TRUE(timer->Stop());
    timer.reset();
    EXPECT_EQ(record->timerId, 7);
    EXPECT_EQ(record->interval, 5U);
    EXPECT_EQ(record->expireTime, kStart + 5);
}

TEST_F(ContextTimerTest, DestructorDoesNotStopThreads) {
    const auto destroyDuringCallback = [] {
        struct {
            Waiting::Gate hasBegun;
            Waiting::Gate neverOpened;
        } callback;
        TickSleep::Control([] { return false; });
        auto* timer = new ContextTimer;
        const auto block = [](int, void* userData) {
            auto* gates = static_cast<decltype(callback)*>(userData);
            gates->hasBegun.Open();
            gates->neverOpened.Wait();
        };
        timer->SetTimer(0, block, &callback);
        timer->Start();
        callback.hasBegun.Wait();
        Waiting::Until([] { return TickSleep::Count() > 0; });
        delete timer;
        std::_Exit(0);  // while the callback blocks and the tick thread sleeps
    };
    EXPECT_EXIT(ChildProcess::RunWithBound(destroyDuringCallback), ::testing::ExitedWithCode(0), "");
}

}  // namespace
