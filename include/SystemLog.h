// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_SYSTEM_LOG_H
#define LUMORA_COMMON_SYSTEM_LOG_H

#include "LumoraApi.h"

/// @addtogroup base
/// @{

/// The main log buffer, the only one that the library writes to.
#define LUMORA_LOG_BUFFER_MAIN 0

/// Priorities of the platform's log.
enum ELumoraLogPriority : int {
    LUMORA_LOG_DEBUG = 3,    ///< traces of socket traffic
    LUMORA_LOG_INFO = 4,     ///< traces of normal work
    LUMORA_LOG_WARNING = 5,  ///< something was left undone
    LUMORA_LOG_ERROR = 6,    ///< every failure that the library reports
};

/// Writes one message to the platform's system log. All diagnostics of the library go through this call.
///
/// The library carries a default definition that hands the text, with its tag in front, to `syslog(3)`: debug
/// becomes `LOG_DEBUG`, info `LOG_INFO`, warning `LOG_WARNING`, and anything else `LOG_ERR`. The default neither
/// opens nor closes the system log, so the host's own `openlog(3)` stays in force.
///
/// A platform or a host that defines a function of this name itself replaces the default; that is also how a
/// test captures the log. The library's own messages use the tag "LMR_COMMON" and begin with
/// "<file>: <function>(<line>) > ".
///
/// **Threads.** Called from any thread, also while the library holds its locks: a replacement must not call
/// back into the object that logs.
///
/// @param buffer    the log buffer; the default definition ignores it.
/// @param priority  one of ::ELumoraLogPriority.
/// @param tag       names the module that logs; never null.
/// @param format    a printf format for the arguments that follow.
/// @return the number of bytes of the formatted text, or a negative value when nothing could be written.
///         The default definition leaves `errno` as it found it.
extern "C" LUMORA_API int lumora_log_print(int buffer, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// @}

#endif  // LUMORA_COMMON_SYSTEM_LOG_H
