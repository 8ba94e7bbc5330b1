// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "DatabaseQueryFixture.h"

namespace {

static_assert(std::is_same_v<ValueList, std::vector<std::pair<enum_sql_type, struct_sql_value>>>);

using ContextDatabaseQueryTest = QueryTest<ImmediateDatabase>;

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
    EXPECT_EQ(values[1].second.pszValue, text) << "the text was copied";
    EXPECT_EQ(values[1].second.strValue, "");
    EXPECT_EQ(values[2].first, SQL_INT);
    EXPECT_EQ(values[2].second.nValue, 3);
    EXPECT_EQ(values[3].first, SQL_LONG);
    EXPECT_EQ(values[3].second.lValue, 4L);
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
        {"smallest int", Make(INT_MIN), "integer:-2147483648"},
        {"largest int", Make(INT_MAX), "integer:2147483647"},
        {"long", Make(-7L), "integer:-7"},
        {"smallest long", Make(LONG_MIN), "integer:" + std::to_string(LONG_MIN)},
        {"largest long", Make(LONG_MAX), "integer:" + std::to_string(LONG_MAX)},
        {"string", Make(string("text")), "text:text"},
        {"empty string", Make(string()), "text:"},
        {"long string", Make(longText), "text:" + longText},
        {"string with a zero byte", Make(string("ab\0cd", 5)), "text:ab"},
        {"string that looks like SQL", Make(string("'); DROP TABLE t; --")), "text:'); DROP TABLE t; --"},
        {"character pointer", Make("text"), "text:text"},
        {"empty character pointer", Make(""), "text:"},
        {"null character pointer", Make(null), "null:"},
        {"no value", {}, "null:"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Bound(row.values), row.expected) << row.name;
    }
    EXPECT_EQ(Select(m_database, "SELECT length(CAST(? AS BLOB)) AS bytes", Make(string("ab\0cd", 5))),
              Rows({{{"bytes", "2"}}}))
        << "the bytes after the zero were bound too";
    if constexpr (sizeof(long) == 4) {
        EXPECT_EQ(Bound(Make(LONG_MAX)), "integer:2147483647");
        EXPECT_EQ(Bound(Make(LONG_MIN)), "integer:-2147483648") << "the sign was lost";
    } else {
        EXPECT_EQ(Bound(Make(LONG_MAX)), "integer:9223372036854775807");
        EXPECT_EQ(Bound(Make(LONG_MIN)), "integer:-9223372036854775808");
    }
}

TEST_F(ContextDatabaseQueryTest, BindsOnlyMemberThatTagNames) {
    struct_sql_value value{1, 2L, "three", "four", 5LL};
    EXPECT_EQ(Bound({{SQL_INT, value}}), "integer:1");
    EXPECT_EQ(Bound({{SQL_LONG, value}}), "integer:2");
    EXPECT_EQ(Bound({{SQL_STRING, value}}), "text:three");
    EXPECT_EQ(Bound({{SQL_CSTRING, value}}), "text:four");
}

TEST_F(ContextDatabaseQueryTest, BindsParametersByPosition) {
    const ValueList values = Make(1, std::string("two"), 3L, "four");
    EXPECT_EQ(Select(m_database, "SELECT ?4 AS d, ?3 AS c, ?2 AS b, ?1 AS a", values),
              Rows({{{"a", "1"}, {"b", "two"}, {"c", "3"}, {"d", "four"}}}));
    EXPECT_EQ(Select(m_database, "SELECT ? AS a, ? AS b, ? AS c, ? AS d, ? AS e", values),
              Rows({{{"a", "1"}, {"b", "two"}, {"c", "3"}, {"d", "four"}, {"e", ""}}}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

// Immediate statements

TEST_F(ContextDatabaseQueryTest, WritesBeforeCallReturns) {
    m_database.ExecuteQuery("INSERT INTO t VALUES (?, ?)", Make(1, "one"), /*immediate=*/true);
    EXPECT_EQ(ReadFrom("x.db", "SELECT id || name FROM t"), Messages({"1one"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, DefersNothingWithoutInterval) {
    ContextDatabase without(kOther, kCreateTable);
    ContextDatabase zero("zero.db", kCreateTable, /*interval=*/0);
    Defer(without, "INSERT INTO t (id) VALUES (1)");
    Defer(zero, "INSERT INTO t (id) VALUES (2)");
    EXPECT_EQ(Ids(kOther), Messages({"1"}));
    EXPECT_EQ(Ids("zero.db"), Messages({"2"}));
    without.OnTimerCb(0);  // no timer, so its id is 0; no statement is queued
    // A timer with an interval of 0 may fire at its first tick before the object has stored its id.
    const Messages logged = CapturedLog::Messages();
    EXPECT_TRUE(logged.empty() || logged == Messages({"E NOT matched any timer"}));
}

TEST_F(ContextDatabaseQueryTest, BindsNullForMissingValue) {
    m_database.ExecuteQuery("INSERT INTO t VALUES (?, ?)", Make(1), /*immediate=*/true);
    EXPECT_EQ(ReadFrom("x.db", "SELECT name FROM t WHERE id = 1"), Messages({"NULL"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, AcceptsSelectWithoutRowsAsWrite) {
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    Write(m_database, "SELECT * FROM t WHERE id = 2");
    EXPECT_EQ(Ids(), Messages({"1"}));
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, LogsFromMethodThatPerformsStep) {
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

// Closed database

TEST_F(ContextDatabaseQueryTest, OnlyLogsWhenClosed) {
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

// Selects

TEST_F(ContextDatabaseQueryTest, ReadsEachColumnType) {
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

TEST_F(ContextDatabaseQueryTest, ConvertsByTypeOfValueNotOfColumn) {
    EXPECT_EQ(Select(m_database, "SELECT column1 AS v FROM (VALUES (1), ('two'), (3.0), (NULL), (x'35'), (6))"),
              Rows({{{"v", "1"}}, {{"v", "two"}}, {{"v", ""}}, {{"v", ""}}, {{"v", ""}}, {{"v", "6"}}}));
}

TEST_F(ContextDatabaseQueryTest, NamesColumnsAsSqliteDoes) {
    Write(m_database, "INSERT INTO t VALUES (1, 'one')");
    EXPECT_EQ(Select(m_database, "SELECT *, count(*), id + 1, 'x' AS \"\" FROM t"),
              Rows({{{"id", "1"}, {"name", "one"}, {"count(*)", "1"}, {"id + 1", "2"}, {"", "x"}}}));
    EXPECT_EQ(Select(m_database, "SELECT 'z' AS b, 'a' AS a, 'm' AS A"), Rows({{{"b", "z"}, {"a", "a"}, {"A", "m"}}}));
}

TEST_F(ContextDatabaseQueryTest, KeepsLastOfColumnsWithSameName) {
    EXPECT_EQ(Select(m_database, "SELECT 1 AS a, 'b' AS b, 'last' AS a"), Rows({{{"a", "last"}, {"b", "b"}}}));
    EXPECT_EQ(Select(m_database, "SELECT 'first' AS a, NULL AS a"), Rows({{{"a", ""}}}));
}

TEST_F(ContextDatabaseQueryTest, AppendsRowsInOrder) {
    Write(m_database, "INSERT INTO t VALUES (1, 'one'), (2, 'two'), (3, 'three')");
    Rows rows = {{{"kept", "first"}}, {{"kept", "second"}}};
    EXPECT_TRUE(m_database.SelectQuery("SELECT id FROM t WHERE id >= ? ORDER BY id DESC", Make(2), rows));
    EXPECT_EQ(rows, Rows({{{"kept", "first"}}, {{"kept", "second"}}, {{"id", "3"}}, {{"id", "2"}}}));
    EXPECT_TRUE(m_database.SelectQuery("SELECT id FROM t WHERE name = ?", Make("none"), rows));
    EXPECT_EQ(rows.size(), 4U);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, ReadsColumnsAddedByAnotherConnection) {
    EXPECT_EQ(Select(m_database, "SELECT * FROM t"), Rows());
    PlainConnection().Run("ALTER TABLE t ADD COLUMN extra TEXT DEFAULT 'new'; INSERT INTO t (id) VALUES (1)");
    EXPECT_EQ(Select(m_database, "SELECT * FROM t"), Rows({{{"id", "1"}, {"name", ""}, {"extra", "new"}}}));
}

TEST_F(ContextDatabaseQueryTest, KeepsRowsReadBeforeError) {
    Rows rows = {{{"kept", "row"}}};
    EXPECT_TRUE(m_database.SelectQuery(
        "SELECT abs(column1) AS v FROM (VALUES (-1), (-2), (-9223372036854775807 - 1), (-4))", {}, rows));
    EXPECT_EQ(rows, Rows({{{"kept", "row"}}, {{"v", "1"}}, {{"v", "2"}}}));
    EXPECT_TRUE(m_database.SelectQuery("", {}, rows));
    EXPECT_TRUE(m_database.SelectQuery("-- nothing", {}, rows));
    EXPECT_EQ(rows.size(), 3U);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
}

TEST_F(ContextDatabaseQueryTest, ReportsFailedSelectWithoutReset) {
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
        {"a value without a parameter", "", Make(1), {BindFailure("", 1)}},
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

TEST_F(ContextDatabaseQueryTest, SelectFromDamagedFileDoesNotReset) {
    Write(m_database, "INSERT INTO t (id) VALUES (1)");
    const std::string damaged(5000, 'x');
    Surroundings::WriteFile(DatabasePath(), damaged);
    EXPECT_EQ(Select(m_database, "SELECT id FROM t"), Rows());
    EXPECT_EQ(CapturedLog::Messages(), Messages());
    EXPECT_EQ(Surroundings::ReadFile(DatabasePath()), damaged);
}

}  // namespace
