// CSockAddrIPv6: texts with scopes, mapped addresses, validity and equality.
#include <Reticor/SockAddrIPv6.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <Reticor/SockAddrIPv4.h>

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

sockaddr_in6 recordOf(const CSockAddrIPv6& addr) {
    sockaddr_in6 record{};
    addr.GetAddr(reinterpret_cast<sockaddr*>(&record));
    return record;
}

std::string textOf(const CSockAddrIPv6& addr) {
    char text[INET6_ADDRSTRLEN] = {};
    return addr.GetIpStr(text, sizeof text) != nullptr ? text : "none";
}

// "2001:db8::1", port 80, flow 5, scope 6.
sockaddr_in6 sampleRecord() {
    sockaddr_in6 record{};
    record.sin6_family = AF_INET6;
    record.sin6_port = htons(80);
    record.sin6_flowinfo = htonl(5);
    record.sin6_scope_id = 6;
    inet_pton(AF_INET6, "2001:db8::1", &record.sin6_addr);
    return record;
}

TEST(SockAddrIPv6, DefaultIsZeroAndInvalid) {
    const LogCapture log;
    const CSockAddrIPv6 addr;
    EXPECT_EQ(2u, addr.GetType());
    EXPECT_EQ(0, addr.GetPort());
    EXPECT_EQ(0u, addr.GetScopeID());
    EXPECT_EQ(AF_INET6, recordOf(addr).sin6_family);
    EXPECT_FALSE(addr.IsValid());
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockAddrIPv6::IsValid :Invalid addr: "
                                        "m_addr.sin6_port:0 \n"));
}

TEST(SockAddrIPv6, ValidNeedsPortAndAddress) {
    EXPECT_TRUE(CSockAddrIPv6("::1", 1).IsValid());
    const LogCapture log;
    EXPECT_FALSE(CSockAddrIPv6("::1", 0).IsValid());
    EXPECT_FALSE(CSockAddrIPv6("::", 80).IsValid());
    EXPECT_EQ(1u,
              log.count(2, "Orvex::Reticor::CSockAddrIPv6::IsValid :Invalid addr: m_addr.sin6_port:0 \n"));
    EXPECT_EQ(1u,
              log.count(2, "Orvex::Reticor::CSockAddrIPv6::IsValid :Invalid addr: m_addr.sin6_port:80 \n"));
}

TEST(SockAddrIPv6, TakesALiteralPortAndScope) {
    const ResolverSeam resolver;
    const CSockAddrIPv6 addr("2001:db8::7", 443);
    EXPECT_EQ("2001:db8::7", textOf(addr));
    EXPECT_EQ(443, addr.GetPort());
    EXPECT_EQ(0u, addr.GetScopeID());
    EXPECT_EQ(recordOf(addr).sin6_port, htons(443));
    const CSockAddrIPv6 scoped("fe80::1", 443, 9);
    EXPECT_EQ(9u, scoped.GetScopeID());
    EXPECT_EQ(443, scoped.GetPort());
    EXPECT_EQ(0u, resolver.questions());
}

TEST(SockAddrIPv6, LiteralReplacesTheWholeRecord) {
    const sockaddr_in6 sample = sampleRecord();
    CSockAddrIPv6 addr(&sample);
    EXPECT_EQ(0, addr.SetIp("::2"));
    const sockaddr_in6 record = recordOf(addr);
    EXPECT_EQ(AF_INET6, record.sin6_family);
    EXPECT_EQ(0, record.sin6_port);
    EXPECT_EQ(0u, record.sin6_flowinfo);
    EXPECT_EQ(0u, record.sin6_scope_id);
    EXPECT_EQ("::2", textOf(addr));
}

TEST(SockAddrIPv6, LiteralWithAScopeKeepsIt) {
    const ResolverSeam resolver;
    const unsigned loopback = if_nametoindex("lo");
    CSockAddrIPv6 addr;
    addr.SetPort(80);
    EXPECT_EQ(0, addr.SetIp("fe80::1%lo"));
    EXPECT_EQ(addr.GetScopeID(), loopback);
    EXPECT_EQ(0, addr.GetPort());
    EXPECT_EQ(0, addr.SetIp(("fe80::2%" + std::to_string(loopback)).c_str()));
    EXPECT_EQ(addr.GetScopeID(), loopback);
    EXPECT_EQ("fe80::2", textOf(addr));
    EXPECT_EQ(0u, resolver.questions());
}

TEST(SockAddrIPv6, NameWithIPv4AddressesOnlyGivesAMappedOneAndKeepsThePort) {
    ResolverSeam resolver;
    resolver.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    CSockAddrIPv6 addr;
    addr.SetPort(8554);
    EXPECT_EQ(0, addr.SetIp("camera.test"));
    EXPECT_EQ("::ffff:10.9.8.7", textOf(addr));
    EXPECT_EQ(8554, addr.GetPort());
    EXPECT_EQ(AF_INET6, recordOf(addr).sin6_family);
}

TEST(SockAddrIPv6, DottedTextGivesAMappedAddressWithoutTheNameService) {
    const ResolverSeam resolver;
    const CSockAddrIPv6 addr("127.0.0.1", 80);
    EXPECT_EQ("::ffff:127.0.0.1", textOf(addr));
    EXPECT_EQ(80, addr.GetPort());
    EXPECT_EQ(0u, resolver.questions());
}

TEST(SockAddrIPv6, NameWithAnIPv6AddressGivesItAndKeepsThePort) {
    ResolverSeam resolver;
    resolver.answer("camera.test", AF_INET6, "2001:db8::5", AF_INET6);
    resolver.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    CSockAddrIPv6 addr;
    addr.SetPort(8554);
    EXPECT_EQ(0, addr.SetIp("camera.test"));
    EXPECT_EQ("2001:db8::5", textOf(addr));
    EXPECT_EQ(8554, addr.GetPort());
}

TEST(SockAddrIPv6, HostNameFromTheSystemIsResolved) {
    CSockAddrIPv6 addr;
    EXPECT_EQ(0, addr.SetAddr("localhost", 80));
    EXPECT_THAT(textOf(addr), ::testing::AnyOf("::1", "::ffff:127.0.0.1"));
    EXPECT_EQ(80, addr.GetPort());
}

TEST(SockAddrIPv6, SecondLookUpAsIPv4IsTriedAfterTheFirstFailed) {
    ResolverSeam resolver;
    resolver.failFirst("camera.test", AF_INET, EAI_AGAIN, 1);
    resolver.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    const LogCapture log;
    CSockAddrIPv6 addr;
    addr.SetPort(8554);
    EXPECT_EQ(0, addr.SetIp("camera.test"));
    EXPECT_EQ("::ffff:10.9.8.7", textOf(addr));
    EXPECT_EQ(8554, addr.GetPort());
    EXPECT_THAT(texts(log), ElementsAre("2 getaddrinfo error:Name or service not known\n"));
}

TEST(SockAddrIPv6, AnswerWithoutAnEntryLeavesTheAddressAndKeepsThePort) {
    ResolverSeam resolver;
    resolver.answer("odd.test", AF_INET6, "10.9.8.7", AF_INET);
    CSockAddrIPv6 addr("2001:db8::1", 80);
    EXPECT_EQ(0, addr.SetIp("odd.test"));
    EXPECT_EQ("2001:db8::1", textOf(addr));
    EXPECT_EQ(80, addr.GetPort());
}

TEST(SockAddrIPv6, UnknownNameFailsWithOneLine) {
    const ResolverSeam resolver;
    const LogCapture log;
    CSockAddrIPv6 addr("2001:db8::1", 80);
    errno = 0;
    EXPECT_EQ(-1, addr.SetIp("nowhere.test"));
    EXPECT_EQ(EAI_NONAME, errno);
    EXPECT_THAT(texts(log), ElementsAre("2 getaddrinfo error:Name or service not known\n"));
    EXPECT_EQ(-1, addr.SetIp("fe80::1%nosuchlink"));
    EXPECT_EQ(-1, addr.SetIp(nullptr));
    EXPECT_EQ(-1, addr.SetIp(""));
    EXPECT_EQ(4u, log.lines().size());
}

TEST(SockAddrIPv6, SetAddrOfATextForgetsTheOldRecord) {
    const ResolverSeam resolver;
    const sockaddr_in6 sample = sampleRecord();
    CSockAddrIPv6 addr(&sample);
    EXPECT_EQ(-1, addr.SetAddr("nowhere.test", 90));
    const sockaddr_in6 record = recordOf(addr);
    EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&record.sin6_addr));
    EXPECT_EQ(0, record.sin6_port);
    EXPECT_EQ(0u, record.sin6_scope_id);
    EXPECT_EQ(-1, addr.SetAddr("nowhere.test", 90, 3));
    EXPECT_EQ(0u, addr.GetScopeID());
    EXPECT_EQ(0, addr.SetAddr("::3", 90, 3));
    EXPECT_EQ(3u, addr.GetScopeID());
}

TEST(SockAddrIPv6, TakesARecordOfItsFamilyOnly) {
    sockaddr_in6 record = sampleRecord();
    CSockAddrIPv6 addr;
    EXPECT_EQ(0, addr.SetAddr(&record));
    EXPECT_EQ(recordOf(addr).sin6_flowinfo, htonl(5));
    EXPECT_EQ(6u, addr.GetScopeID());
    EXPECT_EQ(80, addr.GetPort());
    record.sin6_family = AF_INET;
    record.sin6_port = htons(81);
    EXPECT_EQ(-1, addr.SetAddr(&record));
    EXPECT_EQ(-1, addr.SetAddr(static_cast<const sockaddr_in6*>(nullptr)));
    EXPECT_EQ(80, addr.GetPort());
    EXPECT_EQ("::", textOf(CSockAddrIPv6(&record)));
}

TEST(SockAddrIPv6, PlainSettersReturnZero) {
    CSockAddrIPv6 addr;
    EXPECT_EQ(0, addr.SetPort(80));
    EXPECT_EQ(0, addr.SetScopeID(4));
    EXPECT_EQ(80, addr.GetPort());
    EXPECT_EQ(4u, addr.GetScopeID());
}

TEST(SockAddrIPv6, CopiesTakeTheWholeRecord) {
    const sockaddr_in6 sample = sampleRecord();
    const CSockAddrIPv6 first(&sample);
    CSockAddrIPv6 copy(first);
    EXPECT_TRUE(copy == first);
    EXPECT_EQ(recordOf(copy).sin6_flowinfo, htonl(5));
    EXPECT_EQ(6u, copy.GetScopeID());
    copy.SetPort(81);
    EXPECT_EQ(80, first.GetPort());
    CSockAddrIPv6 assigned("::9", 9);
    assigned = copy;
    EXPECT_TRUE(assigned == copy);
    const CSockAddrIPv6& self = assigned;
    assigned = self;
    EXPECT_TRUE(assigned == copy);
}

TEST(SockAddrIPv6, TextNeedsABufferAndMoreThanSixteenBytes) {
    const CSockAddrIPv6 addr("2001:db8:1:2:3:4:5:6", 1);
    char text[64] = {};
    {
        const LogCapture log;
        EXPECT_EQ(nullptr, addr.GetIpStr(nullptr, 64));
        EXPECT_EQ(nullptr, addr.GetIpStr(text, 16));
        EXPECT_EQ(addr.GetIpStr(text, 46), text);
        EXPECT_STREQ("2001:db8:1:2:3:4:5:6", text);
        EXPECT_THAT(texts(log), IsEmpty());
    }
    const LogCapture log;
    EXPECT_EQ(nullptr, addr.GetIpStr(text, 17));
    EXPECT_THAT(texts(log), ElementsAre("2 inet_ntop error\n"));
    EXPECT_STREQ("::1", CSockAddrIPv6("::1", 1).GetIpStr(text, 17));
}

TEST(SockAddrIPv6, RecordHasTwentyEightBytesAndNullGivesNull) {
    const CSockAddrIPv6 addr("::1", 1);
    EXPECT_EQ(28u, addr.GetAddrLen());
    EXPECT_EQ(nullptr, addr.GetAddr(nullptr));
    sockaddr_in6 record{};
    EXPECT_EQ(addr.GetAddr(reinterpret_cast<sockaddr*>(&record)), reinterpret_cast<sockaddr*>(&record));
}

TEST(SockAddrIPv6, EqualIgnoresFlowAndScope) {
    const sockaddr_in6 sample = sampleRecord();
    const CSockAddrIPv6 addr(&sample);
    EXPECT_TRUE(addr == CSockAddrIPv6("2001:db8::1", 80, 77));
    EXPECT_FALSE(addr == CSockAddrIPv6("2001:db8::1", 81));
    EXPECT_FALSE(addr == CSockAddrIPv6("2001:db8::2", 80));
}

TEST(SockAddrIPv6, InvalidAddressIsNotEqualToItself) {
    const CSockAddrIPv6 addr("::1", 0);
    EXPECT_FALSE(addr == addr);
    EXPECT_FALSE(CSockAddrIPv6("::1", 1) == addr);
}

TEST(SockAddrIPv6, WithoutMemoryNothingThrowsAndTheAddressStaysEmpty) {
    char text[64];
    sockaddr_in6 record = sampleRecord();
    const Testing::NoMemory no_memory;
    CSockAddrIPv6 addr(&record);
    const CSockAddrIPv6 copy(addr);
    EXPECT_EQ(-1, addr.SetAddr("::1", 1));
    EXPECT_EQ(-1, addr.SetAddr("::1", 1, 1));
    EXPECT_EQ(-1, addr.SetAddr(&record));
    EXPECT_EQ(-1, addr.SetIp("::1"));
    EXPECT_EQ(-1, addr.SetPort(1));
    EXPECT_EQ(-1, addr.SetScopeID(1));
    EXPECT_EQ(0, addr.GetPort());
    EXPECT_EQ(0u, addr.GetScopeID());
    EXPECT_EQ(nullptr, addr.GetIpStr(text, sizeof text));
    EXPECT_EQ(nullptr, addr.GetAddr(reinterpret_cast<sockaddr*>(&record)));
    EXPECT_FALSE(addr.IsValid());
    EXPECT_FALSE(addr == copy);
}

TEST(SockAddrIPv6, WithoutMemoryAHostNameIsNotResolved) {
    CSockAddrIPv6 addr;
    const Testing::NoMemory no_memory;
    errno = 0;
    EXPECT_EQ(-1, addr.SetIp("localhost"));
    EXPECT_EQ(ENOMEM, errno);
}

TEST(SockAddrIPv6Death, DestructorAssertsItsType) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            CSockAddrIPv6 addr;
            static_cast<CSockAddr&>(addr) = CSockAddrIPv4();
        },
        "m_type == SOCKADDR_TYPE_IPV6");
}

}  // namespace
}  // namespace Orvex::Reticor
