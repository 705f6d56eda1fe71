// TcpFigures: as much of the kernel's answer as there is.
#include "Tool/judge/TcpFigures.h"

#include <linux/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>

#include <gtest/gtest.h>

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

TEST(TcpFigures, AreNotKnownOfOtherSockets) {
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    EXPECT_FALSE(TcpFigures::ask(ends[0]).known);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_FALSE(TcpFigures::ask(-1).known);
}

}  // namespace Orvex::Testing
