// SPDX-License-Identifier: Apache-2.0
#include "ContextEventThread.h"

#include <new>

#include "ContextAutoLock.h"
#include "Log.h"

namespace {

constexpr unsigned int kMaxPreStartEvents = 16;
constexpr int kStopEventId = -1;
constexpr int kStopPriority = 0;

}  // namespace

ContextEventThread::ContextEventThread()
    : m_pThread(nullptr), m_bRunning(false), m_pQueue(g_async_queue_new()), m_nPreStartCount(0) {
    g_mutex_init(&m_mutex);
}

ContextEventThread::~ContextEventThread() {
    g_mutex_clear(&m_mutex);
    g_async_queue_unref(m_pQueue);
}

bool ContextEventThread::Start() {
    if (IsRuning()) {
        LMR_LOG_ERROR("Already Started");
        return false;
    }
    m_bRunning = true;
    m_pThread = g_thread_new(nullptr, _Thread, this);
    if (m_pThread == nullptr) {
        m_bRunning = false;
        return false;
    }
    return true;
}

bool ContextEventThread::Stop() {
    if (!IsRuning()) {
        LMR_LOG_ERROR("Already Stopped");
        return false;
    }
    auto* message =
        new (std::nothrow) TEventMessage{kStopEventId, nullptr, /*bStop=*/true, /*bStatic=*/false, kStopPriority};
    if (message == nullptr) {
        LMR_LOG_ERROR("Memory Allocation Fail");
        return false;
    }
    g_async_queue_push(m_pQueue, message);  // unsorted: after all queued events, whatever their priority
    g_thread_join(m_pThread);
    m_pThread = nullptr;
    return true;
}

bool ContextEventThread::PushEvent(int eventId, void* data, int priority) {
    ContextAutoLock lock(&m_mutex);
    if (!IsRuning()) {
        if (m_nPreStartCount >= kMaxPreStartEvents) {
            LMR_LOG_ERROR("The Event Queue is overflow!!");
            return false;
        }
        ++m_nPreStartCount;
    }
    auto* message = new (std::nothrow) TEventMessage{eventId, data, /*bStop=*/false, /*bStatic=*/false, priority};
    if (message == nullptr) {
        LMR_LOG_ERROR("Memory Allocation Fail");
        return false;
    }
    g_async_queue_push_sorted(m_pQueue, message, _ComparePriority, nullptr);
    return true;
}

bool ContextEventThread::PushStaticEvent(TEventMessage* message) {
    ContextAutoLock lock(&m_mutex);
    if (!IsRuning()) {
        LMR_LOG_ERROR("Not Started!");
        return false;
    }
    if (!message->bStatic) {  // the worker may be reading the flag of an earlier push
        message->bStatic = true;
    }
    g_async_queue_push_sorted(m_pQueue, message, _ComparePriority, nullptr);
    return true;
}

int ContextEventThread::_ComparePriority(const void* a, const void* b, void* /*userData*/) {
    if (a == nullptr || b == nullptr) {
        return 1;
    }
    const int first = static_cast<const TEventMessage*>(a)->nPriority;
    const int second = static_cast<const TEventMessage*>(b)->nPriority;
    return first > second ? 1 : (first == second ? 0 : -1);
}

void ContextEventThread::_Run() {
    m_nPreStartCount = 0;
    while (IsRuning()) {
        auto* message = static_cast<TEventMessage*>(g_async_queue_pop(m_pQueue));
        const bool isStatic = message->bStatic;  // OnEvent() may end the lifetime of a static message
        if (message->bStop) {
            m_bRunning = false;
        } else {
            OnEvent(message->nEventId, message->pData);
        }
        if (!isStatic) {
            delete message;
        }
    }
}

void* ContextEventThread::_Thread(void* self) {
    static_cast<ContextEventThread*>(self)->_Run();
    return nullptr;
}
