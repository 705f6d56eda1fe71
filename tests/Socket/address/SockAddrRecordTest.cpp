// SockAddrRecord: which family a socket is opened in.
#include "Socket/address/SockAddrRecord.h"

#include <netinet/in.h>

#include <gtest/gtest.h>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

TEST(SockAddrRecord, FamilyIsTheTypesOrForStorageTheKeptOne) {
    const SockAddrRecord ipv4(CSockAddrIPv4("10.0.0.1", 80));
    EXPECT_EQ(ipv4.family(), AF_INET);
    EXPECT_EQ(ipv4.length, 16u);
    EXPECT_EQ(ipv4.port(), 80);
    const SockAddrRecord ipv6(CSockAddrIPv6("::1", 81));
    EXPECT_EQ(ipv6.family(), AF_INET6);
    EXPECT_EQ(ipv6.length, 28u);
    EXPECT_EQ(ipv6.port(), 81);
    EXPECT_EQ(SockAddrRecord(CSockAddrStorage("10.0.0.1", 80)).family(), AF_INET);
    EXPECT_EQ(SockAddrRecord(CSockAddrStorage("::1", 80)).family(), AF_INET6);
    EXPECT_EQ(SockAddrRecord(CSockAddrStorage("::ffff:10.0.0.1", 80)).family(), AF_INET6);
}

TEST(SockAddrRecord, InvalidStorageHasNoFamily) {
    EXPECT_FALSE(SockAddrRecord{CSockAddrStorage()}.has_family());
    EXPECT_FALSE(SockAddrRecord(CSockAddrStorage("", 80)).has_family());
}

TEST(SockAddrRecord, AddressWithoutMemoryHasNoFamily) {
    const Testing::NoMemory no_memory;
    EXPECT_FALSE(SockAddrRecord(CSockAddrIPv4(0x7F000001u, 80)).has_family());
}

}  // namespace
}  // namespace Orvex::Reticor
