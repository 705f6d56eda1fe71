// HandlerPin: a reference that ends with its scope.
#include "Core/handle/HandlerPin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/PoolFixture.h"
#include "support/SeededRandom.h"
#include "support/core/Probes.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

static_assert(!std::is_copy_constructible_v<HandlerPin> && !std::is_copy_assignable_v<HandlerPin>,
              "one pin, one reference");
static_assert(std::is_nothrow_move_constructible_v<HandlerPin> &&
              std::is_nothrow_move_assignable_v<HandlerPin>);

class HandlerPinCases : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        handler = new TestHandler;
        life = handler->life;
    }
    void TearDown() override {
        if (life->closes == 0) {
            closeAndWait(handler);
        }
        PoolFixture::TearDown();
    }

    int64_t references() { return HandlerInternal::Of(*handler).m_ref.load(); }

    // The pool's own reference goes; ours keep the handler.
    void closeUnderPins(int64_t pins) {
        handler->Close();
        EXPECT_EVENTUALLY(HandlerInternal::Of(*handler).m_detached.load() && references() == pins);
    }

    TestHandler* handler = nullptr;
    std::shared_ptr<HandlerLife> life;
};

TEST_F(HandlerPinCases, EmptyOnesHoldNothing) {
    HandlerPin empty;
    EXPECT_FALSE(empty);
    EXPECT_EQ(nullptr, empty.get());
    EXPECT_EQ(nullptr, empty.Release());
    HandlerPin other = std::move(empty);
    EXPECT_FALSE(other);
    other = HandlerPin();
    EXPECT_FALSE(other);
}

TEST_F(HandlerPinCases, TakesAReferenceOfItsOwnAndGivesItBack) {
    EXPECT_EQ(1, references());
    {
        const HandlerPin pin = HandlerPin::Take(handler);
        EXPECT_EQ(2, references());
        EXPECT_TRUE(pin);
        EXPECT_EQ(handler, pin.get());
        EXPECT_EQ(handler->GetID(), pin->GetID());
        const HandlerPin second = HandlerPin::Take(handler);
        EXPECT_EQ(3, references());
    }
    EXPECT_EQ(1, references());
}

TEST_F(HandlerPinCases, AdoptsAReferenceAndReleasesIt) {
    handler->AddRef();
    CNetHandler* released = nullptr;
    {
        HandlerPin pin = HandlerPin::Adopt(handler);
        EXPECT_EQ(2, references());
        released = pin.Release();
        EXPECT_FALSE(pin);
        EXPECT_EQ(nullptr, pin.Release()) << "once";
    }
    EXPECT_EQ(handler, released);
    EXPECT_EQ(2, references());
    { const HandlerPin pin = HandlerPin::Adopt(released); }
    EXPECT_EQ(1, references());
}

TEST_F(HandlerPinCases, AMoveCarriesTheReferenceAndCountsNothing) {
    HandlerPin first = HandlerPin::Take(handler);
    HandlerPin second = std::move(first);
    EXPECT_EQ(2, references());
    EXPECT_EQ(nullptr, first.get());
    EXPECT_EQ(handler, second.get());
    first = std::move(second);
    EXPECT_EQ(2, references());
    EXPECT_EQ(handler, first.get());
    HandlerPin& same = first;
    first = std::move(same);
    EXPECT_EQ(handler, first.get()) << "onto itself";
    EXPECT_EQ(2, references());
}

// So that an assignment ends no handler in a place where nobody expects it.
TEST_F(HandlerPinCases, AnAssignmentSwapsSoTheOldReferenceEndsWithTheOtherPin) {
    auto* const other_handler = new TestHandler;
    HandlerPin pin = HandlerPin::Take(handler);
    {
        HandlerPin other = HandlerPin::Take(other_handler);
        pin = std::move(other);
        EXPECT_EQ(other_handler, pin.get());
        EXPECT_EQ(handler, other.get());
        EXPECT_EQ(2, references());
    }
    EXPECT_EQ(1, references());
    pin = HandlerPin();
    closeAndWait(other_handler);
}

TEST_F(HandlerPinCases, TheLastOneThatGoesCallsHandleClose) {
    HandlerPin first = HandlerPin::Take(handler);
    {
        const HandlerPin second = HandlerPin::Take(handler);
        closeUnderPins(2);
    }
    EXPECT_EQ(0, life->closes);
    std::atomic<std::thread::id> where{};
    handler->on_close = [&] { where = std::this_thread::get_id(); };
    first = HandlerPin();
    EXPECT_EQ(1, life->closes);
    EXPECT_EQ(std::this_thread::get_id(), where.load());
}

TEST_F(HandlerPinCases, AnyMixOfPinsCountsAsManyReferencesAsThereAre) {
    SeededRandom random;
    std::vector<HandlerPin> pins(6);
    std::vector<bool> held(6);
    for (int i = 0; i < 3000; ++i) {
        const size_t a = random.between(size_t{0}, pins.size() - 1);
        const size_t b = random.between(size_t{0}, pins.size() - 1);
        switch (random.between(0, 3)) {
            case 0:
                pins[a] = HandlerPin::Take(handler);
                held[a] = true;
                break;
            case 1:
                pins[a] = HandlerPin();
                held[a] = false;
                break;
            case 2:
                pins[a] = std::move(pins[b]);
                if (a != b) {
                    const bool was = held[a];
                    held[a] = held[b];
                    held[b] = was;
                }
                break;
            default:
                if (CNetHandler* const released = pins[a].Release()) {
                    ASSERT_TRUE(held[a]);
                    pins[b] = HandlerPin::Adopt(released);
                    held[a] = false;
                    held[b] = true;
                }
        }
        int64_t expected = 1;
        for (size_t n = 0; n < pins.size(); ++n) {
            ASSERT_EQ(held[n], static_cast<bool>(pins[n]));
            expected += held[n] ? 1 : 0;
        }
        ASSERT_EQ(expected, references()) << "after step " << i;
    }
}

TEST_F(HandlerPinCases, ThreadsThatPinAtOnceEndTheHandlerOnce) {
    std::vector<std::thread> threads;
    HandlerPin first = HandlerPin::Take(handler);
    closeUnderPins(1);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([pin = HandlerPin::Take(handler)]() mutable {
            for (int n = 0; n < 2000; ++n) {
                HandlerPin more = HandlerPin::Take(pin.get());
                HandlerPin moved = std::move(more);
            }
            pin = HandlerPin();
        });
    }
    first = HandlerPin();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1, life->closes);
    EXPECT_EQ(1, life->deleted);
}

}  // namespace
}  // namespace Orvex::Testing
