// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <future>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "NetUtil.h"
#include "NetUtilFixture.h"
#include "NextFunction.h"

// This program replaces calls of the C library, to record their arguments or to make them fail.

namespace {

std::vector<int> g_backlogs;    ///< of every listen()
std::vector<timeval> g_limits;  ///< of every select()
bool g_isSocketFailing = false;
bool g_isSetsockoptFailing = false;

}  // namespace

extern "C" int listen(int fd, int backlog) noexcept {
    g_backlogs.push_back(backlog);
    return NextFunction<int(int, int)>("listen")(fd, backlog);
}

extern "C" int select(int end, fd_set* readable, fd_set* writable, fd_set* failed, timeval* limit) {
    g_limits.push_back(*limit);
    return NextFunction<int(int, fd_set*, fd_set*, fd_set*, timeval*)>("select")(end, readable, writable, failed,
                                                                                 limit);
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
    if (g_isSocketFailing) {
        errno = EMFILE;
        return -1;
    }
    return NextFunction<int(int, int, int)>("socket")(domain, type, protocol);
}

extern "C" int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
    if (g_isSetsockoptFailing) {
        errno = ENOBUFS;
        return -1;
    }
    return NextFunction<int(int, int, int, const void*, socklen_t)>("setsockopt")(fd, level, option, value, size);
}

namespace {

using Network::NetUtil;
using namespace std::chrono_literals;

constexpr const char* kLoopback = "127.0.0.1";

/// @return the address that a socket is bound to, or with `getpeername` connected to.
sockaddr_in AddressOf(int fd, int (*name)(int, sockaddr*, socklen_t*) noexcept = getsockname) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    EXPECT_EQ(name(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    return address;
}

int PortOf(int fd) {
    return ntohs(AddressOf(fd).sin_port);
}

int Option(int fd, int option) {
    int value = -1;
    socklen_t size = sizeof(value);
    getsockopt(fd, SOL_SOCKET, option, &value, &size);
    return value;
}

class NetUtilConnectionTest : public NetUtilFixture {
protected:
    NetUtilConnectionTest() {
        g_backlogs.clear();
        g_limits.clear();
    }
    ~NetUtilConnectionTest() override {
        g_isSocketFailing = false;
        g_isSetsockoptFailing = false;
    }
};

// BindPort()

TEST_F(NetUtilConnectionTest, BindsAllInterfacesWithoutListening) {
    const Descriptor first(NetUtil::BindPort(0));
    ASSERT_GE(first, 0);
    EXPECT_NE(PortOf(first), 0);
    EXPECT_EQ(AddressOf(first).sin_addr.s_addr, INADDR_ANY);
    EXPECT_EQ(Option(first, SO_DOMAIN), AF_INET);
    EXPECT_EQ(Option(first, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(Option(first, SO_REUSEADDR), 1);
    EXPECT_EQ(Option(first, SO_ACCEPTCONN), 0);
    const Descriptor second(NetUtil::BindPort(PortOf(first)));  // no socket listens there, so the port can be shared
    EXPECT_EQ(PortOf(second), PortOf(first));
    EXPECT_TRUE(g_backlogs.empty());
    ExpectEmptyLog();
}

TEST_F(NetUtilConnectionTest, ReportsPortInUse) {
    const Descriptor taken(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(taken, 0), -1);
    const std::ptrdiff_t before = CountDescriptors();
    EXPECT_EQ(NetUtil::BindPort(PortOf(taken)), -1);
    EXPECT_EQ(CountDescriptors(), before);
    ExpectOneLine(/*priority=*/6, "BindPort", "NetUtil: Can't bind to port %d",
                  "NetUtil: Can't bind to port " + std::to_string(PortOf(taken)));
}

TEST_F(NetUtilConnectionTest, ReportsFailedSocketCall) {
    g_isSocketFailing = true;
    EXPECT_EQ(NetUtil::BindPort(0), -1);
    ExpectOneError("BindPort", "NetUtil: Can't open socket");
    EXPECT_EQ(NetUtil::ConnectNewSocket(kLoopback, 1), -1);
    ExpectOneError("ConnectNewSocket", "can't create socket");
}

TEST_F(NetUtilConnectionTest, ReportsFailedReuseOption) {
    const std::ptrdiff_t before = CountDescriptors();
    g_isSetsockoptFailing = true;
    EXPECT_EQ(NetUtil::BindPort(0), -1);
    EXPECT_EQ(CountDescriptors(), before);
    ExpectOneError("BindPort", "setsockopt reuse error");
}

// AcceptNewSocket(), AcceptNewSocketBlock() and ConnectNewSocket()

TEST_F(NetUtilConnectionTest, AcceptsClientThatAlreadyWaits) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 0), -1);
    ExpectEmptyLog();
    const Descriptor client(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)));
    ASSERT_GE(client, 0);
    ExpectOneLine(/*priority=*/3, "ConnectNewSocket", "Connected", "Connected");
    const Descriptor server(NetUtil::AcceptNewSocket(listener, 20));
    ASSERT_GE(server, 0);
    ExpectEmptyLog();
    EXPECT_EQ(AddressOf(client, getpeername).sin_port, AddressOf(listener).sin_port);
    EXPECT_EQ(AddressOf(client, getpeername).sin_addr.s_addr, inet_addr(kLoopback));
    EXPECT_EQ(AddressOf(server, getpeername).sin_port, AddressOf(client).sin_port);
    EXPECT_EQ(SendMessage(client, "to the server"), 0);
    EXPECT_EQ(Received(server, 100).Text(), "to the server");
    EXPECT_EQ(SendMessage(server, "to the client"), 0);
    EXPECT_EQ(Received(client, 100).Text(), "to the client");
}

TEST_F(NetUtilConnectionTest, DescriptorsAreInheritedAcrossExec) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 0), -1);
    const Descriptor client(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)));
    const Descriptor server(NetUtil::AcceptNewSocket(listener, 20));
    for (const int fd : {static_cast<int>(listener), static_cast<int>(client), static_cast<int>(server)}) {
        EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    }
}

TEST_F(NetUtilConnectionTest, WaitsForClient) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 0), -1);
    for (const bool isBounded : {true, false}) {
        std::future<int> accepted = std::async(std::launch::async, [&] {
            return isBounded ? NetUtil::AcceptNewSocket(listener, 20) : NetUtil::AcceptNewSocketBlock(listener);
        });
        EXPECT_EQ(accepted.wait_for(20ms), std::future_status::timeout);
        const Descriptor client(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)));
        const Descriptor server(accepted.get());
        EXPECT_EQ(SendMessage(client, "text"), 0);
        EXPECT_EQ(Received(server, 100).Text(), "text");
    }
    EXPECT_EQ(CapturedLog::Messages(), (Messages{"D Connected", "D Connected"}));
}

TEST_F(NetUtilConnectionTest, ReturnsWithoutLoggingAtTimeLimit) {
    const Descriptor listener(NetUtil::BindPort(0));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 1), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 990ms);
    ASSERT_EQ(g_limits.size(), 1U);
    EXPECT_EQ(g_limits[0].tv_sec, 1);
    EXPECT_EQ(g_limits[0].tv_usec, 0);
    ExpectEmptyLog();
}

TEST_F(NetUtilConnectionTest, AcceptNewSocketListensOnEveryCall) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 0), -1);
    EXPECT_EQ(Option(listener, SO_ACCEPTCONN), 1);
    shutdown(listener, SHUT_RDWR);
    EXPECT_EQ(Option(listener, SO_ACCEPTCONN), 0);
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 0), -1);
    EXPECT_EQ(Option(listener, SO_ACCEPTCONN), 1);
    EXPECT_EQ(g_backlogs, (std::vector<int>{128, 128}));
    shutdown(listener, SHUT_RDWR);
    EXPECT_EQ(NetUtil::AcceptNewSocketBlock(listener), -1);
    EXPECT_EQ(g_backlogs.size(), 2U) << "AcceptNewSocketBlock() called listen()";
}

TEST_F(NetUtilConnectionTest, ReportsFailedAccept) {
    const Connection connection;
    connection.Send("x");  // readable, but not a listener; the failed listen() is ignored
    EXPECT_EQ(NetUtil::AcceptNewSocket(*connection.near, 20), -1);
    ExpectOneError("AcceptNewSocketBlock", "NetUtil: Error accepting a new connection");
    EXPECT_EQ(NetUtil::AcceptNewSocketBlock(*connection.near), -1);
    ExpectOneError("AcceptNewSocketBlock", "NetUtil: Error accepting a new connection");
}

TEST_F(NetUtilConnectionTest, ReportsFailedSelect) {
    Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, /*timeoutSeconds=*/-1), -1);
    ExpectOneError("AcceptNewSocket", "select error or timeout");
    const int closed = listener;
    listener.Close();
    for (const int fd : {closed, -1, INT_MIN, FD_SETSIZE, INT_MAX}) {
        EXPECT_EQ(NetUtil::AcceptNewSocket(fd, 20), -1) << fd;
        ExpectOneError("AcceptNewSocket", "select error or timeout");
    }
}

TEST_F(NetUtilConnectionTest, RefusesDescriptorsFromFdSetsizeUp) {
    const Descriptor listener(NetUtil::BindPort(0));
    const Descriptor last(fcntl(listener, F_DUPFD, FD_SETSIZE - 1));
    const Descriptor tooLarge(fcntl(listener, F_DUPFD, FD_SETSIZE));
    ASSERT_EQ(last, FD_SETSIZE - 1) << "raise the limit of open files";
    ASSERT_EQ(tooLarge, FD_SETSIZE) << "raise the limit of open files";
    EXPECT_EQ(NetUtil::AcceptNewSocket(last, 0), -1);
    ExpectEmptyLog();
    const Descriptor client(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)));
    CapturedLog::Clear();
    EXPECT_EQ(NetUtil::AcceptNewSocket(tooLarge, 20), -1);
    ExpectOneError("AcceptNewSocket", "select error or timeout");
    const Descriptor server(NetUtil::AcceptNewSocket(last, 20));
    EXPECT_GE(server, 0);
    ExpectEmptyLog();
}

TEST_F(NetUtilConnectionTest, ReportsWaitInterruptedBySignal) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(Interrupted(listener, [&] { return NetUtil::AcceptNewSocket(listener, 20); }), -1);
    ExpectOneError("AcceptNewSocket", "select error or timeout");
    EXPECT_EQ(Interrupted(listener, [&] { return NetUtil::AcceptNewSocketBlock(listener); }), -1);
    ExpectOneError("AcceptNewSocketBlock", "NetUtil: Error accepting a new connection");
}

TEST_F(NetUtilConnectionTest, ReportsUnreachableAddress) {
    const Descriptor bound(NetUtil::BindPort(0));  // reserves the port, so that no other program listens there
    const std::ptrdiff_t before = CountDescriptors();
    for (const char* ip : {kLoopback, "localhost", "", "256.0.0.1", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(NetUtil::ConnectNewSocket(ip, PortOf(bound)), -1);
        ExpectOneError("ConnectNewSocket", "can't connect");
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(NetUtilConnectionTest, DoesNotWaitForDelayedAcknowledgements) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 0), -1);
    const Descriptor client(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)));
    const Descriptor server(NetUtil::AcceptNewSocket(listener, 20));
    constexpr int kRequests = 200;
    std::future<bool> answers = std::async(std::launch::async, [&] {
        for (int request = 0; request < kRequests; ++request) {
            if (Received(server, 100).result != 0 || SendMessage(server, "reply") != 0) {
                return false;
            }
        }
        return true;
    });
    const auto start = std::chrono::steady_clock::now();
    for (int request = 0; request < kRequests; ++request) {
        ASSERT_EQ(SendMessage(client, "request"), 0);
        ASSERT_EQ(Received(client, 100).Text(), "reply");
    }
    // A delayed acknowledgement takes 40 ms, so two per request would take 16 s.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
    EXPECT_TRUE(answers.get());
}

TEST_F(NetUtilConnectionTest, ConnectsToTheGivenAddressOnly) {
    const Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ASSERT_EQ(inet_pton(AF_INET, "127.0.0.2", &address.sin_addr), 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    EXPECT_GE(Descriptor(NetUtil::ConnectNewSocket("127.0.0.2", PortOf(listener))), 0);
    EXPECT_EQ(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)), -1);
}

/// Frees descriptor 0, which the next call that opens one gets, and restores it.
class FreeDescriptorZero {
public:
    FreeDescriptorZero() : m_kept(dup(STDIN_FILENO)) { close(STDIN_FILENO); }
    ~FreeDescriptorZero() {
        close(STDIN_FILENO);
        if (m_kept >= 0) {
            dup2(m_kept, STDIN_FILENO);
            close(m_kept);
        }
    }
    FreeDescriptorZero(const FreeDescriptorZero&) = delete;
    FreeDescriptorZero& operator=(const FreeDescriptorZero&) = delete;

private:
    int m_kept;
};

TEST_F(NetUtilConnectionTest, AcceptsOnDescriptorZero) {
    const FreeDescriptorZero freed;
    ASSERT_EQ(NetUtil::BindPort(0), STDIN_FILENO);
    EXPECT_EQ(NetUtil::AcceptNewSocket(STDIN_FILENO, 0), -1);  // makes it listen
    const Descriptor client(NetUtil::ConnectNewSocket(kLoopback, PortOf(STDIN_FILENO)));
    EXPECT_GE(client, 0);
    EXPECT_GE(Descriptor(NetUtil::AcceptNewSocket(STDIN_FILENO, 20)), 0);
}

TEST_F(NetUtilConnectionTest, ConnectsAsDescriptorZero) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 0), -1);  // makes it listen
    {
        const FreeDescriptorZero freed;
        EXPECT_EQ(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)), STDIN_FILENO);
    }
    {
        const FreeDescriptorZero freed;
        EXPECT_EQ(NetUtil::AcceptNewSocketBlock(listener), STDIN_FILENO);
    }
}

}  // namespace
