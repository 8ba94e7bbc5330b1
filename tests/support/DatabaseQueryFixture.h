// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_DATABASE_QUERY_FIXTURE_H
#define LUMORA_COMMON_TESTS_DATABASE_QUERY_FIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "ContextDatabase.h"
#include "DatabaseFixture.h"

using ValueList = ContextDatabase::ValueList;

/// The file of a second database, next to that of m_database.
constexpr const char* kOther = "other.db";

/// @return a tag with any value, including values that the enumeration lacks.
inline enum_sql_type TypeTag(int value) {
    return static_cast<enum_sql_type>(value);
}

/// A database without a timer.
class ImmediateDatabase : public ContextDatabase {
public:
    ImmediateDatabase() : ContextDatabase("x.db", kCreateTable) {}
};

/// Tests statements on a database of the given class.
template <class Database>
class QueryTest : public DatabaseTest {
protected:
    /// @return the arguments as a value list.
    template <class... Values>
    ValueList Make(const Values&... values) {
        ValueList list;
        (m_database.SetQueryValue(list, values), ...);
        return list;
    }

    /// @return one value as SQLite received it: its type, a colon, and the value as text.
    std::string Bound(const ValueList& values) {
        const Rows rows = Select(m_database, "SELECT typeof(?1) || ':' || coalesce(CAST(?1 AS TEXT), '') AS v", values);
        return rows.size() == 1 ? rows[0].at("v") : "no row";
    }

    /// @return the log lines of a write whose step fails, including those of the reset.
    static Messages StepFailure(const std::string& query, int size = 0) {
        return Join(
            {{"E Query ERROR Q : " + query, "E vecSqlQueryValue size : " + std::to_string(size)}, ResetLines()});
    }

    /// @return the line for a failed bind.
    static std::string BindFailure(const std::string& query, int size) {
        return "E Failed to bind / Q[" + query + "], V size[" + std::to_string(size) + "]";
    }

    Database m_database;
};

#endif  // LUMORA_COMMON_TESTS_DATABASE_QUERY_FIXTURE_H
