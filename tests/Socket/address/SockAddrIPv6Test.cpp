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
    EXPECT_EQ(addr.GetType(), 2u);
    EXPECT_EQ(addr.GetPort(), 0);
    EXPECT_EQ(addr.GetScopeID(), 0u);
    EXPECT_EQ(recordOf(addr).sin6_family, AF_INET6);
    EXPECT_FALSE(addr.IsValid());
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockAddrIPv6::IsValid :Invalid addr: "
                                        "m_addr.sin6_port:0 \n"));
}

TEST(SockAddrIPv6, ValidNeedsPortAndAddress) {
    EXPECT_TRUE(CSockAddrIPv6("::1", 1).IsValid());
    const LogCapture log;
    EXPECT_FALSE(CSockAddrIPv6("::1", 0).IsValid());
    EXPECT_FALSE(CSockAddrIPv6("::", 80).IsValid());
    EXPECT_EQ(log.count(2, "Orvex::Reticor::CSockAddrIPv6::IsValid :Invalid addr: m_addr.sin6_port:0 \n"),
              1u);
    EXPECT_EQ(log.count(2, "Orvex::Reticor::CSockAddrIPv6::IsValid :Invalid addr: m_addr.sin6_port:80 \n"),
              1u);
}

TEST(SockAddrIPv6, TakesALiteralPortAndScope) {
    const ResolverSeam resolver;
    const CSockAddrIPv6 addr("2001:db8::7", 443);
    EXPECT_EQ(textOf(addr), "2001:db8::7");
    EXPECT_EQ(addr.GetPort(), 443);
    EXPECT_EQ(addr.GetScopeID(), 0u);
    EXPECT_EQ(recordOf(addr).sin6_port, htons(443));
    const CSockAddrIPv6 scoped("fe80::1", 443, 9);
    EXPECT_EQ(scoped.GetScopeID(), 9u);
    EXPECT_EQ(scoped.GetPort(), 443);
    EXPECT_EQ(resolver.questions(), 0u);
}

TEST(SockAddrIPv6, LiteralReplacesTheWholeRecord) {
    const sockaddr_in6 sample = sampleRecord();
    CSockAddrIPv6 addr(&sample);
    EXPECT_EQ(addr.SetIp("::2"), 0);
    const sockaddr_in6 record = recordOf(addr);
    EXPECT_EQ(record.sin6_family, AF_INET6);
    EXPECT_EQ(record.sin6_port, 0);
    EXPECT_EQ(record.sin6_flowinfo, 0u);
    EXPECT_EQ(record.sin6_scope_id, 0u);
    EXPECT_EQ(textOf(addr), "::2");
}

TEST(SockAddrIPv6, LiteralWithAScopeKeepsIt) {
    const ResolverSeam resolver;
    const unsigned loopback = if_nametoindex("lo");
    CSockAddrIPv6 addr;
    addr.SetPort(80);
    EXPECT_EQ(addr.SetIp("fe80::1%lo"), 0);
    EXPECT_EQ(addr.GetScopeID(), loopback);
    EXPECT_EQ(addr.GetPort(), 0);
    EXPECT_EQ(addr.SetIp(("fe80::2%" + std::to_string(loopback)).c_str()), 0);
    EXPECT_EQ(addr.GetScopeID(), loopback);
    EXPECT_EQ(textOf(addr), "fe80::2");
    EXPECT_EQ(resolver.questions(), 0u);
}

TEST(SockAddrIPv6, NameWithIPv4AddressesOnlyGivesAMappedOneAndKeepsThePort) {
    ResolverSeam resolver;
    resolver.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    CSockAddrIPv6 addr;
    addr.SetPort(8554);
    EXPECT_EQ(addr.SetIp("camera.test"), 0);
    EXPECT_EQ(textOf(addr), "::ffff:10.9.8.7");
    EXPECT_EQ(addr.GetPort(), 8554);
    EXPECT_EQ(recordOf(addr).sin6_family, AF_INET6);
}

TEST(SockAddrIPv6, DottedTextGivesAMappedAddressWithoutTheNameService) {
    const ResolverSeam resolver;
    const CSockAddrIPv6 addr("127.0.0.1", 80);
    EXPECT_EQ(textOf(addr), "::ffff:127.0.0.1");
    EXPECT_EQ(addr.GetPort(), 80);
    EXPECT_EQ(resolver.questions(), 0u);
}

TEST(SockAddrIPv6, NameWithAnIPv6AddressGivesItAndKeepsThePort) {
    ResolverSeam resolver;
    resolver.answer("camera.test", AF_INET6, "2001:db8::5", AF_INET6);
    resolver.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    CSockAddrIPv6 addr;
    addr.SetPort(8554);
    EXPECT_EQ(addr.SetIp("camera.test"), 0);
    EXPECT_EQ(textOf(addr), "2001:db8::5");
    EXPECT_EQ(addr.GetPort(), 8554);
}

TEST(SockAddrIPv6, HostNameFromTheSystemIsResolved) {
    CSockAddrIPv6 addr;
    EXPECT_EQ(addr.SetAddr("localhost", 80), 0);
    EXPECT_THAT(textOf(addr), ::testing::AnyOf("::1", "::ffff:127.0.0.1"));
    EXPECT_EQ(addr.GetPort(), 80);
}

TEST(SockAddrIPv6, SecondLookUpAsIPv4IsTriedAfterTheFirstFailed) {
    ResolverSeam resolver;
    resolver.failFirst("camera.test", AF_INET, EAI_AGAIN, 1);
    resolver.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    const LogCapture log;
    CSockAddrIPv6 addr;
    addr.SetPort(8554);
    EXPECT_EQ(addr.SetIp("camera.test"), 0);
    EXPECT_EQ(textOf(addr), "::ffff:10.9.8.7");
    EXPECT_EQ(addr.GetPort(), 8554);
    EXPECT_THAT(texts(log), ElementsAre("2 getaddrinfo error:Name or service not known\n"));
}

TEST(SockAddrIPv6, AnswerWithoutAnEntryLeavesTheAddressAndKeepsThePort) {
    ResolverSeam resolver;
    resolver.answer("odd.test", AF_INET6, "10.9.8.7", AF_INET);
    CSockAddrIPv6 addr("2001:db8::1", 80);
    EXPECT_EQ(addr.SetIp("odd.test"), 0);
    EXPECT_EQ(textOf(addr), "2001:db8::1");
    EXPECT_EQ(addr.GetPort(), 80);
}

TEST(SockAddrIPv6, UnknownNameFailsWithOneLine) {
    const ResolverSeam resolver;
    const LogCapture log;
    CSockAddrIPv6 addr("2001:db8::1", 80);
    errno = 0;
    EXPECT_EQ(addr.SetIp("nowhere.test"), -1);
    EXPECT_EQ(errno, EAI_NONAME);
    EXPECT_THAT(texts(log), ElementsAre("2 getaddrinfo error:Name or service not known\n"));
    EXPECT_EQ(addr.SetIp("fe80::1%nosuchlink"), -1);
    EXPECT_EQ(addr.SetIp(nullptr), -1);
    EXPECT_EQ(addr.SetIp(""), -1);
    EXPECT_EQ(log.lines().size(), 4u);
}

TEST(SockAddrIPv6, SetAddrOfATextForgetsTheOldRecord) {
    const ResolverSeam resolver;
    const sockaddr_in6 sample = sampleRecord();
    CSockAddrIPv6 addr(&sample);
    EXPECT_EQ(addr.SetAddr("nowhere.test", 90), -1);
    const sockaddr_in6 record = recordOf(addr);
    EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&record.sin6_addr));
    EXPECT_EQ(record.sin6_port, 0);
    EXPECT_EQ(record.sin6_scope_id, 0u);
    EXPECT_EQ(addr.SetAddr("nowhere.test", 90, 3), -1);
    EXPECT_EQ(addr.GetScopeID(), 0u);
    EXPECT_EQ(addr.SetAddr("::3", 90, 3), 0);
    EXPECT_EQ(addr.GetScopeID(), 3u);
}

TEST(SockAddrIPv6, TakesARecordOfItsFamilyOnly) {
    sockaddr_in6 record = sampleRecord();
    CSockAddrIPv6 addr;
    EXPECT_EQ(addr.SetAddr(&record), 0);
    EXPECT_EQ(recordOf(addr).sin6_flowinfo, htonl(5));
    EXPECT_EQ(addr.GetScopeID(), 6u);
    EXPECT_EQ(addr.GetPort(), 80);
    record.sin6_family = AF_INET;
    record.sin6_port = htons(81);
    EXPECT_EQ(addr.SetAddr(&record), -1);
    EXPECT_EQ(addr.SetAddr(static_cast<const sockaddr_in6*>(nullptr)), -1);
    EXPECT_EQ(addr.GetPort(), 80);
    EXPECT_EQ(textOf(CSockAddrIPv6(&record)), "::");
}

TEST(SockAddrIPv6, PlainSettersReturnZero) {
    CSockAddrIPv6 addr;
    EXPECT_EQ(addr.SetPort(80), 0);
    EXPECT_EQ(addr.SetScopeID(4), 0);
    EXPECT_EQ(addr.GetPort(), 80);
    EXPECT_EQ(addr.GetScopeID(), 4u);
}

TEST(SockAddrIPv6, CopiesTakeTheWholeRecord) {
    const sockaddr_in6 sample = sampleRecord();
    const CSockAddrIPv6 first(&sample);
    CSockAddrIPv6 copy(first);
    EXPECT_TRUE(copy == first);
    EXPECT_EQ(recordOf(copy).sin6_flowinfo, htonl(5));
    EXPECT_EQ(copy.GetScopeID(), 6u);
    copy.SetPort(81);
    EXPECT_EQ(first.GetPort(), 80);
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
        EXPECT_EQ(addr.GetIpStr(nullptr, 64), nullptr);
        EXPECT_EQ(addr.GetIpStr(text, 16), nullptr);
        EXPECT_EQ(addr.GetIpStr(text, 46), text);
        EXPECT_STREQ(text, "2001:db8:1:2:3:4:5:6");
        EXPECT_THAT(texts(log), IsEmpty());
    }
    const LogCapture log;
    EXPECT_EQ(addr.GetIpStr(text, 17), nullptr);
    EXPECT_THAT(texts(log), ElementsAre("2 inet_ntop error\n"));
    EXPECT_STREQ(CSockAddrIPv6("::1", 1).GetIpStr(text, 17), "::1");
}

TEST(SockAddrIPv6, RecordHasTwentyEightBytesAndNullGivesNull) {
    const CSockAddrIPv6 addr("::1", 1);
    EXPECT_EQ(addr.GetAddrLen(), 28u);
    EXPECT_EQ(addr.GetAddr(nullptr), nullptr);
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
    EXPECT_EQ(addr.SetAddr("::1", 1), -1);
    EXPECT_EQ(addr.SetAddr("::1", 1, 1), -1);
    EXPECT_EQ(addr.SetAddr(&record), -1);
    EXPECT_EQ(addr.SetIp("::1"), -1);
    EXPECT_EQ(addr.SetPort(1), -1);
    EXPECT_EQ(addr.SetScopeID(1), -1);
    EXPECT_EQ(addr.GetPort(), 0);
    EXPECT_EQ(addr.GetScopeID(), 0u);
    EXPECT_EQ(addr.GetIpStr(text, sizeof text), nullptr);
    EXPECT_EQ(addr.GetAddr(reinterpret_cast<sockaddr*>(&record)), nullptr);
    EXPECT_FALSE(addr.IsValid());
    EXPECT_FALSE(addr == copy);
}

TEST(SockAddrIPv6, WithoutMemoryAHostNameIsNotResolved) {
    CSockAddrIPv6 addr;
    const Testing::NoMemory no_memory;
    errno = 0;
    EXPECT_EQ(addr.SetIp("localhost"), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(SockAddrIPv6DeathTest, DestructorAssertsItsType) {
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
