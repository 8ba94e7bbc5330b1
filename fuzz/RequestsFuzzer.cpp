// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "Connection.h"
#include "Frame.h"
#include "Fuzz.h"
#include "RankingServer.h"

namespace {

using Fuzz::Holds;
using Fuzz::Input;
using Fuzz::Same;

constexpr std::size_t kLongestStream = 2048;
constexpr std::size_t kLongestAnswer = 20000;  // fits into the buffer of a socket

std::vector<std::string> WordsOf(const std::string& request) {
    std::vector<std::string> words;
    bool isInWord = false;
    for (const char character : request) {
        const bool isBlank = character == ' ' || (character >= '\t' && character <= '\r');
        if (!isBlank && !isInWord) {
            words.emplace_back();
        }
        if (!isBlank) {
            words.back() += character;
        }
        isInWord = !isBlank;
    }
    return words;
}

/// @return the number that decimal digits alone stand for.
std::optional<int> NumberOf(const std::string& word) {
    if (word.empty() || word.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const double number = std::strtod(word.c_str(), nullptr);
    return number <= INT_MAX ? std::optional<int>(static_cast<int>(number)) : std::nullopt;
}

/// @return what a request stands for, as a text; empty for no request.
std::string MeaningOf(const std::string& request) {
    static const std::vector<std::string> kAgents = {"mru", "mfu", "date"};
    if (request == "weekly" || request == "quit") {
        return request;
    }
    const std::vector<std::string> words = WordsOf(request);
    const auto agent = words.size() >= 2 ? std::find(kAgents.begin(), kAgents.end(), words[1]) : kAgents.end();
    const std::optional<int> number = words.size() == 3 ? NumberOf(words[2]) : std::nullopt;
    if (words.size() < 2 || words.size() > 3 || words[0] != "rank" || agent == kAgents.end() ||
        (words.size() == 3 && !number)) {
        return "";
    }
    return "rank " + std::to_string(agent - kAgents.begin()) + " " + Fuzz::Show(number);
}

std::string MeaningOf(const std::optional<RankingRequest>& request) {
    if (!request) {
        return "";
    }
    switch (request->kind) {
        case RankingRequest::Kind::Weekly:
            return "weekly";
        case RankingRequest::Kind::Quit:
            return "quit";
        default:
            return "rank " + std::to_string(request->agent) + " " + Fuzz::Show(request->count);
    }
}

/// @return the descriptor of a new client of `listener`.
int Connect(int listener) {
    sockaddr_un address{};
    socklen_t size = sizeof(address);
    const int client = socket(AF_UNIX, SOCK_STREAM, 0);
    Holds("a client connects", getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
                                   connect(client, reinterpret_cast<sockaddr*>(&address), size) == 0);
    return client;
}

int Listen() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;  // the kernel chooses the name
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    Holds("the socket listens",
          bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address.sun_family)) == 0 &&
              listen(listener, SOMAXCONN) == 0);
    return listener;
}

/// Sends a stream in parts, and compares each request that the server's end receives.
void CheckConnection(Input& input) {
    static const int listener = Listen();
    const std::size_t part = 1 + input.Take<std::uint8_t>();
    const std::string answer(input.Flag() ? kLongestAnswer : input.Below(8), 'a');
    std::string stream = input.Rest().substr(0, kLongestStream);
    const int client = Connect(listener);
    Connection connection;
    Holds("a client is accepted", connection.Accept(listener));
    std::string unsent = stream;
    std::size_t arrived = 0;
    while (!unsent.empty() && !connection.IsOver()) {
        const std::size_t size = std::min(part, unsent.size());
        Holds("the client sends", write(client, unsent.data(), size) == static_cast<ssize_t>(size));
        unsent.erase(0, size);
        arrived += size;
        for (bool isReceived = true; isReceived && !connection.IsOver();) {
            const bool hasHeader = arrived >= 4;
            const std::uint32_t length = hasHeader ? Frame::LengthIn(stream) : 0;
            const bool isRefused = hasHeader && length >= Connection::kRequestBuffer;
            isReceived = hasHeader && !isRefused && arrived >= 4 + length;
            Same(
                "a request", connection.Receive(),
                isReceived ? std::optional<std::string>(stream.substr(4, length == 0 ? 0 : length - 1)) : std::nullopt);
            Same("the end of the connection", connection.IsOver(), isRefused);
            if (isReceived) {
                connection.Answer(answer, /*isLast=*/false);
                connection.Send();
                Holds("the answer is sent", !connection.IsSending());
                std::string received(answer.size() + 5, '\0');
                Same("its size", recv(client, received.data(), received.size(), MSG_WAITALL),
                     static_cast<ssize_t>(received.size()));
                Same("the answer", received, Frame::Of(answer));
                stream.erase(0, 4 + length);
                arrived -= 4 + length;
            }
        }
    }
    close(client);
    if (!connection.IsOver()) {
        connection.Receive();
        Holds("a client that has gone ends the connection", connection.IsOver());
    }
}

}  // namespace

void Fuzz::Test(Input& input) {
    if (input.Below(8) != 0) {
        const std::string request = input.Rest();
        return Same("the request", MeaningOf(RankingRequest::Parse(request)), MeaningOf(request));
    }
    CheckConnection(input);
}
