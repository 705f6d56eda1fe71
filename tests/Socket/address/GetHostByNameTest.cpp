// CGetHostByName: which questions reach the name service, and what becomes of the answers.
#include "Socket/address/GetHostByName.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Socket/address/ResolverHold.h"
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

constexpr int limit_ms = 2000;

bool resolve(const char* host, sockaddr_in& result) {
    CResolverHold resolver;
    return resolver.GetAddressInfo(host, AF_INET, reinterpret_cast<sockaddr*>(&result), sizeof result,
                                   limit_ms);
}

bool resolve(const char* host, sockaddr_in6& result) {
    CResolverHold resolver;
    return resolver.GetAddressInfo(host, AF_INET6, reinterpret_cast<sockaddr*>(&result), sizeof result,
                                   limit_ms);
}

std::string textOf(const sockaddr_in6& record) {
    char text[INET6_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET6, &record.sin6_addr, text, sizeof text);
}

TEST(GetHostByName, DottedNumericTextNeverReachesTheNameService) {
    const ResolverSeam seam;
    sockaddr_in result{};
    EXPECT_TRUE(resolve("10.1.2.3", result));
    EXPECT_EQ(result.sin_addr.s_addr, htonl(0x0A010203u));
    EXPECT_EQ(AF_INET, result.sin_family);
    EXPECT_TRUE(resolve("127.1", result));
    EXPECT_EQ(result.sin_addr.s_addr, htonl(0x7F000001u));
    EXPECT_FALSE(resolve("1.2.3.256", result));
    EXPECT_FALSE(resolve("1.2.3.4.5", result));
    EXPECT_EQ(0u, seam.questions());
}

TEST(GetHostByName, IPv6LoopbackTextIsAnsweredByGetaddrinfo) {
    const ResolverSeam seam;
    sockaddr_in6 result{};
    EXPECT_TRUE(resolve("::1", result));
    EXPECT_EQ("::1", textOf(result));
    EXPECT_EQ(AF_INET6, result.sin6_family);
    ASSERT_EQ(1u, seam.calls().size());
    EXPECT_EQ("::1", seam.calls()[0].host);
    EXPECT_EQ(AF_INET6, seam.calls()[0].family);
}

TEST(GetHostByName, NameIsAskedForOnceAndThePortLeftAlone) {
    ResolverSeam seam;
    seam.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    sockaddr_in result{};
    result.sin_port = htons(80);
    EXPECT_TRUE(resolve("camera.test", result));
    EXPECT_EQ(result.sin_addr.s_addr, htonl(0x0A090807u));
    EXPECT_EQ(AF_INET, result.sin_family);
    EXPECT_EQ(result.sin_port, htons(80));
    EXPECT_EQ(1u, seam.questions());
}

TEST(GetHostByName, NameFromTheSystemIsResolved) {
    sockaddr_in result{};
    EXPECT_TRUE(resolve("localhost", result));
    EXPECT_EQ(127u, ntohl(result.sin_addr.s_addr) >> 24);
}

TEST(GetHostByName, OtherFamiliesCountAsIPv4) {
    sockaddr_in result{};
    CResolverHold resolver;
    EXPECT_TRUE(resolver.GetAddressInfo("10.1.2.3", AF_UNSPEC, reinterpret_cast<sockaddr*>(&result),
                                        sizeof result, limit_ms));
    EXPECT_EQ(AF_INET, result.sin_family);
}

TEST(GetHostByName, NameWithIPv4AddressesOnlyComesBackMapped) {
    ResolverSeam seam;
    seam.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    const LogCapture log;
    sockaddr_in6 result{};
    EXPECT_TRUE(resolve("camera.test", result));
    EXPECT_EQ("::ffff:10.9.8.7", textOf(result));
    EXPECT_EQ(AF_INET6, result.sin6_family);
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(GetHostByName, MappedAddressLeavesTheOtherBytes) {
    ResolverSeam seam;
    seam.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    sockaddr_in6 result{};
    std::memset(&result.sin6_addr, 0xAB, sizeof result.sin6_addr);
    result.sin6_port = htons(80);
    result.sin6_scope_id = 4;
    EXPECT_TRUE(resolve("camera.test", result));
    EXPECT_EQ(0xAB, result.sin6_addr.s6_addr[0]);
    EXPECT_EQ(0xAB, result.sin6_addr.s6_addr[9]);
    EXPECT_EQ(0xFF, result.sin6_addr.s6_addr[10]);
    EXPECT_EQ(0xFF, result.sin6_addr.s6_addr[11]);
    EXPECT_EQ(10, result.sin6_addr.s6_addr[12]);
    EXPECT_EQ(7, result.sin6_addr.s6_addr[15]);
    EXPECT_EQ(result.sin6_port, htons(80));
    EXPECT_EQ(4u, result.sin6_scope_id);
}

TEST(GetHostByName, AnswerWithoutAnIPv6EntryIsTrueAndLeavesTheAddress) {
    ResolverSeam seam;
    seam.answer("odd.test", AF_INET6, "10.9.8.7", AF_INET);
    sockaddr_in6 result{};
    std::memset(&result.sin6_addr, 0xAB, sizeof result.sin6_addr);
    EXPECT_TRUE(resolve("odd.test", result));
    EXPECT_EQ(AF_INET6, result.sin6_family);
    EXPECT_EQ(16, std::count(std::begin(result.sin6_addr.s6_addr), std::end(result.sin6_addr.s6_addr), 0xAB));
}

TEST(GetHostByName, LiteralIsStillReadWhenGetaddrinfoFails) {
    ResolverSeam seam;
    seam.failFirst("2001:db8::1", AF_INET6, EAI_MEMORY, 1);
    sockaddr_in6 result{};
    EXPECT_TRUE(resolve("2001:db8::1", result));
    EXPECT_EQ("2001:db8::1", textOf(result));
}

TEST(GetHostByName, FailureAsIPv6LogsTheCodeOfGetaddrinfo) {
    ResolverSeam seam;
    seam.failFirst("nowhere.test", AF_INET6, EAI_AGAIN, 1);
    const LogCapture log;
    sockaddr_in6 result{};
    errno = 0;
    EXPECT_FALSE(resolve("nowhere.test", result));
    EXPECT_EQ(EAI_AGAIN, errno);
    EXPECT_EQ(AF_INET6, result.sin6_family);
    EXPECT_THAT(texts(log), ElementsAre("2 getaddrinfo error:Temporary failure in name resolution\n"));
    EXPECT_THAT(log.lines()[0].start,
                ::testing::MatchesRegex("\\[Src/Socket/GetHostByName.cpp:[0-9]+\\] tid:[0-9]+, "));
    EXPECT_EQ("Orvex::Reticor::CGetHostByName::GetAddressInfo", log.lines()[0].function);
}

TEST(GetHostByName, SystemErrorOfALookUpIsPassedOn) {
    ResolverSeam seam;
    seam.failFirst("nowhere.test", AF_INET6, EAI_SYSTEM, 1, EMFILE);
    const LogCapture log;
    sockaddr_in6 result{};
    EXPECT_FALSE(resolve("nowhere.test", result));
    EXPECT_EQ(EMFILE, errno);
    EXPECT_THAT(texts(log), ElementsAre("2 getaddrinfo error:Too many open files\n"));
}

TEST(GetHostByName, FailureAsIPv4IsSilentAndWritesNothing) {
    const ResolverSeam seam;
    const LogCapture log;
    sockaddr_in result{};
    result.sin_family = 77;
    errno = 0;
    EXPECT_FALSE(resolve("nowhere.test", result));
    EXPECT_EQ(EAI_NONAME, errno);
    EXPECT_EQ(77, result.sin_family);
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(GetHostByName, NullAndEmptyNamesFailWithoutAQuestion) {
    const ResolverSeam seam;
    sockaddr_in result{};
    EXPECT_FALSE(resolve(nullptr, result));
    EXPECT_FALSE(resolve("", result));
    sockaddr_in6 result6{};
    EXPECT_FALSE(resolve(nullptr, result6));
    EXPECT_FALSE(resolve("", result6));
    EXPECT_THAT(seam.calls(), IsEmpty());
}

TEST(GetHostByName, NothingIsWrittenPastTheLengthOfTheResult) {
    sockaddr_in6 result;
    std::memset(&result, 0xAB, sizeof result);
    CResolverHold resolver;
    auto* const raw = reinterpret_cast<sockaddr*>(&result);
    EXPECT_FALSE(resolver.GetAddressInfo("::1", AF_INET6, raw, sizeof(sockaddr_in), limit_ms));
    EXPECT_FALSE(resolver.GetAddressInfo("127.0.0.1", AF_INET, raw, 15, limit_ms));
    EXPECT_FALSE(resolver.GetAddressInfo("127.0.0.1", AF_INET, raw, -1, limit_ms));
    EXPECT_FALSE(resolver.GetAddressInfo("127.0.0.1", AF_INET, nullptr, 16, limit_ms));
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&result);
    EXPECT_EQ(std::count(bytes, bytes + sizeof result, 0xAB), static_cast<long>(sizeof result));
}

TEST(GetHostByName, UsersShareOneInstanceAndTheLastTakesItAlong) {
    CGetHostByName* const first = CGetHostByName::instance();
    const std::size_t made = Testing::allocationCount();
    EXPECT_EQ(CGetHostByName::instance(), first);
    CGetHostByName::release();
    EXPECT_EQ(CGetHostByName::instance(), first);
    EXPECT_EQ(Testing::allocationCount(), made);
    CGetHostByName::release();
    CGetHostByName::release();
    EXPECT_NE(nullptr, CGetHostByName::instance());
    EXPECT_EQ(Testing::allocationCount(), made + 1) << "a new object after the last release";
    CGetHostByName::release();
    CGetHostByName::release();  // One too many does nothing.
    EXPECT_NE(nullptr, CGetHostByName::instance());
    CGetHostByName::release();
}

TEST(GetHostByName, WithoutMemoryThereIsNoInstanceAndNoUse) {
    {
        const Testing::NoMemory no_memory;
        EXPECT_EQ(nullptr, CGetHostByName::instance());
    }
    const std::size_t before = Testing::allocationCount();
    EXPECT_NE(nullptr, CGetHostByName::instance());
    EXPECT_EQ(Testing::allocationCount(), before + 1);
    CGetHostByName::release();
}

TEST(GetHostByName, ManyThreadsResolveAtOnce) {
    ResolverSeam seam;
    seam.answer("camera.test", AF_INET, "10.9.8.7", AF_INET);
    std::vector<std::thread> threads;
    std::vector<int> resolved(4, 0);
    for (int& count : resolved) {
        threads.emplace_back([&count] {
            for (int i = 0; i < 200; ++i) {
                sockaddr_in result{};
                count +=
                    resolve("camera.test", result) && ntohl(result.sin_addr.s_addr) == 0x0A090807u ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(resolved, ElementsAre(200, 200, 200, 200));
}

}  // namespace
}  // namespace Orvex::Reticor
