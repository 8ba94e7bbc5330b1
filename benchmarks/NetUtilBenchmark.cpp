// SPDX-License-Identifier: Apache-2.0
#include "NetUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Comparison.h"

using Network::NetUtil;

namespace {

constexpr double kBound = 1.10;
constexpr double kMedian = 0.50;
constexpr double kSlowest = 0.99;
constexpr int kRoundTrips = 1000;
constexpr int kFirstRoundTrips = 100;  ///< not measured: a new connection has small windows
constexpr int kTextSize = 100;
constexpr int kBufferSize = 1024;

/// One end of a connection.
class Socket {
public:
    explicit Socket(int fd) : m_fd(fd) {
        if (fd < 0) {
            throw std::runtime_error("no loopback socket");
        }
    }
    ~Socket() { close(m_fd); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int Fd() const { return m_fd; }

private:
    int m_fd;
};

class Listener : public Socket {
public:
    Listener() : Socket(NetUtil::BindPort(/*port=*/0)) { listen(Fd(), /*n=*/1); }

    int Port() const {
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        getsockname(Fd(), reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin_port);
    }
};

class Ours {
public:
    void Fill() {
        std::fill_n(m_text, kTextSize, 'x');
        m_length = kTextSize;
    }
    bool Send(int fd) { return NetUtil::sendMessage(fd, m_text, m_length) == 0; }
    bool Receive(int fd) { return NetUtil::getMessage(fd, m_text, kBufferSize, m_length) == 0; }

private:
    char m_text[kBufferSize] = {};
    int m_length = 0;
};

/// Sends the same bytes with write() and read(), header and text in one buffer.
class Bare {
public:
    void Fill() {
        const std::uint32_t header = htonl(kTextSize + 1);
        std::memcpy(m_frame, &header, sizeof(header));
        std::fill_n(m_frame + sizeof(header), kTextSize, 'x');
        m_size = sizeof(header) + kTextSize + 1;
    }
    bool Send(int fd) { return write(fd, m_frame, m_size) == static_cast<ssize_t>(m_size); }
    bool Receive(int fd) {
        std::uint32_t header = 0;
        if (!Read_(fd, m_frame, sizeof(header))) {
            return false;
        }
        std::memcpy(&header, m_frame, sizeof(header));
        m_size = sizeof(header) + ntohl(header);
        return m_size <= sizeof(m_frame) && Read_(fd, m_frame + sizeof(header), m_size - sizeof(header));
    }

private:
    static bool Read_(int fd, char* buffer, std::size_t size) {
        while (size > 0) {
            const ssize_t count = read(fd, buffer, size);
            if (count <= 0) {
                return false;
            }
            buffer += count;
            size -= static_cast<std::size_t>(count);
        }
        return true;
    }

    char m_frame[kBufferSize] = {};
    std::size_t m_size = 0;
};

/// A client, and a server thread that echoes messages until the client closes the connection.
template <typename Message>
class EchoedConnection {
public:
    EchoedConnection() : m_client(NetUtil::ConnectNewSocket("127.0.0.1", m_listener.Port())) {
        m_server = std::thread([fd = NetUtil::AcceptNewSocketBlock(m_listener.Fd())] {
            const Socket server(fd);
            Message message;
            while (message.Receive(server.Fd()) && message.Send(server.Fd())) {
            }
        });
        m_message.Fill();
    }
    ~EchoedConnection() {
        shutdown(m_client.Fd(), SHUT_WR);
        m_server.join();
    }
    EchoedConnection(const EchoedConnection&) = delete;
    EchoedConnection& operator=(const EchoedConnection&) = delete;

    void RoundTrip() {
        if (!m_message.Send(m_client.Fd()) || !m_message.Receive(m_client.Fd())) {
            throw std::runtime_error("the connection broke");
        }
    }

private:
    Listener m_listener;
    Socket m_client;
    std::thread m_server;
    Message m_message;
};

double Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double Quantile(std::vector<double> values, double fraction) {
    const auto nth = values.begin() + static_cast<std::ptrdiff_t>(static_cast<double>(values.size()) * fraction);
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
}

/// Measures each round trip separately.
template <typename Message>
Comparison::Body RoundTrips(double fraction) {
    return [fraction](benchmark::State& state) {
        EchoedConnection<Message> connection;
        for (int i = 0; i < kFirstRoundTrips; ++i) {
            connection.RoundTrip();
        }
        std::vector<double> seconds;
        seconds.reserve(kRoundTrips);
        for ([[maybe_unused]] auto _ : state) {
            const double start = Now();
            connection.RoundTrip();
            seconds.push_back(Now() - start);
        }
        state.counters["seconds"] = Quantile(std::move(seconds), fraction);
    };
}

void CompareRoundTrips(const std::string& what, double fraction) {
    Comparison(what)
        .InRealTime()
        .Iterations(kRoundTrips)
        .Ours(RoundTrips<Ours>(fraction))
        .Direct("write and read", kBound, RoundTrips<Bare>(fraction));
}

/// Keeps this thread, and the threads that it starts later, on the current processor.
void StayOnThisProcessor() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(sched_getcpu(), &set);
    sched_setaffinity(/*pid=*/0, sizeof set, &set);
}

}  // namespace

// Both ends share one processor: otherwise the choice of the scheduler would decide the result.
void RegisterComparisons() {
    StayOnThisProcessor();
    CompareRoundTrips("request and reply of 100 bytes, median", kMedian);
    CompareRoundTrips("request and reply of 100 bytes, 99th percentile", kSlowest);
}
