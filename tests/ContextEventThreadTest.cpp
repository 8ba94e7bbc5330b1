// SPDX-License-Identifier: Apache-2.0
#include "ContextEventThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "FailingAllocation.h"
#include "ThreadRequests.h"
#include "Waiting.h"

namespace {

std::atomic<const void*> g_watchedBlock{nullptr};
std::atomic<int> g_timesFreed{0};

/// Counts from now on how often a block is freed.
void Watch(const void* block) {
    g_timesFreed = 0;
    g_watchedBlock = block;
}

void Free(void* block) {
    if (block != nullptr && block == g_watchedBlock) {
        ++g_timesFreed;
    }
    std::free(block);
}

}  // namespace

// The program's own heap, for the library too, so that a test sees the moment when a message is freed.
void* operator new(std::size_t size) {
    void* block = std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept {
    Free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    Free(block);
}

namespace {

using Strings = std::vector<std::string>;
using Ids = std::vector<int>;

constexpr int kHold = 1000000;

/// An event that keeps the worker until it is let go.
struct Hold {
    Waiting::Gate hasBegun;
    Waiting::Gate mayEnd;
};

/// Keeps account of what it serves.
class Recorder : public ContextEventThread {
public:
    void OnEvent(int eventId, void* data) override {
        if (eventId == kHold) {
            auto* hold = static_cast<Hold*>(data);
            hold->hasBegun.Open();
            hold->mayEnd.Wait();
            return;
        }
        m_handler(eventId, data);
        const std::lock_guard<std::mutex> lock(m_servedMutex);
        m_served.push_back(eventId);
    }

    Ids Served() const {
        const std::lock_guard<std::mutex> lock(m_servedMutex);
        return m_served;
    }

    bool WaitForServed(std::size_t count) const {
        return Waiting::Until([&] { return Served().size() >= count; });
    }

    /// Pushes an event without data.
    bool Push(int eventId, int priority) { return PushEvent(eventId, nullptr, priority); }

    /// @return the next message of a queue that holds one; it stays queued.
    TEventMessage* OnlyMessage() {
        auto* message = static_cast<TEventMessage*>(g_async_queue_try_pop(m_pQueue));
        g_async_queue_push(m_pQueue, message);
        return message;
    }

    /// Frees the messages that nobody has served.
    void Drain() {
        while (auto* message = static_cast<TEventMessage*>(g_async_queue_try_pop(m_pQueue))) {
            if (!message->bStatic) {
                delete message;
            }
        }
    }

    /// The number of messages, less 1 while the worker waits for one.
    int QueueLength() const { return g_async_queue_length(m_pQueue); }

    GThread* Handle() const { return m_pThread; }
    GMutex* Mutex() { return &m_mutex; }
    auto& PreStartCount() { return m_nPreStartCount; }

    void JoinWorker() {
        g_thread_join(m_pThread);
        m_pThread = nullptr;
    }

    std::vector<std::ptrdiff_t> FieldOffsets() const {
        std::vector<std::ptrdiff_t> offsets;
        const auto* base = reinterpret_cast<const char*>(static_cast<const ContextEventThread*>(this));
        for (const void* field : {static_cast<const void*>(&m_pThread), static_cast<const void*>(&m_bRunning),
                                  static_cast<const void*>(&m_mutex), static_cast<const void*>(&m_pQueue),
                                  static_cast<const void*>(&m_nPreStartCount)}) {
            offsets.push_back(static_cast<const char*>(field) - base);
        }
        return offsets;
    }

    std::function<void(int, void*)> m_handler = [](int, void*) {};

private:
    mutable std::mutex m_servedMutex;
    Ids m_served;
};

class ContextEventThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        CapturedLog::Clear();
        g_requests = {};
    }

    void TearDown() override {
        LetGo();
        if (m_recorder.IsRuning()) {
            m_recorder.Stop();
        }
        m_recorder.Drain();
        Watch(nullptr);
    }

    /// Starts the worker and keeps it busy until LetGo().
    void StartHeld() {
        ASSERT_TRUE(m_recorder.Start());
        ASSERT_TRUE(m_recorder.PushEvent(kHold, &m_hold, INT_MIN));
        ASSERT_TRUE(m_hold.hasBegun.Wait());
    }

    void LetGo() { m_hold.mayEnd.Open(); }

    /// Runs Stop() on a thread of its own and waits until its message is queued behind `waiting` others.
    std::thread StopBehind(int waiting) {
        std::thread stopper([this] { EXPECT_TRUE(m_recorder.Stop()); });
        EXPECT_TRUE(Waiting::Until([&] { return m_recorder.QueueLength() == waiting + 1; }));
        return stopper;
    }

    Recorder m_recorder;
    Hold m_hold;
};

TEST_F(ContextEventThreadTest, IsStoppedAtFirst) {
    EXPECT_FALSE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Handle(), nullptr);
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    EXPECT_EQ(m_recorder.QueueLength(), 0);
    EXPECT_EQ(g_requests.count, 0);
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextEventThreadTest, RunsFromStartToStop) {
    EXPECT_TRUE(m_recorder.Start());
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_NE(m_recorder.Handle(), nullptr);
    EXPECT_TRUE(m_recorder.Stop());
    EXPECT_FALSE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Handle(), nullptr);
    EXPECT_EQ(m_recorder.QueueLength(), 0);
    EXPECT_EQ(m_recorder.Served(), Ids{}) << "the stop message is no event";
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextEventThreadTest, CreatesANamelessThreadWithItselfAsTheArgument) {
    ASSERT_TRUE(m_recorder.Start());
    EXPECT_EQ(g_requests.count, 1);
    EXPECT_EQ(g_requests.name, "(null)");
    EXPECT_EQ(g_requests.entry, &ContextEventThread::_Thread);
    EXPECT_EQ(g_requests.argument, static_cast<ContextEventThread*>(&m_recorder));
}

TEST_F(ContextEventThreadTest, ServesEventsEvenBeforeTheThreadIsHandedOver) {
    ASSERT_TRUE(m_recorder.Push(7, 0));
    g_requests.beforeReturn = [this] {
        Waiting::Until([this] { return !m_recorder.Served().empty(); }, std::chrono::seconds(2));
    };
    ASSERT_TRUE(m_recorder.Start());
    EXPECT_EQ(m_recorder.Served(), Ids{7});
}

TEST_F(ContextEventThreadTest, RefusesASecondStart) {
    ASSERT_TRUE(m_recorder.Start());
    GThread* const handle = m_recorder.Handle();
    EXPECT_FALSE(m_recorder.Start());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Start > Already Started"});
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Handle(), handle);
    EXPECT_EQ(g_requests.count, 1);
}

TEST_F(ContextEventThreadTest, RefusesToStopWhatDoesNotRun) {
    EXPECT_FALSE(m_recorder.Stop());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Stop > Already Stopped"});
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    CapturedLog::Clear();
    EXPECT_FALSE(m_recorder.Stop());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Stop > Already Stopped"});
    EXPECT_EQ(m_recorder.QueueLength(), 0) << "a refused stop queues nothing";
}

TEST_F(ContextEventThreadTest, RunsAFreshThreadAfterAStop) {
    for (int run = 1; run <= 3; ++run) {
        ASSERT_TRUE(m_recorder.Start());
        EXPECT_TRUE(m_recorder.Push(run, 0));
        ASSERT_TRUE(m_recorder.Stop());
        EXPECT_EQ(g_requests.count, run);
    }
    EXPECT_EQ(m_recorder.Served(), (Ids{1, 2, 3}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextEventThreadTest, ShowsEveryThreadThatItHasStopped) {
    ASSERT_TRUE(m_recorder.Start());
    bool sawTheStop = false;
    std::thread watcher([&] { sawTheStop = Waiting::Until([this] { return !m_recorder.IsRuning(); }); });
    EXPECT_TRUE(m_recorder.Stop());
    watcher.join();
    EXPECT_TRUE(sawTheStop);
}

TEST_F(ContextEventThreadTest, StaysStoppedWhenNoThreadCanBeCreated) {
    g_requests.areRefused = true;
    EXPECT_FALSE(m_recorder.Start());
    EXPECT_FALSE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Handle(), nullptr);
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
    g_requests.areRefused = false;
    EXPECT_TRUE(m_recorder.Start());
}

TEST_F(ContextEventThreadTest, EntersAndLeavesAtOnceWhenItDoesNotRun) {
    ASSERT_TRUE(m_recorder.Push(7, 0));
    EXPECT_EQ(ContextEventThread::_Thread(static_cast<ContextEventThread*>(&m_recorder)), nullptr);
    EXPECT_EQ(m_recorder.Served(), Ids{});
    EXPECT_EQ(m_recorder.QueueLength(), 1) << "what is queued stays";
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
}

TEST_F(ContextEventThreadTest, ServesTheSmallestPriorityFirstAndEqualOnesAsTheyWerePushed) {
    const int priorities[] = {10, 5, 10, 1};
    for (int id = 0; id < 4; ++id) {
        ASSERT_TRUE(m_recorder.Push(id, priorities[id]));
    }
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{3, 1, 0, 2}));
}

TEST_F(ContextEventThreadTest, ServesPrioritiesOfTheWholeRangeInOrder) {
    const int priorities[] = {INT_MAX, 0, -1, INT_MIN, 1, INT_MIN + 1, INT_MAX - 1};
    for (int id = 0; id < 7; ++id) {
        ASSERT_TRUE(m_recorder.Push(id, priorities[id]));
    }
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{3, 5, 2, 1, 4, 6, 0}));
}

TEST_F(ContextEventThreadTest, KeepsTheOrderAmongManyEventsOfBothKinds) {
    constexpr int kCount = 600;
    std::mt19937 random(1);
    std::vector<TEventMessage> messages(kCount);
    StartHeld();
    for (int id = 0; id < kCount; ++id) {
        TEventMessage& message = messages[static_cast<std::size_t>(id)];
        message = {id, nullptr, false, false, static_cast<int>(random() % 9) - 4};
        ASSERT_TRUE(random() % 2 == 0 ? m_recorder.PushStaticEvent(&message)
                                      : m_recorder.Push(message.nEventId, message.nPriority));
    }
    LetGo();
    ASSERT_TRUE(m_recorder.Stop());

    std::stable_sort(messages.begin(), messages.end(),
                     [](const TEventMessage& a, const TEventMessage& b) { return a.nPriority < b.nPriority; });
    Ids expected;
    for (const TEventMessage& message : messages) {
        expected.push_back(message.nEventId);
    }
    EXPECT_EQ(m_recorder.Served(), expected);
}

TEST_F(ContextEventThreadTest, ComparesPriorities) {
    const auto compare = [](int a, int b) {
        const TEventMessage first{1, nullptr, false, false, a};
        const TEventMessage second{2, nullptr, true, true, b};
        return ContextEventThread::_ComparePriority(&first, &second, nullptr);
    };
    const struct {
        const char* name;
        int a;
        int b;
        int result;
    } rows[] = {
        {"equal", 5, 5, 0},
        {"greater", 6, 5, 1},
        {"smaller", 5, 6, -1},
        {"much greater", 1000, -1000, 1},
        {"both negative", -2, -1, -1},
        {"greatest and smallest", INT_MAX, INT_MIN, 1},
        {"smallest and greatest", INT_MIN, INT_MAX, -1},
        {"smallest and 1", INT_MIN, 1, -1},
        {"1 and smallest", 1, INT_MIN, 1},
        {"both the smallest", INT_MIN, INT_MIN, 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(compare(row.a, row.b), row.result) << row.name;
    }
}

TEST_F(ContextEventThreadTest, ComparesANullMessageAsTheGreater) {
    const TEventMessage message{1, nullptr, false, false, 0};
    EXPECT_EQ(ContextEventThread::_ComparePriority(nullptr, &message, nullptr), 1);
    EXPECT_EQ(ContextEventThread::_ComparePriority(&message, nullptr, nullptr), 1);
    EXPECT_EQ(ContextEventThread::_ComparePriority(nullptr, nullptr, nullptr), 1);
}

TEST_F(ContextEventThreadTest, HandsOverTheCodeAndTheDataUntouched) {
    int data = 42;
    std::vector<std::pair<int, void*>> seen;
    m_recorder.m_handler = [&](int eventId, void* pointer) { seen.emplace_back(eventId, pointer); };
    ASSERT_TRUE(m_recorder.Start());
    EXPECT_TRUE(m_recorder.PushEvent(INT_MIN, &data, 0));
    EXPECT_TRUE(m_recorder.PushEvent(-1, nullptr, 0)) << "the code of the stop message is an ordinary one";
    EXPECT_TRUE(m_recorder.PushEvent(INT_MAX, &seen, 0));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(seen, (std::vector<std::pair<int, void*>>{{INT_MIN, &data}, {-1, nullptr}, {INT_MAX, &seen}}));
    EXPECT_EQ(data, 42);
}

TEST_F(ContextEventThreadTest, ServesThePushesOfManyThreadsOneAtATimeOnItsOwn) {
    constexpr int kThreads = 4;
    constexpr int kEvents = 500;
    std::set<std::thread::id> servers;
    int inside = 0;  // not atomic: a race checker sees when two events are served at once
    bool overlapped = false;
    m_recorder.m_handler = [&](int, void*) {
        overlapped |= ++inside != 1;
        servers.insert(std::this_thread::get_id());
        --inside;
    };
    ASSERT_TRUE(m_recorder.Start());
    std::set<std::thread::id> pushers{std::this_thread::get_id()};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([this, thread, &refused] {
            for (int event = 0; event < kEvents; ++event) {
                refused += !m_recorder.Push(thread * kEvents + event, 3);
            }
        });
        pushers.insert(threads.back().get_id());
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(refused, 0);
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(servers.size(), 1U);
    EXPECT_EQ(pushers.count(*servers.begin()), 0U);

    // Each thread's events came in its order, and all came.
    Ids served = m_recorder.Served();
    std::stable_sort(served.begin(), served.end(), [](int a, int b) { return a / kEvents < b / kEvents; });
    Ids expected(static_cast<std::size_t>(kThreads) * kEvents);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(served, expected);
}

TEST_F(ContextEventThreadTest, TakesPushesFromItsOwnHandler) {
    TEventMessage message{3, nullptr, false, false, 0};
    m_recorder.m_handler = [&](int eventId, void*) {
        if (eventId == 1) {
            EXPECT_TRUE(m_recorder.Push(2, 5));
            EXPECT_TRUE(m_recorder.PushStaticEvent(&message));
        }
    };
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Push(1, 0));
    ASSERT_TRUE(m_recorder.WaitForServed(3));
    EXPECT_EQ(m_recorder.Served(), (Ids{1, 3, 2}));
}

TEST_F(ContextEventThreadTest, FreesAMessageOfItsOwnRightAfterItWasServed) {
    std::vector<int> timesFreed;
    m_recorder.m_handler = [&](int, void*) { timesFreed.push_back(g_timesFreed); };
    ASSERT_TRUE(m_recorder.Push(1, 1));
    const TEventMessage* first = m_recorder.OnlyMessage();
    EXPECT_FALSE(first->bStop);
    EXPECT_FALSE(first->bStatic);
    Watch(first);
    ASSERT_TRUE(m_recorder.Push(2, 2));
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.WaitForServed(2));
    EXPECT_EQ(m_recorder.Served(), (Ids{1, 2}));
    EXPECT_EQ(timesFreed, (std::vector<int>{0, 1}));
}

TEST_F(ContextEventThreadTest, LeavesMessagesUnfreedThatNobodyServed) {
    auto abandoned = std::make_unique<Recorder>();
    ASSERT_TRUE(abandoned->Push(1, 0));
    const std::unique_ptr<TEventMessage> message(abandoned->OnlyMessage());
    Watch(message.get());
    abandoned.reset();
    EXPECT_EQ(g_timesFreed, 0);
    EXPECT_EQ(message->nEventId, 1);
}

TEST_F(ContextEventThreadTest, TakesSixteenEventsBeforeTheStartAndServesThemInOrder) {
    Ids expected;
    for (int id = 0; id < 16; ++id) {
        EXPECT_TRUE(m_recorder.Push(id, -id));
        EXPECT_EQ(m_recorder.PreStartCount(), static_cast<unsigned int>(id + 1));
        expected.insert(expected.begin(), id);
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
    for (int refusal = 1; refusal <= 2; ++refusal) {
        CapturedLog::Clear();
        EXPECT_FALSE(m_recorder.Push(16, -16));
        EXPECT_EQ(CapturedLog::Origins(),
                  Strings{"6 ContextEventThread.cpp: PushEvent > The Event Queue is overflow!!"});
        EXPECT_EQ(m_recorder.PreStartCount(), 16U);
        EXPECT_EQ(m_recorder.QueueLength(), 16);
    }
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.WaitForServed(16));
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), expected);
}

TEST_F(ContextEventThreadTest, TakesThePushesOfAnotherThreadThroughAStart) {
    std::atomic<int> pushed{0};
    std::thread pusher([&] {
        for (int id = 1; id <= 16; ++id) {
            EXPECT_TRUE(m_recorder.Push(id, 0));
            pushed.fetch_add(1, std::memory_order_relaxed);
        }
    });
    EXPECT_TRUE(Waiting::Until([&] { return pushed.load(std::memory_order_relaxed) > 0; }));
    EXPECT_TRUE(m_recorder.Start());
    pusher.join();
    EXPECT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
}

TEST_F(ContextEventThreadTest, TakesAnyNumberOfEventsWhileItRuns) {
    constexpr int kCount = 1000;
    StartHeld();
    for (int id = 0; id < kCount; ++id) {
        ASSERT_TRUE(m_recorder.Push(id, 0));
    }
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    LetGo();
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served().size(), static_cast<std::size_t>(kCount));
}

TEST_F(ContextEventThreadTest, TakesSixteenEventsAgainAfterEveryRun) {
    for (int run = 0; run < 2; ++run) {
        for (int id = 0; id < 16; ++id) {
            EXPECT_TRUE(m_recorder.Push(id, 0));
        }
        EXPECT_FALSE(m_recorder.Push(16, 0));
        ASSERT_TRUE(m_recorder.Start());
        ASSERT_TRUE(m_recorder.Stop());
        EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    }
    EXPECT_EQ(m_recorder.Served().size(), 32U);
}

TEST_F(ContextEventThreadTest, KeepsTheCountOfWaitingEventsThroughAStop) {
    m_recorder.m_handler = [this](int, void*) { m_recorder.PreStartCount() = 15; };
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Push(1, 0));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.PreStartCount(), 15U);
    EXPECT_TRUE(m_recorder.Push(2, 0));
    EXPECT_FALSE(m_recorder.Push(3, 0));
}

TEST_F(ContextEventThreadTest, RefusesStaticEventsWhileItDoesNotRun) {
    TEventMessage message{1, nullptr, false, false, 0};
    EXPECT_FALSE(m_recorder.PushStaticEvent(&message));
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushStaticEvent > Not Started!"});
    EXPECT_FALSE(message.bStatic);
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), Ids{});
    CapturedLog::Clear();
    EXPECT_FALSE(m_recorder.PushStaticEvent(&message));
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushStaticEvent > Not Started!"});
    EXPECT_EQ(m_recorder.QueueLength(), 0);
}

TEST_F(ContextEventThreadTest, ServesAStaticMessageAsTheCallerFilledItAndDoesNotFreeIt) {
    int data = 0;
    void* seen = nullptr;
    m_recorder.m_handler = [&](int, void* pointer) { seen = pointer; };
    const auto message = std::make_unique<TEventMessage>(TEventMessage{-5, &data, false, false, -7});
    Watch(message.get());
    ASSERT_TRUE(m_recorder.Start());
    EXPECT_TRUE(m_recorder.PushStaticEvent(message.get()));
    EXPECT_TRUE(message->bStatic);
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), Ids{-5});
    EXPECT_EQ(seen, &data);
    EXPECT_EQ(g_timesFreed, 0);
    EXPECT_EQ(message->nEventId, -5);
    EXPECT_EQ(message->pData, &data);
    EXPECT_FALSE(message->bStop);
    EXPECT_EQ(message->nPriority, -7);
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextEventThreadTest, ServesAStaticMessageOnceForEachPush) {
    TEventMessage message{4, nullptr, false, false, 2};
    StartHeld();
    EXPECT_TRUE(m_recorder.PushStaticEvent(&message));
    EXPECT_TRUE(m_recorder.Push(5, 2));
    EXPECT_TRUE(m_recorder.PushStaticEvent(&message));
    EXPECT_TRUE(m_recorder.PushStaticEvent(&message));
    EXPECT_TRUE(m_recorder.Push(6, 1));
    LetGo();
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{6, 4, 5, 4, 4}));
}

TEST_F(ContextEventThreadTest, TakesAStaticMessageAgainWhileTheWorkerMayStillReadIt) {
    TEventMessage message{4, nullptr, false, false, 0};
    std::atomic<int> served{0};
    m_recorder.m_handler = [&](int, void*) { served.fetch_add(1, std::memory_order_relaxed); };
    ASSERT_TRUE(m_recorder.Start());
    for (int push = 1; push <= 10; ++push) {
        ASSERT_TRUE(m_recorder.PushStaticEvent(&message));
        // Relaxed: to a race checker this wait does not order the worker's reading before the next push.
        ASSERT_TRUE(Waiting::Until([&] { return served.load(std::memory_order_relaxed) == push; }));
    }
}

TEST_F(ContextEventThreadTest, LetsTheHandlerDestroyAStaticMessageThatItIsServing) {
    auto message = std::make_unique<TEventMessage>(TEventMessage{1, nullptr, false, false, 0});
    Watch(message.get());
    m_recorder.m_handler = [&](int, void*) { message.reset(); };
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.PushStaticEvent(message.get()));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(g_timesFreed, 1);
}

TEST_F(ContextEventThreadTest, LetsTheHandlerReuseAStaticMessageThatItIsServing) {
    const auto message = std::make_unique<TEventMessage>(TEventMessage{1, nullptr, false, false, 0});
    Watch(message.get());
    m_recorder.m_handler = [&](int, void*) { *message = {2, nullptr, false, false, 0}; };
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.PushStaticEvent(message.get()));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), Ids{1});
    ASSERT_EQ(g_timesFreed, 0);
}

TEST_F(ContextEventThreadTest, EndsTheLoopAtAStaticStopMessage) {
    const auto message = std::make_unique<TEventMessage>(TEventMessage{8, nullptr, /*bStop=*/true, false, 5});
    Watch(message.get());
    StartHeld();
    ASSERT_TRUE(m_recorder.PushStaticEvent(message.get()));
    ASSERT_TRUE(m_recorder.Push(1, 5));
    ASSERT_TRUE(m_recorder.Push(2, 4));
    LetGo();
    m_recorder.JoinWorker();
    EXPECT_FALSE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Served(), Ids{2});
    EXPECT_EQ(m_recorder.QueueLength(), 1);
    EXPECT_EQ(g_timesFreed, 0);
}

TEST_F(ContextEventThreadTest, QueuesAStopMessageOfItsOwnAndFreesIt) {
    StartHeld();
    std::thread stopper = StopBehind(0);
    const TEventMessage* message = m_recorder.OnlyMessage();
    Watch(message);
    EXPECT_EQ(message->nEventId, -1);
    EXPECT_EQ(message->pData, nullptr);
    EXPECT_TRUE(message->bStop);
    EXPECT_FALSE(message->bStatic);
    EXPECT_EQ(message->nPriority, 0);
    LetGo();
    stopper.join();
    EXPECT_EQ(g_timesFreed, 1);
}

TEST_F(ContextEventThreadTest, ServesEverythingBeforeAStopReturns) {
    StartHeld();
    Ids expected;
    for (int id = 0; id < 100; ++id) {
        ASSERT_TRUE(m_recorder.Push(id, id));
        expected.push_back(id);
    }
    std::thread stopper = StopBehind(100);
    LetGo();
    stopper.join();
    EXPECT_EQ(m_recorder.Served(), expected);
    EXPECT_FALSE(m_recorder.IsRuning());
}

TEST_F(ContextEventThreadTest, RunsUntilTheStopMessageIsReached) {
    StartHeld();
    std::thread stopper = StopBehind(0);
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_NE(m_recorder.Handle(), nullptr);
    EXPECT_FALSE(m_recorder.Start());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Start > Already Started"});
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    EXPECT_TRUE(m_recorder.Push(1, -1));
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    LetGo();
    stopper.join();
    EXPECT_FALSE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Handle(), nullptr);
}

TEST_F(ContextEventThreadTest, ServesOnlyNegativePrioritiesThatWerePushedBehindTheStopMessage) {
    TEventMessage urgent{6, nullptr, false, false, INT_MIN};
    TEventMessage late{7, nullptr, false, false, 4};
    StartHeld();
    ASSERT_TRUE(m_recorder.Push(1, 5));
    std::thread stopper = StopBehind(1);
    EXPECT_TRUE(m_recorder.Push(2, -1));
    EXPECT_TRUE(m_recorder.Push(3, 0));
    EXPECT_TRUE(m_recorder.Push(4, 4)) << "in front of the event ahead of the stop message, but for that message";
    EXPECT_TRUE(m_recorder.Push(5, INT_MAX));
    EXPECT_TRUE(m_recorder.PushStaticEvent(&urgent));
    EXPECT_TRUE(m_recorder.PushStaticEvent(&late));
    LetGo();
    stopper.join();
    EXPECT_EQ(m_recorder.Served(), (Ids{6, 2, 1}));
    EXPECT_EQ(m_recorder.QueueLength(), 4);
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);

    // What stayed counts for nothing and is served by the next run.
    for (int id = 10; id < 26; ++id) {
        EXPECT_TRUE(m_recorder.Push(id, -id));
    }
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(),
              (Ids{6, 2, 1, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 3, 4, 7, 5}));
}

TEST_F(ContextEventThreadTest, LetsTheHandlerPushPastAStopMessageThatWaits) {
    m_recorder.m_handler = [this](int eventId, void*) {
        if (eventId == 1) {
            EXPECT_TRUE(Waiting::Until([this] { return m_recorder.QueueLength() == 1; }));
            EXPECT_TRUE(m_recorder.Push(2, 0));
            EXPECT_TRUE(m_recorder.Push(3, -1));
        }
    };
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Push(1, 0));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{1, 3}));
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{1, 3, 2}));
}

TEST_F(ContextEventThreadTest, LogsAnEventThatCannotBeAllocated) {
    StartHeld();
    {
        const FailingAllocation failing;
        EXPECT_FALSE(m_recorder.Push(1, 0));
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushEvent > Memory Allocation Fail"});
    EXPECT_EQ(m_recorder.QueueLength(), 0);
    EXPECT_TRUE(m_recorder.Push(2, 0));
    LetGo();
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), Ids{2});
}

TEST_F(ContextEventThreadTest, CountsEventsBeforeTheStartThatCannotBeAllocated) {
    {
        const FailingAllocation failing;
        for (int event = 0; event < 16; ++event) {
            EXPECT_FALSE(m_recorder.Push(event, 0));
        }
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings(16, "6 ContextEventThread.cpp: PushEvent > Memory Allocation Fail"));
    CapturedLog::Clear();
    EXPECT_FALSE(m_recorder.Push(16, 0));
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushEvent > The Event Queue is overflow!!"});
}

TEST_F(ContextEventThreadTest, RunsOnWhenTheStopMessageCannotBeAllocated) {
    ASSERT_TRUE(m_recorder.Start());
    {
        const FailingAllocation failing;
        EXPECT_FALSE(m_recorder.Stop());
        TEventMessage message{1, nullptr, false, false, 0};
        EXPECT_TRUE(m_recorder.PushStaticEvent(&message)) << "it needs no memory";
        EXPECT_TRUE(m_recorder.WaitForServed(1));
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Stop > Memory Allocation Fail"});
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_NE(m_recorder.Handle(), nullptr);
    EXPECT_TRUE(m_recorder.Stop());
}

TEST_F(ContextEventThreadTest, PushesUnderItsMutex) {
    constexpr std::chrono::milliseconds kBlocked{50};
    TEventMessage message{2, nullptr, false, false, 0};
    ASSERT_TRUE(m_recorder.Start());
    const std::function<bool()> pushes[] = {[&] { return m_recorder.Push(1, 0); },
                                            [&] { return m_recorder.PushStaticEvent(&message); }};
    for (const auto& push : pushes) {
        Waiting::Gate hasReturned;
        bool result = false;
        g_mutex_lock(m_recorder.Mutex());
        std::thread pusher([&] {
            result = push();
            hasReturned.Open();
        });
        EXPECT_FALSE(hasReturned.Wait(kBlocked));
        g_mutex_unlock(m_recorder.Mutex());
        pusher.join();
        EXPECT_TRUE(result);
    }
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{1, 2}));
}

TEST_F(ContextEventThreadTest, ReleasesItsMutexAfterEveryPush) {
    TEventMessage message{1, nullptr, false, false, 0};
    const auto isFree = [this] {
        const bool locked = g_mutex_trylock(m_recorder.Mutex());
        if (locked) {
            g_mutex_unlock(m_recorder.Mutex());
        }
        return locked;
    };
    m_recorder.PushStaticEvent(&message);
    EXPECT_TRUE(isFree());
    for (int event = 0; event < 17; ++event) {
        m_recorder.Push(event, 0);
        EXPECT_TRUE(isFree());
    }
    ASSERT_TRUE(m_recorder.Start());
    EXPECT_TRUE(m_recorder.PushStaticEvent(&message));
    EXPECT_TRUE(isFree());
    {
        const FailingAllocation failing;
        EXPECT_FALSE(m_recorder.Push(17, 0));
    }
    EXPECT_TRUE(isFree());
    ASSERT_TRUE(m_recorder.Stop());
}

TEST_F(ContextEventThreadTest, StartsServesAndStopsWithoutItsMutex) {
    ASSERT_TRUE(m_recorder.Push(1, 0));
    g_mutex_lock(m_recorder.Mutex());
    EXPECT_TRUE(m_recorder.Start());
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_TRUE(m_recorder.WaitForServed(1));
    EXPECT_TRUE(m_recorder.Stop());
    g_mutex_unlock(m_recorder.Mutex());
    EXPECT_EQ(m_recorder.Served(), Ids{1});
}

TEST_F(ContextEventThreadTest, KeepsItsBinaryLayout) {
    EXPECT_TRUE(std::has_virtual_destructor_v<ContextEventThread>);
    EXPECT_TRUE(std::is_abstract_v<ContextEventThread>);
    const std::ptrdiff_t word = sizeof(void*);
    const std::ptrdiff_t afterMutex = 3 * word + static_cast<std::ptrdiff_t>(sizeof(GMutex));
    EXPECT_EQ(m_recorder.FieldOffsets(),
              (std::vector<std::ptrdiff_t>{word, 2 * word, 3 * word, afterMutex, afterMutex + word}));

    // A pointer to a virtual member begins with its offset in the table, on some processors plus 1.
    const auto member = &ContextEventThread::OnEvent;
    std::uintptr_t offset = 0;
    std::memcpy(&offset, &member, sizeof(offset));
    EXPECT_EQ(offset / sizeof(void*), 2U) << "behind the two forms of the destructor";
}

TEST_F(ContextEventThreadTest, KeepsTheLayoutOfAMessage) {
    EXPECT_TRUE(std::is_standard_layout_v<TEventMessage>);
    EXPECT_EQ(offsetof(TEventMessage, nEventId), 0U);
    EXPECT_EQ(offsetof(TEventMessage, pData), sizeof(void*));
    EXPECT_EQ(offsetof(TEventMessage, bStop), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(TEventMessage, bStatic), 2 * sizeof(void*) + 1);
    EXPECT_EQ(offsetof(TEventMessage, nPriority), 2 * sizeof(void*) + 4);
}

}  // namespace
