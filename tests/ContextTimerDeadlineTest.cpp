// SPDX-License-Identifier: Apache-2.0
#include "ContextTimer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "TestClock.h"
#include "TickSleep.h"
#include "TimerFixture.h"
#include "Waiting.h"

// When timers fire: deadlines, their order, and jumps of the clock.

namespace {

using ContextTimerDeadlineTest = TimerTest;

// Checks.

TEST_F(ContextTimerDeadlineTest, ChecksAtStartAndEveryQuarterSecond) {
    Set("tick", 0);
    Start();
    EXPECT_EQ(Fired(), Strings{"tick@0"});
    EXPECT_EQ(TickSleep::LastMicroseconds(), 250000U);
    for (int tick = 2; tick <= 5; ++tick) {
        Tick();
        EXPECT_EQ(Fired(), Strings(static_cast<std::size_t>(tick), "tick@0"));
        EXPECT_EQ(TickSleep::LastMicroseconds(), 250000U);
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerDeadlineTest, FiresByRealClock) {
    TestClock::Release();
    TickSleep::SleepReally();
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(m_timer.Start());
    std::vector<std::time_t> seconds;
    Waiting::Gate hasFiredTwice;
    Set("beat", 1, [&] {
        seconds.push_back(std::time(nullptr));
        if (seconds.size() == 2) {
            hasFiredTwice.Open();
        }
    });
    EXPECT_TRUE(hasFiredTwice.Wait());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
    EXPECT_TRUE(m_timer.Stop());
    ASSERT_GE(seconds.size(), 2U);
    EXPECT_GE(seconds[1] - seconds[0], 1);
}

TEST_F(ContextTimerDeadlineTest, ReadsClockOncePerCheck) {
    Start();
    Set("slow", 2, [] { TestClock::Advance(3); });
    const CTimerData* next = Add({-1, 2, 0, nullptr, nullptr});
    Set("later", 4);
    RunTo(2);
    EXPECT_EQ(next->expireTime, kStart + 4) << "the deadline does not count from the beginning of the check";
    EXPECT_EQ(Fired(), Strings{"slow@2"});
    Tick();
    EXPECT_EQ(Fired(), (Strings{"slow@2", "slow@5", "later@8"}));
}

TEST_F(ContextTimerDeadlineTest, CheckWithoutTimersSetsLastCheckTime) {
    Start();
    RunTo(4);
    const CTimerData* watched = Add({-1, 3, 0, nullptr, nullptr});
    Settle();
    EXPECT_EQ(watched->expireTime, kStart + 7);
}

TEST_F(ContextTimerDeadlineTest, SetsLastCheckTimeAfterCallbacks) {
    std::vector<std::int32_t> seenByCallback;
    Set("tick", 0, [&] { seenByCallback.push_back(m_timer.LastCheckTime() - static_cast<std::int32_t>(kStart)); });
    Start();
    TickAt(1);
    TickAt(3);
    EXPECT_EQ(seenByCallback, (std::vector<std::int32_t>{0, 0, 1}));
    EXPECT_EQ(m_timer.LastCheckTime(), kStart + 3);
}

TEST_F(ContextTimerDeadlineTest, CheckOverwritesTimeSetByRefusedStart) {
    Start();
    BlockInCallback();
    TestClock::Advance(60);
    EXPECT_FALSE(m_timer.Start());
    CapturedLog::Clear();
    EXPECT_EQ(m_timer.LastCheckTime(), kStart + 60);
    Unblock();
    Settle();
    EXPECT_EQ(m_timer.LastCheckTime(), kStart) << "not the second in which the check began";
    Tick();
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 60"});
}

// Deadlines.

TEST_F(ContextTimerDeadlineTest, FiresEveryIntervalUntilKilled) {
    Start();
    const TimerId id = Set("timer", 3);
    for (int second = 0; second <= 10; ++second) {
        for (int tick = 0; tick < 4; ++tick) {
            TickAt(second);
        }
    }
    EXPECT_EQ(Fired(), (Strings{"timer@3", "timer@6", "timer@9"}));
    EXPECT_TRUE(m_timer.KillTimer(id));
    RunTo(20);
    EXPECT_EQ(Fired().size(), 3U);
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerDeadlineTest, FiresZeroIntervalOnEveryTick) {
    Start();
    Set("zero", 0);
    TickAt(0);
    TickAt(0);
    TickAt(1);
    TickAt(1);
    EXPECT_EQ(Fired(), (Strings{"zero@0", "zero@0", "zero@1", "zero@1"}));
}

TEST_F(ContextTimerDeadlineTest, CountsFirstDeadlineFromLastCheck) {
    Start();
    TestClock::Advance(1);
    const CTimerData* watched = Add({-1, 3, 99, nullptr, nullptr});
    Settle();
    EXPECT_EQ(watched->expireTime, kStart + 3);
    Set("timer", 3);
    RunTo(3);
    EXPECT_EQ(Fired(), Strings{"timer@3"});
}

TEST_F(ContextTimerDeadlineTest, CountsDeadlineFromEpochBeforeFirstStart) {
    const CTimerData* watched = Add({-1, 5, 0, nullptr, nullptr});
    ASSERT_TRUE(m_timer.ContextEventThread::Start());
    Settle();
    EXPECT_EQ(watched->expireTime, 5);
}

TEST_F(ContextTimerDeadlineTest, CountsNextDeadlineFromFiringCheck) {
    Start();
    const CTimerData* watched = Add({-1, 3, 0, nullptr, nullptr});
    Set("timer", 3);
    RunTo(2);
    TickAt(5);
    EXPECT_EQ(watched->expireTime, kStart + 8);
    RunTo(11);
    EXPECT_EQ(Fired(), (Strings{"timer@5", "timer@8", "timer@11"}));
}

TEST_F(ContextTimerDeadlineTest, MovesDeadlineBeforeCallback) {
    struct {
        const CTimerData* record = nullptr;
        std::int32_t deadline = 0;
    } seen;
    using Seen = decltype(seen);
    Start();
    seen.record = Add({-1, 3, 0,
                       [](int, void* userData) {
                           auto* inCallback = static_cast<Seen*>(userData);
                           inCallback->deadline = inCallback->record->expireTime;
                       },
                       &seen});
    RunTo(3);
    EXPECT_EQ(seen.deadline, kStart + 6);
}

TEST_F(ContextTimerDeadlineTest, RunsTimersWithoutCallbackSilently) {
    Start();
    const CTimerData* silent = Add({-1, 2, 0, nullptr, nullptr});
    Set("loud", 2);
    RunTo(4);
    EXPECT_EQ(silent->expireTime, kStart + 6);
    EXPECT_EQ(Fired(), (Strings{"loud@2", "loud@4"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

// Order.

TEST_F(ContextTimerDeadlineTest, FiresEqualDeadlinesInOrderOfSetting) {
    Start();
    for (const char* name : {"c", "a", "d", "b"}) {
        Set(name, 2);
    }
    RunTo(2);
    EXPECT_EQ(Fired(), (Strings{"c@2", "a@2", "d@2", "b@2"}));
}

TEST_F(ContextTimerDeadlineTest, FiresInOrderOfFirstDeadlines) {
    Start();
    Set("five", 5);
    Set("three", 3);
    Set("four", 4);
    Set("three too", 3);
    Set("one", 1);
    TickAt(5);
    EXPECT_EQ(Fired(), (Strings{"one@5", "three@5", "three too@5", "four@5", "five@5"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerDeadlineTest, KeepsOrderWhenDeadlinesMove) {
    Start();
    Set("four", 4);
    Set("three", 3);
    RunTo(7);  // the deadlines are now 8 and 9
    TickAt(9);
    EXPECT_EQ(Fired(), (Strings{"three@3", "four@4", "three@6", "three@9", "four@9"}));
}

TEST_F(ContextTimerDeadlineTest, InsertsBeforeFirstLaterDeadlineOfUnsortedList) {
    Start();
    Set("four", 4);
    Set("three", 3);
    RunTo(6);
    Set("two", 2);  // deadline 8: inserted before "three" with 9, although "four" after it has 8 too
    TickAt(7);
    TickAt(9);
    EXPECT_EQ(Fired(), (Strings{"three@3", "four@4", "three@6", "two@9", "three@9", "four@9"}));
}

// Overflow of the 32-bit seconds.

TEST_F(ContextTimerDeadlineTest, SortsWrappedDeadlineFirst) {
    constexpr std::int32_t kNearTheEnd = 2147483640;
    TestClock::Set(kNearTheEnd);
    Start();
    const int second = Now();
    Set("last", 4);
    const CTimerData* watched = Add({-1, 10, 0, nullptr, nullptr});
    Set("wrapped", 10);
    Settle();
    EXPECT_EQ(watched->expireTime, INT32_MIN + 2);
    RunTo(second + 4);
    const auto at = [second](const std::string& name, int later) {
        return name + "@" + std::to_string(second + later);
    };
    EXPECT_EQ(Fired(),
              (Strings{at("wrapped", 1), at("wrapped", 2), at("wrapped", 3), at("wrapped", 4), at("last", 4)}));
}

TEST_F(ContextTimerDeadlineTest, FiresEverySecondAcrossOverflow) {
    TestClock::Set(2147483646);
    Start();
    Set("every second", 1);
    const CTimerData* watched = Add({-1, 1, 0, nullptr, nullptr});
    Settle();
    std::size_t fired = 0;
    for (const std::int32_t deadline : {INT32_MIN, INT32_MIN + 1, INT32_MIN + 2}) {
        TestClock::Advance(1);
        Tick();
        EXPECT_EQ(watched->expireTime, deadline);
        EXPECT_EQ(Fired().size(), ++fired);
    }
    Tick();
    EXPECT_EQ(Fired().size(), fired) << "fired twice in one second";
    EXPECT_EQ(CapturedLog::Messages(), Strings{});
}

TEST_F(ContextTimerDeadlineTest, MovesDeadlinesWithJumpAcrossOverflow) {
    TestClock::Set(2147483640);
    Start();
    Set("five", 5);
    const CTimerData* watched = Add({-1, 5, 0, nullptr, nullptr});
    TestClock::Advance(60);
    Tick();
    EXPECT_EQ(Fired(), Strings{});
    EXPECT_EQ(watched->expireTime, INT32_MIN + 57);
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 60"});
    TestClock::Advance(5);
    Tick();
    EXPECT_EQ(Fired().size(), 1U);
    EXPECT_EQ(watched->expireTime, INT32_MIN + 62);
}

TEST_F(ContextTimerDeadlineTest, FiresWrappingIntervalOnEveryTick) {
    Start();
    Set("longest", UINT_MAX);
    const CTimerData* watched = Add({-1, UINT_MAX, 0, nullptr, nullptr});
    Settle();
    EXPECT_EQ(watched->expireTime, kStart - 1);
    Tick();
    Tick();
    EXPECT_EQ(Fired(), (Strings{"longest@0", "longest@0"}));
}

// Jumps of the clock.

TEST_F(ContextTimerDeadlineTest, MovesEveryDeadlineWithForwardJump) {
    Start();
    Set("three", 3);
    Set("eight", 8);
    TickAt(1);
    TickAt(61);
    EXPECT_EQ(Fired(), Strings{}) << "the jump alone fired a timer";
    EXPECT_EQ(CapturedLog::Origins(), Strings{"4 ContextTimer.cpp: CheckTimer_ > add offset %d"});
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 60"});
    RunTo(69);
    EXPECT_EQ(Fired(), (Strings{"three@63", "three@66", "eight@68", "three@69"}));
    EXPECT_EQ(CapturedLog::Lines().size(), 1U);
}

TEST_F(ContextTimerDeadlineTest, TreatsMoreThanFiveSecondsAsJump) {
    Start();
    const CTimerData* watched = Add({-1, 100000, 0, nullptr, nullptr});
    const struct {
        int step;
        bool isJump;
    } rows[] = {{1, false}, {4, false}, {5, false}, {6, true}, {7, true}, {5, false}, {60, true}, {100000000, true}};
    int second = 0;
    std::int32_t deadline = kStart + 100000;
    for (const auto& row : rows) {
        CapturedLog::Clear();
        second += row.step;
        deadline += row.isJump ? row.step : 0;
        TickAt(second);
        EXPECT_EQ(watched->expireTime, deadline) << row.step;
        EXPECT_EQ(CapturedLog::Messages(),
                  row.isJump ? Strings{"I add offset " + std::to_string(row.step)} : Strings{});
    }
}

TEST_F(ContextTimerDeadlineTest, FiresDueTimersWithinFiveSecondStep) {
    Start();
    Set("five", 5);
    Set("six", 6);
    TickAt(5);
    EXPECT_EQ(Fired(), Strings{"five@5"});
    TickAt(6);
    EXPECT_EQ(Fired(), (Strings{"five@5", "six@6"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerDeadlineTest, FiresZeroIntervalDespiteJump) {
    Start();
    Set("zero", 0);
    TickAt(60);
    EXPECT_EQ(Fired(), Strings{"zero@60"});
}

TEST_F(ContextTimerDeadlineTest, LogsJumpOnceWithoutTimers) {
    Start();
    TickAt(6);
    TickAt(6);
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 6"});
}

TEST_F(ContextTimerDeadlineTest, DoesNotCompensateBackwardStep) {
    Start();
    Set("three", 3);
    TickAt(-10);
    for (int second = -9; second <= 2; ++second) {
        TickAt(second);
    }
    EXPECT_EQ(Fired(), Strings{});
    TickAt(3);
    EXPECT_EQ(Fired(), Strings{"three@3"});
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerDeadlineTest, TreatsReturnFromBackwardStepAsJump) {
    Start();
    Set("three", 3);
    TickAt(-10);
    TickAt(0);
    RunTo(13);
    EXPECT_EQ(Fired(), Strings{"three@13"});
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 10"});
}

TEST_F(ContextTimerDeadlineTest, TreatsCallbackOverFiveSecondsAsJump) {
    Start();
    Set("slow", 2, [] { TestClock::Advance(6); });
    Set("later", 4);
    RunTo(2);
    Tick();
    EXPECT_EQ(Fired(), Strings{"slow@2"});
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 6"});
    RunTo(10);
    EXPECT_EQ(Fired(), (Strings{"slow@2", "slow@10", "later@16"}));
}

}  // namespace
