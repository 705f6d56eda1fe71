// CSock: the root of all socket classes; a socket handle with its type code and blocking mode.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>

namespace Orvex::Reticor {

class CSockAddr;

/// What CSock::GetType returns. CSock has no virtual operation but its destructor, so a caller that needs
/// what a child does selects it by this code and a cast. Code 5 is not used.
enum SockType : uint32_t {
    SOCK_TYPE_STREAM = 1,      ///< CSockStream
    SOCK_TYPE_DGRAM = 2,       ///< CSockDgram
    SOCK_TYPE_SSL_STREAM = 3,  ///< CSslStream
    SOCK_TYPE_SIMULATOR = 4,   ///< CSimulatorStream
    SOCK_TYPE_ACCEPTOR = 6,    ///< CSockAcceptor, CSslAcceptor
    SOCK_TYPE_UNKNOWN = 7,     ///< CSock itself
};

/// Owns a socket handle (a file descriptor) and closes it in its destructor.
///
/// Sockets are non-blocking unless SetBlockOpt(true) was called, and close-on-exec where the library opens
/// them. A socket that a handler has registered must be removed there before it is closed: the number may be
/// given to another connection at once.
///
/// Thread safety: a socket has no lock; its owner serialises all use. Nothing here throws. Where an operation
/// fails in a system call, errno holds that call's error when it returns.
class RETICOR_API CSock {
public:
    /// No handle, type SOCK_TYPE_UNKNOWN, not blocking.
    CSock();

    /// Copies the handle's number and nothing else: both objects then close the same handle, and the second
    /// Close acts on a dead number, or on a stranger's. Only for code that detaches one side. Assignment does
    /// not close the handle that was held before.
    CSock(const CSock& other);
    /// As the copy constructor. A handle that was held before stays open and is nobody's.
    CSock& operator=(const CSock& other);

    /// Closes the handle, if there is one.
    virtual ~CSock();

    /// One of SockType.
    unsigned GetType() const { return m_type; }

    /// The handle, -1 if there is none. It stays the object's.
    int GetHandle() const { return m_handle; }
    /// Whether there is a handle.
    bool IsValid() const { return m_handle != -1; }

    /// True for blocking mode.
    bool GetBlockOpt() const { return m_block; }

    /// Sets blocking mode, at once or, if there is no handle yet, when one is opened or attached. The flag is
    /// kept and a line is logged if the system refuses.
    void SetBlockOpt(bool block);

    /// Closes the handle. Returns 0, or -1 if there was none or close(2) reported an error; the handle is
    /// gone in any case.
    int Close();

    /// Takes over `handle`, which becomes the object's, and gives it the object's blocking mode. Returns 0;
    /// -1 if a handle is held already (then nothing changes, and `handle` stays the caller's) or if the mode
    /// could not be set (then `handle` is the object's all the same).
    int Attach(int handle);

    /// Gives the handle up without closing it and returns it, -1 if there was none.
    int Detach();

    /// Stores the local or the peer's address in `addr`, which stays the caller's. A CSockAddrIPv4 takes an
    /// IPv4 socket's address, a CSockAddrIPv6 an IPv6 socket's, a CSockAddrStorage either. Returns 0, or -1
    /// and leaves `addr` unchanged if the classes do not match, or there is no handle or no peer.
    /// GetRemoteAddr logs its failures, GetLocalAddr does not. See getsockname(2), getpeername(2).
    int GetLocalAddr(CSockAddr* addr);
    /// The peer's address, as GetLocalAddr.
    int GetRemoteAddr(CSockAddr* addr);

protected:
    /// Takes over `handle`; `type` is one of SockType. Not blocking.
    CSock(int handle, unsigned type);

    /// Gives the handle, if there is one, the mode that m_block says. Returns 0, or -1 after a log line.
    int set_block_opt();

    /// The file descriptor; -1: none.
    int m_handle;
    /// One of SockType.
    uint32_t m_type;
    /// The blocking mode that a handle has or gets.
    bool m_block;
};

}  // namespace Orvex::Reticor
