// SPDX-License-Identifier: Apache-2.0
// Ends processes and the power in the middle of writes, and checks what the next start finds.
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "CapturedLog.h"
#include "Child.h"
#include "ContextDatabase.h"
#include "DataFolder.h"
#include "Surroundings.h"
#include "Torture.h"
#include "crash-disk.h"

namespace {

constexpr const char* kName = "crash.db";
constexpr const char* kCreateTable = "CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, text TEXT)";
constexpr const char* kInsert = "INSERT INTO t VALUES (?, ?)";

constexpr int kBatch = 20;        ///< rows in one flush or transaction
constexpr int kGeneration = 100;  ///< an id is the number of resets before it, times this, plus the number of the row
constexpr int kGenerationRows = 10;

/// What a worker has promised so far. Shared with the parent, so that it outlives the worker.
struct Progress {
    std::atomic<int> started{0};  ///< the last row whose write had begun
    std::atomic<int> done{0};     ///< the last row whose write had returned
    std::atomic<int> resets{0};   ///< resets that had begun
};

/// The same as plain numbers.
struct Marks {
    int started;
    int done;
    int resets;
};

/// @return the text of a row: up to 3000 bytes, so that some rows need overflow pages.
std::string TextOf(int id) {
    const int size = id * 7919 % 3000;
    return std::to_string(id) + std::string(static_cast<std::size_t>(size), static_cast<char>('a' + id % 26));
}

/// A database with deferred writes that this program flushes.
class FlushedDatabase : public ContextDatabase {
public:
    FlushedDatabase() : ContextDatabase(kName, kCreateTable, /*interval=*/3600) {
        do {
            CapturedLog::Clear();
            OnTimerCb(++m_timer);
        } while (!CapturedLog::Lines().empty());
    }
    void Flush() { OnTimerCb(m_timer); }

private:
    int m_timer = 0;
};

void Write(ContextDatabase& database, const char* query, bool immediate = true) {
    database.ExecuteQuery(query, {}, immediate);
}

void Insert(ContextDatabase& database, int id, bool immediate) {
    ContextDatabase::ValueList values;
    database.SetQueryValue(values, id);
    database.SetQueryValue(values, TextOf(id));
    database.ExecuteQuery(kInsert, values, immediate);
}

int Count(ContextDatabase& database) {
    std::vector<std::map<std::string, std::string>> rows;
    database.SelectQuery("SELECT count(*) AS n FROM t", {}, rows);
    return rows.empty() ? 0 : std::stoi(rows[0]["n"]);
}

// The workloads. Each keeps its progress up to date and ends after some rounds.

void WriteImmediately(Progress& progress, int rounds) {
    ContextDatabase database(kName, kCreateTable);
    for (int id = 1; id <= rounds; ++id) {
        progress.started = id;
        Insert(database, id, /*immediate=*/true);
        progress.done = id;
    }
}

void Defer(Progress& progress, int rounds, bool inTransaction) {
    FlushedDatabase database;
    std::vector<std::map<std::string, std::string>> rows;
    database.SelectQuery("PRAGMA cache_size = 4", {}, rows);  // a transaction then writes to the file before it commits
    for (int id = 0; id < rounds;) {
        progress.started = id + kBatch;
        if (inTransaction) {
            Write(database, "BEGIN", /*immediate=*/false);
        }
        for (const int end = id + kBatch; id < end;) {
            Insert(database, ++id, /*immediate=*/false);
        }
        if (inTransaction) {
            Write(database, "COMMIT", /*immediate=*/false);
        }
        database.Flush();
        progress.done = id;
    }
}

void DeferStatements(Progress& progress, int rounds) {
    Defer(progress, rounds, /*inTransaction=*/false);
}

void DeferTransactions(Progress& progress, int rounds) {
    Defer(progress, rounds, /*inTransaction=*/true);
}

/// The database's own timer flushes. A row is acknowledged when a query has shown it.
void LetTimerFlush(Progress& progress, int rounds) {
    ContextDatabase database(kName, kCreateTable, /*interval=*/-1);  // at every tick
    for (int id = 1; id <= rounds; ++id) {
        progress.started = id;
        Insert(database, id, /*immediate=*/false);
        if (id % kBatch == 0) {
            while (progress.done < id) {
                progress.done = Count(database);
            }
        }
    }
}

/// Resets after every few rows: by request, through a write that fails, and through one that fails in a transaction.
void ResetOften(Progress& progress, int rounds) {
    ContextDatabase database(kName, kCreateTable);
    for (int generation = 0; generation < rounds / kGenerationRows;) {
        for (int row = 1; row <= kGenerationRows; ++row) {
            progress.started = generation * kGeneration + row;
            Insert(database, progress.started, /*immediate=*/true);
            progress.done = progress.started.load();
        }
        progress.resets = ++generation;
        if (generation % 3 == 0) {
            database.ResetDatabase();
        } else {
            if (generation % 3 == 1) {
                Write(database, "BEGIN");
                Insert(database, generation * kGeneration - 1, /*immediate=*/true);
            }
            Write(database, "INSERT INTO missing VALUES (1)");
        }
        progress.done = generation * kGeneration;
    }
}

// What the next start must find.

/// @param lost  acknowledged writes that may be missing.
/// @return an empty text, or what is wrong.
std::string JudgeRows(int count, const Marks& marks, int unit, int lost) {
    if (count < marks.done - lost * unit) {
        return std::to_string(count) + " rows, but " + std::to_string(marks.done) + " writes had returned";
    }
    if (count > marks.started) {
        return std::to_string(count) + " rows, but only " + std::to_string(marks.started) + " writes had begun";
    }
    return count % unit == 0 ? "" : std::to_string(count) + " rows: part of a transaction";
}

std::string JudgeSingle(const std::vector<int>& ids, const Marks& marks, int lost) {
    return JudgeRows(static_cast<int>(ids.size()), marks, /*unit=*/1, lost);
}

std::string JudgeBatches(const std::vector<int>& ids, const Marks& marks, int lost) {
    return JudgeRows(static_cast<int>(ids.size()), marks, kBatch, lost);
}

std::string JudgeGenerations(const std::vector<int>& ids, const Marks& marks, int lost) {
    const int count = static_cast<int>(ids.size());
    const int known = marks.done / kGeneration;  // the generation that was current when the last call returned
    const int found = ids.empty() ? marks.resets : ids.front() / kGeneration;
    std::string what = std::to_string(count) + " rows of generation " + std::to_string(found) + ", but row " +
                       std::to_string(marks.done) + " was acknowledged and " + std::to_string(marks.resets) +
                       " resets had begun";
    if (found != marks.resets && found != known) {
        return what;
    }
    const int least = found == known ? marks.done % kGeneration - lost : 0;
    const int most = found == marks.resets ? std::max(marks.started - found * kGeneration, 0) : kGenerationRows;
    return least <= count && count <= most ? "" : what;
}

struct Kind {
    const char* name;
    void (*work)(Progress& progress, int rounds);
    std::string (*judge)(const std::vector<int>& ids, const Marks& marks, int lost);
    int longestMilliseconds;  ///< after which the process is killed at the latest
    int rounds;               ///< recorded for a power loss; 0: not recorded
};

const Kind kKinds[] = {
    {"immediate writes", WriteImmediately, JudgeSingle, 40, 60},
    {"deferred flushes", DeferStatements, JudgeSingle, 60, 60},
    {"deferred transactions", DeferTransactions, JudgeBatches, 60, 400},
    {"flushes of the timer", LetTimerFlush, JudgeSingle, 900, 0},
    {"resets", ResetOften, JudgeGenerations, 40, 60},
};

/// Opens the database again, as a host does at its next start.
/// @param judge  takes the ids of all rows.
/// @return an empty text, or what is wrong.
template <class Judge>
std::string StartAgain(Judge judge) {
    CapturedLog::Clear();
    std::vector<int> ids;
    {
        ContextDatabase database(kName, kCreateTable);
        if (!CapturedLog::Messages().empty()) {
            return "the next start logs \"" + CapturedLog::Messages().front() + "\"";
        }
        std::vector<std::map<std::string, std::string>> rows;
        database.SelectQuery("SELECT id, text FROM t ORDER BY id", {}, rows);
        for (auto& row : rows) {
            ids.push_back(std::stoi(row["id"]));
            const int wanted = ids.front() % kGeneration == 1 ? ids.front() + static_cast<int>(ids.size()) - 1 : 1;
            if (ids.back() != wanted || row["text"] != TextOf(wanted)) {
                return "row " + row["id"] + " is not row " + std::to_string(wanted) + ", or its text is wrong";
            }
        }
        std::string fault = judge(ids);
        if (!fault.empty()) {
            return fault;
        }
        Insert(database, INT_MAX, /*immediate=*/true);
        if (Count(database) != static_cast<int>(ids.size()) + 1) {
            return "the next start cannot write";
        }
    }
    sqlite3* database = nullptr;
    sqlite3_open(DataFolder::Path(kName).c_str(), &database);
    bool isSound = false;
    const auto look = [](void* result, int, char** values, char**) {
        *static_cast<bool*>(result) = std::string(values[0]) == "ok";
        return 0;
    };
    sqlite3_exec(database, "PRAGMA integrity_check", look, &isSound, nullptr);
    sqlite3_close(database);
    return isSound ? "" : "the integrity check fails";
}

template <class Judge>
std::string StartAgainInChild(Judge judge) {
    return Child([&] { return StartAgain(judge); }).Wait().text;  // a crash or a hang is a fault too
}

void LetPass(std::chrono::microseconds time) {
    std::this_thread::sleep_for(time);  // the random moment of the end, not a wait for anything
}

/// Kills one worker at a random moment.
void KillOnce(Torture& torture, const Kind& kind, Progress& progress, long& rows) {
    DataFolder::Empty();
    progress.started = progress.done = progress.resets = 0;
    Child worker([&] {
        kind.work(progress, INT_MAX / 2);
        return std::string();
    });
    const int longest = kind.longestMilliseconds * 1000;
    LetPass(std::chrono::microseconds(torture.Random()() % static_cast<unsigned int>(longest)));
    std::string fault = worker.Kill();
    const Marks marks{progress.started, progress.done, progress.resets};
    if (fault.empty()) {
        fault = StartAgainInChild([&](const std::vector<int>& ids) { return kind.judge(ids, marks, /*lost=*/0); });
    }
    rows += marks.done;
    torture.Count(fault.empty(), std::string(kind.name) + ", killed: " + fault);
}

/// One workload, recorded for power losses.
struct Recording {
    const Kind* kind;
    std::unique_ptr<CrashDisk> disk;
    long tried = 0;
};

std::vector<Recording> RecordAll(Progress& progress) {
    std::vector<Recording> recordings;
    for (const Kind& kind : kKinds) {
        if (kind.rounds == 0) {
            continue;
        }
        DataFolder::Empty();
        progress.started = progress.done = progress.resets = 0;
        recordings.push_back({&kind, std::make_unique<CrashDisk>([&] {
                                  return CrashDisk::Marks{progress.started, progress.done, progress.resets};
                              })});
        kind.work(progress, kind.rounds);
        recordings.back().disk->Stop();
    }
    return recordings;
}

/// Loses the power once, at a random step of a recording.
void LosePowerOnce(Torture& torture, Recording& recording) {
    std::mt19937& random = torture.Random();
    const std::size_t step = random() % recording.disk->Steps();
    const auto loss = static_cast<CrashDisk::Loss>(random() % CrashDisk::LOSS_COUNT);
    const CrashDisk::Marks& numbers = recording.disk->MarksAt(step);
    const Marks marks{numbers[0], numbers[1], numbers[2]};
    DataFolder::Empty();
    for (const auto& [name, content] : recording.disk->FilesAfterLoss(step, loss, random)) {
        Surroundings::WriteFile(DataFolder::Path(name), content);
    }
    const Kind& kind = *recording.kind;
    const std::string fault =
        StartAgainInChild([&](const std::vector<int>& ids) { return kind.judge(ids, marks, /*lost=*/1); });
    ++recording.tried;
    torture.Count(fault.empty(), std::string(kind.name) + ", power lost before step " + std::to_string(step) +
                                     " in way " + std::to_string(loss) + ": " + fault);
}

// The import of context-host.

constexpr int kImported = 25000;
constexpr int kImportBatch = 20000;  ///< rows per transaction, as in host/main.cpp
constexpr int kFirstStart = 1600000000;

/// The histories of two devices. The subject of a history is the name of its file.
struct Histories {
    std::string earlier;
    std::string further;
};

std::string WriteHistory(const Surroundings::TemporaryFolder& folder, const std::string& name, int rows) {
    std::string text = "unit_id,unit_name,device_name,start_time,duration\n";
    for (int row = 0; row < rows; ++row) {
        text += "unit-" + std::to_string(row % 500) + ",,tv," + std::to_string(kFirstStart + row) + ",60\n";
    }
    Surroundings::WriteFile(folder / (name + ".csv"), text);
    return folder / (name + ".csv");
}

/// Replaces the process with context-host.
/// @param history   to import; an empty text for none.
/// @param messages  the file for its error messages.
std::string BecomeHost(const std::string& history, const std::string& messages = "/dev/null") {
    if (std::freopen("/dev/null", "w", stdout) == nullptr || std::freopen(messages.c_str(), "w", stderr) == nullptr) {
        return "cannot redirect the output of context-host";
    }
    execl(LUMORA_CONTEXT_HOST, LUMORA_CONTEXT_HOST, "--max", "1", "--database", kName,
          history.empty() ? nullptr : history.c_str(), nullptr);
    return "cannot start context-host";
}

/// Runs context-host to its end.
/// @return an empty text, or how it failed.
std::string RunHost(const std::string& history) {
    const Surroundings::TemporaryFolder folder;
    const std::string messages = folder / "messages";
    const Child::Ending ending = Child([&] { return BecomeHost(history, messages); }, /*seconds=*/60).Wait();
    return ending.isOk && ending.text.empty()
               ? ""
               : "the next context-host " + ending.text + ": " + Surroundings::ReadFile(messages);
}

/// @return the number of stored rows of a history, or what is wrong with them.
std::string StoredRows(const std::string& subject) {
    sqlite3* database = nullptr;
    sqlite3_open(DataFolder::Path(kName).c_str(), &database);
    std::string found = "0";  // also when it was killed before it created the table
    const auto look = [](void* text, int, char** values, char**) {
        const std::string rows = values[0];
        *static_cast<std::string*>(text) =
            rows == values[1] && rows == values[2] ? rows : rows + " rows with a gap or out of order";
        return 0;
    };
    const std::string query = "SELECT count(*), coalesce(max(start_time) - " + std::to_string(kFirstStart - 1) +
                              ", 0), count(DISTINCT start_time) FROM usage WHERE history = 'usage/" + subject + "'";
    sqlite3_exec(database, query.c_str(), look, &found, nullptr);
    sqlite3_close(database);
    return found;
}

std::string StoredRowsInChild(const std::string& subject) {
    return Child([&] { return StoredRows(subject); }).Wait().text;
}

/// @return an empty text if the number is that of whole batches.
std::string JudgeImport(const std::string& found) {
    if (found.find_first_not_of("0123456789") != std::string::npos) {
        return found;
    }
    const int rows = std::stoi(found);
    return rows % kImportBatch == 0 || rows == kImported ? "" : found + " rows: part of a batch";
}

/// Tells whether a reset has replaced the store, and its second name still keeps the records.
bool IsStoreReplaced() {
    struct stat store {};
    struct stat kept {};
    const std::string path = DataFolder::Path(kName);
    return stat((path + ".kept").c_str(), &kept) == 0 &&
           (stat(path.c_str(), &store) != 0 || store.st_ino != kept.st_ino);
}

/// Imports, and kills the import at a random moment.
/// @param waitsForReset  begins to count when a failed write has replaced the store, or else after `longest`.
void KillHost(Torture& torture, const std::string& history, std::chrono::microseconds longest, bool waitsForReset) {
    Child killed([&] { return BecomeHost(history); }, /*seconds=*/60);
    const auto end = std::chrono::steady_clock::now() + longest;
    while (waitsForReset && !IsStoreReplaced() && std::chrono::steady_clock::now() < end) {
    }
    const int bound = waitsForReset ? 2000 : static_cast<int>(longest.count());
    LetPass(std::chrono::microseconds(torture.Random()() % static_cast<unsigned int>(bound)));
    killed.Kill();  // it may have ended before
}

/// Kills an import, then imports again.
void KillImport(Torture& torture, const Histories& histories, std::chrono::microseconds longest) {
    DataFolder::Empty();
    KillHost(torture, histories.further, longest, /*waitsForReset=*/false);
    std::string fault = JudgeImport(StoredRowsInChild("further"));
    if (fault.empty()) {
        fault = RunHost(histories.further);
    }
    if (fault.empty() && StoredRowsInChild("further") != std::to_string(kImported)) {
        fault = "after the next import: " + StoredRowsInChild("further");
    }
    torture.Count(fault.empty(), "import, killed: " + fault);
}

/// Kills a further import while the disk fills up. The next start, when there is room again, must find the records of
/// the earlier one.
void KillImportOnFullDisk(Torture& torture, const Histories& histories, std::chrono::microseconds longest) {
    DataFolder::Empty();
    std::string fault = RunHost(histories.earlier);
    const std::uintmax_t used = std::filesystem::file_size(DataFolder::Path(kName)) / 1024;
    DataFolder::Resize(used + 64 + torture.Random()() % (2 * used));
    KillHost(torture, histories.further, longest, /*waitsForReset=*/torture.Random()() % 2 == 0);
    DataFolder::Resize(DataFolder::kAmpleKibibytes);
    if (fault.empty()) {
        fault = RunHost("");
    }
    if (fault.empty() && StoredRowsInChild("earlier") != std::to_string(kImportBatch)) {
        fault = "of the earlier records: " + StoredRowsInChild("earlier");
    }
    if (fault.empty()) {
        fault = JudgeImport(StoredRowsInChild("further"));
    }
    torture.Count(fault.empty(), "import on a full disk, killed: " + fault);
}

std::chrono::microseconds TimeOfImport(const std::string& history) {
    const auto begin = std::chrono::steady_clock::now();
    RunHost(history);
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
}

void PrintTotals(const std::vector<long>& kills, const std::vector<long>& rows,
                 const std::vector<Recording>& recordings, long imports) {
    for (std::size_t kind = 0; kind < kills.size(); ++kind) {
        std::printf("%s: %ld processes killed, %ld rows acknowledged\n", kKinds[kind].name, kills[kind], rows[kind]);
    }
    std::printf("import of context-host: %ld killed, %ld more on a full disk\n", imports, imports);
    for (const Recording& recording : recordings) {
        std::printf("%s: power lost %ld times, in %zu steps\n", recording.kind->name, recording.tried,
                    recording.disk->Steps());
    }
}

int RunAll(int argc, char** argv) {
    constexpr std::chrono::seconds kShortForm{25};
    constexpr int kKillsInRound = 30;
    constexpr int kLossesInRound = 150;
    constexpr int kRoundsForImport = 5;  // an import takes seconds
    Torture torture("crash", argc, argv);
    DataFolder::Prepare();
    void* shared = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Progress& progress = *new (shared) Progress;
    const Surroundings::TemporaryFolder folder;
    const Histories histories = {WriteHistory(folder, "earlier", kImportBatch),
                                 WriteHistory(folder, "further", kImported)};
    const std::chrono::microseconds longest = TimeOfImport(histories.further);
    std::vector<Recording> recordings = RecordAll(progress);
    for (const Recording& recording : recordings) {
        torture.Count(recording.disk->FolderSyncs() != 0, "no synchronisation of the folder was observed");
    }
    constexpr std::size_t kKindCount = std::size(kKinds);
    std::vector<long> kills(kKindCount);
    std::vector<long> rows(kKindCount);
    long imports = 0;
    for (int round = 0; torture.HasTime(kShortForm); ++round) {
        for (std::size_t kind = 0; kind < kKindCount; ++kind) {
            const int times = kKinds[kind].rounds != 0 ? kKillsInRound : 1;  // the timer needs longer
            for (int time = 0; time < times; ++time, ++kills[kind]) {
                KillOnce(torture, kKinds[kind], progress, rows[kind]);
            }
        }
        for (Recording& recording : recordings) {
            for (int time = 0; time < kLossesInRound; ++time) {
                LosePowerOnce(torture, recording);
            }
        }
        if (round % kRoundsForImport == 0) {
            KillImport(torture, histories, longest);
            KillImportOnFullDisk(torture, histories, longest);
            ++imports;
        }
    }
    PrintTotals(kills, rows, recordings, imports);
    return torture.End();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return RunAll(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "torture-crash: %s\n", error.what());
    }
    return 2;
}
