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
    EXPECT_EQ(AF_INET, ipv4.family());
    EXPECT_EQ(16u, ipv4.length);
    EXPECT_EQ(80, ipv4.port());
    const SockAddrRecord ipv6(CSockAddrIPv6("::1", 81));
    EXPECT_EQ(AF_INET6, ipv6.family());
    EXPECT_EQ(28u, ipv6.length);
    EXPECT_EQ(81, ipv6.port());
    EXPECT_EQ(AF_INET, SockAddrRecord(CSockAddrStorage("10.0.0.1", 80)).family());
    EXPECT_EQ(AF_INET6, SockAddrRecord(CSockAddrStorage("::1", 80)).family());
    EXPECT_EQ(AF_INET6, SockAddrRecord(CSockAddrStorage("::ffff:10.0.0.1", 80)).family());
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
