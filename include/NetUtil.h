// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_NET_UTIL_H
#define LUMORA_COMMON_NET_UTIL_H

#include "LumoraApi.h"

/// Network utilities.
/// @ingroup network
namespace Network {

/// Blocking IPv4 TCP sockets, and a message frame over them.
///
/// A frame is a four-byte length followed by the payload: the text and its terminating zero. The length is a signed
/// 32-bit number in network byte order that counts the zero, so "abc" is sent as 00 00 00 04 61 62 63 00. The functions
/// take and return the length **without** the zero.
///
/// **Units.** Lengths are in bytes and time limits in whole seconds. Ports are numbers in host byte order, addresses
/// dotted text. Only the low 16 bits of a port are used: 70000 means 4464, -1 means 65535, and 65536 means 0.
/// **Ownership.** The caller owns and closes all descriptors. No function closes a descriptor passed to it, even after
/// a failure. Descriptors are inherited across `exec`.
/// **Threads.** Functions without state: any thread, as long as no two threads use one descriptor at the same time.
/// BindPort() does not block, and AcceptNewSocket() blocks up to its limit. All others block as long as the peer or the
/// system takes.
/// **Signals.** The first send to a peer that has closed usually succeeds; a later one raises **SIGPIPE**, which ends
/// the process unless the host ignores it. A system call that fails with `EINTR` counts as failed and is not retried.
/// **Errors.** Reported by return value, except by GetReply(), and logged where a function says so. After a failure the
/// stream may be in the middle of a frame: close it. Only GetReply(), SendData() for its replies, and SendStringData()
/// need memory of the heap. When the kernel has no memory, the system call fails, and the function reports that. No
/// descriptor is leaked.
/// @ingroup network
class LUMORA_API NetUtil {
public:
    NetUtil() = delete;

    /// The longest payload that GetReply() receives, in bytes, including the zero.
    static constexpr int kMaxReplySize = 204799;

    /// @name Frames
    /// @{

    /// Receives one frame.
    /// @param fd       the socket.
    /// @param buf      receives the payload with the zero that the peer sent; no zero is added.
    /// @param bufSize  the size of `buf`; the text and its zero must be **smaller**.
    /// @param length   receives the length of the text, which is the header minus 1: -1 for a frame without payload. On
    ///                 failure it is the received header, or unchanged when no header was received.
    /// @return 0 on success. -1 when the peer closes or reading fails before the frame is complete; also -1, without
    ///         reading the payload, when the header is negative or not smaller than `bufSize`. Nothing is logged.
    static int getMessage(int fd, char* buf, int bufSize, int& length);

    /// Sends one frame, in one system call if the system accepts all of it.
    /// @param fd      the socket.
    /// @param text    the text; `text[length]` must be the terminating zero, which is sent too.
    /// @param length  the length of the text, less than 2147483647; for a negative length only a header is sent.
    /// @return 0 on success; -1 as soon as a write accepts nothing or fails. Nothing is logged.
    static int sendMessage(int fd, char* text, int length);

    /// Sends a text as a frame, then calls GetReply() `replyCount` times.
    /// @param fd          the socket.
    /// @param text        the text; not null.
    /// @param replyCount  the number of replies; below 1, none is received.
    /// @return false when sending fails ("Error Sending a Message" is logged); otherwise true, even if replies fail.
    static bool SendData(int fd, const char* text, int replyCount);

    /// Receives one frame with a payload of at most kMaxReplySize bytes and discards it. Logs "Error getting a message"
    /// when receiving fails, the payload is longer, or no memory is left for a buffer of kMaxReplySize + 1 bytes;
    /// without memory, nothing is read.
    static void GetReply(int fd);

    /// Receives a frame as GetReply(int) does, but logs the debug line "%s [%d] : %s" with the label, the length and
    /// the text of the frame.
    /// @param fd     the socket.
    /// @param label  for "Return Code" or null the debug line is not logged.
    static void GetReply(int fd, const char* label);

    /// @}
    /// @name Bytes without a frame
    /// Each calls `send(2)` once, without flags. Sending only a part of the bytes counts as success.
    /// @return false on failure, which logs the error "Error Sending a Message".
    /// @{

    /// Sends a text and a line feed.
    /// @param fd    the socket.
    /// @param text  the text. Null throws `std::logic_error`.
    /// @throws std::bad_alloc without memory for a copy of the text; nothing is sent then.
    static bool SendStringData(int fd, const char* text);

    /// Sends bytes.
    /// @param fd      the socket.
    /// @param data    the bytes.
    /// @param length  the number of bytes; a negative number is a failure.
    static bool SendRawData(int fd, const char* data, int length);

    /// @}
    /// @name Connections
    /// @return a descriptor that the caller closes, or -1.
    /// @{

    /// Creates a socket bound to a port on all interfaces. AcceptNewSocket() makes it listen. A port in `TIME_WAIT` can
    /// be bound.
    /// @param port  the port; 0 lets the system choose one. Only the low 16 bits are used; check the range yourself.
    /// @return -1 after the error "NetUtil: Can't open socket", "setsockopt reuse error" or "NetUtil: Can't bind to
    ///         port %d".
    static int BindPort(int port);

    /// Waits without a time limit for a client of a listening socket.
    /// @return -1 after the error "NetUtil: Error accepting a new connection".
    static int AcceptNewSocketBlock(int listenFd);

    /// Makes a socket listen, with a backlog of 128, and waits for a client.
    /// @param listenFd        a socket from BindPort(), below `FD_SETSIZE` (1024); otherwise waiting fails.
    /// @param timeoutSeconds  the time limit; 0 only accepts a client that is already waiting.
    /// @return -1 when the time limit passes, which is not logged; -1 after the error "select error or timeout" when
    ///         waiting fails, or after the error of AcceptNewSocketBlock().
    static int AcceptNewSocket(int listenFd, int timeoutSeconds);

    /// Connects to a server, without a time limit of its own.
    /// @param ip    an address in dotted form, or in another one that `inet_addr(3)` reads, such as "127.1". Names are
    /// not
    ///              resolved: connecting to a name, or to null, fails.
    /// @param port  the port.
    /// @return -1 after the error "can't create socket" or "can't connect". Success logs the debug line "Connected".
    static int ConnectNewSocket(const char* ip, int port);

    /// @}
};

}  // namespace Network

#endif  // LUMORA_COMMON_NET_UTIL_H
