// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_AGENT_NAME_H
#define CONTEXT_HOST_AGENT_NAME_H

#include <Provider/CuratorAgent.h>

#include <optional>
#include <string>

/// The number of curation agents; ECuratorAgentType counts them from 0.
constexpr std::size_t kAgentCount = 3;

/// @return the agent with this name in options and requests, if there is one.
inline std::optional<ECuratorAgentType> AgentNamed(const std::string& name) {
    constexpr const char* kNames[kAgentCount] = {"mru", "mfu", "date"};
    for (std::size_t type = 0; type < kAgentCount; ++type) {
        if (name == kNames[type]) {
            return static_cast<ECuratorAgentType>(type);
        }
    }
    return std::nullopt;
}

#endif  // CONTEXT_HOST_AGENT_NAME_H
