// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_TIMER_H
#define LUMORA_COMMON_CONTEXT_TIMER_H

#include <atomic>
#include <cstdint>
#include <list>

#include "ContextEventThread.h"
#include "ContextThread.h"
#include "LumoraApi.h"

/// @addtogroup threads
/// @{

/// Identifies a timer: 1 to 2147483647; 0 means no timer.
using TimerId = std::int32_t;

/// Called when a timer fires. It must not throw, because GLib's C code started the thread.
/// @param timerId   the timer.
/// @param userData  the pointer passed to ContextTimer::SetTimer().
using timer_cb = void (*)(int timerId, void* userData);

/// One timer.
struct CTimerData {
    TimerId timerId;          ///< what SetTimer() returned
    std::uint32_t interval;   ///< seconds; 0 fires on every tick
    std::int32_t expireTime;  ///< next deadline, seconds of `time()`
    timer_cb callback;        ///< may be null: the timer then does nothing
    void* userData;           ///< passed to the callback; never freed
};

/// The events that ContextTimer sends to its own event thread.
enum ETimerEvent : int {
    TIMER_EVENT_ADD = 0,     ///< data: the new `CTimerData*`; the list takes ownership
    TIMER_EVENT_REMOVE = 1,  ///< data: an `int*` with the id; the handler frees it
    TIMER_EVENT_CHECK = 2,   ///< no data; a static message
};

/// Runs periodic timers with a resolution of one second.
///
/// A tick thread wakes the event thread every 250 ms. The event thread alone owns the timer list, compares deadlines
/// with the wall clock and calls every callback, one at a time. SetTimer() and KillTimer() only queue requests to it.
///
/// **Units.** Intervals and deadlines are whole seconds of `time()`. The first deadline counts from the second of the
/// last check, so the first firing may come up to 1.25 s early: one second and one tick. Each later deadline counts
/// from the check that found the timer due.
/// **Clock changes.** When `time()` grows by 6 or more whole seconds between two checks, every deadline moves by the
/// same amount and the info line "add offset %d" is logged. A callback that blocks long enough has the same effect. The
/// same applies to a system suspend: a timer with 10 s left fires 10 s after the device wakes up, even after an hour of
/// sleep. To act on the wall clock instead, set a short interval and compare `time()` in the callback. A suspend that
/// does not reach this limit counts as normal time. A step back is not compensated: every timer fires later by that
/// amount.
/// **Order.** Timers due at the same check fire in list order. A new timer is inserted before the first timer whose
/// deadline is later at that moment, and never moves afterwards. Timers that are set with equal deadlines therefore
/// fire in the order in which they were set, unless a timer before them in the list fires between the two calls.
/// **Ownership.** The caller keeps callbacks and user data valid until the timer is removed. The destructor neither
/// stops the threads nor frees the records of existing timers: kill the timers, call Stop(), then destroy the object.
/// **Threads.** SetTimer() and KillTimer() may be called from any thread and from a callback. Start(), Stop() and the
/// destructor belong to the owner's thread.
/// **Errors.** Reported by return value and logged. Without memory a request either aborts the process or is lost after
/// the error "Memory Allocation Fail": see SetTimer() and KillTimer(). Nothing leaks, no lock stays taken, the threads
/// continue, and the object can be used. GLib's own allocations, and `g_thread_new`, abort the process when they fail.
class LUMORA_API ContextTimer : public ContextThread, public ContextEventThread {
public:
    ContextTimer();
    ~ContextTimer() override;

    /// Starts both threads and takes the current second as the time of the last check.
    ///
    /// Requests made before Start(), at most 16, take effect now. Timers from an earlier run keep their deadlines;
    /// those that passed in the meantime fire at the first tick.
    /// @return false when either thread is running already; the error "Start Error" follows that thread's own error.
    bool Start();

    /// Stops the tick thread, which takes up to 250 ms, then the event thread, which serves all queued requests first.
    /// @return false when either thread is not running, or when there is no memory for the stop message. In the latter
    ///         case the tick thread has stopped and the event thread continues: call ContextEventThread::Stop() again
    ///         before the destructor. The error "Stop Error" follows that thread's own error.
    bool Stop();

    /// Sets a timer that fires every `interval` seconds until it is killed.
    /// @param interval  seconds. The timer fires on every tick if this is 0, or if the interval ends after January
    ///                  2038, when 32-bit seconds overflow.
    /// @param callback  called on the event thread; it delays all other timers, and may set and kill timers. May be
    ///                  null.
    /// @param userData  passed to the callback.
    /// @return the timer's id. Ids count up through the whole process; after 2147483647 they start again at 1, even if
    ///         1 is in use. An id is returned even for a request that is lost: the 17th before Start() ("The Event
    ///         Queue is overflow!!" is logged), or one without memory for its event or, later, for its place in the
    ///         list ("Memory Allocation Fail"). Without memory for the record, the assertion "timerData != __null"
    ///         aborts.
    TimerId SetTimer(unsigned int interval, timer_cb callback, void* userData);

    /// Removes a timer when the event thread reaches the request. Until then its callback may still run, for example
    /// later in the same check when a callback kills another timer.
    /// @return true, even for an id that does not exist and for a request that is lost: the 17th before Start() ("The
    ///         Event Queue is overflow!!" is logged), or one without memory for its event ("Memory Allocation Fail");
    ///         the timer then stays. False for 0, which logs the info line "invalid timer id". Without memory for the
    ///         copy of the id, the assertion "ptimerId != __null" aborts.
    bool KillTimer(TimerId id);

private:
    static TimerId GetTimerId_();
    CTimerData* CreateTimer_(unsigned int interval, timer_cb callback, void* userData);
    void InsertTimer_(CTimerData* timer);
    void RemoveTimer_(int id);
    void CheckTimer_();

    void OnThread() override;
    void OnEvent(int eventId, void* data) override;

protected:
    std::list<CTimerData*> m_timerList;         ///< used by the event thread only
    std::atomic<std::int32_t> m_lastCheckTime;  ///< seconds of `time()`
    TEventMessage m_checkMessage;               ///< queued by the tick thread; outlives that thread
};

/// @}

#endif  // LUMORA_COMMON_CONTEXT_TIMER_H
