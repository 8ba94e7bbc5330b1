// SPDX-License-Identifier: Apache-2.0
#include "HistoryProvider.h"

#include <gtest/gtest.h>

#include <new>
#include <string_view>
#include <vector>

#include "FailingMemory.h"

namespace {

constexpr std::string_view kUtf16{
    "\xFE\xFF"
    "\0u\0n\0i\0t\0_\0i\0d\0,\0u\0n\0i\0t\0_\0n\0a\0m\0e\0,\0d\0e\0v\0i\0c\0e\0_\0n\0a\0m\0e\0,"
    "\0s\0t\0a\0r\0t\0_\0t\0i\0m\0e\0,\0d\0u\0r\0a\0t\0i\0o\0n\0\n"
    "\0x\0,\0X\0,\0d\0,\0001\0,\0002\0\n"
    "\0x\0,\0X\0,\0d\0,\0001\0,\0002\0\n",
    2 + 2 * (50 + 10 + 10)};

}  // namespace

// Each allocation fails once. If more fail, GLib aborts, because it reports the failure in a new block.
TEST(HistoryProviderTest, ParsesEverythingOrThrowsWithoutMemory) {
    int refusals = 0;
    bool hasFailed = true;
    for (int allowed = 0; hasFailed; ++allowed) {
        std::vector<HistoryProvider::Record> records;
        const int before = FailingMemory::Failures();
        bool isOutOfMemory = false;
        try {
            const FailingMemory::Scope failing(allowed, /*failures=*/1);
            records = History::Parse(kUtf16, "a.csv");
        } catch (const std::bad_alloc&) {
            isOutOfMemory = true;
        }
        hasFailed = FailingMemory::Failures() != before;
        if (isOutOfMemory) {
            ++refusals;
        } else {
            ASSERT_EQ(records.size(), 2U);
            EXPECT_EQ(records.back().occurrence, 1);
        }
    }
    EXPECT_GT(refusals, 3);
}
