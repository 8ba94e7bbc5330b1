// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "DatabaseFixture.h"

namespace {

using ValueList = ContextDatabase::ValueList;

static_assert(SQL_INT == 0 && SQL_LONG == 1 && SQL_STRING == 2 && SQL_CSTRING == 3);
static_assert(std::is_same_v<ValueList, std::vector<std::pair<enum_sql_type, struct_sql_value>>>);
static_assert(std::is_same_v<decltype(struct_query_set::strQuery), std::string>);
static_assert(std::is_same_v<decltype(struct_query_set::vecSqlQueryValue), ValueList>);
static_assert(sizeof(struct_sql_value::llValue) == 8);

enum_sql_type TypeTag(int value) {
    return static_cast<enum_sql_type>(value);
}

/// A database without a timer.
class ImmediateDatabase : public ContextDatabase {
public:
    ImmediateDatabase() : ContextDatabase("x.db", kCreateTable) {}
};

template <class Database>
class QueryTest : public DatabaseTest {
protected:
    /// A value list of any of the four kinds, in order.
    template <class... Values>
    ValueList Make(const Values&... values) {
        ValueList list;
        (m_database.SetQueryValue(list, values), ...);
        return list;
    }

    /// What SQLite makes of one bound value: its type, a colon, and the value as text.
    std::string Bound(const ValueList& values) {
        const Rows rows = Select(m_database, "SELECT typeof(?1) || ':' || coalesce(CAST(?1 AS TEXT), '') AS v", values);
        return rows.size() == 1 ? rows[0].at("v") : "no row";
    }

    /// What a failed write logs, the reset included.
    static Messages StepFailure(const std::string& query, int size = 0) {
        return Join(
            {{"E Query ERROR Q : " + query, "E vecSqlQueryValue size : " + std::to_string(size)}, ResetLines()});
    }

    static std::string BindFailure(const std::string& query, int size) {
        return "E Failed to bind / Q[" + query + "], V size[" + std::to_string(size) + "]";
    }

    Database m_database;
};

using ContextDatabaseQueryTest = QueryTest<ImmediateDatabase>;
using ContextDatabaseDeferredQueryTest = QueryTest<DeferringDatabase>;

/// The file of a second database: m_database has its own to itself.
constexpr const char* kOther = "other.db";

// Value lists

TEST_F(ContextDatabaseQueryTest, AppendsValuesWithTheirTags) {
    const char* text = "pointer";
    ValueList values;
    m_database.SetQueryValue(values, std::string("string"));
    m_database.SetQueryValue(values, text);
    m_database.SetQueryValue(values, 3);
    m_database.SetQueryValue(values, 4L);
    ASSERT_EQ(values.size(), 4U);
    EXPECT_EQ(values[0].first, SQL_STRING);
    EXPECT_EQ(values[0].second.strValue, "string");
    EXPECT_EQ(values[1].first, SQL_CSTRING);
    EXPECT_EQ(values[1].second.pszValue, text) << "the pointer itself";
    EXPECT_EQ(values[1].second.strValue, "");
    EXPECT_EQ(values[2].first, SQL_INT);
    EXPECT_EQ(values[2].second.nValue, 3);
    EXPECT_EQ(values[3].first, SQL_LONG);
    EXPECT_EQ(values[3].second.lValue, 4L);
}

TEST_F(ContextDatabaseQueryTest, KeepsTheMembersOfARecordInTheirOrder) {
    const struct_sql_value value{1, 2L, "three", "four", 5LL};
    EXPECT_EQ(value.nValue, 1);
    EXPECT_EQ(value.lValue, 2L);
    EXPECT_EQ(value.strValue, "three");
    EXPECT_STREQ(value.pszValue, "four");
    EXPECT_EQ(value.llValue, 5LL);
    const struct_query_set query{"six", {{SQL_INT, value}}};
    EXPECT_EQ(query.strQuery, "six");
    EXPECT_EQ(query.vecSqlQueryValue.size(), 1U);
}

TEST_F(ContextDatabaseQueryTest, BindsEveryTag) {
    using std::string;
    const string longText(5000, 'x');
    const char* null = nullptr;
    const struct {
        const char* name;
        ValueList values;
        string expected;
    } rows[] = {
        {"int", Make(7), "integer:7"},
        {"least int", Make(INT_MIN), "integer:-2147483648"},
        {"greatest int", Make(INT_MAX), "integer:2147483647"},
        {"long", Make(-7L), "integer:-7"},
        {"least long", Make(LONG_MIN), "integer:" + std::to_string(LONG_MIN)},
        {"greatest long", Make(LONG_MAX), "integer:" + std::to_string(LONG_MAX)},
        {"string", Make(string("text")), "text:text"},
        {"empty string", Make(string()), "text:"},
        {"long string", Make(longText), "text:" + longText},
        {"string with a zero byte", Make(string("ab\0cd", 5)), "text:ab"},
        {"string that looks like SQL", Make(string("'); DROP TABLE t; --")), "text:'); DROP TABLE t; --"},
        {"character pointer", Make("text"), "text:text"},
        {"empty character pointer", Make(""), "text:"},
        {"null character pointer", Make(null), "null:"},
        {"nothing", {}, "null:"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Bound(row.values), row.expected) << row.name;
    }
    EXPECT_EQ(Select(m_database, "SELECT length(CAST(? AS BLOB)) AS bytes", Make(string("ab\0cd", 5))),
              Rows({{{"bytes", "2"}}}))
        << "nothing follows the zero byte in the file either";
    if constexpr (sizeof(long) == 4) {
        EXPECT_EQ(Bound(Make(LONG_MAX)), "integer:2147483647");
        EXPECT_EQ(Bound(Make(LONG_MIN)), "integer:-2147483648") << "widened with its sign";
    } else {
        EXPECT_EQ(Bound(Make(LONG_MAX)), "integer:9223372036854775807");
        EXPECT_EQ(Bound(Make(LONG_MIN)), "integer:-9223372036854775808");
    }
}

TEST_F(ContextDatabaseQueryTest, BindsOnlyTheMemberOfTheTag) {
    struct_sql_value value{1, 2L, "three", "four", 5LL};
    EXPECT_EQ(Bound({{SQL_INT, value}}), "integer:1");
    EXPECT_EQ(Bound({{SQL_LONG, value}}), "integer:2");
    EXPECT_EQ(Bound({{SQL_STRING, value}}), "text:three");
    EXPECT_EQ(Bound({{SQL_CSTRING, value}}), "text:four");
}

TEST_F(ContextDatabaseQueryTest, BindsParametersByTheirPosition) {
    const ValueList values = Make(1, std::string("two"), 3L, "four");
    EXPECT_EQ(Select(m_database, "SELECT ?4 AS d, ?3 AS c, ?2 AS b, ?1 AS a", values),
              Rows({{{"a", "1"}, {"b", "two"}, {"c", "3"}, {"d", "four"}}}));
    EXPECT_EQ(Select(m_database, "SELECT ? AS a, ? AS b, ? AS c, ? AS d, ? AS e", values),
              Rows({{{"a", "1"}, {"b", "two"}, {"c", "3"}, {"d", "four"}, {"e", ""}}}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

// Immediate statements

TEST_F(ContextDatabaseQueryTest, WritesBeforeTheCallReturns) {
    m_database.ExecuteQuery("INSERT INTO t VALUES (?, ?)", Make(1, "one"), /*immediate=*/true);
    EXPECT_EQ(ReadFrom("x.db", "SELECT id || name FROM t"), Messages({"1one"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, DefersNothingWithoutAnInterval) {
    ContextDatabase without(kOther, kCreateTable);
    ContextDatabase zero("zero.db", kCreateTable, /*interval=*/0);
    Defer(without, "INSERT INTO t (id) VALUES (1)");
    Defer(zero, "INSERT INTO t (id) VALUES (2)");
    EXPECT_EQ(Ids(kOther), Messages({"1"}));
    EXPECT_EQ(Ids("zero.db"), Messages({"2"}));
    without.OnTimerCb(0);  // no timer has the id 0, and nothing waits
    // A timer of no seconds is due at the very first check, which may come before the object has stored its id.
    const Messages logged = CapturedLog::Messages();
    EXPECT_TRUE(logged.empty() || logged == Messages({"E NOT matched any timer"}));
}

TEST_F(ContextDatabaseDeferredQueryTest, RunsOnlyTheFirstStatementOfAText) {
    Write(m_database, "INSERT INTO t (id) VALUES (1); INSERT INTO t (id) VALUES (2)");
    Defer(m_database, "INSERT INTO t (id) VALUES (3); INSERT INTO t (id) VALUES (4)");
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"1", "3"}));
    EXPECT_EQ(Select(m_database, "SELECT 1 AS a; SELECT 2 AS a; no statement"), Rows({{{"a", "1"}}}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, BindsNullWhereAValueIsMissing) {
    m_database.ExecuteQuery("INSERT INTO t VALUES (?, ?)", Make(1), /*immediate=*/true);
    EXPECT_EQ(ReadFrom("x.db", "SELECT name FROM t WHERE id = 1"), Messages({"NULL"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseDeferredQueryTest, ResetsAfterEveryKindOfFailedWrite) {
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
        {"tag above", insert, {{SQL_INT, {}}, {TypeTag(4), {}}}, unknownTag(2)},
        {"tag below", insert, {{TypeTag(-1), {}}}, unknownTag(1)},
        {"constraint", insert, Make(1, "one"), StepFailure(insert, 2)},
        {"error while running", kOverflow, {}, StepFailure(kOverflow)},
        {"a row", "SELECT * FROM t", {}, StepFailure("SELECT * FROM t")},
        {"a row of a pragma", "PRAGMA user_version", {}, StepFailure("PRAGMA user_version")},
        {"nothing in the text", "", {}, StepFailure("")},
        {"only a comment", "-- ", {}, StepFailure("-- ")},
        {"a value for nothing", "-- ", Make(1), Join({{BindFailure("-- ", 1)}, ResetLines()})},
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

TEST_F(ContextDatabaseQueryTest, TakesASelectWithoutARowForASuccess) {
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    Write(m_database, "SELECT * FROM t WHERE id = 2");
    EXPECT_EQ(Ids(), Messages({"1"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseDeferredQueryTest, RefusesANullQueryAndLosesNothing) {
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

TEST_F(ContextDatabaseQueryTest, NamesTheStepThatLogs) {
    Write(m_database, "INSRET");
    Write(m_database, kOverflow);
    m_database.ExecuteQuery("INSERT INTO t (id) VALUES (?)", {{TypeTag(4), {}}}, /*immediate=*/true);
    m_database.OnTimerCb(1);
    Rows rows;
    m_database.SelectQuery("SELCET", {}, rows);
    m_database.SelectQuery("SELECT 1", Make(1), rows);
    std::vector<std::pair<std::string, std::string>> found;
    for (const CapturedLog::Line& line : CapturedLog::Lines()) {
        EXPECT_EQ(line.tag, "LMR_COMMON");
        EXPECT_EQ(line.file, "ContextDatabase.cpp");
        if (line.function != "ResetDatabase") {
            EXPECT_EQ(line.priority, 6);
            found.emplace_back(line.function, line.format);
        }
    }
    EXPECT_EQ(found, (std::vector<std::pair<std::string, std::string>>{
                         {"ExecuteQuery_", "error excute %s"},
                         {"ExecuteQuery_", "Query ERROR Q : %s"},
                         {"ExecuteQuery_", "vecSqlQueryValue size : %d"},
                         {"BindAllValues_", "unknown enum type"},
                         {"ExecuteQuery_", "Failed to bind / Q[%s], V size[%d]"},
                         {"OnTimerCb", "NOT matched any timer"},
                         {"SelectQuery", "error select %s"},
                         {"SelectQuery", "Failed to bind / Q[%s], V size[%d]"},
                     }));
}

// Deferred statements

TEST_F(ContextDatabaseDeferredQueryTest, RunsDeferredStatementsInTheOrderOfTheCalls) {
    Write(m_database, "CREATE TABLE log (n INTEGER PRIMARY KEY, text TEXT)");
    for (const char* text : {"c", "a", "b"}) {
        m_database.ExecuteQuery("INSERT INTO log (text) VALUES (?)", Make(text), /*immediate=*/false);
    }
    EXPECT_EQ(ReadFrom("x.db", "SELECT text FROM log"), Messages());
    m_database.ExecuteQuery("INSERT INTO log (text) VALUES ('first')", {}, /*immediate=*/true);
    EXPECT_EQ(ReadFrom("x.db", "SELECT text FROM log"), Messages({"first"})) << "it does not wait for the others";
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT text FROM log ORDER BY n"), Messages({"first", "c", "a", "b"}));
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT count(*) FROM log"), Messages({"4"})) << "they ran once";
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseDeferredQueryTest, CopiesTheTextAndTheStringsOfADeferredStatement) {
    std::string query = "INSERT INTO t VALUES (?, ?)";
    ValueList values = Make(1, std::string(100, 'a'));
    m_database.ExecuteQuery(query.c_str(), values, /*immediate=*/false);
    query.replace(0, 6, "DELETE");
    values[0].second.nValue = 2;
    values[1].second.strValue.assign(100, 'b');
    m_database.Flush();
    EXPECT_EQ(ReadFrom("x.db", "SELECT id || name FROM t"), Messages({"1" + std::string(100, 'a')}));
}

TEST_F(ContextDatabaseDeferredQueryTest, ReadsACharacterPointerAtTheFlush) {
    char text[] = "before";
    m_database.ExecuteQuery("INSERT INTO t (name) VALUES (?)", Make(text), /*immediate=*/false);
    std::strcpy(text, "after");
    m_database.Flush();
    std::strcpy(text, "last");
    EXPECT_EQ(ReadFrom("x.db", "SELECT name FROM t"), Messages({"after"}));
}

TEST_F(ContextDatabaseDeferredQueryTest, DropsTheRestOfABatchAtTheFirstFailure) {
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    Defer(m_database, "INSERT INTO t (id) VALUES (2)");
    Defer(m_database, "INSERT INTO t (id) SELECT max(id) - 1 FROM t");  // 1: only the row before makes it fail
    Defer(m_database, "INSERT INTO t (id) VALUES (3)");
    m_database.Flush();
    EXPECT_EQ(CapturedLog::Messages(), StepFailure("INSERT INTO t (id) SELECT max(id) - 1 FROM t"));
    EXPECT_EQ(Ids(), Messages());
    CapturedLog::Clear();
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages()) << "something was tried again";
    EXPECT_EQ(CapturedLog::Messages(), Messages());
    Defer(m_database, "INSERT INTO t (id) VALUES (4)");
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"4"}));
}

TEST_F(ContextDatabaseDeferredQueryTest, CommitsEachDeferredStatementOnItsOwn) {
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

TEST_F(ContextDatabaseDeferredQueryTest, LeavesTheHostItsOwnTransaction) {
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

TEST_F(ContextDatabaseDeferredQueryTest, KeepsAListOfAnyLength) {
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

TEST_F(ContextDatabaseDeferredQueryTest, RunsNothingForAnotherTimer) {
    Defer(m_database, "INSERT INTO t (id) VALUES (1)");
    for (const int id : {0, m_database.Id() + 1, -m_database.Id()}) {
        CapturedLog::Clear();
        m_database.OnTimerCb(id);
        EXPECT_EQ(CapturedLog::Messages(), Messages({"E NOT matched any timer"}));
    }
    EXPECT_EQ(Ids(), Messages());
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"1"})) << "the list was lost";
}

TEST_F(ContextDatabaseDeferredQueryTest, FlushesOnlyTheObjectItself) {
    DeferringDatabase other(kOther);
    Defer(m_database, "INSERT INTO t (id) VALUES (1)");
    Defer(other, "INSERT INTO t (id) VALUES (2)");
    other.Flush();
    EXPECT_EQ(Ids(), Messages());
    EXPECT_EQ(Ids(kOther), Messages({"2"}));
}

TEST_F(ContextDatabaseQueryTest, FlushesWheneverTheIntervalHasPassed) {
    ContextDatabase database(kOther, kCreateTable, /*interval=*/5);
    SettleTimers(1);
    Defer(database, "INSERT INTO t (id) VALUES (1)");
    TestClock::Advance(4);
    // Long enough for two ticks: nothing is due yet.
    EXPECT_FALSE(Waiting::Until([&] { return RowCount(database) != "0"; }, std::chrono::milliseconds(600)));
    TestClock::Advance(1);
    EXPECT_TRUE(Waiting::Until([&] { return RowCount(database) == "1"; }));
    Defer(database, "INSERT INTO t (id) VALUES (2)");
    TestClock::Advance(5);
    EXPECT_TRUE(Waiting::Until([&] { return RowCount(database) == "2"; }));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, HealsInAFlushOfItsTimerAndGoesOn) {
    ContextDatabase database(kOther, kCreateTable, /*interval=*/1);
    Defer(database, kOverflow);
    ASSERT_TRUE(AdvanceUntil([] { return CapturedLog::Count("reset database") > 0; }));
    Defer(database, "INSERT INTO t (id) VALUES (2)");  // returns when that flush has ended
    EXPECT_TRUE(AdvanceUntil([&] { return RowCount(database) == "1"; }));
    EXPECT_EQ(
        CapturedLog::Messages(),
        Join({{std::string("E Query ERROR Q : ") + kOverflow, "E vecSqlQueryValue size : 0"}, ResetLines(kOther)}));
}

TEST_F(ContextDatabaseDeferredQueryTest, DefersWhileAnotherStatementRuns) {
    ContextDatabase slow(kOther, kCreateTable);
    StatementHold hold;
    Background writer([&] { Write(slow, "INSERT INTO t (id) SELECT hold()"); });
    ASSERT_TRUE(hold.Wait());
    Defer(m_database, "INSERT INTO t (id) VALUES (1)");
    EXPECT_TRUE(hold.IsHolding()) << "the caller waited for the statement";
    hold.Release();
    EXPECT_TRUE(writer.Returns());
    m_database.Flush();
    EXPECT_EQ(Ids(), Messages({"1"}));
}

TEST_F(ContextDatabaseDeferredQueryTest, WaitsForARunningFlushBeforeItDefers) {
    DeferringDatabase other(kOther);
    Defer(m_database, "INSERT INTO t (id) SELECT hold()");
    StatementHold hold;
    Background flush([&] { m_database.Flush(); });
    ASSERT_TRUE(hold.Wait());
    Background same([&] { Defer(m_database, "INSERT INTO t (id) VALUES (2)"); });
    Background another([&] { Defer(other, "INSERT INTO t (id) VALUES (3)"); });
    EXPECT_FALSE(same.Returns(kShort));
    EXPECT_FALSE(another.Returns(kShort)) << "the lock is one for all objects";
    hold.Release();
    EXPECT_TRUE(flush.Returns());
    EXPECT_TRUE(same.Returns());
    EXPECT_TRUE(another.Returns());
    EXPECT_EQ(Ids(), Messages({"1"}));
    m_database.Flush();
    other.Flush();
    EXPECT_EQ(Ids(), Messages({"1", "2"})) << "what came during the flush waits for the next";
    EXPECT_EQ(Ids(kOther), Messages({"3"}));
}

// A closed database

TEST_F(ContextDatabaseQueryTest, OnlyLogsWhenItIsClosed) {
    const MissingDataDirectory missing;
    m_database.ResetDatabase();
    ASSERT_FALSE(m_database.IsRunning());
    CapturedLog::Clear();
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    Write(m_database, "no statement");
    Rows rows = {{{"kept", "row"}}};
    EXPECT_TRUE(m_database.SelectQuery("no statement", {}, rows));
    EXPECT_TRUE(m_database.SelectQuery(nullptr, {}, rows));
    EXPECT_EQ(rows, Rows({{{"kept", "row"}}}));
    EXPECT_EQ(CapturedLog::Messages(), Messages(4, "E DB not opened yet"));
    EXPECT_EQ(CapturedLog::Lines()[0].function, "ExecuteQuery_");
    EXPECT_EQ(CapturedLog::Lines()[2].function, "SelectQuery");
}

TEST_F(ContextDatabaseDeferredQueryTest, LosesWhatIsFlushedWhileItIsClosed) {
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
    EXPECT_EQ(Ids(), Messages({"3"})) << "what waits survives a reset";
}

// Selects

TEST_F(ContextDatabaseQueryTest, ReadsEachKindOfColumn) {
    using std::string;
    const struct {
        const char* sql;
        string expected;
    } rows[] = {
        {"'text'", "text"},
        {"''", ""},
        {"'ab' || char(0) || 'cd'", "ab"},
        {"'\xC3\xBC'", "\xC3\xBC"},
        {"'12.5'", "12.5"},
        {"0", "0"},
        {"-1", "-1"},
        {"2147483647", "2147483647"},
        {"-2147483648", "-2147483648"},
        {"2147483648", "-2147483648"},
        {"-2147483649", "2147483647"},
        {"4294967295", "-1"},
        {"4294967296", "0"},
        {"4294967297", "1"},
        {"-4294967297", "-1"},
        {"9223372036854775807", "-1"},
        {"1.5", ""},
        {"2.0", ""},
        {"x'414243'", ""},
        {"NULL", ""},
        {"CAST(4294967297 AS TEXT)", "4294967297"},
        {"CAST(1.5 AS TEXT)", "1.5"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Select(m_database, string("SELECT ") + row.sql + " AS v"), Rows({{{"v", row.expected}}})) << row.sql;
    }
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, ReadsTheTypeOfEachValueAndNotOfItsColumn) {
    EXPECT_EQ(Select(m_database, "SELECT column1 AS v FROM (VALUES (1), ('two'), (3.0), (NULL), (x'35'), (6))"),
              Rows({{{"v", "1"}}, {{"v", "two"}}, {{"v", ""}}, {{"v", ""}}, {{"v", ""}}, {{"v", "6"}}}));
}

TEST_F(ContextDatabaseQueryTest, NamesColumnsAsTheResultDoes) {
    Write(m_database, "INSERT INTO t VALUES (1, 'one')");
    EXPECT_EQ(Select(m_database, "SELECT *, count(*), id + 1, 'x' AS \"\" FROM t"),
              Rows({{{"id", "1"}, {"name", "one"}, {"count(*)", "1"}, {"id + 1", "2"}, {"", "x"}}}));
    EXPECT_EQ(Select(m_database, "SELECT 'z' AS b, 'a' AS a, 'm' AS A"), Rows({{{"b", "z"}, {"a", "a"}, {"A", "m"}}}));
}

TEST_F(ContextDatabaseQueryTest, TakesTheLaterOfTwoColumnsWithOneName) {
    EXPECT_EQ(Select(m_database, "SELECT 1 AS a, 'b' AS b, 'last' AS a"), Rows({{{"a", "last"}, {"b", "b"}}}));
    EXPECT_EQ(Select(m_database, "SELECT 'first' AS a, NULL AS a"), Rows({{{"a", ""}}}));
}

TEST_F(ContextDatabaseQueryTest, AppendsRowsInTheirOrder) {
    Write(m_database, "INSERT INTO t VALUES (1, 'one'), (2, 'two'), (3, 'three')");
    Rows rows = {{{"kept", "first"}}, {{"kept", "second"}}};
    EXPECT_TRUE(m_database.SelectQuery("SELECT id FROM t WHERE id >= ? ORDER BY id DESC", Make(2), rows));
    EXPECT_EQ(rows, Rows({{{"kept", "first"}}, {{"kept", "second"}}, {{"id", "3"}}, {{"id", "2"}}}));
    EXPECT_TRUE(m_database.SelectQuery("SELECT id FROM t WHERE name = ?", Make("none"), rows));
    EXPECT_EQ(rows.size(), 4U);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, SeesColumnsThatWereAddedBehindItsBack) {
    EXPECT_EQ(Select(m_database, "SELECT * FROM t"), Rows());
    PlainConnection().Run("ALTER TABLE t ADD COLUMN extra TEXT DEFAULT 'new'; INSERT INTO t (id) VALUES (1)");
    EXPECT_EQ(Select(m_database, "SELECT * FROM t"), Rows({{{"id", "1"}, {"name", ""}, {"extra", "new"}}}));
}

TEST_F(ContextDatabaseQueryTest, KeepsTheRowsThatWereReadBeforeAnError) {
    Rows rows = {{{"kept", "row"}}};
    EXPECT_TRUE(m_database.SelectQuery(
        "SELECT abs(column1) AS v FROM (VALUES (-1), (-2), (-9223372036854775807 - 1), (-4))", {}, rows));
    EXPECT_EQ(rows, Rows({{{"kept", "row"}}, {{"v", "1"}}, {{"v", "2"}}}));
    EXPECT_TRUE(m_database.SelectQuery("", {}, rows));
    EXPECT_TRUE(m_database.SelectQuery("-- nothing", {}, rows));
    EXPECT_EQ(rows.size(), 3U);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, ReportsASelectThatCannotBeginAndNeverResets) {
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    const std::string select = "SELECT id FROM t WHERE id = ?";
    const struct {
        const char* name;
        std::string query;
        ValueList values;
        Messages expected;
    } rows[] = {
        {"does not compile", "SELCET", Make(1), {"E error select SELCET"}},
        {"no such table", "SELECT * FROM u", {}, {"E error select SELECT * FROM u"}},
        {"too many values", select, Make(1, 2), {BindFailure(select, 2)}},
        {"unknown tag", select, {{TypeTag(4), {}}}, {"E unknown enum type", BindFailure(select, 1)}},
        {"a value for nothing", "", Make(1), {BindFailure("", 1)}},
    };
    for (const auto& row : rows) {
        CapturedLog::Clear();
        Rows result = {{{"kept", "row"}}};
        EXPECT_FALSE(m_database.SelectQuery(row.query.c_str(), row.values, result)) << row.name;
        EXPECT_EQ(result, Rows({{{"kept", "row"}}})) << row.name;
        EXPECT_EQ(CapturedLog::Messages(), row.expected) << row.name;
    }
    EXPECT_EQ(Ids(), Messages({"1"}));
}

TEST_F(ContextDatabaseQueryTest, ReadsADamagedFileAsFarAsItGoesAndLeavesItThere) {
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    const std::string damaged(5000, 'x');
    Surroundings::WriteFile(DatabasePath(), damaged);
    EXPECT_EQ(Select(m_database, "SELECT id FROM t"), Rows());
    EXPECT_EQ(CapturedLog::Messages(), Messages());
    EXPECT_EQ(Surroundings::ReadFile(DatabasePath()), damaged);
}

// Many threads

TEST_F(ContextDatabaseDeferredQueryTest, ServesManyThreadsOnTwoObjects) {
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
