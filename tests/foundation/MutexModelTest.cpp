// CMutex beside a model: who holds it how often, whatever several threads do in whatever order.
#if defined(__clang__)
// These tests enter and leave in all the ways that the analysis is there to refuse.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif
#include <Infra/Mutex.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>

#include "support/Eventually.h"
#include "support/SeededRandom.h"
#include "support/StepThread.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

// What a thread of the model is in, and how often it has entered.
struct MutexUser {
    StepThread thread;
    std::atomic<int> depth{0};
    bool wants = false;  // it was told to enter and has not been seen inside since
};

class MutexModel : public testing::Test {
protected:
    static constexpr size_t USERS = 4;

    // The one thread that is inside; null if there is none.
    MutexUser* holder() {
        MutexUser* found = nullptr;
        for (MutexUser& user : users) {
            if (user.depth > 0) {
                EXPECT_EQ(nullptr, found) << "two threads hold it";
                found = &user;
            }
        }
        return found;
    }
    bool anybody_waits() {
        bool waits = false;
        for (MutexUser& user : users) {
            user.wants = user.wants && user.depth == 0;
            waits = waits || user.wants;
        }
        return waits;
    }

    void tell_to_enter(MutexUser& user) {
        user.wants = true;
        user.thread.begin([this, &user] {
            EXPECT_TRUE(mutex.enter());
            ++user.depth;
        });
    }
    void enter(MutexUser& user) {
        const bool waits = holder() != nullptr && holder() != &user;
        tell_to_enter(user);
        if (waits) {
            EXPECT_EVENTUALLY(user.thread.sleeps());
            EXPECT_EQ(0, user.depth);
        } else {
            EXPECT_EVENTUALLY(user.thread.done());
        }
    }
    void try_to_enter(MutexUser& user) {
        const bool free = holder() == nullptr || holder() == &user;
        const int before = user.depth;
        EXPECT_TRUE(user.thread.take([this, &user] { user.depth += mutex.tryEnter() ? 1 : 0; }));
        EXPECT_EQ(free ? before + 1 : before, user.depth);
    }
    void leave(MutexUser& user) {
        user.wants = false;
        EXPECT_TRUE(user.thread.take([this, &user] {
            --user.depth;
            EXPECT_TRUE(mutex.leave());
        }));
    }
    // For the one that the test's own thread holds.
    bool is_free_elsewhere() {
        bool taken = false;
        EXPECT_TRUE(users[0].thread.take([&] {
            taken = mutex.tryEnter();
            if (taken) {
                mutex.leave();
            }
        }));
        return taken;
    }
    void ask(MutexUser& user) {
        bool held = false;
        EXPECT_TRUE(user.thread.take([&] { held = mutex.heldByThisThread(); }));
        EXPECT_EQ(user.depth > 0, held);
    }

    void step(SeededRandom& random) {
        MutexUser& user = users[random.between<size_t>(0, USERS - 1)];
        if (!user.thread.done()) {
            return;  // It waits: the model has nothing to ask of it.
        }
        switch (random.between(0, 5)) {
            case 0:
                ask(user);
                break;
            case 1:
                try_to_enter(user);
                break;
            case 2:
                enter(user);
                break;
            default:
                if (user.depth > 0) {
                    leave(user);
                } else {
                    enter(user);
                }
                break;
        }
        // Whoever waits gets it as soon as nobody has it: a lost wake-up ends here.
        EXPECT_EVENTUALLY(holder() != nullptr || !anybody_waits());
    }

    CMutex mutex;
    std::array<MutexUser, USERS> users;
};

TEST_F(MutexModel, OneThreadHoldsItAsOftenAsItEnteredAndWhoeverWaitsIsNext) {
    SeededRandom random;
    for (int i = 0; i < 500 && !HasFailure(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        step(random);
    }
    // All come through in the end.
    EXPECT_EVENTUALLY([&] {
        MutexUser* const inside = holder();
        if (inside != nullptr && inside->thread.done()) {
            leave(*inside);
        }
        return holder() == nullptr && !anybody_waits();
    }());
    EXPECT_TRUE(mutex.tryEnter());
    mutex.leave();
}

// With more waiters than one, each leave lets exactly one in.
TEST_F(MutexModel, EachLeaveLetsOneOfTheSleepersIn) {
    mutex.enter();
    for (MutexUser& user : users) {
        tell_to_enter(user);
        EXPECT_EVENTUALLY(user.thread.sleeps());
    }
    mutex.leave();
    for (size_t left = USERS; left > 0; --left) {
        ASSERT_EVENTUALLY(holder() != nullptr && holder()->thread.done());
        size_t inside = 0;
        for (MutexUser& user : users) {
            inside += user.depth > 0 ? 1 : 0;
        }
        EXPECT_EQ(1u, inside);
        leave(*holder());
    }
    EXPECT_EQ(nullptr, holder());
}

TEST_F(MutexModel, AGuardThatEntersAgainLeavesTheOutermostEntryAlone) {
    const CGuard outer(mutex);
    {
        const CGuard inner(mutex);
        EXPECT_FALSE(is_free_elsewhere());
    }
    EXPECT_TRUE(mutex.heldByThisThread());
    EXPECT_FALSE(is_free_elsewhere());
}

}  // namespace
}  // namespace Orvex::Infra
