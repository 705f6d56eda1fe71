// ReceiverStand: stream receivers on a thread object that never runs, whose ticks the test makes itself.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include <Reticor/MediaStreamReceiver.h>

#include "Core/record/EventFreeList.h"
#include "Tool/receive/MediaReceiverState.h"
#include "Tool/receive/ReceiverThread.h"
#include "support/HandClock.h"
#include "support/core/StillPool.h"

namespace Orvex::Reticor {

namespace ProbeDetail {

struct ReceiverState {
    using Type = MediaReceiverState* CMediaStreamReceiver::*;
    friend Type stateOf(ReceiverState);
};
template struct Named<ReceiverState, &CMediaStreamReceiver::m_state>;

}  // namespace ProbeDetail

struct ReceiverProbe {
    static MediaReceiverState& of(CMediaStreamReceiver& receiver) {
        return *(receiver.*stateOf(ProbeDetail::ReceiverState{}));
    }
    static int state(CMediaStreamReceiver& receiver) { return of(receiver).m_state.load(); }
};

struct ReceiverThreadProbe {
    static bool pass(CReceiverThread& thread) { return thread.pass(); }
    static int64_t nextDue(CReceiverThread& thread, uint64_t now_us) { return thread.next_due(now_us); }
    static void align(CReceiverThread& thread, uint64_t now_us) { thread.align(now_us); }
    static uint64_t base(CReceiverThread& thread) { return thread.m_base_time; }
    static uint64_t& tick(CReceiverThread& thread) { return thread.m_tick; }

    // Puts a receiver on the list without starting the thread, as one that was stopped.
    static void place(CReceiverThread& thread, CMediaStreamReceiver& receiver) {
        Infra::CGuard guard(thread.m_mutex);
        if (thread.m_tail != nullptr) {
            thread.m_tail->m_next = &ReceiverProbe::of(receiver);
        } else {
            thread.m_head = &ReceiverProbe::of(receiver);
        }
        thread.m_tail = &ReceiverProbe::of(receiver);
        ++thread.m_number;
        ReceiverProbe::of(receiver).m_state = RECEIVER_STOPPED;
    }

    static std::vector<CMediaStreamReceiver*> list(CReceiverThread& thread) {
        Infra::CGuard guard(thread.m_mutex);
        std::vector<CMediaStreamReceiver*> found;
        CPacedReceiver_IF* last = nullptr;
        for (CPacedReceiver_IF* one = thread.m_head; one != nullptr; one = one->m_next) {
            found.push_back(&static_cast<MediaReceiverState*>(one)->m_receiver);
            last = one;
        }
        EXPECT_EQ(last, thread.m_tail);
        EXPECT_EQ(thread.m_number, static_cast<int>(found.size()));
        return found;
    }
};

}  // namespace Orvex::Reticor

namespace Orvex::Testing {

// Outlives the receiver.
struct ReceiverLife {
    std::atomic<int> inputs{0};
    std::atomic<int> passives{0};
    std::atomic<int> writes{0};
    std::atomic<int> closes{0};
    int calls() const { return inputs + passives + writes; }
};

// Counts its calls, and can be given what to do in each; deletes itself in handle_close. The functions are
// set before it is started.
class TestReceiver : public Reticor::CMediaStreamReceiver {
public:
    const std::shared_ptr<ReceiverLife> life = std::make_shared<ReceiverLife>();
    std::function<int()> on_input;
    std::function<long long()> on_passive;
    std::function<int()> on_write;

    int handle_stream_input() override { return call(life->inputs, on_input); }
    long long handle_passive_input() override { return call(life->passives, on_passive); }
    int handle_stream_write() override { return call(life->writes, on_write); }
    int handle_close(Reticor::CNetHandler* self) override {
        const std::shared_ptr<ReceiverLife> kept = life;
        delete self;
        ++kept->closes;
        return 0;
    }

private:
    template <typename Result>
    static Result call(std::atomic<int>& count, const std::function<Result()>& function) {
        const Result result = function ? function() : 0;
        ++count;
        return result;
    }
};

class ReceiverStand : public ::testing::Test {
protected:
    static constexpr int64_t PERIOD_US = 20000;

    ~ReceiverStand() override {
        for (Reticor::CMediaStreamReceiver* receiver : Reticor::ReceiverThreadProbe::list(thread)) {
            receiver->Close();
        }
        Reticor::ReceiverThreadProbe::pass(thread);
        rig.close(waiter);
        serveAll();
    }

    // A receiver that is called with the next tick.
    TestReceiver* start(Reticor::receiver_mode mode, long long start_offset = 0, float speed = 1.0F) {
        auto* const receiver = new TestReceiver;
        receiver->SetReceiveMode(mode);
        receiver->WaitException(waiter->GetID());
        Reticor::ReceiverThreadProbe::place(thread, *receiver);
        receiver->StartReceive(start_offset, speed);
        return receiver;
    }

    // One tick, a period after the one before. False if the thread would end.
    bool tick() {
        const bool again = Reticor::ReceiverThreadProbe::pass(thread);
        clock.advanceUs(PERIOD_US);
        return again;
    }

    // Sender, receiver and number of what was sent by message.
    using Sent = std::tuple<long, long, unsigned int>;
    std::vector<Sent> messages() {
        std::vector<Sent> found;
        for (Reticor::CEvent* ev : rig.takeQueue()) {
            if (ev->m_key == Reticor::EVENT_KEY_MESSAGE && ev->m_obj_id != ev->m_receiver) {
                found.emplace_back(static_cast<long>(ev->m_obj_id), static_cast<long>(ev->m_receiver),
                                   ev->m_msg);
                EXPECT_EQ(0, ev->m_attach);
                Reticor::put_event(ev);
            } else {
                rig.serve(ev);
            }
        }
        return found;
    }

    void serveAll() {
        for (Reticor::CEvent* ev : rig.takeQueue()) {
            rig.serve(ev);
        }
    }

    StillPool rig{0};
    HandClock clock;
    Reticor::CReceiverThread thread{0, Reticor::CReceiverThread::FIRST_GROUP, 1, PERIOD_US};
    TestHandler* waiter = new TestHandler(0);
};

}  // namespace Orvex::Testing
