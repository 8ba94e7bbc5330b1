// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_FILE_UTIL_H
#define LUMORA_COMMON_CONTEXT_FILE_UTIL_H

#include "LumoraApi.h"

/// A test for symbolic links, a flush of the file systems, and a whole-file copy.
///
/// **Threads.** Static functions without state: any thread.
/// **Errors.** None of them logs; what is not returned is not reported.
/// @ingroup base
class LUMORA_API ContextFileUtil {
public:
    ContextFileUtil() = delete;

    /// Tells whether the path itself, not what it points to, is a symbolic link; a dangling one is.
    /// @return false also when the status of the path cannot be read (null, empty, missing, no permission); `errno`
    ///         is then as the status call set it.
    static bool IsSymbolicLink(const char* path);

    /// Asks the kernel to write everything it buffers for any file system to storage.
    static void Sync();

    /// Copies the bytes of one file into another, which is created or emptied first.
    ///
    /// Reports nothing. The destination is opened even when the source cannot be: a missing source leaves an empty
    /// destination behind. A null path is one that cannot be opened. Permissions and times are not carried over.
    static void Copy(const char* source, const char* destination);
};

#endif  // LUMORA_COMMON_CONTEXT_FILE_UTIL_H
