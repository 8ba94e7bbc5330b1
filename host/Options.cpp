// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include <glib.h>

#include <memory>
#include <optional>

namespace {

constexpr const char* kDescription =
    "Each FILE is the usage history of one device, known by its file name: CSV (RFC 4180; UTF-8, or\n"
    "big-endian UTF-16 with its mark) with the header line\n"
    "  unit_id,unit_name,device_name,start_time,duration\n"
    "start_time counts seconds since 1970 UTC, duration seconds. Its records are added to the store; those\n"
    "that are there already are not stored twice. The ranking is that of everything in the store. Without\n"
    "a FILE, what is stored is ranked.\n"
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
    "  context-host --page week.html tv.csv        the same rankings as a page for a browser, too\n"
    "  context-host --serve 7300 tv.csv            answer context-query, while the history is added and after\n"
    "\n"
    "Exit status:\n"
    "  0  done                                     5  the data directory or the database cannot be used\n"
    "  1  the records could not be stored          6  the port cannot be opened\n"
    "  2  the command line is wrong                7  the page cannot be written\n"
    "  3  a file cannot be read                    8  standard output takes no more\n"
    "  4  a file has a malformed row; nothing of   130  interrupted; what was stored stays\n"
    "     it is stored\n"
    "\n"
    "--page writes one HTML file that needs no network, beside what is printed: the week, the rankings by\n"
    "recency and total use, and how well they foresee.\n"
    "On a terminal headings are bold, unless NO_COLOR is set, and names are cut to its width, or to COLUMNS.\n"
    "In a pipe nothing is.\n"
    "--serve listens on all interfaces: whoever reaches the port can read the rankings.\n"
    "One host at a time uses a store, which is a file in /opt/usr/apps/lumora-service/data.\n"
    "Diagnostics of the library go to the system log.";

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

}  // namespace

std::string ParseOptions(int argc, char** argv, Options& options) {
    char* agent = nullptr;
    char* database = nullptr;
    char* page = nullptr;
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
        {"page", 'p', 0, G_OPTION_ARG_FILENAME, &page, "Write a page for a browser, too", "FILE.html"},
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
    if (page != nullptr) {
        options.page = page;
    }
    for (char** file = files; file != nullptr && *file != nullptr; ++file) {
        options.files.emplace_back(*file);
    }
    const std::string agentName = agent != nullptr ? agent : (options.weekly ? "date" : "mfu");
    g_free(agent);
    g_free(database);
    const bool isPageNamed = page == nullptr || (!options.page.empty() && options.page != "-");
    g_free(page);
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
    if (options.port != kNoPort && (options.evaluate || options.weekly || options.json || !options.page.empty())) {
        return "--serve answers requests: drop --evaluate, --weekly, --json and --page";
    }
    if (options.port < kNoPort || options.port > 65535) {
        return "--serve takes a port from 0 to 65535";
    }
    if (!isPageNamed) {
        return "--page takes the name of the file to write, such as week.html";
    }
    if (options.max < 0 || options.minDuration < 0) {
        return "--max and --min-duration take numbers from 0";
    }
    if (options.database.empty() || options.database.find('/') != std::string::npos) {
        return "--database takes a plain file name";
    }
    return "";
}
