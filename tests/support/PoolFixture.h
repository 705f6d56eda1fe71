// PoolFixture: the library with its public pool, from the beginning of a case to its end.
#pragma once

#include <gtest/gtest.h>

#include <Reticor/NetThread.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TestHandler.h"

namespace Orvex::Testing {

class PoolFixture : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, Reticor::CNetThread::CreateThreadPool(workers, false)); }
    void TearDown() override { EXPECT_EQ(0, Reticor::CNetThread::DestroyThreadPool()); }

    // Closes the handler and waits until it is deleted.
    static void closeAndWait(TestHandler* handler) {
        const std::shared_ptr<HandlerLife> life = handler->life;
        handler->Close();
        EXPECT_EVENTUALLY(life->closes == 1);
    }

    unsigned int workers = 2;
};

}  // namespace Orvex::Testing
