// LaneFeed: packets become frames, and what is not complete can be let go.
#include "Tool/lane/LaneFeed.h"

#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

class LaneFeeds : public ::testing::Test {
protected:
    LaneFeeds() {
        const CoreGuard guard(*core);
        feed.open(2);
    }
    TestPacket& add(const std::string& bytes, int mark = MEDIA_MARK_MORE) {
        const CoreGuard guard(*core);
        packets.emplace_back(static_cast<int>(packets.size()), bytes, &released);
        EXPECT_TRUE(feed.make_room());
        feed.add({&packets.back(), packets.back().length(), mark, mediaLevel(1, 5)});
        return packets.back();
    }
    TestPacket& setInfo(int arg) {
        const CoreGuard guard(*core);
        packets.emplace_back(static_cast<int>(packets.size()), "i", &released);
        EXPECT_TRUE(feed.make_room());
        feed.set_info(packets.back(), arg);
        return packets.back();
    }
    LanePacket& complete() {
        const CoreGuard guard(*core);
        return feed.complete(7);
    }
    bool isFilling() {
        const CoreGuard guard(*core);
        return feed.is_filling();
    }
    void drop() {
        const CoreGuard guard(*core);
        feed.drop();
    }

    std::vector<int> released;
    std::deque<TestPacket> packets;
    std::shared_ptr<MediaCore> core = std::make_shared<MediaCore>();
    LaneFeed feed;
};

TEST_F(LaneFeeds, FrameHasItsPacketsLengthTimeAndInformation) {
    EXPECT_FALSE(isFilling());
    TestPacket& about = setInfo(3);
    EXPECT_FALSE(isFilling()) << "information is no packet";
    add("abc");
    EXPECT_TRUE(isFilling());
    add("de", MEDIA_MARK_LAST);
    LanePacket& frame = complete();
    EXPECT_FALSE(isFilling());
    EXPECT_EQ(5U, frame.frame_bytes());
    EXPECT_EQ(2U, frame.packets());
    EXPECT_EQ(7U, frame.complete_us());
    EXPECT_EQ(&about, frame.info()->packet());
    EXPECT_EQ(3, frame.info_arg());
    EXPECT_EQ(mediaLevel(1, 5), frame.frame_level());
    frame.release_frame();
    EXPECT_TRUE(released.empty());
    frame.release_frame();
    EXPECT_EQ((std::vector<int>{1, 2, 0}), released);
}

TEST_F(LaneFeeds, NextFrameHasNothingOfTheOneBefore) {
    setInfo(3);
    add("abc", MEDIA_MARK_LAST);
    LanePacket& first = complete();
    add("z", MEDIA_MARK_LAST);
    LanePacket& second = complete();
    EXPECT_EQ(1U, second.frame_bytes());
    EXPECT_EQ(1U, second.packets());
    EXPECT_EQ(nullptr, second.info());
    EXPECT_EQ(nullptr, first.next());
    for (LanePacket* const frame : {&first, &second}) {
        frame->release_frame();
        frame->release_frame();
    }
}

TEST_F(LaneFeeds, EarlierInformationIsReleasedOnce) {
    const TestPacket& first = setInfo(1);
    const TestPacket& second = setInfo(2);
    EXPECT_EQ(1, first.releases);
    EXPECT_EQ(0, second.releases);
    drop();
    EXPECT_EQ(1, second.releases);
}

TEST_F(LaneFeeds, WhatIsNotCompleteIsLetGoOnce) {
    add("abc");
    add("de");
    setInfo(1);
    drop();
    EXPECT_FALSE(isFilling());
    for (const TestPacket& one : packets) {
        EXPECT_EQ(1, one.releases);
    }
    drop();
    add("f", MEDIA_MARK_LAST);
    LanePacket& next = complete();
    EXPECT_EQ(1U, next.frame_bytes());
    next.release_frame();
    next.release_frame();
}

}  // namespace Orvex::Testing
