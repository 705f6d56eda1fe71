// StillHandler: a handler on a pool without workers, for the cases that look at its sockets step by step.
#pragma once

#include <gtest/gtest.h>

#include <Reticor/Sock.h>

#include "support/TestHandler.h"
#include "support/core/Probes.h"
#include "support/core/SocketPair.h"
#include "support/core/StillPool.h"

namespace Orvex::Testing {

/// Reads what comes, and has no socket left at the end.
class StillHandler : public ::testing::Test {
protected:
    void SetUp() override {
        handler->on_input = [](int fd) {
            SocketPair::drain(fd);
            return 0;
        };
    }
    void TearDown() override {
        EXPECT_TRUE(Reticor::ThreadPoolProbe::sockets(rig.pool()).empty());
        rig.close(handler);
    }

    void add(Reticor::CSock& sock, unsigned int mask = Reticor::SOCK_READ, int time_out_us = 0) {
        EXPECT_EQ(0, handler->RegisterSock(sock, mask, time_out_us));
    }

    StillPool rig;
    TestHandler* handler = new TestHandler(StillPool::INDEX);
};

}  // namespace Orvex::Testing
