// SPDX-License-Identifier: Apache-2.0
#include "SystemLog.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <new>

namespace {

constexpr int kStackTextSize = 512;  ///< a shorter message is logged even when memory has run out

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
    va_list sameArguments;
    va_start(arguments, format);
    va_copy(sameArguments, arguments);
    char beginning[kStackTextSize];
    const int length = vsnprintf(beginning, sizeof(beginning), format, arguments);
    std::unique_ptr<char[]> whole;
    if (length >= kStackTextSize) {
        const std::size_t size = static_cast<std::size_t>(length) + 1;
        whole.reset(new (std::nothrow) char[size]);
        if (whole != nullptr) {
            vsnprintf(whole.get(), size, format, sameArguments);
        }
    }
    va_end(sameArguments);
    va_end(arguments);
    if (length >= 0) {
        syslog(SyslogLevel(priority), "%s: %s", tag, whole != nullptr ? whole.get() : beginning);
    }
    errno = savedErrno;
    return length;
}
