// SPDX-License-Identifier: Apache-2.0
#include "StoreGuard.h"

#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <memory>
#include <new>
#include <string>

#include "ContextHost.h"
#include "FailingMemory.h"
#include "HistoryProvider.h"
#include "Surroundings.h"

namespace {

/// Makes a store that has one record.
/// @return its content.
std::string MakeStore(const std::string& name) {
    ContextHost host(name);
    host.BeginBatch();
    host.Publish("usage/a", HISTORY_RECORD,
                 R"({"unit_id":"x","unit_name":"X","device_name":"d","start_time":100,"duration":5,"occurrence":0})",
                 nullptr);
    host.EndBatch();
    EXPECT_TRUE(host.WaitForFlush([] {}));
    host.EndWriting();
    return Surroundings::ReadFile(Surroundings::DataDirectory() + name);
}

/// Calls `test(allowed, failures)` as FailingMemory::ForEveryAllocation() does. The libraries keep some blocks after an
/// error, so blocks that are not freed are left to LeakSanitizer.
template <class Test>
void ForEveryAllocation(Test test) {
    for (const int failures : {1, INT_MAX}) {
        bool hasFailed = true;
        for (int allowed = 0; hasFailed && !testing::Test::HasFailure(); ++allowed) {
            SCOPED_TRACE("allocation " + std::to_string(allowed + 1) + (failures == 1 ? " fails" : " and later"));
            const int before = FailingMemory::Failures();
            test(allowed, failures);
            hasFailed = FailingMemory::Failures() != before;
        }
    }
}

}  // namespace

TEST(StoreGuardTest, KeepsTheStoreWithoutMemory) {
    const std::string name = "usage.db";
    const std::string content = MakeStore(name);
    const std::string path = Surroundings::DataDirectory() + name;
    ForEveryAllocation([&](int allowed, int failures) {
        std::string problem = "out of memory";
        bool isTaken = false;
        StoreGuard guard(name);
        try {
            const FailingMemory::Scope failing(allowed, failures);
            problem = guard.Take();
            isTaken = guard.IsIntact();
        } catch (const std::bad_alloc&) {
        }
        EXPECT_NE(isTaken, !problem.empty());
        EXPECT_EQ(problem.find("damaged"), std::string::npos) << problem;
        EXPECT_EQ(problem.find("another program"), std::string::npos) << problem;
        EXPECT_TRUE(Surroundings::ReadFile(path) == content) << "the store was changed";
    });
    EXPECT_EQ(StoreGuard(name).Take(), "");
    EXPECT_FALSE(std::filesystem::exists(path + ".kept"));
}

TEST(StoreGuardTest, CreatesAStoreThatCanBeUsedWithoutMemory) {
    const std::string name = "usage.db";
    ForEveryAllocation([&](int allowed, int failures) {
        try {
            StoreGuard guard(name);
            const FailingMemory::Scope failing(allowed, failures);
            guard.Take();
        } catch (const std::bad_alloc&) {
        }
        EXPECT_EQ(StoreGuard(name).Take(), "");
        std::filesystem::remove(Surroundings::DataDirectory() + name);
    });
}

TEST(StoreGuardTest, PutsTheStoreBackOrKeepsItWithoutMemory) {
    const std::string name = "usage.db";
    const std::string content = MakeStore(name);
    const std::string path = Surroundings::DataDirectory() + name;
    ForEveryAllocation([&](int allowed, int failures) {
        auto guard = std::make_unique<StoreGuard>(name);
        ASSERT_EQ(guard->Take(), "");
        std::filesystem::remove(path);  // as a reset does
        {
            const FailingMemory::Scope failing(allowed, failures);
            guard.reset();
        }
        const std::string kept = std::filesystem::exists(path + ".kept") ? path + ".kept" : path;
        EXPECT_TRUE(Surroundings::ReadFile(kept) == content) << "the store was changed";
        EXPECT_EQ(StoreGuard(name).Take(), "");
        EXPECT_TRUE(Surroundings::ReadFile(path) == content) << "the store was changed";
    });
}
