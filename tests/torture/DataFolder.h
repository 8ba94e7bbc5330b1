// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TORTURE_DATA_FOLDER_H
#define LUMORA_COMMON_TESTS_TORTURE_DATA_FOLDER_H

#include <sys/mount.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "ContextDatabase.h"
#include "Surroundings.h"

/// The library's data directory, which a torture program has for itself: scripts/with-data-directory runs it.
namespace DataFolder {

inline std::string Path(const std::string& name = "") {
    return ContextDatabase::kDataDirectory + name;
}

/// Mounts an empty file system in memory over a folder: no write waits for a disk.
/// @param options  of tmpfs, such as "size=64k".
inline void MountMemory(const std::string& folder = Path(), const std::string& options = "") {
    if (mount("none", folder.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        throw std::runtime_error("cannot mount " + folder + ": " + std::strerror(errno));
    }
}

/// Call it first. The folder is in memory from then on.
/// @throws std::runtime_error when the program does not run in a mount namespace of its own.
inline void Prepare() {
    if (Surroundings::DataDirectory() != ContextDatabase::kDataDirectory) {
        throw std::runtime_error("scripts/with-data-directory mounts another directory than the library uses");
    }
    MountMemory();
}

constexpr std::uintmax_t kAmpleKibibytes = 1U << 20;

/// Changes the size of the mounted file system.
inline void Resize(std::uintmax_t kibibytes) {
    const std::string options = "size=" + std::to_string(kibibytes) + "k";
    if (mount("none", Path().c_str(), "tmpfs", MS_REMOUNT, options.c_str()) != 0) {
        throw std::runtime_error(std::string("cannot change the size of the file system: ") + std::strerror(errno));
    }
}

inline void Empty() {
    for (const auto& entry : std::filesystem::directory_iterator(Path())) {
        std::filesystem::remove_all(entry.path());
    }
}

}  // namespace DataFolder

#endif  // LUMORA_COMMON_TESTS_TORTURE_DATA_FOLDER_H
