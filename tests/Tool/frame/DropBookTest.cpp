// DropBook and LevelRing: what a sender did not send, and of which levels that was which was gone.
#include "Tool/frame/DropBook.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

#include "Tool/frame/SenderCourses.h"
#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

class DropBookOfASender : public ::testing::Test {
protected:
    static constexpr int CHANNEL = 2;

    // The next frame of the channel comes, and the sender does not see it.
    CFrame& comes(int level, int channel = CHANNEL) {
        frame.m_level = mediaLevel(channel, level);
        frame.m_frame_len = 10;
        frame.m_ordinal = ++ordinals[static_cast<size_t>(channel)];
        frame.m_channel_begin = (frame.m_ordinal - 1) * 10;
        ring->enter(frame);
        return frame;
    }
    void sends(int level, int channel = CHANNEL) {
        const CFrame& next = comes(level, channel);
        if (!courses.follows(next)) {
            const SenderCourses::Missed missed = courses.take_missed(next);
            book.lose(next, missed.gone.frames, courses.last_ordinal(channel), ring.get());
        }
        courses.begin(next);
    }
    void steps(int level, DropCause cause = DropCause::STEPPED, int channel = CHANNEL) {
        const CFrame& next = comes(level, channel);
        courses.step_over(next);
        book.pass(next, cause, courses.last_ordinal(channel));
    }
    void withholds(int level, int channel = CHANNEL) {
        const CFrame& next = comes(level, channel);
        courses.pass_needless(next);
        book.pass(next, DropCause::FILTERED, courses.last_ordinal(channel));
    }
    void leavesOut(int level, int channel = CHANNEL) {
        const CFrame& next = comes(level, channel);
        courses.leave_out(next);
        book.pass(next, DropCause::DISPOSABLE, courses.last_ordinal(channel));
    }
    uint32_t gone(size_t level) const { return book.drops(DropCause::TOO_OLD).by_level[level]; }
    uint64_t allGone() const { return book.drops(DropCause::TOO_OLD).GetCount(); }

    std::unique_ptr<LevelRing> ring = std::make_unique<LevelRing>();
    SenderCourses courses;
    DropBook book;
    CFrame frame;
    std::array<uint64_t, MEDIA_DROP_CHANNELS> ordinals{};
};

TEST_F(DropBookOfASender, IsEmptyUntilAFrameIsPassed) {
    sends(1);
    sends(5);
    for (size_t cause = 0; cause < DropBook::CAUSES; ++cause) {
        EXPECT_EQ(0U, book.drops(static_cast<DropCause>(cause)).GetCount());
    }
    book.forget_order();  // of a book that was never opened
}

TEST_F(DropBookOfASender, CountsAPassedFrameOnceUnderLevelAndChannel) {
    steps(7, DropCause::NO_KEY, 6);
    const MediaDrops drops = book.drops(DropCause::NO_KEY);
    for (size_t level = 0; level < MEDIA_DROP_LEVELS; ++level) {
        EXPECT_EQ(level == 7 ? 1U : 0U, drops.by_level[level]) << level;
    }
    for (size_t channel = 0; channel < MEDIA_DROP_CHANNELS; ++channel) {
        EXPECT_EQ(channel == 6 ? 1U : 0U, drops.by_channel[channel]) << channel;
    }
    EXPECT_EQ(0U, book.drops(DropCause::STEPPED).GetCount());
}

TEST_F(DropBookOfASender, KnowsOfWhichLevelsAGapWas) {
    sends(1);
    comes(5);
    comes(9);
    comes(5);
    sends(1);
    EXPECT_EQ(2U, gone(5));
    EXPECT_EQ(1U, gone(9));
    EXPECT_EQ(3U, allGone());
    EXPECT_EQ(3U, book.drops(DropCause::TOO_OLD).by_channel[CHANNEL]);
}

TEST_F(DropBookOfASender, WhatTheSenderPassedItselfIsNotGone) {
    sends(1);
    steps(5);
    comes(5);
    leavesOut(9);
    comes(9);
    sends(1);
    EXPECT_EQ(1U, gone(5));
    EXPECT_EQ(1U, gone(9));
    EXPECT_EQ(1U, book.drops(DropCause::STEPPED).by_level[5]);
    EXPECT_EQ(1U, book.drops(DropCause::DISPOSABLE).by_level[9]);
}

TEST_F(DropBookOfASender, WhatWasWithheldMovesNoLevelOfAGap) {
    sends(1);
    comes(3);
    withholds(8);
    withholds(9);
    sends(5);
    EXPECT_EQ(1U, gone(3)) << "the gap is the first of the three";
    EXPECT_EQ(1U, allGone());
    EXPECT_EQ(2U, book.drops(DropCause::FILTERED).GetCount());
}

TEST_F(DropBookOfASender, WhatWasPassedBeforeAFrameThatWentOutIsNoPartOfALaterGap) {
    sends(1);
    withholds(5);
    sends(5);  // follows, as if the withheld one had not been
    comes(5);
    sends(1);
    EXPECT_EQ(1U, gone(5));
    steps(5);
    sends(1);
    comes(5);
    sends(1);
    EXPECT_EQ(2U, gone(5));
}

TEST_F(DropBookOfASender, ChannelsDoNotMix) {
    sends(1, 0);
    sends(1, 7);
    steps(5, DropCause::STEPPED, 0);
    comes(5, 7);
    sends(1, 7);
    EXPECT_EQ(1U, book.drops(DropCause::TOO_OLD).by_channel[7]);
    EXPECT_EQ(1U, gone(5));
    sends(1, 0);
    EXPECT_EQ(1U, allGone());
}

TEST_F(DropBookOfASender, AGapThatIsLongerThanTheRingHasFramesOfNoKnownLevel) {
    sends(1);
    for (uint64_t i = 0; i < LevelRing::FRAMES + 10; ++i) {
        comes(4);
    }
    sends(1);
    EXPECT_EQ(LevelRing::FRAMES - 1, gone(4)) << "the newest one has a place too";
    EXPECT_EQ(11U, gone(0));
    EXPECT_EQ(LevelRing::FRAMES + 10, allGone());
}

TEST_F(DropBookOfASender, ASenderThatIsFarBehindTheNewestFrameDoesNotReadOthersLevels) {
    sends(1);
    comes(4);
    CFrame late;
    late.m_level = mediaLevel(CHANNEL, 1);
    late.m_frame_len = 10;
    late.m_ordinal = ++ordinals[CHANNEL];
    late.m_channel_begin = 20;
    ring->enter(late);
    for (uint64_t i = 0; i < LevelRing::FRAMES; ++i) {
        comes(9);
    }
    const SenderCourses::Missed missed = courses.take_missed(late);
    book.lose(late, missed.gone.frames, courses.last_ordinal(CHANNEL), ring.get());
    EXPECT_EQ(1U, gone(0)) << "its place has another one's level by now";
    EXPECT_EQ(0U, gone(9));
}

TEST_F(DropBookOfASender, WithoutARingNoLevelIsKnown) {
    sends(1);
    comes(5);
    book.lose(comes(1), 1, courses.last_ordinal(CHANNEL), nullptr);
    EXPECT_EQ(1U, gone(0));
    EXPECT_EQ(1U, allGone());
}

TEST_F(DropBookOfASender, LevelsBeyondTheTenAreCountedAsNotKnown) {
    steps(11);
    steps(-3);
    steps(10);
    const MediaDrops drops = book.drops(DropCause::STEPPED);
    EXPECT_EQ(2U, drops.by_level[0]);
    EXPECT_EQ(1U, drops.by_level[10]);
    EXPECT_EQ(3U, drops.GetCount());
}

TEST_F(DropBookOfASender, FramesThatAreNumberedAnewHaveNothingOfTheOldOnes) {
    sends(1);
    steps(5);
    courses.forget();
    book.forget_order();
    ordinals = {};
    ring = std::make_unique<LevelRing>();
    sends(1);
    comes(5);
    sends(1);
    EXPECT_EQ(1U, gone(5));
    EXPECT_EQ(1U, book.drops(DropCause::STEPPED).GetCount()) << "what was counted stays";
}

// Whatever happens to frames: each one that did not go out is counted once, by its cause, level and channel.
TEST_F(DropBookOfASender, EveryFrameIsCountedOnce) {
    SeededRandom random;
    std::array<std::array<uint64_t, MEDIA_DROP_LEVELS>, DropBook::CAUSES> by_level{};
    std::array<std::array<uint64_t, MEDIA_DROP_CHANNELS>, DropBook::CAUSES> by_channel{};
    for (int channel = 0; channel < 3; ++channel) {
        sends(1, channel);
    }
    // Those that are gone are known when the next one of their channel goes out.
    std::array<std::vector<int>, 3> unseen;
    for (int i = 0; i < 20000; ++i) {
        const int channel = random.between(0, 2);
        const int level = random.between(1, 10);
        const auto count = [&](DropCause cause, int of) {
            ++by_level[static_cast<size_t>(cause)][static_cast<size_t>(of)];
            ++by_channel[static_cast<size_t>(cause)][static_cast<size_t>(channel)];
        };
        switch (random.between(0, 5)) {
            case 0:
                comes(level, channel);
                unseen[static_cast<size_t>(channel)].push_back(level);
                break;
            case 1:
                withholds(level, channel);
                count(DropCause::FILTERED, level);
                break;
            case 2:
                leavesOut(level, channel);
                count(DropCause::DISPOSABLE, level);
                break;
            case 3: {
                const DropCause cause = random.oneIn(2) ? DropCause::STEPPED : DropCause::NO_KEY;
                steps(level, cause, channel);
                count(cause, level);
                break;
            }
            default:
                sends(level, channel);
                for (const int gone : unseen[static_cast<size_t>(channel)]) {
                    count(DropCause::TOO_OLD, gone);
                }
                unseen[static_cast<size_t>(channel)].clear();
                break;
        }
    }
    for (size_t cause = 0; cause < DropBook::CAUSES; ++cause) {
        const MediaDrops drops = book.drops(static_cast<DropCause>(cause));
        for (size_t level = 0; level < MEDIA_DROP_LEVELS; ++level) {
            EXPECT_EQ(by_level[cause][level], drops.by_level[level]) << cause << ", level " << level;
        }
        for (size_t channel = 0; channel < MEDIA_DROP_CHANNELS; ++channel) {
            EXPECT_EQ(by_channel[cause][channel], drops.by_channel[channel]) << cause << ", " << channel;
        }
    }
}

}  // namespace Orvex::Testing
