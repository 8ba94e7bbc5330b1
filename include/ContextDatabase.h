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

/// Selects the member of a struct_sql_value that is bound.
enum enum_sql_type : int {
    SQL_INT = 0,      ///< `nValue`
    SQL_LONG = 1,     ///< `lValue`, sign-extended to 64 bits
    SQL_STRING = 2,   ///< `strValue`, up to its first zero byte
    SQL_CSTRING = 3,  ///< `pszValue`; null binds SQL NULL
};

/// One value of a statement; only the member selected by its tag is used.
struct struct_sql_value {
    int nValue = 0;                  ///< for `SQL_INT`
    long lValue = 0;                 ///< for `SQL_LONG`: 32 or 64 bits, depending on the platform
    std::string strValue;            ///< for `SQL_STRING`
    const char* pszValue = nullptr;  ///< for `SQL_CSTRING`: not owned; valid until the statement has run
    long long llValue = 0;           ///< never bound
};

/// One deferred statement.
struct struct_query_set {
    std::string strQuery;                                                      ///< the statement
    std::vector<std::pair<enum_sql_type, struct_sql_value>> vecSqlQueryValue;  ///< its values, in order
};

/// One SQLite file in the service's data directory, with immediate and deferred writes, that heals itself.
///
/// The path is kDataDirectory, one more "/", and the name given to the constructor. Opening creates a missing file,
/// checks its integrity and runs the statement that creates its table.
///
/// **Healing, and what it costs.** A fault of the file found at opening, or a failed *write*, causes a reset: the file
/// and its journal are deleted, and an **empty** file is created. Faults are a damaged file, a file that cannot be
/// opened (too few descriptors suffice, or a link to a file at SQLite's "-wal"), a symbolic link at the path, which is
/// deleted and not followed, and what is no regular file: anything else at the journal, or a folder, a FIFO, a socket
/// or a device at the path, or a FIFO, a socket or a device at "-wal" or "-shm" if the file is not empty. A write fails
/// when its text is empty or does not compile, a value cannot be bound, a constraint is violated, the statement yields
/// a row, the disk is full, SQLite has no memory, or another connection locks the file. The creation statement at each
/// opening is such a write. To keep your data, avoid statements that can fail: `INSERT OR IGNORE` skips a row with a
/// duplicate key or with NULL in a NOT NULL column, and `CREATE TABLE IF NOT EXISTS` does nothing if the table exists;
/// but no choice of statement helps against a full disk, or against a lock that outlasts the busy timeout (0 at first).
/// Read with SelectQuery(), which never resets. When a reset cannot open the file, the database stays closed: each
/// statement then only logs "DB not opened yet", and only ResetDatabase() opens it.
///
/// **Limits a host must know.**
/// - *One object per file.* After one object resets, another object of the same file still has the deleted file open:
///   its next write that would change anything fails, and wipes the new file.
/// - *One process per file.* If others must lock it for a short time, run `PRAGMA busy_timeout = <ms>` through
///   SelectQuery(): a write then waits, and with it all databases. Run it again after every reset.
/// - *No fork.* In a child process the flush timer does not run, a lock held by another thread at the time of the fork
///   is never released, destroying an object with a timer is undefined, and destroying one without a timer deletes the
///   journal of the parent's open transaction, whose COMMIT then fails. The child must only call `exec` or `_exit`.
/// - *A name that names a file.* If its last component is empty, "." or "..", the error "%s is no file name!" is
///   logged, the object stays closed, and no file is touched, by ResetDatabase() either. A name ends at its first zero
///   byte.
/// - *Protect the directory.* SQLite believes the files that it finds: a stale "-wal" beside a file with content brings
///   the old rows back and loses the new ones, a foreign journal overwrites the content, and while a folder is at
///   "-wal" every write fails. Links and special files are looked for at the opening only; a FIFO that is put at the
///   journal later blocks all databases. A link that is put at the path during the opening is noticed after it: an
///   empty file may then exist at its target. A link that is removed again in the meantime is not noticed.
/// - *Statements end.* A view or a trigger that runs without end, also one in a file from elsewhere, blocks all
///   databases of the process.
/// - *Power loss* may roll back the last write, always as a whole.
/// - *A clock that is set back* delays the next flush by the same time.
/// - *Waiting.* Deferring a write blocks while any database of the process flushes: 0.4 to 1 s for 500 inserts on a PC,
///   but 4 to 19 ms when they are in one transaction.
/// - *64-bit values.* `long` has 32 bits on the device. Pass larger numbers as text: an INTEGER column converts them;
///   elsewhere write `CAST(? AS INTEGER)`.
/// - *Concurrent failures.* A write that fails while another thread resets the database returns before the reset ends.
///   The reset closes the database for a moment; other statements then log "DB not opened yet" and are lost.
/// - *No memory for the timer.* If the timer cannot be allocated, every write is immediate. If its request is lost
///   ("Memory Allocation Fail" is logged), nothing flushes: deferred statements stay queued.
///
/// **Units.** The flush interval is in seconds.
/// **Ownership.** Query texts and values are copied, except a `SQL_CSTRING` value: only the pointer is copied, and a
/// deferred statement reads the text at the flush. Statements still queued at destruction are discarded.
/// **Threads.** ExecuteQuery(), SelectQuery(), ResetDatabase() and IsRunning() may be called from any thread.
/// SetQueryValue() uses only its arguments. The flush runs on the object's own timer thread. Two process-wide mutexes
/// serialise all objects: one guards every use of a connection; the other guards the lists of deferred statements and
/// is held during a whole flush.
/// **Errors.** Logged. Return values say little; see each method. When C++ has no memory, `std::bad_alloc` passes to
/// the caller of a constructor, SetQueryValue(), SelectQuery(), or ExecuteQuery() for a deferred statement: nothing
/// leaks, no lock stays taken, value lists and deferred statements are unchanged, and the object can be used and
/// destroyed. Opening, closing, immediate writes, resets and flushes allocate nothing through C++, so the flush thread
/// never throws. When SQLite has no memory, a write fails and a read ends early. The process aborts only when GLib has
/// no memory or no thread, or when the timer has none for its record (constructor) or for the id to kill (destructor).
class LUMORA_API ContextDatabase {
public:
    /// The directory of every database file; ends with a slash.
    static constexpr const char* kDataDirectory = "/opt/usr/apps/lumora-service/data/";

    /// The values of a statement: the n-th entry is bound to the n-th parameter.
    using ValueList = std::vector<std::pair<enum_sql_type, struct_sql_value>>;

    /// Starts the flush timer and opens the database. Call IsRunning() to see whether it could be opened.
    /// @param name              the file name, relative to kDataDirectory.
    /// @param createTableQuery  run at every opening; only the first statement of the text is run. A failure resets the
    ///                          database, so a text that is empty or always fails wipes the file at every opening.
    /// @param interval          seconds between two flushes. With 0 nothing is deferred, but the timer runs; with a
    ///                          negative interval, and with one that ends after January 2038, every tick flushes.
    ContextDatabase(std::string name, std::string createTableQuery, int interval);

    /// Opens the database without a timer. Every write is immediate.
    ContextDatabase(std::string name, std::string createTableQuery);

    /// Closes the database and stops the timer. Statements that were not flushed are lost. During a flush, the
    /// destructor makes each remaining statement log "DB not opened yet", so thousands of statements log thousands of
    /// lines; "NOT matched any timer" may follow. Both threads have ended when it returns, even without memory for the
    /// stop message ("Memory Allocation Fail" and "Stop Error" are logged).
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
    /// Deferred statements run in the order of the calls, within about the interval, and each commits by itself. If one
    /// fails, the database is reset and the statements after it are discarded.
    ///
    /// To use one transaction, defer BEGIN and COMMIT around the statements. Only one thread may then write, because a
    /// second BEGIN fails. A flush between BEGIN and COMMIT leaves the transaction open until the next flush; immediate
    /// writes in the meantime become part of it.
    ///
    /// A failure logs "error excute %s", "Failed to bind / Q[%s], V size[%d]", or "Query ERROR Q : %s" and
    /// "vecSqlQueryValue size : %d", and then resets. A closed database logs "DB not opened yet" without a reset.
    /// @param query      the statement; if there are several, only the first is run. Null logs "query is NULL" and does
    ///                   not reset.
    /// @param values     its values; parameters without a value are NULL.
    /// @param immediate  true runs the statement before the call returns. With an interval of 0, false does the same.
    void ExecuteQuery(const char* query, const ValueList& values, bool immediate);

    /// Runs a query, or a PRAGMA, and appends its rows. Never resets.
    /// @param query   the query; if there are several, only the first is run. Null does not compile; "(null)" is
    /// logged.
    /// @param values  its values; parameters without a value are NULL.
    /// @param rows    one map from column name to text is appended for each row. An integer is **cut to 32 bits**; text
    ///                ends at its first zero byte; a real, a blob and NULL become an empty text. Select
    ///                `CAST(x AS TEXT)` to keep a large integer or a real (to 15 digits), and `hex(x)` to keep a blob
    ///                or a text with zero bytes. If several columns have the same name, the last one is kept.
    /// @return false when the query does not compile ("error select %s" is logged) or a value cannot be bound ("Failed
    ///         to bind / Q[%s], V size[%d]"). Otherwise true, even when the database is closed ("DB not opened yet"),
    ///         an unreported error ends the rows early, or SQLite has no memory to read a row ("Memory Allocation
    ///         Fail"). A row that cannot be read whole is not appended.
    bool SelectQuery(const char* query, const ValueList& values, std::vector<std::map<std::string, std::string>>& rows);

    /// Deletes the file and its journal and opens an empty database. Returns at once while another reset is running.
    ///
    /// Logs the info lines "reset database" and, for each of the two files, "remove %s file success", even when nothing
    /// was removed. If the file is damaged and cannot be removed, the database ends closed.
    void ResetDatabase();

    /// Returns whether the database is open. Takes no lock.
    bool IsRunning() const { return m_pDB != nullptr; }

    /// Runs the deferred statements. **Called by** the object's timer, on its event thread.
    /// @param timerId  the id of the object's timer, or 0 for an object without one; any other id logs "NOT matched any
    ///                 timer" and does nothing.
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
    std::shared_ptr<ContextTimer> m_pTimer;  ///< empty without an interval or without memory
    std::string m_strDBName;                 ///< relative to kDataDirectory
    std::string m_strCreateTableQuery;
    std::vector<struct_query_set> m_vecQuerySet;  ///< guarded by g_query_set_mutex
    std::atomic<bool> m_bResetting;               ///< true during a reset; further resets are dropped
    int m_nInterval;                              ///< seconds; for 0 nothing is deferred
    std::atomic<TimerId> m_timerId;               ///< 0 when there is no timer
    const std::string m_strPath;                  ///< computed once: nothing allocates after the construction
    const std::string m_strJournalPath;           ///< likewise, as the two below
    const std::string m_strWalPath;
    const std::string m_strShmPath;
};

/// @}

#endif  // LUMORA_COMMON_CONTEXT_DATABASE_H
