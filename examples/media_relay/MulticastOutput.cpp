// MulticastOutput: a datagram socket with a remote.

#include "media_relay/MulticastOutput.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>

namespace relay {

using namespace Orvex::Reticor;

bool MulticastOutput::open(const std::string& ip, unsigned short port, const std::string& interface,
                           unsigned ttl) {
    const CSockAddrIPv4 four(ip.c_str(), port);
    const CSockAddrIPv6 six(ip.c_str(), port);
    const bool isFour = ip.find(':') == std::string::npos;
    const CSockAddr& remote = isFour ? static_cast<const CSockAddr&>(four) : six;
    const CSockAddrIPv6 any("::", 0);
    if (m_sock.Open(isFour ? nullptr : &any) != 0 || m_sock.SetRemote(&remote) != 0 ||
        m_sock.SetMulticastTTL(static_cast<unsigned char>(ttl)) != 0) {
        return false;
    }
    if (interface.empty()) {
        return true;
    }
    // CSockDgram::SetMulticastIF is for a socket that has joined a group; this one only sends to it.
    in_addr address{};
    if (inet_pton(AF_INET, interface.c_str(), &address) != 1 ||
        setsockopt(m_sock.GetHandle(), IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof address) != 0) {
        std::fprintf(stderr, "media_relay: --multicast-if %s: %s\n", interface.c_str(),
                     errno != 0 ? std::strerror(errno) : "no IPv4 address");
        return false;
    }
    return true;
}

void MulticastOutput::put(const uint8_t* packet) {
    std::memcpy(m_bytes.data() + m_size, packet, kTsPacketSize);
    m_size += kTsPacketSize;
    if (m_size == m_bytes.size()) {
        flush();
    }
}

void MulticastOutput::flush() {
    if (m_size > 0) {
        m_sock.Send(reinterpret_cast<const char*>(m_bytes.data()), static_cast<unsigned>(m_size), nullptr);
        m_size = 0;
    }
}

}  // namespace relay
