// SPDX-License-Identifier: Apache-2.0
//
// In the coverage build, this file is part of every program and of the library. The counters are normally written by
// exit() only. This also writes them when the process aborts or calls _Exit(), and despite a limit on its memory or on
// the size of its files. Each shared object has its own counters and its own copy of these functions.
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <initializer_list>

extern "C" void __gcov_dump();
extern "C" void __gcov_reset();

namespace {

struct sigaction g_previous {};  ///< calls the copy of an object that was loaded earlier

/// Lifts the limits that would truncate the counters' files, for all objects alike.
void LiftLimits() {
    for (const auto resource : {RLIMIT_AS, RLIMIT_FSIZE}) {
        rlimit limit{};
        getrlimit(resource, &limit);
        limit.rlim_cur = limit.rlim_max = RLIM_INFINITY;
        if (setrlimit(resource, &limit) != 0) {  // an ordinary user may only lift the soft limit
            getrlimit(resource, &limit);
            limit.rlim_cur = limit.rlim_max;
            setrlimit(resource, &limit);
        }
        if (resource == RLIMIT_FSIZE && limit.rlim_cur != RLIM_INFINITY) {
            setenv("GCOV_PREFIX", "/dev/null", /*overwrite=*/1);  // rather no counters than a truncated file
            setenv("GCOV_ERROR_FILE", "/dev/null", /*overwrite=*/1);
        }
    }
}

/// Writes the counters of all objects. Ends the process if `signal` is one.
void Flush(int signal) {
    LiftLimits();
    __gcov_dump();
    __gcov_reset();
    if (g_previous.sa_handler != SIG_DFL && g_previous.sa_handler != SIG_IGN) {
        g_previous.sa_handler(signal);
    } else if (signal != 0) {
        std::signal(signal, SIG_DFL);
        raise(signal);
    }
}

__attribute__((constructor)) void CatchAbort() {
    struct sigaction action {};
    action.sa_handler = Flush;
    sigaction(SIGABRT, &action, &g_previous);
}

__attribute__((destructor)) void FlushAtExit() {
    LiftLimits();  // exit() writes the counters itself, after this
}

}  // namespace

/// Replaces the C library's, for programs only: the library hides its symbols.
extern "C" void _Exit(int status) {
    Flush(/*signal=*/0);
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}
