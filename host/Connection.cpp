// SPDX-License-Identifier: Apache-2.0
#include "Connection.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

/// @return whether a call on a non-blocking socket, which no signal interrupts, failed because it would have to wait.
bool WouldWait() {
    return errno == EAGAIN;
}

}  // namespace

Connection::~Connection() {
    if (m_socket >= 0) {
        close(m_socket);
    }
}

bool Connection::Accept(int listener) {
    m_socket = accept4(listener, /*addr=*/nullptr, /*addr_len=*/nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    m_end = Clock::now() + kLongestConnection;
    Expect_(kLongestRequest);
    return m_socket >= 0;
}

std::optional<std::string> Connection::Receive() {
    for (std::size_t missing = Missing_(); missing > 0; missing = Missing_()) {
        if (missing >= kRequestBuffer) {
            m_isOver = true;
            return std::nullopt;
        }
        char* end = m_received < m_header.size() ? m_header.data() + m_received
                                                 : m_payload.Data() + (m_received - m_header.size());
        const ssize_t count = recv(m_socket, end, missing, /*flags=*/0);
        if (count > 0) {
            m_received += static_cast<std::size_t>(count);
            continue;
        }
        m_isOver = count == 0 || !WouldWait();
        return std::nullopt;
    }
    const std::size_t size = m_received - m_header.size();
    m_received = 0;
    return std::string(m_payload.Data(), std::max<std::size_t>(size, 1) - 1);  // without the zero
}

void Connection::Answer(const std::string& text, bool isLast) {
    const std::uint32_t header = htonl(static_cast<std::uint32_t>(text.size()) + 1);
    m_unsent.assign(sizeof(header), '\0');
    std::memcpy(m_unsent.data(), &header, sizeof(header));
    m_unsent.append(text.c_str(), text.size() + 1);
    m_isLast = isLast;
    Expect_(kLongestAnswer);
}

void Connection::Send() {
    const ssize_t count = send(m_socket, m_unsent.data(), m_unsent.size(), MSG_NOSIGNAL);
    if (count < 0) {
        m_isOver = !WouldWait();
        return;
    }
    m_unsent.erase(0, static_cast<std::size_t>(count));
    if (m_unsent.empty()) {
        m_isOver = m_isLast;
        Expect_(kLongestRequest);
    }
}

/// @return the bytes that the header or, once that is complete, the payload still lacks; a great number for
///         a header that is negative.
std::size_t Connection::Missing_() const {
    if (m_received < m_header.size()) {
        return m_header.size() - m_received;
    }
    std::uint32_t header = 0;
    std::memcpy(&header, m_header.data(), sizeof(header));
    return m_header.size() + std::size_t{ntohl(header)} - m_received;
}

void Connection::Expect_(std::chrono::seconds limit) {
    m_deadline = std::min(Clock::now() + limit, m_end);
}
