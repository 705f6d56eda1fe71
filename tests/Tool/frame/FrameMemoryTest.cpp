// Frames without memory: what fails, what is as it was, and what needs none.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Tool/frame/FrameRest.h"
#include "Tool/frame/FrameStore.h"
#include "support/media/MediaFixture.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class FrameRestMemory : public ::testing::Test {
protected:
    FrameRestMemory() {
        for (TestPacket& packet : packets) {
            frame.Put(&packet, packet.length(), MEDIA_MARK_MORE, 3);
        }
    }

    std::vector<int> released;
    TestPacket packets[3] = {{1, "ab", &released}, {2, "", &released}, {3, "cde", &released}};
    CFrame frame;
};

// Whichever allocation it is: nothing comes of it, nothing is left (LeakSanitizer looks), and the frame that
// was to be copied keeps its packets.
TEST_F(FrameRestMemory, ACopyIsWholeOrThereIsNone) {
    for (const bool between : {false, true}) {
        size_t successes = 0;
        for (;; ++successes) {
            ASSERT_LT(successes, 50U);
            CFrame* copy = nullptr;
            {
                const OneAllocationFails fault(successes);
                copy = FrameRest::copy(frame, 0, 3, between);
            }
            if (copy != nullptr) {
                EXPECT_EQ(between ? 4U : 3U, copy->m_packet_num);
                EXPECT_EQ(5, copy->m_frame_len);
                delete copy;
                break;
            }
        }
        // The frame, and for each packet its bytes and itself.
        EXPECT_EQ(between ? 9U : 7U, successes);
        EXPECT_EQ(3U, frame.m_packet_num);
        EXPECT_TRUE(released.empty());
    }
}

TEST_F(FrameRestMemory, NothingOfAFrameIsAFrameWithoutPackets) {
    const std::unique_ptr<CFrame> rest(FrameRest::copy(frame, 2, 2, false));
    ASSERT_NE(nullptr, rest);
    EXPECT_EQ(0U, rest->m_packet_num);
    EXPECT_EQ(0, rest->m_frame_len);
}

TEST_F(FrameRestMemory, TheCopysMarkAndLevelAreTheFrames) {
    frame.m_mark = MEDIA_MARK_LAST;
    const std::unique_ptr<CFrame> rest(FrameRest::copy(frame, 0, 1, true));
    ASSERT_NE(nullptr, rest);
    EXPECT_EQ(MEDIA_MARK_LAST, rest->m_mark);
    EXPECT_EQ(frame.m_level, rest->m_level);
    EXPECT_EQ(1, rest->m_valid);
    const std::unique_ptr<CFrame> begun(FrameRest::copy(frame, 0, 0, true));
    EXPECT_EQ(MEDIA_MARK_MORE, begun->m_mark) << "the empty one that comes first ends nothing";
}

TEST(FrameStoreMemory, WhatRestsIsThereWithoutMemory) {
    CFrameStore store;
    ASSERT_TRUE(store.hold(5));
    std::vector<CFrame*> frames;
    frames.reserve(6);
    {
        const NoMemory none;
        EXPECT_TRUE(store.hold(5)) << "it is there already";
        EXPECT_TRUE(store.hold(0));
        EXPECT_FALSE(store.hold(6));
        for (int i = 0; i < 5; ++i) {
            frames.push_back(store.make());
            EXPECT_NE(nullptr, frames.back());
        }
        EXPECT_EQ(nullptr, store.make());
        EXPECT_FALSE(store.hold(1)) << "in use is not at rest";
    }
    CFrame* const another = store.make();
    EXPECT_NE(nullptr, another);
    store.end(another);
    for (CFrame* const frame : frames) {
        store.end(frame);
    }
}

// Memory for some of them is not lost when there is none for the rest.
TEST(FrameStoreMemory, AHoldThatFailsKeepsWhatItGot) {
    CFrameStore store;
    {
        const NoMemory none(3);
        EXPECT_FALSE(store.hold(10));
    }
    const NoMemory none;
    EXPECT_TRUE(store.hold(3));
    EXPECT_FALSE(store.hold(4));
}

TEST(FrameStoreMemory, ARunningStreamAllocatesNothing) {
    if (CFrameStore::SPARES_MOST == 0) {
        return;  // A sanitizer sees every end of memory.
    }
    CFrameStore store;
    std::vector<int> released;
    TestPacket packet(1, "x", &released);
    ASSERT_TRUE(store.hold(2));
    released.reserve(1000);
    const size_t before = allocationCount();
    for (int i = 0; i < 500; ++i) {
        CFrame* const first = store.make();
        CFrame* const second = store.make();
        first->Put(&packet, 1, MEDIA_MARK_LAST, 1);
        store.end(first);
        store.end(second);
    }
    EXPECT_EQ(before, allocationCount());
    EXPECT_EQ(500, packet.releases);
}

}  // namespace
}  // namespace Orvex::Testing
