// HandlerDrops: references that wait until a lock is left.
#include "Core/handle/HandlerDrops.h"

#include <gtest/gtest.h>

#include <vector>

#include "Core/pool/PoolTable.h"
#include "support/PoolFixture.h"

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

}  // namespace
}  // namespace Orvex::Reticor
