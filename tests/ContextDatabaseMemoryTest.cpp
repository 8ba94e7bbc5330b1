// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "ChildProcess.h"
#include "DatabaseQueryFixture.h"
#include "FailingAllocation.h"
#include "NextFunction.h"

// What holds when C++ or SQLite cannot allocate.

namespace {

using Form = FailingAllocation::Form;

int g_namesBeforeFailure = -1;  ///< column names that SQLite may still return; negative for any number

/// Blocks the next remove() while it exists.
struct HeldRemoval {
    Waiting::Gate hasBegun;
    Waiting::Gate mayEnd;
};

std::atomic<HeldRemoval*> g_heldRemoval{nullptr};

}  // namespace

/// Replaces SQLite's function for the library: SQLite returns null when it has no memory for a name.
extern "C" const char* sqlite3_column_name(sqlite3_stmt* statement, int column) {
    if (g_namesBeforeFailure == 0) {
        return nullptr;
    }
    --g_namesBeforeFailure;
    return NextFunction<decltype(sqlite3_column_name)>("sqlite3_column_name")(statement, column);
}

/// Replaces the C library's function, which a reset calls without a lock.
extern "C" int remove(const char* path) noexcept {
    if (HeldRemoval* held = g_heldRemoval.exchange(nullptr)) {
        held->hasBegun.Open();
        held->mayEnd.Wait();
    }
    return NextFunction<decltype(remove)>("remove")(path);
}

namespace {

const std::string kLongText(100, 'x');  ///< longer than what a string holds without an allocation

/// Runs an action while its n-th call of the throwing `new` fails, for n = 1, 2, ..., until no call fails.
/// @param action  returns normally or throws std::bad_alloc.
/// @param check   called after every action that has thrown.
/// @return the number of actions that have thrown.
template <class Action, class Check>
int FailEveryAllocation(Action action, Check check) {
    int thrown = 0;
    for (int allowed = 0; allowed < 1000; ++allowed) {
        try {
            const FailingAllocation failing(allowed, /*failures=*/1, Form::Throwing);
            action();
        } catch (const std::bad_alloc&) {
            ++thrown;
            check();
        }
        if (FailingAllocation::Failures(Form::Throwing) == 0) {
            return thrown;
        }
    }
    ADD_FAILURE() << "every round has failed";
    return thrown;
}

using ContextDatabaseMemoryTest = QueryTest<DeferringDatabase>;
using ContextDatabaseNoMemoryTest = DatabaseTest;

// Construction

TEST_F(ContextDatabaseNoMemoryTest, ConstructorThatThrowsLeavesNoThread) {
    const std::size_t threads = SettledThreadCount();
    for (const bool hasTimer : {true, false}) {
        std::string name;
        std::string statement;
        std::optional<ContextDatabase> database;
        const auto construct = [&] {
            if (hasTimer) {
                database.emplace(std::move(name), std::move(statement), /*interval=*/3600);
            } else {
                database.emplace(std::move(name), std::move(statement));
            }
        };
        const auto check = [&] {
            EXPECT_TRUE(ThreadCountBecomes(threads));
            EXPECT_EQ(OpenDescriptors(), 0);
        };
        int thrown = 0;
        for (bool hasFailed = true; hasFailed; database.reset()) {
            name = "x.db";
            statement = kCreateTable;
            const FailingAllocation failing(/*allowed=*/thrown, /*failures=*/1, Form::Throwing);
            try {
                construct();
                hasFailed = false;
            } catch (const std::bad_alloc&) {
                ++thrown;
                check();
            }
        }
        EXPECT_GT(thrown, 3) << "one for each path at least";
    }
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseNoMemoryTest, KeepsStatementsWhenTimerRequestIsLost) {
    std::optional<DeferringDatabase> database;
    {
        const FailingAllocation failing(/*allowed=*/2, /*failures=*/1);  // allows the timer and its record
        database.emplace();
    }
    ASSERT_EQ(FailingAllocation::Failures(Form::NonThrowing), 1);
    EXPECT_TRUE(database->IsRunning());
    Defer(*database, "INSERT INTO t (id) VALUES (1)");
    EXPECT_EQ(Ids(), Messages());
    database->Flush();
    EXPECT_EQ(Ids(), Messages({"1"}));
}

// Resets and flushes

TEST_F(ContextDatabaseMemoryTest, ResetsWithoutAllocating) {
    for (int round = 0; round < 2; ++round) {
        Write(m_database, "INSERT INTO t (id) VALUES (1)");
        CapturedLog::Clear();
        {
            const FailingAllocation failing(/*allowed=*/0, INT_MAX, Form::Throwing);
            EXPECT_NO_THROW(m_database.ResetDatabase());
        }
        EXPECT_EQ(FailingAllocation::Failures(Form::Throwing), 0);
        EXPECT_EQ(CapturedLog::Messages(), ResetLines());
        EXPECT_EQ(Ids(), Messages());
    }
}

TEST_F(ContextDatabaseMemoryTest, FlushesAndResetsWithoutAllocating) {
    Defer(m_database, "BEGIN");
    for (int id = 1; id <= 300; ++id) {  // more than the capacity that is kept
        m_database.ExecuteQuery("INSERT INTO t VALUES (?, ?)", Make(id, kLongText + std::to_string(id)), false);
    }
    Defer(m_database, "COMMIT");
    const auto flush = [&] {
        const FailingAllocation failing(/*allowed=*/0, INT_MAX, Form::Throwing);
        EXPECT_NO_THROW(m_database.Flush());
    };
    flush();
    EXPECT_EQ(FailingAllocation::Failures(Form::Throwing), 0);
    EXPECT_EQ(ReadFrom("x.db", "SELECT count(*) || name FROM t"), Messages({"300" + kLongText + "1"}));
    Defer(m_database, kOverflow);
    flush();
    EXPECT_EQ(FailingAllocation::Failures(Form::Throwing), 0);
    EXPECT_EQ(CapturedLog::Messages(), StepFailure(kOverflow));
    EXPECT_EQ(Ids(), Messages());
}

TEST_F(ContextDatabaseMemoryTest, ReleasesLargeQueueAfterFlush) {
    const auto usedBytes = [] {  // blind under a sanitizer, which has a heap of its own
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    const std::size_t before = usedBytes();
    Defer(m_database, kOverflow);  // fails, so the others are dropped
    for (int i = 0; i < 20000; ++i) {
        Defer(m_database, "");
    }
    m_database.Flush();
    EXPECT_LT(usedBytes(), before + 500000);
}

TEST_F(ContextDatabaseMemoryTest, ResetsAgainAfterResetThatThrew) {
    for (int line = 1; line <= 3; ++line) {
        int left = line;
        std::function<void()> throwAtLine = [&] {
            if (--left == 0) {
                throw std::runtime_error("the log call failed");
            }
        };
        {
            const CapturedLog::OnLog onLog(throwAtLine);
            EXPECT_THROW(m_database.ResetDatabase(), std::runtime_error);
        }
        CapturedLog::Clear();
        m_database.ResetDatabase();
        EXPECT_EQ(CapturedLog::Messages(), ResetLines()) << "thrown at line " << line;
        EXPECT_TRUE(m_database.IsRunning());
    }
}

// Deferred statements and value lists

TEST_F(ContextDatabaseMemoryTest, DeferralThatThrowsQueuesNothing) {
    const ValueList values = Make(kLongText);
    const std::string query = "INSERT INTO t (name) SELECT ? || count(*) FROM t -- " + kLongText;
    int queued = 0;
    const auto defer = [&] {
        m_database.ExecuteQuery(query.c_str(), values, /*immediate=*/false);
        ++queued;
    };
    EXPECT_GT(FailEveryAllocation(defer, [] {}), 2);
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT count(*) FROM t"), Messages({std::to_string(queued)}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseMemoryTest, ValueListThatThrowsIsUnchanged) {
    ValueList values = Make(1);
    values.shrink_to_fit();
    const auto set = [&] { m_database.SetQueryValue(values, 2L); };
    EXPECT_EQ(FailEveryAllocation(set, [&] { EXPECT_EQ(values.size(), 1U); }), 1);
    EXPECT_EQ(values.size(), 2U);
}

// Rows

TEST_F(ContextDatabaseMemoryTest, SelectThatThrowsDeliversWholeRowsOnly) {
    Write(m_database, "INSERT INTO t VALUES (1, 'one'), (2, 'two'), (3, '" + kLongText + "')");
    const Rows expected = Select(m_database, "SELECT * FROM t ORDER BY id");
    Rows rows;
    const auto select = [&] {
        rows.clear();
        rows.shrink_to_fit();
        m_database.SelectQuery("SELECT * FROM t ORDER BY id", {}, rows);
    };
    const auto check = [&] {
        ASSERT_LE(rows.size(), expected.size());
        EXPECT_EQ(rows, Rows(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(rows.size())));
        EXPECT_EQ(RowCount(m_database), "3") << "a lock or a statement was kept";
    };
    EXPECT_GT(FailEveryAllocation(select, check), 10);
    EXPECT_EQ(rows, expected);
}

/// An SQL function that returns 1. From the given call on, SQLite can allocate only a few kilobytes more.
void LimitHeap(sqlite3_context* context, int, sqlite3_value** values) {
    if (sqlite3_value_int(values[0]) != 0) {
        sqlite3_hard_heap_limit64(sqlite3_memory_used() + 4096);
    }
    sqlite3_result_int(context, 1);
}

TEST_F(ContextDatabaseNoMemoryTest, DropsRowWhoseTextCannotBeRead) {
    // SQLite converts UTF-16 when the text is read, after the step that calls the function.
    PlainConnection().Run(
        "PRAGMA encoding = 'UTF-16'; CREATE TABLE big (id INTEGER PRIMARY KEY, text TEXT);"
        "INSERT INTO big VALUES (1, 'one'), (2, hex(zeroblob(50000))), (3, 'three')");
    const auto addFunction = [](sqlite3* database, char**, const sqlite3_api_routines*) {
        return sqlite3_create_function(database, "limit_heap", 1, SQLITE_UTF8, nullptr, LimitHeap, nullptr, nullptr);
    };
    int (*extension)(sqlite3*, char**, const sqlite3_api_routines*) = addFunction;
    ASSERT_EQ(sqlite3_auto_extension(reinterpret_cast<void (*)()>(extension)), SQLITE_OK);
    ContextDatabase database("x.db", kCreateTable);
    Rows rows;
    EXPECT_TRUE(database.SelectQuery("SELECT id, text, limit_heap(id = 2) AS x FROM big ORDER BY id", {}, rows));
    sqlite3_hard_heap_limit64(0);
    EXPECT_EQ(rows, Rows({{{"id", "1"}, {"text", "one"}, {"x", "1"}}}));
    EXPECT_EQ(CapturedLog::Origins(), Messages({"6 ContextDatabase.cpp: SelectQuery > Memory Allocation Fail"}));
    EXPECT_EQ(Select(database, "SELECT id FROM big").size(), 3U);
    ASSERT_EQ(sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(extension)), 1);
}

TEST_F(ContextDatabaseMemoryTest, DropsRowWhoseColumnNameCannotBeRead) {
    Write(m_database, "INSERT INTO t VALUES (1, 'one')");
    for (const int available : {0, 1}) {
        CapturedLog::Clear();
        g_namesBeforeFailure = available;
        Rows rows = {{{"kept", "row"}}};
        EXPECT_TRUE(m_database.SelectQuery("SELECT * FROM t", {}, rows));
        g_namesBeforeFailure = -1;
        EXPECT_EQ(rows, Rows({{{"kept", "row"}}}));
        EXPECT_EQ(CapturedLog::Messages(), Messages({"E Memory Allocation Fail"}));
    }
    EXPECT_EQ(RowCount(m_database), "1");
}

// Destruction

TEST_F(ContextDatabaseNoMemoryTest, StopsItsThreadsWithoutMemoryForMessages) {
    const std::size_t threads = SettledThreadCount();
    const struct {
        const char* name;
        int allowed;
        Messages expected;
    } rows[] = {
        {"no stop message", 2, {"E Memory Allocation Fail", "E Stop Error"}},
        {"no request to kill the timer", 1, {"E Memory Allocation Fail", "E Memory Allocation Fail", "E Stop Error"}},
    };
    for (const auto& row : rows) {
        auto database = std::make_unique<ContextDatabase>("x.db", kCreateTable, /*interval=*/3600);
        CapturedLog::Clear();
        {
            const FailingAllocation failing(row.allowed);
            database.reset();
        }
        EXPECT_TRUE(ThreadCountBecomes(threads)) << row.name;
        EXPECT_EQ(CapturedLog::Messages(), row.expected) << row.name;
        EXPECT_EQ(OpenDescriptors(), 0) << row.name;
    }
}

TEST_F(ContextDatabaseNoMemoryTest, WaitsForRunningFlushWithoutMemory) {
    auto database = std::make_unique<ContextDatabase>("x.db", kCreateTable, /*interval=*/1);
    Defer(*database, kOverflow);
    HeldRemoval held;
    g_heldRemoval = &held;
    ASSERT_TRUE(AdvanceUntil([] { return g_heldRemoval == nullptr; })) << "no flush started";
    Background destruction([&] {
        const FailingAllocation failing(/*allowed=*/2);
        database.reset();
    });
    EXPECT_FALSE(destruction.Returns(std::chrono::seconds(1))) << "the destructor did not wait for the flush";
    held.mayEnd.Open();
    ASSERT_TRUE(destruction.Returns());
    EXPECT_EQ(CapturedLog::Count("remove " + DatabasePath() + "-journal file success"), 1) << "the flush did not end";
    EXPECT_EQ(CapturedLog::Count("Stop Error"), 1);
    EXPECT_EQ(OpenDescriptors(), 0) << "the flush has opened the file again";
}

TEST_F(ContextDatabaseNoMemoryTest, AbortsWithoutMemoryForIdToKill) {
    ChildProcess::UseNewProgram();
    EXPECT_EXIT(
        {
            auto database = std::make_unique<ContextDatabase>("x.db", kCreateTable, /*interval=*/3600);
            const FailingAllocation failing;
            database.reset();
        },
        ::testing::KilledBySignal(SIGABRT), "KillTimer.*Assertion `ptimerId != __null' failed");
}

}  // namespace
