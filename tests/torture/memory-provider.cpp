// SPDX-License-Identifier: Apache-2.0
#include <memory>

#include "ContextSubjectFilter.h"
#include "MemoryCases.h"
#include "Provider/BaseProvider.h"
#include "Provider/ProviderFilter.h"

namespace {

/// Counts the calls and answers each with 7.
class Handler : public IProvider {
public:
    int AddInSubject(CBaseProvider* /*provider*/, const char* /*subject*/) override { return Answer(); }
    int ProviderRequest(const char*, const char*, IProvider*, void*) override { return Answer(); }
    int ProviderResponse(const char*, int, const char*, IProvider*, void*) override { return Answer(); }
    int ProviderResponse(const char*, int, void*, IProvider*, void*) override { return Answer(); }
    int ProviderRead(const char*, const char*, char**) override { return Answer(); }
    int ProviderWrite(const char*, const char*) override { return Answer(); }
    void Publish(const char*, int, const char*, IProvider*) override { Answer(); }
    void Publish(const char*, int, void*, IProvider*) override { Answer(); }
    int SetTimer(int, timer_cb, void*) override { return Answer(); }
    bool KillTimer(int) override { return Answer() != 0; }

    int m_calls = 0;

private:
    int Answer() {
        ++m_calls;
        return 7;
    }
};

/// Calls a method of a provider, which forwards it once.
template <class Function>
void TryForwarding(Try& tried, Function function) {
    Handler handler;
    CBaseProvider provider(&handler);
    int answer = 0;
    tried.Call([&] { answer = function(provider); });
    tried.Returns();
    tried.Holds(handler.m_calls == 1 && answer == 7, "not forwarded");
}

const std::string kName(40, 'n');  ///< too long for the string object itself

/// Registers two names, of which one is seen, and calls a method of the filter. Unless it throws, Check() is then
/// `expected`.
template <class Filter, class Function>
void TryFilter(Try& tried, Function function, bool expected) {
    Filter filter;
    filter.Register(kName);
    filter.Register("second");
    filter.Set("second");
    tried.Call([&] { function(filter); });
    tried.Holds(filter.Check() == (expected && tried.HasPassed()), "wrong state");
    filter.Set(kName);
    filter.Set("second");
    filter.Set(kName + "new");
    tried.Holds(filter.Check(), "not usable any more");
}

template <class Filter>
void TryRegister(Try& tried) {
    const std::string name = kName + "new";
    TryFilter<Filter>(
        tried, [&](Filter& filter) { filter.Register(name); }, false);
}

template <class Filter>
void TrySet(Try& tried) {
    TryFilter<Filter>(
        tried, [](Filter& filter) { filter.Set(kName); }, true);
    tried.Returns();
}

template <class Filter>
void TryCheck(Try& tried) {
    TryFilter<Filter>(
        tried, [&](Filter& filter) { tried.Holds(!filter.Check(), "wrong result"); }, false);
    tried.Returns();
}

template <class Filter>
void TryClear(Try& tried) {
    TryFilter<Filter>(
        tried, [](Filter& filter) { filter.Clear(); }, false);
    tried.Returns();
}

constexpr Case kCases[] = {
    {"IProvider::~IProvider()",
     [](Try& tried) {
         std::unique_ptr<IProvider> handler = std::make_unique<Handler>();
         tried.Call([&] { handler.reset(); });
         tried.Returns();
     }},
    {"CBaseProvider::CBaseProvider(IProvider*)",
     [](Try& tried) {
         tried.Call([] { CBaseProvider provider; });
         tried.Returns();
     }},
    {"CBaseProvider::SetProviderHandler(IProvider*)",
     [](Try& tried) {
         TryForwarding(tried, [](CBaseProvider& provider) {
             Handler handler;
             CBaseProvider other;
             other.SetProviderHandler(&handler);
             provider.ProviderWrite("s", "");
             return other.ProviderWrite("s", "");
         });
     }},
    {"CBaseProvider::Publish(char const*, int, char const*, IProvider*)",
     [](Try& tried) {
         TryForwarding(tried, [](CBaseProvider& provider) {
             provider.Publish("s", 1, "", nullptr);
             return 7;
         });
     }},
    {"CBaseProvider::Publish(char const*, int, void*, IProvider*)",
     [](Try& tried) {
         TryForwarding(tried, [](CBaseProvider& provider) {
             provider.Publish("s", 1, static_cast<void*>(nullptr), nullptr);
             return 7;
         });
     }},
    {"CBaseProvider::AddInSubject(char const*)",
     [](Try& tried) { TryForwarding(tried, [](CBaseProvider& provider) { return provider.AddInSubject("s"); }); }},
    {"CBaseProvider::ProviderRequest(char const*, char const*, IProvider*, void*)",
     [](Try& tried) {
         TryForwarding(tried,
                       [](CBaseProvider& provider) { return provider.ProviderRequest("s", "", nullptr, nullptr); });
     }},
    {"CBaseProvider::ProviderResponse(char const*, int, char const*, IProvider*, void*)",
     [](Try& tried) {
         TryForwarding(tried,
                       [](CBaseProvider& provider) { return provider.ProviderResponse("s", 1, "", nullptr, nullptr); });
     }},
    {"CBaseProvider::ProviderResponse(char const*, int, void*, IProvider*, void*)",
     [](Try& tried) {
         TryForwarding(tried, [](CBaseProvider& provider) {
             return provider.ProviderResponse("s", 1, static_cast<void*>(nullptr), nullptr, nullptr);
         });
     }},
    {"CBaseProvider::ProviderRead(char const*, char const*, char**)",
     [](Try& tried) {
         char* data = nullptr;
         TryForwarding(tried, [&](CBaseProvider& provider) { return provider.ProviderRead("s", "k", &data); });
     }},
    {"CBaseProvider::ProviderWrite(char const*, char const*)",
     [](Try& tried) { TryForwarding(tried, [](CBaseProvider& provider) { return provider.ProviderWrite("s", ""); }); }},
    {"CBaseProvider::SetTimer(int, void (*)(int, void*), void*)",
     [](Try& tried) {
         TryForwarding(tried, [](CBaseProvider& provider) { return provider.SetTimer(1, nullptr, nullptr); });
     }},
    {"CBaseProvider::KillTimer(int)",
     [](Try& tried) { TryForwarding(tried, [](CBaseProvider& provider) { return provider.KillTimer(1) ? 7 : 0; }); }},
    {"ContextSubjectFilter::Register(std::string const&)", TryRegister<ContextSubjectFilter>},
    {"ContextSubjectFilter::Set(std::string const&)", TrySet<ContextSubjectFilter>},
    {"ContextSubjectFilter::Check()", TryCheck<ContextSubjectFilter>},
    {"ContextSubjectFilter::Clear()", TryClear<ContextSubjectFilter>},
    {"ProviderFilter::ProviderFilter()",
     [](Try& tried) {
         tried.Call([&] { tried.Holds(ProviderFilter().Check(), "wrong result"); });
         tried.Returns();
     }},
    {"ProviderFilter::Register(std::string const&)", TryRegister<ProviderFilter>},
    {"ProviderFilter::Set(std::string const&)", TrySet<ProviderFilter>},
    {"ProviderFilter::Check()", TryCheck<ProviderFilter>},
    {"ProviderFilter::Clear()", TryClear<ProviderFilter>},
};

}  // namespace

Cases ProviderCases() {
    return {std::begin(kCases), std::end(kCases)};
}
