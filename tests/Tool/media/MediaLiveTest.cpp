// The media engine with real sockets and real threads: a producer, the shared timer, readers of different
// speed, and a thread that changes everything all the time.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/SockStream.h>

#include "support/PoolFixture.h"
#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr int FRAMES = 600;

std::atomic<int> packets_alive{0};

// Frees itself. A frame is three of them: a length and a number, bytes that follow from the number, its end.
class HeapPacket : public CMediaPacket {
public:
    explicit HeapPacket(std::string bytes) : m_bytes(std::move(bytes)) { ++packets_alive; }
    ~HeapPacket() override { --packets_alive; }
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes.data(); }
    int length() const { return static_cast<int>(m_bytes.size()); }

private:
    std::string m_bytes;
};

std::string bodyOf(uint32_t number) {
    std::string body(500 + number * 37 % 3000, '\0');
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<char>(number * 31 + i * 7);
    }
    return body;
}

void putFrame(CMediaBuffer& buffer, uint32_t number) {
    std::string head(8, '\0');
    const std::string body = bodyOf(number);
    const auto length = static_cast<uint32_t>(body.size());
    std::memcpy(&head[0], &length, 4);
    std::memcpy(&head[4], &number, 4);
    const int level = mediaLevel(static_cast<int>(number % 2), number % 20 == 0 ? 1 : 5);
    for (const auto& [bytes, mark] :
         {std::pair(head, 0), std::pair(body, 0), std::pair(std::string("end."), 1)}) {
        auto* const packet = new HeapPacket(bytes);
        buffer.Put(packet, packet->length(), mark, level);
    }
}

// A client and the thread that reads on its other end.
class LiveClient {
public:
    LiveClient(CMediaBuffer& buffer, int pause_us) : m_buffer(buffer), m_pause_us(pause_us) {
        int ends[2];
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        int size = 16384;
        ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        sock.Attach(ends[0]);
        m_far = ends[1];
        sender->Attach(&sock);
        m_reader = std::thread([this] { read_all(); });
        m_buffer.AddSender(sender);
    }
    ~LiveClient() {
        m_buffer.DelSender(sender);
        sender->Detach();
        sock.Close();
        sender->Close();
        m_reader.join();
        ::close(m_far);
        check();
    }
    void note(CMediaPacket*, int, int) { ++finished; }

    CSockStream sock;
    CMediaStreamSender* sender = CMediaStreamSender::Create();
    std::atomic<int> finished{0};

private:
    void read_all() {
        char bytes[4096];
        for (;;) {
            const ssize_t length = ::read(m_far, bytes, sizeof bytes);
            if (length <= 0) {
                return;
            }
            m_got.append(bytes, static_cast<std::size_t>(length));
            if (m_pause_us != 0) {
                ::usleep(static_cast<useconds_t>(m_pause_us));
            }
        }
    }
    // Whole frames in rising order; the last one may be cut.
    void check() {
        std::size_t at = 0;
        int64_t last = -1;
        while (m_got.size() - at >= 8) {
            uint32_t length = 0;
            uint32_t number = 0;
            std::memcpy(&length, &m_got[at], 4);
            std::memcpy(&number, &m_got[at + 4], 4);
            ASSERT_GT(number, last);
            last = number;
            const std::string frame = bodyOf(number) + "end.";
            ASSERT_EQ(length + 4, frame.size());
            const std::string got = m_got.substr(at + 8, frame.size());
            ASSERT_EQ(got, frame.substr(0, got.size()));
            at += 8 + got.size();
        }
    }

    CMediaBuffer& m_buffer;
    const int m_pause_us;
    int m_far = -1;
    std::string m_got;
    std::thread m_reader;
};

class CountingTap : public CLevel2Buffer_IF {
public:
    int Put(CMediaPacket*, int, int, int) override {
        ++seen;
        return 0;
    }
    std::atomic<int> seen{0};
};

}  // namespace

using MediaLive = PoolFixture;

TEST_F(MediaLive, EveryClientReadsWholeFramesWhileEverythingChanges) {
    {
        CMediaBuffer buffer;
        CMediaBuffer second;
        buffer.EnableAutoSend(3);
        std::atomic<bool> over{false};
        std::thread changes([&] {
            SeededRandom random;
            CountingTap tap;
            while (!over) {
                LiveClient client(buffer, random.between(0, 300));
                for (int i = 0; i < 10; ++i) {
                    client.sender->SetResumePolicy(
                        random.oneIn(2) ? 20 : 0, random.oneIn(2) ? MediaResume::STRICT : MediaResume::AHEAD);
                    buffer.SetDisposableLevel(random.between(0, 10));
                    buffer.SetKeepLimits(random.between(5U, 100U), 1 << 20);
                    client.sender->AttachSendProc({&LiveClient::note, &client});
                    client.sender->SetSendChannel(random.between(-1, 1));
                    buffer.AddLevel2Buffer(&tap);
                    random.oneIn(2) ? second.EnableAutoSend(5) : second.DisableAutoSend();
                    client.sender->GetStats();
                    buffer.GetStats();
                    buffer.GetBufferNum();
                    buffer.GetBufferSize();
                    ::usleep(300);
                    buffer.DelLevel2Buffer(&tap);
                    client.sender->DetachSendProc();
                }
            }
        });
        {
            LiveClient fast(buffer, 0);
            LiveClient slow(buffer, 700);
            LiveClient strict(buffer, 700);
            strict.sender->SetResumePolicy(30, MediaResume::STRICT);
            LiveClient viewer(buffer, 700);
            viewer.sender->SetResumePolicy(30);
            for (uint32_t number = 0; number < FRAMES; ++number) {
                putFrame(buffer, number);
                ::usleep(200);
            }
        }
        over = true;
        changes.join();
    }
    EXPECT_EQ(0, packets_alive);
}

}  // namespace Orvex::Testing
