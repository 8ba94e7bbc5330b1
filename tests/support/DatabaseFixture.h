// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_DATABASE_FIXTURE_H
#define LUMORA_COMMON_TESTS_DATABASE_FIXTURE_H

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <iterator>
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

constexpr const char* kCreateTable = "CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, name TEXT UNIQUE)";

/// A statement that compiles and then fails: the absolute value overflows.
constexpr const char* kOverflow = "INSERT INTO t (id) SELECT abs(-9223372036854775807 - 1)";

/// How long a test checks that something does not happen.
constexpr std::chrono::milliseconds kShort{60};

/// The path as the library composes and logs it, with two slashes before the name.
inline std::string DatabasePath(const std::string& name = "x.db") {
    return std::string(ContextDatabase::kDataDirectory) + "/" + name;
}

/// The lines that one reset logs, without the lines of the opening that follows.
inline Messages ResetLines(const std::string& name = "x.db") {
    return {"I reset database", "I remove " + DatabasePath(name) + " file success",
            "I remove " + DatabasePath(name) + "-journal file success"};
}

/// @return the lists, one after another.
inline Messages Join(std::initializer_list<Messages> parts) {
    Messages all;
    for (const Messages& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// A connection outside the library, which prepares and inspects files.
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
    /// @return the result code, and the first column of every row that was read.
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

/// @return the first column of every row, read through a PlainConnection.
inline Messages ReadFrom(const std::string& name, const std::string& sql) {
    return PlainConnection(DatabasePath(name)).Run(sql);
}

/// @return the ids in table t of a file.
inline Messages Ids(const std::string& name = "x.db") {
    return ReadFrom(name, "SELECT id FROM t ORDER BY id");
}

/// Writes a healthy file: the table, its index and four rows.
inline void MakeGoodFile(const std::string& path = DatabasePath()) {
    PlainConnection connection(path);
    connection.Run(kCreateTable);
    connection.Run("INSERT INTO t VALUES (1, 'name-10'), (2, 'name-20'), (3, 'name-30'), (4, 'name-40')");
}

/// While an object of this class exists, the SQL function hold() blocks until Release(). A statement that calls it
/// keeps the library's database mutex locked for that long. Without such an object hold() returns 1 at once.
class StatementHold {
public:
    StatementHold() { Set(true); }
    ~StatementHold() { Release(); }
    StatementHold(const StatementHold&) = delete;
    StatementHold& operator=(const StatementHold&) = delete;

    void Release() { Set(false); }

    /// Waits until a statement blocks in hold().
    bool Wait() {
        std::unique_lock<std::mutex> lock(s_mutex);
        return s_changed.wait_for(lock, Waiting::kBound, [] { return s_held > 0; });
    }

    /// @return true while a statement blocks in hold().
    bool IsHolding() {
        const std::lock_guard<std::mutex> lock(s_mutex);
        return s_held > 0;
    }

    /// Defines hold() in every connection that the process opens, including the library's. It is innocuous, so that a
    /// CHECK constraint may call it.
    static void Install() {
        const auto addFunction = [](sqlite3* database, char**, const sqlite3_api_routines*) {
            return sqlite3_create_function(database, "hold", 0, SQLITE_UTF8 | SQLITE_INNOCUOUS, nullptr, Hold, nullptr,
                                           nullptr);
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

/// Runs an action on a new thread, and joins the thread in the destructor.
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

    /// @return true when the action returns within the bound.
    bool Returns(std::chrono::milliseconds bound = Waiting::kBound) { return m_returned.Wait(bound); }

private:
    Waiting::Gate m_returned;
    std::thread m_thread;
};

/// Hides the data directory for one scope: an empty file system is mounted over its parent.
class MissingDataDirectory {
public:
    MissingDataDirectory() { EXPECT_EQ(mount("none", m_parent.c_str(), "tmpfs", 0, nullptr), 0) << strerror(errno); }
    ~MissingDataDirectory() { EXPECT_EQ(umount2(m_parent.c_str(), MNT_DETACH), 0) << strerror(errno); }
    MissingDataDirectory(const MissingDataDirectory&) = delete;
    MissingDataDirectory& operator=(const MissingDataDirectory&) = delete;

private:
    // The constant ends with a slash: its first parent_path() is the data directory itself.
    std::string m_parent = std::filesystem::path(ContextDatabase::kDataDirectory).parent_path().parent_path();
};

/// Makes the data directory unwritable for one scope, even for root.
class ReadOnlyDataDirectory {
public:
    ReadOnlyDataDirectory() {
        struct statvfs status {};
        EXPECT_EQ(statvfs(kPath, &status), 0);
        // A user namespace must keep the restrictions of the mount below. The ST_ and MS_ flags are the same bits.
        const unsigned long kept = status.f_flag & (MS_NOSUID | MS_NODEV | MS_NOEXEC);
        EXPECT_EQ(mount(kPath, kPath, nullptr, MS_BIND, nullptr), 0) << strerror(errno);
        EXPECT_EQ(mount(nullptr, kPath, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | kept, nullptr), 0)
            << strerror(errno);
    }
    ~ReadOnlyDataDirectory() { EXPECT_EQ(umount2(kPath, MNT_DETACH), 0) << strerror(errno); }
    ReadOnlyDataDirectory(const ReadOnlyDataDirectory&) = delete;
    ReadOnlyDataDirectory& operator=(const ReadOnlyDataDirectory&) = delete;

private:
    static constexpr const char* kPath = ContextDatabase::kDataDirectory;
};

/// A database that the test flushes: its timer does not fire before an hour has passed.
class DeferringDatabase : public ContextDatabase {
public:
    explicit DeferringDatabase(const std::string& name = "x.db", const std::string& createTable = kCreateTable)
        : ContextDatabase(name, createTable, /*interval=*/3600) {
        constexpr int kMaxId = 100000;
        do {
            CapturedLog::Clear();
            OnTimerCb(++m_id);
        } while (!CapturedLog::Lines().empty() && m_id < kMaxId);
        EXPECT_LT(m_id, kMaxId) << "no id matches the timer of the object";
    }

    void Flush() { OnTimerCb(m_id); }
    int Id() const { return m_id; }

private:
    int m_id = 0;
};

/// Starts every test with an empty data directory, an empty log and a stopped clock.
class DatabaseTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { StatementHold::Install(); }
    static void TearDownTestSuite() { sqlite3_reset_auto_extension(); }

    DatabaseTest() {
        if (Surroundings::DataDirectory() != ContextDatabase::kDataDirectory) {
            throw std::runtime_error("scripts/with-data-directory mounts another directory than the library uses");
        }
        for (const auto& entry : std::filesystem::directory_iterator(ContextDatabase::kDataDirectory)) {
            std::filesystem::remove_all(entry.path());
        }
        CapturedLog::Clear();
    }

    /// Runs a statement immediately.
    static void Write(ContextDatabase& database, const std::string& sql) {
        database.ExecuteQuery(sql.c_str(), {}, /*immediate=*/true);
    }

    static void Defer(ContextDatabase& database, const std::string& sql) {
        database.ExecuteQuery(sql.c_str(), {}, /*immediate=*/false);
    }

    /// Runs a select that must succeed.
    /// @return its rows.
    static Rows Select(ContextDatabase& database, const std::string& sql,
                       const ContextDatabase::ValueList& values = {}) {
        Rows rows;
        EXPECT_TRUE(database.SelectQuery(sql.c_str(), values, rows)) << sql;
        return rows;
    }

    /// Expects an open database with an empty table, and that it can be written.
    static void ExpectFreshAndWorking(ContextDatabase& database, const std::string& name = "x.db") {
        EXPECT_TRUE(database.IsRunning());
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(DatabasePath(name))));
        EXPECT_EQ(Ids(name), Messages());
        Write(database, "INSERT INTO t (id) VALUES (7)");
        EXPECT_EQ(Ids(name), Messages({"7"}));
    }

    /// Expects a closed database, whose operations only log.
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

    /// Counts the rows through the object itself: a second connection could lock the file and make its writes fail.
    static std::string RowCount(ContextDatabase& database) {
        const Rows rows = Select(database, "SELECT count(*) AS n FROM t");
        return rows.empty() ? "none" : rows[0].at("n");
    }

    /// Counts the open descriptors of files in the data directory, including deleted files.
    static int OpenDescriptors() {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;
            const std::string target = std::filesystem::read_symlink(entry.path(), ignored);
            count += target.rfind(ContextDatabase::kDataDirectory, 0) == 0 ? 1 : 0;
        }
        return count;
    }

    /// @return the number of threads of this process. The kernel may list a joined thread for a moment.
    static std::size_t ThreadCount() {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return static_cast<std::size_t>(std::distance(tasks, std::filesystem::directory_iterator()));
    }

    /// @return the number of threads once a sanitizer has started its own, which it does along with the first one.
    static std::size_t SettledThreadCount() {
        pid_t first = 0;
        std::thread([&first] { first = gettid(); }).join();
        const std::string task = "/proc/self/task/" + std::to_string(first);
        EXPECT_TRUE(Waiting::Until([&] { return !std::filesystem::exists(task); }));
        return ThreadCount();
    }

    static bool ThreadCountBecomes(std::size_t count) {
        return Waiting::Until([count] { return ThreadCount() == count; }, std::chrono::seconds(2));
    }

    /// Makes the stopped clock jump, and waits until the given number of timers have moved their deadlines along. Every
    /// later deadline counts from the time that the clock then shows.
    static void SettleTimers(int timers) {
        CapturedLog::Clear();
        TestClock::Advance(60);
        EXPECT_TRUE(CapturedLog::WaitFor("add offset 60", timers));
        CapturedLog::Clear();
    }

    /// Moves the stopped clock by one second every 500 ms until a condition holds.
    template <class Condition>
    static bool AdvanceUntil(Condition condition) {
        const auto holdsAfterNextSecond = [&] {
            TestClock::Advance(1);
            return Waiting::Until(condition, std::chrono::milliseconds(500));
        };
        int seconds = 0;
        while (!holdsAfterNextSecond() && seconds < 40) {
            ++seconds;
        }
        return condition();
    }

    TestClock::Frozen m_clock{1700000000};
};

#endif  // LUMORA_COMMON_TESTS_DATABASE_FIXTURE_H
