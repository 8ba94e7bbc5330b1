// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "DatabaseFixture.h"
#include "NextFunction.h"

namespace {

/// The row that the next integrity check reports; without a value the check runs as usual.
std::optional<std::string> g_nextCheckRow;

}  // namespace

/// Replaces SQLite's function for the library, to pass on rows that SQLite itself never reports.
extern "C" int sqlite3_exec(sqlite3* database, const char* sql, int (*callback)(void*, int, char**, char**), void* data,
                            char** error) {
    if (g_nextCheckRow && std::string(sql) == "pragma integrity_check") {
        std::string text = *g_nextCheckRow;
        g_nextCheckRow.reset();
        char name[] = "integrity_check";
        char* values[] = {text.data()};
        char* names[] = {name};
        return callback(data, /*columnCount=*/1, values, names) == 0 ? SQLITE_OK : SQLITE_ABORT;
    }
    static const auto next = NextFunction<decltype(sqlite3_exec)>("sqlite3_exec");
    return next(database, sql, callback, data, error);
}

namespace {

namespace fs = std::filesystem;

const std::string kPath = DatabasePath();

const Messages kCannotOpen = {"E Cannot open database: unable to open database file, " + kPath, "E create db error!"};
const Messages kSymbolicLink = {"E " + kPath + " is symbolic link file!", "E create db error!"};
const Messages kFailedCheck = {"E Query ERROR Q : pragma integrity_check", "E integrity check db error!"};

/// @return the file offset of the root page of a table or an index.
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

/// Changes entries of the index and keeps their order: the check then reports one missing row for each.
void DamageIndexEntries(const std::vector<std::string>& names) {
    const std::size_t page = RootPage("sqlite_autoindex_t_1");
    std::string content = Surroundings::ReadFile(kPath);
    for (const std::string& name : names) {
        content.at(content.find(name, page) + name.size() - 1) = '5';
    }
    Surroundings::WriteFile(kPath, content);
}

void DamageTablePage() {
    ReplaceByte(RootPage("t"), '\0');  // the type of the page
}

void DamageSchemaPage() {
    ReplaceByte(/*offset=*/100, '\0');  // the type of the first page, after the file header
}

/// @return the result and the rows of the integrity check, run by a plain connection.
std::pair<int, Messages> CheckIntegrity() {
    return PlainConnection().Try("pragma integrity_check");
}

/// @return one log line for each row that the check reports.
Messages FailedRows(std::size_t count) {
    return Messages(count, "E integrity check failed");
}

using ContextDatabaseHealingTest = DatabaseTest;

// Damaged files

TEST_F(ContextDatabaseHealingTest, RebuildsFileThatIsNoDatabase) {
    Surroundings::WriteFile(kPath, "This text is not a database.");
    ASSERT_EQ(CheckIntegrity(), std::make_pair(SQLITE_NOTADB, Messages()));
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kFailedCheck, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseHealingTest, RebuildsFileWithDamagedSchema) {
    MakeGoodFile();
    DamageSchemaPage();
    ASSERT_EQ(CheckIntegrity(), std::make_pair(SQLITE_CORRUPT, Messages()));
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kFailedCheck, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseHealingTest, ResetsOnceForAnyNumberOfFailedRows) {
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

TEST_F(ContextDatabaseHealingTest, ResetsOnceWhenCheckReportsRowsThenFails) {
    MakeGoodFile();
    DamageTablePage();
    const auto [result, found] = CheckIntegrity();
    ASSERT_EQ(result, SQLITE_CORRUPT);
    ASSERT_GE(found.size(), 1U);
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({FailedRows(found.size()), kFailedCheck, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseHealingTest, RunsCreationStatementAgainAfterFailedRow) {
    MakeGoodFile();
    DamageIndexEntries({"name-20"});
    ContextDatabase database("x.db", "CREATE TABLE t (id INTEGER PRIMARY KEY)");
    EXPECT_EQ(
        CapturedLog::Messages(),
        Join({FailedRows(1), ResetLines(), {"E error excute CREATE TABLE t (id INTEGER PRIMARY KEY)"}, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseHealingTest, RebuildsFileDamagedWhileOpen) {
    ContextDatabase database("x.db", kCreateTable);
    Write(database, "INSERT INTO t (id) VALUES (1)");
    Surroundings::WriteFile(kPath, std::string(5000, 'x'));
    Write(database, "INSERT INTO t (id) VALUES (2)");
    EXPECT_EQ(CapturedLog::Messages(),
              Join({{"E Query ERROR Q : INSERT INTO t (id) VALUES (2)", "E vecSqlQueryValue size : 0"}, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseHealingTest, RebuildsFileLockedByAnotherConnection) {
    MakeGoodFile();
    PlainConnection other;
    other.Run("BEGIN EXCLUSIVE");
    ASSERT_EQ(CheckIntegrity(), std::make_pair(SQLITE_BUSY, Messages()))
        << "the check must fail without reporting damage";
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({{std::string("E error excute ") + kCreateTable}, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseHealingTest, AcceptsOkRowInAnyCase) {
    for (const char* text : {"ok", "OK", "Ok", "oK"}) {
        MakeGoodFile();
        g_nextCheckRow = text;
        const ContextDatabase database("x.db", kCreateTable);
        EXPECT_EQ(g_nextCheckRow, std::nullopt) << "the check did not run";
        EXPECT_EQ(CapturedLog::Messages(), Messages()) << text;
        EXPECT_EQ(Ids(), Messages({"1", "2", "3", "4"})) << text;
        fs::remove(kPath);
    }
}

TEST_F(ContextDatabaseHealingTest, ResetsForAnyRowOtherThanOk) {
    for (const char* text : {"", "o", "ok ", " ok", "okay", "0k", "row 1 missing from index"}) {
        MakeGoodFile();
        CapturedLog::Clear();
        g_nextCheckRow = text;
        const ContextDatabase database("x.db", kCreateTable);
        EXPECT_EQ(CapturedLog::Messages(), Join({FailedRows(1), ResetLines()})) << text;
        EXPECT_EQ(Ids(), Messages()) << text;
        fs::remove(kPath);
    }
}

// Symbolic links and directories

TEST_F(ContextDatabaseHealingTest, ReplacesSymbolicLinkButNotItsTarget) {
    const Surroundings::TemporaryFolder folder;
    MakeGoodFile(folder / "target.db");
    const std::string before = Surroundings::ReadFile(folder / "target.db");
    fs::create_symlink(folder / "target.db", kPath);
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kSymbolicLink, ResetLines()}));
    ExpectFreshAndWorking(database);
    EXPECT_EQ(Surroundings::ReadFile(folder / "target.db"), before);
}

TEST_F(ContextDatabaseHealingTest, ReplacesDanglingSymbolicLink) {
    const Surroundings::TemporaryFolder folder;
    fs::create_symlink(folder / "missing.db", kPath);
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kSymbolicLink, ResetLines()}));
    ExpectFreshAndWorking(database);
    EXPECT_FALSE(fs::exists(folder / "missing.db"));
}

TEST_F(ContextDatabaseHealingTest, DoesNotFollowLinkThatCannotBeRemoved) {
    MakeGoodFile(DatabasePath("target.db"));
    fs::create_symlink(DatabasePath("target.db"), kPath);
    const ReadOnlyDataDirectory readOnly;
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kSymbolicLink, ResetLines(), kSymbolicLink}));
    ExpectClosed(database);
}

TEST_F(ContextDatabaseHealingTest, ReplacesEmptyDirectory) {
    fs::create_directory(kPath);
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kCannotOpen, ResetLines()}));
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseHealingTest, StaysClosedWhenPathIsNonEmptyDirectory) {
    fs::create_directory(kPath);
    Surroundings::WriteFile(kPath + "/file", "content");
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kCannotOpen, ResetLines(), kCannotOpen}));
    ExpectClosed(database);
    EXPECT_EQ(Surroundings::ReadFile(kPath + "/file"), "content");
    EXPECT_EQ(OpenDescriptors(), 0);
}

// A missing or read-only data directory

TEST_F(ContextDatabaseHealingTest, ReopensOnResetOnceDataDirectoryExists) {
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

TEST_F(ContextDatabaseHealingTest, ReopensOnResetOnceDirectoryIsWritable) {
    auto readOnly = std::make_unique<ReadOnlyDataDirectory>();
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kCannotOpen, ResetLines(), kCannotOpen}));
    ExpectClosed(database);
    readOnly.reset();
    database.ResetDatabase();
    ExpectFreshAndWorking(database);
}

TEST_F(ContextDatabaseHealingTest, KeepsRowsInReadOnlyDirectory) {
    MakeGoodFile();
    const std::string before = Surroundings::ReadFile(kPath);
    const ReadOnlyDataDirectory readOnly;
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
    Write(database, "INSERT INTO t (id) VALUES (7)");
    EXPECT_EQ(CapturedLog::Messages(),
              Join({{"E Query ERROR Q : INSERT INTO t (id) VALUES (7)", "E vecSqlQueryValue size : 0"},
                    ResetLines()}));  // "success", although nothing was removed
    EXPECT_EQ(RowCount(database), "4");
    EXPECT_EQ(Surroundings::ReadFile(kPath), before);
}

TEST_F(ContextDatabaseHealingTest, ResetsOnceWhenDamagedFileCannotBeRemoved) {
    Surroundings::WriteFile(kPath, "not a database");
    const ReadOnlyDataDirectory readOnly;
    const ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({kFailedCheck, ResetLines(), kFailedCheck}));
    EXPECT_EQ(Surroundings::ReadFile(kPath), "not a database");
    EXPECT_FALSE(database.IsRunning());
}

TEST_F(ContextDatabaseHealingTest, EndsClosedWhenFailedRowsCannotBeRemoved) {
    MakeGoodFile();
    DamageIndexEntries({"name-20"});
    const std::string before = Surroundings::ReadFile(kPath);
    auto readOnly = std::make_unique<ReadOnlyDataDirectory>();
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(
        CapturedLog::Messages(),
        Join({FailedRows(1), ResetLines(), FailedRows(1), {"E integrity check db error!", "E DB not opened yet"}}));
    ExpectClosed(database);
    EXPECT_EQ(OpenDescriptors(), 0);
    CapturedLog::Clear();
    database.ResetDatabase();
    EXPECT_EQ(CapturedLog::Messages(), Join({ResetLines(), FailedRows(1), {"E integrity check db error!"}}));
    ExpectClosed(database);
    EXPECT_EQ(Surroundings::ReadFile(kPath), before);
    readOnly.reset();
    database.ResetDatabase();
    ExpectFreshAndWorking(database);
}

// Log lines

TEST_F(ContextDatabaseHealingTest, LogsFromMethodThatPerformsStep) {
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

}  // namespace
