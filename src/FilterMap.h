// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_FILTER_MAP_H
#define LUMORA_COMMON_SRC_FILTER_MAP_H

#include <algorithm>
#include <map>
#include <string>

/// The operations that the subject filter and the provider filter share.
namespace FilterMap {

using Map = std::map<std::string, bool>;

inline void Set(Map& map, const std::string& name) {
    const auto entry = map.find(name);
    if (entry != map.end()) {
        entry->second = true;
    }
}

inline bool Check(const Map& map) {
    return std::all_of(map.begin(), map.end(), [](const Map::value_type& entry) { return entry.second; });
}

inline void Clear(Map& map) {
    for (auto& entry : map) {
        entry.second = false;
    }
}

}  // namespace FilterMap

#endif  // LUMORA_COMMON_SRC_FILTER_MAP_H
