// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_AUTO_LOCK_H
#define LUMORA_COMMON_CONTEXT_AUTO_LOCK_H

#include <glib.h>

#include "LumoraApi.h"

/// Holds a GLib mutex for one scope; the library's only way to lock.
///
/// The lock cannot be released early, taken again or handed on: it lives exactly as long as the object, which
/// stands on the stack of the method that it guards.
///
/// **Ownership.** The mutex stays the caller's and must outlive the lock.
/// **Threads.** Any. A GMutex is not recursive: taking one that the same thread already holds blocks for ever.
/// **Errors.** None. The pointer is not checked: it must be that of a valid mutex.
/// @ingroup base
class LUMORA_API ContextAutoLock {
public:
    /// Locks the mutex; blocks until it is free.
    /// @param mutex  an initialised (or static, zeroed) mutex, not null.
    explicit ContextAutoLock(GMutex* mutex) : m_pMutex(mutex) { g_mutex_lock(m_pMutex); }

    /// Unlocks the mutex.
    ~ContextAutoLock() { g_mutex_unlock(m_pMutex); }

    ContextAutoLock(const ContextAutoLock&) = delete;
    ContextAutoLock& operator=(const ContextAutoLock&) = delete;

private:
    GMutex* m_pMutex;
};

#endif  // LUMORA_COMMON_CONTEXT_AUTO_LOCK_H
