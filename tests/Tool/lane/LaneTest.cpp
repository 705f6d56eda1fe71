// Lane: what waits comes to the buffer whole and in order; what was lost is a gap there, and nothing else.
#include "Tool/lane/Lane.h"

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <Reticor/MediaStreamSender.h>

#include "Tool/media/MediaBufferState.h"
#include "support/media/MediaFixture.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {

using namespace Reticor;

// Nobody serves the lane but the test.
class LaneOfFrames : public MediaFixture {
protected:
    LaneOfFrames() { EXPECT_TRUE(lane->open()); }
    ~LaneOfFrames() override {
        for (const auto& one : clients) {
            lane->buffer().DelSender(one->sender);
        }
        lane->clear();
    }

    // A frame of that many packets for the lane. Gives its bytes.
    std::string give(int level, size_t length = 10, int channel = 0, uint32_t count = 1,
                     uint64_t complete_us = 0) {
        std::string bytes;
        LanePacket* first = nullptr;
        LanePacket* last = nullptr;
        for (uint32_t i = 0; i < count; ++i) {
            TestPacket& made = packet(length);
            bytes += made.bytes();
            LanePacket* const shared = store.take();
            shared->fill({&made, made.length(), i + 1 == count ? MEDIA_MARK_LAST : MEDIA_MARK_MORE,
                          mediaLevel(channel, level)},
                         1, true);
            if (first == nullptr) {
                first = shared;
            } else {
                last->link(shared);
            }
            last = shared;
        }
        first->set_frame(bytes.size(), complete_us, count, nullptr, 0);
        lane->put(*first);
        return bytes;
    }
    MediaClient& laneClient() {
        MediaClient& made = client();
        lane->buffer().AddSender(made.sender);
        return made;
    }
    void serve() {
        while (lane->serve(100)) {
        }
    }

    LanePacketStore store;
    std::shared_ptr<Lane> lane = std::make_shared<Lane>();
};

TEST_F(LaneOfFrames, WaitingFramesAreSentWholeAndInOrderWhenTheLaneIsServed) {
    const MediaClient& viewer = laneClient();
    std::string sent = give(1, 5, 0, 3);
    sent += give(5);
    EXPECT_EQ("", viewer.sock.wire()) << "the producer writes nothing";
    serve();
    EXPECT_EQ(sent, viewer.sock.wire());
}

TEST_F(LaneOfFrames, ServesAsManyFramesAsItIsTold) {
    const MediaClient& viewer = laneClient();
    const std::string first = give(1);
    const std::string second = give(5);
    EXPECT_TRUE(lane->serve(1));
    EXPECT_EQ(first, viewer.sock.wire());
    EXPECT_TRUE(lane->serve(1));
    EXPECT_EQ(first + second, viewer.sock.wire());
    EXPECT_FALSE(lane->serve(1));
}

TEST_F(LaneOfFrames, FrameThatWasLostIsAHoleToAClient) {
    lane->inbox().set_bounds(2, 1000);
    const MediaClient& viewer = laneClient();
    std::string sent = give(1);
    serve();
    give(5, 33);
    sent += give(4);
    sent += give(4);  // the first one goes
    serve();
    EXPECT_EQ(sent, viewer.sock.wire());
    const MediaSenderStats stats = viewer.sender->GetStats();
    EXPECT_EQ(1U, stats.holes);
    EXPECT_EQ(1U, stats.hole_frames);
    EXPECT_EQ(33U, stats.hole_bytes);
}

TEST_F(LaneOfFrames, ClientWithAPolicyWaitsForAKeyFrameAfterALoss) {
    for (const MediaResume mode : {MediaResume::AHEAD, MediaResume::STRICT}) {
        MediaClient& viewer = laneClient();
        viewer.sender->SetResumePolicy(1000000, mode);
        lane->inbox().set_bounds(100, 1000000);
        std::string sent = give(1);
        sent += give(5);
        serve();
        lane->inbox().set_bounds(1, 1000000);
        give(5);
        give(5);
        serve();
        give(5);
        serve();
        EXPECT_EQ(sent, viewer.sock.wire()) << "nothing that refers to what is lost";
        sent += give(1);
        serve();
        EXPECT_EQ(sent, viewer.sock.wire());
        lane->buffer().DelSender(viewer.sender);
    }
}

TEST_F(LaneOfFrames, LostDisposableFrameIsNotMissed) {
    lane->buffer().SetDisposableLevel(7);
    MediaClient& viewer = laneClient();
    viewer.sender->SetResumePolicy(1000000);
    std::string sent = give(1);
    sent += give(5);
    serve();
    lane->inbox().set_bounds(1, 1000000);
    give(7);
    sent += give(5);
    serve();
    EXPECT_EQ(sent, viewer.sock.wire());
}

TEST_F(LaneOfFrames, LostKeyFrameStillTellsWhatIsAKeyFrame) {
    lane->inbox().set_bounds(1, 1000000);
    give(2);
    give(2);
    give(1);  // both before are lost: keys are of level 1 from here on
    serve();
    MediaClient& viewer = laneClient();
    give(2);
    serve();
    EXPECT_EQ("", viewer.sock.wire());
    const std::string key = give(1);
    serve();
    EXPECT_EQ(key, viewer.sock.wire());
}

TEST_F(LaneOfFrames, LaneWithoutClientsCountsKeyLevelsAndNumbersFrames) {
    give(1);
    give(5);
    serve();
    const MediaClient& viewer = laneClient();
    give(5);
    serve();
    EXPECT_EQ("", viewer.sock.wire()) << "5 is known not to be the level of key frames";
    const std::string key = give(1);
    serve();
    EXPECT_EQ(key, viewer.sock.wire());
}

TEST_F(LaneOfFrames, SumsOfALaneThatStoodStillAreAGapAsWell) {
    MediaClient& viewer = laneClient();
    viewer.sender->SetResumePolicy(1000000, MediaResume::STRICT);
    std::string sent = give(1);
    serve();
    lane->inbox().set_bounds(1, 1000000);
    for (int i = 0; i < 6000; ++i) {
        give(5, 1);
    }
    serve();
    EXPECT_EQ(sent, viewer.sock.wire());
    sent += give(1);
    serve();
    EXPECT_EQ(sent, viewer.sock.wire());
    EXPECT_EQ(5999U, lane->inbox().stats().lost_frames);
    EXPECT_EQ(6000U, viewer.sender->GetStats().hole_frames + viewer.sender->GetStats().skipped_frames);
}

TEST_F(LaneOfFrames, TicksComeBetweenTheFramesWhereTheyWerePosted) {
    MediaClient& viewer = laneClient();
    viewer.sock.setRoom(15);
    std::string sent = give(1);
    give(10);
    serve();  // stands in the second frame
    give(10);
    for (int i = 0; i < 12; ++i) {
        lane->put_tick();
    }
    const std::string last = give(1);
    serve();
    EXPECT_EQ(1U, lane->buffer().GetStats().expired_frames) << "it grew old before the last one came";
    viewer.sock.setRoom(ShapedStream::UNLIMITED);
    lane->put_tick();
    serve();
    EXPECT_EQ(last, viewer.sock.wire().substr(20));
}

TEST_F(LaneOfFrames, AgeOfAFrameCountsFromWhenTheProducerEndedIt) {
    MediaClient& viewer = laneClient();
    give(1);
    serve();
    viewer.sock.setRoom(0);
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    give(1, 10, 0, 1, now_us - 5000000);
    serve();
    EXPECT_GE(viewer.sender->GetStats().lag_us, 5000000U);
    EXPECT_LT(viewer.sender->GetStats().lag_us, 5000000U + 60000000U);
}

TEST_F(LaneOfFrames, InformationIsToldAsTheProducersPacket) {
    MediaClient& viewer = laneClient();
    std::vector<std::tuple<CMediaPacket*, int, int>> told;
    std::vector<CMediaPacket*> offered;
    struct Told {
        std::vector<std::tuple<CMediaPacket*, int, int>>& sent;
        std::vector<CMediaPacket*>& asked;
        void note(CMediaPacket* info, int arg, int length) { sent.emplace_back(info, arg, length); }
        MediaVerdict judge(const MediaOffer& offer) {
            asked.push_back(offer.info);
            return MediaVerdict::SEND;
        }
    } notes{told, offered};
    EXPECT_TRUE(viewer.sender->AttachSendProc({&Told::note, &notes}));
    EXPECT_TRUE(viewer.sender->AttachFilter({&Told::judge, &notes}));
    TestPacket& made = packet(10);
    TestPacket& mine = packet(1);
    info.insert(&mine);
    LanePacket* const shared = store.take();
    shared->fill({&made, 10, MEDIA_MARK_LAST, 1}, 1, true);
    LanePacket* const about = store.take();
    about->fill({&mine, 0, 0, 0}, 1, false);
    shared->set_frame(10, 0, 1, about, 42);
    lane->put(*shared);
    serve();
    ASSERT_EQ(1U, told.size());
    EXPECT_EQ(std::make_tuple(static_cast<CMediaPacket*>(&mine), 42, 10), told[0]);
    EXPECT_EQ((std::vector<CMediaPacket*>{&mine}), offered);
    viewer.sender->DetachSendProc();
    viewer.sender->DetachFilter();
}

TEST_F(LaneOfFrames, FrameForWhichThereIsNoMemoryIsLostWhole) {
    MediaClient& viewer = laneClient();
    std::string sent = give(1);
    serve();
    viewer.sock.setRoom(0);
    viewer.sock.reserveWire(1000);
    released.reserve(100);
    std::vector<std::string> given;
    for (int i = 0; i < 8; ++i) {
        given.push_back(give(5, 10, 0, 3));
    }
    {
        const NoMemory none;
        lane->serve(8);
    }
    const uint32_t failures = lane->take_failures();
    EXPECT_GT(failures, 0U);
    EXPECT_LE(failures, 8U);
    EXPECT_EQ(0U, lane->take_failures()) << "counted once";
    viewer.sock.setRoom(ShapedStream::UNLIMITED);
    for (size_t i = 0; i + failures < given.size(); ++i) {
        sent += given[i];
    }
    sent += give(1);
    serve();
    EXPECT_EQ(sent, viewer.sock.wire());
    EXPECT_EQ(failures, viewer.sender->GetStats().hole_frames);
}

TEST_F(LaneOfFrames, ClearLetsGoWhatWaitsAndAllSenders) {
    const MediaClient& viewer = laneClient();
    give(1);
    lane->clear();
    EXPECT_EQ(1, packets.back().releases);
    EXPECT_FALSE(viewer.sender->GetStats().listed);
    EXPECT_FALSE(lane->serve(1));
}

TEST_F(LaneOfFrames, SenderLeavesAtOnceOutsideOfCallBacks) {
    MediaClient& viewer = laneClient();
    EXPECT_EQ(Lane::Left::NOW, Lane::leave(lane, *viewer.sender));
    EXPECT_FALSE(viewer.sender->GetStats().listed);
}

TEST_F(LaneOfFrames, SenderLeavesAnotherLaneWhenTheThreadIsOutOfAllCallBacks) {
    MediaClient& viewer = laneClient();
    TargetStepMark::enter();
    EXPECT_EQ(Lane::Left::LATER, Lane::leave(lane, *viewer.sender));
    EXPECT_TRUE(viewer.sender->GetStats().listed);
    TargetStepMark::leave();
    EXPECT_FALSE(viewer.sender->GetStats().listed);
}

TEST_F(LaneOfFrames, WithoutMemoryForTheNoteTheSenderStays) {
    MediaClient& viewer = laneClient();
    Lane::Left left = Lane::Left::NOW;
    TargetStepMark::enter();
    {
        const NoMemory none;
        left = Lane::leave(lane, *viewer.sender);
    }
    TargetStepMark::leave();
    EXPECT_EQ(Lane::Left::NO_MEMORY, left);
    EXPECT_TRUE(viewer.sender->GetStats().listed);
}

}  // namespace Orvex::Testing
