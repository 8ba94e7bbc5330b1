// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "MemoryCases.h"
#include "NetUtil.h"

namespace {

using Network::NetUtil;

char g_text[] = "a text";
constexpr char kFrame[] = "\0\0\0\7a text";  // its terminating zero is part of it

/// Two connected sockets.
class Pair {
public:
    Pair() {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, m_fd) != 0) {
            std::abort();
        }
    }
    ~Pair() {
        close(m_fd[0]);
        close(m_fd[1]);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    int Library() const { return m_fd[0]; }

    void Send(const char* bytes, std::size_t size) const {
        if (send(m_fd[1], bytes, size, 0) != static_cast<ssize_t>(size)) {
            std::abort();
        }
    }

    /// Returns what the library has sent.
    std::string Sent() const {
        char buffer[100];
        const ssize_t count = recv(m_fd[1], buffer, sizeof(buffer), MSG_DONTWAIT);
        return {buffer, count > 0 ? static_cast<std::size_t>(count) : 0};
    }

private:
    int m_fd[2];
};

/// Calls a function that sends; it sends all or throws.
template <class Function>
void TrySending(Try& tried, Function function, const std::string& expected) {
    const Pair pair;
    bool isSent = false;
    tried.Call([&] { isSent = function(pair.Library()); });
    tried.Holds(!tried.HasPassed() || isSent, "wrong result");
    tried.Holds(pair.Sent() == (isSent ? expected : ""), "sends other bytes");
}

/// Calls GetReply(). It receives the frame, or logs that it does not.
template <class Function>
void TryReply(Try& tried, Function function) {
    const Pair pair;
    pair.Send(kFrame, sizeof(kFrame));
    tried.Call([&] { function(pair.Library()); });
    tried.Returns();
    char byte = 0;
    const bool isReceived = recv(pair.Library(), &byte, 1, MSG_DONTWAIT) != 1;
    tried.Holds(isReceived || MemoryLog::Has("Error getting a message"), "fails without a log line");
}

/// A listening socket on loopback, and a client that waits to be accepted.
class Listener {
public:
    Listener() : m_fd(NetUtil::BindPort(0)), m_client(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        const bool isBound =
            listen(m_fd, 1) == 0 && getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
        m_port = ntohs(address.sin_port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (!isBound || connect(m_client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            std::abort();
        }
    }
    ~Listener() {
        close(m_client);
        close(m_fd);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int Descriptor() const { return m_fd; }
    int Port() const { return m_port; }

private:
    int m_fd;
    int m_client;
    int m_port = 0;
};

/// Calls a function that returns a descriptor and allocates nothing of its own.
template <class Function>
void TryConnection(Try& tried, Function function) {
    const Listener listener;
    int fd = -1;
    tried.Call([&] { fd = function(listener); });
    tried.Returns();
    tried.Holds(fd >= 0, "no descriptor");
    close(fd);
}

constexpr Case kCases[] = {
    {"Network::NetUtil::getMessage(int, char*, int, int&)",
     [](Try& tried) {
         const Pair pair;
         pair.Send(kFrame, sizeof(kFrame));
         char buffer[100] = {};
         int length = 0;
         int result = -1;
         tried.Call([&] { result = NetUtil::getMessage(pair.Library(), buffer, sizeof(buffer), length); });
         tried.Returns();
         tried.Holds(result == 0 && length == 6 && std::strcmp(buffer, "a text") == 0, "wrong result");
     }},
    {"Network::NetUtil::sendMessage(int, char*, int)",
     [](Try& tried) {
         TrySending(
             tried, [](int fd) { return NetUtil::sendMessage(fd, g_text, 6) == 0; },
             std::string(kFrame, sizeof(kFrame)));
     }},
    {"Network::NetUtil::SendData(int, char const*, int)",
     [](Try& tried) {
         TrySending(
             tried, [](int fd) { return NetUtil::SendData(fd, g_text, 0); }, std::string(kFrame, sizeof(kFrame)));
     }},
    {"Network::NetUtil::GetReply(int)", [](Try& tried) { TryReply(tried, [](int fd) { NetUtil::GetReply(fd); }); }},
    {"Network::NetUtil::GetReply(int, char const*)",
     [](Try& tried) { TryReply(tried, [](int fd) { NetUtil::GetReply(fd, "label"); }); }},
    {"Network::NetUtil::SendStringData(int, char const*)",
     [](Try& tried) {
         const std::string text(100 - 40, 'x');
         TrySending(
             tried, [&](int fd) { return NetUtil::SendStringData(fd, text.c_str()); }, text + "\n");
     }},
    {"Network::NetUtil::SendRawData(int, char const*, int)",
     [](Try& tried) {
         TrySending(
             tried, [](int fd) { return NetUtil::SendRawData(fd, g_text, 6); }, g_text);
     }},
    {"Network::NetUtil::BindPort(int)",
     [](Try& tried) { TryConnection(tried, [](const Listener& /*listener*/) { return NetUtil::BindPort(0); }); }},
    {"Network::NetUtil::AcceptNewSocketBlock(int)",
     [](Try& tried) {
         TryConnection(tried,
                       [](const Listener& listener) { return NetUtil::AcceptNewSocketBlock(listener.Descriptor()); });
     }},
    {"Network::NetUtil::AcceptNewSocket(int, int)",
     [](Try& tried) {
         TryConnection(tried,
                       [](const Listener& listener) { return NetUtil::AcceptNewSocket(listener.Descriptor(), 10); });
     }},
    {"Network::NetUtil::ConnectNewSocket(char const*, int)",
     [](Try& tried) {
         TryConnection(
             tried, [](const Listener& listener) { return NetUtil::ConnectNewSocket("127.0.0.1", listener.Port()); });
     }},
};

}  // namespace

Cases NetworkCases() {
    return {std::begin(kCases), std::end(kCases)};
}
