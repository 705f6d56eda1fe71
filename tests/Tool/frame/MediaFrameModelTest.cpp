// CFrame beside a model: packets in any number and order, their list, and one release of each.
#include "Tool/frame/MediaFrame.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <Reticor/MediaPacket.h>

#include "support/SeededRandom.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class MediaFrameModel : public ::testing::Test {
protected:
    MediaFrameModel() : frame(std::make_unique<CFrame>()) {}
    ~MediaFrameModel() override {
        end_frame();
        for (const TestPacket& packet : all) {
            EXPECT_EQ(1, packet.releases);
        }
    }

    TestPacket& packet(SeededRandom& random) {
        const int number = static_cast<int>(all.size());
        return all.emplace_back(number, std::string(random.between<size_t>(0, 9), 'x'), &released);
    }
    void put(SeededRandom& random) {
        TestPacket& made = packet(random);
        mark = random.oneIn(10) ? MEDIA_MARK_LAST : random.oneIn(10) ? 7 : MEDIA_MARK_MORE;
        level = static_cast<int>(random.between<uint32_t>(0, UINT32_MAX));
        EXPECT_EQ(0, frame->Put(&made, made.length(), mark, level));
        EXPECT_EQ(1, made.asked) << "for its bytes, once";
        inside.push_back(&made);
        length += made.length();
        valid = valid || mark == MEDIA_MARK_LAST;
    }
    void put_info(SeededRandom& random) {
        TestPacket& made = packet(random);
        EXPECT_EQ(0, frame->PutInfo(&made, 100 + static_cast<int>(all.size())));
        if (info != nullptr) {
            expected_releases.push_back(numberOf(*info));
        }
        info = &made;
    }
    // In order, and the information packet last.
    void expect_all_to_go() {
        for (const TestPacket* gone : inside) {
            expected_releases.push_back(numberOf(*gone));
        }
        if (info != nullptr) {
            expected_releases.push_back(numberOf(*info));
        }
        inside.clear();
        info = nullptr;
        length = 0;
        valid = false;
        mark = 0;
        level = 1;
    }
    void clear() {
        frame->Clear();
        expect_all_to_go();
        EXPECT_EQ(-1, frame->m_sent_len);
    }
    void end_frame() {
        frame.reset();
        expect_all_to_go();
        EXPECT_EQ(expected_releases, released);
        most = 0;
    }
    int numberOf(const TestPacket& one) const {
        for (size_t i = 0; i < all.size(); ++i) {
            if (&all[i] == &one) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }
    void expect_same() {
        ASSERT_EQ(inside.size(), frame->m_packet_num);
        for (size_t i = 0; i < inside.size(); ++i) {
            ASSERT_EQ(inside[i], frame->m_packet[i]);
            ASSERT_EQ(inside[i]->bytes().data(), frame->m_iovec[i].iov_base);
            ASSERT_EQ(inside[i]->bytes().size(), frame->m_iovec[i].iov_len);
        }
        most = std::max(most, inside.size());
        const size_t steps = most <= 32 ? 1 : (most + 31) / 32;
        ASSERT_EQ(32 * steps, frame->m_packet_cap) << "by thirty-two, and never back";
        ASSERT_EQ(length, frame->m_frame_len);
        ASSERT_EQ(mark, frame->m_mark);
        ASSERT_EQ(level, frame->m_level);
        ASSERT_EQ(valid ? 1 : 0, frame->m_valid);
        ASSERT_EQ(info, frame->m_info_packet);
        ASSERT_EQ(valid && length < 1, frame->is_hollow());
        ASSERT_EQ(!valid, frame->is_filling());
        ASSERT_EQ(expected_releases, released);
    }

    std::deque<TestPacket> all;
    std::vector<int> released;
    std::vector<int> expected_releases;
    std::unique_ptr<CFrame> frame;
    std::vector<TestPacket*> inside;
    TestPacket* info = nullptr;
    int64_t length = 0;
    int mark = 0;
    int level = 1;
    bool valid = false;
    size_t most = 0;
};

TEST_F(MediaFrameModel, HoldsWhatWasPutAndReleasesEachPacketOnceInOrder) {
    SeededRandom random;
    for (int step = 0; step < 1500 && !HasFatalFailure(); ++step) {
        if (random.oneIn(10)) {
            put_info(random);
        } else if (random.oneIn(100)) {
            clear();
        } else if (random.oneIn(150)) {
            end_frame();
            frame = std::make_unique<CFrame>();
        } else {
            put(random);
        }
        expect_same();
    }
}

TEST(MediaFrameWords, ChannelAndLevelAreTheTwoHalvesOfEveryWord) {
    SeededRandom random;
    for (int i = 0; i < 10000; ++i) {
        const int channel = random.between(-128, 127);
        const int level = random.between(-(1 << 23), (1 << 23) - 1);
        const auto word = static_cast<int>(static_cast<uint32_t>(channel) << 24 |
                                           (static_cast<uint32_t>(level) & 0xFFFFFFU));
        ASSERT_EQ(channel, channel_of(word));
        ASSERT_EQ(level, level_of(word));
    }
}

TEST(MediaFrameWords, ALateLookComesWithTimeOrAnotherKeyFrame) {
    CFrame frame;
    EXPECT_TRUE(frame.is_to_be_looked_at(1, 0)) << "nobody has looked yet";
    frame.looked_late(500, 3);
    EXPECT_FALSE(frame.is_to_be_looked_at(500, 3));
    EXPECT_TRUE(frame.is_to_be_looked_at(501, 3));
    EXPECT_TRUE(frame.is_to_be_looked_at(500, 4));
    frame.look_late_again();
    EXPECT_TRUE(frame.is_to_be_looked_at(1, 3));
}

TEST(MediaFrameWords, APartOfAnotherFrameTellsTheOthersLengthAndNumber) {
    std::vector<int> released;
    TestPacket long_packet(0, "0123456789", &released);
    TestPacket info(1, "", &released);
    TestPacket short_packet(2, "x", &released);
    CFrame whole;
    whole.Put(&long_packet, 10, MEDIA_MARK_LAST, 1);
    whole.PutInfo(&info, 77);
    CFrame part;
    part.Put(&short_packet, 1, MEDIA_MARK_LAST, 1);
    part.tell_as(whole);
    EXPECT_EQ(10, part.m_frame_len);
    EXPECT_EQ(77, part.m_info_arg);
    EXPECT_EQ(nullptr, part.m_info_packet) << "which stays the other one's";
    EXPECT_EQ(1U, part.m_packet_num);
}

}  // namespace
}  // namespace Orvex::Testing
