// MulticastOutput: the transport stream as datagrams.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include <Reticor/SockDgram.h>

#include "media_relay/mpegts/TsPacket.h"

namespace relay {

/// Seven packets a datagram, which is what fits a frame of Ethernet. A datagram that cannot be sent now is
/// lost, as others are on their way: nobody waits. One thread at a time.
class MulticastOutput {
public:
    /// `interface` is the IPv4 address of the interface to send by, empty for the system's choice. False if
    /// that cannot be done; the library or this operation has said why.
    bool open(const std::string& ip, unsigned short port, const std::string& interface, unsigned ttl);

    void put(const uint8_t* packet);

    /// Sends an incomplete datagram.
    void flush();

private:
    static constexpr size_t kPackets = 7;

    Orvex::Reticor::CSockDgram m_sock;
    std::array<uint8_t, kPackets * kTsPacketSize> m_bytes{};
    size_t m_size = 0;
};

}  // namespace relay
