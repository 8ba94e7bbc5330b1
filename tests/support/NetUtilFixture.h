// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_NET_UTIL_FIXTURE_H
#define LUMORA_COMMON_TESTS_NET_UTIL_FIXTURE_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <future>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "LogExpectation.h"
#include "NetUtil.h"
#include "Waiting.h"

using Messages = std::vector<std::string>;

/// A descriptor that the test owns, and that the library must not close. Reading and writing fail after 20 s.
class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {
        const timeval bound{20, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof(bound));
    }
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int() const { return m_fd; }

    void Close() {
        if (m_fd >= 0) {
            EXPECT_EQ(close(m_fd), 0) << m_fd << ": " << std::strerror(errno);
        }
        m_fd = -1;
    }

private:
    int m_fd;
};

/// Both ends of one connection: the library uses `near`, and the test uses `far` as the peer.
class Connection {
public:
    explicit Connection(int type = SOCK_STREAM) {
        int ends[2];
        if (socketpair(AF_UNIX, type, 0, ends) != 0) {
            throw std::runtime_error("socketpair() failed");
        }
        near.emplace(ends[0]);
        far.emplace(ends[1]);
    }

    void Send(const std::string& bytes) const {
        ASSERT_EQ(write(*far, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    /// @return the next bytes that the library sent; on a SOCK_SEQPACKET connection, one packet.
    std::string Receive() const {
        char bytes[1000];
        const ssize_t count = recv(*far, bytes, sizeof(bytes), 0);
        return {bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

    /// Closes the near end.
    /// @return everything that the library sent and the test has not received yet.
    std::string ReceiveAll() {
        near->Close();
        std::string all;
        for (std::string bytes = Receive(); !bytes.empty(); bytes = Receive()) {
            all += bytes;
        }
        return all;
    }

    /// @return the number of bytes that the library has not read.
    int Unread() const {
        int count = -1;
        ioctl(*near, FIONREAD, &count);
        return count;
    }

    std::optional<Descriptor> near;
    std::optional<Descriptor> far;
};

/// @return the header for a length: four bytes in network byte order.
inline std::string Header(unsigned int length) {
    const unsigned int bytes[] = {length >> 24, length >> 16, length >> 8, length};
    std::string header;
    for (const unsigned int byte : bytes) {
        header += static_cast<char>(byte & 0xFF);
    }
    return header;
}

/// @return the frame for a text: a header, the text and its terminating zero.
inline std::string Frame(const std::string& text) {
    return Header(static_cast<unsigned int>(text.size()) + 1) + text + '\0';
}

inline int SendMessage(int fd, const std::string& text) {
    std::string copy = text;
    return Network::NetUtil::sendMessage(fd, copy.data(), static_cast<int>(copy.size()));
}

/// The results of getMessage() with a buffer of the given size. Fails the test if bytes after the buffer change.
struct Received {
    Received(int fd, int bufSize) : buffer(static_cast<std::size_t>(std::max(bufSize, 0)) + 8, '#') {
        result = Network::NetUtil::getMessage(fd, buffer.data(), bufSize, length);
        EXPECT_EQ(buffer.substr(buffer.size() - 8), "########");
    }

    std::string Text() const { return buffer.substr(0, static_cast<std::size_t>(length)); }

    std::string buffer;
    int length = 77;
    int result;
};

inline std::ptrdiff_t CountDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

/// Runs a call on a new thread and interrupts it with signals until it returns.
/// @param fd    the socket that the call blocks on. It is shut down, and the test fails, when the call does not return.
/// @param call  the call.
/// @return the result of the call.
template <class Call>
int Interrupted(int fd, Call call) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART; it stays, because the last signal may arrive late
    std::promise<pthread_t> thread;
    std::future<int> result = std::async(std::launch::async, [&] {
        thread.set_value(pthread_self());
        return call();
    });
    const pthread_t id = thread.get_future().get();
    const bool returned = Waiting::Until([&] {
        pthread_kill(id, SIGUSR1);
        return result.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
    });
    if (!returned) {
        ADD_FAILURE() << "the call was repeated after a signal";
        shutdown(fd, SHUT_RDWR);
        result.wait();
    }
    return result.get();
}

/// Checks the log of `Network::NetUtil`, and that no descriptor is left open.
class NetUtilFixture : public ::testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        CapturedLog::Clear();
        m_descriptors = CountDescriptors();
    }

    void TearDown() override {
        EXPECT_EQ(CountDescriptors(), m_descriptors) << "descriptors left open";
        signal(SIGPIPE, SIG_DFL);
    }

    /// Expects one line in the log, and clears the log.
    static void ExpectOneLine(int priority, const char* function, const char* format, const std::string& message) {
        ExpectOneLogLine(priority, "NetUtil.cpp", function, format, message);
        CapturedLog::Clear();
    }

    static void ExpectOneError(const char* function, const char* message) {
        ExpectOneLine(/*priority=*/6, function, message, message);
    }

    static void ExpectEmptyLog() { EXPECT_EQ(CapturedLog::Messages(), Messages{}); }

private:
    std::ptrdiff_t m_descriptors = 0;
};

#endif  // LUMORA_COMMON_TESTS_NET_UTIL_FIXTURE_H
