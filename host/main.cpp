// SPDX-License-Identifier: Apache-2.0
#include <ContextDatabase.h>
#include <fcntl.h>
#include <glib.h>
#include <pwd.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "ContextHost.h"
#include "ExitStatus.h"
#include "HistoryProvider.h"
#include "HostMemory.h"
#include "Options.h"
#include "RankingServer.h"
#include "Report.h"
#include "Results.h"
#include "Terminal.h"

namespace {

// Records per transaction. Limits the memory of the deferred statements.
constexpr std::size_t kBatchSize = 20000;

volatile std::sig_atomic_t g_interrupted = 0;
sem_t g_interrupt;  // a service that waits for an interrupt blocks on this

void CatchInterrupts() {
    sem_init(&g_interrupt, /*pshared=*/0, /*value=*/0);
    struct sigaction action {};
    action.sa_handler = [](int) {
        g_interrupted = 1;
        sem_post(&g_interrupt);
    };
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // a second signal ends the program at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);  // a client may disconnect before its answer is sent
}

/// Reads errno.
/// @return the error message for a file or folder that cannot be written.
std::string CannotWrite(const std::string& path) {
    const int reason = errno;
    std::string message = "cannot write to " + path + ": " + g_strerror(reason);
    struct stat status {};
    if (reason == EACCES && stat(path.c_str(), &status) == 0 && status.st_uid != getuid()) {
        const passwd* owner = getpwuid(status.st_uid);
        message += "; run as its owner, " +
                   (owner != nullptr ? std::string(owner->pw_name) : "user " + std::to_string(status.st_uid));
    }
    return message;
}

/// Locks the store for the lifetime of the process, and checks that it is writable. A failed write, for example
/// because another process locks the file, would wipe it.
/// @return the error, for the user; empty if there is none.
std::string LockStore(const std::string& database) {
    const std::string folder = ContextDatabase::kDataDirectory;
    if (access(folder.c_str(), F_OK) != 0) {
        return "the folder " + folder + " does not exist; create it with: sudo install -d -o \"$(id -un)\" " + folder;
    }
    if (access(folder.c_str(), R_OK | W_OK | X_OK) != 0) {
        return CannotWrite(folder);
    }
    const std::string store = folder + database;
    if (access(store.c_str(), R_OK | W_OK) != 0 && errno != ENOENT) {
        return CannotWrite(store);
    }
    const std::string path = store + ".lock";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file < 0) {
        return CannotWrite(path);
    }
    return flock(file, LOCK_EX | LOCK_NB) == 0 ? ""
                                               : "another context-host is using the store " + database +
                                                     "; stop it or choose another store with --database";
}

/// Publishes every history in batches, and waits until each batch is in the file.
ExitStatus Import(ContextHost& host, std::vector<HistoryProvider>& providers) {
    std::size_t all = 0;
    for (HistoryProvider& provider : providers) {
        provider.SetProviderHandler(&host);
        provider.AddInSubject(provider.Subject().c_str());
        all += provider.Size();
    }
    Report::ProgressBar bar;
    std::size_t done = 0;
    const auto flush = [&] {
        host.EndBatch();
        return host.WaitForFlush([&] { bar.Draw("storing", done, all); });
    };
    bool isStored = true;
    host.BeginBatch();
    for (HistoryProvider& provider : providers) {
        provider.PublishAll([&] {
            if (isStored && done > 0 && done % kBatchSize == 0) {
                isStored = flush();
                host.BeginBatch();
            }
            if (g_interrupted != 0 || !isStored) {
                return false;
            }
            ++done;
            bar.Draw("storing", done, all);
            return true;
        });
    }
    isStored = flush() && isStored;
    if (!isStored) {
        return EXIT_NOT_STORED;
    }
    return host.HasEverythingArrived() ? EXIT_OK : EXIT_INTERRUPTED;
}

/// Imports the files of the command line, then shows results or serves until interrupted.
int Run(ContextHost& host, std::vector<HistoryProvider>& providers, const Options& options) {
    RankingServer server(host, options.max, options.minDuration);
    if (options.port) {
        const int port = server.Open(*options.port);
        if (port < 0) {
            return Complain(EXIT_NO_PORT, "cannot open port " + std::to_string(*options.port) +
                                              ": it is in use, or you may not open it; --serve 0 lets the system "
                                              "choose a port");
        }
        std::fprintf(stderr, "serving at port %d; try: context-query %d rank mfu 3\n", port, port);
    }
    if (!providers.empty()) {
        const int before = host.CountRecords();
        const ExitStatus status = Import(host, providers);
        if (status == EXIT_NOT_STORED) {
            return Complain(
                status, "the records could not all be stored: see the system log; a failed write empties the store");
        }
        const int added = host.CountRecords() - before;
        if (status == EXIT_INTERRUPTED) {
            return Complain(status, "interrupted: " + std::to_string(added) +
                                        " new records stored; run the command again to store the rest");
        }
        std::fprintf(stderr, "%d new records stored\n", added);
    }
    if (options.port) {
        while (g_interrupted == 0) {
            sem_wait(&g_interrupt);
        }
        return EXIT_OK;
    }
    return ShowResults(host, options);
}

}  // namespace

int main(int argc, char** argv) {
    Terminal::GuardStandardFiles();
    std::setlocale(LC_CTYPE, "");
    Options options;
    const std::string problem = ParseOptions(argc, argv, options);
    if (!problem.empty()) {
        return Complain(EXIT_USAGE, problem + " (context-host --help shows the options)");
    }
    std::optional<HostMemory> memory;
    if (options.trackMemory) {
        memory.emplace();
    }
    std::vector<HistoryProvider> providers;
    try {
        for (const std::string& file : options.files) {
            providers.emplace_back(file);
        }
    } catch (const HistoryError& error) {
        return Complain(error.GetKind() == HistoryError::Kind::Unreadable ? EXIT_UNREADABLE : EXIT_MALFORMED,
                        error.what());
    }
    const std::string refusal = LockStore(options.database);
    if (!refusal.empty()) {
        return Complain(EXIT_NO_DATABASE, refusal);
    }
    CatchInterrupts();
    ContextHost host(options.database);
    if (!host.IsOpen()) {
        return Complain(EXIT_NO_DATABASE, std::string("cannot open ") + ContextDatabase::kDataDirectory +
                                              options.database + "; the system log says why");
    }
    const int status = Run(host, providers, options);
    if (memory) {
        std::fprintf(stderr, "the host's own buffers: %s\n", memory->Counters().c_str());
    }
    return status;
}
