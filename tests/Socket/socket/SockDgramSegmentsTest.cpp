// CSockDgram::SendSegments: what is cut where, by the kernel and without it, and what comes of errors.
#include <netinet/in.h>
#include <sys/socket.h>

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
#include "support/SeededRandom.h"
#include "support/socket/Loopback.h"
#include "support/socket/SystemSeam.h"
#include "support/socket/UnknownAddr.h"

namespace Orvex::Reticor {
namespace {

using ::testing::ElementsAre;
using Testing::FailNext;
using Testing::LogCapture;
using Testing::LOOPBACK_IP;
using Testing::pattern;
using Testing::SystemCall;
using Testing::texts;

using Lengths = std::vector<size_t>;

class SockDgramSegments : public ::testing::Test {
protected:
    SockDgramSegments() {
        const CSockAddrIPv4 any("127.0.0.1", 0);
        EXPECT_EQ(0, receiver.Open(&any));
        receiver.SetSockRecvBuf(4 << 20);
        EXPECT_EQ(0, receiver.GetLocalAddr(&to));
        EXPECT_EQ(0, sock.Open(nullptr));
    }

    // What loopback has brought, which it does before a send returns.
    std::vector<std::string> received() {
        std::vector<std::string> found;
        std::string bytes(70000, '\0');
        int count = 0;
        while ((count = receiver.Recv(bytes.data(), static_cast<unsigned>(bytes.size()), nullptr)) > 0) {
            found.push_back(bytes.substr(0, static_cast<size_t>(count)));
        }
        return found;
    }
    static Lengths lengths(const std::vector<std::string>& datagrams) {
        Lengths found;
        for (const std::string& one : datagrams) {
            found.push_back(one.size());
        }
        return found;
    }
    static std::string joined(const std::vector<std::string>& datagrams) {
        std::string all;
        for (const std::string& one : datagrams) {
            all += one;
        }
        return all;
    }
    // The text in pieces of these lengths; the last one holds the rest.
    static std::vector<iovec> pieces(const std::string& text, const Lengths& cuts) {
        std::vector<iovec> found;
        size_t at = 0;
        for (const size_t length : cuts) {
            found.push_back({const_cast<char*>(text.data()) + at, length});
            at += length;
        }
        found.push_back({const_cast<char*>(text.data()) + at, text.size() - at});
        return found;
    }
    int send(const std::string& text, unsigned segment, const Lengths& cuts = {}) {
        const std::vector<iovec> list = pieces(text, cuts);
        return sock.SendSegments(list.data(), static_cast<int>(list.size()), segment, &to);
    }

    CSockDgram receiver;
    CSockDgram sock;
    CSockAddrStorage to;
};

TEST_F(SockDgramSegments, AllHaveOneSizeButTheLast) {
    const std::string text = pattern(1030);
    EXPECT_EQ(1030, send(text, 250));
    const std::vector<std::string> found = received();
    EXPECT_EQ((Lengths{250, 250, 250, 250, 30}), lengths(found));
    EXPECT_EQ(text, joined(found));
}

TEST_F(SockDgramSegments, PiecesMayEndAnywhere) {
    const std::string text = pattern(1000);
    EXPECT_EQ(1000, send(text, 100, {1, 0, 98, 2, 350, 49, 400}));
    const std::vector<std::string> found = received();
    EXPECT_EQ(Lengths(10, 100), lengths(found));
    EXPECT_EQ(text, joined(found));
}

TEST_F(SockDgramSegments, WhatFitsIntoOneIsOne) {
    EXPECT_EQ(100, send(pattern(100), 100, {40}));
    EXPECT_EQ(99, send(pattern(99), 100));
    EXPECT_EQ((Lengths{100, 99}), lengths(received()));
}

TEST_F(SockDgramSegments, OneCallTakesSixtyFour) {
    const std::string text = pattern(6401);
    EXPECT_EQ(6400, send(text, 100));
    EXPECT_EQ(Lengths(64, 100), lengths(received()));
}

TEST_F(SockDgramSegments, OneCallTakesWholeDatagramsOfSixtyFiveThousandBytes) {
    const std::string text = pattern(200000);
    EXPECT_EQ(63000, send(text, 9000));
    EXPECT_EQ(Lengths(7, 9000), lengths(received()));
    EXPECT_EQ(65507, send(text, 65507)) << "a datagram may be longer";
    EXPECT_EQ(text.substr(0, 65507), joined(received()));
}

TEST_F(SockDgramSegments, ALongListGivesWholeDatagramsOrItsEndIsCopied) {
    const std::string text = pattern(3000);
    const Lengths ones(2999, 1);
    EXPECT_EQ(1000, send(text, 500, ones)) << "two of five hundred pieces each";
    EXPECT_EQ(text.substr(0, 1000), joined(received()));
    EXPECT_EQ(1500, send(text, 1500, ones)) << "more pieces than the kernel takes";
    EXPECT_EQ(std::vector<std::string>{text.substr(0, 1500)}, received());
    EXPECT_EQ(3000, send(text, 4000, ones));
    EXPECT_EQ(std::vector<std::string>{text}, received());
}

TEST_F(SockDgramSegments, SixthVersionToo) {
    const CSockAddrIPv6 any("::1", 0);
    ASSERT_EQ(0, receiver.Open(&any));
    ASSERT_EQ(0, receiver.GetLocalAddr(&to));
    ASSERT_EQ(0, sock.Open(&any));
    EXPECT_EQ(250, send(pattern(250), 100));
    EXPECT_EQ((Lengths{100, 100, 50}), lengths(received()));
}

TEST_F(SockDgramSegments, GoToThePeerThatWasSet) {
    const std::string text = pattern(250);
    const std::vector<iovec> list = pieces(text, {});
    {
        LogCapture log(2);
        EXPECT_EQ(-1, sock.SendSegments(list.data(), 1, 100, nullptr));
        EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockDgram::SendSegments : send to failed! "
                                            "remote is null \n"));
    }
    ASSERT_EQ(0, sock.SetRemote(&to));
    EXPECT_EQ(250, sock.SendSegments(list.data(), 1, 100, nullptr));
    EXPECT_EQ(text, joined(received()));

    // A broadcast address is not connected to, and the one before stays so.
    const CSockAddrIPv4 broadcast("127.0.0.255", to.GetPort());
    ASSERT_EQ(0, sock.SetRemote(&broadcast));
    sock.SendSegments(list.data(), 1, 100, nullptr);
    EXPECT_TRUE(received().empty()) << "it is not meant";
}

// A device that cannot cut.
TEST_F(SockDgramSegments, WhatTheKernelDoesNotCutGoesAsAListFromThenOn) {
    const std::string text = pattern(6300);
    {
        const FailNext cannot(SystemCall::sendmsg, EIO);
        EXPECT_EQ(6300, send(text, 100));
    }
    EXPECT_EQ(Lengths(63, 100), lengths(received()));
    {
        const FailNext not_asked(SystemCall::sendmsg, ENETDOWN);
        EXPECT_EQ(6300, send(text, 100, {50, 1000}));
    }
    EXPECT_EQ(text, joined(received()));
    EXPECT_EQ(300, send(text.substr(0, 300), 100));
    EXPECT_EQ(300, send(text.substr(0, 300), 100));
    EXPECT_EQ(Lengths(6, 100), lengths(received())) << "and no empty one between them";
    ASSERT_EQ(0, sock.Open(nullptr));
    const FailNext asked(SystemCall::sendmsg, ENETDOWN);
    EXPECT_EQ(-1, send(text, 100)) << "a socket that is opened anew may be another one";
}

TEST_F(SockDgramSegments, ErrorsThatHaveNothingToDoWithCuttingAreTold) {
    LogCapture log(2);
    const FailNext fails(SystemCall::sendmsg, ENETDOWN);
    EXPECT_EQ(-1, send(pattern(300), 100));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::SendSegments : send failed! Network is down\n"));
    EXPECT_EQ(300, send(pattern(300), 100));
}

TEST_F(SockDgramSegments, AFullSocketGivesZero) {
    {
        const FailNext full(SystemCall::sendmsg, EWOULDBLOCK);
        EXPECT_EQ(0, send(pattern(300), 100));
    }
    EXPECT_TRUE(received().empty());
}

// The kernel tells of a refusal once, and a list call that has sent some forgets it.
TEST_F(SockDgramSegments, ARefusalIsFoundAlsoInTheMiddleOfAList) {
    CSockDgram holder;
    const CSockAddrIPv4 nobody(LOOPBACK_IP, Testing::refusingPort(holder));
    ASSERT_EQ(0, sock.SetRemote(&nobody));
    const std::string text = pattern(1000);
    const std::vector<iovec> list = pieces(text, {});
    const FailNext cannot(SystemCall::sendmsg, EIO);
    LogCapture log(2);
    EXPECT_EQ(-1, sock.SendSegments(list.data(), 1, 100, nullptr));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_EQ(1U, log.lines().size());
}

TEST_F(SockDgramSegments, WhatCannotBeMeantIsRefused) {
    const std::string text = pattern(10);
    const iovec piece = {const_cast<char*>(text.data()), text.size()};
    const iovec none = {nullptr, 0};
    LogCapture log(2);
    EXPECT_EQ(-1, sock.SendSegments(nullptr, 1, 100, &to));
    EXPECT_EQ(-1, sock.SendSegments(&piece, 0, 100, &to));
    EXPECT_EQ(-1, sock.SendSegments(&piece, -1, 100, &to));
    EXPECT_EQ(-1, sock.SendSegments(&none, 1, 100, &to));
    EXPECT_EQ(-1, sock.SendSegments(&piece, 1, 0, &to));
    EXPECT_EQ(-1, sock.SendSegments(&piece, 1, 65528, &to));
    const CSockAddrStorage invalid;
    EXPECT_EQ(-1, sock.SendSegments(&piece, 1, 100, &invalid));
    EXPECT_EQ(7U, log.lines().size());
    sock.Close();
    EXPECT_EQ(-1, sock.SendSegments(&piece, 1, 100, &to));
    EXPECT_EQ(EBADF, errno);
    EXPECT_TRUE(received().empty());
}

// Any pieces and sizes: what arrives is what was told to have gone, in datagrams of the size.
TEST_F(SockDgramSegments, AnyListArrivesInItsOrder) {
    Testing::SeededRandom random;
    const std::string text = pattern(60000);
    for (int round = 0; round < 300; ++round) {
        const size_t length = random.between<size_t>(1, 30000);
        const auto segment = random.between(1U, 3000U);
        Lengths cuts;
        for (size_t at = 0; at < length;) {
            const size_t cut = std::min<size_t>(random.between<size_t>(0, 4000), length - at);
            cuts.push_back(cut);
            at += cut;
        }
        const int sent = send(text.substr(0, length), segment, cuts);
        ASSERT_GT(sent, 0);
        const std::vector<std::string> found = received();
        ASSERT_EQ(text.substr(0, static_cast<size_t>(sent)), joined(found));
        ASSERT_LE(found.size(), 64U);
        for (size_t i = 0; i < found.size(); ++i) {
            const bool last = i + 1 == found.size() && static_cast<size_t>(sent) == length;
            ASSERT_TRUE(found[i].size() == segment || (last && found[i].size() < segment));
        }
        if (static_cast<size_t>(sent) < length) {
            EXPECT_TRUE(found.size() == 64 || (found.size() + 1) * segment > 65000);
        }
    }
}

}  // namespace
}  // namespace Orvex::Reticor
