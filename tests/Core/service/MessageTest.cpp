// CMessage: the three ways of posting, and what a worker makes of a record.
#include "Core/service/Message.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolTable.h"
#include "Core/record/EventFreeList.h"
#include "R3/print/FuncBox.h"
#include "R3/print/R3Printf.h"
#include "support/PoolFixture.h"
#include "support/SeededRandom.h"
#include "support/core/Probes.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::PoolFixture;
using Testing::TestHandler;

constexpr int WORKERS = 4;

class Message : public PoolFixture {
protected:
    Message() { workers = WORKERS; }
    void SetUp() override {
        PoolFixture::SetUp();
        handler = new TestHandler;
        life = handler->life;
    }
    void TearDown() override {
        closeAndWait(handler);
        PoolFixture::TearDown();
    }
    CThreadPool& pool() { return *PoolTable::Get(0); }
    long id() { return handler->GetID(); }

    TestHandler* handler = nullptr;
    std::shared_ptr<HandlerLife> life;
};

// ---- wrong receivers -----------------------------------------------------------------------------------

TEST_F(Message, AReceiverOf0OrAboveIsLoggedAsInvalidAndNothingIsQueued) {
    LogCapture log;
    CEvent* next = get_event();
    next->m_receiver = 4712;
    put_event(next);
    for (long receiver : {0L, 1L, 4711L, 0x7FFFFFFFL}) {
        CMessage::Notify(id(), receiver, 7, 42, false);
        CMessage::Notify(id(), receiver, 7, 42, true);
        CMessage::NotifySerial(id(), receiver, 7, 42, 0);
        const std::string number = std::to_string(receiver);
        EXPECT_EQ(2u, log.count(2, "CMessage::Notify, invalid receiver id: " + number + "\n")) << log.dump();
        EXPECT_EQ(1u, log.count(2, "CMessage::NotifySerial, invalid receiver id: " + number + "\n"))
            << log.dump();
    }
    const std::string start = log.lines().front().start;
    EXPECT_EQ(0u, start.find("[Src/Core/Message.cpp:")) << start;
    EXPECT_NE(std::string::npos, start.find("] tid:")) << start;
    EXPECT_EQ(next, get_event());
    EXPECT_EQ(4712, next->m_receiver) << "no record was made";
    put_event(next);
}

class MessageDeath : public Message {};

TEST_F(MessageDeath, AReceiverWhoseIndexIs64OrAboveIsAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const long foreign = (-100 * 256 + 64) * 256;
    EXPECT_DEATH(CMessage::Notify(-500, foreign, 7, 42, false),
                 "Assertion `63 >= INDEX_OF_ID\\( receiver \\)' failed");
    EXPECT_DEATH(CMessage::NotifySerial(-500, foreign, 7, 42, 0),
                 "Assertion `63 >= INDEX_OF_ID\\( receiver \\)' failed");
}

TEST_F(Message, AReceiverOfAnEmptySlotIsAcceptedAndTheRecordGoesBack) {
    LogCapture log;
    const long nobody = (-100 * 256 + 63) * 256;
    CEvent* ev = get_event();
    put_event(ev);
    CMessage::Notify(id(), nobody, 7, 42, false);
    CMessage::NotifySerial(id(), nobody, 7, 42, 0);
    CMessage::NotifyClose(get_event(), nobody, handler);
    EXPECT_EQ(0u, log.lines().size()) << log.dump();
    CEvent* again = get_event();
    EXPECT_EQ(ev, again);
    EXPECT_EQ(nobody, again->m_receiver);
    put_event(again);
}

TEST_F(Message, ACloseMessageMeansTheHandlerThatPostedIt) {
    auto* stranger = new TestHandler;
    const std::shared_ptr<HandlerLife> its_life = stranger->life;
    CMessage::NotifyClose(get_event(), stranger->GetID(), handler);
    stranger->Notify(stranger->GetID(), 1, 0);
    EXPECT_EVENTUALLY(its_life->messages == 1);
    EXPECT_EQ(0, its_life->closes);
    closeAndWait(stranger);
}

TEST_F(Message, IdsBeyond32BitsAreValidReceivers) {
    // About 32,000 live objects take the counter there.
    LogCapture log;
    const long far = (-40000L * 256 + 0) * 256;
    ASSERT_GT(static_cast<int>(far), 0) << "as a 32-bit number it looks positive";
    CMessage::Notify(id(), far, 7, 42, false);
    CMessage::NotifySerial(id(), far, 7, 42, 0);
    EXPECT_EQ(0u, log.lines().size()) << log.dump();
}

TEST_F(Message, AMessageForSomebodyWhoIsGoneIsDroppedWithoutATrace) {
    auto* gone = new TestHandler;
    const std::shared_ptr<HandlerLife> goner = gone->life;
    const long old = gone->GetID();
    closeAndWait(gone);
    LogCapture log;
    CMessage::Notify(id(), old, 7, 42, false);
    CMessage::NotifySerial(id(), old, 7, 42, 0);
    handler->NotifySerial(id(), 1, 0, 0);  // after them
    EXPECT_EVENTUALLY(life->messages == 1);
    EXPECT_EQ(0, goner->messages);
    EXPECT_EQ(0u, log.countLevel(2)) << log.dump();
}

// ---- delivery ------------------------------------------------------------------------------------------

TEST_F(Message, WhatWasPostedArrives) {
    std::mutex mutex;
    std::vector<std::pair<unsigned int, long>> got;
    std::atomic<long> from{0};
    handler->on_message = [&](long sender, unsigned int msg, long attach) {
        std::lock_guard<std::mutex> guard(mutex);
        from = sender;
        got.emplace_back(msg, attach);
        return -1;  // has no meaning
    };
    CMessage::NotifySerial(-12345, id(), 0xFFFFFFFF, -1, 99);
    CMessage::NotifySerial(-12345, id(), 7, 0x7FFFFFFFFFFFFFFF, 0);
    CMessage::NotifySerial(-12345, id(), 12, 3, 0);  // from somebody else 12 is a number like any other
    EXPECT_EVENTUALLY(life->messages == 3);
    std::lock_guard<std::mutex> guard(mutex);
    EXPECT_EQ(-12345, from);
    EXPECT_EQ(
        (std::vector<std::pair<unsigned int, long>>{{0xFFFFFFFF, -1}, {7, 0x7FFFFFFFFFFFFFFF}, {12, 3}}),
        got);
}

TEST_F(Message, PostingToOneselfReturnsBeforeTheCall) {
    std::atomic<bool> returned{false};
    std::atomic<bool> seen{true};
    handler->on_message = [&](long, unsigned int msg, long) {
        if (msg == 1) {
            handler->NotifySerial(id(), 2, 0, 0);
            returned = true;
        } else {
            seen = returned.load();
        }
        return 0;
    };
    handler->NotifySerial(id(), 1, 0, 0);
    EXPECT_EVENTUALLY(life->messages == 2);
    EXPECT_TRUE(seen);
}

TEST_F(Message, TwoPlainMessagesToOneHandlerCanRunAtTheSameTime) {
    std::atomic<int> inside{0};
    handler->on_message = [&](long, unsigned int, long) {
        ++inside;
        EXPECT_EVENTUALLY(inside == 2);
        return 0;
    };
    handler->Notify(id(), 1, 0);
    handler->Notify(id(), 2, 0);
    EXPECT_EVENTUALLY(life->messages == 2);
}

TEST_F(Message, PlainMessagesStartInTheOrderOfPosting) {
    // With all workers but one in a long call, the remaining one starts them one by one.
    std::atomic<bool> go{false};
    std::atomic<int> busy{0};
    std::vector<long> order;
    handler->on_message = [&](long, unsigned int msg, long attach) {
        if (msg == 1) {
            ++busy;
            EXPECT_EVENTUALLY(go);
        } else {
            order.push_back(attach);
        }
        return 0;
    };
    for (int i = 0; i < WORKERS - 1; ++i) {
        handler->Notify(id(), 1, 0);
    }
    EXPECT_EVENTUALLY(busy == WORKERS - 1);
    for (long i = 0; i < 500; ++i) {
        handler->Notify(id(), 2, i);
    }
    EXPECT_EVENTUALLY(life->messages == 500);
    go = true;
    EXPECT_EVENTUALLY(life->messages == 500 + WORKERS - 1);
    for (long i = 0; i < 500; ++i) {
        ASSERT_EQ(i, order[static_cast<size_t>(i)]);
    }
}

TEST_F(Message, SerialMessagesOfAllReceiversRunOneAfterTheOther) {
    auto* other = new TestHandler;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::vector<long> order;  // guarded by the serial line itself
    auto body = [&](long, unsigned int, long attach) {
        overlapped = overlapped || ++inside > 1;
        order.push_back(attach);
        --inside;
        return 0;
    };
    handler->on_message = body;
    other->on_message = body;
    for (long i = 0; i < 2000; ++i) {
        handler->NotifySerial(i % 2 ? id() : other->GetID(), 1, i, 0);
    }
    EXPECT_EVENTUALLY(life->messages + other->life->messages == 2000);
    EXPECT_FALSE(overlapped);
    for (long i = 0; i < 2000; ++i) {
        ASSERT_EQ(i, order[static_cast<size_t>(i)]);
    }
    closeAndWait(other);
}

TEST_F(Message, SerialMessagesOfManySendersKeepEachSendersOrderAndAllArrive) {
    constexpr int SENDERS = 4;
    constexpr long EACH = 3000;
    std::vector<long> next(SENDERS, 0);
    bool ordered = true;
    handler->on_message = [&](long, unsigned int msg, long attach) {
        ordered = ordered && next[msg]++ == attach;
        return 0;
    };
    std::vector<std::thread> senders;
    for (unsigned int s = 0; s < SENDERS; ++s) {
        senders.emplace_back([&, s] {
            for (long i = 0; i < EACH; ++i) {
                CMessage::NotifySerial(-500, id(), s, i, 0);
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EVENTUALLY(life->messages == SENDERS * EACH);
    EXPECT_TRUE(ordered);
}

TEST_F(Message, ALongSerialMessageHoldsUpSerialMessagesAlone) {
    std::atomic<bool> inside{false};
    std::atomic<bool> go{false};
    handler->on_message = [&](long, unsigned int msg, long) {
        if (msg == 1) {
            inside = true;
            EXPECT_EVENTUALLY(go);
        }
        return 0;
    };
    auto* other = new TestHandler;
    handler->NotifySerial(id(), 1, 0, 0);
    EXPECT_EVENTUALLY(inside);
    other->NotifySerial(other->GetID(), 2, 0, 0);
    for (int i = 0; i < 10; ++i) {
        other->Notify(other->GetID(), 3, 0);
    }
    EXPECT_EVENTUALLY(other->life->messages == 10);
    EXPECT_EQ(0, life->messages);
    go = true;
    EXPECT_EVENTUALLY(other->life->messages == 11);
    closeAndWait(other);
}

TEST_F(Message, ThousandsOfMessagesFromManyThreadsArriveOnceEach) {
    constexpr int SENDERS = 4;
    constexpr long EACH = 5000;
    std::vector<std::atomic<int>> seen(SENDERS * EACH);
    handler->on_message = [&](long, unsigned int, long attach) {
        ++seen[static_cast<size_t>(attach)];
        return 0;
    };
    std::vector<std::thread> senders;
    for (long s = 0; s < SENDERS; ++s) {
        senders.emplace_back([&, s] {
            for (long i = 0; i < EACH; ++i) {
                CMessage::Notify(-500, id(), 1, s * EACH + i, false);
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EVENTUALLY(life->messages == SENDERS * EACH);
    for (const std::atomic<int>& count : seen) {
        ASSERT_EQ(1, count);
    }
}

TEST_F(Message, HandleMessageHoldsNoLockAndOneReferenceMore) {
    handler->on_message = [&](long, unsigned int, long) {
        EXPECT_EQ(2, HandlerProbe::references(*handler));
        EXPECT_FALSE(EventQueueProbe::mutex(pool().m_event).heldByThisThread());
        EXPECT_FALSE(ThreadPoolProbe::serialMutex(pool()).heldByThisThread());
        // Whatever takes the locks of the table and of the pool's slot works from in here.
        auto* child = new TestHandler;
        closeAndWait(child);
        return 0;
    };
    handler->NotifySerial(id(), 1, 0, 0);
    EXPECT_EVENTUALLY(life->messages == 1);
}

TEST_F(Message, AMessageForTheFileWorkersWaitsForOne) {
    handler->NotifyIO(id(), 5, 50);
    handler->Notify(id(), 6, 60);
    std::atomic<unsigned int> last{0};
    EXPECT_EVENTUALLY(life->messages == 1);
    std::thread::id runner;
    handler->on_message = [&](long, unsigned int msg, long attach) {
        last = msg;
        EXPECT_EQ(50, attach);
        runner = std::this_thread::get_id();
        return 0;
    };
    CMessage::HandleIOMessage();  // as a file worker does
    EXPECT_EQ(5u, last);
    EXPECT_EQ(std::this_thread::get_id(), runner);
}

// ---- the print flag ------------------------------------------------------------------------------------

TEST(MessagePrinting, TheCommandThreadpoolSwitchesTheLines) {
    ASSERT_NE(nullptr, g_r3_funcbox);
    const TFuncEntry* command = g_r3_funcbox->Find("threadpool");
    ASSERT_NE(nullptr, command);
    EXPECT_FALSE(CMessage::printing());
    command->func(1, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    EXPECT_TRUE(CMessage::printing());
    command->func(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    EXPECT_FALSE(CMessage::printing());
}

// Stands in for a debug server with a client.
struct PrintCapture {
    PrintCapture() {
        g_r3_print = [](CR3Daemon*, const char* text) {
            std::lock_guard<std::mutex> guard(mutex);
            lines.emplace_back(text);
        };
        g_r3_daemon = reinterpret_cast<CR3Daemon*>(&lines);
    }
    ~PrintCapture() { g_r3_daemon = nullptr; }

    static bool has(const std::string& expression) {
        std::lock_guard<std::mutex> guard(mutex);
        for (const std::string& line : lines) {
            if (std::regex_match(line, std::regex(expression))) {
                return true;
            }
        }
        return false;
    }

    static std::mutex mutex;
    static std::vector<std::string> lines;
};
std::mutex PrintCapture::mutex;
std::vector<std::string> PrintCapture::lines;

TEST(MessagePrinting, TheLinesOfMessagesAndTimersToTheLetter) {
    PrintCapture capture;
    g_r3_funcbox->Find("threadpool")->func(1, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* handler = new TestHandler;
    const std::shared_ptr<HandlerLife> life = handler->life;
    handler->Notify(handler->GetID(), 7, 42);
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(life->messages == 1 && life->timeouts == 1);
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    g_r3_funcbox->Find("threadpool")->func(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    const std::string start =
        "thread:[0-9]+, object:0x[0-9a-f]+,class:Orvex::Testing::TestHandler, handle message ";
    EXPECT_TRUE(PrintCapture::has(start + "begin at [0-9]+ us,msg:7,attach:42\n"));
    EXPECT_TRUE(PrintCapture::has(start + "end at [0-9]+ us,msg:7,attach:42\n"));
    EXPECT_TRUE(PrintCapture::has(start + "begin at [0-9]+ us\n"));
    EXPECT_TRUE(PrintCapture::has(start + "end at [0-9]+ us\n"));
}

}  // namespace
}  // namespace Orvex::Reticor
