// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_FILE_UTIL_H
#define LUMORA_COMMON_CONTEXT_FILE_UTIL_H

#include "LumoraApi.h"

/// A test for symbolic links, a flush of all file systems, and a whole-file copy.
///
/// **Threads.** Static functions without state: any thread.
/// **Errors.** Nothing is logged or thrown. Sync() and Copy() do not report failures. No function needs memory of the
/// heap.
/// @ingroup base
class LUMORA_API ContextFileUtil {
public:
    ContextFileUtil() = delete;

    /// Returns whether the path itself is a symbolic link, dangling or not, whatever its times. A final link is not
    /// followed.
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
    /// Failures are not reported; compare the files to find out. What the destination then holds:
    /// - **The source cannot be opened**, because it is missing, unreadable or null: the destination is created or
    ///   emptied all the same.
    /// - **The kernel has no memory** to open the source: the destination is not touched.
    /// - **The destination cannot be opened**, or is null: it stays as it was.
    /// - **Reading or writing fails**, for example on a full disk: the bytes copied so far. A folder as source gives an
    ///   empty destination.
    /// - **Both are the same file**, by name or through a link: it is emptied.
    ///
    /// A signal does not interrupt the copy. Permissions and times are not copied, and nothing is synced to storage.
    static void Copy(const char* source, const char* destination);
};

#endif  // LUMORA_COMMON_CONTEXT_FILE_UTIL_H
