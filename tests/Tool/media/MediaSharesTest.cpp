// Clients that catch up with the start cache, beside others: whose turn comes when, and how much it is.
#include <algorithm>

#include "support/HandClock.h"
#include "support/media/RoomStand.h"

namespace Orvex::Testing {

using namespace Reticor;

class MediaShares : public RoomStand {
protected:
    static constexpr std::size_t SHARE = StartShares::SENDER_BYTES;
    static constexpr std::size_t STEP = StartShares::STEP_BYTES;
    static constexpr std::size_t OPEN = ShapedStream::UNLIMITED;

    // One client is there from the first frame on, and keeps up.
    MediaShares() {
        buffer->SetStartCache(10000, 1 << 26);
        comes('l');
    }

    struct Teller {
        void tell(CMediaPacket*, int, int) { order->push_back(name); }
        char name;
        std::string* order;
    };

    MediaClient& comes(char name = '-') {
        MediaClient& made = client();
        made.sender->SetResumePolicy(1000);
        tellers.push_back(std::make_unique<Teller>(Teller{name, &order}));
        made.sender->AttachSendProc({&Teller::tell, tellers.back().get()});
        buffer->AddSender(made.sender);
        return made;
    }
    // It waits for room before it comes.
    MediaClient& waiterComes() {
        MediaClient& made = client();
        made.sender->SetResumePolicy(1000);
        owner->RegisterSock(made.sock, SOCK_READ, 0);
        senders[made.sock.GetHandle()] = made.sender;
        EXPECT_EQ(0, made.sender->WaitRoom(owner->GetID()));
        buffer->AddSender(made.sender);
        return made;
    }
    // A key frame and others, of a share each.
    void group(int others) {
        frame(1);
        for (int i = 0; i < others; ++i) {
            frame(5);
        }
    }
    void frame(int level, std::size_t bytes = SHARE) {
        clock.advanceUs(10000);
        put(bytes, 1, level);
    }
    // What all but that one have been sent.
    std::size_t onTheWire() const {
        std::size_t all = 0;
        for (std::size_t i = 1; i < clients.size(); ++i) {
            all += clients[i]->sock.wire().size();
        }
        return all;
    }

    HandClock clock;
    std::string order;  // who has finished a frame
    std::vector<std::unique_ptr<Teller>> tellers;
};

TEST_F(MediaShares, WhoeverCatchesUpComesAfterTheOthers) {
    group(4);
    comes('c');
    order.clear();
    frame(5, 10);
    EXPECT_EQ("lc", order) << "a frame of the one, a share of the other";
}

TEST_F(MediaShares, WhoeverIsPastWhatWasHeldComesInItsPlaceHoweverLate) {
    group(1);
    MediaClient& slow = comes('s');
    slow.sock.setRoom(SHARE);
    frame(5, 10);
    frame(5, 10);
    order.clear();
    slow.sock.setRoom(OPEN);
    frame(5, 10);
    EXPECT_EQ("sssl", order) << "the newest first, as ever";
}

TEST_F(MediaShares, AStepEndsThemByBytesAndNobodyIsLeftOut) {
    constexpr std::size_t CLIENTS = STEP / SHARE + 4;
    group(3);
    for (std::size_t i = 0; i < CLIENTS; ++i) {
        comes();
    }
    EXPECT_EQ(CLIENTS * SHARE, onTheWire()) << "each one's first share";
    for (std::size_t shares = 1; shares <= 3; ++shares) {
        tick();
        EXPECT_EQ(shares * CLIENTS * SHARE + STEP, onTheWire());
        tick();
        EXPECT_EQ((shares + 1) * CLIENTS * SHARE, onTheWire()) << "whoever had none was first";
    }
}

TEST_F(MediaShares, WhoeverTakesLittleKeepsNobodyFromHisTurn) {
    constexpr std::size_t CLIENTS = 3 * STEP / SHARE;
    group(3);
    for (std::size_t i = 0; i < CLIENTS; ++i) {
        comes().sock.setRoom(100);
    }
    const std::size_t before = onTheWire();
    tick();
    EXPECT_EQ(before + CLIENTS * 100, onTheWire());
}

TEST_F(MediaShares, TheLastClientMayFailBeforeItHasCaughtUp) {
    group(3);
    buffer->DelSender(clients.front()->sender);
    MediaClient& a = comes();
    a.sock.setRoom(0);
    a.sock.fail(EPIPE);
    frame(5, 10);
    EXPECT_FALSE(hasSender());
    MediaStartStats held;
    EXPECT_TRUE(buffer->GetStartStats(&held));
    EXPECT_EQ(5U, held.frames);
}

TEST_F(MediaShares, WhoeverWaitsForRoomCatchesUpWithoutAFrame) {
    group(3);
    MediaClient& a = waiterComes();
    for (std::size_t shares = 1; shares <= 3; ++shares) {
        EXPECT_EQ(shares * SHARE, a.sock.wire().size());
        EXPECT_TRUE(isWatched(a));
        tick();
        EXPECT_EQ(shares * SHARE, a.sock.wire().size()) << "a step has no share for it";
        haveRoom();
    }
    EXPECT_EQ(4 * SHARE, a.sock.wire().size());
    EXPECT_FALSE(isWatched(a));
    EXPECT_EQ(0U, a.sender->GetStats().blocked_us);
}

TEST_F(MediaShares, BetweenTwoStepsWorkersSendNoMoreThanAStepDoes) {
    constexpr std::size_t CLIENTS = STEP / SHARE + 3;
    group(3);
    for (std::size_t i = 0; i < CLIENTS; ++i) {
        waiterComes();
    }
    haveRoom();
    haveRoom();
    EXPECT_EQ(CLIENTS * SHARE + STEP, onTheWire());
    tick();
    EXPECT_EQ(CLIENTS * SHARE + 2 * STEP, onTheWire()) << "whoever had none, after the others";
    for (int i = 0; i < 5; ++i) {
        haveRoom();
        tick();
    }
    EXPECT_EQ(CLIENTS * 4 * SHARE, onTheWire());
}

}  // namespace Orvex::Testing
