// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_DATABASE_H
#define LUMORA_COMMON_CONTEXT_DATABASE_H

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ContextTimer.h"
#include "LumoraApi.h"

struct sqlite3;
struct sqlite3_stmt;

/// @addtogroup database
/// @{

/// Says which member of a struct_sql_value is bound.
enum enum_sql_type : int {
    SQL_INT = 0,      ///< `nValue`
    SQL_LONG = 1,     ///< `lValue`, widened with its sign to 64 bits
    SQL_STRING = 2,   ///< `strValue`, up to its first zero byte
    SQL_CSTRING = 3,  ///< `pszValue`; null binds SQL NULL
};

/// One value of a statement; only the member that its tag names counts.
struct struct_sql_value {
    int nValue = 0;                  ///< for `SQL_INT`
    long lValue = 0;                 ///< for `SQL_LONG`: 32 or 64 bits, as the platform has it
    std::string strValue;            ///< for `SQL_STRING`
    const char* pszValue = nullptr;  ///< for `SQL_CSTRING`: not owned; must be valid until the statement has run
    long long llValue = 0;           ///< never bound
};

/// One deferred statement.
struct struct_query_set {
    std::string strQuery;                                                      ///< the statement
    std::vector<std::pair<enum_sql_type, struct_sql_value>> vecSqlQueryValue;  ///< its values, in order
};

/// One SQLite file in the service's data directory, with immediate and deferred writes, that heals itself.
///
/// The file is "/opt/usr/apps/lumora-service/data/", a further "/", and the name given to the constructor. Opening
/// creates it when it is missing, checks its integrity and runs the statement that creates its table.
///
/// **Healing, and what it costs.** Whatever goes wrong with the file or with a *write* ends in a reset: the file and
/// its journal are deleted and built afresh, **empty**. That is so for a damaged file, for a symbolic link at the path
/// (the link is deleted, never followed), and for every failed write: a text that does not compile, a bind failure, a
/// constraint violation, a statement that yields a row, a lock that another process holds on the file. A host that
/// must not lose its data writes statements that cannot fail (`INSERT OR IGNORE`, `CREATE TABLE IF NOT EXISTS`), keeps
/// the file to itself, and reads with SelectQuery(), which never resets. A reset that fails leaves the database closed;
/// everything then logs "DB not opened yet", and only ResetDatabase() opens it again.
///
/// **Units.** The flush interval is in seconds.
/// **Ownership.** Query texts and values are copied, except that a `SQL_CSTRING` value is the caller's pointer: for a
/// deferred statement what it points to is read at the flush. Statements that still wait when the object is destroyed
/// are discarded.
/// **Threads.** ExecuteQuery(), SelectQuery(), ResetDatabase() and IsRunning() may be called from any thread. The
/// flush runs on a timer thread of the object's own; SetQueryValue() touches only its argument. Two process-wide
/// mutexes serialise all objects: one over every use of a connection, one over the lists of deferred statements, which
/// is held while a flush runs.
/// **Errors.** Logged; the return values say little, as each operation states.
class LUMORA_API ContextDatabase {
public:
    /// The folder of every database file, with a slash at its end.
    static constexpr const char* kDataDirectory = "/opt/usr/apps/lumora-service/data/";

    /// The positional values of a statement: the n-th entry binds the n-th parameter.
    using ValueList = std::vector<std::pair<enum_sql_type, struct_sql_value>>;

    /// Opens the database and starts its flush timer.
    ///
    /// Whether it could be opened is not reported: see IsRunning(). The timer runs even for an interval of 0.
    /// @param name              the file's name, relative to the data directory.
    /// @param createTableQuery  run at every opening, immediately; a failure resets the database. Only the first
    ///                          statement of the text counts.
    /// @param interval          seconds between two flushes; 0 defers nothing.
    ContextDatabase(std::string name, std::string createTableQuery, int interval);

    /// Opens the database without a timer: every write runs at once.
    ContextDatabase(std::string name, std::string createTableQuery);

    /// Closes the database and stops the timer. Deferred statements that were not flushed are lost.
    virtual ~ContextDatabase();

    ContextDatabase(const ContextDatabase&) = delete;
    ContextDatabase& operator=(const ContextDatabase&) = delete;

    /// @name Building a value list
    /// Each appends one value.
    /// @{
    void SetQueryValue(ValueList& values, std::string value);  ///< as `SQL_STRING`
    void SetQueryValue(ValueList& values, const char* value);  ///< as `SQL_CSTRING`: keeps the pointer, not the text
    void SetQueryValue(ValueList& values, int value);          ///< as `SQL_INT`
    void SetQueryValue(ValueList& values, long value);         ///< as `SQL_LONG`
    /// @}

    /// Runs or defers one statement that returns no rows.
    ///
    /// Deferred statements run in the order of the calls, within about the interval, each committing on its own. A
    /// host that wants one transaction may defer its own BEGIN and COMMIT, where only one thread writes: a second BEGIN
    /// inside the first is a failed write, and a flush that falls between the two leaves the transaction open until the
    /// next, so that immediate writes meanwhile belong to it. When one fails, the database is reset and
    /// what waits behind it is discarded. Logs "error excute %s", "Failed to bind / Q[%s], V size[%d]", or "Query
    /// ERROR Q : %s" and "vecSqlQueryValue size : %d" before a reset; "DB not opened yet", without a reset, when the
    /// database is closed.
    /// @param query      the statement; of several, only the first is run. Null is refused with a log line, and is the
    ///                   one failure that does not reset.
    /// @param values     its values; parameters without one are NULL.
    /// @param immediate  true runs it before the call returns; so does an interval of 0.
    void ExecuteQuery(const char* query, const ValueList& values, bool immediate);

    /// Runs a query and appends its rows.
    /// @param query   the query; of several, only the first is run.
    /// @param values  its values; parameters without one are NULL.
    /// @param rows    receives behind what it holds one map per row, from column name to text. An integer is **cut to
    ///                32 bits**; text ends at its first zero byte; a real, a blob and NULL give an empty text. Of two
    ///                columns with one name the later one counts. Select `CAST(x AS TEXT)` for what would be lost.
    /// @return false when the query does not compile ("error select %s" is logged) or a value cannot be bound ("Failed
    ///         to bind / Q[%s], V size[%d]"). True otherwise: also when the database is closed ("DB not opened yet"),
    ///         and when reading stops early at an error, which is not reported.
    bool SelectQuery(const char* query, const ValueList& values, std::vector<std::map<std::string, std::string>>& rows);

    /// Deletes the file and its journal and opens the database afresh, empty. Does nothing while a reset runs.
    ///
    /// Logs the info lines "reset database" and, for both files, "remove %s file success", whether or not there was
    /// anything to remove.
    void ResetDatabase();

    /// Tells whether the database is open. Takes no lock.
    bool IsRunning() const { return m_pDB != nullptr; }

    /// Runs the deferred statements. **Called by** the object's timer, on its event thread.
    /// @param timerId  any other than that of the object's timer logs "NOT matched any timer" and does nothing.
    void OnTimerCb(int timerId);

private:
    bool OpenDatabase_();
    bool CreateDatabase_();
    bool CheckDatabaseIntegrity_();
    bool CreateTable_();
    void CloseDatabase_();

    bool ExecuteQuery_(const char* query, const ValueList& values);
    void ReserveQuery_(const char* query, const ValueList& values);
    void ExecuteReservedQueries_();

    bool BindAllValues_(sqlite3_stmt* statement, const ValueList& values);
    int BindSqlStatement_(sqlite3_stmt* statement, int index, std::string value);
    int BindSqlStatement_(sqlite3_stmt* statement, int index, const char* value);
    int BindSqlStatement_(sqlite3_stmt* statement, int index, long value);
    int BindSqlStatement_(sqlite3_stmt* statement, int index, int value);

    std::atomic<sqlite3*> m_pDB;             ///< null when closed; used under g_db_mutex
    std::shared_ptr<ContextTimer> m_pTimer;  ///< empty when built without an interval
    std::string m_strDBName;                 ///< relative to the data directory
    std::string m_strCreateTableQuery;
    std::vector<struct_query_set> m_vecQuerySet;  ///< guarded by g_query_set_mutex
    std::atomic<bool> m_bResetting;               ///< drops a reset that would start inside a reset
    int m_nInterval;                              ///< seconds; 0 defers nothing
    std::atomic<TimerId> m_timerId;               ///< 0 when there is none
};

/// @}

#endif  // LUMORA_COMMON_CONTEXT_DATABASE_H
