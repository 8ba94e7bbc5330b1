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

/// Called when a timer fires. It must not throw: GLib's code lies between it and the start of the thread.
/// @param timerId   the timer.
/// @param userData  what was given to ContextTimer::SetTimer().
using timer_cb = void (*)(int timerId, void* userData);

/// One timer.
struct CTimerData {
    TimerId timerId;          ///< what SetTimer() returned
    std::uint32_t interval;   ///< seconds; 0 fires on every tick
    std::int32_t expireTime;  ///< next deadline, seconds of `time()`
    timer_cb callback;        ///< null runs silently
    void* userData;           ///< handed to the callback; never freed
};

/// What ContextTimer sends to its own event thread.
enum ETimerEvent : int {
    TIMER_EVENT_ADD = 0,     ///< data: the new `CTimerData*`, which the list takes over
    TIMER_EVENT_REMOVE = 1,  ///< data: an `int*` with the id, which the handler frees
    TIMER_EVENT_CHECK = 2,   ///< no data; a static message
};

/// Runs periodic timers with a resolution of one second.
///
/// A tick thread wakes the event thread every 250 ms; the event thread alone owns the timer list, compares deadlines
/// with the wall clock and calls every callback, one at a time. SetTimer() and KillTimer() only queue requests to it.
///
/// **Units.** Intervals and deadlines are whole seconds of `time()`. The first deadline counts from the second of the
/// last check, so a timer may first fire up to one second early; each further one counts from the check that found it
/// due. When the clock jumps forward by more than 5 s between two checks, or the event thread was held up for that
/// long, every deadline moves with it and the info line "add offset %d" is logged; a step back is not compensated.
/// **Order.** Timers that are due at the same check fire in the order of the list: by their first deadlines, and among
/// equal ones in the order in which they were set.
/// **Ownership.** Callbacks and user data stay the caller's and must outlive the timer or its removal. The destructor
/// neither stops the threads nor frees the records of the timers that still exist: kill them, then call Stop(), then
/// destroy the object.
/// **Threads.** SetTimer() and KillTimer() may be called from any thread, from a callback too. Start(), Stop()
/// and the destructor belong to the owner's thread.
/// **Errors.** Reported by return value and logged; running out of memory for a request aborts.
class LUMORA_API ContextTimer : public ContextThread, public ContextEventThread {
public:
    ContextTimer();
    ~ContextTimer() override;

    /// Starts both threads and takes the present second as that of the last check.
    ///
    /// Timers that were set before come into being now; at most 16 requests wait for it. Timers kept from an earlier
    /// run keep their deadlines: those that passed meanwhile fire at the first tick.
    /// @return false when either thread runs already; the error "Start Error" is logged behind that thread's own.
    bool Start();

    /// Stops the tick thread, which takes up to 250 ms, then the event thread, which serves all queued requests first.
    /// @return false when either thread does not run; the error "Stop Error" is logged behind that thread's own.
    bool Stop();

    /// Sets a timer that fires every `interval` seconds until it is killed.
    /// @param interval  seconds; 0 fires on every tick.
    /// @param callback  called on the event thread, which it holds up; it may set and kill timers. May be null.
    /// @param userData  handed to the callback.
    /// @return the timer's id. The ids count up through the whole process and start again at 1 after 2147483647. An
    ///         id is returned even for the 17th request before Start(), which is lost.
    TimerId SetTimer(unsigned int interval, timer_cb callback, void* userData);

    /// Removes a timer once the event thread reaches the request: a callback may still run after the call, when its
    /// check was queued before, and a callback that kills timers still sees the others of the same check fire.
    /// @return true, also for an id that does not exist; false for 0, with the info line "invalid timer id".
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
    std::list<CTimerData*> m_timerList;         ///< touched by the event thread only
    std::atomic<std::int32_t> m_lastCheckTime;  ///< seconds of `time()`
    TEventMessage m_checkMessage;               ///< queued by the tick thread; outlives it
};

/// @}

#endif  // LUMORA_COMMON_CONTEXT_TIMER_H
