// CSockStream: a TCP socket.
#pragma once

#include <sys/uio.h>

#include <Reticor/Export.h>
#include <Reticor/Sock.h>

#ifdef RETICOR_WARN_COPIES
#define RETICOR_COPIES_NUMBER [[deprecated("both objects close the same descriptor: move the socket")]]
#else
#define RETICOR_COPIES_NUMBER
#endif

namespace Orvex::Reticor {

/// A TCP socket, see tcp(7). Made for use in the reactor, where it is non-blocking: a handler calls Recv and
/// Send from its callbacks, and a result of 0 means try again at the next callback.
///
/// Connecting in the reactor: call Connect, and register the socket for *write alone*. In handle_output ask
/// GetConnectStatus, and add reading only after it gave 0. The system hands out the error of a failed attempt
/// once, to whoever asks first; with reading registered too, handle_input runs first, its Recv takes the
/// error, and GetConnectStatus then reports success for a connection that was refused.
///
/// No operation raises SIGPIPE; a peer that has gone is a result. On a closed object every operation gives -1
/// (GetConnectStatus -2) and logs the system's text for EBADF, unless it is noted otherwise.
///
/// Thread safety: a socket has no lock; its owner serialises all use. Nothing here throws. Where an operation
/// fails in a system call, errno holds that call's error when it returns.
class RETICOR_API CSockStream : public CSock {
public:
    CSockStream();
    /// The number of the handle is copied, with the dangers that CSock tells of. A program that is compiled
    /// with RETICOR_WARN_COPIES defined gets a warning where it does that.
    RETICOR_COPIES_NUMBER CSockStream(const CSockStream& other);
    /// As the copy constructor.
    RETICOR_COPIES_NUMBER CSockStream& operator=(const CSockStream& other);
    /// Takes over the handle and the blocking mode; `other` has none afterwards.
    CSockStream(CSockStream&& other) noexcept : CSockStream() { take_over(other); }
    /// The same; a handle that was held before is closed.
    CSockStream& operator=(CSockStream&& other) noexcept {
        if (this != &other) {
            Close();
            take_over(other);
        }
        return *this;
    }
    ~CSockStream() override;

    /// Opens a socket of the family of `remote` and begins to connect it, from `local` if that is not null. A
    /// handle held before is closed, so a second Connect is a reconnect. See connect(2).
    ///
    /// Returns 0 if the connection stands or, on a non-blocking socket, is under way; -1 with a log line
    /// otherwise. A `local` of another family than `remote` fails before anything is touched. After a failed
    /// bind the unbound handle stays in the object. Blocks only in blocking mode.
    int Connect(const CSockAddr& remote, CSockAddr* local);

    /// The outcome of Connect, to be asked once the socket is writable: 0 connected; -2 failed, with a log
    /// line, and errno holds the reason. The error is gone once it was read, so a second call returns 0.
    int GetConnectStatus();

    /// Sends up to `len` bytes with one send(2). Returns the bytes sent, which may be fewer; 0 if nothing can
    /// be sent now; -1 if `buf` is null or, with a log line, on any other error. Blocks only in blocking
    /// mode.
    int Send(const char* buf, unsigned len);

    /// Sends `count` pieces with one sendmsg(2), at most IOV_MAX of them. Results as for Send; a count short
    /// of the total is normal, also where `count` is above IOV_MAX. Pieces may be empty, with any address: a
    /// 0 still means that nothing can be sent now, unless all are. Blocks only in blocking mode.
    int WriteV(const struct iovec* vector, int count);

    /// Receives up to `len` bytes, more than 0, with one recv(2). Returns the bytes received; 0 if nothing is
    /// waiting; -1 if the connection is over. A peer that closed in an orderly way and one that reset the
    /// connection are one case: -1 in silence, with errno ECONNRESET. Other errors are logged. Blocks only in
    /// blocking mode.
    int Recv(char* buf, unsigned len);

    /// Sends all of `len` bytes, and blocks the calling thread for up to `timeout` microseconds to do so; 0
    /// and below mean one attempt without waiting. Not for a pool's worker. Returns the bytes sent, fewer
    /// than `len` when the time is up; -1 on an error, and then the bytes sent so far are unknown.
    int Send_n(const char* buf, unsigned len, int timeout);

    /// Waits up to `timeout` microseconds for bytes and receives what is there, up to `len` and perhaps
    /// fewer, with one recv(2). Blocks the calling thread; not for a pool's worker. Returns the bytes
    /// received; 0 when the time is up or the peer has closed; -1 on an error, in silence if the connection
    /// was reset or there is no socket. A `timeout` of 0 or below returns 0 without reading.
    int Recv_n(char* buf, unsigned len, int timeout);

    /// Sizes of the kernel's buffers in bytes, see socket(7): the kernel doubles what is set, within limits
    /// of its own, and reports the doubled value. Setters return 0 or -1, getters the size or -1; failures
    /// are logged.
    int SetSockRecvBuf(unsigned size);
    /// SO_SNDBUF, as SetSockRecvBuf.
    int SetSockSendBuf(unsigned size);
    /// The size as the kernel reports it, or -1.
    int GetSockRecvBuf();
    /// The size as the kernel reports it, or -1.
    int GetSockSendBuf();

    /// SO_KEEPALIVE and TCP_NODELAY. 0, or -1 with a log line.
    int SetSockKeepAlive(bool on);
    /// Whether small pieces go out at once, TCP_NODELAY, see tcp(7). 0, or -1 with a log line.
    int SetSockNoDelay(bool on);

private:
    void take_over(CSockStream& other) {
        m_block = other.m_block;
        m_handle = other.Detach();
    }
};

#undef RETICOR_COPIES_NUMBER

}  // namespace Orvex::Reticor
