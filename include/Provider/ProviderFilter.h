// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_PROVIDER_PROVIDER_FILTER_H
#define LUMORA_COMMON_PROVIDER_PROVIDER_FILTER_H

#include <map>
#include <string>

#include "LumoraApi.h"

/// Tells when every provider of a fixed set has arrived. Works exactly as ContextSubjectFilter does for subjects.
///
/// **Threads.** One at a time; no locking.
/// **Errors.** None; nothing is logged.
/// @ingroup provider
class LUMORA_API ProviderFilter {
public:
    /// Starts without names.
    ProviderFilter();

    /// Adds a name, not yet seen. A name that is there already becomes unseen again. Names are compared byte by byte.
    void Register(const std::string& name);

    /// Marks a registered name as seen; any other name is ignored.
    void Set(const std::string& name);

    /// Tells whether all have arrived.
    /// @return true when every registered name has been seen since the last Clear(); also when there is none.
    bool Check();

    /// Makes every name unseen; the names stay registered.
    void Clear();

private:
    std::map<std::string, bool> m_filterMap;  ///< from name to whether it has been seen
};

#endif  // LUMORA_COMMON_PROVIDER_PROVIDER_FILTER_H
