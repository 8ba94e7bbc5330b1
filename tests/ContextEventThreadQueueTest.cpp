// SPDX-License-Identifier: Apache-2.0
#include "ContextEventThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstddef>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "EventThreadFixture.h"
#include "FailingAllocation.h"
#include "Waiting.h"

// The order in which events are served, and how many events are accepted.

namespace {

using ContextEventThreadQueueTest = EventThreadTest;

TEST_F(ContextEventThreadQueueTest, ComparesPriorities) {
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

TEST_F(ContextEventThreadQueueTest, ComparesNullMessageAsGreater) {
    const TEventMessage message{1, nullptr, false, false, 0};
    EXPECT_EQ(ContextEventThread::_ComparePriority(nullptr, &message, nullptr), 1);
    EXPECT_EQ(ContextEventThread::_ComparePriority(&message, nullptr, nullptr), 1);
    EXPECT_EQ(ContextEventThread::_ComparePriority(nullptr, nullptr, nullptr), 1);
}

TEST_F(ContextEventThreadQueueTest, ServesByPriorityThenByPushOrder) {
    const int priorities[] = {10, 5, 10, 1};
    for (int id = 0; id < 4; ++id) {
        ASSERT_TRUE(m_recorder.Push(id, priorities[id]));
    }
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{3, 1, 0, 2}));
}

TEST_F(ContextEventThreadQueueTest, OrdersFullRangeOfPriorities) {
    const int priorities[] = {INT_MAX, 0, -1, INT_MIN, 1, INT_MIN + 1, INT_MAX - 1};
    for (int id = 0; id < 7; ++id) {
        ASSERT_TRUE(m_recorder.Push(id, priorities[id]));
    }
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{3, 5, 2, 1, 4, 6, 0}));
}

TEST_F(ContextEventThreadQueueTest, OrdersStaticAndAllocatedMessagesAlike) {
    constexpr int kCount = 600;
    std::mt19937 random(1);
    std::vector<TEventMessage> messages(kCount);
    StartBlocked();
    for (int id = 0; id < kCount; ++id) {
        TEventMessage& message = messages[static_cast<std::size_t>(id)];
        message = {id, nullptr, false, false, static_cast<int>(random() % 9) - 4};
        ASSERT_TRUE(random() % 2 == 0 ? m_recorder.PushStaticEvent(&message)
                                      : m_recorder.Push(message.nEventId, message.nPriority));
    }
    Unblock();
    ASSERT_TRUE(m_recorder.Stop());

    std::stable_sort(messages.begin(), messages.end(),
                     [](const TEventMessage& a, const TEventMessage& b) { return a.nPriority < b.nPriority; });
    Ids expected;
    for (const TEventMessage& message : messages) {
        expected.push_back(message.nEventId);
    }
    EXPECT_EQ(m_recorder.Served(), expected);
}

TEST_F(ContextEventThreadQueueTest, PassesIdAndDataUnchanged) {
    int data = 42;
    std::vector<std::pair<int, void*>> seen;
    m_recorder.m_handler = [&](int eventId, void* pointer) { seen.emplace_back(eventId, pointer); };
    ASSERT_TRUE(m_recorder.Start());
    EXPECT_TRUE(m_recorder.PushEvent(INT_MIN, &data, 0));
    EXPECT_TRUE(m_recorder.PushEvent(-1, nullptr, 0));  // the id of the stop message is not reserved
    EXPECT_TRUE(m_recorder.PushEvent(INT_MAX, &seen, 0));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(seen, (std::vector<std::pair<int, void*>>{{INT_MIN, &data}, {-1, nullptr}, {INT_MAX, &seen}}));
    EXPECT_EQ(data, 42);
}

TEST_F(ContextEventThreadQueueTest, ServesPushesOfManyThreadsOneAtATime) {
    constexpr int kThreads = 4;
    constexpr int kEvents = 500;
    std::set<std::thread::id> servers;
    int inside = 0;  // not atomic, so that ThreadSanitizer reports two events that are served at once
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

    // Every event was served, and the events of each thread in the order of its pushes.
    Ids served = m_recorder.Served();
    std::stable_sort(served.begin(), served.end(), [](int a, int b) { return a / kEvents < b / kEvents; });
    Ids expected(static_cast<std::size_t>(kThreads) * kEvents);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(served, expected);
}

TEST_F(ContextEventThreadQueueTest, AcceptsPushesFromHandler) {
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

TEST_F(ContextEventThreadQueueTest, AcceptsSixteenEventsBeforeStart) {
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

TEST_F(ContextEventThreadQueueTest, AcceptsPushesDuringStart) {
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

TEST_F(ContextEventThreadQueueTest, AcceptsAnyNumberOfEventsWhileRunning) {
    constexpr int kCount = 1000;
    StartBlocked();
    for (int id = 0; id < kCount; ++id) {
        ASSERT_TRUE(m_recorder.Push(id, 0));
    }
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    Unblock();
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served().size(), static_cast<std::size_t>(kCount));
}

TEST_F(ContextEventThreadQueueTest, AcceptsSixteenEventsAfterEachStop) {
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

TEST_F(ContextEventThreadQueueTest, StopKeepsPreStartCount) {
    m_recorder.m_handler = [this](int, void*) { m_recorder.PreStartCount() = 15; };
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Push(1, 0));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.PreStartCount(), 15U);
    EXPECT_TRUE(m_recorder.Push(2, 0));
    EXPECT_FALSE(m_recorder.Push(3, 0));
}

TEST_F(ContextEventThreadQueueTest, CountsFailedAllocationsBeforeStart) {
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

TEST_F(ContextEventThreadQueueTest, LogsFailedEventAllocation) {
    StartBlocked();
    {
        const FailingAllocation failing;
        EXPECT_FALSE(m_recorder.Push(1, 0));
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: PushEvent > Memory Allocation Fail"});
    EXPECT_EQ(m_recorder.QueueLength(), 0);
    EXPECT_TRUE(m_recorder.Push(2, 0));
    Unblock();
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), Ids{2});
}

TEST_F(ContextEventThreadQueueTest, ServesOnlyNegativePrioritiesAfterStopIsQueued) {
    TEventMessage urgent{6, nullptr, false, false, INT_MIN};
    TEventMessage late{7, nullptr, false, false, 4};
    StartBlocked();
    ASSERT_TRUE(m_recorder.Push(1, 5));
    std::thread stopper = StopAfter(1);
    EXPECT_TRUE(m_recorder.Push(2, -1));
    EXPECT_TRUE(m_recorder.Push(3, 0));
    EXPECT_TRUE(m_recorder.Push(4, 4));  // more urgent than event 1, but sorted after the stop message
    EXPECT_TRUE(m_recorder.Push(5, INT_MAX));
    EXPECT_TRUE(m_recorder.PushStaticEvent(&urgent));
    EXPECT_TRUE(m_recorder.PushStaticEvent(&late));
    Unblock();
    stopper.join();
    EXPECT_EQ(m_recorder.Served(), (Ids{6, 2, 1}));
    EXPECT_EQ(m_recorder.QueueLength(), 4);
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);

    // The remaining events do not count towards the limit of 16 events before Start(); the next run serves them.
    for (int id = 10; id < 26; ++id) {
        EXPECT_TRUE(m_recorder.Push(id, -id));
    }
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(),
              (Ids{6, 2, 1, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 3, 4, 7, 5}));
}

TEST_F(ContextEventThreadQueueTest, HandlerMayPushWhileStopWaits) {
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

}  // namespace
