// HandlerList: who is in it, in which state, and that walkers and handlers come and go beside each other.
#include "Core/handle/HandlerList.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "Core/handle/HandlerPin.h"
#include "support/PoolFixture.h"
#include "support/SeededRandom.h"
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

// ---- nodes without a handler ---------------------------------------------------------------------------

// What a list holds of a handler, by itself; its id is the test's number for it.
struct ListedNode : HandlerNode {
    explicit ListedNode(int64_t number) {
        m_entry.m_id = number;
        HandlerList::Enter(*this);
    }
    ~ListedNode() { HandlerList::Leave(*this); }
};

using Nodes = std::map<int64_t, std::unique_ptr<ListedNode>>;

std::multiset<int64_t> numbersListed() {
    std::multiset<int64_t> found;
    HandlerList::ForEach([&](const HandlerFacts& facts) { found.insert(facts.id); });
    return found;
}

std::multiset<int64_t> numbersOf(const Nodes& nodes) {
    std::multiset<int64_t> numbers;
    for (const auto& [number, node] : nodes) {
        numbers.insert(number);
    }
    return numbers;
}

TEST(HandlerList, AnyMixOfComingAndGoingMatchesASet) {
    SeededRandom random;
    Nodes nodes;
    int64_t next = 1;
    for (int round = 0; round < 60; ++round) {
        const bool grows = random.oneIn(2);
        for (int i = random.between(1, 400); i > 0; --i) {
            if (nodes.empty() || random.oneIn(grows ? 4 : 2) == false) {
                nodes.emplace(next, std::make_unique<ListedNode>(next));
                ++next;
            } else {
                const auto any = nodes.lower_bound(random.between<int64_t>(1, next));
                nodes.erase(any != nodes.end() ? any : nodes.begin());
            }
        }
        ASSERT_EQ(numbersOf(nodes), numbersListed());
    }
}

TEST(HandlerList, FactsAreThoseOfTheMoment) {
    const uint32_t before = HandlerList::NowMs();
    ListedNode node(12);
    HandlerFacts seen{};
    const auto look = [&] { HandlerList::ForEach([&](const HandlerFacts& facts) { seen = facts; }); };
    look();
    EXPECT_EQ(12, seen.id);
    EXPECT_EQ(ClassRows::NOT_CALLED, seen.row);
    EXPECT_EQ(HandlerState::OPEN, seen.state);
    EXPECT_EQ(0, seen.references);
    EXPECT_FALSE(seen.dropped_soon);
    EXPECT_LE(seen.born_ms - before, HandlerList::NowMs() - before);
    HandlerList::SetClass(node, &node, ThreadCounts::offset_of(77));
    node.m_ref = 3;
    node.m_sock = 2;
    node.m_drop_listed = true;
    look();
    EXPECT_EQ(77u, seen.row);
    EXPECT_EQ(3, seen.references);
    EXPECT_EQ(2, seen.sockets);
    EXPECT_TRUE(seen.dropped_soon);
    node.__m_magic = HANDLER_CLOSED;
    look();
    EXPECT_EQ(HandlerState::CLOSING, seen.state);
    node.m_detached = true;
    look();
    EXPECT_EQ(HandlerState::DETACHED, seen.state);
    node.m_close_called = 1;
    look();
    EXPECT_EQ(HandlerState::RELEASED, seen.state);
}

// The visitor runs with no lock held: it may end handlers and make new ones.
TEST(HandlerList, AVisitorMayChangeTheListUnderItsFeet) {
    Nodes nodes;
    for (int64_t number = 1; number <= 1000; ++number) {
        nodes.emplace(number, std::make_unique<ListedNode>(number));
    }
    std::map<int64_t, int> seen;
    HandlerList::ForEach([&](const HandlerFacts& facts) {
        ++seen[facts.id];
        if (facts.id <= 1000) {
            nodes.erase(facts.id % 2 == 0 ? facts.id : -1);
            nodes.emplace(1000 + facts.id, std::make_unique<ListedNode>(1000 + facts.id));
        }
    });
    for (int64_t number = 1; number <= 1000; ++number) {
        ASSERT_EQ(1, seen[number]) << "from the beginning to its own visit it was there";
        ASSERT_LE(seen[1000 + number], 1);
    }
    EXPECT_EQ(numbersOf(nodes), numbersListed());
}

TEST(HandlerList, AWalkInsideOfAWalkSeesAllToo) {
    Nodes nodes;
    for (int64_t number = 1; number <= 150; ++number) {
        nodes.emplace(number, std::make_unique<ListedNode>(number));
    }
    int inner_walks = 0;
    std::multiset<int64_t> outer;
    HandlerList::ForEach([&](const HandlerFacts& facts) {
        outer.insert(facts.id);
        if (facts.id % 50 == 0) {
            ++inner_walks;
            ASSERT_EQ(numbersOf(nodes), numbersListed());
        }
    });
    EXPECT_EQ(3, inner_walks);
    EXPECT_EQ(numbersOf(nodes), outer);
}

TEST(HandlerList, WalkersOfManyThreadsMeetHandlersThatGo) {
    Nodes stays;
    for (int64_t number = 1; number <= 300; ++number) {
        stays.emplace(number, std::make_unique<ListedNode>(number));
    }
    std::atomic<int> walking{2};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 40; ++round) {
                std::map<int64_t, int> seen;
                HandlerList::ForEach([&](const HandlerFacts& facts) { ++seen[facts.id]; });
                for (const auto& [number, node] : stays) {
                    EXPECT_EQ(1, seen[number]);
                }
            }
            --walking;
        });
    }
    for (int64_t number = 1000; walking > 0; ++number) {
        Nodes passing;
        for (int64_t i = 0; i < 20; ++i) {
            passing.emplace(number + i, std::make_unique<ListedNode>(number + i));
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace Orvex::Testing
