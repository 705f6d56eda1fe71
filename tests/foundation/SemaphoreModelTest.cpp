// CSemaphore beside a model: its count, and how many sleep beside it.
#include <Infra/Semaphore.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <string>

#include "support/Eventually.h"
#include "support/SeededRandom.h"
#include "support/StepThread.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

class SemaphoreModel : public testing::Test {
protected:
    static constexpr size_t USERS = 4;

    ~SemaphoreModel() override { semaphore.post(USERS, INT_MAX); }

    int sleepers() const {
        int found = 0;
        for (const StepThread& user : users) {
            found += user.sleeps() ? 1 : 0;
        }
        return found;
    }
    long sleeps_so_far() const {
        long all = 0;
        for (const StepThread& user : users) {
            all += user.sleepsSoFar();
        }
        return all;
    }
    StepThread* idle_user() {
        for (StepThread& user : users) {
            if (user.done()) {
                return &user;
            }
        }
        return nullptr;
    }
    // Those that are gone on, and only those, have each taken one.
    void expect_gone_on(int woken) {
        waiting -= woken;
        count -= woken;
        EXPECT_EVENTUALLY(returned == expected_returns + woken && sleepers() == waiting);
        expected_returns += woken;
        EXPECT_EQ(expected_returns, returned);
    }

    void pend() {
        StepThread* const user = idle_user();
        if (user == nullptr) {
            return;
        }
        user->begin([this] {
            EXPECT_EQ(0, semaphore.pend());
            ++returned;
        });
        ++waiting;
        expect_gone_on(count > 0 ? 1 : 0);
    }
    void pend_timed() {
        StepThread* const user = idle_user();
        if (user == nullptr) {
            return;
        }
        user->begin([this] {
            EXPECT_EQ(0, semaphore.pend(UINT_MAX));
            ++returned;
        });
        ++waiting;
        expect_gone_on(count > 0 ? 1 : 0);
    }
    void post(int more, int wake) {
        EXPECT_EQ(0, semaphore.post(more, wake));
        count += std::max(more, 0);
        expect_gone_on(more > 0 ? std::min(count, std::clamp(wake, 0, waiting)) : 0);
    }
    void wake_one() {
        const long before = sleeps_so_far();
        EXPECT_EQ(waiting > 0 ? 1 : 0, semaphore.wakeOne());
        if (waiting > 0 && count == 0) {
            EXPECT_EVENTUALLY(sleeps_so_far() > before && sleepers() == waiting);
        }
        expect_gone_on(waiting > 0 && count > 0 ? 1 : 0);
    }
    // With 0 it only tries, whoever sleeps beside it.
    void try_to_take(SeededRandom& random) {
        const bool taken = random.oneIn(2) ? semaphore.pend(0u) == 0 : semaphore.pendFor(0);
        EXPECT_EQ(count > 0, taken);
        count -= taken ? 1 : 0;
    }

    CSemaphore semaphore{0};
    int count = 0;
    int waiting = 0;
    int expected_returns = 0;
    std::atomic<int> returned{0};
    std::array<StepThread, USERS> users;
};

TEST_F(SemaphoreModel, EachCountIsTakenOnceByWhoeverIsWokenOrComes) {
    SeededRandom random;
    for (int i = 0; i < 500 && !HasFailure(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        switch (random.between(0, 6)) {
            case 0:
            case 1:
                pend();
                break;
            case 2:
                pend_timed();
                break;
            case 3:
                post(random.between(-1, 2), random.between(-1, 3));
                break;
            case 4:
                post(1, 1);
                break;
            case 5:
                wake_one();
                break;
            default:
                try_to_take(random);
                break;
        }
    }
}

TEST_F(SemaphoreModel, APostThatWakesNobodyLeavesTheSleeperBesideACount) {
    pend();
    ASSERT_EQ(1, waiting);
    post(1, 0);
    EXPECT_EQ(1, sleepers());
    EXPECT_TRUE(semaphore.pendFor(0));
    count = 0;
    post(1, 1);
    EXPECT_EQ(0, waiting);
}

TEST_F(SemaphoreModel, ACountThatIsThereIsTakenWithoutALookAtTheTime) {
    post(3, 1);
    errno = ECONNRESET;
    EXPECT_TRUE(semaphore.pendFor(1));
    EXPECT_EQ(0, semaphore.pend(1u));
    EXPECT_EQ(0, semaphore.pend());
    EXPECT_FALSE(semaphore.pendFor(1));
    EXPECT_EQ(ECONNRESET, errno);
    count = 0;
}

TEST(Semaphore, CountsUpToItsLimitAndNotBeyond) {
    CSemaphore semaphore(INT_MAX - 3);
    EXPECT_EQ(0, semaphore.post(3, 3));
    EXPECT_TRUE(semaphore.pendFor(0));
    EXPECT_EQ(0, semaphore.post());
}

TEST(SemaphoreDeath, SeveralCountsBeyondTheLimitFireAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CSemaphore semaphore(INT_MAX - 1);
            semaphore.post(2, 0);
        },
        "Assertion");
}

// A deadline that passes while a count comes: either the waiter has it, or it is still there.
TEST(Semaphore, ADeadlineAndAPostAtTheSameTimeLoseNothing) {
    SeededRandom random;
    CSemaphore semaphore(0);
    StepThread other;
    for (int round = 0; round < 300; ++round) {
        bool taken = false;
        const auto time_us = random.between<uint64_t>(1, 200);
        other.begin([&] { taken = semaphore.pendFor(time_us); });
        semaphore.post();
        ASSERT_EVENTUALLY(other.done());
        ASSERT_EQ(!taken, semaphore.pendFor(0)) << "round " << round;
    }
}

}  // namespace
}  // namespace Orvex::Infra
