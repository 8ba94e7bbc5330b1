// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include <ContextDatabase.h>
#include <glib.h>

#include <memory>
#include <optional>
#include <utility>

#include "AgentName.h"
#include "Decimal.h"
#include "StoreGuard.h"
#include "Terminal.h"

namespace {

constexpr int kLargestPort = 65535;
constexpr std::size_t kLongestShown = 60;  // characters of a wrong value

constexpr const char* kDescription =
    "Each FILE is the usage history of one device: CSV (RFC 4180), in UTF-8 or in big-endian UTF-16 with a\n"
    "byte order mark, with the header line\n"
    "  unit_id,unit_name,device_name,start_time,duration\n"
    "start_time is in seconds since 1970-01-01 UTC, duration in seconds. The file name, without folder and\n"
    "extension, identifies the history: importing it again adds only its new records. The ranking covers\n"
    "all stored records. Without a FILE, nothing is imported.\n"
    "\n"
    "Agents:\n"
    "  mru    the units used most recently\n"
    "  mfu    the units used longest in total\n"
    "  date   the units usual at this hour of this weekday, in local time (set TZ for another zone)\n"
    "\n"
    "Examples:\n"
    "  context-host tv.csv phone.csv               import two histories, rank by total use\n"
    "  context-host --agent date --max 3           rank for the current hour, from the stored records\n"
    "  TZ=Europe/Paris context-host --weekly       print the top unit of every hour of the week\n"
    "  context-host --agent mru --json             print the ranking as JSON text only\n"
    "  context-host --evaluate                     measure how well each ranking predicts the next use\n"
    "  context-host --page week.html tv.csv        also write the results as a page for a browser\n"
    "  context-host --serve 7300 tv.csv            answer context-query, during the import and after it\n"
    "\n"
    "Exit status:\n"
    "  0  success                                  5  the data directory or the database cannot be used\n"
    "  1  the records could not all be stored      6  the port cannot be opened\n"
    "  2  wrong command line                       7  the page cannot be written\n"
    "  3  a FILE cannot be read                    8  standard output cannot be written\n"
    "  4  a FILE is malformed; nothing is          9  out of memory, or another unexpected failure\n"
    "     imported from any FILE                 130  interrupted during the import; the records stored\n"
    "                                                 so far remain\n"
    "\n"
    "--page writes one HTML file that needs no network: the week, the rankings by recency and by total use,\n"
    "and how well the rankings predict the next use.\n"
    "On a terminal, headings are bold unless NO_COLOR is set, and names are cut to fit the width of the\n"
    "terminal or COLUMNS. Other output is plain and complete.\n"
    "--serve listens on all interfaces: anyone who can reach the port can read the rankings.\n"
    "The library logs to the system log.\n"
    "Only one context-host at a time can use a store. The stores are in\n"
    "  ";

/// The variables that GLib fills in. Frees the strings.
struct Arguments {
    Arguments() = default;
    ~Arguments() {
        g_free(agent);
        g_free(max);
        g_free(minDuration);
        g_free(port);
        g_free(database);
        g_free(page);
        g_strfreev(files);
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    char* agent = nullptr;
    char* max = nullptr;
    char* minDuration = nullptr;
    char* port = nullptr;
    char* database = nullptr;
    char* page = nullptr;
    char** files = nullptr;
    gboolean weekly = FALSE;
    gboolean json = FALSE;
    gboolean evaluate = FALSE;
    gboolean trackMemory = FALSE;
};

/// @return the error; empty if there is none.
std::string Parse(int argc, char** argv, Arguments& given) {
    const GOptionEntry entries[] = {
        {"agent", 'a', 0, G_OPTION_ARG_STRING, &given.agent,
         "Rank by mru, mfu or date (default: mfu; with --weekly date)", "AGENT"},
        {"max", 'n', 0, G_OPTION_ARG_STRING, &given.max, "Show at most N units (default: 10)", "N"},
        {"min-duration", 'd', 0, G_OPTION_ARG_STRING, &given.minDuration, "Ignore uses shorter than S seconds", "S"},
        {"weekly", 'w', 0, G_OPTION_ARG_NONE, &given.weekly, "Rank each hour of the week (agent date)", nullptr},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &given.json, "Print JSON text instead of a table", nullptr},
        {"evaluate", 'e', 0, G_OPTION_ARG_NONE, &given.evaluate, "Measure how often the next use was predicted",
         nullptr},
        {"page", 'p', 0, G_OPTION_ARG_FILENAME, &given.page, "Also write a page for a browser", "FILE.html"},
        {"serve", 's', 0, G_OPTION_ARG_STRING, &given.port, "Answer context-query on PORT until interrupted", "PORT"},
        {"track-memory", 0, 0, G_OPTION_ARG_NONE, &given.trackMemory, "Track the host's own buffers; print counters",
         nullptr},
        {"database", 0, 0, G_OPTION_ARG_STRING, &given.database, "File name of the store (default: usage.db)", "NAME"},
        {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &given.files, nullptr, "[FILE...]"},
        {},
    };
    const std::unique_ptr<GOptionContext, decltype(&g_option_context_free)> context(
        g_option_context_new("- rank what a device is used for"), g_option_context_free);
    g_option_context_add_main_entries(context.get(), entries, nullptr);
    g_option_context_set_summary(context.get(), "Stores usage histories and ranks the units that were used.");
    g_option_context_set_description(context.get(),
                                     (std::string(kDescription) + ContextDatabase::kDataDirectory).c_str());
    GError* error = nullptr;
    if (g_option_context_parse(context.get(), &argc, &argv, &error) != FALSE) {
        return "";
    }
    std::string message = error->message;
    g_error_free(error);
    return message;
}

/// Reads the value of an option, if it is given. GLib would also read "010" as 8.
/// @return the error; empty if there is none.
template <class Number>
std::string ReadNumber(const char* option, const char* text, Number& number) {
    if (text == nullptr) {
        return "";
    }
    const std::optional<int> value = DecimalIn(text);
    if (!value) {
        return std::string(option) + " takes a whole number, not \"" + Terminal::Escaped(text, kLongestShown) + "\"";
    }
    number = *value;
    return "";
}

/// Copies the options that GLib has parsed, except the agent.
/// @return the error; empty if there is none.
std::string Copy(const Arguments& given, Options& options) {
    options.weekly = given.weekly != FALSE;
    options.json = given.json != FALSE;
    options.evaluate = given.evaluate != FALSE;
    options.trackMemory = given.trackMemory != FALSE;
    if (given.page != nullptr) {
        options.page = given.page;
    }
    if (given.database != nullptr) {
        options.database = given.database;
    }
    for (char** file = given.files; file != nullptr && *file != nullptr; ++file) {
        options.files.emplace_back(*file);
    }
    std::string problem = ReadNumber("--max", given.max, options.max);
    if (problem.empty()) {
        problem = ReadNumber("--min-duration", given.minDuration, options.minDuration);
    }
    return problem.empty() ? ReadNumber("--serve", given.port, options.port) : problem;
}

/// @return the first rule that the options break; empty if there is none.
std::string Check(const Arguments& given, const Options& options) {
    const std::pair<bool, const char*> rules[] = {
        {options.weekly && options.agent != CURATOR_AGENT_DATE,
         "--weekly needs the agent date: drop --weekly or --agent"},
        {options.evaluate && (options.weekly || options.json), "--evaluate cannot be combined with --weekly or --json"},
        {options.evaluate && given.agent != nullptr, "--evaluate tests every ranking: drop --agent"},
        {options.evaluate && given.max != nullptr && !options.page, "--evaluate lists no units: drop --max"},
        {options.port && (options.evaluate || options.weekly || options.json || options.page),
         "--serve cannot be combined with --evaluate, --weekly, --json or --page"},
        {options.port && given.agent != nullptr, "--serve answers for every agent: drop --agent"},
        {options.port && *options.port > kLargestPort, "--serve takes a port from 0 to 65535"},
        {options.page && (options.page->empty() || *options.page == "-"),
         "--page takes the name of the file to write, such as week.html"},
        {!StoreGuard::IsName(options.database),
         "--database takes a file name without a folder, of at most 200 bytes, that does not end in -journal, -wal, "
         "-shm, .lock or .kept"},
    };
    for (const auto& [isBroken, message] : rules) {
        if (isBroken) {
            return message;
        }
    }
    return "";
}

}  // namespace

std::string ParseOptions(int argc, char** argv, Options& options) {
    Arguments given;
    std::string problem = Parse(argc, argv, given);
    if (!problem.empty()) {
        return problem;
    }
    problem = Copy(given, options);
    if (!problem.empty()) {
        return problem;
    }
    const std::string name = given.agent != nullptr ? given.agent : (options.weekly ? "date" : "mfu");
    const std::optional<ECuratorAgentType> agent = AgentNamed(name);
    if (!agent) {
        return "there is no agent \"" + Terminal::Escaped(name, kLongestShown) + "\": choose mru, mfu or date";
    }
    options.agent = *agent;
    return Check(given, options);
}
