// MulticastNet: interfaces made over rtnetlink(7), addresses and routes set by netdevice(7).
#include "support/socket/MulticastNet.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/if_packet.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/if_ether.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include "support/Eventually.h"

namespace Orvex::Testing {

namespace {

constexpr char FIRST[] = "mc0";
constexpr char SECOND[] = "mc1";

// One request of rtnetlink, with room for its attributes.
class Request {
public:
    template <typename Body>
    Request(int type, int flags, const Body& body) {
        std::memset(m_bytes, 0, sizeof m_bytes);
        header().nlmsg_len = NLMSG_LENGTH(sizeof body);
        header().nlmsg_type = static_cast<unsigned short>(type);
        header().nlmsg_flags = static_cast<unsigned short>(NLM_F_REQUEST | NLM_F_ACK | flags);
        std::memcpy(NLMSG_DATA(m_bytes), &body, sizeof body);
    }

    // Appends an attribute, and returns it so that it can be ended after what is nested in it.
    rtattr* add(int type, const void* data, std::size_t length) {
        auto* const attribute = reinterpret_cast<rtattr*>(m_bytes + NLMSG_ALIGN(header().nlmsg_len));
        attribute->rta_type = static_cast<unsigned short>(type);
        attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
        if (length != 0) {
            std::memcpy(RTA_DATA(attribute), data, length);
        }
        header().nlmsg_len =
            NLMSG_ALIGN(header().nlmsg_len) + static_cast<unsigned>(RTA_ALIGN(RTA_LENGTH(length)));
        return attribute;
    }
    template <typename Body>
    rtattr* addBody(int type, const Body& body) {
        return add(type, &body, sizeof body);
    }
    rtattr* begin(int type) { return add(type, nullptr, 0); }
    void end(rtattr* nested) {
        nested->rta_len =
            static_cast<unsigned short>(m_bytes + header().nlmsg_len - reinterpret_cast<char*>(nested));
    }

    // Sends it, and waits for the kernel's answer.
    bool run() {
        const int handle = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
        bool done = ::send(handle, m_bytes, header().nlmsg_len, 0) > 0;
        if (done) {
            struct {
                nlmsghdr header;
                nlmsgerr error;
                char rest[1024];
            } answer{};
            done = ::recv(handle, &answer, sizeof answer, 0) > 0 && answer.header.nlmsg_type == NLMSG_ERROR &&
                   answer.error.error == 0;
        }
        ::close(handle);
        return done;
    }

private:
    nlmsghdr& header() { return *reinterpret_cast<nlmsghdr*>(m_bytes); }

    alignas(nlmsghdr) char m_bytes[1024];
};

bool makePair(const char* first, const char* second) {
    Request request(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, ifinfomsg{});
    request.add(IFLA_IFNAME, first, std::strlen(first) + 1);
    rtattr* const info = request.begin(IFLA_LINKINFO);
    request.add(IFLA_INFO_KIND, "veth", 4);
    rtattr* const data = request.begin(IFLA_INFO_DATA);
    rtattr* const peer = request.addBody(VETH_INFO_PEER, ifinfomsg{});
    request.add(IFLA_IFNAME, second, std::strlen(second) + 1);
    request.end(peer);
    request.end(data);
    request.end(info);
    return request.run();
}

bool addAddress(const char* name, int family, const char* text, unsigned char prefix) {
    ifaddrmsg body{};
    body.ifa_family = static_cast<unsigned char>(family);
    body.ifa_prefixlen = prefix;
    body.ifa_flags = IFA_F_NODAD;
    body.ifa_index = ::if_nametoindex(name);
    Request request(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, body);
    char address[16];
    ::inet_pton(family, text, address);
    const std::size_t length = family == AF_INET ? 4 : 16;
    request.add(IFA_LOCAL, address, length);
    request.add(IFA_ADDRESS, address, length);
    return request.run();
}

bool switchFlag(const char* name, int flag, bool on) {
    const int handle = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, name);
    bool done = ::ioctl(handle, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(on ? request.ifr_flags | flag : request.ifr_flags & ~flag);
    done = done && ::ioctl(handle, SIOCSIFFLAGS, &request) == 0;
    ::close(handle);
    return done;
}

bool bringUp(const char* name) {
    return switchFlag(name, IFF_UP, true);
}

// Groups go out through the first interface, from SIOCADDRT on and until SIOCDELRT.
bool routeGroups(unsigned long request) {
    const int handle = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    rtentry route{};
    const auto set = [](sockaddr& to, const char* text) {
        auto& ipv4 = reinterpret_cast<sockaddr_in&>(to);
        ipv4.sin_family = AF_INET;
        ::inet_pton(AF_INET, text, &ipv4.sin_addr);
    };
    set(route.rt_dst, "224.0.0.0");
    set(route.rt_genmask, "240.0.0.0");
    route.rt_flags = RTF_UP;
    std::string device = FIRST;
    route.rt_dev = &device[0];
    const bool done = ::ioctl(handle, request, &route) == 0;
    ::close(handle);
    return done;
}

// An interface that has come up is usable for IPv6 only a moment later.
bool awaitIPv6() {
    return eventually([] {
        const int handle = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in6 to{};
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(9);
        ::inet_pton(AF_INET6, "ff15::9", &to.sin6_addr);
        const bool sent = ::sendto(handle, "x", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof to) == 1;
        ::close(handle);
        return sent;
    });
}

bool make() {
    if (::unshare(CLONE_NEWNET) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return false;
    }
    // Looking for others with the same address would take seconds.
    std::ofstream("/proc/sys/net/ipv6/conf/default/accept_dad") << 0;
    return bringUp("lo") && makePair(FIRST, SECOND) && bringUp(FIRST) && bringUp(SECOND) &&
           addAddress(FIRST, AF_INET, MulticastNet::FIRST_IPV4, 24) &&
           addAddress(SECOND, AF_INET, MulticastNet::SECOND_IPV4, 24) &&
           addAddress(FIRST, AF_INET6, MulticastNet::FIRST_IPV6, 64) && routeGroups(SIOCADDRT) && awaitIPv6();
}

}  // namespace

MulticastNet::MulticastNet() : m_made(make()) {}

bool MulticastNet::addPair(const char* first, const char* second, const char* first_ipv4) {
    return makePair(first, second) && bringUp(first) && bringUp(second) &&
           addAddress(first, AF_INET, first_ipv4, 24);
}

bool MulticastNet::removeRoute() {
    return routeGroups(SIOCDELRT);
}

bool MulticastNet::setUp(const char* name, bool on) {
    return switchFlag(name, IFF_UP, on);
}

bool MulticastNet::setMulticast(const char* name, bool on) {
    return switchFlag(name, IFF_MULTICAST, on);
}

bool MulticastNet::set(const std::string& setting, int value) {
    std::ofstream file("/proc/sys/net/ipv4/" + setting);
    file << value << std::flush;
    return file.good();
}

bool MulticastNet::inject(const char* name, const char* source, const char* group, unsigned short port,
                          const std::string& bytes) {
    struct {
        iphdr ip;
        udphdr udp;
        char payload[64];
    } packet{};
    const std::size_t length = sizeof(iphdr) + sizeof(udphdr) + bytes.size();
    packet.ip.version = 4;
    packet.ip.ihl = 5;
    packet.ip.tot_len = htons(static_cast<unsigned short>(length));
    packet.ip.ttl = 1;
    packet.ip.protocol = IPPROTO_UDP;
    ::inet_pton(AF_INET, source, &packet.ip.saddr);
    ::inet_pton(AF_INET, group, &packet.ip.daddr);
    unsigned sum = 0;
    unsigned short words[sizeof(iphdr) / 2];
    std::memcpy(words, &packet.ip, sizeof words);
    for (const unsigned short word : words) {
        sum += word;
    }
    packet.ip.check = static_cast<unsigned short>(~(sum % 0xFFFF));
    packet.udp.source = htons(9);
    packet.udp.dest = htons(port);
    packet.udp.len = htons(static_cast<unsigned short>(sizeof(udphdr) + bytes.size()));
    bytes.copy(packet.payload, sizeof packet.payload);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ETH_P_IP);
    to.sll_ifindex = static_cast<int>(::if_nametoindex(name));
    to.sll_halen = ETH_ALEN;
    // The Ethernet address of a group has its last 23 bits.
    const auto* const group_bytes = reinterpret_cast<const unsigned char*>(&packet.ip.daddr);
    const unsigned char ethernet[ETH_ALEN] = {
        1, 0, 0x5E, static_cast<unsigned char>(group_bytes[1] & 0x7F), group_bytes[2], group_bytes[3]};
    std::memcpy(to.sll_addr, ethernet, sizeof ethernet);
    const int handle = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const ssize_t sent =
        ::sendto(handle, &packet, length, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    ::close(handle);
    return sent == static_cast<ssize_t>(length);
}

}  // namespace Orvex::Testing
