// MailboxBody: letters and their doorbells, and what becomes of a letter whose bell does not ring.
#include "Kit/MailboxBody.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Reticor/kit/Pool.h>

#include "Core/record/EventFreeList.h"
#include "support/Eventually.h"
#include "support/kit/Live.h"
#include "support/kit/Shortage.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using Infra::CSemaphore;
using Kit::MailboxBody;

/// While it lives no record of the library rests on this thread or in the process.
class NoRecordsRest {
public:
    NoRecordsRest() {
        size_t before = 0;
        do {
            m_taken.reserve(m_taken.size() + 1);
            before = allocationCount();
            m_taken.push_back(Reticor::get_event());
        } while (allocationCount() == before);
    }
    ~NoRecordsRest() {
        for (Reticor::CEvent* const ev : m_taken) {
            Reticor::put_event(ev);
        }
    }
    NoRecordsRest(const NoRecordsRest&) = delete;
    NoRecordsRest& operator=(const NoRecordsRest&) = delete;

private:
    std::vector<Reticor::CEvent*> m_taken;
};

class KitMailbox : public testing::Test {
protected:
    bool post(MailboxBody::Way way, Kit::UniqueFunction<void()> call) {
        const bool taken = m_box->post(way, call);
        EXPECT_NE(taken, static_cast<bool>(call)) << "it is the box's, or left to the caller";
        return taken;
    }
    auto note(int number) {
        return [this, number, token = m_live.token()] {
            m_ran.push_back(number);
            ++m_count;
        };
    }

    Kit::Pool m_pool{1, true};
    MailboxBody* const m_box = static_cast<MailboxBody*>(Kit::PoolState::of(m_pool)->mailbox());
    Live m_live;
    std::vector<int> m_ran;
    std::atomic<int> m_count{0};
};

TEST_F(KitMailbox, RunsALetterOfEachWay) {
    int count = 0;
    for (const auto way : {MailboxBody::PLAIN, MailboxBody::SERIAL, MailboxBody::IO}) {
        EXPECT_TRUE(post(way, note(static_cast<int>(way))));
        ++count;
        EXPECT_EVENTUALLY(m_count == count && m_live.count() == 0);
    }
    EXPECT_EQ((std::vector<int>{MailboxBody::PLAIN, MailboxBody::SERIAL, MailboxBody::IO}), m_ran);
}

// The letter has been kept from an earlier one, so that the bell is what finds no memory.
TEST_F(KitMailbox, WithoutMemoryForTheBellTheLetterIsLeftToTheCaller) {
    int count = 0;
    for (const auto way : {MailboxBody::PLAIN, MailboxBody::SERIAL, MailboxBody::IO}) {
        ASSERT_TRUE(post(way, note(0)));
        ++count;
        EXPECT_EVENTUALLY(m_count == count && m_live.count() == 0);
        {
            const NoRecordsRest records;
            auto refused = note(1);
            const NoMemory none;
            EXPECT_FALSE(post(way, std::move(refused)));
        }
        EXPECT_EQ(0, m_live.count());
        ASSERT_TRUE(post(way, note(2)));
        ++count;
        EXPECT_EVENTUALLY(m_count == count && m_live.count() == 0) << "the line is whole";
    }
    EXPECT_EQ((std::vector<int>{0, 2, 0, 2, 0, 2}), m_ran);
}

TEST_F(KitMailbox, WhatIsTakenBackLeavesTheOthersInTheirOrder) {
    // The serial line is held, so that letters wait in it.
    CSemaphore inside(0);
    CSemaphore go(0);
    ASSERT_TRUE(post(MailboxBody::SERIAL, [&] {
        inside.post();
        go.pend();
    }));
    inside.pend();
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(post(MailboxBody::SERIAL, note(i)));
        const NoRecordsRest records;
        auto refused = note(100 + i);
        const OneAllocationFails bell(1);  // the first one is the letter's
        EXPECT_FALSE(post(MailboxBody::SERIAL, std::move(refused)));
    }
    go.post();
    ASSERT_TRUE(post(MailboxBody::SERIAL, note(4)));
    EXPECT_EVENTUALLY(m_count >= 4 && m_live.count() == 0);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), m_ran);
}

TEST_F(KitMailbox, OnceSealedItTakesNothing) {
    m_box->drain();
    EXPECT_FALSE(post(MailboxBody::PLAIN, note(1)));
    EXPECT_EQ(0, m_live.count());
    EXPECT_EQ(0U, m_pool.stop().stayed);
}

TEST_F(KitMailbox, OnceCutItDestroysWhatWaitsOnThePool) {
    CSemaphore inside(0);
    CSemaphore go(0);
    ASSERT_TRUE(post(MailboxBody::SERIAL, [&] {
        inside.post();
        go.pend();
    }));
    inside.pend();
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(post(MailboxBody::SERIAL, note(i)));
    }
    EXPECT_FALSE(m_box->cut()) << "calls are not bytes that are lost";
    go.post();
    EXPECT_EVENTUALLY(m_live.count() == 0);
    EXPECT_EQ(0, m_count);
    EXPECT_EQ(0U, m_pool.stop().stayed);
}

}  // namespace
}  // namespace Orvex::Testing
