// SPDX-License-Identifier: Apache-2.0
#include <NetUtil.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// Sends one request to a context-host that serves, and prints the answer: context-query PORT rank date 5
int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs("usage: context-query PORT rank mru|mfu|date [N] | weekly | quit\n", stderr);
        return 2;
    }
    std::string request = argv[2];
    for (int argument = 3; argument < argc; ++argument) {
        request += std::string(" ") + argv[argument];
    }
    const int socket = Network::NetUtil::ConnectNewSocket("127.0.0.1", std::atoi(argv[1]));
    std::vector<char> answer(204800);
    int length = 0;
    const bool isAnswered =
        socket >= 0 && Network::NetUtil::sendMessage(socket, request.data(), static_cast<int>(request.size())) == 0 &&
        Network::NetUtil::getMessage(socket, answer.data(), static_cast<int>(answer.size()), length) == 0;
    if (!isAnswered) {
        std::fprintf(stderr, "context-query: no answer from port %s; is context-host --serve %s running?\n", argv[1],
                     argv[1]);
    } else {
        std::fputs(answer.data(), stdout);
    }
    if (socket >= 0) {
        close(socket);
    }
    return isAnswered ? 0 : 1;
}
