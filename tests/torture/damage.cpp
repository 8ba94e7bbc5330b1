// SPDX-License-Identifier: Apache-2.0
// Opens damaged, foreign and strange files, and compares what happens with the table in docs/guide/database.md.
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>
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
using Rows = std::map<int, std::string>;  ///< id to the other columns

constexpr const char* kName = "damage.db";
constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS t (id INTEGER PRIMARY KEY, name TEXT, value INTEGER, UNIQUE (name, value))";
constexpr const char* kCreatePlainTable = "CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, value INTEGER)";
constexpr std::size_t kPageSize = 4096;
constexpr std::size_t kHeaderSize = 100;
constexpr int kRows = 300;

const std::string kPath = DataFolder::Path(kName);

// Files, and how they are made.

/// Runs statements outside the library.
class Plain {
public:
    explicit Plain(const std::string& path = kPath) { sqlite3_open(path.c_str(), &m_database); }
    ~Plain() { sqlite3_close(m_database); }
    Plain(const Plain&) = delete;
    Plain& operator=(const Plain&) = delete;

    void Run(const std::string& sql) {
        if (sqlite3_exec(m_database, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sql + ": " + sqlite3_errmsg(m_database));
        }
    }

private:
    sqlite3* m_database = nullptr;
};

std::string RowName(int id, const std::string& prefix) {
    return prefix + std::to_string(id) + std::string(static_cast<std::size_t>(id % 120), 'x');
}

Rows RowsNamed(const std::string& prefix, int count = kRows) {
    Rows rows;
    for (int id = 1; id <= count; ++id) {
        rows[id] = RowName(id, prefix) + "|" + std::to_string(id * 7919);
    }
    return rows;
}

void Fill(Plain& file, const std::string& createTable, const std::string& prefix, int count = kRows) {
    file.Run(createTable);
    file.Run("BEGIN");
    for (int id = 1; id <= count; ++id) {
        file.Run("INSERT INTO t VALUES (" + std::to_string(id) + ", '" + RowName(id, prefix) + "', " +
                 std::to_string(id * 7919) + ")");
    }
    file.Run("COMMIT");
}

std::string Read(const std::string& suffix = "") {
    return Surroundings::ReadFile(kPath + suffix);
}

void Write(const std::string& content, const std::string& suffix = "") {
    Surroundings::WriteFile(kPath + suffix, content);
}

/// The contents that the kinds of damage start from.
struct Samples {
    std::string indexed;     ///< each value of a row is in the index too
    std::string plain;       ///< no index
    std::string older;       ///< the plain file before its last changes
    std::string changed;     ///< the plain file in the middle of a transaction
    std::string journal;     ///< and its journal
    std::string foreign;     ///< the journal of another file
    std::string walFile;     ///< a file in WAL mode
    std::string wal;         ///< and its log, which contains all rows
    std::string foreignWal;  ///< the log of another file
};

/// @return the content of the file and of its journal or log, while a connection has it open.
std::pair<std::string, std::string> Snapshot(const std::string& createTable, const std::string& prefix,
                                             const std::string& change, const std::string& suffix) {
    DataFolder::Empty();
    Plain file;
    if (suffix == "-wal") {
        file.Run("PRAGMA journal_mode = WAL");
    }
    Fill(file, createTable, prefix);
    file.Run("PRAGMA cache_size = 1");  // so that a change is in the file before it commits
    file.Run(change);
    return {Read(), Read(suffix)};
}

Samples MakeSamples() {
    constexpr const char* kChange = "BEGIN; UPDATE t SET name = 'changed-' || name";
    Samples samples;
    samples.indexed = Snapshot(kCreateTable, "name-", "", "").first;
    samples.plain = Snapshot(kCreatePlainTable, "name-", "", "").first;
    samples.older =
        Snapshot(kCreatePlainTable, "older-", "UPDATE t SET value = 0; DELETE FROM t WHERE id > 200", "").first;
    std::tie(samples.changed, samples.journal) = Snapshot(kCreatePlainTable, "name-", kChange, "-journal");
    samples.foreign = Snapshot(kCreateTable, "foreign-", kChange, "-journal").second;
    std::tie(samples.walFile, samples.wal) = Snapshot(kCreatePlainTable, "name-", "", "-wal");
    samples.foreignWal = Snapshot(kCreateTable, "foreign-", "", "-wal").second;
    if (samples.changed == samples.plain || samples.journal.size() < kPageSize || samples.wal.size() < kPageSize) {
        throw std::runtime_error("a sample is not what its name says");
    }
    return samples;
}

std::size_t Below(std::size_t bound, Random& random) {
    return random() % bound;
}

std::string Garbage(std::size_t size, Random& random) {
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
    return text;
}

std::string WithBitFlipped(std::string content, std::size_t from, Random& random) {
    char& byte = content[from + Below(content.size() - from, random)];
    byte = static_cast<char>(byte ^ (1 << Below(8, random)));
    return content;
}

std::string WithGarbage(std::string content, std::size_t longest, Random& random) {
    const std::size_t at = Below(content.size(), random);
    const std::size_t size = std::min(1 + Below(longest, random), content.size() - at);
    return content.replace(at, size, Garbage(size, random));
}

/// Cuts off anything from one byte to all but one, and half of the times less than a page.
std::string CutOff(const std::string& content, Random& random) {
    const std::size_t most = random() % 2 == 0 ? content.size() - 1 : kPageSize;
    return content.substr(0, content.size() - 1 - Below(most, random));
}

std::string Page(const std::string& content, std::size_t page) {
    return content.substr(page * kPageSize, kPageSize);
}

std::string& PutPage(std::string& content, std::size_t page, const std::string& data) {
    return content.replace(page * kPageSize, kPageSize, data);
}

std::string WithPagesExchanged(std::string content, Random& random) {
    const std::size_t pages = content.size() / kPageSize;
    const std::size_t first = Below(pages, random);
    const std::size_t second = (first + 1 + Below(pages - 1, random)) % pages;
    const std::string page = Page(content, first);
    PutPage(content, first, Page(content, second));
    return PutPage(content, second, page);
}

const std::string& OneOf(const std::string& a, const std::string& b, Random& random) {
    return random() % 2 == 0 ? a : b;
}

// The kinds of damage.

enum class Promise {
    RightRows,  ///< if the file opens, its rows are those that were written
    AnyRows,    ///< if the file opens, some values may be wrong: the integrity check cannot know
    BadWrite,   ///< the first write resets
};

struct Kind {
    const char* name;  ///< as in the guide
    Promise promise;
    bool isRandom;  ///< each try is different
    std::function<void(const Samples&, Random&)> prepare;
    Rows rows;  ///< for Promise::RightRows
};

void MakeSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int file = socket(AF_UNIX, SOCK_STREAM, 0);
    const int result = bind(file, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    close(file);
    if (result != 0) {
        throw std::runtime_error("cannot create a socket");
    }
}

/// Something that is no regular file, at the path or at one that belongs to it.
void MakeStrange(const std::string& what, const std::string& suffix) {
    const std::string path = kPath + suffix;
    if (what == "FIFO") {
        mkfifo(path.c_str(), S_IRUSR | S_IWUSR);
    } else if (what == "socket") {
        MakeSocket(path);
    } else if (what == "folder" || what == "full folder") {
        fs::create_directory(path);
        if (what == "full folder") {
            Surroundings::WriteFile(path + "/file", "content");
        }
    } else if (what == "link") {
        Surroundings::WriteFile(DataFolder::Path("target"), "content");
        fs::create_symlink(DataFolder::Path("target"), path);
    } else {
        fs::create_symlink(what == "loop" ? path : DataFolder::Path("nowhere"), path);
    }
}

std::function<void(const Samples&, Random&)> Strange(const char* what, const char* suffix = "") {
    return [=](const Samples& samples, Random&) {
        if (*suffix != '\0') {
            Write(samples.plain);
        }
        MakeStrange(what, suffix);
    };
}

std::function<void(const Samples&, Random&)> Statements(const char* sql) {
    return [=](const Samples&, Random&) { Plain().Run(sql); };
}

void AddDamagedPages(std::vector<Kind>& kinds) {
    const Rows rows = RowsNamed("name-");
    const auto add = [&](const char* name, Promise promise, std::function<void(const Samples&, Random&)> prepare) {
        kinds.push_back({name, promise, /*isRandom=*/true, std::move(prepare), rows});
    };
    add("one bit flipped in a page after the first; an index has all columns", Promise::RightRows,
        [](const Samples& samples, Random& random) { Write(WithBitFlipped(samples.indexed, kPageSize, random)); });
    add("one bit flipped anywhere", Promise::AnyRows,
        [](const Samples& samples, Random& random) { Write(WithBitFlipped(samples.plain, 0, random)); });
    add("one byte of the file header changed", Promise::AnyRows, [](const Samples& samples, Random& random) {
        std::string content = samples.indexed;
        content[Below(kHeaderSize, random)] = static_cast<char>(random());
        Write(content);
    });
    add("up to 5000 bytes after the first page overwritten with garbage; an index has all columns", Promise::RightRows,
        [](const Samples& samples, Random& random) {
            Write(Page(samples.indexed, 0) + WithGarbage(samples.indexed.substr(kPageSize), 5000, random));
        });
    add("up to 5000 bytes anywhere overwritten with garbage", Promise::AnyRows,
        [](const Samples& samples, Random& random) { Write(WithGarbage(samples.plain, 5000, random)); });
    add("a page after the first zeroed", Promise::RightRows, [](const Samples& samples, Random& random) {
        std::string content = OneOf(samples.indexed, samples.plain, random);
        Write(PutPage(content, 1 + Below(content.size() / kPageSize - 1, random), std::string(kPageSize, '\0')));
    });
    add("two pages exchanged", Promise::AnyRows, [](const Samples& samples, Random& random) {
        Write(WithPagesExchanged(OneOf(samples.indexed, samples.plain, random), random));
    });
    add("a page from an older state of the file", Promise::AnyRows, [](const Samples& samples, Random& random) {
        std::string content = samples.plain;
        const std::size_t pages = std::min(content.size(), samples.older.size()) / kPageSize;
        const std::size_t page = Below(pages, random);
        Write(PutPage(content, page, Page(samples.older, page)));
    });
    add("the end cut off; an index has all columns", Promise::RightRows,
        [](const Samples& samples, Random& random) { Write(CutOff(samples.indexed, random)); });
    add("the end cut off", Promise::AnyRows,
        [](const Samples& samples, Random& random) { Write(CutOff(samples.plain, random)); });
    add("garbage appended", Promise::RightRows, [](const Samples& samples, Random& random) {
        Write(samples.plain + Garbage(1 + Below(3 * kPageSize, random), random));
    });
    add("garbage from the first byte", Promise::RightRows,
        [](const Samples&, Random& random) { Write("x" + Garbage(Below(5 * kPageSize, random), random)); });
}

void AddCompanions(std::vector<Kind>& kinds) {
    const Rows rows = RowsNamed("name-");
    const auto add = [&](const char* name, Promise promise, std::function<void(const Samples&, Random&)> prepare) {
        kinds.push_back({name, promise, /*isRandom=*/true, std::move(prepare), rows});
    };
    add("`-journal` of an interrupted transaction", Promise::RightRows, [](const Samples& samples, Random&) {
        Write(samples.changed);
        Write(samples.journal, "-journal");
    });
    add("`-journal` of an interrupted transaction, damaged or cut off", Promise::AnyRows,
        [](const Samples& samples, Random& random) {
            Write(samples.changed);
            Write(random() % 2 == 0 ? WithGarbage(samples.journal, 100, random)
                                    : samples.journal.substr(0, Below(samples.journal.size(), random)),
                  "-journal");
        });
    add("`-journal` of another file", Promise::AnyRows, [](const Samples& samples, Random& random) {
        Write(OneOf(samples.indexed, samples.plain, random));
        Write(samples.foreign, "-journal");
    });
    add("`-journal` of garbage, of zeros, or empty", Promise::RightRows, [](const Samples& samples, Random& random) {
        Write(samples.plain);
        Write(random() % 2 == 0 ? Garbage(Below(3 * kPageSize, random), random)
                                : std::string(Below(3 * kPageSize, random), '\0'),
              "-journal");
    });
    add("`-wal` with its file", Promise::RightRows, [](const Samples& samples, Random&) {
        Write(samples.walFile);
        Write(samples.wal, "-wal");
    });
    add("`-wal` with its file, damaged or cut off", Promise::AnyRows, [](const Samples& samples, Random& random) {
        Write(samples.walFile);
        Write(random() % 2 == 0 ? WithGarbage(samples.wal, 100, random)
                                : samples.wal.substr(0, Below(samples.wal.size(), random)),
              "-wal");
    });
    add("`-wal` of another file", Promise::AnyRows, [](const Samples& samples, Random& random) {
        Write(OneOf(samples.indexed, samples.plain, random));
        Write(samples.foreignWal, "-wal");
    });
    add("`-wal` and `-shm` of garbage", Promise::RightRows, [](const Samples& samples, Random& random) {
        Write(samples.plain);
        Write(Garbage(Below(3 * kPageSize, random), random), "-wal");
        Write(Garbage(Below(10 * kPageSize, random), random), "-shm");
    });
}

void AddForeignFiles(std::vector<Kind>& kinds) {
    const auto add = [&](const char* name, Promise promise, std::function<void(const Samples&, Random&)> prepare,
                         const Rows& rows = {}) {
        kinds.push_back({name, promise, /*isRandom=*/false, std::move(prepare), rows});
    };
    add(
        "not damaged", Promise::RightRows, [](const Samples& samples, Random&) { Write(samples.indexed); },
        RowsNamed("name-"));
    add("no file, or an empty one", Promise::RightRows, [](const Samples&, Random& random) {
        if (random() % 2 == 0) {
            Write("");
        }
    });
    for (const char* start :
         {"\x89PNG\r\n\x1a\n", "\x1f\x8b\x08", "\177ELF", "{\"list\": []}", "%PDF-1.4", "** This"}) {
        add("a file of another format", Promise::RightRows,
            [start](const Samples&, Random& random) { Write(start + Garbage(Below(2 * kPageSize, random), random)); });
    }
    add(
        "a second name of a database (hard link)", Promise::RightRows,
        [](const Samples& samples, Random&) {
            Surroundings::WriteFile(DataFolder::Path("second"), samples.indexed);
            fs::create_hard_link(DataFolder::Path("second"), kPath);
        },
        RowsNamed("name-"));
    add(
        "a terabyte of zeros after the last page", Promise::RightRows,
        [](const Samples& samples, Random&) {
            Write(samples.plain);
            fs::resize_file(kPath, std::uintmax_t{1} << 40);
        },
        RowsNamed("name-"));
    add("a terabyte of zeros", Promise::RightRows, [](const Samples&, Random&) {
        Write("");
        fs::resize_file(kPath, std::uintmax_t{1} << 40);
    });
}

void AddForeignDatabases(std::vector<Kind>& kinds) {
    const auto add = [&](const char* name, Promise promise, std::function<void(const Samples&, Random&)> prepare,
                         const Rows& rows = {}) {
        kinds.push_back({name, promise, /*isRandom=*/false, std::move(prepare), rows});
    };
    add("a database without the table", Promise::RightRows,
        Statements("CREATE TABLE u (x); INSERT INTO u VALUES (1); CREATE INDEX i ON u (x)"));
    add("a table of that name without a column; the first write resets", Promise::BadWrite,
        Statements("CREATE TABLE t (other TEXT); INSERT INTO t VALUES ('kept')"));
    add("a view in the table's place; the first write resets", Promise::BadWrite,
        Statements("CREATE TABLE u (id, name, value); CREATE VIEW t AS SELECT * FROM u"));
    add("a trigger that refuses rows; the first write resets", Promise::BadWrite,
        Statements("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, value INTEGER); CREATE TRIGGER r BEFORE INSERT "
                   "ON t BEGIN SELECT RAISE(ABORT, 'no'); END"));
    add("a trigger that ignores rows", Promise::AnyRows,
        Statements("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, value INTEGER); CREATE TRIGGER r BEFORE INSERT "
                   "ON t BEGIN SELECT RAISE(IGNORE); END"));
    add("a schema that does not compile", Promise::RightRows,
        Statements(
            "CREATE TABLE t (id); PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = 'CREATE NONSENSE'"));
    for (const char* setting : {"encoding = 'UTF-16'", "page_size = 512", "page_size = 65536", "auto_vacuum = FULL"}) {
        add(
            "a database with other settings", Promise::RightRows,
            [setting](const Samples&, Random&) {
                Plain file;
                file.Run(std::string("PRAGMA ") + setting);
                Fill(file, kCreateTable, "name-");
            },
            RowsNamed("name-"));
    }
}

void AddStrangeFiles(std::vector<Kind>& kinds) {
    const auto add = [&](const char* name, std::function<void(const Samples&, Random&)> prepare) {
        kinds.push_back({name, Promise::RightRows, /*isRandom=*/false, std::move(prepare), RowsNamed("name-")});
    };
    for (const char* link : {"link", "loop", "dangling"}) {
        add("a symbolic link at the path: to a file, to nothing, to itself", Strange(link));
    }
    for (const char* what : {"FIFO", "socket"}) {
        add("a FIFO or a socket at the path, `-journal`, `-wal` or `-shm`", Strange(what));
        add("a FIFO or a socket at the path, `-journal`, `-wal` or `-shm`", Strange(what, "-journal"));
        add("a FIFO or a socket at the path, `-journal`, `-wal` or `-shm`", Strange(what, "-wal"));
        add("a FIFO or a socket at the path, `-journal`, `-wal` or `-shm`", Strange(what, "-shm"));
    }
    add("an empty folder at the path", Strange("folder"));
    add("a folder with a file in it at the path", Strange("full folder"));
    for (const char* what : {"folder", "link", "loop", "dangling"}) {
        add("an empty folder or a symbolic link at `-journal`", Strange(what, "-journal"));
    }
    add("a folder with a file in it at `-journal`", Strange("full folder", "-journal"));
    add("a symbolic link to a file at `-wal`", Strange("link", "-wal"));
    kinds.push_back({"a folder at `-wal`; every write resets too, until it is removed",
                     Promise::BadWrite,
                     /*isRandom=*/false,
                     Strange("full folder", "-wal"),
                     {}});
}

std::vector<Kind> AllKinds() {
    std::vector<Kind> kinds;
    AddDamagedPages(kinds);
    AddCompanions(kinds);
    AddForeignFiles(kinds);
    AddForeignDatabases(kinds);
    AddStrangeFiles(kinds);
    return kinds;
}

// What the guide states.

/// One row of the guide's table.
struct Statement {
    std::string outcomes;              ///< for example "opens or reset"
    std::vector<std::regex> messages;  ///< what may be logged before a reset, or before the database stays closed
};

std::string Trimmed(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

/// @return a pattern for the texts that a format can give.
std::regex PatternOf(const std::string& format) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    static const std::regex placeholder("%[sd]");
    return std::regex(std::regex_replace(std::regex_replace(format, special, R"(\$&)"), placeholder, ".*"));
}

/// Reads the table of the guide's section on damaged files, by the text in its first column.
std::map<std::string, Statement> ReadGuide() {
    std::map<std::string, Statement> statements;
    std::ifstream file(LUMORA_GUIDE);
    bool isInSection = false;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("## ", 0) == 0) {
            isInSection = line == "## Damaged files";
        }
        std::vector<std::string> cells;
        std::istringstream text(line);
        for (std::string cell; std::getline(text, cell, '|');) {
            cells.push_back(Trimmed(cell));
        }
        if (!isInSection || cells.size() != 4 || cells[1] == "file" || cells[1].rfind("---", 0) == 0) {
            continue;
        }
        Statement& statement = statements[cells[1]];
        statement.outcomes = cells[2];
        static const std::regex quoted("`([^`]+)`");
        for (std::sregex_iterator match(cells[3].begin(), cells[3].end(), quoted), end; match != end; ++match) {
            statement.messages.push_back(PatternOf((*match)[1]));
        }
    }
    return statements;
}

// One try.

/// What the child saw. Passed on as text: a word, numbers, then the error lines.
struct Seen {
    std::string outcome;  ///< opens, reset or closed
    int wrongRows = 0;    ///< values that were never written
    int lostRows = 0;
    int writeResets = 0;  ///< by the first write
    bool isWritable = false;
    std::vector<std::string> errors;
};

Rows ReadRows(ContextDatabase& database) {
    std::vector<std::map<std::string, std::string>> found;
    Rows rows;
    CapturedLog::Clear();
    database.SelectQuery("SELECT id, name, value FROM t ORDER BY id", {}, found);
    for (auto& row : found) {
        rows[std::atoi(row["id"].c_str())] = row["name"] + "|" + row["value"];
    }
    return rows;
}

/// Opens the file as a host does, reads its rows and writes one.
std::string Look(const Kind& kind) {
    CapturedLog::Clear();
    ContextDatabase database(kName, kCreateTable);
    const std::vector<std::string> log = CapturedLog::Messages();
    const auto resets = std::count(log.begin(), log.end(), "I reset database");
    std::ostringstream seen;
    seen << (!database.IsRunning() ? "closed" : resets == 0 ? "opens" : resets == 1 ? "reset" : "resets");
    int wrong = 0;
    int lost = 0;
    if (database.IsRunning()) {
        const Rows found = ReadRows(database);
        const Rows wanted = resets == 0 ? kind.rows : Rows();
        for (const auto& row : found) {
            wrong += wanted.count(row.first) == 0 || wanted.at(row.first) != row.second ? 1 : 0;
        }
        lost = static_cast<int>(
            std::count_if(wanted.begin(), wanted.end(), [&](const auto& row) { return found.count(row.first) == 0; }));
    }
    CapturedLog::Clear();
    database.ExecuteQuery("INSERT INTO t (id, name, value) VALUES (1000, 'new', 1)", {}, /*immediate=*/true);
    const int writeResets = CapturedLog::Count("reset database");
    seen << ' ' << wrong << ' ' << lost << ' ' << writeResets << ' ' << ReadRows(database).count(1000) << '\n';
    for (const std::string& line : log) {
        if (line.rfind("E ", 0) == 0) {
            seen << line.substr(2) << '\n';
        }
    }
    return seen.str();
}

Seen SeenIn(const std::string& text) {
    Seen seen;
    std::istringstream lines(text);
    lines >> seen.outcome >> seen.wrongRows >> seen.lostRows >> seen.writeResets >> seen.isWritable;
    lines.ignore();
    for (std::string line; std::getline(lines, line);) {
        seen.errors.push_back(line);
    }
    return seen;
}

/// @return an empty text, or how the try differs from the guide and the promise.
std::string Judge(const Kind& kind, const Statement& statement, const Seen& seen) {
    if ((" " + statement.outcomes + " ").find(" " + seen.outcome + " ") == std::string::npos) {
        return seen.outcome + ", not " + statement.outcomes;
    }
    if (seen.errors.empty() != (seen.outcome == "opens")) {
        return seen.outcome + ", but " + std::to_string(seen.errors.size()) + " errors are logged";
    }
    for (const std::string& error : seen.errors) {
        if (std::none_of(statement.messages.begin(), statement.messages.end(),
                         [&](const std::regex& pattern) { return std::regex_match(error, pattern); })) {
            return "logs \"" + error + "\"";
        }
    }
    if (seen.outcome != "opens") {
        const bool mustBeWritable = seen.outcome == "reset" && kind.promise != Promise::BadWrite;
        return seen.wrongRows != 0                 ? "rows after a reset"
               : seen.isWritable != mustBeWritable ? "a write after the reset succeeds or fails, but should not"
                                                   : "";
    }
    if (kind.promise == Promise::RightRows && (seen.wrongRows != 0 || seen.lostRows != 0 || !seen.isWritable)) {
        return "opens with " + std::to_string(seen.wrongRows) + " wrong rows, and without " +
               std::to_string(seen.lostRows) + " rows" + (seen.isWritable ? "" : ", and cannot be written");
    }
    return kind.promise == Promise::BadWrite && seen.writeResets != 1 ? "a write does not reset" : "";
}

/// How the tries of one row of the table ended.
struct Total {
    std::map<std::string, int> outcomes;
    int wrong = 0;
};

void Try(Torture& torture, const Kind& kind, const Samples& samples, const std::map<std::string, Statement>& statements,
         std::map<std::string, Total>& totals) {
    const auto statement = statements.find(kind.name);
    if (statement == statements.end()) {
        torture.Count(false, std::string(kind.name) + ": the guide does not list it");
        return;
    }
    DataFolder::Empty();
    kind.prepare(samples, torture.Random());
    const Child::Ending ending = Child([&] { return Look(kind); }).Wait();
    const Seen seen = SeenIn(ending.text);
    const std::string fault = ending.isOk ? Judge(kind, statement->second, seen) : ending.text;
    Total& total = totals[kind.name];
    ++total.outcomes[ending.isOk ? seen.outcome : ending.text];
    total.wrong += seen.outcome == "opens" && seen.wrongRows + seen.lostRows != 0 ? 1 : 0;
    torture.Count(fault.empty(), std::string(kind.name) + ": " + fault);
}

void PrintTotals(const std::map<std::string, Total>& totals) {
    for (const auto& [name, total] : totals) {
        std::printf("%s:", name.c_str());
        for (const auto& [outcome, count] : total.outcomes) {
            std::printf(" %s %d", outcome.c_str(), count);
        }
        std::printf(total.wrong != 0 ? ", %d with rows that are not those written\n" : "\n", total.wrong);
    }
}

/// Each row of the table must be tried.
void CheckNames(Torture& torture, const std::vector<Kind>& kinds, const std::map<std::string, Statement>& statements) {
    for (const auto& statement : statements) {
        const bool isTried =
            std::any_of(kinds.begin(), kinds.end(), [&](const Kind& kind) { return statement.first == kind.name; });
        torture.Count(isTried, statement.first + ": the guide lists it, but it is not tried");
    }
}

int RunAll(int argc, char** argv) {
    constexpr std::chrono::seconds kShortForm{25};
    constexpr int kTimesInRound = 10;
    Torture torture("damage", argc, argv);
    DataFolder::Prepare();
    const std::map<std::string, Statement> statements = ReadGuide();
    const Samples samples = MakeSamples();
    const std::vector<Kind> kinds = AllKinds();
    CheckNames(torture, kinds, statements);
    std::map<std::string, Total> totals;
    do {
        for (const Kind& kind : kinds) {
            for (int time = 0; time < (kind.isRandom ? kTimesInRound : 1); ++time) {
                Try(torture, kind, samples, statements, totals);
            }
        }
    } while (torture.HasTime(kShortForm));
    PrintTotals(totals);
    return torture.End();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return RunAll(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "torture-damage: %s\n", error.what());
    }
    return 2;
}
