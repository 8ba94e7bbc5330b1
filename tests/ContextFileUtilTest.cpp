// SPDX-License-Identifier: Apache-2.0
#include "ContextFileUtil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "FailingMemory.h"
#include "NextFunction.h"
#include "Surroundings.h"

namespace {

int g_syncs = 0;

/// The error numbers that the next calls of open64() fail with; 0 lets one succeed, and so does an empty list.
std::vector<int> g_openErrors;

std::vector<int> g_openFlags;  ///< of every open64()

/// The results of the next calls of read() and write(): -1 fails with EINTR, and another number limits the bytes that
/// the call transfers. Without an entry, a call transfers everything.
std::vector<ssize_t> g_transfers;

/// @return the number of bytes that a call may transfer, or -1 when it must fail.
ssize_t TakeTransfer(std::size_t size) {
    if (g_transfers.empty()) {
        return static_cast<ssize_t>(size);
    }
    const ssize_t most = g_transfers.front();
    g_transfers.erase(g_transfers.begin());
    if (most < 0) {
        errno = EINTR;
    }
    return std::min(most, static_cast<ssize_t>(size));
}

}  // namespace

// Replace the C library's functions, for the library too.
extern "C" int open64(const char* path, int flags, ...) {
    static const auto original = NextFunction<int(const char*, int, ...)>("open64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    {
        const FailingMemory::Pause pause;
        g_openFlags.push_back(flags);
    }
    if (!g_openErrors.empty()) {
        const int error = g_openErrors.front();
        g_openErrors.erase(g_openErrors.begin());
        if (error != 0) {
            errno = error;
            return -1;
        }
    }
    return original(path, flags, mode);
}

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size) {
    static const auto original = NextFunction<ssize_t(int, void*, std::size_t)>("read");
    const ssize_t most = TakeTransfer(size);
    return most < 0 ? -1 : original(descriptor, buffer, static_cast<std::size_t>(most));
}

extern "C" ssize_t write(int descriptor, const void* bytes, std::size_t size) {
    static const auto original = NextFunction<ssize_t(int, const void*, std::size_t)>("write");
    const ssize_t most = TakeTransfer(size);
    return most < 0 ? -1 : original(descriptor, bytes, static_cast<std::size_t>(most));
}

extern "C" void sync() noexcept {
    ++g_syncs;
}

namespace {

namespace fs = std::filesystem;
using Surroundings::ReadFile;
using Surroundings::WriteFile;

/// Expects after every test that nothing was logged: the tested functions never log.
class ContextFileUtilTest : public ::testing::Test {
protected:
    void SetUp() override {
        CapturedLog::Clear();
        g_openFlags.reserve(16);  // so that recording a call needs no memory
    }
    void TearDown() override { EXPECT_TRUE(CapturedLog::Lines().empty()); }

    static bool IsSymbolicLink(const std::string& path) { return ContextFileUtil::IsSymbolicLink(path.c_str()); }
    static void Copy(const std::string& source, const std::string& destination) {
        ContextFileUtil::Copy(source.c_str(), destination.c_str());
    }

    Surroundings::TemporaryFolder m_folder;
    const std::string m_source = m_folder / "source";
    const std::string m_destination = m_folder / "destination";
};

TEST_F(ContextFileUtilTest, RecognisesSymbolicLinksToAnyTarget) {
    WriteFile(m_folder / "file", "content");
    fs::create_symlink("file", m_folder / "to-file");
    fs::create_symlink(".", m_folder / "to-folder");
    fs::create_symlink("missing", m_folder / "dangling");
    fs::create_symlink("to-file", m_folder / "to-link");
    fs::create_symlink("to-itself", m_folder / "to-itself");
    for (const char* name : {"to-file", "to-folder", "dangling", "to-link", "to-itself", "to-folder/to-file"}) {
        EXPECT_TRUE(IsSymbolicLink(m_folder / name)) << name;
    }
}

TEST_F(ContextFileUtilTest, RecognisesALinkFromTheYear2050) {
    const std::string link = m_folder / "link";
    fs::create_symlink("missing", link);
    ASSERT_EQ(std::system(("touch -h -d @2524608000 " + link).c_str()), 0);
    EXPECT_TRUE(IsSymbolicLink(link));
}

TEST_F(ContextFileUtilTest, TreatsAFileFromTheYear2050AsNoLink) {
    const std::string file = m_folder / "file";
    WriteFile(file, "content");
    ASSERT_EQ(std::system(("touch -d @2524608000 " + file).c_str()), 0);
    EXPECT_FALSE(IsSymbolicLink(file));
}

TEST_F(ContextFileUtilTest, TreatsNoOtherFileAsASymbolicLink) {
    const std::string pipe = m_folder / "pipe";
    WriteFile(m_folder / "file", "content");
    fs::create_directory(m_folder / "folder");
    fs::create_hard_link(m_folder / "file", m_folder / "hard-link");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const char* name : {"file", "folder", "hard-link", "pipe", "", ".", ".."}) {
        EXPECT_FALSE(IsSymbolicLink(m_folder / name)) << '"' << name << '"';
    }
    EXPECT_FALSE(IsSymbolicLink("/dev/null"));
}

TEST_F(ContextFileUtilTest, TreatsNoSocketAsASymbolicLink) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = m_folder / "socket";
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    path.copy(address.sun_path, path.size());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0)
        << std::strerror(errno);
    EXPECT_FALSE(IsSymbolicLink(path));
    close(descriptor);
}

TEST_F(ContextFileUtilTest, FollowsLinksExceptInTheLastPathComponent) {
    fs::create_directory(m_folder / "folder");
    WriteFile(m_folder / "folder/file", "content");
    fs::create_symlink("folder", m_folder / "link");
    EXPECT_TRUE(IsSymbolicLink(m_folder / "link"));
    EXPECT_FALSE(IsSymbolicLink(m_folder / "link/"));
    EXPECT_FALSE(IsSymbolicLink(m_folder / "link/file"));
}

TEST_F(ContextFileUtilTest, TreatsUnreadablePathAsNoLink) {
    WriteFile(m_folder / "file", "content");
    fs::create_symlink("loop", m_folder / "loop");
    const struct {
        const char* name;
        std::string path;
        int error;
    } rows[] = {
        {"missing", m_folder / "missing", ENOENT},
        {"empty", "", ENOENT},
        {"below a file", m_folder / "file/below", ENOTDIR},
        {"below a loop", m_folder / "loop/below", ELOOP},
        {"name too long", m_folder / std::string(NAME_MAX + 1, 'x'), ENAMETOOLONG},
        {"path too long", std::string(PATH_MAX, '/'), ENAMETOOLONG},
    };
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_FALSE(IsSymbolicLink(row.path)) << row.name;
        EXPECT_EQ(errno, row.error) << row.name;
    }
    errno = 0;
    EXPECT_FALSE(ContextFileUtil::IsSymbolicLink(nullptr));
    EXPECT_EQ(errno, EFAULT);
}

TEST_F(ContextFileUtilTest, PreservesTheErrorNumberOfAReadablePath) {
    fs::create_symlink("missing", m_folder / "link");
    errno = EDOM;
    EXPECT_TRUE(IsSymbolicLink(m_folder / "link"));
    EXPECT_FALSE(IsSymbolicLink("/"));
    EXPECT_EQ(errno, EDOM);
}

TEST_F(ContextFileUtilTest, SyncsAllFileSystemsOnce) {
    g_syncs = 0;
    ContextFileUtil::Sync();
    EXPECT_EQ(g_syncs, 1);
}

TEST_F(ContextFileUtilTest, CopyDoesNotSync) {
    WriteFile(m_source, "content");
    g_syncs = 0;
    Copy(m_source, m_destination);
    EXPECT_EQ(g_syncs, 0);
}

TEST_F(ContextFileUtilTest, CopiesEveryByteOfAFile) {
    std::string bytes;
    for (int i = 0; i < 3 * 1000 * 1000; ++i) {
        bytes += static_cast<char>(i % 251 * (i % 7));
    }
    const struct {
        const char* name;
        std::string content;
    } rows[] = {
        {"text", "content"},
        {"empty", ""},
        {"one byte", "x"},
        {"every kind of line end", "a\r\nb\nc\rd\n\r"},
        {"end-of-file and zero bytes", std::string("\x1a\0\x04\xff", 4)},
        {"many full buffers", bytes},
    };
    for (const auto& row : rows) {
        WriteFile(m_source, row.content);
        fs::remove(m_destination);
        Copy(m_source, m_destination);
        EXPECT_TRUE(fs::exists(m_destination)) << row.name;
        EXPECT_TRUE(ReadFile(m_destination) == row.content) << row.name;
        EXPECT_TRUE(ReadFile(m_source) == row.content) << row.name;
    }
}

TEST_F(ContextFileUtilTest, TruncatesALongerDestination) {
    for (const char* content : {"short", ""}) {
        WriteFile(m_source, content);
        WriteFile(m_destination, "longer content");
        Copy(m_source, m_destination);
        EXPECT_EQ(ReadFile(m_destination), content);
    }
}

TEST_F(ContextFileUtilTest, TruncatesTheDestinationWhenTheSourceIsMissing) {
    WriteFile(m_destination, "content");
    Copy(m_source, m_destination);
    EXPECT_TRUE(fs::exists(m_destination));
    EXPECT_EQ(ReadFile(m_destination), "");
    EXPECT_FALSE(fs::exists(m_source));
}

TEST_F(ContextFileUtilTest, CreatesAnEmptyDestinationWhenSourceIsMissing) {
    Copy(m_source, m_destination);
    EXPECT_TRUE(fs::is_regular_file(m_destination));
    EXPECT_EQ(fs::file_size(m_destination), 0U);
}

TEST_F(ContextFileUtilTest, TruncatesTheDestinationWhenTheSourceIsAFolder) {
    WriteFile(m_destination, "content");
    EXPECT_NO_THROW(Copy(m_folder.Path(), m_destination));
    EXPECT_TRUE(fs::exists(m_destination));
    EXPECT_EQ(ReadFile(m_destination), "");
}

TEST_F(ContextFileUtilTest, IgnoresADestinationThatCannotBeOpened) {
    WriteFile(m_source, "content");
    EXPECT_NO_THROW(Copy(m_source, m_folder / "missing/destination"));
    EXPECT_FALSE(fs::exists(m_folder / "missing"));
    EXPECT_NO_THROW(Copy(m_source, m_folder.Path()));
    EXPECT_TRUE(fs::is_directory(m_folder.Path()));
    EXPECT_NO_THROW(Copy(m_source, ""));
    EXPECT_EQ(ReadFile(m_source), "content");
}

TEST_F(ContextFileUtilTest, CreatesNothingWhenNeitherFileCanBeOpened) {
    EXPECT_NO_THROW(Copy(m_source, m_folder / "missing/destination"));
    EXPECT_TRUE(fs::is_empty(m_folder.Path()));
}

TEST_F(ContextFileUtilTest, LeavesAPipeFullWithoutADestination) {
    ASSERT_EQ(mkfifo(m_source.c_str(), 0600), 0);
    const int pipe = open(m_source.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_EQ(write(pipe, "content", 7), 7);
    Copy(m_source, m_folder / "missing/destination");
    char kept[8] = {};
    EXPECT_EQ(read(pipe, kept, sizeof(kept)), 7);
    EXPECT_STREQ(kept, "content");
    close(pipe);
}

TEST_F(ContextFileUtilTest, IgnoresADestinationThatRejectsWrites) {
    ASSERT_TRUE(fs::is_character_file("/dev/full")) << "this system has no /dev/full";
    WriteFile(m_source, std::string(100000, 'x'));
    EXPECT_NO_THROW(Copy(m_source, "/dev/full"));
}

TEST_F(ContextFileUtilTest, TreatsANullPathAsAFileThatCannotBeOpened) {
    WriteFile(m_source, "content");
    WriteFile(m_destination, "content");
    EXPECT_NO_THROW(ContextFileUtil::Copy(m_source.c_str(), nullptr));
    EXPECT_EQ(ReadFile(m_source), "content");
    EXPECT_NO_THROW(ContextFileUtil::Copy(nullptr, m_destination.c_str()));
    EXPECT_TRUE(fs::exists(m_destination));
    EXPECT_EQ(ReadFile(m_destination), "");
    EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
    EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFD), -1);
}

TEST_F(ContextFileUtilTest, TruncatesAFileThatIsCopiedOntoItself) {
    WriteFile(m_source, "content");
    Copy(m_source, m_source);
    EXPECT_TRUE(fs::exists(m_source));
    EXPECT_EQ(ReadFile(m_source), "");
}

TEST_F(ContextFileUtilTest, CopiesWithoutMemory) {
    const std::string content(100000, 'x');
    WriteFile(m_source, content);
    {
        const FailingMemory::Scope noMemory;
        ContextFileUtil::Copy(m_source.c_str(), m_destination.c_str());
        EXPECT_FALSE(FailingMemory::Scope::HasFailed());
    }
    EXPECT_TRUE(ReadFile(m_destination) == content);
}

TEST_F(ContextFileUtilTest, KeepsTheDestinationWithoutKernelMemory) {
    WriteFile(m_source, "content");
    WriteFile(m_destination, "old");
    g_openErrors = {ENOMEM};
    Copy(m_source, m_destination);
    EXPECT_TRUE(g_openErrors.empty());
    EXPECT_EQ(ReadFile(m_destination), "old");
    g_openErrors = {EACCES};
    Copy(m_source, m_destination);
    EXPECT_EQ(ReadFile(m_destination), "");
}

TEST_F(ContextFileUtilTest, CopiesOnWhenSignalsInterruptIt) {
    WriteFile(m_source, "content");
    g_openErrors = {EINTR, EINTR, 0, EINTR};
    g_transfers = {-1, -1, 7, -1, 2, -1, 1};  // one read(), then write() in pieces
    Copy(m_source, m_destination);
    EXPECT_TRUE(g_openErrors.empty());
    EXPECT_TRUE(g_transfers.empty());
    EXPECT_EQ(ReadFile(m_destination), "content");
}

TEST_F(ContextFileUtilTest, StopsAtAWriteOfNoBytes) {
    WriteFile(m_source, std::string(100000, 'x'));
    g_transfers = {7, 2, 0};
    Copy(m_source, m_destination);
    EXPECT_EQ(ReadFile(m_destination), "xx");
}

TEST_F(ContextFileUtilTest, CopiesAfterAnEarlierLackOfMemory) {
    WriteFile(m_source, "content");
    errno = ENOMEM;
    Copy(m_source, m_destination);
    EXPECT_EQ(ReadFile(m_destination), "content");
    errno = ENOMEM;
    ContextFileUtil::Copy(nullptr, m_destination.c_str());
    EXPECT_EQ(ReadFile(m_destination), "");
}

TEST_F(ContextFileUtilTest, CopiesWhenStandardInputIsClosed) {
    WriteFile(m_source, "content");
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    Copy(m_source, m_destination);
    dup2(input, STDIN_FILENO);
    close(input);
    EXPECT_EQ(ReadFile(m_destination), "content");
}

TEST_F(ContextFileUtilTest, OpensTheFilesForTheCopyAlone) {
    WriteFile(m_source, "content");
    g_openFlags.clear();
    Copy(m_source, m_destination);
    ASSERT_EQ(g_openFlags.size(), 2U);
    EXPECT_EQ(g_openFlags[0], O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(g_openFlags[1] & (O_ACCMODE | O_CLOEXEC), O_WRONLY | O_CLOEXEC);
}

TEST_F(ContextFileUtilTest, KeepsTheBeginningWhenTheDiskIsFull) {
    WriteFile(m_source, std::string(100000, 'x'));
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit limit = before;
    limit.rlim_cur = 10001;
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    Copy(m_source, m_destination);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(ReadFile(m_destination), std::string(10001, 'x'));
}

TEST_F(ContextFileUtilTest, LeavesNoDescriptorOpen) {
    const auto count = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()); };
    WriteFile(m_source, "content");
    const auto before = count();
    Copy(m_source, m_destination);
    Copy(m_source, m_folder / "missing/destination");
    Copy(m_folder / "missing", m_destination);
    Copy(m_folder.Path(), m_destination);
    Copy(m_source, m_source);
    Copy(m_source, "/dev/full");
    EXPECT_EQ(count(), before);
}

TEST_F(ContextFileUtilTest, FollowsLinksAtSourceAndDestination) {
    WriteFile(m_source, "content");
    fs::create_symlink("source", m_folder / "to-source");
    fs::create_symlink("destination", m_folder / "to-destination");
    Copy(m_folder / "to-source", m_folder / "to-destination");
    EXPECT_EQ(ReadFile(m_destination), "content");
    EXPECT_TRUE(fs::is_symlink(m_folder / "to-destination"));
}

TEST_F(ContextFileUtilTest, DoesNotCopyPermissions) {
    struct stat status {};
    WriteFile(m_source, "content");
    ASSERT_EQ(chmod(m_source.c_str(), 0711), 0);
    const mode_t mask = umask(002);
    Copy(m_source, m_destination);
    umask(mask);
    ASSERT_EQ(stat(m_destination.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0664U);

    ASSERT_EQ(chmod(m_destination.c_str(), 0600), 0);
    Copy(m_source, m_destination);
    ASSERT_EQ(stat(m_destination.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(ContextFileUtilTest, DoesNotCopyTimes) {
    struct stat status {};
    const timespec longAgo[] = {{1000000000, 0}, {1000000000, 0}};
    WriteFile(m_source, "content");
    ASSERT_EQ(utimensat(AT_FDCWD, m_source.c_str(), longAgo, /*flags=*/0), 0);
    Copy(m_source, m_destination);
    ASSERT_EQ(stat(m_destination.c_str(), &status), 0);
    EXPECT_GT(status.st_mtim.tv_sec, 1000000000);
    EXPECT_GT(status.st_atim.tv_sec, 1000000000);
}

TEST_F(ContextFileUtilTest, CopiesALastPieceOfOneByte) {
    WriteFile(m_source, "x");
    Copy(m_source, m_destination);
    EXPECT_EQ(ReadFile(m_destination), "x");

    WriteFile(m_source, "abc");
    g_transfers = {3, 2};  // the read takes all, the first write all but one byte
    Copy(m_source, m_destination);
    EXPECT_EQ(ReadFile(m_destination), "abc");
}

TEST_F(ContextFileUtilTest, LeavesTheStandardStreamsOpenForANullPath) {
    const auto isOpen = [](int descriptor) { return fcntl(descriptor, F_GETFD) != -1; };
    const bool inputWasOpen = isOpen(STDIN_FILENO);
    const bool outputWasOpen = isOpen(STDOUT_FILENO);
    ASSERT_TRUE(inputWasOpen || outputWasOpen);
    ContextFileUtil::Copy(nullptr, m_destination.c_str());
    ContextFileUtil::Copy(m_destination.c_str(), nullptr);
    EXPECT_EQ(isOpen(STDIN_FILENO), inputWasOpen);
    EXPECT_EQ(isOpen(STDOUT_FILENO), outputWasOpen);
}

}  // namespace
