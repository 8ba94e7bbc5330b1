// SPDX-License-Identifier: Apache-2.0
#include "ContextTimer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "CapturedLog.h"
#include "FailingAllocation.h"
#include "LocalSymbol.h"
#include "TestClock.h"
#include "TimerFixture.h"
#include "Waiting.h"

// Ids, and the requests of SetTimer() and KillTimer().

namespace {

using ::testing::ExitedWithCode;
using ::testing::KilledBySignal;

static_assert(std::is_same_v<TimerId, std::int32_t>);
static_assert(std::is_same_v<timer_cb, void (*)(int timerId, void* userData)>);

using ContextTimerRequestTest = TimerTest;

// Ids.

TEST_F(ContextTimerRequestTest, NumbersTimersFromOneInNewProcess) {
    EXPECT_EXIT(
        {
            ContextTimer other;
            const TimerId first = m_timer.SetTimer(1, nullptr, nullptr);
            const TimerId second = other.SetTimer(1, nullptr, nullptr);
            const TimerId third = m_timer.SetTimer(1, nullptr, nullptr);
            std::fprintf(stderr, "ids %d %d %d.", first, second, third);
            std::_Exit(0);  // without a leak check: the queued records are not freed
        },
        ExitedWithCode(0), "ids 1 2 3\\.");
}

TEST_F(ContextTimerRequestTest, IncrementsIdForEachTimer) {
    const TimerId first = Set("first", 1);
    EXPECT_GE(first, 1);
    EXPECT_EQ(Set("second", 1), first + 1);
    EXPECT_EQ(Set("third", 0), first + 2);
}

TEST_F(ContextTimerRequestTest, GivesIdOneAfterLargestId) {
    auto& lastId =
        LocalSymbol::Find<std::atomic<TimerId>>("liblumora-common.so", "_ZZN12ContextTimer11GetTimerId_EvE8_timerId");
    const TimerId saved = lastId;
    ASSERT_EQ(Set("any", 1), saved + 1) << "the variable is not the counter";
    lastId = INT_MAX - 1;
    EXPECT_EQ(Set("largest", 1), INT_MAX);
    EXPECT_EQ(Set("smallest", 1), 1);
    EXPECT_EQ(Set("next", 1), 2);
    lastId = saved;
}

TEST_F(ContextTimerRequestTest, GivesDistinctIdsToManyThreads) {
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kTimers = 50000;  // enough for the threads to contend for the counter
    std::vector<TimerId> ids(kThreads * kTimers);
    Waiting::Gate begin;
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&ids, &begin, thread] {
            OpenTimer timer;  // one per thread, so that the threads share only the ids
            begin.Wait();
            for (std::size_t set = 0; set < kTimers; ++set) {
                ids[thread * kTimers + set] = timer.SetTimer(1, nullptr, nullptr);
                timer.DiscardAdd();
            }
        });
    }
    begin.Open();
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
    EXPECT_EQ(ids.back() - ids.front(), static_cast<TimerId>(ids.size()) - 1);
}

// Requests.

TEST_F(ContextTimerRequestTest, QueuesAddRequestWithNewRecord) {
    int userData = 0;
    const timer_cb callback = [](int, void*) {};
    const TimerId id = m_timer.SetTimer(4000000000U, callback, &userData);
    const std::unique_ptr<TEventMessage> message(m_timer.TakeMessage());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->nEventId, 0);
    EXPECT_FALSE(message->bStop);
    EXPECT_FALSE(message->bStatic);
    EXPECT_EQ(message->nPriority, 10);
    const std::unique_ptr<CTimerData> record(static_cast<CTimerData*>(message->pData));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->timerId, id);
    EXPECT_EQ(record->interval, 4000000000U);
    EXPECT_EQ(record->expireTime, 0);
    EXPECT_EQ(record->callback, callback);
    EXPECT_EQ(record->userData, &userData);
}

TEST_F(ContextTimerRequestTest, QueuesRemoveRequestWithAllocatedId) {
    EXPECT_TRUE(m_timer.KillTimer(INT_MIN));
    const std::unique_ptr<TEventMessage> message(m_timer.TakeMessage());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->nEventId, 1);
    EXPECT_FALSE(message->bStop);
    EXPECT_FALSE(message->bStatic);
    EXPECT_EQ(message->nPriority, 10);
    const std::unique_ptr<int> id(static_cast<int*>(message->pData));
    ASSERT_NE(id, nullptr);
    EXPECT_EQ(*id, INT_MIN);
}

TEST_F(ContextTimerRequestTest, QueuesSameStaticMessageForEveryCheck) {
    Start();
    BlockInCallback();
    QueueCheck();
    QueueCheck();
    TEventMessage* const first = m_timer.TakeMessage();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->nEventId, 2);
    EXPECT_EQ(first->pData, nullptr);
    EXPECT_FALSE(first->bStop);
    EXPECT_TRUE(first->bStatic);
    EXPECT_EQ(first->nPriority, 10);
    EXPECT_EQ(m_timer.TakeMessage(), first);
    EXPECT_EQ(m_timer.TakeMessage(), nullptr);
}

TEST_F(ContextTimerRequestTest, RefusesToKillTimerZero) {
    EXPECT_FALSE(m_timer.KillTimer(0));
    EXPECT_EQ(CapturedLog::Origins(), Strings{"4 ContextTimer.cpp: KillTimer > invalid timer id"});
    EXPECT_EQ(m_timer.QueueLength(), 0);
}

TEST_F(ContextTimerRequestTest, IgnoresKillOfUnknownTimer) {
    Start();
    const TimerId id = Set("timer", 1);
    for (const TimerId unknown : {id + 1, -id, -1, INT_MAX, INT_MIN}) {
        EXPECT_TRUE(m_timer.KillTimer(unknown));
    }
    RunTo(2);
    EXPECT_EQ(Fired(), (Strings{"timer@1", "timer@2"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerRequestTest, KillsOnlyTheGivenTimer) {
    Start();
    const TimerId ids[] = {Set("a", 1), Set("b", 1), Set("c", 1), Set("d", 1)};
    EXPECT_TRUE(m_timer.KillTimer(ids[1]));
    TickAt(1);
    EXPECT_EQ(Fired(), (Strings{"a@1", "c@1", "d@1"}));
    EXPECT_TRUE(m_timer.KillTimer(ids[3]));
    EXPECT_TRUE(m_timer.KillTimer(ids[0]));
    EXPECT_TRUE(m_timer.KillTimer(ids[0]));
    TickAt(2);
    EXPECT_EQ(Fired(), (Strings{"a@1", "c@1", "d@1", "c@2"}));
}

TEST_F(ContextTimerRequestTest, KillRemovesEveryRecordOfAnId) {
    Start();
    int calls = 0;
    const timer_cb count = [](int, void* userData) { ++*static_cast<int*>(userData); };
    Add({-7, 1, 0, count, &calls});
    Set("between", 1);
    Add({-7, 2, 0, count, &calls});
    Add({-7, 2, 0, count, &calls});
    TickAt(2);
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(m_timer.KillTimer(-7));
    RunTo(5);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(Fired(), (Strings{"between@2", "between@3", "between@4", "between@5"}));
}

TEST_F(ContextTimerRequestTest, QueuedCheckStillFiresKilledTimer) {
    Start();
    const TimerId id = Set("killed", 0);
    BlockInCallback();
    QueueCheck();
    EXPECT_TRUE(m_timer.KillTimer(id));
    Unblock();
    Settle();
    Tick();
    EXPECT_EQ(Fired(), (Strings{"killed@0", "block@0", "killed@0", "block@0", "block@0"}));
}

TEST_F(ContextTimerRequestTest, ServesMoreUrgentEventBeforeQueuedCheck) {
    Start();
    const TimerId id = Set("killed", 0);
    BlockInCallback();
    QueueCheck();
    EXPECT_TRUE(m_timer.PushEvent(TIMER_EVENT_REMOVE, new int(id), 9));
    Unblock();
    Settle();
    EXPECT_EQ(Fired(), (Strings{"killed@0", "block@0", "block@0"}));
}

TEST_F(ContextTimerRequestTest, ServesMoreUrgentEventBeforeQueuedRequest) {
    Start();
    BlockInCallback();
    const TimerId overtaken = Set("overtaken", 0);
    EXPECT_TRUE(m_timer.PushEvent(TIMER_EVENT_REMOVE, new int(overtaken), 9));
    const TimerId killed = Set("killed", 0);
    EXPECT_TRUE(m_timer.PushEvent(TIMER_EVENT_REMOVE, new int(killed), 10));
    Unblock();
    Settle();
    Tick();
    EXPECT_EQ(Fired(), (Strings{"block@0", "block@0", "overtaken@0"}));
}

TEST_F(ContextTimerRequestTest, ServesRequestsOfManyThreadsWhileTicking) {
    int calls = 0;
    Set("stays", 0);
    Start();
    std::vector<std::thread> threads(4);
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            for (int round = 0; round < 100; ++round) {
                const TimerId id = m_timer.SetTimer(
                    0, [](int, void* userData) { ++*static_cast<int*>(userData); }, &calls);
                EXPECT_TRUE(m_timer.KillTimer(id));
            }
        });
    }
    for (int tick = 0; tick < 5; ++tick) {
        QueueCheck();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    Settle();
    const int before = calls;
    Tick();
    EXPECT_EQ(calls, before) << "a killed timer fired";
    EXPECT_EQ(Fired(), Strings(7, "stays@0"));
}

TEST_F(ContextTimerRequestTest, AppliesRequestsMadeBeforeStart) {
    Set("timer", 3);
    const TimerId killed = Set("killed", 3);
    EXPECT_TRUE(m_timer.KillTimer(killed));
    TestClock::Advance(100);
    Start();
    RunTo(106);
    EXPECT_EQ(Fired(), (Strings{"timer@103", "timer@106"})) << "the interval does not count from Start()";
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerRequestTest, DropsSeventeenthTimerBeforeStart) {
    Strings expected;
    TimerId last = 0;
    for (int timer = 0; timer < 16; ++timer) {
        const std::string name = std::to_string(timer);
        last = Set(name, 1);
        expected.push_back(name + "@1");
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
    EXPECT_EQ(Set("dropped", 1), last + 1);
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushEvent > The Event Queue is overflow!!"});
    Start();
    EXPECT_EQ(Set("next", 100), last + 2);
    RunTo(1);
    EXPECT_EQ(Fired(), expected);
}

TEST_F(ContextTimerRequestTest, DropsKillAfterSixteenRequestsBeforeStart) {
    const TimerId id = Set("timer", 1);
    for (int request = 2; request <= 16; ++request) {
        EXPECT_TRUE(m_timer.KillTimer(INT_MAX));
    }
    EXPECT_TRUE(m_timer.KillTimer(id));
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushEvent > The Event Queue is overflow!!"});
    Start();
    RunTo(1);
    EXPECT_EQ(Fired(), Strings{"timer@1"});
}

TEST_F(ContextTimerRequestTest, LosesRequestsWithoutMemoryForTheirEvents) {
    Start();
    const TimerId kept = Set("kept", 1);
    TimerId lost = 0;
    {
        const FailingAllocation failing(/*allowed=*/1, /*failures=*/1);  // allows the record
        lost = Set("lost", 1);
    }
    EXPECT_EQ(lost, kept + 1);
    {
        const FailingAllocation failing(/*allowed=*/1, /*failures=*/1);  // allows the id
        EXPECT_TRUE(m_timer.KillTimer(kept));
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings(2, "6 ContextEventThread.cpp: PushEvent > Memory Allocation Fail"));
    RunTo(2);
    EXPECT_EQ(Fired(), (Strings{"kept@1", "kept@2"}));
}

TEST_F(ContextTimerRequestTest, DropsTimerWithoutMemoryForListNode) {
    Waiting::Gate isBlocked;
    Waiting::Gate mayGoOn;
    std::optional<FailingAllocation> failing;  // used on the event thread only
    Start();
    Set("arm", 0, [&] {
        if (failing) {
            failing.reset();
        } else {
            isBlocked.Open();
            mayGoOn.Wait();
            failing.emplace(/*allowed=*/0, /*failures=*/1, FailingAllocation::Form::Throwing);
        }
    });
    QueueCheck();
    ASSERT_TRUE(isBlocked.Wait());
    Set("dropped", 0);
    Set("next", 0);
    mayGoOn.Open();
    Settle();
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextTimer.cpp: InsertTimer_ > Memory Allocation Fail"});
    Tick();
    EXPECT_EQ(Fired(), (Strings{"arm@0", "arm@0", "next@0"}));
}

TEST_F(ContextTimerRequestTest, AbortsIfTimerAllocationFails) {
    EXPECT_EXIT(
        {
            const FailingAllocation failing;
            m_timer.SetTimer(1, nullptr, nullptr);
        },
        KilledBySignal(SIGABRT), "ContextTimer\\.cpp:.*CreateTimer_.*Assertion `timerData != __null' failed");
}

TEST_F(ContextTimerRequestTest, AbortsIfKillAllocationFails) {
    EXPECT_EXIT(
        {
            const FailingAllocation failing;
            m_timer.KillTimer(1);
        },
        KilledBySignal(SIGABRT), "ContextTimer\\.cpp:.*KillTimer.*Assertion `ptimerId != __null' failed");
}

TEST_F(ContextTimerRequestTest, AbortsOnUnknownEvent) {
    for (const int eventId : {3, -1, INT_MAX}) {
        EXPECT_EXIT(
            {
                m_timer.Start();
                m_timer.PushEvent(eventId, nullptr, kPriority);
                Waiting::Until([] { return false; }, std::chrono::seconds(10));
                std::_Exit(0);
            },
            KilledBySignal(SIGABRT), "ContextTimer\\.cpp:.*OnEvent.*Assertion `false' failed");
    }
}

}  // namespace
