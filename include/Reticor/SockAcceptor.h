// CSockAcceptor: a listening TCP socket.
#pragma once

#include <Reticor/Export.h>
#include <Reticor/Sock.h>

namespace Orvex::Reticor {

class CSockStream;

/// A listening TCP socket. In the reactor it is registered for reading, and its handler calls Accept until
/// that fails.
///
/// IPv6 listeners are dual-stack: one on "::" takes the IPv4 port too, so that a second listener on 0.0.0.0
/// with the same port cannot be bound, and IPv4 peers arrive with mapped addresses ("::ffff:10.0.0.1"). Pass
/// a CSockAddrIPv6 or a CSockAddrStorage to Accept there.
///
/// Out of descriptors: when Accept fails with EMFILE, ENFILE, ENOBUFS or ENOMEM, the connection stays in the
/// queue and the acceptor stays ready. A handler that just returns is called again at once and keeps a
/// processor busy; it must unregister the acceptor and register it again later, from a timer.
///
/// Thread safety: an acceptor has no lock; its owner serialises all use. Nothing here throws. Where an
/// operation fails in a system call, errno holds that call's error when it returns.
class RETICOR_API CSockAcceptor : public CSock {
public:
    CSockAcceptor();
    /// The number of the handle is copied, with the dangers that CSock tells of.
    CSockAcceptor(const CSockAcceptor& other);
    /// As the copy constructor.
    CSockAcceptor& operator=(const CSockAcceptor& other);
    ~CSockAcceptor() override;

    /// Listens on `local`, with SO_REUSEADDR and a backlog of 1024; port 0 lets the system choose, and
    /// GetLocalAddr tells the choice. A handle held before is closed first, also if `local` turns out to be
    /// of no family. Returns 0, or -1 with a log line. After a failed bind or listen the handle stays in the
    /// object until the next Open. Does not block. See listen(2).
    int Open(const CSockAddr& local);

    /// Takes the next connection and gives it to `stream`, which must be empty: a stream that holds a handle
    /// refuses, and the new connection then stays open with no owner. Blocks only in blocking mode.
    ///
    /// Returns 0; -1 without a log line if no connection is waiting or accept(2) failed, and errno tells
    /// which; -1 with a log line if `remote` is of no known type.
    ///
    /// `remote`, if not null, takes the peer's address. A CSockAddrIPv4 cannot take that of an IPv6
    /// listener's peer: a line is logged and `remote` keeps what it held.
    int Accept(CSockStream& stream, CSockAddr* remote);

    /// The same with a new stream, non-blocking whatever the acceptor's mode. The caller owns the stream and
    /// deletes it. Null where the other form gives -1, and, with a line at level 2, without memory: the
    /// connection waits on.
    CSockStream* Accept(CSockAddr* remote);
};

}  // namespace Orvex::Reticor
