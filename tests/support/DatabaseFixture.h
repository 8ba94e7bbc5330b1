// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_DATABASE_FIXTURE_H
#define LUMORA_COMMON_TESTS_DATABASE_FIXTURE_H

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "ContextDatabase.h"
#include "Surroundings.h"
#include "TestClock.h"
#include "Waiting.h"

using Messages = std::vector<std::string>;
using Row = std::map<std::string, std::string>;
using Rows = std::vector<Row>;

constexpr const char* kDataDirectory = "/opt/usr/apps/lumora-service/data";
constexpr const char* kCreateTable = "CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, name TEXT UNIQUE)";

/// A statement that fails while it runs: its absolute value does not fit.
constexpr const char* kOverflow = "INSERT INTO t (id) SELECT abs(-9223372036854775807 - 1)";

/// How long a test waits for what must not happen.
constexpr std::chrono::milliseconds kShort{60};

/// The path as the library composes and logs it: with two slashes.
inline std::string DatabasePath(const std::string& name = "x.db") {
    return "/opt/usr/apps/lumora-service/data//" + name;
}

/// What one reset of a database logs, without what its opening adds.
inline Messages ResetLines(const std::string& name = "x.db") {
    return {"I reset database", "I remove " + DatabasePath(name) + " file success",
            "I remove " + DatabasePath(name) + "-journal file success"};
}

inline Messages Join(std::initializer_list<Messages> parts) {
    Messages all;
    for (const Messages& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// A connection that has nothing to do with the library: it prepares and inspects files.
class PlainConnection {
public:
    explicit PlainConnection(const std::string& path = DatabasePath()) {
        if (sqlite3_open(path.c_str(), &m_database) != SQLITE_OK) {
            ADD_FAILURE() << path << ": " << sqlite3_errmsg(m_database);
        }
    }
    ~PlainConnection() { EXPECT_EQ(sqlite3_close(m_database), SQLITE_OK); }
    PlainConnection(const PlainConnection&) = delete;
    PlainConnection& operator=(const PlainConnection&) = delete;

    /// Runs statements that must succeed.
    /// @return the first column of every row; "NULL" for NULL.
    Messages Run(const std::string& sql) {
        const auto [result, rows] = Try(sql);
        EXPECT_EQ(result, SQLITE_OK) << sql << ": " << sqlite3_errmsg(m_database);
        return rows;
    }

    /// Runs statements that may fail.
    /// @return the result code, and the first column of the rows that came before it.
    std::pair<int, Messages> Try(const std::string& sql) {
        Messages rows;
        const auto addRow = [](void* data, int, char** values, char**) {
            static_cast<Messages*>(data)->push_back(values[0] != nullptr ? values[0] : "NULL");
            return 0;
        };
        const int result = sqlite3_exec(m_database, sql.c_str(), addRow, &rows, nullptr);
        return {result, rows};
    }

private:
    sqlite3* m_database = nullptr;
};

/// @return the first column of what a connection of its own reads.
inline Messages ReadFrom(const std::string& name, const std::string& sql) {
    return PlainConnection(DatabasePath(name)).Run(sql);
}

/// @return the ids in the table of a file.
inline Messages Ids(const std::string& name = "x.db") {
    return ReadFrom(name, "SELECT id FROM t ORDER BY id");
}

/// While it lives, statements that call the SQL function hold() do not end before Release(), and neither does the
/// library's hold on its connections. Otherwise hold() is just 1.
class StatementHold {
public:
    StatementHold() { Set(true); }
    ~StatementHold() { Release(); }
    StatementHold(const StatementHold&) = delete;
    StatementHold& operator=(const StatementHold&) = delete;

    void Release() { Set(false); }

    /// Waits until a statement is held up.
    bool Wait() {
        std::unique_lock<std::mutex> lock(s_mutex);
        return s_changed.wait_for(lock, Waiting::kBound, [] { return s_held > 0; });
    }

    /// @return true while a statement is held up.
    bool IsHolding() {
        const std::lock_guard<std::mutex> lock(s_mutex);
        return s_held > 0;
    }

    /// Gives hold() to every connection that the process opens, the library's included.
    static void Install() {
        const auto addFunction = [](sqlite3* database, char**, const sqlite3_api_routines*) {
            return sqlite3_create_function(database, "hold", 0, SQLITE_UTF8, nullptr, Hold, nullptr, nullptr);
        };
        int (*extension)(sqlite3*, char**, const sqlite3_api_routines*) = addFunction;
        ASSERT_EQ(sqlite3_auto_extension(reinterpret_cast<void (*)()>(extension)), SQLITE_OK);
    }

private:
    static void Set(bool isArmed) {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_isArmed = isArmed;
        s_changed.notify_all();
    }

    static void Hold(sqlite3_context* context, int, sqlite3_value**) {
        std::unique_lock<std::mutex> lock(s_mutex);
        ++s_held;
        s_changed.notify_all();
        s_changed.wait_for(lock, Waiting::kBound, [] { return !s_isArmed; });
        --s_held;
        sqlite3_result_int(context, 1);
    }

    static inline std::mutex s_mutex;
    static inline std::condition_variable s_changed;
    static inline bool s_isArmed = false;
    static inline int s_held = 0;
};

/// Does something on a thread of its own.
class Background {
public:
    explicit Background(std::function<void()> action)
        : m_thread([this, action = std::move(action)] {
              action();
              m_returned.Open();
          }) {}
    ~Background() { m_thread.join(); }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    /// @return true when it has been done within the bound.
    bool Returns(std::chrono::milliseconds bound = Waiting::kBound) { return m_returned.Wait(bound); }

private:
    Waiting::Gate m_returned;
    std::thread m_thread;
};

/// Takes the data directory away for one scope: another folder is mounted over its parent.
class MissingDataDirectory {
public:
    MissingDataDirectory() { EXPECT_EQ(mount("none", m_parent.c_str(), "tmpfs", 0, nullptr), 0) << strerror(errno); }
    ~MissingDataDirectory() { EXPECT_EQ(umount2(m_parent.c_str(), MNT_DETACH), 0) << strerror(errno); }
    MissingDataDirectory(const MissingDataDirectory&) = delete;
    MissingDataDirectory& operator=(const MissingDataDirectory&) = delete;

private:
    std::string m_parent = std::filesystem::path(kDataDirectory).parent_path();
};

/// Makes the data directory unwritable for one scope, even for root.
class ReadOnlyDataDirectory {
public:
    ReadOnlyDataDirectory() {
        struct statvfs status {};
        EXPECT_EQ(statvfs(kDataDirectory, &status), 0);
        // A user's namespace may not drop what the file system below forbids. These flags are the same for both calls.
        const unsigned long kept = status.f_flag & (MS_NOSUID | MS_NODEV | MS_NOEXEC);
        EXPECT_EQ(mount(kDataDirectory, kDataDirectory, nullptr, MS_BIND, nullptr), 0) << strerror(errno);
        EXPECT_EQ(mount(nullptr, kDataDirectory, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | kept, nullptr), 0)
            << strerror(errno);
    }
    ~ReadOnlyDataDirectory() { EXPECT_EQ(umount2(kDataDirectory, MNT_DETACH), 0) << strerror(errno); }
    ReadOnlyDataDirectory(const ReadOnlyDataDirectory&) = delete;
    ReadOnlyDataDirectory& operator=(const ReadOnlyDataDirectory&) = delete;
};

/// A database whose flush is the test's to call: its own timer is not due before an hour has passed.
class DeferringDatabase : public ContextDatabase {
public:
    explicit DeferringDatabase(const std::string& name = "x.db", const std::string& createTable = kCreateTable)
        : ContextDatabase(name, createTable, /*interval=*/3600) {
        constexpr int kMaxId = 100000;
        do {
            CapturedLog::Clear();
            OnTimerCb(++m_id);
        } while (!CapturedLog::Lines().empty() && m_id < kMaxId);
        EXPECT_LT(m_id, kMaxId) << "no timer id is the object's";
    }

    void Flush() { OnTimerCb(m_id); }
    int Id() const { return m_id; }

private:
    int m_id = 0;
};

/// Starts every test in an empty data directory, with an empty log and a stopped clock.
class DatabaseTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { StatementHold::Install(); }
    static void TearDownTestSuite() { sqlite3_reset_auto_extension(); }

    DatabaseTest() {
        if (Surroundings::DataDirectory() != std::string(kDataDirectory) + "/") {
            throw std::runtime_error("not the library's data directory");
        }
        for (const auto& entry : std::filesystem::directory_iterator(kDataDirectory)) {
            std::filesystem::remove_all(entry.path());
        }
        CapturedLog::Clear();
    }

    /// Runs a statement at once.
    static void Write(ContextDatabase& database, const std::string& sql) {
        database.ExecuteQuery(sql.c_str(), {}, /*immediate=*/true);
    }

    static void Defer(ContextDatabase& database, const std::string& sql) {
        database.ExecuteQuery(sql.c_str(), {}, /*immediate=*/false);
    }

    /// What a select that must succeed reads.
    static Rows Select(ContextDatabase& database, const std::string& sql,
                       const ContextDatabase::ValueList& values = {}) {
        Rows rows;
        EXPECT_TRUE(database.SelectQuery(sql.c_str(), values, rows)) << sql;
        return rows;
    }

    /// The number of rows as the object itself sees it: another reader's lock could make its writes fail.
    static std::string RowCount(ContextDatabase& database) {
        const Rows rows = Select(database, "SELECT count(*) AS n FROM t");
        return rows.empty() ? "none" : rows[0].at("n");
    }

    /// How many descriptors of files in the data directory the process has open, deleted files included.
    static int OpenDescriptors() {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;
            const std::string target = std::filesystem::read_symlink(entry.path(), ignored);
            count += target.rfind(kDataDirectory, 0) == 0 ? 1 : 0;
        }
        return count;
    }

    /// Lets every timer see the stopped clock jump, which moves the deadlines along: from then on each counts from the
    /// time that the clock shows.
    static void SettleTimers(int timers) {
        CapturedLog::Clear();
        TestClock::Advance(60);
        EXPECT_TRUE(CapturedLog::WaitFor("add offset 60", timers));
        CapturedLog::Clear();
    }

    /// Moves the stopped clock, a second every other tick, until something has happened.
    template <class Condition>
    static bool AdvanceUntil(Condition condition) {
        const auto hasHappenedInTime = [&] {
            TestClock::Advance(1);
            return Waiting::Until(condition, std::chrono::milliseconds(500));
        };
        int seconds = 0;
        while (!hasHappenedInTime() && seconds < 40) {
            ++seconds;
        }
        return condition();
    }

    TestClock::Frozen m_clock{1700000000};
};

#endif  // LUMORA_COMMON_TESTS_DATABASE_FIXTURE_H
