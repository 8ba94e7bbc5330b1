// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_AUTO_LOCK_H
#define LUMORA_COMMON_CONTEXT_AUTO_LOCK_H

#include <glib.h>

#include "LumoraApi.h"

/// Holds a GLib mutex for one scope. The library takes every lock through this class.
///
/// The lock lasts exactly as long as this object, which belongs on the stack of the guarded method. It cannot be
/// released early, taken again or moved.
///
/// **Ownership.** The caller owns the mutex, which must outlive the lock.
/// **Threads.** Any. A `GMutex` is not recursive: a thread that locks a mutex it already holds blocks for ever.
/// **Errors.** None. The pointer is not checked. Locking needs no memory: on Linux a `GMutex` is a futex. Where GLib
/// has to allocate a mutex, it aborts the process when memory runs out.
/// @ingroup base
class LUMORA_API ContextAutoLock {
public:
    /// Locks the mutex; blocks until it is free.
    /// @param mutex  a mutex that is initialised, or static and zeroed; not null.
    explicit ContextAutoLock(GMutex* mutex) : m_pMutex(mutex) { g_mutex_lock(m_pMutex); }

    /// Unlocks the mutex.
    ~ContextAutoLock() { g_mutex_unlock(m_pMutex); }

    ContextAutoLock(const ContextAutoLock&) = delete;
    ContextAutoLock& operator=(const ContextAutoLock&) = delete;

private:
    GMutex* m_pMutex;
};

#endif  // LUMORA_COMMON_CONTEXT_AUTO_LOCK_H
