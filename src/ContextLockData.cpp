// SPDX-License-Identifier: Apache-2.0
#include "ContextLockData.h"

#include <cstdlib>
#include <cstring>

#include "ContextAutoLock.h"
#include "Log.h"

ContextLockData::ContextLockData() : m_pszData(nullptr) {
    g_mutex_init(&m_mutex);
}

ContextLockData::~ContextLockData() {
    Free_();
    g_mutex_clear(&m_mutex);
}

void ContextLockData::SetData(const char* str) {
    ContextAutoLock lock(&m_mutex);
    Free_();
    if (str == nullptr || *str == '\0') {
        LMR_LOG_ERROR("ContextLockData --> SetData Error");
        return;
    }
    m_pszData = strdup(str);
}

char* ContextLockData::GetData() {
    ContextAutoLock lock(&m_mutex);
    return m_pszData == nullptr ? nullptr : strdup(m_pszData);
}

void ContextLockData::ResetData() {
    ContextAutoLock lock(&m_mutex);
    Free_();
}

bool ContextLockData::IsEmpty() {
    ContextAutoLock lock(&m_mutex);
    return m_pszData == nullptr;
}

void ContextLockData::Free_() {
    free(m_pszData);
    m_pszData = nullptr;
}
