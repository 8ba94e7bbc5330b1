// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <glib.h>
#include <sqlite3.h>
#include <strings.h>

#include <cstdio>
#include <new>

#include "ContextAutoLock.h"
#include "ContextFileUtil.h"
#include "Log.h"

namespace {

constexpr const char* kJournalSuffix = "-journal";
constexpr const char* QUERY_INTEGRITY_CHECK = "pragma integrity_check";

constexpr std::size_t kUsualValueCount = 8;
constexpr std::size_t kKeptQueryCapacity = 256;  ///< a larger capacity is released after a flush

// Shared by all databases of the process. Lock order: g_query_set_mutex, then g_db_mutex.
GMutex g_db_mutex;         ///< guards every use of a connection
GMutex g_query_set_mutex;  ///< guards the lists of deferred statements

std::string DatabasePath(const std::string& name) {
    return std::string(ContextDatabase::kDataDirectory) + "/" + name;
}

void _OnTimerCb(int timerId, void* userData) {
    static_cast<ContextDatabase*>(userData)->OnTimerCb(timerId);
}

bool IsOk(const char* text) {
    return text != nullptr && strcasecmp(text, "ok") == 0;
}

// Runs while g_db_mutex is held, and a reset takes that mutex: the callback only records the damage.
int OnIntegrityCheckCallBack(void* data, int /*columnCount*/, char** values, char** /*names*/) {
    if (!IsOk(values[0])) {
        LMR_LOG_ERROR("integrity check failed");
        *static_cast<bool*>(data) = true;
    }
    return 0;
}

/// A compiled statement, finalized at the end of its scope.
class Statement {
public:
    Statement(sqlite3* database, const char* query) {
        m_nResult = sqlite3_prepare_v2(database, query, /*nByte=*/-1, &m_pStatement, /*pzTail=*/nullptr);
    }
    ~Statement() { sqlite3_finalize(m_pStatement); }

    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool IsCompiled() const { return m_nResult == SQLITE_OK; }
    sqlite3_stmt* Get() const { return m_pStatement; }

private:
    sqlite3_stmt* m_pStatement = nullptr;
    int m_nResult;
};

std::string ColumnText(sqlite3_stmt* statement, int column) {
    switch (sqlite3_column_type(statement, column)) {
        case SQLITE_TEXT: {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            return text != nullptr ? text : "";
        }
        case SQLITE_INTEGER:
            return std::to_string(sqlite3_column_int(statement, column));
        default:
            return {};
    }
}

/// Maps each name to the last column that has it. Sorted, so that every row is built without a search.
std::map<std::string, int> ColumnsByName(sqlite3_stmt* statement) {
    std::map<std::string, int> columns;
    const int count = sqlite3_column_count(statement);
    for (int column = 0; column < count; ++column) {
        const char* name = sqlite3_column_name(statement, column);
        columns[name != nullptr ? name : ""] = column;
    }
    return columns;
}

/// Appends a value and returns it; the caller sets the member. One allocation covers a statement of usual length.
struct_sql_value& Append(ContextDatabase::ValueList& values, enum_sql_type type) {
    if (values.capacity() == 0) {
        values.reserve(kUsualValueCount);
    }
    auto& [tag, value] = values.emplace_back();
    tag = type;
    return value;
}

}  // namespace

ContextDatabase::ContextDatabase(std::string name, std::string createTableQuery, int interval)
    : m_pDB(nullptr),
      m_pTimer(new (std::nothrow) ContextTimer),
      m_strDBName(std::move(name)),
      m_strCreateTableQuery(std::move(createTableQuery)),
      m_bResetting(false),
      m_nInterval(interval),
      m_timerId(0) {
    if (m_pTimer) {
        m_pTimer->Start();
        m_timerId = m_pTimer->SetTimer(static_cast<unsigned int>(interval), _OnTimerCb, this);
    } else {
        m_nInterval = 0;  // nothing would flush: make every write immediate
    }
    OpenDatabase_();
}

ContextDatabase::ContextDatabase(std::string name, std::string createTableQuery)
    : m_pDB(nullptr),
      m_strDBName(std::move(name)),
      m_strCreateTableQuery(std::move(createTableQuery)),
      m_bResetting(false),
      m_nInterval(0),
      m_timerId(0) {
    OpenDatabase_();
}

ContextDatabase::~ContextDatabase() {
    CloseDatabase_();
    if (m_pTimer) {
        m_pTimer->KillTimer(m_timerId);
        m_timerId = 0;
        m_pTimer->Stop();
        CloseDatabase_();  // a flush that failed in the meantime may have opened it again
    }
}

void ContextDatabase::SetQueryValue(ValueList& values, std::string value) {
    Append(values, SQL_STRING).strValue = std::move(value);
}

void ContextDatabase::SetQueryValue(ValueList& values, const char* value) {
    Append(values, SQL_CSTRING).pszValue = value;
}

void ContextDatabase::SetQueryValue(ValueList& values, int value) {
    Append(values, SQL_INT).nValue = value;
}

void ContextDatabase::SetQueryValue(ValueList& values, long value) {
    Append(values, SQL_LONG).lValue = value;
}

void ContextDatabase::ExecuteQuery(const char* query, const ValueList& values, bool immediate) {
    if (query == nullptr) {
        LMR_LOG_ERROR("query is NULL");
        return;
    }
    if (!immediate && m_nInterval != 0) {
        ReserveQuery_(query, values);
        return;
    }
    if (!ExecuteQuery_(query, values)) {
        ResetDatabase();
    }
}

bool ContextDatabase::SelectQuery(const char* query, const ValueList& values,
                                  std::vector<std::map<std::string, std::string>>& rows) {
    ContextAutoLock lock(&g_db_mutex);
    if (!IsRunning()) {
        LMR_LOG_ERROR("DB not opened yet");
        return true;
    }
    const Statement statement(m_pDB, query);
    if (!statement.IsCompiled()) {
        LMR_LOG_ERROR("error select %s", query != nullptr ? query : "(null)");
        return false;
    }
    if (!BindAllValues_(statement.Get(), values)) {
        LMR_LOG_ERROR("Failed to bind / Q[%s], V size[%d]", query, static_cast<int>(values.size()));
        return false;
    }
    std::map<std::string, int> columns;
    while (sqlite3_step(statement.Get()) == SQLITE_ROW) {
        if (columns.empty()) {  // after the first step, which recompiles the statement if the schema has changed
            columns = ColumnsByName(statement.Get());
        }
        std::map<std::string, std::string>& row = rows.emplace_back();
        for (const auto& [name, column] : columns) {
            row.emplace_hint(row.end(), name, ColumnText(statement.Get(), column));
        }
    }
    return true;
}

void ContextDatabase::ResetDatabase() {
    if (m_bResetting.exchange(true)) {
        return;
    }
    LMR_LOG_INFO("reset database");
    CloseDatabase_();
    std::string path = DatabasePath(m_strDBName);
    std::remove(path.c_str());
    LMR_LOG_INFO("remove %s file success", path.c_str());
    path += kJournalSuffix;
    std::remove(path.c_str());
    LMR_LOG_INFO("remove %s file success", path.c_str());
    if (!OpenDatabase_()) {
        CloseDatabase_();  // a damaged file that cannot be removed has been opened again
    }
    m_bResetting = false;
}

void ContextDatabase::OnTimerCb(int timerId) {
    if (timerId != m_timerId) {
        LMR_LOG_ERROR("NOT matched any timer");
        return;
    }
    ExecuteReservedQueries_();
}

bool ContextDatabase::OpenDatabase_() {
    if (!CreateDatabase_()) {
        LMR_LOG_ERROR("create db error!");
    } else if (!CheckDatabaseIntegrity_()) {
        LMR_LOG_ERROR("integrity check db error!");
    } else if (!CreateTable_()) {
        LMR_LOG_ERROR("create table error!");
    } else {
        return true;
    }
    ResetDatabase();
    return false;
}

bool ContextDatabase::CreateDatabase_() {
    ContextAutoLock lock(&g_db_mutex);
    if (IsRunning()) {
        LMR_LOG_ERROR("DB already opened");
        return true;
    }
    const std::string path = DatabasePath(m_strDBName);
    if (ContextFileUtil::IsSymbolicLink(path.c_str())) {
        LMR_LOG_ERROR("%s is symbolic link file!", path.c_str());
        return false;
    }
    sqlite3* database = nullptr;
    if (sqlite3_open(path.c_str(), &database) != SQLITE_OK) {
        LMR_LOG_ERROR("Cannot open database: %s, %s", sqlite3_errmsg(database), path.c_str());
        sqlite3_close(database);
        return false;
    }
    m_pDB = database;
    return true;
}

bool ContextDatabase::CheckDatabaseIntegrity_() {
    bool isDamaged = false;
    {
        ContextAutoLock lock(&g_db_mutex);
        if (!IsRunning()) {
            LMR_LOG_ERROR("DB not opened yet");
            return true;
        }
        const int result =
            sqlite3_exec(m_pDB, QUERY_INTEGRITY_CHECK, OnIntegrityCheckCallBack, &isDamaged, /*errmsg=*/nullptr);
        if (result == SQLITE_CORRUPT || result == SQLITE_NOTADB) {
            LMR_LOG_ERROR("Query ERROR Q : %s", QUERY_INTEGRITY_CHECK);
            return false;
        }
    }
    if (isDamaged) {
        ResetDatabase();
    }
    return true;
}

bool ContextDatabase::CreateTable_() {
    ExecuteQuery(m_strCreateTableQuery.c_str(), {}, /*immediate=*/true);
    return true;
}

void ContextDatabase::CloseDatabase_() {
    ContextAutoLock lock(&g_db_mutex);
    sqlite3_close(m_pDB.exchange(nullptr));
}

bool ContextDatabase::ExecuteQuery_(const char* query, const ValueList& values) {
    ContextAutoLock lock(&g_db_mutex);
    if (!IsRunning()) {
        LMR_LOG_ERROR("DB not opened yet");
        return true;
    }
    const Statement statement(m_pDB, query);
    if (!statement.IsCompiled()) {
        LMR_LOG_ERROR("error excute %s", query);
        return false;
    }
    if (!BindAllValues_(statement.Get(), values)) {
        LMR_LOG_ERROR("Failed to bind / Q[%s], V size[%d]", query, static_cast<int>(values.size()));
        return false;
    }
    if (sqlite3_step(statement.Get()) != SQLITE_DONE) {
        LMR_LOG_ERROR("Query ERROR Q : %s", query);
        LMR_LOG_ERROR("vecSqlQueryValue size : %d", static_cast<int>(values.size()));
        return false;
    }
    return true;
}

void ContextDatabase::ReserveQuery_(const char* query, const ValueList& values) {
    ContextAutoLock lock(&g_query_set_mutex);
    m_vecQuerySet.push_back({query, values});
}

void ContextDatabase::ExecuteReservedQueries_() {
    ContextAutoLock lock(&g_query_set_mutex);
    for (const struct_query_set& entry : m_vecQuerySet) {
        if (!ExecuteQuery_(entry.strQuery.c_str(), entry.vecSqlQueryValue)) {
            ResetDatabase();
            break;
        }
    }
    m_vecQuerySet.clear();
    if (m_vecQuerySet.capacity() > kKeptQueryCapacity) {
        m_vecQuerySet.shrink_to_fit();
    }
}

bool ContextDatabase::BindAllValues_(sqlite3_stmt* statement, const ValueList& values) {
    int index = 0;
    for (const auto& [type, value] : values) {
        ++index;
        int result = SQLITE_OK;
        switch (type) {
            case SQL_INT:
                result = BindSqlStatement_(statement, index, value.nValue);
                break;
            case SQL_LONG:
                result = BindSqlStatement_(statement, index, value.lValue);
                break;
            case SQL_STRING:
                result = BindSqlStatement_(statement, index, value.strValue);
                break;
            case SQL_CSTRING:
                result = BindSqlStatement_(statement, index, value.pszValue);
                break;
            default:
                LMR_LOG_ERROR("unknown enum type");
                return false;
        }
        if (result != SQLITE_OK) {
            return false;
        }
    }
    return true;
}

int ContextDatabase::BindSqlStatement_(sqlite3_stmt* statement, int index, std::string value) {
    return BindSqlStatement_(statement, index, value.c_str());
}

int ContextDatabase::BindSqlStatement_(sqlite3_stmt* statement, int index, const char* value) {
    return sqlite3_bind_text(statement, index, value, /*length=*/-1, SQLITE_TRANSIENT);
}

int ContextDatabase::BindSqlStatement_(sqlite3_stmt* statement, int index, long value) {
    return sqlite3_bind_int64(statement, index, value);
}

int ContextDatabase::BindSqlStatement_(sqlite3_stmt* statement, int index, int value) {
    return sqlite3_bind_int(statement, index, value);
}
