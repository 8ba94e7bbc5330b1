// SPDX-License-Identifier: Apache-2.0
#include "ContextEventThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "CapturedLog.h"
#include "EventThreadFixture.h"
#include "Waiting.h"

// The ownership of messages: which are freed, when and by whom.

namespace {

std::atomic<const void*> g_watchedBlock{nullptr};
std::atomic<int> g_timesFreed{0};

/// Starts to count how often `block` is freed; null stops counting.
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

// Replaces the heap of the library too, so that a test observes when a message is freed.
void* operator new(std::size_t size) {
    void* block = std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return std::malloc(size);
}

void operator delete(void* block) noexcept {
    Free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    Free(block);
}

namespace {

class ContextEventThreadMessageTest : public EventThreadTest {
protected:
    void TearDown() override {
        EventThreadTest::TearDown();
        Watch(nullptr);
    }
};

TEST_F(ContextEventThreadMessageTest, FreesAllocatedMessageAfterServingIt) {
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

TEST_F(ContextEventThreadMessageTest, DestructorLeavesQueuedMessagesUnfreed) {
    auto abandoned = std::make_unique<Recorder>();
    ASSERT_TRUE(abandoned->Push(1, 0));
    const std::unique_ptr<TEventMessage> message(abandoned->OnlyMessage());
    Watch(message.get());
    abandoned.reset();
    EXPECT_EQ(g_timesFreed, 0);
    EXPECT_EQ(message->nEventId, 1);
}

TEST_F(ContextEventThreadMessageTest, AllocatesAndFreesStopMessage) {
    StartBlocked();
    std::thread stopper = StopAfter(0);
    const TEventMessage* message = m_recorder.OnlyMessage();
    Watch(message);
    EXPECT_EQ(message->nEventId, -1);
    EXPECT_EQ(message->pData, nullptr);
    EXPECT_TRUE(message->bStop);
    EXPECT_FALSE(message->bStatic);
    EXPECT_EQ(message->nPriority, 0);
    Unblock();
    stopper.join();
    EXPECT_EQ(g_timesFreed, 1);
}

TEST_F(ContextEventThreadMessageTest, RefusesStaticMessageWhileStopped) {
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

TEST_F(ContextEventThreadMessageTest, ServesStaticMessageUnchangedAndUnfreed) {
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

TEST_F(ContextEventThreadMessageTest, ServesStaticMessageOncePerPush) {
    TEventMessage message{4, nullptr, false, false, 2};
    StartBlocked();
    EXPECT_TRUE(m_recorder.PushStaticEvent(&message));
    EXPECT_TRUE(m_recorder.Push(5, 2));
    EXPECT_TRUE(m_recorder.PushStaticEvent(&message));
    EXPECT_TRUE(m_recorder.PushStaticEvent(&message));
    EXPECT_TRUE(m_recorder.Push(6, 1));
    Unblock();
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), (Ids{6, 4, 5, 4, 4}));
}

TEST_F(ContextEventThreadMessageTest, AcceptsStaticMessageWhileWorkerReadsIt) {
    TEventMessage message{4, nullptr, false, false, 0};
    std::atomic<int> served{0};
    m_recorder.m_handler = [&](int, void*) { served.fetch_add(1, std::memory_order_relaxed); };
    ASSERT_TRUE(m_recorder.Start());
    for (int push = 1; push <= 10; ++push) {
        ASSERT_TRUE(m_recorder.PushStaticEvent(&message));
        // Relaxed, so that ThreadSanitizer does not see this wait order the worker's read before the next push.
        ASSERT_TRUE(Waiting::Until([&] { return served.load(std::memory_order_relaxed) == push; }));
    }
}

TEST_F(ContextEventThreadMessageTest, HandlerMayDestroyItsStaticMessage) {
    auto message = std::make_unique<TEventMessage>(TEventMessage{1, nullptr, false, false, 0});
    Watch(message.get());
    m_recorder.m_handler = [&](int, void*) { message.reset(); };
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.PushStaticEvent(message.get()));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(g_timesFreed, 1);
}

TEST_F(ContextEventThreadMessageTest, HandlerMayReuseItsStaticMessage) {
    const auto message = std::make_unique<TEventMessage>(TEventMessage{1, nullptr, false, false, 0});
    Watch(message.get());
    m_recorder.m_handler = [&](int, void*) { *message = {2, nullptr, false, false, 0}; };
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.PushStaticEvent(message.get()));
    ASSERT_TRUE(m_recorder.Stop());
    EXPECT_EQ(m_recorder.Served(), Ids{1});
    ASSERT_EQ(g_timesFreed, 0);
}

TEST_F(ContextEventThreadMessageTest, StaticStopMessageEndsLoop) {
    const auto message = std::make_unique<TEventMessage>(TEventMessage{8, nullptr, /*bStop=*/true, false, 5});
    Watch(message.get());
    StartBlocked();
    ASSERT_TRUE(m_recorder.PushStaticEvent(message.get()));
    ASSERT_TRUE(m_recorder.Push(1, 5));
    ASSERT_TRUE(m_recorder.Push(2, 4));
    Unblock();
    m_recorder.JoinWorker();
    EXPECT_FALSE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Served(), Ids{2});
    EXPECT_EQ(m_recorder.QueueLength(), 1);
    EXPECT_EQ(g_timesFreed, 0);
}

}  // namespace
