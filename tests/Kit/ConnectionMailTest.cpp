// ConnectionMail: the order of posted calls, and when delayed ones come.
#include "Kit/call/ConnectionMail.h"

#include <vector>

#include <gtest/gtest.h>

#include "support/kit/Live.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor::Kit;

class ConnectionMailOfAConnection : public ::testing::Test {
protected:
    ConnectionMail::Call note(int number) {
        return [this, number, token = live.token()](Connection&) { ran.push_back(number); };
    }
    void put(int number) {
        ConnectionMail::Call call = note(number);
        EXPECT_TRUE(mail.put(call));
        EXPECT_FALSE(call) << "it is the box's now";
    }
    void put_delayed(long timer, uint64_t due_us) {
        ConnectionMail::Call call = note(static_cast<int>(timer));
        ASSERT_TRUE(mail.reserve_delayed());
        mail.put_delayed(timer, due_us, call);
    }
    std::vector<int> run() {
        std::vector<ConnectionMail::Call> calls;
        mail.take(calls);
        Connection nobody;
        for (ConnectionMail::Call& call : calls) {
            call(nobody);
        }
        return std::exchange(ran, {});
    }

    Live live;
    std::vector<int> ran;
    ConnectionMail mail;
};

TEST_F(ConnectionMailOfAConnection, CallsAreTakenInTheirOrderAndOnce) {
    put(1);
    put(2);
    put(3);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), run());
    EXPECT_EQ(std::vector<int>{}, run());
    EXPECT_EQ(0, live.count());
}

TEST_F(ConnectionMailOfAConnection, WithoutMemoryACallIsLeftToTheCaller) {
    ConnectionMail::Call call = note(1);
    {
        const NoMemory none;
        EXPECT_FALSE(mail.put(call));
        EXPECT_FALSE(mail.reserve_delayed());
    }
    EXPECT_TRUE(call);
    EXPECT_EQ(1, live.count());
    EXPECT_EQ(std::vector<int>{}, run());
}

TEST_F(ConnectionMailOfAConnection, ADelayedCallIsPutWhenItsTimeHasCome) {
    put_delayed(5, 1000000);
    put_delayed(6, 2000000);
    put_delayed(7, 3000000);
    const ConnectionMail::RanOut early = mail.run_out(6, 500000);
    EXPECT_EQ(1500000, early.again);
    EXPECT_FALSE(early.has_mail);
    EXPECT_EQ(std::vector<int>{}, run());

    for (const long timer : {6L, 7L, 5L}) {
        const ConnectionMail::RanOut due = mail.run_out(timer, 3000000);
        EXPECT_EQ(-1, due.again);
        EXPECT_TRUE(due.has_mail);
    }
    EXPECT_EQ((std::vector<int>{6, 7, 5}), run());
    const ConnectionMail::RanOut over = mail.run_out(6, 4000000);
    EXPECT_EQ(-1, over.again);
    EXPECT_FALSE(over.has_mail);
}

TEST_F(ConnectionMailOfAConnection, WithoutMemoryADueCallComesAgain) {
    put_delayed(5, 1000000);
    {
        const NoMemory none;
        const ConnectionMail::RanOut due = mail.run_out(5, 1000000);
        EXPECT_EQ(3000, due.again);
        EXPECT_FALSE(due.has_mail);
    }
    EXPECT_EQ(1, live.count());
    EXPECT_TRUE(mail.run_out(5, 1003000).has_mail);
    EXPECT_EQ(std::vector<int>{5}, run());
    EXPECT_EQ(0, live.count());
}

TEST_F(ConnectionMailOfAConnection, WhatStillWaitsIsTakenWithItsTimers) {
    put_delayed(5, 1000000);
    put_delayed(6, 2000000);
    {
        const std::vector<ConnectionMail::Delayed> left = mail.take_delayed();
        ASSERT_EQ(2U, left.size());
        EXPECT_EQ(5, left[0].timer);
        EXPECT_EQ(6, left[1].timer);
        EXPECT_EQ(2, live.count());
    }
    EXPECT_EQ(0, live.count());
    EXPECT_EQ(-1, mail.run_out(5, 9000000).again);
    EXPECT_EQ(std::vector<int>{}, run());
}

}  // namespace
}  // namespace Orvex::Testing
