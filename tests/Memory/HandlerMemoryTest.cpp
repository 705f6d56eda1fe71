// CNetHandler while memory runs out: what fails says so, what is posted is dropped, and the handler goes on.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include <Reticor/Stats.h>

#include "Core/handle/HandlerInternal.h"
#include "support/PoolFixture.h"
#include "support/core/SocketPair.h"
#include "support/memory/MemorySweep.h"

namespace Orvex::Testing {
namespace {

using Reticor::CNetHandler;
using Reticor::CNetThread;

// Without memory of its own, and made in room of the test.
class Plain : public CNetHandler {
public:
    explicit Plain(int pool = 0) : CNetHandler(pool) {}
    using CNetHandler::Notify;
    using CNetHandler::RegisterSock;
    using CNetHandler::RemoveSock;
    using CNetHandler::SetTimer;
    int handle_close(CNetHandler*) override {
        ++closes;
        return 0;
    }
    std::atomic<int> closes{0};
};

class HandlerMemory : public PoolFixture {
protected:
    void SetUp() override {
        workers = 2;
        PoolFixture::SetUp();
        handler = new TestHandler;
        life = handler->life;
    }
    void TearDown() override {
        closeAndWait(handler);
        PoolFixture::TearDown();
    }

    void expectItWorks() {
        const int before = life->messages;
        handler->Notify(handler->GetID(), 1, 0);
        handler->NotifySerial(handler->GetID(), 1, 0, 0);
        EXPECT_EVENTUALLY(life->messages == before + 2);
    }

    TestHandler* handler = nullptr;
    std::shared_ptr<HandlerLife> life;
};

TEST_F(HandlerMemory, AHandlerWithoutMemoryForItsNotesGoesWithoutThem) {
    size_t with = 0;
    size_t without = 0;
    CNetThread::SetHolderNotes(true);
    sweep([&](size_t successes, Extent extent) {
        const NoRecords none;
        alignas(Plain) char room[sizeof(Plain)];
        Plain* made = nullptr;
        const Swept swept = withFault(successes, extent, [&] { made = new (room) Plain; });
        made->AddRef();
        made->DecRef();
        if (made->GetID() != 0) {
            const bool noted = Reticor::HandlerInternal::Of(*made).m_holders != nullptr;
            EXPECT_EQ(0u, swept.lines) << swept.text;
            ++(noted ? with : without);
            EXPECT_TRUE(noted || swept.hit);
        }
        made->Close();
        EXPECT_EVENTUALLY(made->closes == 1);
        made->~Plain();
        return swept.hit;
    });
    CNetThread::SetHolderNotes(false);
    EXPECT_LT(0u, with);
    EXPECT_LT(0u, without);
    expectItWorks();
}

TEST_F(HandlerMemory, AHandlerIsOpenOrClosedFromTheStart) {
    sweep([&](size_t successes, Extent extent) {
        const NoRecords none;
        alignas(Plain) char room[sizeof(Plain)];
        Plain* made = nullptr;
        const Swept swept = withFault(successes, extent, [&] { made = new (room) Plain; });
        SocketPair pair;
        made->AddRef();
        made->DecRef();
        EXPECT_EQ(0, made->closes);
        if (made->GetID() == 0) {
            EXPECT_TRUE(swept.hit);
            EXPECT_EQ(1u, swept.lines) << swept.text;
            EXPECT_EQ(-1, made->RegisterSock(pair.near, Reticor::SOCK_READ, 0));
            EXPECT_EQ(0, made->RemoveSock(pair.near));
            EXPECT_EQ(-1, made->SetTimer(5000));
            made->SetDefaultRcer(handler->GetID());
            made->Notify(handler->GetID(), 1, 0);
            made->Close();
            EXPECT_EQ(1, made->closes);
        } else {
            EXPECT_LT(made->GetID(), 0);
            EXPECT_EQ(0, made->RegisterSock(pair.near, Reticor::SOCK_READ, 0));
            EXPECT_EQ(0, made->RemoveSock(pair.near));
            made->Close();
        }
        EXPECT_EVENTUALLY(made->closes == 1);
        made->Close();
        EXPECT_EQ(1, made->closes);
        made->~Plain();
        return swept.hit;
    });
    expectItWorks();
}

// The worker is in the middle of dropping its reference when the count has gone up.
TEST_F(HandlerMemory, CloseNeedsNoMemory) {
    const std::shared_ptr<HandlerLife> its_life = std::make_shared<HandlerLife>();
    auto* const closed = new TestHandler(0, its_life);
    const NoRecords none;
    const Swept swept = withFault(0, Extent::ALL, [&] { closed->Close(); });
    EXPECT_FALSE(swept.hit);
    EXPECT_EVENTUALLY(its_life->closes == 1);
}

TEST_F(HandlerMemory, PostingDropsTheMessageAndSaysSoOnceASecond) {
    for (const int form : {0, 1, 2}) {
        SCOPED_TRACE(form);
        const int before = life->messages;
        const auto post = [&] {
            form == 0   ? handler->Notify(handler->GetID(), 7, 0)
            : form == 1 ? handler->NotifySerial(handler->GetID(), 7, 0, 0)
                        : handler->NotifyIO(handler->GetID(), 7, 0);
        };
        {
            const NoRecords none;
            const Swept swept = withFault(0, Extent::ALL, [&] {
                for (int i = 0; i < 100; ++i) {
                    post();
                }
            });
            EXPECT_TRUE(swept.hit);
            EXPECT_LE(swept.lines, 2u) << swept.text;
        }
        expectItWorks();
        EXPECT_EQ(before + 2, life->messages);
    }
}

TEST_F(HandlerMemory, TheFirstDroppedMessageIsToldAtOnce) {
    const NoRecords none;
    const Swept swept = withFault(0, Extent::ALL, [&] { handler->Notify(handler->GetID(), 7, 0); });
    EXPECT_TRUE(swept.hit);
    EXPECT_NE(std::string::npos, swept.text.find("CMessage, no memory, messages dropped: 1\n")) << swept.text;
}

TEST_F(HandlerMemory, ARegistrationIsMadeOrRefused) {
    sweep([&](size_t successes, Extent extent) {
        const NoRecords none;
        std::vector<std::unique_ptr<SocketPair>> pairs;
        for (int i = 0; i < 12; ++i) {  // more than a node of the tree holds
            pairs.push_back(std::make_unique<SocketPair>());
        }
        std::vector<int> results(pairs.size(), 1);
        const Swept swept = withFault(successes, extent, [&] {
            for (size_t i = 0; i < pairs.size(); ++i) {
                results[i] = handler->RegisterSock(pairs[i]->near, Reticor::SOCK_READ, 0);
            }
        });
        size_t refused = 0;
        for (const int result : results) {
            EXPECT_TRUE(result == 0 || result == -1);
            refused += result == -1 ? 1 : 0;
        }
        EXPECT_EQ(refused, swept.lines) << swept.text;
        EXPECT_EQ(swept.hit, refused > 0);
        for (const auto& pair : pairs) {
            EXPECT_EQ(0, handler->RegisterSock(pair->near, Reticor::SOCK_READ, 0));
        }
        EXPECT_EQ(static_cast<int>(pairs.size()), CNetThread::TraversalSock());
        for (const auto& pair : pairs) {
            EXPECT_EQ(0, handler->RemoveSock(pair->near));
        }
        EXPECT_EQ(0, CNetThread::TraversalSock());
        return swept.hit;
    });
    expectItWorks();
}

TEST_F(HandlerMemory, ATimerIsArmedOrRefused) {
    handler->on_timeout = [](long) { return int64_t{-1}; };
    sweep([&](size_t successes, Extent extent) {
        const NoRecords none;
        const int before = life->timeouts;
        // Near and far, and more than one chunk of places.
        std::vector<long> ids(3000, 0);
        const Swept swept = withFault(successes, extent, [&] {
            for (size_t i = 0; i < ids.size(); ++i) {
                ids[i] = handler->SetTimer(i == 0 ? 3000 : static_cast<int64_t>(i % 40) * 1000000000);
            }
        });
        size_t refused = 0;
        for (const long id : ids) {
            EXPECT_TRUE(id == -1 || id < -101) << id;
            refused += id == -1 ? 1 : 0;
        }
        EXPECT_EQ(refused, swept.lines) << swept.text.substr(0, 500);
        for (size_t i = 40; i < ids.size(); ++i) {
            handler->DestroyTimer(ids[i]);
        }
        for (size_t i = 1; i < 40; ++i) {
            handler->DestroyTimer(ids[i]);
        }
        EXPECT_LT(handler->SetTimer(3000), -101);
        EXPECT_EVENTUALLY(life->timeouts > before);
        return swept.hit;
    });
    expectItWorks();
}

TEST_F(HandlerMemory, TheListOfSocketsIsWholeOrSaysThatItIsNot) {
    std::vector<std::unique_ptr<SocketPair>> pairs;
    for (int i = 0; i < 40; ++i) {
        pairs.push_back(std::make_unique<SocketPair>());
        ASSERT_EQ(0, handler->RegisterSock(pairs.back()->near, Reticor::SOCK_READ, 0));
    }
    sweep([&](size_t successes, Extent extent) {
        int listed = -1;
        const Swept swept = withFault(successes, extent, [&] { listed = CNetThread::TraversalSock(); });
        EXPECT_EQ(listed == 40 ? 0u : 1u, swept.lines) << swept.text;
        EXPECT_EQ(swept.hit, listed < 40);
        return swept.hit;
    });
    for (const auto& pair : pairs) {
        EXPECT_EQ(0, handler->RemoveSock(pair->near));
    }
}

// The records that the library's own threads need come out of the reserve.
TEST_F(HandlerMemory, TimersGoOnWhileThereIsNoMemory) {
    handler->on_timeout = [](long) { return int64_t{0}; };
    ASSERT_NE(-1, handler->SetTimer(3000));
    {
        const NoRecords none;
        MemoryFault fault(Whose::OTHERS, Extent::ALL);
        const int before = life->timeouts;
        EXPECT_EVENTUALLY(life->timeouts > before + 20);
        fault.end();
    }
    const int before = life->timeouts;
    EXPECT_EVENTUALLY(life->timeouts > before + 20);
}

bool daemonHasBeat() {
    Reticor::CStats stats;
    Reticor::PoolStats pool;
    return stats.Take() == 0 && stats.GetPool(0, pool) == 0 && pool.heartbeats > 0;
}

// With the reserve used up they wait until there is memory.
TEST_F(HandlerMemory, ATimerThatFindsNoRecordRunsWhenThereIsOne) {
    EXPECT_EVENTUALLY(daemonHasBeat());  // It fills the reserve up, now and five seconds later.
    {
        const NoRecords none;
        std::vector<Reticor::CEvent*> reserve;
        reserve.reserve(1000);
        MemoryFault own(Whose::OWN, Extent::ALL);
        while (Reticor::CEvent* const ev = Reticor::get_event_reserved()) {
            reserve.push_back(ev);
        }
        own.end();
        EXPECT_FALSE(reserve.empty());
        // First the fault: on a busy machine the timer may be due at once.
        MemoryFault fault(Whose::OTHERS, Extent::ALL);
        ASSERT_NE(-1, handler->SetTimer(3000));
        EXPECT_EVENTUALLY(MemoryFault::hit());
        EXPECT_EQ(0, life->timeouts);
        fault.end();
        EXPECT_EVENTUALLY(life->timeouts == 1);
        for (Reticor::CEvent* const ev : reserve) {
            Reticor::put_event(ev);
        }
    }
    expectItWorks();
}

// A handler that posts, registers and arms on a worker without memory gets the same results there.
TEST_F(HandlerMemory, WorkersGoOnWhenTheirHandlersFindNoMemory) {
    SocketPair pair;
    std::atomic<int> refused{0};
    handler->on_message = [&](long, unsigned int msg, long) {
        if (msg == 2) {
            refused += handler->RegisterSock(pair.near, Reticor::SOCK_READ, 0) == -1 ? 1 : 0;
            refused += handler->SetTimer(10000000) == -1 ? 1 : 0;
            handler->Notify(handler->GetID(), 3, 0);
            handler->RemoveSock(pair.near);
        }
        return 0;
    };
    for (size_t successes = 0; successes < 10; ++successes) {
        const int before = life->messages;
        MemoryFault fault(Whose::OTHERS, Extent::ALL, successes);
        handler->Notify(handler->GetID(), 2, 0);
        EXPECT_EVENTUALLY(life->messages > before);
        fault.end();
        EXPECT_EVENTUALLY(life->messages > before);
    }
    EXPECT_GT(refused, 0);
    const int before = life->messages;
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(life->messages > before);
}

}  // namespace
}  // namespace Orvex::Testing
