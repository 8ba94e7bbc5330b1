// SPDX-License-Identifier: Apache-2.0
#include <NetUtil.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <climits>
#include <stdexcept>

#include "Frame.h"
#include "Fuzz.h"

namespace {

using Fuzz::Holds;
using Fuzz::Input;
using Fuzz::Same;
using Network::NetUtil;

constexpr std::size_t kLongestStream = 8192;

int g_socket = -1;       // the library's end of a connection, whose calls below transfer only parts
std::size_t g_part = 1;  // the most bytes of one call

/// A connection whose other end has sent a stream and then no more.
class Connection {
public:
    explicit Connection(const std::string& stream) {
        int ends[2];
        Holds("a pair of sockets", socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
        g_socket = ends[0];
        m_peer = ends[1];
        Holds("the stream is sent", write(m_peer, stream.data(), stream.size()) == static_cast<ssize_t>(stream.size()));
        shutdown(m_peer, SHUT_WR);
    }
    ~Connection() {
        close(g_socket);
        close(m_peer);
        g_socket = -1;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// @return what the library has sent and the other end has not read yet.
    std::string Sent() { return Read_(m_peer); }

    /// @return what the library has not read yet.
    std::string Unread() { return Read_(g_socket); }

private:
    static std::string Read_(int fd) {
        std::string bytes(4 * kLongestStream, '\0');
        const ssize_t count = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return bytes;
    }

    int m_peer = -1;
};

/// What receiving a frame must give.
struct Received {
    bool isComplete = false;
    std::optional<int> length;  ///< nothing when no header is received
    std::string payload;
};

/// Takes a frame from the front of a stream.
Received Receive(std::string& stream, int size) {
    Received result;
    if (stream.size() < 4) {
        stream.clear();
        return result;
    }
    const std::uint32_t header = Frame::LengthIn(stream);
    stream.erase(0, 4);
    result.length = static_cast<int>(header);
    if (header > INT_MAX || size < 0 || header >= static_cast<std::uint32_t>(size)) {
        return result;  // the payload stays
    }
    result.isComplete = stream.size() >= header;
    result.payload = stream.substr(0, header);
    stream.erase(0, header);
    if (result.isComplete) {
        result.length = static_cast<int>(header) - 1;
    }
    return result;
}

void CheckReceiving(Input& input) {
    const int size = input.Flag() ? static_cast<int>(input.Below(64)) : input.Take<std::int16_t>();
    std::string stream = input.Rest().substr(0, kLongestStream);
    Connection connection(stream);
    std::vector<char> buffer(static_cast<std::size_t>(std::max(size, 0)));
    bool isComplete = true;
    while (isComplete) {
        const Received expected = Receive(stream, size);
        isComplete = expected.isComplete;
        int length = -77;
        Same("getMessage", NetUtil::getMessage(g_socket, buffer.data(), size, length), isComplete ? 0 : -1);
        Same("its length", length, expected.length.value_or(-77));
        Same("its payload", std::string(buffer.data(), expected.payload.size()), expected.payload);
    }
    Same("what getMessage leaves", connection.Unread(), stream);
    Holds("getMessage logs nothing", Fuzz::LogLines().empty());
}

void CheckSending(Input& input) {
    std::string text = input.Rest().substr(0, kLongestStream);
    g_part = std::max(g_part, text.size() / 64);  // a socket holds fewer than 300 unread writes, then sending blocks
    Connection connection("");
    Same("sendMessage", NetUtil::sendMessage(g_socket, text.data(), static_cast<int>(text.size())), 0);
    Same("its frame", connection.Sent(), Frame::Of(text));
    const int negative = -1 - static_cast<int>(text.size());
    Same("sendMessage without a text", NetUtil::sendMessage(g_socket, text.data(), negative), 0);
    Same("its header", connection.Sent(), Frame::Of(static_cast<std::uint32_t>(negative + 1), ""));
    Holds("SendStringData", NetUtil::SendStringData(g_socket, text.c_str()));
    Same("its line", connection.Sent(), std::string(text.c_str()) + "\n");
    Holds("SendRawData", NetUtil::SendRawData(g_socket, text.data(), static_cast<int>(text.size())));
    Same("its bytes", connection.Sent(), text);
    Holds("nothing is logged", Fuzz::LogLines().empty());
    Holds("a negative length fails", !NetUtil::SendRawData(g_socket, text.data(), negative));
    Same("its log", Fuzz::LogLines(), {"6 Error Sending a Message"});
}

void CheckReplies(Input& input) {
    constexpr const char* kLabels[] = {"label", "Return Code", nullptr, ""};
    const int count = static_cast<int>(input.Below(4)) - 1;
    const char* const label = input.OneOf(kLabels);
    std::string stream = input.Rest().substr(0, kLongestStream);
    Connection connection(stream);
    std::vector<std::string> lines;
    Holds("SendData", NetUtil::SendData(g_socket, "text", count));
    Same("its frame", connection.Sent(), std::string("\0\0\0\5text\0", 9));
    for (int reply = 0; reply < count; ++reply) {
        if (!Receive(stream, NetUtil::kMaxReplySize + 1).isComplete) {
            lines.emplace_back("6 Error getting a message");
        }
    }
    NetUtil::GetReply(g_socket, label);
    const Received last = Receive(stream, NetUtil::kMaxReplySize + 1);
    if (!last.isComplete) {
        lines.emplace_back("6 Error getting a message");
    } else if (label != nullptr && std::string(label) != "Return Code") {
        const std::string line =
            std::string("3 ") + label + " [" + std::to_string(*last.length) + "] : " + last.payload.c_str();
        // The test's log keeps the first 4 kB of a message.
        Same("the log of the reply", Fuzz::LogLines().back().substr(0, 3900), line.substr(0, 3900));
        lines.push_back(Fuzz::LogLines().back());
    }
    Same("the log", Fuzz::LogLines(), lines);
    Same("what the replies leave", connection.Unread(), stream);
}

}  // namespace

extern "C" ssize_t read(int fd, void* buffer, std::size_t size) {
    return syscall(SYS_read, fd, buffer, fd == g_socket ? std::min(size, g_part) : size);
}

extern "C" ssize_t writev(int fd, const iovec* parts, int count) {
    if (fd != g_socket) {
        return syscall(SYS_writev, fd, parts, count);
    }
    while (count > 1 && parts->iov_len == 0) {
        ++parts;
        --count;
    }
    return syscall(SYS_write, fd, parts->iov_base, std::min(parts->iov_len, g_part));
}

void Fuzz::Test(Input& input) {
    g_part = 1 + input.Take<std::uint8_t>();
    switch (input.Below(4)) {
        case 0:
            return CheckSending(input);
        case 1:
            return CheckReplies(input);
        default:
            return CheckReceiving(input);
    }
}
