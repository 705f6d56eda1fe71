// Senders that step ahead when they are late: what they get, what is kept for them, and what the others see.
#include "support/HandClock.h"
#include "support/LogCapture.h"
#include "support/media/MediaFixture.h"
#include "support/media/Pictures.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr unsigned LIMIT_MS = 300;
constexpr int DISPOSABLE = 8;

}  // namespace

class MediaStepAhead : public MediaFixture {
protected:
    MediaClient& viewer(unsigned max_lag_ms = LIMIT_MS, unsigned hard_lag_ms = 0) {
        MediaClient& made = client();
        made.sender->SetResumePolicy(max_lag_ms, MediaResume::AHEAD, hard_lag_ms);
        made.sender->WaitSkip(waiter->GetID(), 77);
        buffer->AddSender(made.sender);
        return made;
    }

    // The next frame of the stream, 40 ms later: a key frame of 30 bytes each 10 frames, others of 10.
    std::string frame(int channel = 0) {
        const bool key = m_number++ % GROUP == 0;
        return late_put(key ? 30 : 10, key ? 1 : 5, channel);
    }
    std::vector<std::string> frames_of(int count) {
        std::vector<std::string> made;
        for (int i = 0; i < count; ++i) {
            made.push_back(frame());
        }
        return made;
    }
    std::string late_put(std::size_t length, int level, int channel = 0) {
        clock.advanceUs(FRAME_US);
        return put(length, 1, level, channel);
    }
    static std::string joined(const std::vector<std::string>& parts, std::size_t from = 0) {
        std::string all;
        for (std::size_t i = from; i < parts.size(); ++i) {
            all += parts[i];
        }
        return all;
    }
    // All that waits may go now.
    void open(MediaClient& one) {
        one.sock.setRoom(ShapedStream::UNLIMITED);
        tick();
    }
    std::vector<MediaSkip> skips() {
        std::vector<MediaSkip> found;
        for (const SentMessage& message : messages()) {
            EXPECT_EQ(77U, std::get<1>(message));
            found.push_back(MediaSkip::of(std::get<2>(message)));
        }
        return found;
    }
    std::uint32_t kept() { return buffer->GetStats().kept_frames; }

    HandClock clock;

private:
    int m_number = 0;
};

TEST_F(MediaStepAhead, AFastViewerGetsEverythingAndNothingIsKept) {
    MediaClient& a = viewer();
    std::string all;
    for (int i = 0; i < 25; ++i) {
        all += frame();
        EXPECT_EQ(0U, kept());
    }
    EXPECT_EQ(all, a.sock.wire());
    EXPECT_TRUE(skips().empty());
    EXPECT_EQ(1U, frames()) << "to the list it has caught up";
}

TEST_F(MediaStepAhead, WithoutANewerKeyFrameALateViewerGoesOn) {
    MediaClient& a = viewer();
    std::string all = frame();
    a.sock.setRoom(5);
    all += joined(frames_of(9));
    clock.advanceUs(2000000);
    EXPECT_EQ(9U, kept());
    open(a);
    EXPECT_EQ(all, a.sock.wire()) << "late pictures are better than none";
    EXPECT_TRUE(skips().empty());
    EXPECT_EQ(0U, kept());
}

TEST_F(MediaStepAhead, ALateViewerStepsAheadToTheNewestKeyFrameLateOrNot) {
    MediaClient& a = viewer();
    std::string all = frame();
    a.sock.setRoom(5);
    all += frame();  // half of it is on the wire
    const std::vector<std::string> passed = frames_of(18);
    const std::vector<std::string> after = frames_of(4);  // from the third key frame on
    clock.advanceUs(1000000);
    open(a);
    EXPECT_EQ(all + joined(after), a.sock.wire());
    const std::vector<MediaSkip> found = skips();
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ(18U, found[0].frames);
    EXPECT_EQ(joined(passed).size(), found[0].bytes);
    EXPECT_FALSE(found[0].thinned);
    const MediaSenderStats stats = a.sender->GetStats();
    EXPECT_EQ(1U, stats.skips);
    EXPECT_EQ(18U, stats.skipped_frames);
    EXPECT_EQ(0U, stats.holes);
    EXPECT_EQ(0U, stats.thinned_frames);
}

TEST_F(MediaStepAhead, FramesWaitByTimeWhileTheOthersFramesExpireAsEver) {
    MediaClient& a = viewer(60000);
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    std::string all = frame();
    a.sock.setRoom(5);
    b.sock.setRoom(5);
    all += frame();
    const std::vector<std::string> late = frames_of(8);
    tick(200);  // no frame of level 5 outlives 60 of them
    EXPECT_EQ(1, buffer->GetBufferNum()) << "the one that b stands on";
    EXPECT_EQ(2U, frames());
    EXPECT_EQ(9U, kept());
    EXPECT_EQ(8U, buffer->GetStats().expired_frames);
    open(b);
    EXPECT_EQ(all, b.sock.wire());
    open(a);
    EXPECT_EQ(all + joined(late), a.sock.wire());
    EXPECT_EQ(0U, a.sender->GetStats().holes);
}

TEST_F(MediaStepAhead, AViewerIsNoHurdleForWhatTheListLetsGo) {
    MediaClient& a = viewer();
    MediaClient& b = joinedClient();
    a.sock.setRoom(0);
    clock.advanceUs(FRAME_US);
    TestPacket& made = packet(10);
    buffer->Put(&made, 10, MEDIA_MARK_LAST, 1);
    EXPECT_EQ(10U, b.sock.wire().size());
    EXPECT_EQ(1U, frames());
    EXPECT_EQ(0U, buffer->GetStats().debt_bytes);
    EXPECT_EQ(0, made.releases) << "its release alone comes later";
    open(a);
    EXPECT_EQ(1, made.releases);
}

TEST_F(MediaStepAhead, SoundFollowsThePicture) {
    MediaClient& a = viewer();
    std::string all = frame(0);
    all += late_put(3, 3, 1);
    all += late_put(3, 3, 1);
    a.sock.setRoom(5);
    all += frame(0);
    for (int i = 0; i < 8; ++i) {
        all += frame(0);
        all += late_put(3, 3, 1);
    }
    clock.advanceUs(1000000);
    open(a);
    EXPECT_EQ(all, a.sock.wire()) << "each sound is a key frame, yet it does not run ahead";
    EXPECT_EQ(0U, a.sender->GetStats().skips);
}

TEST_F(MediaStepAhead, SoundGoesOnWhileThePictureStepsAhead) {
    MediaClient& a = viewer();
    std::string all = frame(0);
    all += late_put(3, 3, 1);
    all += late_put(3, 3, 1);
    a.sock.setRoom(5);
    all += frame(0);
    for (int i = 0; i < 8; ++i) {
        frame(0);
        all += late_put(3, 3, 1);
    }
    all += frame(0);
    open(a);
    EXPECT_EQ(all, a.sock.wire());
    EXPECT_EQ(8U, a.sender->GetStats().skipped_frames);
}

TEST_F(MediaStepAhead, SoundAloneStepsAheadToTheNewest) {
    MediaClient& a = viewer();
    std::string all = late_put(3, 3, 1);
    a.sock.setRoom(1);
    all += late_put(3, 3, 1);
    for (int i = 0; i < 20; ++i) {
        late_put(3, 3, 1);
    }
    const std::string newest = late_put(3, 3, 1);
    open(a);
    EXPECT_EQ(all + newest, a.sock.wire());
}

TEST_F(MediaStepAhead, AboveTheHardBoundItWaitsForAKeyFrame) {
    MediaClient& a = viewer(LIMIT_MS, 500);
    std::string all = frame();
    a.sock.setRoom(5);
    all += frame();
    frames_of(8);
    clock.advanceUs(600000);
    open(a);
    EXPECT_EQ(all, a.sock.wire()) << "no newer key frame, and nothing is sent";
    all += frame();
    all += frame();
    EXPECT_EQ(all, a.sock.wire());
}

TEST_F(MediaStepAhead, WhatIsOnOfferWhileOtherDataIsBlockedIsNotLost) {
    MediaClient& a = viewer();
    std::string all = frame();
    a.sock.setRoom(0);
    a.sender->SendOtherData("xy", 2);
    const std::vector<std::string> late = frames_of(3);
    open(a);
    EXPECT_EQ(all + "xy" + joined(late), a.sock.wire());
    EXPECT_EQ(0U, a.sender->GetStats().holes);
}

TEST_F(MediaStepAhead, WhatWaitsLongerThanIsAllowedGoesAndANewKeyFrameIsWaitedFor) {
    buffer->SetKeepLimits(1000, 1 << 20);
    MediaClient& a = viewer();
    std::string all = frame();
    a.sock.setRoom(0);
    const std::vector<std::string> late = frames_of(8);
    EXPECT_EQ(8U, kept());
    clock.advanceUs(800000);
    tick();
    EXPECT_LT(kept(), 8U);
    open(a);
    frame();
    EXPECT_EQ(all, a.sock.wire());
    all += frame();
    EXPECT_EQ(all, a.sock.wire());
    const MediaSenderStats stats = a.sender->GetStats();
    EXPECT_EQ(9U, stats.skipped_frames + stats.hole_frames);
    EXPECT_EQ(1U, stats.skips);
}

TEST_F(MediaStepAhead, MoreBytesThanAreAllowedAreNotKept) {
    buffer->SetKeepLimits(60000, 50);
    MediaClient& a = viewer();
    frame();
    a.sock.setRoom(5);
    frame();  // begun, so it stays
    frames_of(8);
    const MediaBufferStats stats = buffer->GetStats();
    EXPECT_EQ(5U, stats.kept_frames);
    EXPECT_EQ(50U, stats.kept_bytes);
}

TEST_F(MediaStepAhead, AViewerThatTakesNothingHoldsItsFrameAndWhatIsYoungEnough) {
    buffer->SetKeepLimits(400, 1 << 20);
    MediaClient& a = viewer();
    std::string all = frame();
    a.sock.setRoom(5);
    all += frame();
    frames_of(50);
    EXPECT_LE(kept(), 12U);
    open(a);
    EXPECT_EQ(all, a.sock.wire().substr(0, all.size())) << "what was begun is ended";
}

TEST_F(MediaStepAhead, APausedViewerGoesOnAtAKeyFrame) {
    MediaClient& a = viewer();
    viewer().sock.setRoom(0);
    std::string all = frame();
    a.sock.setRoom(5);
    all += frame();
    buffer->DelSender(a.sender);
    frames_of(3);
    buffer->AddSender(a.sender);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    frames_of(5);
    EXPECT_EQ(all, a.sock.wire()) << "what was begun is ended";
    all += frame();
    EXPECT_EQ(all, a.sock.wire());
}

TEST_F(MediaStepAhead, WhenTheLastViewerGoesNothingIsKept) {
    MediaClient& a = viewer();
    MediaClient& b = joinedClient();
    a.sock.setRoom(0);
    frames_of(5);
    EXPECT_EQ(5U, kept());
    buffer->DelSender(a.sender);
    frame();
    EXPECT_EQ(0U, kept());
    EXPECT_EQ(1U, frames());
    EXPECT_FALSE(b.sock.wire().empty());
}

TEST_F(MediaStepAhead, TheRestOfAPacketCanBeTakenOver) {
    MediaClient& a = viewer();
    std::string all = frame();
    a.sock.setRoom(4);
    all += frame();
    buffer->DelSender(a.sender);
    char rest[16];
    EXPECT_EQ(6, a.sender->GetTailPacket(rest, sizeof rest));
    EXPECT_EQ(all, a.sock.wire() + std::string(rest, 6));
    EXPECT_EQ(2U, a.sender->GetStats().frames);
}

TEST_F(MediaStepAhead, AClearedBufferLetsAllGoAndWhatWasBegunIsEnded) {
    MediaClient& a = viewer();
    std::string all = frame();
    a.sock.setRoom(4);
    all += frame();
    frames_of(3);
    {
        LogCapture quiet{1};
        buffer->Clear();
    }
    EXPECT_EQ(0U, kept());
    EXPECT_EQ(5U, released.size());
    buffer->AddSender(a.sender);
    open(a);
    EXPECT_EQ(all, a.sock.wire());
}

TEST_F(MediaStepAhead, SwitchedOnItKeepsFromWhereItStands) {
    MediaClient& a = client();
    buffer->AddSender(a.sender);
    std::string all = frame();
    a.sock.setRoom(5);
    const CFrame* const standing = current();
    all += frame();
    all += frame();
    EXPECT_EQ(1, standing->m_sender_count);
    a.sender->SetResumePolicy(LIMIT_MS);
    tick();
    EXPECT_EQ(1U, frames()) << "to the list it has caught up";
    EXPECT_EQ(2U, kept());
    EXPECT_EQ(0, standing->m_sender_count);
    EXPECT_EQ(0, standing->m_sent_len);
    open(a);
    all += frame();
    EXPECT_EQ(all, a.sock.wire()) << "nothing was missed, so no key frame is waited for";
}

TEST_F(MediaStepAhead, SwitchedOffItGoesOnByTheList) {
    MediaClient& a = viewer();
    MediaClient& b = joinedClient();
    b.sock.setRoom(0);
    std::string all = a.sock.wire();
    all += frame();
    a.sock.setRoom(5);
    const CFrame* const standing = current();
    all += frame();
    all += frame();
    a.sender->SetResumePolicy(0);
    tick();
    EXPECT_EQ(1, standing->m_sender_count);
    EXPECT_EQ(5, standing->m_sent_len);
    EXPECT_EQ(0U, kept());
    open(a);
    EXPECT_EQ(all, a.sock.wire());
    EXPECT_EQ(0, standing->m_sender_count);
}

TEST_F(MediaStepAhead, SwitchedOffWithItsFrameOffTheListItEndsThatAndGoesOnThere) {
    MediaClient& a = viewer();
    std::string all = frame();
    a.sock.setRoom(5);
    all += frame();
    frame();
    EXPECT_EQ(1U, frames());
    a.sender->SetResumePolicy(LIMIT_MS, MediaResume::STRICT);
    tick();
    EXPECT_EQ(0U, kept());
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(all, a.sock.wire());
    frames_of(7);
    all += frame();
    EXPECT_EQ(all, a.sock.wire());
}

TEST_F(MediaStepAhead, AFrameWithoutAByteIsNoPlaceToJoinAt) {
    MediaClient& a = viewer();
    put(0, 1, 1);
    EXPECT_FALSE(a.state().m_joined);
    std::string all = frame();
    all += frame();
    EXPECT_EQ(all, a.sock.wire());
}

// Every second frame is disposable.
class MediaThinning : public MediaStepAhead {
protected:
    MediaThinning() { buffer->SetDisposableLevel(DISPOSABLE); }

    // Gives what others need, from this picture on.
    std::string pictures(int count) {
        std::string needed;
        for (int i = 0; i < count; ++i) {
            const std::string made = late_put(10, m_number % 2 == 0 ? 5 : DISPOSABLE);
            needed += m_number % 2 == 0 ? made : "";
            ++m_number;
        }
        return needed;
    }

private:
    int m_number = 0;
};

TEST_F(MediaThinning, DisposableFramesAreLeftOutFirstAndTheRestGoesOn) {
    MediaClient& a = viewer();
    std::string all = late_put(30, 1);
    a.sock.setRoom(0);
    const std::string needed = pictures(10);
    clock.advanceUs(1000000);
    open(a);
    EXPECT_EQ(all + needed, a.sock.wire()) << "a hole of them costs nothing after it";
    const MediaSenderStats stats = a.sender->GetStats();
    EXPECT_EQ(1U, stats.thinnings);
    EXPECT_EQ(5U, stats.thinned_frames);
    EXPECT_EQ(50U, stats.thinned_bytes);
    EXPECT_EQ(0U, stats.skips);
    EXPECT_EQ(0U, stats.skipped_frames);
    EXPECT_EQ(0U, stats.holes);
}

TEST_F(MediaThinning, AnEpisodeIsToldOnceWhenItIsOver) {
    MediaClient& a = viewer();
    late_put(30, 1);
    for (int i = 0; i < 5; ++i) {
        a.sock.setRoom(0);
        pictures(6);
        open(a);
    }
    EXPECT_TRUE(skips().empty());
    const std::uint64_t left_out = a.sender->GetStats().thinned_frames;
    EXPECT_GT(left_out, 4U);
    pictures(26);
    const std::vector<MediaSkip> found = skips();
    ASSERT_EQ(1U, found.size());
    EXPECT_TRUE(found[0].thinned);
    EXPECT_EQ(left_out, found[0].frames);
    EXPECT_EQ(10 * left_out, found[0].bytes);
    EXPECT_EQ(1U, a.sender->GetStats().thinnings);
}

TEST_F(MediaThinning, HigherLevelsAreLeftOutUntilALowerOneIsSent) {
    MediaClient& a = viewer();
    std::string all = late_put(30, 1);
    a.sock.setRoom(0);
    late_put(10, 8);
    clock.advanceUs(120000);
    late_put(10, 9);  // young enough, yet it may refer to the one before
    open(a);
    EXPECT_EQ(all, a.sock.wire());
    all += late_put(10, 8);
    all += late_put(10, 9);
    EXPECT_EQ(all, a.sock.wire());
    EXPECT_EQ(2U, a.sender->GetStats().thinned_frames);
}

TEST_F(MediaThinning, ASkipDoesNotCountWhatWasLeftOut) {
    MediaClient& a = viewer();
    std::string all = late_put(30, 1);
    a.sock.setRoom(0);
    late_put(10, 8);
    late_put(10, 5);
    clock.advanceUs(1000000);
    tick();  // the first one is left out, the second one is stood on
    all += late_put(30, 1);
    open(a);
    EXPECT_EQ(all, a.sock.wire());
    const std::vector<MediaSkip> found = skips();
    ASSERT_EQ(1U, found.size());
    EXPECT_FALSE(found[0].thinned);
    EXPECT_EQ(1U, found[0].frames);
    EXPECT_EQ(1U, a.sender->GetStats().skipped_frames);
    EXPECT_EQ(1U, a.sender->GetStats().thinned_frames);
}

TEST_F(MediaThinning, WithoutADeclarationNothingIsDisposable) {
    buffer->SetDisposableLevel(0);
    MediaClient& a = viewer();
    std::string all = late_put(30, 1);
    a.sock.setRoom(0);
    all += late_put(10, DISPOSABLE);
    all += late_put(10, 5);
    clock.advanceUs(1000000);
    open(a);
    EXPECT_EQ(all, a.sock.wire());
}

}  // namespace Orvex::Testing
