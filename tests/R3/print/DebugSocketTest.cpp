// CDebugSocket: which steps of a socket event are traced for which flags.
#include "R3/print/DebugSocket.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using Flags = Orvex::Reticor::CDebugSocket;

constexpr int64_t SOCKET = 17;
constexpr int64_t HANDLER = -6553600;

/// Sets the four classes from the bits of `classes`: 1 all, 2 read, 4 write, 8 exception.
void setClasses(int classes) {
    Flags::socket_all = (classes & 1) != 0;
    Flags::socket_read = (classes & 2) != 0;
    Flags::socket_write = (classes & 4) != 0;
    Flags::socket_exception = (classes & 8) != 0;
}

TEST(DebugSocket, FlagsHaveTheirFirstValues) {
    EXPECT_FALSE(Flags::socket_all);
    EXPECT_FALSE(Flags::socket_read);
    EXPECT_FALSE(Flags::socket_write);
    EXPECT_FALSE(Flags::socket_exception);
    EXPECT_FALSE(Flags::socket_fd);
    EXPECT_EQ(-1, Flags::socket_fd_num);
    EXPECT_FALSE(Flags::socket_nethandler);
    EXPECT_EQ(0, Flags::socket_nethandler_num);
    EXPECT_TRUE(Flags::socket_off);
    EXPECT_FALSE(Flags::socket_dendity);
    EXPECT_TRUE((std::is_same_v<decltype(Flags::socket_fd_num), std::atomic<int64_t>>));
    EXPECT_TRUE((std::is_same_v<decltype(Flags::socket_nethandler_num), std::atomic<int64_t>>));
}

TEST(DebugSocket, NothingIsTracedAtFirst) {
    EXPECT_FALSE(Flags::passes_type(7));
    EXPECT_FALSE(Flags::passes_revents(0x30D));
    EXPECT_FALSE(Flags::passes_density());
    EXPECT_FALSE(Flags::matches(SOCKET, HANDLER));
}

TEST(DebugSocket, RequestsPassByTheDirectionsTheyName) {
    setClasses(2);
    EXPECT_TRUE(Flags::passes_type(1));
    EXPECT_TRUE(Flags::passes_type(3));
    EXPECT_FALSE(Flags::passes_type(2));
    EXPECT_FALSE(Flags::passes_type(4));
    setClasses(4);
    EXPECT_TRUE(Flags::passes_type(2));
    EXPECT_FALSE(Flags::passes_type(1));
    EXPECT_FALSE(Flags::passes_type(4));
    for (const int any : {1, 8}) {
        setClasses(any);
        for (unsigned int type = 0; type < 8; ++type) {
            EXPECT_TRUE(Flags::passes_type(type)) << "all and exception let every request pass";
        }
    }
}

TEST(DebugSocket, DeliveriesPassByWhatIsReady) {
    setClasses(2);
    for (const int revents : {1, 0x100, 0x105}) {
        EXPECT_TRUE(Flags::passes_revents(revents));
    }
    for (const int revents : {0, 4, 0x200, 8, 0x400}) {
        EXPECT_FALSE(Flags::passes_revents(revents));
    }
    setClasses(4);
    for (const int revents : {4, 0x200, 5}) {
        EXPECT_TRUE(Flags::passes_revents(revents));
    }
    for (const int revents : {0, 1, 0x100, 8, 0x400}) {
        EXPECT_FALSE(Flags::passes_revents(revents));
    }
    setClasses(8);
    EXPECT_TRUE(Flags::passes_revents(8));
    EXPECT_FALSE(Flags::passes_revents(0x705));
    setClasses(1);
    EXPECT_TRUE(Flags::passes_revents(0));
    EXPECT_TRUE(Flags::passes_revents(0x400));
}

TEST(DebugSocket, DenseSitesPrintOnDemandOnly) {
    EXPECT_FALSE(Flags::passes_density());
    Flags::socket_dendity = true;
    EXPECT_TRUE(Flags::passes_density());
}

TEST(DebugSocket, WithoutAFilterAnyClassMatchesEverySocket) {
    for (int classes = 0; classes < 16; ++classes) {
        setClasses(classes);
        EXPECT_EQ(Flags::matches(SOCKET, HANDLER), classes != 0) << classes;
    }
}

TEST(DebugSocket, FilterMatchesEitherNumberAndStillWantsAClass) {
    Flags::socket_fd = true;
    Flags::socket_fd_num = SOCKET;
    EXPECT_FALSE(Flags::matches(SOCKET, HANDLER)) << "no class is on";
    setClasses(4);
    EXPECT_TRUE(Flags::matches(SOCKET, HANDLER));
    EXPECT_FALSE(Flags::matches(SOCKET + 1, HANDLER));
    Flags::socket_nethandler_num = HANDLER;
    EXPECT_TRUE(Flags::matches(SOCKET + 1, HANDLER)) << "the number counts while either filter is on";
    Flags::socket_fd = false;
    Flags::socket_nethandler = true;
    EXPECT_TRUE(Flags::matches(SOCKET, HANDLER + 1));
    EXPECT_TRUE(Flags::matches(SOCKET + 1, HANDLER));
    EXPECT_FALSE(Flags::matches(SOCKET + 1, HANDLER + 1));
}

TEST(DebugSocket, NothingMatchesWhileTheMasterEnableIsFalse) {
    setClasses(15);
    Flags::socket_off = false;
    EXPECT_FALSE(Flags::matches(SOCKET, HANDLER));
    Flags::socket_fd = true;
    Flags::socket_fd_num = SOCKET;
    EXPECT_FALSE(Flags::matches(SOCKET, HANDLER));
}

}  // namespace
