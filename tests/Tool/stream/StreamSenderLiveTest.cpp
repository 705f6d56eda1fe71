// CStreamSender in a running pool over real connections, and its ends under race.
#include <Reticor/StreamSender.h>

#include <poll.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include <Infra/Semaphore.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "support/PoolFixture.h"
#include "support/SeededRandom.h"
#include "support/core/Probes.h"
#include "support/core/SocketPair.h"
#include "support/media/StreamSenderFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr unsigned WAIT_MS = 60000;

class StreamSenderLive : public PoolFixture {
protected:
    // Connects `near` and `far` over TCP, with small buffers.
    void connect(const CSockAddr& any) {
        CSockAcceptor acceptor;
        ASSERT_EQ(0, acceptor.Open(any));
        CSockAddrStorage local;
        ASSERT_EQ(0, acceptor.GetLocalAddr(&local));
        far.SetBlockOpt(true);
        ASSERT_EQ(0, far.Connect(local, nullptr));
        acceptor.SetBlockOpt(true);
        ASSERT_EQ(0, acceptor.Accept(near, nullptr));
        near.SetSockSendBuf(16 * 1024);
        far.SetSockRecvBuf(16 * 1024);
    }

    // Sends `total` bytes in puts of random lengths, waiting for room in between, while another thread reads.
    void transfer(std::size_t total) {
        const std::string bytes = patternBytes(total);
        std::string got;
        std::thread reader([&] {
            std::string buffer(20000, '\0');
            while (got.size() < total) {
                const int count = far.Recv(buffer.data(), static_cast<unsigned>(buffer.size()));
                if (count < 0) {
                    break;
                }
                got.append(buffer.data(), static_cast<std::size_t>(count));
            }
        });
        SeededRandom random;
        for (std::size_t at = 0; at < total;) {
            const std::size_t length =
                std::min<std::size_t>(total - at, random.between<std::size_t>(1, 100000));
            while (sender->Put(bytes.data() + at, static_cast<unsigned>(length)) != 0) {
                sender->WaitBufferSize(waiter->GetID(), static_cast<unsigned>(length));
                ASSERT_EQ(0, room.pend(WAIT_MS));
                ++stalls;
            }
            at += length;
        }
        sender->WaitSendFinish(waiter->GetID());
        EXPECT_EQ(0, drained.pend(WAIT_MS));
        reader.join();
        EXPECT_TRUE(got == bytes);
    }

    static std::string patternBytes(std::size_t length) {
        std::string bytes(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
        }
        return bytes;
    }

    void makeHandlers() {
        sender = CStreamSender::Create();
        sender->AddRef();
        owner = new TestHandler;
        owner->on_output = [this](int fd) { return sender->handle_output(fd); };
        waiter = new TestHandler;
        waiter->on_message = [this](long, unsigned int msg, long) {
            (msg == STREAM_SENDER_ROOM ? room : msg == STREAM_SENDER_DRAINED ? drained : failed).post();
            return 0;
        };
        sender->Attach(owner, &near);
        sender->WaitException(waiter->GetID());
    }

    void end() {
        EXPECT_EQ(sender->Detach(), &near);
        owner->RemoveSock(near);
        EXPECT_EVENTUALLY(ThreadPoolProbe::sockets(*PoolTable::Get(0)).empty());
        near.Close();
        closeAndWait(owner);
        closeAndWait(waiter);
        const long id = sender->GetID();
        sender->Close();
        sender->DecRef();
        EXPECT_EVENTUALLY(!PoolTable::FindHandler(id));
    }

    CSockStream near;
    CSockStream far;
    CStreamSender* sender = nullptr;
    TestHandler* owner = nullptr;
    TestHandler* waiter = nullptr;
    Infra::CSemaphore room{0};
    Infra::CSemaphore drained{0};
    Infra::CSemaphore failed{0};
    int stalls = 0;
};

TEST_F(StreamSenderLive, EveryByteArrivesOnceAndInOrderOverIPv4) {
    connect(CSockAddrIPv4("127.0.0.1", 0));
    makeHandlers();
    transfer(3000000);
    EXPECT_GT(stalls, 0);
    end();
}

TEST_F(StreamSenderLive, EveryByteArrivesOnceAndInOrderOverIPv6) {
    connect(CSockAddrIPv6("::1", 0));
    makeHandlers();
    transfer(3000000);
    EXPECT_GT(stalls, 0);
    end();
}

TEST_F(StreamSenderLive, FailureOfTheConnectionIsTold) {
    connect(CSockAddrIPv4("127.0.0.1", 0));
    makeHandlers();
    const std::string bytes(200000, 'x');
    while (sender->Put(bytes.data(), static_cast<unsigned>(bytes.size())) == 0) {
    }
    far.Close();  // with bytes unread, so that the near end gets a reset
    EXPECT_EQ(0, failed.pend(WAIT_MS));
    EXPECT_EVENTUALLY(HandlerProbe::sockets(*owner) == 0);
    end();
}

// The last reference on the owner can go while a Put registers its socket: the owner's handle_close then runs
// inside the Put, and must not run under the sender's mutex.
TEST_F(StreamSenderLive, OwnerThatGoesDuringAPutIsReleasedOutsideTheMutex) {
    sender = CStreamSender::Create();
    sender->AddRef();
    Infra::CMutex& mutex = StreamSenderProbe::state(*sender).m_mutex;
    std::atomic<int> under_mutex{0};
    for (int round = 0; round < 200; ++round) {
        ShapedStream sock;
        sock.setRoom(0);
        owner = new TestHandler;
        const std::shared_ptr<HandlerLife> life = owner->life;
        owner->on_close = [&] { under_mutex += mutex.heldByThisThread() ? 1 : 0; };
        sender->Attach(owner, &sock);
        owner->Close();
        for (int i = 0; i < 3; ++i) {
            sender->Clear();
            EXPECT_EQ(0, sender->Put("bytes", 5));
        }
        EXPECT_EVENTUALLY(life->closes == 1);
        EXPECT_TRUE(ThreadPoolProbe::sockets(*PoolTable::Get(0)).empty());
    }
    EXPECT_EQ(0, under_mutex);
    sender->Close();
    sender->DecRef();
}

TEST_F(StreamSenderLive, ThreadsMayPutAndAskAtTheSameTime) {
    connect(CSockAddrIPv4("127.0.0.1", 0));
    makeHandlers();
    std::atomic<std::size_t> put{0};
    std::atomic<bool> done{false};
    std::size_t got = 0;
    std::thread reader([&] {
        std::string buffer(20000, '\0');
        while (!done || got < put) {
            if (const int count = far.Recv_n(buffer.data(), static_cast<unsigned>(buffer.size()), 5000);
                count > 0) {
                got += static_cast<std::size_t>(count);
            }
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t) {
        writers.emplace_back([&] {
            const std::string bytes(3000, 'w');
            for (int i = 0; i < 300; ++i) {
                if (sender->Put(bytes.data(), 3000) == 0) {
                    put += 3000;
                }
                sender->WaitBufferSize(waiter->GetID(), 1);
                sender->WaitSendFinish(waiter->GetID());
                EXPECT_GE(sender->GetBufferSize(), 8u);
            }
        });
    }
    for (unsigned blocks = 9; blocks < 40; ++blocks) {
        sender->SetBufferSize(blocks);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    done = true;
    reader.join();
    EXPECT_EQ(got, put);
    end();
}

}  // namespace
}  // namespace Orvex::Testing
