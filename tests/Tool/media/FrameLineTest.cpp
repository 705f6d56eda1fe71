// FrameLine: frames are appended, completed, and go by position or by age.
#include "Tool/media/FrameLine.h"

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class FrameLineOfABuffer : public MediaFixture {
protected:
    ~FrameLineOfABuffer() override {
        const CoreGuard guard(*core);
        while (own.head() != nullptr) {
            own.drop_head();
        }
    }

    void frame(std::size_t length, int level = 1) INFRA_REQUIRES(CORE_MUTEX) {
        TestPacket& made = packet(length);
        own.append(&made, made.length(), MEDIA_MARK_LAST, mediaLevel(0, level));
        own.complete();
        own.open_next();
    }

    std::shared_ptr<MediaCore> core = std::make_shared<MediaCore>();
    FrameLine own{*core, this};
};

TEST_F(FrameLineOfABuffer, CompleteFramesAreNumberedAndKnowTheirPlace) {
    const CoreGuard guard(*core);
    frame(10);
    frame(7, 3);
    const CFrame* const first = own.head();
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(1U, first->m_ordinal);
    EXPECT_TRUE(first->is_key());
    const CFrame* const second = first->m_next;
    EXPECT_EQ(2U, second->m_ordinal);
    EXPECT_EQ(10U, second->m_begin);
    EXPECT_FALSE(second->is_key());
    EXPECT_EQ(own.current(), second->m_next);
    EXPECT_EQ(17U, own.size());
    EXPECT_EQ(17U, core->m_byte_total);
    EXPECT_EQ(1, own.min_level(0));
    EXPECT_EQ(10, own.min_level(1));
}

TEST_F(FrameLineOfABuffer, WhatAllHavePassedGoesAndAHalfPassedFrameStays) {
    const CoreGuard guard(*core);
    frame(10);
    frame(10);
    frame(10);
    EXPECT_EQ(0U, own.let_pass(25));
    EXPECT_EQ((std::vector<int>{0, 1}), released);
    EXPECT_EQ(20U, own.byte_discard());
    EXPECT_EQ(2U, own.frame_num());
    EXPECT_EQ(0U, own.let_pass(5)) << "positions do not go back";
    EXPECT_EQ(0U, own.let_pass(30));
    EXPECT_EQ(3U, released.size());
}

TEST_F(FrameLineOfABuffer, AFrameExpiresAtTheTickOfItsLevelUnlessASenderIsAtWorkOnIt) {
    const CoreGuard guard(*core);
    frame(10, 10);
    frame(10, 9);
    own.head()->m_sender_count = 1;
    for (int tick = 0; tick < 11; ++tick) {
        own.age();
        own.drop_expired();
    }
    EXPECT_TRUE(released.empty());
    own.head()->m_sender_count = 0;
    own.age();
    own.drop_expired();
    EXPECT_EQ((std::vector<int>{0}), released);
    for (int tick = 12; tick < 21; ++tick) {
        EXPECT_EQ(1U, released.size());
        own.age();
        own.drop_expired();
    }
    EXPECT_EQ(2U, released.size());
    EXPECT_EQ(own.head(), own.current());
    EXPECT_EQ(20U, own.byte_discard());
}

TEST_F(FrameLineOfABuffer, AFrameWithoutAByteGoesAfterItsSteps) {
    const CoreGuard guard(*core);
    frame(0, 10);
    for (int step = 1; step < 10; ++step) {
        EXPECT_EQ(nullptr, own.age_hollow(nullptr));
    }
    const CFrame* const expired = own.age_hollow(nullptr);
    EXPECT_EQ(own.head(), expired);
    EXPECT_EQ(nullptr, own.age_hollow(expired));
    own.drop_expired();
    EXPECT_EQ(1U, released.size());
    EXPECT_EQ(nullptr, own.age_hollow(nullptr));
}

TEST_F(FrameLineOfABuffer, WithoutSendersOnlyTheFrameThatIsBeingFilledStays) {
    const CoreGuard guard(*core);
    frame(10);
    frame(10);
    TestPacket& half = packet(4);
    own.append(&half, half.length(), MEDIA_MARK_MORE, 1);
    own.drop_complete();
    EXPECT_EQ(2U, released.size());
    EXPECT_EQ(own.head(), own.current());
    EXPECT_EQ(4U, core->m_byte_total);
    EXPECT_EQ(0U, own.byte_discard());
}

}  // namespace
}  // namespace Orvex::Testing
