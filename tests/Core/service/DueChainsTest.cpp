// DueChains: what one tick of the timers makes of those that are due.
#include "Core/service/DueChains.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include <Infra/Time.h>

#include "Core/record/EventFreeList.h"
#include "Core/service/LateTimers.h"
#include "support/core/StillPool.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

int64_t ownerIn(int pool, int64_t number = 0) {
    return ((-100 - number) * 256 + pool) * 256;
}

ArmedTimer dueTimer(int64_t number, int pool, uint64_t expire, uint64_t delay = 0) {
    return {ownerIn(pool, 5000 + number), ownerIn(pool, number), expire, delay};
}

class DueChainsCase : public ::testing::Test {
protected:
    void TearDown() override { giveBack(); }
    void giveBack() {
        for (int i = 0; i < due->m_active_num; ++i) {
            put_event_chain(std::exchange(chain(due->m_active[static_cast<size_t>(i)]), nullptr));
        }
        due->m_active_num = 0;
    }
    CEvent*& chain(int pool) { return due->m_chain[static_cast<size_t>(pool)]; }
    SpreadValues lateness() const {
        SpreadValues values;
        due->m_late.AddTo(values);
        return values;
    }

    std::unique_ptr<DueChains> due = std::make_unique<DueChains>();
};

TEST_F(DueChainsCase, ARecordHasAllThatItsWorkerNeeds) {
    due->m_stamp_ns = 123456789;
    ASSERT_TRUE(due->Add(dueTimer(7, 3, 4000, 2500)));
    ASSERT_EQ(1, due->m_active_num);
    EXPECT_EQ(3, due->m_active[0]);
    const CEvent* const ev = chain(3);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(ownerIn(3, 5007), ev->m_key);
    EXPECT_EQ(ownerIn(3, 7), ev->m_obj_id);
    EXPECT_EQ(4000u, ev->m_expire);
    EXPECT_EQ(2500u, ev->m_delay);
    EXPECT_EQ(123456789u, ev->m_stamp_ns);
    EXPECT_EQ(nullptr, ev->m_next) << "whatever the record was before";
}

// Records keep what they were while they rest.
TEST_F(DueChainsCase, ARecordThatWasSomethingElseBeforeCarriesNothingOfIt) {
    CEvent* const old = get_event();
    old->m_key = EVENT_KEY_MESSAGE;
    old->m_stamp_ns = 99;
    old->m_obj_id = -1;
    old->m_expire = 1;
    old->m_delay = 1;
    put_event(old);
    due->m_stamp_ns = 0;
    ASSERT_TRUE(due->Add(dueTimer(1, 0, 50, 60)));
    ASSERT_EQ(old, chain(0)) << "the one that was put last";
    EXPECT_EQ(ownerIn(0, 5001), old->m_key);
    EXPECT_EQ(ownerIn(0, 1), old->m_obj_id);
    EXPECT_EQ(50u, old->m_expire);
    EXPECT_EQ(60u, old->m_delay);
    EXPECT_EQ(0u, old->m_stamp_ns);
}

TEST_F(DueChainsCase, AllPoolsCanHaveAChainAtATime) {
    // Each pool twice, from the last one to the first.
    for (int round = 0; round < 2; ++round) {
        for (int pool = PoolTable::POOL_LIMIT - 1; pool >= 0; --pool) {
            ASSERT_TRUE(due->Add(dueTimer(round, pool, 100)));
        }
    }
    ASSERT_EQ(PoolTable::POOL_LIMIT, due->m_active_num);
    for (int pool = 0; pool < PoolTable::POOL_LIMIT; ++pool) {
        EXPECT_EQ(PoolTable::POOL_LIMIT - 1 - pool, due->m_active[static_cast<size_t>(pool)]);
        const CEvent* const last = chain(pool);
        ASSERT_NE(nullptr, last);
        EXPECT_EQ(ownerIn(pool, 1), last->m_obj_id);
        ASSERT_NE(nullptr, last->m_next);
        EXPECT_EQ(ownerIn(pool, 0), last->m_next->m_obj_id);
        EXPECT_EQ(nullptr, last->m_next->m_next);
    }
}

TEST_F(DueChainsCase, LatenessIsFromATimersTimeToTheTickAndNeverNegative) {
    due->m_now_us = 1000;
    ASSERT_TRUE(due->Add(dueTimer(0, 0, 999)));   // 1 us
    ASSERT_TRUE(due->Add(dueTimer(1, 0, 1000)));  // in time
    ASSERT_TRUE(due->Add(dueTimer(2, 0, 1800)));  // taken along ahead of its time
    ASSERT_TRUE(due->Add(dueTimer(3, 0, 100)));   // 900 us
    const SpreadValues values = lateness();
    EXPECT_EQ(2u, values.count[0]);
    EXPECT_EQ(1u, values.count[SpreadTally::place_of(1000)]);
    EXPECT_EQ(1u, values.count[SpreadTally::place_of(900000)]);
    EXPECT_EQ(901000u, values.sum_ns);
    EXPECT_EQ(900000u, values.max_ns);
}

TEST_F(DueChainsCase, OneThatIsGivenMuchTooLateIsNotedInItsPool) {
    const Testing::StillPool rig(44);
    const auto times = [] { return LateTimers::Look(44, *PoolTable::Get(44)).span.times; };
    const uint64_t before = times();
    due->m_now_us = Infra::CTime::getCurrentMicroSecond();
    ASSERT_TRUE(due->Add(dueTimer(0, 44, due->m_now_us - LateTimers::LIMIT_US)));
    EXPECT_EQ(before, times());
    ASSERT_TRUE(due->Add(dueTimer(1, 44, due->m_now_us - LateTimers::LIMIT_US - 1)));
    EXPECT_EQ(before + 1, times());
}

// The timers' own thread goes on with a reserve while there is no memory, and then says that it cannot.
TEST_F(DueChainsCase, WithoutMemoryTheReserveServesAndThenATimerIsRefusedWithNothingChanged) {
    fill_event_reserve();
    {
        Testing::NoMemory none;
        int added = 0;
        while (due->Add(dueTimer(added, 1, 10))) {
            ++added;
        }
        EXPECT_GE(added, 256) << "the reserve";
        EXPECT_EQ(1, due->m_active_num);
        EXPECT_FALSE(due->Add(dueTimer(0, 2, 10)));
        EXPECT_EQ(1, due->m_active_num) << "a pool without a record has no chain";
        EXPECT_EQ(nullptr, chain(2));
        EXPECT_EQ(static_cast<uint64_t>(added), lateness().count[0]) << "and nobody was late";
        giveBack();
        EXPECT_TRUE(due->Add(dueTimer(0, 2, 10))) << "those that came back";
    }
    EXPECT_TRUE(due->Add(dueTimer(1, 2, 10)));
}

}  // namespace
}  // namespace Orvex::Reticor
