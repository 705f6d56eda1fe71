// The start cache: a client that comes has a whole picture at once.
#include "support/HandClock.h"
#include "support/media/MediaFixture.h"
#include "support/media/Pictures.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr unsigned START_LAG_MS = 1000;

}  // namespace

class MediaStartCache : public MediaFixture {
protected:
    MediaStartCache() { buffer->SetStartCache(10000, 1 << 24); }

    MediaClient& viewer(MediaStart start = MediaStart::BURST, MediaResume mode = MediaResume::AHEAD,
                        unsigned hard_lag_ms = 0) {
        MediaClient& made = client();
        made.sender->SetResumePolicy(START_LAG_MS, mode, hard_lag_ms);
        made.sender->SetStartMode(start);
        return made;
    }
    MediaClient& comes(MediaClient& one) {
        buffer->AddSender(one.sender);
        return one;
    }

    std::string picture(std::size_t other_bytes = 10) {
        clock.advanceUs(FRAME_US);
        const bool key = m_number++ % GROUP == 0;
        const std::string made = put(key ? 30 : other_bytes, 1, key ? 1 : 5, PICTURE);
        group = key ? made : group + made;
        return made;
    }
    std::string sound() {
        clock.advanceUs(FRAME_US / 2);
        const std::string made = put(3, 1, 3, SOUND);
        group += made;
        return made;
    }
    void pictures(int count) {
        for (int i = 0; i < count; ++i) {
            picture();
        }
    }
    MediaStartStats held() {
        MediaStartStats stats;
        EXPECT_TRUE(buffer->GetStartStats(&stats));
        return stats;
    }

    HandClock clock;
    std::string group;  // from the last key frame on

private:
    int m_number = 0;
};

TEST_F(MediaStartCache, WhoeverComesBetweenTwoFramesHasThePictureAtOnce) {
    pictures(15);
    MediaClient& a = comes(viewer());
    EXPECT_EQ(group, a.sock.wire());
    pictures(3);
    EXPECT_EQ(group, a.sock.wire());
    EXPECT_EQ(1U, held().starts);
    EXPECT_EQ(0U, a.sender->GetStats().holes);
    EXPECT_EQ(0U, a.sender->GetStats().skips);
}

TEST_F(MediaStartCache, WhoeverComesWhileAFrameIsFilledHasThePictureAtOnce) {
    pictures(5);
    const std::string before = group;
    const std::string half = put(4, MEDIA_MARK_MORE, 5);
    MediaClient& a = comes(viewer());
    EXPECT_EQ(before, a.sock.wire());
    const std::string rest = put(6, MEDIA_MARK_LAST, 5);
    EXPECT_EQ(before + half + rest, a.sock.wire());
}

TEST_F(MediaStartCache, FramesAreHeldFromTheLastKeyFrameOnAlsoWithoutAClient) {
    pictures(13);
    EXPECT_EQ(3U, held().frames);
    EXPECT_EQ(50U, held().bytes);
    EXPECT_EQ(2 * static_cast<uint64_t>(FRAME_US), held().age_us);
    EXPECT_EQ(10U, released.size()) << "of those before";
    EXPECT_EQ(0U, frames()) << "of the list";
}

TEST_F(MediaStartCache, OthersAreSentWhatTheyAreSentWithoutIt) {
    MediaClient& late = client();
    comes(late);
    pictures(12);
    EXPECT_EQ(1U, frames()) << "to the list they have gone";
    EXPECT_EQ(0U, buffer->GetStats().bytes);
    comes(viewer());
    MediaClient& plain = comes(client());
    EXPECT_TRUE(plain.sock.wire().empty());
    const std::string next = picture();
    EXPECT_TRUE(plain.sock.wire().empty()) << "not a key frame";
    EXPECT_EQ(next, late.sock.wire().substr(late.sock.wire().size() - next.size()));
}

TEST_F(MediaStartCache, AGroupThatIsTooLargeGoesAndTheNextKeyFrameIsWaitedFor) {
    buffer->SetStartCache(10000, 60);
    pictures(5);
    EXPECT_EQ(0U, held().frames);
    EXPECT_EQ(1U, held().drops);
    EXPECT_EQ(5U, released.size());
    MediaClient& a = comes(viewer());
    EXPECT_TRUE(a.sock.wire().empty());
    pictures(6);
    EXPECT_EQ(group, a.sock.wire());
}

TEST_F(MediaStartCache, AStreamThatBeganAnewHoldsItsFramesAllTheSame) {
    MediaClient& a = comes(viewer());
    pictures(4);
    buffer->DelSender(a.sender);
    pictures(2);
    a.sock.clearWire();
    MediaClient& b = viewer();
    b.sock.setRoom(5);
    comes(b);
    EXPECT_EQ(75U, b.sender->GetStats().backlog_bytes);
    MediaClient& c = comes(client());
    pictures(5);
    b.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    pictures(3);
    EXPECT_EQ(group, c.sock.wire());
    EXPECT_EQ(0U, buffer->GetStats().debt_bytes);
    EXPECT_EQ(1U, frames()) << "positions of before do not hold back what is let go";
    EXPECT_EQ(group, b.sock.wire().substr(b.sock.wire().size() - group.size()));
}

TEST_F(MediaStartCache, WhoeverComesAgainBeginsAnewAfterTheEndOfWhatItHadBegun) {
    MediaClient& a = comes(viewer());
    picture();
    a.sock.setRoom(4);
    std::string all = group;
    all += picture();
    buffer->DelSender(a.sender);
    pictures(2);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    comes(a);
    EXPECT_EQ(all + group, a.sock.wire());
}

TEST_F(MediaStartCache, TheStrictModeBeginsWhenTheClientIsLive) {
    pictures(3);
    clock.advanceUs(3000000);
    MediaClient& a = comes(viewer(MediaStart::BURST, MediaResume::STRICT));
    EXPECT_EQ(group, a.sock.wire()) << "however late";
    pictures(2);
    EXPECT_EQ(group, a.sock.wire());
    a.sock.setRoom(0);
    const std::string begun = group;
    picture();
    clock.advanceUs(2000000);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(begun, a.sock.wire()) << "strict now";
    EXPECT_FALSE(a.state().m_keeps);
}

TEST_F(MediaStartCache, TheStrictModeBeginsAtTheNextKeyFrame) {
    pictures(3);
    MediaClient& a = viewer(MediaStart::BURST, MediaResume::STRICT);
    a.sock.setRoom(5);
    comes(a);
    const std::string key = group.substr(0, 30);
    clock.advanceUs(2000000);
    pictures(8);
    clock.advanceUs(2000000);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(key, a.sock.wire()) << "the second key frame is too late for the strict mode";
    pictures(10);
    EXPECT_EQ(key + group, a.sock.wire());
}

TEST_F(MediaStartCache, TheHardBoundBeginsWhenTheClientIsLive) {
    pictures(3);
    clock.advanceUs(3000000);
    MediaClient& a = comes(viewer(MediaStart::BURST, MediaResume::AHEAD, 1500));
    EXPECT_EQ(group, a.sock.wire());
    a.sock.setRoom(0);
    const std::string begun = group;
    picture();
    clock.advanceUs(2000000);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(begun, a.sock.wire());
}

TEST_F(MediaStartCache, SoundBeginsNoLaterThanItsPicture) {
    sound();
    sound();
    std::string lead;
    for (int i = 0; i < 13; ++i) {
        const std::string before = sound();
        const std::string made = picture();
        lead = group == made ? before : lead;
    }
    MediaClient& a = comes(viewer());
    EXPECT_EQ(lead + group, a.sock.wire());
}

TEST_F(MediaStartCache, InTheOtherModeAClientBeginsAtTheNextKeyFrameAndItsSound) {
    sound();
    sound();
    pictures(3);
    MediaClient& a = comes(viewer(MediaStart::NEXT_KEY));
    sound();
    pictures(7);
    const std::string lead = sound();
    EXPECT_TRUE(a.sock.wire().empty()) << "no sound without its picture";
    picture();
    EXPECT_EQ(lead + group, a.sock.wire());
}

TEST_F(MediaStartCache, ManyThatComeAreServedInTurnsAndNobodyIsLeftOut) {
    constexpr std::size_t FRAME = StartShares::SENDER_BYTES / 2;
    constexpr int CLIENTS = StartShares::STEP_BYTES / StartShares::SENDER_BYTES + 4;
    for (int i = 0; i < GROUP - 2; ++i) {
        picture(FRAME);
    }
    std::vector<MediaClient*> all;
    for (int i = 0; i < CLIENTS; ++i) {
        all.push_back(&comes(viewer()));
        EXPECT_LE(all.back()->sock.wire().size(), StartShares::SENDER_BYTES + FRAME);
        EXPECT_GE(all.back()->sock.wire().size(), StartShares::SENDER_BYTES);
    }
    for (int i = 0; i < 6; ++i) {
        std::size_t before = 0;
        std::size_t after = 0;
        for (MediaClient* one : all) {
            before += one->sock.wire().size();
        }
        i == 0 ? static_cast<void>(picture(10)) : tick();
        for (MediaClient* one : all) {
            after += one->sock.wire().size();
        }
        EXPECT_LE(after - before, StartShares::STEP_BYTES + StartShares::STEP_BYTES / 2);
    }
    tick(6);
    for (MediaClient* one : all) {
        EXPECT_TRUE(group == one->sock.wire());
    }
}

TEST_F(MediaStartCache, SwitchedOnItHasWhatTheListHasAndSwitchedOffNothing) {
    buffer->SetStartCache(0, 0);
    MediaClient& slow = comes(client());
    slow.sock.setRoom(0);
    pictures(3);
    buffer->SetStartCache(10000, 1 << 20);
    EXPECT_EQ(3U, held().frames);
    EXPECT_EQ(group, comes(viewer()).sock.wire());
    buffer->SetStartCache(0, 0);
    EXPECT_EQ(0U, held().frames);
    buffer->DelSender(slow.sender);
    buffer->DelSender(clients.back()->sender);
    EXPECT_EQ(3U, released.size());
}

TEST_F(MediaStartCache, AClearedBufferHoldsNothing) {
    pictures(3);
    {
        LogCapture quiet{1};
        buffer->Clear();
    }
    EXPECT_EQ(0U, held().frames);
    EXPECT_EQ(3U, released.size());
}

TEST_F(MediaStartCache, FiguresAreFilledAsFarAsThereIsRoom) {
    pictures(3);
    MediaStartStats stats;
    stats.size = offsetof(MediaStartStats, bytes);
    stats.bytes = 77;
    EXPECT_TRUE(buffer->GetStartStats(&stats));
    EXPECT_EQ(3U, stats.frames);
    EXPECT_EQ(77U, stats.bytes);
    stats.size = 4;
    EXPECT_FALSE(buffer->GetStartStats(&stats));
}

}  // namespace Orvex::Testing
