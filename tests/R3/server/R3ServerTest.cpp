// The debug server as a whole: its start, its end, and prints beside both.
#include "R3/server/R3Server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <Reticor/NetThread.h>
#include <Reticor/R3.h>

#include "R3/print/FuncBox.h"
#include "support/LogCapture.h"
#include "support/debug/DebugServerFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class R3Server : public DebugServerFixture {};

#if !RETICOR_R3_SERVER

TEST_F(R3Server, IsSwitchedOff) {
    for (const bool open : {true, false}) {
        LogCapture log;
        EXPECT_EQ(-1, R3ServerStart(freePort(), "name", open));
        EXPECT_EQ(-1, R3ServerStart(0, nullptr, open));
        ASSERT_EQ(2u, log.lines().size()) << log.dump();
        EXPECT_EQ("R3 has been disable.\n", log.lines()[0].full);
        EXPECT_EQ(2u, log.count(4, "R3 has been disable.\n"));
        EXPECT_EQ(nullptr, g_r3_daemon);
        EXPECT_EQ(0, openHandlers());
    }
}

TEST_F(R3Server, EnablingItFailsWhileItIsSwitchedOff) {
    LogCapture log;
    EXPECT_EQ(-1, CNetThread::EnableR3());
    EXPECT_EQ(1u, log.count(4, "R3 has been disable.\n")) << log.dump();
    EXPECT_EQ(1u, log.count(2, "R3ServerStart failed!!\n\n")) << log.dump();
}

#else

TEST_F(R3Server, IsSwitchedOn) {
    ASSERT_EQ(0, R3ServerStart(freePort(), "name", true));
    port = g_r3_daemon->Port();
    greeted(NEGOTIATION + BANNER + "name>");
}

#endif

// A disabling that nothing was enabled for must not make the next enabling believe that there is a server.
TEST_F(R3Server, DisablingWithoutEnablingTakesTheNextUsesAway) {
    EXPECT_EQ(0, CNetThread::DisableR3());
    EXPECT_EQ(0, CNetThread::DisableR3());
    EXPECT_NE(nullptr, g_r3_funcbox) << "no server was ended";
    EXPECT_EQ(0, CNetThread::EnableR3());
    EXPECT_EQ(0, CNetThread::EnableR3()) << "neither of them wants a server";
#if !RETICOR_R3_SERVER
    EXPECT_EQ(-1, CNetThread::EnableR3());
#endif
}

TEST_F(R3Server, StartAnnouncesTheDaemonAndExitTakesItBack) {
    start();
    ASSERT_NE(nullptr, g_r3_daemon);
    EXPECT_EQ(g_r3_funcbox, g_r3_daemon->FuncBox());
    EXPECT_EQ(0, R3ServerExit());
    EXPECT_EQ(nullptr, g_r3_daemon);
    EXPECT_EQ(nullptr, g_r3_funcbox);
    EXPECT_EQ(0, R3ServerExit());
}

TEST_F(R3Server, RunsOnceAtATime) {
    start();
    CR3Daemon* const first = g_r3_daemon;
    LogCapture log;
    EXPECT_EQ(-1, start_debug_server(freePort(), nullptr, false));
    EXPECT_EQ(1u, log.countLevel(2)) << log.dump();
    EXPECT_EQ(first, g_r3_daemon);
    TcpClient client = greeted();
    expectPrompt(client);
}

TEST_F(R3Server, StartsAgainAfterItsEnd) {
    for (int i = 0; i < 3; ++i) {
        start();
        TcpClient client = greeted();
        converse(client, "threadpool\r",
                 i == 0 ? "threadpool\r\nR3>" : "threadpool\r\n:: command not found\r\nR3>");
        EXPECT_EQ(0, R3ServerExit());
        EXPECT_EVENTUALLY(openHandlers() == 0);
    }
}

TEST_F(R3Server, AfterItsEndPrintsAreDroppedUnformatted) {
    start();
    end_debug_server();
    R3Printf("%s\n", reinterpret_cast<const char*>(1));
}

TEST_F(R3Server, WithoutAPortItDoesNotStart) {
    CSockAcceptor last;
    {
        LogCapture quiet(0);
        last.Open(CSockAddrIPv4(0u, 65535));
    }
    LogCapture log;
    EXPECT_EQ(-1, start_debug_server(65535, nullptr, false));
    EXPECT_EQ(nullptr, g_r3_daemon);
    EXPECT_TRUE(log.contains(2, "CR3Daemon::Create new open_port fail!\n")) << log.dump();
    EXPECT_EVENTUALLY(openHandlers() == 0);
}

TEST_F(R3Server, CommandsMayBeRegisteredFromManyThreads) {
    static std::vector<std::string> names;
    for (int i = 0; i < 200; ++i) {
        names.push_back("command" + std::to_string(i));
    }
    R3ServerExit();
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (size_t i = t; i < names.size(); i += 4) {
                EXPECT_EQ(0, R3Register(reinterpret_cast<void*>(&freePort), names[i].c_str(), nullptr));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(200, g_r3_funcbox->Count());
}

// ---- beside prints ---------------------------------------------------------------------------------------

// Threads that print until the end of a scope.
class Printers {
public:
    Printers() {
        for (int t = 0; t < 3; ++t) {
            m_threads.emplace_back([this, t] {
                for (int i = 0; !m_end; ++i) {
                    R3Printf("printer %d line %d\n", t, i);
                    std::this_thread::yield();
                }
            });
        }
    }
    ~Printers() {
        m_end = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

private:
    std::atomic<bool> m_end{false};
    std::vector<std::thread> m_threads;
};

TEST_F(R3Server, PrintsBesideStartsAndEndsDoNoHarm) {
    for (int i = 0; i < 20; ++i) {
        const Printers printers;
        start();
        TcpClient client(port);
        EXPECT_EQ(NEGOTIATION + BANNER, client.receive(NEGOTIATION.size() + BANNER.size()));
        EXPECT_EQ(0, R3ServerExit());
        client.receiveAll();
    }
}

TEST_F(R3Server, PrintsBesideClientsThatComeAndGoDoNoHarm) {
    start();
    const Printers printers;
    for (int i = 0; i < 40; ++i) {
        TcpClient client(port);
        EXPECT_EQ(NEGOTIATION + BANNER, client.receive(NEGOTIATION.size() + BANNER.size()))
            << "nothing comes between";
        if (i % 3 == 1) {
            client.send("bye\r");
        } else if (i % 3 == 2) {
            client.reset();
        }
    }
}

TEST_F(R3Server, CommandsBesideClientsThatDisplaceEachOtherDoNoHarm) {
    start();
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([this] {
            for (int i = 0; i < 30; ++i) {
                TcpClient client(port);
                client.send("reticorversion\rthreadpool 0\rnothing\r");
                client.receive(300);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // What the last commands of the others print may still come, between any two bytes of ours.
    TcpClient client(port);
    EXPECT_TRUE(client.send("\r"));
    std::string seen;
    for (std::string byte; seen.find("R3>") == seen.rfind("R3>"); seen += byte) {
        byte = client.receive(1);
        ASSERT_FALSE(byte.empty()) << "no prompt after: " << seen;
    }
}

}  // namespace
}  // namespace Orvex::Testing
