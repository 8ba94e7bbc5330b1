// SPDX-License-Identifier: Apache-2.0
#include "NetUtil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "FailingAllocation.h"
#include "NetUtilFixture.h"
#include "NextFunction.h"
#include "Waiting.h"

namespace {

/// The most bytes that the next calls of writev() write; 0 and -1 are returned without writing. Without an entry, a
/// call writes everything.
std::vector<ssize_t> g_writes;

}  // namespace

/// Replaces the C library's call, to write only part of the bytes or to fail.
extern "C" ssize_t writev(int fd, const iovec* parts, int count) {
    if (g_writes.empty()) {
        return NextFunction<decltype(writev)>("writev")(fd, parts, count);
    }
    const ssize_t most = g_writes.front();
    g_writes.erase(g_writes.begin());
    if (most <= 0) {
        errno = EIO;
        return most;
    }
    std::string bytes;
    for (int part = 0; part < count; ++part) {
        bytes.append(static_cast<const char*>(parts[part].iov_base), parts[part].iov_len);
    }
    return write(fd, bytes.data(), std::min(bytes.size(), static_cast<std::size_t>(most)));
}

namespace {

using Network::NetUtil;
using namespace std::chrono_literals;
using namespace std::string_literals;

/// The size of the buffer that GetReply() uses: a payload must be smaller.
constexpr int kReplyBufferSize = NetUtil::kMaxReplySize + 1;

/// The functions that send, and the bytes that each sends for a text.
const struct {
    const char* name;
    std::function<bool(int fd, const std::string& text)> send;
    std::function<std::string(const std::string& text)> sent;
} kSenders[] = {
    {"sendMessage", [](int fd, const std::string& text) { return SendMessage(fd, text) == 0; }, Frame},
    {"SendData", [](int fd, const std::string& text) { return NetUtil::SendData(fd, text.c_str(), 0); }, Frame},
    {"SendStringData", [](int fd, const std::string& text) { return NetUtil::SendStringData(fd, text.c_str()); },
     [](const std::string& text) { return text + "\n"; }},
    {"SendRawData",
     [](int fd, const std::string& text) {
         return NetUtil::SendRawData(fd, text.data(), static_cast<int>(text.size()));
     },
     [](const std::string& text) { return text; }},
};

class NetUtilTest : public NetUtilFixture {
protected:
    NetUtilTest() { g_writes.clear(); }
};

// All functions that send

TEST_F(NetUtilTest, SendsLargePayloadWholeToSlowReader) {
    constexpr std::size_t kSize = 4194304;  // more than a socket buffers
    const std::string text(kSize, 'x');
    for (const auto& row : kSenders) {
        const Connection connection;
        std::future<bool> sending = std::async(std::launch::async, [&] { return row.send(*connection.near, text); });
        if (sending.wait_for(60ms) == std::future_status::ready) {
            ADD_FAILURE() << row.name << " did not wait for the reader";
            continue;
        }
        const std::string expected = row.sent(text);
        std::string received;
        for (std::string bytes = "?"; !bytes.empty() && received.size() < expected.size();) {
            bytes = connection.Receive();
            received += bytes;
        }
        EXPECT_TRUE(received == expected) << row.name << " sent " << received.size() << " bytes";
        EXPECT_TRUE(sending.get()) << row.name;
    }
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, FailsWhenSignalInterruptsSending) {
    for (const auto& row : kSenders) {
        SCOPED_TRACE(row.name);
        const Connection connection;
        const std::string filling(100000, 'x');
        while (send(*connection.near, filling.data(), filling.size(), MSG_DONTWAIT) > 0) {
        }
        const auto sendText = [&] { return row.send(*connection.near, "abc") ? 0 : -1; };
        EXPECT_EQ(Interrupted(*connection.near, sendText), -1);
    }
}

TEST_F(NetUtilTest, RaisesSigpipeOnClosedPeer) {
    signal(SIGPIPE, SIG_DFL);
    Connection connection;
    connection.far->Close();
    for (const auto& row : kSenders) {
        EXPECT_EXIT(row.send(*connection.near, "abc"), ::testing::KilledBySignal(SIGPIPE), "") << row.name;
    }
}

// sendMessage()

TEST_F(NetUtilTest, SendsLengthThenTextAndZero) {
    Connection connection;
    char text[] = "abc";
    EXPECT_EQ(NetUtil::sendMessage(*connection.near, text, 3), 0);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(connection.ReceiveAll(), "\0\0\0\4abc\0"s);
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, SendsFrameInOneSystemCall) {
    const Connection connection(SOCK_SEQPACKET);
    EXPECT_EQ(SendMessage(*connection.near, "abc"), 0);
    EXPECT_EQ(connection.Receive(), Frame("abc"));
    EXPECT_EQ(SendMessage(*connection.near, ""), 0);
    EXPECT_EQ(connection.Receive(), "\0\0\0\1\0"s);
}

TEST_F(NetUtilTest, SendsWholeFrameInSeveralWrites) {
    for (ssize_t most = 1; most <= 9; ++most) {
        Connection connection;
        g_writes.assign(8, most);
        EXPECT_EQ(SendMessage(*connection.near, "abc"), 0);
        EXPECT_EQ(g_writes.size(), static_cast<std::size_t>(8 - (8 + most - 1) / most)) << "calls of " << most;
        EXPECT_EQ(connection.ReceiveAll(), Frame("abc")) << most;
    }
}

TEST_F(NetUtilTest, StopsAtFirstFailedWrite) {
    const struct {
        const char* name;
        std::vector<ssize_t> writes;
        const char* sent;
        std::size_t length;
    } rows[] = {
        {"nothing written", {0, 8}, "", 0},
        {"error at the first write", {-1, 8}, "", 0},
        {"inside the header", {2, 0, 8}, "\0\0", 2},
        {"after the header", {4, -1, 8}, "\0\0\0\4", 4},
        {"inside the payload", {5, 1, -1, 8}, "\0\0\0\4ab", 6},
    };
    for (const auto& row : rows) {
        Connection connection;
        g_writes = row.writes;
        EXPECT_EQ(SendMessage(*connection.near, "abc"), -1) << row.name;
        EXPECT_EQ(g_writes.size(), 1U) << row.name;
        EXPECT_EQ(connection.ReceiveAll(), std::string(row.sent, row.length)) << row.name;
    }
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, SendsOnlyHeaderForNegativeLength) {
    for (const int length : {-1, -2, INT_MIN}) {
        Connection connection;
        EXPECT_EQ(NetUtil::sendMessage(*connection.near, nullptr, length), 0);
        EXPECT_EQ(connection.ReceiveAll(), Header(static_cast<unsigned int>(length) + 1)) << length;
    }
}

TEST_F(NetUtilTest, FailsToSendToClosedPeer) {
    Connection connection;
    connection.far->Close();
    EXPECT_EQ(SendMessage(*connection.near, "abc"), -1);
    EXPECT_EQ(SendMessage(/*fd=*/-1, "abc"), -1);
    ExpectEmptyLog();
}

// getMessage()

TEST_F(NetUtilTest, ReceivesFrameSmallerThanBuffer) {
    for (const int size : {5, 6, 100}) {
        Connection connection;
        connection.Send(Frame("abc") + Frame("next"));
        const Received received(*connection.near, size);
        EXPECT_EQ(received.result, 0);
        EXPECT_EQ(received.length, 3);
        EXPECT_EQ(received.buffer.substr(0, 5), "abc\0#"s);
        EXPECT_EQ(connection.Unread(), 9) << "the next frame was read too";
    }
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, RefusesBadHeaderWithoutReadingPayload) {
    const struct {
        const char* name;
        unsigned int header;
        int size;
    } rows[] = {
        {"as large as the buffer", 4, 4},
        {"larger", 5, 4},
        {"the largest", INT_MAX, kReplyBufferSize},
        {"the largest buffer", INT_MAX, INT_MAX - 8},
        {"negative", 0xFFFFFFFF, kReplyBufferSize},
        {"only the top bit", 0x80000000, kReplyBufferSize},
        {"no payload, no buffer", 0, 0},
        {"a negative buffer size", 0, -1},
    };
    for (const auto& row : rows) {
        Connection connection;
        connection.Send(Header(row.header) + "abc\0"s);
        char small[4] = {'#', '#', '#', '#'};
        int length = 77;
        EXPECT_EQ(NetUtil::getMessage(*connection.near, small, row.size, length), -1) << row.name;
        EXPECT_EQ(length, static_cast<int>(row.header)) << row.name;
        EXPECT_EQ(std::string(small, 4), "####") << row.name;
        EXPECT_EQ(connection.Unread(), 4) << row.name;
    }
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, ReceivesFrameWithoutPayload) {
    Connection connection;
    connection.Send(Header(0) + "abc");
    const Received received(*connection.near, 1);
    EXPECT_EQ(received.result, 0);
    EXPECT_EQ(received.length, -1);
    EXPECT_EQ(received.buffer[0], '#');
    EXPECT_EQ(connection.Unread(), 3);
}

TEST_F(NetUtilTest, DoesNotReplaceLastByteWithZero) {
    Connection connection;
    connection.Send(Header(4) + "abcd");
    const Received received(*connection.near, 5);
    EXPECT_EQ(received.result, 0);
    EXPECT_EQ(received.length, 3);
    EXPECT_EQ(received.buffer.substr(0, 5), "abcd#");
}

TEST_F(NetUtilTest, ReceivesFrameByteByByte) {
    Connection connection;
    std::future<bool> sender = std::async(std::launch::async, [&] {
        for (const char byte : Frame("some text")) {
            connection.Send({byte});
            if (!Waiting::Until([&] { return connection.Unread() == 0; })) {
                return false;
            }
        }
        return true;
    });
    const Received received(*connection.near, 100);
    EXPECT_EQ(received.result, 0);
    EXPECT_EQ(received.Text(), "some text");
    EXPECT_TRUE(sender.get());
}

TEST_F(NetUtilTest, FailsWhenPeerClosesInsideFrame) {
    const std::string frame = Frame("abc");
    for (std::size_t sent = 0; sent < frame.size(); ++sent) {
        Connection connection;
        connection.Send(frame.substr(0, sent));
        connection.far->Close();
        const Received received(*connection.near, 100);
        EXPECT_EQ(received.result, -1) << sent;
        EXPECT_EQ(received.length, sent < 4 ? 77 : 4) << sent;
    }
    EXPECT_EQ(Received(/*fd=*/-1, 100).result, -1);
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, FailsWhenSignalInterruptsReading) {
    const Connection connection;
    EXPECT_EQ(Interrupted(*connection.near, [&] { return Received(*connection.near, 100).result; }), -1);
    connection.Send("\0\0"s);
    EXPECT_EQ(Interrupted(*connection.near, [&] { return Received(*connection.near, 100).result; }), -1);
}

TEST_F(NetUtilTest, CarriesTextsOfManyLengths) {
    Connection connection;
    const int size = 4096;
    setsockopt(*connection.near, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    const std::size_t lengths[] = {0, 1, 2, 255, 256, 65535, 65536, kReplyBufferSize, 3000000};
    std::future<bool> sender = std::async(std::launch::async, [&] {
        return std::all_of(std::begin(lengths), std::end(lengths), [&](std::size_t length) {
            return SendMessage(*connection.near, std::string(length, 'x')) == 0;
        });
    });
    for (const std::size_t length : lengths) {
        const Received received(*connection.far, 4000000);
        ASSERT_EQ(received.result, 0) << length;
        ASSERT_EQ(static_cast<std::size_t>(received.length), length);
        EXPECT_EQ(received.Text().find_first_not_of('x'), std::string::npos) << length;
        EXPECT_EQ(received.buffer[length], '\0') << length;
    }
    EXPECT_TRUE(sender.get());
}

// GetReply()

TEST_F(NetUtilTest, DropsReplyWithoutLogging) {
    Connection connection;
    connection.Send(Frame("first") + Frame("second"));
    NetUtil::GetReply(*connection.near);
    EXPECT_EQ(connection.Unread(), 11);
    NetUtil::GetReply(*connection.near);
    EXPECT_EQ(connection.Unread(), 0);
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, LogsReplyWithLabel) {
    const struct {
        const char* label;
        std::string frame;
        const char* message;
    } rows[] = {
        {"Answer", Frame("some text"), "Answer [9] : some text"},
        {"", Frame(""), " [0] : "},
        {"return code", Frame("0"), "return code [1] : 0"},
        {"Return Code ", Frame("0"), "Return Code  [1] : 0"},
        {"Return", Frame("0"), "Return [1] : 0"},
        {"no payload", Header(0), "no payload [-1] : "},
        {"no zero", Header(3) + "abc", "no zero [2] : abc"},
        {"a zero within", Frame("ab\0cd"s), "a zero within [5] : ab"},
        {"a percent sign", Frame("%s%n"), "a percent sign [4] : %s%n"},
    };
    for (const auto& row : rows) {
        const Connection connection;
        connection.Send(row.frame);
        NetUtil::GetReply(*connection.near, row.label);
        ExpectOneLine(/*priority=*/3, "GetReply", "%s [%d] : %s", row.message);
        EXPECT_EQ(connection.Unread(), 0);
    }
}

TEST_F(NetUtilTest, DoesNotLogReturnCodeOrNullLabel) {
    for (const char* label : {"Return Code", static_cast<const char*>(nullptr)}) {
        Connection connection;
        connection.Send(Frame("0") + Frame("next"));
        NetUtil::GetReply(*connection.near, label);
        EXPECT_EQ(connection.Unread(), 9);
        ExpectEmptyLog();
    }
}

TEST_F(NetUtilTest, LogsErrorWhenReplyDoesNotArrive) {
    Connection connection;
    connection.Send(Header(4) + "ab");
    connection.far->Close();
    NetUtil::GetReply(*connection.near);
    ExpectOneError("GetReply", "Error getting a message");
    for (const char* label : {"Answer", "Return Code", static_cast<const char*>(nullptr)}) {
        NetUtil::GetReply(*connection.near, label);
        ExpectOneError("GetReply", "Error getting a message");
    }
}

TEST_F(NetUtilTest, AcceptsRepliesUpToMaximumSize) {
    EXPECT_EQ(NetUtil::kMaxReplySize, 204799);
    Connection connection;
    const std::string longest(NetUtil::kMaxReplySize - 1, 'x');  // without the zero
    std::future<int> sender = std::async(std::launch::async, [&] { return SendMessage(*connection.far, longest); });
    NetUtil::GetReply(*connection.near, "Answer");
    EXPECT_EQ(sender.get(), 0);
    EXPECT_EQ(CapturedLog::Messages(), (Messages{"D Answer [" + std::to_string(longest.size()) + "] : " + longest}));
    CapturedLog::Clear();
    connection.Send(Header(NetUtil::kMaxReplySize + 1) + "abc");
    NetUtil::GetReply(*connection.near, "Answer");
    ExpectOneError("GetReply", "Error getting a message");
    EXPECT_EQ(connection.Unread(), 3);
}

TEST_F(NetUtilTest, ReceivesReplyOnThreadWithSmallStack) {
    const Connection connection;
    connection.Send(Frame("text"));
    constexpr std::size_t kStackSize = 131072;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStackSize), 0);
    const auto run = [](void* fd) -> void* {
        NetUtil::GetReply(*static_cast<int*>(fd), "Answer");
        return nullptr;
    };
    int fd = *connection.near;
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &fd), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(CapturedLog::Messages(), (Messages{"D Answer [4] : text"}));
}

TEST_F(NetUtilTest, LogsErrorWhenReplyBufferAllocationFails) {
    const Connection connection;
    connection.Send(Frame("text"));
    {
        const FailingAllocation failing;
        NetUtil::GetReply(*connection.near);
    }
    ExpectOneError("GetReply", "Error getting a message");
    EXPECT_EQ(connection.Unread(), 9);
}

// SendData()

TEST_F(NetUtilTest, SendsTextWithoutWaitingForReply) {
    for (const int replies : {0, -1, INT_MIN}) {
        Connection connection;
        connection.Send(Frame("reply"));
        EXPECT_TRUE(NetUtil::SendData(*connection.near, "x", replies));
        EXPECT_EQ(connection.Unread(), 10);
        EXPECT_EQ(connection.Receive(), Frame("x"));
    }
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, SendsTextAndDropsReplies) {
    const Connection connection;
    connection.Send(Frame("one") + Frame("two") + Frame("three"));
    EXPECT_TRUE(NetUtil::SendData(*connection.near, "some text", 2));
    EXPECT_EQ(connection.Receive(), Frame("some text"));
    EXPECT_EQ(connection.Unread(), 10);
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, ReportsSuccessWhenRepliesFail) {
    Connection connection;
    connection.Send(Frame("one") + Header(0x80000000));
    shutdown(*connection.far, SHUT_WR);
    EXPECT_TRUE(NetUtil::SendData(*connection.near, "some text", 3));
    EXPECT_EQ(CapturedLog::Messages(), (Messages{"E Error getting a message", "E Error getting a message"}));
}

TEST_F(NetUtilTest, ReadsNoReplyWhenSendingFails) {
    Connection connection;
    connection.Send(Frame("reply"));
    g_writes = {4, 0};
    EXPECT_FALSE(NetUtil::SendData(*connection.near, "some text", 1));
    ExpectOneError("SendData", "Error Sending a Message");
    EXPECT_EQ(connection.Unread(), 10);
}

// SendStringData() and SendRawData()

TEST_F(NetUtilTest, SendsLineInOneCall) {
    const Connection connection(SOCK_SEQPACKET);
    for (const char* text : {"abc", "", "two\nlines"}) {
        EXPECT_TRUE(NetUtil::SendStringData(*connection.near, text));
        EXPECT_EQ(connection.Receive(), std::string(text) + "\n");
    }
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, ThrowsForNullLine) {
    Connection connection;
    EXPECT_THROW(NetUtil::SendStringData(*connection.near, nullptr), std::logic_error);
    EXPECT_EQ(connection.ReceiveAll(), "");
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, SendsBytesInOneCall) {
    const Connection connection(SOCK_SEQPACKET);
    EXPECT_TRUE(NetUtil::SendRawData(*connection.near, "a\0b", 3));
    EXPECT_EQ(connection.Receive(), "a\0b"s);
    EXPECT_TRUE(NetUtil::SendRawData(*connection.near, "abc", 1));
    EXPECT_EQ(connection.Receive(), "a");
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, SendsZeroBytes) {
    Connection connection;
    EXPECT_TRUE(NetUtil::SendRawData(*connection.near, "abc", 0));
    EXPECT_EQ(connection.ReceiveAll(), "");
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, CountsPartialSendAsSuccess) {
    constexpr int kMore = 4 * 1024 * 1024;  // more than a socket buffers
    const std::string text(kMore, 'x');
    Connection connection;
    fcntl(*connection.near, F_SETFL, O_NONBLOCK);
    EXPECT_TRUE(NetUtil::SendStringData(*connection.near, text.c_str()));
    const std::string line = connection.ReceiveAll();
    EXPECT_GT(line.size(), 0U);
    EXPECT_LT(line.size(), text.size());
    Connection other;
    fcntl(*other.near, F_SETFL, O_NONBLOCK);
    EXPECT_TRUE(NetUtil::SendRawData(*other.near, text.data(), kMore));
    EXPECT_EQ(other.ReceiveAll().size(), line.size());
    ExpectEmptyLog();
}

TEST_F(NetUtilTest, ReportsFailedSend) {
    Connection connection;
    connection.far->Close();
    EXPECT_FALSE(NetUtil::SendStringData(*connection.near, "abc"));
    ExpectOneError("SendStringData", "Error Sending a Message");
    EXPECT_FALSE(NetUtil::SendRawData(*connection.near, "abc", 3));
    ExpectOneError("SendRawData", "Error Sending a Message");
    Connection open;
    for (const int length : {-1, INT_MIN}) {
        EXPECT_FALSE(NetUtil::SendRawData(*open.near, "abc", length));
        ExpectOneError("SendRawData", "Error Sending a Message");
    }
    EXPECT_EQ(open.ReceiveAll(), "");
}

}  // namespace
