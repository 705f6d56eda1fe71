// CSockDgram::SendMany, RecvMany and SetJoinReceived: several datagrams with one call.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>

#include "support/LogCapture.h"
#include "support/socket/Loopback.h"
#include "support/socket/SystemSeam.h"
#include "support/socket/UnknownAddr.h"

namespace Orvex::Reticor {
namespace {

using Testing::CUnknownAddr;
using ::testing::ElementsAre;
using Testing::FailNext;
using Testing::LogCapture;
using Testing::LOOPBACK_IP;
using Testing::pattern;
using Testing::SystemCall;
using Testing::texts;

// Entries with buffers of their own.
struct Entries {
    Entries(size_t count, unsigned size) : buffers(count, std::string(size, '\0')), list(count) {
        for (size_t i = 0; i < count; ++i) {
            list[i].buf = buffers[i].data();
            list[i].size = size;
        }
    }
    int receive(CSockDgram& sock) { return sock.RecvMany(list.data(), static_cast<int>(list.size())); }
    std::string bytes(size_t index) const { return {list[index].buf, list[index].length}; }

    std::vector<std::string> buffers;
    std::vector<SockReceived> list;
};

class SockDgramMany : public ::testing::Test {
protected:
    SockDgramMany() {
        const CSockAddrIPv4 any("127.0.0.1", 0);
        EXPECT_EQ(0, receiver.Open(&any));
        receiver.SetSockRecvBuf(1 << 20);
        EXPECT_EQ(0, receiver.GetLocalAddr(&to));
        EXPECT_EQ(0, sock.Open(&any));
        EXPECT_EQ(0, sock.GetLocalAddr(&own));
    }
    int send(const std::vector<std::string>& datagrams) {
        std::vector<iovec> list;
        for (const std::string& one : datagrams) {
            list.push_back({const_cast<char*>(one.data()), one.size()});
        }
        return sock.SendMany(list.data(), static_cast<int>(list.size()), &to);
    }

    CSockDgram receiver;
    CSockDgram sock;
    CSockAddrStorage to;
    CSockAddrStorage own;
};

TEST_F(SockDgramMany, EachEntryIsADatagram) {
    EXPECT_EQ(3, send({"one", pattern(2000), "three"}));
    Entries entries(5, 3000);
    ASSERT_EQ(3, entries.receive(receiver));
    EXPECT_EQ("one", entries.bytes(0));
    EXPECT_EQ(pattern(2000), entries.bytes(1));
    EXPECT_EQ("three", entries.bytes(2));
    EXPECT_EQ(2000U, entries.list[1].segment);
    EXPECT_FALSE(entries.list[1].truncated);
    EXPECT_EQ(0, entries.receive(receiver)) << "nothing waits";
}

TEST_F(SockDgramMany, OneCallTakesSixtyFour) {
    EXPECT_EQ(64, send(std::vector<std::string>(70, "x")));
    EXPECT_EQ(6, send(std::vector<std::string>(6, "y")));
    Entries entries(100, 10);
    EXPECT_EQ(64, entries.receive(receiver));
    EXPECT_EQ(6, entries.receive(receiver));
    EXPECT_EQ("y", entries.bytes(0));
}

TEST_F(SockDgramMany, OnlyAsManyAsThereAreEntries) {
    EXPECT_EQ(3, send({"a", "b", "c"}));
    Entries entries(2, 10);
    EXPECT_EQ(2, entries.receive(receiver));
    EXPECT_EQ("b", entries.bytes(1));
    EXPECT_EQ(1, entries.receive(receiver));
    EXPECT_EQ("c", entries.bytes(0));
}

TEST_F(SockDgramMany, SendersAreTold) {
    CSockDgram other;
    const CSockAddrIPv4 any("127.0.0.1", 0);
    CSockAddrStorage others;
    ASSERT_EQ(0, other.Open(&any));
    ASSERT_EQ(0, other.GetLocalAddr(&others));
    EXPECT_EQ(1, send({"first"}));
    EXPECT_EQ(3, other.Send("two", 3, &to));
    Entries entries(2, 10);
    CSockAddrIPv4 ipv4;
    CSockAddrStorage storage;
    entries.list[0].remote = &ipv4;
    entries.list[1].remote = &storage;
    ASSERT_EQ(2, entries.receive(receiver));
    EXPECT_EQ(own.GetPort(), ipv4.GetPort());
    EXPECT_EQ(others.GetPort(), storage.GetPort());
}

TEST_F(SockDgramMany, AnAddressOfTheSixthVersionThatDoesNotFitKeepsTheEntry) {
    const CSockAddrIPv6 any("::1", 0);
    ASSERT_EQ(0, receiver.Open(&any));
    ASSERT_EQ(0, receiver.GetLocalAddr(&to));
    ASSERT_EQ(0, sock.Open(&any));
    EXPECT_EQ(1, send({"six"}));
    Entries entries(1, 10);
    CSockAddrIPv4 small(LOOPBACK_IP, 5);
    entries.list[0].remote = &small;
    LogCapture log(2);
    EXPECT_EQ(1, entries.receive(receiver));
    EXPECT_EQ("six", entries.bytes(0));
    EXPECT_EQ(5, small.GetPort());
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockDgram::RecvMany : a ipv6 address can not put "
                                        "into CSockAddrIPv4!\n"));
}

TEST_F(SockDgramMany, WhatIsLongerThanTheBufferSaysSo) {
    EXPECT_EQ(2, send({pattern(100), "x"}));
    Entries entries(2, 60);
    ASSERT_EQ(2, entries.receive(receiver));
    EXPECT_EQ(pattern(100).substr(0, 60), entries.bytes(0));
    EXPECT_TRUE(entries.list[0].truncated);
    EXPECT_FALSE(entries.list[1].truncated);
}

TEST_F(SockDgramMany, DatagramsOfOneLengthMayComeAsOne) {
    ASSERT_EQ(0, receiver.SetJoinReceived(true));
    const std::string text = pattern(1050);
    const iovec piece = {const_cast<char*>(text.data()), text.size()};
    EXPECT_EQ(1050, sock.SendSegments(&piece, 1, 100, &to));
    EXPECT_EQ(1, send({"alone"}));
    Entries entries(20, 65535);
    std::string all;
    bool alone = false;
    for (int taken = entries.receive(receiver); taken > 0; taken = entries.receive(receiver)) {
        for (size_t i = 0; i < static_cast<size_t>(taken); ++i) {
            alone = entries.bytes(i) == "alone";
            all += alone ? "" : entries.bytes(i);
            EXPECT_EQ(alone ? 5U : std::min(entries.list[i].length, 100U), entries.list[i].segment);
        }
    }
    EXPECT_EQ(text, all);
    EXPECT_TRUE(alone);

    ASSERT_EQ(0, receiver.SetJoinReceived(false));
    EXPECT_EQ(1050, sock.SendSegments(&piece, 1, 100, &to));
    EXPECT_EQ(11, entries.receive(receiver));
    EXPECT_EQ(100U, entries.list[0].length);
}

TEST_F(SockDgramMany, InBlockingModeTheFirstOneAloneIsWaitedFor) {
    receiver.SetBlockOpt(true);
    ASSERT_FALSE(Testing::isNonBlocking(receiver.GetHandle()));
    EXPECT_EQ(2, send({"a", "b"}));
    Entries entries(5, 10);
    EXPECT_EQ(2, entries.receive(receiver));
}

TEST_F(SockDgramMany, ARefusalIsFoundAlsoInTheMiddle) {
    CSockDgram holder;
    const CSockAddrIPv4 nobody(LOOPBACK_IP, Testing::refusingPort(holder));
    ASSERT_EQ(0, sock.SetRemote(&nobody));
    const std::vector<iovec> list(10, {const_cast<char*>("x"), 1});
    LogCapture log(2);
    EXPECT_EQ(-1, sock.SendMany(list.data(), 10, nullptr));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_EQ(1U, log.lines().size());
}

TEST_F(SockDgramMany, WhatCannotBeMeantIsRefused) {
    const iovec one = {const_cast<char*>("x"), 1};
    const iovec with_empty[] = {one, {nullptr, 0}};
    Entries entries(1, 10);
    LogCapture log(2);
    EXPECT_EQ(-1, sock.SendMany(nullptr, 1, &to));
    EXPECT_EQ(-1, sock.SendMany(&one, 0, &to));
    EXPECT_EQ(-1, sock.SendMany(with_empty, 2, &to));
    EXPECT_EQ(-1, sock.SendMany(&one, 1, nullptr)) << "no peer";
    EXPECT_EQ(-1, receiver.RecvMany(nullptr, 1));
    EXPECT_EQ(-1, receiver.RecvMany(entries.list.data(), 0));
    entries.list[0].size = 0;
    EXPECT_EQ(-1, entries.receive(receiver));
    entries.list[0].size = 10;
    CUnknownAddr unknown;
    entries.list[0].remote = &unknown;
    EXPECT_EQ(-1, entries.receive(receiver));
    EXPECT_EQ(8U, log.lines().size());
}

TEST_F(SockDgramMany, AClosedSocketSaysWhy) {
    receiver.Close();
    Entries entries(1, 10);
    LogCapture log(2);
    EXPECT_EQ(-1, entries.receive(receiver));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, receiver.SetJoinReceived(true));
    EXPECT_EQ(EBADF, errno);
    sock.Close();
    EXPECT_EQ(-1, send({"x"}));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(3U, log.lines().size());
}

}  // namespace
}  // namespace Orvex::Reticor
