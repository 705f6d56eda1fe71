// Frames that a client did not get: by cause, level and channel, as its verdict tells them.
#include <Reticor/MediaVerdicts.h>

#include <array>
#include <string>
#include <vector>

#include "support/HandClock.h"
#include "support/SeededRandom.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr int DROPS_DISPOSABLE = 8;
constexpr unsigned DROPS_LIMIT_MS = 300;
constexpr int64_t DROPS_FRAME_US = 40000;

constexpr MediaDrops SenderVerdict::*DROPS_OF_CAUSES[] = {
    &SenderVerdict::too_old,    &SenderVerdict::stepped,  &SenderVerdict::no_key,
    &SenderVerdict::not_chosen, &SenderVerdict::filtered, &SenderVerdict::disposable,
};

struct DropsFilter {
    MediaVerdict ask(const MediaOffer& offer) { return answer(offer); }
    std::function<MediaVerdict(const MediaOffer&)> answer;
};

}  // namespace

class MediaDropsOfASender : public MediaFixture {
protected:
    MediaClient& comes(unsigned max_lag_ms = 0, MediaResume mode = MediaResume::AHEAD) {
        MediaClient& made = client();
        made.sender->SetResumePolicy(max_lag_ms, mode);
        buffer->AddSender(made.sender);
        return made;
    }
    void frame(int level, int channel = 0) {
        clock.advanceUs(DROPS_FRAME_US);
        put(10, 1, level, channel);
    }
    void frames(int count, int level, int channel = 0) {
        for (int i = 0; i < count; ++i) {
            frame(level, channel);
        }
    }
    void shut(MediaClient& one) { one.sock.setRoom(0); }
    void open(MediaClient& one) {
        one.sock.setRoom(ShapedStream::UNLIMITED);
        tick();
    }
    static SenderVerdict verdictOf(const MediaClient& one) {
        SenderVerdict verdict;
        EXPECT_EQ(0, one.sender->GetVerdict(verdict));
        return verdict;
    }
    // All of them; and nothing was counted by any other cause.
    static MediaDrops onlyBy(MediaDrops SenderVerdict::*cause, const MediaClient& one) {
        const SenderVerdict verdict = verdictOf(one);
        for (const auto other : DROPS_OF_CAUSES) {
            if (other != cause) {
                EXPECT_EQ(0U, (verdict.*other).GetCount());
            }
        }
        uint64_t by_level = 0;
        for (const uint32_t count : (verdict.*cause).by_level) {
            by_level += count;
        }
        EXPECT_EQ(by_level, (verdict.*cause).GetCount());
        return verdict.*cause;
    }

    HandClock clock;
};

TEST_F(MediaDropsOfASender, NoneWhileItGetsEverything) {
    MediaClient& a = comes();
    MediaClient& b = comes(DROPS_LIMIT_MS);
    frame(1);
    frames(20, 5);
    EXPECT_EQ(0U, onlyBy(&SenderVerdict::too_old, a).GetCount());
    EXPECT_EQ(0U, onlyBy(&SenderVerdict::too_old, b).GetCount());
}

TEST_F(MediaDropsOfASender, TooOldAreThoseThatWereGoneWithTheLevelsThatTheyHad) {
    MediaClient& a = comes();
    frame(1);
    frame(1, 3);
    a.sock.setRoom(5);
    frame(5, 3);
    frames(3, 10, 3);
    frames(2, 9, 3);
    tick(25);  // those of level 9 and 10 are too old
    EXPECT_EQ(0U, onlyBy(&SenderVerdict::too_old, a).GetCount()) << "nobody has missed them yet";
    open(a);
    frame(5, 3);
    const MediaDrops drops = onlyBy(&SenderVerdict::too_old, a);
    EXPECT_EQ(5U, drops.by_channel[3]);
    EXPECT_EQ(3U, drops.by_level[10]);
    EXPECT_EQ(2U, drops.by_level[9]);
    EXPECT_EQ(5U, verdictOf(a).hole_frames);
}

TEST_F(MediaDropsOfASender, SteppedAreThoseBeforeTheKeyFrameToWhichALateOneGoes) {
    MediaClient& a = comes(DROPS_LIMIT_MS);
    frame(1);
    shut(a);
    frames(5, 5);
    frame(1);
    frames(2, 6);
    clock.advanceUs(1000000);
    open(a);
    const MediaDrops drops = onlyBy(&SenderVerdict::stepped, a);
    EXPECT_EQ(5U, drops.by_level[5]);
    EXPECT_EQ(0U, drops.by_level[6]);
    EXPECT_EQ(5U, drops.GetCount());
}

// The strict one begins nothing late, and then waits.
TEST_F(MediaDropsOfASender, NoKeyAreThoseForWhichAKeyFrameIsMissing) {
    MediaClient& a = comes(DROPS_LIMIT_MS, MediaResume::STRICT);
    frame(1);
    shut(a);
    frames(2, 5);
    clock.advanceUs(1000000);
    open(a);
    frames(4, 6);
    frame(1);
    const SenderVerdict verdict = verdictOf(a);
    EXPECT_EQ(2U, verdict.stepped.by_level[5]);
    EXPECT_EQ(2U, verdict.stepped.GetCount());
    EXPECT_EQ(4U, verdict.no_key.by_level[6]);
    EXPECT_EQ(4U, verdict.no_key.GetCount());
    EXPECT_EQ(6U, verdict.skipped_frames);
    EXPECT_EQ(0U, verdict.too_old.GetCount());
}

TEST_F(MediaDropsOfASender, NotChosenAreThoseOfOtherChannels) {
    MediaClient& a = comes();
    a.sender->SetSendChannel(0);
    frame(1);
    frames(3, 5, 6);
    frame(5);
    const MediaDrops drops = onlyBy(&SenderVerdict::not_chosen, a);
    EXPECT_EQ(3U, drops.by_channel[6]);
    EXPECT_EQ(3U, drops.GetCount());
}

TEST_F(MediaDropsOfASender, FilteredAreThoseThatItsFilterKeptBack) {
    DropsFilter filter{
        [](const MediaOffer& offer) { return offer.level == 7 ? MediaVerdict::SKIP : MediaVerdict::SEND; }};
    MediaClient& a = comes();
    EXPECT_TRUE(a.sender->AttachFilter({&DropsFilter::ask, &filter}));
    frame(1);
    frames(3, 7);
    frame(5);
    EXPECT_EQ(3U, onlyBy(&SenderVerdict::filtered, a).by_level[7]);
}

TEST_F(MediaDropsOfASender, DisposableAreThoseThatWereLeftOutForOthers) {
    buffer->SetDisposableLevel(DROPS_DISPOSABLE);
    MediaClient& a = comes(DROPS_LIMIT_MS);
    frame(1);
    shut(a);
    for (int i = 0; i < 4; ++i) {
        frame(5);
        frame(DROPS_DISPOSABLE);
    }
    clock.advanceUs(1000000);
    open(a);
    EXPECT_EQ(4U, onlyBy(&SenderVerdict::disposable, a).by_level[DROPS_DISPOSABLE]);
    EXPECT_EQ(4U, verdictOf(a).thinned_frames);
}

TEST_F(MediaDropsOfASender, StayWithASenderThatHasLeftIfItWasLookedAt) {
    MediaClient& a = comes();
    a.sender->SetSendChannel(0);
    frame(1);
    frames(3, 5, 6);
    verdictOf(a);
    buffer->DelSender(a.sender);
    EXPECT_EQ(3U, verdictOf(a).not_chosen.GetCount());
}

TEST_F(MediaDropsOfASender, ACallerThatDoesNotKnowThemIsGivenNone) {
    MediaClient& a = comes();
    a.sender->SetSendChannel(0);
    frame(1);
    frames(3, 5, 6);
    SenderVerdict verdict;
    verdict.size = offsetof(SenderVerdict, too_old);
    EXPECT_EQ(0, a.sender->GetVerdict(verdict));
    EXPECT_EQ(0U, verdict.not_chosen.GetCount());
}

// At random: every frame goes out or is counted, once, under its level and its channel.
class MediaDropsModel : public MediaDropsOfASender, public ::testing::WithParamInterface<int> {
protected:
    static constexpr int CHOSEN = 2;  // channels 0 and 1

    struct Count {
        std::array<uint64_t, MEDIA_DROP_LEVELS> by_level{};
        std::array<uint64_t, CHOSEN> by_channel{};

        void add(int level, int channel) {
            ++by_level[static_cast<size_t>(level)];
            ++by_channel[static_cast<size_t>(channel)];
        }
    };
    struct Made {
        int level;
        int channel;
    };
    struct Sent {
        void tell(CMediaPacket*, int number, int) { numbers.push_back(number); }
        std::vector<int> numbers;
    };

    // The first frames of both channels, and the last ones, go out.
    void stream(MediaClient& a, SeededRandom& random) {
        for (int i = 0; i < 300; ++i) {
            const bool edge = i < CHOSEN || i >= 300 - CHOSEN;
            const int channel = edge ? i % CHOSEN : random.between(0, 2);
            const int level = edge || random.oneIn(12) ? 1 : random.between(2, 10);
            a.sock.setRoom(edge || random.oneIn(30) ? ShapedStream::UNLIMITED : random.between<size_t>(0, 9));
            made.push_back({level, channel});
            putInfo(i);
            frame(level, channel);
            if (i == 300 - CHOSEN - 1) {
                open(a);
            }
            tick(random.oneIn(10) ? random.between(1, 60) : 0);
        }
    }
    void check(const MediaClient& a, const Sent& sent) {
        Count expected;
        Count counted;
        for (const Made& one : made) {
            if (one.channel < CHOSEN) {
                expected.add(one.level, one.channel);
            }
        }
        for (const int number : sent.numbers) {
            const Made& one = made[static_cast<size_t>(number)];
            counted.add(one.level, one.channel);
        }
        const SenderVerdict verdict = verdictOf(a);
        for (const auto cause : DROPS_OF_CAUSES) {
            const MediaDrops& drops = verdict.*cause;
            for (size_t level = 0; cause != &SenderVerdict::not_chosen && level < MEDIA_DROP_LEVELS;
                 ++level) {
                counted.by_level[level] += drops.by_level[level];
            }
            for (size_t channel = 0; channel < CHOSEN; ++channel) {
                counted.by_channel[channel] += drops.by_channel[channel];
            }
        }
        EXPECT_EQ(expected.by_level, counted.by_level);
        EXPECT_EQ(expected.by_channel, counted.by_channel);
        EXPECT_EQ(0U, verdict.not_chosen.by_channel[0] + verdict.not_chosen.by_channel[1]);
        EXPECT_EQ(verdict.thinned_frames, verdict.disposable.GetCount());
        for (size_t cause = 0; cause < std::size(DROPS_OF_CAUSES); ++cause) {
            seen[cause] += (verdict.*DROPS_OF_CAUSES[cause]).GetCount();
        }
    }

    std::vector<Made> made;
    std::array<uint64_t, std::size(DROPS_OF_CAUSES)> seen{};
};

constexpr const char* MODES_OF_DROPS[] = {"Plain", "Ahead", "Strict"};
INSTANTIATE_TEST_SUITE_P(Modes, MediaDropsModel, ::testing::Values(0, 1, 2),
                         [](const auto& mode) { return std::string(MODES_OF_DROPS[mode.param]); });

TEST_P(MediaDropsModel, EveryFrameGoesOutOrIsCountedOnce) {
    SeededRandom random;
    buffer->SetDisposableLevel(DROPS_DISPOSABLE);
    for (int round = 0; round < 8 && !HasFailure(); ++round) {
        made.clear();
        Sent sent;
        DropsFilter filter{[&random](const MediaOffer& offer) {
            return offer.key || random.between(0, 9) != 0 ? MediaVerdict::SEND : MediaVerdict::SKIP;
        }};
        MediaClient& a = comes(GetParam() != 0 ? DROPS_LIMIT_MS : 0,
                               GetParam() == 2 ? MediaResume::STRICT : MediaResume::AHEAD);
        a.sender->SetSendChannel(0);
        a.sender->SetSendChannel(1);
        a.sender->AttachFilter({&DropsFilter::ask, &filter});
        a.sender->AttachSendProc({&Sent::tell, &sent});
        stream(a, random);
        check(a, sent);
        buffer->DelSender(a.sender);
    }
    EXPECT_NE(0U, seen[3]);
    EXPECT_NE(0U, seen[4]);
    // Each mode has had what is its own.
    constexpr size_t OWN[] = {0, 5, 2};
    EXPECT_NE(0U, seen[OWN[static_cast<size_t>(GetParam())]]);
    EXPECT_NE(0U, GetParam() != 0 ? seen[1] : 1);
}

}  // namespace Orvex::Testing
