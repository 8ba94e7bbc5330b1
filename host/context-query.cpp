// SPDX-License-Identifier: Apache-2.0
#include <ContextData.h>
#include <NetUtil.h>
#include <glib.h>
#include <unistd.h>

#include <charconv>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

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
    "  1  no answer                           3  the answer is an error message\n"
    "                                         8  standard output cannot be written\n";

struct Query {
    int port = 0;  ///< from 1 to 65535; 0 if the command line has no such number
    std::string request;
};

ExitStatus Complain(ExitStatus status, const std::string& message) {
    std::fprintf(stderr, "context-query: %s\n", message.c_str());
    return status;
}

/// @return the port that a text names, or 0.
int PortIn(const char* text) {
    int port = 0;
    const char* end = text + std::strlen(text);
    const auto [stop, fault] = std::from_chars(text, end, port);
    return fault == std::errc() && stop == end && port > 0 && port <= 65535 ? port : 0;
}

/// Reads the command line. `--help` prints the help text and ends the program.
/// @return the error, for the user; empty if there is none.
std::string ParseCommandLine(int argc, char** argv, Query& query) {
    const std::unique_ptr<GOptionContext, decltype(&g_option_context_free)> context(
        g_option_context_new("PORT REQUEST - query a running context-host --serve and print its JSON answer"),
        g_option_context_free);
    g_option_context_set_description(context.get(), kDescription);
    g_option_context_set_strict_posix(context.get(), TRUE);  // the words after the port belong to the request
    GError* error = nullptr;
    if (g_option_context_parse(context.get(), &argc, &argv, &error) == FALSE) {
        std::string problem = error->message;
        g_error_free(error);
        return problem;
    }
    query.port = argc > 1 ? PortIn(argv[1]) : 0;
    if (argc < 3 || query.port == 0) {
        return "give a port from 1 to 65535 and a request, such as: context-query 7300 rank mru 3";
    }
    query.request = argv[2];
    for (int argument = 3; argument < argc; ++argument) {
        query.request += std::string(" ") + argv[argument];
    }
    return "";
}

/// @return the answer to the query; empty if there is none.
std::string Ask(Query query) {
    const int socket = NetUtil::ConnectNewSocket("127.0.0.1", query.port);
    if (socket < 0) {
        return "";
    }
    std::vector<char> answer(NetUtil::kMaxReplySize + 1);  // getMessage() needs a byte more than the payload
    int length = 0;
    const bool isAnswered =
        NetUtil::sendMessage(socket, query.request.data(), static_cast<int>(query.request.size())) == 0 &&
        NetUtil::getMessage(socket, answer.data(), static_cast<int>(answer.size()), length) == 0;
    close(socket);
    return isAnswered ? answer.data() : "";
}

bool IsError(const std::string& answer) {
    ContextData document;
    return document.MakeData(answer.c_str()) && document.IsValid("error");
}

}  // namespace

int main(int argc, char** argv) {
    Terminal::GuardStandardFiles();
    std::setlocale(LC_CTYPE, "");
    std::signal(SIGPIPE, SIG_IGN);
    Query query;
    const std::string fault = ParseCommandLine(argc, argv, query);
    if (!fault.empty()) {
        return Complain(EXIT_USAGE, fault + " (context-query --help shows the requests)");
    }
    const std::string answer = Ask(query);
    if (answer.empty()) {
        const std::string port = std::to_string(query.port);
        return Complain(EXIT_NO_ANSWER,
                        "no answer from port " + port + "; is context-host --serve " + port + " running?");
    }
    std::fputs(answer.c_str(), stdout);
    const std::string problem = Terminal::FinishOutput();
    if (!problem.empty()) {
        return Complain(EXIT_NO_OUTPUT, problem);
    }
    return IsError(answer) ? EXIT_REFUSED : EXIT_ANSWERED;
}
