// SPDX-License-Identifier: Apache-2.0
#include "ContextThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "CapturedLog.h"
#include "ChildProcess.h"
#include "ThreadRequests.h"
#include "Waiting.h"

namespace {

using Strings = std::vector<std::string>;

static_assert(std::is_abstract_v<ContextThread>, "OnThread() is pure virtual");

/// A thread whose body loops until Stop() clears the flag.
class Worker : public ContextThread {
public:
    void OnThread() override {
        ++m_runs;
        m_sawRunningAtFirst = IsRuning();
        m_thread = std::this_thread::get_id();
        m_hasBegun.Open();
        while (IsRuning() && !m_returnsAtOnce) {
            std::this_thread::yield();
        }
        m_beforeReturn();
        m_hasReturned = true;
    }

    GThread* Handle() const { return m_pThread; }

    std::atomic<int> m_runs{0};
    std::atomic<bool> m_sawRunningAtFirst{false};
    std::atomic<std::thread::id> m_thread{};
    Waiting::Gate m_hasBegun;
    bool m_returnsAtOnce = false;
    std::function<void()> m_beforeReturn = [] {};
    std::atomic<bool> m_hasReturned{false};
};

class ContextThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        CapturedLog::Clear();
        g_requests = {};
    }

    void TearDown() override {
        if (m_worker.IsRuning()) {
            m_worker.Stop();
        }
    }

    Worker m_worker;
};

TEST_F(ContextThreadTest, IsStoppedAfterConstruction) {
    EXPECT_FALSE(m_worker.IsRuning());
    EXPECT_EQ(m_worker.Handle(), nullptr);
    EXPECT_EQ(g_requests.count, 0);
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextThreadTest, RunsBodyOnItsOwnThreadUntilStop) {
    EXPECT_TRUE(m_worker.Start());
    EXPECT_TRUE(m_worker.IsRuning());
    EXPECT_NE(m_worker.Handle(), nullptr);
    ASSERT_TRUE(m_worker.m_hasBegun.Wait());
    EXPECT_NE(m_worker.m_thread.load(), std::this_thread::get_id());
    EXPECT_FALSE(m_worker.m_hasReturned);

    EXPECT_TRUE(m_worker.Stop());
    EXPECT_FALSE(m_worker.IsRuning());
    EXPECT_EQ(m_worker.Handle(), nullptr);
    EXPECT_EQ(m_worker.m_runs, 1);
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextThreadTest, CreatesUnnamedThreadWithItselfAsArgument) {
    ASSERT_TRUE(m_worker.Start());
    EXPECT_EQ(g_requests.count, 1);
    EXPECT_EQ(g_requests.name, "(null)");
    EXPECT_EQ(g_requests.entry, &ContextThread::_Thread);
    EXPECT_EQ(g_requests.argument, static_cast<ContextThread*>(&m_worker));
}

TEST_F(ContextThreadTest, SetsFlagBeforeCreatingThread) {
    bool hasBegun = false;
    g_requests.beforeReturn = [&] { hasBegun = m_worker.m_hasBegun.Wait(); };
    ASSERT_TRUE(m_worker.Start());
    EXPECT_TRUE(hasBegun);
    EXPECT_TRUE(m_worker.m_sawRunningAtFirst);
}

TEST_F(ContextThreadTest, RefusesSecondStart) {
    ASSERT_TRUE(m_worker.Start());
    GThread* const handle = m_worker.Handle();
    EXPECT_FALSE(m_worker.Start());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextThread.cpp: Start > Already Started"});
    EXPECT_TRUE(m_worker.IsRuning());
    EXPECT_EQ(m_worker.Handle(), handle);
    EXPECT_EQ(g_requests.count, 1);
    EXPECT_TRUE(m_worker.Stop());
    EXPECT_EQ(m_worker.m_runs, 1);
}

TEST_F(ContextThreadTest, RefusesStopBeforeStart) {
    EXPECT_FALSE(m_worker.Stop());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextThread.cpp: Stop > Already Stopped"});
    EXPECT_FALSE(m_worker.IsRuning());
    EXPECT_EQ(m_worker.Handle(), nullptr);
}

TEST_F(ContextThreadTest, RefusesSecondStop) {
    ASSERT_TRUE(m_worker.Start());
    ASSERT_TRUE(m_worker.Stop());
    EXPECT_FALSE(m_worker.Stop());
    EXPECT_EQ(CapturedLog::Origins(), Strings{"6 ContextThread.cpp: Stop > Already Stopped"});
    EXPECT_FALSE(m_worker.IsRuning());
    EXPECT_EQ(m_worker.Handle(), nullptr);
}

TEST_F(ContextThreadTest, StopReturnsAfterBody) {
    Waiting::Gate stopHasReturned;
    bool stoppedTooEarly = true;
    m_worker.m_beforeReturn = [&] { stoppedTooEarly = stopHasReturned.Wait(std::chrono::milliseconds(50)); };
    ASSERT_TRUE(m_worker.Start());
    EXPECT_TRUE(m_worker.Stop());
    EXPECT_TRUE(m_worker.m_hasReturned);
    stopHasReturned.Open();
    EXPECT_FALSE(stoppedTooEarly);
}

TEST_F(ContextThreadTest, StopClearsFlagBeforeJoinAndHandleAfterJoin) {
    bool isRunning = true;
    GThread* handle = nullptr;
    m_worker.m_beforeReturn = [&] {
        isRunning = m_worker.IsRuning();
        handle = m_worker.Handle();
    };
    ASSERT_TRUE(m_worker.Start());
    ASSERT_TRUE(m_worker.Stop());
    EXPECT_FALSE(isRunning);
    EXPECT_NE(handle, nullptr);
}

TEST_F(ContextThreadTest, StartsNewThreadAfterStop) {
    for (int run = 1; run <= 3; ++run) {
        EXPECT_TRUE(m_worker.Start());
        EXPECT_TRUE(m_worker.IsRuning());
        EXPECT_TRUE(m_worker.Stop());
        EXPECT_FALSE(m_worker.IsRuning());
        EXPECT_EQ(g_requests.count, run);
        EXPECT_EQ(m_worker.m_runs, run);
    }
    EXPECT_EQ(CapturedLog::Origins(), Strings{});
}

TEST_F(ContextThreadTest, StaysRunningUntilStopEvenIfBodyReturned) {
    m_worker.m_returnsAtOnce = true;
    ASSERT_TRUE(m_worker.Start());
    ASSERT_TRUE(Waiting::Until([&] { return m_worker.m_hasReturned.load(); }));
    EXPECT_TRUE(m_worker.IsRuning());
    EXPECT_FALSE(m_worker.Start());
    EXPECT_EQ(g_requests.count, 1);
    EXPECT_TRUE(m_worker.Stop());
    EXPECT_FALSE(m_worker.IsRuning());
}

TEST_F(ContextThreadTest, StaysStoppedIfThreadCreationFails) {
    g_requests.allowed = 0;
    EXPECT_FALSE(m_worker.Start());
    EXPECT_FALSE(m_worker.IsRuning());
    EXPECT_EQ(m_worker.Handle(), nullptr);
    EXPECT_EQ(g_requests.count, 1);
    EXPECT_EQ(CapturedLog::Origins(), Strings{});

    g_requests.allowed = 1;
    EXPECT_TRUE(m_worker.Start());
    EXPECT_TRUE(m_worker.Stop());
    EXPECT_EQ(m_worker.m_runs, 1);
}

TEST_F(ContextThreadTest, EntryCallsBodyAndReturnsNull) {
    EXPECT_EQ(ContextThread::_Thread(static_cast<ContextThread*>(&m_worker)), nullptr);
    EXPECT_EQ(m_worker.m_runs, 1);
    EXPECT_EQ(m_worker.m_thread.load(), std::this_thread::get_id());
    EXPECT_FALSE(m_worker.m_sawRunningAtFirst);
    EXPECT_FALSE(m_worker.IsRuning());
}

/// A thread whose body blocks until `mayReturn` is opened, and uses no member after `hasBegun` is open.
class BlockedWorker : public ContextThread {
public:
    BlockedWorker(Waiting::Gate& hasBegun, Waiting::Gate& mayReturn) : m_hasBegun(hasBegun), m_mayReturn(mayReturn) {}

    void OnThread() override {
        Waiting::Gate& mayReturn = m_mayReturn;
        m_hasBegun.Open();
        mayReturn.Wait();
    }

private:
    Waiting::Gate& m_hasBegun;
    Waiting::Gate& m_mayReturn;
};

TEST_F(ContextThreadTest, DestructorDoesNotStopThread) {
    ChildProcess::UseNewProgram();
    const auto destroyDuringBody = [] {
        Waiting::Gate hasBegun;
        Waiting::Gate neverOpened;
        auto* worker = new BlockedWorker(hasBegun, neverOpened);
        worker->Start();
        hasBegun.Wait();
        delete worker;
        std::_Exit(0);  // while the body still waits
    };
    EXPECT_EXIT(ChildProcess::RunWithBound(destroyDuringBody), ::testing::ExitedWithCode(0), "");
}

}  // namespace
