// SPDX-License-Identifier: Apache-2.0
#include "ContextAutoLock.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "Waiting.h"

namespace {

static_assert(!std::is_copy_constructible_v<ContextAutoLock> && !std::is_copy_assignable_v<ContextAutoLock>,
              "a copy would unlock twice");

class ContextAutoLockTest : public ::testing::Test {
protected:
    void SetUp() override { g_mutex_init(&m_mutex); }
    void TearDown() override { g_mutex_clear(&m_mutex); }

    /// Tries the mutex from another thread, because the thread that holds a mutex must not try it.
    bool IsLocked() {
        bool isLocked = true;
        std::thread([&] {
            if (g_mutex_trylock(&m_mutex)) {
                g_mutex_unlock(&m_mutex);
                isLocked = false;
            }
        }).join();
        return isLocked;
    }

    GMutex m_mutex;
};

TEST_F(ContextAutoLockTest, HoldsTheMutexUntilTheEndOfItsScope) {
    EXPECT_FALSE(IsLocked());
    {
        const ContextAutoLock lock(&m_mutex);
        EXPECT_TRUE(IsLocked());
    }
    EXPECT_FALSE(IsLocked());
}

TEST_F(ContextAutoLockTest, LocksOnlyTheGivenMutex) {
    GMutex other;
    g_mutex_init(&other);
    {
        const ContextAutoLock lock(&other);
        EXPECT_FALSE(IsLocked());
        const ContextAutoLock second(&m_mutex);
        EXPECT_TRUE(IsLocked());
    }
    EXPECT_FALSE(IsLocked());
    g_mutex_clear(&other);
}

TEST_F(ContextAutoLockTest, CanLockTheSameMutexAgain) {
    for (int round = 0; round < 3; ++round) {
        const ContextAutoLock lock(&m_mutex);
        EXPECT_TRUE(IsLocked());
    }
    EXPECT_FALSE(IsLocked());
}

TEST_F(ContextAutoLockTest, UnlocksWhenAnExceptionLeavesTheScope) {
    try {
        const ContextAutoLock lock(&m_mutex);
        throw std::runtime_error("leaves the scope");
    } catch (const std::runtime_error&) {
        EXPECT_FALSE(IsLocked());
        return;
    }
    FAIL() << "nothing was thrown";
}

TEST_F(ContextAutoLockTest, BlocksUntilTheMutexIsFree) {
    Waiting::Gate begun;
    Waiting::Gate locked;
    g_mutex_lock(&m_mutex);
    std::thread contender([&] {
        begun.Open();
        const ContextAutoLock lock(&m_mutex);
        locked.Open();
    });
    EXPECT_TRUE(begun.Wait());
    EXPECT_FALSE(locked.Wait(std::chrono::milliseconds(50)));
    g_mutex_unlock(&m_mutex);
    EXPECT_TRUE(locked.Wait());
    contender.join();
    EXPECT_FALSE(IsLocked());
}

TEST_F(ContextAutoLockTest, AdmitsOneThreadAtATime) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    int counter = 0;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const ContextAutoLock lock(&m_mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, kThreads * kRounds);
}

}  // namespace
