// MediaBufferState: what a packet, a tick and a wish set off in the parts of a buffer. Nothing is asserted or
// said here: the results are looked at.
#include "Tool/media/MediaBufferState.h"

#include <cerrno>

#include "Tool/step/TargetStepMark.h"
#include "support/core/Probes.h"
#include "support/media/MediaFixture.h"
#include "support/media/SenderHandlerProbe.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

// The ways back to the buffer end here.
struct LoneState final : MediaBufferState {
    using MediaBufferState::MediaBufferState;
    void do_send() override { ++sweeps; }
    void come(CMediaStreamSender& sender) override { arrived.push_back(&sender); }

    int sweeps = 0;
    std::vector<const CMediaStreamSender*> arrived;
};

class MediaBufferStateOfABuffer : public MediaFixture {
protected:
    ~MediaBufferStateOfABuffer() override { own.retire(); }

    // A whole frame comes, of one packet.
    std::string frame(std::size_t length, int level = 1) {
        const MediaStep step(own.m_core);
        TestPacket& made = packet(length);
        EXPECT_EQ(0, own.accept(&made, made.length(), MEDIA_MARK_LAST, mediaLevel(0, level)));
        own.complete();
        if (own.sends()) {
            EXPECT_EQ(0U, own.send_packet(true, true));
        }
        own.m_frames.drop_expired();
        return made.bytes();
    }
    void tick() {
        const MediaStep step(own.m_core);
        EXPECT_EQ(0U, own.send_packet(false, true));
        own.m_frames.drop_expired();
    }
    void takeOff(MediaClient& one) {
        const MediaStep step(own.m_core);
        own.take_off(one.state(), false);
    }
    bool listed(const MediaClient& one) {
        const CoreGuard guard(*own.m_core);
        return own.m_senders.holds(one.state());
    }

    LoneState own{*buffer};
    MediaClient& a = client();
    MediaClient& b = client();
};

// Packets.

TEST_F(MediaBufferStateOfABuffer, ALevelBeyondItsBoundsIsMovedIntoThem) {
    const MediaStep step(own.m_core);
    TestPacket& high = packet(1);
    EXPECT_EQ(2, own.accept(&high, 1, MEDIA_MARK_MORE, mediaLevel(2, 4000)));
    EXPECT_EQ(10, own.m_frames.current()->level());
    TestPacket& low = packet(1);
    EXPECT_EQ(3, own.accept(&low, 1, MEDIA_MARK_LAST, mediaLevel(3, 0)));
    EXPECT_EQ(1, own.m_frames.current()->level());
    TestPacket& beyond = packet(1);
    EXPECT_EQ(-128, own.accept(&beyond, 1, MEDIA_MARK_LAST, mediaLevel(128, 1))) << "channels are not moved";
}

TEST_F(MediaBufferStateOfABuffer, HalfAFrameIsNotSent) {
    own.add_sender(a.state());
    frame(4);
    const MediaStep step(own.m_core);
    TestPacket& half = packet(3);
    own.accept(&half, half.length(), MEDIA_MARK_MORE, 1);
    EXPECT_FALSE(own.sends());
    TestPacket& rest = packet(3);
    own.accept(&rest, rest.length(), MEDIA_MARK_LAST, 1);
    own.complete();
    EXPECT_TRUE(own.sends());
}

TEST_F(MediaBufferStateOfABuffer, WithoutASenderACompleteFrameGoesAtOnce) {
    frame(4);
    EXPECT_EQ((std::vector<int>{0}), released);
    const CoreGuard guard(*own.m_core);
    EXPECT_FALSE(own.sends());
}

TEST_F(MediaBufferStateOfABuffer, AFrameStaysUntilTheSlowestIsPastIt) {
    own.add_sender(a.state());
    own.add_sender(b.state());
    const std::string first = frame(4);
    EXPECT_EQ((std::vector<int>{0}), released);
    b.sock.setRoom(2);
    const std::string second = frame(5);
    EXPECT_EQ(first + second, a.sock.wire());
    EXPECT_EQ(first + second.substr(0, 2), b.sock.wire());
    EXPECT_EQ((std::vector<int>{0}), released);
    b.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(first + second, b.sock.wire());
    EXPECT_EQ((std::vector<int>{0, 1}), released);
}

TEST_F(MediaBufferStateOfABuffer, OnlyWhatCountsAsATickMakesFramesOlder) {
    own.add_sender(a.state());
    frame(4);
    {
        const MediaStep step(own.m_core);
        TestPacket& late = packet(3);
        a.sock.setRoom(0);
        own.accept(&late, late.length(), MEDIA_MARK_LAST, mediaLevel(0, 10));
        own.complete();
        own.send_packet(true, false);
        EXPECT_EQ(CFrame::AGE_NEW, own.m_frames.head()->m_age);
        own.send_packet(false, true);
        EXPECT_EQ(CFrame::AGE_NEW + 1, own.m_frames.head()->m_age);
    }
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
}

TEST_F(MediaBufferStateOfABuffer, ANewSenderWaitsForAKeyFrame) {
    own.add_sender(a.state());
    frame(4, 1);
    own.add_sender(b.state());
    frame(5, 3);
    EXPECT_EQ("", b.sock.wire());
    const std::string key = frame(6, 1);
    EXPECT_EQ(key, b.sock.wire());
}

// Senders.

TEST_F(MediaBufferStateOfABuffer, AFailedSenderGoesAndWithTheLastOneAllFrames) {
    own.add_sender(a.state());
    own.add_sender(b.state());
    frame(4);
    a.sock.setRoom(0);
    const std::string bytes = frame(5);
    b.sock.clearWire();
    a.sock.fail(EPIPE);
    const std::string next = frame(6);
    EXPECT_FALSE(listed(a));
    EXPECT_TRUE(listed(b));
    EXPECT_EQ(next, b.sock.wire());
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
    b.sock.setRoom(0);
    b.sock.fail(EPIPE);
    frame(7);
    EXPECT_FALSE(listed(b));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), released);
}

TEST_F(MediaBufferStateOfABuffer, ASenderIsAddedOnce) {
    EXPECT_FALSE(own.add_sender(a.state()).m_here_already);
    const SenderEntry again = own.add_sender(a.state());
    EXPECT_TRUE(again.m_here_already);
    EXPECT_EQ(nullptr, again.m_list);
    EXPECT_EQ(2, HandlerProbe::references(*a.sender));
}

TEST_F(MediaBufferStateOfABuffer, InsideACallBackASenderComesWhenItIsOver) {
    {
        const MediaStep step(own.m_core);
        EXPECT_FALSE(own.add_sender(a.state()).m_here_already);
        EXPECT_TRUE(own.add_sender(a.state()).m_here_already) << "it is noted once";
        EXPECT_FALSE(listed(a));
        own.add_sender(b.state());
        own.take_off(b.state(), true);
    }
    EXPECT_EQ(std::vector<const CMediaStreamSender*>{a.sender}, own.arrived) << "b was taken off before";
}

TEST_F(MediaBufferStateOfABuffer, OfAnotherBufferASenderComesInsideNoCallBackOfAny) {
    own.add_sender(a.state());
    takeOff(a);
    LoneState second{*buffer};
    TargetStepMark::enter();
    EXPECT_FALSE(second.add_sender(a.state()).m_here_already);
    EXPECT_TRUE(second.arrived.empty());
    TargetStepMark::leave();
    EXPECT_EQ(std::vector<const CMediaStreamSender*>{a.sender}, second.arrived);
    second.retire();
}

TEST_F(MediaBufferStateOfABuffer, InsideACallBackASenderIsMarkedAndGoesAtTheEnd) {
    own.add_sender(a.state());
    own.add_sender(b.state());
    frame(4);
    {
        const MediaStep step(own.m_core);
        own.take_off(a.state(), true);
        EXPECT_TRUE(own.m_senders.holds(a.state()));
        TestPacket& made = packet(5);
        own.accept(&made, made.length(), MEDIA_MARK_LAST, 1);
        own.complete();
        own.send_packet(true, true);
        EXPECT_EQ(4U, a.sock.wire().size()) << "its socket may be closed already";
        EXPECT_EQ(9U, b.sock.wire().size());
    }
    EXPECT_FALSE(listed(a));
    EXPECT_TRUE(listed(b));
}

// The end.

TEST_F(MediaBufferStateOfABuffer, AfterItsEndNeitherTimerNorSenderFindsIt) {
    own.m_auto_send.enable(100);
    own.add_sender(a.state());
    frame(4);
    a.sock.setRoom(0);
    frame(5);
    EXPECT_TRUE(SenderHandlerProbe::tick());
    EXPECT_EQ(1, own.sweeps);
    own.retire();
    EXPECT_EQ((std::vector<int>{0, 1}), released);
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
    EXPECT_FALSE(SenderHandlerProbe::tick()) << "nobody is on the timer's list";
    EXPECT_EQ(1, own.sweeps);
    {
        const MediaStep step(own.m_core);
        own.add_sender(a.state());
    }
    EXPECT_TRUE(own.arrived.empty());
}

TEST_F(MediaBufferStateOfABuffer, CountersAreOfAllParts) {
    own.add_sender(a.state());
    own.add_sender(b.state());
    frame(4);
    b.sock.setRoom(0);
    frame(5);
    const MediaBufferStats stats = own.stats();
    EXPECT_EQ(9U, stats.byte_total);
    EXPECT_EQ(1U, stats.frames);
    EXPECT_EQ(5U, stats.bytes);
    EXPECT_EQ(2U, stats.senders);
    b.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
}

}  // namespace
}  // namespace Orvex::Testing
