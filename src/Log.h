// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_LOG_H
#define LUMORA_COMMON_SRC_LOG_H

// A message may have no arguments of its own. Only a system header may drop the comma before an empty argument
// list without a -Wpedantic warning in C++17.
#pragma GCC system_header

#include "SystemLog.h"

/// The one way to write to the log: fills in the tag and the prefix that every message of the library carries.
#define LMR_LOG(priority, format, ...)                                                                                \
    lumora_log_print(LUMORA_LOG_BUFFER_MAIN, priority, "LMR_COMMON", "%s: %s(%d) > " format, __FILE_NAME__, __func__, \
                     __LINE__, ##__VA_ARGS__)

#define LMR_LOG_DEBUG(...) LMR_LOG(LUMORA_LOG_DEBUG, __VA_ARGS__)
#define LMR_LOG_INFO(...) LMR_LOG(LUMORA_LOG_INFO, __VA_ARGS__)
#define LMR_LOG_WARNING(...) LMR_LOG(LUMORA_LOG_WARNING, __VA_ARGS__)
#define LMR_LOG_ERROR(...) LMR_LOG(LUMORA_LOG_ERROR, __VA_ARGS__)

#endif  // LUMORA_COMMON_SRC_LOG_H
