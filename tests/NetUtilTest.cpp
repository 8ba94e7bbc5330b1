// SPDX-License-Identifier: Apache-2.0
#include "NetUtil.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "FailingAllocation.h"
#include "Waiting.h"

// What loopback sockets do not do on demand, these do by standing in front of the C library: a write that takes only a
// part, calls that fail.

namespace {

/// What the next calls of writev() take, at most, in bytes; -1 fails. Without an entry they take all.
std::vector<ssize_t> g_writes;
std::vector<int> g_backlogs;    ///< of every listen()
std::vector<timeval> g_limits;  ///< of every select()
bool g_isSocketFailing = false;
bool g_isSetsockoptFailing = false;

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" ssize_t writev(int fd, const iovec* parts, int count) {
    if (g_writes.empty()) {
        return Next<ssize_t(int, const iovec*, int)>("writev")(fd, parts, count);
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

extern "C" int listen(int fd, int backlog) noexcept {
    g_backlogs.push_back(backlog);
    return Next<int(int, int)>("listen")(fd, backlog);
}

extern "C" int select(int end, fd_set* readable, fd_set* writable, fd_set* failed, timeval* limit) {
    g_limits.push_back(*limit);
    return Next<int(int, fd_set*, fd_set*, fd_set*, timeval*)>("select")(end, readable, writable, failed, limit);
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
    if (g_isSocketFailing) {
        errno = EMFILE;
        return -1;
    }
    return Next<int(int, int, int)>("socket")(domain, type, protocol);
}

extern "C" int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
    if (g_isSetsockoptFailing) {
        errno = ENOBUFS;
        return -1;
    }
    return Next<int(int, int, int, const void*, socklen_t)>("setsockopt")(fd, level, option, value, size);
}

namespace {

using Network::NetUtil;
using namespace std::chrono_literals;
using namespace std::string_literals;
using Messages = std::vector<std::string>;

constexpr const char* kLoopback = "127.0.0.1";

/// A descriptor that the test owns: nobody else may have closed it. Reading and writing give up after a while.
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

/// Two ends of one connection: `near` is the library's, `far` is played by the test.
class Connection {
public:
    explicit Connection(int type = SOCK_STREAM) {
        int ends[2];
        if (socketpair(AF_UNIX, type, 0, ends) != 0) {
            throw std::runtime_error("no socket pair");
        }
        near.emplace(ends[0]);
        far.emplace(ends[1]);
    }

    void Send(const std::string& bytes) const {
        ASSERT_EQ(write(*far, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    /// @return the next bytes that the library sent; of a SOCK_SEQPACKET connection one packet.
    std::string Receive() const {
        char bytes[1000];
        const ssize_t count = recv(*far, bytes, sizeof(bytes), 0);
        return {bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

    /// @return everything that the library sent so far.
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

std::string Header(unsigned int length) {
    const unsigned int bytes[] = {length >> 24, length >> 16, length >> 8, length};
    std::string header;
    for (const unsigned int byte : bytes) {
        header += static_cast<char>(byte & 0xFF);
    }
    return header;
}

std::string Frame(const std::string& text) {
    return Header(static_cast<unsigned int>(text.size()) + 1) + text + '\0';
}

int SendMessage(int fd, const std::string& text) {
    std::string copy = text;
    return NetUtil::sendMessage(fd, copy.data(), static_cast<int>(copy.size()));
}

/// What getMessage() makes of bytes in a buffer of a size, behind which nothing may be written.
struct Received {
    Received(int fd, int bufSize) : buffer(static_cast<std::size_t>(std::max(bufSize, 0)) + 8, '#') {
        result = NetUtil::getMessage(fd, buffer.data(), bufSize, length);
        EXPECT_EQ(buffer.substr(buffer.size() - 8), "########");
    }

    std::string Text() const { return buffer.substr(0, static_cast<std::size_t>(length)); }

    std::string buffer;
    int length = 77;
    int result;
};

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

std::ptrdiff_t CountDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

/// Has a thread interrupted by signals until it is done.
template <class Call>
int Interrupted(Call call) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before);  // without SA_RESTART
    std::promise<pthread_t> thread;
    std::future<int> result = std::async(std::launch::async, [&] {
        thread.set_value(pthread_self());
        return call();
    });
    const pthread_t id = thread.get_future().get();
    while (result.wait_for(1ms) != std::future_status::ready) {
        pthread_kill(id, SIGUSR1);
    }
    sigaction(SIGUSR1, &before, nullptr);
    return result.get();
}

class NetUtilTest : public ::testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        CapturedLog::Clear();
        g_writes.clear();
        g_backlogs.clear();
        g_limits.clear();
        m_descriptors = CountDescriptors();
    }

    void TearDown() override {
        g_isSocketFailing = false;
        g_isSetsockoptFailing = false;
        EXPECT_EQ(CountDescriptors(), m_descriptors) << "descriptors left open";
        signal(SIGPIPE, SIG_DFL);
    }

    static void ExpectOneLine(int priority, const char* function, const char* format, const std::string& message) {
        const std::vector<CapturedLog::Line> lines = CapturedLog::Lines();
        ASSERT_EQ(lines.size(), 1U) << function;
        EXPECT_EQ(lines[0].priority, priority);
        EXPECT_EQ(lines[0].tag, "LMR_COMMON");
        EXPECT_EQ(lines[0].file, "NetUtil.cpp");
        EXPECT_EQ(lines[0].function, function);
        EXPECT_EQ(lines[0].format, format);
        EXPECT_EQ(lines[0].message, message);
        CapturedLog::Clear();
    }

    static void ExpectOneError(const char* function, const char* message) {
        ExpectOneLine(/*priority=*/6, function, message, message);
    }

    static void ExpectSilence() { EXPECT_EQ(CapturedLog::Messages(), Messages{}); }

    std::ptrdiff_t m_descriptors = 0;
};

// sendMessage

TEST_F(NetUtilTest, SendsTheLengthInNetworkByteOrderThenTheTextAndItsZero) {
    Connection connection;
    char text[] = "abc";
    EXPECT_EQ(NetUtil::sendMessage(*connection.near, text, 3), 0);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(connection.ReceiveAll(), "\0\0\0\4abc\0"s);
    ExpectSilence();
}

TEST_F(NetUtilTest, SendsAFrameInOneSystemCall) {
    const Connection connection(SOCK_SEQPACKET);
    EXPECT_EQ(SendMessage(*connection.near, "abc"), 0);
    EXPECT_EQ(connection.Receive(), Frame("abc"));
    EXPECT_EQ(SendMessage(*connection.near, ""), 0);
    EXPECT_EQ(connection.Receive(), "\0\0\0\1\0"s);
}

TEST_F(NetUtilTest, SendsAllOfAFrameThatTheSystemTakesInPieces) {
    for (ssize_t most = 1; most <= 9; ++most) {
        Connection connection;
        g_writes.assign(8, most);
        EXPECT_EQ(SendMessage(*connection.near, "abc"), 0);
        EXPECT_EQ(g_writes.size(), static_cast<std::size_t>(8 - (8 + most - 1) / most)) << "calls of " << most;
        EXPECT_EQ(connection.ReceiveAll(), Frame("abc")) << most;
    }
}

TEST_F(NetUtilTest, GivesUpAFrameAtTheFirstWriteThatTakesNothing) {
    const struct {
        const char* name;
        std::vector<ssize_t> writes;
        const char* sent;
        std::size_t length;
    } rows[] = {
        {"at once", {0, 8}, "", 0},
        {"an error at once", {-1, 8}, "", 0},
        {"within the header", {2, 0, 8}, "\0\0", 2},
        {"behind the header", {4, -1, 8}, "\0\0\0\4", 4},
        {"within the payload", {5, 1, -1, 8}, "\0\0\0\4ab", 6},
    };
    for (const auto& row : rows) {
        Connection connection;
        g_writes = row.writes;
        EXPECT_EQ(SendMessage(*connection.near, "abc"), -1) << row.name;
        EXPECT_EQ(g_writes.size(), 1U) << row.name;
        EXPECT_EQ(connection.ReceiveAll(), std::string(row.sent, row.length)) << row.name;
    }
    ExpectSilence();
}

TEST_F(NetUtilTest, SendsOnlyAHeaderForALengthBelowZero) {
    for (const int length : {-1, -2, INT_MIN}) {
        Connection connection;
        EXPECT_EQ(NetUtil::sendMessage(*connection.near, nullptr, length), 0);
        EXPECT_EQ(connection.ReceiveAll(), Header(static_cast<unsigned int>(length) + 1)) << length;
    }
}

TEST_F(NetUtilTest, FailsToSendToAPeerThatIsGone) {
    Connection connection;
    connection.far->Close();
    EXPECT_EQ(SendMessage(*connection.near, "abc"), -1);
    EXPECT_EQ(SendMessage(/*fd=*/-1, "abc"), -1);
    ExpectSilence();
}

TEST_F(NetUtilTest, LeavesTheBrokenPipeSignalToTheHost) {
    signal(SIGPIPE, SIG_DFL);
    Connection connection;
    connection.far->Close();
    const int fd = *connection.near;
    EXPECT_EXIT(SendMessage(fd, "abc"), ::testing::KilledBySignal(SIGPIPE), "");
    EXPECT_EXIT(NetUtil::SendStringData(fd, "abc"), ::testing::KilledBySignal(SIGPIPE), "");
    EXPECT_EXIT(NetUtil::SendRawData(fd, "abc", 3), ::testing::KilledBySignal(SIGPIPE), "");
    EXPECT_EXIT(NetUtil::SendData(fd, "abc", 0), ::testing::KilledBySignal(SIGPIPE), "");
}

// getMessage

TEST_F(NetUtilTest, ReceivesAFrameThatFitsWithAByteToSpare) {
    for (const int size : {5, 6, 100}) {
        Connection connection;
        connection.Send(Frame("abc") + Frame("next"));
        const Received received(*connection.near, size);
        EXPECT_EQ(received.result, 0);
        EXPECT_EQ(received.length, 3);
        EXPECT_EQ(received.buffer.substr(0, 5), "abc\0#"s);
        EXPECT_EQ(connection.Unread(), 9) << "of the next frame";
    }
    ExpectSilence();
}

TEST_F(NetUtilTest, RefusesHeadersWithoutReadingOn) {
    const struct {
        const char* name;
        unsigned int header;
        int size;
    } rows[] = {
        {"as large as the buffer", 4, 4},   {"larger", 5, 4},
        {"the largest", INT_MAX, 204800},   {"the largest buffer", INT_MAX, INT_MAX - 8},
        {"below zero", 0xFFFFFFFF, 204800}, {"the top bit alone", 0x80000000, 204800},
        {"no payload, no buffer", 0, 0},    {"a buffer below zero", 0, -1},
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
    ExpectSilence();
}

TEST_F(NetUtilTest, ReceivesAFrameWithoutPayload) {
    Connection connection;
    connection.Send(Header(0) + "abc");
    const Received received(*connection.near, 1);
    EXPECT_EQ(received.result, 0);
    EXPECT_EQ(received.length, -1);
    EXPECT_EQ(received.buffer[0], '#');
    EXPECT_EQ(connection.Unread(), 3);
}

TEST_F(NetUtilTest, ReceivesWhatThePeerSendsAsItsTerminatingZero) {
    Connection connection;
    connection.Send(Header(4) + "abcd");
    const Received received(*connection.near, 5);
    EXPECT_EQ(received.result, 0);
    EXPECT_EQ(received.length, 3);
    EXPECT_EQ(received.buffer.substr(0, 5), "abcd#");
}

TEST_F(NetUtilTest, ReceivesAFrameThatComesByteByByte) {
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

TEST_F(NetUtilTest, FailsWhenThePeerClosesBeforeTheFrameIsWhole) {
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
    ExpectSilence();
}

TEST_F(NetUtilTest, FailsWhenASignalInterruptsTheWait) {
    const Connection connection;
    EXPECT_EQ(Interrupted([&] { return Received(*connection.near, 100).result; }), -1);
    connection.Send("\0\0"s);
    EXPECT_EQ(Interrupted([&] { return Received(*connection.near, 100).result; }), -1);
}

TEST_F(NetUtilTest, CarriesTextsOfManyLengths) {
    Connection connection;
    const int size = 4096;
    setsockopt(*connection.near, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    const std::size_t lengths[] = {0, 1, 2, 255, 256, 65535, 65536, 204798, 204799, 3000000};
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

// GetReply

TEST_F(NetUtilTest, DropsAReplySilently) {
    Connection connection;
    connection.Send(Frame("first") + Frame("second"));
    NetUtil::GetReply(*connection.near);
    EXPECT_EQ(connection.Unread(), 11);
    NetUtil::GetReply(*connection.near);
    EXPECT_EQ(connection.Unread(), 0);
    ExpectSilence();
}

TEST_F(NetUtilTest, LogsALabelledReply) {
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

TEST_F(NetUtilTest, DropsAReturnCodeAndAReplyWithoutALabelSilently) {
    for (const char* label : {"Return Code", static_cast<const char*>(nullptr)}) {
        Connection connection;
        connection.Send(Frame("0") + Frame("next"));
        NetUtil::GetReply(*connection.near, label);
        EXPECT_EQ(connection.Unread(), 9);
        ExpectSilence();
    }
}

TEST_F(NetUtilTest, LogsAReplyThatDoesNotCome) {
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

TEST_F(NetUtilTest, TakesRepliesBelow204800Bytes) {
    Connection connection;
    const std::string longest(204798, 'x');
    std::future<int> sender = std::async(std::launch::async, [&] { return SendMessage(*connection.far, longest); });
    NetUtil::GetReply(*connection.near, "Answer");
    EXPECT_EQ(sender.get(), 0);
    EXPECT_EQ(CapturedLog::Messages(), (Messages{"D Answer [204798] : " + longest}));
    CapturedLog::Clear();
    connection.Send(Header(204800) + "abc");
    NetUtil::GetReply(*connection.near, "Answer");
    ExpectOneError("GetReply", "Error getting a message");
    EXPECT_EQ(connection.Unread(), 3);
}

TEST_F(NetUtilTest, TakesRepliesOnAThreadWithASmallStack) {
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

TEST_F(NetUtilTest, LogsAReplyThatThereIsNoMemoryFor) {
    const Connection connection;
    connection.Send(Frame("text"));
    {
        const FailingAllocation failing;
        NetUtil::GetReply(*connection.near);
    }
    ExpectOneError("GetReply", "Error getting a message");
    EXPECT_EQ(connection.Unread(), 9);
}

// SendData

TEST_F(NetUtilTest, SendsATextAndWaitsForNoReply) {
    for (const int replies : {0, -1, INT_MIN}) {
        Connection connection;
        connection.Send(Frame("reply"));
        EXPECT_TRUE(NetUtil::SendData(*connection.near, "x", replies));
        EXPECT_EQ(connection.Unread(), 10);
        EXPECT_EQ(connection.Receive(), Frame("x"));
    }
    ExpectSilence();
}

TEST_F(NetUtilTest, SendsATextAndDropsItsReplies) {
    const Connection connection;
    connection.Send(Frame("one") + Frame("two") + Frame("three"));
    EXPECT_TRUE(NetUtil::SendData(*connection.near, "some text", 2));
    EXPECT_EQ(connection.Receive(), Frame("some text"));
    EXPECT_EQ(connection.Unread(), 10);
    ExpectSilence();
}

TEST_F(NetUtilTest, CountsATextAsSentWhateverItsReplies) {
    Connection connection;
    connection.Send(Frame("one") + Header(0x80000000));
    shutdown(*connection.far, SHUT_WR);
    EXPECT_TRUE(NetUtil::SendData(*connection.near, "some text", 3));
    EXPECT_EQ(CapturedLog::Messages(), (Messages{"E Error getting a message", "E Error getting a message"}));
}

TEST_F(NetUtilTest, ReportsATextThatCouldNotBeSentAndReadsNoReply) {
    Connection connection;
    connection.Send(Frame("reply"));
    g_writes = {4, 0};
    EXPECT_FALSE(NetUtil::SendData(*connection.near, "some text", 1));
    ExpectOneError("SendData", "Error Sending a Message");
    EXPECT_EQ(connection.Unread(), 10);
}

// SendStringData, SendRawData

TEST_F(NetUtilTest, SendsALineInOneCall) {
    const Connection connection(SOCK_SEQPACKET);
    for (const char* text : {"abc", "", "two\nlines"}) {
        EXPECT_TRUE(NetUtil::SendStringData(*connection.near, text));
        EXPECT_EQ(connection.Receive(), std::string(text) + "\n");
    }
    ExpectSilence();
}

TEST_F(NetUtilTest, ThrowsForALineThatIsNull) {
    Connection connection;
    EXPECT_THROW(NetUtil::SendStringData(*connection.near, nullptr), std::logic_error);
    EXPECT_EQ(connection.ReceiveAll(), "");
    ExpectSilence();
}

TEST_F(NetUtilTest, SendsBytesInOneCall) {
    const Connection connection(SOCK_SEQPACKET);
    EXPECT_TRUE(NetUtil::SendRawData(*connection.near, "a\0b", 3));
    EXPECT_EQ(connection.Receive(), "a\0b"s);
    EXPECT_TRUE(NetUtil::SendRawData(*connection.near, "abc", 1));
    EXPECT_EQ(connection.Receive(), "a");
    ExpectSilence();
}

TEST_F(NetUtilTest, SendsNoBytes) {
    Connection connection;
    EXPECT_TRUE(NetUtil::SendRawData(*connection.near, "abc", 0));
    EXPECT_EQ(connection.ReceiveAll(), "");
    ExpectSilence();
}

TEST_F(NetUtilTest, CountsBytesThatAreSentInPartAsSent) {
    constexpr int kMore = 4 * 1024 * 1024;  // than a socket takes
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
    ExpectSilence();
}

TEST_F(NetUtilTest, ReportsBytesThatCouldNotBeSent) {
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

// BindPort

TEST_F(NetUtilTest, BindsAPortOfEveryInterfaceWithoutListening) {
    const Descriptor first(NetUtil::BindPort(0));
    ASSERT_GE(first, 0);
    EXPECT_NE(PortOf(first), 0);
    EXPECT_EQ(AddressOf(first).sin_addr.s_addr, INADDR_ANY);
    EXPECT_EQ(Option(first, SO_DOMAIN), AF_INET);
    EXPECT_EQ(Option(first, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(Option(first, SO_REUSEADDR), 1);
    EXPECT_EQ(Option(first, SO_ACCEPTCONN), 0);
    const Descriptor second(NetUtil::BindPort(PortOf(first)));  // nobody listens there: it may be shared
    EXPECT_EQ(PortOf(second), PortOf(first));
    EXPECT_TRUE(g_backlogs.empty());
    ExpectSilence();
}

TEST_F(NetUtilTest, ReportsAPortThatIsTaken) {
    const Descriptor taken(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(taken, 0), -1);
    const std::ptrdiff_t before = CountDescriptors();
    EXPECT_EQ(NetUtil::BindPort(PortOf(taken)), -1);
    EXPECT_EQ(CountDescriptors(), before);
    ExpectOneLine(/*priority=*/6, "BindPort", "NetUtil: Can't bind to port %d",
                  "NetUtil: Can't bind to port " + std::to_string(PortOf(taken)));
}

TEST_F(NetUtilTest, ReportsASocketThatCannotBeMade) {
    g_isSocketFailing = true;
    EXPECT_EQ(NetUtil::BindPort(0), -1);
    ExpectOneError("BindPort", "NetUtil: Can't open socket");
    EXPECT_EQ(NetUtil::ConnectNewSocket(kLoopback, 1), -1);
    ExpectOneError("ConnectNewSocket", "can't create socket");
}

TEST_F(NetUtilTest, ReportsAnAddressThatCannotBeReused) {
    const std::ptrdiff_t before = CountDescriptors();
    g_isSetsockoptFailing = true;
    EXPECT_EQ(NetUtil::BindPort(0), -1);
    EXPECT_EQ(CountDescriptors(), before);
    ExpectOneError("BindPort", "setsockopt reuse error");
}

// AcceptNewSocket, AcceptNewSocketBlock, ConnectNewSocket

TEST_F(NetUtilTest, ConnectsAClientThatWaitsAlready) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 0), -1);
    ExpectSilence();
    const Descriptor client(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)));
    ASSERT_GE(client, 0);
    ExpectOneLine(/*priority=*/3, "ConnectNewSocket", "Connected", "Connected");
    const Descriptor server(NetUtil::AcceptNewSocket(listener, 20));
    ASSERT_GE(server, 0);
    ExpectSilence();
    EXPECT_EQ(AddressOf(client, getpeername).sin_port, AddressOf(listener).sin_port);
    EXPECT_EQ(AddressOf(client, getpeername).sin_addr.s_addr, inet_addr(kLoopback));
    EXPECT_EQ(AddressOf(server, getpeername).sin_port, AddressOf(client).sin_port);
    EXPECT_EQ(SendMessage(client, "to the server"), 0);
    EXPECT_EQ(Received(server, 100).Text(), "to the server");
    EXPECT_EQ(SendMessage(server, "to the client"), 0);
    EXPECT_EQ(Received(client, 100).Text(), "to the client");
}

TEST_F(NetUtilTest, WaitsForAClient) {
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

TEST_F(NetUtilTest, ReturnsSilentlyWhenTheTimeLimitHasPassed) {
    const Descriptor listener(NetUtil::BindPort(0));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(NetUtil::AcceptNewSocket(listener, 1), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 990ms);
    ASSERT_EQ(g_limits.size(), 1U);
    EXPECT_EQ(g_limits[0].tv_sec, 1);
    EXPECT_EQ(g_limits[0].tv_usec, 0);
    ExpectSilence();
}

TEST_F(NetUtilTest, ListensAtEveryBoundedAccept) {
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
    EXPECT_EQ(g_backlogs.size(), 2U) << "the blocking accept does not listen";
}

TEST_F(NetUtilTest, ReportsADescriptorThatCannotBeAccepted) {
    const Connection connection;
    connection.Send("x");  // readable, but no listener: that listen() fails too does not matter
    EXPECT_EQ(NetUtil::AcceptNewSocket(*connection.near, 20), -1);
    ExpectOneError("AcceptNewSocketBlock", "NetUtil: Error accepting a new connection");
    EXPECT_EQ(NetUtil::AcceptNewSocketBlock(*connection.near), -1);
    ExpectOneError("AcceptNewSocketBlock", "NetUtil: Error accepting a new connection");
}

TEST_F(NetUtilTest, ReportsADescriptorThatCannotBeWaitedFor) {
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

TEST_F(NetUtilTest, WaitsForDescriptorsUpToTheSizeOfASetOnly) {
    const Descriptor listener(NetUtil::BindPort(0));
    const Descriptor last(fcntl(listener, F_DUPFD, FD_SETSIZE - 1));
    const Descriptor behind(fcntl(listener, F_DUPFD, FD_SETSIZE));
    ASSERT_EQ(last, FD_SETSIZE - 1) << "raise the limit of open files";
    ASSERT_EQ(behind, FD_SETSIZE) << "raise the limit of open files";
    EXPECT_EQ(NetUtil::AcceptNewSocket(last, 0), -1);
    ExpectSilence();
    const Descriptor client(NetUtil::ConnectNewSocket(kLoopback, PortOf(listener)));
    CapturedLog::Clear();
    EXPECT_EQ(NetUtil::AcceptNewSocket(behind, 20), -1);
    ExpectOneError("AcceptNewSocket", "select error or timeout");
    const Descriptor server(NetUtil::AcceptNewSocket(last, 20));
    EXPECT_GE(server, 0);
    ExpectSilence();
}

TEST_F(NetUtilTest, ReportsAWaitThatASignalInterrupts) {
    const Descriptor listener(NetUtil::BindPort(0));
    EXPECT_EQ(Interrupted([&] { return NetUtil::AcceptNewSocket(listener, 20); }), -1);
    ExpectOneError("AcceptNewSocket", "select error or timeout");
    EXPECT_EQ(Interrupted([&] { return NetUtil::AcceptNewSocketBlock(listener); }), -1);
    ExpectOneError("AcceptNewSocketBlock", "NetUtil: Error accepting a new connection");
}

TEST_F(NetUtilTest, ReportsAnAddressThatCannotBeReached) {
    const Descriptor bound(NetUtil::BindPort(0));  // keeps the port from anyone who would listen there
    const std::ptrdiff_t before = CountDescriptors();
    for (const char* ip : {kLoopback, "localhost", "", "256.0.0.1", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(NetUtil::ConnectNewSocket(ip, PortOf(bound)), -1);
        ExpectOneError("ConnectNewSocket", "can't connect");
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(NetUtilTest, AnswersRequestsWithoutWaitingForADelayedAcknowledgement) {
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
    // A delayed acknowledgement takes 40 ms: two for each request would be 16 s.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
    EXPECT_TRUE(answers.get());
}

}  // namespace
