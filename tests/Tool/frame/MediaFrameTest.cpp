// CFrame: packets in, a gather list out, each packet released once.
#include "Tool/frame/MediaFrame.h"

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

using MediaFrame = MediaFixture;

TEST_F(MediaFrame, BeginsEmpty) {
    const CFrame frame;
    EXPECT_EQ(0, frame.m_frame_len);
    EXPECT_EQ(0, frame.m_sent_len);
    EXPECT_EQ(32U, frame.m_packet_cap);
    EXPECT_EQ(0U, frame.m_packet_num);
    EXPECT_EQ(0, frame.m_mark);
    EXPECT_EQ(1, frame.m_level);
    EXPECT_EQ(0, frame.m_valid);
    EXPECT_EQ(-1, frame.m_age);
    EXPECT_EQ(0, frame.m_key_mask);
    EXPECT_EQ(nullptr, frame.m_next);
    EXPECT_EQ(nullptr, frame.m_info_packet);
    EXPECT_EQ(0, frame.m_info_arg);
    EXPECT_EQ(0, frame.m_sender_count);
}

TEST_F(MediaFrame, TheFirstFrameOfABufferAloneHasASentLengthBelowZero) {
    EXPECT_EQ(-1, head()->m_sent_len);
    joinedClient();
    EXPECT_EQ(0, current()->m_sent_len);
}

TEST_F(MediaFrame, GrowsByThirtyTwoAndKeepsOrderAndLengths) {
    CFrame frame;
    for (std::size_t i = 0; i < 65; ++i) {
        TestPacket& made = packet(i % 5);
        EXPECT_EQ(0, frame.Put(&made, made.length(), i == 64 ? 1 : 0, 3));
        EXPECT_EQ(frame.m_packet_cap, i < 32 ? 32U : i < 64 ? 64U : 96U);
    }
    for (std::size_t i = 0; i < 65; ++i) {
        EXPECT_EQ(frame.m_packet[i], &packets[i]);
        EXPECT_EQ(frame.m_iovec[i].iov_base, packets[i].bytes().data());
        EXPECT_EQ(frame.m_iovec[i].iov_len, i % 5);
        EXPECT_EQ(1, packets[i].asked);
    }
    EXPECT_EQ(130, frame.m_frame_len);
}

TEST_F(MediaFrame, TakesMarkAndLevelOfTheLastPacket) {
    CFrame frame;
    frame.Put(&packet(1), 1, 0, mediaLevel(3, 2));
    EXPECT_EQ(0, frame.m_valid);
    frame.Put(&packet(1), 1, 7, mediaLevel(4, 9));
    EXPECT_EQ(7, frame.m_mark);
    EXPECT_EQ(0, frame.m_valid) << "only 1 ends a frame";
    frame.m_sent_len = -1;
    frame.Put(&packet(1), 1, 1, mediaLevel(5, 6));
    EXPECT_EQ(1, frame.m_mark);
    EXPECT_EQ(5, frame.channel());
    EXPECT_EQ(6, frame.level());
    EXPECT_EQ(1, frame.m_valid);
    EXPECT_EQ(-1, frame.m_age);
    EXPECT_EQ(0, frame.m_sent_len);
}

TEST_F(MediaFrame, AnExpiredFrameIsNeitherFillingNorComplete) {
    CFrame frame;
    EXPECT_TRUE(frame.is_filling());
    frame.Put(&packet(0), 0, 1, 1);
    EXPECT_TRUE(frame.is_hollow());
    frame.expire();
    EXPECT_FALSE(frame.is_hollow());
    EXPECT_FALSE(frame.is_filling());
}

TEST_F(MediaFrame, IsAKeyFrameOfItsOwnChannelAlone) {
    CFrame frame;
    frame.Put(&packet(1), 1, 1, mediaLevel(3, 2));
    EXPECT_FALSE(frame.is_key());
    frame.set_key();
    EXPECT_TRUE(frame.is_key());
    EXPECT_EQ(1 << 3, frame.m_key_mask);
}

TEST_F(MediaFrame, SentBytesAreThoseOfSendersInTheMiddle) {
    CFrame frame;
    frame.Put(&packet(10), 10, 1, 1);
    frame.add_sent(4);
    frame.add_sent(7);
    frame.add_sent(3);
    frame.end_sent();
    EXPECT_EQ(4, frame.m_sent_len) << "one is through, the other one has written four";
}

TEST_F(MediaFrame, LevelWordsAreSplitWithTheirSigns) {
    EXPECT_EQ(7, channel_of(mediaLevel(7, 10)));
    EXPECT_EQ(-128, channel_of(mediaLevel(128, 1)));
    EXPECT_EQ(-1, channel_of(mediaLevel(255, 1)));
    EXPECT_EQ(10, level_of(mediaLevel(7, 10)));
    EXPECT_EQ(-3, level_of(mediaLevel(7, -3)));
    EXPECT_EQ(0, level_of(mediaLevel(255, 0)));
}

TEST_F(MediaFrame, APacketWithoutBytesIsAnEntryLikeAnyOther) {
    {
        CFrame frame;
        frame.Put(&packet(0), 0, 0, 1);
        frame.Put(&packet(4), 4, 1, 1);
        EXPECT_EQ(2U, frame.m_packet_num);
        EXPECT_EQ(1, packets[0].asked);
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
        EXPECT_EQ(1, first.releases);
        EXPECT_EQ(0, second.releases);
        EXPECT_EQ(frame.m_info_packet, &second);
        EXPECT_EQ(6, frame.m_info_arg);
    }
    EXPECT_EQ(1, second.releases);
}

TEST_F(MediaFrame, ReleasesItsPacketsInOrderAndTheInformationPacketLast) {
    CFrame* const frame = new CFrame;
    TestPacket& about = packet(1);
    frame->PutInfo(&about, 0);
    for (int i = 0; i < 40; ++i) {
        frame->Put(&packet(3), 3, 0, 1);
    }
    delete frame;
    ASSERT_EQ(41U, released.size());
    EXPECT_EQ(0, released.back());
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
    EXPECT_EQ(34U, released.size());
    EXPECT_EQ(0U, frame.m_packet_num);
    EXPECT_EQ(64U, frame.m_packet_cap);
    EXPECT_EQ(0, frame.m_frame_len);
    EXPECT_EQ(0, frame.m_mark);
    EXPECT_EQ(1, frame.m_level);
    EXPECT_EQ(0, frame.m_valid);
    EXPECT_EQ(-1, frame.m_age);
    EXPECT_EQ(-1, frame.m_sent_len);
    EXPECT_EQ(0, frame.m_key_mask);
    EXPECT_EQ(nullptr, frame.m_info_packet);
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
    EXPECT_EQ(11U, released.size());
    for (const auto& made : clients) {
        EXPECT_EQ(45U, made->sock.wire().size());
    }
}

}  // namespace Orvex::Testing
