// SPDX-License-Identifier: Apache-2.0
#include "Interrupts.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

// A signal stays noted, so each case has a process of its own.

TEST(InterruptsTest, EndsByTheSecondSignalAlthoughItIsCaughtAgain) {
    EXPECT_EXIT(
        {
            Interrupts::Catch();
            std::raise(SIGINT);
            Interrupts::Catch();
            std::raise(SIGINT);
            _exit(0);
        },
        testing::KilledBySignal(SIGINT), "");
}

TEST(InterruptsTest, EndsByTheNotedSignalWhenReleased) {
    EXPECT_EXIT(
        {
            Interrupts::Catch();
            std::raise(SIGTERM);
            Interrupts::Release();
            _exit(0);
        },
        testing::KilledBySignal(SIGTERM), "");
}

TEST(InterruptsTest, NotesTheFirstSignal) {
    EXPECT_EXIT(
        {
            Interrupts::Catch();
            const bool wasNoted = Interrupts::IsNoted();
            std::raise(SIGTERM);
            Interrupts::Wait();
            _exit(!wasNoted && Interrupts::IsNoted() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(InterruptsTest, ReleasesWithoutASignal) {
    Interrupts::Catch();
    Interrupts::Release();
    EXPECT_EXIT(std::raise(SIGINT), testing::KilledBySignal(SIGINT), "");
    EXPECT_FALSE(Interrupts::IsNoted());
}
