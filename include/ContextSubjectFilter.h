// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_SUBJECT_FILTER_H
#define LUMORA_COMMON_CONTEXT_SUBJECT_FILTER_H

#include <map>
#include <string>

#include "LumoraApi.h"

/// Tells when every subject of a fixed set has arrived.
///
/// Register the expected names once. For each batch of arrivals, mark the names with Set() and call Check(); start the
/// next batch with Clear().
///
/// **Threads.** One thread at a time; no locking.
/// **Errors.** Nothing is logged. When memory runs out, Register() and copies throw `std::bad_alloc`. Register() then
/// changes nothing; an assignment may leave a filter without names, which is complete. Nothing else throws.
/// @ingroup provider
class LUMORA_API ContextSubjectFilter {
public:
    /// Adds a name as not seen. A name that is registered already becomes unseen again. Names are compared bytewise.
    void Register(const std::string& name);

    /// Marks a registered name as seen; any other name is ignored.
    void Set(const std::string& name);

    /// Returns whether every registered name has been seen since it was registered or cleared; true without names.
    bool Check();

    /// Marks every name as not seen; the names stay registered.
    void Clear();

private:
    std::map<std::string, bool> m_filterMap;  ///< maps a name to whether it has been seen
};

#endif  // LUMORA_COMMON_CONTEXT_SUBJECT_FILTER_H
