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
    LUMORA_LOG_DEBUG = 3,    ///< socket traces
    LUMORA_LOG_INFO = 4,     ///< normal work; also heap damage and a KillTimer() of timer 0
    LUMORA_LOG_WARNING = 5,  ///< line breaks could not be removed from 16-bit text
    LUMORA_LOG_ERROR = 6,    ///< every other failure that is logged
};

/// Writes one message to the platform's system log. Every message of the library goes through this call, except the
/// failed assertions of ContextTimer, which the C library prints on standard error.
///
/// The library's default definition passes the text, with the tag in front, to `syslog(3)`: debug becomes `LOG_DEBUG`,
/// info `LOG_INFO`, warning `LOG_WARNING`, and anything else `LOG_ERR`. It neither opens nor closes the system log, so
/// your own `openlog(3)` stays in force.
///
/// To replace the default, define a function of this name in the platform or in the host; a test captures the log in
/// the same way. The library's own messages have the tag "LMR_COMMON" and begin with "<file>: <function>(<line>) > ".
///
/// **Threads.** Called from any thread, often while the library holds a lock. **A replacement must not call this
/// library at all**: some of those locks are process-wide and none is recursive. For example, a failing flush of one
/// database logs while it holds the locks of all databases; a log call that then defers a write to another database
/// never returns. Queue the message and process it on your own thread. A replacement must not throw, either: the
/// library logs on threads that GLib's C code started.
/// **Errors.** The default definition neither throws nor changes `errno`. Without memory it still writes texts of up to
/// 511 bytes, and the first 511 bytes of longer ones. glibc's `syslog(3)` needs memory too for texts of about 1000
/// bytes or more; without it, it writes "out of memory" instead.
///
/// @param buffer    the log buffer; the default definition ignores it.
/// @param priority  one of ::ELumoraLogPriority.
/// @param tag       the name of the module that logs; never null.
/// @param format    a printf format for the arguments that follow.
/// @return the length of the formatted text in bytes, or a negative value when it could not be formatted; the library
///         ignores it.
extern "C" LUMORA_API int lumora_log_print(int buffer, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// @}

#endif  // LUMORA_COMMON_SYSTEM_LOG_H
