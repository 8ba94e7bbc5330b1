// SPDX-License-Identifier: Apache-2.0
#include "SystemLog.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

int SyslogLevel(int priority) {
    switch (priority) {
        case LUMORA_LOG_DEBUG:
            return LOG_DEBUG;
        case LUMORA_LOG_INFO:
            return LOG_INFO;
        case LUMORA_LOG_WARNING:
            return LOG_WARNING;
        default:
            return LOG_ERR;
    }
}

}  // namespace

// Weak, so that a host that links the objects statically can also define the function.
__attribute__((weak)) int lumora_log_print(int /*buffer*/, int priority, const char* tag, const char* format, ...) {
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        syslog(SyslogLevel(priority), "%s: %s", tag, text);
        free(text);
    }
    errno = savedErrno;
    return length;
}
