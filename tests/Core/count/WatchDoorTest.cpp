// WatchDoor: a watch that rests until something is called.
#include "Core/count/WatchDoor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/KernelThread.h"

namespace Orvex::Testing {
namespace {

using Reticor::WatchDoor;

// A watch in Rest. It goes to sleep only if nobody has left a knock behind.
class RestingWatch {
public:
    RestingWatch()
        : m_thread([this] {
              m_id = kernelThreadId();
              WatchDoor::Rest();
              m_over = true;
          }) {}
    ~RestingWatch() {
        if (!m_joined) {
            WatchDoor::Rouse();
            m_thread.join();
        }
    }

    bool sleeps() const { return m_id != 0 && sleepsInFutex(m_id); }
    bool over() const { return m_over; }
    void join() {
        m_thread.join();
        m_joined = true;
    }

private:
    std::atomic<int> m_id{0};
    std::atomic<bool> m_over{false};
    bool m_joined = false;
    std::thread m_thread;
};

TEST(WatchDoor, AKnockAtAWatchThatIsNotParkedLeavesNothing) {
    WatchDoor::Knock();
    WatchDoor::Knock();
    RestingWatch watch;
    EXPECT_EVENTUALLY(watch.sleeps());
    EXPECT_FALSE(watch.over());
}

TEST(WatchDoor, AKnockEndsTheRestOfAParkedWatch) {
    WatchDoor::SetParked(true);
    RestingWatch watch;
    EXPECT_EVENTUALLY(watch.sleeps());
    WatchDoor::Knock();
    EXPECT_EVENTUALLY(watch.over());
    watch.join();
}

TEST(WatchDoor, AKnockAheadOfTheRestIsNotLost) {
    WatchDoor::SetParked(true);
    WatchDoor::Knock();
    WatchDoor::Rest();
    RestingWatch next;
    EXPECT_EVENTUALLY(next.sleeps()) << "and counts once";
}

TEST(WatchDoor, OfManyKnocksOneCounts) {
    WatchDoor::SetParked(true);
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([] {
            for (int n = 0; n < 100; ++n) {
                WatchDoor::Knock();
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    WatchDoor::Rest();
    RestingWatch next;
    EXPECT_EVENTUALLY(next.sleeps());
}

TEST(WatchDoor, AWatchThatTookItselfBackIsNotKnockedAt) {
    WatchDoor::SetParked(true);
    WatchDoor::SetParked(false);
    WatchDoor::Knock();
    RestingWatch watch;
    EXPECT_EVENTUALLY(watch.sleeps());
}

TEST(WatchDoor, RousingEndsARestParkedOrNot) {
    RestingWatch watch;
    EXPECT_EVENTUALLY(watch.sleeps());
    WatchDoor::Rouse();
    EXPECT_EVENTUALLY(watch.over());
    watch.join();
    WatchDoor::SetParked(true);
    WatchDoor::Rouse();
    WatchDoor::Rest();
    WatchDoor::Knock();
    WatchDoor::Rest();  // rousing has not taken the watch's place at the door
}

TEST(WatchDoor, ARestWithALimitEndsByItselfAndByAKnock) {
    WatchDoor::RestFor(1000);
    WatchDoor::SetParked(true);
    WatchDoor::Knock();
    WatchDoor::RestFor(3600000000);
    RestingWatch next;
    EXPECT_EVENTUALLY(next.sleeps()) << "it took the knock";
}

// As the watch and a worker meet: it parks, looks for work by the mutex of the queue, and rests only if there
// is none; the worker comes from that mutex.
TEST(WatchDoor, NoCallIsMissedBetweenTheLookAndTheRest) {
    constexpr int CALLS = 300;
    std::mutex queue;
    int begun = 0;
    std::atomic<int> seen{0};
    std::thread worker([&] {
        for (int i = 1; i <= CALLS; ++i) {
            {
                const std::lock_guard<std::mutex> guard(queue);
                begun = i;
            }
            WatchDoor::Knock();
            EXPECT_EVENTUALLY(seen.load() == i);
        }
    });
    const auto look = [&] {
        const std::lock_guard<std::mutex> guard(queue);
        return begun;
    };
    for (int known = 0; known < CALLS;) {
        WatchDoor::SetParked(true);
        if (look() == known) {
            WatchDoor::Rest();
        }
        WatchDoor::SetParked(false);
        known = look();
        seen = known;
    }
    worker.join();
}

}  // namespace
}  // namespace Orvex::Testing
