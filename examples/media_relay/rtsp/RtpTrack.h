// RtpTrack: the packets of one medium, numbered, as they go over a connection that they share with RTSP.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace relay {

using RtpPacket = std::vector<uint8_t>;

/// A piece of a packet's payload.
struct RtpPiece {
    const uint8_t* bytes;
    size_t size;
};

/// Makes packets of RTP (RFC 3550), each with the four bytes in front that it has between requests and
/// answers (RFC 2326, 10.12): "$", a channel, and its length. A datagram is such a packet without those.
///
/// Every client gets the same bytes. So number, source and channel are the stream's, and not a client's.
class RtpTrack {
public:
    static constexpr size_t FRAMING = 4;
    static constexpr size_t MOST_PAYLOAD = 1400;  ///< so that a datagram passes most networks in one piece

    /// `source` and `first` should be hard to guess (RFC 3550, 5.1).
    RtpTrack(unsigned channel, unsigned type, uint32_t source, uint16_t first)
        : m_channel(channel), m_type(type), m_source(source), m_next(first) {}

    unsigned channel() const { return m_channel; }
    uint32_t source() const { return m_source; }

    /// The next packet. `marker` has the meaning that its kind of payload gives it.
    RtpPacket make(uint32_t time, bool marker, std::initializer_list<RtpPiece> payload);

    /// What a receiver compares its clock and its counts with (RFC 3550, 6.4.1), with a name of ours, on
    /// the channel after that of the packets: at `now_us`, the time of day in us since 1970, this track's
    /// clock says `time`.
    RtpPacket makeReport(uint64_t now_us, uint32_t time, const char* name) const;

private:
    const unsigned m_channel;
    const unsigned m_type;
    const uint32_t m_source;
    uint16_t m_next;
    uint32_t m_packets = 0;
    uint32_t m_bytes = 0;  // of their payload
};

/// What a receiver says of one source (RFC 3550, 6.4.1).
struct RtpReception {
    uint32_t source = 0;
    double lost = 0;        // of the packets since its last report, from 0 to 1
    int32_t lostInAll = 0;  // duplicates count against it
    uint32_t jitter = 0;    // in ticks of the track's clock
};

/// Reads the reports out of a compound packet, which is foreign. What is no report of a receiver is passed
/// over; what follows a length that is wrong is not looked at.
std::vector<RtpReception> readReceptions(const uint8_t* bytes, size_t size);

}  // namespace relay
