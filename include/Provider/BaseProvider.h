// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_BASE_PROVIDER_H
#define LUMORA_COMMON_PROVIDER_BASE_PROVIDER_H

#include "LumoraApi.h"
#include "Provider/IProvider.h"

/// What a provider module is built on: forwards everything to the handler that the host supplies.
///
/// Arguments go on unchanged and in the same order, and the handler's result comes back unchanged, negative values
/// included. The class adds only a guard against a handler that is not there.
///
/// **Ownership.** The handler stays the host's and must outlive the provider, or be replaced before it goes.
/// **Threads.** Each call runs on the caller's thread; no locking. The handler is set before the provider is used.
/// **Errors.** Without a handler every operation but AddInSubject() logs "m_pIProviderHandler is NULL" and returns -5,
/// except that Publish() returns nothing and KillTimer() returns true.
/// @ingroup provider
class LUMORA_API CBaseProvider {
public:
    /// Makes a provider, with a handler or without one yet.
    /// @param handler  the host's handler, not owned; null until SetProviderHandler() sets one.
    explicit CBaseProvider(IProvider* handler = nullptr);

    /// Sets or replaces the handler.
    /// @param handler  not owned; null takes the handler away.
    void SetProviderHandler(IProvider* handler);

    /// Publishes a text. A literal `nullptr` as data fits both forms: cast it to the one that is meant.
    void Publish(const char* subject, int code, const char* data, IProvider* provider);

    /// Publishes a pointer.
    void Publish(const char* subject, int code, void* data, IProvider* provider);

    /// Offers a subject, with this provider as the handler's first argument. The one operation that does not look
    /// whether there is a handler: set it first.
    /// @param subject  null logs "subject is NULL" and does not reach the handler.
    /// @return -5 for a null subject, else the handler's result.
    int AddInSubject(const char* subject);

    /// Sends a request.
    int ProviderRequest(const char* subject, const char* data, IProvider* provider, void* userData);

    /// Answers a request with a text.
    int ProviderResponse(const char* subject, int code, const char* data, IProvider* provider, void* userData);

    /// Answers a request with a pointer.
    int ProviderResponse(const char* subject, int code, void* data, IProvider* provider, void* userData);

    /// Reads what the host stores. Without a handler `data`, which receives the text, is left untouched.
    int ProviderRead(const char* subject, const char* key, char** data);

    /// Has the host store something.
    int ProviderWrite(const char* subject, const char* data);

    /// Asks the host for a timer.
    int SetTimer(int interval, timer_cb callback, void* userData);

    /// Gives a timer back.
    /// @return the handler's result; true without a handler, since a timer that cannot exist counts as killed.
    bool KillTimer(int timerId);

private:
    IProvider* m_pIProviderHandler;
};

#endif  // LUMORA_COMMON_PROVIDER_BASE_PROVIDER_H
