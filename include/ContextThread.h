// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_THREAD_H
#define LUMORA_COMMON_CONTEXT_THREAD_H

#include <glib.h>

#include <atomic>

#include "LumoraApi.h"

/// Base of a class that owns one worker thread whose body loops until it is told to stop.
///
/// A derived class supplies the body as OnThread(), which runs while IsRuning() is true and returns soon after it
/// turns false. A stopped object may be started again and then runs a fresh thread.
///
/// **Ownership.** The destructor neither stops nor joins the thread: the owner calls Stop() first.
/// **Threads.** Start() and Stop() belong to the owner's thread and do not race with each other; calling Stop() from
/// inside OnThread() is not allowed. IsRuning() may be called from any thread.
/// **Errors.** Reported by return value and logged. A system that cannot create a thread aborts inside GLib.
/// @ingroup threads
class LUMORA_API ContextThread {
public:
    ContextThread();
    virtual ~ContextThread();

    ContextThread(const ContextThread&) = delete;
    ContextThread& operator=(const ContextThread&) = delete;

    /// The body, run once on the new thread for every Start(). It must not throw: GLib called the thread's entry.
    virtual void OnThread() = 0;

    /// Starts the worker.
    /// @return true when it runs; false when it ran already, which logs the error "Already Started", or could not be
    ///         created.
    bool Start();

    /// Asks the worker to stop and blocks until OnThread() has returned.
    /// @return true when it has stopped; false when it did not run, which logs the error "Already Stopped".
    bool Stop();

    /// Tells the body whether to go on. Takes no lock.
    /// @return true from a successful Start() until Stop().
    bool IsRuning() const { return m_bRunning; }

    /// The entry that GLib calls on the new thread.
    /// @param self  the ContextThread.
    /// @return null.
    static void* _Thread(void* self);

protected:
    GThread* m_pThread;            ///< null while no thread exists
    std::atomic<bool> m_bRunning;  ///< written by the owner, read by the worker
};

#endif  // LUMORA_COMMON_CONTEXT_THREAD_H
