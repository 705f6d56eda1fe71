// SenderSettings: what is asked for stands until it is asked for otherwise, and nothing else changes.
#include "Tool/step/SenderSettings.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <Reticor/SockStream.h>

#include "support/socket/UnknownAddr.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

// Its options can be set without a connection.
struct TcpSocket : CSockStream {
    TcpSocket() { Attach(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); }
};

class SenderSettingsOfASender : public ::testing::Test {
protected:
    SenderSettings settings;
};

TEST_F(SenderSettingsOfASender, WishesAreIndependent) {
    const uint8_t all[] = {SenderSettings::WISH_KEEP, SenderSettings::WISH_ROOM, SenderSettings::WISH_GATHER,
                           SenderSettings::WISH_FILTER, SenderSettings::WISH_DATAGRAMS};
    unsigned seen = 0;
    for (const uint8_t wish : all) {
        EXPECT_EQ(0U, seen & wish) << "each has a bit of its own";
        seen |= wish;
        EXPECT_FALSE(settings.wishes(wish));
        settings.set_wish(wish, true);
        settings.set_wish(wish, true);
        EXPECT_TRUE(settings.wishes(wish));
    }
    settings.set_wish(SenderSettings::WISH_GATHER, false);
    for (const uint8_t wish : all) {
        EXPECT_EQ(wish != SenderSettings::WISH_GATHER, settings.wishes(wish));
    }
    EXPECT_TRUE(settings.wishes(SenderSettings::WISH_GATHER | SenderSettings::WISH_ROOM)) << "one is enough";
}

TEST_F(SenderSettingsOfASender, ThereIsNoPolicyAtTheStart) {
    EXPECT_FALSE(settings.has_policy());
    EXPECT_FALSE(settings.wants_keep());
    EXPECT_EQ(0U, settings.hard_lag_us());
    EXPECT_FALSE(settings.starts_at_key());
    EXPECT_EQ(SenderSettings::NO_TIMEOUT_S, settings.send_timeout_s());
    EXPECT_EQ(SenderSettings::ALL_CHANNELS, settings.m_channel_mask);
}

TEST_F(SenderSettingsOfASender, OnlyAPolicyThatStepsAheadHasFramesKept) {
    settings.set_policy(1000, MediaResume::AHEAD, 2000);
    EXPECT_TRUE(settings.has_policy());
    EXPECT_TRUE(settings.wants_keep());
    EXPECT_EQ(1000000U, settings.max_lag_us());
    EXPECT_EQ(2000000U, settings.hard_lag_us());
    settings.set_policy(500, MediaResume::STRICT, 0);
    EXPECT_TRUE(settings.has_policy());
    EXPECT_FALSE(settings.wants_keep());
    EXPECT_EQ(0U, settings.hard_lag_us());
    settings.set_policy(0, MediaResume::AHEAD, 0);
    EXPECT_FALSE(settings.has_policy());
    EXPECT_FALSE(settings.wants_keep());
}

TEST_F(SenderSettingsOfASender, LimitsOfAnyLengthAreTaken) {
    settings.set_policy(0xFFFFFFFF, MediaResume::AHEAD, 0xFFFFFFFF);
    EXPECT_EQ(4294967295000U, settings.max_lag_us());
    EXPECT_EQ(4294967295000U, settings.hard_lag_us());
}

TEST_F(SenderSettingsOfASender, TheFirstChannelIsAloneAndFurtherOnesAreAdded) {
    settings.choose_channel(3);
    EXPECT_EQ(1U << 3, settings.m_channel_mask);
    settings.choose_channel(0);
    EXPECT_EQ(1U << 3 | 1U, settings.m_channel_mask);
    settings.give_up_channel(3);
    EXPECT_EQ(1U, settings.m_channel_mask);
    settings.choose_channel(-1);
    EXPECT_EQ(SenderSettings::ALL_CHANNELS, settings.m_channel_mask);
    settings.give_up_channel(7);
    EXPECT_EQ(0x7FU, settings.m_channel_mask);
    settings.choose_channel(7);
    EXPECT_EQ(SenderSettings::ALL_CHANNELS, settings.m_channel_mask);
    settings.choose_channel(2);
    EXPECT_EQ(1U << 2, settings.m_channel_mask) << "all were chosen, so it begins anew";
}

TEST_F(SenderSettingsOfASender, ASocketIsGivenBackOnce) {
    CSockStream sock;
    settings.attach(&sock);
    EXPECT_EQ(&sock, settings.m_stream);
    EXPECT_EQ(&sock, settings.detach());
    EXPECT_EQ(nullptr, settings.detach());
}

TEST_F(SenderSettingsOfASender, ABoundOfTimeBeginsWithTheLeastAndEndsWithTheSystems) {
    TcpSocket tcp;
    const int systems = optionOf(tcp, IPPROTO_TCP, TCP_NOTSENT_LOWAT);
    settings.attach(&tcp);
    EXPECT_EQ(systems, optionOf(tcp, IPPROTO_TCP, TCP_NOTSENT_LOWAT)) << "it was not asked for";
    settings.set_kernel_lag(100);
    EXPECT_EQ(16384, optionOf(tcp, IPPROTO_TCP, TCP_NOTSENT_LOWAT));
    settings.set_kernel_lag(0);
    EXPECT_EQ(systems, optionOf(tcp, IPPROTO_TCP, TCP_NOTSENT_LOWAT));
}

TEST_F(SenderSettingsOfASender, AnotherSocketBeginsWithTheLeastToo) {
    TcpSocket tcp;
    TcpSocket other;
    settings.set_kernel_lag(100);
    settings.attach(&tcp);
    EXPECT_EQ(16384, optionOf(tcp, IPPROTO_TCP, TCP_NOTSENT_LOWAT));
    settings.m_kernel_lag.note_full(1000000, 0, 0);
    settings.m_kernel_lag.note_full(1300000, 0, 3000000);
    EXPECT_NE(0U, settings.m_kernel_lag.rate());
    settings.attach(&other);
    EXPECT_EQ(0U, settings.m_kernel_lag.rate()) << "nothing is known of its link";
    EXPECT_EQ(16384, optionOf(other, IPPROTO_TCP, TCP_NOTSENT_LOWAT));
}

}  // namespace
}  // namespace Orvex::Testing
