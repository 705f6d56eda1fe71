// The small rooms: times of the kit's timers, addresses as text, names of results.
#include <netinet/in.h>
#include <sys/un.h>

#include <arpa/inet.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <Reticor/kit/Connect.h>
#include <Reticor/kit/Connection.h>

#include "Kit/SocketText.h"
#include "Kit/call/DelayedCall.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;

TEST(KitDelay, IsWithinWhatATimerOfAPoolTakes) {
    const int64_t day_less_one_hour = 23LL * 3600 * 1000000;
    const struct {
        int64_t wanted;
        int64_t told;
    } cases[] = {
        {INT64_MIN, 3000},
        {-1, 3000},
        {0, 3000},
        {2999, 3000},
        {3000, 3000},
        {3001, 3001},
        {1000000, 1000000},
        {day_less_one_hour - 1, day_less_one_hour - 1},
        {day_less_one_hour, day_less_one_hour},
        {day_less_one_hour + 1, day_less_one_hour},
        {INT64_MAX, day_less_one_hour},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(each.told, Kit::clamp_delay(each.wanted)) << each.wanted;
    }
}

TEST(KitDelay, IsOverAsNearAsATimerHitsIt) {
    EXPECT_FALSE(Kit::is_due(1000000, 996999));
    EXPECT_TRUE(Kit::is_due(1000000, 997000));
    EXPECT_TRUE(Kit::is_due(1000000, 1000000));
    EXPECT_TRUE(Kit::is_due(0, 0));
}

class KitAddressText : public testing::Test {
protected:
    static sockaddr_storage four(const char* ip, uint16_t port) {
        sockaddr_storage address{};
        auto& in = reinterpret_cast<sockaddr_in&>(address);
        in.sin_family = AF_INET;
        in.sin_port = htons(port);
        EXPECT_EQ(1, inet_pton(AF_INET, ip, &in.sin_addr));
        return address;
    }
    static sockaddr_storage six(const char* ip, uint16_t port) {
        sockaddr_storage address{};
        auto& in = reinterpret_cast<sockaddr_in6&>(address);
        in.sin6_family = AF_INET6;
        in.sin6_port = htons(port);
        EXPECT_EQ(1, inet_pton(AF_INET6, ip, &in.sin6_addr));
        return address;
    }
    /// What is written to `size` bytes, and that nothing after them is touched.
    static std::string written(const sockaddr_storage* address, size_t size = 64) {
        std::string room(80, '#');
        const size_t length = Kit::write_address(address, room.data(), size);
        EXPECT_EQ(std::string(80 - size, '#'), room.substr(size));
        if (size == 0) {
            EXPECT_EQ(0U, length);
            return "";
        }
        EXPECT_EQ('\0', room[length]);
        EXPECT_EQ(std::strlen(room.c_str()), length);
        return room.substr(0, length);
    }
};

TEST_F(KitAddressText, HasThePortInBothFamilies) {
    const sockaddr_storage least = four("0.0.0.0", 0);
    const sockaddr_storage usual = four("127.0.0.1", 40312);
    const sockaddr_storage loop = six("::1", 7007);
    const sockaddr_storage longest = six("1111:2222:3333:4444:5555:6666:7777:8888", 65535);
    EXPECT_EQ("0.0.0.0:0", written(&least));
    EXPECT_EQ("127.0.0.1:40312", written(&usual));
    EXPECT_EQ("[::1]:7007", written(&loop));
    EXPECT_EQ("[1111:2222:3333:4444:5555:6666:7777:8888]:65535", written(&longest));
}

TEST_F(KitAddressText, IsCutToItsRoom) {
    const sockaddr_storage address = four("127.0.0.1", 80);
    EXPECT_EQ("127.0.0.1:80", written(&address, 13));
    EXPECT_EQ("127.0.0.1:8", written(&address, 12));
    EXPECT_EQ("1", written(&address, 2));
    EXPECT_EQ("", written(&address, 1));
    EXPECT_EQ("", written(&address, 0));
}

TEST_F(KitAddressText, IsEmptyForWhatIsNotAnAddressOfTheNet) {
    sockaddr_storage address{};
    reinterpret_cast<sockaddr_un&>(address).sun_family = AF_UNIX;
    EXPECT_EQ("", written(&address));
    EXPECT_EQ("", written(nullptr));
    EXPECT_EQ("", written(nullptr, 1));
}

TEST(KitNames, OfReasonsAndResultsAreThoseOfTheSource) {
    using Kit::CloseReason;
    using Kit::ConnectResult;
    const std::pair<CloseReason, const char*> reasons[] = {
        {CloseReason::CLOSED, "CLOSED"},
        {CloseReason::ABORTED, "ABORTED"},
        {CloseReason::PEER_CLOSED, "PEER_CLOSED"},
        {CloseReason::PEER_LOST, "PEER_LOST"},
        {CloseReason::IDLE, "IDLE"},
        {CloseReason::STALLED, "STALLED"},
        {CloseReason::OVERFLOW, "OVERFLOW"},
        {CloseReason::FAILED, "FAILED"},
        {static_cast<CloseReason>(99), "?"},
    };
    for (const auto& reason : reasons) {
        EXPECT_STREQ(reason.second, toText(reason.first));
    }
    const std::pair<ConnectResult, const char*> results[] = {
        {ConnectResult::CONNECTED, "CONNECTED"}, {ConnectResult::NOT_FOUND, "NOT_FOUND"},
        {ConnectResult::REFUSED, "REFUSED"},     {ConnectResult::TIMED_OUT, "TIMED_OUT"},
        {ConnectResult::CANCELLED, "CANCELLED"}, {static_cast<ConnectResult>(99), "?"},
    };
    for (const auto& result : results) {
        EXPECT_STREQ(result.second, toText(result.first));
    }
}

}  // namespace
}  // namespace Orvex::Testing
