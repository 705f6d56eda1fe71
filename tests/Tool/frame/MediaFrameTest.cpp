// CFrame: packets in, a gather list out, each packet released once.
#include "Tool/frame/MediaFrame.h"

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

using MediaFrame = MediaFixture;

TEST_F(MediaFrame, BeginsEmpty) {
    const CFrame frame;
    EXPECT_EQ(frame.m_frame_len, 0);
    EXPECT_EQ(frame.m_sent_len, 0);
    EXPECT_EQ(frame.m_packet_cap, 32U);
    EXPECT_EQ(frame.m_packet_num, 0U);
    EXPECT_EQ(frame.m_mark, 0);
    EXPECT_EQ(frame.m_level, 1);
    EXPECT_EQ(frame.m_valid, 0);
    EXPECT_EQ(frame.m_age, -1);
    EXPECT_EQ(frame.m_key_mask, 0);
    EXPECT_EQ(frame.m_next, nullptr);
    EXPECT_EQ(frame.m_info_packet, nullptr);
    EXPECT_EQ(frame.m_info_arg, 0);
    EXPECT_EQ(frame.m_sender_count, 0);
}

TEST_F(MediaFrame, TheFirstFrameOfABufferAloneHasASentLengthBelowZero) {
    EXPECT_EQ(head()->m_sent_len, -1);
    joinedClient();
    EXPECT_EQ(current()->m_sent_len, 0);
}

TEST_F(MediaFrame, GrowsByThirtyTwoAndKeepsOrderAndLengths) {
    CFrame frame;
    for (std::size_t i = 0; i < 65; ++i) {
        TestPacket& made = packet(i % 5);
        EXPECT_EQ(frame.Put(&made, made.length(), i == 64 ? 1 : 0, 3), 0);
        EXPECT_EQ(frame.m_packet_cap, i < 32 ? 32U : i < 64 ? 64U : 96U);
    }
    for (std::size_t i = 0; i < 65; ++i) {
        EXPECT_EQ(frame.m_packet[i], &packets[i]);
        EXPECT_EQ(frame.m_iovec[i].iov_base, packets[i].bytes().data());
        EXPECT_EQ(frame.m_iovec[i].iov_len, i % 5);
        EXPECT_EQ(packets[i].asked, 1);
    }
    EXPECT_EQ(frame.m_frame_len, 130);
}

TEST_F(MediaFrame, TakesMarkAndLevelOfTheLastPacket) {
    CFrame frame;
    frame.Put(&packet(1), 1, 0, mediaLevel(3, 2));
    EXPECT_EQ(frame.m_valid, 0);
    frame.Put(&packet(1), 1, 7, mediaLevel(4, 9));
    EXPECT_EQ(frame.m_mark, 7);
    EXPECT_EQ(frame.m_valid, 0) << "only 1 ends a frame";
    frame.m_sent_len = -1;
    frame.Put(&packet(1), 1, 1, mediaLevel(5, 6));
    EXPECT_EQ(frame.m_mark, 1);
    EXPECT_EQ(frame.channel(), 5);
    EXPECT_EQ(frame.level(), 6);
    EXPECT_EQ(frame.m_valid, 1);
    EXPECT_EQ(frame.m_age, -1);
    EXPECT_EQ(frame.m_sent_len, 0);
}

TEST_F(MediaFrame, LevelWordsAreSplitWithTheirSigns) {
    EXPECT_EQ(channelOf(mediaLevel(7, 10)), 7);
    EXPECT_EQ(channelOf(mediaLevel(128, 1)), -128);
    EXPECT_EQ(channelOf(mediaLevel(255, 1)), -1);
    EXPECT_EQ(levelOf(mediaLevel(7, 10)), 10);
    EXPECT_EQ(levelOf(mediaLevel(7, -3)), -3);
    EXPECT_EQ(levelOf(mediaLevel(255, 0)), 0);
}

TEST_F(MediaFrame, APacketWithoutBytesIsAnEntryLikeAnyOther) {
    {
        CFrame frame;
        frame.Put(&packet(0), 0, 0, 1);
        frame.Put(&packet(4), 4, 1, 1);
        EXPECT_EQ(frame.m_packet_num, 2U);
        EXPECT_EQ(packets[0].asked, 1);
    }
    EXPECT_EQ(released, (std::vector<int>{0, 1}));
}

TEST_F(MediaFrame, ASecondInformationPacketReplacesTheFirst) {
    TestPacket& first = packet(1);
    TestPacket& second = packet(1);
    {
        CFrame frame;
        frame.PutInfo(&first, 5);
        frame.PutInfo(&second, 6);
        EXPECT_EQ(first.releases, 1);
        EXPECT_EQ(second.releases, 0);
        EXPECT_EQ(frame.m_info_packet, &second);
        EXPECT_EQ(frame.m_info_arg, 6);
    }
    EXPECT_EQ(second.releases, 1);
}

TEST_F(MediaFrame, ReleasesItsPacketsInOrderAndTheInformationPacketLast) {
    CFrame* const frame = new CFrame;
    TestPacket& about = packet(1);
    frame->PutInfo(&about, 0);
    for (int i = 0; i < 40; ++i) {
        frame->Put(&packet(3), 3, 0, 1);
    }
    delete frame;
    ASSERT_EQ(released.size(), 41U);
    EXPECT_EQ(released.back(), 0);
    EXPECT_TRUE(std::is_sorted(released.begin(), released.end() - 1));
}

TEST_F(MediaFrame, ClearReleasesAndKeepsTheArrays) {
    CFrame frame;
    TestPacket& about = packet(1);
    frame.PutInfo(&about, 3);
    for (int i = 0; i < 33; ++i) {
        frame.Put(&packet(3), 3, 1, mediaLevel(2, 7));
    }
    frame.m_key_mask = 4;
    frame.Clear();
    EXPECT_EQ(released.size(), 34U);
    EXPECT_EQ(frame.m_packet_num, 0U);
    EXPECT_EQ(frame.m_packet_cap, 64U);
    EXPECT_EQ(frame.m_frame_len, 0);
    EXPECT_EQ(frame.m_mark, 0);
    EXPECT_EQ(frame.m_level, 1);
    EXPECT_EQ(frame.m_valid, 0);
    EXPECT_EQ(frame.m_age, -1);
    EXPECT_EQ(frame.m_sent_len, -1);
    EXPECT_EQ(frame.m_key_mask, 0);
    EXPECT_EQ(frame.m_info_packet, nullptr);
}

TEST_F(MediaFrame, HoweverManySendersAPacketIsReleasedOnce) {
    for (int i = 0; i < 20; ++i) {
        buffer->AddSender(client().sender);
    }
    putInfo(1);
    put(0, 0);
    for (int i = 0; i < 9; ++i) {
        put(5, i == 8 ? 1 : 0);
    }
    EXPECT_EQ(released.size(), 11U);
    for (const auto& made : clients) {
        EXPECT_EQ(made->sock.wire().size(), 45U);
    }
}

}  // namespace Orvex::Testing
