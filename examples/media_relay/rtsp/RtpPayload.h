// RtpPayload: cuts pictures and sound into packets of RTP, as each kind of them demands.
#pragma once

#include <cstdint>
#include <vector>

#include "media_relay/mp4/SoundFormat.h"
#include "media_relay/mp4/VideoFormat.h"
#include "media_relay/rtsp/RtpTrack.h"

namespace relay {

using RtpPackets = std::vector<RtpPacket>;

/// A picture in H.264 (RFC 6184, packetization mode 1): a packet for each unit, or several for a long one.
/// What only separates or fills is left out. The last packet is marked.
void packH264(const std::vector<NalUnit>& units, uint32_t time, RtpTrack& track, RtpPackets& packets);

/// Frames of AAC that follow one another without a hole (RFC 3640, AAC-hbr): as many in a packet as fit, or
/// several packets for a long one. `time` is the first one's, in samples.
void packAac(const std::vector<SoundFrame>& frames, uint32_t time, RtpTrack& track, RtpPackets& packets);

/// Whole packets of a transport stream (RFC 2250), seven in each.
void packTransport(const std::vector<uint8_t>& bytes, uint32_t time, RtpTrack& track, RtpPackets& packets);

}  // namespace relay
