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
    EXPECT_EQ(log.count(3, LINE), 1u);
    EXPECT_EQ(stream->Send("x", 1), -1);
    EXPECT_EQ(log.count(3, LINE), 2u);
    char byte = 0;
    EXPECT_EQ(stream->Recv(&byte, 1), -1);
    EXPECT_EQ(stream->WriteV(nullptr, 0), -1);
    EXPECT_EQ(stream->Send_n("x", 1, 1000), -1);
    EXPECT_EQ(stream->Recv_n(&byte, 1, 1000), -1);
    EXPECT_EQ(stream->SetPemPath("/nowhere"), -1);
    EXPECT_EQ(stream->Connect(CSockAddrIPv4("127.0.0.1", 1), nullptr), -1);
    EXPECT_EQ(stream->Connect(nullptr), -1);
    EXPECT_EQ(log.count(3, LINE), 9u) << log.dump();
    EXPECT_EQ(log.lines().size(), 9u);
    const Testing::CapturedLine line = log.lines()[1];
    EXPECT_EQ(line.function, "Orvex::Reticor::CSslStream::Send");
    EXPECT_NE(line.start.find("SslStream.cpp:"), std::string::npos);
    EXPECT_NE(line.start.find("] this:0x"), std::string::npos);
}

TEST(SslStream, LooksAtNoArgument) {
    CSslStream stream;
    EXPECT_EQ(stream.Send(nullptr, 1), -1);
    EXPECT_EQ(stream.Recv(nullptr, 1), -1);
    EXPECT_EQ(stream.SetPemPath(nullptr), -1);
}

TEST(SslStream, IsOfItsOwnTypeAndHoldsNoHandle) {
    const CSslStream stream;
    EXPECT_EQ(stream.GetType(), 3u);
    EXPECT_EQ(stream.GetHandle(), -1);
}

TEST(SslAcceptor, EveryOperationSaysThatThereIsNoTls) {
    const LogCapture log;
    CSslAcceptor acceptor;
    CSslStream stream;
    EXPECT_EQ(log.count(3, LINE), 2u);
    EXPECT_EQ(acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)), -1);
    EXPECT_EQ(acceptor.Accept(nullptr), nullptr) << "null and not -1";
    EXPECT_EQ(acceptor.Accept(stream, nullptr), -1);
    EXPECT_EQ(acceptor.SetPemPath("/nowhere"), -1);
    EXPECT_EQ(log.count(3, LINE), 6u);
    EXPECT_EQ(log.lines().size(), 6u);
}

TEST(SslAcceptor, IsOfTheTypeOfAcceptorsAndHoldsNoHandle) {
    const CSslAcceptor acceptor;
    EXPECT_EQ(acceptor.GetType(), 6u);
    EXPECT_EQ(acceptor.GetHandle(), -1);
}

}  // namespace
}  // namespace Orvex::Reticor
