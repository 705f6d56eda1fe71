// SendProcedure: a copy is called, outside of the lock.
#include "Tool/step/SendProcedure.h"

#include <gtest/gtest.h>

#include "support/socket/Allocations.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

struct Hearer {
    void hear(CMediaPacket*, int arg, int length) {
        ++calls;
        sum = arg + length;
        locked = mutex->heldByThisThread();
        if (procedure != nullptr) {
            procedure->drop();
        }
    }
    Infra::CMutex* mutex;
    SendProcedure* procedure = nullptr;
    int calls = 0;
    int sum = 0;
    bool locked = false;
};

class SendProcedureOfASender : public ::testing::Test {
protected:
    void call() { procedure.call(nullptr, 1, 20); }

    Infra::CMutex mutex;
    SendProcedure::Function* place = nullptr;
    SendProcedure procedure{mutex, place};
    Hearer hearer{&mutex};
};

TEST_F(SendProcedureOfASender, IsCalledWithoutTheLockUntilItIsDropped) {
    call();
    EXPECT_FALSE(procedure.is_set());
    EXPECT_TRUE(procedure.set({&Hearer::hear, &hearer}));
    EXPECT_TRUE(procedure.is_set());
    call();
    EXPECT_EQ(1, hearer.calls);
    EXPECT_EQ(21, hearer.sum);
    EXPECT_FALSE(hearer.locked);
    procedure.drop();
    EXPECT_FALSE(procedure.is_set());
    call();
    EXPECT_EQ(1, hearer.calls);
}

TEST_F(SendProcedureOfASender, MayDropItself) {
    hearer.procedure = &procedure;
    EXPECT_TRUE(procedure.set({&Hearer::hear, &hearer}));
    call();
    call();
    EXPECT_EQ(1, hearer.calls);
}

TEST_F(SendProcedureOfASender, WithoutMemoryThereIsNone) {
    EXPECT_TRUE(procedure.set({&Hearer::hear, &hearer}));
    {
        const NoMemory none;
        EXPECT_FALSE(procedure.set({&Hearer::hear, &hearer}));
    }
    EXPECT_FALSE(procedure.is_set());
    call();
    EXPECT_EQ(0, hearer.calls);
}

}  // namespace
}  // namespace Orvex::Testing
