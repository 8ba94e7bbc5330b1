// SPDX-License-Identifier: Apache-2.0
#include "TimerMath.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>

namespace {

TEST(TimerMathTest, NextIdIncrementsAndWrapsToOne) {
    const struct {
        std::int32_t last;
        std::int32_t next;
    } rows[] = {{0, 1}, {1, 2}, {41, 42}, {2147483646, 2147483647}, {2147483647, 1}};
    for (const auto& row : rows) {
        EXPECT_EQ(TimerMath::NextTimerId(row.last), row.next) << row.last;
    }
}

TEST(TimerMathTest, AddWrapsAt32Bits) {
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

TEST(TimerMathTest, DifferenceWrapsAt32Bits) {
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

}  // namespace
