// SPDX-License-Identifier: Apache-2.0
#include "ContextFileUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace {

constexpr std::size_t kBufferSize = 8192;  ///< on the stack, so that copying needs no memory of the heap

/// Repeats a system call that a signal interrupts.
template <class Call>
auto Retry(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

/// A file, closed at the end of its scope.
class File {
public:
    /// @param path  null counts as a path that cannot be opened.
    File(const char* path, int flags) : m_descriptor(Open(path, flags)) {}
    ~File() {
        if (IsOpen()) {
            close(m_descriptor);
        }
    }

    File(const File&) = delete;
    File& operator=(const File&) = delete;

    bool IsOpen() const { return m_descriptor >= 0; }

    /// @return the number of bytes read; 0 at the end of the file, -1 on failure.
    ssize_t Read(char* buffer, std::size_t size) const {
        return Retry([&] { return read(m_descriptor, buffer, size); });
    }

    /// @return false when not all bytes could be written.
    bool Write(const char* bytes, std::size_t size) const {
        while (size > 0) {
            const ssize_t count = Retry([&] { return write(m_descriptor, bytes, size); });
            if (count <= 0) {
                return false;
            }
            bytes += count;
            size -= static_cast<std::size_t>(count);
        }
        return true;
    }

private:
    static int Open(const char* path, int flags) {
        if (path == nullptr) {
            errno = EFAULT;
            return -1;
        }
        constexpr mode_t kNewFileMode = 0666;  // as a file stream creates it; reduced by the umask
        return Retry([&] { return open(path, flags | O_CLOEXEC, kNewFileMode); });
    }

    int m_descriptor;
};

}  // namespace

bool ContextFileUtil::IsSymbolicLink(const char* path) {
    if (path == nullptr) {
        errno = EFAULT;  // the kernel's answer; the C library declares the argument non-null
        return false;
    }
    struct stat status {};
    if (lstat(path, &status) == 0) {
        return S_ISLNK(status.st_mode);
    }
    // With a 32-bit time_t, lstat() fails for times after 2038, which anyone can give to a link.
    char first = '\0';
    return errno == EOVERFLOW && readlink(path, &first, sizeof(first)) >= 0;
}

void ContextFileUtil::Sync() {
    sync();
}

void ContextFileUtil::Copy(const char* source, const char* destination) {
    const File input(source, O_RDONLY);
    if (!input.IsOpen() && errno == ENOMEM) {
        return;  // an empty destination would mean that there is no source
    }
    const File output(destination, O_WRONLY | O_CREAT | O_TRUNC);
    if (!input.IsOpen() || !output.IsOpen()) {
        return;
    }
    char buffer[kBufferSize];
    ssize_t count = input.Read(buffer, sizeof(buffer));
    while (count > 0 && output.Write(buffer, static_cast<std::size_t>(count))) {
        count = input.Read(buffer, sizeof(buffer));
    }
}
