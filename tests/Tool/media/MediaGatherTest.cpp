// Several frames in one write, held frames, both with waiting for room: the bytes stay the same.
#include "support/HandClock.h"
#include "support/SeededRandom.h"
#include "support/media/Pictures.h"
#include "support/media/RoomStand.h"

namespace Orvex::Testing {

using namespace Reticor;

class MediaGather : public RoomStand {
protected:
    struct Proc {
        std::function<void()> run;
        void call(CMediaPacket*, int, int) { run(); }
    };

    MediaClient& gatheringClient() {
        MediaClient& made = joinedClient();
        made.sender->SetGather(true);
        return made;
    }
    std::string putSeveral(int frames, int level = 5) {
        std::string bytes;
        for (int i = 0; i < frames; ++i) {
            bytes += putFrame({3, 7}, level);
        }
        return bytes;
    }
};

TEST_F(MediaGather, HeldFramesGoOutInOneWrite) {
    MediaClient& quick = gatheringClient();
    MediaClient& plain = joinedClient();
    quick.sock.clearCalls();
    quick.sock.clearWire();
    buffer->Hold();
    const std::string bytes = putSeveral(5);
    tick();
    EXPECT_TRUE(quick.sock.calls().empty());
    buffer->Flush();
    EXPECT_EQ(std::vector<std::size_t>{10}, quick.sock.calls());
    EXPECT_EQ(bytes, quick.sock.wire());
    EXPECT_EQ(5U, plain.sock.calls().size());
    EXPECT_EQ(bytes, plain.sock.wire());
    EXPECT_EQ(5U, roomStats(quick).gathered_frames);
    EXPECT_EQ(7U, quick.sender->GetStats().frames);
    EXPECT_EQ(0U, quick.sender->GetStats().backlog_bytes);
}

TEST_F(MediaGather, AWriteTakesSixteenFramesOrAMebibyte) {
    MediaClient& quick = gatheringClient();
    quick.sock.clearCalls();
    buffer->Hold();
    for (int i = 0; i < 20; ++i) {
        put(10, 1, 1);
    }
    buffer->Flush();
    EXPECT_EQ((std::vector<std::size_t>{16, 4}), quick.sock.calls());
    quick.sock.clearCalls();
    buffer->Hold();
    for (int i = 0; i < 4; ++i) {
        put(400000, 1, 1);
    }
    buffer->Flush();
    EXPECT_EQ((std::vector<std::size_t>{2, 2}), quick.sock.calls());
}

TEST_F(MediaGather, AHoldJoinsNewClientsAtItsFirstKeyFrame) {
    MediaClient& first = gatheringClient();
    MediaClient& fresh = client();
    buffer->AddSender(fresh.sender);
    buffer->Hold();
    putSeveral(1);
    std::string bytes = put(10, 1, 1);
    bytes += put(10, 1, 5);
    buffer->Flush();
    EXPECT_EQ(bytes, fresh.sock.wire());
    EXPECT_EQ(30U, first.sock.wire().size());
}

TEST_F(MediaGather, AHoldFromTheFirstFrameOnLosesNone) {
    MediaClient& fresh = client();
    fresh.sender->SetGather(true);
    buffer->AddSender(fresh.sender);
    buffer->Hold();
    std::string bytes;
    for (int i = 0; i < 3; ++i) {
        bytes += put(10, 1, 1);
    }
    EXPECT_EQ(3U, buffer->GetStats().frames);
    buffer->Flush();
    EXPECT_EQ(bytes, fresh.sock.wire());
}

TEST_F(MediaGather, OtherDataIsNotOvertakenAndNotInsideAFrame) {
    MediaClient& quick = gatheringClient();
    quick.sock.clearWire();
    Proc proc{[&] {
        quick.sender->DetachSendProc();
        quick.sender->SendOtherData("other", 5);
    }};
    quick.sender->AttachSendProc({&Proc::call, &proc});
    buffer->Hold();
    const std::string bytes = putSeveral(3);
    buffer->Flush();
    EXPECT_EQ(bytes + "other", quick.sock.wire());
    quick.sock.clearWire();
    quick.sender->SendOtherData("more", 4);
    buffer->Hold();
    const std::string later = putSeveral(2);
    buffer->Flush();
    EXPECT_EQ("more" + later, quick.sock.wire());
}

TEST_F(MediaGather, TakenOffAfterTheFirstFrameTheOthersAreCredited) {
    MediaClient& quick = gatheringClient();
    quick.sock.clearWire();
    int finished = 0;
    Proc proc{[&] {
        ++finished;
        buffer->DelSender(quick.sender);
    }};
    quick.sender->AttachSendProc({&Proc::call, &proc});
    buffer->Hold();
    const std::string bytes = putSeveral(3);
    quick.sock.setRoom(24);  // into the second packet of the third one
    buffer->Flush();
    quick.sender->DetachSendProc();
    EXPECT_EQ(2, finished);
    EXPECT_EQ(bytes.substr(0, 24), quick.sock.wire());
    char tail[16];
    ASSERT_EQ(6, quick.sender->GetTailPacket(tail, sizeof tail));
    EXPECT_EQ(bytes.substr(24), std::string(tail, 6));
}

TEST_F(MediaGather, AFailureOfAGatheredWriteIsOne) {
    MediaClient& quick = gatheringClient();
    quick.sender->WaitException(waiter->GetID());
    buffer->Hold();
    putSeveral(3);
    quick.sock.setRoom(0);
    quick.sock.fail(EPIPE);
    buffer->Flush();
    EXPECT_FALSE(quick.sender->GetStats().listed);
    EXPECT_EQ(1U, messages().size());
    EXPECT_EQ(1U, quick.sender->GetStats().frames);
}

// The same stream into three buffers. The clients of the first one do as senders always did; those of the
// second one wait for room, and those of the third one gather as well. Their sockets have room at the same
// moments, and the first buffer's senders are let go on then.
class MediaWaitingModel : public ::testing::Test {
protected:
    static constexpr int WORLDS = 3;
    static constexpr int CLIENTS = 4;

    struct One {
        ShapedStream sock;
        CMediaStreamSender* sender = CMediaStreamSender::Create();
    };
    struct World {
        std::vector<int> released;
        std::deque<TestPacket> packets;
        CMediaBuffer buffer;
        std::vector<std::unique_ptr<One>> clients;
    };

    ~MediaWaitingModel() override {
        drop_worlds();
        rig.close(owner);
    }

    void drop_worlds() {
        for (const auto& world : worlds) {
            for (const auto& one : world->clients) {
                world->buffer.DelSender(one->sender);
                owner->RemoveSock(one->sock);
                one->sender->Close();
            }
            for (CEvent* ev : rig.takeQueue()) {
                rig.serve(ev);
            }
        }
        worlds.clear();
        senders.clear();
    }

    void new_round() {
        drop_worlds();
        const unsigned lag_ms = random.between(100u, 2000u);
        const unsigned hard_ms = random.oneIn(3) ? lag_ms * 2 : 0;
        const int disposable = random.oneIn(2) ? 8 : 0;
        int modes[CLIENTS];
        for (int& mode : modes) {
            mode = random.between(0, 2);
        }
        for (int w = 0; w < WORLDS; ++w) {
            worlds.push_back(std::make_unique<World>());
            World& world = *worlds.back();
            world.buffer.SetDisposableLevel(disposable);
            for (const int mode : modes) {
                world.clients.push_back(std::make_unique<One>());
                One& one = *world.clients.back();
                one.sender->Attach(&one.sock);
                if (mode != 0) {
                    one.sender->SetResumePolicy(lag_ms, mode == 1 ? MediaResume::AHEAD : MediaResume::STRICT,
                                                hard_ms);
                }
                if (w != 0) {
                    owner->RegisterSock(one.sock, SOCK_READ, 0);
                    senders[one.sock.GetHandle()] = one.sender;
                    one.sender->WaitRoom(owner->GetID());
                    one.sender->SetGather(w == 2);
                }
                world.buffer.AddSender(one.sender);
            }
        }
        // One whose very first frame found no room does not hold it back; whoever waits for room does.
        put_frame(1, 0);
        put_frame(1, 1);
    }

    void put_frame() {
        clock.advanceUs(FRAME_US);
        const int level = random.oneIn(8) ? 1 : random.oneIn(3) ? 9 : 5;
        put_frame(level, random.oneIn(4) ? 1 : 0);
    }
    void put_frame(int level, int channel) {
        const std::size_t length = random.between<std::size_t>(1, 40);
        const std::string bytes(length, static_cast<char>('a' + ++count % 26));
        for (const auto& world : worlds) {
            world->packets.emplace_back(count, bytes, &world->released);
            TestPacket& packet = world->packets.back();
            world->buffer.Put(&packet, packet.length(), MEDIA_MARK_LAST, mediaLevel(channel, level));
        }
    }

    void send_other(std::size_t index) {
        for (const auto& world : worlds) {
            world->clients[index]->sender->SendOtherData("#", 1);
        }
    }

    void give_room(std::size_t index) {
        const std::size_t room =
            random.oneIn(4) ? ShapedStream::UNLIMITED : random.between<std::size_t>(0, 60);
        for (const auto& world : worlds) {
            world->clients[index]->sock.setRoom(room);
        }
        worlds[0]->buffer.put(nullptr, 0, MEDIA_MARK_LAST, 0, false);
        for (int pass = 0; pass < 2; ++pass) {
            for (CEvent* ev : rig.poll()) {
                rig.serve(ev);
            }
        }
    }

    void compare() {
        for (std::size_t i = 0; i < CLIENTS; ++i) {
            const One& plain = *worlds[0]->clients[i];
            for (std::size_t w = 1; w < WORLDS; ++w) {
                const One& one = *worlds[w]->clients[i];
                ASSERT_EQ(plain.sock.wire(), one.sock.wire()) << "world " << w << ", client " << i;
                ASSERT_EQ(plain.sender->GetStats().frames, one.sender->GetStats().frames);
            }
        }
        // What they are past goes with the next step.
        for (const auto& world : worlds) {
            world->buffer.put(nullptr, 0, MEDIA_MARK_LAST, 0, false);
        }
        const MediaBufferStats plain = worlds[0]->buffer.GetStats();
        for (std::size_t w = 1; w < WORLDS; ++w) {
            ASSERT_GE(plain.kept_frames, worlds[w]->buffer.GetStats().kept_frames);
            ASSERT_GE(plain.frames, worlds[w]->buffer.GetStats().frames);
        }
    }

    StillPool rig{0};
    HandClock clock;
    SeededRandom random;
    TestHandler* owner = [this] {
        auto* const made = new TestHandler(0);
        made->on_output = [this](int fd) { return senders.at(fd)->handle_output(fd); };
        return made;
    }();
    std::map<int, CMediaStreamSender*> senders;
    std::vector<std::unique_ptr<World>> worlds;
    int count = 0;
};

TEST_F(MediaWaitingModel, EveryClientGetsTheSameBytes) {
    constexpr int ROUNDS = 30;
    constexpr int STEPS = 150;
    for (int round = 0; round < ROUNDS && !HasFatalFailure(); ++round) {
        new_round();
        for (int step = 0; step < STEPS && !HasFatalFailure(); ++step) {
            const unsigned what = random.between(1u, 100u);
            if (what <= 60) {
                put_frame();
            } else if (what <= 95) {
                give_room(random.between<std::size_t>(0, CLIENTS - 1));
            } else {
                send_other(random.between<std::size_t>(0, CLIENTS - 1));
            }
            compare();
            if (HasFatalFailure()) {
                FAIL() << "round " << round << ", step " << step;
            }
        }
    }
}

}  // namespace Orvex::Testing
