// SPDX-License-Identifier: Apache-2.0
#include "SystemLog.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "ContextData.h"
#include "FailingMemory.h"

// The only test program that keeps the library's default log call. It reads the datagrams sent to the system log.

namespace {

/// Acts as the system's log daemon: listens at /dev/log in the test's private /dev.
class SystemLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("LUMORA_PRIVATE_DATA_DIRECTORY"), nullptr) << "run this through ctest";
        m_socket = socket(AF_UNIX, SOCK_DGRAM, 0);
        ASSERT_GE(m_socket, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        ASSERT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0)
            << std::strerror(errno);
    }

    void TearDown() override {
        close(m_socket);
        unlink("/dev/log");
    }

    /// @return the next datagram, or "" when none arrives within 10 s.
    std::string Receive() const {
        pollfd ready{m_socket, POLLIN, 0};
        if (poll(&ready, 1, /*timeout=*/10000) <= 0) {
            return "";
        }
        char datagram[65536];
        const ssize_t length = recv(m_socket, datagram, sizeof(datagram), 0);
        return length > 0 ? std::string(datagram, static_cast<std::size_t>(length)) : "";
    }

    int m_socket = -1;
};

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST_F(SystemLogTest, SendsLibraryMessagesToSyslog) {
    ContextData document;
    EXPECT_FALSE(document.MakeData(nullptr));
    const std::string datagram = Receive();
    EXPECT_EQ(datagram.substr(0, 4), "<11>") << datagram;  // facility user, level error
    EXPECT_NE(datagram.find("LMR_COMMON: ContextData.cpp: MakeData("), std::string::npos) << datagram;
    EXPECT_TRUE(EndsWith(datagram, ") > input is null")) << datagram;
}

TEST_F(SystemLogTest, MapsEachPriorityToASyslogLevel) {
    const struct {
        int priority;
        const char* head;  // facility user (8) plus level
    } rows[] = {
        {LUMORA_LOG_DEBUG, "<15>"},
        {LUMORA_LOG_INFO, "<14>"},
        {LUMORA_LOG_WARNING, "<12>"},
        {LUMORA_LOG_ERROR, "<11>"},
        {99, "<11>"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(lumora_log_print(LUMORA_LOG_BUFFER_MAIN, row.priority, "TAG", "%s %d", "text", 7), 6);
        const std::string datagram = Receive();
        EXPECT_EQ(datagram.substr(0, 4), row.head) << datagram;
        EXPECT_TRUE(EndsWith(datagram, ": TAG: text 7")) << datagram;
    }
}

TEST_F(SystemLogTest, PassesLongTextsAndPercentSignsUnchanged) {
    const std::string text = std::string(5000, 'x') + "%s%n";
    EXPECT_EQ(lumora_log_print(LUMORA_LOG_BUFFER_MAIN, LUMORA_LOG_INFO, "TAG", "%s", text.c_str()), 5004);
    EXPECT_TRUE(EndsWith(Receive(), ": TAG: " + text));
}

TEST_F(SystemLogTest, PassesTextsOfEveryLengthWhole) {
    for (const int length : {0, 1, 510, 511, 512, 513, 2000}) {
        const std::string text(static_cast<std::size_t>(length), 'x');
        EXPECT_EQ(lumora_log_print(LUMORA_LOG_BUFFER_MAIN, LUMORA_LOG_INFO, "TAG", "%s", text.c_str()), length);
        EXPECT_TRUE(EndsWith(Receive(), ": TAG: " + text)) << length;
    }
}

TEST_F(SystemLogTest, WritesNothingThatCannotBeFormatted) {
    const wchar_t text[] = {0x2603, 0};  // not a character of the C locale
    EXPECT_LT(lumora_log_print(LUMORA_LOG_BUFFER_MAIN, LUMORA_LOG_INFO, "TAG", "%ls", text), 0);
    lumora_log_print(LUMORA_LOG_BUFFER_MAIN, LUMORA_LOG_INFO, "TAG", "next");
    EXPECT_TRUE(EndsWith(Receive(), ": TAG: next"));
}

TEST_F(SystemLogTest, LogsShortTextsWithoutMemory) {
    const std::string text(500, 'x');
    int length = 0;
    {
        const FailingMemory::Scope noMemory;
        length = lumora_log_print(LUMORA_LOG_BUFFER_MAIN, LUMORA_LOG_INFO, "TAG", "%s", text.c_str());
    }
    EXPECT_EQ(length, 500);
    EXPECT_TRUE(EndsWith(Receive(), ": TAG: " + text));
}

TEST_F(SystemLogTest, LogsTheBeginningOfLongTextsWithoutMemory) {
    const std::string text(5000, 'x');
    FailingMemory::ForEveryAllocation([&](int allowed, int failures) {
        int length = 0;
        {
            const FailingMemory::Scope scope(allowed, failures);
            length = lumora_log_print(LUMORA_LOG_BUFFER_MAIN, LUMORA_LOG_INFO, "TAG", "%s", text.c_str());
        }
        const std::string datagram = Receive();
        EXPECT_EQ(length, 5000);
        if (allowed == 0 && FailingMemory::Scope::HasFailed()) {
            EXPECT_TRUE(EndsWith(datagram, ": TAG: " + text.substr(0, 511))) << datagram;
        } else {
            EXPECT_NE(datagram, "");  // without memory, syslog() writes a text of its own
        }
    });
}

TEST_F(SystemLogTest, PreservesTheErrorNumber) {
    errno = EDOM;
    lumora_log_print(LUMORA_LOG_BUFFER_MAIN, LUMORA_LOG_INFO, "TAG", "text");
    EXPECT_EQ(errno, EDOM);
    EXPECT_NE(Receive(), "");
}

}  // namespace
