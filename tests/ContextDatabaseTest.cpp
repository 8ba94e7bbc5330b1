// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include "DatabaseFixture.h"
#include "FailingAllocation.h"

namespace {

namespace fs = std::filesystem;

static_assert(!std::is_copy_constructible_v<ContextDatabase> && !std::is_copy_assignable_v<ContextDatabase>);

const std::string kPath = DatabasePath();

using ContextDatabaseTest = DatabaseTest;

// The path

TEST_F(ContextDatabaseTest, KeepsFilesInFixedDataDirectory) {
    EXPECT_STREQ(ContextDatabase::kDataDirectory, "/opt/usr/apps/lumora-service/data/");
    ContextDatabase database("a.db", kCreateTable);
    database.ResetDatabase();
    EXPECT_EQ(CapturedLog::Messages(),
              Messages({"I reset database", "I remove /opt/usr/apps/lumora-service/data//a.db file success",
                        "I remove /opt/usr/apps/lumora-service/data//a.db-journal file success"}));
    EXPECT_TRUE(fs::is_regular_file("/opt/usr/apps/lumora-service/data/a.db"));
}

// Opening and closing

TEST_F(ContextDatabaseTest, CreatesFileAndTable) {
    ContextDatabase database("x.db", kCreateTable);
    ExpectFreshAndWorking(database);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, CreatesFileAndTableWithInterval) {
    ContextDatabase database("y.db", kCreateTable, /*interval=*/5);
    ExpectFreshAndWorking(database, "y.db");
    EXPECT_FALSE(fs::exists(kPath));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, KeepsRowsOfHealthyFile) {
    MakeGoodFile();
    const ContextDatabase database("x.db", kCreateTable);
    const ContextDatabase again("x.db", kCreateTable, /*interval=*/5);
    EXPECT_TRUE(database.IsRunning());
    EXPECT_TRUE(again.IsRunning());
    EXPECT_EQ(Ids(), Messages({"1", "2", "3", "4"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, OpensZeroByteFileAsEmptyDatabase) {
    Surroundings::WriteFile(kPath, "");
    ContextDatabase database("x.db", kCreateTable);
    ExpectFreshAndWorking(database);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, StartsTimerForEveryIntervalEvenZero) {
    const struct {
        const char* name;
        std::function<std::unique_ptr<ContextDatabase>()> make;
        std::size_t threads;
    } rows[] = {
        {"no interval", [] { return std::make_unique<ContextDatabase>("x.db", kCreateTable); }, 0},
        {"zero", [] { return std::make_unique<ContextDatabase>("x.db", kCreateTable, 0); }, 2},
        {"five", [] { return std::make_unique<ContextDatabase>("x.db", kCreateTable, 5); }, 2},
    };
    const std::size_t before = SettledThreadCount();
    for (const auto& row : rows) {
        std::unique_ptr<ContextDatabase> database = row.make();
        EXPECT_EQ(ThreadCount(), before + row.threads) << row.name;
        database.reset();
        EXPECT_TRUE(Waiting::Until([&] { return ThreadCount() == before; })) << row.name;
    }
}

TEST_F(ContextDatabaseTest, WritesImmediatelyWhenTimerAllocationFails) {
    std::optional<ContextDatabase> database;
    {
        const FailingAllocation failing;
        database.emplace("x.db", kCreateTable, /*interval=*/5);
    }
    Defer(*database, "INSERT INTO t (id) VALUES (1)");
    EXPECT_EQ(Ids(), Messages({"1"}));
    database->OnTimerCb(0);  // no timer, so its id is 0
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, DiscardsDeferredStatementsOnDestruction) {
    {
        ContextDatabase database("x.db", kCreateTable, /*interval=*/5);
        Write(database, "INSERT INTO t (id) VALUES (1)");
        Defer(database, "INSERT INTO t (id) VALUES (2)");
    }
    EXPECT_EQ(Ids(), Messages({"1"}));
    EXPECT_EQ(OpenDescriptors(), 0);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, ReportsRunningWithoutWaitingForStatement) {
    ContextDatabase database("x.db", kCreateTable);
    StatementHold hold;
    Background writer([&] { Write(database, "INSERT INTO t (id) SELECT hold()"); });
    ASSERT_TRUE(hold.Wait());
    EXPECT_TRUE(database.IsRunning());
    EXPECT_TRUE(hold.IsHolding()) << "IsRunning() waited for the statement";
    hold.Release();
    EXPECT_TRUE(writer.Returns());
}

// The creation statement

TEST_F(ContextDatabaseTest, RunsOnlyFirstCreationStatement) {
    const ContextDatabase database("x.db", "CREATE TABLE IF NOT EXISTS a (x); CREATE TABLE b (x)");
    EXPECT_EQ(ReadFrom("x.db", "SELECT name FROM sqlite_schema"), Messages({"a"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, ResetsOnceWhenCreationStatementFails) {
    const struct {
        const char* statement;
        Messages failure;
    } rows[] = {
        {"CREATE TABEL t (id)", {"E error excute CREATE TABEL t (id)"}},
        {"", {"E Query ERROR Q : ", "E vecSqlQueryValue size : 0"}},
        {"-- nothing", {"E Query ERROR Q : -- nothing", "E vecSqlQueryValue size : 0"}},
        {"SELECT 1", {"E Query ERROR Q : SELECT 1", "E vecSqlQueryValue size : 0"}},
        {"CREATE TABLE other AS SELECT abs(-9223372036854775807 - 1)",
         {"E Query ERROR Q : CREATE TABLE other AS SELECT abs(-9223372036854775807 - 1)",
          "E vecSqlQueryValue size : 0"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.statement);
        fs::remove(kPath);
        MakeGoodFile();
        CapturedLog::Clear();
        ContextDatabase database("x.db", row.statement);
        EXPECT_EQ(CapturedLog::Messages(), Join({row.failure, ResetLines(), row.failure}));
        EXPECT_TRUE(database.IsRunning());
        EXPECT_EQ(ReadFrom("x.db", "SELECT name FROM sqlite_schema"), Messages());
        CapturedLog::Clear();
        EXPECT_EQ(Select(database, "SELECT 1 AS one"), Rows({{{"one", "1"}}}));
        EXPECT_EQ(CapturedLog::Messages(), Messages());
    }
}

TEST_F(ContextDatabaseTest, CreationWithoutIfNotExistsWipesFile) {
    MakeGoodFile();
    ContextDatabase database("x.db", "CREATE TABLE t (id INTEGER PRIMARY KEY)");
    EXPECT_EQ(CapturedLog::Messages(),
              Join({{"E error excute CREATE TABLE t (id INTEGER PRIMARY KEY)"}, ResetLines()}));
    ExpectFreshAndWorking(database);
}

// Reset

TEST_F(ContextDatabaseTest, ResetEmptiesHealthyDatabase) {
    ContextDatabase database("x.db", kCreateTable);
    for (int round = 0; round < 3; ++round) {
        Write(database, "INSERT INTO t (id) VALUES (1)");
        CapturedLog::Clear();
        database.ResetDatabase();
        EXPECT_EQ(CapturedLog::Messages(), ResetLines());
        EXPECT_TRUE(database.IsRunning());
        EXPECT_EQ(Ids(), Messages());
    }
}

TEST_F(ContextDatabaseTest, ResetRemovesOnlyFileAndJournal) {
    // Directories, because SQLite itself removes a stale journal that is a file.
    const std::string journal = kPath + "-journal";
    for (const char* other : {"x.db2", "x.db-journal2", "y.db-journal", "x", "-journal"}) {
        fs::create_directory(DatabasePath(other));
    }
    ContextDatabase database("x.db", kCreateTable);
    fs::create_directory(journal);
    database.ResetDatabase();
    EXPECT_FALSE(fs::exists(journal));
    ExpectFreshAndWorking(database);
    for (const char* other : {"x.db2", "x.db-journal2", "y.db-journal", "x", "-journal"}) {
        EXPECT_TRUE(fs::exists(DatabasePath(other))) << other;
    }
}

TEST_F(ContextDatabaseTest, ResetRemovesJournalLinkButNotItsTarget) {
    const Surroundings::TemporaryFolder folder;
    Surroundings::WriteFile(folder / "target", "content");
    ContextDatabase database("x.db", kCreateTable);
    fs::create_symlink(folder / "target", kPath + "-journal");
    database.ResetDatabase();
    ExpectFreshAndWorking(database);
    EXPECT_EQ(Surroundings::ReadFile(folder / "target"), "content");
}

TEST_F(ContextDatabaseTest, LogsRemovalOfMissingFiles) {
    ContextDatabase database("x.db", kCreateTable);
    fs::remove(kPath);
    database.ResetDatabase();
    EXPECT_EQ(CapturedLog::Messages(), ResetLines());
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, DropsResetDuringReset) {
    ContextDatabase database("x.db", "CREATE TABLE IF NOT EXISTS t AS SELECT hold() AS id");
    StatementHold hold;
    Background reset([&] { database.ResetDatabase(); });
    ASSERT_TRUE(hold.Wait()) << "the reset did not create the table";
    database.ResetDatabase();
    EXPECT_TRUE(hold.IsHolding()) << "the second reset waited for the first one";
    hold.Release();
    EXPECT_TRUE(reset.Returns());
    EXPECT_EQ(CapturedLog::Messages(), ResetLines());
    database.ResetDatabase();
    EXPECT_EQ(CapturedLog::Messages(), Join({ResetLines(), ResetLines()}));
    EXPECT_EQ(Ids(), Messages({"1"}));
}

// Leaks

TEST_F(ContextDatabaseTest, LeaksNoConnectionsOrStatements) {
    const auto memory = sqlite3_memory_used();
    {
        ContextDatabase database("x.db", kCreateTable, /*interval=*/0);
        ContextDatabase::ValueList one;
        database.SetQueryValue(one, "text");
        for (int round = 0; round < 5; ++round) {
            Write(database, "no statement");
            Write(database, "SELECT 1");
            Write(database, kOverflow);
            database.ExecuteQuery("INSERT INTO t (id) VALUES (1)", one, /*immediate=*/true);
            Rows rows;
            EXPECT_FALSE(database.SelectQuery("no statement", {}, rows));
            EXPECT_FALSE(database.SelectQuery("SELECT 1", one, rows));
            EXPECT_TRUE(database.SelectQuery("SELECT abs(-9223372036854775807 - 1)", {}, rows));
            database.ResetDatabase();
            EXPECT_EQ(OpenDescriptors(), 1);
        }
        EXPECT_EQ(CapturedLog::Count("reset database"), 25);
    }
    for (int round = 0; round < 3; ++round) {
        fs::create_symlink("/nowhere", DatabasePath("link.db"));
        Surroundings::WriteFile(DatabasePath("bad.db"), "not a database");
        const ContextDatabase linked("link.db", kCreateTable);
        fs::create_directories(DatabasePath("folder.db/content"));
        const ContextDatabase damaged("bad.db", kCreateTable);
        const ContextDatabase closed("folder.db", kCreateTable);
        EXPECT_EQ(OpenDescriptors(), 2);
        fs::remove(DatabasePath("link.db"));
    }
    EXPECT_EQ(OpenDescriptors(), 0);
    EXPECT_EQ(sqlite3_memory_used(), memory);
}

TEST_F(ContextDatabaseTest, ClosesFileThatFlushReopensDuringDestruction) {
    const auto memory = sqlite3_memory_used();
    for (int round = 0; round < 6; ++round) {
        auto database = std::make_unique<ContextDatabase>("x.db", kCreateTable, /*interval=*/1);
        StatementHold hold;
        Defer(*database, "INSERT INTO t (id) SELECT abs(hold() - 9223372036854775807 - 2)");
        ASSERT_TRUE(AdvanceUntil([&] { return hold.IsHolding(); })) << "no flush started";
        Background destruction([&] { database.reset(); });
        EXPECT_FALSE(destruction.Returns(std::chrono::milliseconds(20)))
            << "the destructor did not wait for the statement";
        hold.Release();
        ASSERT_TRUE(destruction.Returns());
        EXPECT_EQ(CapturedLog::Count("reset database"), round + 1);
        EXPECT_EQ(OpenDescriptors(), 0);
        EXPECT_EQ(sqlite3_memory_used(), memory);
    }
}

}  // namespace
