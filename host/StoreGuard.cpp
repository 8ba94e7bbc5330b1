// SPDX-License-Identifier: Apache-2.0
#include "StoreGuard.h"

#include <ContextDatabase.h>
#include <fcntl.h>
#include <glib.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "ContextHost.h"
#include "Terminal.h"

namespace {

constexpr const char* kKeptSuffix = ".kept";
constexpr const char* kLockSuffix = ".lock";
constexpr const char* kJournalSuffix = "-journal";
constexpr std::size_t kLongestName = 200;  // leaves room for the suffixes in a name of 255 bytes
constexpr int kBusyMilliseconds = 2000;    // to wait for another program's lock
constexpr const char* kElsewhere = "; choose another store with --database";

/// Reads errno.
/// @return the error message for a file or folder that cannot be written.
std::string CannotWrite(const std::string& path) {
    const int reason = errno;
    std::string message = "cannot write to " + path + ": " + g_strerror(reason);
    struct stat status {};
    if (reason == EACCES && stat(path.c_str(), &status) == 0 && status.st_uid != getuid()) {
        const passwd* owner = getpwuid(status.st_uid);
        message += "; run as its owner, " +
                   (owner != nullptr ? std::string(owner->pw_name) : "user " + std::to_string(status.st_uid));
    }
    return message;
}

bool Exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

bool AreSameFile(const std::string& a, const std::string& b) {
    struct stat statusA {};
    struct stat statusB {};
    return lstat(a.c_str(), &statusA) == 0 && lstat(b.c_str(), &statusB) == 0 && statusA.st_dev == statusB.st_dev &&
           statusA.st_ino == statusB.st_ino;
}

/// Reads the first value of a query; an empty text if it has no row.
/// @return SQLITE_OK or the error.
int ReadText(sqlite3* database, const char* query, std::string& text) {
    text.clear();
    sqlite3_stmt* prepared = nullptr;
    int result = sqlite3_prepare_v2(database, query, /*nByte=*/-1, &prepared, /*pzTail=*/nullptr);
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(prepared, sqlite3_finalize);
    if (result == SQLITE_OK) {
        result = sqlite3_step(prepared);
    }
    if (result == SQLITE_ROW) {
        const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(prepared, 0));
        text = value != nullptr ? value : "";
    }
    return result == SQLITE_ROW || result == SQLITE_DONE ? SQLITE_OK : result;
}

/// What a look at a database found.
struct Finding {
    int result = SQLITE_OK;
    std::string size;       ///< pages
    std::string table;      ///< the statement that created the table
    std::string integrity;  ///< "ok" or the first fault
    std::string hasRecord;  ///< "1" or "0"
};

Finding Look(const std::string& path, int flags) {
    Finding finding;
    sqlite3* opened = nullptr;
    finding.result = sqlite3_open_v2(path.c_str(), &opened, flags, /*zVfs=*/nullptr);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database(opened, sqlite3_close);
    if (finding.result != SQLITE_OK) {
        return finding;
    }
    sqlite3_busy_timeout(opened, kBusyMilliseconds);
    const auto read = [&](const char* query, std::string& text) {
        if (finding.result == SQLITE_OK) {
            finding.result = ReadText(opened, query, text);
        }
    };
    read("PRAGMA page_count", finding.size);
    read("SELECT sql FROM sqlite_master WHERE type = 'table' AND name = 'usage'", finding.table);
    if (finding.table == ContextHost::TableText()) {
        read("PRAGMA integrity_check(1)", finding.integrity);
        read("SELECT EXISTS (SELECT 1 FROM usage)", finding.hasRecord);
    }
    return finding;
}

/// Reads the start of a file, where SQLite describes the format.
/// @return why the file cannot be a store; empty if it may be one.
std::string ProblemOfHeader(const std::string& path) {
    constexpr char kMagic[] = "SQLite format 3";
    constexpr std::size_t kWriteVersion = 18;  // of the file format: 1 for a rollback journal, as in every store
    char header[kWriteVersion + 1] = {};
    const std::unique_ptr<FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "rbe"), std::fclose);
    if (file == nullptr) {
        return std::string("it cannot be read: ") + g_strerror(errno);
    }
    if (std::fread(header, sizeof(header), 1, file.get()) != 1 || std::memcmp(header, kMagic, sizeof(kMagic)) != 0) {
        return std::string("it is not a database") + kElsewhere;
    }
    return header[kWriteVersion] == 1 ? ""
                                      : std::string("another program has made it or changed its format") + kElsewhere;
}

std::string ProblemOf(const Finding& finding) {
    switch (finding.result & 0xff) {  // the primary code
        case SQLITE_OK:
            break;
        case SQLITE_BUSY:
            return "another program has locked it; try again when that has ended";
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return "it is damaged; move it away to begin a new store";
        default:
            return std::string("it cannot be read: ") + sqlite3_errstr(finding.result);
    }
    if (finding.size == "0") {
        return "";  // the first write was interrupted
    }
    if (finding.table != ContextHost::TableText()) {
        return std::string("it is a database of another program") + kElsewhere;
    }
    return finding.integrity == "ok"
               ? ""
               : "it is damaged (" + Terminal::Escaped(finding.integrity, 60) + "); move it away to begin a new store";
}

/// Looks at a file without changing it, except that an interrupted write of a store is rolled back, which every reader
/// must do.
/// @param hasRecord  receives whether the file is a store that has a record.
/// @return why the file cannot be used as a store; empty if it can, or if there is none.
/// SQLite would wait for the other end of a FIFO.
/// @return what lies beside a store at a name that SQLite opens; empty if it may be opened.
std::string ProblemBeside(const std::string& path) {
    for (const char* suffix : {kJournalSuffix, "-wal", "-shm"}) {
        struct stat status {};
        const std::string name = path + suffix;
        if (lstat(name.c_str(), &status) == 0 &&
            (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))) {
            return name + " is not a regular file";
        }
    }
    return "";
}

std::string ProblemOfFile(const std::string& path, bool& hasRecord) {
    hasRecord = false;
    std::string beside = ProblemBeside(path);
    if (!beside.empty()) {
        return beside;
    }
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT ? "" : std::string("it cannot be read: ") + g_strerror(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return std::string(S_ISLNK(status.st_mode) ? "it is a symbolic link" : "it is not a regular file") + kElsewhere;
    }
    if (status.st_size == 0) {
        return "";
    }
    std::string problem = ProblemOfHeader(path);
    if (!problem.empty()) {
        return problem;
    }
    Finding finding = Look(path, SQLITE_OPEN_READONLY);
    if ((finding.result & 0xff) == SQLITE_READONLY) {
        finding = Look(path, SQLITE_OPEN_READWRITE);
    }
    hasRecord = finding.hasRecord == "1";
    return ProblemOf(finding);
}

std::string ProblemOfStore(const std::string& path) {
    bool hasRecord = false;
    const std::string problem = ProblemOfFile(path, hasRecord);
    return problem.empty() ? "" : "cannot open " + path + ": " + problem;
}

/// Gives a file a second name, and creates it if it is missing.
/// @return the error message; empty if there is none.
std::string KeepFile(const std::string& path, const std::string& keptPath) {
    constexpr mode_t kMode = 0644;  // as SQLite creates files
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kMode);
    if (file < 0) {
        return CannotWrite(path);
    }
    close(file);
    return link(path.c_str(), keptPath.c_str()) == 0 ? "" : CannotWrite(keptPath);
}

/// Creates the table of a store that is missing or empty. SQLite replaces the journal of an empty file, so that a
/// second name would not keep it.
/// @return the error message; empty if there is none.
std::string CreateTable(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && status.st_size > 0) {
        return "";
    }
    sqlite3* opened = nullptr;
    int result = sqlite3_open(path.c_str(), &opened);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database(opened, sqlite3_close);
    if (result == SQLITE_OK) {
        result = sqlite3_exec(opened, ContextHost::TableText().c_str(), nullptr, nullptr, nullptr);
    }
    return result == SQLITE_OK ? "" : "cannot write to " + path + ": " + sqlite3_errstr(result);
}

}  // namespace

StoreGuard::StoreGuard(std::string name)
    : m_name(std::move(name)),
      m_path(ContextDatabase::kDataDirectory + m_name),
      m_journalPath(m_path + kJournalSuffix),
      m_keptPath(m_path + kKeptSuffix),
      m_keptJournalPath(m_keptPath + kJournalSuffix) {}

StoreGuard::~StoreGuard() {
    try {
        Release();
    } catch (const std::bad_alloc&) {
        // The next Take() does it.
    }
    if (m_lock >= 0) {
        close(m_lock);
    }
}

bool StoreGuard::IsName(const std::string& name) {
    for (const char* suffix : {kJournalSuffix, "-wal", "-shm", kLockSuffix, kKeptSuffix}) {
        if (g_str_has_suffix(name.c_str(), suffix) != FALSE) {
            return false;
        }
    }
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.size() <= kLongestName;
}

std::string StoreGuard::Take() {
    std::string problem = Lock_();
    if (problem.empty()) {
        problem = Recover_();
    }
    if (problem.empty()) {
        problem = ProblemOfStore(m_path);
    }
    if (problem.empty()) {
        problem = CreateTable(m_path);
    }
    return problem.empty() ? Keep_() : problem;
}

bool StoreGuard::IsIntact() const {
    return AreSameFile(m_path, m_keptPath);
}

std::string StoreGuard::Release() {
    if (!m_isTaken) {
        return "";
    }
    m_isTaken = false;
    return IsIntact() ? RemoveKept_() : PutBack_();
}

std::string StoreGuard::Lock_() {
    const std::string folder = ContextDatabase::kDataDirectory;
    if (access(folder.c_str(), F_OK) != 0) {
        return "the folder " + folder + " does not exist; create it with: sudo install -d -o \"$(id -un)\" " + folder;
    }
    if (access(folder.c_str(), R_OK | W_OK | X_OK) != 0) {
        return CannotWrite(folder);
    }
    if (access(m_path.c_str(), R_OK | W_OK) != 0 && errno != ENOENT) {
        return CannotWrite(m_path);
    }
    const std::string path = m_path + kLockSuffix;
    m_lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (m_lock < 0) {
        return CannotWrite(path);
    }
    return flock(m_lock, LOCK_EX | LOCK_NB) == 0 ? ""
                                                 : "another context-host is using the store " + m_name +
                                                       "; stop it or choose another store with --database";
}

/// Ends the work of an earlier run that was killed.
std::string StoreGuard::Recover_() {
    if (!Exists(m_keptPath)) {
        return "";
    }
    if (IsIntact()) {
        return RemoveKept_();
    }
    bool hasRecord = false;
    const std::string problem = ProblemOfFile(m_path, hasRecord);
    if (!problem.empty() || hasRecord) {
        return m_keptPath + " contains the records of an earlier run, and " + m_path +
               " others: move one of the two away";
    }
    return PutBack_();
}

/// Gives the store and its journal their second names. What is missing is created empty, so that it can have one.
std::string StoreGuard::Keep_() {
    if (unlink(m_keptJournalPath.c_str()) != 0 && errno != ENOENT) {  // left over without a store
        return CannotWrite(m_keptJournalPath);
    }
    std::string problem = KeepFile(m_journalPath, m_keptJournalPath);
    if (problem.empty()) {
        problem = KeepFile(m_path, m_keptPath);
    }
    m_isTaken = problem.empty();
    return problem;
}

// The journal goes first: a journal without a store is removed by the next Take().
std::string StoreGuard::RemoveKept_() const {
    if (unlink(m_keptJournalPath.c_str()) != 0 && errno != ENOENT) {
        return CannotWrite(m_keptJournalPath);
    }
    return unlink(m_keptPath.c_str()) == 0 ? "" : CannotWrite(m_keptPath);
}

std::string StoreGuard::PutBack_() const {
    // Rolls back the transaction that the reset interrupted: SQLite finds its journal at the second name.
    std::string problem = ProblemOfStore(m_keptPath);
    if (!problem.empty()) {
        return problem;
    }
    // The journal of the file that replaced the store must not be applied to the store.
    for (const std::string& journal : {m_keptJournalPath, m_journalPath}) {
        if (unlink(journal.c_str()) != 0 && errno != ENOENT) {
            return CannotWrite(journal);
        }
    }
    if (std::rename(m_keptPath.c_str(), m_path.c_str()) != 0) {
        return CannotWrite(m_path);
    }
    const int folder = open(ContextDatabase::kDataDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    fsync(folder);  // as far as the file system can; the store itself was written by SQLite
    close(folder);
    return "";
}
