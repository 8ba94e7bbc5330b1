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
    bool bStatic;   ///< true when the caller owns the message and keeps it until it is served
    int nPriority;  ///< lower values are served first
};

/// Base class with one worker thread that serves a priority queue of events.
///
/// Any thread pushes events. The worker passes them to OnEvent() one at a time, the smallest priority value first and,
/// among equal priorities, in the order in which they were pushed.
///
/// **Ownership.** The worker frees the message of PushEvent() after serving it. The caller owns the message of
/// PushStaticEvent() and keeps it until OnEvent() has been called for it. `pData` is never freed. The destructor
/// neither stops the worker nor frees queued messages. Call Stop() first, at the latest in the destructor of the class
/// that implements OnEvent().
/// **Threads.** PushEvent(), PushStaticEvent() and IsRuning() may be called from any thread and from OnEvent(). Start()
/// and Stop() belong to the owner's thread. OnEvent() runs on the worker only.
/// **Errors.** Reported by return value and logged. Without memory for a message, Stop() and PushEvent() log an error
/// and return false: nothing leaks, no lock stays taken, and the worker continues. When GLib gets no memory for its
/// queue or no thread from the system, it aborts the process: `g_thread_new` never returns null.
/// @ingroup threads
class LUMORA_API ContextEventThread {
public:
    ContextEventThread();
    virtual ~ContextEventThread();

    ContextEventThread(const ContextEventThread&) = delete;
    ContextEventThread& operator=(const ContextEventThread&) = delete;

    /// Serves one event.
    ///
    /// **Called by** the worker thread, one event at a time. It may push events, and may block, which delays all later
    /// events. It must not call Stop() and must not throw.
    virtual void OnEvent(int eventId, void* data) = 0;

    /// Starts the worker, which begins with the events that are queued already.
    /// @return true when it was started; false when it was running already, which logs the error "Already Started".
    bool Start();

    /// Queues a stop message after all queued events and blocks until the worker has reached it.
    ///
    /// Every event queued before the stop message is served. An event pushed after the stop message is served only when
    /// its priority is below 0, the priority of the stop message; otherwise it stays queued until a later Start().
    /// @return true when the worker has stopped; false when it was not running ("Already Stopped" is logged) or no stop
    ///         message could be allocated ("Memory Allocation Fail" is logged; the worker continues).
    bool Stop();

    /// Returns whether the worker is running. Takes no lock.
    /// @return true from a successful Start() until the worker takes the stop message.
    bool IsRuning() const { return m_bRunning; }

    /// Queues an event in a newly allocated message.
    ///
    /// While the worker is stopped, at most 16 events are accepted; while it is running, there is no limit.
    /// @param eventId   passed to OnEvent().
    /// @param data      passed to OnEvent(); on failure the caller still owns it.
    /// @param priority  lower values are served first.
    /// @return false when the worker is stopped and has accepted 16 events ("The Event Queue is overflow!!" is logged),
    ///         or when no message could be allocated ("Memory Allocation Fail" is logged; while the worker is stopped,
    ///         the call counts among the 16).
    bool PushEvent(int eventId, void* data, int priority);

    /// Queues a message that the caller owns. Sets its `bStatic` and uses its other fields unchanged; `bStop` must be
    /// false.
    ///
    /// The same message may be pushed again while it is queued; it is then served once for each push.
    /// @return false when the worker is stopped ("Not Started!" is logged); unlike PushEvent(), this accepts no events
    ///         before Start().
    bool PushStaticEvent(TEventMessage* message);

    /// Compares the priorities of two `TEventMessage`; this is the order of the queue.
    /// @return 1 when `a` is served after `b` or either is null, 0 for equal priorities, else -1.
    static int _ComparePriority(const void* a, const void* b, void* userData);

    /// The event loop. Returns after the stop message; later messages stay queued.
    void _Run();

    /// The entry that GLib calls on the new thread.
    /// @param self  the ContextEventThread.
    /// @return null.
    static void* _Thread(void* self);

protected:
    GThread* m_pThread;                          ///< null before Start() and after Stop()
    std::atomic<bool> m_bRunning;                ///< set by Start(), cleared by the worker
    GMutex m_mutex;                              ///< serialises the two push operations
    GAsyncQueue* m_pQueue;                       ///< of `TEventMessage*`
    std::atomic<unsigned int> m_nPreStartCount;  ///< events pushed while the worker was stopped
};

#endif  // LUMORA_COMMON_CONTEXT_EVENT_THREAD_H
