// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_BASE_PROVIDER_H
#define LUMORA_COMMON_PROVIDER_BASE_PROVIDER_H

#include "LumoraApi.h"
#include "Provider/IProvider.h"

/// The base of a provider module: forwards every call to the handler that the host supplies.
///
/// Arguments are passed unchanged and in the same order. The handler's result is returned unchanged, negative values
/// included. The class only adds checks for a missing handler and a missing subject.
///
/// **Ownership.** The host owns the handler. It must outlive the provider, unless SetProviderHandler() replaces it
/// first.
/// **Threads.** Each call runs on the caller's thread; no locking. Set the handler before using the provider.
/// **Errors.** Without a handler every operation except AddInSubject() logs "m_pIProviderHandler is NULL". It then
/// returns -5, except that KillTimer() returns true and Publish() returns nothing. The class allocates
/// nothing; an exception of the handler passes through.
/// @ingroup provider
class LUMORA_API CBaseProvider {
public:
    /// Creates a provider.
    /// @param handler  the host's handler, not owned; null if SetProviderHandler() sets it later.
    explicit CBaseProvider(IProvider* handler = nullptr);

    /// Sets or replaces the handler.
    /// @param handler  not owned; null removes the handler.
    void SetProviderHandler(IProvider* handler);

    /// Publishes a text. A literal `nullptr` for `data` is ambiguous, here and in ProviderResponse(): cast it to
    /// the intended type.
    void Publish(const char* subject, int code, const char* data, IProvider* provider);

    /// Publishes a pointer.
    void Publish(const char* subject, int code, void* data, IProvider* provider);

    /// Offers a subject. The handler receives this provider as its first argument. This operation alone does not check
    /// for a missing handler: without one it crashes, unless the subject is null.
    /// @param subject  null logs "subject is NULL"; the handler is not called.
    /// @return -5 for a null subject, else the handler's result.
    int AddInSubject(const char* subject);

    /// Sends a request.
    int ProviderRequest(const char* subject, const char* data, IProvider* provider, void* userData);

    /// Answers a request with a text.
    int ProviderResponse(const char* subject, int code, const char* data, IProvider* provider, void* userData);

    /// Answers a request with a pointer.
    int ProviderResponse(const char* subject, int code, void* data, IProvider* provider, void* userData);

    /// Reads a value that the host stores; `data` receives the text. Without a handler `data` is unchanged.
    int ProviderRead(const char* subject, const char* key, char** data);

    /// Stores a text at the host.
    int ProviderWrite(const char* subject, const char* data);

    /// Requests a timer from the host.
    int SetTimer(int interval, timer_cb callback, void* userData);

    /// Releases a timer.
    /// @return the handler's result; true without a handler, because a timer that cannot exist counts as killed.
    bool KillTimer(int timerId);

private:
    IProvider* m_pIProviderHandler;
};

#endif  // LUMORA_COMMON_PROVIDER_BASE_PROVIDER_H
