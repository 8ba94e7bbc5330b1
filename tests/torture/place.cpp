// SPDX-License-Identifier: Apache-2.0
// Opens and writes databases in places where that is difficult: full disks, read-only folders, locked files.
#include <fcntl.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stack>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "Child.h"
#include "ContextDatabase.h"
#include "DataFolder.h"
#include "Surroundings.h"
#include "Torture.h"

namespace {

namespace fs = std::filesystem;

using Random = std::mt19937;

constexpr const char* kName = "place.db";
constexpr const char* kCreateTable = "CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, text TEXT)";
constexpr uid_t kOtherUser = 65534;
constexpr int kRows = 4;  ///< in a healthy file
constexpr const char* kNotTried = "there is no other user in this namespace";

const std::string kPath = DataFolder::Path(kName);

/// Collects what is not as promised.
class Faults {
public:
    void Unless(bool isAsPromised, const std::string& what) {
        if (!isAsPromised) {
            m_text += (m_text.empty() ? "" : "; ") + what;
        }
    }
    const std::string& Text() const { return m_text; }

private:
    std::string m_text;
};

int Resets() {
    return CapturedLog::Count("reset database");
}

void Run(ContextDatabase& database, const std::string& statement) {
    database.ExecuteQuery(statement.c_str(), {}, /*immediate=*/true);
}

/// @return the number of rows, or -1 when they cannot be read.
int Count(ContextDatabase& database) {
    std::vector<std::map<std::string, std::string>> rows;
    const bool isRead = database.SelectQuery("SELECT count(*) AS n FROM t", {}, rows);
    return isRead && !rows.empty() ? std::stoi(rows[0]["n"]) : -1;
}

/// Writes a row and reads it back.
bool CanWrite(ContextDatabase& database) {
    const int before = Count(database);
    Run(database, "INSERT INTO t (text) VALUES ('new')");
    return before >= 0 && Count(database) == before + 1;
}

void MakeHealthyFile(const std::string& name = kName) {
    ContextDatabase database(name, kCreateTable);
    for (int row = 0; row < kRows; ++row) {
        Run(database, "INSERT INTO t (text) VALUES ('row')");
    }
    CapturedLog::Clear();
}

/// Fills the data folder's file system to the last byte.
void FillDisk() {
    const int file = open(DataFolder::Path("filler").c_str(), O_WRONLY | O_CREAT, S_IRUSR | S_IWUSR);
    const std::array<char, 512> block{};
    while (write(file, block.data(), block.size()) > 0) {
    }
    close(file);
}

void MakeFolderReadOnly() {
    const std::string folder = DataFolder::Path();
    struct statvfs status {};
    statvfs(folder.c_str(), &status);
    const unsigned long kept = status.f_flag & (MS_NOSUID | MS_NODEV | MS_NOEXEC);
    mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr);
    mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | kept, nullptr);
}

/// The folder stays root's, with this mode.
/// @return false where there is no other user.
bool BecomeOtherUser(mode_t folderMode) {
    chmod(DataFolder::Path().c_str(), folderMode);
    return setuid(kOtherUser) == 0;
}

// Full disks

std::string WritesUntilDiskIsFull(Random& random) {
    DataFolder::MountMemory(DataFolder::Path(), "size=" + std::to_string(32 + 4 * (random() % 50)) + "k");
    ContextDatabase database(kName, kCreateTable);
    Faults faults;
    int row = 0;
    for (; row < 5000 && Resets() == 0; ++row) {
        faults.Unless(Count(database) == row, "a row is missing before the disk is full");
        Run(database, "INSERT INTO t (text) VALUES (hex(zeroblob(" + std::to_string(random() % 3000) + ")))");
    }
    faults.Unless(Resets() == 1, std::to_string(Resets()) + " resets after " + std::to_string(row) + " rows");
    faults.Unless(Count(database) == 0, "rows after the reset");
    faults.Unless(CanWrite(database), "cannot be written after the reset");
    return faults.Text();
}

std::string ReadsOnFullDisk(Random&) {
    DataFolder::MountMemory(DataFolder::Path(), "size=200k");
    MakeHealthyFile();
    FillDisk();
    ContextDatabase database(kName, kCreateTable);
    Faults faults;
    faults.Unless(Count(database) == kRows && Resets() == 0, "the rows cannot be read");
    Run(database, "INSERT INTO t (text) VALUES (hex(zeroblob(9000)))");
    faults.Unless(Resets() == 1, "the write does not fail");
    fs::remove(DataFolder::Path("filler"));
    database.ResetDatabase();
    faults.Unless(CanWrite(database), "cannot be written when there is room again");
    return faults.Text();
}

std::string StartsOnFullDisk(Random&) {
    DataFolder::MountMemory(DataFolder::Path(), "size=64k");
    FillDisk();
    ContextDatabase database(kName, kCreateTable);
    Faults faults;
    faults.Unless(Count(database) == -1, "there is a table");
    faults.Unless(!CanWrite(database), "a write succeeds");
    fs::remove(DataFolder::Path("filler"));
    Run(database, "INSERT INTO t (text) VALUES ('lost')");
    faults.Unless(CanWrite(database), "does not recover when there is room again");
    return faults.Text();
}

std::string WritesToSizeLimit(Random& random) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{16384 + 4096 * (random() % 10), RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
    ContextDatabase database(kName, kCreateTable);
    for (int row = 0; row < 5000 && Resets() == 0; ++row) {
        Run(database, "INSERT INTO t (text) VALUES (hex(zeroblob(1000)))");
    }
    Faults faults;
    faults.Unless(Resets() == 1 && Count(database) == 0, "no reset, or rows after it");
    faults.Unless(CanWrite(database), "cannot be written after the reset");
    return faults.Text();
}

// Folders and files that cannot be written

std::string ExpectRowsThatStay(Faults& faults) {
    const std::string before = Surroundings::ReadFile(kPath);
    ContextDatabase database(kName, kCreateTable);
    faults.Unless(Count(database) == kRows && CapturedLog::Messages().empty(), "the rows cannot be read");
    Run(database, "INSERT INTO t (text) VALUES ('new')");
    faults.Unless(Resets() == 1, "the write does not fail");
    faults.Unless(Count(database) == kRows, "the rows cannot be read after the reset");
    faults.Unless(Surroundings::ReadFile(kPath) == before, "the file has changed");
    return faults.Text();
}

std::string KeepsRowsOnReadOnlyFileSystem(Random&) {
    MakeHealthyFile();
    MakeFolderReadOnly();
    Faults faults;
    return ExpectRowsThatStay(faults);
}

std::string KeepsRowsInFolderOfAnotherUser(Random&) {
    MakeHealthyFile();
    chmod(kPath.c_str(), 0644);
    if (!BecomeOtherUser(0755)) {
        return kNotTried;
    }
    Faults faults;
    return ExpectRowsThatStay(faults);
}

std::string StaysClosedWhereNothingCanBeCreated(Random& random) {
    if (random() % 2 == 0) {
        MakeFolderReadOnly();
    } else if (!BecomeOtherUser(0755)) {
        return kNotTried;
    }
    ContextDatabase database(kName, kCreateTable);
    Faults faults;
    faults.Unless(!database.IsRunning() && CapturedLog::Count("create db error!") == 2, "open, or not logged twice");
    faults.Unless(!CanWrite(database), "a write succeeds");
    return faults.Text();
}

std::string ReplacesFileOfAnotherUser(Random& random) {
    MakeHealthyFile();
    const bool isReadable = random() % 2 == 0;
    chmod(kPath.c_str(), isReadable ? 0644 : 0600);
    if (!BecomeOtherUser(0777)) {
        return kNotTried;
    }
    ContextDatabase database(kName, kCreateTable);
    Faults faults;
    faults.Unless(Count(database) == (isReadable ? kRows : 0), "not the rows of a readable file");
    Run(database, "INSERT INTO t (text) VALUES ('new')");
    faults.Unless(Resets() == 1 && Count(database) == (isReadable ? 0 : 1), "the file is not replaced once");
    faults.Unless(CanWrite(database), "cannot be written");
    return faults.Text();
}

std::string OpensOnceFolderExists(Random& random) {
    const std::string folder = DataFolder::Path();
    const std::string parent = fs::path(folder).parent_path().parent_path();
    auto database = std::unique_ptr<ContextDatabase>();
    const bool wasOpen = random() % 2 == 0;
    if (wasOpen) {
        database = std::make_unique<ContextDatabase>(kName, kCreateTable);
    }
    DataFolder::MountMemory(parent);  // hides the folder
    if (wasOpen) {
        Run(*database, "INSERT INTO t (text) VALUES ('new')");
    } else {
        database = std::make_unique<ContextDatabase>(kName, kCreateTable);
    }
    Faults faults;
    faults.Unless(!database->IsRunning(), "open without its folder");
    fs::create_directory(folder);
    faults.Unless(!CanWrite(*database), "open without a reset");
    database->ResetDatabase();
    faults.Unless(CanWrite(*database), "cannot be written once the folder exists");
    return faults.Text();
}

// Other processes

/// A process that locks the file.
class LockHolder {
public:
    /// @param begin         how it locks.
    /// @param milliseconds  after which it lets go; 0: when this object is destroyed.
    explicit LockHolder(const char* begin, unsigned int milliseconds = 0) {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0) {
            std::abort();
        }
        m_process = std::make_unique<Child>([&] {
            sqlite3* database = nullptr;
            sqlite3_open(kPath.c_str(), &database);
            sqlite3_exec(database, begin, nullptr, nullptr, nullptr);
            const bool isReady = write(ends[1], "r", 1) == 1;
            if (milliseconds == 0 && isReady) {
                pause();
            }
            usleep(milliseconds * 1000);  // the random moment at which it lets go
            return std::string();
        });
        char ready = 0;
        if (read(ends[0], &ready, 1) != 1) {
            std::abort();
        }
        close(ends[0]);
        close(ends[1]);
    }

private:
    std::unique_ptr<Child> m_process;
};

std::string LosesRowsThatAnotherProcessLocks(Random& random) {
    MakeHealthyFile();
    const bool isExclusive = random() % 2 == 0;
    const LockHolder holder(isExclusive ? "BEGIN EXCLUSIVE" : "BEGIN; SELECT * FROM t");
    ContextDatabase database(kName, kCreateTable);
    Faults faults;
    faults.Unless(Resets() == (isExclusive ? 1 : 0), "not reset by the lock alone");
    if (!isExclusive) {
        faults.Unless(Count(database) == kRows, "the rows cannot be read beside a reader");
        Run(database, "INSERT INTO t (text) VALUES ('new')");
        faults.Unless(Resets() == 1, "the write does not fail");
    }
    faults.Unless(Count(database) == 0 && CanWrite(database), "not empty and writable");
    return faults.Text();
}

std::string WaitsForLockWithBusyTimeout(Random& random) {
    MakeHealthyFile();
    const LockHolder holder("BEGIN; SELECT * FROM t", 1 + static_cast<unsigned int>(random() % 40));
    ContextDatabase database(kName, kCreateTable);
    std::vector<std::map<std::string, std::string>> rows;
    database.SelectQuery("PRAGMA busy_timeout = 10000", {}, rows);
    Run(database, "INSERT INTO t (text) VALUES ('new')");
    Faults faults;
    faults.Unless(Resets() == 0 && Count(database) == kRows + 1, "the write does not wait for the lock");
    return faults.Text();
}

std::string ReplacesFileThatIsExchangedWhileOpen(Random& random) {
    MakeHealthyFile("other.db");
    ContextDatabase database(kName, kCreateTable);
    Run(database, "INSERT INTO t (text) VALUES ('old')");
    const unsigned int way = static_cast<unsigned int>(random() % 3);
    if (way == 0) {
        fs::remove(kPath);
    } else if (way == 1) {
        fs::rename(DataFolder::Path("other.db"), kPath);
    } else {
        fs::create_directory(kPath + "-journal");
    }
    Run(database, "INSERT INTO t (text) VALUES ('lost')");
    Faults faults;
    faults.Unless(Resets() == 1 && Count(database) == 0, "way " + std::to_string(way) + ": not one reset");
    faults.Unless(CanWrite(database), "way " + std::to_string(way) + ": cannot be written after the reset");
    return faults.Text();
}

// Descriptors, many databases, names

std::string RunsOutOfDescriptors(Random& random) {
    MakeHealthyFile();
    const rlimit limit{/*rlim_cur=*/64, /*rlim_max=*/64};
    setrlimit(RLIMIT_NOFILE, &limit);
    std::stack<int> taken;
    for (int file = 0; (file = open("/dev/null", O_RDONLY)) >= 0;) {
        taken.push(file);
    }
    const auto release = [&](std::size_t count) {
        for (; count > 0 && !taken.empty(); --count) {
            close(taken.top());
            taken.pop();
        }
    };
    const std::size_t left = random() % 4;  // the file, its journal and its folder need one each
    release(left);
    ContextDatabase database(kName, kCreateTable);
    Faults faults;
    faults.Unless(database.IsRunning() == (left > 0), "open without a descriptor, or closed with one");
    Run(database, "INSERT INTO t (text) VALUES ('new')");
    faults.Unless((Resets() == 0 && Count(database) == kRows + 1) == (left > 1),
                  "not the rows for so many descriptors");
    release(taken.size());
    database.ResetDatabase();
    faults.Unless(CanWrite(database), "cannot be written when there are descriptors again");
    return faults.Text().empty() ? "" : std::to_string(left) + " left: " + faults.Text();
}

std::string ServesManyDatabasesAtOnce(Random&) {
    constexpr int kDatabases = 64;
    std::vector<std::unique_ptr<ContextDatabase>> databases;
    databases.reserve(kDatabases);
    const auto name = [](int number) { return std::to_string(number) + ".db"; };
    for (int number = 0; number < kDatabases; ++number) {
        databases.push_back(number % 8 == 0
                                ? std::make_unique<ContextDatabase>(name(number), kCreateTable, /*interval=*/3600)
                                : std::make_unique<ContextDatabase>(name(number), kCreateTable));
    }
    for (int row = 0; row < 5; ++row) {
        for (int number = 0; number < kDatabases; ++number) {
            Run(*databases[static_cast<std::size_t>(number)],
                "INSERT INTO t (id) VALUES (" + std::to_string(number * 10 + row) + ")");
        }
    }
    databases.clear();
    Faults faults;
    for (int number = 0; number < kDatabases; ++number) {
        ContextDatabase database(name(number), kCreateTable);
        std::vector<std::map<std::string, std::string>> rows;
        database.SelectQuery("SELECT group_concat(id) AS ids FROM (SELECT id FROM t ORDER BY id)", {}, rows);
        std::string wanted;
        for (int row = 0; row < 5; ++row) {
            wanted += (row == 0 ? "" : ",") + std::to_string(number * 10 + row);
        }
        faults.Unless(rows.size() == 1 && rows[0]["ids"] == wanted, name(number) + " has other rows");
    }
    faults.Unless(Resets() == 0, "a database was reset");
    return faults.Text();
}

std::set<std::string> FilesInFolder() {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(DataFolder::Path())) {
        names.insert(entry.path().filename());
    }
    return names;
}

/// Names that are used as they are.
const std::vector<std::string> kGoodNames = {"with space.db", "\xC3\xBC\xE5\x90\x8D\xE5\x89\x8D.db",
                                             "\xFF\xFE.db",   "new\nline.db",
                                             "%s%n%d%.db",    "'\"`$(x).db",
                                             "-dash",         ".hidden",
                                             "a?mode=ro#b",   "file:x.db",
                                             ":memory:",      "x.db-journal",
                                             "...",           std::string(247, 'a')};

std::string TakesOddName(Random& random) {
    const std::string& name = kGoodNames[random() % kGoodNames.size()];
    Faults faults;
    {
        ContextDatabase database(name, kCreateTable);
        faults.Unless(CanWrite(database) && CapturedLog::Messages().empty(), "cannot be written");
    }
    faults.Unless(FilesInFolder() == std::set<std::string>{name}, "the folder has other files");
    ContextDatabase database(name, kCreateTable);
    faults.Unless(Count(database) == 1, "the row is lost");
    database.ResetDatabase();
    const std::string path = std::string(ContextDatabase::kDataDirectory) + "/" + name;
    faults.Unless(
        CapturedLog::Messages() == std::vector<std::string>{"I reset database", "I remove " + path + " file success",
                                                            "I remove " + path + "-journal file success"},
        "the reset logs something else");
    faults.Unless(Count(database) == 0 && CanWrite(database), "not empty and writable after a reset");
    return faults.Text().empty() ? "" : "\"" + name + "\": " + faults.Text();
}

std::string RefusesName(Random& random) {
    MakeHealthyFile();
    fs::create_directory(DataFolder::Path("folder"));
    const std::vector<std::string> names = {"", ".", "..", "folder/", "folder/.", "folder/..", std::string("\0x", 2)};
    const std::string& name = names[random() % names.size()];
    const std::set<std::string> before = FilesInFolder();
    Faults faults;
    {
        ContextDatabase database(name, kCreateTable);
        const std::string path = std::string(ContextDatabase::kDataDirectory) + "/" + name.substr(0, name.find('\0'));
        faults.Unless(CapturedLog::Messages() == std::vector<std::string>{"E " + path + " is no file name!"},
                      "logs something else");
        faults.Unless(!database.IsRunning() && !CanWrite(database), "open");
        database.ResetDatabase();
        faults.Unless(!database.IsRunning() && Resets() == 0, "reset");
    }
    faults.Unless(FilesInFolder() == before, "the folder has changed");
    ContextDatabase healthy(kName, kCreateTable);
    faults.Unless(Count(healthy) == kRows, "another database has lost its rows");
    return faults.Text().empty() ? "" : "\"" + name + "\": " + faults.Text();
}

std::string StaysClosedForImpossibleName(Random& random) {
    const std::vector<std::string> names = {std::string(256, 'a'), std::string(5000, 'a'), "missing/x.db", "file/x.db"};
    Surroundings::WriteFile(DataFolder::Path("file"), "content");
    const std::string& name = names[random() % names.size()];
    const std::set<std::string> before = FilesInFolder();
    ContextDatabase database(name, kCreateTable);
    Faults faults;
    faults.Unless(!database.IsRunning() && !CanWrite(database), "open");
    faults.Unless(CapturedLog::Count("create db error!") == 2, "not logged twice");
    faults.Unless(FilesInFolder() == before, "the folder has changed");
    return faults.Text().empty() ? "" : "\"" + name.substr(0, 20) + "\": " + faults.Text();
}

/// The name fits, but the name of its journal does not.
std::string StoresNothingWhenJournalNameIsTooLong(Random& random) {
    ContextDatabase database(std::string(248 + random() % 8, 'a'), kCreateTable);
    Faults faults;
    faults.Unless(Resets() >= 1 && !CanWrite(database), "a write succeeds");
    return faults.Text();
}

struct Case {
    const char* name;
    std::string (*run)(Random& random);
};

const Case kCases[] = {
    {"disk that fills up", WritesUntilDiskIsFull},
    {"reads on a full disk", ReadsOnFullDisk},
    {"start on a full disk", StartsOnFullDisk},
    {"largest file size", WritesToSizeLimit},
    {"read-only file system", KeepsRowsOnReadOnlyFileSystem},
    {"folder of another user", KeepsRowsInFolderOfAnotherUser},
    {"nothing can be created", StaysClosedWhereNothingCanBeCreated},
    {"file of another user", ReplacesFileOfAnotherUser},
    {"missing folder", OpensOnceFolderExists},
    {"file locked by another process", LosesRowsThatAnotherProcessLocks},
    {"lock that another process releases", WaitsForLockWithBusyTimeout},
    {"file exchanged while open", ReplacesFileThatIsExchangedWhileOpen},
    {"no descriptors", RunsOutOfDescriptors},
    {"64 databases at once", ServesManyDatabasesAtOnce},
    {"odd names", TakesOddName},
    {"names that are refused", RefusesName},
    {"names that cannot exist", StaysClosedForImpossibleName},
    {"journal's name too long", StoresNothingWhenJournalNameIsTooLong},
};

/// Runs one case in a process and a mount namespace of its own.
void Try(Torture& torture, const Case& entry, std::map<std::string, int>& tries) {
    DataFolder::Empty();
    Child child([&] {
        if (unshare(CLONE_NEWNS) != 0) {
            return std::string("cannot create a mount namespace");
        }
        CapturedLog::Clear();
        return entry.run(torture.Random());
    });
    torture.Random().discard(7);  // the child has used its own copy
    const std::string fault = child.Wait().text;
    if (fault == kNotTried) {
        std::printf("%s: not tried: %s\n", entry.name, kNotTried);
        return;
    }
    ++tries[entry.name];
    torture.Count(fault.empty(), std::string(entry.name) + ": " + fault);
}

int RunAll(int argc, char** argv) {
    constexpr std::chrono::seconds kShortForm{20};
    Torture torture("place", argc, argv);
    DataFolder::Prepare();
    chmod(DataFolder::Path().c_str(), 0755);
    std::map<std::string, int> tries;
    do {
        for (const Case& entry : kCases) {
            Try(torture, entry, tries);
        }
    } while (torture.HasTime(kShortForm));
    for (const auto& [name, count] : tries) {
        std::printf("%s: %d\n", name.c_str(), count);
    }
    return torture.End();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return RunAll(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "torture-place: %s\n", error.what());
    }
    return 2;
}
