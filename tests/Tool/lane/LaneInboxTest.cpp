// LaneInbox: whole frames in order, and which of them is lost when there are too many.
#include "Tool/lane/LaneInbox.h"

#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

class LaneInboxes : public ::testing::Test {
protected:
    LaneInboxes() { EXPECT_TRUE(inbox.open()); }
    ~LaneInboxes() override {
        while (LanePacket* const frame = inbox.empty()) {
            frame->release_frame();
        }
    }

    // Gives the number of its packet.
    int put(int level, size_t length = 10, int channel = 0) {
        const int number = static_cast<int>(packets.size());
        packets.emplace_back(number, std::string(length, 'x'), &released);
        LanePacket& frame = *store.take();
        frame.fill({&packets.back(), packets.back().length(), MEDIA_MARK_LAST, mediaLevel(channel, level)}, 1,
                   true);
        frame.set_frame(length, 0, 1, nullptr, 0);
        while (LanePacket* const lost = inbox.put(frame)) {
            const bool same = lost == &frame;
            lost->release_frame();
            if (same) {
                break;
            }
        }
        return number;
    }
    // The numbers of the frames that wait; -1 for each that was lost.
    std::vector<int> take_all() {
        std::vector<int> order;
        while (inbox.take(taken)) {
            for (const LaneInbox::Sum& sum : taken.any_sums ? taken.sums : std::array<LaneInbox::Sum, 8>{}) {
                sums += sum.frames;
            }
            ticks += taken.ticks;
            if (taken.has_entry && taken.entry.frame == nullptr) {
                order.push_back(-1);
            } else if (taken.has_entry) {
                const size_t before = released.size();
                taken.entry.frame->release_frame();
                order.insert(order.end(), released.begin() + static_cast<long>(before), released.end());
            }
            ticks += taken.has_entry ? taken.entry.ticks : 0;
        }
        return order;
    }

    std::vector<int> released;
    std::deque<TestPacket> packets;
    LanePacketStore store;
    LaneInbox inbox;
    LaneInbox::Taken taken;
    uint64_t sums = 0;
    uint64_t ticks = 0;
};

TEST_F(LaneInboxes, FramesComeOutInTheirOrder) {
    for (int level : {3, 1, 10, 1}) {
        put(level);
    }
    EXPECT_EQ(4U, inbox.stats().frames);
    EXPECT_EQ(40U, inbox.stats().bytes);
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), take_all());
    EXPECT_EQ(0U, inbox.stats().frames);
    EXPECT_EQ(0U, inbox.stats().bytes);
}

TEST_F(LaneInboxes, OldestOfTheLeastImportantFramesIsLostFirst) {
    inbox.set_bounds(3, 1000);
    for (int level : {1, 5, 5}) {
        put(level);
    }
    put(2);
    EXPECT_EQ((std::vector<int>{1}), released);
    put(2);
    EXPECT_EQ((std::vector<int>{1, 2}), released);
    EXPECT_EQ((std::vector<int>{0, -1, -1, 3, 4}), take_all());
    EXPECT_EQ(2U, inbox.stats().lost_frames);
    EXPECT_EQ(20U, inbox.stats().lost_bytes);
}

TEST_F(LaneInboxes, FrameThatIsLessImportantThanAllThatWaitIsLostItself) {
    inbox.set_bounds(2, 1000);
    put(1);
    put(2);
    const int late = put(3);
    EXPECT_EQ((std::vector<int>{late}), released);
    EXPECT_EQ((std::vector<int>{0, 1, -1}), take_all());
}

TEST_F(LaneInboxes, AmongEqualsTheOldestOneGoes) {
    inbox.set_bounds(2, 1000);
    put(4);
    put(4);
    put(4);
    EXPECT_EQ((std::vector<int>{-1, 1, 2}), take_all());
}

TEST_F(LaneInboxes, SeveralAreLostForTheBytesOfOne) {
    inbox.set_bounds(100, 50);
    for (int i = 0; i < 5; ++i) {
        put(7);
    }
    put(1, 35);
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), released);
    EXPECT_EQ(45U, inbox.stats().bytes);
    EXPECT_EQ((std::vector<int>{-1, -1, -1, -1, 4, 5}), take_all());
}

TEST_F(LaneInboxes, FrameLongerThanTheBoundIsTakenAlone) {
    inbox.set_bounds(100, 50);
    put(3);
    put(3, 500);
    EXPECT_EQ((std::vector<int>{0}), released);
    EXPECT_EQ(500U, inbox.stats().bytes);
    put(3);
    EXPECT_EQ((std::vector<int>{0, 1}), released) << "it is the oldest of them now";
}

TEST_F(LaneInboxes, LevelsBeyondTheLimitsCountAsTheLimits) {
    inbox.set_bounds(2, 1000);
    put(-5);
    put(700);
    put(10);
    EXPECT_EQ((std::vector<int>{1}), released);
    put(1);
    EXPECT_EQ((std::vector<int>{1, 2}), released);
}

TEST_F(LaneInboxes, WhatIsLostIsToldWithChannelLevelAndLength) {
    inbox.set_bounds(1, 1000);
    put(4, 33, 6);
    put(4, 1);
    ASSERT_TRUE(inbox.take(taken));
    ASSERT_TRUE(taken.has_entry);
    EXPECT_EQ(nullptr, taken.entry.frame);
    EXPECT_EQ(mediaLevel(6, 4), taken.entry.level_word);
    EXPECT_EQ(33U, taken.entry.bytes);
}

TEST_F(LaneInboxes, TicksStayBetweenTheFramesWhereTheyCame) {
    inbox.put_tick();
    put(1);
    inbox.put_tick();
    inbox.put_tick();
    put(1);
    ASSERT_TRUE(inbox.take(taken));
    EXPECT_EQ(1U, taken.ticks);
    EXPECT_EQ(2U, taken.entry.ticks);
    taken.entry.frame->release_frame();
    ASSERT_TRUE(inbox.take(taken));
    EXPECT_EQ(0U, taken.ticks);
    EXPECT_EQ(0U, taken.entry.ticks);
    taken.entry.frame->release_frame();
}

TEST_F(LaneInboxes, TicksWithoutAFrameAreTakenOnce) {
    inbox.put_tick();
    ASSERT_TRUE(inbox.take(taken));
    EXPECT_FALSE(taken.has_entry);
    EXPECT_EQ(1U, taken.ticks);
    EXPECT_FALSE(inbox.take(taken));
}

TEST_F(LaneInboxes, TicksBeyondTheLifeOfAFrameAreNotCounted) {
    for (int i = 0; i < 1000; ++i) {
        inbox.put_tick();
    }
    take_all();
    EXPECT_EQ(LaneInbox::MOST_TICKS, ticks);
}

TEST_F(LaneInboxes, LaneIsRungOnceUntilItHasFoundNothing) {
    EXPECT_FALSE(inbox.ring()) << "there is nothing to take";
    put(1);
    EXPECT_TRUE(inbox.ring());
    put(1);
    EXPECT_FALSE(inbox.ring()) << "it is on its way";
    ASSERT_TRUE(inbox.take(taken));
    taken.entry.frame->release_frame();
    EXPECT_FALSE(inbox.ring());
    take_all();
    put(1);
    EXPECT_TRUE(inbox.ring());
    inbox.ring_failed();
    EXPECT_TRUE(inbox.ring());
}

TEST_F(LaneInboxes, LaneThatStandsStillForLongLosesTheOldestAndKeepsSums) {
    inbox.set_bounds(1, 1000);
    constexpr int FRAMES = 10000;
    for (int i = 0; i < FRAMES; ++i) {
        put(1, 1);
        inbox.put_tick();
    }
    EXPECT_EQ(1U, inbox.stats().frames);
    const std::vector<int> order = take_all();
    EXPECT_EQ(FRAMES - 1, order.back());
    EXPECT_EQ(static_cast<uint64_t>(FRAMES), order.size() + sums) << "each frame is accounted for";
    EXPECT_EQ(static_cast<uint64_t>(FRAMES - 1), inbox.stats().lost_frames);
}

TEST_F(LaneInboxes, ImportantFrameAtTheFrontGoesWhenNothingElseCan) {
    inbox.set_bounds(1, 1000);
    put(1, 1);
    for (int i = 0; i < 5000; ++i) {
        put(9, 1);
    }
    const std::vector<int> order = take_all();
    EXPECT_EQ(1, packets.front().releases);
    EXPECT_EQ(5001U, order.size() + sums);
}

TEST_F(LaneInboxes, EmptyingGivesEachFrameThatWaitsAndForgetsTheRest) {
    inbox.set_bounds(2, 1000);
    put(1);
    put(5);
    put(1);
    inbox.put_tick();
    int found = 0;
    while (LanePacket* const frame = inbox.empty()) {
        frame->release_frame();
        ++found;
    }
    EXPECT_EQ(2, found);
    EXPECT_FALSE(inbox.take(taken));
    put(3);
    EXPECT_EQ((std::vector<int>{3}), take_all());
}

}  // namespace Orvex::Testing
