// SPDX-License-Identifier: Apache-2.0
#include "Provider/ProviderFilter.h"

#include "FilterMap.h"

ProviderFilter::ProviderFilter() = default;

void ProviderFilter::Register(const std::string& name) {
    m_filterMap[name] = false;
}

void ProviderFilter::Set(const std::string& name) {
    FilterMap::Set(m_filterMap, name);
}

bool ProviderFilter::Check() {
    return FilterMap::Check(m_filterMap);
}

void ProviderFilter::Clear() {
    FilterMap::Clear(m_filterMap);
}
