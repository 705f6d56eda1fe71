// Names, nice values and policies of threads, and what the system refuses.
#include <Infra/ThreadLite.h>

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

thread_local volatile char t_large_thread_data[256 * 1024];

// What a library thread with these values finds about itself.
struct Found {
    std::string kernel_name;
    int nice = 0;
    int policy = -1;
    int real_time_priority = -1;
    std::size_t stack = 0;
    bool ran = false;

    void look(CThreadLite&) {
        kernel_name = kernelThreadName(kernelThreadId());
        nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(kernelThreadId()));
        sched_param parameters{};
        ::pthread_getschedparam(::pthread_self(), &policy, &parameters);
        real_time_priority = parameters.sched_priority;
        pthread_attr_t attributes;
        ::pthread_getattr_np(::pthread_self(), &attributes);
        ::pthread_attr_getstacksize(&attributes, &stack);
        ::pthread_attr_destroy(&attributes);
        ran = true;
    }
};

Found lookFrom(const char* name, int priority = 64, int policy = 0, int stack = 0) {
    Found found;
    CThreadLite thread({&Found::look, &found}, name, priority, policy, stack);
    EXPECT_TRUE(thread.createThread());
    EXPECT_EVENTUALLY(thread.isThreadOver());
    thread.destroyThread();
    EXPECT_TRUE(found.ran);
    return found;
}

// Takes from the calling thread, and from those that it creates, the right to raise a priority.
void giveUpSchedulingRights() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    ASSERT_EQ(0, ::syscall(SYS_capget, &header, data));
    const uint32_t kept = ~(uint32_t{1} << CAP_SYS_NICE);
    data[0].effective &= kept;
    data[0].permitted &= kept;
    data[0].inheritable &= kept;
    ASSERT_EQ(0, ::syscall(SYS_capset, &header, data));
    for (const auto resource : {RLIMIT_NICE, RLIMIT_RTPRIO}) {
        rlimit limit{};
        ASSERT_EQ(0, ::getrlimit(resource, &limit));
        limit.rlim_cur = 0;
        ASSERT_EQ(0, ::setrlimit(resource, &limit));
    }
}

int ownNice() {
    return ::getpriority(PRIO_PROCESS, static_cast<id_t>(kernelThreadId()));
}

TEST(ThreadScheduling, KernelSeesTheNameCutToFifteenBytes) {
    EXPECT_EQ("Timer_Thread", lookFrom("Timer_Thread").kernel_name);
    EXPECT_EQ("123456789012345", lookFrom("123456789012345").kernel_name);
    EXPECT_EQ("stream_receiver", lookFrom("stream_receiver_thread").kernel_name);
}

TEST(ThreadScheduling, WithoutANameTheThreadKeepsThatOfItsCreator) {
    const std::string own = kernelThreadName(kernelThreadId());
    EXPECT_EQ(own, lookFrom(nullptr).kernel_name);
    EXPECT_EQ(own, lookFrom("").kernel_name);
}

TEST(ThreadScheduling, NameIsCopied) {
    char name[80] = "Reticor12 daemon";
    Found found;
    CThreadLite thread({&Found::look, &found}, name);
    std::snprintf(name, sizeof(name), "other");
    EXPECT_STREQ("Reticor12 daemon", thread.name());
    const CThreadLite long_named({&Found::look, &found}, std::string(100, 'n').c_str());
    EXPECT_EQ(std::string(63, 'n'), long_named.name());
}

TEST(ThreadScheduling, DefaultRunsAsItsCreatorDoes) {
    const Found found = lookFrom("Default");
    EXPECT_EQ(ownNice(), found.nice);
    EXPECT_EQ(SCHED_OTHER, found.policy);
}

TEST(ThreadScheduling, LowPriorityIsNicerThanItsCreator) {
    EXPECT_EQ(std::min(19, ownNice() + 10), lookFrom("Low", 1).nice);
}

TEST(ThreadScheduling, HighPriorityIsLessNiceOrTheRefusalIsLogged) {
    LogCapture log;
    const Found found = lookFrom("High", 127);
    EXPECT_TRUE(found.nice == std::max(-20, ownNice() - 10) || log.countLevel(3) == 1) << log.dump();
}

TEST(ThreadScheduling, PolicyOneIsRoundRobinOrTheRefusalIsLogged) {
    LogCapture log;
    const Found low = lookFrom("Low", 1, 1);
    const Found middle = lookFrom("Middle", 64, 1);
    const Found high = lookFrom("High", 127, 1);
    if (middle.policy != SCHED_RR) {
        EXPECT_EQ(1u, log.countLevel(3)) << log.dump();
        return;
    }
    EXPECT_EQ(::sched_get_priority_min(SCHED_RR), low.real_time_priority);
    EXPECT_LT(low.real_time_priority, middle.real_time_priority);
    EXPECT_LT(middle.real_time_priority, high.real_time_priority);
    EXPECT_LT(high.real_time_priority, ::sched_get_priority_max(SCHED_RR));
}

TEST(ThreadScheduling, PolicyZeroIsTimeSharingWhateverItsCreatorIs) {
    Found found;
    std::thread([&] {
        sched_param parameters{};
        parameters.sched_priority = ::sched_get_priority_min(SCHED_RR);
        ::pthread_setschedparam(::pthread_self(), SCHED_RR, &parameters);
        found = lookFrom("Sharing");
    }).join();
    EXPECT_EQ(SCHED_OTHER, found.policy);
}

TEST(ThreadScheduling, RefusalsAreLoggedOncePerKindAndSurvived) {
    LogCapture log;
    std::thread([] {
        giveUpSchedulingRights();
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(SCHED_OTHER, lookFrom("Refused", 64, 1).policy);
            EXPECT_EQ(ownNice(), lookFrom("Refused", 127).nice);
        }
    }).join();
    const std::string line =
        "Orvex::Infra::Detail::\\(anonymous namespace\\)::log_refusal : the system refuses ";
    EXPECT_EQ(1u, log.countMatching(
                      3, line + "nice value -?[0-9]+ to thread \"Refused\", error : 13, Permission denied\n"))
        << log.dump();
    EXPECT_EQ(1u, log.countMatching(3, line + "real-time priority [0-9]+ to thread \"Refused\", error : 1, "
                                              "Operation not permitted\n"))
        << log.dump();
    EXPECT_EQ(2u, log.lines().size()) << log.dump();
}

// Larger than the C library keeps for reuse, and than it would take in place of the default.
TEST(ThreadScheduling, StackSizeIsHandedThrough) {
    constexpr int STACK = 80 * 1024 * 1024;
    const std::size_t usual = lookFrom("Default").stack;
    ASSERT_LT(usual, std::size_t{STACK});
    const std::size_t found = lookFrom("Stack", 64, 0, STACK).stack;
    EXPECT_GE(found, std::size_t{STACK});
    EXPECT_LT(found, std::size_t{STACK} + 1024 * 1024);
}

TEST(ThreadScheduling, InvalidStackSizeFallsBackToTheDefault) {
    const std::size_t usual = lookFrom("Default").stack;
    EXPECT_EQ(usual, lookFrom("One", 64, 0, 1).stack);
    EXPECT_EQ(usual, lookFrom("Negative", 64, 0, -4096).stack);
    // Large enough for the attribute, but not for this program's thread-local data.
    t_large_thread_data[0] = 1;
    EXPECT_TRUE(lookFrom("Smallest", 64, 0, static_cast<int>(PTHREAD_STACK_MIN)).ran);
}

// The address space really runs out here, so that the system itself refuses.
TEST(ThreadScheduling, StackThatFindsNoRoomFailsTheStartAndALaterOneSucceeds) {
    constexpr int STACK = 256 * 1024 * 1024;
    LogCapture log;
    Found found;
    CThreadLite thread({&Found::look, &found}, "Large", 64, 0, STACK);
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_AS, &before));
    rlimit tight = before;
    tight.rlim_cur = static_cast<rlim_t>(addressSpace()) + STACK / 2;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &tight));
    EXPECT_FALSE(thread.createThread());
    ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &before));
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_EQ(1u, log.countLevel(2)) << log.dump();
    EXPECT_TRUE(thread.createThread());
    EXPECT_EVENTUALLY(thread.isThreadOver());
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_TRUE(found.ran);
}

}  // namespace
}  // namespace Orvex::Infra
