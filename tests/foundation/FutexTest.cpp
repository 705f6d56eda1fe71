// The futex calls under the locks: what ends a wait, who is woken, how far away a deadline may lie.
#include "Futex.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>

#include "support/Eventually.h"
#include "support/HandClock.h"
#include "support/StepThread.h"

namespace Orvex::Infra::Detail {
namespace {

using namespace Testing;

class FutexWord : public testing::Test {
protected:
    static constexpr size_t SLEEPERS = 3;

    // The sleepers that are still asleep in the end go on.
    ~FutexWord() override {
        word = 99;
        EXPECT_EVENTUALLY(futex_wake(word) == 0 && all_done());
    }
    bool all_done() const {
        bool done = true;
        for (const StepThread& sleeper : sleepers) {
            done = done && sleeper.done();
        }
        return done;
    }
    void put_all_to_sleep() {
        for (StepThread& sleeper : sleepers) {
            sleeper.begin([this] { woken += futex_wait(word, 7) ? 1 : 0; });
            EXPECT_EVENTUALLY(sleeper.sleeps());
        }
    }

    std::atomic<uint32_t> word{7};
    std::atomic<int> woken{0};
    std::array<StepThread, SLEEPERS> sleepers;
};

TEST_F(FutexWord, AWaitForAnotherValueReturnsAtOnceAndSaysLookAgain) {
    errno = ECONNRESET;
    EXPECT_TRUE(futex_wait(word, 8));
    EXPECT_EQ(ECONNRESET, errno);
}

TEST_F(FutexWord, AWakeUpWithNobodyAsleepWakesNobody) {
    errno = ECONNRESET;
    EXPECT_EQ(0, futex_wake(word));
    EXPECT_EQ(ECONNRESET, errno);
}

TEST_F(FutexWord, WakesAsManyAsAskedAndSaysHowMany) {
    put_all_to_sleep();
    EXPECT_EQ(1, futex_wake(word, 1));
    EXPECT_EVENTUALLY(woken == 1);
    EXPECT_EQ(2, futex_wake(word));
    EXPECT_EVENTUALLY(woken == 3);
}

TEST_F(FutexWord, AChangedWordAloneWakesNobody) {
    put_all_to_sleep();
    word = 8;
    for (const StepThread& sleeper : sleepers) {
        EXPECT_TRUE(sleeper.sleeps());
    }
    EXPECT_EQ(3, futex_wake(word));
    EXPECT_EVENTUALLY(woken == 3);
}

TEST_F(FutexWord, APassedDeadlineIsNoWakeUp) {
    timespec past = {0, 1};
    errno = ECONNRESET;
    EXPECT_FALSE(futex_wait(word, 7, &past));
    EXPECT_EQ(ECONNRESET, errno);
    timespec soon{};
    ASSERT_TRUE(deadline_after(2000, soon));
    while (futex_wait(word, 7, &soon)) {
    }
    const timespec now = read_clock();
    EXPECT_TRUE(now.tv_sec > soon.tv_sec || (now.tv_sec == soon.tv_sec && now.tv_nsec >= soon.tv_nsec));
}

void do_nothing_on_signal(int) {}

TEST_F(FutexWord, ASignalEndsAWaitAsIfItHadBeenAWakeUp) {
    struct sigaction action = {};
    action.sa_handler = &do_nothing_on_signal;
    struct sigaction before;
    ASSERT_EQ(0, ::sigaction(SIGUSR2, &action, &before));
    std::atomic<pthread_t> handle{};
    sleepers[0].begin([this, &handle] {
        handle = ::pthread_self();
        woken += futex_wait(word, 7) ? 1 : 0;
    });
    ASSERT_EVENTUALLY(sleepers[0].sleeps());
    ASSERT_EQ(0, ::pthread_kill(handle, SIGUSR2));
    EXPECT_EVENTUALLY(woken == 1);
    ::sigaction(SIGUSR2, &before, nullptr);
}

// The last touch of a lock is its wake-up, when the lock may be gone and its page with it.
TEST(Futex, AWordThatIsGoneMayStillBeWoken) {
    void* const page = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, page);
    auto* const gone = static_cast<std::atomic<uint32_t>*>(page);
    ASSERT_EQ(0, ::munmap(page, 4096));
    errno = ECONNRESET;
    EXPECT_EQ(0, futex_wake(*gone, 1));
    EXPECT_EQ(ECONNRESET, errno);
}

TEST(Futex, ADeadlineLiesAsFarAheadAsItSays) {
    HandClock clock;
    clock.setUs(5999999);
    timespec deadline{};
    ASSERT_TRUE(deadline_after(0, deadline));
    EXPECT_EQ(5, deadline.tv_sec);
    EXPECT_EQ(999999000, deadline.tv_nsec);
    ASSERT_TRUE(deadline_after(1, deadline));
    EXPECT_EQ(6, deadline.tv_sec) << "a whole second moves on";
    EXPECT_EQ(0, deadline.tv_nsec);
    ASSERT_TRUE(deadline_after(3000002, deadline));
    EXPECT_EQ(9, deadline.tv_sec);
    EXPECT_EQ(1000, deadline.tv_nsec);
}

TEST(Futex, ADeadlineBeyondAllReasonIsNone) {
    constexpr uint64_t TOO_FAR_US = (uint64_t{1} << 31) * 1000000;
    timespec deadline{};
    EXPECT_TRUE(deadline_after(TOO_FAR_US - 1, deadline));
    EXPECT_FALSE(deadline_after(TOO_FAR_US, deadline));
    EXPECT_FALSE(deadline_after(UINT64_MAX, deadline));
}

// With one processor there is nobody to wait for while spinning.
TEST(Futex, SpinsOnlyWithAnotherProcessor) {
    EXPECT_EQ(::sysconf(_SC_NPROCESSORS_ONLN) > 1, spin_limit() > 0);
    EXPECT_EQ(spin_limit(), spin_limit());
    spin_pause();
}

}  // namespace
}  // namespace Orvex::Infra::Detail
