// SPDX-License-Identifier: Apache-2.0
#include "Connection.h"

#include <NetUtil.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "Waiting.h"

namespace {

using Network::NetUtil;

/// A connection and its client.
class ConnectionTest : public testing::Test {
protected:
    void SetUp() override {
        const int listener = NetUtil::BindPort(0);
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        ASSERT_EQ(fcntl(listener, F_SETFL, O_NONBLOCK), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        EXPECT_FALSE(Connection().Accept(listener)) << "nobody has connected";
        ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
        m_client = NetUtil::ConnectNewSocket("127.0.0.1", ntohs(address.sin_port));
        ASSERT_TRUE(Waiting::Until([&] { return m_connection.Accept(listener); }));
        close(listener);
    }

    void TearDown() override { CloseClient(); }

    void CloseClient() {
        if (m_client >= 0) {
            close(m_client);
            m_client = -1;
        }
    }

    /// Waits until an event, or an error, is reported for the connection's socket.
    testing::AssertionResult Await(short event) const {
        pollfd file{m_connection.Socket(), event, 0};
        const auto bound = static_cast<int>(std::chrono::milliseconds(Waiting::kBound).count());
        return poll(&file, 1, bound) == 1 ? testing::AssertionSuccess() : testing::AssertionFailure() << "no event";
    }

    /// Sends far more often than the client, which reads nothing, accepts something.
    void FillTheSocket() {
        m_connection.Answer(std::string(std::size_t{64} * 1024 * 1024, 'x'), /*isLast=*/false);
        for (int step = 0; step < 100; ++step) {
            m_connection.Send();
        }
    }

    Connection m_connection;
    int m_client = -1;
};

}  // namespace

TEST_F(ConnectionTest, WaitsForAClientThatReadsNothing) {
    FillTheSocket();
    EXPECT_TRUE(m_connection.IsSending());
    EXPECT_FALSE(m_connection.IsOver());
}

TEST_F(ConnectionTest, EndsWhenTheClientLeavesDuringAnAnswer) {
    FillTheSocket();
    CloseClient();  // with bytes that it has not read, which resets the connection
    ASSERT_TRUE(Await(POLLERR));
    m_connection.Send();
    EXPECT_TRUE(m_connection.IsOver());
}

TEST_F(ConnectionTest, EndsWhenTheClientResetsTheConnection) {
    const linger reset{1, 0};
    ASSERT_EQ(setsockopt(m_client, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)), 0);
    CloseClient();
    ASSERT_TRUE(Await(POLLIN));
    EXPECT_FALSE(m_connection.Receive().has_value());
    EXPECT_TRUE(m_connection.IsOver());
}

TEST_F(ConnectionTest, WaitsForTheRestOfARequest) {
    ASSERT_EQ(send(m_client, "\0\0\0\5ra", 6, MSG_NOSIGNAL), 6);
    ASSERT_TRUE(Await(POLLIN));
    EXPECT_FALSE(m_connection.Receive().has_value());
    EXPECT_FALSE(m_connection.IsOver());
    ASSERT_EQ(send(m_client, "nk\0", 3, MSG_NOSIGNAL), 3);
    ASSERT_TRUE(Await(POLLIN));
    EXPECT_EQ(m_connection.Receive(), "rank");
}
