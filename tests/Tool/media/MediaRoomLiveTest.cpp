// Senders that wait for room, on real sockets: all ends in loops, while workers are on their way.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include <Infra/Semaphore.h>
#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/SockStream.h>

#include "support/Eventually.h"
#include "support/PoolFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr std::size_t LENGTH = 60000;

int rounds() {
    const char* const wanted = std::getenv("RETICOR_STRESS_ROUNDS");
    return wanted != nullptr ? std::atoi(wanted) : 60;
}

class FilledPacket : public CMediaPacket {
public:
    explicit FilledPacket(char fill) : m_bytes(LENGTH, fill) {}
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes.data(); }

private:
    std::string m_bytes;
};

void putFrame(CMediaBuffer& buffer, int number) {
    buffer.Put(new FilledPacket(static_cast<char>('a' + number % 26)), static_cast<int>(LENGTH),
               MEDIA_MARK_LAST, mediaLevel(0, 1));
}

// The handler that reads a client's socket. Its far end is read by the test.
class RoomOwner : public CNetHandler {
public:
    explicit RoomOwner(Infra::CSemaphore& gone) : m_gone(gone) {
        int ends[2];
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        sock.Attach(ends[0]);
        sock.SetSockSendBuf(8192);
        far = ends[1];
        sender->Attach(&sock);
        sender->SetGather(true);
        sender->SetSendTimeout(1000);
    }
    void start() {
        EXPECT_EQ(0, RegisterSock(sock, SOCK_READ, 0));
        EXPECT_EQ(0, sender->WaitRoom(GetID()));
    }
    int handle_output(int fd) override { return sender->handle_output(fd); }
    // No worker is in handle_output any more.
    int handle_close(CNetHandler* self) override {
        Infra::CSemaphore& gone = m_gone;
        sender->Close();
        delete self;
        gone.post();
        return 0;
    }
    // After the sender has left its list.
    void end() {
        sender->Detach();
        RemoveSock(sock);
        sock.Close();
        Close();
    }

    CSockStream sock;
    CMediaStreamSender* const sender = CMediaStreamSender::Create();
    int far = -1;

private:
    Infra::CSemaphore& m_gone;
};

std::size_t readSome(int fd, std::size_t most) {
    std::string bytes(65536, '\0');
    std::size_t got = 0;
    while (got < most) {
        const ssize_t now = ::recv(fd, bytes.data(), std::min(bytes.size(), most - got), 0);
        if (now <= 0) {
            break;
        }
        got += static_cast<std::size_t>(now);
    }
    return got;
}

}  // namespace

using MediaRoomLive = PoolFixture;

TEST_F(MediaRoomLive, AReaderGetsAllOfItWithoutAFurtherFrameOrTick) {
    Infra::CSemaphore gone{0};
    auto* const owner = new RoomOwner(gone);
    CMediaBuffer buffer;
    owner->start();
    buffer.AddSender(owner->sender);
    const int far = owner->far;
    constexpr int FRAMES = 20;
    for (int i = 0; i < FRAMES; ++i) {
        putFrame(buffer, i);
    }
    EXPECT_EQ(FRAMES * LENGTH, readSome(far, FRAMES * LENGTH));
    EXPECT_EVENTUALLY(owner->sender->GetStats().frames == FRAMES);
    MediaRoomStats stats;
    EXPECT_EQ(0, owner->sender->GetRoomStats(&stats, sizeof stats));
    EXPECT_EQ(0U, stats.full_tries);
    EXPECT_LT(0U, stats.waits);
    buffer.DelSender(owner->sender);
    owner->end();
    gone.pend();
    ::close(far);
}

// Each way off the list comes while the far end makes room, so that a worker is on its way to the sender.
TEST_F(MediaRoomLive, EveryEndMeetsWorkersOnTheirWay) {
    Infra::CSemaphore gone{0};
    for (int round = 0; round < rounds(); ++round) {
        auto* const owner = new RoomOwner(gone);
        auto buffer = std::make_unique<CMediaBuffer>();
        owner->start();
        buffer->AddSender(owner->sender);
        const int far = owner->far;
        for (int i = 0; i < 4; ++i) {
            putFrame(*buffer, i);
        }
        std::thread reader([far] { readSome(far, 4 * LENGTH); });
        if (round % 4 == 0) {
            std::this_thread::yield();
        }
        switch (round % 3) {
            case 0:
                buffer->DelSender(owner->sender);
                break;
            case 1:
                buffer->Clear();
                break;
            default:
                buffer.reset();
                break;
        }
        owner->end();
        gone.pend();
        reader.join();
        ::close(far);
    }
}

// The producer, the workers and those who come and go, all at once: every client gets whole frames.
TEST_F(MediaRoomLive, ProducerAndWorkersShareTheLock) {
    constexpr int CLIENTS = 8;
    constexpr int FRAMES = 40;
    Infra::CSemaphore gone{0};
    CMediaBuffer buffer;
    std::vector<RoomOwner*> owners;
    std::vector<std::thread> readers;
    std::atomic<std::size_t> total{0};
    for (int i = 0; i < CLIENTS; ++i) {
        owners.push_back(new RoomOwner(gone));
        owners.back()->start();
        buffer.AddSender(owners.back()->sender);
        readers.emplace_back([&total, far = owners.back()->far] { total += readSome(far, FRAMES * LENGTH); });
    }
    for (int i = 0; i < FRAMES; ++i) {
        if (i % 8 == 0) {
            buffer.Hold();
        }
        putFrame(buffer, i);
        if (i % 8 == 7) {
            buffer.Flush();
        }
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(CLIENTS * FRAMES * LENGTH, total);
    for (RoomOwner* const owner : owners) {
        const int far = owner->far;
        buffer.DelSender(owner->sender);
        owner->end();
        gone.pend();
        ::close(far);
    }
}

}  // namespace Orvex::Testing
