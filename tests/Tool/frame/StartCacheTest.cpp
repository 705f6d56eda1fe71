// StartCache: where a client begins, and what is held for it, from kept frames alone.
#include "Tool/frame/StartCache.h"

#include <gtest/gtest.h>

#include <deque>

#include "support/media/Pictures.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint8_t ALL = 255;

class StartCacheOfABuffer : public ::testing::Test {
protected:
    StartCacheOfABuffer() { cache.set_bounds(10000000, 1000000); }

    CFrame& frame(int channel, bool key, int64_t bytes = 10) {
        CFrame& made = frames.emplace_back();
        made.m_level = mediaLevel(channel, key ? 1 : 5);
        made.m_key_mask = key ? made.channel_bit() : uint8_t{0};
        made.m_ordinal = ++ordinals[channel];
        made.m_frame_len = bytes;
        now_us += FRAME_US;
        made.m_complete_us = now_us;
        made.place_among_kept(frames.size(), kept_total);
        kept_total += static_cast<uint64_t>(bytes);
        book.enter(made);
        cache.enter(made, book);
        return made;
    }
    CFrame* start(uint8_t mask = ALL) { return cache.start(mask, book); }

    ChannelBook book;
    StartCache cache;
    std::deque<CFrame> frames;
    uint64_t ordinals[8] = {};
    uint64_t now_us = 0;
    uint64_t kept_total = 0;
};

TEST_F(StartCacheOfABuffer, HoldsTheNewestKeyFrameOfThePicture) {
    CFrame& first = frame(PICTURE, true);
    frame(PICTURE, false);
    EXPECT_EQ(&first, start());
    EXPECT_EQ(1U, first.m_holders);
    CFrame& second = frame(PICTURE, true);
    frame(PICTURE, false);
    EXPECT_EQ(&second, start());
    EXPECT_EQ(0U, first.m_holders);
    EXPECT_EQ(1U, second.m_holders);
}

TEST_F(StartCacheOfABuffer, APictureHasTheLastSoundBeforeItAsItsLeadIn) {
    frame(SOUND, true);
    frame(SOUND, true);
    CFrame& sound = frame(SOUND, true);
    CFrame& key = frame(PICTURE, true);
    frame(SOUND, true);
    frame(PICTURE, false);
    EXPECT_EQ(&sound, start());
    EXPECT_EQ(&sound, cache.start_at(key, ALL, book));
    EXPECT_EQ(&sound, cache.from());
}

TEST_F(StartCacheOfABuffer, SoundOfLongAgoIsNotALeadIn) {
    frame(SOUND, true);
    frame(SOUND, true);
    now_us += StartCache::LEAD_IN_US;
    CFrame& key = frame(PICTURE, true);
    frame(PICTURE, false);
    EXPECT_EQ(&key, start());
}

TEST_F(StartCacheOfABuffer, WhoeverHasSoundAloneBeginsWithItsNewestFrame) {
    frame(PICTURE, true);
    frame(SOUND, true);
    frame(PICTURE, false);
    CFrame& sound = frame(SOUND, true);
    EXPECT_EQ(&sound, start(1U << SOUND));
}

TEST_F(StartCacheOfABuffer, TwoPicturesBeginAtTheOlderOfTheirKeyFrames) {
    CFrame& one = frame(PICTURE, true);
    CFrame& other = frame(2, true);
    frame(PICTURE, false);
    frame(2, false);
    EXPECT_EQ(&one, start());
    EXPECT_EQ(&other, start(1U << 2));
    CFrame& next = frame(PICTURE, true);
    frame(PICTURE, false);
    EXPECT_EQ(&other, start());
    EXPECT_EQ(&next, start(1U << PICTURE));
}

TEST_F(StartCacheOfABuffer, AGroupOfTooManyBytesGoesWholeUntilTheNextKeyFrame) {
    cache.set_bounds(10000000, 100);
    frame(PICTURE, true, 60);
    frame(PICTURE, false, 40);
    cache.trim(now_us, kept_total, book);
    EXPECT_NE(nullptr, start());
    frame(PICTURE, false, 1);
    cache.trim(now_us, kept_total, book);
    EXPECT_EQ(nullptr, start());
    EXPECT_EQ(nullptr, cache.from());
    EXPECT_EQ(1U, cache.drops());
    frame(PICTURE, false, 1);
    EXPECT_EQ(nullptr, start());
    CFrame& key = frame(PICTURE, true, 60);
    cache.trim(now_us, kept_total, book);
    EXPECT_EQ(&key, start());
}

TEST_F(StartCacheOfABuffer, AGroupThatIsTooOldGoesWhole) {
    frame(PICTURE, true);
    frame(PICTURE, false);
    cache.trim(FRAME_US + 10000000, kept_total, book);
    EXPECT_NE(nullptr, start());
    cache.trim(FRAME_US + 10000001, kept_total, book);
    EXPECT_EQ(nullptr, start());
}

TEST_F(StartCacheOfABuffer, SoundWithoutAPictureIsNotAPlaceToBegin) {
    frame(SOUND, true);
    frame(SOUND, true);
    frame(PICTURE, true, 1000001);
    cache.trim(now_us, kept_total, book);
    CFrame& sound = frame(SOUND, true);
    EXPECT_EQ(nullptr, start()) << "the picture's group is gone";
    EXPECT_EQ(&sound, cache.from()) << "yet it is held, as what goes before the next picture";
    frame(PICTURE, true);
    EXPECT_EQ(&sound, start());
}

TEST_F(StartCacheOfABuffer, OnlyANewKeyFrameOfThePictureIsANextKeyFrame) {
    CFrame& key = frame(PICTURE, true);
    CFrame& other = frame(PICTURE, false);
    CFrame& sound = frame(SOUND, true);
    frame(SOUND, true);
    EXPECT_EQ(nullptr, cache.start_at(other, ALL, book));
    EXPECT_EQ(nullptr, cache.start_at(sound, ALL, book));
    EXPECT_EQ(&key, cache.start_at(key, ALL, book));
    frame(PICTURE, true);
    EXPECT_EQ(nullptr, cache.start_at(key, ALL, book));
}

TEST_F(StartCacheOfABuffer, SwitchedOffItHoldsNothing) {
    CFrame& key = frame(PICTURE, true);
    cache.set_bounds(0, 100);
    EXPECT_FALSE(cache.on());
    EXPECT_EQ(nullptr, start());
    EXPECT_EQ(0U, key.m_holders);
}

}  // namespace

}  // namespace Orvex::Testing
