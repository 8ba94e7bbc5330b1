// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DatabaseQueryFixture.h"

namespace {

using ContextDatabaseDeferredTest = QueryTest<DeferringDatabase>;
using ContextDatabaseTimerFlushTest = DatabaseTest;

// Statements that run immediately or deferred

TEST_F(ContextDatabaseDeferredTest, RunsOnlyFirstStatementOfText) {
    Write(m_database, "INSERT INTO t (id) VALUES (1); INSERT INTO t (id) VALUES (2)");
    Defer(m_database, "INSERT INTO t (id) VALUES (3); INSERT INTO t (id) VALUES (4)");
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"1", "3"}));
    EXPECT_EQ(Select(m_database, "SELECT 1 AS a; SELECT 2 AS a; no statement"), Rows({{{"a", "1"}}}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseDeferredTest, ResetsAfterEveryKindOfFailedWrite) {
    const std::string insert = "INSERT INTO t VALUES (?, ?)";
    const auto bindFailure = [&](int size) { return Join({{BindFailure(insert, size)}, ResetLines()}); };
    const auto unknownTag = [&](int size) {
        return Join({{"E unknown enum type", BindFailure(insert, size)}, ResetLines()});
    };
    const struct {
        const char* name;
        std::string query;
        ValueList values;
        Messages expected;
    } rows[] = {
        {"does not compile", "INSRET", Make(1), Join({{"E error excute INSRET"}, ResetLines()})},
        {"no such table", "DELETE FROM u", {}, Join({{"E error excute DELETE FROM u"}, ResetLines()})},
        {"too many values", insert, Make(1, "two", 3L), bindFailure(3)},
        {"tag too large", insert, {{SQL_INT, {}}, {TypeTag(4), {}}}, unknownTag(2)},
        {"tag too small", insert, {{TypeTag(-1), {}}}, unknownTag(1)},
        {"constraint", insert, Make(1, "one"), StepFailure(insert, 2)},
        {"error while running", kOverflow, {}, StepFailure(kOverflow)},
        {"a row", "SELECT * FROM t", {}, StepFailure("SELECT * FROM t")},
        {"a row of a pragma", "PRAGMA user_version", {}, StepFailure("PRAGMA user_version")},
        {"empty text", "", {}, StepFailure("")},
        {"only a comment", "-- ", {}, StepFailure("-- ")},
        {"a value without a parameter", "-- ", Make(1), Join({{BindFailure("-- ", 1)}, ResetLines()})},
    };
    for (const bool isDeferred : {false, true}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(std::string(row.name) + (isDeferred ? ", deferred" : ""));
            Write(m_database, "INSERT INTO t VALUES (1, 'one')");
            CapturedLog::Clear();
            m_database.ExecuteQuery(row.query.c_str(), row.values, !isDeferred);
            if (isDeferred) {
                EXPECT_EQ(CapturedLog::Messages(), Messages());
                EXPECT_EQ(Ids(), Messages({"1"}));
                m_database.Flush();
            }
            EXPECT_EQ(CapturedLog::Messages(), row.expected);
            EXPECT_EQ(Ids(), Messages());
            EXPECT_TRUE(m_database.IsRunning());
        }
    }
}

TEST_F(ContextDatabaseDeferredTest, RefusesNullQueryWithoutReset) {
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    m_database.ExecuteQuery(nullptr, {}, /*immediate=*/true);
    m_database.ExecuteQuery(nullptr, {}, /*immediate=*/false);
    EXPECT_EQ(CapturedLog::Messages(), Messages({"E query is NULL", "E query is NULL"}));
    Rows rows = {{{"kept", "row"}}};
    CapturedLog::Clear();
    EXPECT_FALSE(m_database.SelectQuery(nullptr, {}, rows));
    EXPECT_EQ(rows, Rows({{{"kept", "row"}}}));
    EXPECT_EQ(CapturedLog::Messages(), Messages({"E error select (null)"}));
    CapturedLog::Clear();
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"1"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

// Deferred statements

TEST_F(ContextDatabaseDeferredTest, RunsDeferredStatementsInCallOrder) {
    Write(m_database, "CREATE TABLE log (n INTEGER PRIMARY KEY, text TEXT)");
    for (const char* text : {"c", "a", "b"}) {
        m_database.ExecuteQuery("INSERT INTO log (text) VALUES (?)", Make(text), /*immediate=*/false);
    }
    EXPECT_EQ(ReadFrom("x.db", "SELECT text FROM log"), Messages());
    m_database.ExecuteQuery("INSERT INTO log (text) VALUES ('first')", {}, /*immediate=*/true);
    EXPECT_EQ(ReadFrom("x.db", "SELECT text FROM log"), Messages({"first"}))
        << "the immediate statement waited for deferred ones";
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT text FROM log ORDER BY n"), Messages({"first", "c", "a", "b"}));
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT count(*) FROM log"), Messages({"4"})) << "a flushed statement ran again";
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseDeferredTest, CopiesTextAndStringsOfDeferredStatement) {
    std::string query = "INSERT INTO t VALUES (?, ?)";
    ValueList values = Make(1, std::string(100, 'a'));
    m_database.ExecuteQuery(query.c_str(), values, /*immediate=*/false);
    query.replace(0, 6, "DELETE");
    values[0].second.nValue = 2;
    values[1].second.strValue.assign(100, 'b');
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT id || name FROM t"), Messages({"1" + std::string(100, 'a')}));
}

TEST_F(ContextDatabaseDeferredTest, ReadsCharacterPointerAtFlush) {
    char text[] = "before";
    m_database.ExecuteQuery("INSERT INTO t (name) VALUES (?)", Make(text), /*immediate=*/false);
    std::strcpy(text, "after");
    m_database.Flush();
    std::strcpy(text, "last");
    EXPECT_EQ(ReadFrom("x.db", "SELECT name FROM t"), Messages({"after"}));
}

TEST_F(ContextDatabaseDeferredTest, DiscardsRestOfFlushAtFirstFailure) {
    const std::string insertOne = "INSERT INTO t (id) SELECT max(id) - 1 FROM t";  // fails once 2 has been inserted
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    Defer(m_database, "INSERT INTO t (id) VALUES (2)");
    Defer(m_database, insertOne);
    Defer(m_database, "INSERT INTO t (id) VALUES (3)");
    m_database.Flush();
    EXPECT_EQ(CapturedLog::Messages(), StepFailure(insertOne));
    EXPECT_EQ(Ids(), Messages());
    CapturedLog::Clear();
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages()) << "a discarded statement ran";
    EXPECT_EQ(CapturedLog::Messages(), Messages());
    Defer(m_database, "INSERT INTO t (id) VALUES (4)");
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"4"}));
}

TEST_F(ContextDatabaseDeferredTest, CommitsEachDeferredStatementSeparately) {
    Defer(m_database, "INSERT INTO t (id) VALUES (5)");
    Defer(m_database, "INSERT INTO t (id) SELECT hold()");
    Defer(m_database, "INSERT INTO t (id) VALUES (9)");
    StatementHold hold;
    Background flush([&] { m_database.Flush(); });
    ASSERT_TRUE(hold.Wait());
    EXPECT_EQ(Ids(), Messages({"5"}));
    hold.Release();
    ASSERT_TRUE(flush.Returns());
    EXPECT_EQ(Ids(), Messages({"1", "5", "9"}));
}

TEST_F(ContextDatabaseDeferredTest, LetsHostDeferItsOwnTransaction) {
    Defer(m_database, "BEGIN");
    Defer(m_database, "INSERT INTO t (id) VALUES (5)");
    Defer(m_database, "INSERT INTO t (id) SELECT hold()");
    Defer(m_database, "COMMIT");
    StatementHold hold;
    Background flush([&] { m_database.Flush(); });
    ASSERT_TRUE(hold.Wait());
    EXPECT_EQ(Ids(), Messages());
    hold.Release();
    ASSERT_TRUE(flush.Returns());
    EXPECT_EQ(Ids(), Messages({"1", "5"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseDeferredTest, DefersThousandsOfStatements) {
    constexpr int kCount = 3000;
    Defer(m_database, "BEGIN");
    for (int id = 1; id <= kCount; ++id) {
        m_database.ExecuteQuery("INSERT INTO t (id) VALUES (?)", Make(id), /*immediate=*/false);
    }
    Defer(m_database, "COMMIT");
    EXPECT_EQ(Ids(), Messages());
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT count(*) || ' ' || max(id) FROM t"), Messages({"3000 3000"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseDeferredTest, RunsNothingForOtherTimerId) {
    Defer(m_database, "INSERT INTO t (id) VALUES (1)");
    for (const int id : {0, m_database.Id() + 1, -m_database.Id()}) {
        CapturedLog::Clear();
        m_database.OnTimerCb(id);
        EXPECT_EQ(CapturedLog::Messages(), Messages({"E NOT matched any timer"}));
    }
    EXPECT_EQ(Ids(), Messages());
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"1"})) << "the deferred statement was lost";
}

TEST_F(ContextDatabaseDeferredTest, FlushesOnlyItsOwnStatements) {
    DeferringDatabase other(kOther);
    Defer(m_database, "INSERT INTO t (id) VALUES (1)");
    Defer(other, "INSERT INTO t (id) VALUES (2)");
    other.Flush();
    EXPECT_EQ(Ids(), Messages());
    EXPECT_EQ(Ids(kOther), Messages({"2"}));
}

TEST_F(ContextDatabaseDeferredTest, DefersWithoutWaitingForRunningStatement) {
    ContextDatabase slow(kOther, kCreateTable);
    StatementHold hold;
    Background writer([&] { Write(slow, "INSERT INTO t (id) SELECT hold()"); });
    ASSERT_TRUE(hold.Wait());
    Defer(m_database, "INSERT INTO t (id) VALUES (1)");
    EXPECT_TRUE(hold.IsHolding()) << "the deferral waited for the statement";
    hold.Release();
    EXPECT_TRUE(writer.Returns());
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"1"}));
}

TEST_F(ContextDatabaseDeferredTest, WaitsForRunningFlushBeforeDeferring) {
    DeferringDatabase other(kOther);
    Defer(m_database, "INSERT INTO t (id) SELECT hold()");
    StatementHold hold;
    Background flush([&] { m_database.Flush(); });
    ASSERT_TRUE(hold.Wait());
    Background same([&] { Defer(m_database, "INSERT INTO t (id) VALUES (2)"); });
    Background another([&] { Defer(other, "INSERT INTO t (id) VALUES (3)"); });
    EXPECT_FALSE(same.Returns(kShort));
    EXPECT_FALSE(another.Returns(kShort)) << "the flush of one object did not block the other";
    hold.Release();
    EXPECT_TRUE(flush.Returns());
    EXPECT_TRUE(same.Returns());
    EXPECT_TRUE(another.Returns());
    EXPECT_EQ(Ids(), Messages({"1"}));
    m_database.Flush();
    other.Flush();
    EXPECT_EQ(Ids(), Messages({"1", "2"})) << "a statement deferred during the flush was lost";
    EXPECT_EQ(Ids(kOther), Messages({"3"}));
}

TEST_F(ContextDatabaseDeferredTest, FlushDiscardsStatementsWhenClosed) {
    {
        const MissingDataDirectory missing;
        m_database.ResetDatabase();
        CapturedLog::Clear();
        Defer(m_database, "INSERT INTO t (id) VALUES (1)");
        Defer(m_database, "INSERT INTO t (id) VALUES (2)");
        EXPECT_EQ(CapturedLog::Messages(), Messages());
        m_database.Flush();
        EXPECT_EQ(CapturedLog::Messages(), Messages(2, "E DB not opened yet"));
        Defer(m_database, "INSERT INTO t (id) VALUES (3)");
    }
    m_database.ResetDatabase();
    ASSERT_TRUE(m_database.IsRunning());
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"3"})) << "the reset lost the deferred statement";
}

// Flushes by the timer

TEST_F(ContextDatabaseTimerFlushTest, FlushesAtEveryInterval) {
    ContextDatabase database("x.db", kCreateTable, /*interval=*/5);
    SettleTimers(/*timers=*/1);
    Defer(database, "INSERT INTO t (id) VALUES (1)");
    TestClock::Advance(4);
    // Two ticks pass, and the timer is not due at either.
    EXPECT_FALSE(Waiting::Until([&] { return RowCount(database) != "0"; }, std::chrono::milliseconds(600)));
    TestClock::Advance(1);
    EXPECT_TRUE(Waiting::Until([&] { return RowCount(database) == "1"; }));
    Defer(database, "INSERT INTO t (id) VALUES (2)");
    TestClock::Advance(5);
    EXPECT_TRUE(Waiting::Until([&] { return RowCount(database) == "2"; }));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseTimerFlushTest, ResetsInTimerFlushAndContinues) {
    ContextDatabase database("x.db", kCreateTable, /*interval=*/1);
    Defer(database, kOverflow);
    ASSERT_TRUE(AdvanceUntil([] { return CapturedLog::Count("reset database") > 0; }));
    Defer(database, "INSERT INTO t (id) VALUES (2)");  // waits for the flush to end
    EXPECT_TRUE(AdvanceUntil([&] { return RowCount(database) == "1"; }));
    EXPECT_EQ(CapturedLog::Messages(),
              Join({{std::string("E Query ERROR Q : ") + kOverflow, "E vecSqlQueryValue size : 0"}, ResetLines()}));
}

// The timer takes the interval as unsigned, and its arithmetic wraps: the next deadline lies in the past.
TEST_F(ContextDatabaseTimerFlushTest, NegativeIntervalDefersUntilNextTick) {
    ContextDatabase slow("slow.db", kCreateTable);
    ContextDatabase database("x.db", kCreateTable, /*interval=*/-60);
    StatementHold hold;
    Background writer([&] { Write(slow, "INSERT INTO t (id) SELECT hold()"); });
    ASSERT_TRUE(hold.Wait());
    Background deferral([&] { Defer(database, "INSERT INTO t (id) VALUES (1)"); });
    EXPECT_TRUE(deferral.Returns());
    EXPECT_TRUE(hold.IsHolding()) << "the statement ran immediately";
    hold.Release();
    EXPECT_TRUE(Waiting::Until([&] { return RowCount(database) == "1"; })) << "not flushed while the clock is stopped";
    TestClock::Advance(-30);
    Defer(database, "INSERT INTO t (id) VALUES (2)");
    EXPECT_TRUE(Waiting::Until([&] { return RowCount(database) == "2"; })) << "not flushed after the clock went back";
}

// Threads

TEST_F(ContextDatabaseDeferredTest, RunsStatementsFromManyThreads) {
    constexpr int kRounds = 10;
    ContextDatabase other(kOther, kCreateTable);
    const auto work = [](ContextDatabase& database) {
        for (int round = 0; round < kRounds; ++round) {
            Write(database, "INSERT INTO t (name) VALUES (NULL)");
            Defer(database, "INSERT INTO t (name) VALUES (NULL)");
            Select(database, "SELECT count(*) AS n, max(id) AS last FROM t");
        }
    };
    {
        std::vector<std::unique_ptr<Background>> threads;
        for (ContextDatabase* database : {static_cast<ContextDatabase*>(&m_database), &other}) {
            threads.push_back(std::make_unique<Background>([=] { work(*database); }));
            threads.push_back(std::make_unique<Background>([=] { work(*database); }));
        }
        threads.push_back(std::make_unique<Background>([this] {
            for (int round = 0; round < kRounds; ++round) {
                m_database.Flush();
            }
        }));
        for (const auto& thread : threads) {
            EXPECT_TRUE(thread->Returns());
        }
    }
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT count(*) FROM t"), Messages({std::to_string(4 * kRounds)}));
    EXPECT_EQ(ReadFrom(kOther, "SELECT count(*) FROM t"), Messages({std::to_string(4 * kRounds)}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

}  // namespace
