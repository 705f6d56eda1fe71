// CSslStream and CSslAcceptor where there is no TLS: every operation says so and fails.
#include <Reticor/SslStream.h>

#include <gtest/gtest.h>

#include <memory>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockStream.h>
#include <Reticor/SslAcceptor.h>

#include "support/LogCapture.h"

namespace Orvex::Reticor {
namespace {

using Testing::LogCapture;

constexpr char LINE[] = "The Reticor version is not support ssl!\n";

TEST(SslStream, ConstructorWritesTheLineAndSoDoesEachOperation) {
    const LogCapture log;
    const auto stream = std::make_unique<CSslStream>();
    EXPECT_EQ(1u, log.count(3, LINE));
    EXPECT_EQ(-1, stream->Send("x", 1));
    EXPECT_EQ(2u, log.count(3, LINE));
    char byte = 0;
    EXPECT_EQ(-1, stream->Recv(&byte, 1));
    EXPECT_EQ(-1, stream->WriteV(nullptr, 0));
    EXPECT_EQ(-1, stream->Send_n("x", 1, 1000));
    EXPECT_EQ(-1, stream->Recv_n(&byte, 1, 1000));
    EXPECT_EQ(-1, stream->SetPemPath("/nowhere"));
    EXPECT_EQ(-1, stream->Connect(CSockAddrIPv4("127.0.0.1", 1), nullptr));
    EXPECT_EQ(-1, stream->Connect(nullptr));
    EXPECT_EQ(9u, log.count(3, LINE)) << log.dump();
    EXPECT_EQ(9u, log.lines().size());
    const Testing::CapturedLine line = log.lines()[1];
    EXPECT_EQ("Orvex::Reticor::CSslStream::Send", line.function);
    EXPECT_NE(line.start.find("SslStream.cpp:"), std::string::npos);
    EXPECT_NE(line.start.find("] this:0x"), std::string::npos);
}

TEST(SslStream, LooksAtNoArgument) {
    CSslStream stream;
    EXPECT_EQ(-1, stream.Send(nullptr, 1));
    EXPECT_EQ(-1, stream.Recv(nullptr, 1));
    EXPECT_EQ(-1, stream.SetPemPath(nullptr));
}

TEST(SslStream, IsOfItsOwnTypeAndHoldsNoHandle) {
    const CSslStream stream;
    EXPECT_EQ(3u, stream.GetType());
    EXPECT_EQ(-1, stream.GetHandle());
}

TEST(SslAcceptor, EveryOperationSaysThatThereIsNoTls) {
    const LogCapture log;
    CSslAcceptor acceptor;
    CSslStream stream;
    EXPECT_EQ(2u, log.count(3, LINE));
    EXPECT_EQ(-1, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    EXPECT_EQ(nullptr, acceptor.Accept(nullptr)) << "null and not -1";
    EXPECT_EQ(-1, acceptor.Accept(stream, nullptr));
    EXPECT_EQ(-1, acceptor.SetPemPath("/nowhere"));
    EXPECT_EQ(6u, log.count(3, LINE));
    EXPECT_EQ(6u, log.lines().size());
}

TEST(SslAcceptor, IsOfTheTypeOfAcceptorsAndHoldsNoHandle) {
    const CSslAcceptor acceptor;
    EXPECT_EQ(6u, acceptor.GetType());
    EXPECT_EQ(-1, acceptor.GetHandle());
}

}  // namespace
}  // namespace Orvex::Reticor
