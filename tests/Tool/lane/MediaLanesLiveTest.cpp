// The lanes with real sockets and real threads: a producer, readers of different speed, clients that come, go
// and take each other off, and the shared timer.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <Reticor/MediaLanes.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/SockStream.h>

#include "support/PoolFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

std::atomic<int> lane_packets_alive{0};

// A frame: its length and its number, and bytes that follow from the number.
class LaneHeapPacket : public CMediaPacket {
public:
    explicit LaneHeapPacket(uint32_t number) : m_bytes(8 + number * 37 % 3000, '\0') {
        ++lane_packets_alive;
        const auto length = static_cast<uint32_t>(m_bytes.size());
        std::memcpy(&m_bytes[0], &length, 4);
        std::memcpy(&m_bytes[4], &number, 4);
        for (size_t i = 8; i < m_bytes.size(); ++i) {
            m_bytes[i] = byteOf(number, i);
        }
    }
    LaneHeapPacket(const LaneHeapPacket&) = delete;
    LaneHeapPacket& operator=(const LaneHeapPacket&) = delete;
    ~LaneHeapPacket() override { --lane_packets_alive; }
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes.data(); }
    int length() const { return static_cast<int>(m_bytes.size()); }
    static char byteOf(uint32_t number, size_t at) { return static_cast<char>(number * 31 + at * 7); }

private:
    std::string m_bytes;
};

// A client on a lane, its handler's part played by the test, and the thread that reads at its other end.
class LaneViewer {
public:
    explicit LaneViewer(int pause_us) : m_pause_us(pause_us) {
        int ends[2];
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        int size = 16384;
        ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        sock.Attach(ends[0]);
        m_far = ends[1];
        sender->Attach(&sock);
        sender->SetResumePolicy(200);
        m_reader = std::thread([this] { read(); });
    }
    LaneViewer(const LaneViewer&) = delete;
    LaneViewer& operator=(const LaneViewer&) = delete;
    ~LaneViewer() {
        sender->Detach();
        sock.Close();
        m_reader.join();
        ::close(m_far);
        sender->Close();
        EXPECT_TRUE(m_whole) << "a frame was torn";
    }

    uint64_t frames() const { return m_frames; }

    CSockStream sock;
    CMediaStreamSender* sender = CMediaStreamSender::Create();

private:
    void read() {
        std::string left;
        char room[65536];
        for (;;) {
            const ssize_t got = ::read(m_far, room, sizeof room);
            if (got <= 0) {
                return;
            }
            left.append(room, static_cast<size_t>(got));
            left.erase(0, check(left));
            if (m_pause_us != 0) {
                ::usleep(static_cast<useconds_t>(m_pause_us));
            }
        }
    }
    size_t check(const std::string& bytes) {
        size_t at = 0;
        uint32_t length = 0;
        uint32_t number = 0;
        while (bytes.size() - at >= 8) {
            std::memcpy(&length, &bytes[at], 4);
            std::memcpy(&number, &bytes[at + 4], 4);
            if (length != 8 + number * 37 % 3000 || number < m_next) {
                m_whole = false;
                return bytes.size();
            }
            if (bytes.size() - at < length) {
                break;
            }
            m_whole = m_whole &&
                      (length == 8 || bytes[at + length - 1] == LaneHeapPacket::byteOf(number, length - 1));
            m_next = number + 1;
            ++m_frames;
            at += length;
        }
        return at;
    }

    const int m_pause_us;
    int m_far = -1;
    std::thread m_reader;
    std::atomic<uint64_t> m_frames{0};
    uint32_t m_next = 0;
    std::atomic<bool> m_whole{true};
};

class MediaLanesLive : public PoolFixture {
protected:
    void TearDown() override {
        lanes.Destroy();
        EXPECT_EQ(0, lane_packets_alive);
        PoolFixture::TearDown();
    }
    void putFrame() {
        auto* const packet = new LaneHeapPacket(m_number);
        const int level = m_number % 20 == 0 ? 1 : 5;
        ++m_number;
        EXPECT_EQ(0, lanes.Put(packet, packet->length(), MEDIA_MARK_LAST, level));
    }
    // Frames until something has come about.
    template <typename Condition>
    void produceUntil(Condition done) {
        EXPECT_EVENTUALLY((putFrame(), done()));
    }

    CMediaLanes lanes;

private:
    uint32_t m_number = 0;
};

struct RemovalInside {
    CMediaLanes& lanes;
    CMediaStreamSender* other;
    std::atomic<int> calls{0};
    void run(CMediaPacket*, int, int) {
        lanes.DelSender(other);
        lanes.AddSender(other);
        ++calls;
    }
};

}  // namespace

TEST_F(MediaLanesLive, EveryClientGetsWholeFramesWhileOthersComeAndGo) {
    ASSERT_EQ(0, lanes.Create(3, 1));
    ASSERT_EQ(0, lanes.SetStartCache(1000, 1 << 20));
    ASSERT_EQ(0, lanes.EnableAutoSend(10));
    std::vector<std::unique_ptr<LaneViewer>> viewers;
    for (int i = 0; i < 6; ++i) {
        viewers.push_back(std::make_unique<LaneViewer>(i == 5 ? 5000 : 0));
        lanes.AddSender(viewers.back()->sender);
    }
    std::atomic<bool> over{false};
    std::thread changes([&] {
        while (!over) {
            LaneViewer guest(0);
            CMediaLanes::Place place;
            EXPECT_EQ(0, lanes.Next(SOCK_READ, place));
            EXPECT_EQ(0, lanes.AddSender(guest.sender, place));
            MediaLanesStats stats;
            EXPECT_EQ(0, lanes.GetStats(&stats, sizeof stats));
            EXPECT_EQ(0, lanes.DelSender(guest.sender));
        }
    });
    produceUntil([&] {
        return std::all_of(viewers.begin(), viewers.end(),
                           [](const auto& one) { return one->frames() >= 30; });
    });
    over = true;
    changes.join();
    for (const auto& viewer : viewers) {
        EXPECT_EQ(0, lanes.DelSender(viewer->sender));
    }
}

// Each lane's procedure takes off and adds again a client of the other lane: whoever waited would wait for
// good.
TEST_F(MediaLanesLive, LanesTakeEachOthersClientsOffAtTheSameTime) {
    ASSERT_EQ(0, lanes.Create(2, 1));
    LaneViewer stays[2] = {LaneViewer(0), LaneViewer(0)};
    LaneViewer goes[2] = {LaneViewer(0), LaneViewer(0)};
    for (int lane = 0; lane < 2; ++lane) {
        lanes.AddSender(stays[lane].sender);
    }
    RemovalInside removals[2] = {{lanes, goes[1].sender}, {lanes, goes[0].sender}};
    for (int lane = 0; lane < 2; ++lane) {
        lanes.AddSender(goes[lane].sender);
        stays[lane].sender->AttachSendProc({&RemovalInside::run, &removals[lane]});
    }
    produceUntil([&] { return removals[0].calls >= 200 && removals[1].calls >= 200; });
    for (LaneViewer& one : stays) {
        one.sender->DetachSendProc();
        EXPECT_EQ(0, lanes.DelSender(one.sender));
    }
    for (LaneViewer& one : goes) {
        EXPECT_EVENTUALLY(lanes.DelSender(one.sender) == 0 && !one.sender->GetStats().listed);
    }
}

TEST_F(MediaLanesLive, ProducersOfSeveralThreadsAndClearMeet) {
    ASSERT_EQ(0, lanes.Create(2, 1));
    LaneViewer viewer(0);
    lanes.AddSender(viewer.sender);
    std::thread clears([&] {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(0, lanes.Clear());
            lanes.AddSender(viewer.sender);
        }
    });
    for (int i = 0; i < 500; ++i) {
        putFrame();
    }
    clears.join();
    produceUntil([&] { return viewer.frames() >= 1; });
    EXPECT_EQ(0, lanes.DelSender(viewer.sender));
}

}  // namespace Orvex::Testing
