// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_THREAD_H
#define LUMORA_COMMON_CONTEXT_THREAD_H

#include <glib.h>

#include <atomic>

#include "LumoraApi.h"

/// Base class with one worker thread, whose body loops until it is told to stop.
///
/// A derived class implements the body as OnThread(), which loops while IsRuning() is true and returns soon after it
/// becomes false. A stopped object may be started again and then runs a new thread.
///
/// **Ownership.** The destructor neither stops nor joins the thread. Call Stop() first, at the latest in the destructor
/// of the class that implements OnThread().
/// **Threads.** Start() and Stop() belong to the owner's thread and must not run at the same time. OnThread() must not
/// call Stop(). IsRuning() may be called from any thread.
/// **Errors.** Reported by return value and logged. The class allocates nothing itself. When GLib gets no memory or no
/// thread from the system, it aborts the process: `g_thread_new` never returns null.
/// @ingroup threads
class LUMORA_API ContextThread {
public:
    ContextThread();
    virtual ~ContextThread();

    ContextThread(const ContextThread&) = delete;
    ContextThread& operator=(const ContextThread&) = delete;

    /// The body, run once on the new thread for every Start(). It must not throw, because GLib's C code calls it.
    virtual void OnThread() = 0;

    /// Starts the worker.
    /// @return true when it was started; false when it was running already, which logs the error "Already Started".
    bool Start();

    /// Asks the worker to stop and blocks until OnThread() has returned.
    /// @return true when it has stopped; false when it was not running, which logs the error "Already Stopped".
    bool Stop();

    /// Returns whether the body should continue. Takes no lock.
    /// @return true from a successful Start() until Stop().
    bool IsRuning() const { return m_bRunning; }

    /// The entry that GLib calls on the new thread.
    /// @param self  the ContextThread.
    /// @return null.
    static void* _Thread(void* self);

protected:
    GThread* m_pThread;            ///< null before Start() and after Stop()
    std::atomic<bool> m_bRunning;  ///< written by the owner, read by the worker
};

#endif  // LUMORA_COMMON_CONTEXT_THREAD_H
