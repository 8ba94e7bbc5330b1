// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_FILE_UTIL_H
#define LUMORA_COMMON_CONTEXT_FILE_UTIL_H

#include "LumoraApi.h"

/// A test for symbolic links, a flush of all file systems, and a whole-file copy.
///
/// **Threads.** Static functions without state: any thread.
/// **Errors.** Nothing is logged. Sync() and Copy() do not report failures.
/// @ingroup base
class LUMORA_API ContextFileUtil {
public:
    ContextFileUtil() = delete;

    /// Returns whether the path itself is a symbolic link, dangling or not. A final link is not followed.
    ///
    /// The answer may be out of date by the time you open the path. If someone else can write to the directory, open
    /// with `O_NOFOLLOW` instead of testing first.
    /// @return false also when the status of the path cannot be read (null, empty, missing, no permission); `errno` is
    ///         then as `lstat(2)` sets it.
    static bool IsSymbolicLink(const char* path);

    /// Asks the kernel to write all buffered file-system data to storage.
    static void Sync();

    /// Copies the bytes of one file into another, which is created or emptied first.
    ///
    /// Failures are not reported. The destination is opened even when the source cannot be opened, so a missing source
    /// leaves an empty destination. Copying a file onto itself empties it. A null path counts as one that cannot be
    /// opened. Permissions and times are not copied.
    static void Copy(const char* source, const char* destination);
};

#endif  // LUMORA_COMMON_CONTEXT_FILE_UTIL_H
