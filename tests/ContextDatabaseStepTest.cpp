// SPDX-License-Identifier: Apache-2.0
#include <glib.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "ContextDatabase.h"
#include "ContextTimer.h"
#include "DatabaseFixture.h"
#include "NextFunction.h"

// The order of the steps in which a database is constructed and destroyed. This program replaces the functions of GLib
// and SQLite that the steps call, and records the calls of the test's own thread. It is not built for ThreadSanitizer,
// where support/GLibOnPthreads.cpp replaces the same GLib functions.

namespace {

thread_local Messages* t_steps = nullptr;  ///< receives the calls of the thread; null records nothing
TimerId g_timerId = 0;                     ///< the timer that was set last
std::function<void()> g_afterOpen;         ///< runs after every recorded sqlite3_open(), if set
std::function<void()> g_beforeJoin;        ///< runs before every recorded g_thread_join(), if set

void Record(const std::string& step) {
    if (t_steps != nullptr) {
        t_steps->push_back(step);
    }
}

thread_local int t_locks = 0;                        ///< mutexes that the thread locked while it recorded
thread_local std::function<void(int)> t_beforeLock;  ///< runs before each with its number from 1, if set

}  // namespace

void g_mutex_lock(GMutex* mutex) {
    if (t_steps != nullptr && t_beforeLock) {
        t_beforeLock(++t_locks);
    }
    NextFunction<decltype(g_mutex_lock)>("g_mutex_lock")(mutex);
}

GThread* g_thread_new(const gchar* name, GThreadFunc entry, gpointer data) {
    Record("start thread");
    return NextFunction<decltype(g_thread_new)>("g_thread_new")(name, entry, data);
}

gpointer g_thread_join(GThread* thread) {
    Record("join thread");
    if (t_steps != nullptr && g_beforeJoin) {
        g_beforeJoin();
    }
    return NextFunction<decltype(g_thread_join)>("g_thread_join")(thread);
}

/// Queues the timer's requests, whose data belong to the event thread afterwards.
void g_async_queue_push_sorted(GAsyncQueue* queue, gpointer data, GCompareDataFunc compare, gpointer userData) {
    const auto* message = static_cast<const TEventMessage*>(data);
    if (t_steps != nullptr && message->nEventId == TIMER_EVENT_ADD) {
        const auto* timer = static_cast<const CTimerData*>(message->pData);
        g_timerId = timer->timerId;
        Record("set timer of " + std::to_string(timer->interval) + " s");
    } else if (t_steps != nullptr && message->nEventId == TIMER_EVENT_REMOVE) {
        Record(*static_cast<const int*>(message->pData) == g_timerId ? "kill timer" : "kill another timer");
    }
    NextFunction<decltype(g_async_queue_push_sorted)>("g_async_queue_push_sorted")(queue, data, compare, userData);
}

void g_async_queue_push(GAsyncQueue* queue, gpointer data) {
    Record("queue stop message");
    NextFunction<decltype(g_async_queue_push)>("g_async_queue_push")(queue, data);
}

int sqlite3_open(const char* path, sqlite3** database) {
    Record("open");
    const int result = NextFunction<decltype(sqlite3_open)>("sqlite3_open")(path, database);
    if (t_steps != nullptr && g_afterOpen) {
        std::function<void()> action = g_afterOpen;  // it may clear the variable
        action();
    }
    return result;
}

int sqlite3_close(sqlite3* database) {
    Record(database != nullptr ? "close" : "close nothing");
    return NextFunction<decltype(sqlite3_close)>("sqlite3_close")(database);
}

namespace {

class ContextDatabaseStepTest : public DatabaseTest {
protected:
    /// @return the steps of an action, in order.
    static Messages StepsOf(const std::function<void()>& action) {
        Messages steps;
        t_steps = &steps;
        action();
        t_steps = nullptr;
        return steps;
    }

    std::unique_ptr<ContextDatabase> m_database;
};

TEST_F(ContextDatabaseStepTest, OpensWithoutTimerWhenNoIntervalIsGiven) {
    const auto construct = [&] { m_database = std::make_unique<ContextDatabase>("x.db", kCreateTable); };
    EXPECT_EQ(StepsOf(construct), Messages({"open"}));
    EXPECT_EQ(StepsOf([&] { m_database.reset(); }), Messages({"close"}));
}

TEST_F(ContextDatabaseStepTest, StartsAndSetsTimerBeforeOpening) {
    const struct {
        int interval;
        const char* timer;
    } rows[] = {
        {5, "set timer of 5 s"},
        {0, "set timer of 0 s"},
        {-1, "set timer of 4294967295 s"},
        {-60, "set timer of 4294967236 s"},
    };
    for (const auto& row : rows) {
        const auto construct = [&] {
            m_database = std::make_unique<ContextDatabase>("x.db", kCreateTable, row.interval);
        };
        EXPECT_EQ(StepsOf(construct), Messages({"start thread", "start thread", row.timer, "open"})) << row.interval;
        m_database.reset();
    }
}

TEST_F(ContextDatabaseStepTest, ClosesThenKillsThenStopsTimer) {
    const auto construct = [&] { m_database = std::make_unique<ContextDatabase>("x.db", kCreateTable, 3600); };
    StepsOf(construct);
    EXPECT_EQ(StepsOf([&] { m_database.reset(); }),
              Messages({"close", "kill timer", "join thread", "queue stop message", "join thread", "close nothing"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseStepTest, ForgetsTimerIdBeforeStoppingTimer) {
    ContextDatabase* database = nullptr;
    StepsOf([&] { database = new ContextDatabase("x.db", kCreateTable, /*interval=*/3600); });
    database->OnTimerCb(g_timerId);
    EXPECT_EQ(CapturedLog::Messages(), Messages()) << "the recorded id is not the timer's";
    g_beforeJoin = [&] {
        database->OnTimerCb(g_timerId);
        database->OnTimerCb(0);  // the id is 0 now; no statement is queued
    };
    StepsOf([&] { delete database; });
    g_beforeJoin = nullptr;
    EXPECT_EQ(CapturedLog::Messages(), Messages({"E NOT matched any timer", "E NOT matched any timer"}))
        << "not one line for each of the timer's two threads";
}

/// Constructs databases while "another thread" acts between two steps: the action runs on the test's own thread, just
/// before the constructor locks a mutex for the given time.
class ContextDatabaseRaceTest : public ContextDatabaseStepTest {
protected:
    ~ContextDatabaseRaceTest() override { Database().~ContextDatabase(); }

    ContextDatabase& Database() { return *std::launder(reinterpret_cast<ContextDatabase*>(m_memory)); }

    void ConstructWhile(int lock, const std::function<void()>& action) {
        t_locks = 0;
        t_beforeLock = [&](int number) {
            if (number == lock) {
                t_beforeLock = nullptr;
                action();
            }
        };
        StepsOf([&] { new (m_memory) ContextDatabase("x.db", kCreateTable); });
        t_beforeLock = nullptr;
    }

private:
    alignas(ContextDatabase) unsigned char m_memory[sizeof(ContextDatabase)];
};

TEST_F(ContextDatabaseRaceTest, KeepsFileThatWasOpenedInTheMeantime) {
    ConstructWhile(/*lock=*/1, [this] { Database().ResetDatabase(); });
    EXPECT_EQ(CapturedLog::Messages(), Join({ResetLines(), {"E DB already opened"}}));
    EXPECT_TRUE(Database().IsRunning());
    Rows rows;
    EXPECT_TRUE(Database().SelectQuery("SELECT id FROM t", {}, rows)) << "the file has no table";
}

TEST_F(ContextDatabaseRaceTest, StaysClosedIfFileWasClosedInTheMeantime) {
    ConstructWhile(/*lock=*/2, [this] {
        std::filesystem::remove(DatabasePath());
        std::filesystem::create_directories(DatabasePath() + "/full");  // a folder that a reset cannot remove
        Database().ResetDatabase();
        CapturedLog::Clear();
    });
    const std::vector<std::string> origins = CapturedLog::Origins();
    ASSERT_FALSE(origins.empty());
    EXPECT_EQ(origins[0], "6 ContextDatabase.cpp: CheckDatabaseIntegrity_ > DB not opened yet");
    EXPECT_EQ(CapturedLog::Messages(), Messages({"E DB not opened yet", "E DB not opened yet"})) << "another reset";
    EXPECT_FALSE(Database().IsRunning());
    std::filesystem::remove_all(DatabasePath());
}

TEST_F(ContextDatabaseStepTest, MatchesNoTimerWhileItIsDestroyed) {
    ContextDatabase* database = nullptr;
    StepsOf([&] { database = new ContextDatabase("x.db", kCreateTable, /*interval=*/3600); });
    int calls = 0;
    g_beforeJoin = [&] {
        ++calls;
        database->OnTimerCb(1);
        database->OnTimerCb(-1);
    };
    StepsOf([&] { delete database; });
    g_beforeJoin = nullptr;
    EXPECT_GT(calls, 0);
    EXPECT_EQ(CapturedLog::Count("NOT matched any timer"), 2 * calls);
}

TEST_F(ContextDatabaseStepTest, ClosesFileThatALinkHasReplaced) {
    g_afterOpen = [] {
        g_afterOpen = nullptr;
        std::filesystem::rename(DatabasePath(), DatabasePath("y.db"));
        std::filesystem::create_symlink(DatabasePath("y.db"), DatabasePath());
    };
    const Messages steps = StepsOf([&] {
        m_database = std::make_unique<ContextDatabase>("x.db", kCreateTable);
        m_database.reset();
    });
    EXPECT_EQ(CapturedLog::Count(DatabasePath() + " is symbolic link file!"), 1);
    EXPECT_EQ(std::count(steps.begin(), steps.end(), "open"), 2);
    EXPECT_EQ(std::count(steps.begin(), steps.end(), "close"), 2);
}

}  // namespace
