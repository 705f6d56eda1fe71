// CoreSeat: what is entered is where the sender is then.
#include "Tool/step/CoreSeat.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "Tool/step/MediaStep.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

struct Seated {
    std::shared_ptr<MediaCore> first = std::make_shared<MediaCore>();
    std::shared_ptr<MediaCore> second = std::make_shared<MediaCore>();
    Infra::CMutex mutex{Infra::LockClass::MEDIA_OTHER};
    CoreSeat seat{mutex};
};

TEST(CoreSeat, NothingIsEnteredWhereASenderHasNotBeen) {
    Seated it;
    EXPECT_EQ(nullptr, it.seat.get());
    EXPECT_EQ(nullptr, it.seat.enter());
}

TEST(CoreSeat, ChangesOnlyFromTheOneThatItIsIn) {
    Seated it;
    EXPECT_FALSE(it.seat.change(it.first, it.second));
    EXPECT_TRUE(it.seat.change(nullptr, it.first));
    EXPECT_FALSE(it.seat.change(nullptr, it.second));
    EXPECT_EQ(it.first, it.seat.get());
    EXPECT_TRUE(it.seat.change(it.first, it.second));
    EXPECT_EQ(it.second, it.seat.get());
}

// The thread has seen the first one, and finds its lock taken, in most rounds.
TEST(CoreSeat, WhoeverWaitsForALockThatIsLeftBehindEntersTheNextOne) {
    for (int round = 0; round < 200; ++round) {
        Seated it;
        ASSERT_TRUE(it.seat.change(nullptr, it.first));
        std::atomic<bool> begun{false};
        std::thread enters;
        {
            const CoreGuard guard(*it.first);
            enters = std::thread([&] {
                begun = true;
                EXPECT_EQ(it.second, it.seat.enter());
                EXPECT_TRUE(it.second->m_mutex.heldByThisThread());
                EXPECT_FALSE(it.first->m_mutex.heldByThisThread());
                const MediaStep step(it.second, MediaStep::ENTERED);
            });
            while (!begun) {
            }
            std::this_thread::yield();
            EXPECT_TRUE(it.seat.change(it.first, it.second));
        }
        enters.join();
    }
}

}  // namespace
}  // namespace Orvex::Testing
