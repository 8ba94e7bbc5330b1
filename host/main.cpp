// SPDX-License-Identifier: Apache-2.0
#include <ContextDatabase.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "ContextHost.h"
#include "ExitStatus.h"
#include "HistoryProvider.h"
#include "HostMemory.h"
#include "Interrupts.h"
#include "Options.h"
#include "RankingServer.h"
#include "Report.h"
#include "Results.h"
#include "StoreGuard.h"
#include "Terminal.h"

namespace {

// Records per transaction. Limits the memory of the deferred statements.
constexpr std::size_t kBatchSize = 20000;

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
            if (Interrupts::IsNoted() || !isStored) {
                return false;
            }
            ++done;
            bar.Draw("storing", done, all);
            return true;
        });
    }
    isStored = isStored && flush();
    if (!isStored) {
        return EXIT_NOT_STORED;
    }
    return host.HasEverythingArrived() ? EXIT_OK : EXIT_INTERRUPTED;
}

/// Imports the files of the command line. Prints the outcome, except EXIT_NOT_STORED.
ExitStatus ImportFiles(ContextHost& host, std::vector<HistoryProvider>& providers) {
    const int before = host.CountRecords();
    const ExitStatus status = Import(host, providers);
    const int added = host.CountRecords() - before;
    if (status == EXIT_INTERRUPTED) {
        return Complain(status, "interrupted: " + std::to_string(added) +
                                    " new records stored; run the command again to store the rest");
    }
    if (status == EXIT_OK) {
        std::fprintf(stderr, "%d new records stored\n", added);
    }
    return status;
}

/// Imports the files of the command line, then shows results or serves until interrupted.
/// @return the exit status. The error has been printed, unless it is EXIT_NOT_STORED.
ExitStatus Run(ContextHost& host, StoreGuard& guard, std::vector<HistoryProvider>& providers, const Options& options) {
    RankingServer server(host, options.max, options.minDuration);
    const int port = options.port ? server.Open(*options.port) : 0;
    if (port < 0) {
        return Complain(EXIT_NO_PORT, "cannot open port " + std::to_string(*options.port) +
                                          ": it is in use, or you may not open it; --serve 0 lets the system "
                                          "choose a port");
    }
    if (options.port) {
        Interrupts::Catch();
        std::fprintf(stderr, "serving at port %d; try: context-query %d rank mfu 3\n", port, port);
    }
    const ExitStatus status = providers.empty() ? EXIT_OK : ImportFiles(host, providers);
    host.EndWriting();
    if (status != EXIT_OK) {
        return status;
    }
    if (!guard.IsIntact()) {
        return EXIT_NOT_STORED;
    }
    const std::string problem = guard.Release();  // nothing is written any more
    if (!problem.empty()) {
        return Complain(EXIT_NO_DATABASE, problem);
    }
    if (options.port) {
        Interrupts::Wait();
        return EXIT_OK;
    }
    Interrupts::Release();
    return ShowResults(host, options);
}

ExitStatus RunOnStore(const Options& options, std::vector<HistoryProvider>& providers) {
    StoreGuard guard(options.database);
    const std::string refusal = guard.Take();
    if (!refusal.empty()) {
        return Complain(EXIT_NO_DATABASE, refusal);
    }
    const std::string path = ContextDatabase::kDataDirectory + options.database;
    if (!providers.empty()) {
        Interrupts::Catch();
    }
    ExitStatus status = EXIT_OK;
    bool isOpen = false;
    {
        ContextHost host(options.database);
        isOpen = host.IsOpen() && guard.IsIntact();
        if (isOpen) {
            status = Run(host, guard, providers, options);
        }
    }
    const std::string problem = guard.Release();
    if (!problem.empty()) {
        return Complain(EXIT_NO_DATABASE, problem);
    }
    if (!isOpen) {
        return Complain(EXIT_NO_DATABASE,
                        "cannot open " + path + "; the system log says why; the records in it remain");
    }
    return status != EXIT_NOT_STORED
               ? status
               : Complain(status,
                          "the records could not all be stored: the disk may be full; the system log says why; "
                          "the records stored before remain");
}

/// Does what the command line asks for.
ExitStatus Perform(const Options& options) {
    std::vector<HistoryProvider> providers;
    try {
        for (const std::string& file : options.files) {
            providers.emplace_back(file);
        }
    } catch (const HistoryError& error) {
        return Complain(error.GetKind() == HistoryError::Kind::Unreadable ? EXIT_UNREADABLE : EXIT_MALFORMED,
                        error.what());
    }
    return RunOnStore(options, providers);
}

}  // namespace

int main(int argc, char** argv) {
    Terminal::GuardStandardFiles();
    std::setlocale(LC_CTYPE, "");
    std::signal(SIGPIPE, SIG_IGN);  // a client or a reader may leave before its answer is written
    try {
        Options options;
        const std::string problem = ParseOptions(argc, argv, options);
        if (!problem.empty()) {
            return Complain(EXIT_USAGE, problem + " (context-host --help shows the options)");
        }
        std::optional<HostMemory> memory;
        if (options.trackMemory) {
            memory.emplace();
        }
        const ExitStatus status = Perform(options);
        if (memory) {
            std::fprintf(stderr, "the host's own buffers: %s\n", memory->Counters().c_str());
        }
        return status;
    } catch (const std::bad_alloc&) {
        std::fputs("context-host: out of memory; the stored records remain\n", stderr);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "context-host: failed: %s; the stored records remain\n", error.what());
    }
    return EXIT_FAILED;
}
