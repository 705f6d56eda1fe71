// LanePacket: asked for its bytes once and released once, however many lanes share it; memory is used again.
#include "Tool/lane/LanePacket.h"

#include <deque>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

class LanePackets : public ::testing::Test {
protected:
    TestPacket& packet(const std::string& bytes = "abc") {
        packets.emplace_back(static_cast<int>(packets.size()), bytes, &released);
        return packets.back();
    }
    LanePacket& filled(TestPacket& of, uint32_t holders, int mark = MEDIA_MARK_LAST, int level = 1) {
        LanePacket* const made = store.take();
        made->fill({&of, of.length(), mark, level}, holders, true);
        return *made;
    }

    std::vector<int> released;
    std::deque<TestPacket> packets;
    LanePacketStore store;
};

TEST_F(LanePackets, ProducersPacketIsAskedOnceAndReleasedByTheLastHolder) {
    TestPacket& one = packet();
    LanePacket& shared = filled(one, 3);
    for (int lane = 0; lane < 3; ++lane) {
        EXPECT_EQ(0, one.releases);
        EXPECT_EQ(one.bytes(), std::string(shared.GetBuffer(), 3));
        EXPECT_EQ(0, shared.Release());
    }
    EXPECT_EQ(1, one.asked);
    EXPECT_EQ(1, one.releases);
}

TEST_F(LanePackets, InformationPacketIsNotAskedForBytes) {
    TestPacket& one = packet();
    LanePacket* const shared = store.take();
    shared->fill({&one, 0, 0, 0}, 1, false);
    EXPECT_EQ(&one, shared->packet());
    shared->Release();
    EXPECT_EQ(0, one.asked);
    EXPECT_EQ(1, one.releases);
}

TEST_F(LanePackets, PacketKeepsWhatItWasPutWith) {
    LanePacket& shared = filled(packet("abcd"), 1, MEDIA_MARK_MORE, mediaLevel(3, 7));
    EXPECT_EQ(4, shared.len());
    EXPECT_EQ(MEDIA_MARK_MORE, shared.mark());
    EXPECT_EQ(mediaLevel(3, 7), shared.level());
    EXPECT_EQ(nullptr, shared.next());
    shared.Release();
}

TEST_F(LanePackets, FrameIsReleasedInOrderWithItsInformationLast) {
    LanePacket& first = filled(packet(), 1, MEDIA_MARK_MORE);
    LanePacket& second = filled(packet(), 1, MEDIA_MARK_LAST, mediaLevel(2, 5));
    LanePacket& info = filled(packet(), 1);
    first.link(&second);
    first.set_frame(6, 77, 2, &info, 9);
    EXPECT_EQ(6U, first.frame_bytes());
    EXPECT_EQ(77U, first.complete_us());
    EXPECT_EQ(2U, first.packets());
    EXPECT_EQ(9, first.info_arg());
    EXPECT_EQ(mediaLevel(2, 5), first.frame_level()) << "the word of the last packet counts";
    first.release_frame();
    EXPECT_EQ((std::vector<int>{0, 1, 2}), released);
}

TEST_F(LanePackets, FrameStaysUntilEachLaneHasReleasedIt) {
    LanePacket& first = filled(packet(), 2, MEDIA_MARK_MORE);
    first.link(&filled(packet(), 2));
    first.set_frame(6, 0, 2, nullptr, 0);
    first.release_frame();
    EXPECT_TRUE(released.empty());
    first.release_frame();
    EXPECT_EQ((std::vector<int>{0, 1}), released);
}

TEST_F(LanePackets, StreamThatRunsTakesNoMemory) {
    for (int round = 0; round < 100; ++round) {
        LanePacket& one = filled(packet(), 1);
        LanePacket& two = filled(packet(), 1);
        two.Release();
        one.Release();
    }
    EXPECT_EQ(2U, store.made());
}

TEST_F(LanePackets, PacketFromTheStoreHasNothingOfItsEarlierUse) {
    LanePacket& used = filled(packet(), 1);
    used.set_frame(6, 77, 2, nullptr, 9);
    used.Release();
    LanePacket& next = filled(packet("xy"), 1);
    EXPECT_EQ(&used, &next);
    EXPECT_EQ(0U, next.frame_bytes());
    EXPECT_EQ(0U, next.packets());
    EXPECT_EQ(0, next.info_arg());
    EXPECT_EQ("xy", std::string(next.GetBuffer(), 2));
    next.Release();
}

TEST_F(LanePackets, ProducerThatFillsInsideReleaseFindsThePacketInTheStore) {
    TestPacket& one = packet();
    LanePacket* again = nullptr;
    one.on_release = [&] { again = store.take(); };
    LanePacket& shared = filled(one, 1);
    shared.Release();
    EXPECT_EQ(&shared, again);
    store.give_back(*again);
}

// Each packet is counted by its class without a lock, so a wrong order of memory shows under a sanitizer.
class CountedBytes : public CMediaPacket {
public:
    int Release() override {
        m_byte = 0;
        ++m_released;
        return 0;
    }
    char* GetBuffer() override { return &m_byte; }
    char m_byte = 'x';
    int m_released = 0;
};

TEST_F(LanePackets, LanesOnThreadsOfTheirOwnReleaseEachPacketOnce) {
    constexpr uint32_t LANES = 3;
    constexpr int PACKETS = 2000;
    std::vector<CountedBytes> bytes(PACKETS);
    std::vector<LanePacket*> shared;
    for (CountedBytes& one : bytes) {
        shared.push_back(store.take());
        shared.back()->fill({&one, 1, MEDIA_MARK_LAST, 1}, LANES, true);
    }
    std::vector<std::thread> lanes;
    for (uint32_t lane = 0; lane < LANES; ++lane) {
        lanes.emplace_back([&shared] {
            for (LanePacket* const packet : shared) {
                EXPECT_EQ('x', *packet->GetBuffer());
                packet->Release();
            }
        });
    }
    for (std::thread& lane : lanes) {
        lane.join();
    }
    for (const CountedBytes& one : bytes) {
        EXPECT_EQ(1, one.m_released);
    }
}

}  // namespace Orvex::Testing
