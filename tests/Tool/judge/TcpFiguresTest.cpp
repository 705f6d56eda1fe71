// TcpFigures: as much of the kernel's answer as there is.
#include "Tool/judge/TcpFigures.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

/// Answers of kernels of all ages: this one's begins like all of them.
tcp_info answer() {
    tcp_info info{};
    info.tcpi_snd_mss = 1000;
    info.tcpi_unacked = 34;
    info.tcpi_rtt = 180000;
    info.tcpi_snd_cwnd = 10;
    info.tcpi_total_retrans = 22;
    info.tcpi_bytes_acked = 100000;
    info.tcpi_notsent_bytes = 777;
    info.tcpi_data_segs_out = 150;
    info.tcpi_busy_time = 5000;
    info.tcpi_rwnd_limited = 4000;
    info.tcpi_bytes_sent = 140000;
    info.tcpi_bytes_retrans = 20000;
    return info;
}

TcpFigures read(const tcp_info& info, size_t size) {
    return TcpFigures::read(reinterpret_cast<const unsigned char*>(&info), size);
}

}  // namespace

TEST(TcpFigures, AreThoseOfTheKernelsLayout) {
    const TcpFigures found = read(answer(), sizeof(tcp_info));
    EXPECT_TRUE(found.known);
    EXPECT_TRUE(found.limits_known);
    EXPECT_EQ(1000U, found.mss);
    EXPECT_EQ(34U, found.unacked);
    EXPECT_EQ(180000U, found.rtt_us);
    EXPECT_EQ(10U, found.congestion_window);
    EXPECT_EQ(22U, found.retransmitted);
    EXPECT_EQ(150U, found.segments);
    EXPECT_EQ(777U, found.unsent);
    EXPECT_EQ(100000U, found.acked);
    EXPECT_EQ(5000U, found.busy_us);
    EXPECT_EQ(4000U, found.closed_us);
    EXPECT_EQ(20000U, found.under_way);
}

TEST(TcpFigures, EndWhereAnOlderKernelsAnswerEnds) {
    const TcpFigures limits = read(answer(), offsetof(tcp_info, tcpi_delivered));
    EXPECT_TRUE(limits.limits_known);
    EXPECT_FALSE(limits.window_known);
    EXPECT_EQ(34000U, limits.under_way) << "by segments";
    const TcpFigures acked = read(answer(), offsetof(tcp_info, tcpi_rwnd_limited) + 7);
    EXPECT_TRUE(acked.known);
    EXPECT_FALSE(acked.limits_known);
    EXPECT_EQ(0U, acked.closed_us);
    const TcpFigures early = read(answer(), offsetof(tcp_info, tcpi_notsent_bytes) + 3);
    EXPECT_FALSE(early.known);
    EXPECT_EQ(180000U, early.rtt_us);
    EXPECT_FALSE(read(answer(), 0).known);
}

// A field is there whole or not at all, whatever the kernel's age.
TEST(TcpFigures, OfEveryLengthHaveTheFieldsThatEndWithinIt) {
    tcp_info full = answer();
    for (size_t size = 0; size <= sizeof(tcp_info); ++size) {
        const TcpFigures found = read(full, size);
        const auto whole = [&](size_t place, size_t bytes) { return place + bytes <= size; };
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_snd_mss), 4) ? 1000U : 0U, found.mss) << size;
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_unacked), 4) ? 34U : 0U, found.unacked) << size;
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_rtt), 4) ? 180000U : 0U, found.rtt_us) << size;
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_snd_cwnd), 4) ? 10U : 0U, found.congestion_window) << size;
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_total_retrans), 4) ? 22U : 0U, found.retransmitted) << size;
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_data_segs_out), 4) ? 150U : 0U, found.segments) << size;
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_bytes_acked), 8) ? 100000U : 0U, found.acked) << size;
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_notsent_bytes), 4), found.known) << size;
        ASSERT_EQ(whole(offsetof(tcp_info, tcpi_rwnd_limited), 8), found.limits_known) << size;
        const bool counted = whole(offsetof(tcp_info, tcpi_bytes_retrans), 8);
        ASSERT_EQ(counted ? 20000U : uint64_t{found.unacked} * found.mss, found.under_way) << size;
    }
}

TEST(TcpFigures, OfAnyBytesAreFigures) {
    SeededRandom random;
    for (int i = 0; i < 2000; ++i) {
        std::vector<unsigned char> bytes(random.between<size_t>(0, 512));
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random.between(0, 255));
        }
        const TcpFigures found = TcpFigures::read(bytes.data(), bytes.size());
        ASSERT_TRUE(found.known || !found.limits_known) << "a later field comes with the earlier ones";
        ASSERT_TRUE(found.limits_known || !found.window_known);
    }
}

// More acknowledged than was sent, as a kernel counts that has sent a FIN or a SYN too.
TEST(TcpFigures, NothingIsUnderWayWhenAllIsAcknowledged) {
    tcp_info info = answer();
    info.tcpi_bytes_acked = 120001;
    EXPECT_EQ(0U, read(info, sizeof info).under_way);
    info.tcpi_bytes_acked = 119999;
    EXPECT_EQ(1U, read(info, sizeof info).under_way);
}

TEST(TcpFigures, OfAConnectionTellWhatItsPeerHasAcknowledged) {
    const int door = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(0, ::bind(door, reinterpret_cast<sockaddr*>(&address), size));
    ASSERT_EQ(0, ::listen(door, 1));
    ASSERT_EQ(0, ::getsockname(door, reinterpret_cast<sockaddr*>(&address), &size));
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, ::connect(client, reinterpret_cast<sockaddr*>(&address), size));
    const int peer = ::accept4(door, nullptr, nullptr, SOCK_CLOEXEC);
    const uint64_t before = TcpFigures::ask(client).acked;
    const std::string bytes(5000, 'x');
    ASSERT_EQ(5000, ::send(client, bytes.data(), bytes.size(), 0));
    EXPECT_EVENTUALLY(TcpFigures::ask(client).acked - before == bytes.size());
    const TcpFigures found = TcpFigures::ask(client);
    EXPECT_TRUE(found.known);
    EXPECT_EQ(0U, found.under_way);
    EXPECT_EQ(0U, found.unsent);
    EXPECT_GT(found.mss, 0U);
    EXPECT_GT(found.segments, 0U);
    for (const int handle : {door, client, peer}) {
        ::close(handle);
    }
}

TEST(TcpFigures, AreNotKnownOfOtherSockets) {
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    EXPECT_FALSE(TcpFigures::ask(ends[0]).known);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_FALSE(TcpFigures::ask(-1).known);
}

}  // namespace Orvex::Testing
