// LateTimers: timers that wait for a worker, and those that were given late.
#include "Core/service/LateTimers.h"

#include <gtest/gtest.h>

#include <Infra/Time.h>

#include "Core/record/EventFreeList.h"
#include "support/HandClock.h"
#include "support/core/StillPool.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr uint64_t LIMIT = LateTimers::LIMIT_US;

// A pool in which nobody takes what is queued.
class LateTimersOfPool : public ::testing::Test {
protected:
    LateTimersOfPool() { rig.takeQueue(); }
    ~LateTimersOfPool() override { empty(); }

    void queueTimer(uint64_t due_us, int64_t key = -7000000) {
        CEvent* const ev = get_event();
        ev->m_key = key;
        ev->m_expire = due_us;
        rig.pool().m_event.PushOne(ev);
        m_queued.push_back(ev);
    }
    void empty() {
        while (rig.pool().m_event.TryPop() != nullptr) {
        }
        for (CEvent* ev : m_queued) {
            put_event(ev);
        }
        m_queued.clear();
        EventQueueProbe::takeCounts(rig.pool().m_event);
    }
    LateTimers::Facts look() { return LateTimers::Look(m_index, rig.pool()); }

    inline static int s_next_index = 20;  // what was late in a pool stays known
    const int m_index = s_next_index++;
    StillPool rig{m_index};
    HandClock clock;

private:
    std::vector<CEvent*> m_queued;
};

TEST_F(LateTimersOfPool, ATimerThatWaitsForLongIsLateFromItsTimeOn) {
    const uint64_t due = clock.nowUs();
    queueTimer(due);
    clock.advanceUs(LIMIT - 1);
    EXPECT_FALSE(look().span.lasts);
    EXPECT_EQ(0u, look().waiting);
    clock.advanceUs(1);
    EXPECT_TRUE(look().span.lasts);
    clock.advanceUs(50000);
    queueTimer(clock.nowUs());  // in time
    const LateTimers::Facts late = look();
    EXPECT_EQ(due, late.span.since_us);
    EXPECT_EQ(1u, late.waiting);
    EXPECT_EQ(LIMIT + 50000, late.most_us);
    EXPECT_EQ(1u, late.span.times);
    empty();
    const LateTimers::Facts over = look();
    EXPECT_FALSE(over.span.lasts);
    EXPECT_EQ(clock.nowUs(), over.span.ended_us);
    EXPECT_EQ(LIMIT + 50000, over.most_us) << "of the time that is over";
    EXPECT_EQ(0u, over.waiting);
}

TEST_F(LateTimersOfPool, TheNextTimeBeginsWithAFigureOfItsOwn) {
    clock.advanceUs(AlarmSpan::HOLD_US);
    queueTimer(clock.nowUs() - 5 * LIMIT);
    EXPECT_EQ(5 * LIMIT, look().most_us);
    empty();
    look();
    clock.advanceUs(AlarmSpan::HOLD_US);
    queueTimer(clock.nowUs() - 2 * LIMIT);
    const LateTimers::Facts late = look();
    EXPECT_EQ(2u, late.span.times);
    EXPECT_EQ(2 * LIMIT, late.most_us);
}

TEST_F(LateTimersOfPool, OtherRecordsThatWaitAreNoTimers) {
    for (const int64_t key : {EVENT_KEY_MESSAGE, EVENT_KEY_HEARTBEAT, EVENT_KEY_TIMER_LIMIT, int64_t{7}}) {
        queueTimer(1, key);
    }
    EXPECT_FALSE(look().span.lasts);
}

TEST_F(LateTimersOfPool, OneThatIsGivenLateIsNotedAndOverAtOnce) {
    LateTimers::Given(m_index, LIMIT, clock.nowUs());
    EXPECT_EQ(0u, look().span.times) << "as late as it may be";
    LateTimers::Given(m_index, LIMIT + 1, clock.nowUs());
    const LateTimers::Facts late = look();
    EXPECT_EQ(1u, late.span.times);
    EXPECT_FALSE(late.span.lasts);
    EXPECT_EQ(clock.nowUs() - LIMIT - 1, late.span.since_us);
    EXPECT_EQ(clock.nowUs(), late.span.ended_us);
    EXPECT_EQ(LIMIT + 1, late.most_us);
    for (const int wrong : {-1, PoolTable::POOL_LIMIT}) {
        LateTimers::Given(wrong, 2 * LIMIT, clock.nowUs());  // of an id that is no id
    }
}

}  // namespace
}  // namespace Orvex::Testing
