// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_LOCK_DATA_H
#define LUMORA_COMMON_CONTEXT_LOCK_DATA_H

#include <glib.h>

#include "LumoraApi.h"

/// A string that several threads set, read and clear.
///
/// It holds either nothing or a string of at least one character; an empty string cannot be stored.
///
/// **Ownership.** Texts are copied in and copied out; a copy that GetData() hands out belongs to the caller, who
/// releases it with `free`.
/// **Threads.** Every operation may be called from any thread at any time, the constructor and the destructor
/// excepted. Each holds the object's own mutex for its whole body.
/// **Errors.** SetData() logs a rejected argument. Running out of memory leaves the object empty, or GetData()
/// without a copy, and is not logged.
/// @ingroup base
class LUMORA_API ContextLockData {
public:
    /// Holds nothing.
    ContextLockData();

    /// Releases the held string.
    ~ContextLockData();

    ContextLockData(const ContextLockData&) = delete;
    ContextLockData& operator=(const ContextLockData&) = delete;

    /// Replaces the held string by a copy of `str`.
    ///
    /// What was held is gone in every case: the old value is released before the argument is looked at, so a
    /// rejected argument empties the object. Logs the error "ContextLockData --> SetData Error" when `str` is
    /// null or empty.
    void SetData(const char* str);

    /// Copies the held string.
    /// @return a copy that the caller releases with `free`, or null when nothing is held (or
    ///         no memory is left for a copy).
    char* GetData();

    /// Releases the held string; does nothing when there is none.
    void ResetData();

    /// Tells whether no string is held.
    bool IsEmpty();

private:
    void Free_();

    char* m_pszData;  ///< guarded by m_mutex; null or a string of at least one character
    GMutex m_mutex;
};

#endif  // LUMORA_COMMON_CONTEXT_LOCK_DATA_H
