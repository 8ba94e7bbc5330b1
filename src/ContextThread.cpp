// SPDX-License-Identifier: Apache-2.0
#include "ContextThread.h"

#include "Log.h"

ContextThread::ContextThread() : m_pThread(nullptr), m_bRunning(false) {}

ContextThread::~ContextThread() = default;

bool ContextThread::Start() {
    if (IsRuning()) {
        LMR_LOG_ERROR("Already Started");
        return false;
    }
    m_bRunning = true;  // before the thread exists, so that its first check sees true
    m_pThread = g_thread_new(nullptr, _Thread, this);
    if (m_pThread == nullptr) {
        m_bRunning = false;
        return false;
    }
    return true;
}

bool ContextThread::Stop() {
    if (!IsRuning()) {
        LMR_LOG_ERROR("Already Stopped");
        return false;
    }
    m_bRunning = false;
    g_thread_join(m_pThread);
    m_pThread = nullptr;
    return true;
}

void* ContextThread::_Thread(void* self) {
    static_cast<ContextThread*>(self)->OnThread();
    return nullptr;
}
