// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_CONNECTION_H
#define CONTEXT_HOST_CONNECTION_H

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "HostMemory.h"

/// One client of the server: receives requests and sends answers in the frames of NetUtil, without ever blocking.
///
/// The next request is not read before the answer to the last one is sent.
///
/// **Units.** A request and its zero are shorter than kRequestBuffer bytes.
/// **Threads.** One thread.
class Connection {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kRequestBuffer = 256;
    static constexpr std::chrono::seconds kLongestRequest{5};
    static constexpr std::chrono::seconds kLongestAnswer{5};
    static constexpr std::chrono::seconds kLongestConnection{30};

    Connection() = default;

    /// Disconnects the client.
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Accepts a client of a non-blocking socket.
    /// @return false if there is none, or no descriptor for it.
    bool Accept(int listener);

    int Socket() const { return m_socket; }

    /// @return when the client must be disconnected unless a step is completed before.
    Clock::time_point Deadline() const { return m_deadline; }

    /// @return whether an answer is still to be sent; otherwise a request is awaited.
    bool IsSending() const { return !m_unsent.empty(); }

    /// @return whether the connection is over: the peer has closed it, broken the frame, or received its last answer.
    bool IsOver() const { return m_isOver; }

    /// Receives what has arrived.
    /// @return the text of the request, once it is complete.
    std::optional<std::string> Receive();

    /// Begins to send an answer.
    /// @param isLast  whether the connection is over when it is sent.
    void Answer(const std::string& text, bool isLast);

    /// Sends what the client accepts.
    void Send();

private:
    std::size_t Missing_() const;
    void Expect_(std::chrono::seconds limit);

    int m_socket = -1;
    Clock::time_point m_end;  ///< of the whole connection
    Clock::time_point m_deadline;
    std::array<char, 4> m_header{};
    HostBuffer m_payload{kRequestBuffer};
    std::size_t m_received = 0;  ///< bytes of the header and the payload
    std::string m_unsent;        ///< the rest of the frame with the answer
    bool m_isLast = false;
    bool m_isOver = false;
};

#endif  // CONTEXT_HOST_CONNECTION_H
