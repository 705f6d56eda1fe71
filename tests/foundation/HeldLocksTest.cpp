// HeldLocks, LockOrders, Seam: in builds that watch the locks, a promise that is broken ends the process, and
// the order of locks is kept for the judge.
#if defined(__clang__)
// These tests enter and leave in all the ways that the analysis is there to refuse.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif
#include <Infra/HeldLocks.h>

#if defined(RETICOR_HELD_LOCKS)

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Infra/ReadWriteMutex.h>
#include <Infra/Semaphore.h>
#include <Infra/ThreadLite.h>
#include <Infra/Time.h>

#include "LockOrders.h"

namespace Orvex::Infra {
namespace {

TEST(HeldLocks, ListsWhatTheThreadHoldsFromItsFirstEntryToItsLastLeave) {
    CMutex mutex{LockClass::QUEUE};
    CReadWriteMutex lock{LockClass::SOCKET_TREE};
    const size_t before = HeldLocks::count();
    mutex.enter();
    mutex.enter();
    EXPECT_EQ(before + 1, HeldLocks::count());
    EXPECT_TRUE(HeldLocks::holds(&mutex));
    mutex.leave();
    EXPECT_EQ(before + 1, HeldLocks::count());
    mutex.leave();
    EXPECT_EQ(before, HeldLocks::count());

    lock.enterReading();
    const int line = __LINE__ - 1;
    ASSERT_EQ(before + 1, HeldLocks::count());
    EXPECT_EQ(&lock, HeldLocks::at(before).lock);
    EXPECT_EQ(LockWay::READ, HeldLocks::at(before).way);
    EXPECT_EQ(line, HeldLocks::at(before).place.line);
    EXPECT_STREQ("tests/foundation/HeldLocksTest.cpp", HeldLocks::at(before).place.file);
    lock.leave();
    lock.enterWriting();
    EXPECT_TRUE(HeldLocks::holds(&lock));
    lock.leave();
    EXPECT_EQ(before, HeldLocks::count());
}

TEST(HeldLocks, EachThreadHasItsOwnList) {
    CMutex mutex{LockClass::QUEUE};
    const CGuard guard(mutex);
    size_t of_other = 1;
    std::thread([&] { of_other = HeldLocks::count(); }).join();
    EXPECT_EQ(0u, of_other);
}

TEST(HeldLocks, LocksMayBeLeftInAnyOrder) {
    CMutex outer{LockClass::SETUP};
    CMutex inner{LockClass::QUEUE};
    outer.enter();
    inner.enter();
    outer.leave();
    EXPECT_TRUE(HeldLocks::holds(&inner));
    EXPECT_FALSE(HeldLocks::holds(&outer));
    inner.leave();
    EXPECT_EQ(0u, HeldLocks::count());
}

TEST(HeldLocks, AFailedTryIsNotAHold) {
    CMutex mutex{LockClass::QUEUE};
    const CGuard guard(mutex);
    size_t held = 1;
    std::thread([&] {
        EXPECT_FALSE(mutex.tryEnter());
        held = HeldLocks::count();
    }).join();
    EXPECT_EQ(0u, held);
}

TEST(HeldLocks, AHandlerUnderALockOfTheLibraryDies) {
    CMutex mutex{LockClass::SOCKET_RECORD};
    const CGuard guard(mutex);
    EXPECT_DEATH(
        INFRA_PROMISE(HANDLER),
        "a handler is called, and this thread holds\n *SOCKET_RECORD, entered at tests/foundation/Held");
}

TEST(HeldLocks, AHandlerUnderALockOfTheProductIsTheProductsOwnMatter) {
    CMutex mutex;
    const CGuard guard(mutex);
    INFRA_PROMISE(HANDLER);
    EXPECT_EQ(1u, HeldLocks::count());
}

TEST(HeldLocks, PacketsAndProceduresAreCalledUnderTheBuffersLocksAlone) {
    CMutex sweep{LockClass::SENDER_LIST};
    CMutex core{LockClass::MEDIA_CORE};
    CMutex other{LockClass::MEDIA_OTHER};
    const CGuard sweeps(sweep);
    const CGuard sends(core);
    INFRA_PROMISE(RELEASE);
    INFRA_PROMISE(TAP);
    INFRA_PROMISE(SEND_PROCEDURE);
    const CGuard deeper(other);
    EXPECT_DEATH(INFRA_PROMISE(RELEASE), "a Release is called, and .*\n.*\n.*\n *MEDIA_OTHER");
    EXPECT_DEATH(INFRA_PROMISE(TAP), "a tap is called, and");
    EXPECT_DEATH(INFRA_PROMISE(SEND_PROCEDURE), "a send procedure is called, and");
}

TEST(HeldLocks, ALineMayBeLoggedUnderAnyLock) {
    CMutex mutex{LockClass::QUEUE};
    const CGuard guard(mutex);
    INFRA_LOG_PLAIN(2, "under a leaf\n");
    EXPECT_EQ(1u, HeldLocks::count());
}

TEST(HeldLocks, AThreadThatSleepsUnderALeafDies) {
    CMutex mutex{LockClass::QUEUE};
    CSemaphore never{0};
    const CGuard guard(mutex);
    EXPECT_DEATH(never.pend(1), "the thread waits for others, and this thread holds\n *QUEUE");
    EXPECT_DEATH(CThread::sleep(1), "the thread waits for others");
}

TEST(HeldLocks, TwoLocksOfAClassAreHeldByBuffersAlone) {
    CMutex core{LockClass::MEDIA_CORE};
    CMutex other_core{LockClass::MEDIA_CORE};
    CMutex record{LockClass::SOCKET_RECORD};
    CMutex second{LockClass::SOCKET_RECORD};
    const CGuard sends(core);
    const CGuard sends_too(other_core);
    const CGuard guard(record);
    EXPECT_EQ(3u, HeldLocks::count());
    EXPECT_DEATH(second.enter(), "a second lock of a class is wanted .SOCKET_RECORD.");
}

TEST(HeldLocks, AReaderThatReadsAgainDies) {
    CReadWriteMutex lock{LockClass::SOCKET_TREE};
    const CReadGuard guard(lock);
    EXPECT_DEATH(lock.enterReading(), "a lock is wanted that would wait for itself .SOCKET_TREE.");
}

// The file that a test run shares is another one here, so that its orders stay those of the library.
std::string orders_of(void (*work)()) {
    char path[] = "/tmp/infra_orders_XXXXXX";
    ::close(::mkstemp(path));
    EXPECT_EXIT(
        {
            ::setenv(LockOrders::VARIABLE, path, 1);
            work();
            ::_exit(0);
        },
        testing::ExitedWithCode(0), "");
    std::ifstream file(path, std::ios::binary);
    std::stringstream read;
    read << file.rdbuf();
    ::unlink(path);
    const std::string table = read.str();
    std::string orders;
    for (size_t at = 0; at < table.size(); at += LockOrders::ENTRY_SIZE) {
        if (table[at] != 0) {
            orders += std::string(table.c_str() + at + 1) + "\n";
        }
    }
    return orders;
}

std::string place(int line) {
    return "tests/foundation/HeldLocksTest.cpp:" + std::to_string(line);
}

void enter_two() {
    CMutex outer{LockClass::SETUP};
    CMutex inner{LockClass::QUEUE};
    outer.enter();
    inner.enter();
    inner.leave();
    inner.enter();
    inner.leave();
    outer.leave();
}
const int g_enter_two_line = __LINE__ - 7;

TEST(LockOrders, TheFirstSightingOfAPairIsKeptWithBothPlaces) {
    EXPECT_EQ("SETUP\t" + place(g_enter_two_line) + "\tQUEUE\t" + place(g_enter_two_line + 1) + "\n",
              orders_of(&enter_two));
}

void enter_by_trying() {
    CMutex outer{LockClass::SETUP};
    CMutex tried{LockClass::QUEUE};
    CMutex of_product;
    const CGuard guard(outer);
    tried.tryEnter();
    tried.leave();
    of_product.enter();
    of_product.leave();
}

TEST(LockOrders, TriesAndLocksOfAProductMakeNoOrder) {
    EXPECT_EQ("", orders_of(&enter_by_trying));
}

void enter_under_a_tried_one() {
    CMutex tried{LockClass::SETUP};
    CMutex inner{LockClass::QUEUE};
    tried.tryEnter();
    const CGuard guard(inner);
    tried.leave();
}

TEST(LockOrders, WhatIsWantedUnderATriedLockMakesOne) {
    EXPECT_NE("", orders_of(&enter_under_a_tried_one));
}

void enter_the_innermost() {
    CMutex outer{LockClass::COMPONENTS};
    CMutex inner{LockClass::LOG};
    const CGuard guard(outer);
    const CGuard inner_guard(inner);
}

// Those that have none are watched by nobody. It was so with the last two.
TEST(LockOrders, TheLastClassHasAPlaceInTheTable) {
    EXPECT_NE(std::string::npos, orders_of(&enter_the_innermost).find("COMPONENTS\t"));
    EXPECT_LT(static_cast<size_t>(LockClass::LOG), LockOrders::SIDE);
}

class Listener : public SeamObserver {
public:
    Listener() : m_before(Seam::set_observer(this)) {}
    ~Listener() { Seam::set_observer(m_before); }
    std::string heard() const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_heard;
    }
    bool m_moved = false;

private:
    void taken(const void*, LockClass lock_class, LockWay) noexcept override {
        note(std::string("takes ") + lock_class_word(lock_class));
    }
    void left(const void*, LockWay) noexcept override { note("leaves"); }
    void waits(const void*) noexcept override { note("waits"); }
    void woke(const void*) noexcept override { note("woke"); }
    void posted(const void*) noexcept override { note("posts"); }
    void thread_begins(const char* name) noexcept override { note(std::string("begins ") + name); }
    void thread_ends(const char* name) noexcept override { note(std::string("ends ") + name); }
    void reads(timespec& now) noexcept override {
        if (m_moved) {
            now = timespec{5, 7000};
        }
    }
    void note(const std::string& what) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_heard += what + ", ";
    }

    SeamObserver* const m_before;
    mutable std::mutex m_mutex;
    std::string m_heard;
};

TEST(Seam, AnObserverHearsLocksWaitsAndPosts) {
    CMutex mutex{LockClass::QUEUE};
    CSemaphore semaphore{0};
    Listener listener;
    mutex.enter();
    mutex.leave();
    semaphore.post();
    semaphore.pend();
    semaphore.pend(1);
    EXPECT_EQ("takes QUEUE, leaves, posts, waits, woke, ", listener.heard());
}

void do_nothing(CThreadLite&) {}

TEST(Seam, AnObserverHearsAThreadBeginAndEnd) {
    Listener listener;
    CThreadLite thread(&do_nothing, "watched");
    thread.createThread();
    while (!thread.isThreadOver()) {
        ::usleep(100);
    }
    const size_t begins = listener.heard().find("begins watched, ");
    ASSERT_NE(std::string::npos, begins);
    EXPECT_NE(std::string::npos, listener.heard().find("ends watched, ", begins));
}

TEST(Seam, AnObserverMaySetTheClock) {
    Listener listener;
    listener.m_moved = true;
    EXPECT_EQ(5000007u, CTime::getCurrentMicroSecond());
}

#if defined(__SANITIZE_THREAD__)

void enter_both_ways() {
    CMutex one;
    CMutex other;
    for (CMutex* const first : {&one, &other}) {
        CMutex& second = first == &one ? other : one;
        const CGuard outer(*first);
        const CGuard inner(second);
    }
}

TEST(Seam, ThreadSanitizerSeesTwoLocksThatAreEnteredInTwoOrders) {
    constexpr int REPORTED = 66;
    EXPECT_EXIT((enter_both_ways(), ::_exit(0)), testing::ExitedWithCode(REPORTED), "lock-order-inversion");
}

#endif

}  // namespace
}  // namespace Orvex::Infra

#endif
