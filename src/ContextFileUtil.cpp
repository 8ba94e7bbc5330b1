// SPDX-License-Identifier: Apache-2.0
#include "ContextFileUtil.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

bool ContextFileUtil::IsSymbolicLink(const char* path) {
    if (path == nullptr) {
        errno = EFAULT;  // the kernel's answer; the C library declares the argument non-null
        return false;
    }
    struct stat status {};
    return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

void ContextFileUtil::Sync() {
    sync();
}

void ContextFileUtil::Copy(const char* source, const char* destination) {
    std::ifstream input;
    if (source != nullptr) {
        input.open(source, std::ios::binary);
    }
    std::ofstream output;
    if (destination != nullptr) {
        output.open(destination, std::ios::binary);
    }
    output << input.rdbuf();
}
