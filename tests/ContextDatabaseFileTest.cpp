// SPDX-License-Identifier: Apache-2.0
#include "ContextDatabase.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "DatabaseFixture.h"
#include "NextFunction.h"

// Names that cannot name a file, and what else than a regular file a database may find at its paths.

namespace {

std::function<void()> g_beforeOpen;  ///< runs once, before the library's next sqlite3_open(), if set

}  // namespace

/// Replaces SQLite's function for the library, to change the file between the library's look at it and the opening.
extern "C" int sqlite3_open(const char* path, sqlite3** database) {
    if (const std::function<void()> action = std::exchange(g_beforeOpen, nullptr)) {
        action();
    }
    return NextFunction<decltype(sqlite3_open)>("sqlite3_open")(path, database);
}

namespace {

namespace fs = std::filesystem;

const std::string kPath = DatabasePath();
const std::string kJournal = kPath + "-journal";

/// @return the lines of an opening that finds a file of another type at a path.
Messages NotRegular(const std::string& path) {
    return {"E " + path + " is not a regular file!", "E create db error!"};
}

void MakeFifo(const std::string& path, mode_t mode = 0666) {
    ASSERT_EQ(mkfifo(path.c_str(), mode), 0) << strerror(errno);
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << strerror(errno);
}

void MakeSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    std::strcpy(address.sun_path, path.c_str());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << strerror(errno);
    close(descriptor);
}

/// Makes the calling thread obey the permissions of files, which root may ignore.
void ObeyPermissions() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    ASSERT_EQ(syscall(SYS_capget, &header, data), 0) << strerror(errno);
    data[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0) << strerror(errno);
}

/// Runs an action on a thread that obeys permissions, and fails the test if the action blocks on a FIFO.
void RunWithoutPrivilege(const std::string& fifo, const std::function<void()>& action) {
    Background background([&] {
        ObeyPermissions();
        action();
    });
    const bool returns = background.Returns(std::chrono::seconds(5));
    EXPECT_TRUE(returns) << "blocked on " << fifo;
    while (!returns && !background.Returns(kShort)) {  // a writer ends each open() that waits for one
        close(open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
}

class ContextDatabaseFileTest : public DatabaseTest {
protected:
    ~ContextDatabaseFileTest() override { g_beforeOpen = nullptr; }

    /// @return every entry in the data directory and in its parent.
    static Messages Entries() {
        const fs::path parent = fs::path(ContextDatabase::kDataDirectory).parent_path().parent_path();
        Messages entries;
        for (const auto& entry : fs::recursive_directory_iterator(parent)) {
            entries.push_back(entry.path());
        }
        std::sort(entries.begin(), entries.end());
        return entries;
    }
};

// Names

TEST_F(ContextDatabaseFileTest, TouchesNothingForNameThatNamesNoFile) {
    fs::create_directory(DatabasePath("sub"));
    const Messages before = Entries();
    const std::string names[] = {
        "",    ".",      "..",     "/",        "sub/",
        "./",  "sub/.",  "sub/..", "../..",    std::string("\0x.db", 5),
        "//.", "sub/./", "sub//",  "../data/", std::string("..\0x.db", 7),
    };
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const Messages refused = {"E " + DatabasePath(name.substr(0, name.find('\0'))) + " is no file name!"};
        for (const bool hasTimer : {false, true}) {
            CapturedLog::Clear();
            const auto database = hasTimer ? std::make_unique<ContextDatabase>(name, kCreateTable, /*interval=*/60)
                                           : std::make_unique<ContextDatabase>(name, kCreateTable);
            EXPECT_EQ(CapturedLog::Messages(), refused);
            CapturedLog::Clear();
            database->ResetDatabase();
            EXPECT_EQ(CapturedLog::Messages(), refused);
            ExpectClosed(*database);
            if (name != names[0]) {
                break;  // stopping a timer takes a quarter of a second
            }
        }
        EXPECT_EQ(Entries(), before);
    }
}

TEST_F(ContextDatabaseFileTest, OpensNamesThatOnlyLookStrange) {
    fs::create_directory(DatabasePath("sub"));
    for (const char* name : {"...", ".x", "x.", "sub/x.db", "./x.db", "sub/../y.db", " ", "-journal", "%s"}) {
        CapturedLog::Clear();
        ContextDatabase database(name, kCreateTable);
        EXPECT_EQ(CapturedLog::Messages(), Messages()) << name;
        ExpectFreshAndWorking(database, name);
    }
}

TEST_F(ContextDatabaseFileTest, EndsNameAtZeroByteForJournalToo) {
    fs::create_directory(kJournal);
    ContextDatabase database(std::string("x.db\0rest", 9), kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({NotRegular(kJournal), ResetLines()}));
    ExpectFreshAndWorking(database);
}

// Other types of files

TEST_F(ContextDatabaseFileTest, ReplacesWhatIsNoRegularFile) {
    const struct {
        const char* name;
        std::function<void(const std::string&)> make;
        bool onlyAtJournal;
    } rows[] = {
        {"FIFO", [](const std::string& path) { MakeFifo(path); }, false},
        {"socket", MakeSocket, false},
        {"empty folder", [](const std::string& path) { fs::create_directory(path); }, true},
        {"link", [](const std::string& path) { fs::create_symlink("/nowhere", path); }, true},
        {"link to file", [](const std::string& path) { fs::create_symlink("/etc/hostname", path); }, true},
    };
    for (const auto& row : rows) {
        for (const std::string& path : {kPath, kJournal}) {
            if (path == kPath && row.onlyAtJournal) {
                continue;
            }
            SCOPED_TRACE(path + ": " + row.name);
            if (path == kJournal) {
                MakeGoodFile();
            }
            row.make(path);
            CapturedLog::Clear();
            {
                ContextDatabase database("x.db", kCreateTable);
                EXPECT_EQ(CapturedLog::Messages(), Join({NotRegular(path), ResetLines()}));
                ExpectFreshAndWorking(database);
            }
            fs::remove(kPath);
        }
    }
}

TEST_F(ContextDatabaseFileTest, StaysClosedWhenSpecialFileCannotBeRemoved) {
    for (const std::string& path : {kPath, kJournal}) {
        MakeFifo(path);
        {
            const ReadOnlyDataDirectory readOnly;
            CapturedLog::Clear();
            ContextDatabase database("x.db", kCreateTable);
            EXPECT_EQ(CapturedLog::Messages(), Join({NotRegular(path), ResetLines(), NotRegular(path)}));
            ExpectClosed(database);
        }
        EXPECT_TRUE(fs::is_fifo(path));
        fs::remove(path);
    }
}

TEST_F(ContextDatabaseFileTest, StaysClosedWhenJournalIsNonEmptyFolder) {
    MakeGoodFile();
    fs::create_directories(kJournal + "/content");
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Join({NotRegular(kJournal), ResetLines(), NotRegular(kJournal)}));
    ExpectClosed(database);
    EXPECT_TRUE(fs::exists(kJournal + "/content"));
}

TEST_F(ContextDatabaseFileTest, NeverBlocksOnFifo) {
    const struct {
        const char* suffix;
        const char* journalMode;
    } rows[] = {{"", "DELETE"},     {"-journal", "DELETE"}, {"-journal", "WAL"},
                {"-wal", "DELETE"}, {"-wal", "WAL"},        {"-shm", "WAL"}};
    for (const auto& row : rows) {
        const std::string fifo = kPath + row.suffix;
        if (fifo != kPath) {
            PlainConnection().Run(std::string("PRAGMA journal_mode = ") + row.journalMode);
            MakeGoodFile();
        }
        MakeFifo(fifo, /*mode=*/0444);
        SCOPED_TRACE(fifo + " in mode " + row.journalMode);
        CapturedLog::Clear();
        RunWithoutPrivilege(fifo, [&] {
            ContextDatabase database("x.db", kCreateTable);
            EXPECT_EQ(CapturedLog::Messages(), Join({NotRegular(fifo), ResetLines()}));
            ExpectFreshAndWorking(database);
        });
        for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
            fs::remove(kPath + suffix);
        }
    }
}

TEST_F(ContextDatabaseFileTest, LeavesLinkAtWalToSqlite) {
    MakeGoodFile();
    fs::create_symlink("/nowhere", kPath + "-wal");
    CapturedLog::Clear();
    ContextDatabase database("x.db", kCreateTable);
    EXPECT_EQ(CapturedLog::Messages(), Messages());
    EXPECT_TRUE(database.IsRunning());
}

TEST_F(ContextDatabaseFileTest, LeavesFifoAtWalOfEmptyFileToSqlite) {
    for (const bool isMissing : {true, false}) {
        fs::remove(kPath);
        if (!isMissing) {
            Surroundings::WriteFile(kPath, "");
        }
        MakeFifo(kPath + "-wal", /*mode=*/0444);
        RunWithoutPrivilege(kPath + "-wal", [&] {
            ContextDatabase database("x.db", kCreateTable);
            EXPECT_EQ(CapturedLog::Messages(), Messages());
            ExpectFreshAndWorking(database);
        });
        EXPECT_FALSE(fs::exists(kPath + "-wal"));
    }
}

// Links that appear during the opening

TEST_F(ContextDatabaseFileTest, DoesNotUseLinkThatAppearsDuringOpening) {
    const Surroundings::TemporaryFolder folder;
    MakeGoodFile(folder / "target.db");
    const std::string before = Surroundings::ReadFile(folder / "target.db");
    for (const char* target : {"target.db", "missing.db"}) {
        fs::remove(kPath);
        g_beforeOpen = [&] { fs::create_symlink(folder / target, kPath); };
        CapturedLog::Clear();
        ContextDatabase database("x.db", kCreateTable);
        EXPECT_EQ(CapturedLog::Messages(),
                  Join({{"E " + kPath + " is symbolic link file!", "E create db error!"}, ResetLines()}));
        ExpectFreshAndWorking(database);
        EXPECT_EQ(OpenDescriptors(), 1);
    }
    EXPECT_EQ(Surroundings::ReadFile(folder / "target.db"), before);
    EXPECT_EQ(Surroundings::ReadFile(folder / "missing.db"), "") << "nothing may be written to the target";
}

}  // namespace
