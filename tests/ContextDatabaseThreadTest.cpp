// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "DatabaseFixture.h"
#include "NextFunction.h"

// The order of the library's mutexes. This program replaces GLib's lock calls and records, for each thread, which
// mutexes it holds.

namespace {

/// The mutexes that a thread holds. Trivial, because a thread may still lock after its thread-local destructors have
/// run.
struct HeldMutexes {
    const void* mutexes[32];
    std::size_t count;
};

thread_local HeldMutexes t_held{};
thread_local const void* t_first = nullptr;  ///< the first mutex that the thread locked since a test set this to null

std::atomic<const void*> g_databaseMutex{nullptr};  ///< null until a test has learned its address
std::atomic<const void*> g_querySetMutex{nullptr};  ///< likewise
std::atomic<int> g_locksInOrder{0};                 ///< the database mutex was locked under the query set mutex
std::atomic<int> g_locksInReverse{0};               ///< the query set mutex was locked under the database mutex

bool HoldsMutex(const void* mutex) {
    return std::find(t_held.mutexes, t_held.mutexes + t_held.count, mutex) != t_held.mutexes + t_held.count;
}

void RecordLock(const void* mutex) {
    if (t_first == nullptr) {
        t_first = mutex;
    }
    g_locksInOrder += mutex == g_databaseMutex && HoldsMutex(g_querySetMutex) ? 1 : 0;
    g_locksInReverse += mutex == g_querySetMutex && HoldsMutex(g_databaseMutex) ? 1 : 0;
    if (t_held.count < std::size(t_held.mutexes)) {
        t_held.mutexes[t_held.count++] = mutex;
    }
}

void RecordUnlock(const void* mutex) {
    const void** end = t_held.mutexes + t_held.count;
    const void** place = std::find(t_held.mutexes, end, mutex);
    if (place != end) {
        std::copy(place + 1, end, place);
        --t_held.count;
    }
}

/// @return the mutex that a call locks first.
const void* FirstMutexLockedBy(const std::function<void()>& call) {
    t_first = nullptr;
    call();
    return t_first;
}

}  // namespace

#ifdef LUMORA_TEST_WRAPS_PTHREAD_MUTEX

// Under ThreadSanitizer, support/GLibOnPthreads.cpp replaces GLib's calls, and the linker redirects its pthread calls
// to these functions.

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    RecordLock(mutex);
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    RecordUnlock(mutex);
    return __real_pthread_mutex_unlock(mutex);
}
}

#else

void g_mutex_lock(GMutex* mutex) {
    static const auto next = NextFunction<decltype(g_mutex_lock)>("g_mutex_lock");
    RecordLock(mutex);
    next(mutex);
}

void g_mutex_unlock(GMutex* mutex) {
    static const auto next = NextFunction<decltype(g_mutex_unlock)>("g_mutex_unlock");
    RecordUnlock(mutex);
    next(mutex);
}

#endif

namespace {

namespace fs = std::filesystem;

const std::string kPath = DatabasePath();

using ContextDatabaseThreadTest = DatabaseTest;

// Lock order

TEST_F(ContextDatabaseThreadTest, TakesQuerySetMutexBeforeDatabaseMutex) {
    DeferringDatabase database;
    g_databaseMutex = FirstMutexLockedBy([&] { Select(database, "SELECT 1"); });
    g_querySetMutex = FirstMutexLockedBy([&] { Defer(database, "INSERT INTO t (id) VALUES (1)"); });
    ASSERT_NE(g_databaseMutex, g_querySetMutex);
    const struct {
        const char* name;
        std::function<void()> action;
        bool needsBoth;
    } rows[] = {
        {"flush", [&] { database.Flush(); }, true},
        {"flush that fails and resets",
         [&] {
             Defer(database, kOverflow);
             database.Flush();
         },
         true},
        {"flush by the timer",
         [] {
             ContextDatabase flushed("y.db", kCreateTable, /*interval=*/-1);  // due at every tick
             Defer(flushed, "INSERT INTO t (id) VALUES (1)");
             EXPECT_TRUE(Waiting::Until([&] { return RowCount(flushed) == "1"; }));
         },
         true},
        {"empty flush", [&] { database.Flush(); }, false},
        {"immediate write", [&] { Write(database, "INSERT INTO t (id) VALUES (2)"); }, false},
        {"immediate write that fails and resets", [&] { Write(database, kOverflow); }, false},
        {"deferral", [&] { Defer(database, "INSERT INTO t (id) VALUES (3)"); }, false},
        {"select", [&] { Select(database, "SELECT * FROM t"); }, false},
        {"reset", [&] { database.ResetDatabase(); }, false},
        {"construction and destruction", [] { const ContextDatabase other("z.db", kCreateTable); }, false},
    };
    for (const auto& row : rows) {
        g_locksInOrder = 0;
        row.action();
        EXPECT_EQ(g_locksInOrder > 0, row.needsBoth) << row.name;
        EXPECT_EQ(g_locksInReverse, 0) << row.name;
    }
}

// Several objects

/// A file whose integrity check calls hold(): the check evaluates the constraint for every row.
void MakeFileWhoseCheckHolds(const std::string& name) {
    PlainConnection(DatabasePath(name)).Run("CREATE TABLE held (x CHECK (hold() = 1)); INSERT INTO held VALUES (1)");
}

TEST_F(ContextDatabaseThreadTest, SerialisesObjectsOnDifferentFiles) {
    struct Action {
        const char* name;
        std::function<void()> run;
    };
    MakeFileWhoseCheckHolds("checked.db");
    ContextDatabase slow("slow.db", kCreateTable);
    ContextDatabase other("x.db", kCreateTable);
    const Action holders[] = {
        {"write", [&] { Write(slow, "INSERT INTO t (name) SELECT hold() || random()"); }},
        {"select", [&] { Select(slow, "SELECT hold()"); }},
        {"integrity check", [] { const ContextDatabase checked("checked.db", kCreateTable); }},
    };
    const Action waiters[] = {
        {"write", [&] { Write(other, "INSERT INTO t (id) VALUES (1)"); }},
        {"select", [&] { Select(other, "SELECT 1"); }},
        {"reset", [&] { other.ResetDatabase(); }},
        {"opening", [] { const ContextDatabase third("third.db", kCreateTable); }},
    };
    for (const Action& holder : holders) {
        for (const Action& waiter : waiters) {
            SCOPED_TRACE(std::string(waiter.name) + " during " + holder.name);
            StatementHold hold;
            Background holding(holder.run);
            ASSERT_TRUE(hold.Wait());
            Background waiting(waiter.run);
            EXPECT_FALSE(waiting.Returns(kShort));
            EXPECT_TRUE(hold.IsHolding());
            hold.Release();
            EXPECT_TRUE(waiting.Returns());
        }
    }
    EXPECT_EQ(RowCount(slow), "4");
}

TEST_F(ContextDatabaseThreadTest, OpensNoFileWhileOtherObjectRunsStatement) {
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

TEST_F(ContextDatabaseThreadTest, SurvivesConcurrentWritesReadsAndResets) {
    DeferringDatabase first("x.db");
    ContextDatabase second("y.db", kCreateTable);
    CapturedLog::Clear();
    const auto work = [](ContextDatabase& database, const std::function<void()>& extra) {
        for (int round = 0; round < 15; ++round) {
            Write(database, "INSERT INTO t (name) VALUES ('x')");  // fails and resets if the name is already stored
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
