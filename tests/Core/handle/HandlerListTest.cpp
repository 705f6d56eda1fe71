// HandlerList: who is in it, in which state, and that walkers and handlers come and go beside each other.
#include "Core/handle/HandlerList.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <thread>
#include <vector>

#include "Core/handle/HandlerPin.h"
#include "support/PoolFixture.h"
#include "support/core/Gate.h"
#include "support/core/Probes.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

std::map<int64_t, HandlerFacts> listed() {
    std::map<int64_t, HandlerFacts> found;
    HandlerList::ForEach([&](const HandlerFacts& facts) { found[facts.id] = facts; });
    return found;
}

class HandlerListOfPool : public PoolFixture {};

TEST_F(HandlerListOfPool, TellsTheStateOfAHandlerUntilItIsDestroyed) {
    auto* handler = new TestHandler;
    handler->keep_after_close = true;
    const std::shared_ptr<HandlerLife> life = handler->life;
    const int64_t id = handler->GetID();
    EXPECT_EQ(HandlerState::OPEN, listed().at(id).state);
    EXPECT_EQ(1, listed().at(id).references);
    handler->AddRef();
    handler->Close();
    EXPECT_EVENTUALLY(listed().at(id).state == HandlerState::DETACHED);
    EXPECT_EVENTUALLY(listed().at(id).references == 1);
    handler->DecRef();
    EXPECT_EQ(1, life->closes);
    EXPECT_EQ(HandlerState::RELEASED, listed().at(id).state);
    delete handler;
    EXPECT_EQ(0u, listed().count(id));
}

TEST_F(HandlerListOfPool, ClosedAndNotTakenYetIsClosing) {
    // The workers are held in calls, so nobody takes the close message.
    Gate gate;
    auto* holder = new TestHandler;
    holder->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    const int all = ThreadPoolProbe::workers(*PoolTable::Get(0));
    for (int i = 0; i < all; ++i) {
        holder->Notify(holder->GetID(), 100, 0);
    }
    ASSERT_TRUE(gate.awaitArrivals(all));
    auto* handler = new TestHandler;
    handler->keep_after_close = true;
    const int64_t id = handler->GetID();
    handler->Close();
    EXPECT_EQ(HandlerState::CLOSING, listed().at(id).state);
    gate.open();
    EXPECT_EVENTUALLY(handler->life->closes == 1);
    delete handler;
    closeAndWait(holder);
}

// More than one step of a walker in each list, while others come and go.
TEST_F(HandlerListOfPool, AWalkSeesWhoStaysOnceWhileOthersComeAndGo) {
    constexpr size_t STAY = 3000;
    std::vector<TestHandler*> handlers;
    std::set<int64_t> ids;
    for (size_t i = 0; i < STAY; ++i) {
        handlers.push_back(new TestHandler);
        ids.insert(handlers.back()->GetID());
    }
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop) {
            closeAndWait(new TestHandler);
        }
    });
    for (int round = 0; round < 20; ++round) {
        std::map<int64_t, int> seen;
        HandlerList::ForEach([&](const HandlerFacts& facts) { ++seen[facts.id]; });
        for (const int64_t id : ids) {
            ASSERT_EQ(1, seen[id]);
        }
    }
    stop = true;
    other.join();
    for (TestHandler* handler : handlers) {
        handler->Close();
    }
    EXPECT_EVENTUALLY(listed().size() <= 1);  // the library's own one is left
}

}  // namespace
}  // namespace Orvex::Testing
