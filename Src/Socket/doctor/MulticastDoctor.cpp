// CMulticastDoctor: a look, what it has seen, and the command `multicast` of the debug server.
#include <Reticor/MulticastDoctor.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "R3/print/FuncBox.h"
#include "Socket/address/SockAddrRecord.h"
#include "Socket/doctor/Diagnosis.h"
#include "Socket/doctor/DoctorText.h"
#include "Socket/doctor/NetworkLook.h"
#include "Socket/doctor/TrafficCount.h"

namespace Orvex::Reticor {

namespace {

constexpr unsigned LONGEST_LISTEN_MS = 60000;

/// Copies what both sides know of a structure; what the caller alone knows is 0. `size` and `version` stay.
template <class Public>
int hand_out(const Public& from, Public& to) {
    constexpr size_t HEAD = offsetof(Public, version) + sizeof(Public::version);
    const size_t size = to.size;
    if (size < HEAD) {
        return -1;
    }
    char* const room = reinterpret_cast<char*>(&to);
    const size_t known = std::min(size, sizeof(Public));
    std::memcpy(room + HEAD, reinterpret_cast<const char*>(&from) + HEAD, known - HEAD);
    std::memset(room + known, 0, size - known);
    return 0;
}

size_t write_out(const std::string& text, char* room, size_t size) {
    if (size != 0) {
        std::memcpy(room, text.data(), std::min(size, text.size()));
    }
    return text.size();
}

}  // namespace

struct __attribute__((visibility("hidden"))) CMulticastDoctor::State {
    DoctorFacts facts;

    /// A whole look. -1 if the system does not list what there is.
    static int look(unsigned listen_ms, const DoctorFacts* before, DoctorFacts& facts);
    static void count(unsigned listen_ms, DoctorFacts& facts);
    static void compare(const DoctorFacts* before, uint64_t filtered_at_begin, DoctorFacts& facts);
};

// The figures of sockets come after the time of counting, so that both tell of the same time.
int CMulticastDoctor::State::look(unsigned listen_ms, const DoctorFacts* before, DoctorFacts& facts) {
    const uint64_t filtered_at_begin = NetworkLook::filtered();
    if (listen_ms != 0) {
        count(std::min(listen_ms, LONGEST_LISTEN_MS), facts);
    }
    if (NetworkLook::find_interfaces(facts) == -1 || NetworkLook::find_sockets(facts) == -1) {
        return -1;
    }
    NetworkLook::find_groups(facts);
    NetworkLook::find_settings(facts);
    for (TrafficFacts& row : facts.traffic) {
        if (const InterfaceFacts* const one = facts.interface_of(row.interface_index)) {
            std::memcpy(row.interface_name, one->name, sizeof row.interface_name);
        }
        for (const GroupFacts& group : facts.groups) {
            row.members += group.handle != -1 && group.address == row.address && group.port == row.port &&
                                   group.interface_index == row.interface_index
                               ? 1
                               : 0;
        }
    }
    compare(before, filtered_at_begin, facts);
    Diagnosis::judge(facts);
    return 0;
}

void CMulticastDoctor::State::count(unsigned listen_ms, DoctorFacts& facts) {
    TrafficCount traffic;
    facts.overview.listen_error = traffic.run(listen_ms);
    facts.overview.listened_ms = facts.overview.listen_error == 0 ? listen_ms : 0;
    facts.overview.uncounted = traffic.uncounted();
    facts.traffic = traffic.rows();
}

// A descriptor's number may be another socket's by now: the inode tells.
void CMulticastDoctor::State::compare(const DoctorFacts* before, uint64_t filtered_at_begin,
                                      DoctorFacts& facts) {
    const uint64_t filtered = before != nullptr ? before->overview.filtered : filtered_at_begin;
    facts.overview.filtered_since =
        facts.overview.filtered > filtered ? facts.overview.filtered - filtered : 0;
    for (SocketFacts& socket : facts.sockets) {
        const SocketFacts* const earlier = before != nullptr ? before->socket_of(socket.handle) : nullptr;
        const bool same =
            earlier != nullptr && earlier->inode == socket.inode && earlier->lost <= socket.lost;
        socket.lost_since = socket.lost - (same ? earlier->lost : 0);
    }
}

CMulticastDoctor::CMulticastDoctor() : m_state(nullptr) {}

CMulticastDoctor::~CMulticastDoctor() {
    delete m_state;
}

CMulticastDoctor::CMulticastDoctor(CMulticastDoctor&& other) noexcept
    : m_state(std::exchange(other.m_state, nullptr)) {}

CMulticastDoctor& CMulticastDoctor::operator=(CMulticastDoctor&& other) noexcept {
    std::swap(m_state, other.m_state);
    return *this;
}

int CMulticastDoctor::Take(unsigned int listen_ms) {
    try {
        DoctorFacts facts;
        if (State::look(listen_ms, m_state != nullptr ? &m_state->facts : nullptr, facts) == -1) {
            return -1;
        }
        if (m_state == nullptr) {
            m_state = new State();
        }
        m_state->facts = std::move(facts);
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int CMulticastDoctor::GetOverview(MulticastOverview& overview) const {
    return m_state != nullptr ? hand_out(m_state->facts.overview, overview) : -1;
}

size_t CMulticastDoctor::GetInterfaceCount() const {
    return m_state != nullptr ? m_state->facts.interfaces.size() : 0;
}

int CMulticastDoctor::GetInterface(size_t place, MulticastInterface& one) const {
    return place < GetInterfaceCount() ? hand_out<MulticastInterface>(m_state->facts.interfaces[place], one)
                                       : -1;
}

size_t CMulticastDoctor::GetSocketCount() const {
    return m_state != nullptr ? m_state->facts.sockets.size() : 0;
}

int CMulticastDoctor::GetSocket(size_t place, MulticastSocket& one) const {
    return place < GetSocketCount() ? hand_out<MulticastSocket>(m_state->facts.sockets[place], one) : -1;
}

size_t CMulticastDoctor::GetGroupCount() const {
    return m_state != nullptr ? m_state->facts.groups.size() : 0;
}

int CMulticastDoctor::GetGroup(size_t place, MulticastGroup& one) const {
    return place < GetGroupCount() ? hand_out<MulticastGroup>(m_state->facts.groups[place], one) : -1;
}

size_t CMulticastDoctor::GetTrafficCount() const {
    return m_state != nullptr ? m_state->facts.traffic.size() : 0;
}

int CMulticastDoctor::GetTraffic(size_t place, MulticastTraffic& one) const {
    return place < GetTrafficCount() ? hand_out<MulticastTraffic>(m_state->facts.traffic[place], one) : -1;
}

size_t CMulticastDoctor::GetProblemCount() const {
    return m_state != nullptr ? m_state->facts.problems.size() : 0;
}

int CMulticastDoctor::GetProblem(size_t place, MulticastProblem& one) const {
    return place < GetProblemCount() ? hand_out(m_state->facts.problems[place], one) : -1;
}

size_t CMulticastDoctor::toText(char* room, size_t size) const {
    try {
        return m_state != nullptr ? write_out(text_of(m_state->facts), room, size) : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

size_t CMulticastDoctor::ExplainJoin(int handle, const CSockAddr& group, int error, char* room, size_t size) {
    try {
        const SockAddrRecord record(group);
        GroupAddress address;
        if (record.has_family()) {
            address = record.is_ipv4() ? GroupAddress::of_ipv4(&record.ipv4().sin_addr)
                                       : GroupAddress::of_ipv6(&record.ipv6().sin6_addr);
        }
        // How many groups the socket has joined is known when all of this process are looked at.
        DoctorFacts facts;
        uint32_t memberships = 0;
        if (NetworkLook::find_sockets(facts) == 0) {
            NetworkLook::find_groups(facts);
            const SocketFacts* const socket = facts.socket_of(handle);
            memberships = socket != nullptr ? socket->memberships_v4 : 0;
        }
        const std::string sentence =
            Diagnosis::explain_join(handle, address, error, memberships, NetworkLook::groups_per_socket());
        return write_out(sentence, room, size);
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

int CMulticastDoctor::SetForeignGroups(int handle, bool on) {
    const int value = on ? 1 : 0;
    int family = 0;
    socklen_t length = sizeof family;
    if (::getsockopt(handle, SOL_SOCKET, SO_DOMAIN, &family, &length) == -1 ||
        ::setsockopt(handle, IPPROTO_IP, IP_MULTICAST_ALL, &value, sizeof value) == -1) {
        return -1;
    }
    return family != AF_INET6 ? 0
                              : ::setsockopt(handle, IPPROTO_IPV6, IPV6_MULTICAST_ALL, &value, sizeof value);
}

const char* CMulticastDoctor::GetName(MulticastFault fault) {
    return name_of_fault(fault);
}

}  // namespace Orvex::Reticor
