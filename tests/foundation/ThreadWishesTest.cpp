// What a thread asks of the scheduler, whatever this machine would grant: nice values, policies, refusals.
#include <Infra/ThreadLite.h>

#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "ThreadScheduling.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/foundation/SchedulingSeam.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;
using Wishes = std::vector<std::string>;

// What the calling thread would ask for.
Wishes wishes_of(int priority, int policy, const SchedulingAnswers& answers = {}) {
    const SchedulingSeam seam(answers);
    Detail::apply_scheduling("Wisher", priority, policy);
    return SchedulingSeam::wanted();
}

std::string round_robin(int priority) {
    return "policy " + std::to_string(SCHED_RR) + " priority " + std::to_string(priority);
}

SchedulingAnswers with_nice(int nice) {
    SchedulingAnswers answers;
    answers.nice = nice;
    return answers;
}

TEST(ThreadWishes, TheUsualPriorityAsksForNothing) {
    EXPECT_EQ(Wishes{}, wishes_of(64, 0));
}

TEST(ThreadWishes, LowAndHighAreTenNiceValuesFromTheCreatorsOwn) {
    EXPECT_EQ(Wishes{"nice 10"}, wishes_of(1, 0));
    EXPECT_EQ(Wishes{"nice -10"}, wishes_of(127, 0));
    EXPECT_EQ(Wishes{"nice 5"}, wishes_of(1, 0, with_nice(-5)));
    EXPECT_EQ(Wishes{"nice -1"}, wishes_of(127, 0, with_nice(9)));
}

TEST(ThreadWishes, NiceValuesEndWhereTheSystemsDo) {
    EXPECT_EQ(Wishes{"nice 19"}, wishes_of(1, 0, with_nice(9)));
    EXPECT_EQ(Wishes{"nice 19"}, wishes_of(1, 0, with_nice(10)));
    EXPECT_EQ(Wishes{"nice 19"}, wishes_of(1, 0, with_nice(19)));
    EXPECT_EQ(Wishes{"nice -20"}, wishes_of(127, 0, with_nice(-10)));
    EXPECT_EQ(Wishes{"nice -20"}, wishes_of(127, 0, with_nice(-15)));
}

TEST(ThreadWishes, NumbersThatStandForNothingAreTheDefaults) {
    for (const int priority : {0, 2, 63, 65, 126, 128, -1}) {
        EXPECT_EQ(Wishes{}, wishes_of(priority, 0)) << priority;
    }
    for (const int policy : {2, -1, 100}) {
        EXPECT_EQ(Wishes{"nice 10"}, wishes_of(1, policy)) << policy;
    }
}

// A third of the way is left to the kernel's own threads, and more.
TEST(ThreadWishes, RealTimePrioritiesAreInTheLowerHalf) {
    const int lowest = ::sched_get_priority_min(SCHED_RR);
    const int range = ::sched_get_priority_max(SCHED_RR) - lowest;
    EXPECT_EQ(Wishes{round_robin(lowest)}, wishes_of(1, 1));
    EXPECT_EQ(Wishes{round_robin(lowest + range / 4)}, wishes_of(64, 1));
    EXPECT_EQ(Wishes{round_robin(lowest + range / 2)}, wishes_of(127, 1));
}

// Granted, the policy says all: a nice value would mean nothing.
TEST(ThreadWishes, WithoutRealTimeTheNiceValueIsAskedForInItsPlace) {
    SchedulingAnswers answers;
    answers.set_policy_error = EPERM;
    const int lowest = ::sched_get_priority_min(SCHED_RR);
    EXPECT_EQ((Wishes{round_robin(lowest), "nice 10"}), wishes_of(1, 1, answers));
}

TEST(ThreadWishes, AChildOfARealTimeThreadLeavesItsPolicy) {
    for (const int policy : {SCHED_RR, SCHED_FIFO}) {
        SchedulingAnswers answers;
        answers.policy = policy;
        const std::string sharing = "policy " + std::to_string(SCHED_OTHER) + " priority 0";
        EXPECT_EQ(Wishes{sharing}, wishes_of(64, 0, answers));
        EXPECT_EQ((Wishes{sharing, "nice -10"}), wishes_of(127, 0, answers));
    }
    SchedulingAnswers batch;
    batch.policy = SCHED_BATCH;
    EXPECT_EQ(Wishes{}, wishes_of(64, 0, batch)) << "another kind of time sharing is kept";
}

TEST(ThreadWishes, ARefusalNamesTheThreadTheValueAndTheReason) {
    LogCapture log;
    SchedulingAnswers answers;
    answers.nice = 3;
    answers.set_nice_error = EACCES;
    answers.set_policy_error = EINVAL;
    wishes_of(127, 1, answers);
    const std::string start =
        "Orvex::Infra::Detail::(anonymous namespace)::log_refusal : the system refuses ";
    const int middle = ::sched_get_priority_min(SCHED_RR) +
                       (::sched_get_priority_max(SCHED_RR) - ::sched_get_priority_min(SCHED_RR)) / 2;
    EXPECT_TRUE(log.contains(3, start + "real-time priority " + std::to_string(middle) +
                                    " to thread \"Wisher\", error : 22, Invalid argument\n"))
        << log.dump();
    EXPECT_TRUE(
        log.contains(3, start + "nice value -7 to thread \"Wisher\", error : 13, Permission denied\n"))
        << log.dump();
    // Each kind once in the life of the process.
    wishes_of(1, 1, answers);
    EXPECT_EQ(2u, log.lines().size()) << log.dump();
}

void do_nothing_at_all(CThreadLite&) {}

TEST(ThreadWishes, TheNewThreadAsksForItselfBeforeItsBodyRuns) {
    const SchedulingSeam seam({});
    static std::vector<std::string> seen;
    struct Looker {
        void look(CThreadLite&) { seen = SchedulingSeam::wanted(); }
    } looker;
    CThreadLite thread({&Looker::look, &looker}, "Asker", 1, 0);
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_EQ(Wishes{"nice 10"}, seen);
    CThreadLite usual(&do_nothing_at_all, "Usual");
    ASSERT_TRUE(usual.createThread());
    usual.destroyThread();
    EXPECT_EQ(Wishes{"nice 10"}, SchedulingSeam::wanted());
}

TEST(KernelThreadName, IsCutToFifteenBytesAndAnEmptyOneChangesNothing) {
    const std::string before = kernelThreadName(kernelThreadId());
    Detail::set_kernel_thread_name("");
    EXPECT_EQ(before, kernelThreadName(kernelThreadId()));
    Detail::set_kernel_thread_name("0123456789abcdefghij");
    EXPECT_EQ("0123456789abcde", kernelThreadName(kernelThreadId()));
    Detail::set_kernel_thread_name(before.c_str());
    EXPECT_EQ(before, kernelThreadName(kernelThreadId()));
}

}  // namespace
}  // namespace Orvex::Infra
