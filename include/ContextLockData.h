// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_LOCK_DATA_H
#define LUMORA_COMMON_CONTEXT_LOCK_DATA_H

#include <glib.h>

#include "LumoraApi.h"

/// A string that several threads may set, read and clear.
///
/// The object holds either nothing or a string of at least one character; it cannot hold an empty string.
///
/// **Ownership.** Strings are copied in and out. The caller owns the copy that GetData() returns and releases it with
/// `free`.
/// **Threads.** All operations except construction and destruction may be called from any thread at any time. Each
/// holds the object's mutex for its whole body.
/// **Errors.** SetData() logs a rejected argument. Without memory SetData() leaves the object empty and GetData()
/// returns null; neither logs it. The other operations need no memory, and none throws. The object stays usable.
/// @ingroup base
class LUMORA_API ContextLockData {
public:
    /// Creates an object that holds nothing.
    ContextLockData();

    /// Releases the held string.
    ~ContextLockData();

    ContextLockData(const ContextLockData&) = delete;
    ContextLockData& operator=(const ContextLockData&) = delete;

    /// Replaces the held string with a copy of `str`.
    ///
    /// A null or empty `str` is rejected and logs the error "ContextLockData --> SetData Error". The old string is
    /// released before the argument is checked, so a rejected argument empties the object. So does a copy that fails
    /// for want of memory; IsEmpty() tells, unless another thread sets the string meanwhile.
    void SetData(const char* str);

    /// Copies the held string.
    /// @return a copy that the caller releases with `free`; null when nothing is held or no memory is left.
    char* GetData();

    /// Releases the held string; does nothing when there is none.
    void ResetData();

    /// Returns whether the object holds no string.
    bool IsEmpty();

private:
    void Free_();

    char* m_pszData;  ///< guarded by m_mutex; null or a string of at least one character
    GMutex m_mutex;
};

#endif  // LUMORA_COMMON_CONTEXT_LOCK_DATA_H
