// A client moves from one buffer to another: whole frames, and nothing that cannot be decoded. The last case
// is a model: three buffers, and moves at random.
#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/HandClock.h"
#include "support/SeededRandom.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr int SHORT_GROUP = 5;
}  // namespace

class MediaMoves : public MediaFixture {
protected:
    ~MediaMoves() override {
        for (const auto& one : clients) {
            other->DelSender(one->sender);
        }
        other.reset();
    }

    // A frame of a stream with groups of 5, of 20 and 10 bytes: buffer's letter, number, what it is.
    std::string frame(CMediaBuffer& to, char letter, int& number) {
        const bool key = number % SHORT_GROUP == 0;
        std::string bytes = std::string(1, letter) + std::to_string(100 + number) + (key ? 'K' : 'p');
        bytes.resize(key ? 20 : 10, '.');
        bytes.back() = ';';
        ++number;
        packets.emplace_back(static_cast<int>(packets.size()), bytes, &released);
        EXPECT_EQ(0, to.Put(&packets.back(), packets.back().length(), 1, mediaLevel(0, key ? 1 : 5)));
        return bytes;
    }
    std::string here() { return frame(*buffer, 'a', m_here); }
    std::string there() { return frame(*other, 'b', m_there); }
    MediaClient& viewer() {
        MediaClient& made = client();
        made.sender->SetResumePolicy(1000);
        made.sender->WaitSkip(waiter->GetID(), 77);
        buffer->AddSender(made.sender);
        return made;
    }
    void with_start_caches() {
        buffer->SetStartCache(60000, 1 << 20);
        other->SetStartCache(60000, 1 << 20);
    }

    HandClock clock;
    std::unique_ptr<CMediaBuffer> other = std::make_unique<CMediaBuffer>();

private:
    int m_here = 0;
    int m_there = 0;
};

TEST_F(MediaMoves, AtOnceWithAPictureOutOfTheStartCache) {
    with_start_caches();
    std::string all = here();
    std::string group = there();
    group += there();
    MediaClient& a = viewer();
    EXPECT_TRUE(buffer->MoveSender(*other, a.sender));
    EXPECT_EQ(all + group, a.sock.wire()) << "without waiting for a frame";
    here();
    group += there();
    EXPECT_EQ(all + group, a.sock.wire());
    EXPECT_EQ(0U, a.sender->GetStats().skips);
    EXPECT_EQ(0U, a.sender->GetStats().holes);
    EXPECT_TRUE(messages().empty()) << "no gap is told";
}

TEST_F(MediaMoves, WithoutAStartCacheAtTheNextKeyFrame) {
    MediaClient& a = viewer();
    const std::string all = here();
    there();
    EXPECT_TRUE(buffer->MoveSender(*other, a.sender));
    EXPECT_FALSE(buffer->MoveSender(*other, a.sender, MediaMove::NEXT_KEY));
    for (int i = 0; i < 4; ++i) {
        there();
    }
    EXPECT_EQ(all, a.sock.wire());
    const std::string key = there();
    EXPECT_EQ(all + key, a.sock.wire());
}

TEST_F(MediaMoves, AClientWithoutAPolicyBeginsAtAKeyFrameOfEachChannel) {
    MediaClient& a = client();
    buffer->AddSender(a.sender);
    std::string all = here();
    a.sock.setRoom(3);
    all += here();
    there();
    EXPECT_TRUE(buffer->MoveSender(*other, a.sender));
    a.sock.setRoom(ShapedStream::UNLIMITED);
    there();
    EXPECT_EQ(all, a.sock.wire()) << "what was begun is ended";
    EXPECT_TRUE(a.state().m_frame == nullptr);
    for (int i = 0; i < 3; ++i) {
        there();
    }
    EXPECT_EQ(all, a.sock.wire());
    all += there();
    EXPECT_EQ(all, a.sock.wire());
    EXPECT_EQ(0U, other->GetStats().debt_bytes);
    EXPECT_EQ(0, other->GetBufferNum());
}

// The first frame of a stream begins at position 0, which is that of a sender without a place.
TEST_F(MediaMoves, WhoeverIsBlockedAtTheFirstFrameOfTheOtherStreamKeepsItsPlace) {
    MediaClient& a = client();
    buffer->AddSender(a.sender);
    const std::string all = here();
    EXPECT_TRUE(buffer->MoveSender(*other, a.sender));
    a.sock.setRoom(0);
    std::string group = there();
    other->do_send();
    group += there();
    other->do_send();
    a.sock.setRoom(ShapedStream::UNLIMITED);
    other->do_send();
    EXPECT_EQ(all + group, a.sock.wire());
}

TEST_F(MediaMoves, AFrameThatIsHalfOnTheWireIsEndedFirst) {
    with_start_caches();
    MediaClient& a = viewer();
    std::string all = here();
    a.sock.setRoom(3);
    all += here();
    const std::string group = there();
    EXPECT_TRUE(buffer->MoveSender(*other, a.sender));
    EXPECT_EQ(all.substr(0, 23), a.sock.wire());
    a.sock.setRoom(ShapedStream::UNLIMITED);
    const std::string next = there();
    here();
    EXPECT_EQ(all, a.sock.wire().substr(0, all.size()));
    other->do_send();
    EXPECT_EQ(all + group + next, a.sock.wire());
}

TEST_F(MediaMoves, AtTheNextKeyFrameItGoesOnHereUntilThen) {
    with_start_caches();
    MediaClient& a = viewer();
    std::string all = here();
    there();
    EXPECT_TRUE(buffer->MoveSender(*other, a.sender, MediaMove::NEXT_KEY));
    for (int i = 0; i < 4; ++i) {
        all += here();
        there();
    }
    EXPECT_EQ(all, a.sock.wire());
    all += there();
    EXPECT_EQ(all, a.sock.wire()) << "from that frame on";
    here();
    all += there();
    EXPECT_EQ(all, a.sock.wire());
}

TEST_F(MediaMoves, WithoutAPolicyNobodyWaitsForANextKeyFrame) {
    with_start_caches();
    MediaClient& a = client();
    buffer->AddSender(a.sender);
    EXPECT_FALSE(buffer->MoveSender(*other, a.sender, MediaMove::NEXT_KEY));
    EXPECT_FALSE(buffer->MoveSender(*buffer, a.sender));
    EXPECT_EQ(1U, buffer->GetStats().senders);
}

TEST_F(MediaMoves, DelSenderOnEitherTakesItBack) {
    with_start_caches();
    MediaClient& a = viewer();
    MediaClient& b = viewer();
    std::string all = here();
    buffer->MoveSender(*other, a.sender, MediaMove::NEXT_KEY);
    buffer->MoveSender(*other, b.sender, MediaMove::NEXT_KEY);
    other->DelSender(a.sender);
    buffer->DelSender(b.sender);
    there();
    EXPECT_EQ(0U, other->GetStats().senders);
    EXPECT_EQ(1U, buffer->GetStats().senders) << "it was not on the other's list";
    const std::string next = here();
    EXPECT_EQ(all + next, a.sock.wire());
    EXPECT_EQ(all, b.sock.wire());
}

TEST_F(MediaMoves, ALaterMoveTakesThePlaceOfAnEarlierOne) {
    with_start_caches();
    CMediaBuffer third;
    third.SetStartCache(60000, 1 << 20);
    MediaClient& a = viewer();
    std::string all = here();
    int number = 0;
    buffer->MoveSender(third, a.sender, MediaMove::NEXT_KEY);
    buffer->MoveSender(*other, a.sender, MediaMove::NEXT_KEY);
    frame(third, 'c', number);
    EXPECT_EQ(all, a.sock.wire());
    all += there();
    EXPECT_EQ(all, a.sock.wire());
}

TEST_F(MediaMoves, ThereAndBackBeforeItIsGoneIsNoMove) {
    with_start_caches();
    MediaClient& a = viewer();
    std::string all = here();
    buffer->MoveSender(*other, a.sender, MediaMove::NEXT_KEY);
    other->MoveSender(*buffer, a.sender);
    there();
    all += here();
    EXPECT_EQ(all, a.sock.wire());
}

TEST_F(MediaMoves, ABufferThatGoesAwayIsNotWaitedFor) {
    with_start_caches();
    auto third = std::make_unique<CMediaBuffer>();
    third->SetStartCache(60000, 1 << 20);
    MediaClient& a = viewer();
    std::string all = here();
    buffer->MoveSender(*third, a.sender, MediaMove::NEXT_KEY);
    third.reset();
    all += here();
    EXPECT_EQ(all, a.sock.wire());
}

struct Mover {
    CMediaBuffer* from = nullptr;
    CMediaBuffer* to = nullptr;
    CMediaStreamSender* sender = nullptr;
    void on_frame(CMediaPacket*, int, int) {
        if (to != nullptr) {
            EXPECT_TRUE(from->MoveSender(*std::exchange(to, nullptr), sender));
        }
    }
};

TEST_F(MediaMoves, InsideItsSendProcedureItBeginsNoOtherFrame) {
    with_start_caches();
    MediaClient& a = viewer();
    const std::string group = there();
    std::string all = here();
    a.sock.setRoom(0);
    all += here();
    here();
    Mover mover{buffer.get(), other.get(), a.sender};
    a.sender->AttachSendProc({&Mover::on_frame, &mover});
    a.sock.setRoom(ShapedStream::UNLIMITED);
    here();
    EXPECT_EQ(all + group, a.sock.wire());
    a.sender->DetachSendProc();
}

TEST_F(MediaMoves, InsideACallBackOfAnotherBufferItComesWhenThatIsOver) {
    with_start_caches();
    MediaClient& a = viewer();
    std::string all = here();
    const std::string group = there();
    CMediaBuffer third;
    MediaClient& b = client();
    third.AddSender(b.sender);
    Mover mover{buffer.get(), other.get(), a.sender};
    b.sender->AttachSendProc({&Mover::on_frame, &mover});
    int number = 0;
    frame(third, 'c', number);
    EXPECT_EQ(all + group, a.sock.wire());
    b.sender->DetachSendProc();
    third.DelSender(b.sender);
}

// Three cameras, and clients that move between them at random: on each wire there are whole frames, and after
// each move a key frame of the new camera comes first, and from there on none is missing that was needed.
class MediaMoveModel : public MediaMoves {
protected:
    static constexpr int ROUNDS = 60;
    static constexpr int STEPS = 300;

    void check(const std::string& wire, bool whole) {
        char camera = 0;
        int last = -1;
        for (std::size_t at = 0; at < wire.size();) {
            const std::size_t length = at + 4 < wire.size() && wire[at + 4] == 'K' ? 20 : 10;
            if (wire.size() - at < length) {
                ASSERT_FALSE(whole) << wire.substr(at);
                return;
            }
            ASSERT_EQ(';', wire[at + length - 1]) << "torn: " << wire.substr(at, 20);
            const int number = std::stoi(wire.substr(at + 1, 3));
            const bool key = wire[at + 4] == 'K';
            ASSERT_TRUE(key || (wire[at] == camera && number == last + 1))
                << wire.substr(at, 10) << " after " << camera << last;
            camera = wire[at];
            last = number;
            at += length;
        }
    }
};

TEST_F(MediaMoveModel, WholeFramesAndNoneThatCannotBeDecoded) {
    SeededRandom random;
    for (int round = 0; round < ROUNDS && !HasFatalFailure(); ++round) {
        CMediaBuffer cameras[3];
        int numbers[3] = {};
        const bool cached = !random.oneIn(3);
        for (CMediaBuffer& one : cameras) {
            one.SetStartCache(cached ? 60000 : 0, 1 << 20);
        }
        struct Guest {
            MediaClient real;
            int at = 0;
        };
        std::vector<std::unique_ptr<Guest>> guests;
        for (int i = 0; i < 3; ++i) {
            guests.push_back(std::make_unique<Guest>());
            if (!random.oneIn(3)) {
                guests.back()->real.sender->SetResumePolicy(100000);
            }
            cameras[0].AddSender(guests.back()->real.sender);
        }
        // Without a policy frames that are too old are missing, and the next one comes all the same: such
        // clients are not slow for long.
        for (int step = 0; step < STEPS && !HasFatalFailure(); ++step) {
            clock.advanceUs(10000);
            Guest& one = *guests[random.between<std::size_t>(0, 2)];
            const int to = random.between(0, 2);
            const auto from = static_cast<std::size_t>(one.at);
            if (random.oneIn(6) && to != one.at) {
                const bool waits = cached && one.real.state().has_policy() && random.oneIn(2);
                const MediaMove when = waits ? MediaMove::NEXT_KEY : MediaMove::NOW;
                ASSERT_TRUE(cameras[from].MoveSender(cameras[to], one.real.sender, when));
            } else {
                const int camera = random.between(0, 2);
                if (numbers[camera] < 800) {
                    frame(cameras[camera], static_cast<char>('a' + camera), numbers[camera]);
                }
            }
            one.real.sock.setRoom(random.oneIn(4) ? random.between<std::size_t>(0, 25)
                                                  : ShapedStream::UNLIMITED);
            for (const auto& guest : guests) {
                for (int i = 0; i < 3; ++i) {
                    guest->at = guest->real.state().m_list == MediaBufferState::of(cameras[i]).m_core.get()
                                    ? i
                                    : guest->at;
                }
                check(guest->real.sock.wire(), false);
            }
        }
        for (const auto& guest : guests) {
            guest->real.sock.setRoom(ShapedStream::UNLIMITED);
            for (int i = 0; i < 3; ++i) {
                cameras[i].do_send();
            }
            frame(cameras[guest->at], static_cast<char>('a' + guest->at), numbers[guest->at]);
            check(guest->real.sock.wire(), true);
            EXPECT_EQ(0U, guest->real.sender->GetStats().skips);
            for (CMediaBuffer& camera : cameras) {
                camera.DelSender(guest->real.sender);
            }
            guest->real.sender->Close();
        }
        serveAll();
    }
}

// Two producers, and a third thread that moves clients about.
TEST_F(MediaMoves, FromAnyThreadWithoutTwoLocks) {
    constexpr int FRAMES = 400;
    constexpr int MOVES = 400;
    with_start_caches();
    MediaClient& a = viewer();
    MediaClient& b = viewer();
    std::vector<std::vector<char>> bytes(2, std::vector<char>(10, 'x'));
    struct Plain : CMediaPacket {
        explicit Plain(char* at) : m_at(at) {}
        int Release() override {
            delete this;
            return 0;
        }
        char* GetBuffer() override { return m_at; }
        char* m_at;
    };
    const auto run = [&bytes](CMediaBuffer& to, std::size_t own) {
        for (int i = 0; i < FRAMES; ++i) {
            to.Put(new Plain(bytes[own].data()), 10, 1, mediaLevel(0, i % SHORT_GROUP == 0 ? 1 : 5));
        }
    };
    std::thread one([&] { run(*buffer, 0); });
    std::thread two([&] { run(*other, 1); });
    for (int i = 0; i < MOVES; ++i) {
        const MediaMove when = i % 3 == 0 ? MediaMove::NEXT_KEY : MediaMove::NOW;
        (i % 2 == 0 ? buffer : other)->MoveSender(i % 2 == 0 ? *other : *buffer, a.sender, when);
        (i % 4 < 2 ? buffer : other)->MoveSender(i % 4 < 2 ? *other : *buffer, b.sender);
    }
    one.join();
    two.join();
    EXPECT_EQ(0U, a.sock.wire().size() % 10);
    EXPECT_EQ(0U, b.sock.wire().size() % 10);
    EXPECT_EQ(2U, buffer->GetStats().senders + other->GetStats().senders);
}

}  // namespace Orvex::Testing
