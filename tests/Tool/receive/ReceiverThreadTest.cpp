// CReceiverThread and ReceiverGroup: the grid of ticks, the choice of a thread, threads that come and go.
#include "Tool/receive/ReceiverThread.h"

#include <sched.h>
#include <sys/resource.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include <Infra/Time.h>
#include <Reticor/NetThread.h>

#include "Core/record/EventFreeList.h"
#include "Tool/receive/ProcessorPin.h"
#include "Tool/receive/ReceiverGroup.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/PoolFixture.h"
#include "support/ThreadFault.h"
#include "support/core/Gate.h"
#include "support/media/ReceiverStand.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Probe = ReceiverThreadProbe;

constexpr int64_t PERIOD = 20000;

// ---- The grid ------------------------------------------------------------------------------------------

TEST(ReceiverThreadGrid, BeginsAtAFullTenthOfASecondWithAShareOfThePeriodAsShift) {
    for (unsigned int index = 0; index < 4; ++index) {
        CReceiverThread thread(index, CReceiverThread::FIRST_GROUP, 4, PERIOD);
        Probe::align(thread, 5199999);
        EXPECT_EQ(Probe::base(thread), 5100000 + index * 5000);
        Probe::align(thread, 5200000);
        EXPECT_EQ(Probe::base(thread), 5200000 + index * 5000);
    }
}

TEST(ReceiverThreadGrid, TicksAreCountedFromItsBeginning) {
    CReceiverThread thread(0, CReceiverThread::FIRST_GROUP, 1, PERIOD);
    Probe::align(thread, 1000000);
    Probe::tick(thread) = 1;
    EXPECT_EQ(2 * PERIOD, Probe::nextDue(thread, 1000000));
    EXPECT_EQ(1000, Probe::nextDue(thread, 1039000));
    EXPECT_EQ(-5000, Probe::nextDue(thread, 1045000));
    EXPECT_EQ(1u, Probe::tick(thread));
}

TEST(ReceiverThreadGrid, UpToTwentyPeriodsLateTicksAreCaughtUp) {
    CReceiverThread thread(0, CReceiverThread::FIRST_GROUP, 1, PERIOD);
    Probe::align(thread, 1000000);
    Probe::tick(thread) = 1;
    const uint64_t now = 1000000 + 2 * PERIOD + 20 * PERIOD;
    EXPECT_EQ(Probe::nextDue(thread, now), -20 * PERIOD);
    int back_to_back = 0;
    while (++Probe::tick(thread), Probe::nextDue(thread, now) < 1000) {
        ++back_to_back;
    }
    EXPECT_EQ(20 - 1 + 1, back_to_back) << "20 periods late, up to the one that is due now";
    EXPECT_EQ(1000000u, Probe::base(thread));
}

TEST(ReceiverThreadGrid, BeyondTwentyPeriodsItBeginsAnew) {
    for (const int64_t beyond : {1, 1000, 60000000}) {
        CReceiverThread thread(1, CReceiverThread::FIRST_GROUP, 2, PERIOD);
        Probe::align(thread, 1000000);
        Probe::tick(thread) = 1;
        const uint64_t now = Probe::base(thread) + 2 * PERIOD + 20 * PERIOD + static_cast<uint64_t>(beyond);
        EXPECT_EQ(PERIOD, Probe::nextDue(thread, now));
        EXPECT_EQ(0u, Probe::tick(thread));
        EXPECT_EQ(Probe::base(thread), now - now % 100000 + PERIOD / 2);
    }
}

TEST(ReceiverThreadGrid, ThreadOfWritersTicksAtOnceThen) {
    CReceiverThread thread(1, CReceiverThread::WRITE_GROUP, 2, 40000);
    Probe::align(thread, 1000000);
    Probe::tick(thread) = 5;
    EXPECT_EQ(0, Probe::nextDue(thread, 9000000));
    EXPECT_EQ(1u, Probe::tick(thread));
    EXPECT_EQ(9020000u, Probe::base(thread));
}

TEST(ReceiverThreadGrid, ClockThatJumpsBackBeginsAnewToo) {
    CReceiverThread thread(0, CReceiverThread::FIRST_GROUP, 1, PERIOD);
    Probe::align(thread, 90000000);
    Probe::tick(thread) = 1;
    EXPECT_EQ(20 * PERIOD, Probe::nextDue(thread, 90000000 + 2 * PERIOD - 20 * PERIOD));
    EXPECT_EQ(PERIOD, Probe::nextDue(thread, 90000000 + 2 * PERIOD - 20 * PERIOD - 1));
    EXPECT_EQ(89600000u, Probe::base(thread));
}

// ---- Period and processors -----------------------------------------------------------------------------

TEST(ReceiverGroupPeriod, LevelsSetThePeriod) {
    EXPECT_EQ(20000, ReceiverGroup::PeriodUs());
    const std::map<int, int> periods = {{0, 10000}, {1, 20000}, {2, 25000},
                                        {3, 30000}, {4, 20000}, {-1, 20000}};
    for (const auto& [level, period] : periods) {
        CNetThread::SetRcvPriority(level);
        EXPECT_EQ(ReceiverGroup::PeriodUs(), period) << level;
    }
}

TEST(ReceiverGroupPeriod, WhatIsNoPeriodIsRefused) {
    const LogCapture log;
    for (const int ms : {0, -1, 2147484, -2147483647 - 1}) {
        ReceiverGroup::SetPeriod(ms);
    }
    EXPECT_EQ(20000, ReceiverGroup::PeriodUs());
    EXPECT_EQ(
        4u, log.countMatching(2, "Orvex::Reticor::ReceiverGroup::SetPeriod : invalid period:-?[0-9]+ ms\n"));
    ReceiverGroup::SetPeriod(2147483);
    EXPECT_EQ(2147483000, ReceiverGroup::PeriodUs());
}

TEST(ProcessorPin, KeepsTheThreadOnOneProcessorAndLetsItGo) {
    std::thread([] {
        cpu_set_t before;
        CPU_ZERO(&before);
        ASSERT_EQ(0, ::sched_getaffinity(0, sizeof before, &before));
        unsigned int allowed = 0;
        while (!CPU_ISSET(allowed, &before)) {
            ++allowed;
        }
        cpu_set_t now;
        CPU_ZERO(&now);
        {
            const ProcessorPin pin(allowed);
            ASSERT_EQ(0, ::sched_getaffinity(0, sizeof now, &now));
            EXPECT_EQ(1, CPU_COUNT(&now));
            EXPECT_TRUE(CPU_ISSET(allowed, &now));
        }
        ASSERT_EQ(0, ::sched_getaffinity(0, sizeof now, &now));
        EXPECT_GE(CPU_COUNT(&now), CPU_COUNT(&before));
    }).join();
}

TEST(ProcessorPin, ProcessorThatIsRefusedIsLoggedOnce) {
    std::thread([] {
        const LogCapture log;
        {
            const ProcessorPin pin(8000);
            const ProcessorPin again(8001);
            cpu_set_t now;
            CPU_ZERO(&now);
            ASSERT_EQ(0, ::sched_getaffinity(0, sizeof now, &now));
            EXPECT_GE(CPU_COUNT(&now), 1);
        }
        EXPECT_EQ(1u, log.countMatching(
                          3, "Orvex::Reticor::ProcessorPin::ProcessorPin : processor 8000 is refused, .*\n"));
        EXPECT_EQ(1u, log.lines().size());
    }).join();
}

// ---- Running threads -----------------------------------------------------------------------------------

class ReceiverThreads : public PoolFixture {
protected:
    static TestReceiver* make(receiver_mode mode = receiver_active) {
        auto* const receiver = new TestReceiver;
        receiver->SetReceiveMode(mode);
        return receiver;
    }

    // Closes receivers and waits until they are deleted.
    static void end(const std::vector<TestReceiver*>& receivers) {
        std::vector<std::shared_ptr<ReceiverLife>> lives;
        for (TestReceiver* receiver : receivers) {
            lives.push_back(receiver->life);
            receiver->Close();
        }
        for (const auto& life : lives) {
            EXPECT_EVENTUALLY(life->closes == 1);
        }
    }

    static bool threadRuns() { return kernelThreadByName("stream_receiver") != 0; }
};

TEST_F(ReceiverThreads, CallbacksComeFromAThreadOfTheirOwnOnOneProcessor) {
    EXPECT_FALSE(threadRuns()) << "none before it is needed";
    TestReceiver* const receiver = make();
    std::atomic<int> processors{0};
    std::atomic<bool> named{false};
    receiver->on_input = [&] {
        cpu_set_t now;
        CPU_ZERO(&now);
        ::sched_getaffinity(0, sizeof now, &now);
        processors = CPU_COUNT(&now);
        named = kernelThreadName(kernelThreadId()) == "stream_receiver";
        return 0;
    };
    receiver->StartReceive(0, 1.0F);
    EXPECT_EVENTUALLY(receiver->life->inputs >= 3);
    EXPECT_TRUE(named);
    EXPECT_EQ(1, processors);
    end({receiver});
    EXPECT_EVENTUALLY(!threadRuns());
}

TEST_F(ReceiverThreads, NewReceiverGoesToTheThreadWithTheFewest) {
    const auto processors = static_cast<std::size_t>(CThreadPool::processor_count());
    std::mutex mutex;
    std::map<int, std::set<int>> on_thread;
    std::vector<TestReceiver*> receivers;
    for (std::size_t i = 0; i < 2 * processors; ++i) {
        TestReceiver* const receiver = make();
        receiver->on_input = [&, i] {
            const std::lock_guard<std::mutex> guard(mutex);
            on_thread[kernelThreadId()].insert(static_cast<int>(i));
            return 0;
        };
        receiver->StartReceive(0, 1.0F);
        receivers.push_back(receiver);
    }
    for (TestReceiver* receiver : receivers) {
        EXPECT_EVENTUALLY(receiver->life->inputs >= 1);
    }
    end(receivers);
    EXPECT_EQ(on_thread.size(), processors);
    for (const auto& [id, whose] : on_thread) {
        EXPECT_EQ(2u, whose.size());
        EXPECT_EQ(*whose.rbegin() - *whose.begin(), static_cast<int>(processors))
            << "in turn, the lowest first";
    }
}

TEST_F(ReceiverThreads, WritersHaveThreadsOfTheirOwn) {
    TestReceiver* const reader = make();
    TestReceiver* const writer = make(receiver_write);
    std::atomic<int> reads_on{0};
    std::atomic<int> writes_on{0};
    reader->on_input = [&] {
        reads_on = kernelThreadId();
        return 0;
    };
    writer->on_write = [&] {
        writes_on = kernelThreadId();
        return 0;
    };
    reader->StartReceive(0, 1.0F);
    writer->StartReceive(0, 1.0F);
    EXPECT_EVENTUALLY(reader->life->inputs >= 4 && writer->life->writes >= 2);
    EXPECT_NE(reads_on, writes_on);
    end({reader, writer});
}

TEST_F(ReceiverThreads, TicksComeAtTheReceivePeriod) {
    TestReceiver* const receiver = make();
    const uint64_t begin = Infra::CTime::getCurrentMicroSecond();
    receiver->StartReceive(0, 1.0F);
    // Their grid may begin 100 ms before, and whatever is late then is caught up.
    EXPECT_EVENTUALLY(receiver->life->inputs >= 60);
    EXPECT_GE(Infra::CTime::getCurrentMicroSecond() - begin, 60u * 10000 - 110000)
        << "not faster; a busy machine is slower";
    end({receiver});
}

TEST_F(ReceiverThreads, ThreadEndsWithItsLastReceiverAndStartsAgainForTheNext) {
    for (int round = 0; round < 5; ++round) {
        TestReceiver* const receiver = make();
        receiver->StartReceive(0, 1.0F);
        EXPECT_EVENTUALLY(receiver->life->inputs >= 1);
        end({receiver});  // The thread may still be on its way out when the next one comes.
    }
    EXPECT_EVENTUALLY(!threadRuns());
}

TEST_F(ReceiverThreads, NextReceiverWaitsForARunThatHasSeenItsListEmpty) {
    // With one callback that is held, its thread cannot end, and a new receiver joins it without a start.
    Gate gate;
    TestReceiver* const held = make();
    held->on_input = [&] {
        gate.pass();
        return 0;
    };
    held->StartReceive(0, 1.0F);
    ASSERT_TRUE(gate.awaitArrivals(1));
    const auto life = held->life;
    held->Close();
    std::vector<TestReceiver*> others;
    for (unsigned int i = 0; i < CThreadPool::processor_count(); ++i) {
        others.push_back(make());
        others.back()->StartReceive(0, 1.0F);
    }
    gate.open();
    for (TestReceiver* other : others) {
        EXPECT_EVENTUALLY(other->life->inputs >= 2);
    }
    EXPECT_EVENTUALLY(life->closes == 1);
    end(others);
}

TEST_F(ReceiverThreads, ThreadThatCannotBeStartedForgetsTheReceiverWhichMayTryAgain) {
    TestReceiver* const receiver = make();
    {
        const LogCapture log;
        const ThreadFault fault;
        EXPECT_EQ(-1, receiver->StartReceive(0, 1.0F));
        EXPECT_EQ(1u,
                  log.count(2, "Orvex::Reticor::CMediaStreamReceiver::StartReceive : Thread start failed.\n"))
            << log.dump();
        EXPECT_EQ(1, ReceiverProbe::state(*receiver));
    }
    EXPECT_EQ(0, receiver->StartReceive(0, 1.0F));
    EXPECT_EVENTUALLY(receiver->life->inputs >= 2);
    end({receiver});
}

TEST_F(ReceiverThreads, MessagesOfTheEndReachTheirHandler) {
    auto* const waiter = new TestHandler;
    std::atomic<unsigned int> failed{0};
    std::atomic<unsigned int> ended{0};
    waiter->on_message = [&](long, unsigned int msg, long) {
        ++(msg == MEDIA_RECEIVER_FAILED ? failed : ended);
        return 0;
    };
    TestReceiver* const receiver = make();
    receiver->WaitException(waiter->GetID());
    receiver->on_input = [] { return -1; };
    receiver->StartReceive(0, 1.0F);
    EXPECT_EVENTUALLY(failed >= 3);
    EXPECT_EQ(0u, ended);
    end({receiver});
    EXPECT_EVENTUALLY(ended == 1);
    closeAndWait(waiter);
}

TEST_F(ReceiverThreads, ReceiversMayComeAndGoOnManyThreadsAtOnce) {
    std::atomic<int> calls{0};
    std::vector<std::thread> users;
    for (int user = 0; user < 4; ++user) {
        users.emplace_back([&, user] {
            for (int round = 0; round < 25; ++round) {
                TestReceiver* const receiver = make(static_cast<receiver_mode>((user + round) % 3));
                const auto life = receiver->life;
                receiver->on_input = [&] { return ++calls, 0; };
                receiver->on_write = receiver->on_input;
                receiver->on_passive = [&] { return ++calls, 1000LL; };
                receiver->StartReceive(0, 1.0F);
                if (round % 3 == 0) {
                    receiver->StopReceive();
                    receiver->StartReceive(1000000, 1.0F);
                }
                if (round % 5 == 0) {
                    EXPECT_EVENTUALLY(life->calls() > 0);
                }
                receiver->Close();
                if (round % 4 == 0) {
                    EXPECT_EVENTUALLY(life->closes == 1);
                }
            }
        });
    }
    for (std::thread& user : users) {
        user.join();
    }
    EXPECT_GT(calls, 0);
    EXPECT_EVENTUALLY(!threadRuns());
}

// ---- With the library ----------------------------------------------------------------------------------

TEST(ReceiverLifecycle, LibraryThatGoesDownEndsTheCallsAndTheReceivers) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* const receiver = new TestReceiver;
    receiver->AddRef();
    const auto life = receiver->life;
    receiver->StartReceive(0, 1.0F);
    auto* const stopped = new TestReceiver;
    stopped->AddRef();
    stopped->StartReceive(0, 1.0F);
    stopped->StopReceive();
    EXPECT_EVENTUALLY(life->inputs >= 1);
    ASSERT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(0, kernelThreadByName("stream_receiver"));
    const int calls = life->inputs;
    const LogCapture log;
    auto& state = HandlerProbe::state(*receiver);
    EXPECT_EQ(HANDLER_CLOSED, state.__m_magic);
    EXPECT_EQ(HANDLER_CLOSED, HandlerProbe::state(*stopped).__m_magic);
    EXPECT_EQ(life->inputs, calls);
    // The references kept them, whether or not the pool still came to their close messages.
    delete receiver;
    delete stopped;
}

// A callback that is on its way when the library goes down still has timers, sockets and the pool.
TEST(ReceiverLifecycle, ReceiversStopBeforeAllElse) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* const handler = new TestHandler;
    handler->on_timeout = [](long) -> int64_t { return -1; };
    const auto handler_life = handler->life;
    auto* const receiver = new TestReceiver;
    receiver->AddRef();
    std::atomic<int> destroyer_id{0};
    std::atomic<bool> called{false};
    receiver->on_input = [&] {
        if (!called.exchange(true)) {
            EXPECT_EVENTUALLY(destroyer_id != 0 && sleepsInFutex(destroyer_id));
            handler->SetTimer(3000);
            handler->Notify(handler->GetID(), 1, 0);
            EXPECT_EVENTUALLY(handler_life->messages == 1 && handler_life->timeouts == 1);
            handler->Close();
            EXPECT_EVENTUALLY(handler_life->closes == 1);
        }
        return 0;
    };
    receiver->StartReceive(0, 1.0F);
    EXPECT_EVENTUALLY(called);
    std::thread destroyer([&] {
        destroyer_id = kernelThreadId();
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    });
    destroyer.join();
    delete receiver;
}

TEST(ReceiverLifecycle, ThreadsHaveThePriorityThatWasSetForThem) {
    ASSERT_EQ(0, CNetThread::SetRecvThreadPriority(1, 0, 0));
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* const receiver = new TestReceiver;
    const auto life = receiver->life;
    std::atomic<int> nice{0};
    receiver->on_input = [&] {
        nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(kernelThreadId()));
        return 0;
    };
    receiver->StartReceive(0, 1.0F);
    EXPECT_EVENTUALLY(life->inputs >= 1);
    EXPECT_GT(nice, ::getpriority(PRIO_PROCESS, 0));
    receiver->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    ASSERT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(ReceiverLifecycle, PeriodOfTheThreadsIsTakenOverWhenTheLibraryStarts) {
    for (int round = 0; round < 2; ++round) {
        CNetThread::SetRcvPriority(0);
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        auto* const receiver = new TestReceiver;
        const auto life = receiver->life;
        receiver->StartReceive(0, 1.0F);
        EXPECT_EVENTUALLY(life->inputs >= 5);
        receiver->Close();
        EXPECT_EVENTUALLY(life->closes == 1);
        ASSERT_EQ(0, CNetThread::DestroyThreadPool());
    }
}

TEST(ReceiverLifecycle, CallbackThatStartsAReceiverWhileTheLibraryGoesDownIsRefused) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* const receiver = new TestReceiver;
    auto* const late = new TestReceiver;
    receiver->AddRef();
    late->AddRef();
    Gate gate;
    const LogCapture log;
    receiver->on_input = [&] {
        gate.pass();
        // The teardown waits for this call; the start must not wait for the teardown.
        EXPECT_EVENTUALLY(
            (late->StartReceive(0, 1.0F),
             log.countMatching(2, ".*: Thread start failed.\n") > 0 || ReceiverProbe::state(*late) == 2));
        return 0;
    };
    receiver->StartReceive(0, 1.0F);
    ASSERT_TRUE(gate.awaitArrivals(1));
    std::thread destroyer([] { EXPECT_EQ(0, CNetThread::DestroyThreadPool()); });
    gate.open();
    destroyer.join();
    delete receiver;
    HandlerInternal& state = HandlerProbe::state(*late);
    if (state.__m_magic != HANDLER_CLOSED) {
        state.__m_magic = HANDLER_CLOSED;  // There is no pool to close it.
        put_event(state.m_close_event);
    }
    delete late;
}

}  // namespace
}  // namespace Orvex::Testing
