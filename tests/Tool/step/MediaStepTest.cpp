// MediaCore, MediaStep: what begins and ends with an operation on a media buffer.
#include "Tool/step/MediaStep.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <thread>

#include "Tool/step/TargetStepMark.h"
#include "support/HandClock.h"
#include "support/TestHandler.h"
#include "support/core/StillPool.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

struct End final : StepEnd_IF {
    bool go(CMediaStreamSender&) override { return false; }
    void drop_leaving() override INFRA_REQUIRES(CORE_MUTEX) {
        ++drops;
        if (on_drop) {
            on_drop();
        }
    }
    void come(CMediaStreamSender&) override {}
    void go_on(SenderRecord&) override {}
    void stop_waiting(SenderRecord&) override {}

    int drops = 0;
    std::function<void()> on_drop;
};

// Inside another one. The analysis of locks does not follow it, and so does not take it for a second entry.
using Inner = std::optional<MediaStep>;

struct Guest final : StepGuest_IF {
    void come() override { on_come(); }
    std::function<void()> on_come;
};

class MediaStepOfABuffer : public ::testing::Test {
protected:
    MediaStepOfABuffer() {
        const CoreGuard guard(*core);
        core->open(end);
    }

    std::shared_ptr<MediaCore> core = std::make_shared<MediaCore>();
    End end;
};

TEST_F(MediaStepOfABuffer, OnlyTheOutermostOneIsNotNested) {
    const MediaStep outer(core);
    EXPECT_FALSE(outer.nested());
    {
        const Inner inner(std::in_place, core);
        EXPECT_TRUE(inner->nested());
        const Inner of_another(std::in_place, std::make_shared<MediaCore>());
        EXPECT_FALSE(of_another->nested());
    }
    EXPECT_TRUE(core->steps_on_this_thread()) << "an inner one does not end the operation";
}

TEST_F(MediaStepOfABuffer, AThreadKnowsWhetherItIsInsideAnOperation) {
    EXPECT_FALSE(core->steps_on_this_thread());
    {
        const CoreGuard guard(*core);
        EXPECT_FALSE(core->steps_on_this_thread()) << "under the mutex alone no call-back runs";
    }
    const MediaStep step(core);
    EXPECT_TRUE(core->steps_on_this_thread());
    std::thread([this] { EXPECT_FALSE(core->steps_on_this_thread()); }).join();
}

TEST_F(MediaStepOfABuffer, SendersLeaveAtTheEndOfTheOutermostOneAndAsOftenAsNeeded) {
    end.on_drop = [this]() INFRA_NO_THREAD_SAFETY_ANALYSIS {
        EXPECT_TRUE(core->steps_on_this_thread()) << "taking off is a part of the operation";
        if (end.drops < 3) {
            core->note_leaving();
        }
    };
    {
        const MediaStep outer(core);
        {
            const Inner inner(std::in_place, core);
            core->note_leaving();
        }
        EXPECT_EQ(0, end.drops);
    }
    EXPECT_EQ(3, end.drops);
    { const MediaStep quiet(core); }
    EXPECT_EQ(3, end.drops) << "nobody has left";
}

TEST_F(MediaStepOfABuffer, ABufferThatHasGoneIsAskedNothing) {
    {
        const MediaStep step(core);
        core->note_leaving();
        core->close();
    }
    EXPECT_EQ(0, end.drops);
}

TEST_F(MediaStepOfABuffer, ReferencesAreDroppedWithTheMutexLeft) {
    StillPool rig{0};
    auto* const handler = new TestHandler(0);
    const std::shared_ptr<HandlerLife> life = handler->life;
    handler->on_close = [this] {
        EXPECT_FALSE(core->m_mutex.heldByThisThread());
        EXPECT_FALSE(TargetStepMark::inside());
    };
    handler->AddRef();
    handler->Close();
    for (CEvent* ev : rig.takeQueue()) {
        rig.serve(ev);
    }
    {
        const MediaStep step(core);
        core->let_go(new GoneSender{handler});
        EXPECT_EQ(0, life->closes);
    }
    EXPECT_EQ(1, life->closes);
}

TEST_F(MediaStepOfABuffer, GuestsComeWhenTheThreadIsOutOfAllOperations) {
    const auto second = std::make_shared<MediaCore>();
    Guest guest;
    int visits = 0;
    guest.on_come = [&] {
        ++visits;
        EXPECT_FALSE(core->m_mutex.heldByThisThread());
        EXPECT_FALSE(second->m_mutex.heldByThisThread());
    };
    {
        const MediaStep outer(core);
        {
            const Inner inner(std::in_place, second);
            TargetStepMark::await(guest);
        }
        EXPECT_EQ(0, visits);
    }
    EXPECT_EQ(1, visits);
}

TEST_F(MediaStepOfABuffer, TheClockIsReadOnceInAnOperation) {
    HandClock clock;
    uint64_t first = 0;
    {
        const MediaStep outer(core);
        first = core->now();
        clock.advanceUs(100);
        const Inner inner(std::in_place, core);
        EXPECT_EQ(first, core->now());
    }
    const MediaStep next(core);
    EXPECT_EQ(first + 100, core->now());
}

TEST_F(MediaStepOfABuffer, TheStreamGoesOnAndBeginsAnew) {
    const CoreGuard guard(*core);
    core->add_bytes(10);
    core->add_bytes(5);
    EXPECT_EQ(15U, core->m_byte_total);
    core->begin_stream(3);
    core->add_bytes(1);
    EXPECT_EQ(4U, core->m_byte_total);
}

}  // namespace
}  // namespace Orvex::Testing
