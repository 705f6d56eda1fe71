// RtpReader: what packets of RTP carry, in the order of their numbers (RFC 3550, RFC 2250).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace relay {

/// A packet that comes before the one it follows is held until that has come, for a few packets or a moment;
/// then what is missing counts as lost. Memory is bounded by that.
class RtpReader {
public:
    using OnPayload = std::function<void(const uint8_t* bytes, size_t size)>;

    static constexpr size_t HELD = 16;           // packets
    static constexpr uint64_t HELD_US = 100000;  // the first of them

    /// Takes a datagram that came at `now_us`; calls back for each payload whose turn it is.
    void put(const uint8_t* datagram, size_t size, uint64_t now_us, const OnPayload& onPayload);

    uint64_t lost() const { return m_lost; }
    uint64_t late() const { return m_late; }  // too late, or twice; they were thrown away
    uint64_t bad() const { return m_bad; }    // no RTP, or none that carries a transport stream

private:
    struct Packet {
        unsigned number = 0;
        uint32_t source = 0;
        const uint8_t* payload = nullptr;
        size_t size = 0;
    };

    struct Held {
        std::vector<uint8_t> payload;
        uint64_t came_us = 0;
    };

    static bool parse(const uint8_t* bytes, size_t size, Packet& packet);
    void begins(const Packet& packet, const OnPayload& onPayload);
    void handOut(const OnPayload& onPayload);
    void skip(const OnPayload& onPayload);

    bool m_begun = false;
    uint32_t m_source = 0;
    uint64_t m_next = 0;              // number that is due, beyond 16 bits
    std::map<uint64_t, Held> m_held;  // by number
    bool m_hasStrange = false;        // a number far away was the last one,
    unsigned m_strange = 0;           // and would be followed by this one
    uint64_t m_lost = 0;
    uint64_t m_late = 0;
    uint64_t m_bad = 0;
};

}  // namespace relay
