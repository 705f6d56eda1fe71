// CSockAddr: type codes, copying through the base, reserved ports.
#include <Reticor/SockAddr.h>

#include <netinet/in.h>

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

namespace Orvex::Reticor {
namespace {

// A product's own address class: neither of the known types.
class CAddrWithoutLength : public CSockAddr {
public:
    struct sockaddr* GetAddr(struct sockaddr* addr) const override {
        return addr;
    }
    unsigned GetAddrLen() const override { return 0; }
    bool IsValid() const override { return true; }
};

static_assert(std::is_abstract_v<CSockAddr> && std::has_virtual_destructor_v<CSockAddr>);
static_assert(SOCKADDR_TYPE_UNKNOWN == 0 && SOCKADDR_TYPE_IPV4 == 1 && SOCKADDR_TYPE_IPV6 == 2 &&
              SOCKADDR_TYPE_STORAGE == 3);

TEST(SockAddr, TypeCodesTellTheClasses) {
    EXPECT_EQ(0u, CAddrWithoutLength().GetType());
    EXPECT_EQ(1u, CSockAddrIPv4().GetType());
    EXPECT_EQ(2u, CSockAddrIPv6().GetType());
    EXPECT_EQ(3u, CSockAddrStorage().GetType());
}

TEST(SockAddr, CopyingThroughTheBaseCopiesTheTypeCodeOnly) {
    CSockAddrIPv4 target(0x0A000001u, 80);
    const CAddrWithoutLength source;
    static_cast<CSockAddr&>(target) = source;
    EXPECT_EQ(0u, target.GetType());
    EXPECT_EQ(0x0A000001u, target.GetIp());
    EXPECT_EQ(80, target.GetPort());
    const CAddrWithoutLength copy(source);
    EXPECT_EQ(0u, copy.GetType());
}

TEST(SockAddr, ReservedPortsAreTheListedOnesAndNoOthers) {
    const auto expected = [](unsigned port) {
        switch (port) {
            case 1900:
            case 3800:
            case 5000:
            case 5050:
            case 9999:
            case 37776:
            case 37777:
            case 37778:
            case 39999:
                return true;
            default:
                return port <= 1024 || (port >= 37780 && port <= 37880) || (port >= 8090 && port <= 8121);
        }
    };
    CSockAddrIPv4 addr;
    for (unsigned port = 0; port <= 65535; ++port) {
        addr.SetPort(static_cast<unsigned short>(port));
        ASSERT_EQ(addr.IsReserved(), expected(port)) << port;
    }
}

TEST(SockAddr, ReservedRangesIncludeBothEnds) {
    const auto reserved = [](unsigned short port) { return CSockAddrIPv4(0x7F000001u, port).IsReserved(); };
    EXPECT_TRUE(reserved(0));
    EXPECT_TRUE(reserved(1024));
    EXPECT_FALSE(reserved(1025));
    EXPECT_FALSE(reserved(8089));
    EXPECT_TRUE(reserved(8090));
    EXPECT_TRUE(reserved(8121));
    EXPECT_FALSE(reserved(8122));
    EXPECT_TRUE(reserved(37778));
    EXPECT_FALSE(reserved(37779));
    EXPECT_TRUE(reserved(37780));
    EXPECT_TRUE(reserved(37880));
    EXPECT_FALSE(reserved(37881));
}

TEST(SockAddr, OnlyIPv4AddressesHaveReservedPorts) {
    constexpr unsigned short reserved[] = {80, 1024, 1900, 8100, 37800, 39999};
    for (const unsigned short port : reserved) {
        EXPECT_TRUE(CSockAddrIPv4("127.0.0.1", port).IsReserved());
        EXPECT_FALSE(CSockAddrIPv6("::1", port).IsReserved());
        EXPECT_FALSE(CSockAddrStorage("127.0.0.1", port).IsReserved());
    }
    EXPECT_FALSE(CAddrWithoutLength().IsReserved());
}

}  // namespace
}  // namespace Orvex::Reticor
