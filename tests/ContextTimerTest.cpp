// SPDX-License-Identifier: Apache-2.0
#include "ContextTimer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "FailingAllocation.h"
#include "TestClock.h"
#include "TimerMath.h"
#include "Waiting.h"

namespace {

/// A timer that shows its sides and its queue.
class OpenTimer : public ContextTimer {
public:
    bool IsTicking() const { return ContextThread::IsRuning(); }
    bool IsServing() const { return ContextEventThread::IsRuning(); }

    /// The number of events that wait, less 1 while the event thread waits for one.
    int QueueLength() const { return g_async_queue_length(m_pQueue); }

    /// @return the next message, which is the test's from now on; null when none waits.
    TEventMessage* TakeMessage() { return static_cast<TEventMessage*>(g_async_queue_try_pop(m_pQueue)); }

    /// Undoes a SetTimer() of a timer that is not started.
    void DiscardAdd() {
        const std::unique_ptr<TEventMessage> message(TakeMessage());
        delete static_cast<CTimerData*>(message->pData);
        --m_nPreStartCount;
    }
};

/// What usleep() and g_thread_new() of this program go by.
struct Hooks {
    std::atomic<OpenTimer*> timer{nullptr};
    std::atomic<bool> sleepsReally{false};
    std::atomic<int> sleeps{0};                 ///< how often the tick thread has gone to sleep
    std::atomic<int> wakeUps{0};                ///< how often it may still wake up
    std::atomic<unsigned int> microseconds{0};  ///< of its last sleep
    std::atomic<std::thread::id> sleeper{};
    std::atomic<int> threadsAllowed{INT_MAX};
};

Hooks g_hooks;

}  // namespace

/// The sleep between two ticks, for the library too: it ends when the test lets it, or when the timer stops.
int usleep(useconds_t microseconds) {
    g_hooks.microseconds = microseconds;
    g_hooks.sleeper = std::this_thread::get_id();
    ++g_hooks.sleeps;
    if (g_hooks.sleepsReally) {
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
        return 0;
    }
    Waiting::Until([] {
        const bool wakesUp = g_hooks.wakeUps > 0;
        g_hooks.wakeUps -= wakesUp;
        return wakesUp || !g_hooks.timer.load()->IsTicking();
    });
    return 0;
}

/// Stands before GLib's own for the library too, and refuses a thread when the test says so.
GThread* g_thread_new(const gchar* name, GThreadFunc entry, gpointer argument) {
    return g_hooks.threadsAllowed-- > 0 ? g_thread_try_new(name, entry, argument, nullptr) : nullptr;
}

namespace {

using ::testing::ExitedWithCode;
using ::testing::KilledBySignal;
using Strings = std::vector<std::string>;

constexpr std::time_t kStart = 1500000000;
constexpr int kPriority = 10;

/// Drives a timer tick by tick at a clock that stands still in between. Seconds count from kStart.
class ContextTimerTest : public ::testing::Test {
protected:
    void SetUp() override {
        // An emulated program cannot start itself anew.
        GTEST_FLAG_SET(death_test_style, LUMORA_TEST_IS_EMULATED ? "fast" : "threadsafe");
        CapturedLog::Clear();
        TestClock::Set(kStart);
        g_hooks.timer = &m_timer;
        g_hooks.sleepsReally = false;
        g_hooks.wakeUps = 0;
        g_hooks.threadsAllowed = INT_MAX;
    }

    void TearDown() override {
        m_isOver = true;
        LetGo();
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

    /// Starts the timer and waits until the check of its start has been served.
    void Start() {
        const int sleeps = g_hooks.sleeps;
        ASSERT_TRUE(m_timer.Start());
        ASSERT_TRUE(Waiting::Until([sleeps] { return g_hooks.sleeps > sleeps; }));
        Settle();
    }

    /// Lets the tick thread go round once.
    void QueueCheck() {
        const int sleeps = g_hooks.sleeps;
        ++g_hooks.wakeUps;
        ASSERT_TRUE(Waiting::Until([sleeps] { return g_hooks.sleeps > sleeps; }));
    }

    /// Waits until everything queued has been served.
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

    /// Ticks once in every second up to one.
    void RunTo(int second) {
        for (int next = Now() + 1; next <= second; ++next) {
            TickAt(next);
        }
    }

    static int Now() { return TimerMath::Difference(static_cast<std::int32_t>(std::time(nullptr)), kStart); }

    /// Sets a timer that notes each firing as "name@second" and then acts.
    TimerId Set(const std::string& name, unsigned int interval, std::function<void()> act = nullptr) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_probes.push_back({this, name, std::move(act)});
        m_ids.push_back(m_timer.SetTimer(interval, Note, &m_probes.back()));
        return m_ids.back();
    }

    /// Has the event thread take over a record that the test can watch.
    const CTimerData* Add(const CTimerData& record) {
        auto* added = new CTimerData(record);
        m_ids.push_back(record.timerId);
        EXPECT_TRUE(m_timer.PushEvent(TIMER_EVENT_ADD, added, kPriority));
        return added;
    }

    Strings Fired() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_fired;
    }

    /// Keeps the event thread inside the callback of a timer "hold", which fires on every tick, until LetGo().
    void Hold() {
        Set("hold", 0, [this] {
            m_isHeld.Open();
            m_mayGo.Wait();
        });
        QueueCheck();
        ASSERT_TRUE(m_isHeld.Wait());
    }

    void LetGo() { m_mayGo.Open(); }

    OpenTimer m_timer;

private:
    struct Probe {
        ContextTimerTest* test;
        std::string name;
        std::function<void()> act;
    };

    static void Note(int /*timerId*/, void* userData) {
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
    std::list<Probe> m_probes;
    std::vector<TimerId> m_ids;
    Strings m_fired;
    std::atomic<bool> m_isOver{false};
    Waiting::Gate m_isHeld;
    Waiting::Gate m_mayGo;
};

TEST(TimerMathTest, CountsIdsUpAndStartsAgainAtOne) {
    const struct {
        std::int32_t last;
        std::int32_t next;
    } rows[] = {{0, 1}, {1, 2}, {41, 42}, {2147483646, 2147483647}, {2147483647, 1}};
    for (const auto& row : rows) {
        EXPECT_EQ(TimerMath::NextTimerId(row.last), row.next) << row.last;
    }
}

TEST(TimerMathTest, AddsInThirtyTwoBitsThatWrap) {
    const struct {
        const char* name;
        std::int32_t time;
        std::uint32_t seconds;
        std::int32_t sum;
    } rows[] = {
        {"nothing", 5, 0, 5},
        {"ordinary", 1500000000, 3, 1500000003},
        {"up to the last second", 2147483640, 7, 2147483647},
        {"past the last second", 2147483647, 1, INT32_MIN},
        {"well past the last second", 2147483640, 17, -2147483639},
        {"the longest interval", 1500000000, 4294967295U, 1499999999},
        {"half the range", 0, 2147483648U, INT32_MIN},
        {"from before the epoch", -10, 3, -7},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(TimerMath::Add(row.time, row.seconds), row.sum) << row.name;
    }
}

TEST(TimerMathTest, SubtractsInThirtyTwoBitsThatWrap) {
    const struct {
        const char* name;
        std::int32_t later;
        std::int32_t earlier;
        std::int32_t difference;
    } rows[] = {
        {"none", 7, 7, 0},
        {"forward", 1500000060, 1500000000, 60},
        {"backward", 1500000000, 1500000060, -60},
        {"across the last second", INT32_MIN + 1, 2147483647, 2},
        {"back across the last second", 2147483647, INT32_MIN, -1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(TimerMath::Difference(row.later, row.earlier), row.difference) << row.name;
    }
}

TEST_F(ContextTimerTest, GivesTheFirstTimersOfAProcessTheIdsFromOne) {
    EXPECT_EXIT(
        {
            ContextTimer other;
            const TimerId first = m_timer.SetTimer(1, nullptr, nullptr);
            const TimerId second = other.SetTimer(1, nullptr, nullptr);
            const TimerId third = m_timer.SetTimer(1, nullptr, nullptr);
            std::fprintf(stderr, "ids %d %d %d.", first, second, third);
            std::_Exit(0);  // the queued records are no leak that matters here
        },
        ExitedWithCode(0), "ids 1 2 3\\.");
}

TEST_F(ContextTimerTest, CountsIdsUp) {
    const TimerId first = Set("first", 1);
    EXPECT_GE(first, 1);
    EXPECT_EQ(Set("second", 1), first + 1);
    EXPECT_EQ(Set("third", 0), first + 2);
}

TEST_F(ContextTimerTest, GivesTheTimersOfManyThreadsDistinctIds) {
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kTimers = 50000;  // few would hardly meet
    std::vector<TimerId> ids(kThreads * kTimers);
    Waiting::Gate begin;
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&ids, &begin, thread] {
            OpenTimer timer;  // of its own, so that nothing but the ids is shared
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

TEST_F(ContextTimerTest, ServesTheRequestsOfManyThreadsWhileItTicks) {
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
    EXPECT_EQ(calls, before) << "all are gone";
    EXPECT_EQ(Fired(), Strings(7, "stays@0"));
}

TEST_F(ContextTimerTest, QueuesAnAddRequestWithTheNewRecord) {
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

TEST_F(ContextTimerTest, QueuesARemoveRequestWithACellForTheId) {
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

TEST_F(ContextTimerTest, QueuesTheSameStaticMessageForEveryCheck) {
    Start();
    Hold();
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

TEST_F(ContextTimerTest, ChecksAtTheStartAndThenEveryQuarterOfASecond) {
    Set("tick", 0);
    Start();
    EXPECT_EQ(Fired(), Strings{"tick@0"});
    EXPECT_EQ(g_hooks.microseconds, 250000U);
    for (int tick = 2; tick <= 5; ++tick) {
        Tick();
        EXPECT_EQ(Fired(), Strings(static_cast<std::size_t>(tick), "tick@0"));
        EXPECT_EQ(g_hooks.microseconds, 250000U);
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerTest, FiresAtTheSecondOfTheRealClock) {
    TestClock::Release();
    g_hooks.sleepsReally = true;
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

TEST_F(ContextTimerTest, FiresEveryIntervalUntilItIsKilled) {
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

TEST_F(ContextTimerTest, HandsTheCallbackItsIdAndItsUserData) {
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

TEST_F(ContextTimerTest, FiresAnIntervalOfZeroOnEveryTick) {
    Start();
    Set("zero", 0);
    TickAt(0);
    TickAt(0);
    TickAt(1);
    TickAt(1);
    EXPECT_EQ(Fired(), (Strings{"zero@0", "zero@0", "zero@1", "zero@1"}));
}

TEST_F(ContextTimerTest, CountsTheFirstDeadlineFromTheLastCheckAndNotFromTheCall) {
    Start();
    TestClock::Advance(1);
    const CTimerData* watched = Add({-1, 3, 99, nullptr, nullptr});
    Settle();
    EXPECT_EQ(watched->expireTime, kStart + 3);
    Set("timer", 3);
    RunTo(3);
    EXPECT_EQ(Fired(), Strings{"timer@3"});
}

TEST_F(ContextTimerTest, TakesNoteOfAChecksSecondEvenWithoutTimers) {
    Start();
    RunTo(4);
    const CTimerData* watched = Add({-1, 3, 0, nullptr, nullptr});
    Settle();
    EXPECT_EQ(watched->expireTime, kStart + 7);
}

TEST_F(ContextTimerTest, CountsFurtherDeadlinesFromTheCheckThatFoundTheTimerDue) {
    Start();
    const CTimerData* watched = Add({-1, 3, 0, nullptr, nullptr});
    Set("timer", 3);
    RunTo(2);
    TickAt(5);
    EXPECT_EQ(watched->expireTime, kStart + 8);
    RunTo(11);
    EXPECT_EQ(Fired(), (Strings{"timer@5", "timer@8", "timer@11"}));
}

TEST_F(ContextTimerTest, MovesTheDeadlineBeforeItCallsBack) {
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

TEST_F(ContextTimerTest, RunsTimersWithoutACallbackSilently) {
    Start();
    const CTimerData* silent = Add({-1, 2, 0, nullptr, nullptr});
    Set("loud", 2);
    RunTo(4);
    EXPECT_EQ(silent->expireTime, kStart + 6);
    EXPECT_EQ(Fired(), (Strings{"loud@2", "loud@4"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerTest, FiresTimersWithEqualDeadlinesInTheOrderTheyWereSet) {
    Start();
    for (const char* name : {"c", "a", "d", "b"}) {
        Set(name, 2);
    }
    RunTo(2);
    EXPECT_EQ(Fired(), (Strings{"c@2", "a@2", "d@2", "b@2"}));
}

TEST_F(ContextTimerTest, FiresTimersOfOneCheckInTheOrderOfTheirFirstDeadlines) {
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

TEST_F(ContextTimerTest, KeepsTheFirstOrderWhenDeadlinesMove) {
    Start();
    Set("four", 4);
    Set("three", 3);
    RunTo(7);  // the deadlines are now 8 and 9
    TickAt(9);
    EXPECT_EQ(Fired(), (Strings{"three@3", "four@4", "three@6", "three@9", "four@9"}));
}

TEST_F(ContextTimerTest, InsertsBeforeTheFirstLaterDeadlineOfAListThatIsOutOfOrder) {
    Start();
    Set("four", 4);
    Set("three", 3);
    RunTo(6);
    Set("two", 2);  // at 8: before "three" at 9, although "four" behind that is at 8 too
    TickAt(7);
    TickAt(9);
    EXPECT_EQ(Fired(), (Strings{"three@3", "four@4", "three@6", "two@9", "three@9", "four@9"}));
}

TEST_F(ContextTimerTest, WrapsDeadlinesPastTheLastSecondToTheFront) {
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

TEST_F(ContextTimerTest, FiresEverySecondAcrossTheLastOne) {
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
    EXPECT_EQ(Fired().size(), fired) << "once in a second";
    EXPECT_EQ(CapturedLog::Messages(), Strings{});
}

TEST_F(ContextTimerTest, MovesDeadlinesWithAJumpAcrossTheLastSecond) {
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

TEST_F(ContextTimerTest, FiresAnIntervalThatWrapsOnEveryTick) {
    Start();
    Set("longest", UINT_MAX);
    const CTimerData* watched = Add({-1, UINT_MAX, 0, nullptr, nullptr});
    Settle();
    EXPECT_EQ(watched->expireTime, kStart - 1);
    Tick();
    Tick();
    EXPECT_EQ(Fired(), (Strings{"longest@0", "longest@0"}));
}

TEST_F(ContextTimerTest, MovesEveryDeadlineWithAClockThatJumpsForward) {
    Start();
    Set("three", 3);
    Set("eight", 8);
    TickAt(1);
    TickAt(61);
    EXPECT_EQ(Fired(), Strings{}) << "nothing fires because of the jump";
    EXPECT_EQ(CapturedLog::Origins(), Strings{"4 ContextTimer.cpp: CheckTimer_ > add offset %d"});
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 60"});
    RunTo(69);
    EXPECT_EQ(Fired(), (Strings{"three@63", "three@66", "eight@68", "three@69"}));
    EXPECT_EQ(CapturedLog::Lines().size(), 1U);
}

TEST_F(ContextTimerTest, TakesMoreThanFiveSecondsBetweenTwoChecksForAJump) {
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

TEST_F(ContextTimerTest, FiresWhatIsDueWithinAStepOfFiveSeconds) {
    Start();
    Set("five", 5);
    Set("six", 6);
    TickAt(5);
    EXPECT_EQ(Fired(), Strings{"five@5"});
    TickAt(6);
    EXPECT_EQ(Fired(), (Strings{"five@5", "six@6"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerTest, FiresWhatIsDueThoughItMovedWithTheJump) {
    Start();
    Set("zero", 0);
    TickAt(60);
    EXPECT_EQ(Fired(), Strings{"zero@60"});
}

TEST_F(ContextTimerTest, LogsAJumpOnceWithoutTimersToo) {
    Start();
    TickAt(6);
    TickAt(6);
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 6"});
}

TEST_F(ContextTimerTest, DoesNotCompensateAClockThatStepsBack) {
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

TEST_F(ContextTimerTest, TakesTheWayBackFromABackwardStepForAJump) {
    Start();
    Set("three", 3);
    TickAt(-10);
    TickAt(0);
    RunTo(13);
    EXPECT_EQ(Fired(), Strings{"three@13"});
    EXPECT_EQ(CapturedLog::Messages(), Strings{"I add offset 10"});
}

TEST_F(ContextTimerTest, LooksAtTheClockOncePerCheck) {
    Start();
    Set("slow", 2, [] { TestClock::Advance(3); });
    const CTimerData* next = Add({-1, 2, 0, nullptr, nullptr});
    Set("later", 4);
    RunTo(2);
    EXPECT_EQ(next->expireTime, kStart + 4) << "counted from the beginning of the check";
    EXPECT_EQ(Fired(), Strings{"slow@2"});
    Tick();
    EXPECT_EQ(Fired(), (Strings{"slow@2", "slow@5", "later@8"}));
}

TEST_F(ContextTimerTest, TakesACallbackOfMoreThanFiveSecondsForAJump) {
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

TEST_F(ContextTimerTest, RefusesToKillTimerZero) {
    EXPECT_FALSE(m_timer.KillTimer(0));
    EXPECT_EQ(CapturedLog::Origins(), Strings{"4 ContextTimer.cpp: KillTimer > invalid timer id"});
    EXPECT_EQ(m_timer.QueueLength(), 0);
}

TEST_F(ContextTimerTest, IgnoresTheRemovalOfATimerThatDoesNotExist) {
    Start();
    const TimerId id = Set("timer", 1);
    for (const TimerId unknown : {id + 1, -id, -1, INT_MAX, INT_MIN}) {
        EXPECT_TRUE(m_timer.KillTimer(unknown));
    }
    RunTo(2);
    EXPECT_EQ(Fired(), (Strings{"timer@1", "timer@2"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerTest, RemovesOnlyTheTimerThatWasKilled) {
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

TEST_F(ContextTimerTest, RemovesEveryTimerOfAnId) {
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

TEST_F(ContextTimerTest, LetsACallbackKillItself) {
    Start();
    TimerId id = 0;
    bool killed = false;
    id = Set("once", 1, [&] { killed = m_timer.KillTimer(id); });
    RunTo(3);
    EXPECT_EQ(Fired(), Strings{"once@1"});
    EXPECT_TRUE(killed);
}

TEST_F(ContextTimerTest, StillFiresTheTimersOfACheckThatACallbackKills) {
    Start();
    TimerId other = 0;
    Set("killer", 1, [&] { m_timer.KillTimer(other); });
    other = Set("other", 1);
    RunTo(2);
    EXPECT_EQ(Fired(), (Strings{"killer@1", "other@1", "killer@2"}));
}

TEST_F(ContextTimerTest, LetsACallbackSetATimer) {
    Start();
    Set("parent", 3, [this] { Set("child" + std::to_string(Now()), 2); });
    RunTo(7);
    EXPECT_EQ(Fired(), (Strings{"parent@3", "child3@5", "parent@6", "child3@7"}));
}

TEST_F(ContextTimerTest, CallsBackOnItsEventThreadOnly) {
    std::set<std::thread::id> threads;
    Start();
    for (int timer = 0; timer < 5; ++timer) {
        Set("timer", static_cast<unsigned int>(timer % 2), [&threads] { threads.insert(std::this_thread::get_id()); });
    }
    RunTo(3);
    EXPECT_EQ(threads.size(), 1U);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
    EXPECT_EQ(threads.count(g_hooks.sleeper), 0U);
}

TEST_F(ContextTimerTest, ServesEveryCheckThatALongCallbackHeldUp) {
    Set("tick", 0);
    Start();
    Hold();
    for (int check = 0; check < 3; ++check) {
        QueueCheck();
    }
    EXPECT_EQ(Fired(), (Strings{"tick@0", "tick@0", "hold@0"})) << "nothing else runs meanwhile";
    LetGo();
    Settle();
    EXPECT_EQ(Fired(),
              (Strings{"tick@0", "tick@0", "hold@0", "tick@0", "hold@0", "tick@0", "hold@0", "tick@0", "hold@0"}));
}

TEST_F(ContextTimerTest, MayFireATimerOnceMoreAfterItWasKilled) {
    Start();
    const TimerId id = Set("killed", 0);
    Hold();
    QueueCheck();
    EXPECT_TRUE(m_timer.KillTimer(id));
    LetGo();
    Settle();
    Tick();
    EXPECT_EQ(Fired(), (Strings{"killed@0", "hold@0", "killed@0", "hold@0", "hold@0"}));
}

TEST_F(ContextTimerTest, ServesAMoreUrgentEventBeforeAQueuedCheck) {
    Start();
    const TimerId id = Set("killed", 0);
    Hold();
    QueueCheck();
    EXPECT_TRUE(m_timer.PushEvent(TIMER_EVENT_REMOVE, new int(id), 9));
    LetGo();
    Settle();
    EXPECT_EQ(Fired(), (Strings{"killed@0", "hold@0", "hold@0"}));
}

TEST_F(ContextTimerTest, ServesAMoreUrgentEventBeforeAQueuedRequest) {
    Start();
    Hold();
    const TimerId overtaken = Set("overtaken", 0);
    EXPECT_TRUE(m_timer.PushEvent(TIMER_EVENT_REMOVE, new int(overtaken), 9));
    const TimerId killed = Set("killed", 0);
    EXPECT_TRUE(m_timer.PushEvent(TIMER_EVENT_REMOVE, new int(killed), 10));
    LetGo();
    Settle();
    Tick();
    EXPECT_EQ(Fired(), (Strings{"hold@0", "hold@0", "overtaken@0"}));
}

TEST_F(ContextTimerTest, AppliesRequestsThatWereMadeBeforeTheStart) {
    Set("timer", 3);
    const TimerId killed = Set("killed", 3);
    EXPECT_TRUE(m_timer.KillTimer(killed));
    TestClock::Advance(100);
    Start();
    RunTo(106);
    EXPECT_EQ(Fired(), (Strings{"timer@103", "timer@106"})) << "counted from the start";
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerTest, CountsFromTheEpochUntilItsFirstStart) {
    const CTimerData* watched = Add({-1, 5, 0, nullptr, nullptr});
    ASSERT_TRUE(m_timer.ContextEventThread::Start());
    Settle();
    EXPECT_EQ(watched->expireTime, 5);
}

TEST_F(ContextTimerTest, LosesTheSeventeenthTimerBeforeTheStart) {
    Strings expected;
    TimerId last = 0;
    for (int timer = 0; timer < 16; ++timer) {
        const std::string name = std::to_string(timer);
        last = Set(name, 1);
        expected.push_back(name + "@1");
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
    EXPECT_EQ(Set("lost", 1), last + 1);
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushEvent > The Event Queue is overflow!!"});
    Start();
    EXPECT_EQ(Set("next", 100), last + 2);
    RunTo(1);
    EXPECT_EQ(Fired(), expected);
}

TEST_F(ContextTimerTest, LosesTheSeventeenthKillBeforeTheStart) {
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

TEST_F(ContextTimerTest, KeepsTimersAndDeadlinesThroughAStop) {
    Start();
    Set("eight", 8);
    Set("two hundred", 200);
    Set("ten", 10);
    RunTo(3);
    ASSERT_TRUE(m_timer.Stop());
    TestClock::Set(kStart + 195);
    Start();
    EXPECT_EQ(Fired(), (Strings{"eight@195", "ten@195"})) << "what passed fires at the first check";
    RunTo(205);
    EXPECT_EQ(Fired(), (Strings{"eight@195", "ten@195", "two hundred@200", "eight@203", "ten@205"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{}) << "the pause is no jump of the clock";
}

TEST_F(ContextTimerTest, ServesPendingRequestsBeforeAStopReturns) {
    Start();
    const TimerId killed = Set("killed", 1);
    Hold();
    Set("added", 1);
    EXPECT_TRUE(m_timer.KillTimer(killed));
    std::thread stopper([this] { EXPECT_TRUE(m_timer.Stop()); });
    EXPECT_TRUE(Waiting::Until([this] { return m_timer.QueueLength() == 3; })) << "an add, a remove, the stop";
    EXPECT_FALSE(m_timer.IsTicking());
    EXPECT_TRUE(m_timer.IsServing());
    LetGo();
    stopper.join();
    EXPECT_EQ(m_timer.QueueLength(), 0);
    TestClock::Advance(1);
    Start();
    EXPECT_EQ(Fired(), (Strings{"hold@0", "hold@1", "added@1"}));
}

TEST_F(ContextTimerTest, ServesACheckThatWaitsWhenTheTickThreadHasEnded) {
    Start();
    Hold();
    QueueCheck();
    std::thread stopper([this] { EXPECT_TRUE(m_timer.Stop()); });
    EXPECT_TRUE(Waiting::Until([this] { return m_timer.QueueLength() == 2; })) << "the check, the stop";
    LetGo();
    stopper.join();
    EXPECT_EQ(Fired(), (Strings{"hold@0", "hold@0"}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextTimerTest, RefusesASecondStart) {
    Start();
    EXPECT_FALSE(m_timer.Start());
    EXPECT_EQ(CapturedLog::Origins(), (Strings{"6 ContextEventThread.cpp: Start > Already Started",
                                               "6 ContextTimer.cpp: Start > Start Error"}));
    EXPECT_TRUE(m_timer.IsTicking());
    EXPECT_TRUE(m_timer.IsServing());
}

TEST_F(ContextTimerTest, TakesNoteOfTheSecondOfARefusedStart) {
    Start();
    Set("three", 3);
    Settle();
    TestClock::Advance(60);
    EXPECT_FALSE(m_timer.Start());
    CapturedLog::Clear();
    Tick();
    EXPECT_EQ(Fired(), Strings{"three@60"});
    EXPECT_EQ(CapturedLog::Origins(), Strings{}) << "no jump since the last check is left";
}

TEST_F(ContextTimerTest, ChecksOnWhileStartsAreRefused) {
    Set("tick", 0);
    Start();
    for (int start = 0; start < 10; ++start) {
        QueueCheck();
        EXPECT_FALSE(m_timer.Start());
    }
    Settle();
    EXPECT_EQ(Fired(), Strings(11, "tick@0"));
}

TEST_F(ContextTimerTest, RefusesToStopWhatDoesNotRun) {
    const Strings refusal{"6 ContextThread.cpp: Stop > Already Stopped", "6 ContextTimer.cpp: Stop > Stop Error"};
    EXPECT_FALSE(m_timer.Stop());
    EXPECT_EQ(CapturedLog::Origins(), refusal);
    Start();
    ASSERT_TRUE(m_timer.Stop());
    CapturedLog::Clear();
    EXPECT_FALSE(m_timer.Stop());
    EXPECT_EQ(CapturedLog::Origins(), refusal);
}

TEST_F(ContextTimerTest, LeavesTheEventSideAloneWhenTheTickSideDoesNotStop) {
    Start();
    ASSERT_TRUE(m_timer.ContextThread::Stop());
    EXPECT_FALSE(m_timer.Stop());
    EXPECT_EQ(CapturedLog::Origins(),
              (Strings{"6 ContextThread.cpp: Stop > Already Stopped", "6 ContextTimer.cpp: Stop > Stop Error"}));
    EXPECT_TRUE(m_timer.IsServing());
}

TEST_F(ContextTimerTest, StopsTheTickSideEvenWhenTheEventSideDoesNotStop) {
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

TEST_F(ContextTimerTest, ReportsAStopMessageThatCannotBeAllocated) {
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

TEST_F(ContextTimerTest, DoesNotTickWhenTheEventSideRunsAlready) {
    ASSERT_TRUE(m_timer.ContextEventThread::Start());
    EXPECT_FALSE(m_timer.Start());
    EXPECT_EQ(CapturedLog::Origins(), (Strings{"6 ContextEventThread.cpp: Start > Already Started",
                                               "6 ContextTimer.cpp: Start > Start Error"}));
    EXPECT_FALSE(m_timer.IsTicking());
    EXPECT_TRUE(m_timer.IsServing());
}

TEST_F(ContextTimerTest, LeavesTheEventSideRunningWhenTheTickSideDoesNotStart) {
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

TEST_F(ContextTimerTest, ReportsAThreadThatCannotBeCreated) {
    const struct {
        const char* name;
        int threadsAllowed;
        bool isServing;
    } rows[] = {{"no event thread", 0, false}, {"no tick thread", 1, true}};
    for (const auto& row : rows) {
        CapturedLog::Clear();
        g_hooks.threadsAllowed = row.threadsAllowed;
        EXPECT_FALSE(m_timer.Start()) << row.name;
        EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextTimer.cpp: Start > Start Error"}) << row.name;
        EXPECT_FALSE(m_timer.IsTicking()) << row.name;
        EXPECT_EQ(m_timer.IsServing(), row.isServing) << row.name;
    }
}

TEST_F(ContextTimerTest, LeavesItsRecordsUnfreed) {
    auto timer = std::make_unique<OpenTimer>();
    const std::unique_ptr<CTimerData> record(new CTimerData{7, 5, 0, nullptr, nullptr});
    g_hooks.timer = timer.get();
    ASSERT_TRUE(timer->Start());
    ASSERT_TRUE(timer->PushEvent(TIMER_EVENT_ADD, record.get(), kPriority));
    ASSERT_TRUE(timer->Stop());
    timer.reset();
    EXPECT_EQ(record->timerId, 7);
    EXPECT_EQ(record->interval, 5U);
    EXPECT_EQ(record->expireTime, kStart + 5);
}

TEST_F(ContextTimerTest, AbortsWhenATimerCannotBeAllocated) {
    EXPECT_EXIT(
        {
            const FailingAllocation failing;
            m_timer.SetTimer(1, nullptr, nullptr);
        },
        KilledBySignal(SIGABRT), "ContextTimer\\.cpp:.*CreateTimer_.*Assertion `timerData != __null' failed");
}

TEST_F(ContextTimerTest, AbortsWhenTheIdOfAKillCannotBeAllocated) {
    EXPECT_EXIT(
        {
            const FailingAllocation failing;
            m_timer.KillTimer(1);
        },
        KilledBySignal(SIGABRT), "ContextTimer\\.cpp:.*KillTimer.*Assertion `ptimerId != __null' failed");
}

TEST_F(ContextTimerTest, AbortsAtAnUnknownEvent) {
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

TEST_F(ContextTimerTest, KeepsItsBinaryLayout) {
    const auto* whole = reinterpret_cast<const char*>(&m_timer);
    EXPECT_EQ(reinterpret_cast<const char*>(static_cast<const ContextThread*>(&m_timer)), whole);
    EXPECT_GT(reinterpret_cast<const char*>(static_cast<const ContextEventThread*>(&m_timer)), whole);
    EXPECT_TRUE((std::is_same_v<TimerId, std::int32_t>));
    EXPECT_TRUE((std::is_same_v<timer_cb, void (*)(int, void*)>));
    EXPECT_TRUE(std::is_standard_layout_v<CTimerData>);
    EXPECT_EQ(offsetof(CTimerData, timerId), 0U);
    EXPECT_EQ(offsetof(CTimerData, interval), 4U);
    EXPECT_EQ(offsetof(CTimerData, expireTime), 8U);
    EXPECT_EQ(offsetof(CTimerData, callback), sizeof(void*) == 4 ? 12U : 16U);
    EXPECT_EQ(offsetof(CTimerData, userData), offsetof(CTimerData, callback) + sizeof(void*));
    EXPECT_TRUE((std::is_same_v<decltype(CTimerData::interval), std::uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(CTimerData::expireTime), std::int32_t>));
}

}  // namespace
