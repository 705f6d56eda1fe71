// RtpReader: heads, numbers of 16 bits, and a short wait for what is missing.

#include "media_relay/input/RtpReader.h"

#include <algorithm>

namespace relay {

namespace {

constexpr size_t kHead = 12;
constexpr unsigned kTransportStream = 33;  // payload type (RFC 3551)
constexpr int kMostDropped = 3000;         // as RFC 3550, A.1: a step beyond that is another sequence
constexpr uint64_t kFirst = uint64_t{1} << 32;

unsigned read16(const uint8_t* at) {
    return at[0] * 256U + at[1];
}

}  // namespace

bool RtpReader::parse(const uint8_t* bytes, size_t size, Packet& packet) {
    if (size < kHead || bytes[0] >> 6 != 2 || (bytes[1] & 0x7FU) != kTransportStream) {
        return false;
    }
    size_t begin = kHead + size_t{4} * (bytes[0] & 0x0FU);
    if ((bytes[0] & 0x10) != 0) {  // an extension, whose length counts words
        if (begin + 4 > size) {
            return false;
        }
        begin += 4 + size_t{4} * read16(bytes + begin + 2);
    }
    if (begin > size) {
        return false;
    }
    size_t end = size;
    if ((bytes[0] & 0x20) != 0) {  // the last byte counts the padding, itself included
        const size_t padding = bytes[size - 1];
        if (padding == 0 || padding > size - begin) {
            return false;
        }
        end -= padding;
    }
    packet.number = read16(bytes + 2);
    packet.source = static_cast<uint32_t>(read16(bytes + 8)) << 16 | read16(bytes + 10);
    packet.payload = bytes + begin;
    packet.size = end - begin;
    return true;
}

/// Hands out what is held and due from `m_next` on.
void RtpReader::handOut(const OnPayload& onPayload) {
    while (!m_held.empty() && m_held.begin()->first == m_next) {
        const std::vector<uint8_t>& payload = m_held.begin()->second.payload;
        onPayload(payload.data(), payload.size());
        m_held.erase(m_held.begin());
        ++m_next;
    }
}

/// Waits no longer for what comes before the first that is held.
void RtpReader::skip(const OnPayload& onPayload) {
    m_lost += m_held.begin()->first - m_next;
    m_next = m_held.begin()->first;
    handOut(onPayload);
}

/// Looks whether a sequence begins with this packet: the first one, another source's, or one whose sender has
/// begun anew, which is believed when two packets in a row say so.
void RtpReader::begins(const Packet& packet, const OnPayload& onPayload) {
    const auto step = static_cast<int16_t>(packet.number - (m_next & 0xFFFF));
    const bool strange = m_begun && (step > kMostDropped || step < -kMostDropped);
    const bool again = strange && m_hasStrange && packet.number == m_strange;
    m_hasStrange = strange;
    m_strange = (packet.number + 1) & 0xFFFFU;
    if (m_begun && packet.source == m_source && !again) {
        return;
    }
    while (!m_held.empty()) {
        skip(onPayload);
    }
    m_begun = true;
    m_hasStrange = false;
    m_source = packet.source;
    m_next = kFirst + packet.number;
}

void RtpReader::put(const uint8_t* datagram, size_t size, uint64_t now_us, const OnPayload& onPayload) {
    Packet packet;
    if (!parse(datagram, size, packet)) {
        ++m_bad;
        return;
    }
    begins(packet, onPayload);
    const auto step = static_cast<int16_t>(packet.number - (m_next & 0xFFFF));
    if (step < 0 || m_hasStrange) {
        ++m_late;
        return;
    }
    if (step == 0) {
        onPayload(packet.payload, packet.size);
        ++m_next;
        handOut(onPayload);
    } else {
        m_held.emplace(m_next + static_cast<uint64_t>(step),
                       Held{{packet.payload, packet.payload + packet.size}, now_us});
    }
    uint64_t oldest_us = now_us;
    for (const auto& held : m_held) {
        oldest_us = std::min(oldest_us, held.second.came_us);
    }
    if (m_held.size() > HELD || (!m_held.empty() && now_us - oldest_us > HELD_US)) {
        skip(onPayload);
    }
}

}  // namespace relay
