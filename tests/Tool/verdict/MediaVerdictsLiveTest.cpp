// CMediaVerdicts on real connections: each situation is made, and the verdict on it waited for. The test's
// own thread produces, reads and looks, so that a busy machine slows all of them down alike.
#include <linux/filter.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/MediaVerdicts.h>
#include <Reticor/SockStream.h>

#include "support/Eventually.h"
#include "support/PoolFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t LIVE_FRAME_US = 20000;

class VerdictPacket : public CMediaPacket {
public:
    explicit VerdictPacket(std::size_t length) : m_bytes(length, 'x') {}
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes.data(); }
    int length() const { return static_cast<int>(m_bytes.size()); }

private:
    std::string m_bytes;
};

uint64_t liveNow() {
    return Infra::CTime::getCurrentMicroSecond();
}

class MediaVerdictsLive : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        CMediaVerdicts::SetWindow(1000);
        sender = CMediaStreamSender::Create();
    }
    void TearDown() override {
        buffer.DelSender(sender);
        sender->Detach();
        sock.Close();
        sender->Close();
        ::close(peer);
        CMediaVerdicts::SetWindow(10000);
        PoolFixture::TearDown();
    }

    // A client on loopback; the sizes are those of the kernel's buffers, 0 as they are.
    void connect(int receive_bytes, unsigned send_bytes, int segment_bytes = 0) {
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        ASSERT_EQ(0, ::bind(listener, generic, size));
        ASSERT_EQ(0, ::listen(listener, 1));
        ASSERT_EQ(0, ::getsockname(listener, generic, &size));
        peer = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (receive_bytes != 0) {
            ASSERT_EQ(0, ::setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof receive_bytes));
        }
        if (segment_bytes != 0) {
            ASSERT_EQ(0, ::setsockopt(peer, IPPROTO_TCP, TCP_MAXSEG, &segment_bytes, sizeof segment_bytes));
        }
        ASSERT_EQ(0, ::connect(peer, generic, size));
        sock.Attach(::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        ::close(listener);
        if (send_bytes != 0) {
            sock.SetSockSendBuf(send_bytes);
        }
        set(IPPROTO_TCP, TCP_NODELAY, 1);
        sender->Attach(&sock);
        buffer.AddSender(sender);
        begin_us = liveNow();
    }
    void set(int level, int name, unsigned value) {
        EXPECT_EQ(0, ::setsockopt(sock.GetHandle(), level, name, &value, sizeof value));
    }
    // What comes to the client is lost, with this chance of 256.
    void lose(unsigned chance) {
        sock_filter program[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_RANDOM)),
            BPF_STMT(BPF_ALU | BPF_AND | BPF_K, 255),
            BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, chance, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, ~uint32_t{0}),
            BPF_STMT(BPF_RET | BPF_K, 0),
        };
        const sock_fprog filter{sizeof program / sizeof program[0], program};
        ASSERT_EQ(0, ::setsockopt(peer, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter));
    }

    void putFrame(std::size_t length) {
        auto* const packet = new VerdictPacket(length);
        buffer.Put(packet, packet->length(), MEDIA_MARK_LAST, mediaLevel(0, 1));
    }
    // The stream up to now, what the client reads meanwhile, and a look.
    SenderVerdict step() {
        const uint64_t passed_us = liveNow() - begin_us;
        for (; frames * LIVE_FRAME_US <= passed_us; ++frames) {
            putFrame(frame_bytes);
        }
        buffer.do_send();
        const auto allowed = static_cast<std::size_t>(static_cast<double>(passed_us) * read_rate / 1e6);
        char room[65536];
        while (read_bytes < allowed) {
            const ssize_t got = ::recv(peer, room, std::min(sizeof room, allowed - read_bytes), MSG_DONTWAIT);
            if (got <= 0) {
                break;
            }
            read_bytes += static_cast<std::size_t>(got);
        }
        SenderVerdict verdict;
        EXPECT_EQ(0, sender->GetVerdict(verdict));
        return verdict;
    }
    SenderVerdict await(SenderVerdictKind kind) {
        SenderVerdict verdict;
        EXPECT_TRUE(eventually(
            [&] {
                verdict = step();
                return verdict.kind == kind;
            },
            30000))
            << verdict.sentence;
        return verdict;
    }
    static bool begins(const SenderVerdict& verdict, const std::string& text) {
        return std::string(verdict.sentence).rfind(text, 0) == 0;
    }

    static constexpr double ALL = 1e12;
    CMediaBuffer buffer;
    CMediaStreamSender* sender = nullptr;
    CSockStream sock;
    int peer = -1;
    std::size_t frame_bytes = 10000;  // 4 Mbit/s
    double read_rate = ALL;           // bytes in a second
    std::size_t read_bytes = 0;
    uint64_t frames = 0;
    uint64_t begin_us = 0;
};

}  // namespace

TEST_F(MediaVerdictsLive, ASlowReaderIsToldByItsClosedWindow) {
    connect(16384, 65536);
    await(SenderVerdictKind::KEEPS_UP);
    read_bytes = 0;
    begin_us = liveNow();
    frames = 0;
    read_rate = 150000;
    const SenderVerdict verdict = await(SenderVerdictKind::SLOW_READER);
    EXPECT_TRUE(begins(verdict, "reads ")) << verdict.sentence;
    EXPECT_GE(verdict.closed_percent, 25U) << verdict.sentence;
    EXPECT_LT(verdict.taken_rate, verdict.stream_rate) << verdict.sentence;
    EXPECT_GT(verdict.lag_bytes, 0U);
}

TEST_F(MediaVerdictsLive, AStalledClientIsToldWhenItIsHungUpOn) {
    sender->SetSendTimeout(60);
    connect(16384, 16384);
    read_rate = 0;
    const SenderVerdict verdict = await(SenderVerdictKind::STALLED);
    EXPECT_TRUE(begins(verdict, "stalled for ")) << verdict.sentence;
    EXPECT_NE(std::string::npos, std::string(verdict.sentence).find(" s: hung up on in "))
        << verdict.sentence;
    EXPECT_NEAR(60.0, static_cast<double>(verdict.quiet_us + verdict.left_us) / 1e6, 0.5);
}

TEST_F(MediaVerdictsLive, ADeadNetworkIsAnotherVerdictThanAStall) {
    connect(0, 0);
    await(SenderVerdictKind::KEEPS_UP);
    lose(256);
    const SenderVerdict verdict = await(SenderVerdictKind::SILENT);
    EXPECT_TRUE(begins(verdict, "silent for ")) << verdict.sentence;
    EXPECT_GT(verdict.unacked, 0U);
    EXPECT_GT(verdict.unsent_bytes, 0U);
    EXPECT_GE(verdict.lag_bytes, verdict.unsent_bytes);
    EXPECT_GE(verdict.lag_us, verdict.quiet_us) << "what the kernel holds is late too";
}

TEST_F(MediaVerdictsLive, ALossyNetworkIsToldByWhatIsSentAgain) {
    CMediaVerdicts::SetWindow(3000);
    connect(0, 262144, 1400);
    const char cubic[] = "cubic";
    ASSERT_EQ(0, ::setsockopt(sock.GetHandle(), IPPROTO_TCP, TCP_CONGESTION, cubic, sizeof cubic));
    lose(256 / 4);
    frame_bytes = 50000;
    const SenderVerdict verdict = await(SenderVerdictKind::NETWORK);
    EXPECT_TRUE(begins(verdict, "network: carries ")) << verdict.sentence;
    EXPECT_LT(verdict.taken_rate, verdict.stream_rate) << verdict.sentence;
    EXPECT_GT(verdict.retransmitted, 0U) << verdict.sentence;
}

TEST_F(MediaVerdictsLive, ABurstIsTheProducers) {
    frame_bytes = 2500;
    connect(0, 0);
    set(SOL_SOCKET, SO_MAX_PACING_RATE, 400000);
    await(SenderVerdictKind::KEEPS_UP);
    for (uint64_t end_us = liveNow() + 600000; liveNow() < end_us;) {
        step();
    }
    putFrame(1000000);
    const SenderVerdict verdict = await(SenderVerdictKind::BURST);
    EXPECT_TRUE(begins(verdict, "the producer's burst of 1.0 MB in ")) << verdict.sentence;
}

// A link of the test's own, in a network of its own.
TEST_F(MediaVerdictsLive, ASlowLinkIsTheNetwork) {
    const bool made = (::unshare(CLONE_NEWNET) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) &&
                      std::system(
                          "ip link set lo up mtu 1500 && tc qdisc add dev lo root tbf rate 1500kbit "
                          "burst 32kb latency 400ms") == 0;
    if (!made) {
        // Without a namespace, ip(8) or tc(8): a connection that may send no faster.
        connect(0, 65536);
        set(SOL_SOCKET, SO_MAX_PACING_RATE, 150000);
    } else {
        connect(0, 65536);
    }
    const SenderVerdict verdict = await(SenderVerdictKind::NETWORK);
    EXPECT_TRUE(begins(verdict, "network: carries ")) << verdict.sentence;
    EXPECT_LT(verdict.taken_rate, verdict.stream_rate) << verdict.sentence;
    EXPECT_LE(verdict.closed_percent, 10U) << verdict.sentence;
}

}  // namespace Orvex::Testing
