// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_I_PROVIDER_H
#define LUMORA_COMMON_PROVIDER_I_PROVIDER_H

#include "ContextTimer.h"
#include "LumoraApi.h"

class CBaseProvider;

/// What the host implements and hands to each of its providers: where publications, requests, responses, reads, writes
/// and timer requests of a provider arrive.
///
/// The library forwards every argument untouched and interprets none; their meaning is a matter between the host and
/// its providers, and the names of the arguments are suggestions. The order of the operations is part of the binary
/// interface.
///
/// **Called by** CBaseProvider, on whatever thread the provider calls it from. An implementation may block and may call
/// back into the provider; one that serves several providers' threads locks for itself.
/// **Ownership.** As host and provider agree; the library keeps no argument.
/// @ingroup provider
class LUMORA_API IProvider {
public:
    virtual ~IProvider() = default;

    /// A provider offers a subject.
    /// @param provider  the provider that calls.
    /// @param subject   never null.
    virtual int AddInSubject(CBaseProvider* provider, const char* subject) = 0;

    /// A provider asks for something.
    virtual int ProviderRequest(const char* subject, const char* data, IProvider* provider, void* userData) = 0;

    /// A provider answers a request with a text.
    virtual int ProviderResponse(const char* subject, int code, const char* data, IProvider* provider,
                                 void* userData) = 0;

    /// A provider answers a request with a pointer.
    virtual int ProviderResponse(const char* subject, int code, void* data, IProvider* provider, void* userData) = 0;

    /// A provider reads what is stored under a subject; `data` receives the text.
    virtual int ProviderRead(const char* subject, const char* key, char** data) = 0;

    /// A provider stores something under a subject.
    virtual int ProviderWrite(const char* subject, const char* data) = 0;

    /// A provider publishes a text under a subject.
    virtual void Publish(const char* subject, int code, const char* data, IProvider* provider) = 0;

    /// A provider publishes a pointer under a subject.
    virtual void Publish(const char* subject, int code, void* data, IProvider* provider) = 0;

    /// A provider asks for a timer, with an interval in the unit that the host defines.
    /// @return the timer's id.
    virtual int SetTimer(int interval, timer_cb callback, void* userData) = 0;

    /// A provider gives a timer back.
    virtual bool KillTimer(int timerId) = 0;
};

#endif  // LUMORA_COMMON_PROVIDER_I_PROVIDER_H
