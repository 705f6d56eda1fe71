// StartCache in streams of all kinds: what it promises a client that begins, and that it holds one frame.
#include "Tool/frame/StartCache.h"

#include <gtest/gtest.h>

#include <deque>
#include <utility>

#include <Reticor/MediaPacket.h>

#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

// Two channels of pictures that predict, 0 and 1, and two of sound, 2 and 3.
class StartCacheModel : public ::testing::Test {
protected:
    static constexpr int PICTURES = 2;
    static constexpr int STREAMS = 4;
    static constexpr uint8_t EVERYTHING = 255;

    ~StartCacheModel() override { cache.forget(); }

    CFrame& enter(SeededRandom& random) {
        const int channel = random.between(0, STREAMS - 1);
        // Pictures begin with a key frame, and never have two in a row: then they would be as sound is.
        const bool picture = channel < PICTURES;
        const bool key = !picture || frames_of[channel] == 0 || (!last_was_key[channel] && random.oneIn(6));
        now_us += random.between<uint64_t>(1, 300000);
        CFrame& frame = frames.emplace_back();
        frame.m_level = mediaLevel(channel, key ? 1 : 5);
        frame.m_key_mask = key ? frame.channel_bit() : uint8_t{0};
        frame.m_ordinal = ++frames_of[channel];
        frame.m_frame_len = random.between<int64_t>(1, 1000);
        frame.m_complete_us = now_us;
        frame.place_among_kept(frames.size(), kept_total);
        kept_total += static_cast<uint64_t>(frame.m_frame_len);
        last_was_key[channel] = key;
        book.enter(frame);
        const CFrame* const held_before = cache.from();
        cache.enter(frame, book);
        if (key) {
            if (picture) {
                expect_a_lead_in(frame, held_before);
            }
            newest_key[channel] = &frame;
        }
        return frame;
    }
    // A picture has the last sound before it of each channel that was held, if that is not too old.
    void expect_a_lead_in(const CFrame& key, const CFrame* held_before) {
        const CFrame* const start = cache.start(key.channel_bit(), book);
        ASSERT_NE(nullptr, start);
        EXPECT_LE(start->m_kept_number, key.m_kept_number);
        EXPECT_LE(key.m_complete_us - start->m_complete_us, StartCache::LEAD_IN_US);
        EXPECT_TRUE(start == &key || start->channel() >= PICTURES) << "no other picture leads it in";
        for (int sound = PICTURES; sound < STREAMS; ++sound) {
            const CFrame* const last = newest_key[sound];
            const bool follows = frames_of[sound] >= 2;
            if (last != nullptr && follows && held_before != nullptr &&
                last->m_kept_number >= held_before->m_kept_number &&
                key.m_complete_us - last->m_complete_us <= StartCache::LEAD_IN_US) {
                EXPECT_LE(start->m_kept_number, last->m_kept_number) << "sound " << sound;
            }
        }
    }
    void expect_one_held() {
        for (const CFrame& frame : frames) {
            ASSERT_EQ(&frame == cache.from() ? 1U : 0U, frame.m_holders);
        }
    }
    // Everything that a client may begin with is held: nothing of it is older.
    void expect_nothing_older_than_what_is_held() {
        for (int mask = 1; mask < 1 << STREAMS; ++mask) {
            const CFrame* const start = cache.start(static_cast<uint8_t>(mask), book);
            if (start != nullptr) {
                ASSERT_NE(nullptr, cache.from());
                ASSERT_LE(cache.from()->m_kept_number, start->m_kept_number);
            }
        }
    }
    void expect_starts() {
        const CFrame* const first = cache.start(1, book);
        const CFrame* const second = cache.start(2, book);
        const CFrame* const both = cache.start(3, book);
        if (first == nullptr || second == nullptr) {
            ASSERT_EQ(first != nullptr ? first : second, both);
        } else {
            ASSERT_EQ(first->m_kept_number < second->m_kept_number ? first : second, both);
        }
        // Sound of which one frame has come could still be one that predicts.
        const bool pictures_alone = book.predicting(EVERYTHING) < 1 << PICTURES;
        if (both != nullptr && pictures_alone) {
            ASSERT_EQ(both, cache.start(EVERYTHING, book)) << "whoever has pictures begins with them";
        }
        for (int picture = 0; picture < PICTURES; ++picture) {
            const CFrame* const key = newest_key[picture];
            if (key != nullptr) {
                const auto own = key->channel_bit();
                ASSERT_EQ(cache.start(own, book), cache.start_at(*key, EVERYTHING, book));
                ASSERT_EQ(nullptr, cache.start_at(*key, static_cast<uint8_t>(~own & 3), book));
            }
        }
        for (const CFrame& frame : frames) {
            if (frame.is_key() && &frame != newest_key[frame.channel()]) {
                ASSERT_EQ(nullptr, cache.start_at(frame, EVERYTHING, book)) << "only the newest one";
            }
        }
    }

    ChannelBook book;
    StartCache cache;
    std::deque<CFrame> frames;
    uint64_t frames_of[8] = {};
    bool last_was_key[8] = {};
    const CFrame* newest_key[8] = {};
    uint64_t now_us = 1000000;
    uint64_t kept_total = 0;
};

TEST_F(StartCacheModel, WithoutBoundsEveryPictureHasAPlaceToBegin) {
    SeededRandom random;
    cache.set_bounds(uint64_t{1} << 60, uint64_t{1} << 60);
    for (int step = 0; step < 400 && !HasFatalFailure(); ++step) {
        enter(random);
        cache.trim(now_us, kept_total, book);
        for (int picture = 0; picture < PICTURES; ++picture) {
            ASSERT_EQ(newest_key[picture] != nullptr,
                      cache.start(static_cast<uint8_t>(1 << picture), book) != nullptr);
        }
        expect_one_held();
        expect_nothing_older_than_what_is_held();
        expect_starts();
    }
    EXPECT_EQ(0U, cache.drops());
}

TEST_F(StartCacheModel, NothingBeyondItsBoundsIsHeld) {
    constexpr uint64_t KEEP_US = 2000000;
    constexpr uint64_t MOST_BYTES = 8000;
    SeededRandom random;
    cache.set_bounds(KEEP_US, MOST_BYTES);
    for (int step = 0; step < 600 && !HasFatalFailure(); ++step) {
        enter(random);
        const CFrame* const before = cache.from();
        const uint64_t drops = cache.drops();
        cache.trim(now_us, kept_total, book);
        if (const CFrame* const held = cache.from()) {
            ASSERT_LE(now_us, held->m_complete_us + KEEP_US);
            ASSERT_LE(kept_total - held->m_kept_begin, MOST_BYTES);
        }
        ASSERT_EQ(before != cache.from(), cache.drops() != drops) << "each one that goes is counted";
        expect_one_held();
        expect_nothing_older_than_what_is_held();
    }
    EXPECT_GT(cache.drops(), 0U);
}

TEST_F(StartCacheModel, BoundsOfWhichOneIsZeroSwitchItOffAndLetGo) {
    SeededRandom random;
    for (const auto& bounds : {std::pair<uint64_t, uint64_t>{0, 1000}, {1000, 0}, {0, 0}}) {
        cache.set_bounds(uint64_t{1} << 60, uint64_t{1} << 60);
        EXPECT_TRUE(cache.on());
        while (cache.from() == nullptr) {
            enter(random);
        }
        cache.set_bounds(bounds.first, bounds.second);
        EXPECT_FALSE(cache.on());
        EXPECT_EQ(nullptr, cache.from());
        EXPECT_EQ(nullptr, cache.start(EVERYTHING, book));
        expect_one_held();
    }
}

}  // namespace
}  // namespace Orvex::Testing
