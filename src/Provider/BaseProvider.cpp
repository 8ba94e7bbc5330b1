// SPDX-License-Identifier: Apache-2.0
#include "Provider/BaseProvider.h"

#include "Log.h"

namespace {

constexpr int kRefused = -5;

}  // namespace

// A macro, so that the log line names the calling operation.
#define RETURN_WITHOUT_HANDLER(result)                \
    if (m_pIProviderHandler == nullptr) {             \
        LMR_LOG_ERROR("m_pIProviderHandler is NULL"); \
        return result;                                \
    }                                                 \
    static_assert(true, "requires a semicolon after the macro")

CBaseProvider::CBaseProvider(IProvider* handler) : m_pIProviderHandler(handler) {}

void CBaseProvider::SetProviderHandler(IProvider* handler) {
    m_pIProviderHandler = handler;
}

void CBaseProvider::Publish(const char* subject, int code, const char* data, IProvider* provider) {
    RETURN_WITHOUT_HANDLER();
    m_pIProviderHandler->Publish(subject, code, data, provider);
}

void CBaseProvider::Publish(const char* subject, int code, void* data, IProvider* provider) {
    RETURN_WITHOUT_HANDLER();
    m_pIProviderHandler->Publish(subject, code, data, provider);
}

int CBaseProvider::AddInSubject(const char* subject) {
    if (subject == nullptr) {
        LMR_LOG_ERROR("subject is NULL");
        return kRefused;
    }
    return m_pIProviderHandler->AddInSubject(this, subject);
}

int CBaseProvider::ProviderRequest(const char* subject, const char* data, IProvider* provider, void* userData) {
    RETURN_WITHOUT_HANDLER(kRefused);
    return m_pIProviderHandler->ProviderRequest(subject, data, provider, userData);
}

int CBaseProvider::ProviderResponse(const char* subject, int code, const char* data, IProvider* provider,
                                    void* userData) {
    RETURN_WITHOUT_HANDLER(kRefused);
    return m_pIProviderHandler->ProviderResponse(subject, code, data, provider, userData);
}

int CBaseProvider::ProviderResponse(const char* subject, int code, void* data, IProvider* provider, void* userData) {
    RETURN_WITHOUT_HANDLER(kRefused);
    return m_pIProviderHandler->ProviderResponse(subject, code, data, provider, userData);
}

int CBaseProvider::ProviderRead(const char* subject, const char* key, char** data) {
    RETURN_WITHOUT_HANDLER(kRefused);
    return m_pIProviderHandler->ProviderRead(subject, key, data);
}

int CBaseProvider::ProviderWrite(const char* subject, const char* data) {
    RETURN_WITHOUT_HANDLER(kRefused);
    return m_pIProviderHandler->ProviderWrite(subject, data);
}

int CBaseProvider::SetTimer(int interval, timer_cb callback, void* userData) {
    RETURN_WITHOUT_HANDLER(kRefused);
    return m_pIProviderHandler->SetTimer(interval, callback, userData);
}

bool CBaseProvider::KillTimer(int timerId) {
    RETURN_WITHOUT_HANDLER(true);  // a timer that cannot exist counts as killed
    return m_pIProviderHandler->KillTimer(timerId);
}
