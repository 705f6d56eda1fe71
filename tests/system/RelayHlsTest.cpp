// Segments, parts and playlists as media_relay makes them of fragments; what can be answered, and what waits.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "media_relay/hls/HlsOutput.h"
#include "media_relay/hls/Playlist.h"
#include "media_relay/hls/Segmenter.h"
#include "support/program/PlaylistRules.h"

using namespace Orvex::Testing;
using namespace relay;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint64_t TICKS = 90000;  // a second
constexpr uint64_t PICTURE_25 = 3600;
constexpr uint64_t FIRST_NUMBER = 100;
constexpr int64_t MORNING_US = 1795402048000000;  // 2026-11-23T02:47:28Z

SharedBytes textBytes(const std::string& text) {
    return std::make_shared<const std::vector<uint8_t>>(text.begin(), text.end());
}

std::string textOf(const SharedBytes& bytes) {
    return {bytes->begin(), bytes->end()};
}

std::string textOf(const std::vector<SharedBytes>& body) {
    std::string text;
    for (const SharedBytes& piece : body) {
        text += textOf(piece);
    }
    return text;
}

Mp4Fragment fragmentOf(uint64_t time, uint64_t duration, bool key, const std::string& text = "x") {
    Mp4Fragment fragment;
    fragment.bytes = textBytes(text);
    fragment.key = key;
    fragment.time = time;
    fragment.duration = duration;
    return fragment;
}

/// Pictures that are cut. Each playlist that a client could see is held against the rules.
struct CutStream {
    /// So many pictures, each as long as the others; every `group` of them, the first one included, begins
    /// with a key picture. 0 is none.
    void pictures(size_t count, size_t group, uint64_t duration = PICTURE_25) {
        for (size_t i = 0; i < count; ++i) {
            picture(group != 0 && i % group == 0, duration);
        }
    }

    bool picture(bool key, uint64_t duration) {
        const std::string text = "<" + std::to_string(numbered++) + ">";
        const int64_t now_us = zero_us + static_cast<int64_t>((time + duration) * 100 / 9);
        const bool shows = segmenter.put(fragmentOf(time, duration, key, text), now_us);
        time += duration;
        if (shows) {
            look();
        }
        return shows;
    }

    void look() {
        EXPECT_THAT(rules.check(makePlaylist(window, "s")), IsEmpty()) << makePlaylist(window, "s");
        ++looks;
    }

    const Segment& segment(size_t index) const { return window.segments().at(index); }

    static std::string bytesOfSegment(const Segment& segment) {
        std::string text;
        for (const Part& part : segment.parts) {
            text += textOf(part.bytes);
        }
        return text;
    }

    Window window;
    Segmenter segmenter{window, FIRST_NUMBER};
    PlaylistRules rules;
    uint64_t time = 5 * TICKS;
    int64_t zero_us = MORNING_US - 5000000;
    size_t numbered = 0;
    size_t looks = 0;
};

class RelayHls : public CutStream, public testing::Test {};

class RelayHlsPlain : public RelayHls {
protected:
    RelayHlsPlain() { segmenter.setInit(textBytes("init")); }
};

class HlsOutputAnswers : public testing::Test {
protected:
    HlsOutputAnswers() {
        output.setWake([this](long client) { woken.push_back(client); });
        output.setInit(textBytes("init"));
    }

    void pictures(size_t count, size_t group = 50) {
        for (size_t i = 0; i < count; ++i, time += PICTURE_25) {
            output.put(fragmentOf(time, PICTURE_25, group != 0 && i % group == 0),
                       MORNING_US + static_cast<int64_t>(time * 100 / 9));
        }
    }

    HlsAnswer ask(const std::string& path, const std::string& query = "", long client = 1) {
        HlsRequest request;
        EXPECT_EQ(200, parseHls("/hls/live" + path, query, request)) << path << query;
        return output.answer(request, client);
    }

    int statusOf(const std::string& path, const std::string& query = "", long client = 1) {
        return ask(path, query, client).status;
    }

    /// The number of the first segment that is listed.
    uint64_t firstNumber() {
        const std::string text = textOf(ask(".m3u8", "", 99).body);
        EXPECT_THAT(rules.check(text), IsEmpty());
        return rules.last().sequence;
    }

    static std::string msn(uint64_t number, int part = -1) {
        return "_HLS_msn=" + std::to_string(number) + (part < 0 ? "" : "&_HLS_part=" + std::to_string(part));
    }

    HlsOutput output;
    std::vector<long> woken;
    PlaylistRules rules;
    uint64_t time = 0;
};

constexpr int LATER = HlsAnswer::LATER;

}  // namespace

TEST_F(RelayHlsPlain, CutsSegmentsAtKeyPicturesAndPartsByTime) {
    pictures(151, 50);
    ASSERT_EQ(3U, window.segments().size());
    EXPECT_EQ(2U, window.target_s());
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(FIRST_NUMBER + i, segment(i).number);
        EXPECT_EQ(2 * TICKS, segment(i).duration);
        EXPECT_TRUE(segment(i).key);
        ASSERT_EQ(10U, segment(i).parts.size());
        EXPECT_TRUE(segment(i).parts[0].key);
        EXPECT_FALSE(segment(i).parts[1].key);
        for (const Part& part : segment(i).parts) {
            EXPECT_EQ(TICKS / 5, part.duration);
        }
    }
    EXPECT_EQ("<50><51><52><53><54>", textOf(segment(1).parts[0].bytes));
    std::string all;
    for (int i = 0; i < 50; ++i) {
        all += "<" + std::to_string(i) + ">";
    }
    EXPECT_EQ(all, bytesOfSegment(segment(0))) << "nothing is lost, and all in order";
    EXPECT_GE(looks, 22U);
}

TEST_F(RelayHlsPlain, ShowsAPartAsSoonAsItsLastPictureIsThere) {
    pictures(50, 50);
    EXPECT_TRUE(picture(true, PICTURE_25));
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(picture(false, PICTURE_25));
    }
    EXPECT_TRUE(picture(false, PICTURE_25)) << "not only when the next one begins";
    EXPECT_EQ(1U, window.underWay()->parts.size());
}

TEST_F(RelayHlsPlain, BeginsWithAKeyPictureAndShowsNothingBeforeTheFirstSegmentIsWhole) {
    pictures(7, 0);
    pictures(50, 50);
    EXPECT_FALSE(window.isReady());
    EXPECT_EQ(0U, looks);
    picture(true, PICTURE_25);
    EXPECT_TRUE(window.isReady());
    EXPECT_EQ("<7>", bytesOfSegment(segment(0)).substr(0, 3));
}

TEST_F(RelayHlsPlain, MarksPartsWithAKeyPictureInThem) {
    pictures(101, 25);
    ASSERT_EQ(2U, window.segments().size());
    EXPECT_EQ(2 * TICKS, segment(0).duration) << "two groups";
    EXPECT_TRUE(segment(0).parts[5].key);
    EXPECT_FALSE(segment(0).parts[6].key);
}

TEST(RelayHlsTargets, AreTakenFromTheFirstSegment) {
    struct Rate {
        uint64_t picture;
        size_t group;
        unsigned target_s;
        size_t inPart;  // pictures
    };
    constexpr Rate RATES[] = {{3750, 48, 2, 5},       {3003, 60, 2, 6},       {3000, 30, 2, 6},
                              {1800, 100, 2, 10},     {9000, 20, 2, 2},       {90000, 2, 2, 1},
                              {2090, 1, 2, 9},        {PICTURE_25, 12, 2, 5}, {PICTURE_25, 100, 4, 5},
                              {PICTURE_25, 250, 6, 5}};
    for (const Rate& rate : RATES) {
        SCOPED_TRACE(std::to_string(rate.picture) + ", " + std::to_string(rate.group));
        CutStream stream;
        stream.segmenter.setInit(textBytes("init"));
        stream.pictures(20 * TICKS / rate.picture, rate.group, rate.picture);
        EXPECT_EQ(rate.target_s, stream.window.target_s());
        EXPECT_EQ(rate.inPart * rate.picture, stream.segment(0).parts[0].duration);
        EXPECT_GE(stream.looks, 4U);
    }
}

TEST_F(RelayHlsPlain, BearsStampsThatAreRounded) {
    for (size_t i = 0; i < 400; ++i) {
        picture(i % 60 == 0, i % 3 == 2 ? 3060 : 2970);  // 34 ms and twice 33
    }
    EXPECT_EQ(6U * 3000, segment(1).parts[0].duration);
}

TEST_F(RelayHlsPlain, CutsWithoutAKeyPictureWhereTheyBecomeRare) {
    pictures(50, 50);
    pictures(250, 250);
    pictures(101, 50);
    EXPECT_EQ(2U, window.target_s());
    ASSERT_GT(window.segments().size(), 4U);
    EXPECT_TRUE(segment(1).key);
    EXPECT_FALSE(segment(2).key);
    EXPECT_EQ(62U * PICTURE_25, segment(1).duration) << "2.48 s is 2 s, rounded";
    const std::string text = makePlaylist(window, "s");
    EXPECT_EQ(std::string::npos, text.find("INDEPENDENT-SEGMENTS"));
}

TEST_F(RelayHlsPlain, PutsARestOfTheInputIntoASegmentInOnePiece) {
    pictures(60, 50);
    picture(false, TICKS / 2);
    pictures(20, 0);
    ASSERT_EQ(3U, window.segments().size());
    EXPECT_EQ(10U * PICTURE_25, segment(1).duration);
    EXPECT_TRUE(segment(2).inOnePiece);
    EXPECT_EQ(TICKS / 2, segment(2).duration);
    EXPECT_EQ("<60>", bytesOfSegment(segment(2)));
    EXPECT_FALSE(window.underWay()->jump);
}

// The first fragment holds all pictures that waited for the format of the sound.
TEST_F(RelayHlsPlain, ListsNoPartsOfAFirstSegmentThatBeginsWithALongFragment) {
    picture(true, 17 * PICTURE_25);
    pictures(33, 0);
    pictures(60, 50);
    ASSERT_EQ(2U, window.segments().size());
    EXPECT_EQ(2 * TICKS, segment(0).duration);
    EXPECT_TRUE(segment(0).inOnePiece);
    EXPECT_EQ(0U, rules.last().segments.at(0).parts.size());
    EXPECT_FALSE(segment(1).inOnePiece);
    EXPECT_EQ(10U, rules.last().segments.at(1).parts.size());
    EXPECT_EQ(TICKS / 5, segment(1).parts[0].duration);
}

TEST_F(RelayHlsPlain, JumpsAfterARestThatIsLongerThanASegment) {
    pictures(60, 50);
    picture(false, 8 * TICKS);
    pictures(20, 0);
    EXPECT_EQ(2 * TICKS + TICKS * 49 / 100, segment(2).duration);
    ASSERT_NE(nullptr, window.underWay());
    EXPECT_TRUE(window.underWay()->jump);
    EXPECT_EQ(MORNING_US + (60 * 40 + 8000) * 1000, window.underWay()->wall_us);
}

TEST_F(RelayHlsPlain, CountsSoundThatCameBeforeItsPictureOnce) {
    pictures(60, 50);
    segmenter.put(fragmentOf(time, TICKS / 10, false), MORNING_US);
    picture(false, PICTURE_25);  // and two more lie within the sound
    pictures(39, 0);
    pictures(1, 1);
    EXPECT_EQ(2 * TICKS, segment(1).duration);
}

TEST_F(RelayHls, BeginsAnotherInitSegmentWithAJump) {
    pictures(10, 10);
    EXPECT_FALSE(window.isReady()) << "there is nothing to begin with";
    segmenter.setInit(textBytes("one"));
    pictures(80, 50);
    segmenter.setInit(textBytes("two"));
    look();
    pictures(7, 0);
    EXPECT_EQ(nullptr, window.underWay()) << "what comes before the key picture does not play";
    pictures(60, 50);
    ASSERT_EQ(3U, window.segments().size());
    EXPECT_FALSE(segment(1).jump);
    EXPECT_EQ(30U * PICTURE_25, segment(1).duration);
    EXPECT_TRUE(segment(2).jump);
    EXPECT_EQ("two", textOf(segment(2).init));
    EXPECT_EQ(FIRST_NUMBER + 2, segment(2).initNumber);
    EXPECT_EQ("one", textOf(window.findInit(FIRST_NUMBER)));
    EXPECT_EQ("two", textOf(window.findInit(FIRST_NUMBER + 2)));
    EXPECT_EQ(nullptr, window.findInit(FIRST_NUMBER + 1));
    EXPECT_EQ("s/init102.mp4", rules.last().segments.at(2).map);
}

TEST_F(RelayHls, StartsOverWhenFormatsChangeWithinTheFirstSegment) {
    segmenter.setInit(textBytes("one"));
    pictures(30, 50);
    segmenter.setInit(textBytes("two"));
    pictures(51, 50);
    ASSERT_EQ(1U, window.segments().size());
    EXPECT_EQ("<30>", bytesOfSegment(segment(0)).substr(0, 4));
    EXPECT_FALSE(segment(0).jump);
    EXPECT_EQ("two", textOf(segment(0).init));
}

TEST_F(RelayHlsPlain, CountsTheTimeOfDayByTheStreamWhileTheyAgree) {
    pictures(50, 50);
    zero_us += 400000;
    pictures(50, 50);
    zero_us += 200000;
    pictures(101, 50);
    EXPECT_EQ(MORNING_US, segment(0).wall_us);
    EXPECT_EQ(MORNING_US + 2000000, segment(1).wall_us);
    EXPECT_EQ(MORNING_US + 4600000, segment(2).wall_us) << "more than half a second: it is set anew";
    EXPECT_EQ(MORNING_US + 6600000, segment(3).wall_us);
}

TEST_F(RelayHlsPlain, EndsWithWhatThereIs) {
    pictures(30, 50);
    segmenter.end();
    look();
    ASSERT_EQ(1U, window.segments().size());
    EXPECT_EQ(30U * PICTURE_25, segment(0).duration);
    EXPECT_TRUE(rules.last().is_over);
}

TEST_F(RelayHlsPlain, ListsSixTargetsAndHoldsAsManyMore) {
    pictures(50 * 20 + 10, 50);
    EXPECT_EQ(6U, rules.last().segments.size() - 1);
    EXPECT_EQ(FIRST_NUMBER + 14, rules.last().sequence);
    EXPECT_EQ(12U, window.segments().size());
    EXPECT_EQ(nullptr, window.find(FIRST_NUMBER + 7));
    ASSERT_NE(nullptr, window.find(FIRST_NUMBER + 8));
    EXPECT_EQ(FIRST_NUMBER + 8, window.find(FIRST_NUMBER + 8)->number);
    EXPECT_EQ(window.underWay(), window.find(FIRST_NUMBER + 20));
    EXPECT_EQ(nullptr, window.find(FIRST_NUMBER + 21));
}

TEST_F(RelayHls, CountsJumpsThatAreNotListedAnyMore) {
    segmenter.setInit(textBytes("one"));
    pictures(101, 50);
    for (int i = 0; i < 12; ++i) {
        segmenter.setInit(textBytes(std::to_string(i)));
        look();
        pictures(101, 50);
    }
    EXPECT_GT(rules.last().jumps_before, 6U) << "the rules have compared it with what was listed before";
}

TEST(RelayHlsWindow, HoldsOneCopyAndNoMoreBytesThanItMay) {
    Window window(1000);
    window.setTargets(2, TICKS / 5);
    SharedBytes held;
    for (uint64_t number = 0; number < 20; ++number) {
        Segment segment;
        segment.number = number;
        window.begin(std::move(segment));
        const SharedBytes bytes = textBytes(std::string(number < 10 ? 100 : 400, 'x'));
        held = number == 0 ? bytes : held;
        window.add({bytes, 2 * TICKS, true});
        EXPECT_EQ(number == 0 ? 3 : 2, bytes.use_count()) << "ours and the window's";
        window.finish(2 * TICKS);
        EXPECT_LE(window.bytes(), number < 12 ? 1000U : 1200U);
    }
    EXPECT_EQ(3U, window.segments().size()) << "players need so many, however large";
    EXPECT_EQ(1200U, window.bytes());
    EXPECT_EQ(0U, window.firstListed());
    EXPECT_EQ(1, held.use_count()) << "whoever is sent it has it still";
}

TEST_F(RelayHlsPlain, WritesThePlaylist) {
    pictures(60, 50);
    const std::string text = makePlaylist(window, "live");
    const size_t parts = text.find("#EXT-X-PART:");
    const size_t length = text.find("#EXTINF");
    EXPECT_EQ(
        "#EXTM3U\n"
        "#EXT-X-VERSION:6\n"
        "#EXT-X-TARGETDURATION:2\n"
        "#EXT-X-SERVER-CONTROL:CAN-BLOCK-RELOAD=YES,PART-HOLD-BACK=0.67500\n"
        "#EXT-X-PART-INF:PART-TARGET=0.22500\n"
        "#EXT-X-MEDIA-SEQUENCE:100\n"
        "#EXT-X-INDEPENDENT-SEGMENTS\n"
        "#EXT-X-MAP:URI=\"live/init100.mp4\"\n"
        "#EXT-X-PROGRAM-DATE-TIME:2026-11-23T02:47:28.000Z\n",
        text.substr(0, parts));
    EXPECT_EQ(parts, text.find("#EXT-X-PART:DURATION=0.20000,URI=\"live/100.0.m4s\",INDEPENDENT=YES\n"
                               "#EXT-X-PART:DURATION=0.20000,URI=\"live/100.1.m4s\"\n"));
    EXPECT_EQ(
        "#EXTINF:2.00000,\n"
        "live/100.m4s\n"
        "#EXT-X-PROGRAM-DATE-TIME:2026-11-23T02:47:30.000Z\n"
        "#EXT-X-PART:DURATION=0.20000,URI=\"live/101.0.m4s\",INDEPENDENT=YES\n"
        "#EXT-X-PART:DURATION=0.20000,URI=\"live/101.1.m4s\"\n"
        "#EXT-X-PRELOAD-HINT:TYPE=PART,URI=\"live/101.2.m4s\"\n",
        text.substr(length));
}

TEST_F(RelayHlsPlain, SurvivesAnyFragments) {
    std::mt19937 random(4711);
    for (int round = 0; round < 20; ++round) {
        Window any;
        Segmenter cutter(any, 1);
        cutter.setInit(textBytes("i"));
        uint64_t at = random();
        size_t bytes = 0;
        for (int i = 0; i < 400; ++i) {
            const uint64_t duration = random() % 40 == 0 ? random() % (20 * TICKS) : random() % 9000;
            at += random() % 50 == 0 ? random() % TICKS : duration;
            at -= random() % 50 == 0 ? random() % 5000 : 0;
            if (random() % 100 == 0) {
                cutter.setInit(textBytes("j"));
            }
            cutter.put(fragmentOf(at, duration, random() % 30 == 0), static_cast<int64_t>(random()));
        }
        cutter.end();
        for (const Segment& segment : any.segments()) {
            ASSERT_FALSE(segment.parts.empty());
            ASSERT_LE(segment.duration, any.target_s() * TICKS + TICKS / 2);
            bytes += bytesOfSegment(segment).size();
        }
        EXPECT_EQ(bytes, any.bytes());
        EXPECT_NE(std::string::npos, makePlaylist(any, "s").find("#EXT-X-ENDLIST"));
    }
}

TEST(PlaylistRules, FindWhatIsBroken) {
    const std::string head =
        "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-TARGETDURATION:2\n"
        "#EXT-X-SERVER-CONTROL:CAN-BLOCK-RELOAD=YES,PART-HOLD-BACK=0.6\n#EXT-X-PART-INF:PART-TARGET=0.2\n";
    const std::string first =
        "#EXT-X-MAP:URI=\"i\"\n#EXT-X-PROGRAM-DATE-TIME:2026-11-23T02:47:28.000Z\n#EXTINF:2.0,\n1.m4s\n";
    const std::string hint = "#EXT-X-PRELOAD-HINT:TYPE=PART,URI=\"2.0\"\n";
    const std::string sound = head + "#EXT-X-MEDIA-SEQUENCE:1\n" + first + hint;
    const auto broken = [](const std::string& text) { return PlaylistRules().check(text); };
    EXPECT_THAT(broken(sound), IsEmpty());
    const auto changed = [&](const std::string& from, const std::string& to) {
        std::string text = sound;
        return broken(text.replace(text.find(from), from.size(), to));
    };
    EXPECT_THAT(changed("#EXTM3U", "EXTM3U"), ElementsAre("the first line is #EXTM3U"));
    EXPECT_THAT(changed("0.6", "0.5"), ElementsAre("players stay three parts from the end"));
    EXPECT_THAT(changed("2.0,", "2.51,"), ElementsAre("1: not longer than the target"));
    EXPECT_THAT(changed("#EXT-X-MAP:URI=\"i\"\n", ""), ElementsAre("1: it has a map"));
    EXPECT_THAT(changed(hint, ""), ElementsAre("the next part is hinted at while there is one"));
    EXPECT_THAT(changed("2.0\"", "1.m4s\""), ElementsAre("1: its path is its own"));
    EXPECT_THAT(changed("28.000Z", "28Z").size(), 2U);
    EXPECT_THAT(
        changed("#EXTINF", "#EXT-X-PART:DURATION=0.3,URI=\"1.0\"\n#EXTINF"),
        ElementsAre("1: no part is longer than its target: 1.0", "1: its parts are as long as it is"));
    EXPECT_THAT(changed("#EXTINF",
                        "#EXT-X-PART:DURATION=0.1,URI=\"1.0\"\n#EXT-X-PART:DURATION=0.1,URI=\"1.1\"\n"
                        "#EXTINF"),
                ElementsAre("1: no part but the last is much shorter than its target: 1.0",
                            "1: its parts are as long as it is"));
    PlaylistRules again;
    EXPECT_THAT(again.check(sound), IsEmpty());
    EXPECT_THAT(again.check(sound), IsEmpty());
    EXPECT_THAT(again.check(head + "#EXT-X-MEDIA-SEQUENCE:2\n" + first + hint),
                ElementsAre("three targets are listed before one segment goes"));
    EXPECT_THAT(again.check(sound), testing::Contains("segments are not listed again"));
}

TEST(HlsRequest, ReadsPathsAndArguments) {
    HlsRequest request;
    ASSERT_EQ(200, parseHls("/hls/a-b.c.m3u8", "token=1&_HLS_msn=12&_HLS_part=3&_HLS_skip=YES", request));
    EXPECT_EQ(HlsRequest::Kind::PLAYLIST, request.kind);
    EXPECT_EQ("a-b.c", request.stream);
    EXPECT_TRUE(request.blocks && request.withPart);
    EXPECT_EQ(12U, request.number);
    EXPECT_EQ(3U, request.part);
    ASSERT_EQ(200, parseHls("/hls/live.m3u8", "", request));
    EXPECT_FALSE(request.blocks || request.withPart);
    ASSERT_EQ(200, parseHls("/hls/live/12.m4s", "_HLS_msn=x", request));
    EXPECT_EQ(HlsRequest::Kind::SEGMENT, request.kind);
    EXPECT_EQ("live", request.stream);
    EXPECT_EQ(12U, request.number);
    ASSERT_EQ(200, parseHls("/hls/live/12.34.m4s", "", request));
    EXPECT_EQ(HlsRequest::Kind::PART, request.kind);
    EXPECT_EQ(34U, request.part);
    ASSERT_EQ(200, parseHls("/hls/live/init7.mp4", "", request));
    EXPECT_EQ(HlsRequest::Kind::INIT, request.kind);
    EXPECT_EQ(7U, request.number);
}

TEST(HlsRequest, RefusesNonsense) {
    HlsRequest request;
    for (const char* const path : {"/hls/",
                                   "/hls/.m3u8",
                                   "/hls/m3u8",
                                   "/hls/live",
                                   "/hls//1.m4s",
                                   "/hls/live/",
                                   "/hls/live/1",
                                   "/hls/live/1.",
                                   "/hls/live/.m4s",
                                   "/hls/live/1.2",
                                   "/hls/live/1.2.",
                                   "/hls/live/1.mp4",
                                   "/hls/live/-1.m4s",
                                   "/hls/live/init.mp4",
                                   "/hls/live/init1.m4s",
                                   "/hls/live/1.2.3.m4s",
                                   "/hls/live/1.m4s/",
                                   "/live.m3u8",
                                   "/hls/a/b.m3u8",
                                   "/hls/live/1234567890123456.m4s"}) {
        EXPECT_EQ(404, parseHls(path, "", request)) << path;
    }
    for (const char* const query :
         {"_HLS_msn=", "_HLS_msn=x", "_HLS_msn=-1", "_HLS_msn=1.5", "_HLS_msn=1&_HLS_msn=1", "_HLS_part=1",
          "_HLS_msn=1&_HLS_part=", "_HLS_msn=99999999999999999999"}) {
        EXPECT_EQ(400, parseHls("/hls/live.m3u8", query, request)) << query;
    }
}

TEST_F(HlsOutputAnswers, MakesNothingUnlessSomebodyAsks) {
    EXPECT_FALSE(output.isWanted());
    EXPECT_EQ(LATER, statusOf(".m3u8"));
    EXPECT_TRUE(output.isWanted());
    HlsOutput short_rest(0);
    HlsRequest request;
    parseHls("/hls/live.m3u8", "", request);
    short_rest.answer(request, 1);
    EXPECT_FALSE(short_rest.isWanted()) << "the rest of that length is over";
}

TEST_F(HlsOutputAnswers, WakesWhoeverWaitsForTheFirstPlaylist) {
    EXPECT_EQ(LATER, statusOf(".m3u8", "", 7));
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(1000000), 8)) << "nobody knows yet how far that is";
    EXPECT_EQ(404, statusOf("/1.m4s"));
    EXPECT_EQ(2U, output.figures().waiting);
    pictures(50);
    EXPECT_THAT(woken, IsEmpty());
    pictures(1);
    EXPECT_THAT(woken, ElementsAre(7, 8));
    EXPECT_EQ(0U, output.figures().waiting);
    EXPECT_EQ(200, statusOf(".m3u8", "", 7));
}

TEST_F(HlsOutputAnswers, AnswersAPlaylistWhenItListsWhatWasAskedFor) {
    pictures(56);
    const uint64_t next = firstNumber() + 1;
    EXPECT_EQ(200, statusOf(".m3u8", msn(next - 1)));
    EXPECT_EQ(200, statusOf(".m3u8", msn(next, 0)));
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(next, 1), 11));
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(next, 2), 12));
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(next), 13));
    EXPECT_EQ(6000000, ask(".m3u8", msn(next), 13).patience_us) << "three targets";
    pictures(4, 0);
    EXPECT_THAT(woken, ElementsAre(11));
    pictures(5, 0);
    EXPECT_THAT(woken, ElementsAre(11, 12));
    pictures(35, 0);
    EXPECT_THAT(woken, ElementsAre(11, 12));
    pictures(1);
    EXPECT_THAT(woken, ElementsAre(11, 12, 13));
}

// A client that has all ten parts of a segment asks for an eleventh.
TEST_F(HlsOutputAnswers, AnswersForThePartAfterTheLastWhenTheNextSegmentHasOne) {
    pictures(100);
    const uint64_t number = firstNumber() + 1;
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(number, 10), 5));
    pictures(4);
    EXPECT_THAT(woken, IsEmpty()) << "the segment is whole, and the next one has no part";
    pictures(1, 0);
    EXPECT_THAT(woken, ElementsAre(5));
    const std::string text = textOf(ask(".m3u8", msn(number, 10), 5).body);
    EXPECT_THAT(rules.check(text), IsEmpty());
    EXPECT_EQ(number + 1, rules.last().segments.back().number);
    EXPECT_EQ(1U, rules.last().segments.back().parts.size());
}

TEST_F(HlsOutputAnswers, RefusesWhatIsFarAhead) {
    pictures(56);
    const uint64_t next = firstNumber() + 1;
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(next + 1)));
    EXPECT_EQ(400, statusOf(".m3u8", msn(next + 2)));
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(next, 10)));
    EXPECT_EQ(400, statusOf(".m3u8", msn(next, 30)));
    EXPECT_EQ(400, statusOf(".m3u8", msn(next + 1, 30)));
    EXPECT_EQ(200, statusOf(".m3u8", msn(1))) << "long ago is no error";
}

TEST_F(HlsOutputAnswers, GivesThePartThatIsHintedAtWhenItIsThere) {
    pictures(95);
    const uint64_t number = firstNumber() + 1;
    const std::string next = "/" + std::to_string(number) + ".";
    EXPECT_EQ(200, statusOf(next + "8.m4s"));
    EXPECT_EQ(LATER, statusOf(next + "9.m4s", "", 3));
    EXPECT_EQ(404, statusOf(next + "10.m4s")) << "nobody was told of it";
    pictures(5, 0);
    EXPECT_THAT(woken, ElementsAre(3));
    EXPECT_EQ("xxxxx", textOf(ask(next + "9.m4s", "", 3).body));
    EXPECT_EQ(LATER, statusOf(next + "10.m4s", "", 4));
    pictures(1);
    EXPECT_THAT(woken, ElementsAre(3, 4));
    EXPECT_EQ(404, statusOf(next + "10.m4s", "", 4)) << "the segment has ended before it";
}

TEST_F(HlsOutputAnswers, GivesEveryClientTheSameBytes) {
    pictures(120);
    const uint64_t first = firstNumber();
    const std::string number = "/" + std::to_string(first);
    const HlsAnswer one = ask(number + ".m4s", "", 1);
    const HlsAnswer two = ask(number + ".m4s", "", 2);
    EXPECT_EQ(std::string(50, 'x'), textOf(one.body));
    EXPECT_TRUE(one.forEver);
    EXPECT_EQ("video/mp4", one.type);
    EXPECT_EQ(one.body, two.body);
    EXPECT_EQ(one.body[3], ask(number + ".3.m4s").body[0]) << "a segment is its parts";
    EXPECT_EQ("init", textOf(ask("/init" + std::to_string(first) + ".mp4").body));
    const HlsAnswer text = ask(".m3u8");
    EXPECT_EQ(text.body, ask(".m3u8", msn(first), 2).body) << "it is written once";
    EXPECT_FALSE(text.forEver);
    EXPECT_EQ(text.tag, ask(".m3u8", "", 2).tag);
    pictures(5, 0);
    EXPECT_NE(text.tag, ask(".m3u8").tag);
    EXPECT_EQ(404, statusOf("/" + std::to_string(first + 2) + ".m4s")) << "it is under way";
}

TEST_F(HlsOutputAnswers, ForgetsAClientThatLeaves) {
    pictures(56);
    const uint64_t next = firstNumber() + 1;
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(next, 1), 21));
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(next, 1), 22));
    output.leave(21);
    output.leave(23);
    pictures(10, 0);
    EXPECT_THAT(woken, ElementsAre(22));
}

TEST_F(HlsOutputAnswers, TellsEverybodyThatTheInputHasEnded) {
    pictures(56);
    const uint64_t next = firstNumber() + 1;
    EXPECT_EQ(LATER, statusOf(".m3u8", msn(next, 1), 31));
    output.end();
    EXPECT_THAT(woken, ElementsAre(31));
    EXPECT_NE(std::string::npos, textOf(ask(".m3u8", msn(next, 1), 31).body).find("#EXT-X-ENDLIST"));
    EXPECT_EQ(200, statusOf(".m3u8", msn(next + 100)));
    pictures(51);
    EXPECT_EQ(std::string::npos, textOf(ask(".m3u8").body).find("#EXT-X-ENDLIST"))
        << "another input has come";
}

TEST_F(HlsOutputAnswers, NamesNothingTwice) {
    pictures(51);
    const uint64_t first = firstNumber();
    EXPECT_EQ(static_cast<uint64_t>(MORNING_US / 1000000), first) << "the time of day in seconds";
    output.rest();
    EXPECT_EQ(LATER, statusOf(".m3u8"));
    EXPECT_EQ(0U, output.figures().bytes);
}
