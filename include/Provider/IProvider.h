// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_I_PROVIDER_H
#define LUMORA_COMMON_PROVIDER_I_PROVIDER_H

#include "ContextTimer.h"
#include "LumoraApi.h"

class CBaseProvider;

/// The interface that a host implements and passes to its providers. It receives their publications, requests,
/// responses, reads, writes and timer requests.
///
/// The library forwards every argument unchanged and interprets none. Host and providers agree on their meaning; the
/// parameter names are suggestions. The order of the operations is part of the binary interface.
///
/// **Called by** CBaseProvider, on the thread that the provider calls from. An implementation may block and may call
/// back into the provider. It needs its own locking if it serves several threads.
/// **Ownership.** As agreed between host and provider; the library keeps no argument.
/// **Errors.** As agreed between host and provider; exceptions pass through to the provider.
/// @ingroup provider
class LUMORA_API IProvider {
public:
    virtual ~IProvider() = default;

    /// A provider offers a subject.
    /// @param provider  the calling provider.
    /// @param subject   never null.
    virtual int AddInSubject(CBaseProvider* provider, const char* subject) = 0;

    /// A provider sends a request.
    virtual int ProviderRequest(const char* subject, const char* data, IProvider* provider, void* userData) = 0;

    /// A provider answers a request with a text.
    virtual int ProviderResponse(const char* subject, int code, const char* data, IProvider* provider,
                                 void* userData) = 0;

    /// A provider answers a request with a pointer.
    virtual int ProviderResponse(const char* subject, int code, void* data, IProvider* provider, void* userData) = 0;

    /// A provider reads a value stored under a subject; `data` receives the text.
    virtual int ProviderRead(const char* subject, const char* key, char** data) = 0;

    /// A provider stores a text under a subject.
    virtual int ProviderWrite(const char* subject, const char* data) = 0;

    /// A provider publishes a text under a subject.
    virtual void Publish(const char* subject, int code, const char* data, IProvider* provider) = 0;

    /// A provider publishes a pointer under a subject.
    virtual void Publish(const char* subject, int code, void* data, IProvider* provider) = 0;

    /// A provider requests a timer; the host defines the unit of the interval.
    /// @return the timer's id.
    virtual int SetTimer(int interval, timer_cb callback, void* userData) = 0;

    /// A provider releases a timer.
    virtual bool KillTimer(int timerId) = 0;
};

#endif  // LUMORA_COMMON_PROVIDER_I_PROVIDER_H
