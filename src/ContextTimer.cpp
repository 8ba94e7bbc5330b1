// SPDX-License-Identifier: Apache-2.0
#include "ContextTimer.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <new>

#include "Assertion.h"
#include "Log.h"
#include "TimerMath.h"

namespace {

constexpr useconds_t kTickMicroseconds = 250000;
constexpr std::int32_t kMaxClockStep = 5;  ///< seconds; a longer time between two checks is a clock jump
constexpr int kEventPriority = 10;

std::int32_t Now() {
    return static_cast<std::int32_t>(time(nullptr));
}

}  // namespace

ContextTimer::ContextTimer()
    : m_lastCheckTime(0),
      m_checkMessage{TIMER_EVENT_CHECK, nullptr, /*bStop=*/false, /*bStatic=*/false, kEventPriority} {}

ContextTimer::~ContextTimer() = default;

bool ContextTimer::Start() {
    m_lastCheckTime = Now();
    if (!ContextEventThread::Start() || !ContextThread::Start()) {
        LMR_LOG_ERROR("Start Error");
        return false;
    }
    return true;
}

bool ContextTimer::Stop() {
    // The tick thread stops first, so that no check is queued after the stop message of the event thread.
    if (!ContextThread::Stop() || !ContextEventThread::Stop()) {
        LMR_LOG_ERROR("Stop Error");
        return false;
    }
    return true;
}

TimerId ContextTimer::SetTimer(unsigned int interval, timer_cb callback, void* userData) {
    CTimerData* timer = CreateTimer_(interval, callback, userData);
    const TimerId id = timer->timerId;  // once queued, the record belongs to the event thread
    if (!PushEvent(TIMER_EVENT_ADD, timer, kEventPriority)) {
        delete timer;
    }
    return id;
}

bool ContextTimer::KillTimer(TimerId id) {
    if (id == 0) {
        LMR_LOG_INFO("invalid timer id");
        return false;
    }
    int* ptimerId = new (std::nothrow) int(id);
    LMR_ASSERT(ptimerId != nullptr, "ptimerId != __null");
    if (!PushEvent(TIMER_EVENT_REMOVE, ptimerId, kEventPriority)) {
        delete ptimerId;
    }
    return true;
}

TimerId ContextTimer::GetTimerId_() {
    static std::atomic<TimerId> _timerId{0};
    TimerId last = _timerId;
    while (!_timerId.compare_exchange_weak(last, TimerMath::NextTimerId(last))) {
    }
    return TimerMath::NextTimerId(last);
}

CTimerData* ContextTimer::CreateTimer_(unsigned int interval, timer_cb callback, void* userData) {
    auto* timerData = new (std::nothrow) CTimerData;
    LMR_ASSERT(timerData != nullptr, "timerData != __null");
    *timerData = {GetTimerId_(), interval, /*expireTime=*/0, callback, userData};
    return timerData;
}

void ContextTimer::InsertTimer_(CTimerData* timer) {
    timer->expireTime = TimerMath::Add(m_lastCheckTime, timer->interval);
    const auto later = std::find_if(m_timerList.begin(), m_timerList.end(),
                                    [timer](const CTimerData* other) { return other->expireTime > timer->expireTime; });
    try {
        m_timerList.insert(later, timer);
    } catch (const std::bad_alloc&) {  // an exception would end the process: GLib's C code started this thread
        LMR_LOG_ERROR("Memory Allocation Fail");
        delete timer;
    }
}

void ContextTimer::RemoveTimer_(int id) {
    m_timerList.remove_if([id](CTimerData* timer) {
        if (timer->timerId != id) {
            return false;
        }
        delete timer;
        return true;
    });
}

void ContextTimer::CheckTimer_() {
    const std::int32_t now = Now();
    const std::int32_t offset = TimerMath::Difference(now, m_lastCheckTime);
    const bool clockJumped = offset > kMaxClockStep;
    if (clockJumped) {
        LMR_LOG_INFO("add offset %d", offset);
    }
    for (CTimerData* timer : m_timerList) {
        if (clockJumped) {
            timer->expireTime = TimerMath::Add(timer->expireTime, static_cast<std::uint32_t>(offset));
        }
        if (now >= timer->expireTime) {
            timer->expireTime = TimerMath::Add(now, timer->interval);
            if (timer->callback != nullptr) {
                timer->callback(timer->timerId, timer->userData);
            }
        }
    }
    m_lastCheckTime = now;
}

void ContextTimer::OnThread() {
    while (ContextThread::IsRuning()) {
        PushStaticEvent(&m_checkMessage);
        usleep(kTickMicroseconds);
    }
}

void ContextTimer::OnEvent(int eventId, void* data) {
    switch (eventId) {
        case TIMER_EVENT_ADD:
            InsertTimer_(static_cast<CTimerData*>(data));
            break;
        case TIMER_EVENT_REMOVE: {
            int* ptimerId = static_cast<int*>(data);
            RemoveTimer_(*ptimerId);
            delete ptimerId;
            break;
        }
        case TIMER_EVENT_CHECK:
            CheckTimer_();
            break;
        default:
            LMR_ASSERT(false, "false");
    }
}
