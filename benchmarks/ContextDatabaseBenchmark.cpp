// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <glib.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>

#include "Comparison.h"
#include "ContextAutoLock.h"
#include "UsageHistory.h"

namespace {

constexpr double kImmediateBound = 1.05;
constexpr double kDeferredBound = 1.25;
constexpr int kInsertsPerTransaction = 1000;
constexpr std::size_t kSelectedRows = 10000;
constexpr int kNeverFlushes = 86400;  ///< seconds

constexpr const char* kCreate =
    "CREATE TABLE IF NOT EXISTS usage (unit_id TEXT, unit_name TEXT, start_time INTEGER, duration INTEGER)";
constexpr const char* kInsert = "INSERT INTO usage VALUES (?, ?, ?, ?)";
constexpr const char* kSelect = "SELECT unit_id, unit_name, start_time, duration FROM usage";

using Rows = std::vector<std::map<std::string, std::string>>;

struct Usage {
    std::string unitId;
    std::string unitName;
    int startTime;
    int duration;
};

const std::vector<Usage>& Usages() {
    static const std::vector<Usage> usages = [] {
        std::vector<Usage> read;
        for (std::size_t i = 0; i < kSelectedRows; ++i) {
            const CuratorBaseData& record = UsageHistory::Music()[i];
            read.push_back(
                {record.GetUnitId(), record.GetUnitName(), record.m_nStartTime, static_cast<int>(record.m_nDuration)});
        }
        return read;
    }();
    return usages;
}

/// Returns the usages in order, and starts over after the last one.
class NextUsage {
public:
    const Usage& operator()() {
        const Usage& usage = Usages()[m_next];
        m_next = (m_next + 1) % Usages().size();
        return usage;
    }

private:
    std::size_t m_next = 0;
};

std::string PathOf(const char* name) {
    const char* folder = std::getenv("LUMORA_PRIVATE_DATA_DIRECTORY");
    if (folder == nullptr) {
        throw std::runtime_error("run this through scripts/with-data-directory, as scripts/bench does");
    }
    return std::string(folder) + "/" + name;
}

/// Removes the file with this name.
/// @return the name.
const char* Fresh(const char* name) {
    std::remove(PathOf(name).c_str());
    return name;
}

class Ours {
public:
    explicit Ours(const char* name) : m_database(name, kCreate) {}

    void Execute(const char* query) { m_database.ExecuteQuery(query, {}, /*immediate=*/true); }
    void Insert(const Usage& usage) {
        ContextDatabase::ValueList values;
        m_database.SetQueryValue(values, usage.unitId);
        m_database.SetQueryValue(values, usage.unitName);
        m_database.SetQueryValue(values, usage.startTime);
        m_database.SetQueryValue(values, usage.duration);
        m_database.ExecuteQuery(kInsert, values, /*immediate=*/true);
    }
    void Select(Rows& rows) { m_database.SelectQuery(kSelect, {}, rows); }

private:
    ContextDatabase m_database;
};

/// The same work with the C interface of SQLite: prepares, binds, steps and finalizes each statement.
class Plain {
public:
    explicit Plain(const char* name) {
        sqlite3_open(PathOf(name).c_str(), &m_database);
        Execute(kCreate);
    }
    ~Plain() { sqlite3_close(m_database); }
    Plain(const Plain&) = delete;
    Plain& operator=(const Plain&) = delete;

    void Execute(const char* query) {
        sqlite3_stmt* statement = Prepare_(query);
        Finish_(statement);
    }
    void Insert(const Usage& usage) {
        sqlite3_stmt* statement = Prepare_(kInsert);
        sqlite3_bind_text(statement, 1, usage.unitId.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(statement, 2, usage.unitName.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int(statement, 3, usage.startTime);
        sqlite3_bind_int(statement, 4, usage.duration);
        Finish_(statement);
    }
    void Select(Rows& rows) {
        sqlite3_stmt* statement = Prepare_(kSelect);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            std::map<std::string, std::string> row;
            const int count = sqlite3_column_count(statement);
            for (int column = 0; column < count; ++column) {
                row[sqlite3_column_name(statement, column)] = Text_(statement, column);
            }
            rows.push_back(std::move(row));
        }
        sqlite3_finalize(statement);
    }

private:
    sqlite3_stmt* Prepare_(const char* query) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(m_database, query, -1, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(m_database));
        }
        return statement;
    }
    void Finish_(sqlite3_stmt* statement) {
        const int result = sqlite3_step(statement);
        sqlite3_finalize(statement);
        if (result != SQLITE_DONE) {
            throw std::runtime_error(sqlite3_errmsg(m_database));
        }
    }
    static std::string Text_(sqlite3_stmt* statement, int column) {
        switch (sqlite3_column_type(statement, column)) {
            case SQLITE_TEXT:
                return reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            case SQLITE_INTEGER:
                return std::to_string(sqlite3_column_int(statement, column));
            default:
                return {};
        }
    }

    sqlite3* m_database = nullptr;
};

/// A C++ wrapper of SQLite, as an alternative for a host.
class Wrapper {
public:
    explicit Wrapper(const char* name) : m_database(PathOf(name), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE) {
        Execute(kCreate);
    }

    void Execute(const char* query) { m_database.exec(query); }
    void Insert(const Usage& usage) {
        SQLite::Statement statement(m_database, kInsert);
        Insert(statement, usage);
    }
    void Select(Rows& rows) {
        SQLite::Statement statement(m_database, kSelect);
        Select(statement, rows);
    }

protected:
    static void Insert(SQLite::Statement& statement, const Usage& usage) {
        statement.bind(1, usage.unitId);
        statement.bind(2, usage.unitName);
        statement.bind(3, usage.startTime);
        statement.bind(4, usage.duration);
        statement.exec();
    }
    static void Select(SQLite::Statement& statement, Rows& rows) {
        while (statement.executeStep()) {
            std::map<std::string, std::string> row;
            const int count = statement.getColumnCount();
            for (int column = 0; column < count; ++column) {
                row[statement.getColumnName(column)] = statement.getColumn(column).getString();
            }
            rows.push_back(std::move(row));
        }
    }

    SQLite::Database m_database;
};

/// The same wrapper at its fastest: compiles each statement only once.
class CompiledWrapper : public Wrapper {
public:
    explicit CompiledWrapper(const char* name)
        : Wrapper(name), m_insert(m_database, kInsert), m_select(m_database, kSelect) {}

    void Insert(const Usage& usage) {
        m_insert.reset();
        Wrapper::Insert(m_insert, usage);
    }
    void Select(Rows& rows) {
        m_select.reset();
        Wrapper::Select(m_select, rows);
    }

private:
    SQLite::Statement m_insert;
    SQLite::Statement m_select;
};

template <typename Database>
void InsertAlone(benchmark::State& state) {
    Database database(Fresh("inserts.db"));
    NextUsage next;
    for ([[maybe_unused]] auto _ : state) {
        database.Insert(next());
    }
}

template <typename Database>
void InsertInTransaction(benchmark::State& state) {
    Database database(Fresh("transactions.db"));
    NextUsage next;
    for ([[maybe_unused]] auto _ : state) {
        database.Execute("BEGIN");
        for (int i = 0; i < kInsertsPerTransaction; ++i) {
            database.Insert(next());
        }
        database.Execute("COMMIT");
    }
}

template <typename Database>
void SelectAll(benchmark::State& state) {
    constexpr const char* kName = "selected.db";
    [[maybe_unused]] static const bool isFilled = [] {
        Plain database(Fresh(kName));
        database.Execute("BEGIN");
        for (const Usage& usage : Usages()) {
            database.Insert(usage);
        }
        database.Execute("COMMIT");
        return true;
    }();
    Database database(kName);
    for ([[maybe_unused]] auto _ : state) {
        Rows rows;
        database.Select(rows);
        if (rows.size() != kSelectedRows) {
            throw std::runtime_error("rows are missing");
        }
        state.PauseTiming();
        rows = {};
        state.ResumeTiming();
    }
}

ContextDatabase::ValueList InsertedValues() {
    ContextDatabase::ValueList values(4);
    values[0].first = SQL_STRING;
    values[0].second.strValue = Usages()[0].unitId;
    values[1].first = SQL_STRING;
    values[1].second.strValue = Usages()[0].unitName;
    values[2].first = SQL_INT;
    values[2].second.nValue = Usages()[0].startTime;
    values[3].first = SQL_INT;
    values[3].second.nValue = Usages()[0].duration;
    return values;
}

void Defer(benchmark::State& state) {
    ContextDatabase database(Fresh("deferred.db"), kCreate, kNeverFlushes);
    const ContextDatabase::ValueList values = InsertedValues();
    for ([[maybe_unused]] auto _ : state) {
        database.ExecuteQuery(kInsert, values, /*immediate=*/false);
    }
}

struct StandardLock {
    std::mutex mutex;
    auto Take() { return std::lock_guard<std::mutex>(mutex); }
};

struct GLibLock {
    GMutex mutex{};
    auto Take() { return ContextAutoLock(&mutex); }
};

template <typename Lock>
void Append(benchmark::State& state) {
    Lock lock;
    std::vector<struct_query_set> deferred;
    const ContextDatabase::ValueList values = InsertedValues();
    for ([[maybe_unused]] auto _ : state) {
        const char* query = kInsert;
        benchmark::DoNotOptimize(query);
        const auto held = lock.Take();
        deferred.push_back({query, values});
    }
}

}  // namespace

void RegisterComparisons() {
    Comparison("insert, one transaction each")
        .Iterations(50)
        .Ours(InsertAlone<Ours>)
        .Direct("sqlite3", kImmediateBound, InsertAlone<Plain>)
        .Peer("SQLiteCpp, compiled once", InsertAlone<CompiledWrapper>)
        .Peer("SQLiteCpp, compiled per call", InsertAlone<Wrapper>);
    Comparison("1 000 inserts in one transaction")
        .Iterations(2)
        .Ours(InsertInTransaction<Ours>)
        .Direct("sqlite3", kImmediateBound, InsertInTransaction<Plain>)
        .Peer("SQLiteCpp, compiled once", InsertInTransaction<CompiledWrapper>)
        .Peer("SQLiteCpp, compiled per call", InsertInTransaction<Wrapper>);
    Comparison("SelectQuery, 10 000 rows")
        .Iterations(1)
        .Ours(SelectAll<Ours>)
        .Direct("sqlite3", kImmediateBound, SelectAll<Plain>)
        .Peer("SQLiteCpp, compiled once", SelectAll<CompiledWrapper>)
        .Peer("SQLiteCpp, compiled per call", SelectAll<Wrapper>);
    Comparison("deferred write, time of the call")
        .Iterations(10000)
        .Ours(Defer)
        .Direct("a vector under std::mutex", kDeferredBound, Append<StandardLock>)
        .Peer("a vector under GMutex", Append<GLibLock>);
}
