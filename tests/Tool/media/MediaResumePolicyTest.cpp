// The resume policy: a client that is slow sees whole pictures, close to live; without it nothing changes.
#include "support/HandClock.h"
#include "support/SeededRandom.h"
#include "support/media/MediaFixture.h"
#include "support/media/Pictures.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {}  // namespace

class MediaResumePolicy : public MediaFixture {
protected:
    MediaClient& viewer(unsigned max_lag_ms) {
        MediaClient& made = client();
        made.sender->SetResumePolicy(max_lag_ms, MediaResume::STRICT);
        made.sender->WaitSkip(waiter->GetID(), 77);
        buffer->AddSender(made.sender);
        return made;
    }

    // The next frame of the stream, 40 ms later: a key frame of 30 bytes each 10 frames, others of 10.
    std::string frame(int channel = 0) {
        clock.advanceUs(FRAME_US);
        const bool key = m_number++ % GROUP == 0;
        return put(key ? 30 : 10, 1, key ? 1 : 5, channel);
    }
    std::vector<std::string> frames_of(int count) {
        std::vector<std::string> made;
        for (int i = 0; i < count; ++i) {
            made.push_back(frame());
        }
        return made;
    }

    HandClock clock;

private:
    int m_number = 0;
};

TEST_F(MediaResumePolicy, IsOffAndItsNumbersAreMicroseconds) {
    MediaClient& a = client();
    EXPECT_FALSE(a.state().has_policy());
    a.sender->SetResumePolicy(4000000000U, MediaResume::STRICT);
    EXPECT_EQ(4000000000000U, a.state().max_lag_us());
    a.sender->SetResumePolicy(0);
    EXPECT_FALSE(a.state().has_policy());
}

TEST_F(MediaResumePolicy, AFastViewerGetsEverything) {
    MediaClient& a = viewer(1000);
    std::string all;
    for (int i = 0; i < 25; ++i) {
        all += frame();
    }
    EXPECT_EQ(a.sock.wire(), all);
    EXPECT_EQ(0U, a.sender->GetStats().skips);
    EXPECT_TRUE(messages().empty());
}

TEST_F(MediaResumePolicy, ALateViewerResumesAtAKeyFrameAndHearsOfIt) {
    MediaClient& a = viewer(300);
    const std::string key = frame();
    a.sock.setRoom(5);
    const std::string second = frame();  // half of it is on the wire
    frames_of(8);
    clock.advanceUs(60000);  // the third frame is 340 ms old
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), key + second) << "what has begun is ended, then the key frame is waited for";
    EXPECT_EQ(1U, frames()) << "and nothing is kept for it";
    EXPECT_TRUE(messages().empty());
    const std::string next_key = frame();
    EXPECT_EQ(a.sock.wire(), key + second + next_key);
    const std::vector<SentMessage> found = messages();
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ(std::get<0>(found[0]), waiter->GetID());
    EXPECT_EQ(77U, std::get<1>(found[0]));
    EXPECT_EQ(8U, MediaSkip::of(std::get<2>(found[0])).frames);
    EXPECT_EQ(80U, MediaSkip::of(std::get<2>(found[0])).bytes);
    const MediaSenderStats stats = a.sender->GetStats();
    EXPECT_EQ(1U, stats.skips);
    EXPECT_EQ(8U, stats.skipped_frames);
    EXPECT_EQ(80U, stats.skipped_bytes);
    EXPECT_EQ(0U, stats.holes);
    const std::string after = frame();
    EXPECT_EQ(a.sock.wire(), key + second + next_key + after);
}

TEST_F(MediaResumePolicy, WithinTheLimitNothingIsSteppedOver) {
    MediaClient& a = viewer(300);
    std::string all = frame();
    a.sock.setRoom(5);
    all += frame();
    for (const std::string& bytes : frames_of(7)) {
        all += bytes;
    }
    clock.advanceUs(20000);  // the second frame is 300 ms old, the third 260
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), all);
}

TEST_F(MediaResumePolicy, AKeyFrameThatIsTooOldIsSteppedOverToo) {
    MediaClient& a = viewer(300);
    std::string all = frame();
    a.sock.setRoom(5);
    all += frame();
    frames_of(12);  // a key frame is the ninth of them
    clock.advanceUs(200000);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    frames_of(6);
    EXPECT_EQ(a.sock.wire(), all);
    all += frame();
    EXPECT_EQ(a.sock.wire(), all) << "the next key frame comes fresh";
    EXPECT_EQ(18U, a.sender->GetStats().skipped_frames);
}

TEST_F(MediaResumePolicy, AFrameIsLookedAtAgainBeforeItIsBegun) {
    MediaClient& a = viewer(300);
    std::string all = frame();
    a.sock.setRoom(0);
    const CFrame* standing = current();
    frame();
    EXPECT_EQ(a.state().m_frame, standing) << "taken, not begun";
    clock.advanceUs(400000);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), all) << "too old by now";
    frames_of(8);
    all += frame();
    EXPECT_EQ(a.sock.wire(), all);
}

TEST_F(MediaResumePolicy, AHoleIsAnsweredLikeALag) {
    MediaClient& a = viewer(3600000);
    std::string all = put(30, 1, 1);
    a.sock.setRoom(5);
    all += put(10, 1, 5);
    put(10, 1, 10);
    tick(10);  // expired before the viewer came to it
    EXPECT_EQ(2U, frames());
    put(10, 1, 5);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), all) << "what follows the hole cannot be decoded";
    all += put(30, 1, 1);
    EXPECT_EQ(a.sock.wire(), all);
    const MediaSenderStats stats = a.sender->GetStats();
    EXPECT_EQ(1U, stats.skips);
    EXPECT_EQ(1U, stats.skipped_frames);
    EXPECT_EQ(1U, stats.holes);
    EXPECT_EQ(1U, stats.hole_frames);
    EXPECT_EQ(10U, stats.hole_bytes);
}

TEST_F(MediaResumePolicy, FramesLostToOtherDataAreAHole) {
    MediaClient& a = viewer(1000);
    std::string all = frame();
    a.sock.setRoom(0);
    a.sender->SendOtherData("x", 1);
    frames_of(3);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    frames_of(6);
    EXPECT_EQ(a.sock.wire(), all + "x");
    all += "x" + frame();
    EXPECT_EQ(a.sock.wire(), all);
    EXPECT_EQ(3U, a.sender->GetStats().hole_frames);
    EXPECT_EQ(6U, a.sender->GetStats().skipped_frames);
    EXPECT_EQ(1U, frames());
}

TEST_F(MediaResumePolicy, JoinsAtACompleteKeyFrameOnly) {
    frame();
    joinedClient();
    MediaClient& b = viewer(1000);
    const CFrame* gap = current();
    tick(3);
    EXPECT_FALSE(b.state().m_joined);
    EXPECT_EQ(0, gap->m_sender_count);
    frames_of(9);
    EXPECT_EQ("", b.sock.wire());
    const std::string key = frame();
    EXPECT_EQ(b.sock.wire(), key);
    EXPECT_TRUE(messages().empty()) << "what came before was never meant for it";
}

TEST_F(MediaResumePolicy, EachChannelIsResumedByItself) {
    MediaClient& a = viewer(1000);
    std::string all = put(30, 1, 1, 0);
    a.sender->DisableSendChannel(2);
    put(20, 1, 1, 2);
    put(20, 1, 5, 2);
    EXPECT_EQ(a.sock.wire(), all);
    a.sender->SetSendChannel(2);
    put(20, 1, 5, 2);
    all += put(10, 1, 5, 0);
    EXPECT_EQ(a.sock.wire(), all) << "a channel that is chosen anew begins at a key frame";
    all += put(20, 1, 1, 2);
    all += put(20, 1, 5, 2);
    EXPECT_EQ(a.sock.wire(), all);
    EXPECT_TRUE(messages().empty());
}

TEST_F(MediaResumePolicy, AViewerThatWasSlowOnceLeavesNoDebt) {
    MediaClient& a = viewer(3600000);
    put(30, 1, 1);
    a.sock.setRoom(3);
    put(10, 1, 5);
    put(50, 1, 10);
    tick(10);  // 50 bytes expire before the viewer
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(1U, frames());
    EXPECT_EQ(0U, buffer->GetStats().debt_bytes);
    for (int i = 0; i < 5; ++i) {
        put(30, 1, 1);
        EXPECT_EQ(1U, frames());
        EXPECT_EQ(a.state().m_send_total, byteTotal());
    }
}

TEST_F(MediaResumePolicy, ViewersLeaveNoCountBehind) {
    MediaClient& a = viewer(1000);
    MediaClient& b = viewer(1000);
    put(30, 1, 1);
    a.sock.setRoom(3);
    b.sock.setRoom(0);
    const CFrame* first = current();
    put(10, 1, 5);
    EXPECT_EQ(2, first->m_sender_count);
    buffer->DelSender(b.sender);
    EXPECT_EQ(1, first->m_sender_count);
    buffer->AddSender(b.sender);
    tick();
    EXPECT_EQ(nullptr, b.state().m_frame) << "it waits for a key frame";
    EXPECT_EQ(1, first->m_sender_count);
    a.sock.fail(EPIPE);
    a.sock.setRoom(0);
    tick();
    EXPECT_EQ(1U, frames());
    EXPECT_EQ(0U, buffer->GetStats().pinned_frames);
}

TEST_F(MediaResumePolicy, AFrameThatExpiresWhileHalfOfItIsOnAWireIsCountedOnceMore) {
    MediaClient& a = joinedClient();
    MediaClient& b = viewer(3600000);
    put(30, 1, 1);
    a.sock.setRoom(3);
    put(10, 1, 1);  // where a stands
    b.sock.setRoom(4);
    put(10, 1, 10);
    buffer->DelSender(b.sender);  // takes its count with it, and not the bytes it has written
    tick(9);
    EXPECT_EQ(2, buffer->GetBufferNum());
    EXPECT_EQ(3U, frames());
    tick();
    EXPECT_EQ(2, buffer->GetBufferNum()) << "expired in this pass";
    EXPECT_EQ(2U, frames());
    tick();
    EXPECT_EQ(1, buffer->GetBufferNum());
}

TEST_F(MediaResumePolicy, AmongViewersAloneFramesExpireByWhoStandsOnThem) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    a.sock.setRoom(3);
    put(10, 1, 1);
    tick();  // b joined at the frame before
    b.sock.setRoom(0);
    put(10, 1, 10);
    buffer->DelSender(b.sender);  // leaves its count
    tick(20);
    EXPECT_EQ(3U, frames());
    EXPECT_EQ(1U, buffer->GetStats().pinned_frames);
    a.sender->SetResumePolicy(3600000, MediaResume::STRICT);
    tick();
    EXPECT_EQ(2U, frames());
    EXPECT_EQ(0U, buffer->GetStats().pinned_frames);
}

TEST_F(MediaResumePolicy, APausedViewerResumesAtAKeyFrame) {
    MediaClient& a = viewer(1000);
    std::string all = frame() + "";
    buffer->DelSender(a.sender);
    frames_of(3);
    buffer->AddSender(a.sender);
    frames_of(6);
    EXPECT_EQ(a.sock.wire(), all);
    all += frame();
    EXPECT_EQ(a.sock.wire(), all);
}

TEST_F(MediaResumePolicy, SwitchedOffItGoesOnAsUsual) {
    MediaClient& a = viewer(300);
    std::string all = frame();
    a.sock.setRoom(0);
    all += frame();
    clock.advanceUs(1000000);
    a.sender->SetResumePolicy(0);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), all);
}

// Random weather. The frames carry their numbers, so that the wires can be read again.
class MediaResumeWeather : public MediaResumePolicy {
protected:
    static constexpr unsigned MAX_LAG_MS = 500;

    struct Made {
        std::string bytes;
        bool key;
        uint64_t complete_us;
    };
    struct Progress {
        std::size_t parsed = 0;
        int last = -1;
        int count = 0;
        uint64_t begun_us = 0;  // of the frame at `parsed`; 0: not begun
    };

    void next_frame() {
        const bool key = made.size() % GROUP == 0;
        const std::string number = std::to_string(made.size() + 10000000) + ":";
        TestPacket& bytes = packets.emplace_back(0, number + std::string(key ? 300 : 30, '.'), &released);
        made.push_back({bytes.bytes(), key, clock.nowUs()});
        buffer->Put(&bytes, bytes.length(), 1, key ? 1 : 5);
    }

    // Every frame that was begun can be decoded, and was no older than the limit.
    void read_wire(const std::string& wire, Progress& p) {
        while (p.parsed < wire.size()) {
            p.begun_us = p.begun_us == 0 ? clock.nowUs() : p.begun_us;
            if (wire.size() - p.parsed < 9) {
                return;  // its number is not whole yet
            }
            const int number = std::stoi(wire.substr(p.parsed, 8)) - 10000000;
            const Made& frame_made = made[static_cast<std::size_t>(number)];
            ASSERT_TRUE(frame_made.key || number == p.last + 1) << "frame " << number;
            ASSERT_LE(p.begun_us - frame_made.complete_us, MAX_LAG_MS * 1000);
            const std::string& bytes = frame_made.bytes;
            ASSERT_EQ(0, wire.compare(p.parsed, bytes.size(), bytes.substr(0, wire.size() - p.parsed)));
            p.last = number;
            p.parsed += bytes.size();
            p.begun_us = 0;
            ++p.count;
        }
    }

    // Exactly those who stand on frames are counted there, and nobody is ahead of the stream.
    void check_counts() {
        int counts = 0;
        for (const CFrame* f = head(); f != nullptr; f = f->m_next) {
            counts += f->m_sender_count;
        }
        for (const auto& one : clients) {
            counts -= one->state().m_frame != nullptr ? 1 : 0;
            ASSERT_LE(one->state().m_send_total, byteTotal());
        }
        ASSERT_EQ(0, counts);
        ASSERT_LE(frames(), 70U);
    }

    std::vector<Made> made;
};

TEST_F(MediaResumeWeather, EveryFrameThatGoesOutCanBeDecoded) {
    constexpr int STEPS = 6000;
    SeededRandom random;
    std::vector<Progress> progress(4);
    for (std::size_t i = 0; i < progress.size(); ++i) {
        viewer(MAX_LAG_MS);
    }
    for (int step = 0; step < STEPS && !HasFatalFailure(); ++step) {
        clock.advanceUs(FRAME_US / 2);
        step % 2 == 0 ? next_frame() : tick();
        for (std::size_t i = 0; i < progress.size(); ++i) {
            read_wire(clients[i]->sock.wire(), progress[i]);
            if (random.oneIn(4)) {
                clients[i]->sock.setRoom(random.between<std::size_t>(0, i * 60));
            }
        }
        check_counts();
    }
    // A viewer in the middle of a frame may lag what has expired since; one that has caught up does not.
    for (const auto& one : clients) {
        one->sock.setRoom(ShapedStream::UNLIMITED);
    }
    next_frame();
    EXPECT_GT(progress[3].count, progress[1].count);
    EXPECT_GT(progress[1].count, 20);
    EXPECT_GT(clients[1]->sender->GetStats().skips, 10U);
    EXPECT_EQ(0U, buffer->GetStats().debt_bytes);
}

}  // namespace Orvex::Testing
