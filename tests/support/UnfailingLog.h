// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_UNFAILING_LOG_H
#define LUMORA_COMMON_TESTS_UNFAILING_LOG_H

#include <string>
#include <vector>

/// Captures the log where FailingMemory is used: allocations inside the log call do not fail. A program that is linked
/// with UnfailingLog.cpp replaces the platform's log call and cannot use CapturedLog. For one thread.
namespace UnfailingLog {

/// @return the formats logged since the last call, without the prefix.
std::vector<std::string> Take();

}  // namespace UnfailingLog

#endif  // LUMORA_COMMON_TESTS_UNFAILING_LOG_H
