// CMulticastDoctor: which groups this process receives, what is lost on the way, and what to do about it.
#pragma once

#include <cstddef>
#include <cstdint>

#include <Reticor/Export.h>

namespace Orvex::Reticor {

class CSockAddr;

/// The version of the structures below, and of the text that is written of them. It rises when one grows.
/// Fields are only ever added at the end of a structure. `size` says what the caller knows of it: no more is
/// written there, and what the library does not know is 0.
constexpr uint32_t MULTICAST_VERSION = 1;

/// What holds for all groups.
struct MulticastOverview {
    uint32_t size = sizeof(MulticastOverview);  ///< Bytes that the caller knows.
    uint32_t version = MULTICAST_VERSION;       ///< For which the caller was built.
    uint32_t groups_per_socket;                 ///< IPv4 groups that one socket may join; 0: not known.
    uint32_t routed;                            ///< 1 if a route leads to IPv4 groups.
    uint32_t listened_ms;                       ///< For how long datagrams were counted; 0: not at all.
    int32_t listen_error;                       ///< Why they could not be counted, an errno value; 0.
    uint64_t uncounted;                         ///< Datagrams that came too fast to be counted.
    uint64_t filtered;  ///< Packets that `rp_filter` has kept from all processes of this machine.
    uint64_t
        filtered_since;     ///< Of them, those since this object's look before; without one, while counting.
    uint64_t refused_room;  ///< Joins by CSockDgram that failed with ENOBUFS,
    uint64_t refused_device;  ///< with ENODEV,
    uint64_t refused_other;   ///< with another error; all since the process began.
};

/// A network interface.
struct MulticastInterface {
    uint32_t size = sizeof(MulticastInterface);  ///< Bytes that the caller knows.
    uint32_t version = MULTICAST_VERSION;        ///< For which the caller was built.
    int32_t index;                               ///< The kernel's number.
    uint32_t up;                                 ///< 1 if it is switched on.
    uint32_t running;                            ///< 1 if it also has a link.
    uint32_t multicast;                          ///< 1 if it carries multicast.
    int32_t rp_filter;  ///< 0: any sender; 1: those that are reached through it; 2: those that are reached.
    uint32_t memberships;  ///< How many of this process's sockets have joined groups there.
    char name[16];         ///< "eth0", with an end mark.
    char addresses[240];   ///< "10.0.0.7/24 fe80::1/64", with an end mark; what does not fit is left out.
};

/// A UDP socket of this process, whoever opened it.
struct MulticastSocket {
    uint32_t size = sizeof(MulticastSocket);  ///< Bytes that the caller knows.
    uint32_t version = MULTICAST_VERSION;     ///< For which the caller was built.
    int32_t handle;                           ///< The descriptor, at the moment of the look.
    uint32_t port;                            ///< To which it is bound; 0: not yet.
    uint32_t memberships_v4;                  ///< IPv4 groups that it has joined, by interface,
    uint32_t memberships_v6;                  ///< and IPv6 ones.
    uint32_t foreign_v4;  ///< 1 if it also takes IPv4 groups that other sockets have joined,
    uint32_t foreign_v6;  ///< and IPv6 ones.
    uint64_t inode;       ///< By which the kernel tells sockets apart.
    uint64_t waiting;     ///< Bytes of the receive buffer that are in use, with the kernel's own.
    uint64_t room;        ///< Bytes that it has.
    uint64_t lost;        ///< Datagrams that the kernel dropped: it was full, or they were damaged.
    uint64_t lost_since;  ///< Of them, those since this object's look before; without one, all.
    char address[56];     ///< To which it is bound, with an end mark.
};

/// A group that was joined on an interface: by a socket of this process, a row for each, or by others alone.
struct MulticastGroup {
    uint32_t size = sizeof(MulticastGroup);  ///< Bytes that the caller knows.
    uint32_t version = MULTICAST_VERSION;    ///< For which the caller was built.
    int32_t handle;                          ///< The socket; -1 for none of this process.
    int32_t interface_index;                 ///< The kernel's number of the interface.
    uint32_t members;         ///< Memberships there of all processes, and of the system itself.
    uint32_t port;            ///< Of the socket; 0 without one.
    char group[48];           ///< "239.1.2.3", with an end mark.
    char interface_name[16];  ///< With an end mark.
};

/// Datagrams to one group and port on one interface, counted while the look listened.
struct MulticastTraffic {
    uint32_t size = sizeof(MulticastTraffic);  ///< Bytes that the caller knows.
    uint32_t version = MULTICAST_VERSION;      ///< For which the caller was built.
    int32_t interface_index;                   ///< The kernel's number of the interface.
    uint32_t port;                             ///< To which they were sent.
    uint64_t datagrams;                        ///< That came in.
    uint64_t bytes;                            ///< Of IP packets that came in.
    uint64_t sent;                             ///< That this machine sent there.
    uint32_t members;         ///< Sockets of this process that have joined the group there, with that port.
    uint32_t reserved;        ///< 0.
    char group[48];           ///< With an end mark.
    char source[48];          ///< The sender of the last one, with an end mark.
    char interface_name[16];  ///< With an end mark.
};

/// What is wrong. Later versions may add kinds.
enum class MulticastFault : uint32_t {
    LOSS,             ///< A socket's receive buffer was full.
    FOREIGN_GROUP,    ///< A socket gets a group that only another one has joined.
    FILTERED,         ///< `rp_filter` drops what comes from senders beyond the interface's own network.
    SOCKET_FULL,      ///< A socket has joined as many groups as it may.
    JOIN_REFUSED,     ///< CSockDgram could not join.
    NO_ROUTE,         ///< No route leads to groups.
    DOWN,             ///< A group is joined on an interface that is switched off,
    NO_LINK,          ///< or that has no link,
    NOT_MULTICAST,    ///< or that does not carry multicast.
    JOINED_TWICE,     ///< The process gets each datagram more than once.
    OTHER_INTERFACE,  ///< Datagrams come in on an interface where the group is not joined.
    SILENT,           ///< Nothing came for a group while the look listened.
    NOT_COUNTED,      ///< Datagrams could not be counted.
};

/// Something that is wrong, and what to do.
struct MulticastProblem {
    uint32_t size = sizeof(MulticastProblem);  ///< Bytes that the caller knows.
    uint32_t version = MULTICAST_VERSION;      ///< For which the caller was built.
    MulticastFault fault;                      ///< Of which kind.
    int32_t handle;                            ///< The socket that it is about; -1 for none.
    int32_t interface_index;                   ///< The interface that it is about; 0 for none.
    uint32_t reserved;                         ///< 0.
    char sentence[336];                        ///< In English, with an end mark.
};

/// A look at the multicast of this process: at all its UDP sockets, also those that the library did not open,
/// and at the network in which the calling thread is.
///
/// What is seen, and how. Sockets are found by the process's descriptors, and which groups they have joined
/// is asked of the kernel, so that nothing is noted when a group is joined or a datagram comes. Losses are
/// the kernel's count (SO_MEMINFO), which stands also where no datagram comes any more that could tell it.
/// The kernel does not count datagrams by group: `Take(ms)` does that by listening to all interfaces for so
/// long, with a packet socket, which needs the capability CAP_NET_RAW. Only UDP is counted, a datagram in
/// fragments once; several that the kernel carries as one (SendSegments, SetJoinReceived) count as one. A
/// datagram is counted where it comes in, also if no socket gets it; what a socket was given is not counted.
///
/// Thread safety: the object has no lock; the static operations on any thread. A socket that is closed while
/// a look is made may be missing or stand there empty.
class RETICOR_API CMulticastDoctor {
public:
    /// Empty: nothing was seen.
    CMulticastDoctor();
    /// Frees what was seen.
    ~CMulticastDoctor();
    /// Is moved, not copied.
    CMulticastDoctor(const CMulticastDoctor&) = delete;
    /// Is moved, not copied.
    CMulticastDoctor& operator=(const CMulticastDoctor&) = delete;
    /// Takes over what `other` saw, and leaves it empty.
    CMulticastDoctor(CMulticastDoctor&& other) noexcept;
    /// The two exchange what they saw.
    CMulticastDoctor& operator=(CMulticastDoctor&& other) noexcept;

    /// Looks at everything anew; with `listen_ms`, up to 60000, datagrams are counted for so long, and the
    /// call blocks meanwhile. Reads /proc and asks the kernel about each descriptor of the process: for now
    /// and then, not for every event. Result: 0, also if datagrams could not be counted (`listen_error`); -1,
    /// with what was seen before, without memory or if interfaces or descriptors cannot be listed.
    int Take(unsigned int listen_ms = 0);

    // What was seen. `place` counts from 0. Result: 0; -1, with nothing written, if there is none with that
    // place, or `size` is too small to be one of ours. All but `size` and `version` is written.

    /// What holds for all. -1 also before the first look.
    int GetOverview(MulticastOverview& overview) const;
    /// How many interfaces there were.
    size_t GetInterfaceCount() const;
    /// The interfaces in the order of their indices.
    int GetInterface(size_t place, MulticastInterface& one) const;
    /// How many UDP sockets the process had.
    size_t GetSocketCount() const;
    /// The sockets in the order of their descriptors.
    int GetSocket(size_t place, MulticastSocket& one) const;
    /// How many rows of groups there were.
    size_t GetGroupCount() const;
    /// The groups, by interface.
    int GetGroup(size_t place, MulticastGroup& one) const;
    /// How many rows of datagrams there were.
    size_t GetTrafficCount() const;
    /// The datagrams, by interface and group; of 4096 rows at most.
    int GetTraffic(size_t place, MulticastTraffic& one) const;
    /// How many things were wrong.
    size_t GetProblemCount() const;
    /// What was wrong, in the order of MulticastFault.
    int GetProblem(size_t place, MulticastProblem& one) const;

    /// All of it for people. The first `size` bytes are written to `room`, without an end mark. Result: the
    /// length of the whole text, whatever the room; 0 before the first look, or without memory.
    size_t toText(char* room, size_t size) const;

    /// Why `group` could not be joined with the socket `handle`: a sentence for `error`, which is what errno
    /// was after the join. For products that join with setsockopt(2), more than one group for example. Room
    /// and result as with toText.
    static size_t ExplainJoin(int handle, const CSockAddr& group, int error, char* room, size_t size);

    /// Whether the socket also takes groups that only other sockets have joined (IP_MULTICAST_ALL,
    /// IPV6_MULTICAST_ALL), as the kernel has it for sockets that CSockDgram did not open. Result: 0; -1 with
    /// errno.
    static int SetForeignGroups(int handle, bool on);

    /// One word for a fault, with underscores: "foreign_group". Good for the life of the process.
    static const char* GetName(MulticastFault fault);

private:
    struct State;
    State* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
