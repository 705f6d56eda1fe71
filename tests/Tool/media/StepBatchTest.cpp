// StepBatch: which writes of a step are made together, and that senders cannot tell.
#include "Tool/media/StepBatch.h"

#include <sys/syscall.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/HandClock.h"
#include "support/LogCapture.h"
#include "support/media/PlainBatch.h"
#include "support/media/RefusedCall.h"
#include "support/media/RoomStand.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// How many writes each batch had.
using Batches = std::vector<std::size_t>;

class NotingBatch : public PlainBatch {
public:
    explicit NotingBatch(Batches& batches) : m_batches(batches) {}
    void write(BatchedWrite* writes, std::size_t count) override {
        m_batches.push_back(count);
        PlainBatch::write(writes, count);
    }

private:
    Batches& m_batches;
};

class RefusingBatch : public BatchWriter_IF {
public:
    void write(BatchedWrite* writes, std::size_t count) override {
        for (std::size_t i = 0; i < count / 2; ++i) {
            const ssize_t sent = ::sendmsg(writes[i].fd, &writes[i].message, MSG_NOSIGNAL);
            writes[i].result = static_cast<int>(sent);
        }
    }
};

struct Proc {
    std::function<void()> run;
    void call(CMediaPacket*, int, int) { run(); }
};

struct TakesAll {
    MediaVerdict ask(const MediaOffer&) { return MediaVerdict::SEND; }
};

class StepBatchOfABuffer : public RoomStand {
protected:
    void batchFrom(std::size_t least) {
        PlainBatch::set(*buffer, least, std::make_unique<NotingBatch>(batches));
    }
    // The last one comes first on the list.
    void joined(int count) {
        for (int i = 0; i < count; ++i) {
            joinedClient();
        }
        forget();
    }
    void forget() {
        for (const auto& each : clients) {
            each->sock.clearWire();
            each->sock.clearCalls();
        }
    }
    void expectAll(const std::string& bytes) {
        for (const auto& each : clients) {
            EXPECT_EQ(bytes, each->sock.wire());
            EXPECT_EQ(1U, each->sock.calls().size());
        }
    }

    Batches batches;
};

TEST_F(StepBatchOfABuffer, FromSoManyOnTheWritesOfAStepAreOne) {
    joined(3);
    batchFrom(4);
    expectAll(putFrame({3, 4}, 5));
    EXPECT_EQ(Batches{}, batches);
    joinedClient();
    forget();
    expectAll(putFrame({3, 4}, 5));
    EXPECT_EQ(Batches{4}, batches);
    EXPECT_EQ(4U, PlainBatch::writesOf(*buffer));
}

TEST_F(StepBatchOfABuffer, ManyClientsAreServedInSeveral) {
    joined(300);
    batchFrom(10);
    expectAll(put(9, 1, 5));
    EXPECT_EQ((Batches{StepBatch::MOST, 300 - StepBatch::MOST}), batches);
    for (const auto& each : clients) {
        EXPECT_EQ(nullptr, each->state().m_frame);
    }
}

TEST_F(StepBatchOfABuffer, WhoeverGetsSomethingElseFirstWritesItself) {
    joined(5);
    MediaClient& late = *clients[0];
    MediaClient& talks = *clients[1];
    MediaClient& mute = *clients[2];
    late.sock.setRoom(4);
    put(10, 1, 5);
    late.sock.setRoom(ShapedStream::UNLIMITED);
    talks.sender->SendOtherData("O", 1);
    mute.sender->SetSendChannel(3);
    forget();
    batchFrom(1);
    const std::string bytes = put(8, 1, 5);
    EXPECT_EQ(Batches{2}, batches);
    EXPECT_EQ(2U, late.sock.calls().size());
    EXPECT_EQ("O" + bytes, talks.sock.wire());
    EXPECT_EQ("", mute.sock.wire());
    EXPECT_EQ(bytes, clients[3]->sock.wire());
    EXPECT_EQ(bytes, clients[4]->sock.wire());
}

TEST_F(StepBatchOfABuffer, ABlockingSocketIsNeverPartOfOne) {
    joined(3);
    clients[1]->sock.SetBlockOpt(true);
    batchFrom(1);
    expectAll(put(8, 1, 5));
    EXPECT_EQ(Batches{2}, batches);
}

// The newest comes first: c, b, a.
TEST_F(StepBatchOfABuffer, NothingIsWrittenToThoseThatAProcedureTakesOff) {
    joined(5);
    batchFrom(1);
    Proc proc;
    proc.run = [&] { buffer->DelSender(clients[0]->sender); };
    clients[2]->sender->AttachSendProc({&Proc::call, &proc});
    const std::string bytes = put(8, 1, 5);
    EXPECT_EQ((Batches{2, 1}), batches) << "two before it, and one of the two after it";
    EXPECT_EQ("", clients[0]->sock.wire());
    for (int i = 1; i < 5; ++i) {
        EXPECT_EQ(bytes, clients[static_cast<std::size_t>(i)]->sock.wire()) << i;
    }
}

TEST_F(StepBatchOfABuffer, ItCanBeSwitchedOffInsideAStep) {
    joined(5);
    batchFrom(1);
    Proc proc;
    proc.run = [&] { EXPECT_EQ(0, buffer->SetWriteBatch(0)); };
    clients[2]->sender->AttachSendProc({&Proc::call, &proc});
    expectAll(put(8, 1, 5));
    EXPECT_EQ(Batches{2}, batches);
}

TEST_F(StepBatchOfABuffer, AFilterEndsOne) {
    joined(3);
    batchFrom(1);
    TakesAll filter;
    clients[1]->sender->AttachFilter({&TakesAll::ask, &filter});
    expectAll(put(8, 1, 5));
    EXPECT_EQ((Batches{1, 1}), batches);
}

TEST_F(StepBatchOfABuffer, HeldFramesAreWrittenByTheFlush) {
    joined(3);
    batchFrom(1);
    buffer->Hold();
    std::string bytes = put(8, 1, 5);
    bytes += put(9, 1, 5);
    EXPECT_EQ(Batches{}, batches);
    buffer->Flush();
    for (const auto& each : clients) {
        EXPECT_EQ(bytes, each->sock.wire());
    }
}

TEST_F(StepBatchOfABuffer, AShortWriteGoesOnWhereItEnded) {
    joined(3);
    batchFrom(1);
    clients[1]->sock.setRoom(5);
    const std::string bytes = putFrame({3, 7}, 5);
    EXPECT_EQ(bytes.substr(0, 5), clients[1]->sock.wire());
    clients[1]->sock.setRoom(ShapedStream::UNLIMITED);
    const std::string next = put(4, 1, 5);
    EXPECT_EQ(bytes + next, clients[1]->sock.wire());
    EXPECT_EQ(Batches({3, 2}), batches);
}

TEST_F(StepBatchOfABuffer, WhoWaitsForRoomIsWatchedAndNotTried) {
    joined(1);
    MediaClient& waits = waitingClient();
    batchFrom(1);
    waits.sock.setRoom(4);
    waits.sock.clearCalls();
    put(10, 1, 5);
    EXPECT_TRUE(isWatched(waits));
    put(10, 1, 5);
    EXPECT_EQ(1U, waits.sock.calls().size());
    EXPECT_EQ(Batches({2, 1}), batches);
}

// What its socket did not take was taken over by the product, so it stands nowhere, and is full all the same.
TEST_F(StepBatchOfABuffer, AFullSocketIsNotTriedThoughItsTailIsTaken) {
    joined(2);
    MediaClient& waits = fullClient();
    char tail[16];
    EXPECT_EQ(6, waits.sender->GetTailPacket(tail, sizeof tail));
    batchFrom(1);
    waits.sock.clearCalls();
    put(10, 1, 5);
    EXPECT_EQ(Batches{2}, batches);
    EXPECT_TRUE(waits.sock.calls().empty());
}

// One breaks in a batch, another one by a call of its own: the lines are the same but for object and place.
TEST_F(StepBatchOfABuffer, AFailureIsSaidAsThatOfACallIs) {
    joined(4);
    MediaClient& first = *clients[3];
    MediaClient& second = *clients[2];
    for (MediaClient* each : {&first, &second}) {
        each->sender->WaitException(waiter->GetID());
    }
    LogCapture log(3);
    first.sock.fail(ECONNRESET);
    first.sock.setRoom(0);
    put(8, 1, 5);
    const std::vector<CapturedLine> plain = log.lines();
    const std::size_t told = messages().size();
    log.clear();
    batchFrom(1);
    second.sock.fail(ECONNRESET);
    second.sock.setRoom(0);
    put(8, 1, 5);
    EXPECT_EQ(Batches{3}, batches);
    const std::vector<CapturedLine> batched = log.lines();
    ASSERT_EQ(plain.size(), batched.size()) << log.dump();
    for (std::size_t i = 0; i < plain.size(); ++i) {
        EXPECT_EQ(plain[i].level, batched[i].level);
        EXPECT_EQ(plain[i].text, batched[i].text);
        EXPECT_EQ(plain[i].file, batched[i].file);
        EXPECT_EQ(plain[i].function, batched[i].function);
    }
    EXPECT_EQ(1U, told);
    EXPECT_EQ(1U, messages().size());
    EXPECT_EQ(nullptr, second.state().m_list);
    EXPECT_EQ(2U, buffer->GetStats().senders);
}

TEST_F(StepBatchOfABuffer, WhatTheKernelDoesNotTakeIsWrittenByACall) {
    joined(6);
    PlainBatch::set(*buffer, 1, std::make_unique<RefusingBatch>());
    expectAll(put(8, 1, 5));
}

TEST_F(StepBatchOfABuffer, NeedsNoAllocation) {
    joined(8);
    for (const auto& each : clients) {
        each->sock.reserveWire(1000);
    }
    released.reserve(100);
    const auto allocations_of_a_frame = [this] {
        TestPacket& made = packet(8);
        const std::size_t before = allocationCount();
        buffer->Put(&made, made.length(), 1, mediaLevel(0, 5));
        return allocationCount() - before;
    };
    put(8, 1, 5);
    const std::size_t without = allocations_of_a_frame();  // builds that watch their locks have one
    PlainBatch::set(*buffer, 1);
    EXPECT_EQ(without, allocations_of_a_frame());
    EXPECT_EQ(8U, PlainBatch::writesOf(*buffer));
}

// Sockets of the kernel's own, some of which are read late.
TEST_F(StepBatchOfABuffer, ByTheKernelEveryByteArrives) {
    struct Viewer {
        Viewer() {
            int ends[2] = {-1, -1};
            EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
            near.Attach(ends[0]);
            far.Attach(ends[1]);
            sender->Attach(&near);
        }
        void read() {
            char room[65536];
            for (ssize_t got = 1; got > 0;) {
                got = ::recv(far.GetHandle(), room, sizeof room, 0);
                bytes.append(room, got > 0 ? static_cast<std::size_t>(got) : 0);
            }
        }
        CSockStream near;
        CSockStream far;
        CMediaStreamSender* const sender = CMediaStreamSender::Create();
        std::string bytes;
    };
    if (buffer->SetWriteBatch(8) != 0) {
        std::printf("left out: the kernel refuses io_uring: %s\n", std::strerror(errno));
        return;
    }
    std::vector<std::unique_ptr<Viewer>> viewers;
    for (int i = 0; i < 100; ++i) {
        viewers.push_back(std::make_unique<Viewer>());
        buffer->AddSender(viewers.back()->sender);
    }
    std::string all;
    for (int frame = 0; frame < 60; ++frame) {
        all += putFrame({100, 20000, 3}, frame == 0 ? 1 : 5);
        for (std::size_t i = 0; i < viewers.size(); ++i) {
            if (i % 10 != 0 || frame % 20 == 19) {
                viewers[i]->read();
            }
        }
    }
    EXPECT_GT(PlainBatch::writesOf(*buffer), 4000U);
    for (int rest = 0; rest < 30; ++rest) {
        tick();
        viewers[0]->read();
    }
    for (const auto& viewer : viewers) {
        viewer->read();
        EXPECT_EQ(0, all.compare(0, viewer->bytes.size(), viewer->bytes)) << "nothing is torn or twice";
        buffer->DelSender(viewer->sender);
        viewer->sender->Close();
    }
    EXPECT_EQ(all.size(), viewers[1]->bytes.size());
    serveAll();
}

TEST_F(StepBatchOfABuffer, WhereTheKernelRefusesNothingChanges) {
    joined(3);
    const bool filtered = runWithRefusedCall(__NR_io_uring_setup, [&] {
        errno = 0;
        EXPECT_EQ(-1, buffer->SetWriteBatch(1));
        EXPECT_EQ(EPERM, errno);
    });
    if (!filtered) {
        std::printf("left out: no filters of system calls here\n");
        return;
    }
    expectAll(put(8, 1, 5));
    EXPECT_EQ(0U, PlainBatch::writesOf(*buffer));
}

}  // namespace
}  // namespace Orvex::Testing
