// HandlerInternal: the control block of a handler, the shared one of handlers without memory, references.
#include "Core/handle/HandlerInternal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Core/record/EventFreeList.h"
#include "support/PoolFixture.h"
#include "support/core/DrainedRecords.h"

namespace Orvex::Testing {

// Notes its row while it is still of its base's class.
struct RowTeller : TestHandler {
    RowTeller() : row_in_base(rowNow()) {}
    uint32_t rowNow() {
        return Reticor::ThreadCounts::row_at(Reticor::HandlerInternal::Of(*this).RowOffset(*this));
    }
    const uint32_t row_in_base;
};

struct DerivedRowTeller final : RowTeller {};

namespace {

using namespace Reticor;

size_t handlersListed() {
    size_t count = 0;
    HandlerList::ForEach([&](const HandlerFacts&) { ++count; });
    return count;
}

// ---- life of a control block

TEST(HandlerInternal, ANewOneIsOpenListedAndHasNoIdYet) {
    HandlerInternal* const internal = HandlerInternal::Create(nullptr);
    EXPECT_FALSE(internal->IsNone());
    EXPECT_TRUE(internal->IsOpen());
    EXPECT_EQ(0, internal->GetID());
    EXPECT_EQ(0, internal->m_ref.load());
    EXPECT_EQ(0, internal->m_sock.load());
    EXPECT_EQ(0, internal->m_default_rcer.load());
    EXPECT_EQ(0, internal->m_close_called.load());
    EXPECT_EQ(1u, handlersListed());
    HandlerInternal::Destroy(internal);
    EXPECT_EQ(0u, handlersListed());
}

TEST(HandlerInternal, OneThatWasNeverClosedGivesTheRecordOfItsCloseMessageBack) {
    HandlerInternal* const internal = HandlerInternal::Create(nullptr);
    CEvent* const record = internal->m_close_event;
    ASSERT_NE(nullptr, record);
    HandlerInternal::Destroy(internal);
    CEvent* const next = get_event();
    EXPECT_EQ(record, next);
    put_event(next);
}

TEST(HandlerInternal, OneThatWasClosedLeavesTheRecordToTheMessage) {
    HandlerInternal* const internal = HandlerInternal::Create(nullptr);
    CEvent* const record = internal->m_close_event;
    internal->__m_magic = HANDLER_CLOSED;
    HandlerInternal::Destroy(internal);
    CEvent* const next = get_event();
    EXPECT_NE(record, next);
    put_event(record);
    put_event(next);
}

TEST(HandlerInternal, WithoutMemoryForTheRecordItIsTheSharedOne) {
    const DrainedRecords drained;
    HandlerInternal* internal = nullptr;
    {
        const NoMemory no_memory;
        internal = HandlerInternal::Create(nullptr);
    }
    EXPECT_EQ(HandlerInternal::None(), internal);
    EXPECT_EQ(0u, handlersListed());
}

TEST(HandlerInternal, WithoutMemoryForItselfItGivesTheRecordBack) {
    CEvent* const record = get_event();
    put_event(record);
    HandlerInternal* internal = nullptr;
    {
        const NoMemory no_memory;
        internal = HandlerInternal::Create(nullptr);
    }
    EXPECT_EQ(HandlerInternal::None(), internal);
    CEvent* const next = get_event();
    EXPECT_EQ(record, next);
    put_event(next);
    EXPECT_EQ(0u, handlersListed());
}

// ---- the shared one

TEST(HandlerInternal, TheSharedOneIsClosedWithoutAnIdAndOutlivesItsHandlers) {
    HandlerInternal* const none = HandlerInternal::None();
    EXPECT_TRUE(none->IsNone());
    EXPECT_FALSE(none->IsOpen());
    EXPECT_EQ(0, none->GetID());
    EXPECT_EQ(nullptr, none->m_close_event);
    HandlerInternal::Destroy(none);
    HandlerInternal::Destroy(none);
    EXPECT_TRUE(HandlerInternal::None()->IsNone());
    EXPECT_EQ(0u, handlersListed());
}

// Many handlers refer to it, so no last reference may call any of them.
TEST(HandlerInternal, ReferencesOnTheSharedOneCallNobody) {
    HandlerInternal* const none = HandlerInternal::None();
    const int64_t before = none->m_ref.load();
    EXPECT_FALSE(none->EnterOpen());
    EXPECT_EQ(before, none->m_ref.load());
    none->AddRef();
    none->DecRef();
    EXPECT_EQ(before, none->m_ref.load());
}

TEST(HandlerInternal, AHandlerWithTheSharedOneIsClosedOnce) {
    HandlerInternal* first = HandlerInternal::None();
    HandlerInternal* second = HandlerInternal::None();
    EXPECT_TRUE(HandlerInternal::CloseNone(first));
    EXPECT_FALSE(HandlerInternal::CloseNone(first));
    EXPECT_TRUE(first->IsNone());
    EXPECT_FALSE(first->IsOpen());
    EXPECT_TRUE(HandlerInternal::CloseNone(second)) << "each of them by itself";
    HandlerInternal::Destroy(first);
    EXPECT_TRUE(HandlerInternal::None()->IsNone());
    HandlerInternal* own = HandlerInternal::Create(nullptr);
    HandlerInternal* const before = own;
    EXPECT_FALSE(HandlerInternal::CloseNone(own)) << "it has a way of its own to be closed";
    EXPECT_EQ(before, own);
    HandlerInternal::Destroy(own);
}

TEST(HandlerInternal, OfManyThreadsThatCloseAHandlerWithTheSharedOneOneCallsIt) {
    for (int round = 0; round < 200; ++round) {
        HandlerInternal* internal = HandlerInternal::None();
        std::atomic<int> first{0};
        std::atomic<int> ready{0};
        std::vector<std::thread> closers;
        for (int i = 0; i < 3; ++i) {
            closers.emplace_back([&] {
                ++ready;
                while (ready < 3) {
                    std::this_thread::yield();
                }
                first += HandlerInternal::CloseNone(internal) ? 1 : 0;
            });
        }
        for (std::thread& closer : closers) {
            closer.join();
        }
        ASSERT_EQ(1, first);
    }
}

// ---- references, on handlers of a pool

class HandlerInternalOfPool : public PoolFixture {
protected:
    static HandlerInternal& of(TestHandler* handler) { return HandlerInternal::Of(*handler); }

    // Closed, found by nobody, and with a reference of the test's.
    static TestHandler* detached() {
        auto* const handler = new TestHandler;
        handler->keep_after_close = true;
        of(handler).AddRef();
        handler->Close();
        EXPECT_EVENTUALLY(of(handler).m_detached.load() && of(handler).m_ref.load() == 1);
        return handler;
    }
};

TEST_F(HandlerInternalOfPool, AReferenceIsTakenOnAnOpenHandlerOnly) {
    auto* const handler = new TestHandler;
    EXPECT_TRUE(of(handler).EnterOpen());
    EXPECT_EQ(2, of(handler).m_ref.load());
    of(handler).DecRef();
    EXPECT_EQ(1, of(handler).m_ref.load());
    closeAndWait(handler);
    TestHandler* const closed = detached();
    EXPECT_FALSE(of(closed).EnterOpen());
    EXPECT_EQ(1, of(closed).m_ref.load());
    of(closed).DecRef();
    delete closed;
}

// Whoever tries late may have the last reference for a moment; then its return is what calls.
TEST_F(HandlerInternalOfPool, AnEnterThatCameTooLateCallsHandleCloseIfItWasTheLast) {
    TestHandler* const handler = detached();
    of(handler).m_ref = 0;  // as if the other references went while EnterOpen held its own
    EXPECT_FALSE(of(handler).EnterOpen());
    EXPECT_EQ(1, handler->life->closes);
    delete handler;
}

TEST_F(HandlerInternalOfPool, HandleCloseIsCalledOnceHoweverOftenTheLastReferenceGoes) {
    TestHandler* const handler = detached();
    of(handler).DecRef();
    EXPECT_EQ(1, handler->life->closes);
    EXPECT_EQ(1, of(handler).m_close_called.load());
    of(handler).AddRef();
    of(handler).DecRef();
    EXPECT_EQ(1, handler->life->closes);
    delete handler;
}

TEST_F(HandlerInternalOfPool, ThreadsThatEnterWhileItIsClosedEndItOnce) {
    for (int round = 0; round < 50; ++round) {
        auto* const handler = new TestHandler;
        const std::shared_ptr<HandlerLife> life = handler->life;
        of(handler).AddRef();
        of(handler).AddRef();
        std::vector<std::thread> users;
        for (int i = 0; i < 2; ++i) {
            users.emplace_back([handler] {
                while (of(handler).EnterOpen()) {
                    of(handler).DecRef();
                    std::this_thread::yield();
                }
                of(handler).DecRef();
            });
        }
        handler->Close();
        for (std::thread& user : users) {
            user.join();
        }
        EXPECT_EVENTUALLY(life->deleted == 1 && life->closes == 1);  // in this order
    }
}

TEST_F(HandlerInternalOfPool, SocketsAreCountedBesideReferences) {
    auto* const handler = new TestHandler;
    of(handler).AddSock();
    of(handler).AddSock();
    of(handler).DecSock();
    EXPECT_EQ(1, of(handler).m_sock.load());
    EXPECT_EQ(1, of(handler).m_ref.load());
    of(handler).DecSock();
    closeAndWait(handler);
}

TEST_F(HandlerInternalOfPool, ADiscardedHandlerIsClosedWhateverItsCloseDoes) {
    struct Stubborn : TestHandler {
        void Close() override { ++own_closes; }
        int own_closes = 0;
    };
    auto* const handler = new Stubborn;
    const std::shared_ptr<HandlerLife> life = handler->life;
    HandlerInternal::Discard(handler);
    EXPECT_EVENTUALLY(life->deleted == 1);
}

// ---- rows of classes

TEST_F(HandlerInternalOfPool, ObjectsOfAClassShareItsRow) {
    auto* const first = new TestHandler;
    auto* const second = new TestHandler;
    const uint32_t row = ThreadCounts::row_at(of(first).RowOffset(*first));
    EXPECT_EQ(row, ThreadCounts::row_at(of(second).RowOffset(*second)));
    EXPECT_EQ(of(first).RowOffset(*first), of(first).RowOffset(*first));
    EXPECT_STREQ("Orvex::Testing::TestHandler", ClassRows::Name(row));
    closeAndWait(first);
    closeAndWait(second);
}

TEST_F(HandlerInternalOfPool, TheRowFollowsTheClassOfTheObject) {
    auto* const handler = new DerivedRowTeller;
    EXPECT_STREQ("Orvex::Testing::RowTeller", ClassRows::Name(handler->row_in_base));
    EXPECT_STREQ("Orvex::Testing::DerivedRowTeller", ClassRows::Name(handler->rowNow()));
    EXPECT_NE(handler->row_in_base, handler->rowNow());
    closeAndWait(handler);
}

TEST_F(HandlerInternalOfPool, ThreadsThatAskForTheFirstTimeTogetherAgree) {
    for (int round = 0; round < 100; ++round) {
        auto* const handler = new TestHandler;
        std::vector<uint32_t> offsets(3);
        std::vector<std::thread> askers;
        for (uint32_t& offset : offsets) {
            askers.emplace_back([&offset, handler] { offset = of(handler).RowOffset(*handler); });
        }
        for (std::thread& asker : askers) {
            asker.join();
        }
        EXPECT_EQ(offsets[0], offsets[1]);
        EXPECT_EQ(offsets[0], offsets[2]);
        EXPECT_NE(ThreadCounts::offset_of(ClassRows::NOT_CALLED), offsets[0]);
        handler->Close();
    }
}

}  // namespace
}  // namespace Orvex::Testing
