// CSockDgram: a UDP socket, with multicast.
#pragma once

#include <sys/uio.h>

#include <memory>

#include <Reticor/Export.h>
#include <Reticor/Sock.h>

namespace Orvex::Reticor {

class CSockAddr;

/// One entry of CSockDgram::RecvMany.
struct SockReceived {
    char* buf = nullptr;          ///< Where the bytes go; the caller's.
    unsigned size = 0;            ///< Its length.
    CSockAddr* remote = nullptr;  ///< Gets the sender's address, if it is not null, as with Recv.
    unsigned length = 0;          ///< Bytes received.
    /// The length of each datagram in there, the last one perhaps shorter: less than `length` if the socket
    /// joins datagrams (SetJoinReceived) and several have come as one.
    unsigned segment = 0;
    bool truncated = false;  ///< It was longer than `size`, and its end is lost.
};

/// A UDP socket of either family, see udp(7), ip(7), ipv6(7). Open binds it, and joins the group if the
/// address is one (224.0.0.0/4, ff00::/8). SetRemote fixes a peer, and connects the socket unless the peer is
/// a group or a broadcast address. It receives what is sent to the groups that it has joined itself, and
/// nothing of groups that only other sockets of the system have joined.
///
/// Sizes: one call sends or receives one datagram. An IPv4 one holds up to 65507 bytes, an IPv6 one up to
/// 65527; more is refused with EMSGSIZE. A datagram that is longer than the buffer of Recv loses its end.
///
/// A connected peer that is not there answers with an ICMP message, and the next Send, WriteV or Recv then
/// gives -1 with ECONNREFUSED once. The socket remains usable.
///
/// In the reactor it is registered for reading. An IPv6 socket is dual-stack, and IPv4 peers have mapped
/// addresses there.
///
/// Thread safety: a socket has no lock; its owner serialises all use. Nothing here throws. Where an operation
/// fails in a system call, errno holds that call's error when it returns. On a closed object operations give
/// -1 and log the system's text for EBADF, unless it is noted otherwise.
class RETICOR_API CSockDgram : public CSock {
public:
    /// Without memory there is a line at level 2, and Open gives -1.
    CSockDgram();
    ~CSockDgram() override;

    CSockDgram(const CSockDgram&) = delete;
    CSockDgram& operator=(const CSockDgram&) = delete;

    /// `Open(addr, false)`.
    int Open(const CSockAddr* addr);

    /// Opens a socket of the family of `addr`, binds it to `addr`, and joins `addr` if it is a group: then
    /// the socket is bound to the wildcard with the port of `addr`, and the group is joined on the system's
    /// default interface. A null `addr` gives an IPv4 socket that is not bound. A handle held before is
    /// closed first, and the former peer and group are forgotten, also after Close. Does not block.
    ///
    /// `reuseaddr` lets several sockets share the port (SO_REUSEADDR), all of which must ask for it; a port
    /// of 0 never does. Without it a group can be received by one socket per port only.
    ///
    /// Returns 0, or -1 with a log line. After a failure that follows the creation of the socket the handle
    /// stays in the object until the next Open.
    int Open(const CSockAddr* addr, bool reuseaddr);

    /// Fixes the peer for Send without an address and, if the socket gets connected, for WriteV; a connected
    /// socket receives from that peer alone. A group is not connected, and neither is an IPv4 address whose
    /// last four bits are all 1, whatever the netmask: it counts as a broadcast address, and SO_BROADCAST is
    /// set. A former connect stays in force until there is a new one.
    ///
    /// Returns 0, or -1 with a log line. A connect that fails closes the socket.
    int SetRemote(const CSockAddr* remote);

    /// Sends one datagram to `remote`, or with null to the peer of SetRemote. Returns the bytes sent; 0 if
    /// nothing can be sent now; -1 with a log line: on an error, and if `buf` is null, `len` is 0, there is
    /// no peer, or the peer is not valid (for IPv6 that includes port 0). Blocks only in blocking mode.
    int Send(const char* buf, unsigned len, const CSockAddr* remote);

    /// Sends `count` pieces as one datagram to the connected peer. Up to 1024 pieces are not copied; of a
    /// longer list the end is put together first, since the kernel takes no more. Results as for Send; -1
    /// also for a null `vector`, before SetRemote, and for a group or a broadcast peer.
    int WriteV(const struct iovec* vector, int count);

    /// Sends what `count` pieces hold, put together, as datagrams of `segment` bytes each, 1 to 65527, the
    /// last one perhaps shorter, to `remote`, or with null to the peer of SetRemote. One system call takes up
    /// to 64 datagrams and 65000 bytes: the kernel cuts them where it can (UDP_SEGMENT, see udp(7)), else
    /// they go as a list (sendmmsg(2)). A datagram longer than the path takes goes out in fragments, as
    /// always, and that is when nothing is gained.
    ///
    /// Returns the bytes sent, which end where a datagram ends: fewer than were given if more than one call's
    /// were, or the socket took no more, so call again with the rest; 0 if nothing can be sent now. -1 with a
    /// log line as for Send, also for a null `vector`, no bytes or a `segment` out of range, and if an error
    /// came after some datagrams had gone. Blocks only in blocking mode.
    int SendSegments(const struct iovec* vector, int count, unsigned segment, const CSockAddr* remote);

    /// Sends `count` datagrams, one from each entry, to `remote`, or with null to the peer of SetRemote, with
    /// one system call for up to 64 of them (sendmmsg(2)); lengths may differ. Returns how many went: fewer
    /// if there are more than 64, or the socket took no more, so call again with the rest; 0 if nothing can
    /// be sent now. -1 with a log line as for Send, also if an entry has no bytes, and if an error came after
    /// some datagrams had gone. Blocks only in blocking mode.
    int SendMany(const struct iovec* datagrams, int count, const CSockAddr* remote);

    /// Receives one datagram, and its sender's address in `remote`, if that is not null. Returns its bytes; 0
    /// if nothing is waiting, or the datagram was empty; -1 with a log line: on an error, and if `buf` is
    /// null, `len` is 0 or `remote` is of no known type. An IPv6 sender's address does not fit in a
    /// CSockAddrIPv4: a line is logged and `remote` keeps what it held. Blocks only in blocking mode.
    int Recv(char* buf, unsigned len, CSockAddr* remote);

    /// Receives up to `count` datagrams, one for each entry, with one system call for up to 64 of them
    /// (recvmmsg(2)). Returns how many entries were filled; 0 if nothing is waiting; -1 with a log line: on
    /// an error, and if an entry has no buffer or an address of no known type. In blocking mode it waits for
    /// the first datagram alone.
    int RecvMany(SockReceived* list, int count);

    /// Whether the kernel may hand over several datagrams of one sender and length as one (UDP_GRO, see
    /// udp(7)), which RecvMany tells apart and Recv does not; up to 65535 bytes, so give it such buffers. 0,
    /// or -1 with a log line.
    int SetJoinReceived(bool on);

    /// Moves the membership of an IPv4 group from the default interface to the one that has the address `ip`,
    /// in host byte order, and sends to groups through it. Returns 0; -1 if no group was joined, in silence,
    /// or if the system refuses, with a log line. A second call fails with EADDRNOTAVAIL, as the membership
    /// has moved away, and so does every call for an IPv6 group.
    int SetMulticastIF(unsigned ip);

    /// The same with a dotted text. For an IPv6 group the text is not used: datagrams to groups go out on the
    /// system's default interface. -1 in silence if `ip` is null or no group was joined.
    int SetMulticastIF(const char* ip);

    /// How many hops datagrams to groups may make; 1 unless it is set. Needs an open socket, but no group. 0,
    /// or -1 with a log line.
    int SetMulticastTTL(unsigned char ttl);

    /// Whether datagrams to the group come back to this host; they do unless it is set. 0, or -1 with a log
    /// line, also if no group was joined.
    int SetMulticastLoop(bool on);

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

private:
    struct Record;

    std::unique_ptr<Record> m_record;
};

}  // namespace Orvex::Reticor
