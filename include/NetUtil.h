// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_NET_UTIL_H
#define LUMORA_COMMON_NET_UTIL_H

#include "LumoraApi.h"

/// What speaks to the network.
/// @ingroup network
namespace Network {

/// Blocking IPv4 TCP sockets, and a message frame over them.
///
/// A frame is a length of four bytes and that many bytes of payload: the text and its terminating zero. The length is a
/// signed 32-bit number in network byte order that counts the zero, so "abc" travels as 00 00 00 04 61 62 63 00. What
/// the calls take and report is the length **without** the zero.
///
/// **Units.** Lengths are in bytes, time limits in whole seconds; ports are plain numbers, addresses dotted texts.
/// **Ownership.** Descriptors belong to the caller, who closes them. No call closes a descriptor that it was given, not
/// even after a failure. They are inherited across `exec`.
/// **Threads.** Functions without state: any thread, as long as no two use one descriptor at once. Every call blocks
/// for as long as the peer takes, except AcceptNewSocket().
/// **Signals.** Sending to a peer that has closed raises **SIGPIPE**, which ends a process that does not ignore it: the
/// host decides. A call that a signal handler interrupts fails; it is not repeated.
/// **Errors.** Reported by return value; those that are logged say so. After a failed call the stream may be in the
/// middle of a frame: close it.
/// @ingroup network
class LUMORA_API NetUtil {
public:
    NetUtil() = delete;

    /// The longest payload that GetReply() receives, in bytes, zero included.
    static constexpr int kMaxReplySize = 204799;

    /// @name Frames
    /// @{

    /// Receives one frame.
    /// @param fd       the socket.
    /// @param buf      receives the payload with its zero, which the peer sends: no zero is added.
    /// @param bufSize  the size of `buf`; a text and its zero have to be **smaller** than that.
    /// @param length   receives the length of the text: the header less 1, so -1 for a frame without a payload. After a
    ///                 failure it is the header as it came, or unchanged when none came.
    /// @return 0; -1, without a log line, when the peer closes or reading fails before the frame is whole, and when the
    ///         header is negative or not smaller than `bufSize`, in which case nothing behind it has been read.
    static int getMessage(int fd, char* buf, int bufSize, int& length);

    /// Sends one frame, in one system call when the system takes it whole.
    /// @param fd      the socket.
    /// @param text    the text; `text[length]` must be its terminating zero and is sent too.
    /// @param length  the length of the text, less than 2147483647; below 0 only a header is sent.
    /// @return 0; -1, without a log line, as soon as a write takes nothing or fails.
    static int sendMessage(int fd, char* text, int length);

    /// Sends a text as a frame, then receives as many replies, one after the other, and drops them.
    /// @param fd          the socket.
    /// @param text        the text; not null.
    /// @param replyCount  below 1 waits for none.
    /// @return false when sending failed ("Error Sending a Message" is logged). True otherwise, whatever the replies
    ///         were.
    static bool SendData(int fd, const char* text, int replyCount);

    /// Receives one frame of at most 204799 bytes, zero included, and drops it. Logs "Error getting a message" when it
    /// does not come or is longer, and when memory for it runs out.
    static void GetReply(int fd);

    /// The same, but logs the debug line "%s [%d] : %s" with the label and the length and text of the frame.
    /// @param fd     the socket.
    /// @param label  "Return Code" and null drop the frame silently.
    static void GetReply(int fd, const char* label);

    /// @}
    /// @name Bytes without a frame
    /// Each is one `send(2)` without flags. One that takes only a part of the bytes counts as a success.
    /// @return false when it fails; the error "Error Sending a Message" is logged.
    /// @{

    /// Sends a text and a line feed.
    /// @param fd    the socket.
    /// @param text  the text. Null is a programming error: `std::logic_error` is thrown.
    static bool SendStringData(int fd, const char* text);

    /// Sends bytes.
    /// @param fd      the socket.
    /// @param data    the bytes.
    /// @param length  their number; a negative one is a failure.
    static bool SendRawData(int fd, const char* data, int length);

    /// @}
    /// @name Connections
    /// @return a descriptor that the caller closes, or -1.
    /// @{

    /// Makes a socket at a port of every interface. It does not listen yet: AcceptNewSocket() sees to that.
    /// @param port  0 lets the system choose.
    /// @return -1 after "NetUtil: Can't open socket", "setsockopt reuse error" or "NetUtil: Can't bind to port %d". A
    ///         port in `TIME_WAIT` is no obstacle.
    static int BindPort(int port);

    /// Waits without a limit for a client of a socket that listens.
    /// @return -1 after "NetUtil: Error accepting a new connection".
    static int AcceptNewSocketBlock(int listenFd);

    /// Listens, with a queue of 128, and waits for a client.
    /// @param listenFd        what BindPort() returned. From FD_SETSIZE (1024) upwards it cannot be waited for.
    /// @param timeoutSeconds  the limit; 0 takes a client that waits already.
    /// @return -1, without a log line, when the limit has passed; -1 after "select error or timeout" when waiting
    ///         fails, or after the message of AcceptNewSocketBlock().
    static int AcceptNewSocket(int listenFd, int timeoutSeconds);

    /// Connects, for as long as the system tries.
    /// @param ip    an address in dotted form. Names are not looked up; what is no address, and null, cannot be
    ///              reached.
    /// @param port  the port.
    /// @return -1 after "can't create socket" or "can't connect". Success logs the debug line "Connected".
    static int ConnectNewSocket(const char* ip, int port);

    /// @}
};

}  // namespace Network

#endif  // LUMORA_COMMON_NET_UTIL_H
