// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_EXIT_STATUS_H
#define CONTEXT_HOST_EXIT_STATUS_H

#include <cstdio>
#include <string>

#include "Terminal.h"

/// The exit statuses of context-host, as --help and the man page list them.
enum ExitStatus {
    EXIT_OK = 0,
    EXIT_NOT_STORED = 1,
    EXIT_USAGE = 2,
    EXIT_UNREADABLE = 3,
    EXIT_MALFORMED = 4,
    EXIT_NO_DATABASE = 5,
    EXIT_NO_PORT = 6,
    EXIT_NO_PAGE = 7,
    EXIT_NO_OUTPUT = 8,
    EXIT_FAILED = 9,
    EXIT_INTERRUPTED = 130,
};

/// Prints an error message for the user. File names and fields in it may contain anything, so it is escaped.
/// @return `status`, so that the caller can return it.
inline ExitStatus Complain(ExitStatus status, const std::string& message) {
    std::fprintf(stderr, "context-host: %s\n", Terminal::Escaped(message).c_str());
    return status;
}

#endif  // CONTEXT_HOST_EXIT_STATUS_H
