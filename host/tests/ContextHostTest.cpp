// SPDX-License-Identifier: Apache-2.0
#include "ContextHost.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>

#include "HistoryProvider.h"
#include "NextFunction.h"
#include "TestClock.h"

namespace {

std::atomic<time_t> g_ahead{0};  // seconds that the monotonic clock is ahead

constexpr const char* kRecord =
    R"({"unit_id":"x","unit_name":"X","device_name":"d","start_time":100,"duration":5,"occurrence":0})";

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* out) noexcept {
    static const auto original = NextFunction<int(clockid_t, timespec*)>("clock_gettime");
    const int result = original(clock, out);
    if (result == 0 && clock == CLOCK_MONOTONIC) {
        out->tv_sec += g_ahead;
    }
    return result;
}

TEST(ContextHostTest, StoresNothingOfAMalformedRecord) {
    ContextHost host("usage.db");
    host.BeginBatch();
    host.Publish("usage/a", HISTORY_RECORD, "{\"unit_id\":", nullptr);
    host.Publish("usage/a", HISTORY_RECORD, kRecord, nullptr);
    host.EndBatch();
    EXPECT_TRUE(host.WaitForFlush([] {}));
    EXPECT_EQ(host.CountRecords(), 1);
}

TEST(ContextHostTest, GivesUpAFlushAfterTwoMinutes) {
    const TestClock::Frozen clock(1700000000);  // no timer is due, so nothing is flushed
    ContextHost host("usage.db");
    host.BeginBatch();
    host.Publish("usage/a", HISTORY_RECORD, kRecord, nullptr);
    host.EndBatch();
    int waits = 0;
    EXPECT_FALSE(host.WaitForFlush([&] {
        ++waits;
        g_ahead += 70;
    }));
    EXPECT_EQ(waits, 2) << "70 s are not too long";
    TestClock::Advance(1);
    EXPECT_TRUE(host.WaitForFlush([] {})) << "the batch was lost";
    EXPECT_EQ(host.CountRecords(), 1);
}

TEST(ContextHostTest, RefusesOperationsThatItDoesNotOffer) {
    ContextHost host("usage.db");
    IProvider& handler = host;
    char* text = nullptr;
    EXPECT_EQ(handler.ProviderRequest("subject", "request", nullptr, nullptr), -1);
    EXPECT_EQ(handler.ProviderResponse("subject", 0, "text", nullptr, nullptr), -1);
    EXPECT_EQ(handler.ProviderResponse("subject", 0, static_cast<void*>(nullptr), nullptr, nullptr), -1);
    EXPECT_EQ(handler.ProviderRead("subject", "name", &text), -1);
    EXPECT_EQ(handler.ProviderWrite("subject", "text"), -1);
    EXPECT_EQ(handler.SetTimer(1, nullptr, nullptr), 0);
    EXPECT_FALSE(handler.KillTimer(1));
    handler.Publish("usage/a", HISTORY_END, static_cast<void*>(nullptr), nullptr);
    EXPECT_EQ(host.CountRecords(), 0);
}
