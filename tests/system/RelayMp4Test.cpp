// Fragmented MP4 as media_relay makes it of a transport stream: formats, times, and what nonsense becomes.
#include <algorithm>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "media_relay/mp4/Remuxer.h"
#include "media_relay/mpegts/TsFramer.h"
#include "support/TsBuilder.h"
#include "support/program/ChildProcess.h"
#include "support/program/TempFolder.h"

using namespace Orvex::Testing;
using namespace relay;

namespace {

constexpr unsigned PICTURE_PID = 0x100;
constexpr unsigned SOUND_PID = 0x101;
constexpr uint64_t STEP = 3600;  // ticks, a twenty-fifth of a second

// 320x180, high profile and main profile of H.264, main profile of H.265; what an encoder put out.
const char* const SEQUENCE = "6764000cacd941419f9f011000000300100000030320f1429960";
const char* const PICTURE_SET = "68ef8fcbfdf8f800";
const char* const VIDEO_265 = "40010c01ffff01600000030090000003000003003c959009";
const char* const SEQUENCE_265 =
    "42010101600000030090000003000003003ca00a080c1f3e595912930bc05a020000030002000003003210";
const char* const PICTURE_265 = "4401c073c189";

Bytes withStart(const Bytes& unit) {
    return Bytes{0, 0, 0, 1} + unit;
}

Bytes trimmed(const char* hex) {
    Bytes unit = bytesOf(hex);
    while (unit.back() == 0) {
        unit.pop_back();
    }
    return unit;
}

Bytes keyPicture(const char* sequence = SEQUENCE) {
    return withStart({9, 0xF0}) + withStart(trimmed(sequence)) + withStart(trimmed(PICTURE_SET)) +
           withStart({0x65, 1, 2, 3, 4});
}

Bytes otherPicture() {
    return withStart({9, 0xF0}) + withStart({0x41, 5, 6, 7});
}

/// Sound of that many bytes: 44.1 kHz, two channels unless told.
Bytes adts(size_t size, unsigned rate = 4, unsigned channels = 2) {
    const size_t whole = size + 7;
    Bytes frame{0xFF,
                0xF1,
                static_cast<uint8_t>(0x40 | rate << 2 | channels >> 2),
                static_cast<uint8_t>((channels & 3) << 6 | whole >> 11),
                static_cast<uint8_t>(whole >> 3),
                static_cast<uint8_t>((whole & 7) << 5 | 0x1F),
                0xFC};
    frame.resize(whole, 0x21);
    return frame;
}

ProgramMap mapOf(Codec video, Codec sound, unsigned channels = 0) {
    ProgramMap map;
    if (video != Codec::Other) {
        map.streams.push_back({PICTURE_PID, StreamKind::Video, video, 0});
    }
    if (sound != Codec::Other) {
        map.streams.push_back({SOUND_PID, StreamKind::Audio, sound, channels});
    }
    return map;
}

struct Trun {
    unsigned track = 0;
    uint64_t decoded = 0;
    std::vector<uint32_t> durations;
    std::vector<uint32_t> sizes;
    std::vector<uint32_t> flags;
    std::vector<int32_t> offsets;
    Bytes samples;
};

uint64_t numberAt(const Bytes& bytes, size_t at, size_t size) {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value = value << 8 | bytes.at(at + i);
    }
    return value;
}

std::string typeAt(const Bytes& bytes, size_t at) {
    return {bytes.begin() + static_cast<ptrdiff_t>(at) + 4, bytes.begin() + static_cast<ptrdiff_t>(at) + 8};
}

/// The runs of a fragment, whose boxes must lie one in the other without a gap.
std::vector<Trun> readFragment(const Bytes& bytes) {
    std::vector<Trun> runs;
    const size_t movie = numberAt(bytes, 0, 4);
    EXPECT_EQ("moof", typeAt(bytes, 0));
    EXPECT_EQ("mdat", typeAt(bytes, movie));
    EXPECT_EQ(bytes.size(), movie + numberAt(bytes, movie, 4));
    EXPECT_EQ("mfhd", typeAt(bytes, 8));
    size_t at = 24;
    for (; at < movie; at += numberAt(bytes, at, 4)) {
        EXPECT_EQ("traf", typeAt(bytes, at));
        Trun run;
        run.track = static_cast<unsigned>(numberAt(bytes, at + 8 + 12, 4));
        const size_t time = at + 8 + 16;
        EXPECT_EQ("tfdt", typeAt(bytes, time));
        run.decoded = numberAt(bytes, time + 12, 8);
        const size_t table = time + 20;
        EXPECT_EQ("trun", typeAt(bytes, table));
        EXPECT_EQ(numberAt(bytes, at, 4), table + numberAt(bytes, table, 4) - at);
        const size_t count = numberAt(bytes, table + 12, 4);
        size_t data = numberAt(bytes, table + 16, 4);
        for (size_t i = 0; i < count; ++i) {
            const size_t row = table + 20 + 16 * i;
            run.durations.push_back(static_cast<uint32_t>(numberAt(bytes, row, 4)));
            run.sizes.push_back(static_cast<uint32_t>(numberAt(bytes, row + 4, 4)));
            run.flags.push_back(static_cast<uint32_t>(numberAt(bytes, row + 8, 4)));
            run.offsets.push_back(static_cast<int32_t>(numberAt(bytes, row + 12, 4)));
            EXPECT_LE(data + run.sizes.back(), bytes.size());
            run.samples.insert(run.samples.end(), bytes.begin() + static_cast<ptrdiff_t>(data),
                               bytes.begin() + static_cast<ptrdiff_t>(data + run.sizes.back()));
            data += run.sizes.back();
        }
        runs.push_back(run);
    }
    EXPECT_EQ(movie, at);
    return runs;
}

class RelayMp4 : public ::testing::Test, protected Remuxer::Sink {
protected:
    void onInit(const Mp4Init& init) override { inits.push_back(init); }
    void onFragment(Mp4Fragment&& fragment) override {
        fragments.push_back(fragment);
        for (Trun& run : readFragment(*fragment.bytes)) {
            runs.push_back(std::move(run));
        }
    }

    void picture(uint64_t decoded, bool key, const Bytes& bytes, uint64_t presented = 0) {
        AccessUnit unit;
        unit.kind = StreamKind::Video;
        unit.pid = PICTURE_PID;
        unit.key = key;
        unit.packets =
            packetsOf(PICTURE_PID, pesOf(0xE0, presented != 0 ? presented : decoded, decoded, bytes));
        unit.hasNext = hasNext;
        unit.next = (decoded + STEP) % kStampWrap;
        remuxer.put(unit);
    }
    void sound(uint64_t time, const Bytes& bytes) {
        AccessUnit unit;
        unit.kind = StreamKind::Audio;
        unit.pid = SOUND_PID;
        unit.packets = packetsOf(SOUND_PID, pesOf(0xC0, time, time, bytes));
        remuxer.put(unit);
    }
    /// What of the runs is on this track.
    std::vector<Trun> track(unsigned number) const {
        std::vector<Trun> found;
        std::copy_if(runs.begin(), runs.end(), std::back_inserter(found),
                     [&](const Trun& run) { return run.track == number; });
        return found;
    }

    Remuxer remuxer{*this};
    bool hasNext = true;
    std::vector<Mp4Init> inits;
    std::vector<Mp4Fragment> fragments;
    std::vector<Trun> runs;
};

/// A whole file as a player gets it.
Bytes remuxed(const std::string& file) {
    struct Way : TsDemuxer::Sink, Remuxer::Sink {
        void onUnit(AccessUnit&& unit) override { remuxer.put(unit); }
        void onProgram(const ProgramMap& map) override { remuxer.begin(map); }
        void onInit(const Mp4Init& init) override { made = made + *init.bytes; }
        void onFragment(Mp4Fragment&& fragment) override { made = made + *fragment.bytes; }
        Remuxer remuxer{*this};
        Bytes made;
    } way;
    TsDemuxer demuxer(way);
    std::ifstream in(file, std::ios::binary);
    Bytes packet(kTsPacketSize);
    while (in.read(reinterpret_cast<char*>(packet.data()), kTsPacketSize)) {
        demuxer.put(TsPacket(packet.data()), 1);
    }
    demuxer.flush();
    way.remuxer.flush();
    return way.made;
}

/// When its packets are shown and decoded, as another program reads them. Where they begin again after the
/// wrap that program counts the first ones below zero.
std::vector<double> stampsOf(const std::string& file, const std::string& kind) {
    ChildProcess reader({"ffprobe", "-v", "warning", "-select_streams", kind, "-show_entries",
                         "packet=pts_time,dts_time", "-of", "compact=p=0:nk=1", file});
    std::vector<double> stamps;
    for (std::string line = reader.readLine(); !line.empty() || !reader.hasEnded();
         line = reader.readLine()) {
        const size_t bar = line.find('|');
        if (bar != std::string::npos) {
            stamps.push_back(std::stod(line));
            stamps.push_back(std::stod(line.substr(bar + 1)));
        }
    }
    EXPECT_EQ(0, reader.wait());
    return stamps;
}

bool holds(const Bytes& bytes, const Bytes& part) {
    return std::search(bytes.begin(), bytes.end(), part.begin(), part.end()) != bytes.end();
}

}  // namespace

TEST(PesUnit, ReadsStampsAndPayload) {
    PesHead head;
    Bytes payload;
    const Bytes content = Bytes(1000, 0x42) + Bytes{1, 2, 3};
    ASSERT_TRUE(readPesUnit(packetsOf(PICTURE_PID, pesOf(0xE0, kStampWrap - 1, 7, content)), head, payload));
    EXPECT_TRUE(head.hasStamp);
    EXPECT_EQ(kStampWrap - 1, head.presented);
    EXPECT_EQ(7U, head.decoded);
    EXPECT_EQ(content, payload);
}

TEST(PesUnit, TakesOneStampForBoth) {
    Bytes pes = pesOf(0xC0, 12345, 0, {9, 9});
    pes[7] = 0x80;
    PesHead head;
    ASSERT_TRUE(readPesHead(pes.data(), pes.size(), head));
    EXPECT_EQ(12345U, head.decoded);
    EXPECT_EQ(19U, head.size);
    pes[7] = 0;
    ASSERT_TRUE(readPesHead(pes.data(), pes.size(), head));
    EXPECT_FALSE(head.hasStamp);
}

TEST(PesUnit, RefusesWhatIsCutOrIsNoHead) {
    const Bytes pes = pesOf(0xE0, 1, 1, {});
    PesHead head;
    for (size_t size = 0; size < pes.size(); ++size) {
        EXPECT_FALSE(readPesHead(pes.data(), size, head)) << size;
    }
    Bytes other = pes;
    other[2] = 2;
    EXPECT_FALSE(readPesHead(other.data(), other.size(), head));
    other = pes;
    other[3] = 0xBE;  // filling
    EXPECT_FALSE(readPesHead(other.data(), other.size(), head));
    other = pes;
    other[8] = 5;  // no room for two stamps
    ASSERT_TRUE(readPesHead(other.data(), other.size(), head));
    EXPECT_FALSE(head.hasStamp);
}

TEST(PesUnit, EndsWhereItsHeadSays) {
    Bytes pes = pesOf(0xC0, 1, 1, {1, 2, 3, 4, 5});
    pes[5] = 3 + 10 + 4;
    PesHead head;
    Bytes payload;
    ASSERT_TRUE(readPesUnit(packetsOf(SOUND_PID, pes), head, payload));
    EXPECT_EQ((Bytes{1, 2, 3, 4}), payload);
    pes[5] = 200;  // more than there is
    ASSERT_TRUE(readPesUnit(packetsOf(SOUND_PID, pes), head, payload));
    EXPECT_EQ(5U, payload.size());
}

TEST(NalUnits, EndBeforeStartCodesAndZeros) {
    const Bytes bytes{7, 0, 0, 1, 0x65, 0, 0, 2, 0, 0, 0, 1, 0x41, 9, 0, 0, 1, 0, 0, 1, 0x06, 0, 0};
    std::vector<Bytes> found;
    for (const NalUnit& unit : cutNalUnits(bytes)) {
        found.emplace_back(unit.bytes, unit.bytes + unit.size);
    }
    EXPECT_EQ((std::vector<Bytes>{{0x65, 0, 0, 2}, {0x41, 9}, {0x06}}), found);
    EXPECT_TRUE(cutNalUnits({}).empty());
    EXPECT_TRUE(cutNalUnits({0, 0, 1}).empty());
}

TEST(ParameterSets, DescribeH264AsItsSetsSay) {
    ParameterSets sets(Codec::H264);
    Bytes sample;
    sets.take(keyPicture(), true, sample);
    EXPECT_EQ((Bytes{0, 0, 0, 5, 0x65, 1, 2, 3, 4}), sample) << "neither sets nor delimiters";
    VideoFormat format;
    ASSERT_TRUE(sets.makeFormat(format));
    EXPECT_EQ("avc1.64000c", format.name);
    EXPECT_EQ(320U, format.width);
    EXPECT_EQ(180U, format.height);
    EXPECT_EQ(
        bytesOf("00000038617663430164000cffe1001a6764000cacd941419f9f011000000300100000030320f14299600100"
                "0768ef8fcbfdf8f8fdf8f800"),
        format.configuration);
}

TEST(ParameterSets, DescribeH265AsItsSetsSay) {
    ParameterSets sets(Codec::H265);
    Bytes sample;
    sets.take(withStart(trimmed(VIDEO_265)) + withStart(trimmed(SEQUENCE_265)) +
                  withStart(trimmed(PICTURE_265)) + withStart({0x26, 1, 7}),
              true, sample);
    EXPECT_EQ((Bytes{0, 0, 0, 3, 0x26, 1, 7}), sample);
    VideoFormat format;
    ASSERT_TRUE(sets.makeFormat(format));
    EXPECT_EQ("hvc1.1.6.L60.90", format.name);
    EXPECT_EQ(320U, format.width);
    EXPECT_EQ(180U, format.height);
    const Bytes head = bytesOf("0101600000009000000000003cf000fcfdf8f800000f03a0000100184001");
    EXPECT_EQ(head, Bytes(format.configuration.begin() + 8,
                          format.configuration.begin() + 8 + static_cast<ptrdiff_t>(head.size())));
}

TEST(ParameterSets, AreNotEnoughWhenCut) {
    const Bytes whole = trimmed(SEQUENCE);
    for (size_t size = 1; size < 10; ++size) {
        ParameterSets sets(Codec::H264);
        Bytes sample;
        const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        sets.take(withStart(cut) + withStart(trimmed(PICTURE_SET)), true, sample);
        VideoFormat format;
        EXPECT_FALSE(sets.makeFormat(format)) << size;
    }
}

TEST(ParameterSets, AreWantedAll) {
    for (const char* one : {SEQUENCE, PICTURE_SET}) {
        ParameterSets sets(Codec::H264);
        Bytes sample;
        sets.take(withStart(trimmed(one)), true, sample);
        VideoFormat format;
        EXPECT_FALSE(sets.makeFormat(format));
    }
}

TEST(ParameterSets, AreTooLongAboveTwoKilobytes) {
    ParameterSets sets(Codec::H264);
    Bytes sample;
    VideoFormat format;
    const size_t left = 2048 - trimmed(SEQUENCE).size();
    const auto picture = [](size_t size) { return Bytes{0x68, 0xC0} + Bytes(size - 2, 0x55); };
    sets.take(withStart(trimmed(SEQUENCE)) + withStart(picture(left)), true, sample);
    EXPECT_TRUE(sets.makeFormat(format));
    sets.take(withStart(picture(left + 1)), true, sample);
    EXPECT_FALSE(sets.makeFormat(format));
}

TEST(ParameterSets, OfPicturesGoWithTheirSequence) {
    ParameterSets sets(Codec::H264);
    Bytes sample;
    sets.take(keyPicture(), true, sample);
    Bytes other = trimmed(SEQUENCE);
    other[3] = 0x0D;
    sets.take(withStart(other), true, sample);
    VideoFormat format;
    EXPECT_FALSE(sets.makeFormat(format)) << "those of the old one do not count";
    sets.take(withStart(trimmed(PICTURE_SET)), true, sample);
    ASSERT_TRUE(sets.makeFormat(format));
    EXPECT_EQ("avc1.64000d", format.name);
}

TEST(ParameterSets, StayWithinAPictureThatIsNotAKey) {
    ParameterSets sets(Codec::H264);
    Bytes sample;
    sets.take(withStart(trimmed(PICTURE_SET)) + withStart({0x41, 1}), false, sample);
    EXPECT_EQ(Bytes({0, 0, 0, 7}) + trimmed(PICTURE_SET) + Bytes({0, 0, 0, 2, 0x41, 1}), sample);
}

TEST(SoundCutter, CutsSoundThatGoesOnInTheNextUnit) {
    SoundCutter cutter(Codec::Aac);
    EXPECT_FALSE(cutter.hasFormat());
    std::vector<SoundFrame> frames;
    size_t before = 9;
    const Bytes all = adts(100) + adts(50) + adts(30);
    cutter.put(Bytes(all.begin(), all.begin() + 110), frames, before);
    ASSERT_EQ(1U, frames.size());
    EXPECT_EQ(0U, before);
    EXPECT_EQ(100U, frames[0].bytes.size());
    EXPECT_EQ(1024U, frames[0].samples);
    frames.clear();
    cutter.put(Bytes(all.begin() + 110, all.end()), frames, before);
    ASSERT_EQ(2U, frames.size());
    EXPECT_EQ(1U, before) << "one began in the unit before";
    EXPECT_EQ(30U, frames[1].bytes.size());
    EXPECT_EQ("mp4a.40.2", cutter.format().name);
    EXPECT_EQ(44100U, cutter.format().rate);
    EXPECT_EQ(2U, cutter.format().channels);
    EXPECT_TRUE(holds(cutter.format().configuration, {5, 0x80, 0x80, 0x80, 2, 0x12, 0x10}));
}

TEST(SoundCutter, SkipsWhatIsNoSoundOrHasNoBox) {
    SoundCutter cutter(Codec::Aac);
    std::vector<SoundFrame> frames;
    size_t before = 0;
    Bytes two = adts(20);
    two[6] |= 1;  // two blocks in one
    Bytes short_ = adts(20);
    short_[4] = 0;
    short_[5] = 0xDF;  // shorter than its head
    cutter.put(Bytes{1, 0xFF, 3} + two + short_ + adts(20, 13) + adts(20, 4, 0) + adts(20, 3, 1), frames,
               before);
    ASSERT_EQ(1U, frames.size());
    EXPECT_EQ(48000U, cutter.format().rate);
    EXPECT_EQ(1U, cutter.format().channels);
}

TEST(SoundCutter, CutsOpus) {
    SoundCutter cutter(Codec::Opus, 2);
    std::vector<SoundFrame> frames;
    size_t before = 0;
    const Bytes small = Bytes{0x7F, 0xE0, 3, 0xFC, 1, 2};                          // 20 ms
    const Bytes trims = Bytes{0x7F, 0xFC, 2, 0, 9, 0, 9, 2, 7, 7, 0x03, 3};        // 3 times 10 ms
    const Bytes large = Bytes{0x7F, 0xE0, 255, 45} + Bytes{0xF9} + Bytes(299, 5);  // 2 times 20 ms
    cutter.put(small + trims + large, frames, before);
    ASSERT_EQ(3U, frames.size());
    EXPECT_EQ((Bytes{0xFC, 1, 2}), frames[0].bytes);
    EXPECT_EQ(960U, frames[0].samples);
    EXPECT_EQ(1440U, frames[1].samples);
    EXPECT_EQ(300U, frames[2].bytes.size());
    EXPECT_EQ(1920U, frames[2].samples);
    EXPECT_EQ("opus", cutter.format().name);
    EXPECT_EQ(bytesOf("00000013644f7073000200000000bb80000000"), cutter.format().configuration);
}

TEST(SoundCutter, GivesUpAnOpusUnitThatIsCut) {
    const Bytes whole = Bytes{0x7F, 0xFC, 2, 0, 9, 0, 9, 2, 7, 7, 0x03, 3};
    for (size_t size = 0; size < whole.size(); ++size) {
        SoundCutter cutter(Codec::Opus, 2);
        std::vector<SoundFrame> frames;
        size_t before = 0;
        cutter.put(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)), frames, before);
        EXPECT_TRUE(frames.empty()) << size;
        cutter.put(whole, frames, before);
        EXPECT_EQ(1U, frames.size()) << "the next unit begins anew";
    }
}

TEST(Timeline, RunsOnThroughAWrap) {
    Timeline timeline;
    const uint64_t last = kStampWrap - 1800;
    EXPECT_EQ(static_cast<int64_t>(last), timeline.put(Timeline::VIDEO, last, 3600));
    EXPECT_EQ(static_cast<int64_t>(kStampWrap) + 1800, timeline.put(Timeline::VIDEO, 1800, 3600));
    EXPECT_EQ(static_cast<int64_t>(last) - 900, timeline.put(Timeline::SOUND, last - 900, 0));
    EXPECT_EQ(static_cast<int64_t>(kStampWrap), timeline.put(Timeline::SOUND, 0, 0));
}

TEST(Timeline, GoesOnWhereStampsJumpAndTheOtherTrackFollows) {
    Timeline timeline;
    timeline.put(Timeline::VIDEO, 1000000, 3600);
    timeline.put(Timeline::SOUND, 1000500, 1920);
    EXPECT_EQ(1003600, timeline.put(Timeline::VIDEO, 5000, 3600));
    EXPECT_EQ(1002420, timeline.put(Timeline::SOUND, 1002420, 1920)) << "what is left of before the jump";
    EXPECT_EQ(1004100, timeline.put(Timeline::SOUND, 5500, 1920))
        << "as far from the picture as its stamp says";
}

TEST(Timeline, TakesARestForWhatItIs) {
    Timeline timeline;
    timeline.put(Timeline::VIDEO, 90000, 3600);
    EXPECT_EQ(90000 + 900000, timeline.put(Timeline::VIDEO, 90000 + 900000, 3600));
    EXPECT_EQ(990000 + 3600, timeline.put(Timeline::VIDEO, 990000 + 900001, 3600))
        << "longer than ten seconds";
}

TEST_F(RelayMp4, WaitsForAllThatADecoderMustKnow) {
    remuxer.begin(mapOf(Codec::H264, Codec::Aac));
    picture(90000, false, otherPicture());
    picture(93600, true, keyPicture());
    picture(97200, false, otherPicture());
    EXPECT_TRUE(inits.empty()) << "no sound has come";
    sound(93600, adts(80));
    ASSERT_EQ(1U, inits.size());
    EXPECT_EQ("avc1.64000c,mp4a.40.2", inits[0].codecs);
    EXPECT_TRUE(inits[0].first);
    ASSERT_EQ(1U, fragments.size());
    EXPECT_TRUE(fragments[0].key);
    EXPECT_EQ(93600U, fragments[0].time);
    ASSERT_EQ(2U, runs.size());
    EXPECT_EQ(2U, runs[0].sizes.size()) << "the pictures that were held";
    EXPECT_EQ(93600U * 441 / 900, runs[1].decoded);
}

TEST_F(RelayMp4, GoesWithoutSoundAfterThreeSeconds) {
    remuxer.begin(mapOf(Codec::H264, Codec::Aac));
    picture(0, true, keyPicture());
    for (uint64_t i = 1; i < 75; ++i) {
        picture(i * STEP, false, otherPicture());
    }
    EXPECT_TRUE(inits.empty());
    picture(75 * STEP, false, otherPicture());
    ASSERT_EQ(1U, inits.size());
    EXPECT_EQ("avc1.64000c", inits[0].codecs);
    sound(76 * STEP, adts(80));
    picture(76 * STEP, false, otherPicture());
    EXPECT_EQ(1U, inits.size()) << "sound that came later has its place from the next key frame on";
    picture(77 * STEP, true, keyPicture());
    ASSERT_EQ(2U, inits.size());
    EXPECT_EQ("avc1.64000c,mp4a.40.2", inits[1].codecs);
    EXPECT_FALSE(inits[1].first);
}

TEST_F(RelayMp4, KeepsTheTimesOfPicturesThatAreShownInAnotherOrder) {
    remuxer.begin(mapOf(Codec::H264, Codec::Other));
    picture(90000, true, keyPicture(), 90000 + 2 * STEP);
    picture(93600, false, otherPicture(), 93600 + 3 * STEP);
    picture(97200, false, otherPicture(), 97200);
    ASSERT_EQ(3U, runs.size());
    EXPECT_EQ(static_cast<int32_t>(2 * STEP), runs[0].offsets[0]);
    EXPECT_EQ(static_cast<int32_t>(3 * STEP), runs[1].offsets[0]);
    EXPECT_EQ(0, runs[2].offsets[0]);
    EXPECT_EQ(0x02000000U, runs[0].flags[0]);
    EXPECT_EQ(0x01010000U, runs[1].flags[0]);
}

TEST_F(RelayMp4, TakesTheLengthOfAPictureFromTheNextOnesStamp) {
    remuxer.begin(mapOf(Codec::H264, Codec::Other));
    picture(90000, true, keyPicture());
    hasNext = false;
    picture(93600, false, otherPicture());
    EXPECT_EQ(STEP, runs[0].durations[0]);
    EXPECT_EQ(STEP, runs[1].durations[0]) << "as the one before it";
}

TEST_F(RelayMp4, MakesANewInitSegmentWhenParametersChange) {
    remuxer.begin(mapOf(Codec::H264, Codec::Aac));
    sound(90000, adts(80));
    picture(90000, true, keyPicture());
    picture(93600, true, keyPicture());
    EXPECT_EQ(1U, inits.size()) << "the same sets again are nothing new";
    sound(93600, adts(60));
    Bytes wider = trimmed(SEQUENCE);
    wider[3] = 0x0D;
    picture(97200, true, withStart(wider) + withStart(trimmed(PICTURE_SET)) + withStart({0x65, 1}));
    ASSERT_EQ(2U, inits.size());
    EXPECT_FALSE(inits[1].first);
    EXPECT_EQ("avc1.64000d,mp4a.40.2", inits[1].codecs);
    ASSERT_EQ(4U, fragments.size()) << "the sound of before goes alone";
    EXPECT_FALSE(fragments[2].key);
    EXPECT_TRUE(fragments[3].key);
}

TEST_F(RelayMp4, MakesANewInitSegmentWhenTheSoundChanges) {
    remuxer.begin(mapOf(Codec::H264, Codec::Aac));
    picture(90000, true, keyPicture());
    sound(90000, adts(80));
    picture(93600, false, otherPicture());
    sound(93600, adts(80, 3));
    picture(97200, false, otherPicture());
    EXPECT_EQ(1U, inits.size());
    EXPECT_EQ(1U, track(kSoundTrack).size()) << "it cannot be played before";
    picture(100800, true, keyPicture());
    sound(100800, adts(80, 3));
    picture(104400, false, otherPicture());
    ASSERT_EQ(2U, inits.size());
    ASSERT_EQ(2U, track(kSoundTrack).size());
    EXPECT_EQ(100800U * 48 / 90, track(kSoundTrack)[1].decoded);
}

TEST_F(RelayMp4, CountsSoundInSamplesWhileItsStampsAgree) {
    remuxer.begin(mapOf(Codec::Other, Codec::Aac));
    const uint64_t stamps[] = {90000, 92089,        94179,
                               96180, 98359 + 9000, 70000};  // one is 1 ms early, one late
    for (const uint64_t stamp : stamps) {
        sound(stamp, adts(80));
    }
    ASSERT_EQ(1U, inits.size());
    EXPECT_EQ("mp4a.40.2", inits[0].codecs);
    ASSERT_EQ(5U, runs.size()) << "what lies before its time is left out";
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(44100 + 1024 * i, runs[i].decoded);
    }
    EXPECT_EQ(((98359 + 9000) * 441U + 450) / 900, runs[4].decoded);
    EXPECT_TRUE(fragments[4].key) << "sound alone can be entered everywhere";
}

TEST_F(RelayMp4, LetsTheSoundBeforeAHoleLastLonger) {
    remuxer.begin(mapOf(Codec::H264, Codec::Aac));
    picture(90000, true, keyPicture());
    sound(90000, adts(80));
    sound(92090, adts(80));
    sound(94180 + 9000, adts(80));
    picture(93600, false, otherPicture());
    ASSERT_EQ(2U, track(kSoundTrack).size());
    EXPECT_EQ(2U, track(kSoundTrack)[1].sizes.size());
    EXPECT_NEAR(1024 + 4410, track(kSoundTrack)[1].durations[0], 1);
}

TEST_F(RelayMp4, PutsTheSoundOutWhenNoPictureComes) {
    remuxer.begin(mapOf(Codec::H264, Codec::Aac));
    sound(88000, adts(80));
    picture(90000, true, keyPicture());
    for (uint64_t i = 0; i < 24; ++i) {
        sound(90000 + i * 2090, adts(80));
    }
    ASSERT_EQ(2U, fragments.size());
    EXPECT_FALSE(fragments[1].key);
    EXPECT_EQ(22U, runs[1].sizes.size()) << "half a second";
}

TEST_F(RelayMp4, LeavesOutAPictureThatComesTooLate) {
    remuxer.begin(mapOf(Codec::H264, Codec::Other));
    picture(90000, true, keyPicture());
    picture(90000, false, otherPicture());
    picture(89000, false, otherPicture());
    picture(93600, false, otherPicture());
    EXPECT_EQ(2U, fragments.size());
}

TEST_F(RelayMp4, SaysWhyABrowserDoesNotPlay) {
    EXPECT_EQ("", Remuxer::refusal(mapOf(Codec::H265, Codec::Other)));
    EXPECT_EQ("", Remuxer::refusal(mapOf(Codec::Other, Codec::Opus, 2)));
    EXPECT_EQ("No browser plays MPEG-2 pictures.", Remuxer::refusal(mapOf(Codec::Mpeg2, Codec::Aac)));
    EXPECT_NE("", Remuxer::refusal(mapOf(Codec::Other, Codec::Opus, 6)));
    EXPECT_NE("", Remuxer::refusal(ProgramMap()));
    remuxer.begin(mapOf(Codec::Mpeg2, Codec::Aac));
    sound(90000, adts(80));
    EXPECT_TRUE(fragments.empty());
}

TEST_F(RelayMp4, BeginsAnewWithAnotherProgramme) {
    remuxer.begin(mapOf(Codec::H264, Codec::Other));
    picture(90000, true, keyPicture());
    remuxer.begin(mapOf(Codec::H264, Codec::Other));
    picture(93600, false, otherPicture());
    EXPECT_EQ(2U, fragments.size()) << "the same streams again are nothing new";
    remuxer.begin(mapOf(Codec::H264, Codec::Aac));
    picture(97200, false, otherPicture());
    EXPECT_EQ(2U, fragments.size());
    sound(97200, adts(80));
    picture(100800, true, keyPicture());
    EXPECT_EQ(2U, inits.size());
    EXPECT_EQ(3U, fragments.size());
}

// Encoders of our day, pictures out of order, and time stamps that begin again after a second.
TEST(RelayMp4Judged, IsTheSameStreamToAnotherPlayer) {
    const TempFolder folder;
    const std::string file = folder.file("in.ts");
    ChildProcess encoder({"ffmpeg",
                          "-v",
                          "error",
                          "-nostdin",
                          "-f",
                          "lavfi",
                          "-i",
                          "testsrc2=size=160x96:rate=25",
                          "-f",
                          "lavfi",
                          "-i",
                          "sine=sample_rate=44100",
                          "-t",
                          "2",
                          "-c:v",
                          "libx264",
                          "-preset",
                          "ultrafast",
                          "-pix_fmt",
                          "yuv420p",
                          "-g",
                          "25",
                          "-bf",
                          "2",
                          "-c:a",
                          "aac",
                          "-output_ts_offset",
                          "95441.3",
                          file});
    ASSERT_EQ(0, encoder.wait(ChildProcess::WORK_LIMIT_MS));
    const Bytes made = remuxed(file);
    const std::string out = folder.file("out.mp4");
    std::ofstream(out, std::ios::binary)
        .write(reinterpret_cast<const char*>(made.data()), static_cast<std::streamsize>(made.size()));
    const std::vector<double> before[] = {stampsOf(file, "v"), stampsOf(file, "a")};
    const std::vector<double> after[] = {stampsOf(out, "v"), stampsOf(out, "a")};
    EXPECT_EQ(2U * 50, before[0].size());
    for (int kind = 0; kind < 2; ++kind) {
        ASSERT_EQ(before[kind].size(), after[kind].size());
        const double shift = after[kind][0] - before[kind][0];
        EXPECT_NEAR(static_cast<double>(kStampWrap) / 90000, shift, 1e-4)
            << "the time to which a wrap counts";
        for (size_t i = 0; i < before[kind].size(); ++i) {
            EXPECT_NEAR(before[kind][i] + shift, after[kind][i], 1e-4) << i;
        }
    }
    ChildProcess decoder({"sh", "-c", "exec ffmpeg -v warning -nostdin -i '" + out + "' -f null - 2>&1"});
    EXPECT_EQ("", decoder.exchange(""));
    EXPECT_EQ(0, decoder.wait(ChildProcess::WORK_LIMIT_MS));
}

TEST_F(RelayMp4, SurvivesAnyUnits) {
    std::mt19937 random(99);
    const Bytes letters = keyPicture() + adts(8) + Bytes{0x7F, 0xE0, 3, 0xFC};
    for (int i = 0; i < 3000; ++i) {
        if (i % 50 == 0) {
            // One at a time: compilers differ in the order in which they evaluate arguments.
            const Codec videos[] = {Codec::H264, Codec::H265, Codec::Other};
            const auto channels = static_cast<unsigned>(random() % 3);
            const Codec heard = random() % 2 == 0 ? Codec::Aac : Codec::Opus;
            const Codec seen = videos[random() % 3];
            remuxer.begin(mapOf(seen, heard, channels));
        }
        Bytes bytes = random() % 3 == 0 ? keyPicture() : random() % 2 == 0 ? adts(20) : Bytes();
        for (size_t k = random() % 100; k > 0; --k) {
            bytes.push_back(random() % 4 != 0 ? letters[random() % letters.size()]
                                              : static_cast<uint8_t>(random()));
        }
        if (!bytes.empty() && random() % 2 == 0) {
            bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
        }
        const uint64_t stamp = random() % 10 == 0 ? random() : static_cast<uint64_t>(i) * 1000;
        const bool key = random() % 4 == 0;
        const uint64_t presented = random();
        if (random() % 2 == 0) {
            picture(stamp, key, bytes, presented);
        } else {
            sound(stamp, bytes);
        }
    }
    EXPECT_GT(fragments.size(), 100U);
    for (const unsigned number : {kVideoTrack, kSoundTrack}) {
        uint64_t last = 0;
        for (const Trun& run : track(number)) {
            EXPECT_GT(run.sizes.size(), 0U);
            if (number == kVideoTrack) {
                EXPECT_GE(run.decoded, last);
            }
            last = run.decoded;
        }
    }
}
