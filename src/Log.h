// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SRC_LOG_H
#define LUMORA_COMMON_SRC_LOG_H

#include "SystemLog.h"

#define LMR_LOG_TAG "LMR_COMMON"
#define LMR_LOG_PREFIX "%s: %s(%d) > "

/// Writes one message to the log, with the tag and the prefix that all messages of the library carry:
/// LMR_LOG(priority, format, arguments...), with at most eight arguments. The compiler checks them against the format.
///
/// In C++17 a macro cannot drop the comma before an empty argument list, so a message without arguments has a macro of
/// its own.
#define LMR_LOG(priority, ...) \
    LMR_LOG_SELECT(__VA_ARGS__, ARGS, ARGS, ARGS, ARGS, ARGS, ARGS, ARGS, ARGS, TEXT, unused)(priority, __VA_ARGS__)
#define LMR_LOG_SELECT(format, a1, a2, a3, a4, a5, a6, a7, a8, kind, ...) LMR_LOG_##kind
#define LMR_LOG_TEXT(priority, text)                                                                              \
    lumora_log_print(LUMORA_LOG_BUFFER_MAIN, priority, LMR_LOG_TAG, LMR_LOG_PREFIX text, __FILE_NAME__, __func__, \
                     __LINE__)
#define LMR_LOG_ARGS(priority, format, ...)                                                                         \
    lumora_log_print(LUMORA_LOG_BUFFER_MAIN, priority, LMR_LOG_TAG, LMR_LOG_PREFIX format, __FILE_NAME__, __func__, \
                     __LINE__, __VA_ARGS__)

#define LMR_LOG_DEBUG(...) LMR_LOG(LUMORA_LOG_DEBUG, __VA_ARGS__)
#define LMR_LOG_INFO(...) LMR_LOG(LUMORA_LOG_INFO, __VA_ARGS__)
#define LMR_LOG_WARNING(...) LMR_LOG(LUMORA_LOG_WARNING, __VA_ARGS__)
#define LMR_LOG_ERROR(...) LMR_LOG(LUMORA_LOG_ERROR, __VA_ARGS__)

#endif  // LUMORA_COMMON_SRC_LOG_H
