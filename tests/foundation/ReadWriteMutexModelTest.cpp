// CReadWriteMutex beside a model: who may be inside together, who waits for whom, whatever the order.
#if defined(__clang__)
// These tests enter and leave in all the ways that the analysis is there to refuse.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif
#include <Infra/ReadWriteMutex.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/SeededRandom.h"
#include "support/StepThread.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

enum class Hold { NONE, READS, WRITES };

struct LockUser {
    StepThread thread;
    std::atomic<Hold> hold{Hold::NONE};
    Hold wanted = Hold::NONE;  // what it was told to enter and has not been seen to have
};

class ReadWriteModel : public testing::Test {
protected:
    static constexpr size_t USERS = 5;

    int count(Hold hold) const {
        int found = 0;
        for (const LockUser& user : users) {
            found += user.hold == hold ? 1 : 0;
        }
        return found;
    }
    int waiting(Hold wanted) {
        int found = 0;
        for (LockUser& user : users) {
            user.wanted = user.hold == user.wanted ? Hold::NONE : user.wanted;
            found += user.wanted == wanted ? 1 : 0;
        }
        return found;
    }
    // Nobody waits without need: a lost wake-up would be one that does.
    bool everybody_is_where_the_lock_lets_him_be() {
        const int waiting_writers = waiting(Hold::WRITES);
        const int waiting_readers = waiting(Hold::READS);
        if (count(Hold::WRITES) > 0) {
            return true;
        }
        if (count(Hold::READS) > 0) {
            return waiting_readers == 0 || waiting_writers > 0;
        }
        return waiting_readers + waiting_writers == 0;
    }
    // Nobody is on his way: a writer that has just been woken has not closed the gate yet. Asked more than
    // once, since one that was seen asleep may have been woken by one that was looked at later.
    bool everybody_rests() const {
        for (int look = 0; look < 3; ++look) {
            for (const LockUser& user : users) {
                if (!user.thread.doneOrSleeps()) {
                    return false;
                }
            }
        }
        return true;
    }
    void expect_no_company_for_a_writer() const {
        const int writers = count(Hold::WRITES);
        EXPECT_LE(writers, 1);
        EXPECT_TRUE(writers == 0 || count(Hold::READS) == 0);
    }

    void tell(LockUser& user, Hold hold) {
        user.wanted = hold;
        user.thread.begin([this, &user, hold] {
            EXPECT_TRUE(hold == Hold::READS ? mutex.enterReading() : mutex.enterWriting());
            EXPECT_EQ(hold == Hold::WRITES, mutex.writtenByThisThread());
            user.hold = hold;
        });
    }
    // What the lock must do with one that comes now is decided: all others rest.
    void enter(LockUser& user, Hold hold) {
        const bool writer_inside = count(Hold::WRITES) > 0;
        const bool writer_waits = waiting(Hold::WRITES) > 0;
        const bool reader_inside = count(Hold::READS) > 0;
        const bool has_to_wait = writer_inside || writer_waits || (hold == Hold::WRITES && reader_inside);
        tell(user, hold);
        if (has_to_wait) {
            EXPECT_EVENTUALLY(user.thread.sleeps());
            EXPECT_EQ(Hold::NONE, user.hold);
        } else {
            EXPECT_EVENTUALLY(user.thread.done());
        }
    }
    void leave(LockUser& user) {
        user.wanted = Hold::NONE;
        EXPECT_TRUE(user.thread.take([this, &user] {
            user.hold = Hold::NONE;
            EXPECT_TRUE(mutex.leave());
            EXPECT_FALSE(mutex.writtenByThisThread());
        }));
    }
    void step(SeededRandom& random) {
        LockUser& user = users[random.between<size_t>(0, USERS - 1)];
        if (!user.thread.done()) {
            return;
        }
        if (user.hold != Hold::NONE) {
            leave(user);
        } else {
            enter(user, random.oneIn(3) ? Hold::WRITES : Hold::READS);
        }
        EXPECT_EVENTUALLY(everybody_is_where_the_lock_lets_him_be() && everybody_rests());
        expect_no_company_for_a_writer();
    }
    void end_all() {
        EXPECT_EVENTUALLY([&] {
            for (LockUser& user : users) {
                if (user.thread.done() && user.hold != Hold::NONE) {
                    leave(user);
                }
            }
            return count(Hold::NONE) == static_cast<int>(USERS) &&
                   waiting(Hold::READS) + waiting(Hold::WRITES) == 0;
        }());
    }

    CReadWriteMutex mutex;
    std::array<LockUser, USERS> users;
};

TEST_F(ReadWriteModel, ReadersShareWritersAreAloneAndNobodyWaitsWithoutNeed) {
    SeededRandom random;
    for (int i = 0; i < 400 && !HasFailure(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        step(random);
    }
    end_all();
    EXPECT_TRUE(mutex.enterWriting());
    mutex.leave();
}

// Two that want to write: the second one does not sleep on when the first has gone.
TEST_F(ReadWriteModel, WritersThatWaitForReadersFollowEachOther) {
    enter(users[0], Hold::READS);
    enter(users[1], Hold::WRITES);
    enter(users[2], Hold::WRITES);
    leave(users[0]);
    ASSERT_EVENTUALLY(count(Hold::WRITES) == 1);
    LockUser& first = users[1].hold == Hold::WRITES ? users[1] : users[2];
    LockUser& second = &first == &users[1] ? users[2] : users[1];
    EXPECT_EVENTUALLY(second.thread.sleeps());
    leave(first);
    EXPECT_EVENTUALLY(second.hold == Hold::WRITES);
    end_all();
}

// The readers that a writer has kept out come in together, not one by one.
TEST_F(ReadWriteModel, AWriterThatLeavesLetsAllReadersIn) {
    enter(users[0], Hold::WRITES);
    for (size_t i = 1; i < USERS; ++i) {
        enter(users[i], Hold::READS);
    }
    leave(users[0]);
    EXPECT_EVENTUALLY(count(Hold::READS) == static_cast<int>(USERS) - 1);
    end_all();
}

TEST_F(ReadWriteModel, GuardsHoldForTheirScopeInTheirWay) {
    {
        const CReadGuard reads(mutex);
        enter(users[0], Hold::READS);
        leave(users[0]);
        tell(users[1], Hold::WRITES);
        EXPECT_EVENTUALLY(users[1].thread.sleeps());
    }
    EXPECT_EVENTUALLY(users[1].hold == Hold::WRITES);
    leave(users[1]);
    {
        const CWriteGuard writes(mutex);
        EXPECT_TRUE(mutex.writtenByThisThread());
        tell(users[2], Hold::READS);
        EXPECT_EVENTUALLY(users[2].thread.sleeps());
    }
    EXPECT_FALSE(mutex.writtenByThisThread());
    EXPECT_EVENTUALLY(users[2].hold == Hold::READS);
    end_all();
}

TEST_F(ReadWriteModel, ErrnoSurvivesWaitsOfBothKindsAndTheirEnd) {
    int after_reading = 0;
    int after_writing = 0;
    mutex.enterWriting();
    users[0].thread.begin([&] {
        errno = ECONNRESET;
        mutex.enterReading();
        mutex.leave();
        after_reading = errno;
    });
    users[1].thread.begin([&] {
        errno = ECHILD;
        mutex.enterWriting();
        mutex.leave();
        after_writing = errno;
    });
    ASSERT_EVENTUALLY(users[0].thread.sleeps() && users[1].thread.sleeps());
    errno = EPIPE;
    mutex.leave();
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EVENTUALLY(users[0].thread.done() && users[1].thread.done());
    EXPECT_EQ(ECONNRESET, after_reading);
    EXPECT_EQ(ECHILD, after_writing);
}

// What a writer has written is seen by whoever enters next in any way; TSan looks at the order.
TEST_F(ReadWriteModel, LeavingHandsOverWhatWasWritten) {
    std::vector<int> data;
    mutex.enterWriting();
    size_t seen_reading = 0;
    size_t seen_writing = 0;
    users[0].thread.begin([&] {
        const CReadGuard guard(mutex);
        seen_reading = data.size();
    });
    users[1].thread.begin([&] {
        const CWriteGuard guard(mutex);
        seen_writing = data.size();
        data.clear();
    });
    ASSERT_EVENTUALLY(users[0].thread.sleeps() && users[1].thread.sleeps());
    data.assign(100, 7);
    mutex.leave();
    EXPECT_EVENTUALLY(users[0].thread.done() && users[1].thread.done());
    EXPECT_EQ(100u, seen_writing);
    EXPECT_TRUE(seen_reading == 100 || seen_reading == 0);
    EXPECT_TRUE(data.empty());
}

CReadWriteMutex g_late_lock;
thread_local struct LateReader {
    bool used = false;
    ~LateReader() {
        if (used) {
            g_late_lock.enterReading();
            g_late_lock.leave();
        }
    }
} t_late_reader;

// A thread's own objects go after it has given its place back, and may read.
TEST(ReadWriteMutex, ThreadLocalObjectsMayReadWhileTheyAreDestroyed) {
    for (int i = 0; i < 20; ++i) {
        std::thread([] {
            t_late_reader.used = true;
            g_late_lock.enterReading();
            g_late_lock.leave();
        }).join();
    }
    StepThread other;
    EXPECT_TRUE(other.take([] {
        g_late_lock.enterWriting();  // waits for ever if one of them still counted as a reader
        g_late_lock.leave();
    }));
}

CReadWriteMutex g_lock_at_exit;

TEST(ReadWriteMutexDeath, StaticLockServesThreadsThatRunDuringExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::atomic<long> passes{0};
            std::thread([&] {
                for (;;) {
                    const CReadGuard guard(g_lock_at_exit);
                    ++passes;
                }
            }).detach();
            eventually([&] { return passes > 10; });
            std::atexit([] { const CWriteGuard guard(g_lock_at_exit); });
            std::exit(7);
        },
        testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace Orvex::Infra
