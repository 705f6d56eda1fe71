// CMediaStreamReceiver: its states, and its turn in each tick.
#include <Reticor/MediaStreamReceiver.h>

#include <atomic>
#include <cstdint>
#include <new>

#include <Infra/HeldLocks.h>
#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Infra/Time.h>
#include <Reticor/R3.h>

#include "Core/handle/CallMark.h"
#include "Core/handle/ClassName.h"
#include "Core/service/Message.h"
#include "R3/print/FuncBox.h"
#include "R3/print/HelpText.h"
#include "Tool/receive/MediaReceiverState.h"
#include "Tool/receive/ReceiverGroup.h"

namespace Orvex::Reticor {

namespace {

/// Units that a late receiver delivers in one tick at most.
constexpr int UNITS_PER_TICK = 8;

/// Whether receivers print when they are called; set by the command "mediastreamreceiver".
std::atomic<int32_t> g_print{0};

const R3Command g_receiver_command(&r3_store_flag<g_print>, "mediastreamreceiver", HELP_MEDIASTREAMRECEIVER);

/// The call of one tick by the name that its lines give it.
constexpr char DO_RECEIVE[] = "Orvex::Reticor::CMediaStreamReceiver::do_receive";

}  // namespace

/// A receiver on its thread's list.
class CMediaStreamReceiver::Turn final : public MediaReceiverState {
public:
    using MediaReceiverState::MediaReceiverState;

    void turn() override;
    void close() override;

private:
    bool receive_paced(long long& result);
    template <typename Result>
    Result marked(CallKind kind, Result (CMediaStreamReceiver::*call)()) {
        const LoneCallMark mark(m_receiver, kind);
        return (m_receiver.*call)();
    }
    void print(const char* moment);
    void tell_failure(long id);
};

void CMediaStreamReceiver::Turn::turn() {
    const bool printing = g_print.load(std::memory_order_relaxed) != 0;
    if (printing) {
        print("begin");
    }
    long long result = 0;
    switch (m_mode.load(std::memory_order_relaxed)) {
        case receiver_write:
            INFRA_PROMISE(HANDLER);
            m_calls.Increment();
            result = marked(CallKind::STREAM_WRITE, &CMediaStreamReceiver::handle_stream_write);
            break;
        case receiver_active:
            INFRA_PROMISE(HANDLER);
            m_calls.Increment();
            result = marked(CallKind::STREAM_INPUT, &CMediaStreamReceiver::handle_stream_input);
            break;
        default:
            if (!receive_paced(result)) {
                return;
            }
    }
    if (printing) {
        print("end");
    }
    const long id = m_exception_id.load(std::memory_order_relaxed);
    if (result < 0 && id != 0) {
        tell_failure(id);
    }
}

// The receiver may be gone after its Close.
void CMediaStreamReceiver::Turn::close() {
    CMediaStreamReceiver& receiver = m_receiver;
    if (const long id = m_exception_id.load(std::memory_order_relaxed); id != 0) {
        CMessage::Tell(receiver.GetID(), id, MEDIA_RECEIVER_ENDED, 0);
    }
    receiver.CNetHandler::Close();
}

// Delivers what is due in this tick. False if the tick is skipped.
bool CMediaStreamReceiver::Turn::receive_paced(long long& result) {
    for (int count = 1;; ++count) {
        // Without a sign, since a receiver that has nothing to deliver for ever counts down for ever.
        m_wait_ticks = static_cast<int32_t>(static_cast<uint32_t>(m_wait_ticks) - 1);
        if (m_wait_ticks > 0) {
            return false;
        }
        m_calls.Increment();
        result = marked(CallKind::PASSIVE_INPUT, &CMediaStreamReceiver::handle_passive_input);
        Infra::CGuard guard(m_mutex);
        if (result < 1 || m_state.load(std::memory_order_relaxed) != RECEIVER_RUNNING) {
            return true;
        }
        pace(result, Infra::CTime::getCurrentMicroSecond(), ReceiverGroup::PeriodUs());
        if (m_wait_ticks > 0 || count >= UNITS_PER_TICK) {
            result = 0;
            return true;
        }
    }
}

void CMediaStreamReceiver::Turn::print(const char* moment) {
    R3Printf("%s, object:%p, class:%s handle_stream_input %s at %ju us\n", DO_RECEIVE,
             static_cast<void*>(&m_receiver), class_name(m_receiver).c_str(), moment,
             static_cast<uintmax_t>(Infra::CTime::getCurrentMicroSecond()));
}

// The line is the receiver's, though it is written here.
void CMediaStreamReceiver::Turn::tell_failure(long id) {
    if (Infra::logEnabled(3)) {
        Infra::Detail::logMember(3, __FILE__, DO_RECEIVE, __LINE__, &m_receiver,
                                 "MediaStreamReceiver do_receive socket exception!\n");
    }
    CMessage::Tell(m_receiver.GetID(), id, MEDIA_RECEIVER_FAILED, 0);
}

// Without memory for either part it is a handler that cannot be started.
CMediaStreamReceiver::CMediaStreamReceiver()
    : m_state(GetID() != 0 ? new (std::nothrow) Turn(*this) : nullptr) {
    if (m_state != nullptr) {
        m_state->m_roll.enter(GetID());
    } else if (GetID() != 0) {
        INFRA_LOG(2, "%s : no memory, it cannot be started!\n", INFRA_FUNCTION);
    }
}

CMediaStreamReceiver::~CMediaStreamReceiver() {
    delete m_state;
}

void CMediaStreamReceiver::SetReceiveMode(receiver_mode mode) {
    if (m_state != nullptr) {
        m_state->m_mode.store(mode, std::memory_order_relaxed);
    }
}

void CMediaStreamReceiver::WaitException(long id) {
    if (m_state != nullptr) {
        m_state->m_exception_id.store(id, std::memory_order_relaxed);
    }
}

void CMediaStreamReceiver::SetFrameRate(unsigned int) {
    INFRA_LOG(3, "this interface SetFrameRate is discarded!!%s\n", __FILE__);
}

int CMediaStreamReceiver::StartReceive(long long start_offset, float speed) {
    if (m_state == nullptr) {
        INFRA_LOG(2, "%s : Thread start failed.\n", INFRA_FUNCTION);
        return -1;
    }
    Infra::CGuard guard(m_state->m_mutex);
    // Ahead of real time by a fixed amount of media makes sense at real time only.
    m_state->m_start_offset = speed == 1.0F ? start_offset : 0;
    m_state->m_speed = speed;
    m_state->m_first_time = MediaReceiverState::NOT_SEEN;
    switch (m_state->m_state.load(std::memory_order_relaxed)) {
        case RECEIVER_STOPPED:
            m_state->m_state.store(RECEIVER_RUNNING, std::memory_order_release);
            return 0;
        case RECEIVER_CREATED:
            if (ReceiverGroup::Add(m_state,
                                   m_state->m_mode.load(std::memory_order_relaxed) == receiver_write) != 0) {
                INFRA_LOG(2, "%s : Thread start failed.\n", INFRA_FUNCTION);
                return -1;
            }
            m_state->m_state.store(RECEIVER_RUNNING, std::memory_order_release);
            return 0;
        default:
            INFRA_LOG(2, "%s : this receiver already started!\n", INFRA_FUNCTION);
            return -1;
    }
}

void CMediaStreamReceiver::StopReceive() {
    if (m_state == nullptr) {
        INFRA_LOG(2, "%s : Can't stop a receiver not in running state!\n", INFRA_FUNCTION);
        return;
    }
    Infra::CGuard guard(m_state->m_mutex);
    if (m_state->m_state.load(std::memory_order_relaxed) == RECEIVER_RUNNING) {
        m_state->m_state.store(RECEIVER_STOPPED, std::memory_order_release);
    } else {
        INFRA_LOG(2, "%s : Can't stop a receiver not in running state!\n", INFRA_FUNCTION);
    }
}

void CMediaStreamReceiver::Close() {
    if (m_state == nullptr) {
        CNetHandler::Close();
        return;
    }
    int32_t before = 0;
    {
        Infra::CGuard guard(m_state->m_mutex);
        before = m_state->m_state.exchange(RECEIVER_CLOSING, std::memory_order_acq_rel);
    }
    // From this store on the receiver's thread may end the object, unless it is on none.
    m_state->m_state.store(RECEIVER_CLOSED, std::memory_order_release);
    if (before == RECEIVER_CREATED) {
        m_state->close();
    }
}

int CMediaStreamReceiver::handle_stream_input() {
    return -1;
}

long long CMediaStreamReceiver::handle_passive_input() {
    return -1;
}

int CMediaStreamReceiver::handle_stream_write() {
    return -1;
}

}  // namespace Orvex::Reticor
