// SPDX-License-Identifier: Apache-2.0
#include <ContextData.h>
#include <NetUtil.h>
#include <glib.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "Decimal.h"
#include "Terminal.h"

namespace {

using Network::NetUtil;

enum ExitStatus {
    EXIT_ANSWERED = 0,
    EXIT_NO_ANSWER = 1,
    EXIT_USAGE = 2,
    EXIT_REFUSED = 3,
    EXIT_NO_OUTPUT = 8,
};

constexpr const char* kDescription =
    "Requests:\n"
    "  rank mru|mfu|date [N]   the units used most recently, used longest, or usual now; at most N\n"
    "  weekly                  a ranking for each hour of the week\n"
    "  quit                    close the connection; the answer is {\"bye\":true}\n"
    "\n"
    "Examples:\n"
    "  context-host --serve 7300 tv.csv &\n"
    "  context-query 7300 rank date 3\n"
    "\n"
    "Exit status:\n"
    "  0  success                             2  wrong command line\n"
    "  1  no answer, or none that is JSON     3  the answer is an error message\n"
    "                                         8  standard output cannot be written\n";

constexpr int kDefaultTimeout = 10;  // seconds
constexpr int kLargestPort = 65535;

struct Query {
    int port = 0;  ///< from 1 to 65535; 0 if the command line has no such number
    int timeout = kDefaultTimeout;
    std::string request;
};

ExitStatus Complain(ExitStatus status, const std::string& message) {
    std::fprintf(stderr, "context-query: %s\n", Terminal::Escaped(message).c_str());
    return status;
}

void OnTimeout(int /*signal*/) {
    constexpr char kMessage[] = "context-query: no answer in time; --timeout sets how long to wait\n";
    const ssize_t ignored = write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1);
    static_cast<void>(ignored);
    _exit(EXIT_NO_ANSWER);
}

/// Reads the command line. `--help` prints the help text and ends the program.
/// @return the error, for the user; empty if there is none.
std::string ParseCommandLine(int argc, char** argv, Query& query) {
    const std::unique_ptr<GOptionContext, decltype(&g_option_context_free)> context(
        g_option_context_new("PORT REQUEST - query a running context-host --serve and print its JSON answer"),
        g_option_context_free);
    char* timeout = nullptr;
    const GOptionEntry entries[] = {
        {"timeout", 't', 0, G_OPTION_ARG_STRING, &timeout, "Wait at most this long for the answer (default: 10)",
         "SECONDS"},
        {},
    };
    g_option_context_add_main_entries(context.get(), entries, nullptr);
    g_option_context_set_description(context.get(), kDescription);
    g_option_context_set_strict_posix(context.get(), TRUE);  // the words after the port belong to the request
    GError* error = nullptr;
    const bool isParsed = g_option_context_parse(context.get(), &argc, &argv, &error) != FALSE;
    const std::unique_ptr<char, decltype(&g_free)> owner(timeout, g_free);
    if (!isParsed) {
        std::string problem = error->message;
        g_error_free(error);
        return problem;
    }
    query.timeout = timeout != nullptr ? DecimalIn(timeout).value_or(0) : kDefaultTimeout;
    if (query.timeout == 0) {
        return "--timeout takes a whole number of seconds, at least 1";
    }
    query.port = argc > 1 ? DecimalIn(argv[1]).value_or(0) : 0;
    if (argc < 3 || query.port == 0 || query.port > kLargestPort) {
        return "give a port from 1 to 65535 and a request, such as: context-query 7300 rank mru 3";
    }
    query.request = argv[2];
    for (int argument = 3; argument < argc; ++argument) {
        query.request += std::string(" ") + argv[argument];
    }
    return "";
}

/// Ends the program if the server takes longer than the query's time limit.
/// @return the answer to the query; empty if there is none.
std::string Ask(Query query) {
    std::signal(SIGALRM, OnTimeout);
    alarm(static_cast<unsigned int>(query.timeout));
    const int socket = NetUtil::ConnectNewSocket("127.0.0.1", query.port);
    if (socket < 0) {
        return "";
    }
    std::vector<char> answer(NetUtil::kMaxReplySize + 1);  // getMessage() needs a byte more than the payload
    int length = 0;
    const bool isAnswered =
        NetUtil::sendMessage(socket, query.request.data(), static_cast<int>(query.request.size())) == 0 &&
        NetUtil::getMessage(socket, answer.data(), static_cast<int>(answer.size()), length) == 0;
    alarm(0);
    close(socket);
    return isAnswered ? answer.data() : "";
}

/// @return the status for an answer; EXIT_NO_ANSWER if it is not JSON text.
ExitStatus StatusOf(const std::string& answer) {
    ContextData document;
    try {
        if (!document.MakeData(answer.c_str())) {
            return EXIT_NO_ANSWER;
        }
        return document.IsValid("error") ? EXIT_REFUSED : EXIT_ANSWERED;
    } catch (const Json::Exception&) {
        return EXIT_NO_ANSWER;  // the text is nested too deeply, or is no object
    }
}

ExitStatus Run(int argc, char** argv) {
    Query query;
    const std::string fault = ParseCommandLine(argc, argv, query);
    if (!fault.empty()) {
        return Complain(EXIT_USAGE, fault + " (context-query --help shows the requests)");
    }
    const std::string answer = Ask(query);
    const std::string port = std::to_string(query.port);
    if (answer.empty()) {
        return Complain(EXIT_NO_ANSWER,
                        "no answer from port " + port + "; is context-host --serve " + port + " running?");
    }
    const ExitStatus status = StatusOf(answer);
    if (status == EXIT_NO_ANSWER) {
        return Complain(status, "the answer from port " + port + " is not JSON text, or is nested too deeply");
    }
    std::fputs(answer.c_str(), stdout);
    const std::string problem = Terminal::FinishOutput();
    return problem.empty() ? status : Complain(EXIT_NO_OUTPUT, problem);
}

}  // namespace

int main(int argc, char** argv) {
    Terminal::GuardStandardFiles();
    std::setlocale(LC_CTYPE, "");
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "context-query: failed: %s\n", error.what());
        return EXIT_NO_ANSWER;
    }
}
