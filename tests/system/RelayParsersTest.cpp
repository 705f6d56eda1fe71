// The parsers of media_relay one by one: transport stream and requests are foreign bytes.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "media_relay/http/HttpRequest.h"
#include "media_relay/mpegts/KeyFrames.h"
#include "media_relay/mpegts/PesUnit.h"
#include "media_relay/mpegts/TsClock.h"
#include "media_relay/mpegts/TsDemuxer.h"
#include "media_relay/mpegts/TsFramer.h"
#include "media_relay/mpegts/TsLosses.h"
#include "media_relay/mpegts/TsSections.h"
#include "support/TsBuilder.h"

using namespace relay;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr unsigned kProgram = 7;
constexpr unsigned kMapPid = 0x20;
constexpr unsigned kVideoPid = 0x100;
constexpr unsigned kAudioPid = 0x101;

/// A packet whose payload begins with `head`. The rest of it is filled with 0xAA.
Bytes packet(unsigned pid, unsigned counter, bool start, const Bytes& head, bool randomAccess = false) {
    Bytes bytes{kTsSync, static_cast<uint8_t>((start ? 0x40U : 0U) | pid >> 8), static_cast<uint8_t>(pid),
                static_cast<uint8_t>((randomAccess ? 0x30U : 0x10U) | (counter & 15))};
    if (randomAccess) {
        bytes.push_back(1);
        bytes.push_back(0x40);
    }
    bytes.insert(bytes.end(), head.begin(), head.end());
    bytes.resize(kTsPacketSize, 0xAA);
    return bytes;
}

/// A packet that holds a clock value alone.
Bytes clockPacket(unsigned pid, uint64_t ticks) {
    const uint64_t base = ticks / 300;
    const uint64_t rest = ticks % 300;
    Bytes bytes{kTsSync,
                static_cast<uint8_t>(pid >> 8),
                static_cast<uint8_t>(pid),
                0x20,
                183,
                0x10,
                static_cast<uint8_t>(base >> 25),
                static_cast<uint8_t>(base >> 17),
                static_cast<uint8_t>(base >> 9),
                static_cast<uint8_t>(base >> 1),
                static_cast<uint8_t>((base & 1) << 7 | 0x7E | rest >> 8),
                static_cast<uint8_t>(rest)};
    bytes.resize(kTsPacketSize, 0xFF);
    return bytes;
}

void closeSection(Bytes& section) {
    section[2] = static_cast<uint8_t>(section.size() - 3 + 4);
    const uint32_t sum = sectionChecksum(section.data(), section.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        section.push_back(static_cast<uint8_t>(sum >> shift));
    }
}

/// A map with H.264 and AAC, or AAC alone.
Bytes mapSection(bool video = true) {
    Bytes section{2, 0xB0, 0, 0, kProgram, 0xC1, 0, 0, 0xE1, 0x00, 0xF0, 0};
    if (video) {
        section.insert(section.end(), {0x1B, 0xE1, 0x00, 0xF0, 0});
    }
    section.insert(section.end(), {0x0F, 0xE1, 0x01, 0xF0, 0});
    closeSection(section);
    return section;
}

Bytes tablePackets(bool video = true) {
    Bytes packets;
    unsigned associationCounter = 0;
    unsigned mapCounter = 0;
    appendSection(packets, 0, associationCounter, makeAssociation(kProgram, kMapPid));
    appendSection(packets, kMapPid, mapCounter, mapSection(video));
    return packets;
}

const Bytes kIdr{0, 0, 1, 0xE0, 0, 0, 0x80, 0, 0, 0, 0, 1, 0x65};
const Bytes kSlice{0, 0, 1, 0xE0, 0, 0, 0x80, 0, 0, 0, 0, 1, 0x41};
const Bytes kSound{0, 0, 1, 0xC0, 0, 0, 0x80, 0, 0};

struct Collector : TsDemuxer::Sink {
    void onUnit(AccessUnit&& unit) override { units.push_back(std::move(unit)); }
    std::vector<AccessUnit> units;
};

void put(TsDemuxer& demuxer, const Bytes& packets, uint64_t time_us = 1) {
    for (size_t at = 0; at < packets.size(); at += kTsPacketSize) {
        demuxer.put(TsPacket(packets.data() + at), time_us);
    }
}

/// All packets that a framer finds, given its bytes in pieces.
std::vector<Bytes> frame(const Bytes& bytes, size_t piece, uint64_t& skipped) {
    TsFramer framer;
    std::vector<Bytes> found;
    const auto drain = [&] {
        while (const uint8_t* packet = framer.next()) {
            found.emplace_back(packet, packet + kTsPacketSize);
        }
    };
    for (size_t at = 0; at < bytes.size();) {
        size_t room = 0;
        uint8_t* const to = framer.room(room);
        const size_t part = std::min({room, piece, bytes.size() - at});
        std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(at), part, to);
        framer.filled(part);
        at += part;
        drain();
    }
    framer.finish();
    drain();
    framer.reset();
    skipped = framer.skipped();
    return found;
}

bool isKey(Codec codec, const Bytes& bytes) {
    KeyFrameFinder whole;
    whole.begin(codec);
    whole.put(bytes.data(), bytes.size());
    KeyFrameFinder pieces;
    pieces.begin(codec);
    for (const uint8_t& byte : bytes) {
        pieces.put(&byte, 1);
    }
    EXPECT_EQ(whole.isKeyFrame(), pieces.isKeyFrame());
    return whole.isKeyFrame();
}

/// Sound of 200 bytes with its head, in two packets.
Bytes statedSound(unsigned counter) {
    Bytes bytes{0, 0, 1, 0xC0, 0, 194, 0x80, 0, 0};
    bytes.resize(200, 0x55);
    return Orvex::Testing::packetsOf(kAudioPid, bytes, counter);
}

}  // namespace

TEST(TsLosses, CountsThePacketsThatTheCountersMiss) {
    TsLosses losses;
    const auto put = [&](unsigned pid, unsigned counter) {
        losses.put(TsPacket(packet(pid, counter, false, {}).data()));
        return losses.lost();
    };
    put(kVideoPid, 14);
    EXPECT_EQ(0U, put(kVideoPid, 15));
    EXPECT_EQ(0U, put(kVideoPid, 0)) << "it comes round";
    EXPECT_EQ(0U, put(kVideoPid, 0)) << "a packet may be sent twice";
    EXPECT_EQ(0U, put(kAudioPid, 9)) << "each stream counts for itself";
    EXPECT_EQ(2U, put(kVideoPid, 3));
    EXPECT_EQ(put(kTsNullPid, 1), put(kTsNullPid, 5));
    Bytes bare = packet(kVideoPid, 3, false, {});  // no payload, and the counter stays
    bare[3] = 0x23;
    bare[4] = 183;
    losses.put(TsPacket(bare.data()));
    EXPECT_EQ(2U, put(kVideoPid, 4));
    Bytes jump = packet(kVideoPid, 9, false, {}, true);
    jump[5] |= 0x80;
    losses.put(TsPacket(jump.data()));
    EXPECT_EQ(2U, put(kVideoPid, 10)) << "the stream said that it jumps";
    losses.restart();
    EXPECT_EQ(2U, put(kVideoPid, 5));
    EXPECT_EQ(3U, put(kVideoPid, 7));
}

TEST(TsFramer, FindsPacketsWhateverThePieces) {
    Bytes bytes;
    for (unsigned i = 0; i < 40; ++i) {
        const Bytes next = packet(kVideoPid, i, false, {static_cast<uint8_t>(i)});
        bytes.insert(bytes.end(), next.begin(), next.end());
    }
    for (const size_t piece : {1U, 187U, 188U, 189U, 7000U, 100000U}) {
        uint64_t skipped = 1;
        const std::vector<Bytes> found = frame(bytes, piece, skipped);
        ASSERT_EQ(40U, found.size()) << piece;
        EXPECT_EQ(39, found[39][4]) << piece;
        EXPECT_EQ(0U, skipped);
    }
}

TEST(TsFramer, SkipsWhatIsNoPacket) {
    Bytes bytes(1000, 0x11);
    bytes[500] = kTsSync;  // one alone is not a packet
    for (unsigned i = 0; i < 10; ++i) {
        const Bytes next = packet(kVideoPid, i, false, {});
        bytes.insert(bytes.end(), next.begin(), next.end());
        if (i == 4) {
            bytes.insert(bytes.end(), 33, 0x22);
        }
    }
    bytes.resize(bytes.size() - 20);  // the last one is cut
    uint64_t skipped = 0;
    EXPECT_EQ(9U, frame(bytes, 100, skipped).size());
    EXPECT_EQ(1000U + 33 + 168, skipped);
}

TEST(TsPacket, KnowsAPacketThatIsNotSound) {
    Bytes bytes = packet(kVideoPid, 0, true, kIdr, true);
    EXPECT_TRUE(TsPacket(bytes.data()).isSound());
    bytes[4] = 183;  // an adaptation field that leaves no room for the payload
    EXPECT_FALSE(TsPacket(bytes.data()).isSound());
    bytes[3] = 0x20;  // and without payload it just fits
    EXPECT_TRUE(TsPacket(bytes.data()).isSound());
    bytes[1] |= 0x80;
    EXPECT_FALSE(TsPacket(bytes.data()).isSound());
}

TEST(TsSections, ReadsASectionOfSeveralPackets) {
    Bytes section{2, 0xB3, 0, 0, kProgram, 0xC1, 0, 0, 0xE1, 0x00, 0xF0, 0};
    for (unsigned i = 0; i < 100; ++i) {
        section.insert(section.end(), {0x06, 0xE2, static_cast<uint8_t>(i), 0xF0, 0});
    }
    const size_t length = section.size() - 3 + 4;
    section[1] = static_cast<uint8_t>(0xB0 | length >> 8);
    section[2] = static_cast<uint8_t>(length);
    const uint32_t sum = sectionChecksum(section.data(), section.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        section.push_back(static_cast<uint8_t>(sum >> shift));
    }
    Bytes packets;
    unsigned counter = 3;
    appendSection(packets, kMapPid, counter, section);
    ASSERT_EQ(3 * kTsPacketSize, packets.size());
    EXPECT_EQ(6U, counter);

    SectionReader reader;
    std::vector<Bytes> got;
    for (int round = 0; round < 2; ++round) {
        for (size_t at = 0; at < packets.size(); at += kTsPacketSize) {
            reader.put(TsPacket(packets.data() + at), [&](const Bytes& bytes) { got.push_back(bytes); });
        }
        packets[kTsPacketSize + 50] ^= 1;  // the second time it is damaged
    }
    ASSERT_EQ(1U, got.size());
    EXPECT_EQ(got[0], section);
    ProgramMap map;
    ASSERT_TRUE(parseProgramMap(got[0], kProgram, map));
    EXPECT_EQ(100U, map.streams.size());
    EXPECT_FALSE(parseProgramMap(got[0], kProgram + 1, map));
}

TEST(KeyFrames, KnowsPicturesToBeginWith) {
    EXPECT_TRUE(isKey(Codec::H264, kIdr));
    EXPECT_FALSE(isKey(Codec::H264, kSlice));
    EXPECT_TRUE(isKey(Codec::H264, {0, 0, 0, 1, 0x67, 1, 2, 0, 0, 1, 0x68, 0, 0, 1, 0x41}));
    EXPECT_FALSE(isKey(Codec::H264, {0, 0, 1, 0x41, 1, 0, 0, 1, 0x65}));  // the first slice decides
    EXPECT_TRUE(isKey(Codec::H265, {0, 0, 1, 0x40, 1, 0, 0, 1, 0x26, 1}));
    EXPECT_TRUE(isKey(Codec::H265, {0, 0, 1, 0x2A, 1}));
    EXPECT_FALSE(isKey(Codec::H265, {0, 0, 1, 0x02, 1}));
    EXPECT_TRUE(isKey(Codec::Mpeg2, {0, 0, 1, 0xB3, 9, 0, 0, 1, 0, 0x00, 0x08}));
    EXPECT_FALSE(isKey(Codec::Mpeg2, {0, 0, 1, 0, 0x00, 0x08}));
    EXPECT_FALSE(isKey(Codec::Mpeg2, {0, 0, 1, 0xB3, 9, 0, 0, 1, 0, 0x00, 0x10}));
    EXPECT_FALSE(isKey(Codec::Other, kIdr));
}

TEST(KeyFrames, KnowsPicturesThatNoOtherOneNeeds) {
    const auto isDisposable = [](Codec codec, const Bytes& bytes) {
        KeyFrameFinder finder;
        finder.begin(codec);
        finder.put(bytes.data(), bytes.size());
        return finder.isDisposable();
    };
    EXPECT_TRUE(isDisposable(Codec::H264, {0, 0, 1, 0x01}));
    EXPECT_FALSE(isDisposable(Codec::H264, {0, 0, 1, 0x41}));
    EXPECT_FALSE(isDisposable(Codec::H264, {0, 0, 1, 0x67, 0, 0, 1, 0x01})) << "one can begin with it";
    EXPECT_TRUE(isDisposable(Codec::Mpeg2, {0, 0, 1, 0, 0x00, 0x18}));
    EXPECT_FALSE(isDisposable(Codec::Mpeg2, {0, 0, 1, 0, 0x00, 0x10}));
    EXPECT_FALSE(isDisposable(Codec::H265, {0, 0, 1, 0x00, 1}));
}

TEST(TsDemuxer, CutsUnitsAndPutsTablesBeforeKeyFrames) {
    Collector collector;
    TsDemuxer demuxer(collector);
    put(demuxer, packet(kVideoPid, 0, true, kIdr));  // before there are tables
    put(demuxer, tablePackets());
    EXPECT_TRUE(demuxer.hasProgram());
    put(demuxer, packet(kVideoPid, 1, false, {}));  // the rest of something
    put(demuxer, packet(kVideoPid, 2, true, kIdr));
    put(demuxer, packet(kAudioPid, 0, true, kSound));
    put(demuxer, packet(kVideoPid, 3, false, {}));
    put(demuxer, packet(kVideoPid, 4, true, kSlice));
    put(demuxer, packet(kTsNullPid, 0, false, {}));
    put(demuxer, packet(kVideoPid, 5, true, kSlice, true));  // the flag says that it is a key frame
    demuxer.flush();

    ASSERT_EQ(4U, collector.units.size());
    EXPECT_EQ(collector.units[0].kind, StreamKind::Video);
    EXPECT_TRUE(collector.units[0].key);
    EXPECT_EQ(collector.units[0].tables, tablePackets());
    EXPECT_EQ(2 * kTsPacketSize, collector.units[0].packets.size());
    EXPECT_FALSE(collector.units[1].key);
    EXPECT_TRUE(collector.units[1].tables.empty());
    EXPECT_TRUE(collector.units[2].key);
    EXPECT_EQ(2 * kTsPacketSize, collector.units[2].tables.size());
    EXPECT_EQ(collector.units[3].kind, StreamKind::Audio);
    EXPECT_FALSE(collector.units[3].key);
}

TEST(TsDemuxer, EndsSoundByItsLengthIfAskedTo) {
    Collector collector;
    TsDemuxer demuxer(collector);
    demuxer.endByLength();
    put(demuxer, tablePackets(false));
    put(demuxer, packet(kAudioPid, 0, false, {}));  // the rest of something
    put(demuxer, statedSound(1));
    ASSERT_EQ(1U, collector.units.size());
    EXPECT_EQ(statedSound(1), collector.units[0].packets);
    put(demuxer, clockPacket(kAudioPid, 300));  // goes with the next one
    put(demuxer, statedSound(3));
    ASSERT_EQ(2U, collector.units.size());
    const Bytes expected = Orvex::Testing::operator+(clockPacket(kAudioPid, 300), statedSound(3));
    EXPECT_EQ(expected, collector.units[1].packets);
    PesHead head;
    Bytes payload;
    EXPECT_TRUE(readPesUnit(collector.units[1].packets, head, payload));
    EXPECT_EQ(191U, payload.size());

    put(demuxer, packet(kAudioPid, 5, false, {}));  // there is more of it: lengths are not to be believed
    put(demuxer, statedSound(6));
    EXPECT_EQ(2U, collector.units.size());
    put(demuxer, packet(kAudioPid, 8, false, {}));
    put(demuxer, statedSound(9));
    ASSERT_EQ(3U, collector.units.size());
    EXPECT_EQ(3 * kTsPacketSize, collector.units[2].packets.size());
}

TEST(TsDemuxer, LetsClientsBeginAnywhereInSoundAlone) {
    Collector collector;
    TsDemuxer demuxer(collector);
    put(demuxer, tablePackets(false));
    for (unsigned i = 0; i < 21; ++i) {  // ten units in a second
        put(demuxer, packet(kAudioPid, i, true, kSound), 1 + i * 100000);
    }
    size_t keys = 0;
    for (const AccessUnit& unit : collector.units) {
        keys += unit.key ? 1 : 0;
    }
    EXPECT_EQ(20U, collector.units.size());
    EXPECT_EQ(4U, keys);
}

TEST(TsDemuxer, LetsClientsBeginAnywhereInPrivateDataAlone) {
    Bytes map{2, 0xB0, 0, 0, kProgram, 0xC1, 0, 0, 0xE1, 0x00, 0xF0, 0, 0x06, 0xE1, 0x00, 0xF0, 0};
    closeSection(map);
    Bytes tables;
    unsigned counters[2] = {0, 0};
    appendSection(tables, 0, counters[0], makeAssociation(kProgram, kMapPid));
    appendSection(tables, kMapPid, counters[1], map);
    Collector collector;
    TsDemuxer demuxer(collector);
    put(demuxer, tables);
    const Bytes jpeg{0, 0, 1, 0xE0, 0, 0, 0x80, 0, 0, 0xFF, 0xD8};
    for (unsigned i = 0; i < 21; ++i) {  // ten pictures in a second
        put(demuxer, packet(kVideoPid, i, true, jpeg), 1 + i * 100000);
    }
    ASSERT_EQ(20U, collector.units.size());
    EXPECT_TRUE(collector.units[0].key);
    EXPECT_EQ(tables, collector.units[0].tables);
    const auto keys = std::count_if(collector.units.begin(), collector.units.end(),
                                    [](const AccessUnit& unit) { return unit.key; });
    EXPECT_EQ(4, keys);
}

TEST(TsDemuxer, LetsClientsOfSoundWithPrivateDataBeginWithTheSound) {
    Bytes map{2, 0xB0, 0,    0,    kProgram, 0xC1, 0,    0,    0xE1, 0x00, 0xF0,
              0, 0x06, 0xE1, 0x00, 0xF0,     0,    0x0F, 0xE1, 0x01, 0xF0, 0};
    closeSection(map);
    Bytes tables;
    unsigned counters[2] = {0, 0};
    appendSection(tables, 0, counters[0], makeAssociation(kProgram, kMapPid));
    appendSection(tables, kMapPid, counters[1], map);
    Collector collector;
    TsDemuxer demuxer(collector);
    put(demuxer, tables);
    put(demuxer, packet(kVideoPid, 0, true, {0, 0, 1, 0xBD, 0, 0, 0x80, 0, 0}));
    put(demuxer, packet(kVideoPid, 1, true, {0, 0, 1, 0xBD, 0, 0, 0x80, 0, 0}));
    put(demuxer, packet(kAudioPid, 0, true, kSound));
    put(demuxer, packet(kAudioPid, 1, true, kSound));
    ASSERT_EQ(2U, collector.units.size());
    EXPECT_FALSE(collector.units[0].key);
    EXPECT_EQ(StreamKind::Audio, collector.units[1].kind);
    EXPECT_TRUE(collector.units[1].key);
}

TEST(TsDemuxer, TakesAPictureForAKeyFrameIfThereIsNoneForLong) {
    Collector collector;
    TsDemuxer demuxer(collector);
    put(demuxer, tablePackets());
    for (unsigned i = 0; i < 12; ++i) {
        put(demuxer, packet(kVideoPid, i, true, kSlice), 1 + i * 1000000);
    }
    ASSERT_EQ(11U, collector.units.size());
    EXPECT_FALSE(collector.units[8].key);
    EXPECT_TRUE(collector.units[9].key);
    EXPECT_FALSE(collector.units[10].key);
}

TEST(TsDemuxer, GivesUpAUnitWithoutEnd) {
    Collector collector;
    TsDemuxer demuxer(collector);
    put(demuxer, tablePackets());
    put(demuxer, packet(kVideoPid, 0, true, kIdr));
    const Bytes more = packet(kVideoPid, 1, false, {});
    for (int i = 0; i < 50000; ++i) {
        put(demuxer, more);
    }
    EXPECT_EQ(1U, demuxer.givenUp());
    put(demuxer, packet(kVideoPid, 2, true, kIdr));
    demuxer.flush();
    EXPECT_EQ(1U, collector.units.size());
}

TEST(TsDemuxer, SurvivesAnyPackets) {
    Collector collector;
    TsDemuxer demuxer(collector);
    TsLoop loop;
    std::mt19937 random(4711);
    Bytes tables = tablePackets();
    for (int i = 0; i < 20000; ++i) {
        Bytes bytes(kTsPacketSize);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
        const unsigned pids[] = {0, kMapPid, kVideoPid, kAudioPid};
        const unsigned pid = pids[random() % 4];
        bytes[0] = kTsSync;
        bytes[1] = static_cast<uint8_t>((bytes[1] & 0x40U) | pid >> 8);
        bytes[2] = static_cast<uint8_t>(pid);
        if (i % 100 == 0) {
            put(demuxer, tables);
            loop.again();
        }
        if (TsPacket(bytes.data()).isSound()) {
            loop.apply(bytes.data(), demuxer.isClock(TsPacket(bytes.data())));
            demuxer.put(TsPacket(bytes.data()), static_cast<uint64_t>(i) * 1000);
        }
    }
    EXPECT_GT(collector.units.size(), 100U);
}

TEST(PcrClock, RunsOnThroughWrapsAndJumps) {
    PcrClock clock;
    EXPECT_EQ(1U, clock.at(kTsClockWrap - 27000, false));
    EXPECT_EQ(2001U, clock.at(27000, false));                  // 2 ms, and it wrapped
    EXPECT_EQ(4001U, clock.at(27000 + 54000, false));          // 2 ms
    EXPECT_EQ(6001U, clock.at(90 * kTsClock, false));          // too far ahead: as the step before
    EXPECT_EQ(8001U, clock.at(10 * kTsClock, false));          // back
    EXPECT_EQ(10001U, clock.at(10 * kTsClock + 27000, true));  // as the stream says
    EXPECT_EQ(11001U, clock.at(10 * kTsClock + 54000, false));
    EXPECT_EQ(3U, clock.jumps());
}

TEST(TsLoop, CountsOnAndShiftsTheClock) {
    TsLoop loop;
    const auto round = [&](std::vector<unsigned>& counters, std::vector<uint64_t>& clocks) {
        for (unsigned i = 0; i < 5; ++i) {
            Bytes bytes = packet(kVideoPid, i + 3, i == 0, kSlice);
            loop.apply(bytes.data(), false);
            counters.push_back(TsPacket(bytes.data()).counter());
            Bytes clock = clockPacket(kVideoPid, 1000 + i * kTsClock / 25);
            loop.apply(clock.data(), true);
            clocks.push_back(TsPacket(clock.data()).pcr());
        }
        loop.again();
    };
    std::vector<unsigned> counters;
    std::vector<uint64_t> clocks;
    for (int i = 0; i < 5; ++i) {
        round(counters, clocks);
    }
    for (size_t i = 1; i < counters.size(); ++i) {
        EXPECT_EQ(counters[i], (counters[i - 1] + 1) % 16) << i;
        EXPECT_GT(clocks[i], clocks[i - 1]) << i;
        EXPECT_LE(clocks[i], clocks[i - 1] + kTsClock / 25 + 1) << i;
    }
}

TEST(HttpReader, ReadsARequestInPiecesOfAnySize) {
    const std::string text = "GET /stats.json?x=1 HTTP/1.1\r\nHost: a\r\nAccept: */*\r\n\r\n";
    for (size_t piece = 1; piece <= text.size(); ++piece) {
        HttpReader reader;
        HttpRequest request;
        int status = 0;
        for (size_t at = 0; at < text.size() && status == 0; at += piece) {
            status = reader.put(text.data() + at, std::min(piece, text.size() - at), request);
        }
        ASSERT_EQ(200, status) << piece;
        EXPECT_EQ("GET", request.method);
        EXPECT_EQ("/stats.json", request.path);
    }
}

TEST(HttpReader, KeepsTheQueryAndWhatTheLinesSay) {
    HttpReader reader;
    HttpRequest request;
    const std::string text =
        "GET /hls/a.m3u8?_HLS_msn=7&x HTTP/1.1\nHost:a\r\nIf-None-Match: \t\"1-2\" \r\nEMPTY:\r\n\r\n";
    ASSERT_EQ(200, reader.put(text.data(), text.size(), request));
    EXPECT_EQ("/hls/a.m3u8", request.path);
    EXPECT_EQ("_HLS_msn=7&x", request.query);
    EXPECT_EQ("a", request.field("host"));
    EXPECT_EQ("\"1-2\"", request.field("if-none-match"));
    EXPECT_EQ(1U, request.fields.count("empty"));
    EXPECT_EQ("", request.field("empty"));
    EXPECT_EQ("", request.field("range"));
    EXPECT_TRUE(request.keepsAlive);
    ASSERT_EQ(200, parseRequest("GET /? HTTP/1.1\r\nConnection: Upgrade, Close\r\n\r\n", request));
    EXPECT_EQ("", request.query);
    EXPECT_EQ(1U, request.fields.size()) << "nothing is left of the request before";
    EXPECT_FALSE(request.keepsAlive);
    ASSERT_EQ(200, parseRequest("GET / HTTP/1.0\r\n\r\n", request));
    EXPECT_FALSE(request.keepsAlive);
}

TEST(HttpReader, GivesWhatCameAfterAHead) {
    HttpReader reader;
    HttpRequest request;
    const std::string text = "GET /a HTTP/1.1\r\n\r\nGET /b HTTP/1.1\r\n\r\nGE";
    EXPECT_FALSE(reader.hasBegun());
    ASSERT_EQ(200, reader.put(text.data(), text.size(), request));
    EXPECT_EQ("/a", request.path);
    std::string rest = reader.takeRest();
    EXPECT_EQ("GET /b HTTP/1.1\r\n\r\nGE", rest);
    EXPECT_FALSE(reader.hasBegun());
    ASSERT_EQ(200, reader.put(rest.data(), rest.size(), request));
    EXPECT_EQ("/b", request.path);
    rest = reader.takeRest();
    ASSERT_EQ(0, reader.put(rest.data(), rest.size(), request));
    EXPECT_TRUE(reader.hasBegun());
    ASSERT_EQ(200, reader.put("T /c HTTP/1.1\n\n", 16, request));
    EXPECT_EQ("/c", request.path);
}

TEST(HttpReader, BoundsTheHead) {
    HttpReader reader;
    HttpRequest request;
    const std::string line = "X-Header: " + std::string(100, 'x') + "\r\n";
    int status = reader.put("GET / HTTP/1.1\r\n", 16, request);
    size_t size = 16;
    while (status == 0) {
        status = reader.put(line.data(), line.size(), request);
        size += line.size();
    }
    EXPECT_EQ(431, status);
    EXPECT_LE(size, HttpReader::kMaxHead + line.size());
}

TEST(HttpReader, SurvivesAnyBytes) {
    std::mt19937 random(815);
    const std::string letters("GET /:\r\n \tHTP1.x\0\xff", 18);
    for (int i = 0; i < 20000; ++i) {
        std::string text = i % 2 == 0 ? "GET / HTTP/1.1\r\n" : "";
        for (size_t k = random() % 60; k > 0; --k) {
            text += letters[random() % letters.size()];
        }
        text += "\r\n\r\n";
        HttpReader reader;
        HttpRequest request;
        const int status = reader.put(text.data(), text.size(), request);
        ASSERT_TRUE(status == 200 || status == 400) << status;
        ASSERT_TRUE(status != 200 || request.path[0] == '/');
    }
}
