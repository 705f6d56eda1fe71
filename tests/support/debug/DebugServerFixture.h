// DebugServerFixture: the debug server in a running pool, and what its clients are greeted with.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>

#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "R3/print/R3Printf.h"
#include "R3/server/R3Daemon.h"
#include "R3/server/R3Server.h"
#include "support/PoolFixture.h"
#include "support/program/TcpClient.h"

namespace Orvex::Testing {

const std::string NEGOTIATION = "\xFF\xFD\x01\xFF\xFD\x22\xFF\xFD\x21\xFF\xFB\x01\xFF\xFB\x03";
const std::string BANNER_FRAME = std::string(64, '=') + "\r\n";
const std::string BANNER = BANNER_FRAME + std::string(13, ' ') + "Realtime Remote Runner" +
                           std::string(29, ' ') + "\r\n" + BANNER_FRAME;
const std::string GREETING = NEGOTIATION + BANNER + "R3>";

// A port of this machine that was free a moment ago.
inline unsigned short freePort() {
    Reticor::CSockAcceptor acceptor;
    Reticor::CSockAddrIPv4 address(0u, 0);
    EXPECT_EQ(0, acceptor.Open(address));
    EXPECT_EQ(0, acceptor.GetLocalAddr(&address));
    return address.GetPort();
}

// Handlers of the public pool that are open. A test opens no more than some hundreds.
inline int openHandlers() {
    constexpr long FIRST = -100;
    constexpr long IDS = 3000;
    int count = 0;
    for (long counter = FIRST; counter > FIRST - IDS; --counter) {
        for (long generation = 0; generation < 3; ++generation) {
            count += Reticor::PoolTable::FindHandler(counter * 256 * 256 + generation) ? 1 : 0;
        }
    }
    return count;
}

class DebugServerFixture : public PoolFixture {
protected:
    void TearDown() override {
        Reticor::end_debug_server();
        EXPECT_EVENTUALLY(openHandlers() == 0);
        PoolFixture::TearDown();
    }

    void start(const char* name = nullptr, bool local_only = false) {
        ASSERT_EQ(0, Reticor::start_debug_server(freePort(), name, local_only));
        port = Reticor::g_r3_daemon->Port();
    }

    // A client that has been greeted.
    TcpClient greeted(const std::string& greeting = GREETING) {
        TcpClient client(port);
        EXPECT_EQ(greeting, client.receive(greeting.size()));
        return client;
    }

    // Types, and expects these bytes back.
    static void converse(TcpClient& client, const std::string& typed, const std::string& answer) {
        EXPECT_TRUE(client.send(typed));
        EXPECT_EQ(answer, client.receive(answer.size()));
    }

    // The client is served up to here, and nothing has come in between.
    static void expectPrompt(TcpClient& client) { converse(client, "\r", "\r\nR3>"); }

    int port = 0;
};

}  // namespace Orvex::Testing
