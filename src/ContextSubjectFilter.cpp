// SPDX-License-Identifier: Apache-2.0
#include "ContextSubjectFilter.h"

#include "FilterMap.h"

void ContextSubjectFilter::Register(const std::string& name) {
    m_filterMap[name] = false;
}

void ContextSubjectFilter::Set(const std::string& name) {
    FilterMap::Set(m_filterMap, name);
}

bool ContextSubjectFilter::Check() {
    return FilterMap::Check(m_filterMap);
}

void ContextSubjectFilter::Clear() {
    FilterMap::Clear(m_filterMap);
}
