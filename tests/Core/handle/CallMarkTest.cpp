// CallMark and CallTime: what is seen of a call while it runs, and what is counted of it.
#include "Core/handle/CallMark.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "support/HandClock.h"
#include "support/PoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class MarkedHandler : public TestHandler {
    using TestHandler::TestHandler;
};

class CallMarkCases : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        ThreadCounts::Attach(-1);
        handler = new MarkedHandler;
    }
    void TearDown() override {
        closeAndWait(handler);
        PoolFixture::TearDown();
    }

    static uint64_t word() { return ThreadCounts::Mine().m_call.load(); }
    ClassTally& row() {
        return ThreadCounts::Mine().at_offset(HandlerInternal::Of(*handler).RowOffset(*handler));
    }

    TestHandler* handler = nullptr;
};

TEST_F(CallMarkCases, ShowsIdAndKindWhileTheCallRuns) {
    EXPECT_EQ(0u, word());
    for (const CallKind kind : {CallKind::INPUT, CallKind::MESSAGE, CallKind::OUTPUT_TIMEOUT}) {
        {
            const CallMark mark(*handler, kind);
            EXPECT_EQ(handler->GetID(), ThreadCounts::id_in(word()));
            EXPECT_EQ(kind, ThreadCounts::kind_in(word()));
        }
        EXPECT_EQ(0u, word());
    }
}

TEST_F(CallMarkCases, CountsInTheRowOfTheClassAsItBegins) {
    const uint64_t begun = ThreadCounts::Mine().m_begun.Get();
    EXPECT_EQ(0u, row().calls.Get());
    {
        const CallMark mark(*handler, CallKind::INPUT);
        EXPECT_EQ(1u, row().calls.Get()) << "a call that does not come back is counted";
        EXPECT_EQ(begun + 1, ThreadCounts::Mine().m_begun.Get());
    }
    {
        const CallMark mark(*handler, CallKind::INPUT);
        EXPECT_EQ(begun + 2, ThreadCounts::Mine().m_begun.Get()) << "tells two calls of one kind apart";
    }
    EXPECT_EQ(2u, row().calls.Get());
    EXPECT_EQ(0u, row().closed.Get());
    EXPECT_EQ(std::string("Orvex::Testing::(anonymous namespace)::MarkedHandler"),
              ClassRows::Name(ThreadCounts::row_at(HandlerInternal::Of(*handler).RowOffset(*handler))));
}

TEST_F(CallMarkCases, OtherThreadsSeeTheCall) {
    const CallMark mark(*handler, CallKind::TIMEOUT);
    const long id = handler->GetID();
    std::thread([id] {
        int found = 0;
        ThreadCounts::ForEach([&](const ThreadCounts& block) {
            const uint64_t seen = block.m_call.load();
            if (seen != 0 && ThreadCounts::id_in(seen) == id) {
                ++found;
                EXPECT_EQ(CallKind::TIMEOUT, ThreadCounts::kind_in(seen));
            }
        });
        EXPECT_EQ(1, found);
    }).join();
}

// An object may be closed inside a call: then handle_close shows, and after it the call again.
TEST_F(CallMarkCases, HandleCloseInsideACallShowsItselfAndThenTheCallAgain) {
    auto* const inner = new TestHandler;
    inner->AddRef();
    inner->Close();
    const long inner_id = inner->GetID();
    uint64_t in_close = 0;
    inner->on_close = [&] { in_close = word(); };
    EXPECT_EVENTUALLY(HandlerInternal::Of(*inner).m_detached.load() &&
                      HandlerInternal::Of(*inner).m_ref.load() == 1);
    const CallMark mark(*handler, CallKind::MESSAGE);
    const uint64_t outer = word();
    inner->DecRef();
    EXPECT_EQ(inner_id, ThreadCounts::id_in(in_close));
    EXPECT_EQ(CallKind::CLOSE, ThreadCounts::kind_in(in_close));
    EXPECT_EQ(outer, word());
}

TEST_F(CallMarkCases, TimeGoesToTheRowOfTheClass) {
    HandClock clock;
    {
        const CallTime time(*handler, Timing::NowNs());
        clock.advanceUs(70);
    }
    EXPECT_EQ(1u, row().timed.Get());
    EXPECT_EQ(70000u, row().time_ns.Get());
    EXPECT_EQ(0u, row().calls.Get());
}

TEST_F(CallMarkCases, ACallWithoutABeginningIsNotTimed) {
    { const CallTime time(*handler, 0); }
    EXPECT_EQ(0u, row().timed.Get());
    EXPECT_EQ(0u, row().time_ns.Get());
}

// The handler may be gone when its call ends.
TEST_F(CallMarkCases, TimeAndMarkNeedNoHandlerAtTheEnd) {
    HandClock clock;
    auto* const mortal = new MarkedHandler;
    const std::shared_ptr<HandlerLife> life = mortal->life;
    {
        const CallMark mark(*mortal, CallKind::MESSAGE);
        const CallTime time(*mortal, Timing::NowNs());
        mortal->Close();
        EXPECT_EVENTUALLY(life->deleted == 1 || (clock.advanceUs(500), false));
    }
    EXPECT_EQ(0u, word());
    EXPECT_EQ(1u, row().timed.Get());
}

}  // namespace
}  // namespace Orvex::Testing
