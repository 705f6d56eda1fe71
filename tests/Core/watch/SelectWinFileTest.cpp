// CMultiplexer: what the kernel refuses to watch and is always ready, and sockets whose handler has gone.
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/core/EpollSeam.h"
#include "support/core/SocketPair.h"
#include "support/core/StillHandler.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Calls = std::vector<EpollCall>;

class SelectWinFile : public StillHandler {};

class RegularFile : public CSock {
public:
    RegularFile() {
        char name[] = "/tmp/reticor_file_XXXXXX";
        m_handle = ::mkostemp(name, O_CLOEXEC);
        ::unlink(name);
    }
};

TEST_F(SelectWinFile, RegularFileIsAlwaysReadyButNeverInFlightTwice) {
    RegularFile file;
    EpollRecorder kernel(file.GetHandle());
    add(file, SOCK_READ | SOCK_WRITE);
    EXPECT_EQ((Calls{{EPOLL_CTL_ADD, EPOLLIN | EPOLLOUT, EPERM}}), kernel.take());
    EXPECT_EQ(1, MultiplexerProbe::pipePending(rig.mux())) << "a wait that is under way has to look";
    for (int i = 0; i < 3; ++i) {
        const std::vector<CEvent*> ready = rig.poll();
        ASSERT_EQ(1u, ready.size());
        EXPECT_EQ(5, ready[0]->m_revents);
        EXPECT_TRUE(rig.poll().empty());
        rig.serve(ready[0]);
    }
    EXPECT_EQ(3, handler->life->inputs);
    EXPECT_EQ(3, handler->life->outputs);
    handler->UnregisterSock(file, SOCK_READ);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(3, handler->life->inputs);
    handler->UnregisterSock(file, SOCK_WRITE);
    EXPECT_TRUE(rig.poll().empty());
    handler->RemoveSock(file);
    EXPECT_EQ(0u, MultiplexerProbe::alwaysReady(rig.mux()));
}

TEST_F(SelectWinFile, RegularFileRegisteredForExceptionsAloneIsNeverReady) {
    RegularFile file;
    add(file, SOCK_EXCEPT);
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_TRUE(rig.poll().empty());
    handler->RemoveSock(file);
}

TEST_F(SelectWinFile, FileRemovedInFlightAndRegisteredAgainIsAlwaysReadyAgain) {
    RegularFile file;
    add(file);
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    handler->RemoveSock(file);
    EXPECT_EQ(0u, MultiplexerProbe::alwaysReady(rig.mux()));
    add(file);
    rig.serve(ready[0]);
    EXPECT_EQ(1u, MultiplexerProbe::alwaysReady(rig.mux()));
    EXPECT_EQ(1u, rig.pollAndServe());
    handler->RemoveSock(file);
}

TEST_F(SelectWinFile, SocketThatTakesTheNumberOfAFileIsWatchedAsASocketOnceRegistered) {
    SocketPair pair;
    RegularFile file;
    const int number = file.GetHandle();
    add(file);
    EXPECT_EQ(number, ::dup3(pair.fd(), number, O_CLOEXEC));
    add(file);
    EXPECT_EQ(0u, MultiplexerProbe::alwaysReady(rig.mux()));
    EXPECT_TRUE(rig.poll().empty()) << "nothing to read";
    pair.write();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->inputs);
    handler->RemoveSock(file);
}

TEST_F(SelectWinFile, FileThatTakesTheNumberOfASocketIsAlwaysReadyOnceRegistered) {
    SocketPair pair;
    RegularFile file;
    const int number = pair.fd();
    add(pair.near);
    EXPECT_EQ(number, ::dup3(file.GetHandle(), number, O_CLOEXEC));
    add(pair.near);
    EXPECT_EQ(1u, MultiplexerProbe::alwaysReady(rig.mux()));
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1u, rig.pollAndServe());
    handler->RemoveSock(pair.near);
}

TEST_F(SelectWinFile, PassesAllocateNothingWhileAFileIsRegisteredOrUnregistered) {
    RegularFile file;
    SocketPair pair;
    const auto allocationsOfAPass = [&] {
        rig.mux().WakeUp();
        const std::size_t before = allocationCount();
        rig.mux().Wait(rig.token());
        return allocationCount() - before;
    };
    add(file);
    add(pair.near);
    allocationsOfAPass();  // the first one may still get its room
    rig.serve(rig.takeQueue().at(0));
    for (int i = 0; i < 3; ++i) {
        pair.write();
        EXPECT_EQ(0u, allocationsOfAPass());
        for (CEvent* ev : rig.takeQueue()) {
            rig.serve(ev);
        }
    }
    EXPECT_EQ(7, handler->life->inputs);
    handler->UnregisterSock(file, SOCK_READ);
    EXPECT_EQ(0u, allocationsOfAPass());
    EXPECT_TRUE(rig.takeQueue().empty());
    handler->RemoveSock(file);
    handler->RemoveSock(pair.near);
}

// ---- handlers that have gone ---------------------------------------------------------------------------

class SelectWinOrphan : public SelectWinFile {
protected:
    std::string goneLine() const {
        return "pool " + std::to_string(StillPool::INDEX) + ": the handler of ready socket " +
               std::to_string(pair.fd()) + " is gone, the socket rests until it is registered again\n";
    }
    // Registers the socket with a handler that is closed without a word to the socket.
    void abandon() {
        TestHandler* const owner = new TestHandler(StillPool::INDEX);
        EXPECT_EQ(0, owner->RegisterSock(pair.near, SOCK_READ, 0));
        rig.close(owner);
    }

    SocketPair pair;
};

TEST_F(SelectWinOrphan, SocketOfAHandlerThatHasGoneRestsWithOneLineAndKeepsItsPlace) {
    abandon();
    pair.write();
    LogCapture log;
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1u, log.count(3, goneLine())) << log.dump();
    EXPECT_EQ(0, epollReports(rig.epoll())) << "data is waiting, and nobody could be called";
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(2, rig.places(0));
    pair.write();
    pair.far.Close();
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(0, epollReports(rig.epoll()));
    EXPECT_EQ(1u, log.lines().size()) << log.dump();

    add(pair.near);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->inputs) << "its new handler hears of it";
    handler->RemoveSock(pair.near);
}

TEST_F(SelectWinOrphan, FileOfAHandlerThatHasGoneRestsToo) {
    RegularFile file;
    TestHandler* const owner = new TestHandler(StillPool::INDEX);
    EXPECT_EQ(0, owner->RegisterSock(file, SOCK_READ, 0));
    rig.close(owner);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_TRUE(rig.poll().empty());
    handler->RemoveSock(file);
}

TEST_F(SelectWinOrphan, HandlerThatTakesTheSocketBetweenCallAndSecondHalfHearsOfIt) {
    abandon();
    pair.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    add(pair.near);  // before the worker looks for the handler
    rig.serve(ready[0]);
    EXPECT_EQ(1, handler->life->inputs);
    pair.write();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(2, handler->life->inputs);
    handler->RemoveSock(pair.near);
}

}  // namespace
}  // namespace Orvex::Testing
