// Packets of RTP as media_relay makes them of a transport stream, and what their receivers say of them.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "media_relay/rtsp/RtpMuxer.h"
#include "media_relay/rtsp/Transport.h"
#include "support/TsBuilder.h"

using namespace Orvex::Testing;
using namespace relay;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr unsigned PICTURES = 0x100;
constexpr unsigned SOUND = 0x101;
constexpr uint64_t STEP_OF_PICTURES = 3600;  // ticks
const char* const SEQUENCE_SET = "6764000cacd941419f9f011000000300100000030320f14299";
const char* const PICTURE_PARAMETERS = "68ef8fcbfdf8f8";

uint32_t fieldOf(const RtpPacket& packet, size_t at, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value = value << 8 | packet.at(at + i);
    }
    return value;
}

/// What stands after the framing and the head.
Bytes payloadOf(const RtpPacket& packet) {
    return {packet.begin() + 16, packet.end()};
}
unsigned sequenceOf(const RtpPacket& packet) {
    return fieldOf(packet, 6, 2);
}
uint32_t timeOf(const RtpPacket& packet) {
    return fieldOf(packet, 8, 4);
}
bool isMarked(const RtpPacket& packet) {
    return (packet.at(5) & 0x80) != 0;
}

Bytes started(const Bytes& unit) {
    return Bytes{0, 0, 0, 1} + unit;
}

/// Sound of that many bytes, with the head that it has in transport streams: 44.1 kHz, two channels.
Bytes adtsFrame(size_t size) {
    const size_t whole = size + 7;
    Bytes frame{0xFF,
                0xF1,
                0x50,
                static_cast<uint8_t>(0x80 | whole >> 11),
                static_cast<uint8_t>(whole >> 3),
                static_cast<uint8_t>((whole & 7) << 5 | 0x1F),
                0xFC};
    return frame + Bytes(size, 0x33);
}

class RelayRtp : public ::testing::Test, protected RtpMuxer::Sink {
protected:
    static ProgramMap programme(Codec video, Codec sound) {
        ProgramMap map;
        StreamEntry entry;
        entry.kind = StreamKind::Video;
        entry.pid = PICTURES;
        entry.codec = video;
        map.streams.push_back(entry);
        entry.kind = StreamKind::Audio;
        entry.pid = SOUND;
        entry.codec = sound;
        map.streams.push_back(entry);
        return map;
    }
    static AccessUnit picture(bool key, uint64_t decoded, uint64_t presented, size_t size = 4) {
        Bytes bytes = started({9, 0xF0});
        if (key) {
            bytes = bytes + started(bytesOf(SEQUENCE_SET)) + started(bytesOf(PICTURE_PARAMETERS));
        }
        bytes = bytes + started(Bytes{static_cast<uint8_t>(key ? 0x65 : 0x41)} + Bytes(size, 0x55));
        AccessUnit unit;
        unit.kind = StreamKind::Video;
        unit.pid = PICTURES;
        unit.key = key;
        unit.packets = packetsOf(PICTURES, pesOf(0xE0, presented, decoded, bytes));
        return unit;
    }
    static AccessUnit sound(uint64_t stamp, const Bytes& frames) {
        AccessUnit unit;
        unit.kind = StreamKind::Audio;
        unit.pid = SOUND;
        unit.packets = packetsOf(SOUND, pesOf(0xC0, stamp, stamp, frames));
        return unit;
    }
    void onPackets(RtpUnit&& unit) override { m_units.push_back(std::move(unit)); }

    RtpMuxer m_muxer{*this};
    std::vector<RtpUnit> m_units;
};

}  // namespace

TEST_F(RelayRtp, APacketHasItsChannelItsLengthAndAHeadInFront) {
    RtpTrack track(2, 97, 0x11223344, 0xFFFF);
    const Bytes payload{1, 2, 3};
    EXPECT_EQ(bytesOf("24"
                      "02"
                      "000f"
                      "80"
                      "e1"
                      "ffff"
                      "01020304"
                      "11223344"
                      "010203"),
              track.make(0x01020304, true, {{payload.data(), 1}, {payload.data() + 1, 2}}));
    EXPECT_EQ(bytesOf("24"
                      "02"
                      "000c"
                      "80"
                      "61"
                      "0000"
                      "01020304"
                      "11223344"),
              track.make(0x01020304, false, {}))
        << "the number begins again";
}

TEST_F(RelayRtp, AReportTellsTheTimeOfDayAndTheCountsAndTheName) {
    RtpTrack track(0, 96, 0x11223344, 7);
    const Bytes payload(5, 1);
    track.make(1, false, {{payload.data(), 5}});
    track.make(1, false, {{payload.data(), 4}});
    // Half a second after 1970 began: 2208988800 s, and a half of 2 to the 32nd.
    EXPECT_EQ(bytesOf("24"
                      "01"
                      "002c"
                      "80c80006"
                      "11223344"
                      "83aa7e80"
                      "80000000"
                      "00000a0b"
                      "00000002"
                      "00000009"
                      "81ca0003"
                      "11223344"
                      "01046e616d650000"),
              track.makeReport(500000, 0xA0B, "name"));
}

TEST_F(RelayRtp, ReceptionsAreReadOutOfCompoundPackets) {
    const Bytes block = bytesOf(
        "11223344"
        "40fffffe"
        "00000000"
        "00000384"
        "00000000"
        "00000000");
    const Bytes receiver = bytesOf(
                               "81c90007"
                               "55555555") +
                           block;
    const Bytes sender = bytesOf(
                             "81c8000c"
                             "55555555") +
                         Bytes(20, 0) + block;
    const Bytes name = bytesOf(
        "81ca0001"
        "55555555");
    const Bytes all = name + receiver + sender;
    const std::vector<RtpReception> found = readReceptions(all.data(), all.size());
    ASSERT_EQ(2U, found.size());
    for (const RtpReception& one : found) {
        EXPECT_EQ(0x11223344U, one.source);
        EXPECT_DOUBLE_EQ(0.25, one.lost);
        EXPECT_EQ(-2, one.lostInAll) << "more came than were sent";
        EXPECT_EQ(900U, one.jitter);
    }
}

TEST_F(RelayRtp, OfReportsThatAreCutShortNothingIsReadBeyondTheirEnd) {
    const Bytes whole = bytesOf(
                            "9fc90007"
                            "55555555"
                            "11223344"
                            "40000001"
                            "00000000"
                            "00000384") +
                        Bytes(8, 0);
    EXPECT_EQ(1U, readReceptions(whole.data(), whole.size()).size()) << "31 are announced, one is there";
    for (size_t size = 0; size < whole.size(); ++size) {
        const Bytes part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_TRUE(readReceptions(part.data(), part.size()).empty()) << size;
    }
    const Bytes other = bytesOf("11c90007") + Bytes(28, 0);
    EXPECT_TRUE(readReceptions(other.data(), other.size()).empty()) << "of another version";
}

TEST_F(RelayRtp, EachUnitOfAPictureIsAPacketAndTheLastIsMarked) {
    m_muxer.begin(programme(Codec::H264, Codec::Other));
    m_muxer.put(picture(true, 90000, 97200));
    ASSERT_EQ(1U, m_units.size());
    const RtpPackets& packets = m_units[0].packets;
    ASSERT_EQ(3U, packets.size()) << "what only separates pictures is left out";
    EXPECT_EQ(bytesOf(SEQUENCE_SET), payloadOf(packets[0]));
    EXPECT_EQ(bytesOf(PICTURE_PARAMETERS), payloadOf(packets[1]));
    EXPECT_EQ(bytesOf("6555555555"), payloadOf(packets[2]));
    EXPECT_TRUE(!isMarked(packets[0]) && !isMarked(packets[1]) && isMarked(packets[2]));
    EXPECT_EQ(96U, packets[2].at(5) & 0x7FU);
    EXPECT_TRUE(m_units[0].key);
    EXPECT_EQ(0U, m_units[0].track);
}

TEST_F(RelayRtp, ALongUnitGoesInPieces) {
    m_muxer.begin(programme(Codec::H264, Codec::Other));
    m_muxer.put(picture(true, 90000, 90000));
    m_muxer.put(picture(false, 93600, 93600, 3000));
    const RtpPackets& packets = m_units.at(1).packets;
    ASSERT_EQ(3U, packets.size());
    Bytes whole{0x41};
    for (size_t i = 0; i < packets.size(); ++i) {
        const Bytes payload = payloadOf(packets[i]);
        EXPECT_LE(payload.size(), RtpTrack::MOST_PAYLOAD);
        EXPECT_EQ(0x5C, payload.at(0)) << "its importance, and that it is a piece";
        EXPECT_EQ(i == 0 ? 0x81 : i == 2 ? 0x41 : 0x01, payload.at(1));
        EXPECT_EQ(i == 2, isMarked(packets[i]));
        EXPECT_EQ((sequenceOf(packets[0]) + i) & 0xFFFFU, sequenceOf(packets[i]));
        whole.insert(whole.end(), payload.begin() + 2, payload.end());
    }
    EXPECT_EQ(Bytes{0x41} + Bytes(3000, 0x55), whole);
}

TEST_F(RelayRtp, APictureHasTheTimeAtWhichItIsShown) {
    m_muxer.begin(programme(Codec::H264, Codec::Other));
    const uint64_t wrap = kStampWrap - STEP_OF_PICTURES;
    m_muxer.put(picture(true, wrap, wrap + STEP_OF_PICTURES));  // the stamps begin again between the two
    m_muxer.put(picture(false, 0, 3 * STEP_OF_PICTURES));
    m_muxer.put(picture(false, STEP_OF_PICTURES, STEP_OF_PICTURES));
    ASSERT_EQ(3U, m_units.size());
    const uint32_t first = timeOf(m_units[0].packets[0]);
    EXPECT_EQ(first + 3 * STEP_OF_PICTURES, timeOf(m_units[1].packets[0]));
    EXPECT_EQ(first + STEP_OF_PICTURES, timeOf(m_units[2].packets[0]));
}

TEST_F(RelayRtp, NothingGoesOutBeforeTheFirstKeyPicture) {
    m_muxer.begin(programme(Codec::H264, Codec::Aac));
    m_muxer.put(picture(false, 90000, 90000));
    m_muxer.put(sound(90000, adtsFrame(20)));
    EXPECT_TRUE(m_units.empty());
    m_muxer.put(picture(true, 93600, 93600));
    m_muxer.put(sound(93600, adtsFrame(20)));
    EXPECT_EQ(2U, m_units.size());
}

TEST_F(RelayRtp, FramesOfSoundShareAPacketWithTheirSizesInFront) {
    m_muxer.begin(programme(Codec::H264, Codec::Aac));
    m_muxer.put(picture(true, 90000, 90000));
    m_muxer.put(sound(90000, adtsFrame(20) + adtsFrame(30)));
    const RtpUnit& unit = m_units.at(1);
    EXPECT_EQ(1U, unit.track);
    EXPECT_EQ(StreamKind::Audio, unit.kind);
    ASSERT_EQ(1U, unit.packets.size());
    EXPECT_EQ(2, unit.packets[0].at(1)) << "the channel";
    EXPECT_TRUE(isMarked(unit.packets[0]));
    EXPECT_EQ(bytesOf("0020"
                      "00a0"
                      "00f0") +
                  Bytes(50, 0x33),
              payloadOf(unit.packets[0]));
}

TEST_F(RelayRtp, SoundGoesOnWithoutAHoleAndInStepWithThePictures) {
    m_muxer.begin(programme(Codec::H264, Codec::Aac));
    m_muxer.put(picture(true, 90000, 90000));
    m_muxer.put(sound(90000 + 9000, adtsFrame(700) + adtsFrame(700)));
    m_muxer.put(sound(90000 + 9000 + 4180, adtsFrame(20)));  // 4179.6 ticks are two frames
    ASSERT_EQ(3U, m_units.size());
    ASSERT_EQ(2U, m_units[1].packets.size());
    const uint32_t first = timeOf(m_units[1].packets[0]);
    EXPECT_EQ(first + 1024, timeOf(m_units[1].packets[1]));
    EXPECT_EQ(first + 2048, timeOf(m_units[2].packets[0]));
    const std::vector<RtpPacket> reports = m_muxer.makeReports(0, "name");
    ASSERT_EQ(2U, reports.size());
    EXPECT_EQ(timeOf(m_units[0].packets[0]), fieldOf(reports[0], 20, 4)) << "the clocks when it was decoded";
    EXPECT_EQ(first - 4410, fieldOf(reports[1], 20, 4)) << "a tenth of a second before that sound";
}

TEST_F(RelayRtp, ALongFrameOfSoundGoesInPiecesThatTellItsSize) {
    m_muxer.begin(programme(Codec::H264, Codec::Aac));
    m_muxer.put(picture(true, 90000, 90000));
    m_muxer.put(sound(90000, adtsFrame(2000)));
    const RtpPackets& packets = m_units.at(1).packets;
    ASSERT_EQ(2U, packets.size());
    size_t sum = 0;
    for (const RtpPacket& packet : packets) {
        const Bytes payload = payloadOf(packet);
        EXPECT_EQ(bytesOf("0010"
                          "3e80"),
                  Bytes(payload.begin(), payload.begin() + 4))
            << "2000 of them";
        EXPECT_LE(payload.size(), RtpTrack::MOST_PAYLOAD);
        sum += payload.size() - 4;
    }
    EXPECT_EQ(2000U, sum);
    EXPECT_TRUE(!isMarked(packets[0]) && isMarked(packets[1]));
}

TEST_F(RelayRtp, TracksAreKnownWithTheFirstPicturesAndTheFirstSound) {
    EXPECT_FALSE(m_muxer.isKnown());
    m_muxer.begin(programme(Codec::H264, Codec::Aac));
    EXPECT_FALSE(m_muxer.isKnown());
    m_muxer.put(picture(true, 90000, 90000));
    EXPECT_FALSE(m_muxer.isKnown());
    EXPECT_EQ(1U, m_muxer.describe().size()) << "sound is not described without its format";
    m_muxer.put(sound(90000, adtsFrame(20)));
    EXPECT_TRUE(m_muxer.isKnown());
    const std::string text = makeSdp("garden", "rtsp://host/garden", false, m_muxer.describe());
    EXPECT_THAT(text, HasSubstr("m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
                                "a=fmtp:96 packetization-mode=1;profile-level-id=64000c\r\n"
                                "a=control:rtsp://host/garden/track0\r\n"));
    EXPECT_THAT(text, HasSubstr("m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/2\r\n"));
    EXPECT_THAT(text, HasSubstr("config=1210\r\na=control:rtsp://host/garden/track1\r\n"));
    EXPECT_THAT(text, HasSubstr("s=garden\r\nc=IN IP4 0.0.0.0\r\n"));
    EXPECT_THAT(makeSdp("garden", "rtsp://host/garden", true, {}), HasSubstr("c=IN IP6 ::\r\n"));
}

TEST_F(RelayRtp, PicturesOfAnotherKindGoAsTheWholeTransportStream) {
    m_muxer.begin(programme(Codec::Mpeg2, Codec::Aac));
    ASSERT_TRUE(m_muxer.isKnown());
    EXPECT_THAT(
        makeSdp("s", "rtsp://h/s", false, m_muxer.describe()),
        AllOf(HasSubstr("m=video 0 RTP/AVP 33\r\na=rtpmap:33 MP2T/90000\r\n"), Not(HasSubstr("audio"))));
    AccessUnit unit = picture(true, 90000, 90000, 3000);
    unit.tables = Bytes(2 * kTsPacketSize, 0x47);
    m_muxer.put(unit);
    m_muxer.put(sound(90000, adtsFrame(20)));
    ASSERT_EQ(2U, m_units.size());
    Bytes all;
    for (const RtpPacket& packet : m_units[0].packets) {
        const Bytes payload = payloadOf(packet);
        EXPECT_EQ(0U, payload.size() % kTsPacketSize);
        EXPECT_LE(payload.size(), RtpTrack::MOST_PAYLOAD);
        EXPECT_EQ(33, packet.at(5));
        all = all + payload;
    }
    EXPECT_EQ(unit.tables + unit.packets, all);
}

TEST_F(RelayRtp, AProgrammeOfTheSameKindGoesOnWithTheSameNumbers) {
    m_muxer.begin(programme(Codec::H264, Codec::Aac));
    m_muxer.put(picture(true, 90000, 90000));
    const std::vector<uint32_t> sources = m_muxer.sources();
    ASSERT_EQ(2U, sources.size());
    ProgramMap other = programme(Codec::H264, Codec::Aac);
    other.streams[0].pid = 0x200;
    m_muxer.begin(other);
    EXPECT_EQ(sources, m_muxer.sources());
    AccessUnit unit = picture(true, 93600, 93600);
    unit.pid = 0x200;
    m_muxer.put(unit);
    ASSERT_EQ(2U, m_units.size());
    EXPECT_EQ((sequenceOf(m_units[0].packets[2]) + 1) & 0xFFFFU, sequenceOf(m_units[1].packets[0]));
    m_muxer.begin(programme(Codec::H264, Codec::Other));
    EXPECT_EQ(1U, m_muxer.sources().size());
}

TEST(RelayTransport, TheFirstOfferThatIsKnownIsTaken) {
    const Transport tcp = chooseTransport("RTP/AVP/TCP;unicast;interleaved=4-5");
    EXPECT_EQ(Transport::TCP, tcp.kind);
    const Transport udp =
        chooseTransport("RTP/AVP;multicast, RTP/SAVP;unicast , RTP/AVP;unicast;client_port=5000-5001");
    EXPECT_EQ(Transport::UDP, udp.kind);
    EXPECT_EQ(5000, udp.port);
    EXPECT_EQ(5001, udp.reportPort);
    EXPECT_EQ(7001, chooseTransport("RTP/AVP/UDP;client_port=7000").reportPort);
    EXPECT_EQ(Transport::UDP, chooseTransport("RTP/AVP;client_port=1-2,RTP/AVP/TCP").kind);
}

TEST(RelayTransport, NonsenseIsNoOffer) {
    for (const char* const offers :
         {"", ",;,", "RTP/AVP", "RTP/AVP;unicast", "RTP/AVP;client_port=", "RTP/AVP;client_port=0-1",
          "RTP/AVP;client_port=5000-", "RTP/AVP;client_port=5000-70000", "RTP/AVP;client_port=65535",
          "RTP/AVP;client_port=99999999999", "RTP/AVP;client_port=5000-5001x", "RTP/AVP;client_port=-5",
          "RTP/AVP;multicast;client_port=5000-5001", "RTP/AVP/UNIX;client_port=5000-5001"}) {
        EXPECT_EQ(Transport::NONE, chooseTransport(offers).kind) << offers;
    }
}
