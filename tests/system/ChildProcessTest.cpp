// ChildProcess: what the programs under test are started with.
#include <csignal>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"

using namespace Orvex::Testing;

// A shell starts what runs in the background with SIGINT ignored, and the tests may run there.
TEST(ChildProcessStart, ProgramCanBeInterruptedThoughTheTestCannot) {
    ::signal(SIGINT, SIG_IGN);
    ChildProcess program({"sh", "-c", "trap 'echo interrupted; exit 7' INT; echo ready; read line; exit 8"});
    EXPECT_EQ("ready", program.readLine());
    program.signal(SIGINT);
    EXPECT_EQ("interrupted", program.readLine());
    EXPECT_EQ(7, program.wait());
}

TEST(ChildProcessStart, ProgramGetsSignalsThatTheTestHasBlocked) {
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    ChildProcess program({"sh", "-c", "echo ready; read line; exit 8"});
    EXPECT_EQ("ready", program.readLine());
    program.signal(SIGINT);
    EXPECT_EQ(-SIGINT, program.wait());
}
