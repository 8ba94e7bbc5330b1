// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_EVENT_THREAD_H
#define LUMORA_COMMON_CONTEXT_EVENT_THREAD_H

#include <glib.h>

#include <atomic>

#include "LumoraApi.h"

/// One queued event.
/// @ingroup threads
struct TEventMessage {
    int nEventId;   ///< passed to OnEvent(); -1 in the internal stop message
    void* pData;    ///< passed to OnEvent(); the queue never frees it
    bool bStop;     ///< true in the internal stop message only
    bool bStatic;   ///< true when the message belongs to the caller, who must keep it until it is served
    int nPriority;  ///< the lower value is served first
};

/// Base of a worker that serves a priority queue of events on one thread of its own.
///
/// Any thread pushes events; the worker hands them to OnEvent() one at a time: the smallest priority value first and,
/// among equal ones, the event that was pushed first.
///
/// **Ownership.** The worker frees the message of PushEvent() after serving it; the message of PushStaticEvent() stays
/// the caller's and must live until OnEvent() has been called for it. What `pData` points to is never freed here. The
/// destructor does not stop the worker, and frees no message that is still queued: the owner calls Stop() first.
/// **Threads.** PushEvent(), PushStaticEvent() and IsRuning() may be called from any thread, from OnEvent() too.
/// Start() and Stop() belong to the owner's thread. OnEvent() runs on the worker only.
/// **Errors.** Reported by return value and logged. A system that cannot create a thread aborts inside GLib.
/// @ingroup threads
class LUMORA_API ContextEventThread {
public:
    ContextEventThread();
    virtual ~ContextEventThread();

    ContextEventThread(const ContextEventThread&) = delete;
    ContextEventThread& operator=(const ContextEventThread&) = delete;

    /// Serves one event.
    ///
    /// **Called by** the worker thread, one event at a time. It may block, which delays the events behind it, and may
    /// push events; it must not call Stop() and must not throw.
    virtual void OnEvent(int eventId, void* data) = 0;

    /// Starts the worker, which first serves what was pushed before.
    /// @return true when it runs; false when it ran already, which logs the error "Already Started", or could not be
    ///         created.
    bool Start();

    /// Queues a stop message behind everything that waits and blocks until the worker has reached it.
    ///
    /// Every event queued before is served. One that is pushed after the stop message is served only when its priority
    /// is below 0, the priority of that message; else it stays queued, and a later Start() serves it.
    /// @return true when the worker has stopped; false when it did not run ("Already Stopped" is logged) or the stop
    ///         message could not be allocated ("Memory Allocation Fail" is logged; the worker runs on).
    bool Stop();

    /// Tells whether the worker runs. Takes no lock.
    /// @return true from a successful Start() until the worker takes the stop message.
    bool IsRuning() const { return m_bRunning; }

    /// Queues an event in a message of its own.
    ///
    /// While the worker does not run, at most 16 events are taken; while it runs there is no limit.
    /// @param eventId   handed to OnEvent().
    /// @param data      handed to OnEvent(); on failure it stays the caller's.
    /// @param priority  the lower value is served first.
    /// @return false when the worker does not run and 16 events wait ("The Event Queue is overflow!!" is logged), or
    ///         when no message could be allocated ("Memory Allocation Fail" is logged).
    bool PushEvent(int eventId, void* data, int priority);

    /// Queues a message that the caller owns; sets its `bStatic` and uses its other fields as they are.
    ///
    /// The same message may be pushed again while it is still queued: it is then served once for each push.
    /// @return false when the worker does not run ("Not Started!" is logged): such an event never waits for Start().
    bool PushStaticEvent(TEventMessage* message);

    /// The order of the queue: compares the priorities of two `TEventMessage`.
    /// @return 1 when `a` is to be served after `b` or either is null, 0 for equal priorities, else -1.
    static int _ComparePriority(const void* a, const void* b, void* userData);

    /// The event loop; returns after the stop message and leaves behind it what is queued.
    void _Run();

    /// The entry that GLib calls on the new thread.
    /// @param self  the ContextEventThread.
    /// @return null.
    static void* _Thread(void* self);

protected:
    GThread* m_pThread;                          ///< null while no thread exists
    std::atomic<bool> m_bRunning;                ///< set by Start(), cleared by the worker
    GMutex m_mutex;                              ///< serialises the two push operations
    GAsyncQueue* m_pQueue;                       ///< of `TEventMessage*`
    std::atomic<unsigned int> m_nPreStartCount;  ///< events pushed while the worker did not run
};

#endif  // LUMORA_COMMON_CONTEXT_EVENT_THREAD_H
