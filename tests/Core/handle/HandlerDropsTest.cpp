// HandlerDrops: references that wait until a lock is left.
#include "Core/handle/HandlerDrops.h"

#include <gtest/gtest.h>

#include <vector>

#include "Core/pool/PoolTable.h"
#include "support/PoolFixture.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandlerLife;
using Testing::PoolFixture;
using Testing::TestHandler;

class HandlerDropsCases : public PoolFixture {
protected:
    // A handler on which the test holds the last reference.
    TestHandler* closedHandler() {
        auto* handler = new TestHandler;
        handler->AddRef();
        handler->Close();
        EXPECT_EVENTUALLY(!PoolTable::FindHandler(handler->GetID()));
        return handler;
    }
};

TEST_F(HandlerDropsCases, DropsInOrderWhenItGoes) {
    std::vector<int> closed;
    {
        HandlerDrops drops;
        for (int i = 0; i < 3; ++i) {
            TestHandler* const handler = closedHandler();
            handler->on_close = [&closed, i] { closed.push_back(i); };
            drops.Take(HandlerPin::Adopt(handler));
        }
        drops.Take(HandlerPin());
        EXPECT_TRUE(closed.empty());
    }
    EXPECT_EQ((std::vector<int>{0, 1, 2}), closed);
}

TEST_F(HandlerDropsCases, TakesTwoReferencesOnOneHandler) {
    TestHandler* const handler = closedHandler();
    const std::shared_ptr<HandlerLife> life = handler->life;
    {
        HandlerDrops drops;
        drops.Take(HandlerPin::Take(handler));
        drops.Take(HandlerPin::Adopt(handler));
        EXPECT_EQ(0, life->closes);
    }
    EXPECT_EQ(1, life->closes);
}

TEST_F(HandlerDropsCases, SaysOfAHandlerThatItWillBeDropped) {
    TestHandler* const handler = closedHandler();
    const int64_t id = handler->GetID();
    const auto dropsSoon = [id] {
        bool soon = false;
        HandlerList::ForEach(
            [&](const HandlerFacts& facts) { soon = soon || (facts.id == id && facts.dropped_soon); });
        return soon;
    };
    HandlerPin kept = HandlerPin::Take(handler);
    EXPECT_FALSE(dropsSoon());
    {
        HandlerDrops drops;
        drops.Take(HandlerPin::Adopt(handler));
        EXPECT_TRUE(dropsSoon());
    }
    EXPECT_FALSE(dropsSoon());
}

// It stands between a lock and memory: no more of either is taken.
TEST_F(HandlerDropsCases, TakesAnyNumberWithoutMemoryAndKeepsTheirOrder) {
    constexpr int MANY = 300;
    std::vector<int> closed;
    closed.reserve(MANY);
    std::vector<TestHandler*> handlers;
    for (int i = 0; i < MANY; ++i) {
        handlers.push_back(closedHandler());
        handlers.back()->on_close = [&closed, i] { closed.push_back(i); };
    }
    {
        HandlerDrops drops;
        const Testing::NoMemory no_memory;
        for (TestHandler* handler : handlers) {
            drops.Take(HandlerPin::Adopt(handler));
        }
    }
    ASSERT_EQ(static_cast<size_t>(MANY), closed.size());
    for (int i = 0; i < MANY; ++i) {
        ASSERT_EQ(i, closed[static_cast<size_t>(i)]);
    }
}

// handle_close may itself have references to drop, and a handler can be listed again once it was dropped.
TEST_F(HandlerDropsCases, HandleCloseMayDropOthers) {
    TestHandler* const outer = closedHandler();
    TestHandler* const inner = closedHandler();
    TestHandler* const kept = closedHandler();
    kept->AddRef();
    const std::shared_ptr<HandlerLife> inner_life = inner->life;
    const std::shared_ptr<HandlerLife> kept_life = kept->life;
    outer->on_close = [&] {
        HandlerDrops drops;
        drops.Take(HandlerPin::Adopt(inner));
        drops.Take(HandlerPin::Adopt(kept));
        EXPECT_EQ(0, inner_life->closes);
    };
    {
        HandlerDrops drops;
        drops.Take(HandlerPin::Adopt(kept));
        drops.Take(HandlerPin::Adopt(outer));
    }
    EXPECT_EQ(1, inner_life->closes);
    EXPECT_EQ(1, kept_life->closes);
}

TEST_F(HandlerDropsCases, AHandlerThatOthersHoldIsNotEnded) {
    TestHandler* const handler = closedHandler();
    const std::shared_ptr<HandlerLife> life = handler->life;
    HandlerPin kept = HandlerPin::Take(handler);
    {
        HandlerDrops drops;
        drops.Take(HandlerPin::Adopt(handler));
    }
    EXPECT_EQ(0, life->closes);
    EXPECT_EQ(1, HandlerInternal::Of(*handler).m_ref.load());
    kept = HandlerPin();
    EXPECT_EQ(1, life->closes);
}

}  // namespace
}  // namespace Orvex::Reticor
