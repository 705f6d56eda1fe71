// CSockAddrIPv4: texts, records, validity and equality.
#include <Reticor/SockAddrIPv4.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <Reticor/SockAddrIPv6.h>

#include "support/LogCapture.h"
#include "support/socket/Allocations.h"
#include "support/socket/Loopback.h"
#include "support/socket/SystemSeam.h"

namespace Orvex::Reticor {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Testing::LogCapture;
using Testing::ResolverSeam;
using Testing::texts;

sockaddr_in recordOf(const CSockAddrIPv4& addr) {
    sockaddr_in record{};
    addr.GetAddr(reinterpret_cast<sockaddr*>(&record));
    return record;
}

TEST(SockAddrIPv4, DefaultIsTheValidWildcard) {
    const LogCapture log;
    const CSockAddrIPv4 addr;
    EXPECT_EQ(1u, addr.GetType());
    EXPECT_EQ(0u, addr.GetIp());
    EXPECT_EQ(0, addr.GetPort());
    EXPECT_EQ(AF_INET, recordOf(addr).sin_family);
    EXPECT_TRUE(addr.IsValid());
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockAddrIPv4, NumbersAreHostOrderOutsideAndNetworkOrderInTheRecord) {
    const CSockAddrIPv4 addr(0x0A010203u, 0x1234);
    EXPECT_EQ(0x0A010203u, addr.GetIp());
    EXPECT_EQ(0x1234, addr.GetPort());
    const sockaddr_in record = recordOf(addr);
    EXPECT_EQ(AF_INET, record.sin_family);
    EXPECT_EQ(record.sin_addr.s_addr, htonl(0x0A010203u));
    EXPECT_EQ(record.sin_port, htons(0x1234));
}

TEST(SockAddrIPv4, TakesADottedLiteralWithoutTheNameService) {
    const ResolverSeam resolver;
    const CSockAddrIPv4 addr("192.168.7.9", 8080);
    EXPECT_EQ(0xC0A80709u, addr.GetIp());
    EXPECT_EQ(8080, addr.GetPort());
    EXPECT_THAT(resolver.calls(), IsEmpty());
}

TEST(SockAddrIPv4, TakesShortNumericFormsWithoutTheNameService) {
    const ResolverSeam resolver;
    CSockAddrIPv4 addr;
    EXPECT_EQ(0, addr.SetIp("127.1"));
    EXPECT_EQ(0x7F000001u, addr.GetIp());
    EXPECT_EQ(0u, resolver.questions());
}

TEST(SockAddrIPv4, EmptyAndNullTextAreTheWildcardAndKeepThePort) {
    CSockAddrIPv4 addr("10.0.0.1", 81);
    EXPECT_EQ(0, addr.SetIp(""));
    EXPECT_EQ(0u, addr.GetIp());
    EXPECT_EQ(81, addr.GetPort());
    addr.SetIp(0x0A000001u);
    EXPECT_EQ(0, addr.SetIp(static_cast<const char*>(nullptr)));
    EXPECT_EQ(0u, addr.GetIp());
    EXPECT_EQ(81, addr.GetPort());
}

TEST(SockAddrIPv4, MappedLiteralGivesItsIPv4Address) {
    CSockAddrIPv4 addr(0u, 82);
    EXPECT_EQ(0, addr.SetIp("::ffff:10.20.30.40"));
    EXPECT_EQ(0x0A141E28u, addr.GetIp());
    EXPECT_EQ(82, addr.GetPort());
    EXPECT_EQ(0, addr.SetIp("::FFFF:0102:0304"));
    EXPECT_EQ(0x01020304u, addr.GetIp());
}

TEST(SockAddrIPv4, OtherIPv6LiteralsAreRefusedAndNeverLookedUp) {
    const ResolverSeam resolver;
    CSockAddrIPv4 addr(0x0A000001u, 83);
    for (const char* literal :
         {"::1", "::", "2001:db8::1", "::10.0.0.1", "0:0:0:0:1:ffff:a00:1", "fe80::1%lo"}) {
        EXPECT_EQ(-1, addr.SetIp(literal)) << literal;
        EXPECT_EQ(0x0A000001u, addr.GetIp()) << literal;
    }
    EXPECT_EQ(0u, resolver.questions());
}

TEST(SockAddrIPv4, HostNameIsResolvedAndThePortKept) {
    CSockAddrIPv4 addr(0u, 84);
    EXPECT_EQ(0, addr.SetIp("localhost"));
    EXPECT_EQ(127u, addr.GetIp() >> 24);
    EXPECT_EQ(84, addr.GetPort());
}

TEST(SockAddrIPv4, HostNameIsAskedForAsIPv4Alone) {
    ResolverSeam resolver;
    resolver.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    CSockAddrIPv4 addr;
    EXPECT_EQ(0, addr.SetIp("camera.test"));
    EXPECT_EQ(0x0A090807u, addr.GetIp());
    ASSERT_EQ(1u, resolver.calls().size());
    EXPECT_EQ(AF_INET, resolver.calls()[0].family);
}

TEST(SockAddrIPv4, UnknownNameFailsInSilenceAndLeavesTheCode) {
    const ResolverSeam resolver;
    const LogCapture log;
    CSockAddrIPv4 addr(0x0A000001u, 85);
    errno = 0;
    EXPECT_EQ(-1, addr.SetIp("nowhere.test"));
    EXPECT_EQ(EAI_NONAME, errno);
    EXPECT_EQ(0x0A000001u, addr.GetIp());
    EXPECT_EQ(85, addr.GetPort());
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockAddrIPv4, FailedSetAddrLeavesANewPortWithAnOldAddress) {
    const ResolverSeam resolver;
    CSockAddrIPv4 addr(0x0A000001u, 86);
    EXPECT_EQ(-1, addr.SetAddr("nowhere.test", 87));
    EXPECT_EQ(0x0A000001u, addr.GetIp());
    EXPECT_EQ(87, addr.GetPort());
}

TEST(SockAddrIPv4, SettersReturnZeroAndSetTheType) {
    const CSockAddrIPv6 other;
    CSockAddrIPv4 addr;
    static_cast<CSockAddr&>(addr) = other;
    ASSERT_EQ(2u, addr.GetType());
    EXPECT_EQ(0, addr.SetAddr(1u, 2));
    EXPECT_EQ(1u, addr.GetType());
    static_cast<CSockAddr&>(addr) = other;
    EXPECT_EQ(0, addr.SetAddr("0.0.0.1", 2));
    EXPECT_EQ(1u, addr.GetType());
    static_cast<CSockAddr&>(addr) = other;
    EXPECT_EQ(0, addr.SetAddr(sockaddr_in{}));
    EXPECT_EQ(1u, addr.GetType());
    EXPECT_EQ(0, addr.SetIp(3u));
    EXPECT_EQ(0, addr.SetPort(4));
}

TEST(SockAddrIPv4, TakesOverAWholeRecord) {
    sockaddr_in record{};
    record.sin_family = AF_INET;
    record.sin_port = htons(99);
    record.sin_addr.s_addr = htonl(0x01020304u);
    record.sin_zero[3] = 7;
    const CSockAddrIPv4 addr(record);
    EXPECT_EQ(1u, addr.GetType());
    EXPECT_EQ(0x01020304u, addr.GetIp());
    EXPECT_EQ(99, addr.GetPort());
    EXPECT_EQ(7, recordOf(addr).sin_zero[3]);
}

TEST(SockAddrIPv4, CopiesAreIndependentAndSelfAssignmentDoesNothing) {
    CSockAddrIPv4 first(0x0A000001u, 80);
    CSockAddrIPv4 copy(first);
    EXPECT_TRUE(copy == first);
    copy.SetPort(81);
    EXPECT_EQ(80, first.GetPort());
    CSockAddrIPv4 assigned;
    assigned = copy;
    EXPECT_TRUE(assigned == copy);
    const CSockAddrIPv4& self = assigned;
    assigned = self;
    EXPECT_TRUE(assigned == copy);
}

TEST(SockAddrIPv4, TextNeedsABufferAndRoom) {
    const CSockAddrIPv4 addr("192.168.100.200", 1);
    char text[32] = {};
    {
        const LogCapture log;
        EXPECT_EQ(nullptr, addr.GetIpStr(nullptr, 32));
        EXPECT_EQ(nullptr, addr.GetIpStr(text, 0));
        EXPECT_EQ(nullptr, addr.GetIpStr(text, 6));
        EXPECT_EQ(addr.GetIpStr(text, 16), text);
        EXPECT_STREQ("192.168.100.200", text);
        EXPECT_THAT(texts(log), IsEmpty());
    }
    const LogCapture log;
    EXPECT_EQ(nullptr, addr.GetIpStr(text, 7));
    EXPECT_EQ(nullptr, addr.GetIpStr(text, 15));
    EXPECT_THAT(texts(log), ElementsAre("2 inet_ntop error\n", "2 inet_ntop error\n"));
}

TEST(SockAddrIPv4, RecordHasSixteenBytesAndNullGivesNull) {
    const CSockAddrIPv4 addr("10.0.0.1", 1);
    EXPECT_EQ(16u, addr.GetAddrLen());
    EXPECT_EQ(nullptr, addr.GetAddr(nullptr));
    sockaddr_in record{};
    EXPECT_EQ(addr.GetAddr(reinterpret_cast<sockaddr*>(&record)), reinterpret_cast<sockaddr*>(&record));
}

TEST(SockAddrIPv4, OnlyBroadcastWithPortZeroIsInvalid) {
    EXPECT_TRUE(CSockAddrIPv4(0xFFFFFFFFu, 1).IsValid());
    EXPECT_TRUE(CSockAddrIPv4(0u, 0).IsValid());
    EXPECT_TRUE(CSockAddrIPv4(0xFFFFFFFEu, 0).IsValid());
    const LogCapture log;
    const CSockAddrIPv4 addr(0xFFFFFFFFu, 0);
    EXPECT_FALSE(addr.IsValid());
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockAddrIPv4::IsValid :Invalid addr, "
                                        "m_addrin.sin_port:0 \n"));
}

TEST(SockAddrIPv4, EqualNeedsTypeAddressAndPort) {
    const CSockAddrIPv4 addr(0x0A000001u, 80);
    EXPECT_TRUE(addr == CSockAddrIPv4("10.0.0.1", 80));
    EXPECT_FALSE(addr == CSockAddrIPv4(0x0A000001u, 81));
    EXPECT_FALSE(addr == CSockAddrIPv4(0x0A000002u, 80));
    CSockAddrIPv4 other_type(addr);
    static_cast<CSockAddr&>(other_type) = CSockAddrIPv6();
    EXPECT_FALSE(addr == other_type);
}

TEST(SockAddrIPv4, InvalidAddressIsNotEqualToItself) {
    const LogCapture log;
    const CSockAddrIPv4 addr(0xFFFFFFFFu, 0);
    EXPECT_FALSE(addr == addr);
    EXPECT_EQ(1u, log.countLevel(2));
    EXPECT_FALSE(CSockAddrIPv4() == addr);
}

TEST(SockAddrIPv4, WithoutMemoryNothingThrowsAndTheAddressStaysEmpty) {
    char text[32];
    sockaddr_in record{};
    const Testing::NoMemory no_memory;
    CSockAddrIPv4 addr(0x0A000001u, 80);
    const CSockAddrIPv4 copy(addr);
    EXPECT_EQ(-1, addr.SetAddr(1u, 1));
    EXPECT_EQ(-1, addr.SetAddr("10.0.0.1", 1));
    EXPECT_EQ(-1, addr.SetAddr(record));
    EXPECT_EQ(0u, addr.GetIp());
    EXPECT_EQ(0, addr.GetPort());
    EXPECT_EQ(nullptr, addr.GetIpStr(text, sizeof text));
    EXPECT_EQ(nullptr, addr.GetAddr(reinterpret_cast<sockaddr*>(&record)));
    EXPECT_FALSE(addr.IsValid());
    EXPECT_FALSE(addr == copy);
}

}  // namespace
}  // namespace Orvex::Reticor
