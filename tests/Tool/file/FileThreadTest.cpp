// The file workers: start, end, and the messages of NotifyIO.
#include "Tool/file/FileThread.h"

#include <unistd.h>

#include <map>

#include "Core/pool/ThreadPool.h"
#include "Core/service/Message.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/ThreadFault.h"
#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::FileFixture;
using Testing::Gate;
using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::MemoryDevice;
using Testing::TestHandler;

int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        count += Testing::kernelThreadName(std::atoi(entry.path().filename().c_str())) == name ? 1 : 0;
    }
    return count;
}

int fileThreads() {
    return threadsNamed("Reticor::FileTh");
}

// ---- start and end -------------------------------------------------------------------------------------

TEST(FileThread, TwoPerProcessorAreStartedByTheFirstPoolThatAsksForThem) {
    const int wanted = 2 * static_cast<int>(CThreadPool::processor_count());
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    EXPECT_EQ(0, fileThreads());
    EXPECT_EQ(0, HasFileThreads());
    ASSERT_EQ(0, CreateThreadPool(2, 1));
    EXPECT_EVENTUALLY(fileThreads() == wanted);
    EXPECT_EQ(1, HasFileThreads());
    const int pool = CNetThread::CreatePrivatePool(2, true);
    EXPECT_EQ(wanted, fileThreads()) << "once for the process";
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(wanted, fileThreads());
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(0, fileThreads());
}

TEST(FileThread, AfterTheEndTheFlagStaysAndStopDoesNothing) {
    EXPECT_EQ(0, StopFileThreads());
    EXPECT_EQ(0, StartFileThreads(1));
    EXPECT_EVENTUALLY(fileThreads() == 2);
    EXPECT_EQ(0, StopFileThreads());
    EXPECT_EQ(0, StopFileThreads());
    EXPECT_EQ(1, HasFileThreads());
    LogCapture log;
    EXPECT_FALSE(FileThreadsRun());
    EXPECT_FALSE(FileThreadsRun());
    EXPECT_EQ(1u, log.count(2, "The file threads have been stopped, files call their devices directly!\n"));
}

TEST(FileThread, NoneAreStartedForNoProcessors) {
    EXPECT_EQ(0, StartFileThreads(0));
    EXPECT_EQ(0, HasFileThreads());
    EXPECT_FALSE(FileThreadsRun());
    EXPECT_EQ(0, StopFileThreads());
}

TEST(FileThread, ASystemWithoutThreadsIsAnErrorThatLeavesNothingBehind) {
    {
        LogCapture quiet;
        Testing::ThreadFault fault;
        EXPECT_EQ(-1, StartFileThreads(1));
    }
    EXPECT_EQ(0, HasFileThreads());
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    {
        LogCapture quiet;
        Testing::ThreadFault fault;
        EXPECT_EQ(-1, CNetThread::CreateThreadPool(1, true));
    }
    EXPECT_EQ(0, CNetThread::CreateThreadPool(1, true)) << "it is tried again";
    EXPECT_EQ(1, HasFileThreads());
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

// ---- NotifyIO ------------------------------------------------------------------------------------------

class FileNotify : public FileFixture {
protected:
    void SetUp() override {
        FileFixture::SetUp();
        handler = new TestHandler;
        life = handler->life;
    }
    void TearDown() override {
        closeAndWait(handler);
        FileFixture::TearDown();
    }
    TestHandler* handler = nullptr;
    std::shared_ptr<HandlerLife> life;
};

TEST_F(FileNotify, RunsOnAFileWorkerAndMayBlockThere) {
    Gate gate;
    std::atomic<bool> on_worker{false};
    handler->on_message = [&](long sender, unsigned int msg, long attach) {
        if (msg == 5) {
            EXPECT_EQ(handler->GetID(), sender);
            EXPECT_EQ(50, attach);
            on_worker = OnFileWorker();
            gate.pass();
        }
        return 0;
    };
    handler->NotifyIO(handler->GetID(), 5, 50);
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_TRUE(on_worker);
    handler->Notify(handler->GetID(), 6, 0);
    EXPECT_EVENTUALLY(life->messages == 1) << "the pool goes on";
    gate.open();
    EXPECT_EVENTUALLY(life->messages == 2);
}

TEST_F(FileNotify, DoesNotWaitBehindABusyDisk) {
    Gate gate;
    MemoryDevice* const device = newDevice();
    device->on_write = [&](unsigned) { return gate.pass(), MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    file->Write("x", 1);
    file->Seek(0, 0);
    ASSERT_TRUE(gate.awaitArrivals(1));
    for (int i = 0; i < 100; ++i) {
        handler->NotifyIO(handler->GetID(), 5, i);
    }
    EXPECT_EVENTUALLY(life->messages == 100);
    EXPECT_EQ(0, disk->writes);
    gate.open();
    closed(file);
}

TEST_F(FileNotify, AMessageToSomebodyWhoIsGoneDisappears) {
    auto* const gone = new TestHandler;
    const long id = gone->GetID();
    closeAndWait(gone);
    handler->NotifyIO(id, 5, 0);
    handler->NotifyIO(handler->GetID(), 5, 0);
    EXPECT_EVENTUALLY(life->messages == 1);
}

TEST_F(FileNotify, Number12FromAHandlerToItselfTakesItOutOfItsPool) {
    auto* const own = new TestHandler;
    const std::shared_ptr<HandlerLife> its_life = own->life;
    own->keep_after_close = true;
    own->NotifyIO(own->GetID(), 12, 0);
    EXPECT_EVENTUALLY(its_life->closes == 1);
    own->Close();
    delete own;
}

// File workers look into pools that nobody keeps for them.
TEST_F(FileNotify, PrivatePoolsComeAndGoUnderMessagesToThem) {
    for (int i = 0; i < 10; ++i) {
        const int pool = CNetThread::CreatePrivatePool(1, true);
        ASSERT_GT(pool, 0);
        auto* const guest = new TestHandler(pool);
        const std::shared_ptr<HandlerLife> its_life = guest->life;
        const long id = guest->GetID();
        for (int n = 0; n < 50; ++n) {
            handler->NotifyIO(id, 5, n);
        }
        guest->Close();
        EXPECT_EVENTUALLY(its_life->closes == 1);
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    }
}

// A handler of the public pool that keeps the numbers it is sent by NotifyIO.
class NotifyIOStart : public Testing::PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        handler = new TestHandler;
        life = handler->life;
        handler->on_message = [this](long, unsigned int, long attach) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_got.push_back(attach);
            return 0;
        };
    }
    void TearDown() override {
        closeAndWait(handler);
        PoolFixture::TearDown();
    }
    std::vector<long> got() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_got;
    }
    static std::vector<long> upTo(long end) {
        std::vector<long> numbers;
        for (long i = 0; i < end; ++i) {
            numbers.push_back(i);
        }
        return numbers;
    }
    void post(long attach) { handler->NotifyIO(handler->GetID(), 5, attach); }

    TestHandler* handler = nullptr;
    std::shared_ptr<HandlerLife> life;

private:
    std::mutex m_mutex;
    std::vector<long> m_got;
};

TEST_F(NotifyIOStart, WhatWasPostedBeforeTheWorkersIsDeliveredOnceEachInOrder) {
    for (long i = 0; i < 5; ++i) {
        post(i);
    }
    {
        const LogCapture log;
        Testing::ThreadFault one_worker(1);
        ASSERT_EQ(0, StartFileThreads(1));
        EXPECT_EQ(1u, log.count(2, "Only 1 of 2 file threads could be started!\n")) << log.dump();
    }
    EXPECT_EVENTUALLY(life->messages == 5);
    post(5);
    EXPECT_EVENTUALLY(life->messages == 6);
    EXPECT_EQ(upTo(6), got());
    StopFileThreads();
}

TEST_F(NotifyIOStart, AStartThatFailsKeepsThemForTheNextOne) {
    post(0);
    {
        LogCapture quiet;
        Testing::ThreadFault fault;
        EXPECT_EQ(-1, StartFileThreads(1));
    }
    post(1);
    EXPECT_EQ(0, StartFileThreads(1));
    EXPECT_EVENTUALLY(life->messages == 2);
    StopFileThreads();
}

TEST_F(NotifyIOStart, NoMessageIsLeftWithoutATaskByAStartThatMeetsIt) {
    constexpr int POSTS = 200;
    for (int round = 1; round <= 300; ++round) {
        std::atomic<int> posted{0};
        std::thread poster([&] {
            for (long i = 0; i < POSTS; ++i) {
                post(i);
                ++posted;
            }
        });
        while (posted <= round % POSTS) {
        }
        ASSERT_EQ(0, StartFileThreads(1));
        poster.join();
        ASSERT_TRUE(Testing::eventually([&] { return life->messages == POSTS * round; })) << round;
        StopFileThreads();
        g_file_thread_count = 0;  // as if they had never run
        g_file_threads_over = false;
    }
}

TEST_F(NotifyIOStart, AfterTheEndOfTheWorkersMessagesAreDroppedAndTheLogSaysSoOnce) {
    ASSERT_EQ(0, StartFileThreads(1));
    StopFileThreads();
    LogCapture log;
    for (long i = 0; i < 1000; ++i) {
        post(i);
    }
    EXPECT_EQ(0u, CMessage::CountIOMessages());
    EXPECT_EQ(nullptr, file_tasks().Get());
    EXPECT_EQ(1u, log.count(2, "The file threads have been stopped, messages of NotifyIO are dropped!\n"));
}

TEST(NotifyIO, WhatNobodyTookGoesWithTheLibrary) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    CMessage::Notify(0, (-100L * 256) * 256, 5, 0, true);
    EXPECT_EQ(1u, CMessage::CountIOMessages());
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(0u, CMessage::CountIOMessages());
}

}  // namespace
}  // namespace Orvex::Reticor
