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

enum ExitStatus {
    EXIT_ANSWERED = 0,
    EXIT_NO_ANSWER = 1,
    EXIT_USAGE = 2,
    EXIT_REFUSED = 3,
    EXIT_NO_OUTPUT = 8,
};

constexpr std::size_t kLongestAnswer = 204800;

constexpr const char* kDescription =
    "Requests:\n"
    "  rank mru|mfu|date [N]   the units used most recently, used longest, or usual now; at most N\n"
    "  weekly                  one ranking for each hour of the week\n"
    "  quit                    a farewell\n"
    "\n"
    "Examples:\n"
    "  context-host --serve 7300 tv.csv &\n"
    "  context-query 7300 rank date 3\n"
    "\n"
    "Exit status:\n"
    "  0  answered                            2  the command line is wrong\n"
    "  1  no answer                           3  the host does not understand; its answer says what to ask\n"
    "                                         8  standard output takes no more\n";

ExitStatus Complain(ExitStatus status, const std::string& message) {
    std::fprintf(stderr, "context-query: %s\n", message.c_str());
    return status;
}

/// @return the answer to a request; empty when none comes.
std::string Ask(int port, std::string request) {
    const int socket = Network::NetUtil::ConnectNewSocket("127.0.0.1", port);
    if (socket < 0) {
        return "";
    }
    std::vector<char> answer(kLongestAnswer);
    int length = 0;
    const bool isAnswered =
        Network::NetUtil::sendMessage(socket, request.data(), static_cast<int>(request.size())) == 0 &&
        Network::NetUtil::getMessage(socket, answer.data(), static_cast<int>(answer.size()), length) == 0;
    close(socket);
    return isAnswered ? answer.data() : "";
}

}  // namespace

// Sends one request to a context-host that serves, and prints the answer: context-query PORT rank date 5
int main(int argc, char** argv) {
    Terminal::GuardStandardFiles();
    std::setlocale(LC_CTYPE, "");
    std::signal(SIGPIPE, SIG_IGN);
    const std::unique_ptr<GOptionContext, decltype(&g_option_context_free)> context(
        g_option_context_new("PORT REQUEST - ask a context-host that serves, and print its JSON text"),
        g_option_context_free);
    g_option_context_set_description(context.get(), kDescription);
    g_option_context_set_strict_posix(context.get(), TRUE);  // what follows the port is the request's
    GError* error = nullptr;
    if (g_option_context_parse(context.get(), &argc, &argv, &error) == FALSE) {
        const std::string problem = error->message;
        g_error_free(error);
        return Complain(EXIT_USAGE, problem + " (context-query --help shows its use)");
    }
    int port = 0;
    if (argc > 1) {
        const char* end = argv[1] + std::strlen(argv[1]);
        const auto [stop, fault] = std::from_chars(argv[1], end, port);
        port = fault == std::errc() && stop == end && port <= 65535 ? port : 0;
    }
    if (argc < 3 || port <= 0) {
        return Complain(EXIT_USAGE,
                        "give a port from 1 to 65535 and a request, such as: context-query 7300 rank mru 3 "
                        "(context-query --help shows more)");
    }
    std::string request = argv[2];
    for (int argument = 3; argument < argc; ++argument) {
        request += std::string(" ") + argv[argument];
    }
    const std::string answer = Ask(port, request);
    if (answer.empty()) {
        const std::string number = std::to_string(port);
        return Complain(EXIT_NO_ANSWER,
                        "no answer from port " + number + "; is context-host --serve " + number + " running?");
    }
    std::fputs(answer.c_str(), stdout);
    const std::string problem = Terminal::FinishOutput();
    if (!problem.empty()) {
        return Complain(EXIT_NO_OUTPUT, problem);
    }
    ContextData document;
    return document.MakeData(answer.c_str()) && document.IsValid("error") ? EXIT_REFUSED : EXIT_ANSWERED;
}
