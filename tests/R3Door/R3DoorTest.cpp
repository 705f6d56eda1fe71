// The debug server's door as the build option opens it.
#include <gtest/gtest.h>

#include <string>

#include <Reticor/NetThread.h>
#include <Reticor/R3.h>

#include "support/LogCapture.h"
#include "support/debug/DebugServerFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr int PORT = 42323;

class R3Door : public DebugServerFixture {};

TEST_F(R3Door, StartOpensThePort) {
    EXPECT_EQ(0, R3ServerStart(freePort(), "door", false));
    port = g_r3_daemon->Port();
    TcpClient client = greeted(NEGOTIATION + BANNER + "door>");
    R3Printf("printed\n");
    converse(client, "", "printed\r\n");
    EXPECT_EQ(0, R3ServerExit());
    EXPECT_EQ("", client.receiveAll());
}

TEST_F(R3Door, EnableR3OpensItsPortOrOneAbove) {
    LogCapture log;
    ASSERT_EQ(0, CNetThread::EnableR3());
    port = g_r3_daemon->Port();
    EXPECT_GE(port, PORT);
    EXPECT_LE(port, PORT + 100);
    EXPECT_TRUE(log.contains(4, "R3Server Start @port[" + std::to_string(port) + "]\n")) << log.dump();
    TcpClient client = greeted();
    expectPrompt(client);
    EXPECT_EQ(0, CNetThread::DisableR3());
    EXPECT_EQ(nullptr, g_r3_daemon);
}

TEST_F(R3Door, LastHolderEndsTheServer) {
    ASSERT_EQ(0, CNetThread::EnableR3());
    ASSERT_EQ(0, CNetThread::EnableR3());
    port = g_r3_daemon->Port();
    EXPECT_EQ(0, CNetThread::DisableR3());
    TcpClient client = greeted();
    expectPrompt(client);
    EXPECT_EQ(0, CNetThread::DisableR3());
    EXPECT_EQ("", client.receiveAll());
    EXPECT_EQ(0, CNetThread::DisableR3()) << "one too many";
    EXPECT_EQ(0, CNetThread::EnableR3());
    EXPECT_EQ(nullptr, g_r3_daemon) << "it was taken away in advance";
    ASSERT_EQ(0, CNetThread::EnableR3());
    ASSERT_NE(nullptr, g_r3_daemon) << "and the server is there again";
    port = g_r3_daemon->Port();
    greeted();
    EXPECT_EQ(0, CNetThread::DisableR3());
}

TEST_F(R3Door, StartThatFailsIsNotCounted) {
    ASSERT_EQ(0, R3ServerStart(freePort(), nullptr, true));
    LogCapture log;
    EXPECT_EQ(-1, CNetThread::EnableR3()) << "it runs already";
    EXPECT_EQ(1u, log.count(2, "R3ServerStart failed!!\n\n")) << log.dump();
    EXPECT_EQ(0, CNetThread::DisableR3());
    EXPECT_NE(nullptr, g_r3_daemon) << "not this caller's to end";
    EXPECT_EQ(0, R3ServerExit());
}

}  // namespace
}  // namespace Orvex::Testing
