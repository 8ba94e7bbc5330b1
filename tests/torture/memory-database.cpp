// SPDX-License-Identifier: Apache-2.0
#include <sqlite3.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <optional>

#include "ContextDatabase.h"
#include "MemoryCases.h"
#include "Waiting.h"

namespace {

using Rows = std::vector<std::map<std::string, std::string>>;

constexpr const char* kCreate = "CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, name TEXT)";
constexpr const char* kInsert = "INSERT OR IGNORE INTO t VALUES (?, ?)";
constexpr const char* kNoMemory = "Memory Allocation Fail";
constexpr int kNever = 3600;    ///< an interval that does not pass during a try
constexpr int kEveryTick = -1;  ///< flushes at every tick
const std::string kLongText(300, 'n');

std::atomic<int> g_marks{0};  ///< calls of the SQL function mark()

std::string Path() {
    return std::string(ContextDatabase::kDataDirectory) + "/x.db";
}

/// Defines mark() in every connection.
int AddMark(sqlite3* database, char** /*error*/, const sqlite3_api_routines* /*routines*/) {
    const auto mark = [](sqlite3_context* context, int, sqlite3_value**) {
        ++g_marks;
        sqlite3_result_int(context, 1);
    };
    return sqlite3_create_function(database, "mark", 0, SQLITE_UTF8, nullptr, mark, nullptr, nullptr);
}

/// Runs statements on a connection outside the library.
/// @return the first column of every row, each followed by a space, or "?" when a statement fails.
std::string Run(const char* sql) {
    std::string text;
    sqlite3* database = nullptr;
    const auto add = [](void* data, int, char** values, char**) {
        *static_cast<std::string*>(data) += std::string(values[0]) + ' ';
        return 0;
    };
    if (sqlite3_open_v2(Path().c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_exec(database, sql, add, &text, nullptr) != SQLITE_OK) {
        text = "?";
    }
    sqlite3_close(database);
    return text;
}

std::string Ids() {
    return Run("SELECT id FROM t ORDER BY id");
}

bool IsReset() {
    return MemoryLog::Has("reset database");
}

/// The data directory with one file of two rows. An object under test opens it.
class Folder {
public:
    explicit Folder(const char* before = "") {
        for (const auto& entry : std::filesystem::directory_iterator(ContextDatabase::kDataDirectory)) {
            std::filesystem::remove_all(entry.path());
        }
        sqlite3* database = nullptr;
        sqlite3_open(Path().c_str(), &database);
        const std::string sql =
            std::string(before) + kCreate + "; INSERT INTO t VALUES (1, '" + kLongText + "'), (2, 'second')";
        if (sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
            std::abort();
        }
        sqlite3_close(database);
    }
};

void Defer(ContextDatabase& database, const char* statement) {
    database.ExecuteQuery(statement, {}, /*immediate=*/false);
}

/// Reads through the object: another connection would lock the file, and a flush at that moment would fail.
bool HasRow(ContextDatabase& database, const char* id) {
    Rows rows;
    database.SelectQuery((std::string("SELECT id FROM t WHERE id = ") + id).c_str(), {}, rows);
    return !rows.empty();
}

/// Flushes an object that is the only one with a timer.
/// @return the timer's id.
int Flush(ContextDatabase& database) {
    constexpr int kMaxId = 1000;
    int id = 0;
    do {
        MemoryLog::Clear();
        database.OnTimerCb(++id);
    } while (MemoryLog::Has("NOT matched") && id < kMaxId);
    return id;
}

/// Demands that another thread can write, after a reset if the database is closed or has no table.
void HoldsWriting(Try& tried, ContextDatabase& database) {
    tried.Elsewhere([&] {
        if (!database.IsRunning() || Ids() == "?") {
            database.ResetDatabase();
        }
        ContextDatabase::ValueList values;
        database.SetQueryValue(values, 99);
        database.SetQueryValue(values, kLongText);
        database.ExecuteQuery(kInsert, values, /*immediate=*/true);
        tried.Holds(database.IsRunning() && Ids().find("99 ") != std::string::npos, "not writable any more");
        tried.Holds(Run("PRAGMA integrity_check") == "ok ", "the file is damaged");
    });
}

/// Demands the rows that are left when nothing was reset, and none after a reset.
void HoldsIds(Try& tried, const std::string& expected) {
    const std::string ids = Ids();
    if (IsReset()) {
        tried.Holds(!tried.IsUntouched() && (ids.empty() || ids == "?"), "rows outlive a reset");
    } else {
        tried.Holds(ids == expected, "other rows");
    }
}

void TryOpening(Try& tried) {
    const Folder folder;
    const std::string name = "x.db";
    const std::string create = kCreate;
    std::optional<ContextDatabase> database;
    tried.Call([&] { database.emplace(name, create); });
    HoldsIds(tried, "1 2 ");
    if (!tried.HasPassed()) {
        database.emplace(name, create);
    }
    HoldsWriting(tried, *database);
}

void TryOpeningWithTimer(Try& tried) {
    const Folder folder;
    const std::string name = "x.db";
    const std::string create = kCreate;
    std::optional<ContextDatabase> database;
    tried.CallEverywhere([&] { database.emplace(name, create, kNever); });
    HoldsIds(tried, "1 2 ");
    if (!tried.HasPassed()) {
        database.emplace(name, create, kNever);
    }
    HoldsWriting(tried, *database);
}

/// A database that was opened without memory runs what it is given later, unless the loss of its timer was logged.
void TryFlushAfterOpening(Try& tried) {
    const Folder folder;
    const std::string name = "x.db";
    const std::string create = kCreate;
    std::optional<ContextDatabase> database;
    tried.CallEverywhere([&] {
        database.emplace(name, create, kEveryTick);
        Waiting::Until([] { return MemoryLog::Has(kNoMemory); }, std::chrono::milliseconds(5));
    });
    if (tried.HasPassed()) {
        const bool isTimerLost = MemoryLog::Has(kNoMemory);
        HoldsWriting(tried, *database);
        Defer(*database, "INSERT OR IGNORE INTO t VALUES (50, '')");
        tried.Holds(isTimerLost || Waiting::Until([&] { return HasRow(*database, "50"); }),
                    "a deferred write is never run");
    }
}

void TryClosing(Try& tried, int interval) {
    const Folder folder;
    std::optional<ContextDatabase> database;
    database.emplace("x.db", kCreate, interval);
    tried.CallEverywhere([&] { database.reset(); });
    tried.Returns();
    Waiting::Until([] { return false; }, std::chrono::milliseconds(3));  // lets a thread run that was not stopped
    HoldsIds(tried, "1 2 ");
    ContextDatabase later("x.db", kCreate);
    HoldsWriting(tried, later);
}

void TryImmediate(Try& tried) {
    const Folder folder;
    ContextDatabase database("x.db", kCreate);
    ContextDatabase::ValueList values;
    database.SetQueryValue(values, 3);
    database.SetQueryValue(values, kLongText);
    tried.Call([&] { database.ExecuteQuery(kInsert, values, /*immediate=*/true); });
    tried.Returns();
    HoldsIds(tried, "1 2 3 ");
    HoldsWriting(tried, database);
}

void TryDeferring(Try& tried) {
    const Folder folder;
    ContextDatabase database("x.db", kCreate, kNever);
    ContextDatabase::ValueList values;
    database.SetQueryValue(values, 3);
    database.SetQueryValue(values, kLongText);
    tried.Call([&] { database.ExecuteQuery(kInsert, values, /*immediate=*/false); });
    Flush(database);
    tried.Holds(!IsReset() && Ids() == (tried.HasPassed() ? "1 2 3 " : "1 2 "), "other rows");
    HoldsWriting(tried, database);
}

void TryFlush(Try& tried) {
    const Folder folder;
    ContextDatabase database("x.db", kCreate, kNever);
    const int id = Flush(database);
    MemoryLog::Clear();
    Defer(database, "INSERT INTO t VALUES (3, 'a')");
    Defer(database, "INSERT INTO t VALUES (4, 'b')");
    tried.Call([&] { database.OnTimerCb(id); });
    tried.Returns();
    database.OnTimerCb(id);  // runs what had no memory
    HoldsIds(tried, "1 2 3 4 ");
    HoldsWriting(tried, database);
}

/// A flush on the event thread, while every thread fails.
void TryFlushOnTimer(Try& tried) {
    const Folder folder;
    ContextDatabase other("other.db", kCreate, kNever);
    ContextDatabase database("x.db", kCreate, kEveryTick);
    g_marks = 0;
    Defer(database, "INSERT INTO t SELECT 2, mark() WHERE mark() = 0");
    tried.Holds(Waiting::Until([] { return g_marks > 0; }), "does not flush");
    g_marks = 0;
    Defer(database, "INSERT INTO t SELECT 3, mark()");
    tried.CallEverywhere([&] { Waiting::Until([] { return g_marks > 0 || IsReset() || MemoryLog::Has(kNoMemory); }); });
    tried.Returns();
    tried.Holds(Waiting::Until([&] { return IsReset() || HasRow(database, "3"); }), "other rows");
    Defer(other, "SELECT 1");  // waits until the flush, with its reset, is over
    HoldsWriting(tried, database);
}

/// Demands that the rows are the first ones of those that are there.
void TrySelect(Try& tried, const char* before) {
    const Folder folder(before);
    ContextDatabase database("x.db", kCreate);
    const Rows all = {{{"old", "row"}},
                      {{"id", "1"}, {"joined", kLongText + "+"}, {"name", kLongText}},
                      {{"id", "2"}, {"joined", "second+"}, {"name", "second"}}};
    Rows rows = {all[0]};
    ContextDatabase::ValueList values;
    database.SetQueryValue(values, "+");
    bool isOk = false;
    tried.Call(
        [&] { isOk = database.SelectQuery("SELECT id, name, name || ? AS joined FROM t ORDER BY id", values, rows); });
    tried.Holds(isOk || !tried.HasPassed() || MemoryLog::Has("error select") || MemoryLog::Has("Failed to bind"),
                "fails without a log line");
    tried.Holds(!tried.IsUntouched() || rows == all, "other rows");
    tried.Holds(rows.size() <= all.size() && std::equal(rows.begin(), rows.end(), all.begin()), "delivers a wrong row");
    tried.Holds(!IsReset() && Ids() == "1 2 ", "a select resets");
    HoldsWriting(tried, database);
}

void TryReset(Try& tried) {
    const Folder folder;
    ContextDatabase database("x.db", kCreate);
    tried.Call([&] { database.ResetDatabase(); });
    tried.Returns();
    tried.Holds(IsReset(), "does not log");
    const std::string ids = Ids();
    tried.Holds(ids.empty() || (ids == "?" && !tried.IsUntouched()), "rows outlive a reset");
    HoldsWriting(tried, database);
}

/// Appends a value; unless it throws, the list has one more entry.
template <class Function>
void TryValue(Try& tried, Function function) {
    const Folder folder;
    ContextDatabase database("x.db", kCreate);
    ContextDatabase::ValueList values;
    tried.Call([&] { function(database, values); });
    tried.Holds(values.size() == (tried.HasPassed() ? 1 : 0), "wrong list");
    HoldsWriting(tried, database);
}

constexpr Case kCases[] = {
    {"ContextDatabase::ContextDatabase(std::string, std::string)", TryOpening},
    {"ContextDatabase::ContextDatabase(std::string, std::string, int)", TryOpeningWithTimer, "timerData != __null"},
    {"ContextDatabase::ContextDatabase(std::string, std::string, int)", TryFlushAfterOpening, "timerData != __null"},
    {"ContextDatabase::~ContextDatabase()", [](Try& tried) { TryClosing(tried, kNever); }, "ptimerId != __null"},
    {"ContextDatabase::SetQueryValue(ValueList&, std::string)",
     [](Try& tried) {
         TryValue(tried, [](ContextDatabase& database, ContextDatabase::ValueList& values) {
             database.SetQueryValue(values, kLongText);
         });
     }},
    {"ContextDatabase::SetQueryValue(ValueList&, char const*)",
     [](Try& tried) {
         TryValue(tried, [](ContextDatabase& database, ContextDatabase::ValueList& values) {
             database.SetQueryValue(values, "text");
         });
     }},
    {"ContextDatabase::SetQueryValue(ValueList&, int)",
     [](Try& tried) {
         TryValue(tried, [](ContextDatabase& database, ContextDatabase::ValueList& values) {
             database.SetQueryValue(values, 1);
         });
     }},
    {"ContextDatabase::SetQueryValue(ValueList&, long)",
     [](Try& tried) {
         TryValue(tried, [](ContextDatabase& database, ContextDatabase::ValueList& values) {
             database.SetQueryValue(values, 1L);
         });
     }},
    {"ContextDatabase::ExecuteQuery(char const*, ValueList const&, bool)", TryImmediate},
    {"ContextDatabase::ExecuteQuery(char const*, ValueList const&, bool)", TryDeferring, ""},
    {"ContextDatabase::SelectQuery(char const*, ValueList const&, Rows&)", [](Try& tried) { TrySelect(tried, ""); }},
    {"ContextDatabase::SelectQuery(char const*, ValueList const&, Rows&)",
     [](Try& tried) { TrySelect(tried, "PRAGMA encoding='UTF-16'; "); }},
    {"ContextDatabase::ResetDatabase()", TryReset},
    {"ContextDatabase::IsRunning()",
     [](Try& tried) {
         const Folder folder;
         ContextDatabase database("x.db", kCreate);
         bool isRunning = false;
         tried.Call([&] { isRunning = database.IsRunning(); });
         tried.Returns();
         tried.Holds(isRunning, "closed");
     }},
    {"ContextDatabase::OnTimerCb(int)", TryFlush, ""},
    {"ContextDatabase::OnTimerCb(int)", TryFlushOnTimer, ""},
};

}  // namespace

Cases DatabaseCases() {
    int (*extension)(sqlite3*, char**, const sqlite3_api_routines*) = AddMark;
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(extension));
    return {std::begin(kCases), std::end(kCases)};
}
