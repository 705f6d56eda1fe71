// HeldLocks, LockOrders, Seam in detail: each promise, each way to enter, and what comes of a file that
// cannot be written.
#if defined(__clang__)
// These tests enter and leave in all the ways that the analysis is there to refuse.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif
#include <Infra/HeldLocks.h>

#if defined(RETICOR_HELD_LOCKS)

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/ReadWriteMutex.h>
#include <Infra/Semaphore.h>
#include <Infra/ThreadLite.h>

#include "LockOrders.h"
#include "support/KernelThread.h"
#include "support/SeededRandom.h"
#include "support/StepThread.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

std::vector<LockClass> all_classes() {
    std::vector<LockClass> classes;
#define INFRA_LOCK_CLASS(name, lock, guards) classes.push_back(LockClass::name);
    INFRA_LOCK_CLASSES(INFRA_LOCK_CLASS)
#undef INFRA_LOCK_CLASS
    return classes;
}

// Under each lock alone, what is promised either holds or ends the process.
void keep_promise_under(LockClass lock_class, Promise promise) {
    CMutex mutex{lock_class};
    const CGuard guard(mutex);
    HeldLocks::require(promise);
}

TEST(HeldLocksPromises, AFilterIsAskedUnderTheBuffersLocksAlone) {
    keep_promise_under(LockClass::MEDIA_CORE, Promise::FRAME_FILTER);
    keep_promise_under(LockClass::SENDER_LIST, Promise::FRAME_FILTER);
    EXPECT_DEATH(keep_promise_under(LockClass::SETUP, Promise::FRAME_FILTER),
                 "a filter is asked, and this thread holds\n *SETUP");
}

TEST(HeldLocksPromises, AThreadMayWaitUnderLocksOfStartsAndEndsAndOfProductsCode) {
    for (const LockClass allowed :
         {LockClass::SETUP, LockClass::R3_START, LockClass::THREAD_LIFE, LockClass::RECEIVER,
          LockClass::RECEIVER_GROUPS, LockClass::RECEIVER_THREAD, LockClass::TICK, LockClass::FILE_PASS,
          LockClass::SENDER_LIST, LockClass::MEDIA_CORE, LockClass::STATS_SERVING}) {
        keep_promise_under(allowed, Promise::WAIT);
    }
    for (const LockClass leaf : {LockClass::LOG, LockClass::OBJECT_TABLE, LockClass::FREE_RECORDS}) {
        EXPECT_DEATH(keep_promise_under(leaf, Promise::WAIT), "the thread waits for others")
            << lock_class_word(leaf);
    }
}

TEST(HeldLocksPromises, LinesAreLoggedUnderAllOfThem) {
    for (const LockClass any : all_classes()) {
        keep_promise_under(any, Promise::LOG_SINK);
    }
}

TEST(HeldLocksPromises, WithoutALockEveryPromiseIsKept) {
    for (const Promise promise : {Promise::HANDLER, Promise::RELEASE, Promise::TAP, Promise::SEND_PROCEDURE,
                                  Promise::FRAME_FILTER, Promise::LOG_SINK, Promise::WAIT}) {
        HeldLocks::require(promise);
    }
}

TEST(HeldLocksPromises, TheReportTellsWhoReadsAndWhereEachWasEntered) {
    CMutex of_product;
    CReadWriteMutex tree{LockClass::SOCKET_TREE};
    CMutex record{LockClass::SOCKET_RECORD};
    const CGuard own(of_product);
    tree.enterReading();
    const CGuard inner(record);
    EXPECT_DEATH(HeldLocks::require(Promise::HANDLER, LockPlace{"asked.cpp", 77}),
                 "asked.cpp:77: held locks: a handler is called, and this thread holds\n"
                 " *a product's lock, entered at tests/foundation/HeldLocksPromisesTest.cpp:[0-9]+\n"
                 " *SOCKET_TREE for reading, entered at tests/foundation/HeldLocksPromisesTest.cpp:[0-9]+\n"
                 " *SOCKET_RECORD, entered at ");
    tree.leave();
}

TEST(HeldLocksPromises, MoreLocksThanTheListHasRoomForEndTheProcess) {
    std::array<CMutex, HeldLocks::LIMIT> locks;
    CMutex one_more;
    for (CMutex& lock : locks) {
        lock.enter();
    }
    EXPECT_EQ(HeldLocks::LIMIT, HeldLocks::count());
    EXPECT_TRUE(locks[5].tryEnter()) << "again is not another one";
    locks[5].leave();
    EXPECT_DEATH(one_more.enter(), "there is no room in the list for another one, and");
    for (CMutex& lock : locks) {
        lock.leave();
    }
    EXPECT_EQ(0u, HeldLocks::count());
}

TEST(HeldLocksPromises, LeavingWhatIsNotOnTheListEndsTheProcess) {
    CReadWriteMutex lock;
    EXPECT_DEATH(HeldLocks::remove(&lock), "a lock is left that is not held, and");
    EXPECT_DEATH(lock.leave(), "CReadWriteMutex::leave on a thread that does not hold the lock");
}

// A try that succeeds is no wish, and may take a second one of its class.
TEST(HeldLocksPromises, ATryOfASecondLockOfItsClassIsNoMistake) {
    CMutex first{LockClass::SOCKET_RECORD};
    CMutex second{LockClass::SOCKET_RECORD};
    const CGuard guard(first);
    EXPECT_TRUE(second.tryEnter());
    EXPECT_EQ(LockWay::TRY, HeldLocks::at(1).way);
    second.leave();
    EXPECT_EQ(1u, HeldLocks::count());
}

// The list beside a model: entered, again, read, left in any order.
TEST(HeldLocksPromises, TheListIsThatOfTheOutermostEntriesInTheirOrder) {
    SeededRandom random;
    std::array<CMutex, 6> locks;
    std::array<int, 6> depths{};
    std::vector<const void*> order;
    for (int step = 0; step < 5000; ++step) {
        const size_t i = random.between<size_t>(0, locks.size() - 1);
        if (depths[i] > 0 && random.oneIn(2)) {
            locks[i].leave();
            if (--depths[i] == 0) {
                order.erase(std::find(order.begin(), order.end(), &locks[i]));
            }
        } else {
            // In one order, unless it is a try: ThreadSanitizer looks too.
            const bool last =
                std::all_of(order.begin(), order.end(), [&](const void* held) { return held <= &locks[i]; });
            EXPECT_TRUE(last && random.oneIn(2) ? locks[i].enter() : locks[i].tryEnter());
            if (depths[i]++ == 0) {
                order.push_back(&locks[i]);
            }
        }
        ASSERT_EQ(order.size(), HeldLocks::count());
        for (size_t at = 0; at < order.size(); ++at) {
            ASSERT_EQ(order[at], HeldLocks::at(at).lock);
        }
        ASSERT_EQ(depths[i] > 0, HeldLocks::holds(&locks[i]));
    }
    for (size_t i = 0; i < locks.size(); ++i) {
        for (; depths[i] > 0; --depths[i]) {
            locks[i].leave();
        }
    }
}

std::vector<std::string> orders_in(const char* path) {
    std::ifstream file(path, std::ios::binary);
    const std::string table{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(LockOrders::SIDE * LockOrders::SIDE * LockOrders::ENTRY_SIZE, table.size());
    std::vector<std::string> orders;
    for (size_t at = 0; at < table.size(); at += LockOrders::ENTRY_SIZE) {
        if (table[at] != 0) {
            orders.emplace_back(table.c_str() + at + 1);
        }
    }
    return orders;
}

void enter_here() {
    CMutex outer{LockClass::SETUP};
    CMutex inner{LockClass::QUEUE};
    const CGuard guard(outer);
    const CGuard inner_guard(inner);
}

void enter_there() {
    CMutex outer{LockClass::SETUP};
    CMutex inner{LockClass::QUEUE};
    CMutex innermost{LockClass::LOG};
    const CGuard guard(outer);
    const CGuard inner_guard(inner);
    const CGuard innermost_guard(innermost);
}

void run_with_orders(const char* path, void (*work)()) {
    EXPECT_EXIT(
        {
            ::setenv(LockOrders::VARIABLE, path, 1);
            errno = ECONNRESET;
            work();
            ::_exit(errno == ECONNRESET ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(LockOrdersFile, LaterProcessesAddWhatIsNewAndKeepTheFirstSightings) {
    char path[] = "/tmp/infra_orders_XXXXXX";
    ::close(::mkstemp(path));
    run_with_orders(path, &enter_here);
    const std::vector<std::string> first = orders_in(path);
    ASSERT_EQ(1u, first.size());
    run_with_orders(path, &enter_there);
    const std::vector<std::string> both = orders_in(path);
    ::unlink(path);
    ASSERT_EQ(3u, both.size());
    EXPECT_EQ(1, std::count(both.begin(), both.end(), first[0])) << "with its first places";
}

TEST(LockOrdersFile, AFileThatCannotBeMadeIsDoneWithout) {
    run_with_orders("/nowhere/at/all", &enter_there);
    run_with_orders("/tmp", &enter_there);
}

TEST(LockOrdersFile, PairsOfThreadsTogetherAreAllKept) {
    char path[] = "/tmp/infra_orders_XXXXXX";
    ::close(::mkstemp(path));
    run_with_orders(path, [] {
        const std::vector<LockClass> classes = all_classes();
        std::vector<std::thread> threads;
        for (size_t t = 0; t < 3; ++t) {
            threads.emplace_back([&classes] {
                for (size_t i = 1; i < classes.size(); ++i) {
                    CMutex outer{classes[i - 1]};
                    CMutex inner{classes[i]};
                    const CGuard guard(outer);
                    const CGuard inner_guard(inner);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        errno = ECONNRESET;
    });
    EXPECT_EQ(all_classes().size() - 1, orders_in(path).size());
    ::unlink(path);
}

// Hears what the test's own thread does.
class Hearing : public SeamObserver {
public:
    Hearing() : m_before(Seam::set_observer(this)) {}
    ~Hearing() { Seam::set_observer(m_before); }
    std::string heard() const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_heard;
    }
    const void* object() const { return m_object; }

private:
    static const char* word(LockWay way) {
        return way == LockWay::ENTER ? "enter" : way == LockWay::READ ? "read" : "try";
    }
    void taken(const void*, LockClass, LockWay way) noexcept override { note(std::string("+") + word(way)); }
    void left(const void*, LockWay way) noexcept override { note(std::string("-") + word(way)); }
    void waits(const void* object) noexcept override {
        m_object = object;
        note("waits");
    }
    void woke(const void*) noexcept override { note("woke"); }
    void note(const std::string& what) {
        if (kernelThreadId() == m_thread) {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_heard += what + " ";
        }
    }

    SeamObserver* const m_before;
    const int m_thread = kernelThreadId();
    mutable std::mutex m_mutex;
    std::string m_heard;
    const void* m_object = nullptr;
};

TEST(SeamWays, EveryWayToEnterIsToldOnceForTheOutermostEntry) {
    CMutex mutex;
    CReadWriteMutex lock;
    const Hearing hearing;
    mutex.enter();
    mutex.enter();
    mutex.tryEnter();
    mutex.leave();
    mutex.leave();
    mutex.leave();
    mutex.tryEnter();
    mutex.leave();
    lock.enterReading();
    lock.leave();
    lock.enterWriting();
    lock.leave();
    EXPECT_EQ("+enter -enter +try -enter +read -read +enter -enter ", hearing.heard());
}

TEST(SeamWays, ATryThatFailsIsNotTold) {
    CMutex mutex;
    StepThread other;
    ASSERT_TRUE(other.take([&] { mutex.enter(); }));
    {
        const Hearing hearing;
        EXPECT_FALSE(mutex.tryEnter());
        EXPECT_EQ("", hearing.heard());
    }
    EXPECT_TRUE(other.take([&] { mutex.leave(); }));
}

void end_at_once(CThreadLite&) {}

TEST(SeamWays, SleepsPausesAndJoinsAreWaits) {
    CThreadLite thread(&end_at_once, "Waited");
    const Hearing hearing;
    CThread::sleep(0);
    EXPECT_EQ("", hearing.heard()) << "nothing to wait for";
    CThread::sleep(1);
    EXPECT_EQ("waits woke ", hearing.heard());
    EXPECT_EQ(nullptr, hearing.object());
    thread.pause(1);
    EXPECT_EQ("waits woke waits woke ", hearing.heard());
    EXPECT_EQ(&thread, hearing.object());
    thread.cancelThread();
    thread.pause(1);
    EXPECT_EQ("waits woke waits woke ", hearing.heard()) << "it has been asked to end";
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_EQ("waits woke waits woke +enter -enter +enter waits woke -enter ", hearing.heard());
}

TEST(SeamWays, TheObserverBeforeIsReturned) {
    Hearing first;
    SeamObserver* const before = Seam::set_observer(nullptr);
    EXPECT_EQ(&first, before);
    EXPECT_EQ(nullptr, Seam::set_observer(before));
}

}  // namespace
}  // namespace Orvex::Infra

#endif
