// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

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
#include "RankingServer.h"
#include "Report.h"

namespace {

enum ExitStatus {
    EXIT_OK = 0,
    EXIT_NOT_STORED = 1,
    EXIT_USAGE = 2,
    EXIT_UNREADABLE = 3,
    EXIT_MALFORMED = 4,
    EXIT_NO_DATABASE = 5,
    EXIT_NO_PORT = 6,
    EXIT_INTERRUPTED = 130,
};

constexpr const char* kDataDirectory = "/opt/usr/apps/lumora-service/data/";

constexpr int kNoPort = -1;
constexpr gulong kWaitMicroseconds = 200000;

// Bounds the memory of what waits for a flush: about 10 MB.
constexpr std::size_t kBatchSize = 20000;

constexpr const char* kDescription =
    "Each FILE is the usage history of one device, known by its file name: CSV with the header line\n"
    "unit_id,unit_name,device_name,start_time,duration (RFC 4180; UTF-8, or big-endian UTF-16 with its mark;\n"
    "start_time in seconds since 1970 UTC, duration in seconds). Its records are added to the store; those that are "
    "there already are not stored twice.\n"
    "The ranking is that of everything in the store. Without a FILE, what is stored is ranked.\n"
    "\n"
    "Agents:\n"
    "  mru    the units used most recently\n"
    "  mfu    the units used longest in total\n"
    "  date   the units usual at this hour of this weekday, in local time (set TZ for another zone)\n"
    "\n"
    "Examples:\n"
    "  context-host tv.csv phone.csv               add two histories, rank by total use\n"
    "  context-host --agent date --max 3           what is usual now, from what is stored\n"
    "  TZ=Europe/Paris context-host --weekly       the first unit of every hour of the week\n"
    "  context-host --agent mru --json             the ranking as JSON text, and nothing else\n"
    "  context-host --evaluate                     how well each ranking foresees the next use\n"
    "  context-host --serve 7300 tv.csv            answer context-query, while the history is added and after\n"
    "\n"
    "Exit status:\n"
    "  0  done                                     3  a file cannot be read\n"
    "  1  the records could not be stored          4  a file has a malformed row; nothing of it is stored\n"
    "  2  the command line is wrong                5  the data directory or the database cannot be used\n"
    "  130  interrupted; what was stored stays     6  the port cannot be opened\n"
    "\n"
    "--serve listens on all interfaces: whoever reaches the port can read the rankings. One host at a time uses a "
    "store.\n"
    "The store is a file in /opt/usr/apps/lumora-service/data. Diagnostics of the library go to the system log.";

struct Options {
    ECuratorAgentType agent = CURATOR_AGENT_MFU;
    int max = 10;
    int minDuration = 0;
    bool weekly = false;
    bool json = false;
    bool evaluate = false;
    bool trackMemory = false;
    int port = kNoPort;
    std::string database = "usage.db";
    std::vector<std::string> files;
};

volatile std::sig_atomic_t g_interrupted = 0;

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = [](int) { g_interrupted = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // the second time ends the program at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);  // a client may go before its answer comes
}

/// Keeps the store to this process for as long as it runs: a write that meets another's lock would wipe the file.
bool LockStore(const std::string& database) {
    const std::string path = kDataDirectory + database + ".lock";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    return file >= 0 && flock(file, LOCK_EX | LOCK_NB) == 0;
}

int Complain(ExitStatus status, const std::string& message) {
    std::fprintf(stderr, "context-host: %s\n", message.c_str());
    return status;
}

std::optional<ECuratorAgentType> AgentNamed(const std::string& name) {
    if (name == "mru") {
        return CURATOR_AGENT_MRU;
    }
    if (name == "mfu") {
        return CURATOR_AGENT_MFU;
    }
    if (name == "date") {
        return CURATOR_AGENT_DATE;
    }
    return std::nullopt;
}

/// @return what is wrong with the command line; empty when nothing is.
std::string Parse(int argc, char** argv, Options& options) {
    char* agent = nullptr;
    char* database = nullptr;
    char** files = nullptr;
    gboolean weekly = FALSE;
    gboolean json = FALSE;
    gboolean evaluate = FALSE;
    gboolean trackMemory = FALSE;
    const GOptionEntry entries[] = {
        {"agent", 'a', 0, G_OPTION_ARG_STRING, &agent, "Rank by mru, mfu or date (default: mfu)", "AGENT"},
        {"max", 'n', 0, G_OPTION_ARG_INT, &options.max, "Show at most N units (default: 10)", "N"},
        {"min-duration", 'd', 0, G_OPTION_ARG_INT, &options.minDuration, "Pass over uses shorter than S seconds", "S"},
        {"weekly", 'w', 0, G_OPTION_ARG_NONE, &weekly, "Rank each hour of the week (agent date)", nullptr},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &json, "Print the library's JSON text instead of a table", nullptr},
        {"evaluate", 'e', 0, G_OPTION_ARG_NONE, &evaluate,
         "Replay the last fifth: how often was the next use foreseen?", nullptr},
        {"serve", 's', 0, G_OPTION_ARG_INT, &options.port, "Answer context-query at PORT until interrupted", "PORT"},
        {"track-memory", 0, 0, G_OPTION_ARG_NONE, &trackMemory, "Watch the host's own buffers; print their counters",
         nullptr},
        {"database", 0, 0, G_OPTION_ARG_STRING, &database, "Name of the store (default: usage.db)", "NAME"},
        {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &files, nullptr, "[FILE...]"},
        {},
    };
    const std::unique_ptr<GOptionContext, decltype(&g_option_context_free)> context(
        g_option_context_new("- rank what a device is used for"), g_option_context_free);
    g_option_context_add_main_entries(context.get(), entries, nullptr);
    g_option_context_set_summary(context.get(), "Stores usage histories and ranks the units that were used.");
    g_option_context_set_description(context.get(), kDescription);

    std::string problem;
    GError* error = nullptr;
    if (g_option_context_parse(context.get(), &argc, &argv, &error) == FALSE) {
        problem = error->message;
        g_error_free(error);
    }
    options.weekly = weekly != FALSE;
    options.json = json != FALSE;
    options.evaluate = evaluate != FALSE;
    options.trackMemory = trackMemory != FALSE;
    if (database != nullptr) {
        options.database = database;
    }
    for (char** file = files; file != nullptr && *file != nullptr; ++file) {
        options.files.emplace_back(*file);
    }
    const std::string agentName = agent != nullptr ? agent : (options.weekly ? "date" : "mfu");
    g_free(agent);
    g_free(database);
    g_strfreev(files);

    const std::optional<ECuratorAgentType> named = AgentNamed(agentName);
    options.agent = named.value_or(CURATOR_AGENT_MFU);
    if (!problem.empty()) {
        return problem;
    }
    if (!named) {
        return "There is no agent \"" + agentName + "\": choose mru, mfu or date";
    }
    if (options.weekly && options.agent != CURATOR_AGENT_DATE) {
        return "Only the agent date knows the hours of the week: drop --agent or --weekly";
    }
    if (options.evaluate && (options.weekly || options.json)) {
        return "--evaluate prints a table of its own: drop --weekly and --json";
    }
    if (options.port != kNoPort && (options.evaluate || options.weekly || options.json)) {
        return "--serve answers requests: drop --evaluate, --weekly and --json";
    }
    if (options.port < kNoPort || options.port > 65535) {
        return "--serve takes a port from 0 to 65535";
    }
    if (options.max < 0 || options.minDuration < 0) {
        return "--max and --min-duration take numbers from 0";
    }
    if (options.database.empty() || options.database.find('/') != std::string::npos) {
        return "--database takes a plain file name";
    }
    return "";
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

void Evaluate(ContextHost& host, const Options& options) {
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
    Report::PrintEvaluation(evaluation.Results(), all);
}

/// Imports what the command line names, then prints or serves.
int Run(ContextHost& host, std::vector<HistoryProvider>& providers, const Options& options) {
    RankingServer server(host, options.max, options.minDuration);
    if (options.port != kNoPort) {
        const int port = server.Open(options.port);
        if (port < 0) {
            return Complain(EXIT_NO_PORT, "cannot open port " + std::to_string(options.port));
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
            g_usleep(kWaitMicroseconds);
        }
    } else if (options.evaluate) {
        Evaluate(host, options);
    } else {
        Rank(host, options);
    }
    return EXIT_OK;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");
    Options options;
    const std::string problem = Parse(argc, argv, options);
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
    if (access(kDataDirectory, R_OK | W_OK | X_OK) != 0) {
        return Complain(EXIT_NO_DATABASE, std::string("cannot write to ") + kDataDirectory +
                                              "; make it with: sudo install -d -o \"$(id -un)\" " + kDataDirectory);
    }
    if (!LockStore(options.database)) {
        return Complain(EXIT_NO_DATABASE,
                        "another context-host uses the store " + options.database + "; end it or choose --database");
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
