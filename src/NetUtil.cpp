// SPDX-License-Identifier: Apache-2.0
#include "NetUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "Log.h"

namespace Network {

namespace {

constexpr int kBacklog = 128;
constexpr const char* kSilentLabel = "Return Code";

/// @return 0, or -1 when the stream ends or fails before all bytes are read.
int readn(int fd, char* buf, unsigned int n) {
    while (n > 0) {
        const ssize_t count = read(fd, buf, n);
        if (count <= 0) {
            return -1;
        }
        buf += count;
        n -= static_cast<unsigned int>(count);
    }
    return 0;
}

/// Writes all parts and modifies them. One system call sends header and payload together: a header sent alone would
/// delay the payload until the peer's delayed acknowledgement.
/// @return 0, or -1 when a write accepts nothing or fails.
int WriteParts(int fd, iovec* part, int count) {
    while (count > 0) {
        const ssize_t result = writev(fd, part, count);
        if (result <= 0) {
            return -1;
        }
        auto written = static_cast<std::size_t>(result);
        for (; count > 0 && written >= part->iov_len; --count) {
            written -= part->iov_len;
            ++part;
        }
        if (count > 0) {
            part->iov_base = static_cast<char*>(part->iov_base) + written;
            part->iov_len -= written;
        }
    }
    return 0;
}

sockaddr_in Address(in_addr_t ip, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ip;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

/// @return the result of select(); -1 also for a descriptor that does not fit into an `fd_set`.
int WaitUntilReadable(int fd, int seconds) {
    if (fd < 0 || fd >= FD_SETSIZE) {
        return -1;
    }
    fd_set descriptors;
    FD_ZERO(&descriptors);
    FD_SET(fd, &descriptors);
    timeval limit{};
    limit.tv_sec = seconds;
    return select(fd + 1, &descriptors, /*writefds=*/nullptr, /*exceptfds=*/nullptr, &limit);
}

}  // namespace

int NetUtil::getMessage(int fd, char* buf, int bufSize, int& length) {
    std::uint32_t header = 0;
    if (readn(fd, reinterpret_cast<char*>(&header), sizeof(header)) != 0) {
        return -1;
    }
    length = static_cast<int>(ntohl(header));
    if (length < 0 || length >= bufSize) {
        return -1;
    }
    if (readn(fd, buf, static_cast<unsigned int>(length)) != 0) {
        return -1;
    }
    --length;
    return 0;
}

int NetUtil::sendMessage(int fd, char* text, int length) {
    std::uint32_t header = htonl(static_cast<std::uint32_t>(length) + 1);
    const std::size_t payloadSize = length < 0 ? 0 : static_cast<std::size_t>(length) + 1;
    iovec parts[] = {{&header, sizeof(header)}, {text, payloadSize}};
    return WriteParts(fd, parts, /*count=*/2);
}

bool NetUtil::SendData(int fd, const char* text, int replyCount) {
    if (sendMessage(fd, const_cast<char*>(text), static_cast<int>(std::strlen(text))) != 0) {
        LMR_LOG_ERROR("Error Sending a Message");
        return false;
    }
    for (int reply = 0; reply < replyCount; ++reply) {
        GetReply(fd);
    }
    return true;
}

void NetUtil::GetReply(int fd) {
    GetReply(fd, /*label=*/nullptr);
}

void NetUtil::GetReply(int fd, const char* label) {
    constexpr int kBufferSize = kMaxReplySize + 1;  // getMessage() requires a payload smaller than its buffer
    const std::unique_ptr<char[]> reply(new (std::nothrow) char[kBufferSize]());
    int length = 0;
    if (reply == nullptr || getMessage(fd, reply.get(), kBufferSize, length) != 0) {
        LMR_LOG_ERROR("Error getting a message");
        return;
    }
    if (label != nullptr && std::strcmp(label, kSilentLabel) != 0) {
        LMR_LOG_DEBUG("%s [%d] : %s", label, length, reply.get());
    }
}

bool NetUtil::SendStringData(int fd, const char* text) {
    const std::string line = std::string(text) + "\n";
    if (send(fd, line.data(), line.size(), /*flags=*/0) == -1) {
        LMR_LOG_ERROR("Error Sending a Message");
        return false;
    }
    return true;
}

bool NetUtil::SendRawData(int fd, const char* data, int length) {
    if (length < 0 || send(fd, data, static_cast<std::size_t>(length), /*flags=*/0) == -1) {
        LMR_LOG_ERROR("Error Sending a Message");
        return false;
    }
    return true;
}

int NetUtil::BindPort(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, /*protocol=*/0);
    if (fd < 0) {
        LMR_LOG_ERROR("NetUtil: Can't open socket");
        return -1;
    }
    const int reuse = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) < 0) {
        LMR_LOG_ERROR("setsockopt reuse error");
        close(fd);
        return -1;
    }
    const sockaddr_in address = Address(htonl(INADDR_ANY), port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        LMR_LOG_ERROR("NetUtil: Can't bind to port %d", port);
        close(fd);
        return -1;
    }
    return fd;
}

int NetUtil::AcceptNewSocketBlock(int listenFd) {
    sockaddr_in peer{};
    socklen_t peerSize = sizeof(peer);
    const int fd = accept(listenFd, reinterpret_cast<sockaddr*>(&peer), &peerSize);
    if (fd < 0) {
        LMR_LOG_ERROR("NetUtil: Error accepting a new connection");
        return -1;
    }
    return fd;
}

int NetUtil::AcceptNewSocket(int listenFd, int timeoutSeconds) {
    listen(listenFd, kBacklog);
    const int ready = WaitUntilReadable(listenFd, timeoutSeconds);
    if (ready > 0) {
        return AcceptNewSocketBlock(listenFd);
    }
    if (ready < 0) {
        LMR_LOG_ERROR("select error or timeout");
    }
    return -1;
}

int NetUtil::ConnectNewSocket(const char* ip, int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (fd < 0) {
        LMR_LOG_ERROR("can't create socket");
        return -1;
    }
    const sockaddr_in address = Address(ip != nullptr ? inet_addr(ip) : INADDR_NONE, port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        LMR_LOG_ERROR("can't connect");
        close(fd);
        return -1;
    }
    LMR_LOG_DEBUG("Connected");
    return fd;
}

}  // namespace Network
