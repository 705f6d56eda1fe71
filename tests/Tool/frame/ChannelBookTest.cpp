// ChannelBook: key frames, groups, needed frames and followers, from complete frames alone.
#include "Tool/frame/ChannelBook.h"

#include <gtest/gtest.h>

#include <deque>

#include "support/media/Pictures.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class ChannelBookOfABuffer : public ::testing::Test {
protected:
    const CFrame& frame(int channel, bool key, int level = 5) {
        CFrame& made = frames.emplace_back();
        made.m_level = mediaLevel(channel, key ? 1 : level);
        made.m_key_mask = key ? made.channel_bit() : uint8_t{0};
        made.m_ordinal = ++ordinals[channel];
        made.m_complete_us = FRAME_US * frames.size();
        book.enter(made);
        return made;
    }

    ChannelBook book;
    std::deque<CFrame> frames;
    uint64_t ordinals[8] = {};
};

TEST_F(ChannelBookOfABuffer, KnowsTheNewestKeyFrameOfEachChannel) {
    const CFrame& first = frame(0, true);
    const CFrame& second = frame(0, false);
    EXPECT_FALSE(book.has_newer_key(first));
    frame(1, true);
    EXPECT_FALSE(book.has_newer_key(second));
    const CFrame& key = frame(0, true);
    EXPECT_TRUE(book.has_newer_key(first));
    EXPECT_TRUE(book.has_newer_key(second));
    EXPECT_FALSE(book.has_newer_key(key));
    EXPECT_FALSE(book.has_newer_key(frame(0, false)));
}

TEST_F(ChannelBookOfABuffer, KnowsHowLongTheLastGroupWas) {
    frame(0, true);
    EXPECT_EQ(0U, book.group_us(0));
    frame(0, false);
    frame(1, true);
    frame(0, true);
    EXPECT_EQ(3 * FRAME_US, book.group_us(0));
    EXPECT_EQ(0U, book.group_us(1));
}

TEST_F(ChannelBookOfABuffer, CountsTheFramesThatOthersNeed) {
    book.set_disposable_level(8);
    EXPECT_EQ(0U, frame(0, true).m_needed_before);
    EXPECT_EQ(1U, frame(0, false, 7).m_needed_before);
    const CFrame& disposable = frame(0, false, 8);
    EXPECT_TRUE(disposable.m_disposable);
    EXPECT_EQ(2U, disposable.m_needed_before);
    EXPECT_EQ(2U, frame(0, false, 9).m_needed_before);
    const CFrame& needed = frame(0, false, 5);
    EXPECT_FALSE(needed.m_disposable);
    EXPECT_EQ(2U, needed.m_needed_before);
    EXPECT_EQ(0U, frame(1, true).m_needed_before) << "channels count by themselves";
}

TEST_F(ChannelBookOfABuffer, AKeyFrameIsNeverDisposable) {
    book.set_disposable_level(1);
    EXPECT_FALSE(frame(0, true).m_disposable);
    EXPECT_TRUE(frame(0, false, 2).m_disposable);
    book.set_disposable_level(0);
    EXPECT_FALSE(frame(0, false, 10).m_disposable);
}

TEST_F(ChannelBookOfABuffer, AChannelOfKeyFramesFollowsOneThatPredicts) {
    frame(0, true);
    frame(0, false);
    frame(1, true);
    EXPECT_FALSE(book.follows(1, 255)) << "one frame is not yet a habit";
    frame(1, true);
    EXPECT_TRUE(book.follows(1, 255));
    EXPECT_FALSE(book.follows(1, 2)) << "the client does not get the other one";
    EXPECT_FALSE(book.follows(0, 255));
}

TEST_F(ChannelBookOfABuffer, ChannelsOfKeyFramesAloneDoNotFollowEachOther) {
    for (int i = 0; i < 3; ++i) {
        frame(0, true);
        frame(1, true);
    }
    EXPECT_FALSE(book.follows(0, 255));
    EXPECT_FALSE(book.follows(1, 255));
}

TEST_F(ChannelBookOfABuffer, AChannelThatHasEndedIsNotFollowedForEver) {
    frame(0, true);
    frame(0, false);
    for (uint64_t i = 1; i < ChannelBook::RECENT_FRAMES; ++i) {
        frame(1, true);
    }
    EXPECT_TRUE(book.follows(1, 255));
    frame(1, true);
    EXPECT_FALSE(book.follows(1, 255));
}

TEST_F(ChannelBookOfABuffer, ForgetsAllButTheLevel) {
    book.set_disposable_level(8);
    const CFrame& first = frame(0, true);
    frame(0, true);
    book.forget();
    EXPECT_FALSE(book.has_newer_key(first));
    EXPECT_EQ(0U, book.group_us(0));
    EXPECT_EQ(8, book.disposable_level());
}

}  // namespace
}  // namespace Orvex::Testing
