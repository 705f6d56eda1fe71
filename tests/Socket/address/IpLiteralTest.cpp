// IpLiteral: numeric texts, with and without scope.
#include "Socket/address/IpLiteral.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "support/socket/SystemSeam.h"

namespace Orvex::Reticor {
namespace {

TEST(IpLiteral, IPv4NeedsAllFourParts) {
    in_addr address{};
    EXPECT_TRUE(parse_ipv4_literal("10.20.30.40", address));
    EXPECT_EQ(address.s_addr, htonl(0x0A141E28u));
    for (const char* text : {"", "10.1", "10.20.30", "10.20.30.256", "10.20.30.40 ", "::1", "localhost"}) {
        EXPECT_FALSE(parse_ipv4_literal(text, address)) << text;
    }
    EXPECT_FALSE(parse_ipv4_literal(nullptr, address));
    EXPECT_EQ(address.s_addr, htonl(0x0A141E28u));
}

TEST(IpLiteral, IPv6WritesTheWholeRecord) {
    sockaddr_in6 record;
    std::memset(&record, 0xAB, sizeof record);
    EXPECT_TRUE(parse_ipv6_literal("2001:db8::1", record));
    EXPECT_EQ(AF_INET6, record.sin6_family);
    EXPECT_EQ(0, record.sin6_port);
    EXPECT_EQ(0u, record.sin6_flowinfo);
    EXPECT_EQ(0u, record.sin6_scope_id);
    EXPECT_EQ(0x20, record.sin6_addr.s6_addr[0]);
    EXPECT_EQ(1, record.sin6_addr.s6_addr[15]);
}

TEST(IpLiteral, IPv6TakesScopesByNameAndNumber) {
    const Testing::ResolverSeam seam;
    sockaddr_in6 record{};
    EXPECT_TRUE(parse_ipv6_literal("fe80::1%lo", record));
    EXPECT_EQ(record.sin6_scope_id, if_nametoindex("lo"));
    EXPECT_TRUE(parse_ipv6_literal("fe80::1%3", record));
    EXPECT_EQ(3u, record.sin6_scope_id);
    EXPECT_EQ(0u, seam.questions());
}

TEST(IpLiteral, OtherTextsLeaveTheRecord) {
    const Testing::ResolverSeam seam;
    sockaddr_in6 record{};
    record.sin6_port = 7;
    for (const char* text :
         {"", "10.0.0.1", "10.0.0.1%lo", "fe80::1%nosuchlink", "100%", "::1::", "localhost"}) {
        EXPECT_FALSE(parse_ipv6_literal(text, record)) << text;
    }
    EXPECT_FALSE(parse_ipv6_literal(nullptr, record));
    EXPECT_EQ(7, record.sin6_port);
    EXPECT_EQ(0u, seam.questions());
}

}  // namespace
}  // namespace Orvex::Reticor
