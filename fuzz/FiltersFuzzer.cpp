// SPDX-License-Identifier: Apache-2.0
#include <ContextSubjectFilter.h>
#include <Provider/ProviderFilter.h>

#include <set>

#include "Fuzz.h"

void Fuzz::Test(Input& input) {
    constexpr const char* kNames[] = {"a", "b", "A", "", "ab"};
    ContextSubjectFilter subjects;
    ProviderFilter providers;
    std::set<std::string> registered;
    std::set<std::string> seen;
    while (input.HasMore()) {
        const std::size_t step = input.Below(8);
        const std::string name = step == 0 || step == 1 ? input.Bytes() : input.OneOf(kNames);
        if (step == 7) {
            subjects.Clear();
            providers.Clear();
            seen.clear();
        } else if (step % 2 == 0) {
            subjects.Register(name);
            providers.Register(name);
            registered.insert(name);
            seen.erase(name);
        } else {
            subjects.Set(name);
            providers.Set(name);
            if (registered.count(name) != 0) {
                seen.insert(name);
            }
        }
        Same("ContextSubjectFilter::Check", subjects.Check(), seen == registered);
        Same("ProviderFilter::Check", providers.Check(), seen == registered);
    }
}
