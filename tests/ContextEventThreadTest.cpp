// SPDX-License-Identifier: Apache-2.0
#include "ContextEventThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <new>
#include <thread>
#include <type_traits>

#include "CapturedLog.h"
#include "ChildProcess.h"
#include "EventThreadFixture.h"
#include "FailingAllocation.h"
#include "MutexCount.h"
#include "ThreadRequests.h"
#include "Waiting.h"

namespace {

static_assert(std::is_abstract_v<ContextEventThread>, "OnEvent() is pure virtual");

using ContextEventThreadTest = EventThreadTest;

TEST_F(ContextEventThreadTest, IsStoppedAfterConstruction) {
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
    EXPECT_EQ(m_recorder.Served(), Ids{}) << "the stop message was served as an event";
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextEventThreadTest, CreatesUnnamedThreadWithItselfAsArgument) {
    ASSERT_TRUE(m_recorder.Start());
    EXPECT_EQ(g_requests.count, 1);
    EXPECT_EQ(g_requests.name, "(null)");
    EXPECT_EQ(g_requests.entry, &ContextEventThread::_Thread);
    EXPECT_EQ(g_requests.argument, static_cast<ContextEventThread*>(&m_recorder));
}

TEST_F(ContextEventThreadTest, ServesEventsBeforeThreadCreationReturns) {
    ASSERT_TRUE(m_recorder.Push(7, 0));
    g_requests.beforeReturn = [this] {
        Waiting::Until([this] { return !m_recorder.Served().empty(); }, std::chrono::seconds(2));
    };
    ASSERT_TRUE(m_recorder.Start());
    EXPECT_EQ(m_recorder.Served(), Ids{7});
}

TEST_F(ContextEventThreadTest, RefusesSecondStart) {
    ASSERT_TRUE(m_recorder.Start());
    GThread* const handle = m_recorder.Handle();
    EXPECT_FALSE(m_recorder.Start());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Start > Already Started"});
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Handle(), handle);
    EXPECT_EQ(g_requests.count, 1);
}

TEST_F(ContextEventThreadTest, RefusesStopWhileStopped) {
    EXPECT_FALSE(m_recorder.Stop());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Stop > Already Stopped"});
    ASSERT_TRUE(m_recorder.Start());
    ASSERT_TRUE(m_recorder.Stop());
    CapturedLog::Clear();
    EXPECT_FALSE(m_recorder.Stop());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Stop > Already Stopped"});
    EXPECT_EQ(m_recorder.QueueLength(), 0) << "the refused stop queued a message";
}

TEST_F(ContextEventThreadTest, StartsNewThreadAfterStop) {
    for (int run = 1; run <= 3; ++run) {
        ASSERT_TRUE(m_recorder.Start());
        EXPECT_TRUE(m_recorder.Push(run, 0));
        ASSERT_TRUE(m_recorder.Stop());
        EXPECT_EQ(g_requests.count, run);
    }
    EXPECT_EQ(m_recorder.Served(), (Ids{1, 2, 3}));
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextEventThreadTest, StopIsVisibleToOtherThreads) {
    ASSERT_TRUE(m_recorder.Start());
    bool sawStop = false;
    std::thread watcher([&] { sawStop = Waiting::Until([this] { return !m_recorder.IsRuning(); }); });
    EXPECT_TRUE(m_recorder.Stop());
    watcher.join();
    EXPECT_TRUE(sawStop);
}

TEST_F(ContextEventThreadTest, StaysStoppedIfThreadCreationFails) {
    g_requests.allowed = 0;
    EXPECT_FALSE(m_recorder.Start());
    EXPECT_FALSE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Handle(), nullptr);
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
    g_requests.allowed = 1;
    EXPECT_TRUE(m_recorder.Start());
}

TEST_F(ContextEventThreadTest, EntryReturnsAtOnceWhileStopped) {
    ASSERT_TRUE(m_recorder.Push(7, 0));
    EXPECT_EQ(ContextEventThread::_Thread(static_cast<ContextEventThread*>(&m_recorder)), nullptr);
    EXPECT_EQ(m_recorder.Served(), Ids{});
    EXPECT_EQ(m_recorder.QueueLength(), 1) << "the event was removed from the queue";
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
}

TEST_F(ContextEventThreadTest, StopServesAllQueuedEventsFirst) {
    StartBlocked();
    Ids expected;
    for (int id = 0; id < 100; ++id) {
        ASSERT_TRUE(m_recorder.Push(id, id));
        expected.push_back(id);
    }
    std::thread stopper = StopAfter(100);
    Unblock();
    stopper.join();
    EXPECT_EQ(m_recorder.Served(), expected);
    EXPECT_FALSE(m_recorder.IsRuning());
}

TEST_F(ContextEventThreadTest, RunsUntilStopMessageIsTaken) {
    StartBlocked();
    std::thread stopper = StopAfter(0);
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_NE(m_recorder.Handle(), nullptr);
    EXPECT_FALSE(m_recorder.Start());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Start > Already Started"});
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    EXPECT_TRUE(m_recorder.Push(1, -1));
    EXPECT_EQ(m_recorder.PreStartCount(), 0U);
    Unblock();
    stopper.join();
    EXPECT_FALSE(m_recorder.IsRuning());
    EXPECT_EQ(m_recorder.Handle(), nullptr);
}

TEST_F(ContextEventThreadTest, KeepsRunningIfStopAllocationFails) {
    ASSERT_TRUE(m_recorder.Start());
    {
        const FailingAllocation failing;
        EXPECT_FALSE(m_recorder.Stop());
        TEventMessage message{1, nullptr, false, false, 0};
        EXPECT_TRUE(m_recorder.PushStaticEvent(&message)) << "pushing a static message allocated memory";
        EXPECT_TRUE(m_recorder.WaitForServed(1));
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextEventThread.cpp: Stop > Memory Allocation Fail"});
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_NE(m_recorder.Handle(), nullptr);
    EXPECT_TRUE(m_recorder.Stop());
}

TEST_F(ContextEventThreadTest, LocksMutexDuringPush) {
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

TEST_F(ContextEventThreadTest, UnlocksMutexAfterEveryPush) {
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

TEST_F(ContextEventThreadTest, StartsServesAndStopsWithoutMutex) {
    ASSERT_TRUE(m_recorder.Push(1, 0));
    g_mutex_lock(m_recorder.Mutex());
    EXPECT_TRUE(m_recorder.Start());
    EXPECT_TRUE(m_recorder.IsRuning());
    EXPECT_TRUE(m_recorder.WaitForServed(1));
    EXPECT_TRUE(m_recorder.Stop());
    g_mutex_unlock(m_recorder.Mutex());
    EXPECT_EQ(m_recorder.Served(), Ids{1});
}

TEST_F(ContextEventThreadTest, ClearsMutexWhenDestroyed) {
    alignas(Recorder) unsigned char memory[sizeof(Recorder)];
    MutexCount::Reset();
    auto* recorder = new (memory) Recorder;
    EXPECT_EQ(MutexCount::Initialised(memory, sizeof(memory)), 1);
    ASSERT_TRUE(recorder->Start());
    ASSERT_TRUE(recorder->Push(1, 0));
    ASSERT_TRUE(recorder->Stop());
    EXPECT_EQ(MutexCount::Cleared(memory, sizeof(memory)), 0);
    recorder->~Recorder();
    EXPECT_EQ(MutexCount::Initialised(memory, sizeof(memory)), 1);
    EXPECT_EQ(MutexCount::Cleared(memory, sizeof(memory)), 1);
}

TEST_F(ContextEventThreadTest, DestructorDoesNotStopWorker) {
    ChildProcess::UseNewProgram();
    const auto destroyDuringEvent = [] {
        Block block;
        TEventMessage message{kBlockEvent, &block, false, false, 0};
        auto* recorder = new Recorder;
        recorder->Start();
        recorder->PushStaticEvent(&message);
        block.hasBegun.Wait();
        delete recorder;
        std::_Exit(0);  // while the worker is still blocked
    };
    EXPECT_EXIT(ChildProcess::RunWithBound(destroyDuringEvent), ::testing::ExitedWithCode(0), "");
}

}  // namespace
