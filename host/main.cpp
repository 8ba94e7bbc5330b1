// SPDX-License-Identifier: Apache-2.0
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
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ContextHost.h"
#include "Evaluation.h"
#include "HistoryProvider.h"
#include "HostMemory.h"
#include "Options.h"
#include "Page.h"
#include "RankingServer.h"
#include "Report.h"
#include "Terminal.h"

namespace {

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
    EXIT_INTERRUPTED = 130,
};

constexpr const char* kDataDirectory = "/opt/usr/apps/lumora-service/data/";

// Bounds the memory of what waits for a flush: about 10 MB.
constexpr std::size_t kBatchSize = 20000;

volatile std::sig_atomic_t g_interrupted = 0;
sem_t g_interrupt;  // posted once: what waits for the end sleeps until then

void CatchInterrupts() {
    sem_init(&g_interrupt, /*pshared=*/0, /*value=*/0);
    struct sigaction action {};
    action.sa_handler = [](int) {
        g_interrupted = 1;
        sem_post(&g_interrupt);
    };
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // the second time ends the program at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);  // a client may go before its answer comes
}

/// @return what to say of a file or folder that refuses to be written, with errno as the refusal has left it.
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

/// Keeps the store to this process for as long as it runs: a write that meets another's lock would wipe the file, and
/// so would one to a file that is not this user's.
/// @return why that is not possible, or "".
std::string TakeStore(const std::string& database) {
    if (access(kDataDirectory, F_OK) != 0) {
        return std::string("there is no folder ") + kDataDirectory +
               "; make it with: sudo install -d -o \"$(id -un)\" " + kDataDirectory;
    }
    if (access(kDataDirectory, R_OK | W_OK | X_OK) != 0) {
        return CannotWrite(kDataDirectory);
    }
    const std::string store = kDataDirectory + database;
    if (access(store.c_str(), R_OK | W_OK) != 0 && errno != ENOENT) {
        return CannotWrite(store);
    }
    const std::string path = store + ".lock";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file < 0) {
        return CannotWrite(path);
    }
    return flock(file, LOCK_EX | LOCK_NB) == 0
               ? ""
               : "another context-host uses the store " + database + "; end it or choose --database";
}

ExitStatus Complain(ExitStatus status, const std::string& message) {
    std::fprintf(stderr, "context-host: %s\n", message.c_str());
    return status;
}

/// Publishes every history, in batches, and waits for each batch to reach the file.
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

void Rank(ContextHost& host, const Options& options) {
    CCuratorAgent agent(options.agent, options.max, options.minDuration);
    host.ForEachPage([&](const std::vector<CuratorBaseData>& page) { agent.LearnHistorys(page); });
    if (options.weekly) {
        const CuratorBaseData7x24 grid = agent.RunCurate7x24();
        if (options.json) {
            std::fputs(CurationResult2JsonData(grid, CuratorData2ContextData).c_str(), stdout);
        } else {
            Report::PrintWeek(grid, host.CountRecords());
        }
        return;
    }
    const std::list<CuratorBaseData> ranking = agent.RunCurate();
    if (options.json) {
        std::fputs(CurationResult2JsonData(ranking, CuratorData2ContextData).c_str(), stdout);
    } else {
        Report::PrintRanking(ranking, options.agent, host.CountRecords());
    }
}

/// Replays what is stored.
std::vector<Evaluation::Result> Evaluate(ContextHost& host, const Options& options) {
    Evaluation evaluation;
    const int all = host.CountRecords();
    int index = 0;
    host.ForEachPage([&](const std::vector<CuratorBaseData>& page) {
        for (const CuratorBaseData& record : page) {
            const bool isLastFifth = index++ >= all - all / 5;
            if (record.m_nDuration >= static_cast<unsigned int>(options.minDuration)) {
                evaluation.Take(record, isLastFifth);
            }
        }
    });
    return evaluation.Results();
}

/// Writes all that is known about the store to a page.
ExitStatus WritePage(ContextHost& host, const std::vector<Evaluation::Result>& evaluation, const Options& options) {
    CCuratorAgent recent(CURATOR_AGENT_MRU, options.max, options.minDuration);
    CCuratorAgent total(CURATOR_AGENT_MFU, options.max, options.minDuration);
    CCuratorAgent date(CURATOR_AGENT_DATE, options.max, options.minDuration);
    host.ForEachPage([&](const std::vector<CuratorBaseData>& page) {
        for (CCuratorAgent* agent : {&recent, &total, &date}) {
            agent->LearnHistorys(page);
        }
    });
    const std::string page =
        Page::Make({date.RunCurate7x24(), recent.RunCurate(), total.RunCurate(), evaluation, host.CountRecords()});
    const std::string problem = Page::Write(options.page, page);
    if (!problem.empty()) {
        return Complain(EXIT_NO_PAGE, "the page is not written: " + problem);
    }
    std::fprintf(stderr, "%s written; open it with a browser\n", options.page.c_str());
    return EXIT_OK;
}

/// Prints what the command line asks for, behind the page, if it asks for one.
ExitStatus Tell(ContextHost& host, const Options& options) {
    std::vector<Evaluation::Result> evaluation;
    if (options.evaluate || !options.page.empty()) {
        evaluation = Evaluate(host, options);
    }
    if (!options.page.empty()) {
        const ExitStatus status = WritePage(host, evaluation, options);
        if (status != EXIT_OK) {
            return status;
        }
    }
    if (options.evaluate) {
        Report::PrintEvaluation(evaluation, host.CountRecords());
    } else {
        Rank(host, options);
    }
    const std::string problem = Terminal::FinishOutput();
    return problem.empty() ? EXIT_OK : Complain(EXIT_NO_OUTPUT, problem);
}

/// Imports what the command line names, then prints or serves.
int Run(ContextHost& host, std::vector<HistoryProvider>& providers, const Options& options) {
    RankingServer server(host, options.max, options.minDuration);
    if (options.port != kNoPort) {
        const int port = server.Open(options.port);
        if (port < 0) {
            return Complain(EXIT_NO_PORT, "cannot open port " + std::to_string(options.port) +
                                              ": it is taken, or not this user's to open; with --serve 0 the system "
                                              "chooses one");
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
                                        " new records are stored; run the command again for the rest");
        }
        std::fprintf(stderr, "%d new records stored\n", added);
    }
    if (options.port != kNoPort) {
        while (g_interrupted == 0) {
            sem_wait(&g_interrupt);
        }
        return EXIT_OK;
    }
    return Tell(host, options);
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
    const std::string refusal = TakeStore(options.database);
    if (!refusal.empty()) {
        return Complain(EXIT_NO_DATABASE, refusal);
    }
    CatchInterrupts();
    ContextHost host(options.database);
    if (!host.IsOpen()) {
        return Complain(EXIT_NO_DATABASE,
                        std::string("cannot open ") + kDataDirectory + options.database + "; the system log says why");
    }
    const int status = Run(host, providers, options);
    if (memory) {
        std::fprintf(stderr, "the host's own buffers: %s\n", memory->Counters().c_str());
    }
    return status;
}
