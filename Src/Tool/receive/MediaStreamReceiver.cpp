// CMediaStreamReceiver: its states, and the call of one tick.
#include <Reticor/MediaStreamReceiver.h>

#include <atomic>
#include <cstdint>

#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Infra/Time.h>
#include <Reticor/R3.h>

#include "Core/handle/ClassName.h"
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

const R3Command g_receiver_command(&r3StoreFlag<g_print>, "mediastreamreceiver", HELP_MEDIASTREAMRECEIVER);

}  // namespace

CMediaStreamReceiver::CMediaStreamReceiver() : m_state(new MediaReceiverState) {}

CMediaStreamReceiver::~CMediaStreamReceiver() {
    delete m_state;
}

void CMediaStreamReceiver::SetReceiveMode(receiver_mode mode) {
    m_state->m_mode.store(mode, std::memory_order_relaxed);
}

void CMediaStreamReceiver::WaitException(long id) {
    m_state->m_exception_id.store(id, std::memory_order_relaxed);
}

void CMediaStreamReceiver::SetFrameRate(unsigned int) {
    INFRA_LOG(3, "this interface SetFrameRate is discarded!!%s\n", __FILE__);
}

void CMediaStreamReceiver::StartReceive(long long start_offset, float speed) {
    Infra::CGuard guard(m_state->m_mutex);
    // Ahead of real time by a fixed amount of media makes sense at real time only.
    m_state->m_start_offset = speed == 1.0F ? start_offset : 0;
    m_state->m_speed = speed;
    m_state->m_first_time = MediaReceiverState::NOT_SEEN;
    switch (m_state->m_state.load(std::memory_order_relaxed)) {
        case RECEIVER_STOPPED:
            m_state->m_state.store(RECEIVER_RUNNING, std::memory_order_release);
            break;
        case RECEIVER_CREATED:
            if (ReceiverGroup::Add(this, m_state->m_mode.load(std::memory_order_relaxed) == receiver_write) !=
                0) {
                INFRA_LOG(2, "%s : Thread start failed.\n", INFRA_FUNCTION);
            } else {
                m_state->m_state.store(RECEIVER_RUNNING, std::memory_order_release);
            }
            break;
        default:
            INFRA_LOG(2, "%s : this receiver already started!\n", INFRA_FUNCTION);
    }
}

void CMediaStreamReceiver::StopReceive() {
    Infra::CGuard guard(m_state->m_mutex);
    if (m_state->m_state.load(std::memory_order_relaxed) == RECEIVER_RUNNING) {
        m_state->m_state.store(RECEIVER_STOPPED, std::memory_order_release);
    } else {
        INFRA_LOG(2, "%s : Can't stop a receiver not in running state!\n", INFRA_FUNCTION);
    }
}

void CMediaStreamReceiver::Close() {
    int32_t before = 0;
    {
        Infra::CGuard guard(m_state->m_mutex);
        before = m_state->m_state.exchange(RECEIVER_CLOSING, std::memory_order_acq_rel);
    }
    // From this store on the receiver's thread may end the object, unless it is on none.
    m_state->m_state.store(RECEIVER_CLOSED, std::memory_order_release);
    if (before == RECEIVER_CREATED) {
        __handle_timer_close();
    }
}

// After this the object may be gone.
void CMediaStreamReceiver::__handle_timer_close() {
    if (const long id = m_state->m_exception_id.load(std::memory_order_relaxed); id != 0) {
        Notify(id, MEDIA_RECEIVER_ENDED, 0);
    }
    CNetHandler::Close();
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

long long CMediaStreamReceiver::do_receive() {
    const bool printing = g_print.load(std::memory_order_relaxed) != 0;
    if (printing) {
        print("begin");
    }
    long long result = 0;
    switch (m_state->m_mode.load(std::memory_order_relaxed)) {
        case receiver_write:
            result = handle_stream_write();
            break;
        case receiver_active:
            result = handle_stream_input();
            break;
        default:
            if (!receive_paced(result)) {
                return 0;
            }
    }
    if (printing) {
        print("end");
    }
    const long id = m_state->m_exception_id.load(std::memory_order_relaxed);
    if (result < 0 && id != 0) {
        INFRA_LOG(3, "MediaStreamReceiver do_receive socket exception!\n");
        Notify(id, MEDIA_RECEIVER_FAILED, 0);
    }
    return result;
}

// Delivers what is due in this tick. False if the tick is skipped, or units that are not due yet follow those
// that were delivered.
bool CMediaStreamReceiver::receive_paced(long long& result) {
    for (int count = 1;; ++count) {
        // Without a sign, since a receiver that has nothing to deliver for ever counts down for ever.
        m_state->m_wait_ticks = static_cast<int32_t>(static_cast<uint32_t>(m_state->m_wait_ticks) - 1);
        if (m_state->m_wait_ticks > 0) {
            return false;
        }
        result = handle_passive_input();
        Infra::CGuard guard(m_state->m_mutex);
        if (result < 1 || m_state->m_state.load(std::memory_order_relaxed) != RECEIVER_RUNNING) {
            return true;
        }
        m_state->pace(result, Infra::CTime::getCurrentMicroSecond(), ReceiverGroup::PeriodUs());
        if (m_state->m_wait_ticks > 0 || count >= UNITS_PER_TICK) {
            result = 0;
            return true;
        }
    }
}

void CMediaStreamReceiver::print(const char* moment) {
    R3Printf("%s, object:%p, class:%s handle_stream_input %s at %ju us\n",
             "Orvex::Reticor::CMediaStreamReceiver::do_receive", static_cast<void*>(this),
             className(*this).c_str(), moment, static_cast<uintmax_t>(Infra::CTime::getCurrentMicroSecond()));
}

}  // namespace Orvex::Reticor
