// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "DatabaseFixture.h"
#include "FailingAllocation.h"

namespace {

namespace fs = std::filesystem;

static_assert(std::has_virtual_destructor_v<ContextDatabase>);
static_assert(!std::is_copy_constructible_v<ContextDatabase> && !std::is_copy_assignable_v<ContextDatabase>);

const std::string kPath = DatabasePath();

const Messages kCannotOpen = {"E Cannot open database: unable to open database file, " + kPath, "E create db error!"};
const Messages kSymbolicLink = {"E " + kPath + " is symbolic link file!", "E create db error!"};
const Messages kFailedCheck = {"E Query ERROR Q : pragma integrity_check", "E integrity check db error!"};

/// A healthy file with the table, its index and a few rows.
void MakeGoodFile(const std::string& path = kPath) {
    PlainConnection connection(path);
    connection.Run(kCreateTable);
    connection.Run("INSERT INTO t VALUES (1, 'name-10'), (2, 'name-20'), (3, 'name-30'), (4, 'name-40')");
}

/// @return where the page begins on which a table or an index is rooted.
std::size_t RootPage(const std::string& name) {
    PlainConnection connection;
    const Messages root = connection.Run("SELECT rootpage FROM sqlite_schema WHERE name = '" + name + "'");
    const Messages size = connection.Run("PRAGMA page_size");
    return (std::stoul(root.at(0)) - 1) * std::stoul(size.at(0));
}

void ReplaceByte(std::size_t offset, char byte) {
    std::string content = Surroundings::ReadFile(kPath);
    content.at(offset) = byte;
    Surroundings::WriteFile(kPath, content);
}

/// Changes entries of the index, but not their order: their rows are then missing from it.
void DamageIndexEntries(const std::vector<std::string>& names) {
    const std::size_t page = RootPage("sqlite_autoindex_t_1");
    std::string content = Surroundings::ReadFile(kPath);
    for (const std::string& name : names) {
        content.at(content.find(name, page) + name.size() - 1) = '5';
    }
    Surroundings::WriteFile(kPath, content);
}

void DamageTablePage() {
    ReplaceByte(RootPage("t"), '\0');  // the page's type
}

void DamageSchemaPage() {
    ReplaceByte(/*offset=*/100, '\0');  // the type of the first page, behind the file's header
}

/// What a plain connection makes of the file.
std::pair<int, Messages> CheckIntegrity() {
    return PlainConnection().Try("pragma integrity_check");
}

/// As many lines as the check reports rows.
Messages FailedRows(std::size_t count) {
    return Messages(count, "E integrity check failed");
}

std::size_t ThreadCount() {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

class ContextDatabaseTest : public DatabaseTest {
protected:
    /// An opened database that is empty but for its table and works.
    static void ExpectFreshAndWorking(ContextDatabase& database, const std::string& name = "x.db") {
        EXPECT_TRUE(database.IsRunning());
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(DatabasePath(name))));
        EXPECT_EQ(Ids(name), Messages());
        Write(database, "INSERT INTO t (id) VALUES (7)");
        EXPECT_EQ(Ids(name), Messages({"7"}));
    }

    /// A closed database says so and does nothing else.
    static void ExpectClosed(ContextDatabase& database) {
        EXPECT_FALSE(database.IsRunning());
        CapturedLog::Clear();
        Write(database, "INSERT INTO t (id) VALUES (7)");
        Rows rows = {{{"kept", "row"}}};
        EXPECT_TRUE(database.SelectQuery("SELECT 1", {}, rows));
        EXPECT_EQ(rows, Rows({{{"kept", "row"}}}));
        EXPECT_EQ(CapturedLog::Messages(), Messages({"E DB not opened yet", "E DB not opened yet"}));
        EXPECT_FALSE(database.IsRunning());
    }
};

// Opening and closing

TEST_F(ContextDatabaseTest, CreatesTheFileAndItsTable) {
    ContextDatabase database("x.db", kCreateTable);
    ExpectFreshAndWorking(database);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, CreatesTheFileAndItsTableWithAnIntervalToo) {
    ContextDatabase database("y.db", kCreateTable, /*interval=*/5);
    ExpectFreshAndWorking(database, "y.db");
    EXPECT_FALSE(fs::exists(kPath));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, KeepsTheRowsOfAHealthyFile) {
    MakeGoodFile();
    const ContextDatabase database("x.db", kCreateTable);
    const ContextDatabase again("x.db", kCreateTable, /*interval=*/5);
    EXPECT_TRUE(database.IsRunning());
    EXPECT_TRUE(again.IsRunning());
    EXPECT_EQ(Ids(), Messages({"1", "2", "3", "4"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, TakesAFileOfNoBytesForAnEmptyDatabase) {
    Surroundings::WriteFile(kPath, "");
    ContextDatabase database("x.db", kCreateTable);
    ExpectFreshAndWorking(database);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, StartsATimerForEveryIntervalEvenZero) {
    const struct {
        const char* name;
        std::function<std::unique_ptr<ContextDatabase>()> make;
        std::size_t threads;
    } rows[] = {
        {"without", [] { return std::make_unique<ContextDatabase>("x.db", kCreateTable); }, 0},
        {"zero", [] { return std::make_unique<ContextDatabase>("x.db", kCreateTable, 0); }, 2},
        {"five", [] { return std::make_unique<ContextDatabase>("x.db", kCreateTable, 5); }, 2},
    };
    std::thread([] {}).join();  // a sanitizer adds a thread of its own to the first
    const std::size_t before = ThreadCount();
    for (const auto& row : rows) {
        std::unique_ptr<ContextDatabase> database = row.make();
        EXPECT_EQ(ThreadCount(), before + row.threads) << row.name;
        database.reset();
        // A joined thread may still be listed for a moment.
        EXPECT_TRUE(Waiting::Until([&] { return ThreadCount() == before; })) << row.name;
    }
}

TEST_F(ContextDatabaseTest, DefersNothingWithoutMemoryForATimer) {
    std::optional<ContextDatabase> database;
    {
        const FailingAllocation failing;
        database.emplace("x.db", kCreateTable, /*interval=*/5);
    }
    Defer(*database, "INSERT INTO t (id) VALUES (1)");
    EXPECT_EQ(Ids(), Messages({"1"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, DiscardsDeferredStatementsWhenItIsDestroyed) {
    {
        ContextDatabase database("x.db", kCreateTable, /*interval=*/5);
        Write(database, "INSERT INTO t (id) VALUES (1)");
        Defer(database, "INSERT INTO t (id) VALUES (2)");
    }
    EXPECT_EQ(Ids(), Messages({"1"}));
    EXPECT_EQ(OpenDescriptors(), 0);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, TellsWhetherItRunsWhileAStatementIsUnderWay) {
    ContextDatabase database("x.db", kCreateTable);
    StatementHold hold;
    Background writer([&] { Write(database, "INSERT INTO t (id) SELECT hold()"); });
    ASSERT_TRUE(hold.Wait());
    EXPECT_TRUE(database.IsRunning());
    EXPECT_TRUE(hold.IsHolding()) << "it waited for the statement";
    hold.Release();
    EXPECT_TRUE(writer.Returns());
}

// The creation statement

TEST_F(ContextDatabaseTest, RunsOnlyTheFirstCreationStatement) {
    const ContextDatabase database("x.db", "CREATE TABLE IF NOT EXISTS a (x); CREATE TABLE b (x)");
    EXPECT_EQ(ReadFrom("x.db", "SELECT name FROM sqlite_schema"), Messages({"a"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTest, GivesUpAfterOneResetWhenTheCreationStatementFails) {
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

TEST_F(ContextDatabaseTest, WipesAnExistingFileWhenTheCreationStatementIsNotConditional) {
    MakeGoodFile();
    ContextDatabase database("x.db", "CREATE TABLE t (id INTEGER PRIMARY KEY)");
    EXPECT_EQ(CapturedLog::Messages(),
              Join({{"E error excute CREATE TABLE t (id INTEGER PRIMARY KEY)"}, ResetLines()}));
    ExpectFreshAndWorking(database);
}

// Healing

TEST_F(ContextDatabaseTest, RebuildsAFileThatIsNotADatabase) {
    Surroundings::WriteFile(kPath, "Most certainly not a database, whatever its name says.");
    ASSERT_EQ(CheckIntegrity(), std::make_pair(SQLITE_NOTADB, Messages()));
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kFailedCheck, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, RebuildsAFileWhoseSchemaCannotBeRead) {
    MakeGoodFile();
    DamageSchemaPage();
    ASSERT_EQ(CheckIntegrity(), std::make_pair(SQLITE_CORRUPT, Messages()));
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kFailedCheck, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, ResetsOnceHoweverManyRowsOfTheCheckFail) {
    for (const std::vector<std::string>& names : {std::vector<std::string>{"name-20"}, {"name-10", "name-30"}}) {
        fs::remove(kPath);
        MakeGoodFile();
        DamageIndexEntries(names);
        const auto [result, found] = CheckIntegrity();
        ASSERT_EQ(result, SQLITE_OK);
        ASSERT_EQ(found.size(), names.size()) << found[0];
        ASSERT_NE(found[0], "ok");
        CapturedLog::Clear();
        ContextDatabase database("x.db", kCreateTable);
        EXPECT_EQ(CapturedLog::Messages(), Join({FailedRows(names.size()), ResetLines()}));
        ExpectFreshAndWorking(database);
    }
}

TEST_F(ContextDatabaseTest, ResetsOnceWhenTheCheckReportsRowsAndThenFails) {
    MakeGoodFile();
    DamageTablePage();
    const auto [result, found] = CheckIntegrity();
    ASSERT_EQ(result, SQLITE_CORRUPT);
    ASSERT_GE(found.size(), 1U);
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({FailedRows(found.size()), kFailedCheck, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, RunsTheCreationStatementOnceMoreAfterAFailedRow) {
    MakeGoodFile();
    DamageIndexEntries({"name-20"});
    ContextDatabase database("x.db", "CREATE TABLE t (id INTEGER PRIMARY KEY)");
    EXPECT_EQ(
        CapturedLog::Messages(),
        Join({FailedRows(1), ResetLines(), {"E error excute CREATE TABLE t (id INTEGER PRIMARY KEY)"}, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, RebuildsAFileThatIsDamagedWhileItIsOpen) {
    ContextDatabase database("x.db", kCreateTable);
    Write(database, "INSERT INTO t (id) VALUES (1)");
    Surroundings::WriteFile(kPath, std::string(5000, 'x'));
    Write(database, "INSERT INTO t (id) VALUES (2)");
    EXPECT_EQ(CapturedLog::Messages(),
              Join({{"E Query ERROR Q : INSERT INTO t (id) VALUES (2)", "E vecSqlQueryValue size : 0"}, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, RebuildsAFileThatSomebodyElseHasLocked) {
    MakeGoodFile();
    PlainConnection other;
    other.Run("BEGIN EXCLUSIVE");
    ASSERT_EQ(CheckIntegrity(), std::make_pair(SQLITE_BUSY, Messages()))
        << "the check itself fails, but not as damaged";
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({{std::string("E error excute ") + kCreateTable}, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, ReplacesASymbolicLinkAndLeavesItsTargetAlone) {
    const Surroundings::TemporaryFolder folder;
    MakeGoodFile(folder / "target.db");
    const std::string before = Surroundings::ReadFile(folder / "target.db");
    fs::create_symlink(folder / "target.db", kPath);
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kSymbolicLink, ResetLines()}));
    ExpectFreshAndWorking(database);
    EXPECT_EQ(Surroundings::ReadFile(folder / "target.db"), before);
}

TEST_F(ContextDatabaseTest, ReplacesADanglingSymbolicLink) {
    const Surroundings::TemporaryFolder folder;
    fs::create_symlink(folder / "missing.db", kPath);
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kSymbolicLink, ResetLines()}));
    ExpectFreshAndWorking(database);
    EXPECT_FALSE(fs::exists(folder / "missing.db"));
}

TEST_F(ContextDatabaseTest, DoesNotFollowALinkThatItCannotRemove) {
    MakeGoodFile(DatabasePath("target.db"));
    fs::create_symlink(DatabasePath("target.db"), kPath);
    const ReadOnlyDataDirectory readOnly;
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kSymbolicLink, ResetLines(), kSymbolicLink}));
    ExpectClosed(database);
}

TEST_F(ContextDatabaseTest, ReplacesAnEmptyFolder) {
    fs::create_directory(kPath);
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kCannotOpen, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, StaysClosedWhereAFolderHoldsSomething) {
    fs::create_directory(kPath);
    Surroundings::WriteFile(kPath + "/file", "content");
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kCannotOpen, ResetLines(), kCannotOpen}));
    ExpectClosed(database);
    EXPECT_EQ(Surroundings::ReadFile(kPath + "/file"), "content");
    EXPECT_EQ(OpenDescriptors(), 0);
}

TEST_F(ContextDatabaseTest, StaysClosedWithoutTheDirectoryUntilALaterReset) {
    auto missing = std::make_unique<MissingDataDirectory>();
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kCannotOpen, ResetLines(), kCannotOpen}));
    ExpectClosed(database);
    missing.reset();
    ExpectClosed(database);
    CapturedLog::Clear();
    database.ResetDatabase();
    EXPECT_EQ(CapturedLog::Messages(), ResetLines());
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, StaysClosedInAReadOnlyDirectoryUntilALaterReset) {
    auto readOnly = std::make_unique<ReadOnlyDataDirectory>();
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kCannotOpen, ResetLines(), kCannotOpen}));
    ExpectClosed(database);
    readOnly.reset();
    database.ResetDatabase();
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, LosesNothingInAReadOnlyDirectory) {
    MakeGoodFile();
    const std::string before = Surroundings::ReadFile(kPath);
    const ReadOnlyDataDirectory readOnly;
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
    Write(database, "INSERT INTO t (id) VALUES (7)");
    EXPECT_EQ(CapturedLog::Messages(),
              Join({{"E Query ERROR Q : INSERT INTO t (id) VALUES (7)", "E vecSqlQueryValue size : 0"},
                    ResetLines()}));  // "success", although nothing could be removed
    EXPECT_EQ(RowCount(database), "4");
    EXPECT_EQ(Surroundings::ReadFile(kPath), before);
}

TEST_F(ContextDatabaseTest, ResetsOnceWhenADamagedFileCannotBeRemoved) {
    Surroundings::WriteFile(kPath, "not a database");
    const ReadOnlyDataDirectory readOnly;
    const ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kFailedCheck, ResetLines(), kFailedCheck}));
    EXPECT_EQ(Surroundings::ReadFile(kPath), "not a database");
    EXPECT_FALSE(database.IsRunning());
}

TEST_F(ContextDatabaseTest, NamesTheStepThatLogs) {
    const std::string folder = kPath;
    fs::create_directory(folder);
    Surroundings::WriteFile(folder + "/file", "content");
    const ContextDatabase closed("x.db", kCreateTable);
    fs::create_symlink("/nowhere", DatabasePath("link.db"));
    const ContextDatabase linked("link.db", kCreateTable);
    fs::remove_all(folder);
    MakeGoodFile();
    DamageTablePage();
    const ContextDatabase damaged("x.db", kCreateTable);
    const struct {
        const char* format;
        const char* function;
        int priority;
    } rows[] = {
        {"Cannot open database: %s, %s", "CreateDatabase_", 6},
        {"%s is symbolic link file!", "CreateDatabase_", 6},
        {"create db error!", "OpenDatabase_", 6},
        {"integrity check failed", "OnIntegrityCheckCallBack", 6},
        {"Query ERROR Q : %s", "CheckDatabaseIntegrity_", 6},
        {"integrity check db error!", "OpenDatabase_", 6},
        {"reset database", "ResetDatabase", 4},
        {"remove %s file success", "ResetDatabase", 4},
    };
    const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
    for (const CapturedLog::Line& line : lines) {
        EXPECT_EQ(line.tag, "LMR_COMMON");
        EXPECT_EQ(line.file, "ContextDatabase.cpp");
    }
    for (const auto& row : rows) {
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const CapturedLog::Line& line) {
            return line.format == row.format && line.function == row.function && line.priority == row.priority;
        })) << row.format;
    }
}

// Resets

TEST_F(ContextDatabaseTest, EmptiesAHealthyDatabase) {
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

TEST_F(ContextDatabaseTest, RemovesTheFileAndItsJournalAndNothingElse) {
    // As folders, since SQLite itself would remove a stale journal that is a file.
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

TEST_F(ContextDatabaseTest, RemovesAJournalThatIsALinkAndLeavesItsTargetAlone) {
    const Surroundings::TemporaryFolder folder;
    Surroundings::WriteFile(folder / "target", "content");
    ContextDatabase database("x.db", kCreateTable);
    fs::create_symlink(folder / "target", kPath + "-journal");
    database.ResetDatabase();
    ExpectFreshAndWorking(database);
    EXPECT_EQ(Surroundings::ReadFile(folder / "target"), "content");
}

TEST_F(ContextDatabaseTest, LogsTheRemovalOfFilesThatAreNotThere) {
    ContextDatabase database("x.db", kCreateTable);
    fs::remove(kPath);
    database.ResetDatabase();
    EXPECT_EQ(CapturedLog::Messages(), ResetLines());
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseTest, DropsAResetInsideAReset) {
    ContextDatabase database("x.db", "CREATE TABLE IF NOT EXISTS t AS SELECT hold() AS id");
    StatementHold hold;
    Background reset([&] { database.ResetDatabase(); });
    ASSERT_TRUE(hold.Wait()) << "it creates the table anew";
    database.ResetDatabase();
    EXPECT_TRUE(hold.IsHolding()) << "the second reset waited for the first";
    hold.Release();
    EXPECT_TRUE(reset.Returns());
    EXPECT_EQ(CapturedLog::Messages(), ResetLines());
    database.ResetDatabase();
    EXPECT_EQ(CapturedLog::Messages(), Join({ResetLines(), ResetLines()}));
    EXPECT_EQ(Ids(), Messages({"1"}));
}

// What is left behind

TEST_F(ContextDatabaseTest, LeaksNeitherConnectionsNorStatements) {
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

TEST_F(ContextDatabaseTest, ClosesWhatAFlushOpensAgainWhileItIsDestroyed) {
    const auto memory = sqlite3_memory_used();
    for (int round = 0; round < 6; ++round) {
        auto database = std::make_unique<ContextDatabase>("x.db", kCreateTable, /*interval=*/1);
        StatementHold hold;
        Defer(*database, "INSERT INTO t (id) SELECT abs(hold() - 9223372036854775807 - 2)");
        ASSERT_TRUE(AdvanceUntil([&] { return hold.IsHolding(); })) << "no flush has begun";
        Background destruction([&] { database.reset(); });
        EXPECT_FALSE(destruction.Returns(std::chrono::milliseconds(20))) << "it did not wait for the statement";
        hold.Release();
        ASSERT_TRUE(destruction.Returns());
        EXPECT_EQ(CapturedLog::Count("reset database"), round + 1);
        EXPECT_EQ(OpenDescriptors(), 0);
        EXPECT_EQ(sqlite3_memory_used(), memory);
    }
}

// Several objects

TEST_F(ContextDatabaseTest, SerialisesObjectsOnDifferentFiles) {
    ContextDatabase slow("slow.db", kCreateTable);
    ContextDatabase other("x.db", kCreateTable);
    const struct {
        const char* name;
        std::function<void()> action;
    } rows[] = {
        {"write", [&] { Write(other, "INSERT INTO t (id) VALUES (1)"); }},
        {"select", [&] { Select(other, "SELECT 1"); }},
        {"reset", [&] { other.ResetDatabase(); }},
        {"opening", [] { const ContextDatabase third("third.db", kCreateTable); }},
    };
    for (const char* statement : {"INSERT INTO t (name) SELECT hold() || random()", "SELECT hold()"}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(std::string(row.name) + " behind " + statement);
            StatementHold hold;
            Background holder([&] {
                if (statement[0] == 'S') {
                    Select(slow, statement);
                } else {
                    Write(slow, statement);
                }
            });
            ASSERT_TRUE(hold.Wait());
            Background waiter(row.action);
            EXPECT_FALSE(waiter.Returns(kShort));
            EXPECT_TRUE(hold.IsHolding());
            hold.Release();
            EXPECT_TRUE(waiter.Returns());
        }
    }
    EXPECT_EQ(RowCount(slow), "4");
}

TEST_F(ContextDatabaseTest, OpensNoFileWhileAnotherObjectsStatementIsUnderWay) {
    ContextDatabase slow("slow.db", kCreateTable);
    StatementHold hold;
    Background holder([&] { Select(slow, "SELECT hold()"); });
    ASSERT_TRUE(hold.Wait());
    Background opening([] { const ContextDatabase database("x.db", kCreateTable); });
    EXPECT_FALSE(opening.Returns(kShort));
    EXPECT_FALSE(fs::exists(kPath));
    hold.Release();
    EXPECT_TRUE(opening.Returns());
    EXPECT_TRUE(fs::exists(kPath));
}

TEST_F(ContextDatabaseTest, SurvivesManyThreadsThatWriteReadAndReset) {
    DeferringDatabase first("x.db");
    ContextDatabase second("y.db", kCreateTable);
    CapturedLog::Clear();
    const auto work = [](ContextDatabase& database, const std::function<void()>& extra) {
        for (int round = 0; round < 15; ++round) {
            Write(database, "INSERT INTO t (name) VALUES ('x')");  // fails, and resets, every second time
            Defer(database, "INSERT OR IGNORE INTO t (name) VALUES ('y')");
            Rows rows;
            database.SelectQuery("SELECT * FROM t", {}, rows);
            database.IsRunning();
            extra();
        }
    };
    {
        std::vector<std::unique_ptr<Background>> threads;
        for (int copy = 0; copy < 2; ++copy) {
            threads.push_back(std::make_unique<Background>([&] { work(first, [&] { first.Flush(); }); }));
            threads.push_back(std::make_unique<Background>([&] { work(second, [&] { second.ResetDatabase(); }); }));
        }
        for (const auto& thread : threads) {
            EXPECT_TRUE(thread->Returns());
        }
    }
    EXPECT_GT(CapturedLog::Count("reset database"), 0);
    EXPECT_EQ(CapturedLog::Count("DB already opened"), 0);
    EXPECT_EQ(OpenDescriptors(), 2);
    first.ResetDatabase();
    second.ResetDatabase();
    ExpectFreshAndWorking(first, "x.db");
    ExpectFreshAndWorking(second, "y.db");
}

}  // namespace
