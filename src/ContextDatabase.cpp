// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <fcntl.h>
#include <glib.h>
#include <sqlite3.h>
#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "ContextAutoLock.h"
#include "ContextFileUtil.h"
#include "Log.h"

namespace {

// SQLite's names for the files that it keeps beside the database.
constexpr const char* kJournalSuffix = "-journal";
constexpr const char* kWalSuffix = "-wal";
constexpr const char* kShmSuffix = "-shm";

constexpr const char* QUERY_INTEGRITY_CHECK = "pragma integrity_check";

constexpr std::size_t kUsualValueCount = 8;
constexpr std::size_t kKeptQueryCapacity = 256;  ///< a larger capacity is released after a flush

// Shared by all databases of the process. Lock order: g_query_set_mutex, then g_db_mutex.
GMutex g_db_mutex;         ///< guards every use of a connection
GMutex g_query_set_mutex;  ///< guards the lists of deferred statements

/// @param name  a C string: a name ends at its first zero byte, for the journal's path too.
std::string DatabasePath(const char* name) {
    return std::string(ContextDatabase::kDataDirectory) + "/" + name;
}

/// Tells whether the last component of an absolute path can name a file. Logs an error if it cannot.
bool IsFileName(const char* path) {
    const char* last = std::strrchr(path, '/') + 1;
    if (*last != '\0' && std::strcmp(last, ".") != 0 && std::strcmp(last, "..") != 0) {
        return true;
    }
    LMR_LOG_ERROR("%s is no file name!", path);
    return false;
}

/// @return the type of the file at a path, which is not followed if it is a link; 0 when it cannot be read.
mode_t FileType(const std::string& path) {
    struct statx status {};  // unlike lstat(), not limited by a 32-bit time_t: a FIFO may have times after 2038
    return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status) == 0 ? status.stx_mode & S_IFMT : 0;
}

/// Tells whether a path is a FIFO, a socket or a device.
bool IsSpecialFile(const std::string& path) {
    const mode_t type = FileType(path);
    return type != 0 && type != S_IFREG && type != S_IFDIR && type != S_IFLNK;
}

bool IsMissingOrEmpty(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_size == 0 : errno == ENOENT;
}

/// @return the first path that SQLite must not open, because a FIFO could block it for ever; null when there is none.
const char* FindUnsafePath(const std::string& path, const std::string& journal, const std::string& wal,
                           const std::string& shm) {
    if (IsSpecialFile(path)) {
        return path.c_str();
    }
    if (const mode_t type = FileType(journal); type != 0 && type != S_IFREG) {
        return journal.c_str();
    }
    if (IsMissingOrEmpty(path)) {
        return nullptr;  // SQLite then only removes the file at "-wal", and does not open "-shm"
    }
    if (IsSpecialFile(wal)) {
        return wal.c_str();
    }
    return IsSpecialFile(shm) ? shm.c_str() : nullptr;
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

/// The timer of one database. Its event thread can be stopped when there is no memory for a stop message.
class FlushTimer : public ContextTimer {
public:
    FlushTimer() : m_stopMessage{/*nEventId=*/-1, nullptr, /*bStop=*/true, /*bStatic=*/true, /*nPriority=*/INT_MAX} {}
    ~FlushTimer() override {
        if (ContextEventThread::IsRuning()) {
            PushStaticEvent(&m_stopMessage);  // its priority value is the largest: after all queued events
            g_thread_join(ContextEventThread::m_pThread);
        }
        for (const CTimerData* timer : m_timerList) {  // a timer whose removal could not be requested
            delete timer;
        }
    }

    FlushTimer(const FlushTimer&) = delete;
    FlushTimer& operator=(const FlushTimer&) = delete;

private:
    TEventMessage m_stopMessage;
};

/// Clears a flag at the end of its scope, so that a reset that fails half-way can be tried again.
class FlagClearer {
public:
    explicit FlagClearer(std::atomic<bool>& flag) : m_flag(flag) {}
    ~FlagClearer() { m_flag = false; }

    FlagClearer(const FlagClearer&) = delete;
    FlagClearer& operator=(const FlagClearer&) = delete;

private:
    std::atomic<bool>& m_flag;
};

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

using Row = std::map<std::string, std::string>;
using Columns = std::map<std::string, int>;

/// Maps each name to the last column that has it. Sorted, so that every row is built without a search.
/// @return false when SQLite has no memory for a name.
bool ReadColumnNames(sqlite3_stmt* statement, Columns& columns) {
    const int count = sqlite3_column_count(statement);
    for (int column = 0; column < count; ++column) {
        const char* name = sqlite3_column_name(statement, column);
        if (name == nullptr) {
            return false;
        }
        columns[name] = column;
    }
    return true;
}

/// @return false when SQLite has no memory for the text.
bool ReadColumn(sqlite3_stmt* statement, int column, std::string& text) {
    const int type = sqlite3_column_type(statement, column);
    if (type == SQLITE_INTEGER) {
        text = std::to_string(sqlite3_column_int(statement, column));
    } else if (type == SQLITE_TEXT) {
        const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
        if (value == nullptr) {
            return false;
        }
        text = value;
    }
    return true;
}

/// @return false when SQLite has no memory for a text.
bool ReadRow(sqlite3_stmt* statement, const Columns& columns, Row& row) {
    for (const auto& [name, column] : columns) {
        if (!ReadColumn(statement, column, row.emplace_hint(row.end(), name, std::string())->second)) {
            return false;
        }
    }
    return true;
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
      m_pTimer(new (std::nothrow) FlushTimer),
      m_strDBName(std::move(name)),
      m_strCreateTableQuery(std::move(createTableQuery)),
      m_bResetting(false),
      m_nInterval(interval),
      m_timerId(0),
      m_strPath(DatabasePath(m_strDBName.c_str())),
      m_strJournalPath(m_strPath + kJournalSuffix),
      m_strWalPath(m_strPath + kWalSuffix),
      m_strShmPath(m_strPath + kShmSuffix) {
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
      m_timerId(0),
      m_strPath(DatabasePath(m_strDBName.c_str())),
      m_strJournalPath(m_strPath + kJournalSuffix),
      m_strWalPath(m_strPath + kWalSuffix),
      m_strShmPath(m_strPath + kShmSuffix) {
    OpenDatabase_();
}

ContextDatabase::~ContextDatabase() {
    CloseDatabase_();
    if (m_pTimer) {
        m_pTimer->KillTimer(m_timerId);
        m_timerId = 0;
        m_pTimer->Stop();
        m_pTimer.reset();  // joins the event thread if Stop() could not
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
    Columns columns;
    while (sqlite3_step(statement.Get()) == SQLITE_ROW) {
        Row row;
        // The names are read after the first step, which recompiles the statement if the schema has changed.
        if ((columns.empty() && !ReadColumnNames(statement.Get(), columns)) ||
            !ReadRow(statement.Get(), columns, row)) {
            LMR_LOG_ERROR("Memory Allocation Fail");
            break;
        }
        rows.push_back(std::move(row));
    }
    return true;
}

void ContextDatabase::ResetDatabase() {
    if (!IsFileName(m_strPath.c_str()) || m_bResetting.exchange(true)) {
        return;
    }
    const FlagClearer clearer(m_bResetting);
    LMR_LOG_INFO("reset database");
    CloseDatabase_();
    std::remove(m_strPath.c_str());
    LMR_LOG_INFO("remove %s file success", m_strPath.c_str());
    std::remove(m_strJournalPath.c_str());
    LMR_LOG_INFO("remove %s file success", m_strJournalPath.c_str());
    if (!OpenDatabase_()) {
        CloseDatabase_();  // a damaged file that cannot be removed has been opened again
    }
}

void ContextDatabase::OnTimerCb(int timerId) {
    if (timerId != m_timerId) {
        LMR_LOG_ERROR("NOT matched any timer");
        return;
    }
    ExecuteReservedQueries_();
}

bool ContextDatabase::OpenDatabase_() {
    if (!IsFileName(m_strPath.c_str())) {
        return false;
    }
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
    const char* path = m_strPath.c_str();
    if (ContextFileUtil::IsSymbolicLink(path)) {
        LMR_LOG_ERROR("%s is symbolic link file!", path);
        return false;
    }
    if (const char* unsafe = FindUnsafePath(m_strPath, m_strJournalPath, m_strWalPath, m_strShmPath)) {
        LMR_LOG_ERROR("%s is not a regular file!", unsafe);
        return false;
    }
    sqlite3* database = nullptr;
    if (sqlite3_open(path, &database) != SQLITE_OK) {
        LMR_LOG_ERROR("Cannot open database: %s, %s", sqlite3_errmsg(database), path);
        sqlite3_close(database);
        return false;
    }
    if (ContextFileUtil::IsSymbolicLink(path)) {  // it has appeared since the first look, and SQLite has followed it
        LMR_LOG_ERROR("%s is symbolic link file!", path);
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
    if (isDamaged && m_bResetting) {
        return false;  // the reset could not remove the file
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
        std::vector<struct_query_set>().swap(m_vecQuerySet);
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
                result = BindSqlStatement_(statement, index, value.strValue.c_str());  // without a copy
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
