// CSockAddrStorage: either family, with the text it was given.
#include <Reticor/SockAddrStorage.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>

#include "support/LogCapture.h"
#include "support/socket/Allocations.h"
#include "support/socket/Loopback.h"
#include "support/socket/SystemSeam.h"

namespace Orvex::Reticor {
namespace {

using ::testing::ElementsAre;
using Testing::FailNext;
using ::testing::IsEmpty;
using Testing::LogCapture;
using Testing::ResolverSeam;
using Testing::SystemCall;
using Testing::texts;

sockaddr_in recordIPv4(const CSockAddrStorage& addr) {
    sockaddr_in record{};
    EXPECT_EQ(addr.GetAddrLen(), sizeof record);
    addr.GetAddr(reinterpret_cast<sockaddr*>(&record));
    return record;
}

sockaddr_in6 recordIPv6(const CSockAddrStorage& addr) {
    sockaddr_in6 record{};
    EXPECT_EQ(addr.GetAddrLen(), sizeof record);
    addr.GetAddr(reinterpret_cast<sockaddr*>(&record));
    return record;
}

std::string textOf(const CSockAddrStorage& addr) {
    char text[256] = {};
    return addr.GetIpStr(text, sizeof text) != nullptr ? text : "none";
}

TEST(SockAddrStorage, DefaultIsEmptyAndInvalid) {
    const LogCapture log;
    const CSockAddrStorage addr;
    sockaddr_storage record{};
    EXPECT_EQ(3u, addr.GetType());
    EXPECT_EQ(0u, addr.GetRealType());
    EXPECT_EQ(0u, addr.GetInputType());
    EXPECT_EQ(0u, addr.GetAddrLen());
    EXPECT_EQ(nullptr, addr.GetAddr(reinterpret_cast<sockaddr*>(&record)));
    EXPECT_EQ(0, addr.GetPort());
    EXPECT_FALSE(addr.IsValid());
    EXPECT_EQ("none", textOf(addr));
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockAddrStorage, IPv4LiteralHasBothTypesOneAndSixteenBytes) {
    const CSockAddrStorage addr("10.0.0.7", 80);
    EXPECT_EQ(1u, addr.GetRealType());
    EXPECT_EQ(1u, addr.GetInputType());
    EXPECT_EQ(16u, addr.GetAddrLen());
    EXPECT_TRUE(addr.IsValid());
    const sockaddr_in record = recordIPv4(addr);
    EXPECT_EQ(AF_INET, record.sin_family);
    EXPECT_EQ(record.sin_port, htons(80));
    EXPECT_EQ(record.sin_addr.s_addr, htonl(0x0A000007u));
}

TEST(SockAddrStorage, IPv6LiteralHasBothTypesTwoAndTwentyEightBytes) {
    const CSockAddrStorage addr("2001:db8::1", 80);
    EXPECT_EQ(2u, addr.GetRealType());
    EXPECT_EQ(2u, addr.GetInputType());
    EXPECT_EQ(28u, addr.GetAddrLen());
    EXPECT_TRUE(addr.IsValid());
    const sockaddr_in6 record = recordIPv6(addr);
    EXPECT_EQ(AF_INET6, record.sin6_family);
    EXPECT_EQ(record.sin6_port, htons(80));
}

TEST(SockAddrStorage, MappedLiteralIsReallyIPv4AndKeptAsIPv6) {
    const CSockAddrStorage addr("::ffff:10.0.0.7", 80);
    EXPECT_EQ(1u, addr.GetRealType());
    EXPECT_EQ(2u, addr.GetInputType());
    EXPECT_EQ(28u, addr.GetAddrLen());
    const sockaddr_in6 record = recordIPv6(addr);
    EXPECT_TRUE(IN6_IS_ADDR_V4MAPPED(&record.sin6_addr));
    EXPECT_EQ(7, record.sin6_addr.s6_addr[15]);
}

TEST(SockAddrStorage, RecordOfAMappedLiteralHasThePortFromBefore) {
    CSockAddrStorage addr;
    addr.SetPort(8000);
    EXPECT_EQ(0, addr.SetIp("::ffff:10.0.0.7"));
    EXPECT_EQ(recordIPv6(addr).sin6_port, htons(8000));
    EXPECT_EQ(0, addr.SetPort(9000));
    EXPECT_EQ(9000, addr.GetPort());
    EXPECT_EQ(recordIPv6(addr).sin6_port, htons(8000));
    EXPECT_EQ(0, recordIPv6(CSockAddrStorage("::ffff:10.0.0.7", 9000)).sin6_port);
}

TEST(SockAddrStorage, PortIsWrittenToTheRecordOfTheRealType) {
    CSockAddrStorage addr("10.0.0.7", 80);
    EXPECT_EQ(0, addr.SetPort(81));
    EXPECT_EQ(recordIPv4(addr).sin_port, htons(81));
    EXPECT_EQ(0, addr.SetIp("10.0.0.8"));
    EXPECT_EQ(recordIPv4(addr).sin_port, htons(81));
    EXPECT_EQ(0, addr.SetIp("::1"));
    EXPECT_EQ(recordIPv6(addr).sin6_port, htons(81));
    EXPECT_EQ(0, addr.SetPort(82));
    EXPECT_EQ(recordIPv6(addr).sin6_port, htons(82));
    EXPECT_EQ(82, addr.GetPort());
}

TEST(SockAddrStorage, PortShowsOnlyOnceTheAddressIsValid) {
    CSockAddrStorage addr;
    EXPECT_EQ(0, addr.SetPort(80));
    EXPECT_EQ(0, addr.GetPort());
    addr.SetIp("10.0.0.7");
    EXPECT_EQ(80, addr.GetPort());
}

TEST(SockAddrStorage, TextIsReturnedAsItWasGiven) {
    ResolverSeam resolver;
    resolver.answer("Camera.Test", AF_INET, "10.9.8.7", AF_INET);
    EXPECT_EQ("Camera.Test", textOf(CSockAddrStorage("Camera.Test", 80)));
    EXPECT_EQ("0:0::0:1", textOf(CSockAddrStorage("0:0::0:1", 80)));
    EXPECT_EQ("localhost", textOf(CSockAddrStorage("localhost", 80)));
}

TEST(SockAddrStorage, TextNeedsABufferThatHoldsItsEnd) {
    const CSockAddrStorage addr("10.0.0.7", 80);
    char text[32];
    std::memset(text, 'x', sizeof text);
    EXPECT_EQ(nullptr, addr.GetIpStr(nullptr, 32));
    EXPECT_EQ(nullptr, addr.GetIpStr(text, 8));
    EXPECT_EQ(addr.GetIpStr(text, 9), text);
    EXPECT_STREQ("10.0.0.7", text);
    EXPECT_EQ('x', text[9]);
}

TEST(SockAddrStorage, TextIsCutAt127Characters) {
    ResolverSeam resolver;
    const std::string name(200, 'n');
    resolver.answer(name, AF_INET, "10.9.8.7", AF_INET);
    const CSockAddrStorage addr(name.c_str(), 80);
    EXPECT_TRUE(addr.IsValid());
    EXPECT_EQ(std::string(127, 'n'), textOf(addr));
    EXPECT_TRUE(addr == CSockAddrStorage(addr));
}

TEST(SockAddrStorage, NamePrefersIPv4) {
    ResolverSeam resolver;
    resolver.answer("both.test", AF_INET, "10.9.8.7", AF_INET);
    resolver.answer("both.test", AF_INET6, "2001:db8::5", AF_INET6);
    const CSockAddrStorage addr("both.test", 80);
    EXPECT_EQ(1u, addr.GetRealType());
    EXPECT_EQ(1u, addr.GetInputType());
    EXPECT_EQ(recordIPv4(addr).sin_addr.s_addr, htonl(0x0A090807u));
}

TEST(SockAddrStorage, NameWithIPv6AddressesOnlyHasBothTypesTwo) {
    ResolverSeam resolver;
    resolver.answer("six.test", AF_INET6, "2001:db8::5", AF_INET6);
    const CSockAddrStorage addr("six.test", 80);
    EXPECT_EQ(2u, addr.GetRealType());
    EXPECT_EQ(2u, addr.GetInputType());
    EXPECT_EQ(recordIPv6(addr).sin6_port, htons(80));
    EXPECT_EQ("six.test", textOf(addr));
}

TEST(SockAddrStorage, UnknownNameFailsAndIsInvalid) {
    const ResolverSeam resolver;
    CSockAddrStorage addr("10.0.0.7", 80);
    EXPECT_EQ(-1, addr.SetAddr("nowhere.test", 81));
    EXPECT_EQ(0u, addr.GetRealType());
    EXPECT_EQ(0u, addr.GetInputType());
    EXPECT_FALSE(addr.IsValid());
    EXPECT_EQ("none", textOf(addr));
}

TEST(SockAddrStorage, TextWithAColonIsNeverAskedForAsIPv4) {
    const ResolverSeam resolver;
    CSockAddrStorage addr;
    EXPECT_EQ(-1, addr.SetIp("no::literal::at::all"));
    EXPECT_EQ(0u, addr.GetRealType());
    EXPECT_EQ("none", textOf(addr));
    EXPECT_EQ(0u, resolver.questions());
}

TEST(SockAddrStorage, NullTextIsRefusedAndChangesNoAddress) {
    CSockAddrStorage addr("10.0.0.7", 80);
    EXPECT_EQ(-1, addr.SetIp(nullptr));
    EXPECT_EQ(-1, addr.SetAddr(static_cast<const char*>(nullptr), 80));
    EXPECT_EQ("10.0.0.7", textOf(addr));
    EXPECT_TRUE(addr.IsValid());
}

TEST(SockAddrStorage, EmptyTextIsTheWildcardAndNotValid) {
    CSockAddrStorage addr;
    EXPECT_EQ(0, addr.SetIp(""));
    EXPECT_EQ(1u, addr.GetRealType());
    EXPECT_EQ(0u, addr.GetInputType());
    EXPECT_EQ(16u, addr.GetAddrLen());
    EXPECT_FALSE(addr.IsValid());
}

TEST(SockAddrStorage, TakesARecordOfEitherFamily) {
    const CSockAddrIPv4 ipv4(0x0A000007u, 80);
    sockaddr_in in{};
    ipv4.GetAddr(reinterpret_cast<sockaddr*>(&in));
    CSockAddrStorage addr;
    EXPECT_EQ(0, addr.SetAddr(&in));
    EXPECT_EQ("10.0.0.7", textOf(addr));
    EXPECT_EQ(80, addr.GetPort());
    EXPECT_EQ(1u, addr.GetInputType());

    const CSockAddrIPv6 ipv6("2001:db8::1", 81);
    sockaddr_in6 in6{};
    ipv6.GetAddr(reinterpret_cast<sockaddr*>(&in6));
    EXPECT_EQ(0, addr.SetAddr(reinterpret_cast<const sockaddr_in*>(&in6)));
    EXPECT_EQ("2001:db8::1", textOf(addr));
    EXPECT_EQ(81, addr.GetPort());
    EXPECT_EQ(2u, addr.GetInputType());
    EXPECT_EQ(recordIPv6(addr).sin6_port, htons(81));
}

TEST(SockAddrStorage, RecordOfAMappedAddressKeepsItsPort) {
    const CSockAddrIPv6 mapped("::ffff:10.0.0.7", 82);
    sockaddr_in6 in6{};
    mapped.GetAddr(reinterpret_cast<sockaddr*>(&in6));
    CSockAddrStorage addr;
    EXPECT_EQ(0, addr.SetAddr(reinterpret_cast<const sockaddr_in*>(&in6)));
    EXPECT_EQ(1u, addr.GetRealType());
    EXPECT_EQ(2u, addr.GetInputType());
    EXPECT_EQ(recordIPv6(addr).sin6_port, htons(82));
}

TEST(SockAddrStorage, ScopeOfARecordIsKept) {
    const CSockAddrIPv6 link_local("fe80::1", 83, if_nametoindex("lo"));
    sockaddr_in6 in6{};
    link_local.GetAddr(reinterpret_cast<sockaddr*>(&in6));
    CSockAddrStorage addr;
    EXPECT_EQ(0, addr.SetAddr(reinterpret_cast<const sockaddr_in*>(&in6)));
    EXPECT_EQ(recordIPv6(addr).sin6_scope_id, if_nametoindex("lo"));
    EXPECT_EQ("fe80::1%lo", textOf(addr));
}

TEST(SockAddrStorage, RecordsOfOtherFamiliesAndNullAreRefused) {
    sockaddr_in record{};
    record.sin_family = AF_UNIX;
    CSockAddrStorage addr("10.0.0.7", 80);
    EXPECT_EQ(-1, addr.SetAddr(&record));
    EXPECT_EQ(-1, addr.SetAddr(static_cast<const sockaddr_in*>(nullptr)));
    EXPECT_EQ("10.0.0.7", textOf(addr));
}

TEST(SockAddrStorage, RecordThatCannotBeFormattedIsRefused) {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    sockaddr_in6 in6{};
    in6.sin6_family = AF_INET6;
    const LogCapture log;
    CSockAddrStorage addr;
    {
        const FailNext failure(SystemCall::inet_ntop, ENOSPC);
        EXPECT_EQ(-1, addr.SetAddr(&in));
    }
    EXPECT_THAT(texts(log), ElementsAre("2 inet_ntop error\n"));
    {
        const FailNext failure(SystemCall::getnameinfo, EAI_MEMORY);
        EXPECT_EQ(-1, addr.SetAddr(reinterpret_cast<const sockaddr_in*>(&in6)));
    }
    EXPECT_EQ(1u, log.lines().size());
}

TEST(SockAddrStorage, RealSockAddrIsNotSupported) {
    CSockAddrStorage addr("10.0.0.7", 80);
    CSockAddrIPv4 real;
    const LogCapture log;
    EXPECT_FALSE(addr.GetRealSockAddr(&real));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockAddrStorage::GetRealSockAddr : this interface is "
                            "no support in windows system!\n"));
}

TEST(SockAddrStorage, NullRecordBufferGivesNull) {
    EXPECT_EQ(nullptr, CSockAddrStorage("10.0.0.7", 80).GetAddr(nullptr));
}

TEST(SockAddrStorage, EqualNeedsTheSameTextAndPort) {
    const CSockAddrStorage addr("::1", 80);
    EXPECT_TRUE(addr == CSockAddrStorage("::1", 80));
    EXPECT_FALSE(addr == CSockAddrStorage("0::1", 80));
    EXPECT_FALSE(addr == CSockAddrStorage("::1", 81));
    EXPECT_FALSE(addr == CSockAddrStorage("127.0.0.1", 80));
    const CSockAddrStorage invalid;
    EXPECT_FALSE(invalid == invalid);
    EXPECT_FALSE(addr == invalid);
}

TEST(SockAddrStorage, CopiesTakeEveryField) {
    CSockAddrStorage first;
    first.SetPort(8000);
    first.SetIp("::ffff:10.0.0.7");
    first.SetPort(9000);
    const CSockAddrStorage copy(first);
    EXPECT_TRUE(copy == first);
    EXPECT_EQ(1u, copy.GetRealType());
    EXPECT_EQ(9000, copy.GetPort());
    EXPECT_EQ(recordIPv6(copy).sin6_port, htons(8000));
    CSockAddrStorage assigned("10.0.0.1", 1);
    assigned = copy;
    EXPECT_TRUE(assigned == copy);
    const CSockAddrStorage& self = assigned;
    assigned = self;
    EXPECT_TRUE(assigned == copy);
    first.SetPort(1);
    EXPECT_EQ(9000, copy.GetPort());
}

TEST(SockAddrStorage, WithoutMemoryNothingThrowsAndTheAddressStaysEmpty) {
    char text[64];
    const Testing::NoMemory no_memory;
    CSockAddrStorage addr("10.0.0.1", 80);
    CSockAddrStorage copy(addr);
    copy = addr;
    EXPECT_EQ(-1, addr.SetAddr("10.0.0.1", 1));
    EXPECT_EQ(-1, addr.SetPort(1));
    EXPECT_EQ(0u, addr.GetRealType());
    EXPECT_EQ(0u, addr.GetInputType());
    EXPECT_EQ(0u, addr.GetAddrLen());
    EXPECT_EQ(0, addr.GetPort());
    EXPECT_EQ(nullptr, addr.GetIpStr(text, sizeof text));
    EXPECT_FALSE(addr.IsValid());
    EXPECT_FALSE(addr == copy);
}

}  // namespace
}  // namespace Orvex::Reticor
