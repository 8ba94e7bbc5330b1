// SPDX-License-Identifier: Apache-2.0
//
// Runs one workload of a database while its file operations fail: the n-th of one kind, once, and then for good, for n
// = 1, 2, ... until the workload needs fewer. The short form leaves out some n. Afterwards the next start must work,
// and the rows must be those that ContextDatabase.h promises.

#include <sqlite3.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "CapturedLog.h"
#include "ContextDatabase.h"
#include "FaultyVfs.h"
#include "Torture.h"

namespace {

using FaultyVfs::Operation;
using Rows = std::vector<std::map<std::string, std::string>>;

constexpr const char* kCreate = "CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, name TEXT UNIQUE)";
constexpr unsigned int kBoundSeconds = 60;  ///< for one try

constexpr FaultyVfs::Fault kFaults[] = {
    {"read fails", Operation::Read, SQLITE_IOERR_READ, false},
    {"read is short", Operation::Read, SQLITE_IOERR_SHORT_READ, true},
    {"write fails", Operation::Write, SQLITE_IOERR_WRITE, false},
    {"write finds the disk full", Operation::Write, SQLITE_FULL, false},
    {"write stops half-way", Operation::Write, SQLITE_IOERR_WRITE, true},
    {"sync fails", Operation::Sync, SQLITE_IOERR_FSYNC, false},
    {"open fails", Operation::Open, SQLITE_CANTOPEN, false},
    {"delete fails", Operation::Delete, SQLITE_IOERR_DELETE, false},
    {"lock fails", Operation::Lock, SQLITE_IOERR_LOCK, false},
    {"lock is taken", Operation::Lock, SQLITE_BUSY, false},
    {"truncate fails", Operation::Truncate, SQLITE_IOERR_TRUNCATE, false},
    {"access fails", Operation::Access, SQLITE_IOERR_ACCESS, false},
    {"file size fails", Operation::FileSize, SQLITE_IOERR_FSTAT, false},
};

std::string g_current;  ///< what is being tried, for the handler of SIGALRM

void OnAlarm(int /*signal*/) {
    const std::string text = "NOT AS PROMISED: hangs: " + g_current + "\n";
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
    _exit(1);
}

void EmptyFolder() {
    for (const auto& entry : std::filesystem::directory_iterator(ContextDatabase::kDataDirectory)) {
        std::filesystem::remove_all(entry.path());
    }
}

/// One run of the workload, and what it should leave.
class Workload {
public:
    /// @param hasFile   starts with a file of three rows instead of none.
    /// @param readsLie  every read gives zeros in place of content: SQLite has no checksums that would tell.
    Workload(bool hasFile, bool readsLie) : m_readsLie(readsLie) {
        EmptyFolder();
        if (hasFile) {
            ContextDatabase database("x.db", kCreate);
            for (const int id : {1, 2, 3}) {
                database.ExecuteQuery(Insert(id).c_str(), {}, /*immediate=*/true);
                m_rows.insert(id);
            }
        }
    }

    /// Runs under faults.
    void Run() {
        CapturedLog::Clear();
        ContextDatabase database("x.db", kCreate, /*interval=*/3600);
        NoteOutcome(database, {});
        WriteNow(database, 10);
        WriteNow(database, 11);
        Flush(database, {Insert(20), Insert(21)}, {20, 21});
        Flush(database, {"BEGIN", Insert(30), Insert(31), "COMMIT"}, {30, 31});
        Select(database);
        Rows mode;
        database.SelectQuery("PRAGMA journal_mode=TRUNCATE", {}, mode);
        WriteNow(database, 12);
        database.ExecuteQuery("VACUUM", {}, /*immediate=*/true);
        NoteOutcome(database, {});
        database.ResetDatabase();
        NoteOutcome(database, {});
        WriteNow(database, 13);
        Flush(database, {"BEGIN", Insert(40), Insert(41), "COMMIT"}, {40, 41});
        Select(database);
    }

    /// Checks the next start, without faults.
    void Check() {
        CapturedLog::Clear();
        ContextDatabase database("x.db", kCreate);
        Require(database.IsRunning(), "the next start does not open the database");
        if (m_readsLie) {
            m_rows = RowsOf(database);  // zeros may have been written back
        } else {
            Require(CapturedLog::Count("reset database") == 0, "the next start resets");
        }
        Require(RowsOf(database) == m_rows, "the next start has other rows");
        Rows rows;
        database.SelectQuery("PRAGMA integrity_check", {}, rows);
        Require(rows.size() == 1 && rows[0]["integrity_check"] == "ok", "the next start has a damaged file");
        database.ExecuteQuery(Insert(99).c_str(), {}, /*immediate=*/true);
        m_rows.insert(99);
        Require(RowsOf(database) == m_rows, "the next start cannot write");
    }

    const std::string& Problem() const { return m_problem; }

private:
    static std::string Insert(int id) {
        const std::string text = std::to_string(id);
        return "INSERT OR IGNORE INTO t VALUES (" + text + ", 'name-" + text + std::string(1000, '.') + "')";
    }

    static std::set<int> RowsOf(ContextDatabase& database) {
        Rows rows;
        database.SelectQuery("SELECT id FROM t", {}, rows);
        std::set<int> ids;
        for (const auto& row : rows) {
            ids.insert(std::stoi(row.at("id")));
        }
        return ids;
    }

    void Require(bool condition, const char* what) {
        if (!condition && m_problem.empty()) {
            m_problem = what;
        }
    }

    /// A reset leaves nothing. Otherwise an open database has stored what it was given.
    void NoteOutcome(const ContextDatabase& database, const std::set<int>& written) {
        const bool isReset = CapturedLog::Count("reset database") > 0;
        const bool isRefused = CapturedLog::Count("DB not opened yet") > 0;
        if (isReset) {
            m_rows.clear();
        } else if (!isRefused) {
            m_rows.insert(written.begin(), written.end());
            Require(database.IsRunning(), "closed without a log line");
        }
        CapturedLog::Clear();
    }

    void WriteNow(ContextDatabase& database, int id) {
        database.ExecuteQuery(Insert(id).c_str(), {}, /*immediate=*/true);
        NoteOutcome(database, {id});
    }

    void Flush(ContextDatabase& database, const std::vector<std::string>& statements, const std::set<int>& written) {
        for (const std::string& statement : statements) {
            database.ExecuteQuery(statement.c_str(), {}, /*immediate=*/false);
        }
        if (m_timerId == 0) {
            FindTimer(database);
        } else {
            database.OnTimerCb(m_timerId);
        }
        NoteOutcome(database, written);
    }

    /// Timer ids count up through the process. The call with the right one flushes.
    void FindTimer(ContextDatabase& database) {
        static int s_last = 0;
        do {
            CapturedLog::Clear();
            database.OnTimerCb(++s_last);
        } while (CapturedLog::Count("NOT matched any timer") > 0);
        m_timerId = s_last;
    }

    /// A select gives the first rows; it changes nothing.
    void Select(ContextDatabase& database) {
        Rows rows;
        const bool isOk = database.SelectQuery("SELECT id, name FROM t ORDER BY id", {}, rows);
        auto expected = m_rows.begin();
        bool isPrefix = rows.size() <= m_rows.size();
        for (std::size_t i = 0; isPrefix && i < rows.size(); ++i, ++expected) {
            isPrefix = rows[i]["id"] == std::to_string(*expected) && rows[i]["name"].size() > 1000;
        }
        Require(isPrefix || m_readsLie, "a select gives a wrong row");
        Require(isOk || CapturedLog::Lines().size() == 1, "a select fails without a log line");
        Require(CapturedLog::Count("reset database") == 0, "a select resets");
        CapturedLog::Clear();
    }

    bool m_readsLie;
    std::set<int> m_rows;  ///< that must be there
    std::string m_problem;
    int m_timerId = 0;
};

/// @return true when no operation failed.
bool Run(Torture& torture, const FaultyVfs::Fault& fault, long failAt, bool isForGood, bool hasFile) {
    std::ostringstream what;
    what << fault.name << ", at number " << failAt << (isForGood ? " and ever after" : "")
         << (hasFile ? ", with a file" : ", without a file");
    g_current = what.str();
    alarm(kBoundSeconds);
    Workload workload(hasFile, /*readsLie=*/isForGood && fault.operation == Operation::Read && fault.isHalfDone);
    FaultyVfs::Arm(fault, failAt, isForGood);
    workload.Run();
    const long failed = FaultyVfs::Disarm();
    workload.Check();
    alarm(0);
    torture.Count(workload.Problem().empty(), g_current + ": " + workload.Problem());
    return failed == 0;
}

void TryEveryNumber(Torture& torture, const FaultyVfs::Fault& fault) {
    constexpr long kMaxSkipped = 6;  // by the short form
    long tries = 0;
    for (const bool hasFile : {true, false}) {
        for (const bool isForGood : {false, true}) {
            long failAt = 1;
            while (!Run(torture, fault, failAt, isForGood, hasFile)) {
                ++tries;
                failAt += torture.IsLong() ? 1 : std::uniform_int_distribution<long>(1, kMaxSkipped)(torture.Random());
            }
        }
    }
    std::printf("%6ld  %s\n", tries, fault.name);
}

}  // namespace

/// The tick of the flush timer: stopping a timer waits for it.
extern "C" int usleep(useconds_t /*microseconds*/) {
    const timespec pause{0, 1000000};
    return nanosleep(&pause, nullptr);
}

int main(int argc, char** argv) {
    Torture torture("io", argc, argv);
    std::signal(SIGALRM, OnAlarm);
    FaultyVfs::Install();
    do {
        for (const FaultyVfs::Fault& fault : kFaults) {
            if (torture.IsWanted(fault.name)) {
                TryEveryNumber(torture, fault);
            }
        }
    } while (torture.IsLong() && torture.HasTime({}));
    return torture.End();
}
