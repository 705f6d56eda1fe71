// PendingLoad: from the question for a load to its end.
#include "Tool/file/PendingLoad.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/Rounds.h"

namespace Orvex::Reticor {
namespace {

TEST(PendingLoad, LastsFromTheQuestionToTheEnd) {
    PendingLoad load;
    EXPECT_FALSE(load.reading());
    EXPECT_TRUE(load.read_start());
    EXPECT_TRUE(load.reading());
    load.read_end();
    EXPECT_FALSE(load.reading());
}

TEST(PendingLoad, ASecondQuestionIsToldThatThereIsOne) {
    PendingLoad load;
    EXPECT_TRUE(load.read_start());
    EXPECT_FALSE(load.read_start());
    load.read_end();
    EXPECT_FALSE(load.reading()) << "one end is enough for both";
    EXPECT_TRUE(load.read_start());
}

TEST(PendingLoad, AnEndWithoutALoadDoesNothing) {
    PendingLoad load;
    load.read_end();
    EXPECT_FALSE(load.reading());
    EXPECT_TRUE(load.read_start());
}

TEST(PendingLoad, LoadsOfTwoFilesAreTwo) {
    PendingLoad one;
    PendingLoad other;
    EXPECT_TRUE(one.read_start());
    EXPECT_FALSE(other.reading());
    EXPECT_TRUE(other.read_start());
    one.read_end();
    EXPECT_TRUE(other.reading());
}

// Where two threads meet, again and again.
class Meeting {
public:
    // True for the one that came last.
    bool come() {
        const int phase = m_phase;
        if (++m_arrived % 2 == 0) {
            ++m_phase;
            return true;
        }
        while (m_phase == phase) {
            if (++m_turns % 4096 == 0) {
                std::this_thread::yield();  // the other one may have no processor
            }
        }
        return false;
    }

private:
    std::atomic<int> m_arrived{0};
    std::atomic<int> m_phase{0};
    std::atomic<unsigned> m_turns{0};
};

TEST(PendingLoad, OfTwoThatAskAtTheSameTimeOneIsTheFirst) {
    constexpr int MOST_ROUNDS = 1000;
    PendingLoad load;
    Meeting meeting;
    std::atomic<int> firsts{0};
    std::atomic<bool> over{false};
    const auto ask = [&](int i) {
        const bool last = meeting.come();
        // The one that came last knows of the meeting first.
        for (int wait = last ? i % 128 : 0; wait > 0; --wait) {
            firsts += 0;
        }
        firsts += load.read_start() ? 1 : 0;
        meeting.come();
    };
    std::thread other([&] {
        for (int i = 0; !over; ++i) {
            ask(i);
            meeting.come();
        }
    });
    Testing::Rounds rounds(MOST_ROUNDS);
    int done = 0;
    for (bool more = rounds.next(); more; ++done) {
        ask(0);
        EXPECT_EQ(done + 1, firsts);
        load.read_end();
        more = rounds.next() && !HasFailure();
        over = !more;
        meeting.come();
    }
    other.join();
}

}  // namespace
}  // namespace Orvex::Reticor
